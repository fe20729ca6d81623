// Frames, stages and nodes: what the bundled sessions cannot show.

#include <algorithm>

#include "tests/support/library_test.h"

namespace {

using desktop::ServiceFunction;

constexpr int64_t CAPACITY = FrameTracker::DEFAULT_MAX_FRAME_TRACKED;

class NotificationTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        StartScene(boost);
    }

    void Restart(const std::string& stages) {
        boost.TcfbtNotifySceneEnd();
        Configure(WithStages(stages));
        StartScene(boost);
    }

    // What the service is told of one node end.
    std::string NodeEnd(int64_t frame, const std::string& node, int32_t port) {
        boost.TcfbtNotifyNodeEnd(frame, node, port, 0, true);
        return Calls();
    }

    TarvoCameraFrameBoost boost;
};

TEST_F(NotificationTest, ReturnsOneForAnyStatusOfAnEvent) {
    for (const int32_t sign : {1, -1}) {
        for (size_t function = 0; function < desktop::SERVICE_FUNCTION_COUNT; ++function) {
            desktop::SetServiceStatus(static_cast<ServiceFunction>(function), sign * 7);
        }
        EXPECT_EQ(boost.TcfbtNotifyFrameStart(1), 1);
        EXPECT_EQ(boost.TcfbtNotifyStageStart(0, 1, 0, 0, "n"), 1);
        EXPECT_EQ(boost.TcfbtNotifyStageEnd(0, 1, "n"), 1);
        EXPECT_EQ(boost.TcfbtNotifyErrorFrame(1, 0), sign * 7);
        EXPECT_EQ(boost.TcfbtNotifyFrameEnd(1), 1);
        boost.TcfbtNotifyFrameStart(1);
        EXPECT_EQ(boost.TcfbtNotifyStageEnd(0, 1, "n"), 0) << "a report does not change the result";
        boost.TcfbtNotifyFrameEnd(1);
    }
    for (int64_t frame = 1; frame <= CAPACITY + 1; ++frame) {
        recorder.Take();
        EXPECT_EQ(boost.TcfbtNotifyFrameStart(frame), 1);
    }
    EXPECT_EQ(Calls(), "FrameStart 17 = -7; ErrOfUser 0/1/-1/-1 = -7")
        << "and an error status does not stop it";
}

TEST_F(NotificationTest, DerivesEventsFromTheStageTable) {
    Restart("0=['Only','1']\n");
    NodeEnd(0, "Only", 1);
    EXPECT_EQ(NodeEnd(1, "Only", 1),
              "StageEnd 1/0; ErrOfUser 0/1/1/-1; FrameStart 2; StageStart 2/0/0/20")
        << "a single stage never ends a frame";

    Restart("0=['A','1']\n1=['B','1']\n2=[['not a text']]\n");
    NodeEnd(0, "A", 1);
    NodeEnd(1, "A", 1);
    EXPECT_EQ(NodeEnd(1, "B", 1), "StageEnd 1/1; StageStart 1/2/0/20")
        << "the count says which stage is the last, though that could not be read";

    Restart("0=['A','1']\n1=['AB','2']\n2=['C','3']\n");
    NodeEnd(0, "A", 1);
    NodeEnd(1, "A", 1);
    EXPECT_EQ(NodeEnd(1, "AB", 1), "StageEnd 1/1; StageStart 1/2/0/20")
        << "the stage comes from AB, the port from A";
}

TEST_F(NotificationTest, NamesACounterAfterAStageOfTwoDigits) {
    std::string stages;
    for (int32_t stage = 0; stage <= 12; ++stage) {
        stages += std::to_string(stage) + "=['N']\n";
    }
    Restart(stages);
    boost.TcfbtNotifyFrameStart(1);
    for (int32_t stage = 0; stage < 12; ++stage) {
        boost.TcfbtNotifyStageStart(stage, 1, 0, 0, "");
        boost.TcfbtNotifyStageEnd(stage, 1, "");
    }
    SwitchDebugOn(0x800);
    recorder.Take();
    boost.TcfbtNotifyStageStart(12, 1, 0, 0, "");
    EXPECT_EQ(Effects()[1], "counter TcfbtNotifyStageStart12 = 1");
}

TEST_F(NotificationTest, NeverRenamesAStageOfALoadedTable) {
    Restart("0=['Sensor','1']\n1=['MCTFE0_cam1','2']\n2=['x','3']\n");
    const LocalConfig& config = TarvoCameraFrameBoost::localConfig;
    for (const char* node : {"MCTF", "mctfe0_cam2", "MCTFE0", "a MCTFE0 b"}) {
        for (const int32_t camera : {1, 2, -3}) {
            boost.TcfbtRemapStage(true, camera, node);
            boost.TcfbtRemapStage(false, camera, node);
            boost.TcfbtNotifyNodeEnd(1, node, 2, camera, true);
        }
    }
    EXPECT_EQ(config.GetStageByNodeName("MCTFE0_cam1"), 1);
    for (const char* node : {"MCTFE0_cam2", "MCTFE0_cam-3", "MCTFE0"}) {
        EXPECT_EQ(config.GetStageByNodeName(node), -1) << node;
    }
}

TEST_F(NotificationTest, LogsAndPulsesOnlyWhenSwitchedOn) {
    const auto count = [this](char kind) {
        boost.TcfbtNotifyFrameStart(1);
        boost.TcfbtNotifyStageStart(0, 1, 0, 0, "n");
        boost.TcfbtNotifyStageStart(9, 1, 0, 0, "n");
        boost.TcfbtNotifyFrameEnd(1);
        const Lines effects = Effects();
        return std::count_if(effects.begin(), effects.end(), [kind](const std::string& line) {
            return line.substr(0, 7) == "counter" ? kind == 'c' : kind != 'c' && kind == line[0];
        });
    };
    desktop::SetTraceTags(0xc00);
    EXPECT_EQ(count('c') + count('F') + count('U'), 0);
    for (const uint64_t tags : {0x0U, 0x3ffU, 0x1000U, 0x400U, 0x800U, 0xc01U}) {
        SwitchDebugOn(tags);
        EXPECT_EQ(count('c'), (tags & 0xc00) != 0 ? 8 : 0) << tags;
        EXPECT_EQ(count('F'), 3);
        EXPECT_EQ(count('U'), 2);
    }
    // Tracing may be switched off between the two updates of a pulse.
    class Switch : public desktop::Observer {
      public:
        void OnEffect(const desktop::Effect& effect) override {
            pulses += std::holds_alternative<desktop::CounterUpdate>(effect.event) ? 1 : 0;
            desktop::SetTraceTags(0);
        }
        int pulses = 0;
    } off;
    LocalConfig::enable = false;
    boost.TcfbtNotifyFrameStart(1);
    SwitchDebugOn(0x400);
    desktop::SetObserver(&off);
    boost.TcfbtNotifyFrameEnd(1);
    desktop::SetObserver(&recorder);
    EXPECT_EQ(off.pulses, 1);
}

}  // namespace
