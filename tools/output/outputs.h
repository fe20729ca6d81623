// What an account is written as. Whether the stream took it all is for the caller to check.
// `scheduling`: null where there is no scheduler trace.

#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

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

// A trace for ui.perfetto.dev, in Perfetto's own form. Written track by track.
//
// A scene is a group of tracks: findings, when frames were expected and when they came out, how
// many were in flight, the interval between outputs, and the stages. Frames that something happened
// to say all that is known of them, and have arrows from stage to stage, as have those beside them.
//
// With a scheduler trace each stage has the threads that kept a late frame waiting, with arrows to
// the frame, and what its own threads did.
//
// `frames`: the first and the last number of a part, which has all of that for all of its frames,
// and nothing from before or after it.
//
// `clocks`: where the trace goes behind a recording of Perfetto's, which has the threads itself:
// how the recording's clock and the account's times go together.
void WriteTrace(std::ostream& out, const Account& account,
                const std::optional<std::pair<int64_t, int64_t>>& frames,
                const Scheduling* scheduling = nullptr, const std::vector<Knot>& clocks = {});

}  // namespace tools
