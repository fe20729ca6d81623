// What an account is written as. Whether the stream took it all is for the caller to check.
// `scheduling`: null where there is no scheduler trace.

#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <utility>

#include "tools/output/naming.h"
#include "tools/sched/scheduling.h"

namespace tools {

// Text for people: what was captured, the configuration, and for each scene findings, figures and
// frames.
void WriteText(std::ostream& out, const Account& account, const Shown& shown,
               const Scheduling* scheduling = nullptr);

// The kinds of findings: what each means, and what to do, as a table in Markdown.
void WriteKinds(std::ostream& out);

// Figures of both side by side, what differs in their configurations, and the findings that came
// and went. Stages and findings are matched by their nodes.
void WriteComparison(std::ostream& out, const Account& before, const Account& after,
                     const Scheduling* schedulingBefore = nullptr,
                     const Scheduling* schedulingAfter = nullptr);

// One object, on a line each of its scenes' and findings' values; times in milliseconds.
// docs/account.schema.json says what is in it, and what may change.
void WriteJson(std::ostream& out, const Account& account, const Scheduling* scheduling = nullptr);

// A row a frame, after one with the columns' names. Times are in milliseconds from the scene's
// start; what is not known is empty. With a scheduler trace there are more of them for each stage.
void WriteCsv(std::ostream& out, const Account& account, const Scheduling* scheduling = nullptr);

// A page to look at: one file that takes nothing but a browser. `title`: what was looked at, such
// as the capture's name.
void WritePage(std::ostream& out, const Account& account, const std::string& title,
               const Scheduling* scheduling = nullptr);

// Its section with the data that page.js draws; nothing where no scene has times.
void WriteTimeline(std::ostream& out, const Account& account, const Scheduling* scheduling);

// A trace for ui.perfetto.dev and other viewers of Chrome's JSON trace format.
//
// A scene is a process: a track for findings, one for its frames and one a stage, more where
// frames overlap, and counters. Time 0 is the beginning of the first scene. What is said of all
// frames is short; those that something happened to have arguments, and flows from stage to stage.
//
// With a scheduler trace the threads of each stage, and those that kept a late frame waiting, have
// tracks, too, which say when they ran and when they waited.
//
// `frames`: the first and the last number of a part, which has all of that for all of its frames,
// and nothing from before or after it. Written track by track.
void WriteTrace(std::ostream& out, const Account& account,
                const std::optional<std::pair<int64_t, int64_t>>& frames,
                const Scheduling* scheduling = nullptr);

}  // namespace tools
