// Replays: their transcripts, totals, times and captures, and errors in their input.

#include "tools/play/replay.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "tests/support/library_test.h"

namespace {

class ReplayTest : public testing::Test {
  protected:
    bool Play(const std::string& session) {
        out.str("");
        err.str("");
        return tools::Replay(options, {"test.session", session}, out,
                             [this](const std::string& line) { err << line << '\n'; });
    }

    void ExpectInOrder(std::initializer_list<const char*> texts) {
        size_t at = 0;
        for (const char* text : texts) {
            const size_t found = out.str().find(text, at);
            ASSERT_NE(found, std::string::npos) << text << "\nin\n" << out.str().substr(at);
            at = found;
        }
    }

    tools::ReplayOptions options;
    std::ostringstream out;
    std::ostringstream err;
};

const std::string SCENE =
    "TcfbtSetSceneInfo true 3840 60\n"
    "TcfbtNotifySceneStart 0x8001\n";

std::string Sessions(const std::string& file) {
    return std::string(SESSIONS_DIRECTORY) + "/" + file;
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path);
    EXPECT_TRUE(file) << path;
    return {std::istreambuf_iterator<char>(file), {}};
}

// With UPDATE_EXPECTED set, writes the expected transcripts anew.
TEST_F(ReplayTest, PlaysTheBundledSessionsAsExpected) {
    struct {
        const char* session;
        const char* config;
        bool withDebug;
        const char* expected;
    } const cases[] = {
        {"clean-recording", "", false, "clean-recording"},
        {"dropped-frame", "", false, "dropped-frame"},
        {"dropped-frame-recovered", "", false, "dropped-frame-recovered"},
        {"stages-out-of-order", "", false, "stages-out-of-order"},
        {"frame-never-ends", "", false, "frame-never-ends"},
        {"refused-scene", "", false, "refused-scene"},
        {"refused-scene", "switch-off.toml", false, "refused-scene-switched-off"},
        {"scenes-and-threads", "", true, "scenes-and-threads"},
        {"frames-and-stages", "", true, "frames-and-stages"},
        {"restart", "", false, "restart"},
        {"cameras-in-turn", "", false, "cameras-in-turn"},
        {"parallel-nodes", "", false, "parallel-nodes"},
        {"parallel-nodes", "parallel-nodes.toml", false, "parallel-nodes-configured"},
        {"preview-and-video", "", false, "preview-and-video"},
        {"thread-registration", "", false, "thread-registration"},
    };
    for (const auto& [session, config, withDebug, expected] : cases) {
        options.configuration.reset();
        if (*config != '\0') {
            options.configuration = {config, ReadFile(Sessions(config))};
        }
        options.withDebug = withDebug;
        const std::string text = ReadFile(Sessions(std::string(session) + ".session"));
        EXPECT_TRUE(Play(text)) << err.str();
        // Some log lines have the number of their source line, which may change.
        const std::string played = std::regex_replace(
            out.str(), std::regex(" [1-9][0-9]*:(TcfbtNotify(Stage|Node))"), " N:$1");
        const std::string path = std::string(EXPECTED_DIRECTORY) + "/" + expected + ".expected";
        if (std::getenv("UPDATE_EXPECTED") != nullptr) {  // NOLINT(concurrency-mt-unsafe)
            std::ofstream(path) << played;
        }
        EXPECT_EQ(played, ReadFile(path)) << session;

        if (withDebug) {
            // Without debugging the rest is the same.
            options.withDebug = false;
            EXPECT_TRUE(Play(text));
            EXPECT_EQ(out.str(), std::regex_replace(played, std::regex("      [Dc][^\n]*\n"), ""));
        }
    }
}

TEST_F(ReplayTest, RecordsFromTheNextFrameOrTheOneGiven) {
    EXPECT_TRUE(Play(SCENE + "PlayRecording 2\nPlayRecording 2\nPlayRecording 1 0x20\n"));
    ExpectInOrder({"cfbtFrameStart(frame=1)", "cfbtFrameEnd(frame=2)", "cfbtFrameEnd(frame=3)",
                   "cfbtFrameEnd(frame=4)", "halFrameNumber=31", "does not follow",
                   "halFrameNumber=32"});
}

TEST_F(ReplayTest, ShowsLogLinesAndCounters) {
    options.withDebug = true;
    EXPECT_TRUE(Play(SCENE + "ServiceStatus cfbtFrameStart 7\nTcfbtNotifyFrameStart 1\n" +
                     "ServiceStatus cfbtFrameStart 0\n" +
                     "# \xc3\xa4\x1b[2J\xc2\x9b\xff\nTcfbtNotifyFrameStart 2\n"));
    ExpectInOrder(
        {"      D tarvocameraframeboostutils: tarvocameraframeboostutils.cpp "
         "186:DumpConfig() frameboost enable = 1\n",
         "TcfbtNotifyFrameStart(halFrameNumber=1) = 1\n",
         "      counter TcfbtNotifyFrameStart = 1\n",
         "      D cameraframeboost: tarvocameraframeboost.cpp "
         "132:TcfbtNotifyFrameStart() halFrameNumber = 1\n",
         "    cfbtFrameStart(frame=1) = 7\n", "ServiceStatus cfbtFrameStart 0\n",
         "# \xc3\xa4?[2J?\xef\xbf\xbd\n", "TcfbtNotifyFrameStart(halFrameNumber=2) = 0\n"});
    EXPECT_TRUE(Play("TcfbtAddPersistTids \"a \\\"b\\\\ \xff\" -0x10\n"));
    ExpectInOrder({"TcfbtAddPersistTids(name=\"a \\\"b\\\\ \xef\xbf\xbd\", tid=-16)\n"});
}

// A capture has the lines that the library wrote, with the times of the session.
TEST_F(ReplayTest, WritesACaptureInTheSessionsTime) {
    std::ostringstream capture;
    options.log = &capture;
    options.withDebug = true;
    EXPECT_TRUE(Play("Wait 500\n" + SCENE + "PlayRecording 6\nWait 86400000.001\nDumpInfo\n"));
    std::string logged;
    std::istringstream lines(out.str());
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("      D ", 0) == 0) {
            logged += line.substr(6) + '\n';
        }
    }
    const std::regex prefix("\\d\\d-\\d\\d [0-9:.]{12}  1000  1000 (D [a-z]+) *(: )");
    EXPECT_EQ(std::regex_replace(capture.str(), prefix, "$1$2"), logged);
    out.str(capture.str());
    ExpectInOrder({"01-01 12:00:00.000  1000  1000 D", "DumpConfig()", "01-01 12:00:00.500",
                   "SceneStart()", "01-01 12:00:00.516", "StageEnd() halFrameNumber = 2, stage = 0",
                   "01-02 12:00:00.666", "DumpInfo()"});
}

// A session with errors is not played at all; all errors are reported.
TEST_F(ReplayTest, PlaysNothingOfABadSession) {
    EXPECT_FALSE(Play("# first\nDumpInfo\nDumpInfo 1\nx\n"));
    EXPECT_EQ(err.str().rfind("test.session:3: error: wrong number of values", 0), 0U) << err.str();
    EXPECT_NE(err.str().find("\ntest.session:4: error: \"x\" is not known"), std::string::npos);
    EXPECT_EQ(out.str(), "");
}

TEST_F(ReplayTest, ReportsErrorsInAConfiguration) {
    struct {
        std::string config;
        const char* message;
        bool isPlayed;
    } const cases[] = {
        {"stage = [", "config.toml:1:", false},
        {WithStages("0 = ['A', '1']\n1 = ['B', 'one']\n"), "[port-not-a-number]", false},
        {WithStages("0 = ['A', '1']\n1 = ['B', '1e3']\n"), "[port-misread]", true},
        {"[TarvoCameraFrameBoostConfig]\n", "test.session:1: error: stage 0", false},
        {WithStages("0 = ['AB', '1']\n1 = ['A', '1']\n"), "test.session:1: error: stage 0", false},
        {WithStages("0 = ['A']\n"), "test.session:1: error: stage 0", false},
    };
    for (const auto& [config, message, isPlayed] : cases) {
        options.configuration = {"config.toml", config};
        EXPECT_EQ(Play("PlayRecording 1\n"), isPlayed) << config;
        EXPECT_NE(err.str().find(message), std::string::npos) << err.str();
        EXPECT_EQ(out.str().empty(), !isPlayed);
    }
}

}  // namespace
