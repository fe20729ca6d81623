// What the checker finds in configurations, and the table that it shows.

#include <random>

#include "tests/support/expect_abort.h"
#include "tests/support/library_test.h"
#include "tests/support/same_table.h"

namespace {

using Texts = std::vector<const char*>;

class CheckTest : public LibraryTest {
  protected:
    std::string AnyOf(const Texts& texts) { return texts[random() % texts.size()]; }

    bool Once(uint32_t in) { return random() % in == 0; }

    // A configuration with any mistakes, seldom many at once.
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
            return toml + AnyOf({"", "stage = 1\n", "stage = {}\n", "[[x]]\n", "stage =\n"});
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

// Compared with what the library does about each node.
TEST_F(CheckTest, SaysWhatReportedNodesLeadTo) {
    const auto checked = tools::CheckConfiguration(
        WithStages("0=['Sensor','1']\n1=['Tone','3']\n2=['ToneMapper','4']\n3=['Enc','5']\n"));
    std::vector<tools::Finding> findings;
    auto nodes = tools::ReadNodes(
        "Sensor0 1 1 # two sensors\n\nSensor1 1 1\n\"tone mapper\" 3 1\nToneMapper 3 1\n"
        "Enc 5 0\nEnc 9 1\nEnc 5\n\"Enc\nEnc 5 -1\nEnc 5x 1\n",
        findings);
    const auto found = CheckNodes(checked.table, nodes);
    findings.insert(findings.end(), found.begin(), found.end());
    std::string places;
    for (const tools::Finding& finding : findings) {
        places += finding.check + " " + std::to_string(finding.place.line) + "; ";
    }
    EXPECT_EQ(places,
              "unreadable 8; unreadable 9; unreadable 10; unreadable 11; hit-twice 3; near-miss 4; "
              "port-through-other-stage 5; stage-not-hit 0; stage-not-hit 0; ");
    ASSERT_EQ(nodes.size(), 6U);

    Configure(tools::ToToml(checked.table));
    for (const tools::ReportedNode& node : nodes) {
        TarvoCameraFrameBoost boost;
        StartScene(boost);
        boost.TcfbtNotifyFrameStart(1);
        for (int32_t stage = 0; stage < node.stage; ++stage) {
            boost.TcfbtNotifyStageStart(stage, 1, 0, 0, "");
            boost.TcfbtNotifyStageEnd(stage, 1, "");
        }
        boost.TcfbtNotifyStageStart(std::max(node.stage, 0), 1, 0, 0, "");
        recorder.Take();
        boost.TcfbtNotifyNodeEnd(1, node.node, node.port, 0, true);
        const std::string expected =
            node.stage == -1 ? "" : "StageEnd 1/" + std::to_string(node.stage);
        EXPECT_EQ(Calls().substr(0, 12), expected) << node.node;
    }
}

}  // namespace
