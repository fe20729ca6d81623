// Frames, stages and nodes: what the HAL reports, and what the service and the log see of it.

#include <limits>

#include "tests/library_test.h"

namespace {

using desktop::ServiceFunction;

class NotificationTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        StartScene(boost);
    }

    // The effects of one node end.
    Lines NodeEnd(int64_t frame, const std::string& node, int32_t port) {
        boost.TcfbtNotifyNodeEnd(frame, node, port, 0, true);
        return Effects();
    }

    TarvoCameraFrameBoost boost;
};

TEST_F(NotificationTest, DoesNothingWithoutAScene) {
    boost.TcfbtNotifyFrameStart(1);
    boost.TcfbtNotifySceneEnd();
    SwitchDebugOn(0xc00);
    EXPECT_EQ(boost.TcfbtNotifyFrameStart(2), -1);
    EXPECT_EQ(boost.TcfbtNotifyFrameEnd(1), -1);
    EXPECT_EQ(boost.TcfbtNotifyErrorFrame(1, 0), -1);
    EXPECT_EQ(boost.TcfbtNotifyStageStart(0, 1, 0, 0, "n"), -1);
    EXPECT_EQ(boost.TcfbtNotifyStageEnd(0, 1, "n"), -1);
    boost.TcfbtNotifyNodeEnd(0, "Sensor", 1, 0, true);
    EXPECT_EQ(Effects(), Lines{});
}

TEST_F(NotificationTest, ForwardsFramesAndStagesInOrder) {
    const int64_t frame = (int64_t{1} << 32) + 1;
    EXPECT_EQ(boost.TcfbtNotifyFrameStart(frame), 0);
    EXPECT_EQ(boost.TcfbtNotifyStageStart(0, frame, -5, 6, "n"), 0);
    EXPECT_EQ(boost.TcfbtNotifyStageEnd(0, frame, "n"), 0);
    EXPECT_EQ(boost.TcfbtNotifyFrameEnd(frame), 0);
    EXPECT_EQ(boost.TcfbtNotifyFrameEnd(frame), 0);
    EXPECT_EQ(boost.TcfbtNotifyStageStart(0, 9, 0, 0, "n"), 0);
    EXPECT_EQ(boost.TcfbtNotifyStageEnd(0, 9, "n"), 0);
    EXPECT_EQ(boost.TcfbtNotifyErrorFrame(-frame, 3), 0);
    EXPECT_EQ(Effects(),
              (Lines{"cfbtFrameStart(frame=1)", "cfbtStageStart(frame=1, stage=0, arg1=-5, arg2=6)",
                     "cfbtStageEnd(frame=1, stage=0)", "cfbtFrameEnd(frame=1)",
                     "cfbtNotifyErrOfUser(scene=0, frame=-1, stage=3, errorStage=-1)"}));
}

TEST_F(NotificationTest, FoldsTheServicesStatusOfEventsOnly) {
    for (int function = 0; function < 9; ++function) {
        desktop::SetServiceStatus(static_cast<ServiceFunction>(function), function + 40);
    }
    EXPECT_EQ(boost.TcfbtNotifyFrameStart(1), 1);
    EXPECT_EQ(boost.TcfbtNotifyStageStart(0, 1, 0, 0, "n"), 1);
    EXPECT_EQ(boost.TcfbtNotifyStageEnd(0, 1, "n"), 1);
    EXPECT_EQ(boost.TcfbtNotifyStageEnd(0, 1, "n"), 0) << "a report does not show in the result";
    EXPECT_EQ(boost.TcfbtNotifyErrorFrame(1, 0), 48);
    desktop::SetServiceStatus(ServiceFunction::FrameEnd, -1);
    EXPECT_EQ(boost.TcfbtNotifyFrameStart(2), 1);
    EXPECT_EQ(boost.TcfbtNotifyFrameEnd(2), 1);
}

TEST_F(NotificationTest, ReportsAnEvictedFrameWhateverBecomesOfTheNewOne) {
    for (int64_t frame = 1; frame <= FrameTracker::DEFAULT_MAX_FRAME_TRACKED; ++frame) {
        boost.TcfbtNotifyFrameStart(frame);
    }
    recorder.Take();
    EXPECT_EQ(boost.TcfbtNotifyFrameStart(17), 0);
    EXPECT_EQ(boost.TcfbtNotifyFrameStart(99), 0);
    EXPECT_EQ(Effects(), (Lines{"cfbtFrameStart(frame=17)",
                                "cfbtNotifyErrOfUser(scene=0, frame=1, stage=-1, errorStage=-1)",
                                "cfbtNotifyErrOfUser(scene=0, frame=2, stage=-1, errorStage=-1)"}));
}

TEST_F(NotificationTest, NeverReportsAnEvictedFrameMinusOne) {
    for (int64_t frame = -1; frame < FrameTracker::DEFAULT_MAX_FRAME_TRACKED - 1; ++frame) {
        boost.TcfbtNotifyFrameStart(frame);
    }
    recorder.Take();
    boost.TcfbtNotifyFrameStart(15);
    boost.TcfbtNotifyFrameStart(16);
    EXPECT_EQ(Effects(), (Lines{"cfbtFrameStart(frame=15)", "cfbtFrameStart(frame=16)",
                                "cfbtNotifyErrOfUser(scene=0, frame=0, stage=-1, errorStage=-1)"}));
}

TEST_F(NotificationTest, ReportsAStageErrorWithItsStage) {
    boost.TcfbtNotifyFrameStart(1);
    recorder.Take();
    boost.TcfbtNotifyStageEnd(2, 1, "n");
    boost.TcfbtNotifyStageStart(0, 1, 0, 0, "n");
    boost.TcfbtNotifyFrameEnd(1);
    boost.TcfbtNotifyFrameStart(2);
    boost.TcfbtNotifyStageStart(3, 2, 0, 0, "n");
    boost.TcfbtNotifyStageEnd(-1, 2, "n");
    boost.TcfbtNotifyFrameEnd(2);
    EXPECT_EQ(Effects(), (Lines{"cfbtNotifyErrOfUser(scene=0, frame=1, stage=2, errorStage=-1)",
                                "cfbtFrameStart(frame=2)",
                                "cfbtNotifyErrOfUser(scene=0, frame=2, stage=3, errorStage=-1)",
                                "cfbtNotifyErrOfUser(scene=0, frame=2, stage=-1, errorStage=-1)",
                                "cfbtFrameEnd(frame=2)"}));
}

TEST_F(NotificationTest, DerivesEventsFromNodeEnds) {
    EXPECT_EQ(
        NodeEnd(0, "Sensor0", 2),
        (Lines{"cfbtFrameStart(frame=1)", "cfbtStageStart(frame=1, stage=0, arg1=0, arg2=20)"}));
    EXPECT_EQ(NodeEnd(1, "Sensor0", 1),
              (Lines{"cfbtStageEnd(frame=1, stage=0)",
                     "cfbtStageStart(frame=1, stage=1, arg1=0, arg2=20)", "cfbtFrameStart(frame=2)",
                     "cfbtStageStart(frame=2, stage=0, arg1=0, arg2=20)"}));
    for (const int64_t frame : {int64_t{0}, int64_t{-1}, std::numeric_limits<int64_t>::min()}) {
        EXPECT_EQ(NodeEnd(frame, "Filter", 3), Lines{}) << frame;
        EXPECT_EQ(NodeEnd(frame, "Encoder", 4), Lines{}) << frame;
    }
    EXPECT_EQ(NodeEnd(1, "Filter", 4), Lines{}) << "not a port of this node";
    EXPECT_EQ(NodeEnd(1, "Unknown", 3), Lines{});
    EXPECT_EQ(NodeEnd(1, "Filter", 3),
              (Lines{"cfbtStageEnd(frame=1, stage=1)",
                     "cfbtStageStart(frame=1, stage=2, arg1=0, arg2=20)"}));
    EXPECT_EQ(NodeEnd(1, "Encoder", 4),
              (Lines{"cfbtStageEnd(frame=1, stage=2)", "cfbtFrameEnd(frame=1)"}));
}

TEST_F(NotificationTest, GoesByTheHighestStageAndAnyPort) {
    Configure(WithStages("0=['A','1']\n1=['AB','2']\n2=['C','3']\n"));
    boost.TcfbtNotifyFrameStart(7);
    boost.TcfbtNotifyStageStart(0, 7, 0, 0, "");
    boost.TcfbtNotifyStageEnd(0, 7, "");
    boost.TcfbtNotifyStageStart(1, 7, 0, 0, "");
    recorder.Take();
    // The stage is that of AB, the port one of A.
    EXPECT_EQ(NodeEnd(7, "AB", 1), (Lines{"cfbtStageEnd(frame=7, stage=1)",
                                          "cfbtStageStart(frame=7, stage=2, arg1=0, arg2=20)"}));
}

TEST_F(NotificationTest, WrapsAroundAfterTheHighestFrame) {
    EXPECT_EQ(
        NodeEnd(std::numeric_limits<int64_t>::max(), "Sensor", 1),
        (Lines{"cfbtFrameStart(frame=0)", "cfbtStageStart(frame=0, stage=0, arg1=0, arg2=20)"}));
    boost.TcfbtNotifyFrameEnd(0);
    recorder.Take();
    EXPECT_EQ(NodeEnd(2147483647, "Sensor", 1).front(), "cfbtFrameStart(frame=-2147483648)");
}

TEST_F(NotificationTest, NeverEndsAFrameOfASinglStagePipeline) {
    boost.TcfbtNotifySceneEnd();
    Configure(WithStages("0 = ['Only', '1']\n"));
    StartScene(boost);
    NodeEnd(0, "Only", 1);
    EXPECT_EQ(
        NodeEnd(1, "Only", 1),
        (Lines{"cfbtStageEnd(frame=1, stage=0)",
               "cfbtNotifyErrOfUser(scene=0, frame=1, stage=1, errorStage=-1)",
               "cfbtFrameStart(frame=2)", "cfbtStageStart(frame=2, stage=0, arg1=0, arg2=20)"}));
}

TEST_F(NotificationTest, TakesTheLastStageFromTheCountAndNotTheTable) {
    boost.TcfbtNotifySceneEnd();
    // Stage 2 cannot be read, but is counted.
    Configure(WithStages("0 = ['A', '1']\n1 = ['B', '1']\n2 = [['no text']]\n"));
    StartScene(boost);
    NodeEnd(0, "A", 1);
    NodeEnd(1, "A", 1);
    EXPECT_EQ(NodeEnd(1, "B", 1), (Lines{"cfbtStageEnd(frame=1, stage=1)",
                                         "cfbtStageStart(frame=1, stage=2, arg1=0, arg2=20)"}));
}

TEST_F(NotificationTest, NeverRenamesAStageOfALoadedTable) {
    const std::string stages = "0 = ['Sensor', '1']\n1 = ['MCTFE0_cam1', '2']\n2 = ['x', '3']\n";
    Configure(WithStages(stages));
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

TEST_F(NotificationTest, LogsAndPulsesInDebugModeOnly) {
    const auto tracker = [](const std::string& text) {
        return "D tarvocameraframeboostutils: tarvocameraframeboostutils.cpp " + text;
    };
    const auto facade = [](const std::string& text) {
        return "D cameraframeboost: tarvocameraframeboost.cpp " + text;
    };
    const int64_t wide = int64_t{1} << 32;
    const auto play = [&](int64_t first) {
        boost.TcfbtNotifyNodeEnd(first - 1, "Sensor1", 2, -4, false);
        boost.TcfbtNotifyStageEnd(0, first, "n");
        boost.TcfbtNotifyStageStart(12, first, 0, 0, "n");
        boost.TcfbtNotifyFrameEnd(first);
        return Effects();
    };
    // What is seen of it in each mode: "" always, "D" in debug mode, "c" with trace tags besides.
    const std::pair<char, std::string> all[] = {
        {'D', facade("N:TcfbtNotifyNodeEnd() halFrameNumber = 4294967295, nodeName = Sensor1, "
                     "stage = 0, maxStageCnt = 3, portId = 2, currentCameraId = -4, "
                     "isMaterCamera = 0")},
        {'D', tracker("446:CheckFrameStatus() frameNumber not exist, frameNumber = 4294967295")},
        {'D', tracker("446:CheckFrameStatus() frameNumber not exist, frameNumber = 4294967295")},
        {'D', tracker("283:CheckIfCouldStartFrame() new frame added, is error = 0")},
        {'c', "counter TcfbtNotifyFrameStart = 0"},
        {'c', "counter TcfbtNotifyFrameStart = 0"},
        {'D', facade("132:TcfbtNotifyFrameStart() halFrameNumber = 4294967296")},
        {' ', "cfbtFrameStart(frame=0)"},
        {'D', facade("N:TcfbtNotifyStageStart() halFrameNumber = 4294967296, stage = 0, "
                     "nodeName = Sensor1")},
        {'c', "counter TcfbtNotifyStageStart0 = 0"},
        {'c', "counter TcfbtNotifyStageStart0 = 0"},
        {' ', "cfbtStageStart(frame=0, stage=0, arg1=0, arg2=20)"},
        {'c', "counter TcfbtNotifyStageEnd0 = 0"},
        {'c', "counter TcfbtNotifyStageEnd0 = 0"},
        {'D',
         facade("N:TcfbtNotifyStageEnd() halFrameNumber = 4294967296, stage = 0, nodeName = n")},
        {' ', "cfbtStageEnd(frame=0, stage=0)"},
        {'D', tracker("326:CheckStagesStatus() stage error, notify frame error, frameNumber = "
                      "4294967296, stage = 12, stageCount = 3")},
        {'c', "counter TcbtNotifyErrorFrame = 0"},
        {'c', "counter TcbtNotifyErrorFrame = 0"},
        {' ', "cfbtNotifyErrOfUser(scene=0, frame=0, stage=12, errorStage=-1)"},
        {'c', "counter TcfbtNotifyFrameEnd = 0"},
        {'c', "counter TcfbtNotifyFrameEnd = 0"},
        {'D', facade("160:TcfbtNotifyFrameEnd() halFrameNumber = 4294967296")},
        {' ', "cfbtFrameEnd(frame=0)"},
    };
    const auto expected = [&all](const std::string& modes) {
        Lines lines;
        for (const auto& [mode, line] : all) {
            if (modes.find(mode) != std::string::npos) {
                lines.push_back(line);
            }
        }
        return lines;
    };
    desktop::SetTraceTags(0xc00);
    EXPECT_EQ(play(wide), expected(" "));
    for (const uint64_t tags : {0x0U, 0x3ffU, 0x1000U}) {
        SwitchDebugOn(tags);
        EXPECT_EQ(play(wide), expected(" D")) << tags;
    }
    for (const uint64_t tags : {0x400U, 0x800U, 0xc01U}) {
        SwitchDebugOn(tags);
        EXPECT_EQ(play(wide), expected(" Dc")) << tags;
    }
}

TEST_F(NotificationTest, PulsesToTheFrameAndBack) {
    SwitchDebugOn(0x400);
    const auto counters = [this] {
        Lines lines;
        for (const std::string& line : Effects()) {
            if (line[0] == 'c') {
                lines.push_back(line);
            }
        }
        return lines;
    };
    for (int64_t frame = 1; frame <= FrameTracker::DEFAULT_MAX_FRAME_TRACKED; ++frame) {
        boost.TcfbtNotifyFrameStart(frame);
    }
    counters();
    boost.TcfbtNotifyFrameStart(17);
    EXPECT_EQ(counters(),
              (Lines{"counter TcfbtNotifyFrameStart = 17", "counter TcfbtNotifyFrameStart = 0",
                     "cfbtFrameStart(frame=17)", "counter TcbtNotifyErrorFrame = 1",
                     "counter TcbtNotifyErrorFrame = 0",
                     "cfbtNotifyErrOfUser(scene=0, frame=1, stage=-1, errorStage=-1)"}));
    boost.TcfbtNotifyStageStart(-2, 17, 0, 0, "n");
    EXPECT_EQ(counters().front(), "counter TcbtNotifyErrorFrame = 17");
    boost.TcfbtNotifyErrorFrame(17, 0);
    EXPECT_EQ(counters(), Lines{"cfbtNotifyErrOfUser(scene=0, frame=17, stage=0, errorStage=-1)"});
}

}  // namespace
