#!/usr/bin/env python3
"""A gateway module on the module message channel for the lab: binds
<root>/var/run/csmsg/<id>, records every message that arrives as one JSON line and, in mode
"answer", replies to registration-state requests.

    module_peer.py --root ROOT --id 21 --log msgs.jsonl --mode answer --status 1 --result 0 \
        --reg-url-enable 1
    module_peer.py --root ROOT --id 150 --log msgs.jsonl --mode silent

A message is the 32-byte header (type, source, destination, flags, 7 reserved bytes, word 5,
payload length, reserved; host byte order) and its payload. The reply to a registration-state
request carries the three texts at payload offsets 0, 5 and 10, each at most 4 characters and
NUL-padded (15 bytes), or the raw bytes of --payload-hex, and goes to the requester's socket.
Modes: answer, silent (records, never replies).
"""
import argparse
import json
import os
import socket
import struct
import sys
import time

HEADER = struct.Struct("=IIIB7sIII")
REGISTRATION_STATE_REQUEST = 0x10000401


def module_path(root, module_id):
    return os.path.join(root, "var", "run", "csmsg", str(module_id))


def reply_payload(args):
    if args.payload_hex is not None:
        return bytes.fromhex(args.payload_hex)
    slot = lambda text: text.encode()[:4].ljust(5, b"\0")  # noqa: E731
    return (slot(args.status) + slot(args.result) + slot(args.reg_url_enable))[:15]


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--root", required=True)
    p.add_argument("--id", type=int, required=True)
    p.add_argument("--log", required=True)
    p.add_argument("--mode", default="answer", choices=["answer", "silent"])
    p.add_argument("--status", default="0")
    p.add_argument("--result", default="0")
    p.add_argument("--reg-url-enable", default="0")
    p.add_argument("--payload-hex", default=None)
    args = p.parse_args()

    path = module_path(args.root, args.id)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    if os.path.exists(path):
        os.unlink(path)
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    sock.bind(path)
    log = open(args.log, "a", buffering=1)
    print("ready", flush=True)
    while True:
        data = sock.recv(65536)
        entry = {"time": time.monotonic(), "size": len(data), "hex": data.hex()}
        if len(data) >= HEADER.size:
            mtype, src, dst, flags, reserved, word5, length, reserved2 = HEADER.unpack_from(data)
            entry.update(type=mtype, src=src, dst=dst, flags=flags, word5=word5, length=length,
                         reserved=reserved.hex() + f"{reserved2:08x}", payload=data[HEADER.size:].hex())
        log.write(json.dumps(entry) + "\n")
        if args.mode != "answer" or entry.get("type") != REGISTRATION_STATE_REQUEST:
            continue
        payload = reply_payload(args)
        header = HEADER.pack(entry["type"], args.id, entry["src"], 0, b"\0" * 7, 0, len(payload), 0)
        try:
            sock.sendto(header + payload, module_path(args.root, entry["src"]))
        except OSError as exc:  # the requester is gone: nothing to answer
            log.write(json.dumps({"time": time.monotonic(), "error": str(exc)}) + "\n")


if __name__ == "__main__":
    sys.exit(main())
