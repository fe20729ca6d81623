// Texts and numbers as the page shows them.

#pragma once

#include <ostream>
#include <string>
#include <string_view>

#include "tools/account/account.h"

namespace tools {

// Text from a capture, or anything else that may hold what HTML takes for its own.
struct Escaped {
    std::string_view text;
};
std::ostream& operator<<(std::ostream& out, const Escaped& escaped);

std::string Fixed(double value, int digits);
// Milliseconds such as "16.667" or "17"; empty where the time is not known.
std::string Milliseconds(Micros time);
// A moment since the beginning: "2.017 s", "12:30.5".
std::string Clock(Micros time);
// "1 frame", "2 frames".
std::string Counted(int64_t count, const char* unit);

}  // namespace tools
