// What a play shows: a transcript of calls with what followed from each, and a summary.

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

#include "tools/base/finding.h"
#include "tools/play/player.h"
#include "tools/session/session.h"

namespace tools {

// What a transcript counts: a row of its summary each.
enum class Tally : uint8_t;

// How often what happened, and why it was not done; empty: it was.
using Counts = std::map<std::pair<Tally, std::string_view>, int64_t>;

class Transcript {
  public:
    // `quiet`: the summary alone is shown. `debug`: log lines and trace counters are shown, too.
    Transcript(std::ostream& stream, bool quiet, bool debug)
        : out(stream), isQuiet(quiet), withDebug(debug) {}
    virtual ~Transcript() = default;
    // A line of the session that is no call.
    virtual void Show(const Line& line, uint32_t number) = 0;
    // A call, or the loading of the library.
    void Show(const Played& played);
    // What is wrong or surprising about the input `file`; empty: about none in particular.
    virtual void Show(const Finding& finding, const std::string& file) = 0;
    // What has become of everything up to here.
    virtual void ShowSummary() = 0;

  protected:
    virtual void ShowPlayed(const Played& played, const Counts& counts) = 0;

    std::ostream& out;
    const bool isQuiet;
    const bool withDebug;
    Counts total;
};

// For people. Findings are not shown: people find them on standard error.
std::unique_ptr<Transcript> MakeTextTranscript(std::ostream& out, bool isQuiet, bool withDebug);

// For programs: JSON objects, one a line; the summary is the last. Times are milliseconds since the
// session's beginning.
std::unique_ptr<Transcript> MakeJsonTranscript(std::ostream& out, bool isQuiet, bool withDebug);

}  // namespace tools
