#!/usr/bin/python3 -B
"""What threads did in a span of a scheduler trace, from its text alone, in microseconds.

Usage: sched_sums.py TRACE THREAD FROM TO    FROM and TO in seconds of the trace's clock"""

import collections
import gzip
import re
import sys

LINE = re.compile(r'^ *.+-\d+ +(?:\([ \d-]+\) +)?\[(\d+)\] \S+ +(\d+\.\d+): (\w+): (.*)$')
SWITCH = re.compile(r' prev_pid=(\d+) .* prev_state=(\S+) ==> next_comm=(.*) next_pid=(\d+) ')
LEFT = {'R': 'runnable', 'S': 'sleeping', 'I': 'sleeping', 'D': 'blocked', 'T': 'stopped', 't': 'stopped'}


def read(path):
    """Microseconds, CPU, event and text of each line."""
    with (gzip.open if str(path).endswith('.gz') else open)(path, 'rt', errors='replace') as file:
        for cpu, time, event, text in (match.groups() for match in map(LINE.match, file) if match):
            yield round(float(time) * 1e6), int(cpu), event, text


def sums(events, thread, begin, end):
    """How long a thread was in each state."""
    spent = collections.Counter()
    state, since = 'unknown', begin
    for time, _, event, text in [*events, (end, 0, 'end', '')]:
        now = min(max(time, begin), end)
        spent[state] += now - since
        since = now
        if time >= end:
            return +spent
        if event == 'sched_switch':
            left, why, _, came = SWITCH.search(text).groups()
            if str(thread) in (left, came):
                state = 'running' if came == str(thread) else LEFT.get(why[0], 'unknown')
        elif event.startswith('sched_wak') and f' pid={thread} ' in text and state != 'running':
            state = 'runnable'


def ran_on(events, cpu, begin, end):
    """How long each thread had a CPU, by name and thread."""
    spent = collections.Counter()
    since, last = begin, ('unknown', -1)
    for time, at, event, text in [*events, (end, cpu, 'sched_switch', '')]:
        if at == cpu and event == 'sched_switch':
            now = min(max(time, begin), end)
            spent[last] += now - since
            since = now
            if time >= end:
                return +spent
            last = SWITCH.search(text).groups()[2:]


if __name__ == '__main__':
    trace, span = list(read(sys.argv[1])), [round(float(text) * 1e6) for text in sys.argv[3:]]
    print(dict(sums(trace, int(sys.argv[2]), *span)))
    for number in sorted({cpu for _, cpu, *_ in trace}):
        print(f'CPU {number}: {dict(ran_on(trace, number, *span))}')
