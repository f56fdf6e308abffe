"""The proxy end to end, as a LAN client and the upstream servers see it."""

import time
from concurrent.futures import ThreadPoolExecutor

import dns.message
import pytest

from lab import GW_LAN_V4, GW_LAN_V6, LAN_MAC, LAN_V6, WAN_V4, run

UP1, UP2, KNOT = WAN_V4


def start(lab, conf="", files=None, args=()):
    lab.write("/etc/flipla.conf", conf)
    for path, text in (files or {}).items():
        lab.write(path, text)
    return lab.start_dnsproxy(*args)


def resolv(*servers):
    return "".join(f"nameserver {s}\n" for s in servers)


def answers(result):
    return [(a[2], a[3]) for a in result.get("answer", [])]


# ---- relaying -----------------------------------------------------------------------------------

def test_answer_relayed_with_the_clients_id_and_a_fresh_id_upstream(lab):
    up = lab.start_responder(UP1, "answer", "--a", "203.0.113.7")
    start(lab, files={"/etc/resolv.conf": resolv(UP1)})
    r = lab.query("www.example.test", id=0x1234)
    assert r["id"] == 0x1234 and r["rcode"] == 0
    assert answers(r) == [("A", "203.0.113.7")]
    seen = [q for q in up.queries() if q["qname"] == "www.example.test."]
    assert len(seen) == 1 and seen[0]["id"] != 0x1234


def test_real_authoritative_answers_over_both_families(lab):
    lab.start_knot()
    start(lab, files={"/etc/resolv.conf": resolv(KNOT, "2001:db8:2::53")})
    r = lab.query("alias.lab.example", "A")
    assert ("CNAME", "www.lab.example.") in answers(r) and ("A", "203.0.113.10") in answers(r)
    r = lab.query("www.lab.example", "AAAA", server=GW_LAN_V6)
    assert answers(r) == [("AAAA", "2001:db8:3::10")]


def test_servfail_with_the_clients_id_when_no_server_can_be_reached(lab):
    start(lab)
    r = lab.query("www.example.test", id=0x0BAD)
    assert r["id"] == 0x0BAD and r["rcode"] == 2


def test_responses_and_answer_carrying_queries_are_dropped_and_garbage_is_formerr(lab):
    up = lab.start_responder(UP1)
    start(lab, files={"/etc/resolv.conf": resolv(UP1)})
    query = "abcd01000001000000000000" + "03777777076578616d706c650474657374" + "00" + "00010001"
    as_response = "abcd81000001000000000000" + query[24:]
    with_answer = "abcd01000001000100000000" + query[24:] + "c00c000100010000003c0004cb007107"
    assert lab.query(wire=as_response, timeout=1)["timeout"]
    assert lab.query(wire=with_answer, timeout=1)["timeout"]
    r = lab.query(wire="abcd0100000100000000000003777777", timeout=1)  # question cut short
    # The query comes back as it was, with QR, RA and FORMERR set: no parser would take it.
    assert r["wire"] == "abcd8181000100000000000003777777"
    assert up.queries() == []


# ---- local tables -------------------------------------------------------------------------------

def test_local_answers_from_d2a_and_hosts_have_ttl_0_and_stay_local(lab):
    up = lab.start_responder(UP1)
    start(lab, "EnableD2AFeature=1\nEnableLocalHostsFeature=yes\nhosts_file=/etc/hosts.lab\n",
          {"/etc/resolv.conf": resolv(UP1),
           "/etc/dns_d2a.conf": "192.0.2.80 printer.home\n2001:DB8:1:0::80 printer.home\n",
           "/etc/hosts.lab": "192.0.2.81 nas.home\n"})
    r = lab.query("printer.home", id=7)
    assert r["id"] == 7 and r["answer"] == [["printer.home.", 0, "A", "192.0.2.80"]]
    assert answers(lab.query("printer.home", "AAAA")) == [("AAAA", "2001:db8:1::80")]
    assert answers(lab.query("nas.home")) == [("A", "192.0.2.81")]
    assert up.queries() == []


def test_dynamic_cache_answers_until_the_ttl_runs_out(lab):
    up = lab.start_responder(UP1, "answer", "--ttl", "2")
    start(lab, "EnableDynCacheFeature=1\n", {"/etc/resolv.conf": resolv(UP1)})
    assert answers(lab.query("cached.example.test")) == [("A", "203.0.113.7")]
    r = lab.query("cached.example.test")
    assert r["answer"] == [["cached.example.test.", 0, "A", "203.0.113.7"]]  # local: TTL 0
    assert len(up.queries()) == 1
    time.sleep(3)  # the cached entry's own TTL
    assert answers(lab.query("cached.example.test")) == [("A", "203.0.113.7")]
    assert len(up.queries()) == 2


@pytest.mark.parametrize("mask,edns", [("0", None), ("80", None), ("80", 4096)])
def test_d2d_rewrite_is_seen_upstream_with_the_client_mac_and_undone_for_the_client(lab, mask, edns):
    up = lab.start_responder(UP1, "answer", "--a", "203.0.113.10")
    start(lab, "EnableD2DFeature=on\n", {"/etc/resolv.conf": resolv(UP1),
                                         "/etc/dns_d2d.conf": "www.lab.example portal.home\n"},
          args=("-f", mask))
    r = lab.query("portal.home", id=99, **({"edns": edns} if edns else {}))
    assert r["id"] == 99
    assert r["question"] == [["portal.home.", "A"]]
    assert [(a[0], a[2], a[3]) for a in r["answer"]] == [("portal.home.", "A", "203.0.113.10")]
    assert up.queries()[-1]["qname"] == "www.lab.example."
    mac = [(0xFE31, LAN_MAC.upper().encode())]
    assert sent_opt(up) == {"0": (None, []), "80": (523 if edns is None else 1024, mac)}[mask]


# ---- policies -----------------------------------------------------------------------------------

def test_lock_net_answers_the_gateway_for_a_and_aaaa_and_nothing_else(lab):
    up = lab.start_responder(UP1)
    start(lab, files={"/etc/resolv.conf": resolv(UP1), "/configs/lock_net": "1\n"})
    assert answers(lab.query("anything.example.test")) == [("A", GW_LAN_V4)]
    assert answers(lab.query("anything.example.test", "AAAA")) == [("AAAA", "fe80::1")]
    assert lab.query("anything.example.test", "MX", timeout=1)["timeout"]
    assert up.queries() == []


def test_reverse_lookups_of_lan_addresses_are_refused_but_not_the_gateways(lab):
    up = lab.start_responder(UP1)
    start(lab, "EnableRejectPtrLocalIpFeature=1\n", {"/etc/resolv.conf": resolv(UP1)})
    assert lab.query("10.2.0.192.in-addr.arpa", "PTR")["rcode"] == 5
    lab.query("1.2.0.192.in-addr.arpa", "PTR")
    lab.query("7.113.0.203.in-addr.arpa", "PTR")
    assert sorted(q["qname"] for q in up.queries()) == ["1.2.0.192.in-addr.arpa.", "7.113.0.203.in-addr.arpa."]


# ---- several servers ----------------------------------------------------------------------------

ALL_SERVERS = "SystemDnsServerSetPolicy=0\n"


def test_empty_answer_is_held_while_a_better_one_may_come(lab):
    lab.start_responder(UP1, "empty")
    lab.start_responder(UP2, "delay", "--delay", "0.3")
    start(lab, ALL_SERVERS, {"/etc/resolv.conf": resolv(UP1, UP2)})
    assert answers(lab.query("held.example.test")) == [("A", "203.0.113.7")]


def test_two_empty_answers_give_the_second_at_once(lab):
    lab.start_responder(UP1, "empty")
    lab.start_responder(UP2, "empty")
    start(lab, ALL_SERVERS, {"/etc/resolv.conf": resolv(UP1, UP2)})
    r = lab.query("empty.example.test", timeout=2)
    assert r["rcode"] == 0 and r["answer"] == []


def test_held_empty_answer_arrives_at_expiry_when_the_other_server_is_silent(lab):
    empty = lab.start_responder(UP1, "empty")
    lab.start_responder(UP2, "silent")
    start(lab, ALL_SERVERS, {"/etc/resolv.conf": resolv(UP1, UP2)})
    before = time.monotonic()
    r = lab.query("slow.example.test", id=0x5151, timeout=9)
    assert 3.5 <= time.monotonic() - before <= 8.5
    # The held answer goes out as it was stored: the server's empty answer, under the id the
    # proxy used upstream (the client's own id is put back only on the direct path).
    assert r["rcode"] == 0 and r["answer"] == [] and r["question"] == [["slow.example.test.", "A"]]
    assert r["id"] == empty.queries()[-1]["id"] != 0x5151


def test_a_full_table_drops_even_queries_answered_locally(lab):
    up = lab.start_responder(UP1, "silent")
    start(lab, "EnableD2AFeature=1\n", {"/etc/resolv.conf": resolv(UP1),
                                        "/etc/dns_d2a.conf": "192.0.2.80 printer.home\n"})
    lab.query("flood.example.test", burst=1036, pace=0.02)  # within the socket's buffer
    assert len(up.wait_queries(1036, timeout=10)) == 1036
    assert lab.query("printer.home", timeout=1)["timeout"]
    # Once the 5-second lifetime is over the table empties and local answers come back.
    deadline = time.monotonic() + 10
    while time.monotonic() < deadline:
        r = lab.query("printer.home", timeout=0.5)
        if not r.get("timeout"):
            break
    assert answers(r) == [("A", "192.0.2.80")]


# ---- EDNS ---------------------------------------------------------------------------------------

def sent_opt(responder):
    """Payload size and (code, data) options of the OPT record of the last query upstream."""
    msg = dns.message.from_wire(bytes.fromhex(responder.queries()[-1]["hex"]))
    return msg.payload if msg.edns >= 0 else None, [(o.otype, o.to_wire()) for o in msg.options]


def test_client_mac_option_is_seen_upstream_and_stripped_for_the_client(lab):
    up = lab.start_responder(UP1)
    start(lab, files={"/etc/resolv.conf": resolv(UP1)}, args=("-f", "80"))
    r = lab.query("mac.example.test")
    assert r["opt"] is None and answers(r) == [("A", "203.0.113.7")]
    # The proxy's own OPT record: payload 523, option 0xFE31 with the MAC in upper case.
    assert sent_opt(up) == (523, [(0xFE31, LAN_MAC.upper().encode())])

    r = lab.query("mac2.example.test", edns=4096)
    assert r["opt"] is not None  # the client's own OPT record stays
    assert sent_opt(up) == (1024, [(0xFE31, LAN_MAC.upper().encode())])


def test_edns_switched_off_while_a_query_waits_still_cleans_its_answer(lab):
    up = lab.start_responder(UP1, "delay", "--delay", "1.5")
    start(lab, files={"/etc/resolv.conf": resolv(UP1)}, args=("-f", "80"))
    with ThreadPoolExecutor(1) as pool:
        pending = pool.submit(lab.query, "late.example.test", timeout=5)
        assert up.wait_queries(1)
        assert lab.bus_call("ToggleEDNS", "u", "0") == (0, "u 0")
        r = pending.result()
    assert answers(r) == [("A", "203.0.113.7")] and r["opt"] is None


def test_client_mac_option_over_ipv6_uses_the_neighbour_table(lab):
    up = lab.start_responder(UP1)
    start(lab, files={"/etc/resolv.conf": resolv(UP1)}, args=("-f", "80"))

    def option_sent():
        lab.query("mac6.example.test", server=GW_LAN_V6)
        return sent_opt(up)

    assert option_sent() == (523, [(0xFE31, LAN_MAC.lower().encode())])
    # The running daemon follows the gateway's table: the client's entry changed (the client takes
    # the new MAC too, so that the answers still reach it), then removed (that query leaves
    # without the option, and its answer makes the gateway learn the client anew).
    other = "02:00:5e:ab:cd:6f"
    run(lab.exec_argv("lan", ["ip", "link", "set", "lan0", "address", other]))
    run(lab.exec_argv("gw", ["ip", "-6", "neigh", "replace", LAN_V6, "lladdr", other, "dev", "br0", "nud",
                             "permanent"]))
    assert option_sent() == (523, [(0xFE31, other.encode())])
    run(lab.exec_argv("gw", ["ip", "-6", "neigh", "del", LAN_V6, "dev", "br0"]))
    assert option_sent() == (None, [])
    assert option_sent() == (523, [(0xFE31, other.encode())])
