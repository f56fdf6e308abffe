#!/usr/bin/env python3
# A DNS client for the lab, run inside a namespace; prints one JSON object.
#
#     dnsclient.py --server 192.0.2.1 --name www.lab.example --type A [--id 4660] [--edns 1232]
#     dnsclient.py --server 192.0.2.1 --wire <hex>           send these bytes as they are
#     dnsclient.py --server 192.0.2.1 --burst 1036 --name x  that many queries, no waiting (a pause
#                                                           of --pace seconds after every 50)
#     dnsclient.py --server 192.0.2.1 --steady 160 --name x  that many, one every --pace seconds,
#                                                           each waiting for its answer
#
# Output: {"sent"} for --burst; {"sent", "answered", "max_ms"} for --steady; {"timeout": true};
# else {"wire": hex, "id"} and, when it parses, "rcode", "question" [[name, type]], "answer"
# [[name, ttl, type, rdata]] and "opt" (the OPT record's payload size, or null).
import argparse
import json
import socket
import time

import dns.message
import dns.rdatatype


def describe(wire):
    out = {"wire": wire.hex(), "id": int.from_bytes(wire[:2], "big")}
    try:
        msg = dns.message.from_wire(wire)
    except Exception:  # the test looks at the bytes
        return out
    out["rcode"], out["flags"] = msg.rcode(), msg.flags
    out["question"] = [[q.name.to_text(), dns.rdatatype.to_text(q.rdtype)] for q in msg.question]
    out["answer"] = [[rrset.name.to_text(), rrset.ttl, dns.rdatatype.to_text(rrset.rdtype), rd.to_text()]
                     for rrset in msg.answer for rd in rrset]
    out["opt"] = msg.payload if msg.edns >= 0 else None
    return out


def main():
    p = argparse.ArgumentParser()
    for name, kind in (("server", str), ("name", str), ("type", str), ("id", int), ("edns", int), ("wire", str),
                       ("burst", int), ("steady", int), ("pace", float), ("timeout", float)):
        p.add_argument("--" + name, type=kind)
    args = p.parse_args()
    sock = socket.socket(socket.AF_INET6 if ":" in args.server else socket.AF_INET, socket.SOCK_DGRAM)
    sock.settimeout(args.timeout)
    server = (args.server, 53)
    if args.wire:
        wire = bytes.fromhex(args.wire)
    else:
        q = dns.message.make_query(args.name, args.type, use_edns=args.edns is not None, payload=args.edns or 1232)
        q.id = q.id if args.id is None else args.id
        wire = q.to_wire()
    if args.burst:
        for i in range(args.burst):
            sock.sendto(i.to_bytes(2, "big") + wire[2:], server)
            if args.pace and i % 50 == 49:
                time.sleep(args.pace)
        return print(json.dumps({"sent": args.burst}))
    if args.steady:
        answered, worst, start = 0, 0.0, time.monotonic()
        for i in range(args.steady):
            time.sleep(max(0.0, start + i * args.pace - time.monotonic()))
            sent = time.monotonic()
            sock.sendto(i.to_bytes(2, "big") + wire[2:], server)
            try:
                while sock.recvfrom(65535)[0][:2] != i.to_bytes(2, "big"):  # a late answer to an earlier query
                    pass
            except socket.timeout:
                continue
            answered, worst = answered + 1, max(worst, time.monotonic() - sent)
        return print(json.dumps({"sent": args.steady, "answered": answered, "max_ms": round(worst * 1000, 1)}))
    sock.sendto(wire, server)
    try:
        print(json.dumps(describe(sock.recvfrom(65535)[0])))
    except socket.timeout:
        print(json.dumps({"timeout": True}))


if __name__ == "__main__":
    main()
