# The proxy end to end, as a LAN client and the upstream servers see it.
import sys
import time
from concurrent.futures import ThreadPoolExecutor

import dns.message
import pytest

from lab import GW_LAN_V4, GW_LAN_V6, LAN_MAC, LAN_V6, WAN_V4, WAN_V6, answers, run

UP1, UP2, KNOT = WAN_V4


def start(lab, conf="", files=None, args=()):
    for path, text in {"/etc/flipla.conf": conf, **(files or {})}.items():
        lab.write(path, text)
    return lab.start_dnsproxy(*args)


def resolv(*servers):
    return "".join(f"nameserver {s}\n" for s in servers)


def sent_opt(responder):
    # Payload size and (code, data) options of the OPT record of the last query upstream.
    msg = dns.message.from_wire(bytes.fromhex(responder.records()[-1]["hex"]))
    return msg.payload if msg.edns >= 0 else None, [(o.otype, o.to_wire()) for o in msg.options]


def test_relaying_local_tables_dynamic_cache_ptr_refusal_and_malformed_queries(lab):
    up = lab.start_responder(UP1, "answer", "--ttl", "2")
    start(lab, "EnableD2AFeature=1\nEnableLocalHostsFeature=yes\nhosts_file=/etc/hosts.lab\n"
          "EnableDynCacheFeature=1\nEnableRejectPtrLocalIpFeature=1\n",
          {"/etc/resolv.conf": resolv(UP1), "/etc/hosts.lab": "192.0.2.81 nas.home\n",
           "/etc/dns_d2a.conf": "192.0.2.80 printer.home\n2001:DB8:1:0::80 printer.home\n"})
    r = lab.query("www.example.test", id=0x1234)
    assert (r["id"], r["rcode"], answers(r)) == (0x1234, 0, [("A", "203.0.113.7")])
    assert [q["id"] != 0x1234 for q in up.records()] == [True]  # a fresh id upstream
    cached_at = time.monotonic()
    # Local answers (the dynamic cache, D2A, hosts) carry TTL 0 and the client's id.
    assert lab.query("www.example.test", id=5)["answer"] == [["www.example.test.", 0, "A", "203.0.113.7"]]
    r = lab.query("printer.home", id=7)
    assert r["id"] == 7 and r["answer"] == [["printer.home.", 0, "A", "192.0.2.80"]]
    assert answers(lab.query("printer.home", "AAAA")) == [("AAAA", "2001:db8:1::80")]
    assert answers(lab.query("nas.home")) == [("A", "192.0.2.81")]
    # Responses and queries that carry answers are dropped; one cut short comes back as it was,
    # with QR, RA and FORMERR set.
    query = "abcd01000001000000000000" + "03777777076578616d706c650474657374" + "00" + "00010001"
    assert lab.query(wire="abcd81000001000000000000" + query[24:], timeout=1)["timeout"]
    assert lab.query(wire="abcd01000001000100000000" + query[24:] + "c00c000100010000003c0004cb007107",
                     timeout=1)["timeout"]
    assert lab.query(wire=query[:32], timeout=1)["wire"] == "abcd8181000100000000000003777777"
    # Reverse look-ups of LAN addresses are refused, the gateway's and others' forwarded.
    assert lab.query("10.2.0.192.in-addr.arpa", "PTR")["rcode"] == 5
    lab.query("1.2.0.192.in-addr.arpa", "PTR")
    lab.query("7.113.0.203.in-addr.arpa", "PTR")
    assert [q["qname"] for q in up.records()] == ["www.example.test.", "1.2.0.192.in-addr.arpa.",
                                                  "7.113.0.203.in-addr.arpa."]
    time.sleep(max(0.0, cached_at + 3 - time.monotonic()))  # the cached entry's TTL of 2 s is over
    assert answers(lab.query("www.example.test")) == [("A", "203.0.113.7")]
    assert len(up.records()) == 4


def test_real_authoritative_answers_over_both_families(lab):
    lab.start_knot()
    start(lab, files={"/etc/resolv.conf": resolv(KNOT, WAN_V6[0])})
    r = answers(lab.query("alias.lab.example"))
    assert ("CNAME", "www.lab.example.") in r and ("A", "203.0.113.10") in r
    assert answers(lab.query("www.lab.example", "AAAA", server=GW_LAN_V6)) == [("AAAA", "2001:db8:3::10")]


def test_client_mac_option_d2d_rewrite_and_edns_switched_off_while_a_query_waits(lab):
    up = lab.start_responder(UP1, "delay", "--delay", "0.5", "--a", "203.0.113.10")
    d = start(lab, "EnableD2DFeature=on\n", {"/etc/resolv.conf": resolv(UP1),
                                             "/etc/dns_d2d.conf": "www.lab.example portal.home\n"}, ("-f", "80"))
    # The proxy's own OPT record upstream (payload 523, or 1024 after the client's), option 0xFE31
    # with the client's MAC (upper case from the ARP table, lower from the neighbour table). The
    # client gets the name it asked for, and its own OPT record back unless the D2D rewrite, which
    # keeps only the answers, dropped it.
    for name, edns, server, sent in [("portal.home", None, GW_LAN_V4, (523, LAN_MAC.upper())),
                                     ("portal.home", 4096, GW_LAN_V4, (1024, LAN_MAC.upper())),
                                     ("mac.example.test", 4096, GW_LAN_V4, (1024, LAN_MAC.upper())),
                                     ("mac6.example.test", None, GW_LAN_V6, (523, LAN_MAC))]:
        r = lab.query(name, id=99, server=server, **({"edns": edns} if edns else {}))
        assert (r["id"], r["question"], r["opt"] is None) == (99, [[name + ".", "A"]], edns is None or "home" in name)
        assert [(a[0], a[2], a[3]) for a in r["answer"]] == [(name + ".", "A", "203.0.113.10")]
        assert up.records()[-1]["qname"] == ("www.lab.example." if name == "portal.home" else name + ".")
        assert sent_opt(up) == (sent[0], [(0xFE31, sent[1].encode())])
    with ThreadPoolExecutor(1) as pool:
        pending = pool.submit(lab.query, "late.example.test", timeout=5)
        assert up.wait_records(5)
        assert lab.bus_call("ToggleEDNS", "u", "0") == (0, "u 0")
        r = pending.result()
    assert answers(r) == [("A", "203.0.113.10")] and r["opt"] is None
    assert answers(lab.query("portal.home")) == [("A", "203.0.113.10")] and sent_opt(up) == (None, [])
    assert lab.bus_call("ToggleEDNS", "u", "1") == (0, "u 0")
    # With EDNS on again, the running daemon follows the gateway's neighbour table: the client's
    # entry changed (the client takes the new MAC too, so that the answers still reach it), then
    # removed (that query leaves without the option, and its answer makes the gateway learn the
    # client anew).
    def option_sent():
        lab.query("mac6.example.test", server=GW_LAN_V6)
        return sent_opt(up)

    other = "02:00:5e:ab:cd:6f"
    run(lab.exec_argv("lan", ["ip", "link", "set", "lan0", "address", other]))
    run(lab.exec_argv("gw", ["ip", "-6", "neigh", "replace", LAN_V6, "lladdr", other, "dev", "br0", "nud",
                             "permanent"]))
    assert option_sent() == (523, [(0xFE31, other.encode())])
    run(lab.exec_argv("gw", ["ip", "-6", "neigh", "del", LAN_V6, "dev", "br0"]))
    assert option_sent() == (None, [])
    assert option_sent() == (523, [(0xFE31, other.encode())])
    # A neighbour message that another process sends to the daemon's notification socket, not the
    # kernel, changes nothing: the client keeps its MAC.
    run(lab.exec_argv("gw", [sys.executable, "-c", FORGE_NEIGH, str(d.pid), LAN_V6, "02:00:5e:66:66:66"]))
    assert option_sent() == option_sent() == (523, [(0xFE31, other.encode())])


# Sends an RTM_NEWNEIGH for an address on br0 to the netlink sockets of a process that listen to
# neighbour notifications (found through /proc/net/netlink and the process's socket inodes).
FORGE_NEIGH = r"""
import os, socket, struct, sys
pid, addr, mac = sys.argv[1:]
inodes = {os.readlink(f"/proc/{pid}/fd/{fd}") for fd in os.listdir(f"/proc/{pid}/fd")}
rows = [line.split() for line in open("/proc/net/netlink").read().splitlines()[1:]]
ports = [int(r[2]) for r in rows if r[1] == "0" and int(r[3], 16) & 4 and f"socket:[{r[9]}]" in inodes]
assert ports, rows
ifindex = int(open("/sys/class/net/br0/ifindex").read())
attr = lambda t, v: struct.pack("=HH", 4 + len(v), t) + v + bytes(-len(v) % 4)
body = struct.pack("=BxxxiHBB", socket.AF_INET6, ifindex, 0x80, 0, 0)
body += attr(1, socket.inet_pton(socket.AF_INET6, addr)) + attr(2, bytes.fromhex(mac.replace(":", "")))
s = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, socket.NETLINK_ROUTE)
for port in ports:
    s.sendto(struct.pack("=IHHII", 16 + len(body), 28, 0, 0, 0) + body, (port, 0))
"""


# The first server answers empty; the other answers a little later, empty, or never. The empty
# answer is held while a better one may come, and goes out at the entry's expiry as it was stored,
# under the id the proxy used upstream (the client's id is put back only on the direct path).
@pytest.mark.parametrize("second, want, seconds", [("delay", [("A", "203.0.113.7")], (0, 2)),
                                                   ("empty", [], (0, 2)), ("silent", [], (3.5, 8.5))])
def test_an_empty_answer_is_held_while_a_better_one_may_come(lab, second, want, seconds):
    empty = lab.start_responder(UP1, "empty")
    lab.start_responder(UP2, second, "--delay", "0.3")
    start(lab, "SystemDnsServerSetPolicy=0\n", {"/etc/resolv.conf": resolv(UP1, UP2)})
    before = time.monotonic()
    r = lab.query("held.example.test", id=0x5151, timeout=9)
    assert seconds[0] <= time.monotonic() - before <= seconds[1]
    assert (r["rcode"], answers(r), r["question"]) == (0, want, [["held.example.test.", "A"]])
    assert r["id"] == (empty.records()[-1]["id"] if second == "silent" else 0x5151)


def test_a_full_table_drops_even_queries_answered_locally(lab):
    up = lab.start_responder(UP1, "silent")
    start(lab, "EnableD2AFeature=1\n", {"/etc/resolv.conf": resolv(UP1),
                                        "/etc/dns_d2a.conf": "192.0.2.80 printer.home\n"})
    lab.query("flood.example.test", burst=1036, pace=0.02)  # within the socket's buffer
    assert len(up.wait_records(1036)) == 1036
    assert lab.query("printer.home", timeout=1)["timeout"]
    # Once the 5-second lifetime is over the table empties and local answers come back.
    r = {"timeout": True}
    deadline = time.monotonic() + 10
    while r.get("timeout") and time.monotonic() < deadline:
        r = lab.query("printer.home", timeout=0.5)
    assert answers(r) == [("A", "192.0.2.80")]
