// The frame tracker: which frames and stage events it lets through, and when it asks for a report.

#include <limits>
#include <thread>

#include "tests/support/expect_abort.h"
#include "tests/support/library_test.h"

namespace {

// Each step returns "yes" or "no", and the frame to report.
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
        // The table uses the low 32 bits of a number, the test for gaps all 64.
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
    Start(int64_t{1} << 31);
    EXPECT_EQ(End(0), "no") << "all 32 bits count";
    EXPECT_EQ(End(-2147483648), "yes");
    Start(1);
    Start(3);
    EXPECT_EQ(End(3), "no") << "out of sequence,";
    EXPECT_EQ(Start(2), "yes") << "but removed all the same";
    tracker.Clear();
    EXPECT_EQ(End(1), "no");
    EXPECT_EQ(Start(77), "yes");
}

TEST_F(FrameTrackerTest, ReportsTheOldestFrameWhenItIsDropped) {
    for (const int64_t frame : {11, 12, 13, 14}) {
        EXPECT_EQ(Start(frame), "yes");
    }
    EXPECT_EQ(Start(14), "no") << "no frame is dropped for a duplicate";
    EXPECT_EQ(Start(15), "yes, report 11");
    EXPECT_EQ(End(11), "no") << "it was dropped";
    EXPECT_EQ(End(12), "yes");
    EXPECT_EQ(Start(16), "yes") << "there was room";
    EXPECT_EQ(Start(20), "no, report 13") << "out of sequence, but it takes a place too";
    tracker.Clear();

    // Not reported: a frame out of sequence, and one that was reported before.
    tracker.stageCount = 2;
    Start(20);
    Start(10);
    Start(21);
    EXPECT_EQ(Stage(20, 1, START), "no, report");
    Start(22);
    EXPECT_EQ(Start(23), "yes") << "10 is dropped";
    EXPECT_EQ(Start(24), "yes") << "20 is dropped";
    EXPECT_EQ(Start(25), "yes, report 21");
}

TEST_F(FrameTrackerTest, TracksAtLeastOneFrame) {
    for (const int32_t capacity : {1, 0, -1, std::numeric_limits<int32_t>::min()}) {
        FrameTracker small(capacity);
        bool isError = false;
        int64_t errorFrame = -1;
        EXPECT_TRUE(small.CheckIfCouldStartFrame(int64_t{1} << 31, isError, errorFrame));
        EXPECT_FALSE(isError);
        EXPECT_TRUE(small.CheckIfCouldStartFrame(-2147483647, isError, errorFrame));
        EXPECT_TRUE(isError) << capacity;
        EXPECT_EQ(errorFrame, -2147483648) << capacity;
        // The values of the caller stay.
        errorFrame = 42;
        small.Clear();
        EXPECT_TRUE(small.CheckIfCouldStartFrame(1, isError, errorFrame));
        EXPECT_FALSE(small.CheckFrameStatus(9, isError));
        EXPECT_TRUE(isError);
        EXPECT_EQ(errorFrame, 42);
    }
}

// All sequences of five stage events over three stages, compared with the one right order.
TEST_F(FrameTrackerTest, AllowsStagesInPipelineOrderOnly) {
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

TEST_F(FrameTrackerTest, ReportsStagesOutOfRangeAlwaysAndFramesOutOfSequenceNever) {
    tracker.stageCount = 2;
    Start(1);
    Start(5);
    for (const int32_t stage : {2, -1, std::numeric_limits<int32_t>::max(), 2}) {
        EXPECT_EQ(Stage(1, stage, START), "no, report");
        EXPECT_EQ(Stage(1, stage, END), "no, report");
        EXPECT_EQ(Stage(5, stage, END), "no");
        EXPECT_EQ(Stage(9, stage, START), "no") << "not tracked";
    }
    EXPECT_EQ(Stage(5, 0, START), "no");
    EXPECT_EQ(Stage(1, 0, START), "yes") << "the frame goes on";
    // CheckStagesStatus alone, without CheckFrameStatus before it.
    bool isError = false;
    EXPECT_FALSE(tracker.CheckStagesStatus(5, 1, START, isError));
    EXPECT_FALSE(tracker.CheckStagesStatus(5, 0, END, isError));
    EXPECT_FALSE(tracker.CheckStagesStatus(9, 0, START, isError));
    EXPECT_EQ(Effects(), Lines{});
    SwitchDebugOn(0);
    EXPECT_FALSE(tracker.CheckStagesStatus(9, 0, START, isError));
    EXPECT_FALSE(isError);
    EXPECT_EQ(Effects(), Lines{"U 336:CheckStagesStatus() frameNumber not exist, frameNumber = 9"});
    EXPECT_FALSE(tracker.CheckStagesStatus(9, 2, START, isError));
    EXPECT_TRUE(isError) << "the range is checked first";
    EXPECT_EQ(End(1), "yes");
}

TEST_F(FrameTrackerTest, MayBeClearedWhileFramesStart) {
    std::thread camera([this] {
        for (int64_t frame = 1; frame < 2000; ++frame) {
            Start(frame);
        }
    });
    for (int i = 0; i < 2000; ++i) {
        tracker.Clear();
    }
    camera.join();
    tracker.Clear();
    EXPECT_EQ(Start(1), "yes");
}

TEST_F(FrameTrackerTest, EndsTheProcessWhenTheFrameLacksTheStage) {
    tracker.stageCount = 1;
    Start(1);
    tracker.stageCount = 2;
    ExpectAbort([this] { Stage(1, 0, START); });
    tracker.stageCount = 1;
    EXPECT_EQ(Stage(1, 0, START), "yes");
    EXPECT_EQ(Stage(1, 0, END), "yes");
    tracker.stageCount = 2;
    ExpectAbort([this] { Stage(1, 1, START); });
    ExpectAbort([this] { Stage(1, 1, END); });
    EXPECT_EQ(End(1), "yes");
    Start(1);
    EXPECT_EQ(Stage(1, 0, START), "yes") << "a new frame has all its stages";
    tracker.stageCount = 1;
    EXPECT_EQ(Stage(1, 0, END), "yes") << "and may have more than the scene has now";
    EXPECT_EQ(End(1), "yes");
    Start(2);
    EXPECT_EQ(Stage(2, 0, START), "yes");
    EXPECT_EQ(Stage(2, 0, END), "yes");
    tracker.stageCount = 2;
    ExpectAbort([this] { Stage(2, 1, START); });  // Frame 1 had that stage, frame 2 has not.
    tracker.stageCount = -1;
    ExpectAbort([this] { Start(3); });
}

}  // namespace
