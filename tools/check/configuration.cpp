// What a configuration answers.

#include <fmt/format.h>

#include <algorithm>

#include "tools/base/text.h"
#include "tools/check/check.h"

namespace tools {
namespace {

bool Occurs(std::string_view part, std::string_view text) {
    return text.find(part) != std::string_view::npos;
}

}  // namespace

const ConfiguredStage* Configuration::StageOf(std::string_view node) const {
    const auto found =
        std::find_if(stages.rbegin(), stages.rend(),
                     [node](const ConfiguredStage& stage) { return Occurs(stage.node, node); });
    return found == stages.rend() ? nullptr : &*found;
}

bool Configuration::IsStagePort(std::string_view node, int32_t port) const {
    return std::any_of(stages.begin(), stages.end(), [node, port](const ConfiguredStage& stage) {
        return Occurs(stage.node, node) &&
               std::binary_search(stage.ports.begin(), stage.ports.end(), port);
    });
}

const ConfiguredStage* NearMiss(const Configuration& configuration, std::string_view node) {
    const std::string folded = Folded(node);
    const auto& stages = configuration.stages;
    const auto found =
        std::find_if(stages.rbegin(), stages.rend(), [&folded](const ConfiguredStage& stage) {
            const std::string part = Folded(stage.node);
            return !part.empty() && Occurs(part, folded);
        });
    return found == stages.rend() || configuration.StageOf(node) != nullptr ? nullptr : &*found;
}

const char* OfSecondEnd(const Configuration& configuration, int32_t stage) {
    return stage > 0 && int64_t{stage} + 1 == configuration.stageCount
               ? "the frame has ended with the first, and the second is refused"
               : "the second is out of turn, and the frame is reported as an error";
}

std::string ModeText(int32_t mode) {
    return fmt::format("0x{:X}", static_cast<uint32_t>(mode));
}

}  // namespace tools
