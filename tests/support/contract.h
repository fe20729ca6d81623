// What the boost service relies on, whatever the HAL does.

#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "host/desktop.h"

// Checks and counts every service call as it comes. With many threads, reports are only counted: a
// report from one thread may come before or after another thread's events of the same frame.
class Contract : public desktop::Observer {
  public:
    explicit Contract(int32_t pipelineStages, bool hasManyThreads = false)
        : stageCount(pipelineStages), manyThreads(hasManyThreads) {
        desktop::SetObserver(this);
    }
    ~Contract() override { desktop::SetObserver(nullptr); }
    Contract(const Contract&) = delete;
    Contract& operator=(const Contract&) = delete;

    void OnEffect(const desktop::Effect& effect) override {
        if (const auto* call = std::get_if<desktop::ServiceCall>(&effect.event)) {
            const std::lock_guard<std::mutex> lock(mutex);
            ++counts[static_cast<size_t>(call->function)];
            if (!Allows(*call) && violation.empty()) {
                violation = ToString(*call);
            }
        }
    }

    // To be called after every HAL call that may have ended the scene.
    void SettleSceneEnd() {
        if (isEnding) {
            isStarted = false;
            isEnding = false;
            openFrames.clear();
        }
    }

    int64_t Count(desktop::ServiceFunction function) const {
        return counts[static_cast<size_t>(function)];
    }

    std::string violation;             // The first call that breaks the contract.
    bool isStarted = false;            // The service has accepted the scene.
    bool isHalReporting = false;       // Error reports come from the HAL and are only counted.
    bool isStageEvent = false;         // A report for stage -1 means stage -1, not the whole frame.
    std::set<int32_t> registeredTids;  // What has to be taken back at the end of the scene.
    // The frames that the service may be told more about, with the number of their stage events so
    // far.
    std::map<int32_t, int32_t> openFrames;

  private:
    bool Allows(const desktop::ServiceCall& call) {
        using desktop::ServiceFunction;
        const int32_t frame = call.Argument("frame");
        const int32_t stage = call.Argument("stage");
        if (call.function == ServiceFunction::SceneStart) {
            isStarted = isStarted || call.status == 0;
            return true;
        }
        if (call.function == ServiceFunction::AddTids) {
            registeredTids.insert(call.tids.begin(), call.tids.end());
            // Each once, in ascending order.
            return std::adjacent_find(call.tids.begin(), call.tids.end(), std::greater_equal<>()) ==
                   call.tids.end();
        }
        if (!isStarted) {
            return false;
        }
        switch (call.function) {
            case ServiceFunction::SceneEnd:
                isEnding = true;
                return true;
            case ServiceFunction::RemoveTids: {
                if (!isEnding) {
                    return true;
                }
                const std::set<int32_t> all = std::exchange(registeredTids, {});
                return std::vector<int32_t>(all.begin(), all.end()) == call.tids;
            }
            case ServiceFunction::FrameStart:
                return openFrames.emplace(frame, 0).second;
            case ServiceFunction::StageStart:
            case ServiceFunction::StageEnd: {
                const auto open = openFrames.find(frame);
                const int32_t isEnd = call.function == ServiceFunction::StageEnd ? 1 : 0;
                return open != openFrames.end() && open->second++ == 2 * stage + isEnd;
            }
            case ServiceFunction::FrameEnd:
                return openFrames.erase(frame) == 1;
            default: {
                if (isHalReporting || manyThreads) {
                    return true;
                }
                // After a stage that does not exist the frame goes on; any other error is reported
                // once and is the last of its frame.
                const bool isNoStage = stage < (isStageEvent ? 0 : -1) || stage >= stageCount;
                return (isNoStage ? openFrames.count(frame) : openFrames.erase(frame)) == 1;
            }
        }
    }

    const int32_t stageCount;
    const bool manyThreads;
    bool isEnding = false;
    std::array<int64_t, desktop::SERVICE_FUNCTION_COUNT> counts{};
    std::mutex mutex;  // Guards everything while there are many threads.
};
