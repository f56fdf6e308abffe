"""packaging/dbus/orvik.kiv.dnsproxy.conf on a bus with the system bus's default policy: root owns
the name, calls the methods and sends the daemon's signals and the DHCP lease update; any other user
may only introspect and ping it."""

import os
import subprocess

import pytest

import lab as lab_module
from lab import REPO, Lab
from peer import API, JSON_MSG, MSG, kiv_cli_binary, start_peer, stop_peer, wait_for

POLICY = REPO / "packaging" / "dbus" / "orvik.kiv.dnsproxy.conf"

# The default context of Debian's system.conf, and the daemon's policy file.
SYSTEM_BUS_CONFIG = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
  </policy>
  <include>""" + str(POLICY) + """</include>
</busconfig>
"""

NOBODY = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--"]


@pytest.fixture
def policy_lab(monkeypatch):
    monkeypatch.setattr(lab_module, "BUS_CONFIG", SYSTEM_BUS_CONFIG)
    lab = Lab(with_netns=False).up()
    os.chmod(lab.dir, 0o755)  # other users reach the bus socket
    try:
        yield lab
    finally:
        lab.down()


def send(lab, *args, user=None, signal=False, dest="orvik.kiv.dnsproxy", path="/orvik/kiv/dnsproxy"):
    cmd = ["dbus-send", "--system", "--type=signal" if signal else "--print-reply"]
    cmd += [f"--dest={dest}"] if dest else []  # none: a broadcast signal
    r = subprocess.run((NOBODY if user == "nobody" else []) + cmd + [path, *args], env=lab.env(),
                       capture_output=True, text=True, timeout=30)
    assert not signal or r.returncode == 0, r.stderr  # a refused signal is dropped silently
    return r


def test_only_root_calls_methods_and_owns_the_name(policy_lab):
    p = start_peer(policy_lab)  # as root: owns the name
    for method in ("org.freedesktop.DBus.Peer.Ping", "org.freedesktop.DBus.Introspectable.Introspect"):
        assert send(policy_lab, method, user="nobody").returncode == 0, method
    r = send(policy_lab, f"{API}.ToggleEDNS", "uint32:1", user="nobody")
    assert "org.freedesktop.DBus.Error.AccessDenied" in r.stderr
    assert "uint32 1001" in send(policy_lab, f"{API}.ToggleEDNS", "uint32:1").stdout
    assert p.stderr().count("call ToggleEDNS\n") == 1

    r = send(policy_lab, "org.freedesktop.DBus.RequestName", "string:orvik.kiv.dnsproxy", "uint32:4",
             user="nobody", dest="org.freedesktop.DBus", path="/org/freedesktop/DBus")
    assert "org.freedesktop.DBus.Error.AccessDenied" in r.stderr
    stop_peer(p)


def test_only_root_sends_the_daemons_signals(policy_lab):
    p = start_peer(policy_lab)
    send(policy_lab, f"{MSG}.dpLoadD2Acache", user="nobody", signal=True, dest=None)
    send(policy_lab, f"{MSG}.dpLoadD2Acache", user="nobody", signal=True)
    send(policy_lab, f"{JSON_MSG}.kivMessage",
         'string:{"name":"kiv_msg_cli_cmd","params":{"kiv.cli":{"tty_name":"/dev/null","cmd":"echo x"}}}',
         user="nobody", signal=True)
    # Nor may it inject DHCP leases.
    send(policy_lab, "orvik.dhcpd.dhcpLeaseInfoUpdate", "array:byte:1", user="nobody", signal=True, dest=None)
    send(policy_lab, "orvik.dhcpd.dhcpLeaseInfoUpdate", "array:byte:2", signal=True, dest=None)
    send(policy_lab, f"{MSG}.dpLoadFirstIpWanNameForDnsFilter", "string:eth9", signal=True)
    wait_for(p.stderr, rf"signal {MSG} dpLoadFirstIpWanNameForDnsFilter len=4")
    log = p.stderr()
    assert "dpLoadD2Acache" not in log and "cli tty" not in log
    assert log.count("signal orvik.dhcpd dhcpLeaseInfoUpdate") == 1
    assert "signal orvik.dhcpd dhcpLeaseInfoUpdate len=1 hex=02\n" in log

    # kiv_cli run by another user says why nothing happens.
    r = subprocess.run(NOBODY + [kiv_cli_binary(), "dnsproxy", "echo", "x"], env=policy_lab.env(),
                       capture_output=True, text=True, timeout=30)
    assert r.returncode == 1
    assert r.stderr.startswith("kiv_cli: the bus refused the command for dnsproxy: "
                               "org.freedesktop.DBus.Error.AccessDenied: ")
    r = subprocess.run([kiv_cli_binary(), "dnsproxy", "echo", "x"], env=policy_lab.env(),
                       capture_output=True, text=True, timeout=30)
    assert (r.returncode, r.stdout) == (0, "echo [x]\n")
    stop_peer(p)
