// Expects that the process aborts, and that nobody could have caught it.

#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>

template <typename Action>
void ExpectAbort(Action action) {
    EXPECT_EXIT(
        {
            try {
                action();
            } catch (...) {
            }
            std::_Exit(0);
        },
        testing::KilledBySignal(SIGABRT), "");
}
