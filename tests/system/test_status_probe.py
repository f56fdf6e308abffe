"""Service status detection seen by the status collector (module 150) and the upstream server."""

import time

from lab import WAN_V4

HSI = WAN_V4[1]


def test_down_before_the_fourth_unanswered_probe_and_up_on_an_answer(lab):
    silent = lab.start_responder(HSI, "silent")
    lab.write("/etc/dns_resolv_ipv4_hsi.conf", f"nameserver {HSI}\n")
    collector = lab.start_module_peer(150, mode="silent")
    lab.start_dnsproxy("-q")
    # Probes every 20 s: the first at start, down indications from the fourth on.
    probes = silent.wait_queries(4, timeout=75)
    assert len(probes) == 4
    assert all(q["qname"] == "ftp.debian.org." and q["qtype"] == "A" for q in probes)
    assert all(17 <= b["time"] - a["time"] <= 23 for a, b in zip(probes, probes[1:]))
    down = collector.wait_messages(1, timeout=5)
    assert [(m["type"], m["src"], m["dst"], m["flags"], m["word5"]) for m in down] == [(0x100027DB, 44, 150, 3, 3)]
    assert probes[2]["time"] < down[0]["time"] <= probes[3]["time"] + 1
    # The server comes back: the next probe is answered, and the service is up.
    silent.proc.terminate()
    silent.proc.wait(timeout=5)
    answering = lab.start_responder(HSI, "answer")  # records into the same log
    assert len(answering.wait_queries(5, timeout=25)) == 5
    deadline = time.monotonic() + 5
    while time.monotonic() < deadline and not any(m["word5"] == 2 for m in collector.messages() if "word5" in m):
        time.sleep(0.1)
    assert [m["word5"] for m in collector.messages() if "word5" in m][-1] == 2
