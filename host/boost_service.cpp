// A boost service that reports every call to the observer and returns the status that was set.

#include "platform/boost_service.h"

#include <initializer_list>
#include <utility>

#include "host/desktop.h"
#include "host/state.h"

namespace {

using desktop::ServiceArgument;
using desktop::ServiceFunction;

int32_t Answer(ServiceFunction function, std::initializer_list<ServiceArgument> arguments,
               const std::vector<int32_t>& tids = {}) {
    desktop::State& state = desktop::GetState();
    const auto index = static_cast<size_t>(function);
    state.serviceCalls[index].fetch_add(1, std::memory_order_relaxed);
    const int32_t status = state.serviceStatus[index].load(std::memory_order_relaxed);
    desktop::Emit([&] { return desktop::ServiceCall{function, arguments, tids, status}; });
    return status;
}

}  // namespace

int32_t cfbtSceneStart(int32_t scene, int32_t fpsClass, int32_t version) {
    return Answer(ServiceFunction::SceneStart,
                  {{"scene", scene}, {"fpsClass", fpsClass}, {"version", version}});
}

int32_t cfbtSceneEnd(int32_t scene) {
    return Answer(ServiceFunction::SceneEnd, {{"scene", scene}});
}

int32_t cfbtFrameStart(int32_t frameNumber) {
    return Answer(ServiceFunction::FrameStart, {{"frame", frameNumber}});
}

int32_t cfbtFrameEnd(int32_t frameNumber) {
    return Answer(ServiceFunction::FrameEnd, {{"frame", frameNumber}});
}

int32_t cfbtStageStart(int32_t frameNumber, int32_t stage, int32_t stageArg1, int32_t stageArg2) {
    return Answer(
        ServiceFunction::StageStart,
        {{"frame", frameNumber}, {"stage", stage}, {"arg1", stageArg1}, {"arg2", stageArg2}});
}

int32_t cfbtStageEnd(int32_t frameNumber, int32_t stage) {
    return Answer(ServiceFunction::StageEnd, {{"frame", frameNumber}, {"stage", stage}});
}

int32_t cfbtAddTids(int32_t scene, const std::vector<int32_t>& tids) {
    return Answer(ServiceFunction::AddTids, {{"scene", scene}}, tids);
}

int32_t cfbtRemoveTids(int32_t scene, const std::vector<int32_t>& tids) {
    return Answer(ServiceFunction::RemoveTids, {{"scene", scene}}, tids);
}

int32_t cfbtNotifyErrOfUser(int32_t scene, int32_t frameNumber, int32_t stage, int32_t errorStage) {
    return Answer(
        ServiceFunction::NotifyErrOfUser,
        {{"scene", scene}, {"frame", frameNumber}, {"stage", stage}, {"errorStage", errorStage}});
}
