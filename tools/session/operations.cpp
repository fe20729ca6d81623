#include "tools/session/operations.h"

#include <algorithm>
#include <array>
#include <type_traits>
#include <utility>

namespace tools {
namespace {

using Boost = TarvoCameraFrameBoost;

template <size_t... Index, typename Result, typename... Arguments>
std::optional<int32_t> Invoke(std::index_sequence<Index...>, Boost& boost,
                              Result (Boost::*function)(Arguments...),
                              [[maybe_unused]] const std::vector<Value>& values) {
    if constexpr (std::is_void_v<Result>) {
        (boost.*function)(std::get<std::decay_t<Arguments>>(values[Index])...);
        return std::nullopt;
    } else {
        return (boost.*function)(std::get<std::decay_t<Arguments>>(values[Index])...);
    }
}

// The form of a member function; its type tells the types of the parameters.
template <typename Result, typename... Arguments>
OperationForm Bind(Operation operation, std::string_view name,
                   Result (Boost::*function)(Arguments...),
                   const std::array<Parameter, sizeof...(Arguments)>& parameters = {}) {
    return {operation,
            name,
            {parameters.begin(), parameters.end()},
            {std::decay_t<Arguments>{}...},
            [function](Boost& boost, const std::vector<Value>& values) {
                return Invoke(std::index_sequence_for<Arguments...>{}, boost, function, values);
            }};
}

}  // namespace

std::string_view NameOf(Parameter parameter) {
    // In the order of Parameter.
    constexpr auto names = std::to_array<std::string_view>(
        {"version", "isVideo", "resolution", "fps", "operationMode", "halFrameNumber",
         "frameNumber", "stage", "stageArg1", "stageArg2", "nodeName", "portId", "currentCameraId",
         "isMaterCamera", "name", "tid", "tids"});
    return names[static_cast<size_t>(parameter)];
}

std::span<const OperationForm> Operations() {
    using enum Operation;
    using enum Parameter;
    static const std::vector<OperationForm> operations = {
        Bind(SetVersion, "TcfbtSetVersion", &Boost::TcfbtSetVersion, {Version}),
        Bind(SetSceneInfo, "TcfbtSetSceneInfo", &Boost::TcfbtSetSceneInfo,
             {IsVideo, Resolution, Fps}),
        Bind(GetFpsScene, "GetTcfbtFpsScene", &Boost::GetTcfbtFpsScene, {Fps}),
        Bind(SceneStart, "TcfbtNotifySceneStart", &Boost::TcfbtNotifySceneStart, {OperationMode}),
        Bind(SceneEnd, "TcfbtNotifySceneEnd", &Boost::TcfbtNotifySceneEnd),
        Bind(FrameStart, "TcfbtNotifyFrameStart", &Boost::TcfbtNotifyFrameStart, {HalFrameNumber}),
        Bind(ErrorFrame, "TcfbtNotifyErrorFrame", &Boost::TcfbtNotifyErrorFrame,
             {FrameNumber, Stage}),
        Bind(FrameEnd, "TcfbtNotifyFrameEnd", &Boost::TcfbtNotifyFrameEnd, {HalFrameNumber}),
        Bind(StageStart, "TcfbtNotifyStageStart", &Boost::TcfbtNotifyStageStart,
             {Stage, HalFrameNumber, StageArg1, StageArg2, NodeName}),
        Bind(StageEnd, "TcfbtNotifyStageEnd", &Boost::TcfbtNotifyStageEnd,
             {Stage, HalFrameNumber, NodeName}),
        Bind(NodeEnd, "TcfbtNotifyNodeEnd", &Boost::TcfbtNotifyNodeEnd,
             {HalFrameNumber, NodeName, PortId, CurrentCameraId, IsMaterCamera}),
        Bind(RemapStage, "TcfbtRemapStage", &Boost::TcfbtRemapStage,
             {IsMaterCamera, CurrentCameraId, NodeName}),
        Bind(AddPersistTids, "TcfbtAddPersistTids", &Boost::TcfbtAddPersistTids, {Name, Tid}),
        Bind(AddTempTids, "TcfbtAddTempTids", &Boost::TcfbtAddTempTids, {Tid}),
        Bind(SetTids, "TcfbtSetTids", &Boost::TcfbtSetTids),
        Bind(RemoveTids, "TcfbtRemoveTids", &Boost::TcfbtRemoveTids, {Tids}),
        Bind(DumpInfo, "DumpInfo", &Boost::DumpInfo),
    };
    return operations;
}

const OperationForm& FormOf(Operation operation) {
    return Operations()[static_cast<size_t>(operation)];
}

size_t Call::IndexOf(Parameter parameter) const {
    const auto& parameters = FormOf(operation).parameters;
    return static_cast<size_t>(std::find(parameters.begin(), parameters.end(), parameter) -
                               parameters.begin());
}

std::optional<int32_t> Make(const Call& call, TarvoCameraFrameBoost& boost) {
    return FormOf(call.operation).call(boost, call.arguments);
}

}  // namespace tools
