// Scenes, and the threads that belong to them.

#include "tests/library_test.h"

namespace {

class SceneTest : public LibraryTest {
  protected:
    TarvoCameraFrameBoost boost;
};

TEST_F(SceneTest, TellsFrameRateClasses) {
    const std::pair<int32_t, int32_t> classes[] = {{30, 0}, {60, 1},  {90, 2}, {144, 3},
                                                   {0, 4},  {120, 4}, {-30, 4}};
    for (const auto& [fps, fpsClass] : classes) {
        EXPECT_EQ(boost.GetTcfbtFpsScene(fps), fpsClass) << fps;
    }
}

TEST_F(SceneTest, StartsOnlyWhatQualifies) {
    struct {
        bool isVideo;
        int32_t width;
        int32_t fps;
        int32_t mode;
        bool starts;
    } const cases[] = {
        {true, 3840, 60, 5, true},   {true, 4096, 60, 9, true},   {true, 3840, 60, 6, false},
        {true, 4096, 60, -1, false}, {true, 3840, 59, 5, false},  {true, 3840, 61, 5, false},
        {true, 4096, 30, 5, false},  {true, 1920, 60, 5, false},  {true, 0, 60, 5, false},
        {true, 3840, 0, 5, false},   {false, 3840, 60, 5, false},
    };
    for (const auto& [isVideo, width, fps, mode, starts] : cases) {
        TarvoCameraFrameBoost scene;
        EXPECT_EQ(scene.TcfbtNotifySceneStart(mode), -1) << "never described";
        scene.TcfbtSetVersion(7);
        scene.TcfbtSetSceneInfo(isVideo, width, fps);
        EXPECT_EQ(scene.TcfbtNotifySceneStart(mode), starts ? 0 : -1) << width << ' ' << fps;
        EXPECT_EQ(Effects(), starts ? (Lines{"cfbtAddTids(scene=0, tids=[])",
                                             "cfbtSceneStart(scene=0, fpsClass=1, version=7)"})
                                    : Lines{});
        EXPECT_EQ(scene.TcfbtNotifyFrameStart(1), starts ? 0 : -1);
        EXPECT_EQ(scene.TcfbtNotifySceneEnd(), starts ? 0 : -1);
        recorder.Take();
    }
    Configure("[TarvoCameraFrameBoostConfig]\nSupportOperationModeList = [5]\n");
    boost.TcfbtSetSceneInfo(true, 3840, 60);
    EXPECT_EQ(boost.TcfbtNotifySceneStart(5), -1) << "switched off";
    EXPECT_EQ(Effects(), Lines{});
}

TEST_F(SceneTest, TakesTheServicesWordForIt) {
    desktop::SetServiceStatus(desktop::ServiceFunction::SceneStart, 5);
    desktop::SetServiceStatus(desktop::ServiceFunction::AddTids, 6);
    boost.TcfbtAddTempTids(100);
    boost.TcfbtSetSceneInfo(true, 3840, 60);
    EXPECT_EQ(boost.TcfbtNotifySceneStart(5), 5);
    EXPECT_EQ(boost.TcfbtNotifyFrameStart(1), -1);
    EXPECT_EQ(boost.TcfbtNotifySceneEnd(), -1);

    // What a refused start leaves behind are the threads; the next scene end takes them back.
    desktop::SetServiceStatus(desktop::ServiceFunction::SceneStart, 0);
    EXPECT_EQ(boost.TcfbtNotifySceneStart(5), 0);
    EXPECT_EQ(boost.TcfbtNotifySceneStart(5), 0) << "there is no harm in a second start";
    desktop::SetServiceStatus(desktop::ServiceFunction::SceneStart, 4);
    EXPECT_EQ(boost.TcfbtNotifySceneStart(5), 4);
    EXPECT_EQ(boost.TcfbtNotifyFrameStart(1), 0) << "the scene that runs goes on";
    recorder.Take();
    desktop::SetServiceStatus(desktop::ServiceFunction::SceneEnd, 3);
    desktop::SetServiceStatus(desktop::ServiceFunction::RemoveTids, 8);
    EXPECT_EQ(boost.TcfbtNotifySceneEnd(), 3);
    EXPECT_EQ(Effects(),
              (Lines{"cfbtSceneEnd(scene=0) = 3", "cfbtRemoveTids(scene=0, tids=[100]) = 8"}));
    EXPECT_EQ(boost.TcfbtNotifySceneStart(5), -1) << "the next scene has to be described";
    EXPECT_EQ(boost.TcfbtSetTids(), 6);
    EXPECT_EQ(Effects(), Lines{"cfbtAddTids(scene=1, tids=[]) = 6"});
}

TEST_F(SceneTest, EndsWithADescriptionThatDoesNotQualify) {
    const Lines end = {"cfbtSceneEnd(scene=0)", "cfbtRemoveTids(scene=0, tids=[])"};
    for (const bool isVideo : {false, true}) {
        StartScene(boost);
        boost.TcfbtSetSceneInfo(true, 4096, 60);
        EXPECT_EQ(Effects(), Lines{}) << "this one keeps it running";
        boost.TcfbtSetSceneInfo(isVideo, 3840, 30);
        EXPECT_EQ(Effects(), end);
        EXPECT_EQ(boost.TcfbtNotifyFrameStart(1), -1);
        EXPECT_EQ(boost.TcfbtNotifySceneEnd(), -1);
    }
}

TEST_F(SceneTest, StartsWithoutFramesOfTheLastOne) {
    StartScene(boost);
    EXPECT_EQ(boost.TcfbtNotifyFrameStart(100), 0);
    boost.TcfbtNotifySceneEnd();
    StartScene(boost);
    boost.TcfbtNotifyFrameStart(3);
    boost.TcfbtNotifyFrameEnd(100);
    EXPECT_EQ(Effects(), Lines{"cfbtFrameStart(frame=3)"});
    // A scene that was not started ends nothing.
    TarvoCameraFrameBoost other;
    boost.TcfbtAddTempTids(1);
    EXPECT_EQ(other.TcfbtNotifySceneEnd(), -1);
    EXPECT_EQ(TarvoCameraFrameBoost::tempTids.size(), 1U);
}

TEST_F(SceneTest, TakesTheStageCountAtItsStart) {
    boost.TcfbtSetSceneInfo(true, 3840, 60);
    Configure(WithStages("0=['A']\n"));
    StartScene(boost);
    boost.TcfbtNotifyFrameStart(1);
    boost.TcfbtNotifyStageStart(1, 1, 0, 0, "");
    EXPECT_EQ(Effects(), (Lines{"cfbtFrameStart(frame=1)",
                                "cfbtNotifyErrOfUser(scene=0, frame=1, stage=1, errorStage=-1)"}));
}

TEST_F(SceneTest, RegistersThreads) {
    for (const char* name : {"SoloThreadManager", "AuxThreadManager", "RecyclThreadManager"}) {
        boost.TcfbtAddPersistTids(name, 30);
    }
    for (const char* name :
         {"RecycleThreadManager", "soloThreadManager", "SoloThreadManager ", "SoloThread", ""}) {
        boost.TcfbtAddPersistTids(name, 66);
    }
    boost.TcfbtAddTempTids(30);
    boost.TcfbtAddTempTids(-7);
    EXPECT_EQ(TarvoCameraFrameBoost::persistTids, (std::vector<int32_t>{30, 30, 30}));
    EXPECT_EQ(Effects(), Lines{}) << "the service learns of them with the scene";

    boost.TcfbtSetSceneInfo(true, 3840, 60);
    boost.TcfbtNotifySceneStart(5);
    boost.TcfbtAddTempTids(20);
    boost.TcfbtAddPersistTids("AuxThreadManager", 10);
    boost.TcfbtSetTids();
    boost.TcfbtNotifySceneEnd();
    EXPECT_EQ(Effects(),
              (Lines{"cfbtAddTids(scene=0, tids=[-7, 30])",
                     "cfbtSceneStart(scene=0, fpsClass=1, version=0)",
                     "cfbtAddTids(scene=0, tids=[-7, 10, 20, 30])", "cfbtSceneEnd(scene=0)",
                     "cfbtRemoveTids(scene=0, tids=[-7, 10, 20, 30])"}));

    // The next scene has the persistent ones again, the temporary ones not.
    boost.TcfbtSetSceneInfo(true, 3840, 60);
    boost.TcfbtNotifySceneStart(5);
    EXPECT_EQ(Effects().front(), "cfbtAddTids(scene=0, tids=[10, 30])");
}

TEST_F(SceneTest, SendsThreadsInTheSameOrderEverywhere) {
    Lines expected = {"cfbtAddTids(scene=1, tids=["};
    for (int32_t tid = 0; tid < 200; ++tid) {
        boost.TcfbtAddTempTids((tid * 77) % 200);
        expected[0] += (tid == 0 ? "" : ", ") + std::to_string(tid);
    }
    expected[0] += "])";
    boost.TcfbtSetTids();
    EXPECT_EQ(Effects(), expected);
}

TEST_F(SceneTest, RemovesThreadsFromTheServiceOnly) {
    EXPECT_EQ(boost.TcfbtRemoveTids({1}), -1);
    boost.TcfbtAddTempTids(1);
    StartScene(boost);
    desktop::SetServiceStatus(desktop::ServiceFunction::RemoveTids, 9);
    EXPECT_EQ(boost.TcfbtRemoveTids({5, 1, 5}), 9);
    EXPECT_EQ(boost.TcfbtRemoveTids({}), 9);
    desktop::SetServiceStatus(desktop::ServiceFunction::RemoveTids, 0);
    boost.TcfbtSetTids();
    boost.TcfbtNotifySceneEnd();
    EXPECT_EQ(Effects(),
              (Lines{"cfbtRemoveTids(scene=0, tids=[5, 1, 5]) = 9",
                     "cfbtRemoveTids(scene=0, tids=[]) = 9", "cfbtAddTids(scene=0, tids=[1])",
                     "cfbtSceneEnd(scene=0)", "cfbtRemoveTids(scene=0, tids=[1])"}));
}

TEST_F(SceneTest, SharesThreadsAmongObjectsAndKeepsScenesApart) {
    TarvoCameraFrameBoost other;
    boost.TcfbtAddTempTids(1);
    StartScene(boost);
    other.TcfbtSetTids();
    EXPECT_EQ(Effects(), Lines{"cfbtAddTids(scene=1, tids=[1])"});
    EXPECT_EQ(other.TcfbtNotifyFrameStart(1), -1);
}

TEST_F(SceneTest, LogsItsWay) {
    SwitchDebugOn(0xc00);
    const auto line = [](const std::string& text) {
        return "D cameraframeboost: tarvocameraframeboost.cpp " + text;
    };
    boost.TcfbtAddPersistTids("Unknown", 3);
    boost.TcfbtAddPersistTids("SoloThreadManager", 3);
    boost.TcfbtAddPersistTids("SoloThreadManager", 3);
    boost.TcfbtAddTempTids(2);
    boost.DumpInfo();
    EXPECT_EQ(Effects(),
              (Lines{line("244:TcfbtAddPersistTids() name = SoloThreadManager, tid = 3 "),
                     line("244:TcfbtAddPersistTids() name = SoloThreadManager, tid = 3 "),
                     line("379:DumpInfo() DumpInfo PersistTids size = 2")}));

    boost.TcfbtNotifySceneStart(5);
    EXPECT_EQ(Effects(), Lines{}) << "a scene that was not described is refused in silence";
    boost.TcfbtSetSceneInfo(true, 3840, 60);
    boost.TcfbtNotifySceneStart(1);
    boost.TcfbtNotifySceneStart(5);
    EXPECT_EQ(
        Effects(),
        (Lines{line("51:TcfbtSetSceneInfo() resolution = 3840, fps = 60, mFps = 60, cfbtScene = 0"),
               line("63:TcfbtNotifySceneStart() cameraframeboost disabled"),
               line("281:TcfbtSetTids() tid = 2 "), line("281:TcfbtSetTids() tid = 3 "),
               "cfbtAddTids(scene=0, tids=[2, 3])",
               "cfbtSceneStart(scene=0, fpsClass=1, version=0)",
               line("79:TcfbtNotifySceneStart() isSceneStarted = true")}));

    const Lines end = {"cfbtSceneEnd(scene=0)", line("296:TcfbtRemoveTids() tid = 2"),
                       line("296:TcfbtRemoveTids() tid = 3"),
                       "cfbtRemoveTids(scene=0, tids=[2, 3])", line("113:TcfbtNotifySceneEnd() ")};
    Lines expected = end;
    boost.TcfbtSetSceneInfo(false, 640, 24);
    expected.insert(expected.begin(), line("28:TcfbtSetSceneInfo() isVideo =0, resolution = 640, "
                                           "fps = 24, mFps = 60, cfbtScene = 0"));
    EXPECT_EQ(Effects(), expected);

    boost.TcfbtAddTempTids(2);
    boost.TcfbtSetSceneInfo(true, 3840, 60);
    desktop::SetServiceStatus(desktop::ServiceFunction::SceneStart, 1);
    boost.TcfbtNotifySceneStart(5);
    EXPECT_EQ(Effects().back(), line("79:TcfbtNotifySceneStart() isSceneStarted = false"));
    desktop::SetServiceStatus(desktop::ServiceFunction::SceneStart, 0);
    boost.TcfbtNotifySceneStart(5);
    recorder.Take();
    boost.TcfbtSetSceneInfo(true, 640, 24);
    expected = end;
    expected.push_back(
        line("51:TcfbtSetSceneInfo() resolution = 640, fps = 24, mFps = 0, cfbtScene = 1"));
    EXPECT_EQ(Effects(), expected);
}

}  // namespace
