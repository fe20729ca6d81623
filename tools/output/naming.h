// What all outputs share: how scenes, stages, frames and places are called, and what of them is
// shown.

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tools/base/text.h"
#include "tools/sched/scheduling.h"

namespace tools {

// "scene 2: 3840 wide, 60 fps, process 1234, cameras 0 and 2". `scene`: from 0.
std::string TitleOf(const Account& account, size_t scene);

// "Scene 2: 3840 wide, ..., lasted 9.983 s", or why it is not known how long it lasted.
std::string HeadingOf(const Account& account, size_t scene);

// "capture.log: 600 lines, 550 of them the library's, from ... to ...", and the scheduler trace, in
// lines. `scheduling`: null where there is none.
std::string CaptureOf(const Account& account, const Scheduling* scheduling);

// What became of a scene's frames, and how many came late, in lines.
std::string SummaryOf(const JudgedScene& scene);

// "stage 1, MCTFE0_cam".
std::string StageTitleOf(const Scene& scene, size_t stage);

struct CaptionedTable {
    std::string caption;
    Rows rows;
};

// The times that frames of a scene took, and what of: latency, output interval, and for each stage
// all of its time, and waiting and work apart where frames waited. In milliseconds.
CaptionedTable FigureTableOf(const Account& account, const JudgedScene& scene);

// "capture.log:17", or "line 17" of the only input; empty for nowhere.
std::string ToString(const Account& account, const Place& place);

using Json = nlohmann::ordered_json;
// Milliseconds such as 16.667 or 17.0; null where the time is not known.
Json Milliseconds(Micros time);

// What became of a frame, in a few words: "complete, late", "open, never out".
std::string WordsOf(const Fate& fate);

// Why a frame is not complete; empty for a complete one.
std::string DescriptionOf(const Fate& fate);

// When a frame went: when it was ended or pushed out, when it came out where the library did not
// have it, else as long as the scene is known to have gone on.
Micros GoneOf(const JudgedScene& scene, size_t row);

// How many frames were in flight from each time on.
std::map<Micros, int64_t> InFlightOf(const JudgedScene& scene);

// How many frames came out a second, on average; 0 where that is not known.
double RateOf(const JudgedScene& scene);

// What each thread of a scene did, and for how long all of them waited for a CPU in each period.
// Nothing where the scene has no threads. `scheduling`: null where there is no scheduler trace.
std::vector<CaptionedTable> ThreadTablesOf(const Scheduling* scheduling, size_t scene);

// A thread to draw for a scene: one of the pipeline's, below the first of its stages, or one that
// kept a late frame waiting, below stage -1.
struct DrawnThread {
    int32_t stage;
    const SchedThread& thread;
    StateSpans awake;  // When it did not sleep: it ran, was runnable, blocked or stopped.
};
// `span`: of the scene. `scheduling`: null where there is no scheduler trace.
std::vector<DrawnThread> DrawnThreadsOf(const Account& account, const Scheduling* scheduling,
                                        size_t scene, Span span);

// Which frames a table shows: those that are not complete, or late, unless others are asked for.
struct Shown {
    bool isAll = false;
    std::optional<std::pair<int64_t, int64_t>> range;  // The first and the last number.
    bool Has(const JudgedScene& scene, size_t row) const;
};

// All findings, worst first: with their scene, if there is one, and their position among its own.
struct PlacedFinding {
    const SceneFinding* finding;
    std::optional<size_t> scene;
    size_t number;
};
std::vector<PlacedFinding> FindingsOf(const Account& account);

// A configuration, and all processes that loaded it.
struct SharedConfiguration : LoadedConfiguration {
    std::set<int32_t> processes;
    std::string title;  // "Configuration of processes 1000 and 1010", where there are several.
};

// Configurations that are the same, as far as is known, are one.
std::vector<SharedConfiguration> ConfigurationsOf(const Account& account);

// `configuration` with what is known of `other` alone, as a log does not hold everything.
Configuration Completed(Configuration configuration, const Configuration& other);

// The bytes in zlib's form. `level`: zlib's, from 1, which is quick; -1 for its default.
std::string Packed(const std::string& bytes, int level = -1);

}  // namespace tools
