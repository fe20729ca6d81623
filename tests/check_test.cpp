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

// Each file has the name of its only finding.
TEST_F(CheckTest, FindsTheMistakeOfEachExample) {
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
        "stage = {0 = ['\u00FC', '1', 'x'], \"\\u001B\" = [], "
        "1 = ['Tone', '0x10', ' 2'], 2 = ['ToneMapper']}\r\n");
    const tools::CheckedFile file{"x.toml", checked, "", {}, {}};
    std::ostringstream text;
    tools::WriteText(text, file);
    EXPECT_EQ("\n" + text.str(), R"(
x.toml:4:26: error: port "x" of stage 0 does not start with a decimal number: the library ends the process while it is being loaded [port-not-a-number]
x.toml:4:32: error: stage key "\x1B" is never asked for, as stages are named 0, 1, 2 and so on: its list is not read, yet it counts as one of 4 stages, so no frame ever ends [unknown-key]
x.toml:4:60: error: port "0x10" of stage 1 is read as 0: ports are decimal [port-misread]
x.toml:4:60: note: stage 1 ends on any one of its 2 ports, which are alternatives. Where a frame comes out on two of them, the second is out of turn, and the frame is reported as an error [several-ports]
x.toml:4:68: note: port " 2" of stage 1 is read as 2 [port-misread]
x.toml:4:80: warning: node "ToneMapper" of stage 2 ends its stage on port 0, 2 too: stage 1 lists it, and its name, "Tone", occurs in this one [port-through-other-stage]

x.toml, as the library reads it:
  It ends the process. Without that:
  boosting         on
  accepted widths  3840, 0 (none is configured)
  operation modes  0xFFFF8001 (-32767)
  stages           4, 3 of them loaded

  stage  node          ports  names that match
  0      "\xC3\xBC"    1      *\xC3\xBC*
  1      "Tone"        0 2    *Tone*, but *ToneMapper* is stage 2's
  2      "ToneMapper"  none   *ToneMapper*
  A * stands for any text. Where several names match, the highest stage's counts.
)");
    std::ostringstream json;
    tools::WriteJson(json, {file, file});
    for (const char* part : {R"("line": 4,)", R"("column": 26,)", R"("severity": "error",)",
                             R"("check": "port-not-a-number",)", R"("tables": [)",
                             R"("hexadecimal": "0xFFFF8001")", R"("endsProcess": true,)"}) {
        EXPECT_NE(json.str().find(part), std::string::npos) << part;
    }
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
