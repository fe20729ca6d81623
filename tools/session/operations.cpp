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
OperationForm Bind(std::string_view name, Result (Boost::*function)(Arguments...),
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
    return {name, {parameters.begin(), parameters.end()}, {std::decay_t<Arguments>{}...}, call};
}

}  // namespace

std::span<const OperationForm> Operations() {
    static const std::vector<OperationForm> operations = {
        Bind("TcfbtSetVersion", &Boost::TcfbtSetVersion, {"version"}),
        Bind("TcfbtSetSceneInfo", &Boost::TcfbtSetSceneInfo, {"isVideo", "resolution", "fps"}),
        Bind("GetTcfbtFpsScene", &Boost::GetTcfbtFpsScene, {"fps"}),
        Bind("TcfbtNotifySceneStart", &Boost::TcfbtNotifySceneStart, {OPERATION_MODE}),
        Bind("TcfbtNotifySceneEnd", &Boost::TcfbtNotifySceneEnd),
        Bind("TcfbtNotifyFrameStart", &Boost::TcfbtNotifyFrameStart, {"halFrameNumber"}),
        Bind("TcfbtNotifyErrorFrame", &Boost::TcfbtNotifyErrorFrame, {"frameNumber", "stage"}),
        Bind("TcfbtNotifyFrameEnd", &Boost::TcfbtNotifyFrameEnd, {"halFrameNumber"}),
        Bind("TcfbtNotifyStageStart", &Boost::TcfbtNotifyStageStart,
             {"stage", "halFrameNumber", "stageArg1", "stageArg2", "nodeName"}),
        Bind("TcfbtNotifyStageEnd", &Boost::TcfbtNotifyStageEnd,
             {"stage", "halFrameNumber", "nodeName"}),
        Bind("TcfbtNotifyNodeEnd", &Boost::TcfbtNotifyNodeEnd,
             {"halFrameNumber", "nodeName", "portId", "currentCameraId", "isMaterCamera"}),
        Bind("TcfbtRemapStage", &Boost::TcfbtRemapStage,
             {"isMaterCamera", "currentCameraId", "nodeName"}),
        Bind("TcfbtAddPersistTids", &Boost::TcfbtAddPersistTids, {"name", "tid"}),
        Bind("TcfbtAddTempTids", &Boost::TcfbtAddTempTids, {"tid"}),
        Bind("TcfbtSetTids", &Boost::TcfbtSetTids),
        Bind("TcfbtRemoveTids", &Boost::TcfbtRemoveTids, {"tids"}),
        Bind("DumpInfo", &Boost::DumpInfo),
    };
    return operations;
}

const OperationForm* FormOf(std::string_view name) {
    const auto operations = Operations();
    const auto form = std::find_if(operations.begin(), operations.end(),
                                   [name](const OperationForm& one) { return one.name == name; });
    return form == operations.end() ? nullptr : &*form;
}

}  // namespace tools
