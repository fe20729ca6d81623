// What all tests of the library share: a platform that is set up for each test, and a text of
// everything that the library did to it.

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

inline const std::string THREE_STAGES =
    WithStages("0=['Sensor','1','2']\n1=['Filter','3']\n2=['Encoder','4']\n");

class LibraryTest : public testing::Test {
  protected:
    void SetUp() override {
        desktop::Reset();
        desktop::SetLogToStderr(false);
        TarvoCameraFrameBoost::persistTids.clear();
        TarvoCameraFrameBoost::tempTids.clear();
        Configure(THREE_STAGES);
    }

    // Loads the library's configuration again. Drops the effects of that.
    void Configure(const std::string& toml) {
        ASSERT_FALSE(desktop::LoadConfiguration(toml, "test.toml"));
        TarvoCameraFrameBoost::localConfig = LocalConfig();
        recorder.Take();
    }

    void SwitchDebugOn(uint64_t traceTags) {
        desktop::SetProperty("vendor.tarvo.camera.frameboost.debug.enable", "true");
        desktop::SetTraceTags(traceTags);
        TarvoCameraFrameBoost::localConfig = LocalConfig();
        recorder.Take();
    }

    // Everything since the last call, a line each. Tags and files read as "F" for the facade and
    // "U" for the other unit; where a line's number is that of its statement, it reads as "N".
    Lines Effects() {
        static const std::pair<std::regex, const char*> shorter[] = {
            {std::regex("^D cameraframeboost: tarvocameraframeboost.cpp "), "F "},
            {std::regex("^D tarvocameraframeboostutils: tarvocameraframeboostutils.cpp "), "U "},
            {std::regex("^F [1-9][0-9]*:(TcfbtNotify(Stage|Node))"), "F N:$1"},
        };
        Lines lines;
        for (const desktop::Effect& effect : recorder.Take()) {
            lines.push_back(
                std::visit([](const auto& event) { return ToString(event); }, effect.event));
            for (const auto& [pattern, replacement] : shorter) {
                lines.back() = std::regex_replace(lines.back(), pattern, replacement);
            }
        }
        return lines;
    }

    // The service calls since the last call, in one line and in short: "FrameStart 7" and so on,
    // values separated by slashes.
    std::string Calls() {
        static const std::pair<std::regex, const char*> shorter[] = {
            {std::regex("cfbt(Notify)?"), ""},       {std::regex("[a-zA-Z0-9]+="), ""},
            {std::regex("[)\\[\\]]"), ""},           {std::regex("\\("), " "},
            {std::regex("(\\d), (?=-?\\d)"), "$1/"},
        };
        std::string calls;
        for (std::string call : Effects()) {
            for (const auto& [pattern, replacement] : shorter) {
                call = std::regex_replace(call, pattern, replacement);
            }
            calls += (calls.empty() ? "" : "; ") + call;
        }
        return calls;
    }

    // Starts a scene. Drops the effects of that.
    void StartScene(TarvoCameraFrameBoost& boost) {
        boost.TcfbtSetSceneInfo(true, 3840, 60);
        ASSERT_EQ(boost.TcfbtNotifySceneStart(5), 0);
        recorder.Take();
    }

    desktop::Recorder recorder;
};
