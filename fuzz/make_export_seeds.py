#!/usr/bin/env python3
"""Writes the seed inputs of the event_block and counters_block fuzz targets into
fuzz/corpus/event_block/ and fuzz/corpus/counters_block/."""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
T = 1700000000000000


def event_block(schema, type_index, count, events, magic=b"OBXE"):
    return magic + struct.pack("<QBHB", T, schema, type_index, count) + events


def inner(lo, hi):
    return struct.pack("<HH", lo, hi)


def event(text, double=0.5, flt=1.5):
    # t, s[8], p[4] of inner, b, d, f, n[3], u[2]: 50 bytes
    return (struct.pack("<Q", T) + text.ljust(8, b"\0")[:8] + b"".join(inner(i, 2 * i) for i in range(4))
            + b"\x01" + struct.pack("<df", double, flt) + b"\xff\x01\x7f" + b"ok")


def flat(x, y):
    return struct.pack("<Qi", x, y)


def schemas_block(count, size=256, ids=b""):
    return (b"OBXS" + struct.pack("<HH", size, count) + bytes(8) + ids).ljust(max(size, 256), b"\0")


NAN = float("nan")
EVENT_SEEDS = {
    "two_types": event_block(0, 2, 2, flat(1, -1) + flat(2**64 - 1, 7)) + event_block(0, 0, 1, inner(3, 4)),
    "text_fields": event_block(0, 1, 3, event(b"abc") + event(b"ab\tcd") + event(b"\xc3\xa9\xff")),
    "nan_double": event_block(0, 1, 1, event(b"x", double=NAN)),
    "zero_events_then_tail": event_block(0, 1, 0, b"") + event_block(0, 0, 1, inner(1, 1)) + bytes(20),
    "lying_count": event_block(0, 1, 255, event(b"only")),
    "cut_head": b"OBXE" + bytes(6),
    "schemas_clear": schemas_block(0) + event_block(0, 2, 1, flat(5, 5)),
    "schemas_count_15": schemas_block(15, size=300),
    "schemas_unknown_id": schemas_block(1, ids=b"\x11" * 16),
    "type_index_high_byte": event_block(0, 0x0101, 1, event(b"hi")),
    "unknown_schema": event_block(3, 0, 1, inner(0, 0)),
}


def counters_block(values, magic=b"OBXD", timestamp=T):
    return magic + bytes(4) + struct.pack("<Q", timestamp) + values


# Ordinary schema: u, f, b, s[12], i (44 bytes), busy, idle (16), e (8): 68 bytes.
WHOLE = (struct.pack("<QdQ", 42, 1.5, 0xABCDEF) + b"node01".ljust(12, b"\0") + struct.pack("<q", -5000)
         + struct.pack("<Qq", 1000, 999) + struct.pack("<d", 2.5))
COUNTERS_SEEDS = {
    "whole": counters_block(WHOLE),
    "short_values": counters_block(WHOLE[:10]),
    "head_only": counters_block(b""),
    "cut_head": b"OBXD" + bytes(5),
    "nan_and_bad_text": counters_block(struct.pack("<QdQ", 1, NAN, 2) + b"\xff\xfe\xfd".ljust(12, b"A")
                                       + WHOLE[44:]),
    "large_for_hostile": counters_block(WHOLE + bytes(4100), timestamp=0),
}


def write(folder, seeds):
    out = os.path.join(HERE, "corpus", folder)
    os.makedirs(out, exist_ok=True)
    for name, data in seeds.items():
        with open(os.path.join(out, name), "wb") as f:
            f.write(data)


write("event_block", EVENT_SEEDS)
write("counters_block", COUNTERS_SEEDS)
