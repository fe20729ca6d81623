// Texts and numbers as the page shows them.

#pragma once

#include <ostream>
#include <string>
#include <string_view>

#include "tools/base/times.h"

namespace tools {

// Text from a capture, or anything else that may hold what HTML takes for its own.
struct Escaped {
    std::string_view text;
};
std::ostream& operator<<(std::ostream& out, const Escaped& escaped);

// Milliseconds such as "16.667" or "17"; empty where the time is not known.
std::string ShortMilliseconds(Micros time);

}  // namespace tools
