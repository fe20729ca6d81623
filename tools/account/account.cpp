#include "tools/account/account.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <set>
#include <tuple>
#include <utility>

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
    for (const auto& [number, lost] : columns.lost) {
        figures.neverOut.push_back(number);
        if (scene.RowOf(number) == NO_INDEX) {
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
    for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
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
    if (judged.columns.isMixed) {
        judged.causes = {{.what = Case::TwoObjects,
                          .span = {judged.begin, judged.stop},
                          .at = {judged.begin, judged.from}}};
    } else {
        for (Finder* const find : FINDERS) {
            find(judged, judged.columns, judged.causes);
        }
        Attribute(judged, judged.columns, judged.causes);
    }
    judged.figures = FiguresOf(judged);
    return judged;
}

SceneFinding FindingOf(const Scene& scene, const Columns& columns, const Cause& cause) {
    SceneFinding finding{cause, SentenceOf(scene, columns, cause)};
    if (!finding.frame && !cause.own.empty()) {
        finding.frame = cause.own.front();
    }
    if (cause.what == Case::LinesMissing) {
        finding.own.clear();  // It is about lines.
    }
    return finding;
}

// One of several of a kind and a stage, in the order of their times.
SceneFinding Merged(const std::vector<SceneFinding>& same) {
    SceneFinding all = same.front();
    all.states.reset();
    std::set<int64_t> own, harmed, frames;
    for (const SceneFinding& one : same) {
        all.atLeast = std::max(all.atLeast, SeverityOf(one));
        own.insert(one.own.begin(), one.own.end());
        harmed.insert(one.harmed.begin(), one.harmed.end());
        if (one.frame) {
            frames.insert(*one.frame);
        }
        if (one.states) {
            (all.states ? *all.states : all.states.emplace()) += *one.states;
        }
    }
    all.own.assign(own.begin(), own.end());
    all.harmed.assign(harmed.begin(), harmed.end());
    all.times = std::ssize(same);
    all.message = fmt::format(
        "{} times{}; the first: {}", all.times,
        frames.empty() ? "" : ", at " + NumbersText({frames.begin(), frames.end()}), all.message);
    return all;
}

// Findings in their order; more than so many of a kind and stage are one.
std::vector<SceneFinding> Joined(const JudgedScene& judged, size_t namedOneByOne) {
    std::map<std::tuple<Kind, int32_t, bool>, std::vector<SceneFinding>> groups;
    for (const Cause& cause : judged.causes) {
        const bool isOfAll = cause.what == Case::CannotKeepUp || cause.what == Case::Reorders ||
                             cause.what == Case::SeveralAtOnce;
        groups[{KindOf(cause.what), cause.stage, isOfAll}].push_back(
            FindingOf(judged, judged.columns, cause));
    }
    std::vector<SceneFinding> findings;
    for (auto& [key, same] : groups) {
        const Kind kind = std::get<0>(key);
        std::ranges::stable_sort(same, {}, &SceneFinding::at);
        if (same.size() > namedOneByOne && kind != Kind::NodeIgnored &&
            kind != Kind::ThreadNotSet) {
            same = {Merged(same)};
        }
        std::ranges::move(same, std::back_inserter(findings));
    }
    // Worst first. Of the same severity they stay in the order of their times.
    std::ranges::stable_sort(findings, {}, &SceneFinding::at);
    std::ranges::stable_sort(findings, std::greater(), SeverityOf);
    return findings;
}

// Lines of the library's that were not understood.
Cause NotUnderstoodOf(const Account& account) {
    const std::vector<NotUnderstood>& shown = account.firstNotUnderstood;
    // Where a capture begins and where it ends, a line may be only half there.
    const bool isAtEdge = account.notUnderstood == std::ssize(shown) &&
                          std::ranges::all_of(shown, [&](const NotUnderstood& line) {
                              return line.place.line == 1 || (account.inputs.size() == 1 &&
                                                              line.place.line == account.lines);
                          });
    Cause cause{.what = Case::NotUnderstoodLines,
                .at = {NO_TIME, shown.front().place},
                .count = account.notUnderstood,
                .times = account.notUnderstood,
                .atLeast = isAtEdge ? Severity::Note : Severity::Warning};
    for (const NotUnderstood& line : shown) {
        cause.why += fmt::format("\n    line {}: {}", line.place.line, line.text);
    }
    return cause;
}

}  // namespace

StageTimes JudgedScene::TimesOf(size_t row, int32_t stage) const {
    StageTimes times{.start = ArrivalOf(row, stage), .end = PassOf(row, stage).left.time};
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

Account Judge(Readings readings, CaptureSummary summary, std::vector<std::string> inputs,
              const JudgeOptions& options) {
    Account account{std::move(summary), std::move(inputs), readings.hasThreads, {}, {}, {}};
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
    if (!account.damage.empty()) {
        account.findings.push_back(
            FindingOf({}, {}, {.what = Case::InputDamaged, .why = account.damage}));
    }
    if (account.notUnderstood > 0) {
        account.findings.push_back(FindingOf({}, {}, NotUnderstoodOf(account)));
    }
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
        worst = std::max(worst, SeverityOf(finding));
    }
    for (const JudgedScene& judged : account.scenes) {
        for (const SceneFinding& finding : judged.findings) {
            worst = std::max(worst, SeverityOf(finding));
        }
    }
    return worst;
}

}  // namespace tools
