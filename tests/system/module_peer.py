#!/usr/bin/env python3
# A gateway module on the module message channel for the lab: binds <root>/var/run/csmsg/<id>,
# records every message that arrives as one JSON line and answers registration-state requests
# with --reply: "status,result,regUrlEnable" (each text at most 4 characters, NUL-padded to 5
# bytes: 15 bytes), "hex:<payload bytes>", or "none" for no answer.
#
#     module_peer.py --root ROOT --id 21 --log msgs.jsonl --reply 1,0,1
#
# A message is the 32-byte header (type, source, destination, flags, 7 reserved bytes, word 5,
# payload length, reserved; host byte order) and its payload.
import argparse
import json
import os
import socket
import struct
import time

HEADER = struct.Struct("=IIIB7sIII")


def main():
    p = argparse.ArgumentParser()
    for name in ("root", "id", "log", "reply"):
        p.add_argument("--" + name, required=True)
    args = p.parse_args()
    if args.reply.startswith("hex:"):
        payload = bytes.fromhex(args.reply[4:])
    else:
        payload = b"".join(t.encode()[:4].ljust(5, b"\0") for t in args.reply.split(","))[:15]
    path = os.path.join(args.root, "var/run/csmsg", args.id)
    if os.path.exists(path):
        os.unlink(path)
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    sock.bind(path)
    log = open(args.log, "a", buffering=1)
    print("ready", flush=True)
    while True:
        data = sock.recv(65536)
        mtype, src, dst, flags, _, word5, length, _ = HEADER.unpack_from(data)
        log.write(json.dumps({"time": time.monotonic(), "size": len(data), "type": mtype, "src": src, "dst": dst,
                              "flags": flags, "word5": word5, "length": length,
                              "payload": data[HEADER.size:].hex()}) + "\n")
        if args.reply != "none" and mtype == 0x10000401:  # a registration-state request
            try:
                sock.sendto(HEADER.pack(mtype, int(args.id), src, 0, bytes(7), 0, len(payload), 0) + payload,
                            os.path.join(args.root, "var/run/csmsg", str(src)))
            except OSError:  # the requester is gone: nothing to answer
                pass


if __name__ == "__main__":
    main()
