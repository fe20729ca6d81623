#include "tools/sched/scheduling.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <map>
#include <utility>

#include "tools/base/text.h"

namespace tools {
namespace {

struct SceneMaker {
    const JudgedScene& judged;
    const Scheduling& all;
    const Scene& scene = judged;
    const Columns& columns = judged.columns;
    const SchedTrace& trace = all.trace;
    SceneScheduling result{};

    SceneScheduling Make() {
        if (scene.isStarted && !columns.isMixed) {
            result.stages = columns.stages;
            FindUses();
            FindThreads();
        }
        result.handed = WaitingOf(true);
        result.others = WaitingOf(false);
        return std::move(result);
    }

    // When frames were in stages, by the counters where there are some, and what their threads did.
    void FindUses() {
        const auto stages = static_cast<size_t>(result.stages);
        result.uses.resize(scene.frames.size() * stages);
        for (uint32_t row = 0; row < scene.frames.size(); ++row) {
            for (int32_t stage = 0; stage < result.stages; ++stage) {
                FindEnd(row, stage, result.uses[columns.PassOf(row, stage)]);
            }
        }
        for (size_t pass = 0; pass < result.uses.size(); ++pass) {
            StageUse& use = result.uses[pass];
            Micros begin = columns.begin[pass];
            if (columns.behind[pass] != NO_INDEX) {
                begin = result.uses[columns.behind[pass]].span.end;
            } else if (begin == NO_TIME && pass % stages == 0) {
                begin = scene.frames[pass / stages].start;
            }
            if (begin == NO_TIME) {
                use.thread = NO_THREAD;
            }
            if (use.thread != NO_THREAD) {
                use.span.begin = std::min(begin, use.span.end);
                use.shares = all.states.SharesOf(use.thread, use.span);
            }
        }
    }

    void FindEnd(uint32_t row, int32_t stage, StageUse& use) const {
        use.span.end = scene.LeftOf(row, stage);
        if (use.span.end == NO_TIME) {
            return;
        }
        const auto number = static_cast<int32_t>(scene.frames[row].number);
        const CountedEvent event =
            scene.isAlone ? CountedEvent{MessageKind::FrameEnd, -1, number, scene.process}
                          : CountedEvent{MessageKind::StageEnd, stage, number, scene.process};
        if (const SchedCounter* const counter = CounterBeside(trace, event, use.span.end)) {
            use.span.end = counter->time;
            use.thread = counter->thread;
        } else if (!scene.isAlone) {
            use.thread = ThreadOf(scene.PassOf(row, stage).thread);
        }
    }

    uint32_t ThreadOf(int32_t tid) const {
        const auto found = all.tie.threads.find(tid);
        return found == all.tie.threads.end() ? NO_THREAD : found->second;
    }

    void FindThreads() {
        std::map<uint32_t, ThreadUse> threads;
        for (int32_t stage = 0; stage < result.stages; ++stage) {
            std::map<uint32_t, Micros> last;  // When each thread last gave a frame on.
            std::array<std::vector<Micros>, THREAD_STATES> spent;
            for (size_t row = 0; row < scene.frames.size(); ++row) {
                const StageUse* const use = result.UseOf(row, stage);
                if (use == nullptr) {
                    continue;
                }
                Micros& time = last.try_emplace(use->thread, use->span.end).first->second;
                time = std::max(time, use->span.end);
                for (size_t i = 0; use->shares[ThreadState::Unknown] == 0 && i < spent.size();
                     ++i) {
                    spent[i].push_back(use->shares[i]);
                }
            }
            for (const auto& [thread, time] : last) {
                threads[thread].stages.push_back(stage);
            }
            const auto standing =
                std::ranges::min_element(last, {}, [](auto& one) { return one.second; });
            result.standing.push_back(standing == last.end() ? NO_THREAD : standing->first);
            Shares& usual = result.usual.emplace_back();
            std::ranges::transform(spent, usual.begin(),
                                   [](auto& values) { return MedianOf(values, 0); });
        }
        result.isHandedKnown = scene.hasThreads && !scene.isBeginningMissing;
        for (const int32_t tid : scene.setThreads) {
            threads[ThreadOf(tid)].isHanded = true;
        }
        threads.erase(NO_THREAD);
        for (auto& [thread, use] : threads) {
            use.thread = thread;
            use.shares = all.states.SharesOf(thread, {scene.begin, scene.end});
            result.threads.push_back(std::move(use));
        }
        std::ranges::stable_sort(result.threads, {}, [this](const ThreadUse& use) {
            return trace.threads[use.thread].tid;
        });
    }

    // Periods in which a thread's states are not known are left out.
    Waiting WaitingOf(bool isHanded) const {
        const int64_t threads = std::ranges::count(result.threads, isHanded, &ThreadUse::isHanded);
        std::vector<Micros> waits;
        const Span known = Cut({scene.begin, scene.end}, {trace.from, trace.to});
        for (Span period = {known.begin, known.begin + scene.Period()};
             threads > 0 && period.end <= known.end;
             period = {period.end, period.end + scene.Period()}) {
            Shares sums{};
            for (const ThreadUse& use : result.threads) {
                if (use.isHanded == isHanded) {
                    sums += all.states.SharesOf(use.thread, period);
                }
            }
            if (sums[ThreadState::Unknown] + sums[ThreadState::Gone] == 0) {
                waits.push_back(sums[ThreadState::Runnable]);
            }
        }
        return {threads, StatisticsOf(waits)};
    }
};

std::string SecondsText(Micros time) {
    return Fixed(static_cast<double>(time) / SECOND, 3) + " s";
}

// What the trace does not cover of the account's scenes.
std::vector<std::string> NotesOf(const Account& account, const SchedTrace& trace, const Tie& tie) {
    constexpr Micros LEAST = SECOND / 10;
    std::vector<std::string> notes;
    for (size_t i = 0; i < account.scenes.size(); ++i) {
        const Scene& scene = account.scenes[i];
        const Micros all = scene.end - scene.begin;
        const Micros covered = Cut({scene.begin, scene.end}, {trace.from, trace.to}).Length();
        if (scene.isStarted && all - covered >= LEAST) {
            notes.push_back(fmt::format("it covers {} of the {} of scene {}", SecondsText(covered),
                                        SecondsText(all), i + 1));
        }
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

Scheduling MakeScheduling(Account& account, SchedTrace trace, const CountedLines& lines,
                          std::vector<Knot> clocks) {
    Scheduling all;
    all.tie = TieClocks(trace, std::move(clocks), lines.all, account.resolution);
    all.states = StatesOf(trace);
    trace.events = {};  // They take much memory.
    all.trace = std::move(trace);
    all.notes = NotesOf(account, all.trace, all.tie);
    for (JudgedScene& judged : account.scenes) {
        all.scenes.push_back(SceneMaker{judged, all}.Make());
        AddScheduling(judged, all.scenes.back(), all);
    }
    return all;
}

}  // namespace tools
