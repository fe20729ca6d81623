// The account for programs.

#pragma once

#include <ostream>

#include "tools/sched/scheduling.h"

namespace tools {

// One object, on a line each of its scenes' and findings' values; times in milliseconds.
// docs/account.schema.json says what is in it, and what may change. Whether the stream took it all
// is for the caller to check.
// `scheduling`: null where there is no scheduler trace.
void WriteJson(std::ostream& out, const Account& account, const Scheduling* scheduling = nullptr);

// A row a frame, after one with the columns' names. Times are in milliseconds from the scene's
// start; what is not known is empty. With a scheduler trace there are more of them for each stage.
void WriteCsv(std::ostream& out, const Account& account, const Scheduling* scheduling = nullptr);

}  // namespace tools
