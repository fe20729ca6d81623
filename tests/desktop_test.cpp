// The desktop platform, as far as people see it: log lines, properties, configurations.

#include <fstream>

#include "platform/config_store.h"
#include "platform/log.h"
#include "platform/properties.h"
#include "tests/support/library_test.h"

namespace {

class DesktopTest : public LibraryTest {};

TEST_F(DesktopTest, WritesLogLinesLikeLogcat) {
    desktop::SetLogToStderr(true);
    testing::internal::CaptureStderr();
    __android_log_print(ANDROID_LOG_DEBUG, "tag", "%s = %d", "value", 7);
    const std::string line = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(std::regex_match(
        line, std::regex("[0-1]\\d-[0-3]\\d [0-2]\\d:[0-5]\\d:[0-5]\\d\\.\\d{3} +\\d+ +\\d+ D "
                         "tag     : value = 7\n")))
        << line;
}

TEST_F(DesktopTest, ReadsPropertiesLikeAndroid) {
    const auto read = [](const std::string& value, int8_t otherwise) {
        desktop::SetProperty("p", value);
        return property_get_bool("p", otherwise);
    };
    for (const char* yes : {"1", "y", "yes", "on", "true"}) {
        EXPECT_EQ(read(yes, 0), 1) << yes;
    }
    for (const char* no : {"0", "n", "no", "off", "false"}) {
        EXPECT_EQ(read(no, 1), 0) << no;
    }
    for (const char* neither : {"", "TRUE", "2", "yess"}) {
        EXPECT_EQ(read(neither, 1), 1) << neither;
        EXPECT_EQ(read(neither, 0), 0) << neither;
    }
}

TEST_F(DesktopTest, SaysWhereAConfigurationIsBroken) {
    EXPECT_EQ(desktop::LoadConfiguration("a = 1\nb = = 2\n", "x.toml")->substr(0, 9), "x.toml:2:");
    EXPECT_EQ(desktop::LoadConfigurationFile("/no/such/file"), "/no/such/file:1: cannot be read");
    EXPECT_EQ(GetLocaleKeyCount("TarvoCameraFrameBoostConfig", "stage"), 0) << "empty by now";
    EXPECT_EQ(desktop::LoadConfigurationFile("/"), "/:1: cannot be read");

    const auto error = desktop::LoadConfiguration(
        "[TarvoCameraFrameBoostConfig]\n"
        "additionalSupportedWidth = 'wide'\n"
        "cameraFrameBoostEnable = 1\n"
        "SupportOperationModeList = [1, 'a']\n"
        "additionalSuportedWidth = 1\n"
        "[TarvoCameraFrameBoostConfig.stage]\n"
        "0 = ['A', '1x', 2]\n"
        "2 = ['B', 'port']\n"
        "02 = []\n",
        "x.toml");
    ASSERT_FALSE(error) << *error;
    Lines places;
    for (const std::string& finding : desktop::CheckConfiguration()) {
        places.push_back(finding.substr(0, finding.find(": ")));
    }
    std::sort(places.begin(), places.end());
    EXPECT_EQ(places, (Lines{"x.toml:2", "x.toml:3", "x.toml:4", "x.toml:5", "x.toml:8", "x.toml:9",
                             "x.toml:9"}));
    EXPECT_FALSE(desktop::LoadConfiguration(THREE_STAGES, "x.toml"));
    EXPECT_EQ(desktop::CheckConfiguration(), Lines{});
    desktop::Reset();
    EXPECT_EQ(desktop::CheckConfiguration(), Lines{}) << "the sample";
}

}  // namespace
