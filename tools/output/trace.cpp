// The account as tracks, in Perfetto's form.

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <protozero/pbf_writer.hpp>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tools/output/outputs.h"

namespace tools {
namespace {

using protozero::pbf_writer;

// Something that lasts, on a track; without a length it is a moment.
struct Slice {
    Span span;
    uint64_t name;                // Its number, from Intern.
    Json annotations{};           // Those that are null are left out.
    uint64_t arrow = 0;           // To the next slice in time with this number; 0 for none.
    std::vector<Slice> within{};  // Moments within it.
    bool isStanding = false;      // Of a frame that is not known to have gone on.
};

// Names come from captures, which hold any bytes; the form has UTF-8.
std::string Utf8(const std::string& text) {
    return Json::parse(Json(text).dump(-1, ' ', false, Json::error_handler_t::replace));
}

// No recorder has a sequence of this number: they count from 1.
constexpr uint32_t SEQUENCE = 2'000'000'000;
// The ids of our tracks and arrows are above, so that none is one of a recording's own.
constexpr uint64_t FIRST_ID = uint64_t{SEQUENCE} << 32;

// The one place that knows the form. The numbers in it are those of fields and values there.
class Packets {
  public:
    // `knots`: as `Explained::clocks`.
    Packets(std::ostream& stream, const std::vector<Knot>& knots)
        : out(stream), clocks(knots), origin(std::max<int64_t>(NanosecondsOf(0), 0)) {}

    // Numbers for so many arrows, one after another; returns the first.
    uint64_t NewArrows(size_t count = 1) { return std::exchange(lastId, lastId + count) + 1; }

    // The number of a name, which is written when it is first used.
    uint64_t Intern(const std::string& name) {
        uint64_t& number = interned[name];
        if (number == 0) {
            number = interned.size();
            Add([&](pbf_writer& packet) {
                pbf_writer data(packet, 12);
                pbf_writer one(data, 2);
                one.add_uint64(1, number);
                one.add_string(2, Utf8(name));
            });
        }
        return number;
    }

    // A track, or a group of them. All events from here on are its own, and their times are steps
    // from the one before, at first from the origin: so neither stands in each of them. `parent`: 0
    // for none. `unit`: of a track of values. `first`: 0, or the track that has the same place.
    uint64_t BeginTrack(uint64_t parent, const std::string& name, const char* unit = nullptr,
                        uint64_t first = 0) {
        const uint64_t track = ++lastId;
        Add([&](pbf_writer& packet) {
            pbf_writer descriptor(packet, 60);
            descriptor.add_uint64(1, track);
            descriptor.add_string(2, name);
            if (parent != 0) {
                descriptor.add_uint64(5, parent);
            }
            if (unit != nullptr) {
                pbf_writer(descriptor, 8).add_string(6, unit);
            }
            descriptor.add_enum(11, 3);  // Tracks in it are in the order of their ranks.
            descriptor.add_int32(12, static_cast<int32_t>((first == 0 ? track : first) - FIRST_ID));
        });
        last = origin;
        Add([&](pbf_writer& packet) {
            {
                pbf_writer snapshot(packet, 6);
                for (const uint32_t id : {OWN_CLOCK, BOOTTIME}) {
                    pbf_writer clock(snapshot, 1);
                    clock.add_uint32(1, id);
                    clock.add_int64(2, origin);
                    clock.add_bool(3, id == OWN_CLOCK);  // It has steps.
                }
            }
            pbf_writer defaults(packet, 59);
            pbf_writer(defaults, 11).add_uint64(11, track);
            defaults.add_uint32(58, OWN_CLOCK);
        });
        return track;
    }

    // Slices that overlap are spread over as few tracks as it takes, which viewers show as one, as
    // they have one name. Frames that stand come last, so that they leave the first tracks to the
    // frames that move. Returns the first track.
    uint64_t AddSlices(uint64_t parent, const std::string& name, std::vector<Slice> slices) {
        std::ranges::stable_sort(slices, {}, [](const Slice& slice) {
            return std::pair(slice.isStanding, slice.span.begin);
        });
        std::vector<std::vector<const Slice*>> lanes(1);
        for (const Slice& slice : slices) {
            const auto lane = std::ranges::find_if(lanes, [&slice](const auto& one) {
                return one.empty() || one.back()->span.end <= slice.span.begin;
            });
            (lane == lanes.end() ? lanes.emplace_back() : *lane).push_back(&slice);
        }
        uint64_t first = 0;
        for (const std::vector<const Slice*>& lane : lanes) {
            const uint64_t track = BeginTrack(parent, name, nullptr, first);
            first = first == 0 ? track : first;
            for (const Slice* const slice : lane) {
                AddSlice(*slice);
            }
        }
        return first;
    }

    void AddValue(Micros time, double value) {
        AddEvent(time, 4, [value](pbf_writer& event) { event.add_double(44, value); });
    }

    // Writes what was added since the last time, as a bundle: zlib makes a tenth of it.
    void Flush() {
        std::string bundle;
        pbf_writer file(bundle);
        pbf_writer(file, 1).add_bytes(50, Packed(std::exchange(packets, {}), 1));
        out << bundle;
    }

  private:
    // Clocks with numbers from 64 on are a sequence's own.
    static constexpr uint32_t BOOTTIME = 6, OWN_CLOCK = 64;
    static constexpr size_t BUNDLE = 1 << 18;

    int64_t NanosecondsOf(Micros time) const {
        constexpr Micros most = std::numeric_limits<int64_t>::max() / 1000;
        return std::clamp(ToTrace(clocks, time), -most, most) * 1000;
    }

    void Add(const auto& fill) {
        {
            pbf_writer file(packets);
            pbf_writer packet(file, 1);
            packet.add_uint32(10, SEQUENCE);
            // The first packet clears the sequence's state; the others need the state so far.
            packet.add_uint32(13, std::exchange(flags, 2));
            fill(packet);
        }
        if (packets.size() > BUNDLE) {
            Flush();
        }
    }

    void AddEvent(Micros time, uint32_t type, const auto& fill) {
        const int64_t now = std::max(NanosecondsOf(time), last);
        Add([&](pbf_writer& packet) {
            packet.add_uint64(8, static_cast<uint64_t>(now - std::exchange(last, now)));
            pbf_writer event(packet, 11);
            event.add_uint32(9, type);
            fill(event);
        });
    }

    void AddSlice(const Slice& slice) {
        const bool lasts = slice.span.Length() > 0;
        AddEvent(slice.span.begin, lasts ? 1 : 3, [&](pbf_writer& event) {
            event.add_uint64(10, slice.name);
            for (const auto& [key, value] : slice.annotations.items()) {
                if (value.is_null()) {
                    continue;
                }
                pbf_writer annotation(event, 4);
                annotation.add_string(10, key);
                if (value.is_string()) {
                    annotation.add_string(6, Utf8(value));
                } else if (value.is_number_float()) {
                    annotation.add_double(5, value);
                } else {
                    annotation.add_int64(4, value);
                }
            }
            if (slice.arrow != 0) {
                event.add_fixed64(47, slice.arrow);
            }
        });
        for (const Slice& moment : slice.within) {
            AddSlice(moment);
        }
        if (lasts) {
            AddEvent(slice.span.end, 2, [](pbf_writer& /*event*/) {});
        }
    }

    std::ostream& out;
    const std::vector<Knot>& clocks;
    const int64_t origin;
    int64_t last = 0;
    uint64_t lastId = FIRST_ID;
    uint32_t flags = 1;
    std::unordered_map<std::string, uint64_t> interned;
    std::string packets;  // Those that are not yet written.
};

// When the frame was in the stage; if it never left the stage, until it stood there no longer. Ends
// at NO_TIME where it was not there, or that is not known.
Span StayOf(const JudgedScene& scene, size_t row, int32_t stage) {
    const StageTimes times = scene.TimesOf(row, stage);
    const Micros gone = GoneOf(scene, row);
    const bool stands = times.start != NO_TIME && times.end == NO_TIME && gone > times.start &&
                        !scene.FateOf(row).isOut && stage == scene.NextStage(row);
    return {times.start == NO_TIME ? times.end : times.start, stands ? gone : times.end};
}

// From the first to the last that is known of the frame.
Span LifeOf(const JudgedScene& scene, size_t row) {
    const Fate& fate = scene.FateOf(row);
    return {scene.frames[row].seen,
            std::max(scene.SeenUntil(row), fate.isOut ? fate.output : GoneOf(scene, row))};
}

constexpr Span ALWAYS = {std::numeric_limits<Micros>::min(), std::numeric_limits<Micros>::max()};
constexpr Span NEVER = {ALWAYS.end, ALWAYS.begin};

bool IsIn(Span span, Micros time) {
    return span.begin <= time && time <= span.end;
}

// The part of a scene that is shown.
struct View {
    const Account& account;
    const size_t index;
    // Only these frames are shown, with all that is known of them; without it, all frames.
    const std::optional<std::pair<int64_t, int64_t>>& range;
    Packets& packets;
    const JudgedScene& scene = account.scenes[index];
    const uint64_t firstArrow = packets.NewArrows(scene.frames.size());
    Span span = range ? NEVER : ALWAYS;  // When things that are of no frame are shown.
    std::vector<DrawnThread> threads{};
    std::vector<uint64_t> names{};  // Of the scene's frames.

    bool Has(size_t row) const { return Shown{true, range}.Has(scene, row); }
    // Whether all that is known of the frame is shown.
    bool IsAnnotated(size_t row) const {
        return row < scene.frames.size() &&
               (Shown{false, range}.Has(scene, row) || scene.FateOf(row).isLate ||
                IsBad(scene.FateOf(row)) || scene.frames[row].trouble.place.line != 0);
    }
    // Such frames have arrows, and the frames before and behind them; else 0.
    uint64_t ArrowOf(size_t row) const {
        return IsAnnotated(row - 1) || IsAnnotated(row) || IsAnnotated(row + 1) ? firstArrow + row
                                                                                : 0;
    }
};

// A value that is not known is null, and left out.
Json If(bool isKnown, const auto& value) {
    return isKnown ? Json(value) : Json();
}

// Frames in a stage, or with -1 for all of their time; those of IsAnnotated with annotations.
std::vector<Slice> FramesOf(const View& view, int32_t stage) {
    const JudgedScene& scene = view.scene;
    const bool isStage = stage >= 0;
    std::vector<Slice> slices;
    for (size_t row = 0; row < scene.frames.size(); ++row) {
        const Span span = isStage ? StayOf(scene, row, stage) : LifeOf(scene, row);
        if (span.end == NO_TIME || !view.Has(row)) {
            continue;
        }
        const Frame& frame = scene.frames[row];
        const Fate& fate = scene.FateOf(row);
        Slice& slice = slices.emplace_back(Slice{span, view.names[row]});
        slice.isStanding = !fate.isOut && span.end >= GoneOf(scene, row);
        slice.arrow = isStage ? view.ArrowOf(row) : 0;
        if (view.IsAnnotated(row)) {
            const std::string reason = DescriptionOf(fate);
            const StageTimes times = isStage ? scene.TimesOf(row, stage) : StageTimes{};
            const int32_t thread = isStage ? scene.PassOf(row, stage).thread : -1;
            slice.annotations = {{"status", NameOf(fate.status)},
                                 {"late", int{fate.isLate}},
                                 {"reason", If(!reason.empty(), reason)},
                                 {"line", ToString(view.account, frame.place)},
                                 {"stage", If(isStage, stage)},
                                 {"work", Milliseconds(times.work)},
                                 {"wait", Milliseconds(times.wait)},
                                 {"thread", If(thread >= 0, thread)}};
        }
    }
    return slices;
}

// A frame is due so many periods after the last one that came out as numbers are between the two.
std::vector<Slice> ExpectedOf(const View& view) {
    // Frames whose numbers are farther apart have nothing to do with one another.
    constexpr int64_t farApart = 1000;
    const JudgedScene& scene = view.scene;
    std::vector<Slice> slices;
    std::optional<size_t> before;  // The last frame that came out.
    for (size_t row = 0; row < scene.frames.size(); ++row) {
        const Frame& frame = scene.frames[row];
        const int64_t steps = before ? StepOf(scene.frames[*before].number, frame.number) : 0;
        if (view.Has(row) && steps > 0 && steps < farApart) {
            const Micros due = scene.FateOf(*before).output + scene.Period() * steps;
            slices.push_back({{frame.seen, due}, view.names[row]});
        }
        before = scene.FateOf(row).isOut ? row : before;
    }
    return slices;
}

void WriteValues(const View& view, uint64_t group) {
    view.packets.BeginTrack(group, "in flight", "frames");
    for (const auto& [time, count] : InFlightOf(view.scene)) {
        if (IsIn(view.span, time)) {
            view.packets.AddValue(time, static_cast<double>(count));
        }
    }
    view.packets.BeginTrack(group, "interval between outputs", "ms");
    for (const uint32_t row : view.scene.columns.outputs) {
        const Fate& fate = view.scene.FateOf(row);
        if (fate.interval != NO_TIME && IsIn(view.span, fate.output)) {
            view.packets.AddValue(fate.output, static_cast<double>(fate.interval) / 1000);
        }
    }
}

// The threads for which a frame of the stage waited: the one that kept the stage's thread asleep,
// the one that kept that one, and so on. Each has an arrow to the moment at which it woke the next;
// the moment at which the stage's own thread woke is in the frame's slice.
std::vector<Slice> WakersOf(const View& view, int32_t stage, std::vector<Slice>& frames) {
    std::vector<Slice> wakers;
    for (const SceneFinding& finding : view.scene.findings) {
        const std::vector<CauseLink>& chain = finding.chain;
        if (finding.stage != stage || chain.size() < 2) {
            continue;
        }
        Micros woken = chain[0].begin + chain[0].piece;
        const auto nameOf = [&](int64_t number) {
            return view.packets.Intern(fmt::to_string(number));
        };
        const auto isKept = [&](const Slice& slice) {
            return IsIn(slice.span, woken) &&
                   std::ranges::count(finding.own, slice.name, nameOf) > 0;
        };
        const auto kept = std::ranges::find_if(frames, isKept);
        if (kept == frames.end()) {
            continue;
        }
        for (size_t i = 1; i < chain.size(); ++i) {
            const CauseLink& link = chain[i];
            const std::string name = fmt::format("{} ({})", link.thread, Printable(link.name));
            const uint64_t arrow = view.packets.NewArrows();
            (i == 1 ? *kept : wakers.back())
                .within.push_back(
                    {{woken, woken}, view.packets.Intern("woken by " + name), {}, arrow});
            woken = link.begin + link.piece;
            wakers.push_back({{link.begin, woken},
                              view.packets.Intern(name),
                              {{"state", NameOf(link.state)},
                               {"wakes", chain[i - 1].thread},
                               {"frame", finding.frame.value_or(0)}},
                              arrow});
        }
        std::ranges::stable_sort(kept->within, {}, [](const Slice& one) { return one.span.begin; });
    }
    return wakers;
}

// What the threads of a stage did when they did not sleep.
void WriteThreads(const View& view, int32_t stage, uint64_t parent) {
    for (const auto& [below, thread, awake] : view.threads) {
        if (below != stage) {
            continue;
        }
        std::vector<Slice> slices;
        for (const StateSpan& one : awake) {
            const bool isRunnable = one.state == ThreadState::Runnable;
            const bool hasCpu = isRunnable || one.state == ThreadState::Running;
            slices.push_back(
                {one,
                 view.packets.Intern(isRunnable ? "waiting for a CPU" : NameOf(one.state)),
                 {{"CPU", If(hasCpu, one.cpu)}}});
        }
        view.packets.AddSlices(parent,
                               fmt::format("thread {} ({})", thread.tid, Printable(thread.name)),
                               std::move(slices));
    }
}

void WriteStage(const View& view, int32_t stage, uint64_t group) {
    std::vector<Slice> slices = FramesOf(view, stage);
    std::vector<Slice> wakers = WakersOf(view, stage, slices);
    const std::string title = StageTitleOf(view.scene, static_cast<size_t>(stage));
    const uint64_t track = view.packets.AddSlices(group, title, std::move(slices));
    if (!wakers.empty()) {
        view.packets.AddSlices(track, "wakes", std::move(wakers));
    }
    WriteThreads(view, stage, track);
}

// `otherwise`: where findings without a known time stand. `shown`: findings outside it are left
// out.
void WriteFindings(Packets& packets, uint64_t group, const Account& account,
                   const std::vector<SceneFinding>& findings, Micros otherwise, Span shown) {
    std::vector<Slice> slices;
    for (const SceneFinding& finding : findings) {
        const bool isTimed = finding.at.time != NO_TIME;
        const Micros time = isTimed ? finding.at.time : otherwise;
        if (!IsIn(shown, time)) {
            continue;
        }
        slices.push_back({isTimed && finding.span.Length() > 0 ? finding.span : Span{time, time},
                          packets.Intern(finding.message),
                          {{"severity", NameOf(SeverityOf(finding))},
                           {"check", RowOf(KindOf(finding.what)).name},
                           {"stage", If(finding.stage >= 0, finding.stage)},
                           {"frame", If(finding.frame.has_value(), finding.frame.value_or(0))},
                           {"harmed", finding.harmed.size()},
                           {"line", ToString(account, finding.at.place)}}});
    }
    packets.AddSlices(group, "findings", std::move(slices));
}

void WriteScene(View view, const Scheduling* scheduling) {
    const JudgedScene& scene = view.scene;
    for (const Frame& frame : scene.frames) {
        view.names.push_back(view.packets.Intern(fmt::to_string(frame.number)));
    }
    std::vector<Slice> actual = FramesOf(view, -1);
    for (const Slice& slice : actual) {
        // A frame may stand for long, which should not lengthen what is shown.
        const Micros end = slice.isStanding ? slice.span.begin : slice.span.end;
        view.span = {std::min(view.span.begin, slice.span.begin), std::max(view.span.end, end)};
    }
    if (view.span.end < view.span.begin) {
        return;
    }
    view.threads = DrawnThreadsOf(view.account, scheduling, view.index,
                                  Cut(view.span, {scene.begin, scene.end}));
    // The time of the log's clock at which the scene begins; empty where that is not known.
    const std::string clock =
        view.account.from.empty() ? "" : ClockText(view.account.clock + scene.begin);
    const uint64_t group = view.packets.BeginTrack(
        0, fmt::format("{}, begins at {}", TitleOf(view.account, view.index), clock));
    WriteFindings(view.packets, group, view.account, scene.findings, scene.begin, view.span);
    view.packets.AddSlices(group, "expected", ExpectedOf(view));
    view.packets.AddSlices(group, "actual", std::move(actual));
    WriteValues(view, group);
    for (int32_t stage = 0; stage < scene.stageCount; ++stage) {
        WriteStage(view, stage, group);
    }
    WriteThreads(view, -1, group);
}

}  // namespace

void WriteTrace(std::ostream& out, const Explained& explained) {
    const Account& account = explained.account;
    // A recording has the threads itself.
    const Scheduling* const scheduling =
        explained.clocks.empty() ? explained.scheduling.get() : nullptr;
    Packets packets(out, explained.clocks);
    for (size_t i = 0; i < account.scenes.size(); ++i) {
        WriteScene({account, i, explained.shown.range, packets}, scheduling);
    }
    if (!account.findings.empty()) {
        const uint64_t group = packets.BeginTrack(0, "the capture as a whole");
        WriteFindings(packets, group, account, account.findings, 0, ALWAYS);
    }
    packets.Flush();
}

}  // namespace tools
