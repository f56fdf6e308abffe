#!/usr/bin/env python3
"""A DNS client for the lab, run inside a namespace; prints one JSON object per query.

    dnsclient.py --server 192.0.2.1 --name www.lab.example --type A [--id 4660] [--edns 1232]
    dnsclient.py --server 192.0.2.1 --wire <hex>          send these bytes as they are
    dnsclient.py --server 192.0.2.1 --burst 1036 --name x  send that many queries, no waiting
    dnsclient.py --server 192.0.2.1 --steady 160 --name x  that many, one every --pace seconds,
                                                          each waiting for its answer

Output: {"sent", "answered", "max_ms"} for --steady; {"timeout": true} or {"id", "rcode", "flags", "answer": [[name, ttl, type, rdata]...],
"additional": [...], "opt": {...} or null, "wire": hex}.
"""
import argparse
import json
import socket
import sys
import time

import dns.edns
import dns.flags
import dns.message
import dns.rdatatype


def describe(wire):
    out = {"wire": wire.hex(), "id": int.from_bytes(wire[:2], "big") if len(wire) >= 2 else None}
    try:
        msg = dns.message.from_wire(wire)
    except Exception as exc:
        out["error"] = str(exc)
        return out
    out["rcode"] = msg.rcode()
    out["flags"] = msg.flags
    out["question"] = [[q.name.to_text(), dns.rdatatype.to_text(q.rdtype)] for q in msg.question]
    out["answer"] = [[rrset.name.to_text(), rrset.ttl, dns.rdatatype.to_text(rrset.rdtype), rd.to_text()]
                     for rrset in msg.answer for rd in rrset]
    out["opt"] = None
    if msg.edns >= 0:
        out["opt"] = {"payload": msg.payload,
                      "options": [[o.otype, o.to_wire().hex() if hasattr(o, "to_wire") else ""] for o in msg.options]}
    return out


def steady(sock, wire, args):
    answered, worst, start = 0, 0.0, time.monotonic()
    for i in range(args.steady):
        time.sleep(max(0.0, start + i * args.pace - time.monotonic()))
        qid = bytes([(i >> 8) & 0xFF, i & 0xFF])
        sent = time.monotonic()
        sock.sendto(qid + wire[2:], (args.server, args.port))
        try:
            while sock.recvfrom(65535)[0][:2] != qid:  # a late answer to an earlier query
                pass
        except socket.timeout:
            continue
        answered += 1
        worst = max(worst, time.monotonic() - sent)
    print(json.dumps({"sent": args.steady, "answered": answered, "max_ms": round(worst * 1000, 1)}))
    return 0


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--server", required=True)
    p.add_argument("--port", type=int, default=53)
    p.add_argument("--name")
    p.add_argument("--type", default="A")
    p.add_argument("--id", type=int)
    p.add_argument("--edns", type=int, help="add an OPT record with this payload size")
    p.add_argument("--wire")
    p.add_argument("--burst", type=int, default=0)
    p.add_argument("--steady", type=int, default=0)
    p.add_argument("--pace", type=float, default=0.0, help="seconds to pause after every 50 of a burst, "
                   "or between steady queries")
    p.add_argument("--timeout", type=float, default=2.0)
    args = p.parse_args()

    family = socket.AF_INET6 if ":" in args.server else socket.AF_INET
    sock = socket.socket(family, socket.SOCK_DGRAM)
    sock.settimeout(args.timeout)
    if args.wire:
        wire = bytes.fromhex(args.wire)
    else:
        q = dns.message.make_query(args.name, args.type, use_edns=args.edns is not None,
                                   payload=args.edns or 1232)
        if args.id is not None:
            q.id = args.id
        wire = q.to_wire()
    if args.burst:
        for i in range(args.burst):
            sock.sendto(bytes([(i >> 8) & 0xFF, i & 0xFF]) + wire[2:], (args.server, args.port))
            if args.pace and i % 50 == 49:
                time.sleep(args.pace)
        print(json.dumps({"sent": args.burst}))
        return 0
    if args.steady:
        return steady(sock, wire, args)
    sock.sendto(wire, (args.server, args.port))
    try:
        data, _ = sock.recvfrom(65535)
    except socket.timeout:
        print(json.dumps({"timeout": True}))
        return 0
    print(json.dumps(describe(data)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
