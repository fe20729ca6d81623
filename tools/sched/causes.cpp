#include "tools/sched/causes.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <set>

#include "tools/account/wording.h"
#include "tools/base/text.h"

namespace tools {
namespace {

// Less than that explains nothing.
constexpr Micros LEAST = MILLISECOND;
// Who wakes whom is followed that far.
constexpr size_t LONGEST_CHAIN = 8;
// Who had a CPU: those that had it for that share of the time, and no more than so many by name.
constexpr Micros SHARE = 10;
constexpr size_t NAMED = 2;

Span Cut(Span span, Span within) {
    return {std::max(span.begin, within.begin), std::min(span.end, within.end)};
}

class CauseFinder {
  public:
    CauseFinder(Scene& judged, const SceneScheduling& sceneScheduling, States& threadStates,
                const Tie& clocks)
        : scene(judged),
          scheduling(sceneScheduling),
          states(threadStates),
          tie(clocks),
          trace(threadStates.Trace()) {}

    void Find(SceneFinding& finding) {
        switch (finding.check) {
            case Check::SlowStage:
            case Check::SensorStall:
                return FindOfFrames(finding);
            case Check::Stuck:
                return FindOfStanding(finding);
            default:
                return;
        }
    }

  private:
    // Why the stage took longer for these frames than it usually does.
    void FindOfFrames(SceneFinding& finding) {
        std::vector<const StageUse*> uses;
        Shares excess{};
        for (size_t frame = 0; frame < scene.frames.size(); ++frame) {
            const Frame& row = scene.frames[frame];
            const StageUse& use = scheduling.UseOf(scene, frame, finding.stage);
            const bool isMeant =
                std::any_of(finding.frames.begin(), finding.frames.end(), [&](FrameRange range) {
                    return row.number >= range.first && row.number <= range.last;
                });
            // Numbers may start again.
            if (!isMeant || use.thread == NO_THREAD ||
                use.span.end < tie.ToTrace(finding.time) - MILLISECOND) {
                continue;
            }
            uses.push_back(&use);
            for (size_t state = 0; state < THREAD_STATES; ++state) {
                excess[state] +=
                    use.shares[state] - scheduling.usual[static_cast<size_t>(finding.stage)][state];
            }
        }
        const auto worst = std::max_element(excess.begin(), excess.end());
        const Micros longer = std::accumulate(excess.begin(), excess.end(), Micros{0});
        if (uses.empty() || *worst < LEAST || *worst * 2 < longer) {
            return;
        }
        const auto state = static_cast<ThreadState>(worst - excess.begin());
        // The frame that shows it best stands for all.
        const StageUse* const shown = *std::max_element(
            uses.begin(), uses.end(), [state](const StageUse* one, const StageUse* other) {
                return one->shares[static_cast<size_t>(state)] <
                       other->shares[static_cast<size_t>(state)];
            });
        const auto frame = static_cast<size_t>(shown - scheduling.uses.data()) /
                           static_cast<size_t>(scene.stageCount);
        Tell(finding, shown->thread, shown->span, state,
             uses.size() > 1 ? std::optional(scene.frames[frame].number) : std::nullopt);
    }

    // What the thread of a stage in which frames stood did until the end.
    void FindOfStanding(SceneFinding& finding) {
        std::map<uint32_t, int64_t> counts;
        for (size_t frame = 0; frame < scene.frames.size(); ++frame) {
            const StageUse& use = scheduling.UseOf(scene, frame, finding.stage);
            counts[use.thread] += use.thread != NO_THREAD ? 1 : 0;
        }
        const auto thread = std::max_element(
            counts.begin(), counts.end(),
            [](const auto& one, const auto& other) { return one.second < other.second; });
        const Span span = {tie.ToTrace(finding.time), std::min(tie.ToTrace(scene.stop), trace.to)};
        if (thread == counts.end() || thread->second == 0 || span.end - span.begin < LEAST) {
            return;
        }
        const Shares shares = states.SharesOf(thread->first, span);
        const auto most = std::max_element(shares.begin(), shares.end());
        Tell(finding, thread->first, span, static_cast<ThreadState>(most - shares.begin()),
             std::nullopt);
    }

    // `frame`: which one it is told of, where the finding is about several.
    void Tell(SceneFinding& finding, uint32_t thread, Span span, ThreadState state,
              std::optional<int64_t> frame) {
        std::set<uint32_t> seen;
        Follow(finding.chain, thread, span, state, seen);
        if (finding.chain.empty()) {
            return;
        }
        std::string text =
            finding.check == Check::SlowStage ? ", of which its thread " : "; thread ";
        if (frame) {
            text = fmt::format("; of the {} ms of frame {} its thread ", Ms(span.end - span.begin),
                               *frame);
        }
        text += NameOfThread(thread, finding.check != Check::SlowStage) + ' ';
        for (size_t i = 0; i < finding.chain.size(); ++i) {
            text += (i > 0 ? ", which " : "") + TextOf(finding.chain[i]);
        }
        const bool isNode = finding.chain.size() == 1 && state == ThreadState::Running;
        finding.message.insert(std::min(finding.stem, finding.message.size()),
                               text + (isNode ? ": the node itself" : ""));
        if (finding.chain.back().state == ThreadState::Runnable) {
            finding.check = Check::CpuWait;
        }
    }

    void Follow(std::vector<CauseLink>& chain, uint32_t thread, Span span, ThreadState state,
                std::set<uint32_t>& seen) {
        const bool isSleep = state == ThreadState::Sleeping || state == ThreadState::Blocked;
        if (!seen.insert(thread).second || chain.size() >= LONGEST_CHAIN ||
            state == ThreadState::Unknown || state == ThreadState::Gone) {
            return;
        }
        CauseLink link;
        link.thread = trace.threads[thread].tid;
        link.name = trace.threads[thread].name;
        link.state = state;
        // The longest time in that state, and where it waited, by CPU.
        const StateSpan* longest = nullptr;
        std::map<uint16_t, Micros> waited;
        const auto [first, last] = states.Within(thread, span);
        for (auto it = first; it != last; ++it) {
            const Span part = Cut(*it, span);
            if (it->state != state) {
                continue;
            }
            link.length += part.end - part.begin;
            waited[it->cpu] += part.end - part.begin;
            if (longest == nullptr ||
                part.end - part.begin > Cut(*longest, span).end - Cut(*longest, span).begin) {
                longest = &*it;
            }
        }
        if (longest == nullptr) {
            return;
        }
        const Span part = Cut(*longest, span);
        link.begin = tie.ToLog(part.begin);
        link.cpu = std::max_element(waited.begin(), waited.end(), [](auto one, auto other) {
                       return one.second < other.second;
                   })->first;
        if (isSleep) {
            link.cpu = -1;
            link.length = part.end - part.begin;
            link.isWoken = longest->isWoken && longest->end <= span.end;
        }
        if (state == ThreadState::Runnable) {
            AddRan(link, thread, span);
        }
        const uint32_t waker = longest->waker;
        const bool isThread = waker != NO_THREAD && trace.threads[waker].tid != 0;
        link.isByInterrupt = link.isWoken && !isThread;
        if (link.isWoken && isThread) {
            link.waker = NameOfThread(waker, true);
        }
        chain.push_back(link);
        if (link.isWoken && isThread && !seen.contains(waker)) {
            const Shares shares = states.SharesOf(waker, part);
            const auto most = std::max_element(shares.begin(), shares.end());
            Follow(chain, waker, part, static_cast<ThreadState>(most - shares.begin()), seen);
        }
    }

    // Who had the CPU that a thread waited for.
    void AddRan(CauseLink& link, uint32_t thread, Span span) const {
        std::map<uint32_t, Micros> ran;
        const auto [first, last] = states.Within(thread, span);
        for (auto it = first; it != last; ++it) {
            if (it->state == ThreadState::Runnable && it->cpu == link.cpu) {
                for (const auto& [other, time] : states.RanOn(it->cpu, Cut(*it, span))) {
                    ran[other] += time;
                }
            }
        }
        for (const auto& [other, time] : ran) {
            if (other != thread && time > 0) {
                const SchedThread& one = trace.threads[other];
                link.ran.push_back({one.tid, one.tid == 0 ? "nothing" : one.name, time});
            }
        }
        std::stable_sort(link.ran.begin(), link.ran.end(), [](const auto& one, const auto& other) {
            return one.length > other.length;
        });
    }

    std::string NameOfThread(uint32_t thread, bool hasName) const {
        const SchedThread& known = trace.threads[thread];
        return hasName ? fmt::format("{} ({})", known.tid, Printable(known.name))
                       : fmt::to_string(known.tid);
    }

    static std::string TextOf(const CauseLink& link) {
        const std::string time = Ms(link.length);
        if (link.state == ThreadState::Running) {
            return fmt::format("ran {} ms", time);
        }
        if (link.state == ThreadState::Runnable) {
            std::string text = fmt::format("waited {} ms for a CPU", time);
            // Threads of one name are told of together.
            std::vector<std::pair<std::string, Micros>> names;
            for (const CauseLink::Ran& one : link.ran) {
                const auto known =
                    std::find_if(names.begin(), names.end(),
                                 [&one](const auto& other) { return other.first == one.name; });
                if (known == names.end()) {
                    names.emplace_back(one.name, one.length);
                } else {
                    known->second += one.length;
                }
            }
            std::stable_sort(names.begin(), names.end(), [](const auto& one, const auto& other) {
                return one.second > other.second;
            });
            std::vector<std::string> parts;
            Micros rest = 0;
            for (const auto& [name, length] : names) {
                if (parts.size() < NAMED && length * SHARE >= link.length) {
                    parts.push_back(fmt::format("{} {} ms", Printable(name), Ms(length)));
                } else {
                    rest += length;
                }
            }
            if (rest * SHARE >= link.length) {
                parts.push_back(fmt::format("others {} ms", Ms(rest)));
            }
            return parts.empty() ? text
                                 : text + fmt::format(": CPU {} ran {}", link.cpu, Join(parts));
        }
        const std::string slept =
            link.state == ThreadState::Blocked
                ? fmt::format("was blocked in the kernel, by a device or a lock, for {} ms", time)
                : fmt::format("slept {} ms", time);
        return slept + (!link.isWoken        ? ""
                        : link.isByInterrupt ? " until an interrupt woke it"
                                             : " until thread " + link.waker + " woke it");
    }

    Scene& scene;
    const SceneScheduling& scheduling;
    States& states;
    const Tie& tie;
    const SchedTrace& trace;
};

}  // namespace

void TellCauses(Scene& scene, const SceneScheduling& scheduling, States& states, const Tie& tie) {
    if (scheduling.uses.empty()) {
        return;
    }
    CauseFinder finder(scene, scheduling, states, tie);
    for (SceneFinding& finding : scene.findings) {
        if (finding.stage >= 0 && finding.stage < scene.stageCount && finding.time != NO_TIME) {
            finder.Find(finding);
        }
    }
}

}  // namespace tools
