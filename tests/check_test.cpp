// What the checker finds in configurations, and the table that it shows.

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "tests/support/expect_abort.h"
#include "tests/support/library_test.h"
#include "tests/support/same_table.h"
#include "tools/check/report.h"

namespace {

using Texts = std::vector<const char*>;

class CheckTest : public LibraryTest {
  protected:
    static std::string ReadFile(const std::filesystem::path& path) {
        std::stringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }

    std::string AnyOf(const Texts& texts) { return texts[random() % texts.size()]; }

    bool Once(uint32_t in) { return random() % in == 0; }

    // One that may be wrong in any way, but seldom in many at once.
    std::string AnyConfiguration() {
        std::string toml = Once(30) ? "" : "[TarvoCameraFrameBoostConfig]\n";
        toml += "cameraFrameBoostEnable = " + AnyOf({"true", "true", "true", "false", "1"}) + "\n";
        toml += "additionalSupportedWidth = " +
                AnyOf({"4096", "0", "-1", "2147483647", "2147483648", "4096.0", "'4096'"}) + "\n";
        toml += Once(10) ? "SupportOperationModeList = 5\n" : "SupportOperationModeList = [";
        for (uint32_t i = random() % 4; i > 0 && toml.back() != '\n'; --i) {
            toml += AnyOf({"5, ", "9, ", "-5, ", "4294967295, ", "0x100000005, "}) +
                    (Once(20) ? AnyOf({"'a', ", "1.5, "}) : "");
        }
        toml += toml.back() == '\n' ? "" : "]\n";
        if (Once(20)) {
            return toml + AnyOf({"", "stage = 1\n", "stage = {}\n", "[[x]]\n"});
        }
        toml += toml[0] == '[' ? "[TarvoCameraFrameBoostConfig.stage]\n" : "";
        for (const char* stage : {"0", "1", "2", "3", "04", "foo", "-1", "99999999999999999999"}) {
            if (Once(stage[1] == '\0' ? 10 : 2)) {
                continue;
            }
            toml += std::string(stage) + " = ";
            toml += Once(20) ? AnyOf({"[]", "1", "[[]]", "{}"}) : AnyList();
            toml += '\n';
        }
        return toml;
    }

    std::string AnyList() {
        std::string list =
            "[" + (Once(30) ? "7" : AnyOf({"'A'", "'AB'", "'B'", "''", "\"A\\u0000B\"", "' A'"}));
        for (uint32_t i = random() % 4; i > 0; --i) {
            list += ", ";
            list += Once(20) ? AnyOf({"''", "'x1'", "'2147483648'", "99999999999", "'-'", "1.5"})
                             : AnyOf({"'1'", "2", "'3x'", "' 4'", "'0x10'", "'-1'", "'+7'", "'5,6'",
                                      "\"8\\u0000\""});
        }
        return list + "]";
    }

    std::mt19937 random{1};
};

TEST_F(CheckTest, ShowsTheTableThatTheLibraryLoads) {
    int ending = 0;
    for (int i = 0; i < 4000; ++i) {
        const std::string toml = AnyConfiguration();
        SCOPED_TRACE(toml);
        if (!tools::CheckConfiguration(toml).endsProcess) {
            ASSERT_EQ(Difference(toml, {"", "A", "B", "7", "xABx", "B A"}), "");
        } else if (++ending % 30 == 1) {
            ASSERT_FALSE(desktop::LoadConfiguration(toml, "test.toml"));
            ExpectAbort([] { LocalConfig(); });
        }
    }
    EXPECT_GT(ending, 100);
}

// Each is called like what it raises, and raises nothing else.
TEST_F(CheckTest, FindsWhatEachConfigurationIsAnExampleOf) {
    Lines checks;
    for (const auto& entry : std::filesystem::directory_iterator(CONFIGURATIONS_DIRECTORY)) {
        const std::string name = entry.path().stem();
        const auto checked = tools::CheckConfiguration(ReadFile(entry.path()));
        ASSERT_EQ(checked.findings.size(), 1U) << name;
        EXPECT_EQ(checked.findings[0].check, name);
        EXPECT_NE(checked.findings[0].place.line, 0U) << name;
        EXPECT_EQ(checked.endsProcess, name == "port-not-a-number");
        EXPECT_EQ(checked.isReadable, name != "unreadable");
        checks.push_back(name);
    }
    EXPECT_EQ(checks.size(), 24U);
    for (const auto& finding : tools::CheckConfiguration(ReadFile(SAMPLE_CONFIGURATION)).findings) {
        EXPECT_EQ(finding.severity, tools::Severity::Note) << finding.message;
    }
}

TEST_F(CheckTest, SaysWhereAndWhat) {
    const auto checked = tools::CheckConfiguration(
        "[TarvoCameraFrameBoostConfig]\n"
        "cameraFrameBoostEnable = true\n"
        "SupportOperationModeList = [0xFFFF8001]\n"
        "stage = {0 = ['\u00FC', '1', 'x'], \"\\u001B\" = [],\r\n"
        "1 = ['Tone', '0x10', ' 2'], 2 = ['ToneMapper']}\r\n");
    std::ostringstream text;
    for (const tools::Finding& finding : checked.findings) {
        text << ToString(finding, "x.toml").substr(0, 75) << '\n';
    }
    EXPECT_EQ(text.str(), "");
    text.str("");
    tools::WriteTable(text, "x.toml", checked);
    EXPECT_EQ(text.str(), "");
}

}  // namespace
