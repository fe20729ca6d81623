// Where bad frames and causes meet.

#include <algorithm>
#include <cassert>
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

Harm HarmOf(const Fate& fate) {
    if (fate.isNeverOut) {
        return Harm::NeverOut;
    }
    if (IsNotBoosted(fate)) {
        return Harm::NotBoosted;
    }
    return fate.isLate ? Harm::Late : Harm::None;
}

namespace {

using Indices = std::vector<size_t>;  // Of causes.

bool IsHabit(Case what) {
    return what == Case::Reorders || what == Case::SeveralAtOnce;
}

// A total order: what no other cause precedes, whatever order they were found in.
auto KeyOf(const Cause& cause) {
    return std::tuple(cause.what, cause.span.begin, cause.span.end, cause.stage,
                      cause.own.empty() ? cause.frame.value_or(0) : cause.own.front(), cause.place,
                      cause.other);
}

struct Attribution {
    const Scene& scene;
    const Columns& columns;
    std::vector<Cause>& causes;
    std::unordered_map<int64_t, Indices> byOwn{};  // The causes that a frame is of.
    std::vector<Evictions> evictions = EvictionsOf(scene, columns);
    std::unordered_map<uint32_t, std::pair<size_t, size_t>> pushed{};  // Evicted rows therein.
    std::unordered_map<uint32_t, const LateFrame*> lateOf{};
    std::unordered_map<int64_t, size_t> causeOf{};  // The result.

    void Run() {
        for (size_t i = 0; i < causes.size(); ++i) {
            for (const int64_t number : causes[i].own) {
                byOwn[number].push_back(i);
            }
        }
        for (size_t i = 0; i < evictions.size(); ++i) {
            for (size_t at = 0; at < evictions[i].rows.size(); ++at) {
                pushed[evictions[i].rows[at]] = {i, at};
            }
        }
        for (const LateFrame& late : columns.late) {
            lateOf.try_emplace(late.row, &late);
        }
        std::vector<uint32_t> leftLate, leftOther;
        for (const Lost& lost : columns.lost) {
            if (scene.RowOf(lost.number) == NO_INDEX) {
                const Indices found = About(lost.number, {Kind::FrameLost, Kind::FrameGap});
                assert(!found.empty());
                Count(lost.number, found.front());
            }
        }
        for (uint32_t row = 0; row < scene.frames.size(); ++row) {
            const Harm harm = HarmOf(columns.fates[row]);
            if (harm == Harm::None) {
                continue;
            }
            const Indices found = harm == Harm::Late ? OfLate(row) : OfOther(row, harm);
            if (!found.empty()) {
                Count(scene.frames[row].number, found.front());
            } else {
                (harm == Harm::Late ? leftLate : leftOther).push_back(row);
            }
        }
        AddLate(leftLate);
        AddOthers(leftOther);
    }

    void Count(int64_t number, size_t cause) {
        causes[cause].harmed.push_back(number);
        causeOf[number] = cause;
    }

    // The causes of these kinds that a frame is of, in the order of the causes.
    Indices About(int64_t number, std::initializer_list<Kind> kinds) const {
        Indices found;
        if (const auto known = byOwn.find(number); known != byOwn.end()) {
            for (const size_t i : known->second) {
                const Case what = causes[i].what;
                if (!IsHabit(what) &&
                    std::find(kinds.begin(), kinds.end(), KindOf(what)) != kinds.end()) {
                    found.push_back(i);
                }
            }
        }
        return found;
    }

    Indices OfOther(uint32_t row, Harm harm) const {
        const Frame& frame = scene.frames[row];
        const int64_t number = frame.number;
        Indices found = About(number, {Kind::NumbersRestart, Kind::StageNeverHit});
        const auto add = [&found](const Indices& more) {
            found.insert(found.end(), more.begin(), more.end());
        };
        if (harm == Harm::NeverOut) {
            add(About(number, {Kind::FrameLost, Kind::FrameGap}));
            return found;
        }
        switch (columns.fates[row].status) {
            case FrameStatus::Refused:
            case FrameStatus::Unseen:
                // The frame before should have opened it; a refused one names the newest there was.
                for (const int64_t other :
                     {number, Plus(number, -1), frame.newestBefore, Plus(frame.newestBefore, 1)}) {
                    const bool isNamed =
                        other == number || other == Plus(number, -1) || frame.isGap;
                    if (isNamed) {
                        add(About(other, {Kind::FrameLost, Kind::FrameGap, Kind::StageUnreported,
                                          Kind::StageOrder, Kind::NumbersRestart}));
                    }
                }
                // What comes behind a frame that opened none suffers from the same.
                if (const auto before = causeOf.find(Plus(number, -1));
                    found.empty() && before != causeOf.end() &&
                    KindOf(causes[before->second].what) != Kind::SlowStage) {
                    found.push_back(before->second);
                }
                break;
            case FrameStatus::Evicted:
                AddPushers(row, found);
                add(About(number, {Kind::Evicted, Kind::StageUnreported, Kind::StageOrder,
                                   Kind::FrameLost}));
                break;
            default:
                add(About(number, {Kind::StageUnreported, Kind::StageOrder, Kind::FrameLost,
                                   Kind::FrameGap}));
                add(About(Plus(number, -1), {Kind::StageOrder}));
        }
        return found;
    }

    // What stood in the queue that filled the table when the frame was pushed out; where that is
    // not known, when the first frame of these was.
    void AddPushers(uint32_t row, Indices& found) const {
        const auto [run, at] = pushed.at(row);
        AddPushersAt(scene.frames[row].evicted, evictions[run].holders[at], found);
        AddPushersAt(evictions[run].begin, evictions[run].holders.front(), found);
    }

    void AddPushersAt(Micros time, std::optional<int32_t> holder, Indices& found) const {
        for (size_t i = causes.size(); i-- > 0 && holder;) {
            const Cause& cause = causes[i];
            const bool isQueue =
                KindOf(cause.what) == Kind::SlowStage || cause.what == Case::Stands;
            const bool isThere = cause.stage == *holder || (scene.isAlone && cause.stage < 0);
            if (isQueue && isThere && cause.span.begin <= time && time <= cause.span.end) {
                found.push_back(i);
            }
        }
    }

    // By what the delay is followed back to: whichever gave most of it.
    Indices OfLate(uint32_t row) const {
        const LateFrame& late = *lateOf.at(row);
        const int64_t number = scene.frames[row].number;
        std::map<size_t, Micros> parts;
        for (const Blame& blame : late.blame) {
            for (const size_t i : About(scene.frames[blame.row].number,
                                        {Kind::SlowStage, Kind::SensorStall, Kind::Rate})) {
                if (causes[i].stage == blame.stage || scene.isAlone) {
                    parts[i] += blame.excess;
                }
            }
        }
        for (const int64_t lost : late.lost) {
            const Indices found = About(lost, {Kind::FrameLost, Kind::FrameGap});
            if (!found.empty()) {
                parts[found.front()] += scene.Period();
            }
        }
        const Micros output = columns.fates[row].output;
        const Span interval = {output - columns.fates[row].interval, output};
        for (size_t i = 0; i < causes.size(); ++i) {
            if (causes[i].what == Case::Stood) {
                const Micros part = Cut(causes[i].span, interval).Length();
                if (part > 0) {
                    parts[i] += part;
                }
            }
        }
        Indices found;
        const auto most = std::max_element(
            parts.begin(), parts.end(),
            [](const auto& one, const auto& other) { return one.second < other.second; });
        if (most != parts.end()) {
            return {most->first};
        }
        if (const auto known = byOwn.find(number); known != byOwn.end()) {
            for (const size_t i : known->second) {
                if (causes[i].what == Case::CannotKeepUp || causes[i].what == Case::OtherRate) {
                    return {i};
                }
            }
            for (const size_t i : known->second) {
                const Kind kind = KindOf(causes[i].what);
                if (kind == Kind::StageOrder || kind == Kind::StageUnreported) {
                    return {i};
                }
            }
        }
        // A frame that was overtaken leaves its place empty.
        for (const int64_t places : {-1, -2, -3}) {
            const auto known = byOwn.find(Plus(number, places));
            for (const size_t i : known == byOwn.end() ? Indices() : known->second) {
                const Kind kind = KindOf(causes[i].what);
                if (kind == Kind::StageOrder || kind == Kind::StageUnreported) {
                    return {i};
                }
            }
        }
        return {};
    }

    void AddLate(const std::vector<uint32_t>& rows) {
        if (rows.empty()) {
            return;
        }
        Cause cause{.what = Case::Late, .span = {scene.begin, scene.stop}};
        Micros longest = 0;
        for (const uint32_t row : rows) {
            cause.own.push_back(scene.frames[row].number);
            longest = std::max(longest, columns.fates[row].interval);
        }
        const auto all = columns.outputs.size();
        const bool isMany =
            static_cast<double>(rows.size()) > limits::FEW * static_cast<double>(all) ||
            longest > 2 * columns.lateThreshold;
        cause.atLeast = isMany ? Severity::Warning : Severity::Note;
        cause.other = static_cast<int64_t>(all);
        cause.took = {longest};
        cause.usual = columns.lateThreshold;
        cause.harmed = cause.own;
        std::tie(cause.place, cause.time) = scene.LastOf(rows.front());
        causes.push_back(std::move(cause));
    }

    // Frames in a row that the library refused or never had; others by themselves.
    void AddOthers(const std::vector<uint32_t>& rows) {
        for (size_t i = 0; i < rows.size();) {
            const uint32_t first = rows[i];
            const Frame& frame = scene.frames[first];
            const FrameStatus status = columns.fates[first].status;
            const bool isGap = status == FrameStatus::Refused && frame.isGap;
            Cause cause{.what = Case::BadFrames};
            if (isGap) {
                cause.what = frame.number > INT32_MAX ? Case::Gap32Bits : Case::Gap;
            } else if (status == FrameStatus::Unseen) {
                cause.what = Case::NeverStarted;
            }
            const bool isFollowed = cause.what != Case::BadFrames;
            cause.why = ReasonOf(columns.fates[first].reason);
            cause.other = frame.newestBefore;
            const int64_t step = isGap ? StepOf(frame.newestBefore, frame.number) : 0;
            for (int64_t place = 1; place < step && step <= limits::MOST_MISSING; ++place) {
                cause.beside.push_back(Plus(frame.newestBefore, place));
            }
            const auto [place, last] = scene.LastOf(first);
            const bool hasTrouble = frame.trouble.line != 0;
            cause.place = hasTrouble ? frame.trouble : place;
            cause.time = hasTrouble ? frame.troubleTime : last;
            cause.span = {cause.time, cause.time};
            size_t next = i;
            do {
                cause.harmed.push_back(scene.frames[rows[next]].number);
                ++next;
            } while (next < rows.size() && rows[next] == rows[next - 1] + 1 &&
                     (isFollowed ? columns.fates[rows[next]].status == FrameStatus::Refused ||
                                       columns.fates[rows[next]].status == FrameStatus::Unseen
                                 : columns.fates[rows[next]].status == status));
            cause.own = cause.harmed;
            if (isFollowed) {
                cause.own.resize(1);
            }
            causes.push_back(std::move(cause));
            i = next;
        }
    }
};

}  // namespace

void Attribute(const Scene& scene, const Columns& columns, std::vector<Cause>& causes) {
    std::sort(causes.begin(), causes.end(),
              [](const Cause& one, const Cause& other) { return KeyOf(one) < KeyOf(other); });
    if (columns.isMixed) {
        return;
    }
    Attribution{scene, columns, causes}.Run();
    // The table's depth matters where it cost something.
    std::erase_if(causes, [](const Cause& cause) {
        return cause.what == Case::PushedOut && cause.harmed.empty();
    });
    for (Cause& cause : causes) {
        std::sort(cause.harmed.begin(), cause.harmed.end());
        // A cause that pushed frames out of the table is an error.
        const bool hasEvicted =
            std::any_of(cause.harmed.begin(), cause.harmed.end(), [&](int64_t number) {
                const uint32_t row = scene.RowOf(number);
                return row != NO_INDEX && columns.fates[row].status == FrameStatus::Evicted;
            });
        cause.atLeast = hasEvicted ? Severity::Error : cause.atLeast;
    }
}

}  // namespace tools
