// What a capture, explained, is written as. Whether the stream took it all is for the caller to
// check.

#pragma once

#include <memory>
#include <ostream>
#include <vector>

#include "tools/output/naming.h"
#include "tools/sched/scheduling.h"

namespace tools {

// All that outputs show.
struct Explained {
    Account account;
    std::unique_ptr<Scheduling> scheduling{};  // Null where there is no scheduler trace.
    // Where the capture is one recording: how its clock and the account's times go together. Empty
    // for other captures, and where nothing ties them.
    std::vector<Knot> clocks{};
    Shown shown{};  // Of the frames, in text and trace.
};

using Writer = void(std::ostream& out, const Explained& explained);

// Text for people: what was captured, the configuration, and for each scene findings, figures and
// frames.
Writer WriteText;

// One object, on a line each of its scenes' and findings' values; times in milliseconds.
// docs/account.schema.json says what is in it, and what may change.
Writer WriteJson;

// A row a frame, after one with the columns' names. Times are in milliseconds from the scene's
// start; what is not known is empty. With a scheduler trace there are more of them for each stage.
Writer WriteCsv;

// A page to look at: one file that takes nothing but a browser.
Writer WritePage;

// A trace for ui.perfetto.dev, in Perfetto's own form. Written track by track.
//
// A scene is a group of tracks: findings, when frames were expected and when they came out, how
// many were in flight, the interval between outputs, and the stages. Frames that something happened
// to say all that is known of them, and have arrows from stage to stage, as have those beside them.
//
// With a scheduler trace each stage has the threads that kept a late frame waiting, with arrows to
// the frame, and what its own threads did. A recording, which the trace goes behind, has threads
// itself.
//
// A range of frames to show is a part, which has all of that for all of its frames, and nothing
// from before or after it.
Writer WriteTrace;

// The files that explain writes beside what it shows, with their options.
struct FileForm {
    Writer* write;
    const char* option;
    const char* help;
    bool isOfOne;  // It shows one capture, and a comparison has two.
};
inline constexpr FileForm FILE_FORMS[] = {
    {WriteCsv, "--to-csv", "Write a table here, a row for each frame", false},
    {WritePage, "--to-html",
     "Write a page for a browser: findings, figures and frames, in one file", true},
    {WriteTrace, "--to-trace",
     "Write a trace for ui.perfetto.dev: tracks of frames, stages and findings; of a recording, "
     "all of it with these tracks added",
     true},
};

// Figures of both side by side, what differs in their configurations, and the findings that came
// and went. Stages and findings are matched by their nodes.
void WriteComparison(std::ostream& out, const Explained& before, const Explained& after);

// The kinds of findings: what each means, and what to do, as a table in Markdown.
void WriteKinds(std::ostream& out);

// The page's section with the data that page.js draws; nothing where no scene has times.
void WriteTimeline(std::ostream& out, const Account& account, const Scheduling* scheduling);

}  // namespace tools
