// Texts and numbers as the page shows them.

#pragma once

#include <ostream>
#include <string>
#include <string_view>

#include "tools/base/times.h"

namespace tools {

// Text from a capture, or anything else that may hold what HTML takes for its own. Characters that
// turn the direction of the text around them show as escapes such as \u202e.
struct Escaped {
    std::string_view text;
};
std::ostream& operator<<(std::ostream& out, const Escaped& escaped);

// The same for a name, or a message with names in it: whatever letters it has, what stands around
// it keeps its order.
struct Name {
    std::string_view text;
};
std::ostream& operator<<(std::ostream& out, const Name& name);

// Takes what stands before `end` off the front of `text`, and `end` with it; all where there is
// none.
std::string_view Take(std::string_view& text, std::string_view end);

// A line of Markdown: **bold**, `code`, and [links](to), of which the text is left, as there is
// nothing for them to lead to.
struct Markdown {
    std::string_view text;
};
std::ostream& operator<<(std::ostream& out, const Markdown& markdown);

// Milliseconds such as "16.667" or "17"; empty where the time is not known.
std::string ShortMilliseconds(Micros time);

// Seconds such as "12.345".
std::string Seconds(Micros time);

}  // namespace tools
