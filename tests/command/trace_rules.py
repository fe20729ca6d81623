"""Reads the traces that explain writes, as viewers of Perfetto's form do, and checks its rules."""

import collections
import struct
import types
import zlib

SEQUENCE = 2_000_000_000  # That no recorder has: packets of others are a recording's, and left alone.
OWN_CLOCK, BOOTTIME = 64, 6
BEGIN, END, MOMENT, VALUE = 1, 2, 3, 4


class Track(types.SimpleNamespace):
    __repr__, __eq__ = object.__repr__, object.__eq__  # Tracks and slices name each other.


class Slice(Track):
    pass


def varint(data, at):
    value = shift = 0
    while True:
        value |= (data[at] & 127) << shift
        shift, at = shift + 7, at + 1
        if data[at - 1] < 128:
            return value, at


def message(data):
    """The values of each field, by its number."""
    found, at = collections.defaultdict(list), 0
    while at < len(data):
        key, at = varint(data, at)
        value, at = varint(data, at) if key & 7 in (0, 2) else (8, at)
        assert key & 7 in (0, 1, 2), key
        if key & 7:
            value, at = data[at:at + value], at + value
        found[key >> 3].append(value)
    assert at == len(data)
    return found


def within(found, number):
    return map(message, found[number])


def only(found, number):
    value, = found[number]
    return value


def packets_of(data):
    for packet in within(message(data), 1):
        if packet[50]:
            yield from packets_of(zlib.decompress(only(packet, 50)))
        elif packet[10] == [SEQUENCE]:
            yield packet


def number_of(bits, data):
    return struct.unpack(bits, data)[0]


def annotation_of(found):
    if found[4]:
        return only(found, 4) - (only(found, 4) >> 63 << 64)
    return number_of('<d', only(found, 5)) if found[5] else only(found, 6).decode()


def events_of(data, tracks):
    """The time, track and message of each event, by time. Fills the tracks."""
    names, events, track, time, flags = {}, [], None, 0, 1
    for packet in packets_of(data):
        assert packet[13] == [flags], packet
        flags = 2
        for one in (one for known in within(packet, 12) for one in within(known, 2)):
            assert only(one, 1) not in names, one
            names[only(one, 1)] = only(one, 2).decode()
        for found in within(packet, 60):
            assert only(found, 1) not in tracks and only(found, 11) == 3, found
            tracks[only(found, 1)] = Track(name=only(found, 2).decode(), rank=only(found, 12), slices=[], values=[],
                                           parent=tracks[only(found, 5)] if found[5] else None, unit=found[8])
        for found in within(packet, 6):
            clocks = {only(one, 1): (only(one, 2), only(one, 3)) for one in within(found, 1)}
            time = clocks[BOOTTIME][0]
            assert clocks == {OWN_CLOCK: (time, 1), BOOTTIME: (time, 0)}, clocks
        for found in within(packet, 59):
            assert only(found, 58) == OWN_CLOCK
            track = tracks[only(message(only(found, 11)), 11)]
        for found in within(packet, 11):
            time += only(packet, 8)
            found['name'] = names[only(found, 10)] if found[10] else None
            events.append((time, track, found))
    return sorted(events, key=lambda event: event[0])  # Those of one time keep their order.


def read_trace(data):
    """The tracks in the order in which they are shown, those of one name and parent as one, and the slices
    that each arrow goes through. Times are nanoseconds, and moments have no length."""
    tracks, stacks, arrows = {}, collections.defaultdict(list), collections.defaultdict(list)
    for time, track, event in events_of(data, tracks):
        kind, stack = only(event, 9), stacks[id(track)]
        assert (kind == VALUE) == bool(track.unit), (event, track.name)
        if kind == VALUE:
            track.values.append((time, number_of('<d', only(event, 44))))
        elif kind == END:
            stack.pop().end = time
        else:
            one = Slice(track=track, time=time, end=time if kind == MOMENT else None, name=event['name'],
                        outer=stack[-1] if stack else None,
                        annotations={only(one, 10).decode(): annotation_of(one) for one in within(event, 4)},
                        arrows=[number_of('<Q', arrow) for arrow in event[47]])
            track.slices.append(one)
            stack += [one] if kind == BEGIN else []
            for arrow in one.arrows:
                arrows[arrow].append(one)
    assert not any(stacks.values()), 'a begin without an end'
    shown = {}
    for track in tracks.values():
        first = shown.setdefault((id(track.parent), track.name), track)
        assert first.rank == track.rank, track.name
        first.slices += track.slices if first is not track else []
    return sorted(shown.values(), key=lambda track: track.rank), list(arrows.values())
