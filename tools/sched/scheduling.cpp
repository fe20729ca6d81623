#include "tools/sched/scheduling.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <map>
#include <set>
#include <utility>

#include "tools/base/text.h"
#include "tools/sched/causes.h"

namespace tools {
namespace {

struct SceneMaker {
    const JudgedScene& judged;
    States& states;
    const Tie& tie;
    const CounterTable& counters;
    const Scene& scene = judged;
    const Columns& columns = judged.columns;
    SceneScheduling result{};

    SceneScheduling Make(const std::vector<Span>& outside) {
        if (scene.isStarted && !columns.isMixed) {
            result.stages = columns.stages;
            FindUses();
            FindThreads();
            FindUsual();
        }
        MakeWaiting(outside);
        return std::move(result);
    }

    // When frames were in stages, by the counters where there are some, and what their threads did.
    void FindUses() {
        result.uses.resize(scene.frames.size() * static_cast<size_t>(result.stages));
        for (uint32_t row = 0; row < scene.frames.size(); ++row) {
            for (int32_t stage = 0; stage < result.stages; ++stage) {
                FindEnd(row, stage);
            }
        }
        for (uint32_t row = 0; row < scene.frames.size(); ++row) {
            for (int32_t stage = 0; stage < result.stages; ++stage) {
                FindBegin(row, stage);
            }
        }
    }

    void FindEnd(uint32_t row, int32_t stage) {
        const Micros left = scene.LeftOf(row, stage);
        if (left == NO_TIME) {
            return;
        }
        StageUse& use = result.uses[columns.PassOf(row, stage)];
        const SchedCounter* const counter =
            counters.Beside({left, scene.process, -1, scene.isAlone ? -1 : stage,
                             static_cast<int32_t>(scene.frames[row].number),
                             scene.isAlone ? MessageKind::FrameEnd : MessageKind::StageEnd});
        use.span.end = counter != nullptr ? counter->time : left;
        if (counter != nullptr) {
            use.thread = counter->thread;
        } else if (!scene.isAlone) {
            use.thread = ThreadOf(scene.PassOf(row, stage).thread);
        }
    }

    void FindBegin(uint32_t row, int32_t stage) {
        const size_t pass = columns.PassOf(row, stage);
        StageUse& use = result.uses[pass];
        const uint32_t behind = columns.behind[pass];
        Micros begin = columns.begin[pass];
        if (behind != NO_INDEX) {
            begin = result.uses[behind].span.end;
        } else if (begin == NO_TIME && stage == 0) {
            begin = scene.frames[row].start;
        }
        if (begin == NO_TIME || use.thread == NO_THREAD) {
            use.thread = NO_THREAD;
            return;
        }
        use.span.begin = std::min(begin, use.span.end);
        use.shares = states.SharesOf(use.thread, use.span);
    }

    uint32_t ThreadOf(int32_t tid) const {
        const auto found = tie.threads.find(tid);
        return found == tie.threads.end() ? NO_THREAD : found->second;
    }

    void FindThreads() {
        const Span span = {scene.begin, scene.end};
        std::map<uint32_t, std::set<int32_t>> stagesOf;
        std::vector<std::map<uint32_t, Micros>> last(static_cast<size_t>(result.stages));
        for (size_t i = 0; i < result.uses.size(); ++i) {
            if (const uint32_t thread = result.uses[i].thread; thread != NO_THREAD) {
                stagesOf[thread].insert(static_cast<int32_t>(i % last.size()));
                Micros& time = last[i % last.size()].try_emplace(thread, NO_TIME).first->second;
                time = std::max(time, result.uses[i].span.end);
            }
        }
        for (const auto& ofStage : last) {
            const auto standing = std::min_element(
                ofStage.begin(), ofStage.end(),
                [](const auto& one, const auto& other) { return one.second < other.second; });
            result.standing.push_back(standing == ofStage.end() ? NO_THREAD : standing->first);
        }
        result.isHandedKnown = scene.hasThreads && !scene.isBeginningMissing;
        const std::vector<SchedThread>& all = states.Trace().threads;
        std::set<uint32_t> handed;
        for (const int32_t tid : scene.setThreads) {
            handed.insert(ThreadOf(tid));
            // Threads that report no stage are known by their ids alone.
            for (uint32_t thread = 0; tie.isSameNumbering && thread < all.size(); ++thread) {
                if (all[thread].tid == tid) {
                    handed.insert(thread);
                }
            }
        }
        handed.erase(NO_THREAD);
        for (const uint32_t thread : handed) {
            stagesOf.try_emplace(thread);
        }
        for (const auto& [thread, stages] : stagesOf) {
            result.threads.push_back({thread,
                                      {stages.begin(), stages.end()},
                                      handed.contains(thread),
                                      states.SharesOf(thread, span)});
        }
        std::sort(result.threads.begin(), result.threads.end(),
                  [&](const ThreadUse& one, const ThreadUse& other) {
                      return states.Trace().threads[one.thread].tid <
                             states.Trace().threads[other.thread].tid;
                  });
    }

    void FindUsual() {
        for (int32_t stage = 0; stage < result.stages; ++stage) {
            std::array<std::vector<Micros>, THREAD_STATES> values;
            for (size_t row = 0; row < scene.frames.size(); ++row) {
                const StageUse* const use = result.UseOf(row, stage);
                const bool isKnown =
                    use != nullptr && use->shares[static_cast<size_t>(ThreadState::Unknown)] == 0;
                for (size_t state = 0; isKnown && state < THREAD_STATES; ++state) {
                    values[state].push_back(use->shares[state]);
                }
            }
            result.usual.emplace_back();
            for (size_t state = 0; state < THREAD_STATES; ++state) {
                result.usual.back()[state] = MedianOf(values[state], 0);
            }
        }
    }

    // How long threads waited in each period. Periods in which a thread's states are not known are
    // left out.
    Statistics WaitingIn(const std::vector<Span>& spans, bool isHanded) {
        std::vector<Micros> all;
        for (const Span& span : spans) {
            for (Span period = {span.begin, span.begin + scene.Period()}; period.end <= span.end;
                 period = {period.end, period.end + scene.Period()}) {
                Micros waited = 0, unknown = 0;
                for (const ThreadUse& use : result.threads) {
                    if (use.isHanded == isHanded) {
                        const Shares shares = states.SharesOf(use.thread, period);
                        waited += shares[static_cast<size_t>(ThreadState::Runnable)];
                        unknown += shares[static_cast<size_t>(ThreadState::Unknown)] +
                                   shares[static_cast<size_t>(ThreadState::Gone)];
                    }
                }
                if (unknown == 0) {
                    all.push_back(waited);
                }
            }
        }
        return StatisticsOf(all);
    }

    void MakeWaiting(const std::vector<Span>& outside) {
        const Span inside = Cut({scene.begin, scene.end}, {states.Trace().from, states.Trace().to});
        for (const bool isHanded : {true, false}) {
            Waiting& waiting = isHanded ? result.handed : result.others;
            waiting.threads = std::count_if(
                result.threads.begin(), result.threads.end(),
                [isHanded](const ThreadUse& use) { return use.isHanded == isHanded; });
            if (waiting.threads > 0) {
                waiting.inside = WaitingIn({inside}, isHanded);
                waiting.outside = WaitingIn(outside, isHanded);
            }
        }
    }
};

// Where no scene runs.
std::vector<Span> OutsideOf(const Account& account, const SchedTrace& trace) {
    std::vector<Span> spans;
    Micros from = trace.from;
    bool isKnown = true;  // That none was running from there on.
    for (const JudgedScene& judged : account.scenes) {
        const Scene& scene = judged;
        if (scene.isStarted) {
            if (isKnown && !scene.isBeginningMissing) {
                spans.push_back({from, scene.begin});
            }
            from = std::max(from, scene.end);
            isKnown = scene.HasEnd();
        }
    }
    if (isKnown) {
        spans.push_back({from, trace.to});
    }
    return spans;
}

std::string SecondsText(Micros time) {
    return Fixed(static_cast<double>(time) / SECOND, 3) + " s";
}

// What the trace does not cover of the account's scenes.
std::vector<std::string> NotesOf(const Account& account, const SchedTrace& trace, const Tie& tie) {
    constexpr Micros LEAST = SECOND / 10;
    std::vector<std::string> notes;
    for (size_t i = 0; i < account.scenes.size(); ++i) {
        const Scene& scene = account.scenes[i];
        const Span covered = Cut({scene.begin, scene.end}, {trace.from, trace.to});
        const Micros all = scene.end - scene.begin;
        if (!scene.isStarted || all - covered.Length() < LEAST) {
            continue;
        }
        notes.push_back(covered.Length() == 0
                            ? fmt::format("it covers nothing of scene {}", i + 1)
                            : fmt::format("it covers {} of the {} of scene {}",
                                          SecondsText(covered.Length()), SecondsText(all), i + 1));
    }
    for (const Span part : tie.untied) {
        notes.push_back(fmt::format(
            "from {} to {} of the log nothing is tied: the log's clock was set there, and counters "
            "and lines do not agree; what threads did then is not known",
            SecondsText(part.begin), SecondsText(part.end)));
    }
    return notes;
}

}  // namespace

Scheduling MakeScheduling(Account& account, std::string name, SchedTrace trace,
                          const CountedLines& lines) {
    Scheduling scheduling;
    scheduling.name = std::move(name);
    scheduling.trace = std::make_unique<SchedTrace>(std::move(trace));
    const SchedTrace& kept = *scheduling.trace;
    const CounterTable counters(kept);
    scheduling.tie = TieClocks(*scheduling.trace, counters, lines, account.resolution);
    scheduling.states = std::make_unique<States>(kept);
    scheduling.notes = NotesOf(account, kept, scheduling.tie);
    const std::vector<Span> outside = OutsideOf(account, kept);
    for (JudgedScene& judged : account.scenes) {
        scheduling.scenes.push_back(
            SceneMaker{judged, *scheduling.states, scheduling.tie, counters}.Make(outside));
        AddScheduling(judged, scheduling.scenes.back(), *scheduling.states, scheduling.tie);
    }
    return scheduling;
}

}  // namespace tools
