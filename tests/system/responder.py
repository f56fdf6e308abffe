#!/usr/bin/env python3
# A scriptable upstream DNS server for the lab: binds UDP port 53 on one address, answers each
# query as its mode says and records every query as one JSON line.
#
#     responder.py --addr 198.51.100.53 --mode answer --log queries.jsonl [--a 203.0.113.7] [--ttl 300]
#
# With --tcp it serves TCP on the same address too, holding the answers of a connection until
# --reverse queries arrived (or a second passed), then sending them last first; with
# --close-first it closes its first TCP connection, unanswered, once a query came.
# Modes: answer (the --a records, or 2001:db8:3::7 for AAAA), empty (NOERROR, no records), silent
# (records, never answers), delay (answers after --delay seconds), forge (what an off-path host
# sends first: the answer with 203.0.113.66 from --forge-from and from port 5353, and one to
# another question; then the real answer after --delay seconds).
import argparse
import itertools
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


def serve_tcp(conn, args, log, first):
    # One TCP connection: length-prefixed queries in, their answers out, held until --reverse
    # queries arrived (or a second passed) and sent last first.
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
            held.append(answer(query, args.a or ["203.0.113.7"], args).to_wire())
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
    p.add_argument("--mode", choices=["answer", "empty", "silent", "delay", "forge"])
    p.add_argument("--log", required=True)
    p.add_argument("--a", action="append")
    p.add_argument("--ttl", type=int, default=300)
    p.add_argument("--delay", type=float, default=0.0)
    p.add_argument("--forge-from")
    p.add_argument("--tcp", action="store_true")
    p.add_argument("--reverse", type=int, default=1)
    p.add_argument("--close-first", action="store_true")
    args = p.parse_args()
    family = socket.AF_INET6 if ":" in args.addr else socket.AF_INET
    sock = socket.socket(family, socket.SOCK_DGRAM)
    sock.bind((args.addr, 53))
    log = open(args.log, "a", buffering=1)
    if args.tcp:
        srv = socket.create_server((args.addr, 53), family=family)
        threading.Thread(target=accept_tcp, args=(srv, args, log), daemon=True).start()
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
