// The desktop platform, as far as people see it: properties, configurations.

#include "platform/config_store.h"
#include "platform/properties.h"
#include "tests/support/library_test.h"

namespace {

class DesktopTest : public LibraryTest {};

TEST_F(DesktopTest, ReadsPropertiesLikeAndroid) {
    const std::tuple<const char*, int, int> cases[] = {
        {"yes", 1, 1}, {"0", 0, 0}, {"TRUE", 0, 1}, {"", 0, 1}};
    for (const auto& [value, otherwiseNo, otherwiseYes] : cases) {
        desktop::SetProperty("p", value);
        EXPECT_EQ(property_get_bool("p", 0), otherwiseNo) << value;
        EXPECT_EQ(property_get_bool("p", 1), otherwiseYes) << value;
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
