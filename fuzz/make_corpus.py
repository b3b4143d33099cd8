#!/usr/bin/env python3
"""Writes the seed corpora: well-formed and damaged Gateway replies.

corpus/: the first byte of each seed picks the flow (see fuzz_gateway_reply.cpp):
0 handshake, 1 close, 2 COMMAREA call (6: extend mode 2, 0x0A: a TPN call,
0x12: an unknown call type, 0x1A: bounded to 10 bytes back, 0x22: backout),
3 server list.
corpus_channel/: replies to a channel call holding KEEP, TEXT and EMPTY."""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def header(flow, name, length, magic=b"Gate"):
    return (magic + struct.pack(">IiiiI", 0x10800000, flow, 0, 0, len(name)) + name + b"\x00" +
            struct.pack(">i", length))


def program_reply(data, commarea_len=100, channel=b"\x00", flag=b"\x00", reply_len=None):
    body = struct.pack(">iiii", 1, 7, 0, 0) + b"ABCD" + struct.pack(">i", commarea_len) + flag
    if flag != b"\x00":
        body += b"\x00" + struct.pack(">i", len(data) if reply_len is None else reply_len)
    return body + data + channel


def list_reply(entries, count=None, rc=0):
    data = b"".join(n.ljust(8).encode() + b"\x00" + d.ljust(60).encode() + b"\x00" for n, d in entries)
    return struct.pack(">iiii", 9, len(entries) if count is None else count, rc, len(data)) + data


seeds = {
    "handshake_ok": b"\x00" + header(5, b"BASE", 8) + b"\x00\x02en\x00\x02GB",
    "handshake_empty": b"\x00" + header(5, b"BASE", 0),
    "handshake_bad_name": b"\x00" + header(5, b"XXXXXXXX", 0, magic=b"BAD!"),
    "close_ok": b"\x01" + header(10, b"BASE", 0),
    "close_body": b"\x01" + header(10, b"BASE", 3) + b"xyz",
}
body = program_reply(b"h" * 100)
seeds["eci_echo"] = b"\x02" + header(1, b"ECI", len(body)) + body
body = program_reply(b"h" * 10, flag=b"\xff")
seeds["eci_short"] = b"\x02" + header(1, b"ECI", len(body)) + body
body = program_reply(b"h" * 164, commarea_len=164, flag=b"\xff")
seeds["eci_oversize"] = b"\x02" + header(1, b"ECI", len(body)) + body
body = program_reply(b"h" * 100, channel=b"\xff" + b"\x00" * 30)
seeds["eci_channel"] = b"\x02" + header(1, b"ECI", len(body)) + body
body = program_reply(b"", flag=b"\xff", reply_len=5000)
seeds["eci_lying_length"] = b"\x02" + header(1, b"ECI", len(body)) + body
body = program_reply(b"")
seeds["eci_commit"] = b"\x06" + header(1, b"ECI", len(body)) + body
seeds["eci_backout"] = b"\x22" + header(1, b"ECI", len(body)) + body
body = program_reply(b"t" * 100)
seeds["eci_tpn"] = b"\x0a" + header(1, b"ECI", len(body)) + body
body = struct.pack(">i", 7)
seeds["eci_unknown_type"] = b"\x12" + header(1, b"ECI", len(body)) + body
body = program_reply(b"b" * 10, flag=b"\xff")
seeds["eci_bounded"] = b"\x1a" + header(1, b"ECI", len(body)) + body
seeds["eci_exception"] = b"\x02" + header(6, b"ECI", 8) + struct.pack(">ii", 1, 4)
seeds["eci_negative_length"] = b"\x02" + header(1, b"ECI", -5)
seeds["eci_truncated"] = b"\x02" + header(1, b"ECI", 200) + b"\x00\x00\x00\x01"
body = list_reply([("QVADEMO", "Demo"), ("QVATEST", "Test")])
seeds["list_two"] = b"\x03" + header(1, b"ECI", len(body)) + body
body = list_reply([("S%d" % i, "x") for i in range(5)])
seeds["list_oversize"] = b"\x03" + header(1, b"ECI", len(body)) + body
body = struct.pack(">iiii", 9, 1, 0, -70)
seeds["list_negative"] = b"\x03" + header(1, b"ECI", len(body)) + body



def entry(name, state, data=b"", ctype=1, ccsid=0, length=None):
    return (name.encode().ljust(16, b"\x00") + bytes([state, 0, 0, ctype]) +
            struct.pack(">iI", ccsid, len(data) if length is None else length) + data)


def channel_reply(entries, count=None, name=b"FUZZ", ccsid=1208):
    body = (struct.pack(">iiii", 1, 7, 0, 0) + b"    " + struct.pack(">i", 0) + b"\x00" + b"\xff" +
            name.ljust(16, b"\x00") + struct.pack(">ii", ccsid, len(entries) if count is None else count) +
            b"".join(entries))
    return header(1, b"ECI", len(body)) + body


channel_seeds = {
    "every_state": channel_reply([entry("NEW", 1, b"new", 2, 37), entry("KEEP", 2), entry("TEXT", 3, b"TEXT!"),
                                  entry("EMPTY", 4)]),
    "same_length": channel_reply([entry("TEXT", 3, b"SOME TEXT", 2, 1208)]),
    "delete_cursor": channel_reply([entry("TEXT", 2), entry("EMPTY", 3, b"now full")]),
    "renamed_none": channel_reply([], name=b"RENAMED_CHANNEL!"),
    "unknown_state": channel_reply([entry("X", 9), entry("Y", 1, b"y")]),
    "delete_unknown": channel_reply([entry("NOPE", 2), entry("Z", 1)]),
    "lying_length": channel_reply([entry("TEXT", 3, b"abc", length=1000)]),
    "huge_count": channel_reply([entry("KEEP", 4)], count=0x7FFFFFFF),
    "truncated": channel_reply([entry("KEEP", 2)], count=2)[:-10],
    "no_channel": header(1, b"ECI", 22) + struct.pack(">iiii", 1, 7, 0, 0) + b"    " + b"\x00\x00",
}

for folder, table in (("corpus", seeds), ("corpus_channel", channel_seeds)):
    os.makedirs(os.path.join(HERE, folder), exist_ok=True)
    for name, data in table.items():
        with open(os.path.join(HERE, folder, name), "wb") as f:
            f.write(data)
