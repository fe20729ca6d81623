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

struct CauseFinder {
    Scene& scene;
    const SceneScheduling& scheduling;
    States& states;
    const Tie& tie;
    const SchedTrace& trace = states.Trace();

    void Find(SceneFinding& finding) {
        if (finding.check == Check::Standstill) {
            return FindOfStandstill(finding);
        }
        if (finding.stage < 0 || finding.stage >= scene.stageCount) {
            return;
        }
        if (finding.check == Check::SlowStage || finding.check == Check::SensorStall) {
            FindOfFrames(finding);
        } else if (finding.check == Check::Stuck) {
            FindOfStanding(finding);
        }
    }

    // Why the stage took longer for these frames than it usually does.
    void FindOfFrames(SceneFinding& finding) {
        const std::optional<Shares>& usual = scheduling.usual[static_cast<size_t>(finding.stage)];
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
            if (!isMeant || !usual || use.thread == NO_THREAD ||
                use.span.end < tie.ToTrace(finding.time) - MILLISECOND) {
                continue;
            }
            uses.push_back(&use);
            for (size_t state = 0; state < THREAD_STATES; ++state) {
                excess[state] += use.shares[state] - (*usual)[state];
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
        // What it did besides, where that is much, too.
        const Micros others = longer - *worst;
        // Of the frame that is told of, as what it ran is.
        const Micros waited = shown->shares[static_cast<size_t>(ThreadState::Runnable)];
        std::string besides;
        if (state == ThreadState::Running &&
            excess[static_cast<size_t>(ThreadState::Runnable)] * 4 >= longer) {
            besides = fmt::format(" and waited {} ms for a CPU", Ms(waited));
        } else if (state == ThreadState::Running && others * 10 < longer) {
            besides = ": the node itself";
        }
        std::string head;  // Which one it is told of, where the finding is about several.
        if (uses.size() > 1) {
            head = fmt::format("; of the {} ms of frame {} its thread ", Ms(shown->span.Length()),
                               scene.frames[frame].number);
        }
        Tell(finding, shown->thread, shown->span, state, longer, head, besides);
    }

    // Nobody logged anything: whether the threads had no CPU.
    void FindOfStandstill(SceneFinding& finding) {
        const auto silence = std::find_if(
            scene.silences.begin(), scene.silences.end(),
            [&finding](const Scene::Silence& one) { return one.begin == finding.time; });
        if (silence == scene.silences.end()) {
            return;
        }
        const Span span = {tie.ToTrace(silence->begin), tie.ToTrace(silence->end)};
        uint32_t worst = NO_THREAD;
        Micros most = (span.end - span.begin) / 2;
        for (const ThreadUse& use : scheduling.threads) {
            const Micros waited =
                states.SharesOf(use.thread, span)[static_cast<size_t>(ThreadState::Runnable)];
            if (!use.stages.empty() && waited > most) {
                worst = use.thread;
                most = waited;
            }
        }
        if (worst != NO_THREAD) {
            Tell(finding, worst, span, ThreadState::Runnable, most);
        }
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
        Tell(finding, thread->first, span, static_cast<ThreadState>(most - shares.begin()), *most);
    }

    // `excess`: what has to be explained.
    void Tell(SceneFinding& finding, uint32_t thread, Span span, ThreadState state, Micros excess,
              const std::string& head = "", const std::string& besides = "") {
        std::set<uint32_t> seen;
        Follow(finding.chain, thread, span, state, excess, seen);
        if (finding.chain.empty()) {
            return;
        }
        const bool isSlow = finding.check == Check::SlowStage;
        std::string text = !head.empty() ? head : isSlow ? ", of which its thread " : "; thread ";
        text += NameOfThread(thread, !isSlow) + ' ';
        for (size_t i = 0; i < finding.chain.size(); ++i) {
            text += (i > 0 ? ", which " : "") + TextOf(finding.chain[i]);
        }
        size_t stem = std::min(finding.stem, finding.message.size());
        if (finding.chain.back().state == ThreadState::Runnable) {
            // It was no sensor that stood, then, and no process.
            const std::string_view doubt = finding.check == Check::SensorStall ? ", and nothing was"
                                           : finding.check == Check::Standstill
                                               ? ": the process stood still"
                                               : "\n";
            const size_t at = finding.message.find(doubt);
            if (at < stem) {
                finding.message.erase(at, stem - at);
                stem = at;
            }
            finding.check = Check::CpuWait;
        }
        finding.message.insert(stem, text + besides);
    }

    void Follow(std::vector<CauseLink>& chain, uint32_t thread, Span span, ThreadState state,
                Micros excess, std::set<uint32_t>& seen) {
        const bool isSleep = state == ThreadState::Sleeping || state == ThreadState::Blocked;
        if (!seen.insert(thread).second || chain.size() >= LONGEST_CHAIN ||
            state == ThreadState::Unknown) {
            return;
        }
        CauseLink link;
        link.thread = trace.threads[thread].tid;
        link.name = trace.threads[thread].name;
        link.state = state;
        // The longest time in that state, and where it waited, by CPU.
        const StateSpan* longest = nullptr;
        std::map<uint16_t, Micros> waited;
        for (const StateSpan& one : states.Within(thread, span)) {
            if (one.state != state) {
                continue;
            }
            const Micros length = Cut(one, span).Length();
            link.length += length;
            waited[WaitedFor(one, span)] += length;
            if (longest == nullptr || length > Cut(*longest, span).Length()) {
                longest = &one;
            }
        }
        if (longest == nullptr) {
            return;
        }
        const Span part = Cut(*longest, span);
        link.begin = tie.ToLog(part.begin);
        link.piece = tie.ToLog(part.end) - link.begin;
        link.cpu = std::max_element(waited.begin(), waited.end(), [](auto one, auto other) {
                       return one.second < other.second;
                   })->first;
        if (isSleep) {
            link.cpu = -1;
            link.length = part.Length();
            link.isWoken = longest->isWoken && longest->end <= span.end;
        }
        if (state == ThreadState::Runnable) {
            AddRan(link, thread, span);
        }
        const uint32_t waker = longest->waker;
        const bool isThread = waker != NO_THREAD && trace.threads[waker].tid != 0;
        // Without flags an interrupt looks like a wake by whom it hit.
        link.isByInterrupt = link.isWoken && !isThread && trace.hasFlags;
        if (link.isWoken && isThread) {
            link.waker = NameOfThread(waker, true);
        }
        chain.push_back(link);
        if (link.isWoken && isThread && trace.hasFlags && !seen.contains(waker)) {
            const Shares shares = states.SharesOf(waker, part);
            auto most = std::max_element(shares.begin(), shares.end());
            const auto waits = shares.begin() + static_cast<size_t>(ThreadState::Runnable);
            most = *waits * 2 >= excess ? waits : most;  // That alone explains it.
            Follow(chain, waker, part, static_cast<ThreadState>(most - shares.begin()), excess,
                   seen);
        }
    }

    // The CPU that a thread waited for. It may have been moved from one that had nobody to another.
    uint16_t WaitedFor(const StateSpan& wait, Span span) const {
        const auto ran = [&](uint16_t cpu) {
            Micros sum = 0;
            for (const auto& [other, time] : states.RanOn(cpu, Cut(wait, span))) {
                sum += time;
            }
            return sum;
        };
        const bool isMoved = wait.state == ThreadState::Runnable && wait.next != wait.cpu;
        return isMoved && ran(wait.next) > ran(wait.cpu) ? wait.next : wait.cpu;
    }

    // Who had the CPU that a thread waited for.
    void AddRan(CauseLink& link, uint32_t thread, Span span) const {
        std::map<uint32_t, Micros> ran;
        for (const StateSpan& wait : states.Within(thread, span)) {
            if (wait.state == ThreadState::Runnable && WaitedFor(wait, span) == link.cpu) {
                for (const auto& [other, time] :
                     states.RanOn(static_cast<uint16_t>(link.cpu), Cut(wait, span))) {
                    ran[other] += time;
                }
            }
        }
        for (const auto& [other, time] : ran) {
            if (other != thread && time > 0) {
                const SchedThread& one = trace.threads[other];
                link.ran.push_back({one.tid, one.name, time});
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

    std::string TextOf(const CauseLink& link) const {
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
        if (link.state == ThreadState::Gone) {
            return "had ended";
        }
        const std::string slept =
            link.state == ThreadState::Blocked
                ? fmt::format("was blocked in the kernel, by a device or a lock, for {} ms", time)
                : fmt::format("slept {} ms", time);
        return slept + (!link.isWoken        ? ""
                        : link.isByInterrupt ? " until an interrupt woke it"
                        : link.waker.empty() ? " until it was woken"
                        : !trace.hasFlags
                            ? " until it was woken, while thread " + link.waker + " had the CPU"
                            : " until thread " + link.waker + " woke it");
    }
};

}  // namespace

void TellCauses(Scene& scene, const SceneScheduling& scheduling, States& states, const Tie& tie) {
    if (scheduling.uses.empty()) {
        return;
    }
    CauseFinder finder{scene, scheduling, states, tie};
    for (SceneFinding& finding : scene.findings) {
        if (finding.time != NO_TIME) {
            finder.Find(finding);
        }
    }
}

}  // namespace tools
