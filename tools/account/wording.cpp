#include "tools/account/wording.h"

#include <algorithm>
#include <cmath>

#include "tools/base/text.h"

namespace tools {
namespace {

constexpr size_t NUMBERS_TOLD = 6;

}  // namespace

std::vector<FrameRange> RangesOf(std::vector<int64_t> numbers) {
    std::sort(numbers.begin(), numbers.end());
    numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
    std::vector<FrameRange> ranges;
    for (const int64_t number : numbers) {
        if (!ranges.empty() && ranges.back().last + 1 == number) {
            ranges.back().last = number;
        } else {
            ranges.push_back({number, number});
        }
    }
    return ranges;
}

std::string NumbersText(const std::vector<int64_t>& numbers) {
    std::vector<std::string> parts;
    size_t told = 0;
    size_t all = 0;
    for (const FrameRange& range : RangesOf(numbers)) {
        const auto count = static_cast<size_t>(range.last - range.first) + 1;
        all += count;
        if (parts.size() >= NUMBERS_TOLD) {
            continue;
        }
        told += count;
        if (count > 2) {
            parts.push_back(fmt::format("{} to {}", range.first, range.last));
            continue;
        }
        parts.push_back(fmt::to_string(range.first));
        if (count == 2) {
            parts.push_back(fmt::to_string(range.last));
        }
    }
    if (told < all) {
        parts.push_back(fmt::format("{} more", all - told));
    }
    return Join(parts);
}

std::string FramesText(const std::vector<int64_t>& numbers) {
    return (numbers.size() == 1 ? "frame " : "frames ") + NumbersText(numbers);
}

std::string Ms(Micros time) {
    return fmt::to_string(std::llround(static_cast<double>(time) / 1000));
}

std::string NotBoostedText(bool isVideo, int32_t width, int32_t fps,
                           const Configuration* configuration) {
    if (!isVideo) {
        return "nothing is boosted: the scene was described as no video; only video is boosted";
    }
    std::string text = fmt::format(
        "nothing is boosted: the scene was described as video of width {} at {} fps; only ", width,
        fps);
    if (fps != 60) {
        return text + "60 fps are boosted";
    }
    const auto extra = configuration == nullptr ? std::nullopt : configuration->additionalWidth;
    if (extra && *extra != 0) {
        return text + fmt::format("width {} or {} is boosted", BOOST_WIDTH, *extra);
    }
    return text + fmt::format("width {} is boosted", BOOST_WIDTH) +
           (extra ? "" : ", and that of additionalSupportedWidth, which the log does not tell");
}

std::string DisabledText(const Configuration* configuration) {
    if (configuration == nullptr) {
        return "the scene was refused: boosting is switched off, or the operation mode is not "
               "supported; the capture lacks the configuration that would tell which";
    }
    return configuration->isEnabled
               ? "the scene was refused: its operation mode is not in SupportOperationModeList"
               : "the scene was refused: boosting is switched off (cameraFrameBoostEnable)";
}

SceneFinding OutsideFinding(Check check, int64_t amount, const Place& place, Micros time) {
    const std::string message = check == Check::ClockJump
                                    ? "the clock was set where no scene runs"
                                    : (amount > 0 ? Counted(amount, "line") : "lines") +
                                          " of the capture are missing where no scene runs";
    return {check, Severity::Note, message, place, time};
}

void TellConsequences(Trouble& trouble) {
    std::string& text = trouble.finding.message;
    trouble.finding.stem = text.size();
    std::vector<std::string> parts;
    const auto tell = [&parts](const std::vector<int64_t>& frames, const char* what) {
        if (!frames.empty()) {
            parts.push_back(fmt::format(fmt::runtime(what), fmt::arg("frames", NumbersText(frames)),
                                        fmt::arg("were", frames.size() == 1 ? "was" : "were")));
        }
    };
    tell(trouble.unseen, "{frames} {were} not in flight");
    tell(trouble.refused, "{frames} came after a gap and {were} refused");
    tell(trouble.inError, "{frames} {were} in error");
    tell(trouble.evicted, "{frames} {were} pushed out of the table");
    if (!parts.empty()) {
        text += "; therefore " + Join(parts);
    }
    const auto cost =
        trouble.cost + static_cast<int64_t>(trouble.unseen.size() + trouble.refused.size() +
                                            trouble.inError.size() + trouble.evicted.size());
    if (cost > 0) {
        text += ": " + Counted(cost, "frame") + " not boosted";
    }
    parts.clear();
    tell(trouble.waited, "{frames} waited behind it");
    if (trouble.waited.empty()) {
        tell(trouble.late, "{frames} came out late");
    }
    if (!parts.empty()) {
        text += "; " + Join(parts);
    }
}

}  // namespace tools
