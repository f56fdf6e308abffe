"""Policies switched at run time through the bus, as a LAN client sees them, and the
name-resolution requests of other gateway modules."""

import subprocess
import time

from lab import GW_LAN_V4, GW_LAN_V6, WAN_V4, WAN_V6

UP1 = WAN_V4[0]


def start(lab, conf="", resolv=True, args=()):
    lab.write("/etc/flipla.conf", conf)
    if resolv:
        lab.write("/etc/resolv.conf", f"nameserver {UP1}\n")
    return lab.start_dnsproxy(*args)


def answers(result):
    return [(a[2], a[3]) for a in result.get("answer", [])]


def test_force_register_follows_the_management_modules_answer(lab):
    up = lab.start_responder(UP1)
    start(lab)
    lab.bus_signal("dpEnableForceRegister")
    # No management module listening: the chain goes on and the query is forwarded.
    assert answers(lab.query("www.example.test")) == [("A", "203.0.113.7")]

    peer = lab.start_module_peer(21, status="0", result="0")
    assert answers(lab.query("www.example.test")) == [("A", GW_LAN_V4)]
    assert answers(lab.query("www.example.test", "AAAA")) == [("AAAA", "fe80::1")]
    assert lab.query("www.example.test", "MX", timeout=1)["timeout"]
    request = peer.messages()[0]
    assert (request["type"], request["src"], request["dst"], request["flags"], request["length"]) == \
        (0x10000401, 44, 21, 3, 0)
    assert len(up.queries()) == 1

    lab.bus_signal("dpDisableForceRegister")
    assert answers(lab.query("www.example.test")) == [("A", "203.0.113.7")]


def test_force_register_refuses_when_the_result_is_1(lab):
    start(lab)
    lab.start_module_peer(21, status="0", result="1")
    lab.bus_signal("dpEnableForceRegister")
    assert lab.query("www.example.test")["rcode"] == 5


def test_second_instance_leaves_the_running_one_alone(lab):
    first = start(lab)
    lab.start_module_peer(21, status="0", result="1")
    lab.bus_signal("dpEnableForceRegister")
    channel = lab.root / "var/run/csmsg/44"
    inode = channel.stat().st_ino

    second = lab.start_dnsproxy(ready=False)
    assert second.wait() == 0
    log = second.stderr()
    assert "fail to init csmsg ret=-4\n" in log and "failed to request bus name for kiv_dnsproxy service\n" in log
    assert lab.read("/etc/dnsproxy_pid") == str(first.pid)
    # Refused under force register: the first still answers and still gets module 21's reply.
    assert lab.query("www.example.test").get("rcode") == 5
    assert channel.stat().st_ino == inode and first.alive()


def test_intercept_answers_ipv4_clients_only_and_not_under_dslite(lab):
    up = lab.start_responder(UP1)
    up6 = lab.start_responder(WAN_V6[0], "answer", "--a", "203.0.113.66")
    start(lab, resolv=False)
    lab.write("/etc/resolv.conf", f"nameserver {UP1}\nnameserver {WAN_V6[0]}\n")
    lab.bus_signal("dpLoadSystemNameServers")
    assert lab.bus_call("ToggleIntercept", "u", "1") == (0, "u 0")
    assert answers(lab.query("www.example.test")) == [("A", GW_LAN_V4)]
    assert lab.query("www.example.test", "TXT", timeout=1)["timeout"]
    # An IPv6 client is not intercepted: forwarded to the IPv6 set.
    assert answers(lab.query("www.example.test", server=GW_LAN_V6)) == [("A", "203.0.113.66")]
    # Under DS-Lite nobody is intercepted, and queries go to the IPv6 servers only.
    lab.bus_signal("dpEnableDslite")
    assert answers(lab.query("www.example.test")) == [("A", "203.0.113.66")]
    assert len(up.queries()) == 0 and len(up6.queries()) == 2


def test_redirect_answers_fixed_addresses(lab):
    start(lab, resolv=False)
    lab.bus_signal("dpEnableRedirect")
    assert answers(lab.query("www.example.test")) == [("A", "22.22.22.22")]
    assert answers(lab.query("www.example.test", "AAAA")) == [("AAAA", "2222::22")]
    assert lab.query("www.example.test", "MX", timeout=1)["timeout"]
    lab.bus_signal("dpDisableRedirect")
    assert lab.query("www.example.test")["rcode"] == 2  # no server: SERVFAIL again


def test_force_url_when_no_server_can_be_reached(lab):
    start(lab, "EnableForceUrlFeature=1\n", resolv=False)
    # The management module unreachable: the usual server failure.
    assert lab.query("www.example.test")["rcode"] == 2
    peer = lab.start_module_peer(21, status="0", result="0", reg_url_enable="1")
    assert answers(lab.query("www.example.test")) == [("A", GW_LAN_V4)]
    peer.proc.terminate()
    peer.proc.wait(timeout=5)
    # regUrlEnable "0": no answer at all, ten times; then the budget is spent: SERVFAIL.
    lab.start_module_peer(21, status="0", result="0", reg_url_enable="0")
    for _ in range(10):
        assert lab.query("www.example.test", timeout=0.5)["timeout"]
    assert lab.query("www.example.test")["rcode"] == 2


def test_module_name_resolution_is_published_on_the_bus_and_the_channel(lab):
    lab.start_responder(UP1, "answer", "--a", "203.0.113.7", "--a", "203.0.113.8")
    start(lab)
    status = lab.start_module_peer(150, mode="silent")
    monitor = subprocess.Popen(["dbus-monitor", "--system", "type='signal',member='dnsProxyResponse'"],
                               env=lab.env(), stdout=subprocess.PIPE, text=True)
    lab.processes.append(monitor)
    try:
        record = (0).to_bytes(4, "little") + b"res.example.test".ljust(256, b"\0")
        rc, out = lab.bus_call("HandleQueryRequest", "ay", str(len(record)), *map(str, record))
        assert rc == 0 and out == "u 0"
        msg = status.wait_messages(1)[0]
        assert (msg["type"], msg["src"], msg["dst"], msg["length"]) == (0x100027C4, 44, 150, 524)
        payload = bytes.fromhex(msg["payload"])
        assert payload[4:4 + 17] == b"res.example.test\0"
        assert int.from_bytes(payload[260:264], "little", signed=True) == 0
        addresses = payload[268:].split(b"\0")[0].split(b",")
        assert sorted(addresses) == [b"203.0.113.7", b"203.0.113.8"]
        deadline = time.monotonic() + 10
        seen = ""
        while "dnsProxyResponse" not in seen and time.monotonic() < deadline:
            seen += monitor.stdout.readline()
        assert "interface=orvik.kiv.rgwd.itf.msg; member=dnsProxyResponse" in seen
    finally:
        monitor.terminate()
