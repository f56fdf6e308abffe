# packaging/dbus/orvik.kiv.dnsproxy.conf on a bus with the system bus's default policy: root owns
# the name, calls the methods and sends the daemon's signals and the DHCP lease update; any other
# user may only introspect and ping it. And the lease update itself.
import os
import re
import subprocess

import pytest

from lab import BUS_NAME, OBJECT_PATH, REPO

# The default context of Debian's system.conf, and the daemon's policy file.
SYSTEM_POLICY = ("""<policy context="default"><allow user="*"/><deny own="*"/><deny send_type="method_call"/>
  <allow send_type="signal"/><allow send_requested_reply="true" send_type="method_return"/>
  <allow send_requested_reply="true" send_type="error"/><allow receive_type="method_call"/>
  <allow receive_type="method_return"/><allow receive_type="error"/><allow receive_type="signal"/>
  <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/></policy>
  <include>""" + str(REPO / "packaging" / "dbus" / "orvik.kiv.dnsproxy.conf") + "</include>")

NOBODY = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--"]
MSG, API = "orvik.kiv.dnsproxy.itf.msg", "orvik.kiv.dnsproxy.itf.api"


def send(lab, *args, signal=False, user="nobody", dest=BUS_NAME, path=OBJECT_PATH):
    # dbus-send as another user: a method call with its reply printed, or a signal.
    cmd = ["dbus-send", "--system", "--type=signal" if signal else "--print-reply", *([f"--dest={dest}"] if dest else [])]
    r = subprocess.run((NOBODY if user else []) + cmd + [path, *args], env=lab.env(), capture_output=True, text=True,
                       timeout=30)
    assert not signal or r.returncode == 0, r.stderr  # a refused signal is dropped silently
    return r


def lease_update(action, size=132):
    # The DHCP server's lease update: u32 action, then the 128-byte lease record.
    record = bytearray(128)
    record[0:6] = bytes.fromhex("020000000010")
    record[16:20] = bytes([192, 0, 2, 120])
    record[20:24] = (86400).to_bytes(4, "big")
    record[60:64] = b"voip"
    payload = (action.to_bytes(4, "little") + bytes(record) + bytes(8))[:size]
    return "array:byte:" + ",".join(str(b) for b in payload)


@pytest.mark.parametrize("lab", [{"policy": SYSTEM_POLICY}], indirect=True)
def test_only_root_calls_owns_and_signals_and_the_lease_update(lab):
    os.chmod(lab.dir, 0o755)  # other users reach the bus socket
    lab.write("/etc/dhcp_condpool.conf", "766f6970 192.0.2.100 192.0.2.150 VOIP\n")
    d = lab.start_dnsproxy()  # as root: owns the name
    for method in ("org.freedesktop.DBus.Peer.Ping", "org.freedesktop.DBus.Introspectable.Introspect"):
        assert send(lab, method).returncode == 0, method
    assert "org.freedesktop.DBus.Error.AccessDenied" in send(lab, f"{API}.ToggleLockNet", "uint32:1").stderr
    assert "org.freedesktop.DBus.Error.AccessDenied" in send(lab, "org.freedesktop.DBus.RequestName",
                                                             f"string:{BUS_NAME}", "uint32:4", dest="org.freedesktop.DBus",
                                                             path="/org/freedesktop/DBus").stderr
    assert "uint32 0" in send(lab, f"{API}.ToggleLockNet", "uint32:0", user=None).stdout

    # Another user's signals are dropped, broadcast or sent to the daemon: no reload, no lease,
    # no CLI command.
    lab.write("/etc/dns_d2a.conf", "192.0.2.80 printer.home\n")
    send(lab, f"{MSG}.dpLoadD2Acache", signal=True, dest=None)
    send(lab, f"{MSG}.dpLoadD2Acache", signal=True)
    send(lab, "orvik.dhcpd.dhcpLeaseInfoUpdate", lease_update(0), signal=True, dest=None)
    r = subprocess.run(NOBODY + lab.kiv_cli_argv("view", "filter"), env=lab.env(), capture_output=True, text=True,
                       timeout=30)
    assert r.returncode == 1 and r.stderr.startswith("kiv_cli: the bus refused the command for dnsproxy: "
                                                     "org.freedesktop.DBus.Error.AccessDenied: ")
    assert "printer.home" not in lab.kiv_cli("view", "cache")[1]
    assert "192.0.2.120" not in lab.kiv_cli("view", "filter")[1]

    # Root's lease update of 132 bytes adds the lease and deletes it again; other sizes are refused.
    for size in (131, 133):
        lab.bus_signal("dhcpLeaseInfoUpdate", lease_update(0, size), itf="orvik.dhcpd")
    assert d.stderr().count("dplog_process_dhcpd_lease_update, parameter mismatched\n") == 2
    assert "192.0.2.120" not in lab.kiv_cli("view", "filter")[1]
    lab.bus_signal("dhcpLeaseInfoUpdate", lease_update(0), itf="orvik.dhcpd")
    assert re.search(r"\d+: 192\.0\.2\.120\(C0000278\) 02:00:00:00:00:10 voip\n", lab.kiv_cli("view", "filter")[1])
    lab.bus_signal("dhcpLeaseInfoUpdate", lease_update(1), itf="orvik.dhcpd")
    assert "192.0.2.120" not in lab.kiv_cli("view", "filter")[1]
    lab.bus_signal("dpLoadD2Acache")
    assert "name=printer.home value=192.0.2.80\n" in lab.kiv_cli("view", "cache")[1]
