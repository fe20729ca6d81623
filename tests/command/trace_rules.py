"""The rules of the format of traces that viewers of Perfetto and Chromium read."""

import collections


def check_rules(events):
    """Every process and track named, slices nested, flows that begin and end within slices of one
    process. Returns the names of tracks."""
    names = {(event['name'], event['pid'], event['tid']): event['args'].get('name')
             for event in events if event['ph'] == 'M'}
    ends = collections.defaultdict(list)  # Of the open slices of a track.
    flows = collections.defaultdict(list)
    # Viewers sort events by their times, and leave those of one time in their order.
    for event in sorted(events, key=lambda one: one['ts']):
        phase, time = event['ph'], event['ts']
        track = event['pid'], event['tid']
        assert names['process_name', event['pid'], 0] and time >= 0, event
        if phase == 'M':
            continue
        if phase == 'C':
            assert isinstance(event['args']['value'], (int, float)), event
            continue
        assert names['thread_name', *track], event
        while ends[track] and ends[track][-1] <= time and phase in 'Xi':
            ends[track].pop()
        if phase == 'X':
            ends[track].append(time + event['dur'])
            assert ends[track] == sorted(ends[track], reverse=True), event
        elif phase == 'i':
            assert event['s'] == 't' and 'line' in event['args'], event
        else:
            assert ends[track] and time <= ends[track][-1], event
            assert phase == 's' or event['bp'] == 'e', event
            assert isinstance(event['id'], int), event  # Viewers read numbers alone.
            flows[event['cat'], event['id']].append((phase, event['pid']))
    for steps in flows.values():
        phases = ''.join(phase for phase, _ in steps)
        assert phases == 's' + 't' * (len(phases) - 2) + 'f', steps
        assert len({pid for _, pid in steps}) == 1, steps
    return {key[1:]: name for key, name in names.items() if key[0] == 'thread_name'}
