#include "tools/sched/ftrace.h"

#include <algorithm>
#include <utility>

#include "tools/base/cursor.h"

namespace tools {
namespace {

constexpr size_t LONGEST_NAME = 15;      // Of a thread, to the kernel.
constexpr size_t LONGEST_LINE = 65'536;  // Longer text is no line of a trace.
// The name and the id of a thread are within that many columns, whoever wrote them.
constexpr size_t TASK_COLUMNS = 64;
// The third of a line's flags in an interrupt.
constexpr std::string_view INTERRUPTS = "hHsZz";

// A line: which task was on which CPU when it was written, and what it says.
struct Line {
    SchedTraceMaker::Task task;
    int32_t group = -1;  // Its process.
    uint32_t cpu = 0;
    bool isInterrupt = false;
    Micros time = 0;
    std::string_view what, text;
};

// Takes the number behind the last `key`, such as " prio=", and cuts the text there. The last,
// since names, which come first, may hold anything.
template <typename Number>
bool CutField(std::string_view& text, std::string_view key, Number& number) {
    const size_t at = text.rfind(key);
    if (at == std::string_view::npos) {
        return false;
    }
    std::string_view value = text.substr(at + key.size());
    text = text.substr(0, at);
    return TakeNumber(value, number);
}

ThreadState StateOf(std::string_view letters) {
    constexpr std::string_view LETTERS = "RDXxZTt";
    constexpr ThreadState STATES[] = {
        ThreadState::Runnable, ThreadState::Blocked, ThreadState::Gone,   ThreadState::Gone,
        ThreadState::Gone,     ThreadState::Stopped, ThreadState::Stopped};
    const size_t at = LETTERS.find(letters.substr(0, 1));
    return letters.empty() || at == std::string_view::npos ? ThreadState::Sleeping : STATES[at];
}

// "4827.601609", also with more digits or fewer.
bool ReadTime(std::string_view text, Micros& time) {
    uint32_t seconds = 0;
    if (!TakeNumber(text, seconds) || !Skip(text, ".")) {
        return false;
    }
    time = seconds * SECOND;
    for (Micros unit = SECOND / 10; !text.empty() && IsDigit(text.front()); unit /= 10) {
        time += (text.front() - '0') * unit;
        text.remove_prefix(1);
    }
    return text.empty();
}

//              hal-3636    (   3635) [000] d..2.  4827.601609: sched_switch: prev_comm=...
//           <idle>-0       (-------) [001] d.h2.  4827.601701: sched_waking: comm=...
// `dash`: the one between name and id.
bool ReadAt(std::string_view text, size_t dash, Line& line) {
    line = {};
    line.task.name = text.substr(0, dash);
    SkipBlanks(line.task.name);
    text.remove_prefix(dash + 1);
    if (line.task.name.size() > LONGEST_NAME || !TakeNumber(text, line.task.tid)) {
        return false;
    }
    SkipBlanks(text);
    if (Skip(text, "(")) {
        SkipBlanks(text);
        TakeNumber(text, line.group);  // "-------" where it is not known.
        text.remove_prefix(std::min(text.find(')'), text.size()));
        Skip(text, ")");
        SkipBlanks(text);
    }
    if (!Skip(text, "[") || !TakeNumber(text, line.cpu) || line.cpu >= SchedTraceMaker::MOST_CPUS ||
        !Skip(text, "] ")) {
        return false;
    }
    SkipBlanks(text);
    const size_t time = text.find(": ");
    const size_t what = text.find(": ", time + 2);  // Without the first there is none, either.
    if (what == std::string_view::npos) {
        return false;
    }
    // Flags, which old kernels do not have, and the time.
    const std::string_view head = text.substr(0, time);
    line.isInterrupt = head.size() > 2 && INTERRUPTS.find(head[2]) != std::string_view::npos;
    line.what = text.substr(time + 2, what - time - 2);
    line.text = text.substr(what + 2);
    return ReadTime(head.substr(head.rfind(' ') + 1), line.time);
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

// "prev_comm=hal prev_pid=1 prev_prio=120 prev_state=S ==> next_comm=b next_pid=2 next_prio=0"
void TakeSwitch(SchedTraceMaker& maker, const Line& line) {
    constexpr std::string_view STATE = " prev_state=", ARROW = " ==> next_comm=";
    // A name may hold either, but not both.
    const size_t arrow = line.text.find(ARROW, line.text.find(STATE));
    if (arrow == std::string_view::npos) {
        return;
    }
    SchedTraceMaker::Task left{line.text.substr(0, arrow)};
    SchedTraceMaker::Task comes{line.text.substr(arrow + ARROW.size())};
    const size_t state = left.name.rfind(STATE);
    const std::string_view letters = left.name.substr(state + STATE.size());
    left.name = left.name.substr(0, state);
    if (Skip(left.name, "prev_comm=") && CutField(left.name, " prev_prio=", left.priority) &&
        CutField(left.name, " prev_pid=", left.tid) &&
        CutField(comes.name, " next_prio=", comes.priority) &&
        CutField(comes.name, " next_pid=", comes.tid)) {
        maker.OnSwitch(line.time, line.cpu, left, StateOf(letters), comes);
    }
}

// "comm=a pid=1 prio=120 target_cpu=001", with "success=1" in old kernels.
void TakeWaking(SchedTraceMaker& maker, const Line& line, SchedEvent::Kind kind) {
    SchedTraceMaker::Task woken{line.text};
    uint32_t cpu = line.cpu;
    CutField(woken.name, " target_cpu=", cpu);
    CutField(woken.name, " prio=", woken.priority);
    if (Skip(woken.name, "comm=") && CutField(woken.name, " pid=", woken.tid) &&
        cpu < SchedTraceMaker::MOST_CPUS) {
        maker.OnWaking(kind, line.time, cpu, woken,
                       line.isInterrupt ? NO_THREAD : maker.ThreadOf(line.task, line.cpu));
    }
}

// "C|3635|TcfbtNotifyStageEnd1|121": process, name with the stage, and the frame.
void TakeMark(SchedTraceMaker& maker, const Line& line) {
    static constexpr std::pair<std::string_view, MessageKind> NAMES[] = {
        {"FrameStart", MessageKind::FrameStart},
        {"FrameEnd", MessageKind::FrameEnd},
        {"StageStart", MessageKind::StageStart},
        {"StageEnd", MessageKind::StageEnd}};
    std::string_view text = line.text.substr(std::min(line.text.find("C|"), line.text.size()));
    int32_t process = 0;
    if (!Skip(text, "C|") || !TakeNumber(text, process) || !Skip(text, "|TcfbtNotify")) {
        return;
    }
    for (const auto& [name, kind] : NAMES) {
        int32_t stage = -1, frame = 0;
        std::string_view value = text;
        if (Skip(value, name) && (name.front() == 'F' || TakeNumber(value, stage)) &&
            Skip(value, "|") && TakeNumber(value, frame) && frame != 0) {
            maker.trace.counters.push_back({{kind, stage, frame, process},
                                            line.time,
                                            maker.ThreadOf(line.task, line.cpu),
                                            line.group});
        }
    }
}

// "CPU:1 [LOST 4711 EVENTS]". What was overwritten has another line, "##### CPU 1 buffer started
// ####", and before all that "# entries-in-buffer/entries-written: 6104/12010   #P:2".
void TakeLost(SchedTraceMaker& maker, std::string_view text) {
    uint32_t cpu = 0;
    int64_t count = 0, written = 0;
    SkipBlanks(text);
    if (Skip(text, "# entries-in-buffer/entries-written: ")) {
        if (TakeNumber(text, count) && Skip(text, "/") && TakeNumber(text, written)) {
            maker.trace.lost += std::max<int64_t>(written - count, 0);
        }
        return;
    }
    const bool isStart = Skip(text, "##### CPU ");
    if ((isStart || Skip(text, "CPU:")) && TakeNumber(text, cpu) &&
        cpu < SchedTraceMaker::MOST_CPUS &&
        (isStart || (Skip(text, " [LOST ") && TakeNumber(text, count)))) {
        maker.trace.lost += count;
        maker.OnLost(cpu);
    }
}

void TakeLine(SchedTraceMaker& maker, std::string_view text) {
    static constexpr std::pair<std::string_view, SchedEvent::Kind> WAKEUPS[] = {
        {"sched_waking", SchedEvent::Kind::Waking},
        {"sched_wakeup", SchedEvent::Kind::Wakeup},
        {"sched_wakeup_new", SchedEvent::Kind::New}};
    Line line;
    if (text.starts_with('#') || !ReadLine(text, line)) {
        return TakeLost(maker, text);
    }
    ++maker.trace.traceLines;
    maker.trace.hasFlags = maker.trace.hasFlags || line.isInterrupt;
    maker.OnTime(line.cpu, line.time);
    if (line.what == "sched_switch") {
        return TakeSwitch(maker, line);
    }
    if (line.what == "tracing_mark_write" || line.what == "print" || line.what == "0") {
        return TakeMark(maker, line);
    }
    for (const auto& [name, kind] : WAKEUPS) {
        if (line.what == name) {
            TakeWaking(maker, line, kind);
        }
    }
}

}  // namespace

bool IsFtrace(std::string_view beginning) {
    // Before its trace systrace's HTML has megabytes of scripts.
    constexpr std::string_view TITLE = "<title>Android System Trace</title>";
    if (beginning.starts_with("# tracer:") ||
        (beginning.starts_with('<') && beginning.find(TITLE) != std::string_view::npos)) {
        return true;
    }
    FtraceReader reader;
    reader.Read(beginning);
    reader.End();
    return reader.Finish().traceLines > 0;
}

void FtraceReader::Read(std::string_view bytes) {
    SplitLines(bytes, unfinished, LONGEST_LINE,
               [this](std::string_view line) { TakeLine(maker, line); });
}

void FtraceReader::End() {
    TakeLine(maker, unfinished);
    unfinished.clear();
}

bool FtraceReader::TakeDamage(const char* reason) {
    maker.trace.damage = reason == nullptr ? "damaged" : reason;
    return maker.trace.traceLines != 0;
}

}  // namespace tools
