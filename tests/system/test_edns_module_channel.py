"""The client MAC from the gateway's real ARP and neighbour tables, and the module message
channel against the module peers, driven from the gw namespace by the test tools."""

import re
import subprocess
import sys
import time

from lab import LAN_V4, LAN_V6, tool_path

# A MAC with letters, so that the case of each family's text shows.
CLIENT_MAC = "02:00:5e:ab:cd:10"


def tool(lab, name, *args, timeout=15):
    """Runs a test tool in gw with the lab's environment; (stdout, stderr, seconds taken)."""
    start = time.monotonic()
    r = subprocess.run(lab.exec_argv("gw", [tool_path(name), *args]), capture_output=True, env=lab.env(),
                       timeout=timeout)
    out, err = r.stdout.decode(), r.stderr.decode()  # bytes as written: "\r\n" stays
    assert r.returncode == 0, err
    return out, err, time.monotonic() - start


def neighbours(lab):
    return subprocess.run(lab.exec_argv("gw", ["ip", "neigh", "show", "dev", "br0"]), capture_output=True,
                          text=True, timeout=10).stdout


def resolve_from_gw(lab, addr, timeout=5.0):
    """Makes the gateway resolve addr (one UDP datagram to it) and waits for the table entry."""
    family = "AF_INET6" if ":" in addr else "AF_INET"
    send = f"import socket; socket.socket(socket.{family}, socket.SOCK_DGRAM).sendto(b'x', ('{addr}', 9))"
    subprocess.run(lab.exec_argv("gw", [sys.executable, "-c", send]), check=True, timeout=10)
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if re.search(rf"^{re.escape(addr)} lladdr ", neighbours(lab), re.M):
            return
        time.sleep(0.05)
    raise AssertionError(f"{addr} not resolved:\n{neighbours(lab)}")


def test_client_mac_from_arp_and_neighbour_tables(lab):
    subprocess.run(lab.exec_argv("lan", ["ip", "link", "set", "lan0", "address", CLIENT_MAC]), check=True)
    resolve_from_gw(lab, LAN_V4)
    resolve_from_gw(lab, LAN_V6)

    out, err, _ = tool(lab, "find_mac", LAN_V4)
    assert out == f"ret=0 mac={CLIENT_MAC.upper()}\n"
    assert re.search(rf"^DPMAIN dpedns_find_mac:\d+ ::ffff:{LAN_V4} \({LAN_V4}\) at {CLIENT_MAC.upper()}\r$", err, re.M)

    out, err, _ = tool(lab, "find_mac", LAN_V6)
    assert out == f"ret=0 mac={CLIENT_MAC}\n"
    assert f"MAC address of ipv6 {LAN_V6} is MAC[{CLIENT_MAC}]" in err

    # Longer addresses that merely start with the client's (grep matches them too) are not taken
    # for it.
    for i, suffix in enumerate(("1", "2")):
        subprocess.run(lab.exec_argv("gw", ["ip", "-6", "neigh", "add", LAN_V6 + suffix, "lladdr",
                                            f"02:00:5e:00:00:9{i}", "dev", "br0", "nud", "permanent"]), check=True)
    out, _, _ = tool(lab, "find_mac", LAN_V6)
    assert out == f"ret=0 mac={CLIENT_MAC}\n"


# Neighbour entries of one address each (device, link-layer address, state and flags), and
# whether "ip -6 neigh show" lists a MAC for the address.
NEIGHBOUR_CASES = [
    ("2001:db8:1::a1", [("br0", "02:00:5e:00:00:a1", "permanent")], True),
    ("2001:db8:1::a2", [("gw0", "02:00:5e:00:00:a2", "stale")], True),
    ("2001:db8:1::a3", [("br0", "02:00:5e:00:00:a3", "failed")], False),
    ("2001:db8:1::a4", [("br0", "02:00:5e:00:00:a4", "noarp")], False),
    ("2001:db8:1::a5", [("br0", "02:00:5e:00:00:a5", "noarp extern_learn")], True),
    ("2001:db8:1::a6", [("br0", "02:00:5e:00:00:a6", "stale"), ("gw0", "02:00:5e:00:00:b6", "permanent")], True),
]


def test_client_mac_from_the_neighbour_table_is_what_its_listing_shows(lab):
    for addr, entries, _ in NEIGHBOUR_CASES:
        for dev, lladdr, state in entries:
            subprocess.run(lab.exec_argv("gw", ["ip", "-6", "neigh", "add", addr, "lladdr", lladdr, "dev", dev,
                                                "nud", *state.split()]), check=True)
    listing = subprocess.run(lab.exec_argv("gw", ["ip", "-6", "neigh", "show"]), capture_output=True, text=True,
                             check=True).stdout
    # Twice in one process: the first look-up fills the copy of the table from its dump, the
    # others are answered from the copy.
    cases = NEIGHBOUR_CASES * 2
    out, _, _ = tool(lab, "find_mac", *(addr for addr, _, _ in cases))
    for (addr, _, listed), got in zip(cases, out.splitlines(), strict=True):
        shown = [f[4] for f in map(str.split, listing.splitlines())
                 if len(f) >= 5 and f[0] == addr and len(f[4]) == 17 and f[4].count(":") == 5]
        assert bool(shown) == listed, listing
        assert got == (f"ret=0 mac={shown[-1]}" if shown else "ret=-1 mac="), listing


def test_incomplete_or_missing_arp_entry_gives_no_mac(lab):
    subprocess.run(lab.exec_argv("gw", ["ip", "neigh", "add", "192.0.2.99", "dev", "br0", "nud", "incomplete"]),
                   check=True)
    assert re.search(r"^192\.0\.2\.99 +INCOMPLETE", neighbours(lab), re.M)
    out, err, _ = tool(lab, "find_mac", "192.0.2.99")
    assert out == "ret=-1 mac=\n"
    # No entry at all is the usual case and not worth an error line; an IPv6 neighbour without a
    # link-layer address is no MAC either.
    out, err, _ = tool(lab, "find_mac", "192.0.2.98")
    assert out == "ret=-1 mac=\n"
    assert "SIOCGARP" not in err
    subprocess.run(lab.exec_argv("gw", ["ip", "-6", "neigh", "add", "2001:db8:1::99", "dev", "br0", "nud",
                                        "incomplete"]), check=True)
    out, _, _ = tool(lab, "find_mac", "2001:db8:1::99")
    assert out == "ret=-1 mac=\n"


def test_registration_state_request_and_reply_sizes(lab):
    mgmt = lab.start_module_peer(21, status="1", result="0", reg_url_enable="1")
    out, err, _ = tool(lab, "module_channel", "request", "0x10000401", "15")
    assert out == "ret=0 reply=" + (b"1\0\0\0\0" + b"0\0\0\0\0" + b"1\0\0\0\0").hex() + "\n"
    req = mgmt.wait_messages(1)[0]
    assert (req["type"], req["src"], req["dst"], req["flags"], req["word5"], req["length"], req["size"]) == \
        (0x10000401, 44, 21, 3, 0, 0, 32)
    assert re.search(r"^rcv cs3\(047\): 01 04 00 10 15 00 00 00 2c 00 00 00 00( 00){11} 0f( 00){7} 31 00 00 00 00 30 ",
                     err, re.M)


def test_registration_reply_of_16_bytes_is_refused(lab):
    lab.start_module_peer(21, payload_hex="31" * 16)
    out, _, _ = tool(lab, "module_channel", "request", "0x10000401", "15")
    assert out == "ret=-9 reply=\n"


def test_silent_management_module(lab):
    mgmt = lab.start_module_peer(21, mode="silent")
    out, _, took = tool(lab, "module_channel", "request", "0x10000401", "15")
    assert out == "ret=-3 reply=\n"
    assert 2.9 <= took < 4.5
    assert len(mgmt.wait_messages(1)) == 1


def test_status_indication_and_query_response_on_channel_and_bus(lab):
    monitor = subprocess.Popen(["dbus-monitor", "--system", "type='signal',member='dnsProxyResponse'"],
                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, env=lab.env())
    lab.processes.append(monitor)
    time.sleep(0.5)  # the monitor's match rule is in place
    try:
        # No status collector yet: the send fails, the bus still gets the answer.
        out, err, _ = tool(lab, "module_channel", "query-response", "0", "nas.home", "0", "30", "192.0.2.81")
        assert "failed to send msg, ret=-3" in err
        status = lab.start_module_peer(150, mode="silent")
        tool(lab, "module_channel", "status", "down")
        tool(lab, "module_channel", "query-response", "1", "v6.home", "-1", "7", "2001:db8:1::80")
        down, resp = status.wait_messages(2)
    finally:
        monitor.terminate()
    signals = monitor.communicate(timeout=10)[0]

    assert (down["type"], down["src"], down["dst"], down["flags"], down["word5"]) == (0x100027DB, 44, 150, 3, 3)
    assert (resp["type"], resp["flags"], resp["length"], resp["size"]) == (0x100027C4, 4, 524, 556)
    # Both responses on the bus from the daemon's object path, each with its 524-byte payload.
    blocks = re.findall(r"path=/orvik/kiv/dnsproxy; interface=orvik\.kiv\.rgwd\.itf\.msg; member=dnsProxyResponse\n"
                        r"\s+array of bytes \[\n([0-9a-f \n]+)\]", signals)
    sent = [bytes.fromhex("".join(b.split())) for b in blocks]
    assert [len(b) for b in sent] == [524, 524], signals
    assert sent[0][4:13] == b"nas.home\0" and sent[0][268:279] == b"192.0.2.81\0"
    assert sent[1] == bytes.fromhex(resp["payload"])
