// Where bad frames and causes meet.

#include <algorithm>
#include <map>
#include <tuple>
#include <unordered_map>

#include "tools/account/cause.h"
#include "tools/account/limits.h"

namespace tools {

const char* NameOf(ThreadState state) {
    static constexpr const char* NAMES[THREAD_STATES] = {
        "running", "runnable", "sleeping", "blocked", "stopped", "gone", "unknown"};
    return NAMES[static_cast<size_t>(state)];
}

bool IsNotBoosted(const Fate& fate) {
    return fate.status != FrameStatus::Complete && !fate.isUnknown && !fate.isEarly &&
           !fate.isOnlyOpened && !fate.isSkipped &&
           (fate.status != FrameStatus::Open || fate.isNeverOut);
}

bool IsBad(const Fate& fate) {
    return fate.isNeverOut || IsNotBoosted(fate);
}

namespace {

// A total order: what no other cause precedes, whatever order they were found in.
auto KeyOf(const Cause& cause) {
    return std::tuple(cause.what, cause.span.begin, cause.span.end, cause.stage,
                      cause.own.empty() ? cause.frame.value_or(0) : cause.own.front(),
                      cause.at.place, cause.other);
}

// Whether a frame may be lost, refused or in error for that. A habit costs nothing but time.
bool CostsFrames(const Cause& cause) {
    return cause.what != Case::Reorders && cause.what != Case::SeveralAtOnce &&
           RowOf(KindOf(cause.what)).cost == Cost::Frames;
}

struct Attribution {
    const Scene& scene;
    const Columns& columns;
    std::vector<Cause>& causes;
    std::multimap<int64_t, Cause*> about{};          // Of each frame the causes, by precedence.
    std::unordered_map<uint32_t, Cause*> fillers{};  // What filled the table: by evicted row.
    std::unordered_map<int64_t, Cause*> causeOf{};   // The result.

    void Run() {
        for (Cause& cause : causes) {
            for (const int64_t number : cause.own) {
                about.emplace(number, &cause);
            }
        }
        for (const Evictions& run : columns.evictions) {
            const auto fillerOf = [&](size_t i) {
                return FillerAt(scene.frames[run.rows[i]].evicted, run.holders[i]);
            };
            for (size_t i = 0; i < run.rows.size(); ++i) {
                Cause* const filler = fillerOf(i);
                fillers[run.rows[i]] = filler != nullptr ? filler : fillerOf(0);
            }
        }
        for (const auto& [number, lost] : columns.lost) {
            if (scene.RowOf(number) == NO_INDEX) {
                Count(number, First({number}, CostsFrames));
            }
        }
        std::vector<uint32_t> others, late;  // Rows that no cause explains.
        for (uint32_t row = 0; row < scene.frames.size(); ++row) {
            if (IsBad(columns.fates[row]) && !Count(scene.frames[row].number, CauseOf(row))) {
                others.push_back(row);
            }
        }
        for (const LateFrame& one : columns.late) {
            if (!IsBad(columns.fates[one.row]) &&
                !Count(scene.frames[one.row].number, CauseOf(one))) {
                late.push_back(one.row);
            }
        }
        AddLate(late);
        AddOthers(others);
    }

    bool Count(int64_t number, Cause* cause) {
        if (cause != nullptr) {
            cause->harmed.push_back(number);
            causeOf[number] = cause;
        }
        return cause != nullptr;
    }

    // The first cause of these frames for which that holds; null for none.
    Cause* First(std::initializer_list<int64_t> numbers, bool holds(const Cause&)) const {
        for (const int64_t number : numbers) {
            for (auto [one, end] = about.equal_range(number); one != end; ++one) {
                if (holds(*one->second)) {
                    return one->second;
                }
            }
        }
        return nullptr;
    }

    // What stood in the queue that filled the table then; null where that is not known.
    Cause* FillerAt(Micros time, std::optional<int32_t> holder) const {
        const auto found = std::find_if(causes.rbegin(), causes.rend(), [&](const Cause& cause) {
            const bool isQueue =
                KindOf(cause.what) == Kind::SlowStage || cause.what == Case::Stands;
            const bool isThere = cause.stage == holder || (scene.isAlone && cause.stage < 0);
            return isQueue && isThere && cause.span.begin <= time && time <= cause.span.end;
        });
        return holder && found != causes.rend() ? &*found : nullptr;
    }

    // Of a frame that never came out, or was not boosted.
    Cause* CauseOf(uint32_t row) const {
        const Frame& frame = scene.frames[row];
        const int64_t before = Plus(frame.number, -1), newest = frame.newestBefore;
        if (const auto filler = fillers.find(row);
            filler != fillers.end() && filler->second != nullptr) {
            return filler->second;
        }
        Cause* found = First({frame.number}, CostsFrames);
        // The frame before should have opened it once; a refused one names the newest there was.
        if (found == nullptr &&
            (!frame.isStarted || columns.fates[row].status == FrameStatus::Error)) {
            found = First({before}, CostsFrames);
        }
        if (found == nullptr && frame.isGap) {
            found = First({newest, Plus(newest, 1)}, CostsFrames);
        }
        // What comes behind a frame that opened none suffers from the same.
        const auto known = causeOf.find(before);
        const bool isBehind = !frame.isStarted && known != causeOf.end();
        return found == nullptr && isBehind ? known->second : found;
    }

    // By what the delay is followed back to: whichever gave most of it.
    Cause* CauseOf(const LateFrame& late) const {
        std::map<Cause*, Micros> parts;
        for (const Blame& blame : late.blame) {
            const int64_t number = scene.frames[blame.row].number;
            for (auto [one, end] = about.equal_range(number); one != end; ++one) {
                Cause* const cause = one->second;
                if (RowOf(KindOf(cause->what)).cost == Cost::Time &&
                    (cause->stage == blame.stage || scene.isAlone)) {
                    parts[cause] += blame.excess;
                }
            }
        }
        for (const int64_t lost : late.lost) {
            if (Cause* const cause = First({lost}, CostsFrames)) {
                parts[cause] += scene.Period();
            }
        }
        const Fate& fate = columns.fates[late.row];
        for (Cause& cause : causes) {
            const Span part = Cut(cause.span, {fate.output - fate.interval, fate.output});
            if (cause.what == Case::Stood && part.Length() > 0) {
                parts[&cause] += part.Length();
            }
        }
        if (!parts.empty()) {
            return std::ranges::max_element(parts, {}, &decltype(parts)::value_type::second)->first;
        }
        const int64_t number = scene.frames[late.row].number;
        if (Cause* const found = First({number}, [](const Cause& cause) {
                return cause.what == Case::CannotKeepUp || cause.what == Case::OtherRate;
            })) {
            return found;
        }
        // A frame that was overtaken leaves its place empty.
        return First({number, Plus(number, -1), Plus(number, -2), Plus(number, -3)},
                     [](const Cause& cause) {
                         return KindOf(cause.what) == Kind::StageOrder ||
                                KindOf(cause.what) == Kind::StageUnreported;
                     });
    }

    void AddLate(std::vector<uint32_t>& rows) {
        if (rows.empty()) {
            return;
        }
        std::ranges::sort(rows);
        Cause cause{.what = Case::Late,
                    .span = {scene.begin, scene.stop},
                    .at = scene.LastOf(rows.front()),
                    .usual = columns.lateThreshold,
                    .other = std::ssize(columns.outputs),
                    .times = std::ssize(rows)};
        Micros& longest = cause.took.emplace_back(0);
        for (const uint32_t row : rows) {
            cause.own.push_back(scene.frames[row].number);
            longest = std::max(longest, columns.fates[row].interval);
        }
        cause.harmed = cause.own;
        if (static_cast<double>(rows.size()) > limits::FEW * static_cast<double>(cause.other) ||
            longest > 2 * columns.lateThreshold) {
            cause.atLeast = Severity::Warning;
        }
        causes.push_back(std::move(cause));
    }

    // Frames in a row of which the same became.
    void AddOthers(const std::vector<uint32_t>& rows) {
        for (auto next = rows.begin(); next != rows.end();) {
            const uint32_t first = *next;
            const Frame& frame = scene.frames[first];
            const FrameStatus status = columns.fates[first].status;
            const Mark trouble = scene.TroubleOf(first);
            Cause cause{.what = Case::BadFrames,
                        .span = {trouble.time, trouble.time},
                        .at = trouble,
                        .other = frame.newestBefore,
                        .why = columns.fates[first].reason};
            do {
                cause.harmed.push_back(scene.frames[*next].number);
                ++next;
            } while (next != rows.end() && *next == *std::prev(next) + 1 &&
                     columns.fates[*next].status == status);
            cause.own = cause.harmed;
            if (status == FrameStatus::Refused && frame.isGap) {
                cause.what = frame.number > INT32_MAX ? Case::Gap32Bits : Case::Gap;
                cause.own.resize(1);
            } else if (status == FrameStatus::Unseen) {
                cause.what = Case::NeverStarted;
                cause.own.resize(1);
            }
            causes.push_back(std::move(cause));
        }
    }
};

}  // namespace

void Attribute(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    std::ranges::sort(causes, {}, KeyOf);
    Attribution{scene, columns, causes}.Run();
    // The table's depth matters where it cost something.
    std::erase_if(causes, [](const Cause& cause) {
        return cause.what == Case::PushedOut && cause.harmed.empty();
    });
    for (Cause& cause : causes) {
        std::ranges::sort(cause.harmed);
        // A cause that pushed frames out of the table is an error.
        for (const int64_t number : cause.harmed) {
            const uint32_t row = scene.RowOf(number);
            if (row != NO_INDEX && columns.fates[row].status == FrameStatus::Evicted) {
                cause.atLeast = Severity::Error;
            }
        }
    }
}

}  // namespace tools
