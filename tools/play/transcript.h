// What a play shows: a transcript of calls with what followed from each, and a summary.

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <utility>

#include "tools/base/finding.h"
#include "tools/play/player.h"
#include "tools/session/session.h"

namespace tools {

// What a transcript counts: a row of its summary each.
enum class Tally : uint8_t {
    ScenesStarted,
    ScenesRefused,
    FramesStarted,
    FramesEnded,
    FramesEvicted,
    FrameStartsRefused,
    FrameEndsRefused,
    StageEventsForwarded,
    StageEventsRefused,
    NodeEndsIgnored,
    ErrorReports,
};

// Why something was not done.
enum class Refusal : uint8_t {
    None,  // It was.
    NoScene,
    NotDescribed,
    Disabled,
    RefusedByService,
    TooManyInFlight,
    NoStageOfNode,
    AlreadyInFlight,
    Gap,
    NotInFlight,
    FrameNotInFlight,
    FrameInError,
    NoSuchStage,
    OutOfOrder,
    StageOutOfTurn,
};

// How often what happened, and why.
using Counts = std::map<std::pair<Tally, Refusal>, int64_t>;

// What became of a call and of what it led to: from the library's log, the calls that the service
// saw and, where both are silent, from its result. A running scene's event that left nothing at all
// is of a frame in error. The library's debug switch must be on.
Counts CountsOf(const Played& played);

class Transcript {
  public:
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
