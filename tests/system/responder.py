#!/usr/bin/env python3
"""A scriptable upstream DNS server for the lab: binds UDP port 53 on one address and answers
each query as its mode says, recording every query as one JSON line.

    responder.py --addr 198.51.100.53 --mode answer --log queries.jsonl [--a 203.0.113.7]

Modes: answer (one A/AAAA record per query, TTL --ttl), empty (NOERROR, no records), servfail,
silent (records, never answers), delay (answers after --delay seconds), forge (first answers
from --forge-from and from port 5353 with 203.0.113.66, and with another question, then the real
answer after --delay seconds). With --tcp it serves TCP on the same address too, holding the
answers of a connection until --reverse queries arrived (or a second passed) and then sending
them last first; with --close-first it closes its first TCP connection, unanswered, once a
query came.
"""
import argparse
import itertools
import json
import socket
import sys
import threading
import time

import dns.message
import dns.rcode
import dns.rdatatype
import dns.rrset


def build_answer(query, args):
    resp = dns.message.make_response(query)
    if args.mode == "servfail":
        resp.set_rcode(dns.rcode.SERVFAIL)
    elif args.mode in ("answer", "delay", "forge") and query.question:
        q = query.question[0]
        if q.rdtype == dns.rdatatype.A:
            resp.answer.append(dns.rrset.from_text(q.name, args.ttl, "IN", "A", *args.a))
        elif q.rdtype == dns.rdatatype.AAAA:
            resp.answer.append(dns.rrset.from_text(q.name, args.ttl, "IN", "AAAA", *args.aaaa))
    return resp.to_wire()


def forge(sock, query, peer, args, family):
    """What an off-path host sends: the right id from another address and another port, and
    from the right place an answer to another question."""
    fake = argparse.Namespace(mode="answer", ttl=args.ttl, a=["203.0.113.66"], aaaa=["2001:db8:3::66"])
    wire = build_answer(query, fake)
    for addr, port in ((args.forge_from, 53), (args.addr, 5353)):
        with socket.socket(family, socket.SOCK_DGRAM) as s:
            s.bind((addr, port))
            s.sendto(wire, peer)
    other = dns.message.make_query("other." + query.question[0].name.to_text(), query.question[0].rdtype)
    other.id = query.id
    sock.sendto(build_answer(other, fake), peer)


def serve_tcp(conn, args, log, first):
    """One TCP connection: length-prefixed queries in, their answers out (last first)."""
    held, buf = [], b""
    conn.settimeout(1.0)
    while True:
        try:
            data = conn.recv(65535)
        except socket.timeout:
            data = None
        if data == b"":
            break
        buf += data or b""
        while len(buf) >= 2 and len(buf) >= 2 + int.from_bytes(buf[:2], "big"):
            n = int.from_bytes(buf[:2], "big")
            wire, buf = buf[2:2 + n], buf[2 + n:]
            query = dns.message.from_wire(wire)
            peer = conn.getpeername()
            log.write(json.dumps({"time": time.monotonic(), "src": peer[0], "sport": peer[1], "tcp": True,
                                  "id": query.id, "qname": query.question[0].name.to_text()}) + "\n")
            held.append(build_answer(query, args))
        if held and first and args.close_first:
            break
        if held and (len(held) >= args.reverse or data is None):
            conn.sendall(b"".join(len(w).to_bytes(2, "big") + w for w in reversed(held)))
            held = []
    conn.close()


def accept_tcp(srv, args, log):
    for n in itertools.count():
        conn, _ = srv.accept()
        threading.Thread(target=serve_tcp, args=(conn, args, log, n == 0), daemon=True).start()


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--addr", required=True)
    p.add_argument("--port", type=int, default=53)
    p.add_argument("--mode", default="answer",
                   choices=["answer", "empty", "servfail", "silent", "delay", "forge"])
    p.add_argument("--log", required=True)
    p.add_argument("--a", action="append", default=None)
    p.add_argument("--aaaa", action="append", default=None)
    p.add_argument("--ttl", type=int, default=300)
    p.add_argument("--delay", type=float, default=0.0)
    p.add_argument("--forge-from")
    p.add_argument("--tcp", action="store_true")
    p.add_argument("--reverse", type=int, default=1)
    p.add_argument("--close-first", action="store_true")
    args = p.parse_args()
    args.a = args.a or ["203.0.113.7"]
    args.aaaa = args.aaaa or ["2001:db8:3::7"]

    family = socket.AF_INET6 if ":" in args.addr else socket.AF_INET
    sock = socket.socket(family, socket.SOCK_DGRAM)
    sock.bind((args.addr, args.port))
    log = open(args.log, "a", buffering=1)
    if args.tcp:
        srv = socket.create_server((args.addr, args.port), family=family)
        threading.Thread(target=accept_tcp, args=(srv, args, log), daemon=True).start()
    print("ready", flush=True)
    while True:
        data, peer = sock.recvfrom(65535)
        entry = {"time": time.monotonic(), "src": peer[0], "sport": peer[1], "len": len(data), "hex": data.hex()}
        try:
            query = dns.message.from_wire(data)
            entry["id"] = query.id
            entry["qname"] = query.question[0].name.to_text() if query.question else ""
            entry["qtype"] = dns.rdatatype.to_text(query.question[0].rdtype) if query.question else ""
        except Exception as exc:  # a malformed query is recorded, not answered
            entry["error"] = str(exc)
            query = None
        log.write(json.dumps(entry) + "\n")
        if query is None or args.mode == "silent":
            continue
        wire = build_answer(query, args)
        if args.mode == "forge":
            forge(sock, query, peer, args, family)
        if args.mode in ("delay", "forge"):
            threading.Timer(args.delay, sock.sendto, (wire, peer)).start()
        else:
            sock.sendto(wire, peer)


if __name__ == "__main__":
    sys.exit(main())
