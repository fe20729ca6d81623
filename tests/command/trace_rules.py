"""The rules of the format of traces that viewers of Perfetto and Chromium read."""

import collections


def check_rules(events):
    """Every process and track named, each track and counter in order, slices nested, what begins
    ends, counters that change, flows that begin and end within slices of one process. The names of
    threads are returned."""
    names = {(event['name'], event['pid'], event.get('tid')): event['args'].get('name')
             for event in events if event['ph'] == 'M'}
    last = collections.defaultdict(int)
    values = {}
    ends = collections.defaultdict(list)  # Of the open slices of a track.
    pairs = collections.defaultdict(list)  # What began and has not ended.
    flows = collections.defaultdict(list)
    for number, event in enumerate(events):
        phase, time = event['ph'], event['ts']
        assert names['process_name', event['pid'], None] and time >= 0, event
        if phase in 'be':
            opened = pairs[event['pid'], event['cat'], event['id']]
            if phase == 'b':
                assert opened or event['name'] == event['cat'], event
                opened.append((event['name'], time))
            else:
                name, begin = opened.pop()
                assert name == event['name'] and begin <= time, event
            continue
        if phase == 'M':
            continue
        track = event['pid'], event['name'] if phase == 'C' else event['tid']
        assert last[track] <= time, event
        last[track] = time
        if phase == 'C':
            value = event['args']['value']
            assert isinstance(value, (int, float)) and values.get(track) != value, event
            values[track] = value
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
            flows[event['cat'], event['id']].append((time, number, phase, event['pid']))
    assert not any(pairs.values()), pairs
    for steps in flows.values():
        phases = ''.join(phase for _, _, phase, _ in sorted(steps))
        assert phases == 's' + 't' * (len(phases) - 2) + 'f', steps
        assert len({pid for *_, pid in steps}) == 1, steps
    return {key[1:]: name for key, name in names.items() if key[0] == 'thread_name'}
