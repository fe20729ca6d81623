#include "tools/account/sentences.h"

#include <fmt/args.h>
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <numeric>

#include "cameraframeboost/tarvocameraframeboostutils.h"
#include "tools/base/text.h"

namespace tools {
namespace {

constexpr size_t NUMBERS_NAMED = 6;

const char* StopText(Stop stopped) {
    static constexpr const char* TEXTS[] = {"the scene ended", "the capture ended",
                                            "its process logged last",
                                            "frame numbers started again", "this was looked at"};
    return TEXTS[static_cast<size_t>(stopped)];
}

// "45 ms", "31 ms each", "14 to 20 ms".
std::string TookText(const std::vector<Micros>& took) {
    if (took.empty()) {
        return "";
    }
    const auto [least, most] = std::minmax_element(took.begin(), took.end());
    if (took.size() == 1) {
        return Ms(*least) + " ms";
    }
    if (*most - *least <= std::max(2 * MILLISECOND, *most / 10)) {
        const Micros sum = std::accumulate(took.begin(), took.end(), Micros{0});
        return Ms(sum / static_cast<Micros>(took.size())) + " ms each";
    }
    return Ms(*least) + " to " + Ms(*most) + " ms";
}

std::string OneDigit(Micros time) {
    return Fixed(static_cast<double>(time) / 1000, 1);
}

struct Speaker {
    const Scene& scene;
    const Columns& columns;
    const Cause& cause;
    using Numbers = std::vector<int64_t>;

    const Fate* FateOf(int64_t number) const {
        const uint32_t row = scene.RowOf(number);
        return row == NO_INDEX ? nullptr : &columns.fates[row];
    }

    template <typename Predicate>
    Numbers Those(const Numbers& numbers, Predicate predicate) const {
        Numbers some;
        std::copy_if(numbers.begin(), numbers.end(), std::back_inserter(some), [&](int64_t number) {
            const Fate* fate = FateOf(number);
            return fate != nullptr && predicate(*fate);
        });
        return some;
    }

    std::string Said() const {
        fmt::dynamic_format_arg_store<fmt::format_context> values;
        const auto add = [&values](const char* name, const auto& value) {
            values.push_back(fmt::arg(name, value));
        };
        AddFrames(add);
        AddFigures(add);
        AddTexts(add);
        return fmt::vformat(Template(), values) + cause.scheduling + Consequences() + HeldText();
    }

    // The sentence, without its guess where a scheduler trace knows better.
    std::string Template() const {
        std::string text = RowOf(cause.what).sentence;
        const size_t from = text.find('|');
        if (from == std::string::npos) {
            return text;
        }
        const size_t to = text.find('|', from + 1);
        const ThreadState last =
            cause.chain.empty() ? ThreadState::Unknown : cause.chain.back().state;
        const bool isKnown = (cause.chain.empty() && !cause.scheduling.empty()) ||
                             last == ThreadState::Running || last == ThreadState::Runnable ||
                             last == ThreadState::Stopped ||
                             (!cause.chain.empty() && KindOf(cause.what) == Kind::Unexplained);
        return text.substr(0, from) + (isKnown ? "" : text.substr(from + 1, to - from - 1)) +
               text.substr(to + 1);
    }

    void AddFrames(const auto& add) const {
        const int64_t first = cause.own.empty() ? 0 : cause.own.front();
        const int64_t last = cause.own.empty() ? 0 : cause.own.back();
        const bool isOne = cause.own.size() == 1;
        add("frames", FramesText(cause.own));
        add("numbers", NumbersText(cause.own));
        add("frame", cause.frame.value_or(first));
        add("last", last);
        add("it", isOne ? "it" : "them");
        add("next", cause.count);
        add("refused",
            Counted(static_cast<int64_t>(cause.own.size()), "frame") + (isOne ? " was" : " were"));
        add("other", cause.what == Case::OutOfOrder
                         ? StageName(scene, static_cast<int32_t>(cause.other))
                         : fmt::to_string(cause.other));
        add("behind", isOne ? ""
                            : fmt::format(", and {} more stood there or behind it",
                                          cause.own.size() - (cause.own.empty() ? 0 : 1)));
        add("missing", MissingText());
        // Of those that took long, which came out late.
        const Numbers late = Those(cause.own, [](const Fate& fate) { return fate.isLate; });
        Numbers others;
        std::set_difference(cause.own.begin(), cause.own.end(), late.begin(), late.end(),
                            std::back_inserter(others));
        add("late",
            late.empty() ? FramesText(cause.own) + ": " : FramesText(late) + " came out late: ");
        add("others", late.empty() || others.empty()
                          ? ""
                          : fmt::format("; {} {} slow, too, and not late", NumbersText(others),
                                        others.size() == 1 ? "was" : "were"));
        std::vector<Micros> took;
        for (size_t i = 0; i < cause.took.size(); ++i) {
            if (cause.took.size() != cause.own.size() || late.empty() ||
                std::binary_search(late.begin(), late.end(), cause.own[i])) {
                took.push_back(cause.took[i]);
            }
        }
        add("took", TookText(took));
    }

    void AddFigures(const auto& add) const {
        const Micros took = cause.took.empty() ? 0 : cause.took.front();
        add("count", cause.count);
        add("size", cause.own.size());
        add("counted", Counted(static_cast<int64_t>(cause.own.size()), "frame"));
        add("all", cause.other);
        add("port", cause.count);
        add("usual", Ms(cause.usual));
        add("mean", OneDigit(took));
        add("period", OneDigit(cause.usual));
        add("limit", OneDigit(cause.usual));
        add("rate", took == 0 ? "" : Fixed(1e6 / static_cast<double>(took), 1));
        add("seconds", Fixed(static_cast<double>(cause.count) / 1e6, 1));
        add("fps", scene.Rate());
        const Micros step = std::abs(took);
        add("way", took < 0 ? "back" : "forward");
        add("amount", step < 10 * SECOND ? fmt::format("{} ms", step / MILLISECOND)
                                         : fmt::format("{} s", (step + SECOND / 2) / SECOND));
    }

    void AddTexts(const auto& add) const {
        add("stage", StageName(scene, cause.stage));
        add("number", cause.stage);
        add("stopped", StopText(scene.stopped));
        add("process", scene.process);
        add("thread", cause.other);
        add("why", cause.why);
        const bool isLast = cause.stage > 0 && cause.stage + 1 == scene.stageCount;
        add("unreported", isLast ? ", or the end there was not reported" : "");
        const auto size = static_cast<int64_t>(cause.what == Case::Skipped ? cause.beside.size()
                                                                           : cause.own.size());
        add("were", (size == 0 ? cause.count : size) == 1 ? "was" : "were");
        const bool isCounted = cause.what == Case::NotUnderstoodLines || cause.count > 1;
        add("lines", isCounted ? Counted(cause.count, "line") : "lines");
        add("around", cause.frame ? fmt::format(" around frame {}", *cause.frame) : "");
        std::string unknown;
        if (!cause.own.empty()) {
            unknown = ": what became of " + NumbersText(cause.own) + " is not known";
        }
        if (!cause.beside.empty()) {
            unknown += (cause.own.empty() ? ": of " : "; of ") + NumbersText(cause.beside) +
                       " no line is left";
        }
        add("unknown", unknown);
    }

    // Numbers that the HAL skipped, or never started.
    std::string MissingText() const {
        if (cause.what == Case::Skipped) {
            return FramesText(cause.beside);
        }
        if (cause.beside.empty()) {
            return "";
        }
        return cause.beside.size() == 1 ? fmt::format("; {} never started", cause.beside.front())
                                        : fmt::format("; {} to {} never started",
                                                      cause.beside.front(), cause.beside.back());
    }

    // Lost frames keep their places.
    std::string HeldText() const {
        if (cause.what != Case::NeverLeft) {
            return "";
        }
        Numbers held;
        for (const int64_t number : cause.own) {
            const uint32_t row = scene.RowOf(number);
            if (row != NO_INDEX && scene.frames[row].isHeld) {
                held.push_back(number);
            }
        }
        if (held.empty()) {
            return "";
        }
        return fmt::format("; {} still held {} of the {} when {}", NumbersText(held),
                           held.size() == 1 ? "its place" : "their places",
                           FrameTracker::DEFAULT_MAX_FRAME_TRACKED, StopText(scene.stopped));
    }

    // What followed for other frames, and how many were not boosted in all.
    std::string Consequences() const {
        const Kind kind = KindOf(cause.what);
        if (kind == Kind::Unexplained) {
            return "";
        }
        Numbers others;
        std::set_difference(cause.harmed.begin(), cause.harmed.end(), cause.own.begin(),
                            cause.own.end(), std::back_inserter(others));
        const auto with = [&](FrameStatus status) {
            return Those(others, [status](const Fate& fate) { return fate.status == status; });
        };
        std::vector<std::string> parts;
        const auto say = [&parts](const Numbers& frames, const char* what) {
            if (!frames.empty()) {
                parts.push_back(fmt::format(fmt::runtime(what),
                                            fmt::arg("frames", NumbersText(frames)),
                                            fmt::arg("were", frames.size() == 1 ? "was" : "were")));
            }
        };
        say(with(FrameStatus::Unseen), "{frames} {were} not in flight");
        say(with(FrameStatus::Refused), "{frames} came after a gap and {were} refused");
        say(with(FrameStatus::Error), "{frames} {were} in error");
        const Numbers evicted =
            Those(kind == Kind::SlowStage ? cause.harmed : others,
                  [](const Fate& fate) { return fate.status == FrameStatus::Evicted; });
        say(evicted, "{frames} {were} pushed out of the table");
        std::string text = parts.empty() ? "" : "; therefore " + Join(parts);
        const auto notBoosted =
            std::count_if(cause.harmed.begin(), cause.harmed.end(), [&](int64_t number) {
                const Fate* fate = FateOf(number);
                return fate == nullptr || IsNotBoosted(*fate);
            });
        // These sentences count their frames themselves.
        if (notBoosted > 0 && kind != Kind::StageNeverHit && kind != Kind::NumbersRestart) {
            text += ": " + Counted(notBoosted, "frame") + " not boosted";
        }
        parts.clear();
        if (cause.what == Case::Slow) {
            say(cause.beside, "{frames} waited behind it");
            Numbers rest;
            std::set_difference(others.begin(), others.end(), cause.beside.begin(),
                                cause.beside.end(), std::back_inserter(rest));
            others = std::move(rest);
        }
        // A frame behind one that was lost comes late for that, even if it is refused as well.
        const bool isLoss = kind == Kind::FrameLost || kind == Kind::FrameGap;
        const Numbers late = Those(others, [isLoss](const Fate& fate) {
            const bool isRefused =
                fate.status == FrameStatus::Unseen || fate.status == FrameStatus::Refused;
            return fate.isLate && (HarmOf(fate) == Harm::Late || (isLoss && isRefused));
        });
        if (cause.what != Case::OtherRate) {
            say(late, "{frames} came out late");
        }
        return parts.empty() ? text : text + "; " + Join(parts);
    }
};

}  // namespace

std::vector<FrameRange> RangesOf(const std::vector<int64_t>& numbers) {
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
    size_t named = 0;
    for (const FrameRange& range : RangesOf(numbers)) {
        if (parts.size() >= NUMBERS_NAMED) {
            break;
        }
        const auto count = static_cast<size_t>(range.last - range.first) + 1;
        named += count;
        if (count > 2) {
            parts.push_back(fmt::format("{} to {}", range.first, range.last));
            continue;
        }
        parts.push_back(fmt::to_string(range.first));
        if (count == 2) {
            parts.push_back(fmt::to_string(range.last));
        }
    }
    if (named < numbers.size()) {
        parts.push_back(fmt::format("{} more", numbers.size() - named));
    }
    return Join(parts);
}

std::string FramesText(const std::vector<int64_t>& numbers) {
    return (numbers.size() == 1 ? "frame " : "frames ") + NumbersText(numbers);
}

std::string StageName(const Scene& scene, int32_t stage) {
    const auto index = static_cast<size_t>(stage);
    if (stage < 0) {
        return "the pipeline";
    }
    const bool isNamed = index < scene.stageNames.size() && !scene.stageNames[index].empty();
    return isNamed ? fmt::format("stage {} ({})", stage, scene.stageNames[index])
                   : fmt::format("stage {}", stage);
}

std::string Ms(Micros time) {
    return fmt::to_string(std::llround(static_cast<double>(time) / 1000));
}

std::string SentenceOf(const Scene& scene, const Columns& columns, const Cause& cause) {
    return Speaker{scene, columns, cause}.Said();
}

}  // namespace tools
