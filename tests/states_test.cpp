// What threads did by a scheduler trace's events, and its clock and a log's.

#include "tools/sched/states.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/sched/tie.h"
#include "tools/sched/trace.h"

namespace {

using tools::Micros;
using tools::MILLISECOND;
using tools::SECOND;

// A kernel's line: "<idle>-0 [001] d..2. 0.000014: sched_switch: ..."
std::string LineOf(int thread, int cpu, Micros time, const std::string& what, char flag = '.') {
    return fmt::format("{:>16}-{} [{:03}] d.{}2. {}.{:06}: {}\n", thread == 0 ? "<idle>" : "one",
                       thread, cpu, flag, time / SECOND, time % SECOND, what);
}

tools::SchedTrace TraceOf(std::string_view text) {
    tools::SchedReader reader;
    reader.Read(text);
    reader.End();
    return reader.Finish();
}

// Events of CPU 0 and 1 in short: "14 1 9>5 S" thread 9 leaves CPU 1 to thread 5 and sleeps, "20 0
// 7!5" thread 7 on CPU 0 wakes thread 5, "21 1 7+5" its wakeup for CPU 1, "22 0 7*5" a new thread,
// "30 1 lost" events of the CPU are lost before.
std::string TextOf(std::string_view events) {
    std::string text;
    while (!events.empty()) {
        const std::string_view event = events.substr(0, events.find(';'));
        events.remove_prefix(std::min(event.size() + 1, events.size()));
        int time = 0, cpu = 0, first = 0, second = 0;
        char sign = 0, state = 'R';
        if (event.ends_with("lost")) {
            text += fmt::format("CPU:{} [LOST 7 EVENTS]\n", event[event.size() - 6]);
        } else if (std::sscanf(std::string(event).c_str(), "%d %d %d%c%d %c", &time, &cpu, &first,
                               &sign, &second, &state) < 5) {
            ADD_FAILURE() << event;
        } else if (sign == '>') {
            text += LineOf(
                first, cpu, time,
                fmt::format("sched_switch: prev_comm=a prev_pid={} prev_prio={} prev_state={} "
                            "==> next_comm=b next_pid={} next_prio={}",
                            first, first == 5 ? 139 : 120, state, second, second == 5 ? 139 : 120));
        } else {
            const char* const name = sign == '!'   ? "sched_waking"
                                     : sign == '+' ? "sched_wakeup"
                                                   : "sched_wakeup_new";
            text += LineOf(
                first, sign == '+' ? 0 : cpu, time,
                fmt::format("{}: comm=b pid={} prio=139 target_cpu={:03}", name, second, cpu),
                first == 0 ? 'h' : '.');
        }
    }
    return text;
}

// "0-14 running 1; 14-20 sleeping <7; 20-22 runnable 1": with the CPU, and who woke it, 0 for an
// interrupt.
std::string StatesText(const std::string& text, int tid) {
    const tools::SchedTrace trace = TraceOf(text);
    const tools::States all = StatesOf(trace);
    std::string states;
    for (uint32_t thread = 0; thread < trace.threads.size(); ++thread) {
        if (trace.threads[thread].tid != tid) {
            continue;
        }
        for (const tools::StateSpan& span : all.threads[thread]) {
            states += fmt::format("{}{}-{} {}", states.empty() ? "" : "; ", span.begin, span.end,
                                  tools::NameOf(span.state));
            if (span.state == tools::ThreadState::Running ||
                span.state == tools::ThreadState::Runnable) {
                EXPECT_EQ(span.priority, 139) << text;
                states += fmt::format(" {}", span.cpu);
            }
            if (span.isWoken) {
                states += fmt::format(
                    " <{}", span.waker == tools::NO_THREAD ? 0 : trace.threads[span.waker].tid);
            }
        }
    }
    return states;
}

TEST(States, FollowTheEventsOfAThread) {
    const struct {
        const char *what, *events, *states;
    } cases[] = {
        {"all transitions", "0 1 0>5;10 1 5>9 S;20 0 7!5;22 1 7+5;40 1 9>5;50 1 5>0 R+;60 1 0>5",
         "0-10 running 1; 10-20 sleeping <7; 20-40 runnable 1; 40-50 running 1; 50-60 runnable 1"},
        {"all ways to leave",
         "0 1 0>5;10 1 5>9 D;20 0 0!5;40 1 9>5;50 1 5>9 T;60 0 7!5;61 1 9>5;70 1 5>9 I;"
         "80 0 7!5;81 1 9>5;82 1 5>9 t;83 0 7!5;84 1 9>5;90 1 5>9 X;99 1 9>0",
         "0-10 running 1; 10-20 blocked <0; 20-40 runnable 1; 40-50 running 1; 50-60 stopped <7; "
         "60-61 runnable 1; "
         "61-70 running 1; 70-80 sleeping <7; 80-81 runnable 1; 81-82 running 1; 82-83 stopped <7; "
         "83-84 runnable 1; 84-90 running 1; 90-99 gone"},
        {"a new thread", "0 0 0>7;10 0 7*5;20 1 0>5;30 1 5>0 S",
         "0-10 gone <7; 10-20 runnable 0; 20-30 running 1"},
        {"the trace begins while it runs", "0 0 0>7;10 1 5>9 S;20 0 7!5;30 1 9>5",
         "0-10 running 1; 10-20 sleeping <7; 20-30 runnable 1"},
        {"the trace begins while it sleeps", "0 0 0>7;20 0 7!5;30 1 9>5;40 1 5>9 S",
         "0-20 sleeping <7; 20-30 runnable 1; 30-40 running 1"},
        {"the same, and its coming is left out", "0 0 0>7;5 0 7!5;30 1 5>0 S;40 0 7!5",
         "0-5 sleeping <7; 5-30 unknown; 30-40 sleeping <7"},
        {"the trace begins while it waits", "0 0 0>7;30 1 9>5;40 1 5>9 S",
         "0-30 unknown; 30-40 running 1"},
        {"wakeups alone", "0 1 0>5;10 1 5>9 S;20 1 7+5;30 1 9>5",
         "0-10 running 1; 10-20 sleeping <7; 20-30 runnable 1"},
        {"woken twice", "0 1 0>5;10 1 5>9 S;20 0 7!5;25 0 8!5;30 1 9>5",
         "0-10 running 1; 10-20 sleeping <7; 20-30 runnable 1"},
        {"woken while it leaves: it does not sleep", "0 1 0>5;9 0 7!5;10 1 5>9 S;12 1 7+5;40 1 9>5",
         "0-10 running 1; 10-40 runnable 1"},
        {"the same, with no wakeup", "0 1 0>5;9 0 7!5;10 1 5>9 D;40 1 9>5",
         "0-10 running 1; 10-40 runnable 1"},
        {"woken while it leaves, but woken again: it slept",
         "0 1 0>5;9 0 7!5;10 1 5>9 S;30 0 8!5;40 1 9>5",
         "0-10 running 1; 10-30 sleeping <8; 30-40 runnable 1"},
        {"woken in time: the sleep behind is another",
         "0 1 0>5;5 0 7!5;6 1 7+5;10 1 5>9 S;40 1 9>5", "0-10 running 1; 10-40 sleeping"},
        {"woken before it was preempted", "0 1 0>5;5 0 7!5;8 1 5>9 R;10 1 9>5;20 1 5>9 S;40 1 9>5",
         "0-8 running 1; 8-10 runnable 1; 10-20 running 1; 20-40 sleeping"},
        {"its coming to an idle CPU is left out", "0 1 5>0 S;20 0 7!5;30 1 5>0 S;40 0 7!5",
         "0-20 sleeping <7; 20-30 running 1; 30-40 sleeping <7"},
        {"the same, when the CPU was idle later", "0 1 5>9 S;20 0 7!5;60 1 9>0;80 1 5>0 S;90 0 7!5",
         "0-20 sleeping <7; 20-60 runnable 1; 60-80 running 1; 80-90 sleeping <7"},
        {"its coming to a busy CPU is left out", "0 1 5>9 S;20 0 7!5;60 1 9>8;80 1 5>0 S;90 0 7!5",
         "0-20 sleeping <7; 20-60 runnable 1; 60-80 unknown; 80-90 sleeping <7"},
        {"its waking, too", "0 1 5>9 S;60 1 9>8;80 1 5>0 S;90 0 7!5",
         "0-80 unknown; 80-90 sleeping <7"},
        {"its leaving is left out", "0 1 0>5;10 1 9>8;20 0 7!5;30 1 8>5;40 1 5>0 S",
         "0-20 unknown <7; 20-30 runnable 1; 30-40 running 1"},
        {"its leaving and its waking", "0 1 0>5;10 1 9>8;30 1 8>5;40 1 5>0 S",
         "0-30 unknown; 30-40 running 1"},
        {"its leaving, and it does not come back", "0 1 0>5;10 1 9>8;30 1 8>0 S", "0-30 unknown"},
        {"its leaving and its coming", "0 1 0>5;10 1 9>8;30 1 5>0 S;40 0 7!5",
         "0-30 unknown; 30-40 sleeping <7"},
        {"a switch to itself", "0 1 0>5;10 1 5>5;20 1 5>0 S;30 0 7!5",
         "0-20 running 1; 20-30 sleeping <7"},
        {"events of its CPU are lost", "0 1 0>5;9 1 lost;30 1 5>0 S;40 0 7!5",
         "0-30 unknown; 30-40 sleeping <7"},
        {"events of another CPU", "0 1 0>5;1 0 0>7;9 0 lost;30 0 7>0 S;40 1 5>0 S;50 1 0>5",
         "0-40 running 1; 40-50 sleeping"},
        {"of any CPU, while it sleeps",
         "0 1 0>5;1 0 0>7;5 1 5>0 S;9 0 lost;30 0 7>0 S;40 1 0>5;50 1 5>0",
         "0-5 running 1; 5-40 unknown; 40-50 running 1"},
        {"it waits for one CPU and gets another", "0 1 0>5;10 1 5>9 R;30 0 7>5;40 0 5>0",
         "0-10 running 1; 10-30 runnable 1; 30-40 running 0"},
    };
    for (const auto& [what, events, states] : cases) {
        EXPECT_EQ(StatesText(TextOf(events), 5), states) << what;
    }
}

// The library's log and counters of a HAL that starts a frame each period: the lines with their
// counters, and events at moments by the trace's clock that the log's is known of.
struct Recording {
    tools::CountedLines lines;
    std::string text;
    std::vector<Micros> moments;  // Of the events, by the log's clock.

    void AddFrame(int32_t frame, Micros log, Micros trace) {
        tools::Message message{};
        message.kind = tools::MessageKind::FrameStart;
        message.frame = frame;
        message.stage = -1;
        lines.OnMessage(message, {log, 7, 11});
        text += fmt::format(
            "{:>16}-11 (      7) [000] ..... {}.{:06}: tracing_mark_write: "
            "C|7|TcfbtNotifyFrameStart|{}\n",
            "one", trace / SECOND, trace % SECOND, frame);
        text += LineOf(11, 0, trace + 100, "sched_waking: comm=b pid=12 prio=120 target_cpu=001");
        moments.push_back(log + 100);
    }
};

TEST(Clocks, TimesOfATraceBecomeTheLogs) {
    std::mt19937 random;
    const struct {
        const char* what;
        double drift;         // Of the trace's clock, parts.
        Micros step, break_;  // Of the log's at frame 150; of the trace's alone.
        Micros unit;          // The log's.
    } cases[] = {
        {"nothing", 0, 0, 0, 1},
        {"milliseconds", 0, 0, 0, MILLISECOND},
        {"drift", 5e-5, 0, 0, 1},
        {"drift and milliseconds", -5e-5, 0, 0, MILLISECOND},
        {"the log's clock was set by half a second", 0, SECOND / 2, 0, 1},
        {"by an hour", 1e-5, 3600 * SECOND, 0, MILLISECOND},
        {"nothing was logged for 70 s, which were taken out", 0, 0, 70 * SECOND, MILLISECOND},
    };
    for (const auto& [what, drift, step, pause, unit] : cases) {
        Recording recording;
        for (int32_t frame = 1; frame <= 300; ++frame) {
            const Micros time = frame * Micros{16'667};
            const Micros late = static_cast<Micros>(random() % 40);
            const Micros log = (time + (frame >= 150 ? step : 0)) / unit * unit;
            const auto trace = static_cast<Micros>(static_cast<double>(time) * (1 + drift)) +
                               4827 * SECOND + (frame >= 150 ? pause : 0) + late;
            if (frame == 150 && pause > 0) {
                recording.lines.OnClockSet(pause, {log, 7, 11}, {});
            }
            recording.AddFrame(frame, log, trace);
        }
        tools::SchedTrace trace = TraceOf(recording.text);
        const tools::Tie tie = tools::TieClocks(trace, {}, recording.lines.all, unit);
        EXPECT_EQ(tie.counters, 300) << what;
        EXPECT_TRUE(tie.untied.empty()) << what;
        EXPECT_EQ(tie.breaks.size(), step + pause > 0 ? 1 : 0) << what;
        for (size_t i = 0; i < trace.events.size(); ++i) {
            EXPECT_LE(std::abs(trace.events[i].time - recording.moments[i]), unit == 1 ? 60 : 1000)
                << what << ": " << i;
        }
        // Each line finds its counter by the log's clock.
        for (const tools::CountedLine& line : recording.lines.all) {
            EXPECT_NE(tools::CounterBeside(trace, line, line.time), nullptr) << what;
        }
    }
}

TEST(Clocks, WhatDoesNotBelongTogetherIsRefused) {
    const auto errorOf = [](Micros jitter) -> std::string {
        std::mt19937 random;
        Recording recording;
        for (int32_t frame = 1; frame <= 50; ++frame) {
            const Micros time = frame * Micros{16'667};
            recording.AddFrame(frame, time, time + SECOND + static_cast<Micros>(random()) % jitter);
        }
        tools::SchedTrace trace = TraceOf(recording.text);
        try {
            tools::TieClocks(trace, {}, recording.lines.all, 1);
        } catch (const tools::CommandError& error) {
            return error.what();
        }
        return "";
    };
    EXPECT_EQ(errorOf(100), "");
    EXPECT_NE(errorOf(6000).find("different times"), std::string::npos);
}

}  // namespace
