#include "tools/sched/scheduling.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "tools/sched/causes.h"

namespace tools {
namespace {

struct SceneMaker {
    const Scene& scene;
    States& states;
    const Tie& tie;
    SceneScheduling result{};

    SceneScheduling Make(const std::vector<Span>& outside) {
        if (scene.stageCount > 0 && !scene.isMixed) {
            FindUses();
            FindThreads();
            FindUsual();
        }
        MakeWaiting(outside);
        return std::move(result);
    }

    // When frames left stages, by the counters where there are some, and what their threads did.
    void FindUses() {
        const auto stages = static_cast<size_t>(scene.stageCount);
        result.uses.resize(scene.passes.size());
        std::vector<std::pair<Micros, size_t>> left;
        for (size_t stage = 0; stage < stages; ++stage) {
            left.clear();
            for (size_t frame = 0; frame < scene.frames.size(); ++frame) {
                const StagePass& pass = scene.passes[frame * stages + stage];
                if (!pass.HasLeft()) {
                    continue;
                }
                StageUse& use = result.uses[frame * stages + stage];
                const auto number = static_cast<int32_t>(scene.frames[frame].number);
                const SchedCounter* const counter =
                    tie.Find(MessageKind::StageEnd, static_cast<int32_t>(stage), number,
                             tie.ToTrace(pass.left), scene.process);
                use.span.end = counter != nullptr ? counter->time : tie.ToTrace(pass.left);
                use.thread = counter != nullptr ? counter->thread
                             : pass.thread < scene.threads.size()
                                 ? tie.ThreadOf(scene.threads[pass.thread])
                                 : NO_THREAD;
                left.emplace_back(use.span.end, frame);
            }
            std::sort(left.begin(), left.end());
            for (size_t i = 0; i < left.size(); ++i) {
                const size_t frame = left[i].second;
                StageUse& use = result.uses[frame * stages + stage];
                Micros begin = i > 0 ? left[i - 1].first : NO_TIME;
                if (stage > 0 && scene.passes[frame * stages + stage - 1].HasLeft()) {
                    begin = std::max(begin, result.uses[frame * stages + stage - 1].span.end);
                }
                use.span.begin = begin == NO_TIME ? use.span.end : std::min(begin, use.span.end);
                if (begin == NO_TIME) {
                    use.thread = NO_THREAD;
                }
                if (use.thread != NO_THREAD) {
                    use.shares = states.SharesOf(use.thread, use.span);
                }
            }
        }
    }

    void FindThreads() {
        const Span span = {tie.ToTrace(scene.begin), tie.ToTrace(scene.end)};
        std::map<uint32_t, std::set<int32_t>> stagesOf;
        for (size_t i = 0; i < result.uses.size(); ++i) {
            if (result.uses[i].thread != NO_THREAD) {
                stagesOf[result.uses[i].thread].insert(
                    static_cast<int32_t>(i % static_cast<size_t>(scene.stageCount)));
            }
        }
        result.isHandedKnown = scene.hasThreads && !scene.isBeginningMissing;
        std::set<uint32_t> handed;
        for (const int32_t tid : scene.setThreads) {
            if (tie.ThreadOf(tid) != NO_THREAD) {
                handed.insert(tie.ThreadOf(tid));
            }
        }
        if (tie.IsSameNumbering()) {
            const std::vector<SchedThread>& all = states.Trace().threads;
            for (uint32_t thread = 0; thread < all.size(); ++thread) {
                if (scene.setThreads.contains(all[thread].tid)) {
                    handed.insert(thread);
                }
            }
        }
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
        for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
            Shares usual{};
            int64_t count = 0;
            for (size_t state = 0; state < THREAD_STATES; ++state) {
                std::vector<Micros> values;
                for (size_t frame = 0; frame < scene.frames.size(); ++frame) {
                    const StageUse& use = result.UseOf(scene, frame, stage);
                    if (use.thread != NO_THREAD &&
                        use.shares[static_cast<size_t>(ThreadState::Unknown)] == 0) {
                        values.push_back(use.shares[state]);
                    }
                }
                count = static_cast<int64_t>(values.size());
                usual[state] = StatisticsOf(values).p50;
            }
            result.usual.push_back(count > 0 ? std::optional(usual) : std::nullopt);
        }
    }

    // Of some threads, in each period.
    Statistics WaitingIn(const std::vector<Span>& spans, bool isHanded) {
        const Micros period = scene.Period();
        std::vector<Micros> all;
        for (const Span& span : spans) {
            std::vector<Micros> periods(static_cast<size_t>(span.Length() / period));
            std::vector<bool> isTold(periods.size(), true);
            for (const ThreadUse& use : result.threads) {
                if (use.isHanded != isHanded || periods.empty()) {
                    continue;
                }
                for (const StateSpan& one : states.Within(use.thread, span)) {
                    Micros from = std::max(one.begin, span.begin);
                    const bool isUntold =
                        one.state == ThreadState::Unknown || one.state == ThreadState::Gone;
                    while ((isUntold || one.state == ThreadState::Runnable) &&
                           from < std::min(one.end, span.end)) {
                        const auto index = static_cast<size_t>((from - span.begin) / period);
                        if (index >= periods.size()) {
                            break;
                        }
                        const Micros to = std::min(
                            one.end, span.begin + (static_cast<Micros>(index) + 1) * period);
                        periods[index] += to - from;
                        isTold[index] = isTold[index] && !isUntold;
                        from = to;
                    }
                }
            }
            for (size_t i = 0; i < periods.size(); ++i) {
                if (isTold[i]) {
                    all.push_back(periods[i]);
                }
            }
        }
        return StatisticsOf(all);
    }

    void MakeWaiting(const std::vector<Span>& outside) {
        const SchedTrace& trace = states.Trace();
        const std::vector<Span> inside = {{std::max(tie.ToTrace(scene.begin), trace.from),
                                           std::min(tie.ToTrace(scene.end), trace.to)}};
        for (const bool isHanded : {true, false}) {
            Waiting& waiting = isHanded ? result.handed : result.others;
            waiting.threads = std::count_if(
                result.threads.begin(), result.threads.end(),
                [isHanded](const ThreadUse& use) { return use.isHanded == isHanded; });
            if (waiting.threads > 0) {
                waiting.inside = WaitingIn(inside, isHanded);
                waiting.outside = WaitingIn(outside, isHanded);
            }
        }
    }
};

// Where no scene runs, by the trace's clock.
std::vector<Span> OutsideOf(const Account& account, const SchedTrace& trace, const Tie& tie) {
    std::vector<Span> spans;
    Micros from = trace.from;
    bool isKnown = true;  // That none was running from there on.
    for (const Scene& scene : account.scenes) {
        if (scene.isStarted) {
            if (isKnown && !scene.isBeginningMissing) {
                spans.push_back({from, tie.ToTrace(scene.begin)});
            }
            from = std::max(from, tie.ToTrace(scene.end));
            isKnown = scene.hasEnd;
        }
    }
    if (isKnown) {
        spans.push_back({from, trace.to});
    }
    return spans;
}

}  // namespace

Scheduling MakeScheduling(Account& account, std::string name, SchedTrace trace,
                          const std::vector<CountedLines::Line>& lines, size_t toldOneByOne) {
    Scheduling scheduling;
    scheduling.name = std::move(name);
    scheduling.trace = std::make_unique<SchedTrace>(std::move(trace));
    const SchedTrace& kept = *scheduling.trace;
    scheduling.tie = std::make_unique<Tie>(lines, kept, account.resolution);
    scheduling.states = std::make_unique<States>(kept);
    const std::vector<Span> outside = OutsideOf(account, kept, *scheduling.tie);
    for (Scene& scene : account.scenes) {
        scheduling.scenes.push_back(
            SceneMaker{scene, *scheduling.states, *scheduling.tie}.Make(outside));
        TellCauses(scene, scheduling.scenes.back(), *scheduling.states, *scheduling.tie);
        JoinFindings(scene, toldOneByOne);
    }
    return scheduling;
}

}  // namespace tools
