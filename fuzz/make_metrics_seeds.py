#!/usr/bin/env python3
"""Writes the seed inputs of the labels_block and cntx_block fuzz targets into
fuzz/corpus/labels_block/ and fuzz/corpus/cntx_block/."""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def short(text):
    return bytes([len(text)]) + text


def strings(prefix, items, suffix, count=None):
    return prefix + struct.pack("<H", len(items) if count is None else count) + b"".join(map(short, items)) + suffix


def lbln(names):
    return b"LBLN" + bytes([len(names)]) + b"".join(map(short, names)) + bytes(4)


def labels(set_id, encoding, entries):
    body = b""
    for entry in entries:
        if encoding == b"L":
            body += bytes([entry])
        elif encoding == b"I":
            body += short(entry)
        elif isinstance(entry, int):
            body += b"L" + bytes([entry])
        else:
            body += b"I" + short(entry)
    return bytes([set_id, len(entries)]) + encoding + body


def record(timestamp, kind, samples, labels_block):
    body = struct.pack("<QBBH", timestamp, ord(kind), 1, len(samples))
    body += b"".join(struct.pack("<HQ", i, v) for i, v in samples) + labels_block
    return struct.pack("<H", 2 + len(body)) + body


def hist(name, labels_block):
    return (b"HIST" + struct.pack("<Q", 1700000000000000) + short(name) + bytes([1])
            + struct.pack("<dQ", 10.0, 3) + struct.pack("<dQ", 12.5, 3) + labels_block + b"hist")


def block(sections, records, blocksize=None, end=b"cntdcntx", total=None):
    data = b"".join(records)
    body = b"".join(sections) + b"CNTD" + struct.pack("<I", len(data) if blocksize is None else blocksize) + data
    size = 8 + len(body) + len(end)
    return b"CNTX" + struct.pack("<I", size if total is None else total) + body + end


EXAMPLE_SECTIONS = [lbln([b"device", b"port"]), strings(b"LBLV", [b"hca0", b"1"], b"lblv"),
                    strings(b"CNTI", [b"rx_bytes", b"tx_bytes"], b"cnti"),
                    strings(b"CLBL", [b"site", b"lab"], b"clbl")]
EXAMPLE_RECORDS = [record(1700000000000000, "C", [(0, 100), (1, 200)], labels(0, b"L", [0, 1])),
                   record(1700000001000000, "G", [(1, 250)], labels(0, b"M", [0, b"p2"]))]
EXAMPLE = block(EXAMPLE_SECTIONS, EXAMPLE_RECORDS)
assert len(EXAMPLE) == 181

CNTX_SEEDS = {
    "example": EXAMPLE,
    "example_cut": EXAMPLE[:120],
    "example_in_zero_chunk": EXAMPLE + bytes(75),
    "hist_and_inline_labels": block(
        [strings(b"CLBL", [b"k", b"v", b"odd"], b"clbl"), lbln([b"a"]), lbln([]),
         strings(b"LBLV", [b"x"], b"lblv"), strings(b"CNTI", [b"m"], b"cnti"), hist(b"lat", labels(0, b"L", [0]))],
        [record(5, "C", [], labels(1, b"I", [b"q", b""])), record(6, "G", [(0, 2**64 - 1)], labels(0, b"L", [0]))]),
    "lying_counts": block([lbln([b"a"]), strings(b"LBLV", [b"x"], b"lblv", count=9),
                           strings(b"CNTI", [b"m"], b"cnti")], [record(1, "C", [(0, 1)], labels(0, b"L", [0]))]),
    "bad_label_id": block(EXAMPLE_SECTIONS, [record(1, "C", [(0, 1)], labels(0, b"L", [7]))]),
    "metric_id_past_names": block(EXAMPLE_SECTIONS, [record(1, "C", [(9, 1)], labels(0, b"L", [0, 1]))]),
    "huge_blocksize": block(EXAMPLE_SECTIONS, EXAMPLE_RECORDS, blocksize=0xFFFFFFFF),
    "no_records": block(EXAMPLE_SECTIONS, []),
}

LABELS_SEEDS = {
    "by_id": b"\x00" + labels(0, b"L", [0, 1, 3]),
    "inline": b"\x02" + b"zz" + labels(1, b"I", [b"hca0", b""]),
    "mixed": b"\x00" + labels(2, b"M", [1, b"p2", 2]),
    "bad_sub_encoding": b"\x00" + bytes([0, 1]) + b"MM\x00",
    "text_runs_over": b"\x00" + bytes([0, 2]) + b"I\x01a\x09b",
}

for folder, seeds in (("cntx_block", CNTX_SEEDS), ("labels_block", LABELS_SEEDS)):
    out = os.path.join(HERE, "corpus", folder)
    os.makedirs(out, exist_ok=True)
    for name, data in seeds.items():
        with open(os.path.join(out, name), "wb") as f:
            f.write(data)
