#!/usr/bin/env python3
"""Writes the seed corpora under fuzz/corpus/<target>/ (committed; rerun after changing a seed)."""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def be32(v):
    return struct.pack(">I", v)


def packet(payload):
    return be32(len(payload) + 4) + payload


def pieces(*chunks):
    out = b""
    for c in chunks:
        if isinstance(c, tuple):  # (16 KiB units 1..15, fill byte)
            out += bytes([0xEF + c[0], c[1]])
        else:
            for i in range(0, len(c), 0xEF):
                out += bytes([len(c[i : i + 0xEF])]) + c[i : i + 0xEF]
    return out


SEEDS = {
    "fuzz_length_parser": {
        "hello": be32(16 << 20) + packet(b"hello"),
        "empty_packet": be32(16 << 20) + be32(4),
        "below_header": be32(0) + be32(3),
        "largest": be32(0xFFFFFFFF) + be32(0x7FFFFFFF),
        "over_max": be32(100) + be32(101) + b"x",
        "short": be32(16 << 20) + b"\x00\x00",
    },
    "fuzz_url": {
        "v4": b"tcp://127.0.0.1:7000",
        "v6": b"tcp://[::1]:9000",
        "v6_mapped": b"tcp://[::ffff:10.1.2.3]:443",
        "v6_scope": b"tcp://[fe80::1%lo]:80",
        "port_zero": b"tcp://1.2.3.4:0",
        "port_big": b"tcp://1.2.3.4:65536",
        "host_name": b"tcp://localhost:1",
        "no_port": b"tcp://1.2.3.4",
        "short": b"tcp:/",
        "other_scheme": b"udp://1.2.3.4:5",
        "v6_unclosed": b"tcp://[::1:80",
    },
    "fuzz_framing": {
        # options byte, then pieces
        "one_packet_split": b"\x00" + pieces(packet(b"hello")[:3], packet(b"hello")[3:]),
        "callback_three": b"\x04" + pieces(packet(b"a") + packet(b"bb") + packet(b"")),
        "callback_keeps_odd": b"\x0c" + pieces(packet(b"x") + be32(0x101) + b"y" * 0xFD, b"y" * 4),
        "multi_block": b"\x20" + pieces(be32(65552), (4, 0x61), b"b" * 12),
        # the second packet would run past the end of the first block
        "block_boundary": b"\x40" + pieces(be32(49156), (3, 0x70), be32(16388), (1, 0x71), packet(b"r")),
        "malformed": b"\x00" + pieces(packet(b"ok"), be32(2) + b"zz"),
        "over_max": b"\x00" + pieces(be32(300 << 10), (15, 0x63)),
        "reset_midway": b"\x10" + pieces(be32(100) + b"partial"),
        "ring_full": b"\x02" + pieces(*([be32(4) * 59] * 20)),
        "one_per_tick": b"\x01" + pieces(*([packet(b"abc") * 30] * 4)),
        "chaos_ops": b"\x00" + pieces(bytes([0x06, 0x0E, 0x00, 0x10, 0x04, 0x1C, 0x00, 0x00, 0x08])),
    },
    # byte 0: bit 0 a real handshake first, bit 1 the last piece sent raw (a corrupt record);
    # (units, byte) pieces are units * 4 KiB here
    "fuzz_tls": {
        "http_instead_of_hello": b"\x00" + pieces(b"GET / HTTP/1.1\r\nHost: x\r\n\r\n"),
        "hello_prefix": b"\x00" + pieces(bytes([0x16, 0x03, 0x01, 0x02, 0x00, 0x01, 0x00, 0x01, 0xFC, 0x03, 0x03])),
        "bad_record_type": b"\x00" + pieces(bytes([0x17, 0x03, 0x03, 0x00, 0x05]) + b"abcde"),
        "packets": b"\x01" + pieces(packet(b"a"), packet(b"bb") + packet(b"ccc"), packet(b"d" * 100)),
        "big_packet": b"\x01" + pieces(be32(20484), (5, 0x62)),
        "corrupt_record": b"\x03" + pieces(packet(b"ok"), bytes([0x17, 0x03, 0x03, 0x00, 0x20]) + b"x" * 32),
        "split_header": b"\x01" + pieces(b"\x00\x00", b"\x00\x09abc", b"de"),
    },
}

for target, seeds in SEEDS.items():
    d = os.path.join(HERE, "corpus", target)
    os.makedirs(d, exist_ok=True)
    for name, data in seeds.items():
        with open(os.path.join(d, name), "wb") as f:
            f.write(data)
