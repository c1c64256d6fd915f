#!/usr/bin/env python3
"""Writes the seed inputs of the text_utils fuzz target into fuzz/corpus/text_utils/."""
import os

HERE = os.path.dirname(os.path.abspath(__file__))
OUT = os.path.join(HERE, "corpus", "text_utils")

SEEDS = {
    "comma_list": b",,port_rcv, port_xmit ,,link*,",
    "long_element": b"a," + b"x" * 1100 + b",b",
    "numbers": b"0x1F",
    "overflow": b"18446744073709551616",
    "version": b"1.22 .7",
    "guid": b"00112233-4455-6677-8899-AABBCCDDEEFF",
    "unprintable": b"\x80abc\x00tail",
    "pattern_and_name": b"port\nPORT.rx_bytes",
    "overlap": b"aa\naaaa",
    "blanks": b" \t a b \r\n",
}

os.makedirs(OUT, exist_ok=True)
for name, data in SEEDS.items():
    with open(os.path.join(OUT, name), "wb") as f:
        f.write(data)
