#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets: well-formed requests of every
kind and malformed ones of every kind the receiver refuses."""
import os
import sys

here = os.path.dirname(os.path.abspath(__file__))
D = b"\0"


def frames_input(frames):
    out = b""
    for f in frames:
        out += bytes([len(f) & 0xFF, (len(f) >> 8) & 0xFF]) + f
    return out


def msg(routes=(), headers=None, payload=b"hello"):
    if headers is None:
        headers = {b"ack_mode": b"1", b"app_id": b"app", b"id": b"0b5ad2a4-3d69-4c4a-9d7e-2f4f1c3e8a10",
                   b"origin": b"a,b,", b"p_size": str(len(payload)).encode(), b"p_type": b"text",
                   b"valid_for": b"30"}
    return list(routes) + [D, b"MSG"] + [k + b"|" + v for k, v in sorted(headers.items())] + [D, payload]


receiver = {
    "msg": msg([b"r1", b"r2"]),
    "msg_no_routes": msg(),
    "msg_empty_payload": msg(payload=b""),
    "reg": [D, b"REG", b"p_size|2", b"p_type|json", D, b"{}"],
    "box": [D, b"BOX", b"app_id|app", b"box_type|clnt", D, D],
    "ack": [D, b"ACK", b"msg_id|x", D, D],
    "greg": [D, b"GREG", D, D],
    "bad_header": [D, b"MSG", b"no separator", D, b"x"],
    "unknown_command": [D, b"NOPE", D, D],
    "short_payload": [D, b"REG", b"p_size|9", b"p_type|json", D, b"{}"],
    "bad_p_size": [D, b"REG", b"p_size|abc", b"p_type|json", D, b"{}"],
    "long_frame": [b"r" * 150, D, b"GREG", D, D],
    "frames_after_payload": [D, b"REG", b"p_size|2", b"p_type|json", D, b"{}", b"more"],
    "bad_termination": [D, b"ACK", b"msg_id|x", D, b"x"],
    "ends_early": [D],
    "huge_p_size": [D, b"REG", b"p_size|4294967295", b"p_type|json", D, b"{}"],
}

headers = {
    "message": b"\x00ack_mode|1\napp_id|app\nid|x\norigin|a,b,\nvalid_for|30",
    "message_bad_ack": b"\x00ack_mode|x\napp_id|app\nid|x\norigin|,\nvalid_for|30",
    "message_bad_valid": b"\x00ack_mode|1\napp_id|app\nid|x\norigin|,\nvalid_for|abc",
    "inbox": b"\x01app_id|app\nbox_type|clnt",
    "inbox_node": b"\x01app_id|app\nbox_type|node",
    "inbox_bad": b"\x01app_id|app\nbox_type|Node\nextra|1",
    "ack": b"\x02msg_id|x",
    "greg": b"\x03",
    "greg_bad": b"\x03a|b",
    "registry": b"\x04",
}

for name, corpus in (("receiver", {k: frames_input(v) for k, v in receiver.items()}), ("headers", headers)):
    folder = os.path.join(sys.argv[1] if len(sys.argv) > 1 else os.path.join(here, "corpus"), name)
    os.makedirs(folder, exist_ok=True)
    for key, data in corpus.items():
        with open(os.path.join(folder, key), "wb") as f:
            f.write(data)
