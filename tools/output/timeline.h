// The part of the page that a script draws: the frames of all scenes, and their threads, as data.

#pragma once

#include <ostream>

#include "tools/sched/scheduling.h"

namespace tools {

// Writes a section with the data that page.js reads; nothing where no scene has times.
// `scheduling`: null where there is no scheduler trace.
void WriteTimeline(std::ostream& out, const Account& account,
                   const Scheduling* scheduling = nullptr);

}  // namespace tools
