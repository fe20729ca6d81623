// What all tests of the library share: a platform set up per test, and everything that the library
// did to it as lines of text.

#pragma once

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <variant>
#include <vector>

#include "cameraframeboost/tarvocameraframeboost.h"
#include "host/desktop.h"

using Lines = std::vector<std::string>;

// A configuration of `stages`, lines of a stage table, with modes 5 and 9 and width 4096.
inline std::string WithStages(const std::string& stages) {
    return "[TarvoCameraFrameBoostConfig]\n"
           "cameraFrameBoostEnable = true\n"
           "additionalSupportedWidth = 4096\n"
           "SupportOperationModeList = [5, 9]\n"
           "[TarvoCameraFrameBoostConfig.stage]\n" +
           stages;
}

inline const std::string THREE_STAGES = WithStages(
    "0 = ['Sensor', '1', '2']\n"
    "1 = ['Filter', '3']\n"
    "2 = ['Encoder', '4']\n");

inline const std::string DEBUG_PROPERTY = "vendor.tarvo.camera.frameboost.debug.enable";

class LibraryTest : public testing::Test {
  protected:
    void SetUp() override {
        desktop::Reset();
        desktop::SetLogToStderr(false);
        TarvoCameraFrameBoost::persistTids.clear();
        TarvoCameraFrameBoost::tempTids.clear();
        Configure(THREE_STAGES);
    }

    // Loads the library's configuration anew. Effects of that are dropped.
    void Configure(const std::string& toml) {
        const auto error = desktop::LoadConfiguration(toml, "test.toml");
        ASSERT_FALSE(error) << *error;
        TarvoCameraFrameBoost::localConfig = LocalConfig();
        recorder.Take();
    }

    void SwitchDebugOn(uint64_t traceTags) {
        desktop::SetProperty(DEBUG_PROPERTY, "true");
        desktop::SetTraceTags(traceTags);
        TarvoCameraFrameBoost::localConfig = LocalConfig();
        recorder.Take();
    }

    // Everything since the last call. Where a log line's number is that of its statement, it reads
    // as "N".
    Lines Effects() {
        static const std::regex ownNumber(" [1-9][0-9]*:(TcfbtNotify(Stage|Node))");
        Lines lines;
        for (const desktop::Effect& effect : recorder.Take()) {
            const std::string line =
                std::visit([](const auto& event) { return ToString(event); }, effect.event);
            lines.push_back(std::regex_replace(line, ownNumber, " N:$1"));
        }
        return lines;
    }

    // A facade with a started scene. Effects of that are dropped.
    void StartScene(TarvoCameraFrameBoost& boost) {
        boost.TcfbtSetSceneInfo(true, 3840, 60);
        ASSERT_EQ(boost.TcfbtNotifySceneStart(5), 0);
        recorder.Take();
    }

    desktop::Recorder recorder;
};
