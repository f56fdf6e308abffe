# Hardened mode against an off-path attacker: random ids and source ports, answers taken only from
# where their query went with its question, identical questions sent upstream once.

import re
from concurrent.futures import ThreadPoolExecutor

from lab import WAN_V4

UP, OTHER = WAN_V4[0], WAN_V4[1]
CONF = "EnableHardenedMode=on\nServerSocketSrcPortStart=20000\nServerSocketSrcPortEnd=60000\n"


def start(lab, mode, *extra):
    up = lab.start_responder(UP, mode, *extra)
    lab.write("/etc/flipla.conf", CONF)
    lab.write("/etc/resolv.conf", f"nameserver {UP}\n")
    return up, lab.start_dnsproxy()


def security(lab):
    rc, out, _ = lab.kiv_cli("view", "security")
    assert rc == 0, out
    return {k.strip(): v.strip() for k, v in re.findall(r"^([a-z ]+): (.*)$", out, re.M)}


def answers(r):
    return [a[3] for a in r.get("answer", [])]


def test_forged_answers_are_dropped_and_ids_and_ports_are_random(lab):
    up, _ = start(lab, "forge", "--forge-from", OTHER, "--delay", "0.3")
    for i in range(12):
        r = lab.query(f"n{i}.example.test", id=1000 + i)
        assert r["id"] == 1000 + i and answers(r) == ["203.0.113.7"], r
    seen = up.records()
    ids = [q["id"] for q in seen]
    assert len(seen) == 12 and len(set(q["sport"] for q in seen)) > 1
    assert all(20000 <= q["sport"] <= 60000 for q in seen)
    assert sum(b - a == 1 for a, b in zip(ids, ids[1:])) < 3  # not a counter
    view = security(lab)
    assert view["hardened mode"] == "on"
    assert int(view["wrong source"]) == 24 and int(view["wrong question"]) == 12
    assert len(view["source ports"].split()) == 16


def test_identical_questions_from_two_clients_go_upstream_once(lab):
    up, _ = start(lab, "delay", "--delay", "1")
    with ThreadPoolExecutor(2) as pool:
        first = pool.submit(lab.query, "www.Example.test", id=11, timeout=4)
        up.wait_records(1)
        second = pool.submit(lab.query, "WWW.example.TEST", id=22, timeout=4)
        r1, r2 = first.result(), second.result()
    assert len(up.records()) == 1
    assert (r1["id"], r1["question"], answers(r1)) == (11, [["www.Example.test.", "A"]], ["203.0.113.7"])
    assert (r2["id"], r2["question"], answers(r2)) == (22, [["WWW.example.TEST.", "A"]], ["203.0.113.7"])
    assert security(lab)["queries joined"] == "1"
