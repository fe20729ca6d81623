// What a fuzzer does when something does not hold: says it and aborts, which makes it a finding.

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
