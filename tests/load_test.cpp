// Loading and unloading the shared library, together with a module that uses it.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>
#include <variant>
#include <vector>

#include "host/desktop.h"
#include "tests/support/expect_abort.h"

namespace {

using Lines = std::vector<std::string>;

const std::string SECTION = "[TarvoCameraFrameBoostConfig]\n";

// Loads, plays, unloads. Puts the log lines of loading into `log` and returns what was played.
int32_t LoadAndPlay(int32_t mode, Lines& log) {
    desktop::Recorder recorder;
    void* module = dlopen(USER_MODULE, RTLD_NOW | RTLD_LOCAL);
    EXPECT_NE(module, nullptr);
    log.clear();
    for (const desktop::Effect& effect : recorder.Take()) {
        log.push_back(std::get<desktop::LogLine>(effect.event).text);
    }
    auto* play = reinterpret_cast<int32_t (*)(int32_t)>(dlsym(module, "PlayFirstFrame"));
    const int32_t played = play(mode);
    EXPECT_EQ(dlclose(module), 0);
    EXPECT_EQ(dlopen(LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr) << "it is still loaded";
    return played;
}

TEST(LoadTest, ReadsTheStoreAndTheSwitchAtEachLoad) {
    desktop::SetLogToStderr(false);
    const std::string full = SECTION +
                             "cameraFrameBoostEnable = true\n"
                             "SupportOperationModeList = [4]\n"
                             "stage = {0=['A','1'],1=['B','2'],3=['C']}\n";
    Lines log;
    for (const bool isOn : {false, true}) {
        desktop::SetProperty("vendor.tarvo.camera.frameboost.debug.enable", isOn ? "1" : "0");
        desktop::LoadConfiguration("", "test.toml");
        EXPECT_EQ(LoadAndPlay(4, log), -1);
        EXPECT_EQ(log.size(), isOn ? 2U : 0U);
        desktop::LoadConfiguration(full, "test.toml");
        EXPECT_EQ(LoadAndPlay(4, log), 3);
        EXPECT_EQ(log.size(), isOn ? 4U : 0U);
    }
    EXPECT_EQ(log.front(), "tarvocameraframeboostutils.cpp 186:DumpConfig() frameboost enable = 1");
}

TEST(LoadTest, EndsTheProcessOnAMalformedPortAndCannotBeCaught) {
    desktop::LoadConfiguration(SECTION + "stage = {0 = ['N', 'port']}\n", "test.toml");
    // dlopen is declared to throw nothing, so a direct call would end the process even for an
    // exception that could be caught.
    void* (*volatile open)(const char*, int) = dlopen;
    ExpectAbort([&open] { open(LIBRARY, RTLD_NOW); });
}

}  // namespace
