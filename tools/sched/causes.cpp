#include "tools/sched/causes.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <set>

#include "tools/base/text.h"

namespace tools {
namespace {

// Less than that explains nothing.
constexpr Micros LEAST = MILLISECOND;
// Wakers of wakers are followed that far.
constexpr size_t LONGEST_CHAIN = 8;
// Threads and states are named that had that share of the time, and no more than so many.
constexpr Micros SHARE = 10;
constexpr size_t NAMED = 2;
// Passes that an unexplained frame is followed back over: more than a table's frames in all stages.
constexpr int LONGEST_WALK = 1000;

decltype(auto) TimeIn(auto&& shares, ThreadState state) {
    return (shares[static_cast<size_t>(state)]);
}

ThreadState LongestOf(const Shares& shares) {
    return static_cast<ThreadState>(std::max_element(shares.begin(), shares.end()) -
                                    shares.begin());
}

void AddShares(Shares& sum, const Shares& more) {
    std::transform(sum.begin(), sum.end(), more.begin(), sum.begin(), std::plus());
}

Micros TotalOf(const Shares& shares) {
    return std::accumulate(shares.begin(), shares.end(), Micros{0});
}

// Threads, and when each was at the frames concerned. Spans of a thread do not overlap.
using Stays = std::map<uint32_t, std::vector<Span>>;

void JoinSpans(std::vector<Span>& spans) {
    std::sort(spans.begin(), spans.end(),
              [](Span one, Span other) { return one.begin < other.begin; });
    std::vector<Span> joined;
    for (const Span span : spans) {
        if (!joined.empty() && span.begin <= joined.back().end) {
            joined.back().end = std::max(joined.back().end, span.end);
        } else {
            joined.push_back(span);
        }
    }
    spans = std::move(joined);
}

// "realtime priority 99", "nice 19". A trace has no scheduling classes: FIFO and round robin have
// the same priorities, and a class for idle times shows as any other.
std::string PriorityText(int32_t priority) {
    if (priority < 0) {
        return "a deadline";
    }
    return priority < REAL_TIME ? fmt::format("realtime priority {}", REAL_TIME - 1 - priority)
                                : fmt::format("nice {}", priority - USUAL_PRIORITY);
}

struct CauseFinder {
    JudgedScene& judged;
    const SceneScheduling& scheduling;
    States& states;
    const Tie& tie;
    const Scene& scene = judged;
    const Columns& columns = judged.columns;
    const SchedTrace& trace = states.Trace();

    void AddTo(Cause& cause) const {
        if (HasBreak(cause)) {
            return;
        }
        switch (KindOf(cause.what)) {
            case Kind::SlowStage:
                return AddToFrames(cause);
            case Kind::SensorStall:
            case Kind::FrameLost:
                if (cause.what == Case::Stall || cause.what == Case::FirstStall) {
                    AddToFrames(cause);
                } else if (cause.what == Case::Stands || cause.what == Case::SensorStopped) {
                    AddToStanding(cause);
                }
                return;
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
    bool HasBreak(Cause& cause) const {
        const bool isOfMoment = KindOf(cause.what) == Kind::ClockJump;
        for (const Tie::Break& one : tie.breaks) {
            const Span at = {one.begin - LEAST, one.end + LEAST};
            const bool isSilence = one.passed > one.Length();
            if (isOfMoment && isSilence && one.passed * 2 > cause.took.front() &&
                cause.time >= at.begin && cause.time <= at.end) {
                cause.what = Case::Silent;
                cause.took = {one.passed};
                cause.states.emplace();
                for (const auto& [thread, shares] : one.threads) {
                    AddShares(*cause.states, shares);
                }
                const ThreadState state = LongestOf(*cause.states);
                for (const auto& [thread, shares] : one.threads) {
                    if (cause.scheduling.empty() && TimeIn(shares, state) * 2 > one.passed) {
                        cause.scheduling = fmt::format("; thread {} {}", NameOfThread(thread, true),
                                                       StateText(state, TimeIn(shares, state)));
                    }
                }
                return true;
            }
            if (!isSilence && cause.span.begin <= one.begin && one.end <= cause.span.end &&
                KindOf(cause.what) != Kind::Unexplained &&
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
            TimeIn(excess, state) -= TimeIn(scheduling.usual[static_cast<size_t>(stage)], state);
        }
        return excess;
    }

    // Why the stage took longer for these frames than it usually does.
    void AddToFrames(Cause& cause) const {
        const int32_t stage = scene.isAlone ? 0 : cause.stage;
        Stays stays;
        Shares excess{};
        for (const int64_t number : cause.own) {
            const uint32_t row = scene.RowOf(number);
            const StageUse* const use = row == NO_INDEX ? nullptr : scheduling.UseOf(row, stage);
            if (use != nullptr) {
                stays[use->thread].push_back(use->span);
                // Of a stage that cannot keep up it is the usual that is to be explained.
                const bool isUsual = cause.what == Case::CannotKeepUp;
                AddShares(excess, isUsual ? use->shares : ExcessOf(use->shares, stage));
            }
        }
        if (KindOf(cause.what) != Kind::SlowStage) {
            Explain(cause, stays, excess, "; ");
        } else if (cause.own.size() == 1) {
            Explain(cause, stays, excess, ", of which its ");
        } else {
            Explain(cause, stays, excess, "; of these {} ms its ");
        }
    }

    // What the thread of a stage in which frames stood did until the end.
    void AddToStanding(Cause& cause) const {
        const Span span = Cut(cause.span, {trace.from, trace.to});
        const uint32_t thread = StandingThread(scene.isAlone ? 0 : cause.stage);
        if (thread != NO_THREAD && span.Length() >= LEAST) {
            Explain(cause, {{thread, {span}}}, states.SharesOf(thread, span), "; ");
        }
    }

    uint32_t StandingThread(int32_t stage) const {
        return stage < 0 || stage >= scheduling.stages
                   ? NO_THREAD
                   : scheduling.standing[static_cast<size_t>(stage)];
    }

    // No thread logged anything: whether they were stopped, had no CPU, or computed.
    void AddToStandstill(Cause& cause) const {
        Stays stays;
        Shares sums{};
        for (const ThreadUse& use : scheduling.threads) {
            if (!use.stages.empty()) {
                stays[use.thread] = {cause.span};
                AddShares(sums, states.SharesOf(use.thread, cause.span));
            }
        }
        TimeIn(sums, ThreadState::Sleeping) = 0;
        const ThreadState state = LongestOf(sums);
        const uint32_t thread = MostOf(stays, state);
        if (thread != NO_THREAD &&
            TimeIn(states.SharesOf(thread, cause.span), state) * 2 > cause.span.Length()) {
            Explain(cause, {{thread, {cause.span}}}, sums, "; ");
        }
        cause.states = SumsOf(stays);
    }

    // Frames that are late or lost without a cause that a log could show: whether a stage's thread
    // was kept from its work while they were, or the frames before them, were on their way.
    void AddToOthers(Cause& cause) const {
        std::map<int32_t, Stays> stays;
        std::map<int32_t, Shares> excess;
        Micros lateness = 0;
        for (const int64_t number : cause.own) {
            const uint32_t row = scene.RowOf(number);
            if (row != NO_INDEX) {
                lateness += Walk(row, KindOf(cause.what) == Kind::Evicted, stays, excess);
            }
        }
        int32_t stage = -1;
        Micros most = std::max(lateness / 2, LEAST);
        for (const auto& [one, shares] : excess) {
            const Micros longest = TimeIn(shares, LongestOf(shares));
            if (LongestOf(shares) != ThreadState::Unknown && longest >= most) {
                stage = one;
                most = longest;
            }
        }
        if (stage >= 0) {
            cause.stage = cause.stage < 0 && !scene.isAlone ? stage : cause.stage;
            Explain(cause, stays[stage], excess[stage],
                    fmt::format("; in {} ", StageName(scene, scene.isAlone ? -1 : stage)));
        }
    }

    // Follows a frame back, through the passes behind which it had to wait. Returns the time that
    // has to be explained. `isWhole`: what is usual counts, too.
    Micros Walk(uint32_t row, bool isWhole, std::map<int32_t, Stays>& stays,
                std::map<int32_t, Shares>& excess) const {
        const Frame& frame = scene.frames[row];
        const Fate& fate = columns.fates[row];
        Span window = {frame.seen, frame.evicted == NO_TIME ? scene.stop : frame.evicted};
        if (fate.isLate) {
            window = {fate.output - fate.interval, fate.output};
        }
        const auto add = [&](uint32_t thread, int32_t stage, Span span) {
            const Span part = Cut(span, window);
            if (part.Length() > 0) {
                stays[stage][thread].push_back(part);
                Shares shares = states.SharesOf(thread, part);
                shares = isWhole ? shares : ExcessOf(shares, stage);
                // The sensor's thread sleeps until there is a frame.
                TimeIn(shares, ThreadState::Sleeping) *= stage > 0 || scene.isAlone ? 1 : 0;
                for (Micros& time : shares) {
                    time = std::max<Micros>(time, 0);
                }
                AddShares(excess[stage], shares);
            }
        };
        int32_t stage = columns.LastStage();
        while (stage >= 0 && scene.LeftOf(row, stage) == NO_TIME) {
            --stage;
        }
        if (!fate.isLate && stage < columns.LastStage()) {
            const uint32_t thread = StandingThread(stage + 1);
            if (thread != NO_THREAD) {
                add(thread, stage + 1,
                    {stage < 0 ? frame.seen : scene.LeftOf(row, stage), window.end});
            }
        }
        uint32_t pass = stage < 0 ? NO_INDEX : static_cast<uint32_t>(columns.PassOf(row, stage));
        for (int i = 0; i < LONGEST_WALK && pass != NO_INDEX; ++i) {
            const StageUse& use = scheduling.uses[pass];
            if (use.span.end <= window.begin) {
                break;
            }
            if (use.thread != NO_THREAD) {
                add(use.thread, static_cast<int32_t>(pass % static_cast<uint32_t>(columns.stages)),
                    use.span);
            }
            pass = columns.behind[pass];
        }
        return window.Length() - (fate.isLate ? scene.Period() : 0);
    }

    Shares SumsOf(const Stays& stays) const {
        Shares sums{};
        for (const auto& [thread, spans] : stays) {
            for (const Span span : spans) {
                AddShares(sums, states.SharesOf(thread, span));
            }
        }
        return sums;
    }

    static Micros LengthOf(const std::vector<Span>& spans) {
        return std::accumulate(spans.begin(), spans.end(), Micros{0},
                               [](Micros sum, Span span) { return sum + span.Length(); });
    }

    // The thread that was in the state for longest; NO_THREAD for none.
    uint32_t MostOf(const Stays& stays, ThreadState state) const {
        uint32_t thread = NO_THREAD;
        Micros most = 0;
        for (const auto& [one, spans] : stays) {
            const Micros time = TimeIn(SumsOf({{one, spans}}), state);
            if (time > most) {
                thread = one;
                most = time;
            }
        }
        return thread;
    }

    // Sets the states, the chain and the words. `excess`: of all, what has to be explained. `head`:
    // begins the words; in braces the whole time.
    void Explain(Cause& cause, Stays stays, const Shares& excess, std::string_view head) const {
        for (auto& [thread, spans] : stays) {
            JoinSpans(spans);
        }
        const Shares sums = SumsOf(stays);
        const ThreadState state = LongestOf(excess);
        const Micros worst = TimeIn(excess, state);
        Micros longer = 0;
        for (const Micros time : excess) {
            longer += std::max<Micros>(time, 0);
        }
        const uint32_t thread = MostOf(stays, state);
        if (!stays.empty()) {
            cause.states = sums;
        }
        if (worst < LEAST || state == ThreadState::Unknown || thread == NO_THREAD) {
            return;
        }
        std::set<uint32_t> seen;
        Follow(cause.chain, thread, stays[thread], state, longer, seen);
        const bool isOne = stays.size() == 1;
        std::string& words = cause.scheduling;
        words = fmt::format(fmt::runtime(head), Ms(TotalOf(sums))) +
                (isOne ? "thread " + NameOfThread(thread, KindOf(cause.what) != Kind::SlowStage)
                       : fmt::format("{} threads", stays.size())) +
                ' ';
        if (worst * 2 < longer) {
            words += SumsText(sums);
            return;
        }
        if (!isOne) {
            words += fmt::format("{}; thread {} ", StateText(state, TimeIn(sums, state)),
                                 NameOfThread(thread, true));
        }
        for (size_t i = 0; i < cause.chain.size(); ++i) {
            words += (i > 0 ? ", which " : "") + TextOf(cause.chain[i]);
        }
        if (state == ThreadState::Running && TimeIn(excess, ThreadState::Runnable) * 4 >= longer) {
            words +=
                " and " + StateText(ThreadState::Runnable, TimeIn(sums, ThreadState::Runnable));
        } else if (state == ThreadState::Running && (longer - worst) * 10 < longer) {
            words += ": the node itself";
        }
    }

    // A piece of a state, and the CPU that the thread ran on or waited for.
    struct Piece : Span {
        uint16_t cpu;
    };

    void Follow(std::vector<CauseLink>& chain, uint32_t thread, const std::vector<Span>& spans,
                ThreadState state, Micros excess, std::set<uint32_t>& seen) const {
        const bool hasCpu = state == ThreadState::Running || state == ThreadState::Runnable;
        const bool isAsleep = state == ThreadState::Sleeping || state == ThreadState::Blocked;
        if (state == ThreadState::Unknown || chain.size() >= LONGEST_CHAIN ||
            !seen.insert(thread).second) {
            return;
        }
        CauseLink link;
        link.thread = trace.threads[thread].tid;
        link.name = trace.threads[thread].name;
        link.state = state;
        std::vector<Piece> pieces;
        std::map<uint16_t, Micros> onCpu;
        std::map<uint32_t, std::vector<Span>> ended;  // By the thread that woke it.
        for (const Span span : spans) {
            for (const StateSpan& one : states.Within(thread, span)) {
                if (one.state != state) {
                    continue;
                }
                const Span part = Cut(one, span);
                pieces.push_back({part, hasCpu ? one.cpu : uint16_t{0}});
                onCpu[pieces.back().cpu] += part.Length();
                link.length += part.Length();
                if (part.Length() > link.piece) {
                    link.begin = part.begin;
                    link.piece = part.Length();
                    link.priority = one.priority;
                }
                if (isAsleep && one.isWoken && one.end <= span.end) {
                    ended[one.waker].push_back(part);
                }
            }
        }
        if (pieces.empty()) {
            return;
        }
        link.pieces = static_cast<int32_t>(pieces.size());
        if (hasCpu) {
            link.cpu = std::max_element(onCpu.begin(), onCpu.end(), [](auto one, auto other) {
                           return one.second < other.second;
                       })->first;
        }
        if (state == ThreadState::Runnable) {
            AddRan(link, thread, pieces);
        }
        const auto waker =
            std::max_element(ended.begin(), ended.end(), [](const auto& one, const auto& other) {
                return LengthOf(one.second) < LengthOf(other.second);
            });
        link.isWoken = waker != ended.end() && LengthOf(waker->second) * 2 >= link.length;
        const bool isThread =
            link.isWoken && waker->first != NO_THREAD && trace.threads[waker->first].tid != 0;
        // Without flags an interrupt looks like a waking by the thread that it hit.
        link.isByInterrupt = link.isWoken && !isThread && trace.hasFlags;
        link.waker = isThread ? NameOfThread(waker->first, true) : "";
        chain.push_back(link);
        if (isThread && trace.hasFlags) {
            const Shares shares = SumsOf({*waker});
            // Having had no CPU is a cause by itself.
            const bool hasWaited = TimeIn(shares, ThreadState::Runnable) * 2 >= excess;
            Follow(chain, waker->first, waker->second,
                   hasWaited ? ThreadState::Runnable : LongestOf(shares), excess, seen);
        }
    }

    // Which threads had the CPU that a thread waited for.
    void AddRan(CauseLink& link, uint32_t thread, const std::vector<Piece>& pieces) const {
        std::map<uint32_t, CauseLink::Ran> ran;
        for (const Piece& piece : pieces) {
            if (piece.cpu != link.cpu) {
                continue;
            }
            for (const auto& [other, time] : states.RanOn(piece.cpu, piece)) {
                if (other == thread) {
                    continue;
                }
                const SchedThread& known = trace.threads[other];
                CauseLink::Ran& one =
                    ran.try_emplace(other, CauseLink::Ran{known.tid, known.name, 0, 0})
                        .first->second;
                one.length += time;
                for (const StateSpan& span : states.Within(other, piece)) {
                    one.priority =
                        span.state == ThreadState::Running ? span.priority : one.priority;
                }
            }
        }
        for (const auto& [other, one] : ran) {
            link.ran.push_back(one);
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

    static std::string StateText(ThreadState state, Micros time) {
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

    // "ran 22 ms, slept 20 ms and waited 20 ms for a CPU": all states that had a share, as long as
    // they took.
    static std::string SumsText(const Shares& sums) {
        const Micros all = TotalOf(sums);
        std::vector<std::pair<Micros, ThreadState>> order;
        for (size_t state = 0; state < THREAD_STATES; ++state) {
            if (sums[state] * SHARE >= all) {
                order.emplace_back(-sums[state], static_cast<ThreadState>(state));
            }
        }
        std::sort(order.begin(), order.end());
        std::vector<std::string> parts;
        parts.reserve(order.size());
        for (const auto& [time, state] : order) {
            parts.push_back(StateText(state, -time));
        }
        return Join(parts);
    }

    // ": CPU 1 ran kswapd0 40 ms and others 5 ms". Threads of one name are one.
    static std::string RanText(const CauseLink& link) {
        std::vector<CauseLink::Ran> names;
        for (const CauseLink::Ran& one : link.ran) {
            const auto known = std::find_if(names.begin(), names.end(), [&one](const auto& other) {
                return other.name == one.name;
            });
            if (known == names.end()) {
                names.push_back(one);
            } else {
                known->length += one.length;
            }
        }
        std::stable_sort(names.begin(), names.end(), [](const auto& one, const auto& other) {
            return one.length > other.length;
        });
        std::vector<std::string> parts;
        Micros rest = 0;
        for (const CauseLink::Ran& one : names) {
            if (parts.size() >= NAMED || one.length * SHARE < link.length) {
                rest += one.length;
                continue;
            }
            // A priority that explains why it came first.
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

    std::string TextOf(const CauseLink& link) const {
        std::string text = StateText(link.state, link.length);
        // Where one piece is most of it, the others are of no interest.
        if (link.pieces > 1 && link.piece * SHARE < link.length * (SHARE - 1)) {
            text += fmt::format(" in {} pieces", link.pieces);
        }
        if (link.state == ThreadState::Runnable) {
            const bool isBelow = link.priority > USUAL_PRIORITY && !link.ran.empty() &&
                                 link.ran.front().priority < link.priority;
            return text + (isBelow ? fmt::format(" with {}", PriorityText(link.priority)) : "") +
                   RanText(link);
        }
        if (!link.isWoken) {
            return text;
        }
        if (link.isByInterrupt) {
            return text + " until an interrupt woke it";
        }
        if (link.waker.empty()) {
            return text + " until it was woken";
        }
        return trace.hasFlags
                   ? text + " until thread " + link.waker + " woke it"
                   : text + " until it was woken, while thread " + link.waker + " had the CPU";
    }
};

}  // namespace

void AddScheduling(JudgedScene& judged, const SceneScheduling& scheduling, States& states,
                   const Tie& tie) {
    if (scheduling.stages > 0) {
        for (Cause& cause : judged.causes) {
            CauseFinder{judged, scheduling, states, tie}.AddTo(cause);
        }
    }
}

}  // namespace tools
