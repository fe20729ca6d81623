#include "cameraframeboost/tarvocameraframeboost.h"

#include <string_view>

#include "cameraframeboost/debug.h"
#include "platform/boost_service.h"

namespace {

constexpr char LOG_TAG[] = "cameraframeboost";

// Values of cfbtScene and mFps.
constexpr int32_t SCENE_VIDEO = 0;
constexpr int32_t SCENE_NONE = 1;
constexpr int32_t NO_FPS = 0;

// The one kind of video that needs boosting, besides the configured additional width.
constexpr int32_t BOOST_WIDTH = 3840;
constexpr int32_t BOOST_FPS = 60;

// "No stage" in an error report.
constexpr int32_t NO_STAGE = -1;

// The second argument of every stage start that is derived from a node end.
constexpr int32_t NODE_STAGE_ARG2 = 20;

// The multi-camera node, and the name that it has for one camera, without the camera's id.
constexpr std::string_view MULTI_CAMERA_NODE = "MCTFE0";
constexpr char MULTI_CAMERA_NODE_PREFIX[] = "MCTFE0_cam";

// The service and the trace get the low 32 bits of a frame number.
int32_t Low32(int64_t frameNumber) {
    return static_cast<int32_t>(frameNumber);
}

bool IsThreadManager(const std::string& name) {
    return name == "SoloThreadManager" || name == "AuxThreadManager" ||
           name == "RecyclThreadManager";
}

// Called with a lock held. noexcept, so that a failure ends the process in here: further out the
// lock would be released first.
void Append(std::vector<int32_t>& tids, int32_t tid) noexcept {
    tids.push_back(tid);
}
template <typename Tids>
void Insert(std::unordered_set<int32_t>& all, const Tids& tids) noexcept {
    all.insert(tids.begin(), tids.end());
}

}  // namespace

// The order matters: unloading destroys them in reverse.
LocalConfig TarvoCameraFrameBoost::localConfig;
std::vector<int32_t> TarvoCameraFrameBoost::persistTids;
std::vector<int32_t> TarvoCameraFrameBoost::tempTids;

void TarvoCameraFrameBoost::TcfbtSetVersion(int32_t halVersion) noexcept {
    version = halVersion;
}

void TarvoCameraFrameBoost::TcfbtSetSceneInfo(bool isVideo, int32_t resolution,
                                              int32_t fps) noexcept {
    if (!isVideo) {
        DEBUG_LOG("isVideo =%d, resolution = %d, fps = %d, mFps = %d, cfbtScene = %d", AT(28),
                  isVideo, resolution, fps, mFps, cfbtScene);
    }
    const bool isBoostWidth =
        resolution == BOOST_WIDTH || resolution == localConfig.GetAdditionalSupportedWidth();
    if (isVideo && isBoostWidth && fps == BOOST_FPS) {
        cfbtScene = SCENE_VIDEO;
        mFps = BOOST_FPS;
    } else {
        TcfbtNotifySceneEnd();
        cfbtScene = SCENE_NONE;
        mFps = NO_FPS;
    }
    if (isVideo) {
        DEBUG_LOG("resolution = %d, fps = %d, mFps = %d, cfbtScene = %d", AT(51), resolution, fps,
                  mFps, cfbtScene);
    }
}

int32_t TarvoCameraFrameBoost::GetTcfbtFpsScene(int32_t fps) noexcept {
    switch (fps) {
        case 30:
            return 0;
        case 60:
            return 1;
        case 90:
            return 2;
        case 144:
            return 3;
        default:
            return 4;
    }
}

int32_t TarvoCameraFrameBoost::TcfbtNotifySceneStart(int32_t operationMode) noexcept {
    if (cfbtScene == SCENE_NONE || mFps == NO_FPS) {
        return -1;
    }
    if (!localConfig.GetFrameboostSwitch() || !localConfig.IsModeSupported(operationMode)) {
        DEBUG_LOG("cameraframeboost disabled", AT(63));
        return -1;
    }
    TcfbtSetTids();
    frameTracker.stageCount = localConfig.GetStageCount();
    const int32_t status = cfbtSceneStart(cfbtScene, GetTcfbtFpsScene(mFps), version);
    if (status == 0) {
        isSceneStarted = true;
    }
    DEBUG_LOG("isSceneStarted = %s", AT(79), status == 0 ? "true" : "false");
    return status;
}

int32_t TarvoCameraFrameBoost::TcfbtNotifySceneEnd() noexcept {
    if (cfbtScene == SCENE_NONE || mFps == NO_FPS || !isSceneStarted) {
        return -1;
    }
    const int32_t status = cfbtSceneEnd(cfbtScene);

    std::vector<int32_t> tids;
    {
        const std::lock_guard<std::mutex> lock(sceneTidsMutex);
        tids = Ascending(sceneTids);
        sceneTids.clear();
    }
    TcfbtRemoveTids(tids);
    {
        const std::lock_guard<std::mutex> lock(tempTidsMutex);
        tempTids.clear();
    }
    isSceneStarted = false;
    cfbtScene = SCENE_NONE;
    mFps = NO_FPS;
    frameTracker.Clear();
    DEBUG_LOG("", AT(113));
    return status;
}

int32_t TarvoCameraFrameBoost::TcfbtNotifyFrameStart(int64_t halFrameNumber) noexcept {
    if (!isSceneStarted) {
        return -1;
    }
    bool isError = false;
    int64_t errorFrameNumber = -1;
    int32_t result = 0;
    if (frameTracker.CheckIfCouldStartFrame(halFrameNumber, isError, errorFrameNumber)) {
        PulseCounter("TcfbtNotifyFrameStart", Low32(halFrameNumber));
        DEBUG_LOG("halFrameNumber = %ld", AT(132), halFrameNumber);
        result = cfbtFrameStart(Low32(halFrameNumber)) != 0 ? 1 : 0;
    }
    if (isError && errorFrameNumber != -1) {
        ReportErrorFrame(errorFrameNumber, NO_STAGE);
    }
    return result;
}

int32_t TarvoCameraFrameBoost::TcfbtNotifyErrorFrame(int64_t frameNumber, int32_t stage) noexcept {
    if (!isSceneStarted) {
        return -1;
    }
    return cfbtNotifyErrOfUser(cfbtScene, Low32(frameNumber), stage, NO_STAGE);
}

int32_t TarvoCameraFrameBoost::TcfbtNotifyFrameEnd(int64_t halFrameNumber) noexcept {
    if (!isSceneStarted) {
        return -1;
    }
    bool unused = false;
    if (!frameTracker.CheckIfCouldEndFrame(halFrameNumber, unused)) {
        return 0;
    }
    PulseCounter("TcfbtNotifyFrameEnd", Low32(halFrameNumber));
    DEBUG_LOG("halFrameNumber = %ld", AT(160), halFrameNumber);
    return cfbtFrameEnd(Low32(halFrameNumber)) != 0 ? 1 : 0;
}

int32_t TarvoCameraFrameBoost::NotifyStageStart(int32_t stage, int64_t halFrameNumber,
                                                int32_t stageArg1, int32_t stageArg2,
                                                const std::string& nodeName) {
    if (!isSceneStarted) {
        return -1;
    }
    bool isError = false;
    int32_t result = 0;
    if (frameTracker.CheckStatus(halFrameNumber, stage, false, isError)) {
        DEBUG_LOG("halFrameNumber = %ld, stage = %d, nodeName = %s",
                  AT_IN("TcfbtNotifyStageStart", __LINE__), halFrameNumber, stage,
                  nodeName.c_str());
        PulseStageCounter("TcfbtNotifyStageStart", stage, Low32(halFrameNumber));
        result = cfbtStageStart(Low32(halFrameNumber), stage, stageArg1, stageArg2) != 0 ? 1 : 0;
    }
    if (isError) {
        ReportErrorFrame(halFrameNumber, stage);
    }
    return result;
}

int32_t TarvoCameraFrameBoost::NotifyStageEnd(int32_t stage, int64_t halFrameNumber,
                                              const std::string& nodeName) {
    if (!isSceneStarted) {
        return -1;
    }
    bool isError = false;
    int32_t result = 0;
    if (frameTracker.CheckStatus(halFrameNumber, stage, true, isError)) {
        // Counter before log line here, log line before counter at a stage's start: tools rely on
        // both orders.
        PulseStageCounter("TcfbtNotifyStageEnd", stage, Low32(halFrameNumber));
        DEBUG_LOG("halFrameNumber = %ld, stage = %d, nodeName = %s",
                  AT_IN("TcfbtNotifyStageEnd", __LINE__), halFrameNumber, stage, nodeName.c_str());
        result = cfbtStageEnd(Low32(halFrameNumber), stage) != 0 ? 1 : 0;
    }
    if (isError) {
        ReportErrorFrame(halFrameNumber, stage);
    }
    return result;
}

int32_t TarvoCameraFrameBoost::TcfbtNotifyStageStart(int32_t stage, int64_t halFrameNumber,
                                                     int32_t stageArg1, int32_t stageArg2,
                                                     std::string nodeName) noexcept {
    return NotifyStageStart(stage, halFrameNumber, stageArg1, stageArg2, nodeName);
}

int32_t TarvoCameraFrameBoost::TcfbtNotifyStageEnd(int32_t stage, int64_t halFrameNumber,
                                                   std::string nodeName) noexcept {
    return NotifyStageEnd(stage, halFrameNumber, nodeName);
}

void TarvoCameraFrameBoost::TcfbtNotifyNodeEnd(int64_t halFrameNumber, std::string nodeName,
                                               int32_t portId, int32_t currentCameraId,
                                               bool isMaterCamera) noexcept {
    if (!isSceneStarted) {
        return;
    }
    RemapStage(isMaterCamera, currentCameraId, nodeName);
    int32_t stage = -1;
    const bool isStagePort = localConfig.FindStageAndPort(nodeName, portId, stage);
    DEBUG_LOG(
        "halFrameNumber = %ld, nodeName = %s, stage = %d, maxStageCnt = %d, portId = %d, "
        "currentCameraId = %d, isMaterCamera = %d",
        AT(__LINE__), halFrameNumber, nodeName.c_str(), stage, localConfig.GetStageCount(), portId,
        currentCameraId, isMaterCamera);
    if (!isStagePort) {
        return;
    }
    if (stage == 0) {
        // The pipeline's first node is free again and goes on with the next frame. A frame below 1
        // only starts the next one.
        if (halFrameNumber >= 1) {
            NotifyStageEnd(0, halFrameNumber, nodeName);
            StartStageOfNode(1, halFrameNumber, nodeName);
        }
        // Unsigned, so that the number after the highest one is defined: the lowest one.
        const auto nextFrame = static_cast<int64_t>(static_cast<uint64_t>(halFrameNumber) + 1);
        TcfbtNotifyFrameStart(nextFrame);
        StartStageOfNode(0, nextFrame, nodeName);
        return;
    }
    if (halFrameNumber < 1) {
        return;
    }
    NotifyStageEnd(stage, halFrameNumber, nodeName);
    // In 64 bits: the stage count comes from the store and may be any number.
    if (stage >= int64_t{localConfig.GetStageCount()} - 1) {
        TcfbtNotifyFrameEnd(halFrameNumber);
    } else {
        StartStageOfNode(stage + 1, halFrameNumber, nodeName);
    }
}

// A stage start that follows from a node end. Its first argument is one frame's duration at mFps in
// whole seconds: 0 at every real frame rate, and the service has always got 0.
void TarvoCameraFrameBoost::StartStageOfNode(int32_t stage, int64_t halFrameNumber,
                                             const std::string& nodeName) {
    const int32_t fps = mFps;
    NotifyStageStart(stage, halFrameNumber, fps == 0 ? 0 : 1 / fps, NODE_STAGE_ARG2, nodeName);
}

void TarvoCameraFrameBoost::TcfbtRemapStage(bool isMaterCamera, int32_t currentCameraId,
                                            std::string nodeName) noexcept {
    RemapStage(isMaterCamera, currentCameraId, nodeName);
}

void TarvoCameraFrameBoost::RemapStage(bool isMaterCamera, int32_t currentCameraId,
                                       const std::string& nodeName) {
    if (!isMaterCamera || std::string_view(nodeName).find(MULTI_CAMERA_NODE) == std::string::npos) {
        return;
    }
    const std::string cameraNode = MULTI_CAMERA_NODE_PREFIX + std::to_string(currentCameraId);
    if (localConfig.IsNodeNameMatch(cameraNode)) {
        return;
    }
    // No stage matches the new name here, so this updates stage -1, which no loaded table has.
    localConfig.UpdateNodeByStage(localConfig.GetStageByNodeName(cameraNode), cameraNode);
}

void TarvoCameraFrameBoost::TcfbtAddPersistTids(std::string name, int32_t tid) noexcept {
    if (!IsThreadManager(name)) {
        return;
    }
    DEBUG_LOG("name = %s, tid = %d ", AT(244), name.c_str(), tid);
    const std::lock_guard<std::mutex> lock(persistTidsMutex);
    Append(persistTids, tid);
}

void TarvoCameraFrameBoost::TcfbtAddTempTids(int32_t tid) noexcept {
    const std::lock_guard<std::mutex> lock(tempTidsMutex);
    Append(tempTids, tid);
}

int32_t TarvoCameraFrameBoost::TcfbtSetTids() noexcept {
    std::unordered_set<int32_t> tids;
    std::vector<int32_t> list;
    {
        const std::lock_guard<std::mutex> lock(persistTidsMutex);
        Insert(tids, persistTids);
    }
    {
        const std::lock_guard<std::mutex> lock(tempTidsMutex);
        Insert(tids, tempTids);
    }
    {
        const std::lock_guard<std::mutex> lock(sceneTidsMutex);
        Insert(sceneTids, tids);
        list = Ascending(sceneTids);
    }
    for (const int32_t tid : list) {
        DEBUG_LOG("tid = %d ", AT(281), tid);
    }
    return cfbtAddTids(cfbtScene, list);
}

int32_t TarvoCameraFrameBoost::TcfbtRemoveTids(const std::vector<int32_t>& tids) noexcept {
    if (!isSceneStarted) {
        return -1;
    }
    for (const int32_t tid : tids) {
        DEBUG_LOG("tid = %d", AT(296), tid);
    }
    return cfbtRemoveTids(cfbtScene, tids);
}

void TarvoCameraFrameBoost::DumpInfo() noexcept {
    DEBUG_LOG("DumpInfo PersistTids size = %d", AT(379), static_cast<int32_t>(persistTids.size()));
}

// Reports a bad frame to the service and shows it in the trace.
void TarvoCameraFrameBoost::ReportErrorFrame(int64_t frameNumber, int32_t stage) {
    PulseCounter("TcbtNotifyErrorFrame", Low32(frameNumber));
    if (isSceneStarted) {
        cfbtNotifyErrOfUser(cfbtScene, Low32(frameNumber), stage, NO_STAGE);
    }
}
