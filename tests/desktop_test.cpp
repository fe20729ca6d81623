// The desktop platform: how it reads properties and configurations.

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
    EXPECT_EQ(GetLocaleKeyCount("TarvoCameraFrameBoostConfig", "stage"), 0)
        << "the store serves nothing then";
    EXPECT_EQ(desktop::LoadConfigurationFile("/"), "/:1: cannot be read");
}

}  // namespace
