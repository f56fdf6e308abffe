# Policies switched at start-up and at run time, as a LAN client sees them, and the
# name-resolution requests of other gateway modules.
import re
import subprocess
import time

from lab import GW_LAN_V4, GW_LAN_V6, WAN_V4, WAN_V6, answers

UP1 = WAN_V4[0]


def start(lab, conf="", resolv=f"nameserver {UP1}\n"):
    lab.write("/etc/flipla.conf", conf)
    lab.write("/etc/resolv.conf", resolv)
    return lab.start_dnsproxy()


def test_force_register_follows_the_management_modules_answer_and_a_second_instance_leaves_it_alone(lab):
    up = lab.start_responder(UP1)
    first = start(lab)
    assert lab.kiv_cli("define", "debug", "level", "io", "io")[0] == 0  # hex dumps of module messages
    lab.bus_signal("dpEnableForceRegister")
    # No management module, one that never answers (3 s), or one whose reply is too long: the
    # chain goes on and the query is forwarded.
    assert answers(lab.query("www.example.test")) == [("A", "203.0.113.7")]
    lab.start_module_peer(21, "none")
    before = time.monotonic()
    assert answers(lab.query("www.example.test", timeout=6)) == [("A", "203.0.113.7")]
    assert 2.9 <= time.monotonic() - before < 4.5
    lab.start_module_peer(21, "hex:" + "31" * 16)
    assert answers(lab.query("www.example.test")) == [("A", "203.0.113.7")]
    assert len(up.records()) == 3

    mgmt = lab.start_module_peer(21, "0,0,0")
    assert answers(lab.query("www.example.test")) == [("A", GW_LAN_V4)]
    assert answers(lab.query("www.example.test", "AAAA")) == [("AAAA", "fe80::1")]
    assert lab.query("www.example.test", "MX", timeout=1)["timeout"]
    assert {(m["type"], m["src"], m["dst"], m["flags"], m["word5"], m["length"], m["size"])
            for m in mgmt.records()} == {(0x10000401, 44, 21, 3, 0, 0, 32)}
    assert re.search(r"^rcv cs3\(047\): 01 04 00 10 15 00 00 00 2c 00 00 00 00( 00){11} 0f( 00){7} 30 00 00 00 00 30 ",
                     first.stderr(), re.M)
    lab.start_module_peer(21, "0,1,0")
    assert lab.query("www.example.test")["rcode"] == 5
    assert len(up.records()) == 3

    # A second instance finds the channel and the bus name taken and leaves both, and the PID
    # file, to the first; module 21's replies still reach the first.
    channel = lab.root / "var/run/csmsg/44"
    inode = channel.stat().st_ino
    second = lab.start_dnsproxy(ready=False)
    assert second.wait() == 0
    assert "fail to init csmsg ret=-4\n" in second.stderr()
    assert "failed to request bus name for kiv_dnsproxy service\n" in second.stderr()
    assert lab.read("/etc/dnsproxy_pid") == str(first.pid)
    assert lab.query("www.example.test").get("rcode") == 5
    assert channel.stat().st_ino == inode and first.alive()

    lab.bus_signal("dpDisableForceRegister")
    assert answers(lab.query("www.example.test")) == [("A", "203.0.113.7")]


def test_intercept_answers_ipv4_clients_only_and_not_under_dslite(lab):
    up = lab.start_responder(UP1)
    up6 = lab.start_responder(WAN_V6[0], "answer", "--a", "203.0.113.66")
    start(lab, resolv="")
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
    assert len(up.records()) == 0 and len(up6.records()) == 2


def test_lock_net_and_redirect_answer_for_a_and_aaaa_only(lab):
    lab.write("/configs/lock_net", "1\n")
    start(lab, resolv="")
    assert answers(lab.query("www.example.test")) == [("A", GW_LAN_V4)]
    assert answers(lab.query("www.example.test", "AAAA")) == [("AAAA", "fe80::1")]
    assert lab.query("www.example.test", "MX", timeout=1)["timeout"]
    assert lab.bus_call("ToggleLockNet", "u", "0") == (0, "u 0")
    r = lab.query("www.example.test", id=0x0BAD)  # no server: SERVFAIL with the client's id
    assert (r["id"], r["rcode"]) == (0x0BAD, 2)
    lab.bus_signal("dpEnableLockNet")
    assert answers(lab.query("www.example.test")) == [("A", GW_LAN_V4)]
    lab.bus_signal("dpDisableLockNet")
    lab.bus_signal("dpEnableRedirect")
    assert answers(lab.query("www.example.test")) == [("A", "22.22.22.22")]
    assert answers(lab.query("www.example.test", "AAAA")) == [("AAAA", "2222::22")]
    assert lab.query("www.example.test", "MX", timeout=1)["timeout"]
    lab.bus_signal("dpDisableRedirect")
    assert lab.query("www.example.test")["rcode"] == 2


def test_force_url_when_no_server_can_be_reached(lab):
    start(lab, "EnableForceUrlFeature=1\n", resolv="")
    assert lab.query("www.example.test")["rcode"] == 2  # the management module unreachable
    lab.start_module_peer(21, "0,0,1")
    assert answers(lab.query("www.example.test")) == [("A", GW_LAN_V4)]
    # regUrlEnable "0": no answer at all, ten times; then the budget is spent: SERVFAIL.
    lab.start_module_peer(21, "0,0,0")
    for _ in range(10):
        assert lab.query("www.example.test", timeout=0.5)["timeout"]
    assert lab.query("www.example.test")["rcode"] == 2


def test_module_name_resolution_is_published_on_the_bus_and_the_channel(lab):
    lab.start_responder(UP1, "answer", "--a", "203.0.113.7", "--a", "203.0.113.8")
    start(lab)
    status = lab.start_module_peer(150, "none")
    monitor = subprocess.Popen(["dbus-monitor", "--system", "type='signal',member='dnsProxyResponse'"],
                               env=lab.env(), stdout=subprocess.PIPE, text=True)
    lab.processes.append(monitor)
    while "member=NameLost" not in monitor.stdout.readline():  # monitoring from here on
        pass
    record = (0).to_bytes(4, "little") + b"res.example.test".ljust(256, b"\0")
    assert lab.bus_call("HandleQueryRequest", "ay", str(len(record)), *map(str, record)) == (0, "u 0")
    msg = status.wait_records(1)[0]
    assert (msg["type"], msg["src"], msg["dst"], msg["flags"], msg["length"], msg["size"]) == \
        (0x100027C4, 44, 150, 4, 524, 556)
    payload = bytes.fromhex(msg["payload"])
    assert payload[4:4 + 17] == b"res.example.test\0"
    assert int.from_bytes(payload[260:264], "little", signed=True) == 0
    assert sorted(payload[268:].split(b"\0")[0].split(b",")) == [b"203.0.113.7", b"203.0.113.8"]
    # The same payload on the bus, from the daemon's object path.
    seen = ""
    while "   ]" not in seen:
        seen += monitor.stdout.readline()
    assert "path=/orvik/kiv/dnsproxy; interface=orvik.kiv.rgwd.itf.msg; member=dnsProxyResponse" in seen
    assert bytes.fromhex("".join(seen[seen.index("array of bytes [") + 16:seen.index("   ]")].split())) == payload
