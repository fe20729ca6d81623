#include "cameraframeboost/tarvocameraframeboostutils.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <mutex>
#include <utility>

#include "cameraframeboost/debug.h"
#include "cameraframeboost/node_name.h"
#include "platform/config_store.h"
#include "platform/properties.h"

namespace {

constexpr char LOG_TAG[] = "tarvocameraframeboostutils";

constexpr char SECTION[] = "TarvoCameraFrameBoostConfig";
constexpr char KEY_ADDITIONAL_WIDTH[] = "additionalSupportedWidth";
constexpr char KEY_ENABLE[] = "cameraFrameBoostEnable";
constexpr char KEY_OPERATION_MODES[] = "SupportOperationModeList";
constexpr char KEY_STAGE[] = "stage";
constexpr size_t LOCALE_KEY_SIZE = 256;

bool ReadDebugSwitch() {
    return property_get_bool("vendor.tarvo.camera.frameboost.debug.enable", 0) != 0;
}

struct FreeArray {
    void operator()(void* array) const { std::free(array); }
};
template <typename T>
using StoreArray = std::unique_ptr<T[], FreeArray>;

// An array of zeros for the store to fill, of the length that the store asks for. Memory is taken
// when it is written to, so a length that is absurd costs none. Null where it is too absurd for
// that: as good as a list that cannot be read.
template <typename T>
StoreArray<T> MakeStoreArray(int32_t length) {
    // An array of nothing may be null as well.
    const auto size = static_cast<size_t>(std::max(length, 1));
    return StoreArray<T>(static_cast<T*>(std::calloc(size, sizeof(T))));
}

// An array of texts that the store fills; owns the array and every text in it.
class StoreTexts {
  public:
    explicit StoreTexts(int32_t count)
        : texts(MakeStoreArray<char*>(count)), length(texts == nullptr ? 0 : count) {}
    StoreTexts(const StoreTexts&) = delete;
    StoreTexts& operator=(const StoreTexts&) = delete;
    ~StoreTexts() { std::for_each(Data(), Data() + length, std::default_delete<char[]>()); }

    char** Data() { return texts.get(); }
    const char* operator[](int32_t index) const { return texts[static_cast<size_t>(index)]; }

  private:
    StoreArray<char*> texts;
    int32_t length;
};

// The number that `text` starts with. Aborts rather than throws: the configuration is read while
// the library is being loaded, where an exception could still be caught by whoever loads it.
int32_t ParsePort(const char* text) {
    char* end = nullptr;
    // A number beyond a long's range reads as the end of that range, which is too much here as
    // well.
    static_assert(sizeof(long) > sizeof(int32_t));
    const long port = std::strtol(text, &end, 10);
    if (end == text || port < std::numeric_limits<int32_t>::min() ||
        port > std::numeric_limits<int32_t>::max()) {
        std::abort();
    }
    return static_cast<int32_t>(port);
}

// A set's own order differs between standard libraries; what is shown must not.
std::vector<int32_t> Ascending(const std::unordered_set<int32_t>& values) {
    std::vector<int32_t> sorted(values.begin(), values.end());
    std::sort(sorted.begin(), sorted.end());
    return sorted;
}

// "0x" and the value in upper-case hexadecimal, a minus sign between the two: 0xA, 0x-1.
std::string ModeText(int32_t mode) {
    const auto wide = static_cast<int64_t>(mode);
    char text[sizeof("0x-80000000")];
    std::snprintf(text, sizeof(text), "0x%s%lX", wide < 0 ? "-" : "",
                  static_cast<unsigned long>(wide < 0 ? -wide : wide));
    return text;
}

}  // namespace

// The facade's unit may be initialised before or after this one. LocalConfig's constructor reads
// the switch for itself, so it is right in either order.
bool LocalConfig::enable = ReadDebugSwitch();

LocalConfig::LocalConfig() noexcept {
    enable = ReadDebugSwitch();
    Load();
    DumpConfig();
}

bool LocalConfig::Load() noexcept {
    additionalSupportedWidth = 0;
    GetIntegerConfiguration(SECTION, KEY_ADDITIONAL_WIDTH, &additionalSupportedWidth);

    uint32_t enableFlag = 0;
    GetBooleanConfiguration(SECTION, KEY_ENABLE, &enableFlag);
    frameboostSwitch = enableFlag != 0;

    stageCount = GetLocaleKeyCount(SECTION, KEY_STAGE);
    LoadSupportedModes();
    LoadStages();
    return true;
}

void LocalConfig::LoadSupportedModes() {
    const int32_t count = GetValuesCount(SECTION, KEY_OPERATION_MODES);
    if (count < 1) {
        return;
    }
    const auto length = static_cast<uint32_t>(count);
    const auto modes = MakeStoreArray<uint32_t>(count);
    if (modes == nullptr ||
        GetUIntegerListConfiguration(SECTION, KEY_OPERATION_MODES, modes.get(), length) != 0) {
        // A list that exists but cannot be read must not leave boosting half configured.
        frameboostSwitch = false;
        return;
    }
    for (uint32_t i = 0; i < length; ++i) {
        supportOperationModeList.insert(static_cast<int32_t>(modes[i]));
    }
}

void LocalConfig::LoadStages() {
    for (int32_t stage = 0; stage < stageCount; ++stage) {
        char localeKey[LOCALE_KEY_SIZE] = {};
        std::snprintf(localeKey, sizeof(localeKey), "%d", stage);
        // Below 0 means none. Such a list is asked for all the same: whether the store can read it
        // decides whether the table goes on.
        const int32_t count = std::max(GetLocaleKeyValuesCount(SECTION, KEY_STAGE, localeKey), 0);
        StoreTexts texts(count);
        if (texts.Data() == nullptr ||
            GetLocaleStringListConfiguration(SECTION, KEY_STAGE, localeKey, texts.Data(), count) !=
                0) {
            return;
        }
        if (count == 0 || texts[0] == nullptr) {
            continue;
        }
        NodePortInfo info{texts[0], {}};
        for (int32_t i = 1; i < count; ++i) {
            if (texts[i] != nullptr) {
                info.nodePorts.insert(ParsePort(texts[i]));
            }
        }
        AddStage(stage, std::move(info));
    }
}

void LocalConfig::AddStage(int32_t stage, NodePortInfo info) {
    if (nodePortMap.count(stage) != 0) {
        return;
    }
    // As a rule the end: only a second Load can fill a gap that the first one left.
    auto place = std::upper_bound(
        stages.begin(), stages.end(), stage,
        [](int32_t number, const StageEntry& entry) { return number < entry.stage; });
    const auto pairs = NodeName::PairsOfPart(info.nodeName);
    place = stages.insert(place, {stage, std::move(info), pairs});
    for (; place != stages.end(); ++place) {
        nodePortMap[place->stage] = static_cast<size_t>(place - stages.begin());
    }
}

void LocalConfig::DumpConfig() const {
    std::string modes;
    for (const int32_t mode : Ascending(supportOperationModeList)) {
        modes += ModeText(mode);
    }
    DEBUG_LOG("frameboost enable = %d", AT(186), frameboostSwitch);
    DEBUG_LOG("supportOperationModeList = %s", AT(194), modes.c_str());
    for (auto entry = stages.rbegin(); entry != stages.rend(); ++entry) {
        std::string ports;
        for (const int32_t port : Ascending(entry->info.nodePorts)) {
            ports += std::to_string(port) + " ";
        }
        DEBUG_LOG("stage = %d, nodename = %s, nodeport = %s", AT(205), entry->stage,
                  entry->info.nodeName.c_str(), ports.c_str());
    }
}

bool LocalConfig::GetFrameboostSwitch() const {
    return frameboostSwitch;
}

std::string LocalConfig::GetNodePort() const {
    return nodePort;
}

int32_t LocalConfig::GetStageCount() const {
    return stageCount;
}

bool LocalConfig::IsModeSupported(int32_t mode) {
    return supportOperationModeList.count(mode) != 0;
}

int32_t LocalConfig::GetAdditionalSupportedWidth() {
    return additionalSupportedWidth;
}

bool LocalConfig::IsLogEnable() {
    return enable;
}

bool LocalConfig::GetNodePortByStage(int32_t stage, NodePortInfo& info) const {
    const auto place = nodePortMap.find(stage);
    if (place == nodePortMap.end()) {
        return false;
    }
    info = stages[place->second].info;
    return true;
}

bool LocalConfig::UpdateNodeByStage(int32_t stage, const std::string& nodeName) {
    const auto place = nodePortMap.find(stage);
    if (place == nodePortMap.end()) {
        return false;
    }
    StageEntry& entry = stages[place->second];
    entry.info.nodeName = nodeName;
    entry.pairs = NodeName::PairsOfPart(nodeName);
    return true;
}

// Whether there is a stage whose node name occurs within `nodeName` and for which `visit` returns
// true. Matching by substring lets a configured stem stand for all instances of a node.
template <typename Visit>
bool LocalConfig::AnyMatch(const NodeName& nodeName, Visit visit) const {
    for (auto entry = stages.rbegin(); entry != stages.rend(); ++entry) {
        if (nodeName.Contains(entry->info.nodeName, entry->pairs) && visit(*entry)) {
            return true;
        }
    }
    return false;
}

int32_t LocalConfig::GetStageByNodeName(const std::string& nodeName) const {
    int32_t stage = -1;
    AnyMatch(NodeName(nodeName), [&stage](const StageEntry& entry) {
        stage = entry.stage;
        return true;
    });
    return stage;
}

bool LocalConfig::IsNodeNameMatch(const std::string& nodeName) const {
    return HasMatch(NodeName(nodeName));
}

bool LocalConfig::HasMatch(const NodeName& nodeName) const {
    return AnyMatch(nodeName, [](const StageEntry&) { return true; });
}

bool LocalConfig::IsStagePortVaild(const std::string& nodeName, int32_t portId) const {
    int32_t stage = -1;
    return FindStageAndPort(NodeName(nodeName), portId, stage);
}

bool LocalConfig::FindStageAndPort(const NodeName& nodeName, int32_t portId, int32_t& stage) const {
    stage = -1;
    return AnyMatch(nodeName, [portId, &stage](const StageEntry& entry) {
        stage = std::max(stage, entry.stage);
        return entry.info.nodePorts.count(portId) != 0;
    });
}

FrameTracker::FrameTracker(int32_t maxFrameTracked)
    : MAX_FRAME_TRACKED(std::max(maxFrameTracked, 1)) {}

// Makes an entry for a frame, out of one that another has left if there is one.
FrameTracker::FrameData& FrameTracker::AddFrame(int32_t key) {
    if (spareFrames.empty()) {
        spareFrames.reserve(frameData.size() + 1);  // All of them may be spare one day.
        return frameData[key];
    }
    FrameTable::node_type entry = std::move(spareFrames.back());
    spareFrames.pop_back();
    entry.key() = key;
    return frameData.insert(frameData.end(), std::move(entry))->second;
}

void FrameTracker::RemoveFrame(FrameTable::iterator entry) noexcept {
    spareFrames.push_back(frameData.extract(entry));
}

// Gives each stage its two flags, down.
void FrameTracker::PutFlagsDown(FrameData& frame) const {
    for (std::atomic<bool>* flag : frame.flags) {
        flag->store(false, std::memory_order_relaxed);
    }
    frame.flagsUp = 0;
    const auto count = static_cast<size_t>(stageCount);
    if (frame.flags.size() == 2 * count) {
        return;
    }
    frame.flags.clear();
    frame.stageStartStatus.clear();
    frame.stageEndStatus.clear();
    frame.flags.reserve(2 * count);
    frame.stageStartStatus.reserve(count);
    frame.stageEndStatus.reserve(count);
    for (int32_t stage = 0; stage < stageCount; ++stage) {
        frame.flags.push_back(&frame.stageStartStatus.emplace(stage, false).first->second);
        frame.flags.push_back(&frame.stageEndStatus.emplace(stage, false).first->second);
    }
}

bool FrameTracker::CheckIfCouldStartFrame(int64_t frameNumber, bool& isError,
                                          int64_t& errorFrameNumber) noexcept {
    const std::lock_guard<std::shared_mutex> lock(frameMutex);
    const auto key = static_cast<int32_t>(frameNumber);
    if (frameData.count(key) != 0) {
        DEBUG_LOG("frameNumber: %ld already exists", AT(220), frameNumber);
        return false;
    }

    bool inError = false;
    if (!frameData.empty()) {
        const int64_t lastFrameNumber = frameData.rbegin()->first;
        inError = lastFrameNumber + 1 != frameNumber;
        if (inError) {
            DEBUG_LOG(
                "frameNumber continuity check fail, lastFrameNumber: %ld, current frameNumber: %ld",
                AT(233), lastFrameNumber, frameNumber);
        }
    }

    if (frameData.size() >= static_cast<size_t>(MAX_FRAME_TRACKED)) {
        const auto oldest = frameData.begin();
        std::atomic<uint32_t>& status = oldest->second.status;
        // Deliberately blind to FRAME_ERROR: who was admitted in sequence is reported, unless it
        // has been already.
        if ((status.load() & (FRAME_STARTED | FRAME_ENDED | FRAME_ERROR_NOTIFIED)) ==
            FRAME_STARTED) {
            DEBUG_LOG(
                "current frameData size(%d) > MAX_FRAME_TRACKED(%d), mark and notify frame "
                "error",
                AT(252), static_cast<int32_t>(frameData.size()), MAX_FRAME_TRACKED);
            status.fetch_or(FRAME_ERROR_NOTIFIED, std::memory_order_relaxed);
            errorFrameNumber = oldest->first;
            isError = true;
        }
        RemoveFrame(oldest);
    }

    if (stageCount < 0) {
        std::abort();
    }
    FrameData& frame = AddFrame(key);
    frame.status.store(inError ? FRAME_ERROR : FRAME_STARTED, std::memory_order_relaxed);
    PutFlagsDown(frame);
    DEBUG_LOG("new frame added, is error = %d", AT(283), inError);
    return !inError;
}

bool FrameTracker::CheckIfCouldEndFrame(int64_t frameNumber, bool& /*flag*/) {
    const std::lock_guard<std::shared_mutex> lock(frameMutex);
    const auto entry = frameData.find(static_cast<int32_t>(frameNumber));
    if (entry == frameData.end()) {
        DEBUG_LOG("frameNumber: %ld not exist", AT(295), frameNumber);
        return false;
    }
    const uint32_t status = entry->second.status.load();
    entry->second.status.fetch_or(FRAME_ENDED, std::memory_order_relaxed);
    RemoveFrame(entry);
    return IsReportable(status);
}

void FrameTracker::Clear() {
    const std::lock_guard<std::shared_mutex> lock(frameMutex);
    frameData.clear();
    spareFrames.clear();
}

inline bool FrameTracker::CheckFrame(int64_t frameNumber, bool& isError) {
    const std::lock_guard<std::shared_mutex> lock(frameMutex);
    const auto entry = frameData.find(static_cast<int32_t>(frameNumber));
    if (entry == frameData.end()) {
        DEBUG_LOG("frameNumber not exist, frameNumber = %ld", AT_IN("CheckFrameStatus", 446),
                  frameNumber);
        return false;
    }
    const uint32_t status = entry->second.status.load();
    if ((status & FRAME_ERROR) != 0) {
        if (IsReportable(status)) {
            entry->second.status.fetch_or(FRAME_ERROR_NOTIFIED, std::memory_order_relaxed);
            DEBUG_LOG("is error frame, notify frame error, frameNumber = %ld",
                      AT_IN("CheckFrameStatus", 464), frameNumber);
            isError = true;
        }
        return false;
    }
    if ((status & FRAME_ENDED) == 0) {
        return true;
    }
    // Nothing leaves an ended frame behind today; should that change, it goes here.
    RemoveFrame(entry);
    DEBUG_LOG("remove frame, frameNumber = %ld", AT_IN("CheckFrameStatus", 474), frameNumber);
    return false;
}

inline bool FrameTracker::CheckStage(int64_t frameNumber, int32_t stage, bool isEnd,
                                     bool& isError) {
    if (stage < 0 || stage >= stageCount) {
        DEBUG_LOG("stage error, notify frame error, frameNumber = %ld, stage = %d, stageCount = %d",
                  AT_IN("CheckStagesStatus", 326), frameNumber, stage, stageCount);
        isError = true;
        return false;
    }

    const std::lock_guard<std::shared_mutex> lock(frameMutex);
    const auto entry = frameData.find(static_cast<int32_t>(frameNumber));
    if (entry == frameData.end()) {
        DEBUG_LOG("frameNumber not exist, frameNumber = %ld", AT_IN("CheckStagesStatus", 336),
                  frameNumber);
        return false;
    }
    FrameData& frame = entry->second;
    const size_t event = 2 * static_cast<size_t>(stage) + (isEnd ? 1 : 0);
    // With more stages now than the frame has flags, looking for those of the others is what ends
    // the process.
    if (frame.flagsUp == event && frame.flags.size() >= 2 * static_cast<size_t>(stageCount)) {
        *frame.flags[event] = true;
        ++frame.flagsUp;
        return true;
    }
    MarkInError(frame, frameNumber, stage, isEnd, isError);
    return false;
}

bool FrameTracker::CheckStatus(int64_t frameNumber, int32_t stage, bool isEnd, bool& isError) {
    return CheckFrame(frameNumber, isError) && CheckStage(frameNumber, stage, isEnd, isError);
}

bool FrameTracker::CheckFrameStatus(int64_t frameNumber, bool& isError) {
    return CheckFrame(frameNumber, isError);
}

bool FrameTracker::CheckStagesStatus(int64_t frameNumber, int32_t stage, bool isEnd,
                                     bool& isError) {
    return CheckStage(frameNumber, stage, isEnd, isError);
}

// Marks a frame as in error after an event that is out of order.
void FrameTracker::MarkInError(FrameData& frame, int64_t frameNumber, int32_t stage, bool isEnd,
                               bool& isError) const {
    const uint32_t status = frame.status.load();
    const int32_t errorStage = FirstStageOutOfOrder(frame, stage);
    frame.status.fetch_or(FRAME_ERROR, std::memory_order_relaxed);
    if (!IsReportable(status)) {
        return;
    }
    frame.status.fetch_or(FRAME_ERROR_NOTIFIED, std::memory_order_relaxed);
    isError = true;
    if (errorStage != -1) {
        DEBUG_LOG(
            "stage status check error, notify frame error, frameNumber = %ld, stage = %d, "
            "error stage = %d",
            AT_IN("CheckStagesStatus", errorStage < stage ? 361 : 382), frameNumber, stage,
            errorStage);
    } else {
        DEBUG_LOG("stage status check error, notify frame error, frameNumber = %ld, stage = %d",
                  AT_IN("CheckStagesStatus", isEnd ? 401 : 419), frameNumber, stage);
    }
}

// A frame whose error may be handed over. Deliberately blind to FRAME_ERROR and FRAME_ENDED; a
// frame that was admitted out of sequence lacks FRAME_STARTED and never is.
bool FrameTracker::IsReportable(uint32_t status) {
    return (status & (FRAME_STARTED | FRAME_ERROR_NOTIFIED)) == FRAME_STARTED;
}

std::atomic<bool>& FrameTracker::FlagOf(StageFlags& flags, int32_t stage) {
    const auto flag = flags.find(stage);
    if (flag == flags.end()) {
        std::abort();
    }
    return flag->second;
}

// The first earlier stage that has not run, else the first later stage that has begun; -1 when
// there is none, and it is `stage` itself that cannot start or end.
int32_t FrameTracker::FirstStageOutOfOrder(FrameData& frame, int32_t stage) const {
    for (int32_t earlier = 0; earlier < stage; ++earlier) {
        if (!FlagOf(frame.stageStartStatus, earlier) || !FlagOf(frame.stageEndStatus, earlier)) {
            return earlier;
        }
    }
    for (int32_t later = stage + 1; later < stageCount; ++later) {
        if (FlagOf(frame.stageStartStatus, later) || FlagOf(frame.stageEndStatus, later)) {
            return later;
        }
    }
    FlagOf(frame.stageStartStatus, stage);  // There must be one, as there must of the others.
    return -1;
}
