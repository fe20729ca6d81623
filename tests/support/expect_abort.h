// Expects that the process aborts, without an exception that could be caught.

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
