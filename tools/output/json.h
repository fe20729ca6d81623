// The account for programs.

#pragma once

#include <ostream>

#include "tools/account/account.h"

namespace tools {

// One object, on a line each of its scenes' and findings' values; times in milliseconds. Whether
// the stream took it all is for the caller to check.
void WriteJson(std::ostream& out, const Account& account);

// A row a frame, after one with the columns' names. Times are in milliseconds from the scene's
// start; what is not known is empty.
void WriteCsv(std::ostream& out, const Account& account);

}  // namespace tools
