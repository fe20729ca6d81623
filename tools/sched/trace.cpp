#include "tools/sched/trace.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "tools/base/cursor.h"

namespace tools {
namespace {

constexpr size_t LONGEST_NAME = 15;  // Of a thread, to the kernel.
constexpr size_t LONGEST_LINE = 65'536;
constexpr uint32_t MOST_CPUS = 4096;
// How wide the kernel makes the column of names, and how wide others may make that of threads.
constexpr size_t NAME_COLUMNS = 16;
constexpr size_t TASK_COLUMNS = 64;

// Takes "key123" from the end of the text.
template <size_t SIZE, typename Number>
bool CutField(std::string_view& text, const char (&key)[SIZE], Number& number) {
    size_t at = text.size();
    while (at > 0 && (IsDigit(text[at - 1]) || text[at - 1] == '-')) {
        --at;
    }
    std::string_view value = text.substr(at);
    constexpr size_t LENGTH = SIZE - 1;
    if (at < LENGTH || std::memcmp(text.data() + at - LENGTH, key, LENGTH) != 0 ||
        !TakeNumber(value, number)) {
        return false;
    }
    text = text.substr(0, at - LENGTH);
    return true;
}

ThreadState StateOf(std::string_view letters) {
    static constexpr std::pair<std::string_view, ThreadState> STATES[] = {
        {"R", ThreadState::Runnable},
        {"D", ThreadState::Blocked},
        {"XxZ", ThreadState::Gone},
        {"Tt", ThreadState::Stopped}};
    for (const auto& [first, state] : STATES) {
        if (!letters.empty() && first.find(letters.front()) != std::string_view::npos) {
            return state;
        }
    }
    return ThreadState::Sleeping;
}

// "4827.601609", also with more digits or fewer.
bool TakeTime(std::string_view& text, Micros& time) {
    int64_t seconds = 0;
    if (!TakeNumber(text, seconds) || seconds < 0 || seconds > INT32_MAX * int64_t{1000} ||
        !Skip(text, ".")) {
        return false;
    }
    Micros part = 0, unit = SECOND;
    while (!text.empty() && IsDigit(text.front())) {
        unit /= 10;
        part += (text.front() - '0') * unit;
        text.remove_prefix(1);
    }
    time = seconds * SECOND + part;
    return true;
}

}  // namespace

// A line: who was on which CPU when it was written, and what it says.
struct TraceReader::Line {
    std::string_view name;  // Of the thread.
    int32_t tid = 0;
    int32_t group = -1;  // The process.
    uint32_t cpu = 0;
    bool isInterrupt = false;
    Micros time = 0;
    std::string_view what, text;

    //              hal-3636    (   3635) [000] d..2.  4827.601609: sched_switch: prev_comm=...
    //           <idle>-0       (-------) [001] d.h2.  4827.601701: sched_waking: comm=...
    // The name may hold anything, so the rest is looked for: at the last place behind a name that
    // is no longer than the kernel's.
    static std::optional<Line> Parse(std::string_view line) {
        Line parsed;
        if (line.size() > NAME_COLUMNS && line[NAME_COLUMNS] == '-' &&
            parsed.TakeAt(line, NAME_COLUMNS)) {
            return parsed;
        }
        // Others than the kernel write other columns.
        const std::string_view head = line.substr(0, TASK_COLUMNS);
        for (size_t dash = head.rfind('-'); dash != std::string_view::npos && dash > 0;
             dash = head.rfind('-', dash - 1)) {
            if (parsed.TakeAt(line, dash)) {
                return parsed;
            }
        }
        return std::nullopt;
    }

  private:
    bool TakeAt(std::string_view line, size_t dash) {
        name = line.substr(0, dash);
        SkipBlanks(name);
        std::string_view rest = line.substr(dash + 1);
        return name.size() <= LONGEST_NAME && TakeRest(rest);
    }

    bool TakeRest(std::string_view& rest) {
        isInterrupt = false;
        if (!TakeNumber(rest, tid) || tid < 0) {
            return false;
        }
        SkipBlanks(rest);
        group = -1;
        if (Skip(rest, "(")) {
            SkipBlanks(rest);
            TakeNumber(rest, group);  // "-------" where it is not known.
            const size_t end = rest.find(')');
            if (end == std::string_view::npos) {
                return false;
            }
            rest.remove_prefix(end + 1);
            SkipBlanks(rest);
        }
        if (!Skip(rest, "[") || !TakeNumber(rest, cpu) || cpu >= MOST_CPUS || !Skip(rest, "] ")) {
            return false;
        }
        SkipBlanks(rest);
        // Flags, which old kernels do not have. The third one tells of interrupts.
        const size_t flags = rest.find(' ');
        if (flags == std::string_view::npos) {
            return false;
        }
        if (rest.substr(0, flags).find('.') == std::string_view::npos ||
            rest.substr(0, flags).back() != ':') {
            isInterrupt = flags > 2 && std::strchr("hHsZz", rest[2]) != nullptr;
            rest.remove_prefix(flags);
            SkipBlanks(rest);
        }
        if (!TakeTime(rest, time) || !Skip(rest, ": ")) {
            return false;
        }
        const size_t colon = rest.find(": ");
        if (colon == std::string_view::npos) {
            return false;
        }
        what = rest.substr(0, colon);
        text = rest.substr(colon + 2);
        return true;
    }
};

bool IsTrace(std::string_view beginning) {
    // Before its trace systrace's HTML has megabytes of scripts.
    constexpr std::string_view TITLE = "<title>Android System Trace</title>";
    if (beginning.starts_with("# tracer:") ||
        (beginning.starts_with('<') && beginning.find(TITLE) != std::string_view::npos)) {
        return true;
    }
    for (size_t at = 0; at < beginning.size();) {
        const size_t end = std::min(beginning.find('\n', at), beginning.size());
        if (TraceReader::Line::Parse(beginning.substr(at, end - at))) {
            return true;
        }
        at = end + 1;
    }
    return false;
}

void TraceReader::Read(std::string_view bytes) {
    while (!bytes.empty()) {
        const size_t end = bytes.find('\n');
        if (end == std::string_view::npos) {
            // Longer text is no line of a trace.
            unfinished.append(
                bytes.substr(0, LONGEST_LINE - std::min(unfinished.size(), LONGEST_LINE)));
            return;
        }
        if (unfinished.empty()) {
            TakeLine(bytes.substr(0, end));
        } else {
            unfinished.append(bytes.substr(0, end));
            TakeLine(unfinished);
            unfinished.clear();
        }
        bytes.remove_prefix(end + 1);
    }
}

void TraceReader::TakeLine(std::string_view text) {
    if (text.starts_with('#')) {
        return TakeComment(text);
    }
    const std::optional<Line> line = Line::Parse(text);
    if (!line) {
        return TakeLost(text);
    }
    ++trace.traceLines;
    trace.from = trace.from == NO_TIME ? line->time : std::min(trace.from, line->time);
    trace.to = std::max(trace.to, line->time);
    trace.hasFlags = trace.hasFlags || line->isInterrupt;
    NoteCpu(line->cpu, line->time);
    if (line->what == "sched_switch") {
        TakeSwitch(*line);
    } else if (line->what == "sched_waking" || line->what == "sched_wakeup" ||
               line->what == "sched_wakeup_new") {
        TakeWakeup(*line);
    } else if (line->what == "tracing_mark_write" || line->what == "print" || line->what == "0") {
        TakeMark(*line);
    }
}

// "prev_comm=hal prev_pid=1 prev_prio=120 prev_state=S ==> next_comm=b next_pid=2 next_prio=0"
void TraceReader::TakeSwitch(const Line& line) {
    constexpr std::string_view ARROW = " ==> next_comm=";
    std::string_view text = line.text;
    // A name may hold the arrow, but not all of that.
    const size_t arrow = text.find(ARROW, text.find(" prev_state="));
    if (arrow == std::string_view::npos || !Skip(text, "prev_comm=")) {
        return;
    }
    std::string_view before = line.text.substr(10, arrow - 10);
    std::string_view after = line.text.substr(arrow + ARROW.size());
    const size_t state = before.rfind('=') + 1;
    const std::string_view letters = before.substr(state);
    before = before.substr(0, state - std::strlen(" prev_state="));
    int32_t left = 0, next = 0;
    Priority priority = 0, nextPriority = 0;
    if (!CutField(before, " prev_prio=", priority) || !CutField(before, " prev_pid=", left) ||
        !CutField(after, " next_prio=", nextPriority) || !CutField(after, " next_pid=", next) ||
        left < 0 || next < 0) {
        return;
    }
    const ThreadState becomes = left == 0 ? ThreadState::Runnable : StateOf(letters);
    Add({line.time, ThreadOf(left, before, line.cpu), ThreadOf(next, after, line.cpu), priority,
         nextPriority, static_cast<uint16_t>(line.cpu), SchedEvent::Kind::Switch, becomes});
    if (becomes == ThreadState::Gone) {
        threads.erase(left);  // Its number may be used again.
    }
}

// "comm=a pid=1 prio=120 target_cpu=001", with "success=1" in old kernels.
void TraceReader::TakeWakeup(const Line& line) {
    std::string_view text = line.text;
    int32_t tid = 0, success = 0;
    uint32_t cpu = line.cpu;
    Priority priority = USUAL_PRIORITY;
    CutField(text, " target_cpu=", cpu);
    CutField(text, " success=", success);
    CutField(text, " prio=", priority);
    if (!Skip(text, "comm=") || !CutField(text, " pid=", tid) || tid <= 0 || cpu >= MOST_CPUS) {
        return;
    }
    if (line.what == "sched_wakeup_new") {
        threads.erase(tid);
    }
    SchedEvent::Kind kind = SchedEvent::Kind::New;
    if (line.what != "sched_wakeup_new") {
        kind = line.what == "sched_waking" ? SchedEvent::Kind::Waking : SchedEvent::Kind::Wakeup;
    }
    Add({line.time, ThreadOf(tid, text, cpu),
         line.isInterrupt ? NO_THREAD : ThreadOf(line.tid, line.name, line.cpu), priority,
         USUAL_PRIORITY, static_cast<uint16_t>(cpu), kind, ThreadState::Runnable});
}

// "C|3635|TcfbtNotifyStageEnd1|121": process, name with the stage, and the frame.
void TraceReader::TakeMark(const Line& line) {
    struct Name {
        std::string_view text;
        MessageKind kind;
        bool hasStage;
    };
    static constexpr Name NAMES[] = {{"TcfbtNotifyFrameStart", MessageKind::FrameStart, false},
                                     {"TcfbtNotifyFrameEnd", MessageKind::FrameEnd, false},
                                     {"TcfbtNotifyStageStart", MessageKind::StageStart, true},
                                     {"TcfbtNotifyStageEnd", MessageKind::StageEnd, true}};
    const size_t begin = line.text.find("C|");
    std::string_view text = line.text.substr(std::min(begin, line.text.size()));
    SchedCounter counter{line.time, NO_THREAD, line.group, 0, -1, 0, MessageKind::FrameStart};
    if (!Skip(text, "C|") || !TakeNumber(text, counter.process) || !Skip(text, "|")) {
        return;
    }
    for (const Name& name : NAMES) {
        std::string_view value = text;
        if (Skip(value, name.text) && (!name.hasStage || TakeNumber(value, counter.stage)) &&
            Skip(value, "|") && TakeNumber(value, counter.frame) && counter.frame != 0) {
            counter.kind = name.kind;
            counter.thread = ThreadOf(line.tid, line.name, line.cpu);
            trace.counters.push_back(counter);
            return;
        }
    }
}

// "CPU:1 [LOST 4711 EVENTS]"
void TraceReader::TakeLost(std::string_view text) {
    uint32_t cpu = 0;
    int64_t count = 0;
    SkipBlanks(text);
    if (!Skip(text, "CPU:") || !TakeNumber(text, cpu) || cpu >= MOST_CPUS ||
        !Skip(text, " [LOST ") || !TakeNumber(text, count) || !text.starts_with(" EVENTS]")) {
        return;
    }
    trace.lost += count;
    CpuOf(cpu).hasLost = true;
}

// What was overwritten has no line of its own: "##### CPU 1 buffer started ####", and before that
// "# entries-in-buffer/entries-written: 6104/12010   #P:2".
void TraceReader::TakeComment(std::string_view text) {
    uint32_t cpu = 0;
    int64_t kept = 0, written = 0;
    if (Skip(text, "##### CPU ") && TakeNumber(text, cpu) && cpu < MOST_CPUS) {
        CpuOf(cpu).hasLost = true;
    } else if (Skip(text, "# entries-in-buffer/entries-written: ") && TakeNumber(text, kept) &&
               Skip(text, "/") && TakeNumber(text, written)) {
        trace.lost += std::max<int64_t>(written - kept, 0);
    }
}

TraceReader::Cpu& TraceReader::CpuOf(uint32_t cpu) {
    if (cpu >= cpus.size()) {
        cpus.resize(cpu + size_t{1});
    }
    return cpus[cpu];
}

void TraceReader::NoteCpu(uint32_t cpu, Micros time) {
    Cpu& known = CpuOf(cpu);
    if (known.hasLost) {
        trace.holes.push_back(
            {known.last == NO_TIME ? trace.from : known.last, time, static_cast<uint16_t>(cpu)});
        known.hasLost = false;
    }
    known.last = time;
}

uint32_t TraceReader::ThreadOf(int32_t tid, std::string_view name, uint32_t cpu) {
    const int64_t key = tid == 0 ? -1 - static_cast<int64_t>(cpu) : tid;
    const auto [found, isNew] =
        threads.try_emplace(key, static_cast<uint32_t>(trace.threads.size()));
    if (isNew) {
        trace.threads.push_back({tid, std::string(name), {}});
    } else if (trace.threads[found->second].name != name && name != "<...>") {
        trace.threads[found->second].name = name;
    }
    return found->second;
}

void TraceReader::Add(const SchedEvent& event) {
    trace.disordered += !trace.events.empty() && event.time < trace.events.back().time ? 1 : 0;
    trace.events.push_back(event);
}

void TraceReader::End() {
    if (!unfinished.empty()) {
        TakeLine(unfinished);
        unfinished.clear();
    }
}

bool TraceReader::TakeDamage(const char* reason) {
    trace.damage = reason == nullptr ? "damaged" : reason;
    return trace.traceLines != 0;
}

SchedTrace TraceReader::Finish() {
    const auto isBefore = [](const auto& one, const auto& other) { return one.time < other.time; };
    std::stable_sort(trace.counters.begin(), trace.counters.end(), isBefore);
    if (trace.disordered > 0) {
        std::stable_sort(trace.events.begin(), trace.events.end(), isBefore);
    }
    for (uint32_t i = 0; i < trace.events.size(); ++i) {
        const SchedEvent& event = trace.events[i];
        trace.threads[event.thread].events.push_back(i);
        if (event.kind == SchedEvent::Kind::Switch) {
            if (event.other != event.thread) {
                trace.threads[event.other].events.push_back(i);
            }
            trace.switches.resize(std::max<size_t>(trace.switches.size(), event.cpu + size_t{1}));
            trace.switches[event.cpu].push_back(i);
        }
    }
    return std::move(trace);
}

}  // namespace tools
