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

// Loads, plays, unloads. The log lines of loading stay in `log`, what was played comes back.
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
    const std::string on = SECTION + "cameraFrameBoostEnable = true\n";
    const std::string modes = on + "SupportOperationModeList = [3, 4]\n";
    struct {
        std::string config;
        int32_t mode;
        int32_t played;
        size_t logLines;
    } const cases[] = {
        {"", 3, -1, 2},
        {on, 3, -1, 2},
        {modes, 3, 0, 2},
        {modes, 5, -1, 2},
        {modes + "stage = {0=['A','1']}\n", 4, 1, 3},
        {modes + "stage = {0=['A','1'],1=['B','2'],3=['C']}\n", 4, 3, 4},
    };
    Lines log;
    for (const char* debug : {"false", "true", "off", "1"}) {
        desktop::SetProperty("vendor.tarvo.camera.frameboost.debug.enable", debug);
        const bool isOn = std::string("true1").find(debug) != std::string::npos;
        for (const auto& [config, mode, played, logLines] : cases) {
            desktop::LoadConfiguration(config, "test.toml");
            EXPECT_EQ(LoadAndPlay(mode, log), played) << config;
            EXPECT_EQ(log.size(), isOn ? logLines : 0) << config;
        }
    }
    EXPECT_EQ(log.front(), "tarvocameraframeboostutils.cpp 186:DumpConfig() frameboost enable = 1");
}

TEST(LoadTest, EndsTheProcessOnAMalformedPortAndNobodyCatchesThat) {
    desktop::LoadConfiguration(SECTION + "stage = {0 = ['N', 'port']}\n", "test.toml");
    // The header promises that dlopen throws nothing, so a direct call would end the process even
    // for what could be caught.
    void* (*volatile open)(const char*, int) = dlopen;
    ExpectAbort([&open] { open(LIBRARY, RTLD_NOW); });
}

}  // namespace
