# Client socket reachability over both families, datagram size bounds, the server socket's port
# range, and upstream probing seen from the servers.
import re
import subprocess
import time

from lab import GW_LAN_V4, GW_LAN_V6, LAN_V4, LAN_V6, wait_until


def test_clients_of_both_families_reach_the_client_socket_and_odd_sizes_are_dropped(lab):
    # Mode 2: error, warn and pkt lines of every module.
    lab.write("/configs/kiv_dnsproxy_log_config", "log_level=3\nlog_dest=2\ndebug_mode=2\ntimestamp=0\n")
    d = lab.start_dnsproxy()
    lab.query("example.org", server=GW_LAN_V4, timeout=1)
    lab.query("example.org", server=GW_LAN_V6, timeout=1)
    code = ("import socket; s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); "
            f"s.sendto(b'x' * 11, ('{GW_LAN_V4}', 53)); s.sendto(b'y' * 1500, ('{GW_LAN_V4}', 53))")
    subprocess.run(lab.exec_argv("lan", ["/usr/bin/python3", "-c", code]), check=True, timeout=10)
    for pattern in (rf"rcv sock=\d+ id=0x[0-9a-f]+ len=\d+ sip=::ffff:{re.escape(LAN_V4)} sport=\d+ skType=1\n",
                    rf"rcv sock=\d+ id=0x[0-9a-f]+ len=\d+ sip={re.escape(LAN_V6)} sport=\d+ skType=2\n",
                    r"drop short packet for len\(11\)\n", r"drop long packet for len\(1025\)\n"):
        assert wait_until(lambda: re.search(pattern, d.stderr())), (pattern, d.stderr())
    d.wait_ready()  # still serving


def test_silent_active_server_is_replaced_and_probes_leave_from_the_port_range(lab):
    lab.write("/etc/flipla.conf", "ServerSocketSrcPortStart=50000\nServerSocketSrcPortEnd=50010\n")
    lab.write("/etc/resolv.conf", "nameserver 198.51.100.53\nnameserver 198.51.100.54\n")
    silent = lab.start_responder("198.51.100.53", "silent")
    good = lab.start_responder("198.51.100.54", "answer")
    lab.start_dnsproxy()
    first, replaced = silent.wait_records(1), good.wait_records(1)
    assert first and replaced, "no probe reached the active server, or none the next"
    # Probed one second after the load; silent for one second; the next server a second later.
    assert 1.5 <= replaced[0]["time"] - first[0]["time"] <= 4.0
    for q in first + replaced:
        assert (q["src"], q["qtype"]) == ("198.51.100.1", "A") and 50000 <= q["sport"] < 50010
        assert q["qname"] in ("www.iana.org.", "www.debian.org.", "www.cloudflare.com.")
    # The answering server stays active: no further probe of the silent one for a while.
    time.sleep(1.5)
    assert len(silent.records()) == 1
