#!/usr/bin/env python3
"""Writes the seed inputs of the file_walk fuzz target into fuzz/corpus/file_walk/."""
import gzip as gzip_file
import os
import struct
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))
OUT = os.path.join(HERE, "corpus", "file_walk")


def file_header(block_size=64, first=1700000000000000, last=1700000060000000, magic=b"OBXF"):
    h = bytearray(256)
    h[0:4] = magic
    h[4], h[5] = 1, 7
    struct.pack_into("<Q", h, 8, 256)
    h[16:22] = b"node01"
    h[80:83] = b"tag"
    struct.pack_into("<QQI", h, 96, first, last, block_size)
    h[252:256] = b"obxf"
    return bytes(h)


def gzip_stream(data):
    c = zlib.compressobj(9, zlib.DEFLATED, 31)
    return c.compress(data) + c.flush()


def snappy_literal(data):
    # Uncompressed length as a varint, then one literal element (up to 60 bytes).
    assert 0 < len(data) <= 60
    return bytes([len(data), (len(data) - 1) << 2]) + data


def frame(kind, stream, trailer=b"obxp"):
    source, tag = b"node01", b"tag"
    header = (struct.pack("<BBIQQ", 24 + len(source) + len(tag), ord(kind), len(stream), 1700000000000000,
                          1700000001000000)
              + bytes([len(source)]) + source + bytes([len(tag)]) + tag)
    return b"OBXP" + header + stream + trailer


def chunk(data, size):
    return data + bytes(max(0, size - len(data)))


PAGE = b"OBXE" + struct.pack("<QBHB", 1700000000000000, 0, 1, 0) + bytes(24)
COUNTERS = b"OBXD" + bytes(4) + struct.pack("<Q", 1700000000000000) + bytes(16)
seeds = {
    "empty_body": file_header(),
    "short_body": file_header() + b"OBX",
    "plain_chunks": file_header(64) + chunk(COUNTERS, 64) + COUNTERS[:20],
    "gzip_page": file_header(256) + chunk(frame("G", gzip_stream(PAGE)), 256),
    "snappy_pages": file_header(256) + chunk(frame("S", snappy_literal(PAGE)) + frame("S", snappy_literal(COUNTERS)),
                                             256),
    "wrong_trailer": file_header(256) + chunk(frame("G", gzip_stream(PAGE)) + frame("G", gzip_stream(PAGE), b"obxq"),
                                              256),
    "bad_block_size": file_header(15) + bytes(16),
    "out_of_range": file_header(64, first=100, last=200) + chunk(COUNTERS, 64),
}
os.makedirs(OUT, exist_ok=True)
for name, data in seeds.items():
    with open(os.path.join(OUT, name), "wb") as f:
        f.write(data)
with open(os.path.join(OUT, "gzip_wrapped"), "wb") as f:
    f.write(gzip_file.compress(file_header(256) + chunk(frame("G", gzip_stream(PAGE)), 256), mtime=0))
