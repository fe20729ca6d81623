// Loading and unloading the shared library.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>
#include <variant>
#include <vector>

#include "host/desktop.h"
#include "tests/expect_abort.h"

namespace {

constexpr char SECTION[] = "[TarvoCameraFrameBoostConfig]\n";

std::vector<std::string> EffectsOfLoading() {
    desktop::Recorder recorder;
    void* library = dlopen(LIBRARY, RTLD_NOW | RTLD_LOCAL);
    EXPECT_NE(library, nullptr);
    EXPECT_EQ(dlclose(library), 0);
    EXPECT_EQ(dlopen(LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr) << "it is still loaded";
    std::vector<std::string> lines;
    for (const desktop::Effect& effect : recorder.Take()) {
        lines.push_back(std::get<desktop::LogLine>(effect.event).text);
    }
    return lines;
}

TEST(LoadTest, ReadsTheStoreAndTheSwitchAtEachLoad) {
    desktop::SetLogToStderr(false);
    EXPECT_TRUE(EffectsOfLoading().empty());
    desktop::SetProperty("vendor.tarvo.camera.frameboost.debug.enable", "1");
    EXPECT_EQ(EffectsOfLoading().size(), 7U) << "the sample configuration has five stages";
    desktop::LoadConfiguration(std::string(SECTION) + "SupportOperationModeList = [1]\n", "test");
    EXPECT_EQ(
        EffectsOfLoading(),
        (std::vector<std::string>{
            "tarvocameraframeboostutils.cpp 186:DumpConfig() frameboost enable = 0",
            "tarvocameraframeboostutils.cpp 194:DumpConfig() supportOperationModeList = 0x1"}));
    desktop::SetProperty("vendor.tarvo.camera.frameboost.debug.enable", "0");
    EXPECT_TRUE(EffectsOfLoading().empty());
}

TEST(LoadTest, EndsTheProcessOnAMalformedPortAndNobodyCatchesThat) {
    desktop::LoadConfiguration(std::string(SECTION) + "stage = {0 = ['N', 'port']}\n", "test");
    // The header promises that dlopen throws nothing, so a direct call would end the process even
    // for what could be caught.
    void* (*volatile open)(const char*, int) = dlopen;
    ExpectAbort([&open] { open(LIBRARY, RTLD_NOW); });
}

}  // namespace
