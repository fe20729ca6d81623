// Findings: what is to be said of the facts, from the whole of each scene at once.

#pragma once

#include "tools/account/account.h"

namespace tools {

struct JudgeOptions {
    double latePeriods = 1.5;  // An output interval of more frame periods than that is late.
    size_t toldOneByOne = 5;   // Findings of a kind in a scene. More become one.
};

// Fills what is worked out in an account that has its facts and `resolution`. May be called once
// for an account.
void Judge(Account& account, const JudgeOptions& options = {});

// Puts a scene's findings in their order, worst first, and makes one of more than so many of a
// kind.
void JoinFindings(Scene& scene, size_t toldOneByOne);

}  // namespace tools
