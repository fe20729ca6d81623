// What is said: of a cause, of frames and stages in it, and of all that came of a capture.

#include <fmt/args.h>
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <numeric>
#include <regex>
#include <utility>

#include "cameraframeboost/tarvocameraframeboostutils.h"
#include "tools/account/account.h"
#include "tools/base/text.h"

namespace tools {
namespace {

using Numbers = std::vector<int64_t>;

constexpr size_t NUMBERS_NAMED = 6;

const char* StopText(Stop stopped) {
    static constexpr const char* TEXTS[] = {"the scene ended", "the capture ended",
                                            "its process logged last",
                                            "frame numbers started again", "this was looked at"};
    return TEXTS[static_cast<size_t>(stopped)];
}

const char* WasOrWere(size_t count) {
    return count == 1 ? "was" : "were";
}

// "45 ms", "31 ms each", "14 to 20 ms".
std::string TookText(const std::vector<Micros>& took) {
    if (took.empty()) {
        return "";
    }
    const auto [least, most] = std::ranges::minmax(took);
    if (most - least > std::max(2 * MILLISECOND, most / 10)) {
        return Ms(least) + " to " + Ms(most) + " ms";
    }
    const Micros sum = std::accumulate(took.begin(), took.end(), Micros{0});
    return Ms(sum / std::ssize(took)) + (took.size() == 1 ? " ms" : " ms each");
}

std::string OneDigit(Micros time, Micros unit) {
    return Fixed(static_cast<double>(time) / static_cast<double>(unit), 1);
}

// Of ascending numbers those that are not among the others.
Numbers Without(const Numbers& numbers, const Numbers& others) {
    Numbers rest;
    std::ranges::set_difference(numbers, others, std::back_inserter(rest));
    return rest;
}

struct Speaker {
    const Scene& scene;
    const Columns& columns;
    const Cause& cause;
    const Kind kind = KindOf(cause.what);

    // Of the frames that have a row, those for which that holds.
    Numbers Those(const Numbers& numbers, auto&& holds) const {
        Numbers some;
        for (const int64_t number : numbers) {
            const uint32_t row = scene.RowOf(number);
            if (row != NO_INDEX && holds(row)) {
                some.push_back(number);
            }
        }
        return some;
    }

    std::string Said() const {
        fmt::dynamic_format_arg_store<fmt::format_context> values;
        for (const auto& [name, value] : Values()) {
            values.push_back(fmt::arg(name, value));
        }
        return fmt::vformat(Template(), values) + cause.scheduling + Consequences() + HeldText();
    }

    // The sentence, without its guess where a scheduler trace knows better.
    std::string Template() const {
        bool isKnown = !cause.scheduling.empty();
        if (!cause.chain.empty()) {
            const ThreadState last = cause.chain.back().state;
            isKnown = last == ThreadState::Running || last == ThreadState::Runnable ||
                      last == ThreadState::Stopped || kind == Kind::Unexplained;
        }
        return std::regex_replace(RowOf(cause.what).sentence, std::regex("\\|(.*)\\|"),
                                  isKnown ? "" : "$1");
    }

    // What stands in the braces of sentences.
    std::vector<std::pair<const char*, std::string>> Values() const {
        const Numbers& own = cause.own;
        const Numbers late = Those(own, [&](uint32_t row) { return columns.fates[row].isLate; });
        const Numbers rest = late.empty() ? late : Without(own, late);
        std::vector<Micros> took;  // By the late frames, where there are any.
        for (size_t i = 0; i < cause.took.size(); ++i) {
            if (cause.took.size() != own.size() || late.empty() ||
                std::binary_search(late.begin(), late.end(), own[i])) {
                took.push_back(cause.took[i]);
            }
        }
        const Micros first = cause.took.empty() ? 1 : cause.took.front();
        const Micros step = std::abs(first);
        const bool isCounted = cause.what == Case::NotUnderstoodLines || cause.count > 1;
        const bool isLastStage = cause.stage > 0 && cause.stage + 1 == scene.stageCount;
        return {
            {"frames", FramesText(own)},
            {"numbers", NumbersText(own)},
            {"size", fmt::to_string(own.size())},
            {"counted", Counted(std::ssize(own), "frame")},
            {"frame", fmt::to_string(cause.frame.value_or(own.empty() ? 0 : own.front()))},
            {"last", fmt::to_string(own.empty() ? 0 : own.back())},
            {"it", own.size() == 1 ? "it" : "them"},
            {"were", WasOrWere(own.empty() ? static_cast<size_t>(cause.count) : own.size())},
            {"late", late.empty() ? FramesText(own) + ": " : FramesText(late) + " came out late: "},
            {"others", rest.empty() ? ""
                                    : fmt::format("; {} {} slow, too, and not late",
                                                  NumbersText(rest), WasOrWere(rest.size()))},
            {"behind", own.size() < 2
                           ? ""
                           : fmt::format(", and {} more stood there or behind it", own.size() - 1)},
            {"skipped", FramesText(cause.beside)},
            {"around", cause.frame ? fmt::format(" around frame {}", *cause.frame) : ""},
            {"unknown", UnknownText()},
            {"took", TookText(took)},
            {"usual", Ms(cause.usual)},
            {"mean", OneDigit(first, MILLISECOND)},
            {"period", OneDigit(cause.usual, MILLISECOND)},
            {"rate", OneDigit(SECOND, first)},
            {"seconds", OneDigit(cause.count, SECOND)},
            {"fps", fmt::to_string(scene.Rate())},
            {"way", first < 0 ? "back" : "forward"},
            {"amount", step < 10 * SECOND ? fmt::format("{} ms", step / MILLISECOND)
                                          : fmt::format("{} s", (step + SECOND / 2) / SECOND)},
            {"stage", StageName(scene, cause.stage)},
            {"number", fmt::to_string(cause.stage)},
            {"unreported", isLastStage ? ", or the end there was not reported" : ""},
            {"other", cause.what == Case::OutOfOrder
                          ? StageName(scene, static_cast<int32_t>(cause.other))
                          : fmt::to_string(cause.other)},
            {"count", fmt::to_string(cause.count)},
            {"lines", isCounted ? Counted(cause.count, "line") : "lines"},
            {"stopped", StopText(scene.stopped)},
            {"process", fmt::to_string(scene.process)},
            {"why", cause.why},
        };
    }

    // Of which frames not all lines are there.
    std::string UnknownText() const {
        std::vector<std::string> parts;
        if (!cause.own.empty()) {
            parts.push_back(fmt::format("what became of {} is not known", NumbersText(cause.own)));
        }
        if (!cause.beside.empty()) {
            parts.push_back(fmt::format("of {} no line is left", NumbersText(cause.beside)));
        }
        return parts.empty() ? "" : fmt::format(": {}", fmt::join(parts, "; "));
    }

    // Lost frames keep their places.
    std::string HeldText() const {
        const Numbers held =
            Those(cause.own, [&](uint32_t row) { return scene.frames[row].isHeld; });
        if (cause.what != Case::NeverLeft || held.empty()) {
            return "";
        }
        return fmt::format("; {} still held {} of the library's {} places for frames when {}",
                           NumbersText(held), held.size(), FrameTracker::DEFAULT_MAX_FRAME_TRACKED,
                           StopText(scene.stopped));
    }

    // What followed for other frames, and how many were not boosted in all.
    std::string Consequences() const {
        static constexpr std::pair<FrameStatus, const char*> FATES[] = {
            {FrameStatus::Unseen, "{} {} not in flight"},
            {FrameStatus::Refused, "{} came after a gap and {} refused"},
            {FrameStatus::Error, "{} {} in error"},
            {FrameStatus::Evicted, "{} {} pushed out of the table"}};
        if (kind == Kind::Unexplained) {
            return "";
        }
        const auto say = [](std::vector<std::string>& parts, const Numbers& frames,
                            const char* what) {
            if (!frames.empty()) {
                parts.push_back(
                    fmt::format(fmt::runtime(what), NumbersText(frames), WasOrWere(frames.size())));
            }
        };
        std::vector<std::string> bad, late;
        // Frames that were slow may have been pushed out themselves.
        const Numbers others = Without(Without(cause.harmed, cause.own), cause.beside);
        for (const auto& [status, what] : FATES) {
            say(bad,
                Those(kind == Kind::SlowStage ? cause.harmed : others,
                      [&, is = status](uint32_t row) { return columns.fates[row].status == is; }),
                what);
        }
        if (cause.what == Case::Slow) {
            say(late, cause.beside, "{} waited behind it");
        }
        // A frame behind one that was lost comes late for that, even if it is refused as well.
        const bool isLoss = kind == Kind::FrameLost || kind == Kind::FrameGap;
        const auto isLate = [&](uint32_t row) {
            const Fate& fate = columns.fates[row];
            const bool isRefused =
                fate.status == FrameStatus::Unseen || fate.status == FrameStatus::Refused;
            return fate.isLate && (!IsBad(fate) || (isLoss && isRefused));
        };
        if (cause.what != Case::OtherRate) {
            say(late, Those(others, isLate), "{} came out late");
        }
        std::string text = bad.empty() ? "" : "; therefore " + Join(bad);
        const Numbers boosted =
            Those(cause.harmed, [&](uint32_t row) { return !IsNotBoosted(columns.fates[row]); });
        const int64_t notBoosted = std::ssize(cause.harmed) - std::ssize(boosted);
        // These sentences count their frames themselves.
        if (notBoosted > 0 && kind != Kind::StageNeverHit && kind != Kind::NumbersRestart) {
            text += ": " + Counted(notBoosted, "frame") + " not boosted";
        }
        return late.empty() ? text : text + "; " + Join(late);
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
        parts.push_back(count > 2 ? fmt::format("{} to {}", range.first, range.last)
                                  : fmt::to_string(range.first));
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
    if (stage < 0) {
        return "the pipeline";
    }
    const auto index = static_cast<size_t>(stage);
    const bool isNamed = index < scene.stageNames.size() && !scene.stageNames[index].empty();
    return fmt::format("stage {}", stage) +
           (isNamed ? fmt::format(" ({})", scene.stageNames[index]) : "");
}

std::string Ms(Micros time) {
    return fmt::to_string(std::llround(static_cast<double>(time) / 1000));
}

void Totals::Add(const Account& account, int64_t sign) {
    worst = std::max(worst, WorstOf(account));
    for (const JudgedScene& judged : account.scenes) {
        const Figures& figures = judged.figures;
        frames += sign * (figures.frameCount - figures.onlyOpened);
        mixed += sign * (judged.columns.isMixed ? figures.frameCount - figures.onlyOpened : 0);
        neverOut += sign * std::ssize(figures.neverOut);
        notBoosted += sign * figures.notBoosted;
        unknown += sign * figures.unknown;
        late += sign * figures.late;
        if (judged.isStarted) {
            lateThreshold = std::max(lateThreshold, judged.columns.lateThreshold);
            isStarted = true;
        }
    }
}

std::string LateText(Micros lateThreshold) {
    return OneDigit(lateThreshold, MILLISECOND);
}

std::string VerdictOf(const Account& account) {
    Totals totals;
    totals.Add(account);
    return VerdictOf(totals);
}

// What a viewer of the video would see comes first: frames that never came out, and late ones.
std::string VerdictOf(const Totals& totals) {
    if (!totals.isStarted) {
        return "Nothing was boosted: no scene was started.";
    }
    const bool isWell = totals.worst == Severity::Note;
    if (totals.frames <= 0) {
        return fmt::format("Nothing was boosted: no frame was reported{}.",
                           isWell ? "" : ", and there is something to look at");
    }
    const std::string all = Counted(totals.frames, "frame");
    std::vector<std::string> parts;
    const auto add = [&parts](int64_t count, const std::string& text) {
        if (count > 0) {
            parts.push_back(fmt::format(fmt::runtime(text), count));
        }
    };
    add(totals.neverOut, "{} never came out");
    add(totals.late, "{} came out late, more than " + LateText(totals.lateThreshold) +
                         " ms after the frame before");
    add(totals.notBoosted, std::string("{} ") + WasOrWere(static_cast<size_t>(totals.notBoosted)) +
                               " not boosted from start to end");
    add(totals.unknown, "what became of {} is not known, as lines of the log are missing");
    add(totals.mixed, "what became of {} is not known, as two objects record at once");
    if (!parts.empty()) {
        return fmt::format("Of {} {}.", all, fmt::join(parts, "; "));
    }
    return isWell
               ? fmt::format("All is well: {}, all boosted, none late.", all)
               : fmt::format("{}, all boosted, none late, but there is something to look at.", all);
}

std::string LineOf(const Account& account, const JudgedScene* scene, const SceneFinding& finding) {
    const auto& [time, place] = finding.at;
    Finding shown{RowOf(KindOf(finding.what)).name, SeverityOf(finding), finding.message, place};
    if (scene != nullptr && time > scene->begin) {
        shown.message += fmt::format(" ({:.3f} s into the scene)",
                                     static_cast<double>(time - scene->begin) / 1e6);
    }
    if (place.line == 0) {
        return fmt::format("{}: {} [{}]", NameOf(shown.severity), shown.message, shown.check);
    }
    return ToString(shown,
                    place.input < account.inputs.size() ? account.inputs[place.input] : "line");
}

std::string SentenceOf(const Scene& scene, const Columns& columns, const Cause& cause) {
    return Speaker{scene, columns, cause}.Said();
}

}  // namespace tools
