#include <algorithm>
#include <utility>

#include "tools/base/cursor.h"
#include "tools/sched/trace.h"

namespace tools {
namespace {

constexpr size_t LONGEST_NAME = 15;      // Of a thread, to the kernel.
constexpr size_t LONGEST_LINE = 65'536;  // Longer text is no line of a trace.
// The name and the id of a thread are within that many columns, whoever wrote them.
constexpr size_t TASK_COLUMNS = 64;
// The third of a line's flags in an interrupt.
constexpr std::string_view INTERRUPTS = "hHsZz";

using Task = SchedTraceMaker::Task;

// A line: which task was on which CPU when it was written, and what it says.
struct Line {
    Task task;
    uint32_t cpu = 0;
    bool isInterrupt = false;
    Micros time = 0;
    std::string_view what{}, text{};
};

//              hal-3636    (   3635) [000] d..2.  4827.601609: sched_switch: prev_comm=...
//           <idle>-0       (-------) [001] d.h2.  4827.601701: sched_waking: comm=...
// `dash`: the one between name and id.
bool ReadAt(std::string_view text, size_t dash, Line& line) {
    line = {{text.substr(0, dash)}};
    SkipBlanks(line.task.name);
    text.remove_prefix(dash + 1);
    if (line.task.name.size() > LONGEST_NAME || !TakeNumber(text, line.task.tid)) {
        return false;
    }
    SkipBlanks(text);
    if (text.starts_with('(')) {
        text.remove_prefix(text.find(')') + 1);  // None without the other bracket.
        SkipBlanks(text);
    }
    if (!Skip(text, "[") || !TakeNumber(text, line.cpu) || line.cpu >= MOST_CPUS ||
        !Skip(text, "] ")) {
        return false;
    }
    SkipBlanks(text);
    const size_t time = text.find(": ");
    const size_t what = text.find(": ", time + 2);  // Without the first there is none, either.
    if (what == std::string_view::npos) {
        return false;
    }
    line.what = text.substr(time + 2, what - time - 2);
    line.text = text.substr(what + 2);
    // Flags, which old kernels do not have, and the time.
    text = text.substr(0, time);
    line.isInterrupt = text.size() > 2 && INTERRUPTS.find(text[2]) != std::string_view::npos;
    text.remove_prefix(text.rfind(' ') + 1);
    uint32_t seconds = 0, micros = 0;
    const bool isTime = TakeNumber(text, seconds) && Skip(text, ".") && text.size() == 6 &&
                        TakeNumber(text, micros);
    line.time = seconds * SECOND + micros;
    return isTime && text.empty();
}

// The name may hold anything, so that the rest is looked for: at the last place behind a name that
// is no longer than the kernel's.
bool ReadLine(std::string_view text, Line& line) {
    const std::string_view head = text.substr(0, TASK_COLUMNS);
    for (size_t dash = head.rfind('-'); dash != std::string_view::npos && dash > 0;
         dash = head.rfind('-', dash - 1)) {
        if (ReadAt(text, dash, line)) {
            return true;
        }
    }
    return false;
}

// Takes the number of the last field of a name, such as "prio=", and cuts the text off before it.
// The last, since names of threads, which come first, may hold anything.
template <typename Number>
bool CutField(std::string_view& text, std::string_view field, Number& number) {
    const size_t at = text.rfind(field), blank = text.rfind(' ', at);
    if (at == std::string_view::npos || blank == std::string_view::npos) {
        return false;
    }
    std::string_view value = text.substr(at + field.size());
    text = text.substr(0, blank);
    return TakeNumber(value, number);
}

// "hal prev_pid=1 prev_prio=120"
bool TakeTask(std::string_view text, Task& task) {
    const bool isWhole = CutField(text, "prio=", task.priority) && CutField(text, "pid=", task.tid);
    task.name = text;
    return isWhole;
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

// "prev_comm=hal prev_pid=1 prev_prio=120 prev_state=S ==> next_comm=b next_pid=2 next_prio=0"
void TakeSwitch(SchedTraceMaker& maker, const Line& line) {
    constexpr std::string_view STATE = " prev_state=", ARROW = " ==> next_comm=";
    // A name may hold either, but not both.
    const size_t arrow = line.text.find(ARROW, line.text.find(STATE));
    if (arrow == std::string_view::npos) {
        return;
    }
    const size_t state = line.text.rfind(STATE, arrow);
    std::string_view text = line.text.substr(0, state);
    Task left, comes;
    if (Skip(text, "prev_comm=") && TakeTask(text, left) &&
        TakeTask(line.text.substr(arrow + ARROW.size()), comes)) {
        maker.OnSwitch(line.time, line.cpu, left, StateOf(line.text.substr(state + STATE.size())),
                       comes);
    }
}

// "comm=a pid=1 prio=120 target_cpu=001", with "success=1" in old kernels.
template <SchedEvent::Kind KIND>
void TakeWaking(SchedTraceMaker& maker, const Line& line) {
    std::string_view text = line.text;
    uint32_t cpu = line.cpu;
    CutField(text, "target_cpu=", cpu);
    Task woken;
    if (Skip(text, "comm=") && TakeTask(text, woken) && cpu < MOST_CPUS) {
        maker.OnWaking(KIND, line.time, cpu, woken,
                       line.isInterrupt ? NO_THREAD : maker.ThreadOf(line.task, line.cpu));
    }
}

void TakeMark(SchedTraceMaker& maker, const Line& line) {
    maker.OnMark(line.time, line.cpu, line.task, line.text);
}

constexpr std::pair<std::string_view, void (*)(SchedTraceMaker&, const Line&)> EVENTS[] = {
    {"sched_switch", TakeSwitch},
    {"sched_waking", TakeWaking<SchedEvent::Kind::Waking>},
    {"sched_wakeup", TakeWaking<SchedEvent::Kind::Wakeup>},
    {"sched_wakeup_new", TakeWaking<SchedEvent::Kind::New>},
    {"tracing_mark_write", TakeMark},
    {"print", TakeMark},
    {"0", TakeMark}};

// "CPU:1 [LOST 4711 EVENTS]". What was overwritten has another line, "##### CPU 1 buffer started
// ####", and before all that "# entries-in-buffer/entries-written: 6104/12010   #P:2".
void TakeLost(SchedTraceMaker& maker, std::string_view text) {
    uint32_t cpu = 0;
    int64_t count = 0, written = 0;
    SkipBlanks(text);
    if (Skip(text, "# entries-in-buffer/entries-written: ") && TakeNumber(text, count) &&
        Skip(text, "/") && TakeNumber(text, written)) {
        maker.trace.lost += std::max<int64_t>(written - count, 0);
        return;
    }
    const bool isStart = Skip(text, "##### CPU ");
    if ((isStart || Skip(text, "CPU:")) && TakeNumber(text, cpu) && cpu < MOST_CPUS &&
        (isStart || (Skip(text, " [LOST ") && TakeNumber(text, count)))) {
        maker.OnLost(cpu, count);
    }
}

void TakeLine(SchedTraceMaker& maker, std::string_view text) {
    Line line;
    if (text.starts_with('#') || !ReadLine(text, line)) {
        return TakeLost(maker, text);
    }
    maker.OnTime(line.cpu, line.time);
    for (const auto& [name, take] : EVENTS) {
        if (line.what == name) {
            take(maker, line);
        }
    }
}

}  // namespace

void SchedReader::Read(std::string_view bytes) {
    SplitLines(packets.Read(bytes), unfinished, LONGEST_LINE,
               [this](std::string_view line) { TakeLine(maker, line); });
}

void SchedReader::End() {
    SplitLines(packets.End(), unfinished, LONGEST_LINE,
               [this](std::string_view line) { TakeLine(maker, line); });
    TakeLine(maker, unfinished);
    unfinished.clear();
}

bool SchedReader::TakeDamage(const char* reason) {
    damage = reason == nullptr ? "damaged" : reason;
    return maker.trace.from != NO_TIME;
}

SchedTrace SchedReader::Finish() {
    SchedTrace trace = maker.Finish();
    trace.damage = damage.empty() ? packets.Damage() : damage;
    return trace;
}

}  // namespace tools
