#!/usr/bin/python3 -B
"""Recordings as Perfetto writes them, made from a log (threadtime) and the text of a scheduler trace.

Usage: recording_made.py DIRECTORY    Writes some small ones there, for a fuzzer to start from."""

import datetime
import pathlib
import re
import sys
import zlib

LINE = re.compile(r'^ *(?P<name>.{1,15})-(?P<tid>\d+) +(?:\( *(?P<tgid>[\d-]+)\) +)?\[(?P<cpu>\d+)\] (?:(?P<flags>\S{5,6}) +)?'
                  r'(?P<seconds>\d+)\.(?P<micros>\d{6}): (?P<event>\w+): (?P<text>.*)$')
LOST = re.compile(r'^CPU:(\d+) \[LOST \d+ EVENTS\]$')
SWITCH = re.compile(r'prev_comm=(.*) prev_pid=(\d+) prev_prio=(\d+) prev_state=(\S+) ==> '
                    r'next_comm=(.*) next_pid=(\d+) next_prio=(\d+)$')
WAKING = re.compile(r'comm=(.*) pid=(\d+) prio=(\d+) (?:success=1 )?target_cpu=(\d+)$')
LOG = re.compile(r'^(\d\d)-(\d\d) (\d\d):(\d\d):(\d\d)\.(\d{3,9}) +(\d+) +(\d+) (.) (.*?) *: (.*)$')
COMPACT = ('sched_switch', 'sched_waking')
WAKINGS = {'sched_wakeup': 17, 'sched_waking': 20, 'sched_wakeup_new': 114}
STATES = {'R': 0, 'S': 1, 'D': 2, 'T': 4, 't': 8, 'X': 0x10, 'Z': 0x20, 'I': 0x80, 'R+': 0x100}
STATES_BEFORE_4_14 = STATES | {'I': 0x402, 'R+': 0x1000}
FLAGS = {'h': 8, 's': 16, 'H': 24}
REALTIME, RAW, BOOTTIME = 1, 5, 6
GLOBAL, LOCAL, MONO_RAW = 2, 3, 4  # Clocks of the kernel's tracer.
SECOND = 1_000_000_000
RAW_AHEAD = 7 * SECOND  # Of BOOTTIME. The clocks of a CPU's own are another second off in each bundle.


def varint(value):
    value &= 0xFFFF_FFFF_FFFF_FFFF  # A negative one has ten bytes.
    parts = []
    while value > 127:
        parts.append(value & 127 | 128)
        value >>= 7
    return bytes([*parts, value])


def message(*fields):
    """Of pairs of a number and an integer, a text or bytes; a field without a value is left out."""
    made = []
    for number, value in fields:
        if isinstance(value, int):
            made += [varint(number << 3), varint(value)]
        elif value is not None:
            value = value.encode(errors='surrogateescape') if isinstance(value, str) else value
            made += [varint(number << 3 | 2), varint(len(value)), value]
    return b''.join(made)


def packed(values):
    return b''.join(map(varint, values))


def relative(times):
    return packed(time - before for before, time in zip([0, *times], times))


def file_of(packets):
    return message(*((1, packet) for packet in packets))


def bundle_of(packets):
    """A packet that holds the packets, compressed."""
    return message((50, zlib.compress(file_of(packets))))


def read_log(text):
    """Nanoseconds of REALTIME, process, thread, priority, tag and message of each line."""
    events = []
    for line in text.splitlines():
        *clock, fraction, process, thread, priority, tag, said = LOG.match(line).groups()
        day = datetime.datetime(2025, *map(int, clock), tzinfo=datetime.timezone.utc)
        events.append((round(day.timestamp()) * SECOND + int(fraction.ljust(9, '0')), int(process),
                       int(thread), 'VDIWEF'.index(priority) + 2, tag, said))
    return events


def read_trace(text):
    """Of each event of a trace nanoseconds and what the line says; None for events that were lost."""
    events = []
    for line in text.splitlines():
        if found := LINE.match(line):
            parts = found.groupdict()
            time = int(parts['seconds']) * SECOND + int(parts['micros']) * 1000
            events.append((time, int(parts['cpu']), parts))
        elif lost := LOST.match(line):
            events.append((None, int(lost[1]), None))
    return events


def ahead_of(log, trace):
    """By how much the log's clock is ahead. Its times are cut to milliseconds, so the most of all."""
    counted = {}
    for time, _, parts in trace:
        if time and (found := re.search(r'C\|\d+\|TcfbtNotifyFrameStart\|([1-9]\d*)$', parts['text'])):
            counted[found[1]] = time
    return max((time - counted[frame[1]] for time, *_, said in log
                if (frame := re.search(r'FrameStart\(\) halFrameNumber = (\d+)$', said)) and frame[1] in counted),
               default=0)


def log_packets(events, boots, dropped=None, failed=0, size=250):
    """`boots`: the trace's time of each event; `dropped`: before which packet the recorder lost some;
    `failed`: how many events it could not read."""
    for first in range(0, len(events), size):
        last = boots[first:first + size][-1]
        yield message((8, last), (10, 3), (42, int(first == size * dropped) if dropped else None), (39, message(*(
            (1, message((1, 0), (2, process), (3, thread), (5, time), (6, tag), (7, priority), (8, said)))
            for time, process, thread, priority, tag, said in events[first:first + size]))))
    if failed:
        yield message((8, last), (10, 3), (39, message((2, message((1, len(events)), (2, failed))))))


def flags_of(parts, flags):
    return FLAGS.get((parts['flags'] or '....')[2], 0) if flags else None


def compact_of(events, flags):
    """Switches and wakers as arrays, each with a chain of times of its own."""
    names, switches, wakings = {}, [], []
    for time, parts in events:
        if parts['event'] == 'sched_switch':
            *_, state, name, tid, priority = SWITCH.match(parts['text']).groups()
            switches.append((time, parts['state'], int(tid), int(priority), names.setdefault(name, len(names))))
        else:
            name, *task = WAKING.match(parts['text']).groups()
            tid, priority, cpu = map(int, task)
            wakings.append((time, tid, cpu, priority, names.setdefault(name, len(names)), flags_of(parts, flags)))
    fields = [(5, name) for name in names]
    for numbers, rows in (((1, 2, 3, 4, 6), switches), (range(7, 13), wakings)):
        for number, column in zip(numbers, zip(*rows)):
            if column[0] is not None:
                fields.append((number, packed(column) if number != numbers[0] else relative(column)))
    return message(*fields)


def event_of(time, parts, flags):
    event, text = parts['event'], parts['text']
    if event == 'sched_switch':
        name, tid, priority, _, *comes = SWITCH.match(text).groups()
        what = (4, message((1, name), (2, int(tid)), (3, int(priority)), (4, parts['state']),
                           (5, comes[0]), (6, int(comes[1])), (7, int(comes[2]))))
    elif event in WAKINGS:
        name, *numbers = WAKING.match(text).groups()
        tid, priority, cpu = map(int, numbers)
        what = (WAKINGS[event], message((1, name), (2, tid), (3, priority), (4, 1), (5, cpu)))
    else:
        what = (3, message((1, 0), (2, text + '\n')))
    return message((1, time), (2, int(parts['tid'])), (5, flags_of(parts, flags)), what)


def kernel_packets(trace, compact=True, flags=True, clock=None, release='6.1.0', size=200,
                   counters=True):
    """Bundles of a CPU each, of that many events. `clock`: which one the kernel used, if not BOOTTIME."""
    states = STATES if tuple(map(int, release.split('.')[:2])) >= (4, 14) else STATES_BEFORE_4_14
    cpus, lost, made = {}, {}, []

    def close(cpu):
        first = next(iter(cpus.get(cpu, ())), (0,))[0]
        ahead = {None: 0, MONO_RAW: RAW_AHEAD}.get(clock, RAW_AHEAD + len(made) * SECOND)
        events = [(time + ahead, parts) for time, parts in cpus.pop(cpu, ())]
        small = [one for one in events if compact and one[1]['event'] in COMPACT]
        pair = ((6, first + ahead), (7, first)) if clock in (GLOBAL, LOCAL) and first else ()
        made.append(message((10, 2), (1, message(
            (1, cpu), *((2, event_of(*one, flags)) for one in events if one not in small),
            (3, lost.pop(cpu, None)), (4, compact_of(small, flags) if small else None), (5, clock), *pair))))

    for time, cpu, parts in trace:
        if time is None:
            close(cpu)
            lost[cpu] = 1
            continue
        if not counters and '|TcfbtNotify' in parts['text']:
            continue
        if state := re.search(r' prev_state=(\S+) ==> ', parts['text']):
            parts = parts | {'state': states[state[1]]}
        cpus.setdefault(cpu, []).append((time, parts))
        if len(cpus[cpu]) == size:
            close(cpu)
    for cpu in sorted(cpus):
        close(cpu)
    return made


def packets_of(log=None, trace=None, snapshots=(0,), clock_set=(), release='6.1.0', tree=True, dropped=None,
               failed=0, **options):
    """The packets of a recording. `snapshots` of the clocks, in seconds of BOOTTIME, which is the trace's own;
    `clock_set`: when the log's is set, in such seconds, and by how many, each time; options: see kernel_packets."""
    events, lines = read_trace(trace or ''), read_log(log or '')
    ahead = ahead_of(lines, events)
    steps = [tuple(round(part * SECOND) for part in one) for one in clock_set]
    boots = [line[0] - ahead for line in lines]

    def set_by(boot):
        return sum(step for at, step in steps if boot >= at)

    lines = [(line[0] + set_by(boot), *line[1:]) for boot, line in zip(boots, lines)]
    made = []
    for boot in (round(snapshot * SECOND) for snapshot in snapshots):
        clocks = {REALTIME: boot + ahead + set_by(boot), RAW: boot + RAW_AHEAD, BOOTTIME: boot}
        made.append(message((10, 1), (6, message(
            *((1, message((1, number), (2, time))) for number, time in clocks.items()), (2, BOOTTIME)))))
    if release:
        made.append(message((10, 1), (45, message((1, message((1, 'Linux'), (3, release)))))))
    if tree:
        threads = {int(parts['tid']): (parts['name'], parts['tgid']) for time, _, parts in events if time}
        made.append(message((10, 2), (2, message(*(
            (2, message((1, tid), (2, name), (3, int(tgid) if tgid and tgid.isdigit() else None)))
            for tid, (name, tgid) in threads.items() if tid)))))
    return [*made, *kernel_packets(events, release=release or '6.1.0', **options),
            *log_packets(lines, boots, dropped, failed)]


if __name__ == '__main__':
    from sched_made import log_of, make
    directory, text = pathlib.Path(sys.argv[1]), make(frames=4, taken=[3], locked=[2], lost=[4])
    for kind, options in {'compact': {}, 'plain': {'compact': False}, 'clock': {'clock': GLOBAL},
                          'set': {'snapshots': (5, 5.05), 'clock_set': [(5.04, -3600)]}}.items():
        packets = packets_of(log_of(text), text, size=20, **options)
        (directory / kind).write_bytes(file_of(packets))
    (directory / 'bundle').write_bytes(file_of([*packets[:2], bundle_of(packets[2:])]))
