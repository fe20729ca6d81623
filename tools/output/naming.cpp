#include "tools/output/naming.h"

#include <fmt/format.h>

#include <algorithm>

#include "tools/base/text.h"

namespace tools {
namespace {

// It came out, and that its end is missing is what a finding says.
bool HasNoEnd(const Frame& frame) {
    return frame.isOut && frame.hasFinding;
}

}  // namespace

std::string TitleOf(const Account& account, size_t scene) {
    const Scene& shown = account.scenes[scene];
    std::string title = fmt::format("scene {}", scene + 1);
    const char* separator = ": ";
    const auto add = [&](const std::string& text) {
        title += separator + text;
        separator = ", ";
    };
    if (shown.width > 0) {
        add(fmt::format("{} wide", shown.width));
    }
    if (shown.fps > 0) {
        add(fmt::format("{} fps", shown.fps));
    }
    if (shown.process >= 0) {
        add(fmt::format("process {}", shown.process));
    }
    return title;
}

std::string StageTitleOf(const Scene& scene, size_t stage) {
    const bool isNamed = stage < scene.stageNames.size() && !scene.stageNames[stage].empty();
    return fmt::format("stage {}{}", stage,
                       isNamed ? ", " + Printable(scene.stageNames[stage]) : "");
}

std::string FigureTitleOf(const Scene& scene, size_t stage) {
    return StageTitleOf(scene, stage) + (stage == 0 ? ": since the frame before" : "");
}

std::string ToString(const Account& account, const Place& place) {
    if (place.line == 0) {
        return "";
    }
    return account.inputs.size() > 1 && place.input < account.inputs.size()
               ? fmt::format("{}:{}", account.inputs[place.input], place.line)
               : fmt::format("line {}", place.line);
}

const char* WordOf(const Frame& frame) {
    switch (frame.status) {
        case FrameStatus::Complete:
            return frame.isLate ? "late" : "";
        case FrameStatus::Open:
            return frame.isUntold     ? "unknown"
                   : frame.isNeverOut ? "never out"
                                      : NameOf(frame.status);
        default:
            return NameOf(frame.status);
    }
}

std::string DescriptionOf(const Frame& frame) {
    if (frame.status == FrameStatus::Complete) {
        return "";
    }
    if (frame.reason == Reason::LinesMissing) {
        return fmt::format("{}: what became of it cannot be told", ReasonOf(frame.reason));
    }
    if (frame.status == FrameStatus::Open) {
        return frame.isNeverOut && frame.stage >= 0
                   ? fmt::format("not seen to leave stage {}", frame.stage)
               : frame.isNeverOut || HasNoEnd(frame) ? "its end was never reported"
                                                     : "in flight at the end";
    }
    return frame.status == FrameStatus::Error && frame.stage >= 0
               ? fmt::format("stage {}: {}", frame.stage, ReasonOf(frame.reason))
               : ReasonOf(frame.reason);
}

double RateOf(const Scene& scene) {
    Micros passed = 0;
    int64_t count = 0;
    for (const Frame& frame : scene.frames) {
        if (frame.interval != NO_TIME) {
            passed += frame.interval;
            ++count;
        }
    }
    return passed == 0 ? 0 : static_cast<double>(count) * 1e6 / static_cast<double>(passed);
}

bool Shown::Has(const Frame& frame) const {
    if (range) {
        return frame.number >= range->first && frame.number <= range->second;
    }
    return isAll || frame.isLate || frame.status != FrameStatus::Complete;
}

Configuration Completed(Configuration configuration, const Configuration& other) {
    if (!configuration.additionalWidth) {
        configuration.additionalWidth = other.additionalWidth;
    }
    if (!configuration.stageCount) {
        configuration.stageCount = other.stageCount;
    }
    return configuration;
}

std::vector<SharedConfiguration> ConfigurationsOf(const Account& account) {
    std::vector<SharedConfiguration> all;
    for (const LoadedConfiguration& loaded : account.configurations) {
        auto same = std::find_if(all.begin(), all.end(), [&loaded](const auto& other) {
            return Completed(loaded.configuration, other.configuration) ==
                   Completed(other.configuration, loaded.configuration);
        });
        if (same == all.end()) {
            same = all.insert(all.end(), {loaded.configuration, loaded.findings, {}});
        } else if (Configuration both = Completed(same->configuration, loaded.configuration);
                   both != same->configuration) {
            same->configuration = std::move(both);
            same->findings = loaded.findings;
        }
        const auto place =
            std::lower_bound(same->processes.begin(), same->processes.end(), loaded.process);
        if (place == same->processes.end() || *place != loaded.process) {
            same->processes.insert(place, loaded.process);
        }
    }
    return all;
}

std::string TitleOf(const std::vector<SharedConfiguration>& all, const SharedConfiguration& one) {
    if (all.size() == 1 || one.processes.front() < 0) {
        return "Configuration";
    }
    std::vector<std::string> numbers;
    for (const int32_t process : one.processes) {
        numbers.push_back(std::to_string(process));
    }
    return fmt::format("Configuration of {} {}", numbers.size() == 1 ? "process" : "processes",
                       Join(numbers));
}

}  // namespace tools
