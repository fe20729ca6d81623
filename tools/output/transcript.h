// What a play shows: a transcript of calls with what followed from each, and a summary.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "host/desktop.h"
#include "tools/session/session.h"

namespace tools {

// What is counted.
enum class Counter {
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
inline constexpr size_t COUNTERS = 11;

// What became of the events that the library saw, over one call or a whole play.
class Tally {
  public:
    // How often something happened, in all and for each reason where there is one to give.
    struct Count {
        int64_t total = 0;
        std::map<std::string, int64_t> reasons;
    };

    void Add(Counter counter, int64_t times = 1, const std::string& reason = "");
    void Add(const Tally& other);
    const Count& Get(Counter counter) const;

  private:
    std::array<Count, COUNTERS> counts;
};

// A call that was made, and all that came of it.
struct Played {
    size_t line;  // Of the session file, from 1.
    const Call& call;
    std::optional<int32_t> result;
    std::vector<desktop::Effect> effects;
    Tally tally;
};

// Where a play is shown.
class Report {
  public:
    virtual ~Report() = default;
    // What loading the library did, before the first call.
    virtual void ShowLoading(const std::vector<desktop::Effect>& effects) = 0;
    virtual void Show(const Comment& comment) = 0;
    virtual void Show(const Played& played) = 0;
    virtual void ShowSummary(const Tally& tally) = 0;
};

// For people. Quiet: the summary alone. `withDebug`: log lines and counters too.
std::unique_ptr<Report> MakeTextReport(std::ostream& out, bool isQuiet, bool withDebug);

// For programs: JSON objects, one a line; the summary is the last.
std::unique_ptr<Report> MakeJsonReport(std::ostream& out, bool isQuiet, bool withDebug);

}  // namespace tools
