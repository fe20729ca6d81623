// The frame tracker: which frames and stage events it lets through, and when a frame is to be
// reported.

#include <limits>

#include "tests/expect_abort.h"
#include "tests/library_test.h"

namespace {

// Each step answers in words: "yes" or "no", and what is to be reported with it.
class FrameTrackerTest : public LibraryTest {
  protected:
    std::string Start(int64_t frame) {
        bool isError = false;
        int64_t errorFrame = -1;
        std::string answer =
            tracker.CheckIfCouldStartFrame(frame, isError, errorFrame) ? "yes" : "no";
        EXPECT_EQ(isError, errorFrame != -1);
        return isError ? answer + ", report " + std::to_string(errorFrame) : answer;
    }

    std::string End(int64_t frame) {
        bool flag = true;
        std::string answer = tracker.CheckIfCouldEndFrame(frame, flag) ? "yes" : "no";
        EXPECT_TRUE(flag);
        return answer;
    }

    std::string Stage(int64_t frame, int32_t stage, bool isEnd) {
        bool isError = false;
        std::string answer = tracker.CheckStatus(frame, stage, isEnd, isError) ? "yes" : "no";
        return isError ? answer + ", report" : answer;
    }

    FrameTracker tracker{4};
};

constexpr bool START = false;
constexpr bool END = true;

TEST_F(FrameTrackerTest, AdmitsFramesWithoutAGap) {
    struct {
        std::vector<int64_t> before;
        int64_t frame;
        const char* answer;
    } const cases[] = {
        {{}, 0, "yes"},
        {{}, -9, "yes"},
        {{}, std::numeric_limits<int64_t>::max(), "yes"},
        {{5}, 6, "yes"},
        {{-1}, 0, "yes"},
        {{5}, 5, "no"},
        {{5}, 7, "no"},
        {{5}, 4, "no"},
        {{5, 4}, 6, "yes"},  // The newest is still 5.
        {{5, 7}, 8, "yes"},  // A frame in error counts as the newest too.
        {{5, 7}, 6, "no"},
        // The table knows the low 32 bits of a number, the test for gaps all 64.
        {{5}, (int64_t{1} << 32) + 5, "no"},
        {{5}, (int64_t{1} << 32) + 6, "no"},
        {{(int64_t{1} << 32) + 5}, 6, "yes"},
        {{2147483647}, 2147483648, "yes"},
        {{2147483647}, -2147483648, "no"},
        {{2147483648}, -2147483647, "yes"},
    };
    for (const auto& [before, frame, answer] : cases) {
        tracker.Clear();
        for (const int64_t number : before) {
            Start(number);
        }
        EXPECT_EQ(Start(frame), answer) << frame;
    }
}

TEST_F(FrameTrackerTest, ForgetsAFrameAtItsEnd) {
    EXPECT_EQ(End(1), "no");
    EXPECT_EQ(Start(1), "yes");
    EXPECT_EQ(End((int64_t{1} << 32) + 1), "yes") << "the same low 32 bits";
    EXPECT_EQ(End(1), "no");

    Start(1);
    Start(3);  // Out of sequence,
    EXPECT_EQ(End(3), "no");
    EXPECT_EQ(Start(2), "yes") << "and gone all the same";

    tracker.Clear();
    EXPECT_EQ(End(1), "no");
    EXPECT_EQ(Start(77), "yes");
    tracker.Clear();
    tracker.Clear();
}

TEST_F(FrameTrackerTest, ReportsTheOldestFrameOnceItIsPushedOut) {
    for (const int64_t frame : {11, 12, 13, 14}) {
        EXPECT_EQ(Start(frame), "yes");
    }
    EXPECT_EQ(Start(14), "no") << "a duplicate pushes nothing out";
    EXPECT_EQ(Start(15), "yes, report 11");
    EXPECT_EQ(End(11), "no") << "it is gone";
    EXPECT_EQ(End(12), "yes");
    EXPECT_EQ(Start(16), "yes") << "there was room";
    EXPECT_EQ(Start(20), "no, report 13") << "out of sequence, but it needs room too";
}

TEST_F(FrameTrackerTest, ReportsNothingForAnOldestFrameThatIsInError) {
    tracker.stageCount = 2;
    Start(20);
    Start(10);  // Out of sequence, and now the oldest.
    Start(21);
    EXPECT_EQ(Stage(20, 1, START), "no, report");
    Start(22);
    EXPECT_EQ(Start(23), "yes") << "10 goes";
    EXPECT_EQ(Start(24), "yes") << "20 goes, which was reported before";
    EXPECT_EQ(Start(25), "yes, report 21");
}

TEST_F(FrameTrackerTest, ReportsNegativeFramesAsTheyAre) {
    tracker.stageCount = 0;
    FrameTracker one(1);
    bool isError = false;
    int64_t errorFrame = -1;
    EXPECT_TRUE(one.CheckIfCouldStartFrame((int64_t{1} << 31), isError, errorFrame));
    EXPECT_TRUE(one.CheckIfCouldStartFrame(-2147483647, isError, errorFrame));
    EXPECT_TRUE(isError);
    EXPECT_EQ(errorFrame, -2147483648);
}

TEST_F(FrameTrackerTest, TracksAtLeastOneFrame) {
    for (const int32_t capacity : {1, 0, -1, std::numeric_limits<int32_t>::min()}) {
        FrameTracker small(capacity);
        bool isError = false;
        int64_t errorFrame = -1;
        EXPECT_TRUE(small.CheckIfCouldStartFrame(1, isError, errorFrame));
        EXPECT_FALSE(isError);
        EXPECT_TRUE(small.CheckIfCouldStartFrame(2, isError, errorFrame));
        EXPECT_TRUE(isError) << capacity;
        EXPECT_EQ(errorFrame, 1) << capacity;
    }
}

// All sequences of five stage events over three stages, against the one right order.
TEST_F(FrameTrackerTest, LetsStagesThroughInPipelineOrderOnly) {
    constexpr int EVENTS = 6;
    constexpr int LENGTH = 5;
    tracker.stageCount = 3;
    for (int code = 0; code < EVENTS * EVENTS * EVENTS * EVENTS * EVENTS; ++code) {
        ASSERT_EQ(Start(1), "yes");
        bool isInOrder = true;
        for (int step = 0, rest = code; step < LENGTH; ++step, rest /= EVENTS) {
            const int event = rest % EVENTS;
            const bool wasInOrder = isInOrder;
            isInOrder = isInOrder && event == step;
            ASSERT_EQ(Stage(1, event / 2, event % 2 == 1),
                      isInOrder ? "yes" : (wasInOrder ? "no, report" : "no"))
                << "sequence " << code << ", step " << step;
        }
        ASSERT_EQ(End(1), isInOrder ? "yes" : "no") << "sequence " << code;
    }
}

TEST_F(FrameTrackerTest, ReportsAStageOutOfRangeEachTimeAndLetsTheFrameGoOn) {
    tracker.stageCount = 2;
    Start(1);
    for (const int32_t stage : {2, -1, std::numeric_limits<int32_t>::max(), 2}) {
        EXPECT_EQ(Stage(1, stage, START), "no, report");
        EXPECT_EQ(Stage(1, stage, END), "no, report");
    }
    EXPECT_EQ(Stage(1, 0, START), "yes");
    EXPECT_EQ(Stage(9, 2, START), "no") << "not for a frame that is not tracked";
    EXPECT_EQ(End(1), "yes");
}

TEST_F(FrameTrackerTest, KeepsStagesOfAFrameOutOfSequenceToItself) {
    tracker.stageCount = 2;
    Start(1);
    Start(5);
    EXPECT_EQ(Stage(5, 0, START), "no");
    EXPECT_EQ(Stage(5, 7, START), "no");
    bool isError = false;
    EXPECT_FALSE(tracker.CheckStagesStatus(5, 1, START, isError)) << "out of order besides";
    EXPECT_FALSE(isError) << "but never handed over";
    EXPECT_EQ(Stage(1, 0, START), "yes") << "other frames are not touched";
}

TEST_F(FrameTrackerTest, NeverTakesAFlagOfItsCallerBack) {
    bool isError = true;
    int64_t errorFrame = 42;
    EXPECT_TRUE(tracker.CheckIfCouldStartFrame(1, isError, errorFrame));
    EXPECT_FALSE(tracker.CheckFrameStatus(9, isError));
    EXPECT_TRUE(isError);
    EXPECT_EQ(errorFrame, 42);
}

TEST_F(FrameTrackerTest, EndsTheProcessWhenAStageWasNotAdmitted) {
    tracker.stageCount = 1;
    Start(1);
    tracker.stageCount = 2;
    ExpectAbort([this] { Stage(1, 0, START); });
    tracker.stageCount = -1;
    ExpectAbort([this] { Start(2); });
}

TEST_F(FrameTrackerTest, SaysWhyInTheLog) {
    SwitchDebugOn(0);
    const std::string wide = std::to_string((int64_t{1} << 32) + 3);
    struct {
        std::function<void()> step;
        Lines lines;
    } const cases[] = {
        {[this] { Start(1); }, {"283:CheckIfCouldStartFrame() new frame added, is error = 0"}},
        {[this] { Start(1); }, {"220:CheckIfCouldStartFrame() frameNumber: 1 already exists"}},
        {[this] { Start((int64_t{1} << 32) + 3); },
         {"233:CheckIfCouldStartFrame() frameNumber continuity check fail, lastFrameNumber: 1, "
          "current frameNumber: " +
              wide,
          "283:CheckIfCouldStartFrame() new frame added, is error = 1"}},
        {[this] { End((int64_t{1} << 32) + 9); },
         {"295:CheckIfCouldEndFrame() frameNumber: 4294967305 not exist"}},
        {[this] { Stage(9, 0, START); },
         {"446:CheckFrameStatus() frameNumber not exist, frameNumber = 9"}},
        {[this] {
             bool isError = false;
             tracker.CheckStagesStatus(9, 0, START, isError);
         },
         {"336:CheckStagesStatus() frameNumber not exist, frameNumber = 9"}},
        {[this] { Stage(1, 3, END); },
         {"326:CheckStagesStatus() stage error, notify frame error, frameNumber = 1, stage = 3, "
          "stageCount = 3"}},
        {[this] { Stage(1, 1, START); },
         {"361:CheckStagesStatus() stage status check error, notify frame error, frameNumber = 1, "
          "stage = 1, error stage = 0"}},
        {[this] { Stage(1, 0, START); }, {}},
        {[this] { Stage(3, 0, START); }, {}},
        {[this] { Start(4); }, {"283:CheckIfCouldStartFrame() new frame added, is error = 0"}},
        {[this] { Stage(4, 0, START), Stage(4, 0, START); },
         {"419:CheckStagesStatus() stage status check error, notify frame error, frameNumber = 4, "
          "stage = 0"}},
        {[this] { Start(5); }, {"283:CheckIfCouldStartFrame() new frame added, is error = 0"}},
        {[this] { Stage(5, 0, END); },
         {"401:CheckStagesStatus() stage status check error, notify frame error, frameNumber = 5, "
          "stage = 0"}},
        {[this] { End(1), End(3), End(4), End(5), Start(6); },
         {"283:CheckIfCouldStartFrame() new frame added, is error = 0"}},
        {[this] { Stage(6, 0, START), Stage(6, 0, END), Stage(6, 1, START), Stage(6, 0, START); },
         {"382:CheckStagesStatus() stage status check error, notify frame error, frameNumber = 6, "
          "stage = 0, error stage = 1"}},
        {[this] { tracker.Clear(), Start(1), Start(2), Start(3), Start(4), Effects(), Start(5); },
         {"252:CheckIfCouldStartFrame() current frameData size(4) > MAX_FRAME_TRACKED(4), mark and "
          "notify frame error",
          "283:CheckIfCouldStartFrame() new frame added, is error = 0"}},
    };
    tracker.stageCount = 3;
    for (const auto& [step, lines] : cases) {
        Lines expected;
        for (const std::string& line : lines) {
            expected.push_back("D tarvocameraframeboostutils: tarvocameraframeboostutils.cpp " +
                               line);
        }
        step();
        EXPECT_EQ(Effects(), expected);
    }
}

}  // namespace
