#!/usr/bin/env python3
"""Writes the seed inputs of the encoded_page fuzz target into fuzz/corpus/encoded_page/."""
import os
import struct
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))
OUT = os.path.join(HERE, "corpus", "encoded_page")


def gzip(data):
    c = zlib.compressobj(9, zlib.DEFLATED, 31)
    return c.compress(data) + c.flush()


def snappy_literal(data):
    # Uncompressed length as a varint, then one literal element (up to 60 bytes).
    assert 0 < len(data) <= 60
    return bytes([len(data), (len(data) - 1) << 2]) + data


def header(kind, stream, source=b"node01", tag=b"tag", h=None, s=None):
    size = 24 + len(source) + len(tag) if h is None else h
    return (struct.pack("<BBIQQ", size, ord(kind), len(stream) if s is None else s, 1700000000000000,
                        1700000001000000)
            + bytes([len(source)]) + source + bytes([len(tag)]) + tag + stream)


def frame(payload, trailer=b"obxp"):
    return b"OBXP" + payload + trailer


PAGE = b"OBXE" + struct.pack("<QBHB", 1700000000000000, 0, 1, 2) + bytes(range(32))
gz = gzip(PAGE)
seeds = {
    "gzip_payload": header("G", gz),
    "snappy_payload": header("S", snappy_literal(PAGE[:60])),
    "gzip_frame": frame(header("G", gz)),
    "two_frames": frame(header("G", gz)) + frame(header("S", snappy_literal(b"OBXD" + bytes(20)))),
    "lying_isize": header("G", gz[:-4] + struct.pack("<I", 7)),
    "short_gzip": header("G", b"\x1f\x8b"),
    "stream_past_end": header("S", snappy_literal(b"abc"), s=4000),
    "negative_source_length": header("G", gz, source=b"x" * 200),
    "wrong_trailer": frame(header("G", gz), trailer=b"obxq"),
}
os.makedirs(OUT, exist_ok=True)
for name, data in seeds.items():
    with open(os.path.join(OUT, name), "wb") as f:
        f.write(data)
