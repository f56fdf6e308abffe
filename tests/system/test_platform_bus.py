"""The bus library on a real dbus-daemon: method dispatch and replies, introspection, the signal
table and emitted signals, as seen from outside by dbus-send and dbus-monitor."""

import subprocess
import xml.etree.ElementTree as ET

from lab import OBJECT_PATH
from peer import API, JSON_API, JSON_MSG, MSG, OutputReader, call, dbus_send, start_peer, stop_peer, wait_for


def test_method_calls_are_dispatched_and_always_answered(bus_lab):
    p = start_peer(bus_lab)
    assert call(bus_lab, f"{API}.ToggleEDNS", "uint32:5").splitlines()[1].strip() == "uint32 1005"
    assert "uint32 7" in call(bus_lab, f"{API}.LoadD2Acache")
    call(bus_lab, "org.freedesktop.DBus.Peer.Ping")

    # Unknown to the interface: the dispatcher logs it, the caller gets UnknownMethod.
    r = dbus_send(bus_lab, f"{API}.Bogus")
    assert r.returncode != 0 and "org.freedesktop.DBus.Error.UnknownMethod" in r.stderr
    wait_for(p.stderr, r"on_api_dispatch: unknown message: Bogus\n")
    # Described but left unanswered by the dispatcher: Failed, not a hang.
    r = dbus_send(bus_lab, f"{API}.Forgotten")
    assert "org.freedesktop.DBus.Error.Failed" in r.stderr and "not answered" in r.stderr
    # Arguments that differ from the description never reach the dispatcher.
    for args in (["string:5"], [], ["uint32:1", "uint32:2"]):
        r = dbus_send(bus_lab, f"{API}.ToggleEDNS", *args)
        assert "org.freedesktop.DBus.Error.InvalidArgs" in r.stderr, args
    # An interface nobody registered, and another object path, are refused by libdbus.
    assert "UnknownMethod" in dbus_send(bus_lab, "orvik.kiv.other.Toggle").stderr
    assert dbus_send(bus_lab, f"{API}.LoadD2Acache", path="/orvik/kiv").returncode != 0

    assert p.stderr().count("call ToggleEDNS\n") == 1
    stop_peer(p)


def test_json_requests_reply_status_and_text(bus_lab):
    p = start_peer(bus_lab)
    request = ('{"name": "dp_api_cfg_dnsproxy_feature", "params": '
               '{"dnsproxy.features": {"edns": 1, "ifname": "eth1", "force_register": 0}}}')
    out = call(bus_lab, f"{JSON_API}.kiv_sync_invoke", f"string:{request}")
    assert out.splitlines()[1:] == ["   uint32 3", '   string "2=1 5="eth1" 1=0 "']

    # Every refusal replies its status and why; a reason naming a long text is cut to fit, on a
    # character boundary, so that the reply stays a valid D-Bus text.
    long_name = "é" * 200
    for request, status, reason in [
        ('{"name": "dp_api_cfg_dnsproxy_feature", "params": {"dnsproxy.features": {"edns": "1"}}}',
         -422, "dnsproxy.features.edns takes a number"),
        ("{not json", -400, "malformed JSON"),
        ('{"name": "nothing"}', -404, f"no method nothing on {JSON_API}"),
        (f'{{"name": "{long_name}"}}', -404, "no method " + "é" * 122),
        (f'{{"name": "{long_name}", "params": 1}}', -400, '"params" of ' + "é" * 121),
        ('{"name": "dp_api_cfg_dnsproxy_feature\\u0000"}', -400, 'the "name" holds a NUL character'),
    ]:
        out = call(bus_lab, f"{JSON_API}.kiv_sync_invoke", f"string:{request}")
        assert out.splitlines()[1:] == [f"   uint32 {2**32 + status}", f'   string "{reason}"'], request
    stop_peer(p)


def test_introspection_lists_methods_and_the_emitted_signal(bus_lab):
    p = start_peer(bus_lab)
    r = dbus_send(bus_lab, "org.freedesktop.DBus.Introspectable.Introspect")
    xml = r.stdout[r.stdout.index("<!DOCTYPE"):r.stdout.rindex("</node>") + 7]
    itfs = {i.get("name"): i for i in ET.fromstring(xml[xml.index("<node"):]).findall("interface")}

    def methods(name):
        return {m.get("name"): ([a.get("type") for a in m.findall("arg") if a.get("direction") == "in"],
                                [a.get("type") for a in m.findall("arg") if a.get("direction") == "out"])
                for m in itfs[name].findall("method")}

    assert methods(API) == {"ToggleEDNS": (["u"], ["u"]), "LoadD2Acache": ([], ["u"]),
                            "HandleQueryRequest": (["ay"], ["u"]), "Forgotten": ([], ["u"])}
    assert methods(JSON_API) == {"kiv_sync_invoke": (["s"], ["u", "s"])}
    sig = itfs["orvik.kiv.rgwd.itf.msg"].find("signal")
    assert sig.get("name") == "dnsProxyResponse" and [a.get("type") for a in sig] == ["ay"]
    assert "Ping" in methods("org.freedesktop.DBus.Peer")
    stop_peer(p)


def test_signal_table_delivers_payloads_to_matching_rows_only(bus_lab):
    p = start_peer(bus_lab)

    def send(itf, member, *args, dest=None):
        assert dbus_send(bus_lab, f"{itf}.{member}", *args, dest=dest, path="/any/sender",
                         signal=True).returncode == 0

    lease = bytes([1, 0, 0, 0]) + bytes(range(128))
    send("orvik.dhcpd", "dhcpLeaseInfoUpdate", "array:byte:" + ",".join(str(b) for b in lease))
    wait_for(p.stderr, rf"signal orvik.dhcpd dhcpLeaseInfoUpdate len=132 hex={lease.hex()}\n")
    send(MSG, "dpLoadFirstIpWanNameForDnsFilter", "string:eth1")
    wait_for(p.stderr, rf"signal {MSG} dpLoadFirstIpWanNameForDnsFilter len=4 hex={b'eth1'.hex()}\n")
    send(MSG, "dpLoadD2Acache")
    wait_for(p.stderr, rf"signal {MSG} dpLoadD2Acache len=0 payload=null\n")

    # Sent to the peer directly, so no match rule filters them out: the table alone must.
    send(MSG, "dpLoadD2Dcache", dest="orvik.kiv.dnsproxy")
    send("orvik.kiv.other", "dpLoadD2Acache", dest="orvik.kiv.dnsproxy")
    send(MSG, "dpLoadD2Acache", "uint32:9", dest="orvik.kiv.dnsproxy")  # signals keep their order
    wait_for(p.stderr, rf"signal {MSG} dpLoadD2Acache len=0 payload=null\n(.|\n)*"
                       rf"signal {MSG} dpLoadD2Acache len=0 payload=null\n")
    assert p.stderr().count("signal ") == 4
    assert "dpLoadD2Dcache" not in p.stderr() and "orvik.kiv.other" not in p.stderr()

    # A JSON message signal goes through the JSON command service to its registered name.
    send(JSON_MSG, "kivMessage",
         'string:{"name": "dp_msg_cfg_dnsproxy_feature", "params": {"dnsproxy.features": {"dslite": 1}}}')
    wait_for(p.stderr, r"message features 1 4=1 \n")
    send(JSON_MSG, "kivMessage", 'string:{"name": "dp_msg_cfg_dnsproxy_feature", "params": {}}')
    wait_for(p.stderr, r"rjson: message dp_msg_cfg_dnsproxy_feature failed \(-422\): no object dnsproxy.features")
    stop_peer(p)
    assert "removed 4 matches" in p.stderr()


def test_emitted_signal_reaches_a_listener(bus_lab):
    p = start_peer(bus_lab)
    mon = subprocess.Popen(["dbus-monitor", "--system", "type='signal',interface='orvik.kiv.rgwd.itf.msg'"],
                           env=bus_lab.env(), stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    try:
        out = OutputReader(mon)
        out.wait_for("member=NameLost")  # monitoring from here on
        request = bytes([1, 0, 0, 0]) + b"www.example.com".ljust(256, b"\0")
        reply = call(bus_lab, f"{API}.HandleQueryRequest", "array:byte:" + ",".join(str(b) for b in request))
        assert reply.splitlines()[1].strip() == "uint32 0"
        text = out.wait_for("   ]")
        assert f"path={OBJECT_PATH}; interface=orvik.kiv.rgwd.itf.msg; member=dnsProxyResponse" in text
        dump = text[text.index("array of bytes ["):].split("[", 1)[1].split("]")[0]
        assert bytes.fromhex("".join(dump.split())) == request
    finally:
        mon.terminate()
        mon.wait(timeout=10)
    stop_peer(p)
