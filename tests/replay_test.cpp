// The replay command: its transcripts, its totals, and what it says of bad input.

#include "tools/play/replay.h"

#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

#include "tests/support/library_test.h"

namespace {

class ReplayTest : public testing::Test {
  protected:
    bool Play(std::istream& session, const std::string& name) {
        out.str("");
        err.str("");
        return tools::Replay(options, session, name, out, err);
    }

    bool Play(const std::string& session) {
        std::istringstream stream(session);
        return Play(stream, "test.session");
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

// Set UPDATE_EXPECTED to keep what is played as what is expected.
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
    };
    for (const auto& [session, config, withDebug, expected] : cases) {
        options.configuration.reset();
        if (*config != '\0') {
            options.configuration = {config, ReadFile(Sessions(config))};
        }
        options.withDebug = withDebug;
        const std::string text = ReadFile(Sessions(std::string(session) + ".session"));
        EXPECT_TRUE(Play(text)) << err.str();
        // Some lines are known by the number of their statement, which may change.
        const std::string played = std::regex_replace(
            out.str(), std::regex(" [1-9][0-9]*:(TcfbtNotify(Stage|Node))"), " N:$1");
        const std::string path = std::string(EXPECTED_DIRECTORY) + "/" + expected + ".expected";
        if (std::getenv("UPDATE_EXPECTED") != nullptr) {  // NOLINT(concurrency-mt-unsafe)
            std::ofstream(path) << played;
        }
        EXPECT_EQ(played, ReadFile(path)) << session;

        // Without debugging it is all the same, less what debugging shows.
        options.withDebug = false;
        EXPECT_TRUE(Play(text));
        EXPECT_EQ(out.str(), std::regex_replace(played, std::regex("      [Dc][^\n]*\n"), ""));
    }
}

// Every frame of a minute: its start, its stages one after another, its end.
TEST_F(ReplayTest, PlaysAMinuteOfVideoWithoutALoss) {
    class FrameLog : public desktop::Observer {
      public:
        void OnEffect(const desktop::Effect& effect) override {
            if (const auto* call = std::get_if<desktop::ServiceCall>(&effect.event)) {
                const int32_t stage = call->Argument("stage");
                frames[call->Argument("frame")] += std::string(NameOf(call->function)).substr(4) +
                                                   (stage == -1 ? "" : std::to_string(stage)) + " ";
            }
        }
        std::map<int32_t, std::string> frames;
    } log;
    std::ifstream file(Sessions("minute-recording.session"));
    options.isQuiet = true;
    options.pace.onProgress = [&log](int64_t done, int64_t) {
        // The player watches at first; from the first frame on this does.
        if (done == 1) {
            desktop::SetObserver(&log);
        }
    };
    EXPECT_TRUE(Play(file, "minute"));
    for (int32_t frame = 3; frame <= 3600; ++frame) {
        ASSERT_EQ(log.frames[frame],
                  "FrameStart StageStart0 StageEnd0 StageStart1 StageEnd1 StageStart2 StageEnd2 "
                  "StageStart3 StageEnd3 StageStart4 StageEnd4 FrameEnd ")
            << frame;
    }
    EXPECT_EQ(log.frames.count(3602), 0U);

    options.pace.onProgress = [](int64_t, int64_t) {};
    options.isJson = true;
    file.clear();
    file.seekg(0);
    EXPECT_TRUE(Play(file, "minute"));
    EXPECT_EQ(
        out.str(),
        "{\"type\":\"summary\",\"scenesStarted\":1,\"scenesRefused\":0,\"framesStarted\":3601,"
        "\"framesEnded\":3600,\"framesEvicted\":0,\"frameStartsRefused\":0,"
        "\"frameEndsRefused\":0,\"stageEventsForwarded\":36001,\"stageEventsRefused\":0,"
        "\"nodeEndsIgnored\":0,\"errorReports\":0,\"reasons\":{}}\n");
}

TEST_F(ReplayTest, RecordsOnFromWhereItWasOrFromWhereItIsTold) {
    EXPECT_EQ(Play(SCENE + "PlayRecording 2\nPlayRecording 2\nPlayRecording 1 0x20\n"), true);
    size_t at = 0;
    for (const char* event :
         {"cfbtFrameStart(frame=1)", "cfbtFrameEnd(frame=2)", "cfbtFrameEnd(frame=3)",
          "cfbtFrameEnd(frame=4)", "halFrameNumber=31", "does not follow", "halFrameNumber=32"}) {
        at = out.str().find(event, at);
        EXPECT_NE(at, std::string::npos) << event;
    }
}

TEST_F(ReplayTest, ShowsWhatItIsAskedToShow) {
    options.withDebug = true;
    options.statuses = {{desktop::ServiceFunction::FrameStart, 7}};
    EXPECT_TRUE(Play(SCENE + "TcfbtNotifyFrameStart 1\n"));
    for (const char* line :
         {"      D tarvocameraframeboostutils: tarvocameraframeboostutils.cpp 186:DumpConfig() "
          "frameboost enable = 1\n",
          "TcfbtNotifyFrameStart(halFrameNumber=1) = 1\n", "    cfbtFrameStart(frame=1) = 7\n",
          "      counter TcfbtNotifyFrameStart = 1\n",
          "      D cameraframeboost: tarvocameraframeboost.cpp 132:TcfbtNotifyFrameStart() "
          "halFrameNumber = 1\n"}) {
        EXPECT_NE(out.str().find(line), std::string::npos) << line;
    }
    options = {};
    options.isJson = true;
    EXPECT_TRUE(Play("TcfbtAddPersistTids \"a \\\"b\\\\ \xff\" -0x10 # comment\n"));
    EXPECT_NE(out.str().find("{\"type\":\"call\",\"line\":1,\"operation\":\"TcfbtAddPersistTids\","
                             "\"arguments\":{\"name\":\"a \\\"b\\\\ \xef\xbf\xbd\",\"tid\":-16},"
                             "\"result\":null,\"effects\":[]"),
              std::string::npos)
        << out.str();
}

}  // namespace
