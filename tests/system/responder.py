#!/usr/bin/env python3
# A scriptable upstream DNS server for the lab: binds UDP port 53 on one address, answers each
# query as its mode says and records every query as one JSON line.
#
#     responder.py --addr 198.51.100.53 --mode answer --log queries.jsonl [--a 203.0.113.7] [--ttl 300]
#
# Modes: answer (the --a records, or 2001:db8:3::7 for AAAA), empty (NOERROR, no records), silent
# (records, never answers), delay (answers after --delay seconds), forge (what an off-path host
# sends first: the answer with 203.0.113.66 from --forge-from and from port 5353, and one to
# another question; then the real answer after --delay seconds).
import argparse
import json
import socket
import threading
import time

import dns.message
import dns.rdatatype
import dns.rrset


def answer(query, a, args, name=None):
    resp = dns.message.make_response(query)
    q = query.question[0]
    if args.mode != "empty" and q.rdtype in (dns.rdatatype.A, dns.rdatatype.AAAA):
        rdata = a if q.rdtype == dns.rdatatype.A else ["2001:db8:3::7"]
        resp.answer.append(dns.rrset.from_text(name or q.name, args.ttl, "IN", q.rdtype, *rdata))
    return resp


def forge(sock, query, peer, args):
    wire = answer(query, ["203.0.113.66"], args).to_wire()
    for addr, port in ((args.forge_from, 53), (args.addr, 5353)):
        with socket.socket(sock.family, socket.SOCK_DGRAM) as s:
            s.bind((addr, port))
            s.sendto(wire, peer)
    other = dns.message.make_query("other." + query.question[0].name.to_text(), query.question[0].rdtype)
    other.id = query.id
    sock.sendto(answer(other, ["203.0.113.66"], args).to_wire(), peer)


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--addr", required=True)
    p.add_argument("--mode", choices=["answer", "empty", "silent", "delay", "forge"])
    p.add_argument("--log", required=True)
    p.add_argument("--a", action="append")
    p.add_argument("--ttl", type=int, default=300)
    p.add_argument("--delay", type=float, default=0.0)
    p.add_argument("--forge-from")
    args = p.parse_args()
    sock = socket.socket(socket.AF_INET6 if ":" in args.addr else socket.AF_INET, socket.SOCK_DGRAM)
    sock.bind((args.addr, 53))
    log = open(args.log, "a", buffering=1)
    print("ready", flush=True)
    while True:
        data, peer = sock.recvfrom(65535)
        query = dns.message.from_wire(data)
        q = query.question[0]
        log.write(json.dumps({"time": time.monotonic(), "src": peer[0], "sport": peer[1], "id": query.id,
                              "qname": q.name.to_text(), "qtype": dns.rdatatype.to_text(q.rdtype),
                              "hex": data.hex()}) + "\n")
        resp = answer(query, args.a or ["203.0.113.7"], args)
        if args.mode == "forge":
            forge(sock, query, peer, args)
        if args.mode in ("delay", "forge"):
            threading.Timer(args.delay, sock.sendto, (resp.to_wire(), peer)).start()
        elif args.mode != "silent":
            sock.sendto(resp.to_wire(), peer)


if __name__ == "__main__":
    main()
