// The part of the page that a script draws: the frames of all scenes, as data.

#pragma once

#include <ostream>

#include "tools/account/account.h"

namespace tools {

// Writes a section with the data that page.js reads; nothing where no scene has times.
void WriteTimeline(std::ostream& out, const Account& account);

}  // namespace tools
