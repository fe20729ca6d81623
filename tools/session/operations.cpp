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

// The form of a member function; its type has the types of the parameters.
template <typename Result, typename... Arguments>
OperationForm Bind(Operation operation, std::string_view name,
                   Result (Boost::*function)(Arguments...),
                   const std::array<std::string_view, sizeof...(Arguments)>& parameters = {}) {
    return {operation,
            name,
            {parameters.begin(), parameters.end()},
            {std::decay_t<Arguments>{}...},
            [function](Boost& boost, const std::vector<Value>& values) {
                return Invoke(std::index_sequence_for<Arguments...>{}, boost, function, values);
            }};
}

}  // namespace

std::span<const OperationForm> Operations() {
    using enum Operation;
    static const std::vector<OperationForm> operations = {
        Bind(SetVersion, "TcfbtSetVersion", &Boost::TcfbtSetVersion, {"version"}),
        Bind(SetSceneInfo, "TcfbtSetSceneInfo", &Boost::TcfbtSetSceneInfo,
             {"isVideo", "resolution", "fps"}),
        Bind(GetFpsScene, "GetTcfbtFpsScene", &Boost::GetTcfbtFpsScene, {"fps"}),
        Bind(SceneStart, "TcfbtNotifySceneStart", &Boost::TcfbtNotifySceneStart, {OPERATION_MODE}),
        Bind(SceneEnd, "TcfbtNotifySceneEnd", &Boost::TcfbtNotifySceneEnd),
        Bind(FrameStart, "TcfbtNotifyFrameStart", &Boost::TcfbtNotifyFrameStart,
             {"halFrameNumber"}),
        Bind(ErrorFrame, "TcfbtNotifyErrorFrame", &Boost::TcfbtNotifyErrorFrame,
             {"frameNumber", "stage"}),
        Bind(FrameEnd, "TcfbtNotifyFrameEnd", &Boost::TcfbtNotifyFrameEnd, {"halFrameNumber"}),
        Bind(StageStart, "TcfbtNotifyStageStart", &Boost::TcfbtNotifyStageStart,
             {"stage", "halFrameNumber", "stageArg1", "stageArg2", "nodeName"}),
        Bind(StageEnd, "TcfbtNotifyStageEnd", &Boost::TcfbtNotifyStageEnd,
             {"stage", "halFrameNumber", "nodeName"}),
        Bind(NodeEnd, "TcfbtNotifyNodeEnd", &Boost::TcfbtNotifyNodeEnd,
             {"halFrameNumber", "nodeName", "portId", "currentCameraId", "isMaterCamera"}),
        Bind(RemapStage, "TcfbtRemapStage", &Boost::TcfbtRemapStage,
             {"isMaterCamera", "currentCameraId", "nodeName"}),
        Bind(AddPersistTids, "TcfbtAddPersistTids", &Boost::TcfbtAddPersistTids, {"name", "tid"}),
        Bind(AddTempTids, "TcfbtAddTempTids", &Boost::TcfbtAddTempTids, {"tid"}),
        Bind(SetTids, "TcfbtSetTids", &Boost::TcfbtSetTids),
        Bind(RemoveTids, "TcfbtRemoveTids", &Boost::TcfbtRemoveTids, {"tids"}),
        Bind(DumpInfo, "DumpInfo", &Boost::DumpInfo),
    };
    return operations;
}

const OperationForm& FormOf(Operation operation) {
    return Operations()[static_cast<size_t>(operation)];
}

size_t Call::IndexOf(std::string_view parameter) const {
    const auto& parameters = FormOf(operation).parameters;
    return static_cast<size_t>(std::find(parameters.begin(), parameters.end(), parameter) -
                               parameters.begin());
}

std::optional<int32_t> Make(const Call& call, TarvoCameraFrameBoost& boost) {
    return FormOf(call.operation).call(boost, call.arguments);
}

}  // namespace tools
