# Service status detection seen by the status collector (module 150) and the upstream server.
from lab import WAN_V4, wait_until

HSI = WAN_V4[1]


def test_down_before_the_fourth_unanswered_probe_and_up_on_an_answer(lab):
    silent = lab.start_responder(HSI, "silent")
    lab.write("/etc/dns_resolv_ipv4_hsi.conf", f"nameserver {HSI}\n")
    collector = lab.start_module_peer(150, "none")
    lab.start_dnsproxy("-q")
    # Probes every 20 s: the first at start, down indications from the fourth on.
    probes = silent.wait_records(4, timeout=75)
    assert [(q["qname"], q["qtype"]) for q in probes] == [("ftp.debian.org.", "A")] * 4
    assert all(17 <= b["time"] - a["time"] <= 23 for a, b in zip(probes, probes[1:]))
    down = collector.wait_records(1, timeout=5)
    assert [(m["type"], m["src"], m["dst"], m["flags"], m["word5"]) for m in down] == [(0x100027DB, 44, 150, 3, 3)]
    assert probes[2]["time"] < down[0]["time"] <= probes[3]["time"] + 1
    # The server comes back: the next probe is answered, and the service is up.
    silent.proc.terminate()
    silent.proc.wait(timeout=5)
    assert len(lab.start_responder(HSI, "answer").wait_records(5, timeout=25)) == 5  # the same log
    assert wait_until(lambda: collector.records()[-1]["word5"] == 2, 5)
