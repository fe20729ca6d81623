#include "tools/session/operations.h"

#include <algorithm>
#include <array>
#include <tuple>
#include <type_traits>

namespace tools {
namespace {

using Boost = TarvoCameraFrameBoost;

// The form of a member function; its type has the types of the parameters.
template <typename Result, typename... Arguments>
OperationForm Bind(Operation operation, std::string_view name,
                   Result (Boost::*function)(Arguments...),
                   const std::array<std::string_view, sizeof...(Arguments)>& parameters = {}) {
    const auto call = [function](Boost& boost,
                                 const std::vector<Value>& values) -> std::optional<int32_t> {
        [[maybe_unused]] auto next = values.begin();
        const std::tuple<Boost&, std::decay_t<Arguments>...> all{
            boost, std::get<std::decay_t<Arguments>>(*next++)...};
        if constexpr (std::is_void_v<Result>) {
            std::apply(function, all);
            return std::nullopt;
        } else {
            return std::apply(function, all);
        }
    };
    return {operation,
            name,
            {parameters.begin(), parameters.end()},
            {std::decay_t<Arguments>{}...},
            call};
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
