// The table that a configuration gives: what it answers, and how it is written.

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/check/check.h"

namespace tools {
namespace {

// More stages than this are not made up to fill a gap.
constexpr int32_t MOST_FILLED = 1000;

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

// A text as TOML has it: as JSON has it, but for one character.
std::string TomlText(const std::string& text) {
    const auto replace = nlohmann::json::error_handler_t::replace;
    std::string quoted = nlohmann::json(text).dump(-1, ' ', false, replace);
    for (size_t at = 0; (at = quoted.find('\x7F', at)) != std::string::npos;) {
        quoted.replace(at, 1, "\\u007F");
    }
    return quoted;
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

std::string ModeText(int32_t mode) {
    char text[sizeof("0xFFFFFFFF")];
    std::snprintf(text, sizeof(text), "0x%X", static_cast<unsigned>(mode));
    return text;
}

std::string ToToml(const Configuration& configuration) {
    std::string text = "[TarvoCameraFrameBoostConfig]\ncameraFrameBoostEnable = ";
    text += configuration.isEnabled ? "true\n" : "false\n";
    if (!configuration.additionalWidth) {
        text += "# additionalSupportedWidth: not known\n";
    } else if (*configuration.additionalWidth != 0) {
        text += "additionalSupportedWidth = " + std::to_string(*configuration.additionalWidth);
        text += '\n';
    }
    text += "SupportOperationModeList = [";
    for (const int32_t mode : configuration.modes) {
        text += (text.back() == '[' ? "" : ", ") + ModeText(mode);
    }
    text += "]\n\n[TarvoCameraFrameBoostConfig.stage]\n";

    // An empty list is what counts as a stage and is not loaded.
    int64_t next = 0;
    const auto fillTo = [&text, &next](int64_t end) {
        for (int32_t filled = 0; next < end && filled < MOST_FILLED; ++filled) {
            text += std::to_string(next++) + " = []\n";
        }
    };
    for (const ConfiguredStage& stage : configuration.stages) {
        fillTo(stage.stage);
        text += std::to_string(stage.stage) + " = [" + TomlText(stage.node);
        for (const int32_t port : stage.ports) {
            text += ", \"" + std::to_string(port) + '"';
        }
        text += "]\n";
        next = int64_t{stage.stage} + 1;
    }
    if (configuration.stageCount) {
        fillTo(*configuration.stageCount);
    } else {
        text += "# How many stages there are in all: not known\n";
    }
    return text;
}

}  // namespace tools
