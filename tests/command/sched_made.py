"""Scheduler traces that are made up, and the logs beside them."""

import re

PERIOD = 16_667

KERNEL = '{name:>16}-{tid:<7} ({tgid:>7}) [{cpu:03}] {flags} {time}: {text}'
CONVERTER = '{name} -{tid} [{cpu:03}] {time}: {text}'


# The state in which a thread leaves a CPU to another one.
LEAVES = {'switch': 'S', 'block': 'D', 'preempt': 'R', 'stop': 'T'}


def act(begin, node, acts):
    """The events of a thread that does these acts from then on, and when it is done: ('run',
    microseconds), or the way in which it leaves its CPU and for how long. Its taker has the CPU then,
    and wakes it where it does not wait."""
    time, cpu, taker, events = begin, node - 11, 111 - node, []
    for kind, length in acts:
        if kind != 'run':
            events += [(time, cpu, kind, taker), (time + length, cpu, 'switch', node)]
            events += [(time + length - 10, cpu, 'wake', node)] if kind != 'preempt' else []
        time += length
    return events, time


def make(form=KERNEL, taker='kswapd0', node='ToneMapper', frames=40, taken=(), locked=(), lost=(),
         late=(), dozed=(), stuck=None, begin=5_000_000, acts=None, usual=(('run', 4000),),
         priorities=None, workers=1, halted=None):
    """The lines of a trace with a sensor, thread 11, that wakes a node, thread 12, for each frame. The
    node has CPU 1 for 4 ms. Thread 99 has it 40 ms before, or holds a lock for so long, most of it
    asleep where it dozed, or is interrupted on CPU 0 when the sensor is woken 40 ms late. From the
    frame `stuck` on the node waits for a device. `acts`: what the node does with a frame, see act,
    if not the `usual`; `workers`: that many threads serve frames in turn, each on a CPU of its own;
    `halted`: a frame before which the sensor is stopped, and for how long."""
    events = [(begin, 0, 'count', 'FrameStart', 1), (begin + 1, 0, 'count', 'StageStart0', 1)]
    free, come = [0] * workers, begin
    for frame in range(1, frames + 1):
        worker = frame % workers
        thread, cpu, other = 12 + worker, 1 + worker, 99 - worker
        come += PERIOD + 40_000 * (frame in late)
        if halted and frame == halted[0]:
            events += [(come - 15_000, 0, 'wake', 11), (come - 14_990, 0, 'switch', 11),
                       (come - 14_980, 0, 'stop', 0)]
            come += halted[1]
        if frame in late:
            events += [(come - 50, 0, 'switch', 99)]
        events += [(come - 30, 0, 'wake', 11), (come - 20, 0, 'switch', 11),
                   (come, 0, 'count', 'StageEnd0', frame), (come + 1, 0, 'count', 'StageStart1', frame),
                   (come + 2, 0, 'count', 'FrameStart', frame + 1),
                   (come + 3, 0, 'count', 'StageStart0', frame + 1)]
        if stuck and frame >= stuck:
            events += [(come + 12, 0, 'switch', 0)]
            if frame == stuck:
                events += [(come + 10, 0, 'wake', 12), (come + 14, 1, 'switch', 12),
                           (come + 20, 1, 'block', 0)]
            continue
        begin = come + 14
        if free[worker] < come - 100:
            if free[worker]:
                events += [(free[worker] + 5, cpu, 'switch', 0)]
            if frame in taken:
                events += [(come - 5, cpu, 'switch', other)]
                begin += 40_000
            events += [(come + 10, 0, 'wake', thread), (begin, cpu, 'switch', thread)]
        else:
            begin = free[worker]
        events += [(come + 12, 0, 'switch', 0)]
        if frame in dozed:
            events += [(begin + 2000, 1, 'switch', 0), (begin + 36_000, 0, 'wake', 99),
                       (begin + 36_010, 1, 'switch', 99)]
        if frame in locked or frame in dozed:
            events += [(begin + 1000, 1, 'switch', 99), (begin + 41_000, 1, 'wake', 12),
                       (begin + 41_010, 1, 'switch', 12)]
            begin += 40_000
        if frame in lost:
            events += [(begin - 20_000, 1, 'lost', 0)]
        more, free[worker] = act(begin, thread, (acts or {}).get(frame, usual))
        left = free[worker]
        events += [*more, (left, cpu, 'count', 'StageEnd1', frame),
                   (left + 1, cpu, 'count', 'FrameEnd', frame)]
    events += [(left + 5, 1 + worker, 'switch', 0) for worker, left in enumerate(free)
               if left and not stuck]
    names, lines = {11: 'sensor'}, []
    names |= {12 + i: node for i in range(workers)} | {99 - i: taker for i in range(workers)}
    running = {cpu: 0 for cpu in range(1 + workers)}
    priorities = dict.fromkeys([0, *names], 120) | (priorities or {})
    for time, cpu, kind, what, *frame in sorted(events, key=lambda one: one[0]):
        def say(text, flags='d..2.'):
            tid = running[cpu]
            lines.append(form.format(
                name=names.get(tid, '<idle>'), tid=tid, tgid=7 if tid else '-----', cpu=cpu, text=text,
                flags=flags, time=f'{time // 1_000_000}.{time % 1_000_000:06}'))
        if kind in LEAVES:
            left, running_name = running[cpu], f'swapper/{cpu}'
            say(f'sched_switch: prev_comm={names.get(left, running_name)} prev_pid={left} '
                f'prev_prio={priorities[left]} prev_state={LEAVES[kind] if left else "R"} ==> next_comm={names.get(what, running_name)} '
                f'next_pid={what} next_prio={priorities[what]}')
            running[cpu] = what
        elif kind == 'wake':
            say(f'sched_waking: comm={names[what]} pid={what} prio={priorities[what]} target_cpu=000',
                'd.h2.' if what == 11 else 'd..2.')
        elif kind == 'lost':
            lines.append(f'CPU:{cpu} [LOST 12 EVENTS]')
        else:
            for value in (frame[0], 0):
                say(f'tracing_mark_write: C|7|TcfbtNotify{what}|{value}', '.....')
    return '# tracer: nop\n#\n' + '\n'.join(lines) + '\n'


UTILS = 2 * ['tarvocameraframeboostutils']


def log_of(trace):
    """The library's log beside a trace's counters. It tracks 16 frames."""
    lines, told, flying, evicted = [], set(), set(), set()
    for tid, second, micros, process, what, stage, frame in re.findall(
            r'-(\d+) .* (\d+)\.(\d{6}): .*C\|(\d+)\|TcfbtNotify([A-Za-z]+)(\d?)\|([1-9]\d*)', trace):
        def say(text, tag='cameraframeboost', file='tarvocameraframeboost'):
            lines.append(f'01-01 12:00:{int(second):02}.{micros} {process:>5} {tid:>5} D {tag}: '
                         f'{file}.cpp {text}\n')
        if process not in told:
            told.add(process)
            say('51:TcfbtSetSceneInfo() resolution = 3840, fps = 60, mFps = 60, cfbtScene = 0')
            say('79:TcfbtNotifySceneStart() isSceneStarted = true')
        node = ('SensorFrontEnd0', 'ToneMapper')[int(stage or 0)]
        if what == 'StageEnd':
            say(f'245:TcfbtNotifyNodeEnd() halFrameNumber = {frame}, nodeName = {node}, stage = {stage}, '
                'maxStageCnt = 2, portId = 1, currentCameraId = 0, isMaterCamera = 1')
        if what == 'FrameStart':
            flying.add((process, int(frame)))
            if len(flying) > 16:
                evicted.add(min(flying))
                flying.remove(min(flying))
                say('252:CheckIfCouldStartFrame() current frameData size(16) > MAX_FRAME_TRACKED(16), mark and '
                    'notify frame error', *UTILS)
        if (process, int(frame)) not in evicted:
            say(f'132:TcfbtNotify{what}() halFrameNumber = {frame}' +
                (f', stage = {stage}, nodeName = {node}' if stage else ''))
        elif what == 'StageEnd':
            say(f'333:CheckStagesStatus() frameNumber not exist, frameNumber = {frame}', *UTILS)
        if what == 'FrameEnd':
            flying.discard((process, int(frame)))
    return ''.join(lines)
