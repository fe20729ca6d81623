// Prints what is wrong and aborts, which libFuzzer reports, when a condition does not hold.

#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

inline void Require(bool holds, const std::string& what) {
    if (!holds) {
        std::fprintf(stderr, "%s\n", what.c_str());
        std::abort();
    }
}
