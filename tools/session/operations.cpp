#include "tools/session/operations.h"

#include <algorithm>
#include <array>
#include <cstddef>
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

// Makes an operation of a member function; its type tells the types of the parameters.
template <typename Result, typename... Arguments>
Operation Bind(std::string_view name, Result (Boost::*function)(Arguments...),
               const std::array<std::string_view, sizeof...(Arguments)>& parameterNames = {}) {
    Operation operation{name, {Parameter{std::decay_t<Arguments>{}, {}, false}...}, {}};
    for (size_t i = 0; i < parameterNames.size(); ++i) {
        operation.parameters[i].name = parameterNames[i];
        operation.parameters[i].isMode = parameterNames[i] == "operationMode";
    }
    operation.call = [function](Boost& boost, const std::vector<Value>& values) {
        return Invoke(std::index_sequence_for<Arguments...>{}, boost, function, values);
    };
    return operation;
}

}  // namespace

const std::vector<Operation>& Operations() {
    static const std::vector<Operation> operations = {
        Bind("TcfbtSetVersion", &Boost::TcfbtSetVersion, {"version"}),
        Bind("TcfbtSetSceneInfo", &Boost::TcfbtSetSceneInfo, {"isVideo", "resolution", "fps"}),
        Bind("GetTcfbtFpsScene", &Boost::GetTcfbtFpsScene, {"fps"}),
        Bind("TcfbtNotifySceneStart", &Boost::TcfbtNotifySceneStart, {"operationMode"}),
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

const Operation* FindOperation(std::string_view name) {
    const auto& operations = Operations();
    const auto found =
        std::find_if(operations.begin(), operations.end(),
                     [name](const Operation& operation) { return operation.name == name; });
    return found == operations.end() ? nullptr : &*found;
}

}  // namespace tools
