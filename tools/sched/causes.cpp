#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <map>
#include <numeric>

#include "tools/account/limits.h"
#include "tools/base/text.h"
#include "tools/sched/scheduling.h"

namespace tools {
namespace {

// A shorter time explains nothing.
constexpr Micros LEAST = MILLISECOND;
// Wakers of wakers are followed that far.
constexpr size_t LONGEST_CHAIN = 8;
// Threads and states that had a tenth of the time are named.
constexpr Micros SHARE = 10;

ThreadState LongestOf(const Shares& shares) {
    return static_cast<ThreadState>(std::ranges::max_element(shares) - shares.begin());
}

// How long a thread was in the state that took most of the time, of those that are known.
Micros LongestKnown(Shares shares) {
    shares[ThreadState::Unknown] = 0;
    return std::ranges::max(shares);
}

Micros TotalOf(const Shares& shares) {
    return std::accumulate(shares.begin(), shares.end(), Micros{0});
}

// When threads of a stage were at the frames concerned, and what they did then that has to be
// explained.
struct Stays {
    std::map<uint32_t, std::vector<Span>> spans{};
    Shares excess{};

    void Add(uint32_t thread, Span span, const Shares& more) {
        spans[thread].push_back(span);
        excess += more;
    }
};

// Makes one of those that overlap, or follow one another.
std::vector<Span> Joined(std::vector<Span> spans) {
    std::ranges::sort(spans, {}, &Span::begin);
    std::vector<Span> joined;
    for (const Span span : spans) {
        if (!joined.empty() && span.begin <= joined.back().end) {
            joined.back().end = std::max(joined.back().end, span.end);
        } else {
            joined.push_back(span);
        }
    }
    return joined;
}

Micros LengthOf(const std::vector<Span>& spans) {
    return std::accumulate(spans.begin(), spans.end(), Micros{0},
                           [](Micros sum, Span span) { return sum + span.Length(); });
}

// ---- Words ----

// "realtime priority 99", "nice 19". A trace has no scheduling classes: FIFO and round robin have
// the same priorities, and a class for idle times shows as any other.
std::string PriorityText(int32_t priority) {
    return priority < REAL_TIME ? fmt::format("realtime priority {}", REAL_TIME - 1 - priority)
                                : fmt::format("nice {}", priority - USUAL_PRIORITY);
}

std::string StateText(ThreadState state, Micros time) {
    static constexpr const char* TEXTS[THREAD_STATES] = {
        "ran {} ms",
        "waited {} ms for a CPU",
        "slept {} ms",
        "was blocked in the kernel, by a device or a lock, for {} ms",
        "was stopped by a signal or a debugger for {} ms",
        "had ended for {} ms",
        "did {} ms of something not known"};
    return fmt::format(fmt::runtime(TEXTS[static_cast<size_t>(state)]), Ms(time));
}

// "ran 22 ms, waited 20 ms for a CPU and slept 20 ms": all states that had a share.
std::string SumsText(const Shares& sums) {
    const Micros all = TotalOf(sums);
    std::vector<std::string> parts;
    for (size_t i = 0; i < THREAD_STATES; ++i) {
        if (sums[i] > 0 && sums[i] * SHARE >= all) {
            parts.push_back(StateText(ThreadState(i), sums[i]));
        }
    }
    return Join(parts);
}

// ": CPU 1 ran kswapd0 40 ms and others 5 ms".
std::string RanText(const CauseLink& link) {
    std::vector<std::string> parts;
    Micros rest = 0;
    for (const CauseLink::Ran& one : link.ran) {
        if (one.length * SHARE < link.length) {
            rest += one.length;
            continue;
        }
        // Its priority explains why it came first.
        const bool isAbove = one.priority < link.priority && one.priority != USUAL_PRIORITY;
        parts.push_back(
            fmt::format("{} {} ms{}", Printable(one.name), Ms(one.length),
                        isAbove ? fmt::format(" ({})", PriorityText(one.priority)) : ""));
    }
    if (rest * SHARE >= link.length) {
        parts.push_back(fmt::format("others {} ms", Ms(rest)));
    }
    return parts.empty() ? "" : fmt::format(": CPU {} ran {}", link.cpu, Join(parts));
}

std::string TextOf(const CauseLink& link, bool hasFlags) {
    std::string text = StateText(link.state, link.length);
    // Where one piece is most of it, the others are of no interest.
    if (link.pieces > 1 && link.piece * SHARE < link.length * (SHARE - 1)) {
        text += fmt::format(" in {} pieces", link.pieces);
    }
    if (link.state == ThreadState::Runnable) {
        const bool isBelow = link.priority > USUAL_PRIORITY;
        return text + (isBelow ? " with " + PriorityText(link.priority) : "") + RanText(link);
    }
    if (link.waker.empty() && !link.isByInterrupt) {
        return text;
    }
    text += link.isMostly ? ", most of it until " : " until ";
    if (link.isByInterrupt) {
        return text + "an interrupt woke it";
    }
    return hasFlags ? text + "thread " + link.waker + " woke it"
                    : text + "it was woken, while thread " + link.waker + " had the CPU";
}

// ---- Causes ----

struct CauseExplainer {
    const JudgedScene& judged;
    const SceneScheduling& uses;
    const Scheduling& all;
    const Scene& scene = judged;
    const Columns& columns = judged.columns;
    const SchedTrace& trace = all.trace;
    const States& states = all.states;

    void AddTo(Cause& cause) const {
        if (AddBreak(cause)) {
            return;
        }
        switch (KindOf(cause.what)) {
            case Kind::SlowStage:
            case Kind::SensorStall:
            case Kind::FrameLost:
                return AddToStage(cause);
            case Kind::Standstill:
                return AddToStandstill(cause);
            case Kind::Evicted:
            case Kind::Unexplained:
                return AddToOthers(cause);
            default:
                return;
        }
    }

    // A log alone cannot show whether its clock was set forward or no thread logged anything for so
    // long. Says so where the trace shows which it was.
    bool AddBreak(Cause& cause) const {
        for (const Tie::Break& one : all.tie.breaks) {
            const bool isSilence = one.passed > one.Length();
            if (isSilence && KindOf(cause.what) == Kind::ClockJump &&
                cause.at.time >= one.begin - LEAST && cause.at.time <= one.end + LEAST) {
                cause.what = Case::Silent;
                cause.took = {one.passed};
                return true;
            }
            if (!isSilence && KindOf(cause.what) != Kind::Unexplained &&
                Cut(cause.span, one).Length() * 2 > cause.span.Length()) {
                cause.scheduling = fmt::format(
                    "; in the scheduler trace {} ms went by there, so the clock was set",
                    Ms(one.passed));
                return true;
            }
        }
        return false;
    }

    // What a stage's thread did beyond what is usual. A thread should never have to wait for a CPU,
    // or stand: that counts whole, even where it is usual.
    Shares ExcessOf(const Shares& shares, int32_t stage) const {
        Shares excess = shares;
        for (const ThreadState state :
             {ThreadState::Running, ThreadState::Sleeping, ThreadState::Blocked}) {
            excess[state] = std::max<Micros>(excess[state] - uses.usual[stage][state], 0);
        }
        return excess;
    }

    // Why the stage took longer for these frames than it usually does; where they stood in it, what
    // its thread did until the end.
    void AddToStage(Cause& cause) const {
        const int32_t stage = std::max(cause.stage, 0);
        Stays stays;
        for (const int64_t number : cause.own) {
            if (const StageUse* const use = uses.UseOf(scene.RowOf(number), stage)) {
                // Of a stage that cannot keep up it is the usual that is to be explained.
                const bool isUsual = cause.what == Case::CannotKeepUp;
                stays.Add(use->thread, use->span,
                          isUsual ? use->shares : ExcessOf(use->shares, stage));
            }
        }
        const bool isStanding = cause.what == Case::Stands || cause.what == Case::SensorStopped;
        const Span span = Cut(cause.span, {trace.from, trace.to});
        const uint32_t thread =
            isStanding && stage < uses.stages ? uses.standing[stage] : NO_THREAD;
        if (thread != NO_THREAD && span.Length() > 0) {
            stays.Add(thread, span, states.SharesOf(thread, span));
        }
        const char* const head =
            cause.own.size() == 1 ? ", of which its " : "; of these {} ms its ";
        Explain(cause, std::move(stays), KindOf(cause.what) == Kind::SlowStage ? head : "; ");
    }

    // No thread logged anything: whether one was stopped, had no CPU, or computed.
    void AddToStandstill(Cause& cause) const {
        Shares sums{};
        Stays worst;
        Micros most = cause.span.Length() / 2;
        for (const ThreadUse& use : uses.threads) {
            if (use.stages.empty()) {
                continue;
            }
            Shares shares = states.SharesOf(use.thread, cause.span);
            sums += shares;
            shares[ThreadState::Sleeping] = 0;
            if (LongestKnown(shares) > most) {
                most = LongestKnown(shares);
                worst = {{{use.thread, {cause.span}}}, shares};
            }
        }
        Explain(cause, std::move(worst), "; ");
        cause.states = sums;
    }

    // Frames that are late or lost without a cause that a log could show: whether a stage's thread
    // was kept from its work on them. What is usual counts, too, where they were pushed out.
    void AddToOthers(Cause& cause) const {
        std::map<int32_t, Stays> stages;
        Micros lateness = 0;
        for (const int64_t number : cause.own) {
            const uint32_t row = scene.RowOf(number);
            if (row == NO_INDEX) {
                continue;
            }
            const Frame& frame = scene.frames[row];
            const Fate& fate = columns.fates[row];
            Span window = {frame.seen, frame.evicted == NO_TIME ? scene.stop : frame.evicted};
            if (fate.isLate) {
                window = {fate.output - fate.interval, fate.output};
            }
            lateness += window.Length() - (fate.isLate ? scene.Period() : 0);
            for (int32_t stage = 0; stage < columns.stages; ++stage) {
                const Micros came = stage == 0 ? frame.seen : scene.LeftOf(row, stage - 1);
                const Micros left = scene.LeftOf(row, stage);
                const uint32_t thread = left == NO_TIME
                                            ? uses.standing[stage]
                                            : uses.uses[columns.PassOf(row, stage)].thread;
                if (came == NO_TIME || thread == NO_THREAD) {
                    continue;
                }
                const Span stay = Cut({came, left == NO_TIME ? window.end : left}, window);
                Shares shares = states.SharesOf(thread, stay);
                if (KindOf(cause.what) != Kind::Evicted) {
                    shares = ExcessOf(shares, stage);
                }
                // The sensor's thread sleeps until there is a frame.
                shares[ThreadState::Sleeping] *= stage > 0 || scene.isAlone ? 1 : 0;
                stages[stage].Add(thread, stay, shares);
            }
        }
        const auto worst = std::ranges::max_element(
            stages, {}, [](const auto& one) { return LongestKnown(one.second.excess); });
        if (worst != stages.end() &&
            LongestKnown(worst->second.excess) >= std::max(lateness / 2, LEAST)) {
            const int32_t stage = scene.isAlone ? -1 : worst->first;
            cause.stage = cause.stage < 0 ? stage : cause.stage;
            Explain(cause, worst->second, fmt::format("; in {} ", StageName(scene, stage)));
        }
    }

    Shares SharesOf(uint32_t thread, const std::vector<Span>& spans) const {
        Shares sums{};
        for (const Span span : spans) {
            sums += states.SharesOf(thread, span);
        }
        return sums;
    }

    // Sets the states, the chain and the words. `head`: begins the words; in braces the whole time.
    void Explain(Cause& cause, Stays stays, std::string_view head) const {
        if (stays.spans.empty()) {
            return;
        }
        const Shares& excess = stays.excess;
        const Micros longer = TotalOf(excess);
        const ThreadState state = LongestOf(excess);
        Shares sums{};
        uint32_t thread = NO_THREAD;  // That was in that state for longest.
        Micros longest = 0;
        for (auto& [one, spans] : stays.spans) {
            spans = Joined(std::move(spans));
            const Shares shares = SharesOf(one, spans);
            sums += shares;
            if (shares[state] > longest) {
                thread = one;
                longest = shares[state];
            }
        }
        cause.states = sums;
        if (excess[state] < LEAST || state == ThreadState::Unknown || thread == NO_THREAD) {
            return;
        }
        cause.chain = Follow(thread, stays.spans[thread], state, longer);
        const bool isNamed = KindOf(cause.what) != Kind::SlowStage;
        const std::string one =
            isNamed ? NameOfThread(thread) : fmt::to_string(trace.threads[thread].tid);
        const size_t threads = stays.spans.size();
        std::string& words = cause.scheduling;
        words =
            fmt::format(fmt::runtime(head), Ms(TotalOf(sums))) +
            (threads == 1 ? fmt::format("thread {} ", one) : fmt::format("{} threads ", threads));
        if (excess[state] * 2 < longer) {
            words += SumsText(sums);
            return;
        }
        if (threads > 1) {
            words +=
                fmt::format("{}; thread {} ", StateText(state, sums[state]), NameOfThread(thread));
        }
        for (size_t i = 0; i < cause.chain.size(); ++i) {
            words += (i > 0 ? ", which " : "") + TextOf(cause.chain[i], trace.hasFlags);
        }
        if (state == ThreadState::Running && excess[ThreadState::Runnable] * 4 >= longer) {
            words += " and " + StateText(ThreadState::Runnable, sums[ThreadState::Runnable]);
        } else if (state == ThreadState::Running && (longer - excess[state]) * 10 < longer) {
            words += ": the node itself";
        }
    }

    // From a thread in a state to the thread that woke it, to what that did meanwhile, and so on.
    // `excess`: the time that has to be explained.
    std::vector<CauseLink> Follow(uint32_t thread, std::vector<Span> spans, ThreadState state,
                                  Micros excess) const {
        std::vector<CauseLink> chain;
        while (state != ThreadState::Unknown && chain.size() < LONGEST_CHAIN) {
            const bool hasCpu = state == ThreadState::Running || state == ThreadState::Runnable;
            CauseLink& link = chain.emplace_back();
            link.thread = trace.threads[thread].tid;
            link.name = trace.threads[thread].name;
            link.state = state;
            // By the CPU; those of a sleep by the thread that ended them.
            std::map<uint32_t, std::vector<Span>> pieces;
            for (const Span span : spans) {
                for (const StateSpan& one : Within(states.threads[thread], span)) {
                    if (one.state != state) {
                        continue;
                    }
                    const Span piece = Cut(one, span);
                    ++link.pieces;
                    link.length += piece.Length();
                    if (piece.Length() > link.piece) {
                        link.begin = piece.begin;
                        link.piece = piece.Length();
                        link.priority = one.priority;
                    }
                    if (hasCpu || (IsAsleep(state) && one.isWoken && one.end <= span.end)) {
                        pieces[hasCpu ? one.cpu : one.waker].push_back(piece);
                    }
                }
            }
            const auto most = std::ranges::max_element(
                pieces, {}, [](const auto& one) { return LengthOf(one.second); });
            if (hasCpu) {
                link.cpu = static_cast<int32_t>(most->first);
                if (state == ThreadState::Runnable) {
                    link.ran = RanOf(most->first, most->second);
                }
                break;
            }
            if (most == pieces.end() || LengthOf(most->second) * 2 < link.length) {
                break;
            }
            thread = most->first;
            const bool isByThread = thread != NO_THREAD && trace.threads[thread].tid != 0;
            link.waker = isByThread ? NameOfThread(thread) : "";
            // Without flags an interrupt looks like a waking by the thread that it hit.
            link.isByInterrupt = !isByThread && trace.hasFlags;
            link.isMostly = LengthOf(most->second) * SHARE < link.length * (SHARE - 1);
            if (!isByThread || !trace.hasFlags) {
                break;
            }
            spans = std::move(most->second);
            const Shares shares = SharesOf(thread, spans);
            // Having had no CPU is a cause by itself.
            const bool hasWaited = shares[ThreadState::Runnable] * 2 >= excess;
            state = hasWaited ? ThreadState::Runnable : LongestOf(shares);
        }
        return chain;
    }

    // Which threads had the CPU meanwhile. Those of one name are one.
    std::vector<CauseLink::Ran> RanOf(uint32_t cpu, const std::vector<Span>& spans) const {
        std::map<std::string, CauseLink::Ran> byName;
        for (const Span span : spans) {
            for (const StateSpan& one : states.RunsOn(cpu, span)) {
                const SchedThread& known = trace.threads[one.thread];
                const Micros before = byName[known.name].length;
                byName[known.name] = {known.tid, known.name, before + Cut(one, span).Length(),
                                      one.priority};
            }
        }
        std::vector<CauseLink::Ran> longest(byName.size());
        std::ranges::transform(byName, longest.begin(), [](auto& one) { return one.second; });
        std::ranges::stable_sort(longest, std::greater(), &CauseLink::Ran::length);
        return longest;
    }

    // "18890 (sensor)".
    std::string NameOfThread(uint32_t thread) const {
        const SchedThread& known = trace.threads[thread];
        return fmt::format("{} ({})", known.tid, Printable(known.name));
    }
};

}  // namespace

void AddScheduling(JudgedScene& judged, const SceneScheduling& uses, const Scheduling& all) {
    if (uses.stages > 0) {
        for (Cause& cause : judged.causes) {
            CauseExplainer{judged, uses, all}.AddTo(cause);
        }
    }
}

}  // namespace tools
