#include "cameraframeboost/tarvocameraframeboostutils.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string_view>
#include <utility>

#include "cameraframeboost/debug.h"
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

// Frees the arrays that the store fills. The texts in them are ours to delete.
struct FreeArray {
    void operator()(void* array) const { std::free(array); }
};
struct FreeTexts {
    int32_t length;
    void operator()(char** texts) const {
        std::for_each_n(texts, length, std::default_delete<char[]>());
        std::free(texts);
    }
};

// An array of zeros for as many values as the store says. With calloc, pages that nobody writes
// take no memory, so a length that is too large costs none. It costs time, though: the array is
// read to its end, which takes some seconds for a billion values.
template <typename T>
T* MakeStoreArray(int32_t length) {
    // For a length of 0 calloc may return null.
    void* array = std::calloc(static_cast<size_t>(std::max(length, 1)), sizeof(T));
    if (array == nullptr) {
        std::abort();
    }
    return static_cast<T*>(array);
}

// "0x" and the value in upper-case hexadecimal, a minus sign between the two: 0xA, 0x-1.
std::string ModeText(int32_t mode) {
    const auto wide = static_cast<int64_t>(mode);
    char text[sizeof("0x-80000000")];
    std::snprintf(text, sizeof(text), "0x%s%lX", wide < 0 ? "-" : "",
                  static_cast<unsigned long>(wide < 0 ? -wide : wide));
    return text;
}

// The place of a stage in the table, or the place to insert it.
template <typename Table>
auto PlaceOf(int32_t stage, Table& table) {
    return std::lower_bound(table.begin(), table.end(), stage,
                            [](const auto& entry, int32_t number) { return entry.stage < number; });
}

// Takes views because their search is inlined: with it a frame of 16 stages takes 1.66 times as
// long as the benchmark's floor, with the search of strings 1.83 times.
bool Contains(std::string_view name, std::string_view part) {
    return name.find(part) != std::string_view::npos;
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
    const std::unique_ptr<uint32_t[], FreeArray> modes(MakeStoreArray<uint32_t>(count));
    if (GetUIntegerListConfiguration(SECTION, KEY_OPERATION_MODES, modes.get(), length) != 0) {
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
        // A count below 0 means none. The list is read even so: when the store cannot read it, the
        // table ends here.
        const int32_t count = std::max(GetLocaleKeyValuesCount(SECTION, KEY_STAGE, localeKey), 0);
        const std::unique_ptr<char*[], FreeTexts> texts(MakeStoreArray<char*>(count), {count});
        if (GetLocaleStringListConfiguration(SECTION, KEY_STAGE, localeKey, texts.get(), count) !=
            0) {
            return;
        }
        if (count == 0 || texts[0] == nullptr) {
            continue;
        }
        NodePortInfo info{texts[0], {}};
        for (size_t i = 1; i < static_cast<size_t>(count); ++i) {
            if (texts[i] != nullptr) {
                info.nodePorts.insert(std::stoi(texts[i]));
            }
        }
        const auto place = PlaceOf(stage, nodePortMap);
        if (place == nodePortMap.end() || place->stage != stage) {
            nodePortMap.insert(place, {stage, std::move(info)});
        }
    }
}

void LocalConfig::DumpConfig() const noexcept {
    std::string modes;
    for (const int32_t mode : Ascending(supportOperationModeList)) {
        modes += ModeText(mode);
    }
    DEBUG_LOG("frameboost enable = %d", AT(186), frameboostSwitch);
    DEBUG_LOG("supportOperationModeList = %s", AT(194), modes.c_str());
    for (auto entry = nodePortMap.rbegin(); entry != nodePortMap.rend(); ++entry) {
        const auto& [stage, info] = *entry;
        std::string ports;
        for (const int32_t port : Ascending(info.nodePorts)) {
            ports += std::to_string(port) + " ";
        }
        DEBUG_LOG("stage = %d, nodename = %s, nodeport = %s", AT(205), stage, info.nodeName.c_str(),
                  ports.c_str());
    }
}

bool LocalConfig::GetFrameboostSwitch() const noexcept {
    return frameboostSwitch;
}

std::string LocalConfig::GetNodePort() const noexcept {
    return nodePort;
}

int32_t LocalConfig::GetStageCount() const noexcept {
    return stageCount;
}

bool LocalConfig::IsModeSupported(int32_t mode) noexcept {
    return supportOperationModeList.count(mode) != 0;
}

int32_t LocalConfig::GetAdditionalSupportedWidth() noexcept {
    return additionalSupportedWidth;
}

bool LocalConfig::IsLogEnable() noexcept {
    return enable;
}

bool LocalConfig::GetNodePortByStage(int32_t stage, NodePortInfo& info) const noexcept {
    const auto place = PlaceOf(stage, nodePortMap);
    if (place == nodePortMap.end() || place->stage != stage) {
        return false;
    }
    info = place->info;
    return true;
}

bool LocalConfig::UpdateNodeByStage(int32_t stage, const std::string& nodeName) noexcept {
    const auto place = PlaceOf(stage, nodePortMap);
    if (place == nodePortMap.end() || place->stage != stage) {
        return false;
    }
    place->info.nodeName = nodeName;
    return true;
}

int32_t LocalConfig::GetStageByNodeName(const std::string& nodeName) const noexcept {
    for (auto entry = nodePortMap.rbegin(); entry != nodePortMap.rend(); ++entry) {
        if (Contains(nodeName, entry->info.nodeName)) {
            return entry->stage;
        }
    }
    return -1;
}

bool LocalConfig::IsNodeNameMatch(const std::string& nodeName) const noexcept {
    return GetStageByNodeName(nodeName) != -1;
}

bool LocalConfig::IsStagePortVaild(const std::string& nodeName, int32_t portId) const noexcept {
    int32_t stage = -1;
    return FindStageAndPort(nodeName, portId, stage);
}

bool LocalConfig::FindStageAndPort(const std::string& nodeName, int32_t portId,
                                   int32_t& stage) const {
    stage = -1;
    for (auto entry = nodePortMap.rbegin(); entry != nodePortMap.rend(); ++entry) {
        if (Contains(nodeName, entry->info.nodeName)) {
            stage = std::max(stage, entry->stage);
            if (entry->info.nodePorts.count(portId) != 0) {
                return true;
            }
        }
    }
    return false;
}

FrameTracker::FrameTracker(int32_t maxFrameTracked) noexcept
    : MAX_FRAME_TRACKED(std::max(maxFrameTracked, 1)) {}

// Makes an entry for a frame; uses a spare one if there is any.
FrameTracker::FrameData& FrameTracker::AddFrame(int32_t key) noexcept {
    if (spareFrames.empty()) {
        spareFrames.reserve(frameData.size() + 1);  // All of them may become spare.
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

// Gives each stage its two flags, not set.
void FrameTracker::ClearFlags(FrameData& frame) const noexcept {
    const auto count = static_cast<size_t>(stageCount);
    frame.flagsSet = 0;
    for (StageFlags* flags : {&frame.stageStartStatus, &frame.stageEndStatus}) {
        if (flags->size() != count) {
            flags->clear();
            flags->reserve(count);
            for (int32_t stage = 0; stage < stageCount; ++stage) {
                flags->emplace(stage, false);
            }
        }
        for (auto& [stage, flag] : *flags) {
            flag.store(false, std::memory_order_relaxed);
        }
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
        // FRAME_ERROR does not matter here: the service knows of every frame that was admitted in
        // sequence, so each of them is reported, unless it has been already.
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
    ClearFlags(frame);
    DEBUG_LOG("new frame added, is error = %d", AT(283), inError);
    return !inError;
}

bool FrameTracker::CheckIfCouldEndFrame(int64_t frameNumber, bool& /*flag*/) noexcept {
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

void FrameTracker::Clear() noexcept {
    const std::lock_guard<std::shared_mutex> lock(frameMutex);
    frameData.clear();
    spareFrames.clear();
}

bool FrameTracker::CheckFrameStatus(int64_t frameNumber, bool& isError) noexcept {
    const std::lock_guard<std::shared_mutex> lock(frameMutex);
    const auto entry = frameData.find(static_cast<int32_t>(frameNumber));
    if (entry == frameData.end()) {
        DEBUG_LOG("frameNumber not exist, frameNumber = %ld", AT(446), frameNumber);
        return false;
    }
    const uint32_t status = entry->second.status.load();
    if ((status & FRAME_ERROR) != 0) {
        if (IsReportable(status)) {
            entry->second.status.fetch_or(FRAME_ERROR_NOTIFIED, std::memory_order_relaxed);
            DEBUG_LOG("is error frame, notify frame error, frameNumber = %ld", AT(464),
                      frameNumber);
            isError = true;
        }
        return false;
    }
    if ((status & FRAME_ENDED) == 0) {
        return true;
    }
    // No operation leaves an ended frame in the table today. Should one, it is removed here.
    RemoveFrame(entry);
    DEBUG_LOG("remove frame, frameNumber = %ld", AT(474), frameNumber);
    return false;
}

bool FrameTracker::CheckStagesStatus(int64_t frameNumber, int32_t stage, bool isEnd,
                                     bool& isError) noexcept {
    if (stage < 0 || stage >= stageCount) {
        DEBUG_LOG("stage error, notify frame error, frameNumber = %ld, stage = %d, stageCount = %d",
                  AT(326), frameNumber, stage, stageCount);
        isError = true;
        return false;
    }

    const std::lock_guard<std::shared_mutex> lock(frameMutex);
    const auto entry = frameData.find(static_cast<int32_t>(frameNumber));
    if (entry == frameData.end()) {
        DEBUG_LOG("frameNumber not exist, frameNumber = %ld", AT(336), frameNumber);
        return false;
    }
    FrameData& frame = entry->second;
    const size_t event = 2 * static_cast<size_t>(stage) + (isEnd ? 1 : 0);
    // When there are more stages now than the frame has flags for, the search below finds no flag
    // and ends the process.
    if (frame.flagsSet == event &&
        frame.stageStartStatus.size() >= static_cast<size_t>(stageCount)) {
        (isEnd ? frame.stageEndStatus : frame.stageStartStatus).at(stage) = true;
        ++frame.flagsSet;
        return true;
    }
    MarkInError(frame, frameNumber, stage, isEnd, isError);
    return false;
}

bool FrameTracker::CheckStatus(int64_t frameNumber, int32_t stage, bool isEnd,
                               bool& isError) noexcept {
    return CheckFrameStatus(frameNumber, isError) &&
           CheckStagesStatus(frameNumber, stage, isEnd, isError);
}

// Marks a frame as in error after an event that is out of order.
void FrameTracker::MarkInError(FrameData& frame, int64_t frameNumber, int32_t stage, bool isEnd,
                               bool& isError) const noexcept {
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

// Whether the frame's error may be handed over: the service has to know of the frame, and must not
// have had a report of it yet. FRAME_ERROR and FRAME_ENDED do not matter. A frame that was admitted
// out of sequence lacks FRAME_STARTED, since the service does not know of it.
bool FrameTracker::IsReportable(uint32_t status) noexcept {
    return (status & (FRAME_STARTED | FRAME_ERROR_NOTIFIED)) == FRAME_STARTED;
}

// The first earlier stage that has not run, else the first later stage that has begun; -1 when
// there is none, and it is `stage` itself that cannot start or end.
int32_t FrameTracker::FirstStageOutOfOrder(const FrameData& frame, int32_t stage) const noexcept {
    for (int32_t earlier = 0; earlier < stage; ++earlier) {
        if (!frame.stageStartStatus.at(earlier) || !frame.stageEndStatus.at(earlier)) {
            return earlier;
        }
    }
    for (int32_t later = stage + 1; later < stageCount; ++later) {
        if (frame.stageStartStatus.at(later) || frame.stageEndStatus.at(later)) {
            return later;
        }
    }
    frame.stageStartStatus.at(stage);  // Ends the process when there is none, as above.
    return -1;
}
