// Scenes and their threads: what the bundled sessions cannot show.

#include "tests/support/library_test.h"

namespace {

using desktop::ServiceFunction;

class SceneTest : public LibraryTest {
  protected:
    TarvoCameraFrameBoost boost;
};

TEST_F(SceneTest, StartsWhenTheServiceSaysSo) {
    desktop::SetServiceStatus(ServiceFunction::SceneStart, -5);
    desktop::SetServiceStatus(ServiceFunction::AddTids, 6);
    boost.TcfbtAddTempTids(100);
    boost.TcfbtSetSceneInfo(true, 3840, 60);
    EXPECT_EQ(boost.TcfbtNotifySceneStart(5), -5);
    EXPECT_EQ(boost.TcfbtNotifyFrameStart(1), -1);
    EXPECT_EQ(boost.TcfbtNotifySceneEnd(), -1);

    // A refused start leaves the threads with the service; the next scene end takes them back.
    desktop::SetServiceStatus(ServiceFunction::SceneStart, 0);
    EXPECT_EQ(boost.TcfbtNotifySceneStart(5), 0);
    desktop::SetServiceStatus(ServiceFunction::SceneEnd, 3);
    EXPECT_EQ(boost.TcfbtNotifySceneEnd(), 3);
    boost.TcfbtAddTempTids(100);
    boost.TcfbtSetSceneInfo(true, 3840, 60);
    EXPECT_EQ(boost.TcfbtNotifySceneStart(5), 0);
    EXPECT_EQ(boost.TcfbtNotifyFrameStart(1), 0);
    desktop::SetServiceStatus(ServiceFunction::SceneStart, 4);
    LocalConfig::enable = true;
    EXPECT_EQ(boost.TcfbtNotifySceneStart(5), 4) << "the running scene goes on";
    EXPECT_EQ(Effects().back(), "F 79:TcfbtNotifySceneStart() isSceneStarted = false");
    LocalConfig::enable = false;
    desktop::SetServiceStatus(ServiceFunction::RemoveTids, 8);
    EXPECT_EQ(boost.TcfbtNotifyFrameEnd(1), 0) << "and so do its frames";
    EXPECT_EQ(boost.TcfbtRemoveTids({5}), 8);
    boost.DumpInfo();
    boost.TcfbtSetSceneInfo(false, 3840, 60);
    EXPECT_EQ(boost.TcfbtNotifySceneStart(5), -1) << "the next scene has to be described first";
    EXPECT_EQ(boost.TcfbtSetTids(), 6);
    EXPECT_EQ(
        Calls(),
        "FrameEnd 1; RemoveTids 0/5 = 8; SceneEnd 0 = 3; RemoveTids 0/100 = 8; AddTids 1,  = 6");
}

TEST_F(SceneTest, NeedsNoAdditionalWidth) {
    Configure(
        "[TarvoCameraFrameBoostConfig]\ncameraFrameBoostEnable = true\n"
        "SupportOperationModeList = [5]\n");
    boost.TcfbtSetSceneInfo(true, 4096, 60);
    EXPECT_EQ(boost.TcfbtNotifySceneStart(5), -1);
    boost.TcfbtSetSceneInfo(true, 3840, 60);
    EXPECT_EQ(boost.TcfbtNotifySceneStart(5), 0);
}

TEST_F(SceneTest, SendsThreadsInTheSameOrderEverywhere) {
    std::string expected = "AddTids 1";
    for (int32_t tid = 0; tid < 200; ++tid) {
        boost.TcfbtAddTempTids((tid * 77) % 200);
        expected += "/" + std::to_string(tid);
    }
    boost.TcfbtSetTids();
    EXPECT_EQ(Calls(), expected);
}

TEST_F(SceneTest, SharesThreadsAmongObjectsAndKeepsScenesApart) {
    TarvoCameraFrameBoost other;
    boost.TcfbtAddTempTids(1);
    StartScene(boost);
    EXPECT_EQ(other.TcfbtNotifySceneEnd(), -1);
    boost.TcfbtAddTempTids(1);
    boost.TcfbtRemoveTids({1});
    EXPECT_EQ(TarvoCameraFrameBoost::tempTids.size(), 2U) << "the other object had no scene to end";
    StartScene(other);
    other.TcfbtNotifySceneEnd();
    EXPECT_EQ(Calls(), "SceneEnd 0; RemoveTids 0/1");
    EXPECT_TRUE(TarvoCameraFrameBoost::tempTids.empty());
    boost.TcfbtSetTids();
    EXPECT_EQ(Calls(), "AddTids 0/1") << "the scene keeps the ids that it has handed over";
}

}  // namespace
