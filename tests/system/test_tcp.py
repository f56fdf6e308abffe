"""DNS over TCP: large answers, pipelining, a truncated answer for a datagram too long to read,
and clients that misbehave losing only their own connection."""

import re
import socket
import time

import dns.flags
import dns.message
import dns.query
import pytest

from lab import BIG_TXT, GW_LAN_V4, GW_LAN_V6, KNOT_ADDR, MID_TXT, WAN_V4, run

UP1, UP2 = WAN_V4[0], WAN_V4[1]
PROBE_NAMES = {"www.iana.org.", "www.debian.org.", "www.cloudflare.com."}


def start(lab, conf="", servers=(KNOT_ADDR,)):
    lab.write("/etc/flipla.conf", conf)
    lab.write("/etc/resolv.conf", "".join(f"nameserver {s}\n" for s in servers))
    return lab.start_dnsproxy()


def connect(lab, server=GW_LAN_V4, **kw):
    family = socket.AF_INET6 if ":" in server else socket.AF_INET
    return lab.socket("lan", family, connect=(server, 53), **kw)


def frame(name, qtype="A", qid=None):
    q = dns.message.make_query(name, qtype)
    if qid is not None:
        q.id = qid
    wire = q.to_wire()
    return len(wire).to_bytes(2, "big") + wire


def recv_exact(sock, n):
    data = b""
    while len(data) < n:
        chunk = sock.recv(n - len(data))
        if not chunk:
            raise EOFError("connection closed")
        data += chunk
    return data


def read_answer(sock):
    return dns.message.from_wire(recv_exact(sock, int.from_bytes(recv_exact(sock, 2), "big")))


def ask(sock, name="www.lab.example", qtype="A"):
    sock.sendall(frame(name, qtype))
    return read_answer(sock)


def closed(sock, timeout=3.0):
    """Whether the proxy closed the connection (what it had sent is read and dropped)."""
    sock.settimeout(timeout)
    try:
        while sock.recv(65536):
            pass
        return True
    except ConnectionResetError:
        return True
    except socket.timeout:
        return False


def texts(msg):
    return [s.decode() for rrset in msg.answer for rd in rrset for s in rd.strings]


def view(lab, what="tcp"):
    rc, out, _ = lab.kiv_cli("view", what)
    assert rc == 0, out
    return {k.strip(): v.strip() for k, v in re.findall(r"^([a-z ]+): (.*)$", out, re.M)}


@pytest.mark.parametrize("conf", ["", "EnableHardenedMode=1\n"])
def test_large_answers_over_tcp_and_a_truncated_answer_for_a_too_long_datagram(lab, conf):
    lab.start_knot()
    daemon = start(lab, conf)
    for tool in ("dig", "kdig"):
        r = run(lab.exec_argv("lan", [tool, "+tcp", "+short", f"@{GW_LAN_V4}", "big.lab.example", "TXT"]))
        assert r.stdout.replace('"', "").split() == BIG_TXT, r.stdout
    answer = dns.query.tcp(dns.message.make_query("big.lab.example", "TXT"), GW_LAN_V6,
                           sock=connect(lab, GW_LAN_V6))
    assert texts(answer) == BIG_TXT and len(answer.to_wire()) > 3000
    # Over UDP the 1,150-byte answer is longer than the server socket reads: the client gets its
    # question back with TC at once, under its own id, and has it whole over TCP.
    r = lab.query("mid.lab.example", "TXT", edns=4096, id=0x2222)
    assert (r["id"], r["question"], r["answer"]) == (0x2222, [["mid.lab.example.", "TXT"]], [])
    assert r["flags"] & dns.flags.TC and r["flags"] & dns.flags.QR
    r = run(lab.exec_argv("lan", ["dig", "+bufsize=4096", f"@{GW_LAN_V4}", "mid.lab.example", "TXT"]))
    assert "Truncated, retrying in TCP mode" in r.stdout and MID_TXT[4] in r.stdout
    assert view(lab)["truncated over udp"] == "2"
    assert view(lab, "statistic")["packet len too long"] == "2"
    # Switched off: nothing listens on TCP and a too-long answer reaches nobody, as before.
    daemon.stop()
    start(lab, conf + "EnableTcp=0\n")
    r = run(lab.exec_argv("lan", ["dig", "+tcp", "+tries=1", f"@{GW_LAN_V4}", "www.lab.example"]), check=False)
    assert "connection refused" in r.stdout
    assert lab.query("mid.lab.example", "TXT", edns=4096, timeout=1)["timeout"]
    assert view(lab)["tcp"] == "off"


@pytest.mark.parametrize("conf", ["", "EnableHardenedMode=1\n"])
def test_pipelined_queries_are_answered_in_the_order_the_upstream_answers(lab, conf):
    # The upstream answers what it holds last first, once 20 came or a second passed. The
    # client's 20 queries go out 16 at a time (its queries in flight), the last 4 after answers.
    up = lab.start_responder(UP1, "answer", "--tcp", "--reverse", "20")
    start(lab, conf, servers=(UP1,))
    sock = connect(lab)
    sock.sendall(b"".join(frame(f"q{i}.example.test", qid=100 + i) for i in range(20)))
    got = [read_answer(sock) for _ in range(20)]
    assert [m.id for m in got] == list(range(115, 99, -1)) + list(range(119, 115, -1))
    for m in got:
        assert m.question[0].name.to_text() == f"q{m.id - 100}.example.test."
        assert [rd.to_text() for rd in m.answer[0]] == ["203.0.113.7"]
    seen = up.records()
    assert len(seen) == 20 and all(q.get("tcp") for q in seen) and len({q["sport"] for q in seen}) == 1
    assert {q["id"] for q in seen}.isdisjoint(range(100, 120))


def test_bad_slow_and_stalled_clients_lose_only_their_own_connection(lab):
    lab.start_knot()
    start(lab)
    idle = connect(lab)
    assert ask(idle).answer
    garbage = connect(lab)
    garbage.sendall(b"\x00\x00junk")  # a zero length
    assert closed(garbage)
    slow = connect(lab)
    slow.sendall(b"\x00")  # half a length, then nothing
    stalled = connect(lab, rcvbuf=4096)
    stalled.sendall(frame("big.lab.example", "TXT") * 300)  # never reads its answers
    steady = lab.query("www.lab.example", steady=60, pace=0.2)  # UDP throughout, 12 s
    assert steady["answered"] == 60, steady
    assert all(closed(s, timeout=5) for s in (idle, slow, stalled))
    counts = view(lab)
    assert [counts[f"closed {r}"] for r in ("idle", "cut", "framing", "stalled")] == ["1"] * 4
    # At the cap a new client closes the one idle longest.
    first = connect(lab)
    assert ask(first).answer
    time.sleep(1.1)
    others = [connect(lab) for _ in range(63)]
    for s in others:
        assert ask(s).answer
    newest = connect(lab)
    assert ask(newest).answer
    assert closed(first) and not closed(others[0], timeout=0.2)
    counts = view(lab)
    assert (counts["closed evicted"], counts["client connections"]) == ("1", "64 of 64")


def test_a_query_left_unanswered_by_a_closing_upstream_goes_again_on_a_new_connection(lab):
    up = lab.start_responder(UP1, "answer", "--tcp", "--close-first")
    start(lab, servers=(UP1,))
    assert [rd.to_text() for rd in ask(connect(lab), "www.example.test").answer[0]] == ["203.0.113.7"]
    first, again = up.records()
    assert first["id"] == again["id"] and first["sport"] != again["sport"]
    counts = view(lab)
    assert (counts["upstream closed peer"], counts["upstream retried"]) == ("1", "1")


def test_a_refused_tcp_connect_counts_as_a_time_out_for_probing(lab):
    up = lab.start_responder(UP1)  # no TCP
    lab.start_responder(UP2)
    start(lab, servers=(UP1, UP2))
    is_probe = lambda q: q["qname"] in PROBE_NAMES  # noqa: E731
    assert len(up.wait_records(1, where=is_probe)) == 1  # the first probe, a second after start
    assert lab.bus_ping()  # its answer, sent before the ping, has been taken
    connect(lab).sendall(frame("www.example.test"))
    # The active server is probed again at once, not a minute later.
    assert len(up.wait_records(2, timeout=5, where=is_probe)) == 2
    assert view(lab)["upstream failed"] == "1"
