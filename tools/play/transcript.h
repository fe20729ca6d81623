// What a play shows: a transcript of calls with what followed from each, and a summary.

#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string_view>
#include <utility>

#include "tools/play/player.h"
#include "tools/session/session.h"

namespace tools {

// How often each row of the summary, such as "frames started", and why it was not done; no reason:
// it was done.
using Counts = std::map<std::pair<std::string_view, std::string_view>, int64_t>;

class Transcript {
  public:
    // `quiet`: the summary alone is shown. `debug`: log lines and trace counters are shown, too.
    Transcript(std::ostream& stream, bool quiet, bool debug)
        : out(stream), isQuiet(quiet), withDebug(debug) {}
    // A line of the session that is no call.
    void Show(const Line& line);
    // A call, or the loading of the library.
    void Show(const Played& played);
    // What has become of everything up to here.
    void ShowSummary();

  private:
    void ShowCall(const Call& call, std::optional<int32_t> result);

    std::ostream& out;
    const bool isQuiet;
    const bool withDebug;
    Counts total;
};

}  // namespace tools
