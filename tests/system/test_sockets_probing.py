"""Client socket reachability over both families, the server socket's port range, and upstream
probing seen from the servers."""

import re
import subprocess
import time

from lab import GW_LAN_V4, GW_LAN_V6, LAN_V4, LAN_V6

# Mode 2: error, warn and pkt lines of every module, with time stamps.
PKT_TRACES = "log_level=3\nlog_dest=2\ndebug_mode=2\ntimestamp=0\n"


def send_query_from_lan(lab, server, name="example.org"):
    """One A query from the lan client to server:53 with dig (it need not be answered)."""
    argv = lab.exec_argv("lan", ["dig", f"@{server}", name, "A", "+tries=1", "+time=1", "+noedns"])
    subprocess.run(argv, capture_output=True, timeout=10)


def wait_for(daemon, pattern, timeout=10.0):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        m = re.search(pattern, daemon.stderr())
        if m:
            return m
        time.sleep(0.05)
    raise AssertionError(f"no line matching {pattern!r} in:\n{daemon.stderr()}")


def test_clients_reach_the_client_socket_over_both_families(lab):
    lab.write("/configs/kiv_dnsproxy_log_config", PKT_TRACES)
    d = lab.start_dnsproxy()
    send_query_from_lan(lab, GW_LAN_V4)
    wait_for(d, rf"rcv sock=\d+ id=0x[0-9a-f]+ len=\d+ sip=::ffff:{re.escape(LAN_V4)} sport=\d+ skType=1\n")
    send_query_from_lan(lab, GW_LAN_V6)
    wait_for(d, rf"rcv sock=\d+ id=0x[0-9a-f]+ len=\d+ sip={re.escape(LAN_V6)} sport=\d+ skType=2\n")


def test_short_and_long_datagrams_are_dropped(lab):
    lab.write("/configs/kiv_dnsproxy_log_config", PKT_TRACES)
    d = lab.start_dnsproxy()
    code = ("import socket; s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); "
            f"s.sendto(b'x' * 11, ('{GW_LAN_V4}', 53)); s.sendto(b'y' * 1500, ('{GW_LAN_V4}', 53))")
    subprocess.run(lab.exec_argv("lan", ["/usr/bin/python3", "-c", code]), check=True, timeout=10)
    wait_for(d, r"drop short packet for len\(11\)\n")
    wait_for(d, r"drop long packet for len\(1025\)\n")
    d.wait_ready()  # still serving


def test_silent_active_server_is_replaced_and_probes_leave_from_the_port_range(lab):
    lab.write("/etc/flipla.conf", "ServerSocketSrcPortStart=50000\nServerSocketSrcPortEnd=50010\n")
    lab.write("/etc/resolv.conf", "nameserver 198.51.100.53\nnameserver 198.51.100.54\n")
    silent = lab.start_responder("198.51.100.53", "silent")
    good = lab.start_responder("198.51.100.54", "answer")
    lab.start_dnsproxy()

    first = silent.wait_queries(1)
    assert first, "no probe reached the active server"
    replaced = good.wait_queries(1)
    assert replaced, "no probe reached the next server"
    # Probed one second after the load; silent for one second; the next server a second later.
    assert 1.5 <= replaced[0]["time"] - first[0]["time"] <= 4.0
    for q in first + replaced:
        assert q["src"] == "198.51.100.1"
        assert 50000 <= q["sport"] < 50010
        assert q["qtype"] == "A" and q["qname"] in ("www.iana.org.", "www.debian.org.", "www.cloudflare.com.")
    # The answering server stays active: no further probe of the silent one for a while.
    time.sleep(1.5)
    assert len(silent.queries()) == 1
