// What a configuration answers.

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "tools/check/check.h"

namespace tools {
namespace {

// Without blanks and control characters, in small letters.
std::string Folded(std::string_view text) {
    std::string folded;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte > ' ' && byte != 0x7F) {
            folded += static_cast<char>(std::tolower(byte));
        }
    }
    return folded;
}

bool Occurs(std::string_view part, std::string_view text) {
    return text.find(part) != std::string_view::npos;
}

}  // namespace

int32_t Configuration::StageOf(std::string_view node) const {
    const auto found =
        std::find_if(stages.rbegin(), stages.rend(),
                     [node](const ConfiguredStage& stage) { return Occurs(stage.node, node); });
    return found == stages.rend() ? -1 : found->stage;
}

bool Configuration::IsStagePort(std::string_view node, int32_t port) const {
    return std::any_of(stages.begin(), stages.end(), [node, port](const ConfiguredStage& stage) {
        return Occurs(stage.node, node) &&
               std::binary_search(stage.ports.begin(), stage.ports.end(), port);
    });
}

std::optional<ConfiguredStage> NearMiss(const Configuration& configuration, std::string_view node) {
    const std::string folded = Folded(node);
    const auto& stages = configuration.stages;
    const auto found =
        std::find_if(stages.rbegin(), stages.rend(), [&folded](const ConfiguredStage& stage) {
            const std::string part = Folded(stage.node);
            return !part.empty() && Occurs(part, folded);
        });
    if (found == stages.rend() || configuration.StageOf(node) != -1) {
        return std::nullopt;
    }
    return *found;
}

const char* OfSecondEnd(const Configuration& configuration, int32_t stage) {
    return stage > 0 && int64_t{stage} + 1 == configuration.stageCount
               ? "the frame has ended with the first, and the second is refused"
               : "the second is out of turn, and the frame is reported as an error";
}

std::string ModeText(int32_t mode) {
    char text[sizeof("0xFFFFFFFF")];
    std::snprintf(text, sizeof(text), "0x%X", static_cast<unsigned>(mode));
    return text;
}

}  // namespace tools
