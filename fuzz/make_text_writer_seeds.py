#!/usr/bin/env python3
"""Writes the seed inputs of the event_text and counters_text fuzz targets."""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def write(corpus, seeds):
    out = os.path.join(HERE, "corpus", corpus)
    os.makedirs(out, exist_ok=True)
    for name, data in seeds.items():
        with open(os.path.join(out, name), "wb") as f:
            f.write(data)


NAN = struct.pack("<d", float("nan"))
INF32 = struct.pack("<f", float("inf"))

# Byte 0: type (0 every, 1 texts, 2 leaf, 3 tree, 4 forest); byte 1: bit 0 slashes, bit 1 UTF-8.
every = bytes(range(1, 97))
write("event_text", {
    "every_counting": b"\x00\x00" + every,
    "every_ones": b"\x00\x03" + b"\xff" * 96,
    "texts_escapes": b"\x01\x01" + b'a"b/\\\tz' + b"\xc3\xa9x" + b"A" + b"\x80\x7f\x00\x01",
    "texts_short": b"\x01\x02ab",
    "leaf_nan_shadowed": b"\x02\x00" + NAN + b"ok\x00\x00" + struct.pack("<f", 1.5),
    "tree_inf_inside": b"\x03\x01" + bytes(16) + bytes(4) + INF32 + bytes(60),
    "forest_mixed": b"\x04\x02" + bytes((i * 37) & 0xFF for i in range(180)),
    "nothing": b"\x04",
})

# Byte 0: bit 0 slashes, bit 1 pretty; then the block.
head = b"OBXD" + bytes(4) + struct.pack("<Q", 1700000000123456)
values = (struct.pack("<d", 0.25) + b"host\x00" + struct.pack("<Q", 2**64 - 1) + struct.pack("<q", -7)
          + struct.pack("<Q", 0xFF00FF) + struct.pack("<q", 5) + NAN + b"\xc3(")
write("counters_text", {
    "whole": b"\x02" + head + values,
    "whole_plain": b"\x01" + head + values,
    "cut_in_values": b"\x02" + head + values[:20],
    "head_only": b"\x00" + head,
    "short_head": b"\x02OBXD\x00\x00",
    "empty": b"\x03",
})
