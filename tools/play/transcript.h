// What a play shows: a transcript of calls with what followed from each, and a summary.

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <ostream>
#include <span>
#include <string>
#include <utility>

#include "host/desktop.h"
#include "tools/account/step.h"
#include "tools/base/finding.h"
#include "tools/session/session.h"

namespace tools {

class Transcript {
  public:
    virtual ~Transcript() = default;
    // A line of the session that is no call.
    virtual void Show(const Line& line, uint32_t number) = 0;
    // A step, and what the platform saw of it.
    void Show(const Step& step, std::span<const desktop::Effect> effects);
    // What is wrong or surprising about the input `file`; empty: about none in particular.
    virtual void Show(const Finding& finding, const std::string& file) = 0;
    // What has become of all events up to here.
    virtual void ShowSummary() = 0;

  protected:
    // How often what became of which kind of event.
    using Counts = std::map<std::pair<EventKind, Outcome>, int64_t>;

    virtual void ShowStep(const Step& step, std::span<const desktop::Effect> effects,
                          const Counts& counts) = 0;
    const Counts& Total() const { return total; }

  private:
    Counts total;
};

// For people. Quiet: the summary alone. `withDebug`: log lines and counters too. Findings are not
// shown: people find them on standard error.
std::unique_ptr<Transcript> MakeTextTranscript(std::ostream& out, bool isQuiet, bool withDebug);

// For programs: JSON objects, one a line; the summary is the last. Times are milliseconds since the
// session's beginning.
std::unique_ptr<Transcript> MakeJsonTranscript(std::ostream& out, bool isQuiet, bool withDebug);

}  // namespace tools
