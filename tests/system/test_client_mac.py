# The client MAC from the gateway's real ARP and neighbour tables, looked up by the find_mac
# test tool in the gw namespace, against what `ip neigh` lists.
import re
import subprocess
import sys

from lab import LAN_MAC, LAN_V4, build_path, wait_until

# Neighbour entries of one address each (device, link-layer address, state and flags), and
# whether "ip -6 neigh show" lists a MAC for the address. Look-alike addresses that merely start
# with another's are not taken for it.
NEIGHBOUR_CASES = [
    ("2001:db8:1::a1", [("br0", "02:00:5e:00:00:a1", "permanent")], True),
    ("2001:db8:1::a11", [("br0", "02:00:5e:00:01:a1", "permanent")], True),
    ("2001:db8:1::a12", [("br0", "02:00:5e:00:02:a1", "permanent")], True),
    ("2001:db8:1::a2", [("gw0", "02:00:5e:00:00:a2", "stale")], True),
    ("2001:db8:1::a3", [("br0", "02:00:5e:00:00:a3", "failed")], False),
    ("2001:db8:1::a4", [("br0", "02:00:5e:00:00:a4", "noarp")], False),
    ("2001:db8:1::a5", [("br0", "02:00:5e:00:00:a5", "noarp extern_learn")], True),
    ("2001:db8:1::a6", [("br0", "02:00:5e:00:00:a6", "stale"), ("gw0", "02:00:5e:00:00:b6", "permanent")], True),
    ("2001:db8:1::99", [("br0", None, "incomplete")], False),
]


def gw(lab, *argv):
    return subprocess.run(lab.exec_argv("gw", list(argv)), capture_output=True, text=True, check=True,
                          env=lab.env(), timeout=15)


def find_mac(lab, *addrs):
    # find_mac's output (a line per address, looked up in one process) and its trace lines ("\r\n"
    # kept as written).
    r = subprocess.run(lab.exec_argv("gw", [build_path("tests", "find_mac"), *addrs]), capture_output=True,
                       timeout=15)
    assert r.returncode == 0, r.stderr
    return r.stdout.decode(), r.stderr.decode()


def test_client_mac_from_the_arp_and_neighbour_tables_is_what_their_listings_show(lab):
    # The gateway resolves the client for real; an incomplete and a missing entry give no MAC,
    # and a missing one, the usual case, no error line.
    gw(lab, sys.executable, "-c", f"import socket; socket.socket(socket.AF_INET, socket.SOCK_DGRAM).sendto(b'x', ('{LAN_V4}', 9))")
    assert wait_until(lambda: f"{LAN_V4} lladdr " in gw(lab, "ip", "neigh", "show", "dev", "br0").stdout)
    out, err = find_mac(lab, LAN_V4)
    assert out == f"ret=0 mac={LAN_MAC.upper()}\n"
    assert re.search(rf"^DPMAIN dpedns_find_mac:\d+ ::ffff:{LAN_V4} \({LAN_V4}\) at {LAN_MAC.upper()}\r$", err, re.M)
    gw(lab, "ip", "neigh", "add", "192.0.2.99", "dev", "br0", "nud", "incomplete")
    assert re.search(r"^192\.0\.2\.99 +INCOMPLETE", gw(lab, "ip", "neigh", "show", "dev", "br0").stdout, re.M)
    assert find_mac(lab, "192.0.2.99")[0] == find_mac(lab, "192.0.2.98")[0] == "ret=-1 mac=\n"
    assert "SIOCGARP" not in find_mac(lab, "192.0.2.98")[1]

    for addr, entries, _ in NEIGHBOUR_CASES:
        for dev, lladdr, state in entries:
            gw(lab, "ip", "-6", "neigh", "add", addr, *(["lladdr", lladdr] if lladdr else []), "dev", dev, "nud", *state.split())
    listing = gw(lab, "ip", "-6", "neigh", "show").stdout
    # Twice in one process: the first look-up fills the copy of the table from a dump, the others
    # are answered from the copy.
    cases = NEIGHBOUR_CASES * 2
    out, err = find_mac(lab, *(addr for addr, _, _ in cases))
    for (addr, _, listed), got in zip(cases, out.splitlines(), strict=True):
        shown = [f[4] for f in map(str.split, listing.splitlines())
                 if len(f) >= 5 and f[0] == addr and len(f[4]) == 17 and f[4].count(":") == 5]
        assert bool(shown) == listed, listing
        assert got == (f"ret=0 mac={shown[-1]}" if shown else "ret=-1 mac="), listing
        assert not shown or f"MAC address of ipv6 {addr} is MAC[{shown[-1]}]" in err
