"""The test lab: three network namespaces, a private system bus and a private file tree.

    lan  clients at 192.0.2.10 and 2001:db8:1::10 (MAC 02:00:00:00:00:10)
    gw   dnsproxy; the LAN bridge br0 (192.0.2.1/24, 2001:db8:1::1/64) and the WAN side
         198.51.100.1/24, 2001:db8:2::1/64
    wan  upstream servers at 198.51.100.53, .54, .55 and 2001:db8:2::53

Only documentation prefixes and loopback are used. Everything the lab starts is ended by PID,
and the namespaces are deleted, when the lab goes down.
"""

import ctypes
import itertools
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

REPO = Path(__file__).resolve().parents[2]
BUS_NAME = "orvik.kiv.dnsproxy"
OBJECT_PATH = "/orvik/kiv/dnsproxy"

LAN_MAC = "02:00:00:00:00:10"
LAN_V4 = "192.0.2.10"
LAN_V6 = "2001:db8:1::10"
GW_LAN_V4 = "192.0.2.1"
GW_LAN_V6 = "2001:db8:1::1"
GW_WAN_V4 = "198.51.100.1"
GW_WAN_V6 = "2001:db8:2::1"
WAN_V4 = ["198.51.100.53", "198.51.100.54", "198.51.100.55"]
WAN_V6 = ["2001:db8:2::53"]
KNOT_ADDR = WAN_V4[2]  # the authoritative server for lab.example

_serial = itertools.count()

# The sample zone served by the lab's authoritative server.
SAMPLE_ZONE = """$ORIGIN lab.example.
$TTL 3600
@       SOA  ns.lab.example. hostmaster.lab.example. 1 3600 600 86400 300
@       NS   ns
ns      A    198.51.100.55
www     A    203.0.113.10
www     AAAA 2001:db8:3::10
mail    A    203.0.113.25
@       MX   10 mail
cdn     A    203.0.113.30
cdn     A    203.0.113.31
alias   CNAME www
mid     TXT  {mid}
big     TXT  {big}
"""
# TXT answers longer than a datagram the proxy reads from upstream (1,024 bytes): mid.lab.example
# (about 1,150 bytes, still within knot's UDP limit) and big.lab.example (about 3,060 bytes).
MID_TXT = [f"m{i}" + "m" * 222 for i in range(5)]
BIG_TXT = [f"b{i:02d}" + "b" * 247 for i in range(12)]
SAMPLE_ZONE = SAMPLE_ZONE.format(mid=" ".join(f'"{t}"' for t in MID_TXT),
                                 big=" ".join(f'"{t}"' for t in BIG_TXT))

KNOT_CONF = """server:
    rundir: "{dir}"
    listen: [ {listen} ]
database:
    storage: "{dir}/db"
log:
  - target: stderr
    any: info
zone:
  - domain: lab.example
    storage: "{dir}"
    file: "lab.example.zone"
"""

BUS_CONFIG = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_type="method_return"/>
    <allow send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="signal"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow eavesdrop="true"/>
  </policy>
</busconfig>
"""


def dnsproxy_binary():
    """The daemon under test: $DNSPROXY_BIN (set by CTest), else the plain build."""
    return os.environ.get("DNSPROXY_BIN", str(REPO / "build" / "dnsproxy"))


def tool_path(name):
    """A test tool built with the tests (tests/tools/): $DNSPROXY_TOOLS_DIR (set by CTest), else
    the sanitized test build."""
    return os.path.join(os.environ.get("DNSPROXY_TOOLS_DIR", str(REPO / "build-test" / "tests" / "tools")), name)


def run(cmd, check=True, **kw):
    return subprocess.run(cmd, check=check, capture_output=True, text=True, **kw)


def _comm(pid):
    """The command name of a running process, as down_from_state checks it."""
    try:
        return Path(f"/proc/{pid}/comm").read_text().strip()
    except OSError:
        return ""


class Daemon:
    """One dnsproxy process started by the lab; its standard error goes to a file."""

    def __init__(self, lab, proc, log_path):
        self.lab = lab
        self.proc = proc
        self.log_path = log_path

    @property
    def pid(self):
        return self.proc.pid

    def stderr(self):
        return self.log_path.read_text(errors="replace")

    def alive(self):
        return self.proc.poll() is None

    def wait_ready(self, timeout=15.0):
        """Waits until the daemon answers a bus ping, i.e. it owns its name and runs its loop."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            if not self.alive():
                raise AssertionError(f"dnsproxy exited with {self.proc.returncode}:\n{self.stderr()}")
            if self.lab.bus_ping():
                return
            time.sleep(0.05)
        raise AssertionError(f"dnsproxy not ready after {timeout} s:\n{self.stderr()}")

    def signal(self, signo):
        if self.alive():
            os.kill(self.pid, signo)

    def wait(self, timeout=10.0):
        return self.proc.wait(timeout=timeout)

    def stop(self):
        """SIGTERM, then SIGKILL if it does not end; returns the exit status."""
        if self.alive():
            self.signal(signal.SIGTERM)
            try:
                return self.proc.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.signal(signal.SIGKILL)
        return self.proc.wait(timeout=10)


class Responder:
    """A scriptable upstream server (responder.py) in the wan namespace."""

    def __init__(self, proc, log_path, addr):
        self.proc = proc
        self.log_path = log_path
        self.addr = addr

    def queries(self):
        if not self.log_path.exists():
            return []
        return [json.loads(line) for line in self.log_path.read_text().splitlines() if line.strip()]

    def wait_queries(self, count=1, timeout=10.0, where=lambda q: True):
        """Waits until count matching queries arrived; returns them."""
        deadline = time.monotonic() + timeout
        while True:
            got = [q for q in self.queries() if where(q)]
            if len(got) >= count or time.monotonic() >= deadline:
                return got
            time.sleep(0.05)


class ModulePeer:
    """A module on the module message channel (module_peer.py) in gw."""

    def __init__(self, proc, log_path, module_id):
        self.proc = proc
        self.log_path = log_path
        self.module_id = module_id

    def messages(self):
        if not self.log_path.exists():
            return []
        return [json.loads(line) for line in self.log_path.read_text().splitlines() if line.strip()]

    def wait_messages(self, count=1, timeout=10.0):
        """Waits until count messages arrived; returns them."""
        deadline = time.monotonic() + timeout
        while True:
            got = [m for m in self.messages() if "type" in m]
            if len(got) >= count or time.monotonic() >= deadline:
                return got
            time.sleep(0.05)


class Lab:
    def __init__(self, with_netns=True, tag=None, workdir=None):
        self.tag = tag or f"dp{os.getpid() % 100000}n{next(_serial)}"
        self.with_netns = with_netns
        if workdir is None:
            workdir = tempfile.mkdtemp(prefix="dp-")  # short: socket paths must fit
        self.dir = Path(workdir)
        self.dir.mkdir(parents=True, exist_ok=True)
        self.root = self.dir / "root"
        for sub in ("etc", "configs", "var/run/csmsg"):
            (self.root / sub).mkdir(parents=True, exist_ok=True)
        self.bus_socket = self.dir / "bus"
        self.bus_address = f"unix:path={self.bus_socket}"
        self.ns = {name: f"{self.tag}-{name}" for name in ("lan", "gw", "wan")}
        self.processes = []
        self.daemons = []
        self._bus = None

    # ---- bring-up -------------------------------------------------------------------------

    def up(self, detach=False):
        """detach: the bus and daemons outlive this Python process (the demonstration lab)."""
        try:
            if self.with_netns:
                self._make_namespaces()
            self._start_bus(detach)
        except Exception:
            self.down()
            raise
        return self

    def _ip(self, ns, *args):
        run(["ip", "-n", self.ns[ns], *args])

    def _make_namespaces(self):
        for name in self.ns.values():
            run(["ip", "netns", "add", name])
        for ns in self.ns:
            self._ip(ns, "link", "set", "lo", "up")
        # lan0 (lan) <-> port0 (gw, in br0); wan0 (wan) <-> gw0 (gw)
        self._ip("lan", "link", "add", "lan0", "address", LAN_MAC, "type", "veth", "peer", "name", "port0",
                 "netns", self.ns["gw"])
        self._ip("wan", "link", "add", "wan0", "type", "veth", "peer", "name", "gw0", "netns", self.ns["gw"])
        self._ip("gw", "link", "add", "br0", "type", "bridge")
        self._ip("gw", "link", "set", "port0", "master", "br0")
        for ns, link in (("gw", "br0"), ("gw", "port0"), ("gw", "gw0"), ("lan", "lan0"), ("wan", "wan0")):
            self._ip(ns, "link", "set", link, "up")
        self._ip("gw", "addr", "add", f"{GW_LAN_V4}/24", "dev", "br0")
        self._ip("gw", "addr", "add", f"{GW_LAN_V6}/64", "dev", "br0", "nodad")
        self._ip("gw", "addr", "add", f"{GW_WAN_V4}/24", "dev", "gw0")
        self._ip("gw", "addr", "add", f"{GW_WAN_V6}/64", "dev", "gw0", "nodad")
        self._ip("lan", "addr", "add", f"{LAN_V4}/24", "dev", "lan0")
        self._ip("lan", "addr", "add", f"{LAN_V6}/64", "dev", "lan0", "nodad")
        self._ip("lan", "route", "add", "default", "via", GW_LAN_V4)
        for addr in WAN_V4:
            self._ip("wan", "addr", "add", f"{addr}/24", "dev", "wan0")
        for addr in WAN_V6:
            self._ip("wan", "addr", "add", f"{addr}/64", "dev", "wan0", "nodad")

    def _start_bus(self, detach=False):
        conf = self.dir / "bus.conf"
        conf.write_text(BUS_CONFIG.format(socket=self.bus_socket))
        proc = subprocess.Popen(["dbus-daemon", f"--config-file={conf}", "--nofork", "--print-address"],
                                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                                start_new_session=detach)
        self.processes.append(proc)
        self._bus = proc
        line = proc.stdout.readline()  # printed once the bus listens
        if not line.startswith("unix:"):
            raise RuntimeError("dbus-daemon did not start")

    def restart_bus(self, while_down=lambda: None):
        """Ends the lab's dbus-daemon by its PID, runs while_down, then starts a new one on the same
        socket path; returns what while_down returned."""
        self._bus.terminate()
        self._bus.wait(timeout=10)
        result = while_down()
        self._start_bus()
        return result

    # ---- use ------------------------------------------------------------------------------

    def env(self, extra=None):
        env = dict(os.environ)
        env["DNSPROXY_ROOT"] = str(self.root)
        env["DBUS_SYSTEM_BUS_ADDRESS"] = self.bus_address
        env.update(extra or {})
        return env

    def exec_argv(self, ns, argv):
        """argv run inside namespace ns (plain argv when the lab has no namespaces)."""
        if not self.with_netns:
            return list(argv)
        return ["ip", "netns", "exec", self.ns[ns], *argv]

    def write(self, path, text):
        """Writes a file of the daemon's tree: path as the daemon names it (/etc/...)."""
        full = self.root / path.lstrip("/")
        full.parent.mkdir(parents=True, exist_ok=True)
        full.write_text(text)
        return full

    def read(self, path):
        return (self.root / path.lstrip("/")).read_text()

    def start_dnsproxy(self, *args, ready=True, env=None, detach=False, binary=None):
        log = self.dir / f"dnsproxy-{len(self.daemons)}.log"
        with open(log, "w") as out:
            # ip netns exec execs the command, so the PID is the daemon's own.
            proc = subprocess.Popen(self.exec_argv("gw", [binary or dnsproxy_binary(), *args]),
                                    stdin=subprocess.DEVNULL, stdout=out, stderr=out, env=self.env(env),
                                    start_new_session=detach)
        daemon = Daemon(self, proc, log)
        self.daemons.append(daemon)
        if ready:
            daemon.wait_ready()
        return daemon

    def start_responder(self, addr, mode="answer", *extra):
        """A responder on addr:53 in wan, ready when this returns."""
        log = self.dir / f"responder-{addr}.jsonl"
        argv = [sys.executable, str(Path(__file__).with_name("responder.py")), "--addr", addr, "--mode", mode,
                "--log", str(log), *extra]
        proc = subprocess.Popen(self.exec_argv("wan", argv), stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                text=True)
        self.processes.append(proc)
        if proc.stdout.readline().strip() != "ready":
            raise RuntimeError(f"responder on {addr} did not start")
        return Responder(proc, log, addr)

    def start_knot(self, addrs=(WAN_V4[2], WAN_V6[0]), detach=False):
        """knotd in wan, authoritative for lab.example (see SAMPLE_ZONE), ready when this returns."""
        kdir = self.dir / "knot"
        (kdir / "db").mkdir(parents=True, exist_ok=True)
        (kdir / "lab.example.zone").write_text(SAMPLE_ZONE)
        listen = ", ".join(f"{a}@53" for a in addrs)
        (kdir / "knot.conf").write_text(KNOT_CONF.format(dir=kdir, listen=listen))
        log = open(self.dir / "knot.log", "w")
        proc = subprocess.Popen(self.exec_argv("wan", ["knotd", "-c", str(kdir / "knot.conf")]),
                                stdout=log, stderr=log, stdin=subprocess.DEVNULL, start_new_session=detach)
        self.processes.append(proc)
        deadline = time.monotonic() + 15
        while time.monotonic() < deadline:
            r = run(self.exec_argv("wan", ["dig", f"@{addrs[0]}", "www.lab.example", "A", "+short", "+time=1",
                                           "+tries=1"]), check=False)
            if r.stdout.strip() == "203.0.113.10":
                return proc
            if proc.poll() is not None:
                break
            time.sleep(0.1)
        raise RuntimeError("knotd did not start: " + (self.dir / "knot.log").read_text())

    def query(self, name=None, qtype="A", server=GW_LAN_V4, ns="lan", timeout=2.0, **opts):
        """One query from a lan client with dnsclient.py; its JSON result (see that file)."""
        argv = ["/usr/bin/python3", str(Path(__file__).with_name("dnsclient.py")), "--server", server,
                "--type", qtype, "--timeout", str(timeout)]
        if name is not None:
            argv += ["--name", name]
        for key, value in opts.items():
            argv += [f"--{key}", str(value)]
        r = run(self.exec_argv(ns, argv), timeout=timeout + 20)
        return json.loads(r.stdout)

    def socket(self, ns="lan", family=socket.AF_INET, connect=None, rcvbuf=None, timeout=5.0):
        """A TCP socket of namespace ns, connected to connect (address, port) when given: a thread
        joins the namespace and makes it, so that the test drives it directly."""
        made = []

        def make():
            try:
                if self.with_netns:
                    libc = ctypes.CDLL(None, use_errno=True)
                    with open(f"/var/run/netns/{self.ns[ns]}") as f:
                        if libc.setns(f.fileno(), 0x40000000) != 0:  # CLONE_NEWNET
                            raise OSError(ctypes.get_errno(), "setns")
                sock = socket.socket(family, socket.SOCK_STREAM)
                if rcvbuf:
                    sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, rcvbuf)
                sock.settimeout(timeout)
                if connect:
                    sock.connect(connect)
                made.append(sock)
            except OSError as exc:
                made.append(exc)

        t = threading.Thread(target=make)
        t.start()
        t.join()
        if isinstance(made[0], OSError):
            raise made[0]
        return made[0]

    def start_module_peer(self, module_id, mode="answer", status="0", result="0", reg_url_enable="0",
                          payload_hex=None, detach=False):
        """A module peer bound to the channel of module_id, ready when this returns. Mode "answer"
        replies to registration-state requests with the three texts (or payload_hex); "silent"
        only records."""
        log = self.dir / f"module-{module_id}.jsonl"
        argv = [sys.executable, str(Path(__file__).with_name("module_peer.py")), "--root", str(self.root),
                "--id", str(module_id), "--log", str(log), "--mode", mode, "--status", status,
                "--result", result, "--reg-url-enable", reg_url_enable]
        if payload_hex is not None:
            argv += ["--payload-hex", payload_hex]
        proc = subprocess.Popen(self.exec_argv("gw", argv), stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                text=True, start_new_session=detach)
        self.processes.append(proc)
        if proc.stdout.readline().strip() != "ready":
            raise RuntimeError(f"module peer {module_id} did not start")
        return ModulePeer(proc, log, module_id)

    # ---- the daemon's control plane, through the real tools ----------------------------------

    def bus_signal(self, member, *args, itf="orvik.kiv.dnsproxy.itf.msg"):
        """Emits a signal with dbus-send, then pings the daemon so that it has been handled."""
        r = run(["dbus-send", "--system", "--type=signal", OBJECT_PATH, f"{itf}.{member}", *args],
                check=False, env=self.env())
        assert r.returncode == 0, r.stderr
        assert self.bus_ping()

    def bus_call(self, method, *args, itf="orvik.kiv.dnsproxy.itf.api"):
        """A method call with busctl: (exit status, its output in busctl's text form)."""
        r = run(["busctl", "--system", "call", BUS_NAME, OBJECT_PATH, itf, method, *args], check=False,
                env=self.env())
        return r.returncode, (r.stdout if r.returncode == 0 else r.stderr).strip()

    @staticmethod
    def kiv_cli_argv(*words):
        return [os.path.join(os.environ.get("DNSPROXY_BUILD_DIR", str(REPO / "build")), "kiv_cli"), "dnsproxy", *words]

    def kiv_cli(self, *words, timeout=20):
        """kiv_cli dnsproxy <words>: (exit status, standard output, standard error)."""
        r = run(self.kiv_cli_argv(*words), check=False, env=self.env(), timeout=timeout)
        return r.returncode, r.stdout, r.stderr

    def bus_ping(self):
        r = run(["dbus-send", "--system", "--print-reply", "--reply-timeout=1000", f"--dest={BUS_NAME}",
                 OBJECT_PATH, "org.freedesktop.DBus.Peer.Ping"], check=False, env=self.env())
        return r.returncode == 0

    # ---- a lab that outlives its maker ----------------------------------------------------

    def state(self):
        """What down() of a later process needs: names, folder and the PIDs started here."""
        pids = [p.pid for p in self.processes] + [d.pid for d in self.daemons]
        entries = [{"pid": pid, "comm": _comm(pid)} for pid in pids]  # to recognise them later
        return {"tag": self.tag, "dir": str(self.dir), "with_netns": self.with_netns, "pids": entries}

    @staticmethod
    def down_from_state(state):
        """Ends the processes a detached lab started (by PID) and removes its namespaces."""
        for entry in state["pids"]:
            pid = entry["pid"]
            try:  # a PID reused by another program since is left alone
                if Path(f"/proc/{pid}/comm").read_text().strip() != entry["comm"]:
                    continue
                os.kill(pid, signal.SIGTERM)
            except (FileNotFoundError, ProcessLookupError):
                continue
            for _ in range(100):
                try:
                    os.kill(pid, 0)
                except ProcessLookupError:
                    break
                time.sleep(0.05)
            else:
                try:
                    os.kill(pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass
        if state["with_netns"]:
            for name in ("lan", "gw", "wan"):
                subprocess.run(["ip", "netns", "del", f"{state['tag']}-{name}"], capture_output=True)
        shutil.rmtree(state["dir"], ignore_errors=True)

    # ---- tear-down ------------------------------------------------------------------------

    def down(self):
        for d in self.daemons:
            try:
                d.stop()
            except Exception:
                pass
        for proc in self.processes:
            if proc.poll() is None:
                proc.terminate()
                try:
                    proc.wait(timeout=5)
                except subprocess.TimeoutExpired:
                    proc.kill()
                    proc.wait(timeout=5)
        if self.with_netns:
            for name in self.ns.values():
                subprocess.run(["ip", "netns", "del", name], capture_output=True)
        shutil.rmtree(self.dir, ignore_errors=True)
