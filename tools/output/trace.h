// The account as a trace for ui.perfetto.dev and other viewers of Chrome's JSON trace format.

#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <utility>

#include "tools/sched/scheduling.h"

namespace tools {

// A scene is a process: a track for findings, one for its frames as expected and one as they were,
// a track a stage, more where frames overlap in it, and counters. Time 0 is the beginning of the
// first scene. What is said of all frames is short; those that a finding is about or that were late
// have arguments, and they and their neighbours have flows from stage to stage.
//
// With a scheduler trace each stage has tracks of its threads, too, which say when they ran and
// when they waited, and arrows from what kept a late frame to its stage. `scheduling`: null without
// one.
//
// `frames`: the first and the last number of a part, which has all of that for all of its frames,
// and nothing from before or after it. Written track by track, those of threads in the order of
// time. Whether the stream took it all is for the caller to check.
void WriteTrace(std::ostream& out, const Account& account,
                const std::optional<std::pair<int64_t, int64_t>>& frames,
                const Scheduling* scheduling = nullptr);

}  // namespace tools
