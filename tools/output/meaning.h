// What findings and words mean, for people who have the page and not the guide. The guide to the
// field, docs/field.md, is built in and says it: there is no second text to keep in step.

#pragma once

#include <string_view>
#include <vector>

#include "tools/account/account.h"

namespace tools {

// In Markdown, for good.
struct Meaning {
    std::string_view what;    // Happened.
    std::string_view remedy;  // What to do about it.
};
Meaning MeaningOf(Check check);

// A word and what it means, in Markdown, for good.
struct Explanation {
    std::string_view term, text;
};
std::vector<Explanation> Words();

}  // namespace tools
