#include "tools/account/account.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <span>
#include <tuple>
#include <utility>

#include "tools/base/text.h"
#include "tools/check/check.h"

namespace tools {
namespace {

Figures FiguresOf(const JudgedScene& judged) {
    const Scene& scene = judged;
    const Columns& columns = judged.columns;
    Figures figures;
    std::vector<Micros> latencies, intervals;
    for (uint32_t row = 0; row < scene.frames.size(); ++row) {
        const Frame& frame = scene.frames[row];
        const Fate& fate = columns.fates[row];
        if (fate.isSkipped) {
            continue;
        }
        ++figures.frameCount;
        ++figures.statusCounts[static_cast<size_t>(fate.status)];
        figures.onlyOpened += fate.isOnlyOpened ? 1 : 0;
        figures.unknown += fate.isUnknown ? 1 : 0;
        figures.late += fate.isLate ? 1 : 0;
        figures.notBoosted += IsNotBoosted(fate) ? 1 : 0;
        if (frame.start != NO_TIME && frame.end != NO_TIME) {
            latencies.push_back(frame.end - frame.start);
        }
        if (fate.interval != NO_TIME) {
            intervals.push_back(fate.interval);
        }
    }
    for (const Lost& lost : columns.lost) {
        figures.neverOut.push_back(lost.number);
        if (scene.RowOf(lost.number) == NO_INDEX) {
            ++figures.frameCount;
            ++figures.notBoosted;
        }
    }
    for (const Cause& cause : judged.causes) {
        if (cause.what == Case::LinesMissing) {
            figures.unknown += std::ssize(cause.beside);
            figures.frameCount += std::ssize(cause.beside);
        }
    }
    figures.latency = StatisticsOf(latencies);
    figures.interval = StatisticsOf(intervals);
    for (int32_t stage = 0; stage < scene.stageCount && scene.isStarted; ++stage) {
        std::vector<Micros> stays, waits, works;
        for (uint32_t row = 0; row < scene.frames.size(); ++row) {
            const StageTimes times = judged.TimesOf(row, stage);
            if (times.wait != NO_TIME) {
                stays.push_back(times.wait + times.work);
                waits.push_back(times.wait);
                works.push_back(times.work);
            }
        }
        figures.stages.push_back(StatisticsOf(stays));
        figures.waits.push_back(StatisticsOf(waits));
        figures.works.push_back(StatisticsOf(works));
    }
    return figures;
}

JudgedScene JudgedOf(Scene scene, const Configuration* configuration, double latePeriods) {
    JudgedScene judged{std::move(scene), {}, {}, {}, {}};
    judged.columns = ColumnsOf(judged, latePeriods);
    if (!judged.isStarted) {
        judged.causes = {RefusalOf(judged, configuration)};
        return judged;
    }
    // Of two objects at once only that is said.
    const std::span<Finder*const> all(FINDERS),
        finders = all.first(judged.columns.isMixed ? 1 : all.size());
    for (Finder* const find : finders) {
        find(judged, judged.columns, judged.causes);
    }
    Attribute(judged, judged.columns, judged.causes);
    judged.figures = FiguresOf(judged);
    return judged;
}

SceneFinding FindingOf(const Scene& scene, const Columns& columns, const Cause& cause) {
    SceneFinding finding{.kind = KindOf(cause.what),
                         .severity = SeverityOf(cause),
                         .message = SentenceOf(scene, columns, cause),
                         .place = cause.place,
                         .time = cause.time,
                         .frame = cause.frame,
                         .stage = cause.stage,
                         .frames = RangesOf(cause.own),
                         .harmed = RangesOf(cause.harmed),
                         .states = cause.states,
                         .chain = cause.chain};
    if (!finding.frame && !cause.own.empty()) {
        finding.frame = cause.own.front();
    }
    const auto own = static_cast<int64_t>(cause.own.size());
    switch (cause.what) {
        case Case::Restarted:
        case Case::NeverHit:
        case Case::Late:
            finding.times = std::max<int64_t>(own, 1);
            break;
        case Case::Ignored:
        case Case::NotBoosted:
            finding.times = cause.count;
            break;
        case Case::LinesMissing:
            finding.frames.clear();
            break;
        default:
            break;
    }
    return finding;
}

// Puts findings in their order, and makes one of more than so many of a kind and stage.
std::vector<SceneFinding> Joined(const JudgedScene& judged, size_t namedOneByOne) {
    std::map<std::tuple<Kind, int32_t, bool>, std::vector<const Cause*>> groups;
    for (const Cause& cause : judged.causes) {
        const bool isOfAll = cause.what == Case::CannotKeepUp || cause.what == Case::Reorders ||
                             cause.what == Case::SeveralAtOnce;
        groups[{KindOf(cause.what), cause.stage, isOfAll}].push_back(&cause);
    }
    std::vector<SceneFinding> findings;
    for (auto& [key, same] : groups) {
        std::stable_sort(same.begin(), same.end(), [](const Cause* one, const Cause* other) {
            return std::pair(one->time, one->place) < std::pair(other->time, other->place);
        });
        const Kind kind = std::get<0>(key);
        const bool isOneByOne =
            same.size() <= namedOneByOne || kind == Kind::NodeIgnored || kind == Kind::ThreadNotSet;
        if (isOneByOne) {
            for (const Cause* cause : same) {
                findings.push_back(FindingOf(judged, judged.columns, *cause));
            }
            continue;
        }
        SceneFinding all = FindingOf(judged, judged.columns, *same.front());
        std::vector<int64_t> own, harmed, frames;
        all.states.reset();
        for (const Cause* cause : same) {
            all.severity = std::max(all.severity, SeverityOf(*cause));
            for (size_t state = 0; cause->states && state < THREAD_STATES; ++state) {
                all.states = all.states.value_or(Shares());
                (*all.states)[state] += (*cause->states)[state];
            }
            own.insert(own.end(), cause->own.begin(), cause->own.end());
            harmed.insert(harmed.end(), cause->harmed.begin(), cause->harmed.end());
            if (cause->frame || !cause->own.empty()) {
                frames.push_back(cause->frame ? *cause->frame : cause->own.front());
            }
        }
        for (std::vector<int64_t>* numbers : {&own, &harmed, &frames}) {
            std::sort(numbers->begin(), numbers->end());
            numbers->erase(std::unique(numbers->begin(), numbers->end()), numbers->end());
        }
        all.frames = RangesOf(kind == Kind::LinesLost ? std::vector<int64_t>() : own);
        all.harmed = RangesOf(harmed);
        all.times = static_cast<int64_t>(same.size());
        all.message = fmt::format("{} times{}; the first: {}", all.times,
                                  frames.empty() ? "" : ", at " + NumbersText(frames), all.message);
        findings.push_back(std::move(all));
    }
    std::stable_sort(
        findings.begin(), findings.end(), [](const SceneFinding& one, const SceneFinding& other) {
            return one.severity != other.severity
                       ? one.severity > other.severity
                       : std::pair(one.time, one.place) < std::pair(other.time, other.place);
        });
    return findings;
}

// --- About no scene in particular.

// Lines of the library's that were not understood.
Cause NotUnderstoodOf(const CaptureSummary& summary, size_t inputs) {
    const std::vector<NotUnderstood>& shown = summary.firstNotUnderstood;
    // Where a capture begins and where it ends, a line may be only half there.
    const bool isAtEdge =
        static_cast<size_t>(summary.notUnderstood) == shown.size() &&
        std::all_of(shown.begin(), shown.end(), [&](const NotUnderstood& line) {
            return line.place.line == 1 || (inputs == 1 && line.place.line == summary.lines);
        });
    Cause cause{.what = Case::NotUnderstoodLines,
                .count = summary.notUnderstood,
                .atLeast = isAtEdge ? Severity::Note : Severity::Warning};
    for (const NotUnderstood& line : shown) {
        cause.why += fmt::format("\n    line {}: {}", line.place.line, line.text);
    }
    if (!shown.empty()) {
        cause.place = shown.front().place;
    }
    return cause;
}

// Scenes of two processes at the same time are two cameras at work.
std::optional<Cause> SeveralProcesses(const std::vector<JudgedScene>& scenes) {
    for (size_t i = 1; i < scenes.size(); ++i) {
        const Scene& scene = scenes[i];
        for (size_t j = 0; j < i; ++j) {
            const Scene& other = scenes[j];
            if (scene.process != other.process && scene.isStarted && other.isStarted &&
                scene.from.input == other.to.input && scene.from.line < other.to.line) {
                Cause cause{.what = Case::TwoProcesses, .place = scene.from, .time = scene.begin};
                cause.other = other.process;
                cause.why = fmt::to_string(scene.process);
                return cause;
            }
        }
    }
    return {};
}

std::vector<SceneFinding> FindingsOutside(const Account& account, const Readings& readings,
                                          const CaptureSummary& summary) {
    std::vector<SceneFinding> findings;
    const auto add = [&findings](const Cause& cause, int64_t times) {
        findings.push_back(FindingOf({}, {}, cause));
        findings.back().times = times;
    };
    if (!summary.damage.empty()) {
        add({.what = Case::InputDamaged, .why = summary.damage}, 1);
    }
    if (summary.notUnderstood > 0) {
        add(NotUnderstoodOf(summary, account.inputs.size()), summary.notUnderstood);
    }
    const auto addFirst = [&add](Case what, const std::vector<Scene::Disturbance>& all) {
        if (!all.empty()) {
            Cause cause{.what = what, .place = all.front().place, .time = all.front().time};
            cause.count = all.front().amount;
            add(cause, std::ssize(all));
        }
    };
    addFirst(Case::LinesOutside, readings.leftOut);
    addFirst(Case::ClockSetOutside, readings.clockSteps);
    if (const auto cause = SeveralProcesses(account.scenes)) {
        add(*cause, 1);
    }
    return findings;
}

}  // namespace

StageTimes JudgedScene::TimesOf(size_t row, int32_t stage) const {
    StageTimes times{.start = ArrivalOf(row, stage), .end = PassOf(row, stage).left};
    if (times.end == NO_TIME || times.start == NO_TIME || isAlone || stage >= columns.stages) {
        return times;
    }
    const size_t pass = columns.PassOf(static_cast<uint32_t>(row), stage);
    const Micros since = std::max(columns.begin[pass], times.start);
    const Micros length = std::max<Micros>(times.end - times.start, 0);
    times.work = std::min(times.end - since, length);
    times.wait = length - times.work;
    return times;
}

Account Judge(Readings readings, const CaptureSummary& summary, std::vector<std::string> inputs,
              const JudgeOptions& options) {
    Account account;
    account.inputs = std::move(inputs);
    account.from = summary.from;
    account.to = summary.to;
    account.hasThreads = readings.hasThreads;
    account.resolution = summary.resolution;
    account.lines = summary.lines;
    account.libraryLines = summary.libraryLines;
    account.notUnderstood = summary.notUnderstood;
    account.lost = summary.lost;
    for (const auto& loaded : readings.configurations) {
        account.configurations.push_back(*loaded);
        account.configurations.back().findings = CheckConfiguration(loaded->configuration);
    }
    for (Scene& scene : readings.scenes) {
        const Configuration* const known =
            scene.configuration == 0
                ? nullptr
                : &account.configurations[scene.configuration - 1].configuration;
        account.scenes.push_back(JudgedOf(std::move(scene), known, options.latePeriods));
    }
    account.findings = FindingsOutside(account, readings, summary);
    return account;
}

void MakeFindings(Account& account, const JudgeOptions& options) {
    for (JudgedScene& judged : account.scenes) {
        judged.findings = Joined(judged, options.namedOneByOne);
    }
}

Severity WorstOf(const Account& account) {
    Severity worst = Severity::Note;
    for (const SceneFinding& finding : account.findings) {
        worst = std::max(worst, finding.severity);
    }
    for (const JudgedScene& judged : account.scenes) {
        for (const SceneFinding& finding : judged.findings) {
            worst = std::max(worst, finding.severity);
        }
    }
    return worst;
}

}  // namespace tools
