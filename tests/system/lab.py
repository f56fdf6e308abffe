# The test lab: three network namespaces, a private system bus and a private file tree.
#
#     lan  clients at 192.0.2.10 and 2001:db8:1::10 (MAC 02:00:5e:ab:cd:10)
#     gw   dnsproxy; the LAN bridge br0 (192.0.2.1/24, 2001:db8:1::1/64) and the WAN side
#          198.51.100.1/24, 2001:db8:2::1/64
#     wan  upstream servers at 198.51.100.53, .54, .55 and 2001:db8:2::53
#
# Only documentation prefixes and loopback are used. Everything the lab starts is ended by PID,
# and the namespaces are deleted, when the lab goes down.
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

HERE = Path(__file__).resolve().parent
REPO = HERE.parents[1]
BUS_NAME = "orvik.kiv.dnsproxy"
OBJECT_PATH = "/orvik/kiv/dnsproxy"
LAN_MAC = "02:00:5e:ab:cd:10"  # with letters, so that the case of each family's text shows
LAN_V4, LAN_V6 = "192.0.2.10", "2001:db8:1::10"
GW_LAN_V4, GW_LAN_V6 = "192.0.2.1", "2001:db8:1::1"
WAN_V4 = ["198.51.100.53", "198.51.100.54", "198.51.100.55"]
WAN_V6 = ["2001:db8:2::53"]
KNOT_ADDR = WAN_V4[2]  # the authoritative server for lab.example

_serial = itertools.count()

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
zone:
  - domain: lab.example
    storage: "{dir}"
    file: "lab.example.zone"
"""

BUS_CONFIG = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>system</type><listen>unix:path={socket}</listen><auth>EXTERNAL</auth>
{policy}</busconfig>
"""
# Everything allowed to everyone.
OPEN_POLICY = ('<policy context="default"><allow user="*"/><allow own="*"/>'
               '<allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/></policy>')

# `ip -batch` commands of each namespace, in this order; {gw} is the gw namespace's name.
NETWORK = {
    "lan": f"link set lo up\nlink add lan0 address {LAN_MAC} type veth peer name port0 netns {{gw}}\n"
           f"addr add {LAN_V4}/24 dev lan0\naddr add {LAN_V6}/64 dev lan0 nodad\n",
    "wan": "link set lo up\nlink add wan0 type veth peer name gw0 netns {gw}\nlink set wan0 up\n"
           + "".join(f"addr add {a}/24 dev wan0\n" for a in WAN_V4) + "".join(f"addr add {a}/64 dev wan0 nodad\n" for a in WAN_V6),
    "gw": "link set lo up\nlink add br0 type bridge\nlink set port0 master br0\nlink set br0 up\nlink set port0 up\n"
          f"link set gw0 up\naddr add {GW_LAN_V4}/24 dev br0\naddr add {GW_LAN_V6}/64 dev br0 nodad\n"
          "addr add 198.51.100.1/24 dev gw0\naddr add 2001:db8:2::1/64 dev gw0 nodad\n",
}


def dnsproxy_binary():
    return os.environ.get("DNSPROXY_BIN", str(REPO / "build" / "dnsproxy"))


def build_path(*parts):
    return os.path.join(os.environ.get("DNSPROXY_BUILD_DIR", str(REPO / "build")), *parts)


def run(cmd, check=True, **kw):
    return subprocess.run(cmd, check=check, capture_output=True, text=True, **kw)


def answers(result):
    # (type, rdata) of each answer record of a dnsclient.py result
    return [(a[2], a[3]) for a in result.get("answer", [])]


def wait_until(get, timeout=10.0):
    # get() once it is true, or its last value after timeout seconds.
    deadline = time.monotonic() + timeout
    while not (value := get()) and time.monotonic() < deadline:
        time.sleep(0.05)
    return value


class Daemon:
    def __init__(self, lab, proc, log_path):
        self.lab, self.proc, self.log_path, self.pid = lab, proc, log_path, proc.pid

    def stderr(self):
        return self.log_path.read_text(errors="replace")

    def alive(self):
        return self.proc.poll() is None

    def wait_ready(self, timeout=15.0):
        # Waits until the daemon answers a bus ping: it owns its name and runs its loop.
        if not wait_until(lambda: not self.alive() or self.lab.bus_ping(), timeout) or not self.alive():
            raise AssertionError(f"dnsproxy not ready ({self.proc.poll()}):\n{self.stderr()}")

    def signal(self, signo):
        if self.alive():
            os.kill(self.pid, signo)

    def wait(self, timeout=10.0):
        return self.proc.wait(timeout=timeout)

    def stop(self):
        self.signal(signal.SIGTERM)
        try:
            return self.proc.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self.signal(signal.SIGKILL)
            return self.proc.wait(timeout=10)


class Recorder:
    # A helper process (responder.py, module_peer.py) that logs what it receives as JSON lines.

    def __init__(self, proc, log_path):
        self.proc, self.log_path = proc, log_path

    def records(self):
        return [json.loads(line) for line in self.log_path.read_text().splitlines()]

    def wait_records(self, count=1, timeout=10.0, where=lambda r: True):
        def got():
            return [r for r in self.records() if where(r)]
        return wait_until(lambda: len(r := got()) >= count and r, timeout) or got()


class Lab:
    def __init__(self, tag=None, workdir=None, policy=OPEN_POLICY):
        self.tag = tag or f"dp{os.getpid() % 100000}n{next(_serial)}"
        self.dir = Path(workdir or tempfile.mkdtemp(prefix="dp-"))  # short: socket paths must fit
        self.root = self.dir / "root"
        for sub in ("etc", "configs", "var/run/csmsg"):
            (self.root / sub).mkdir(parents=True, exist_ok=True)
        self.bus_socket = self.dir / "bus"
        self.policy = policy
        self.ns = {name: f"{self.tag}-{name}" for name in ("lan", "gw", "wan")}
        self.processes, self.daemons = [], []

    def up(self, detach=False):
        # detach: the bus and daemons outlive this Python process (the demonstration lab).
        try:
            for name in self.ns.values():
                run(["ip", "netns", "add", name])
            for ns in ("lan", "wan", "gw"):
                run(["ip", "-n", self.ns[ns], "-batch", "-"], input=NETWORK[ns].format(gw=self.ns["gw"]))
            # The client's link comes up last, once the bridge port at the other end is up: up
            # earlier, the first answer to it would be lost.
            run(["ip", "-n", self.ns["lan"], "link", "set", "lan0", "up"])
            run(["ip", "-n", self.ns["lan"], "route", "add", "default", "via", GW_LAN_V4])
            self._start_bus(detach)
        except Exception:
            self.down()
            raise
        return self

    def _start_bus(self, detach=False):
        conf = self.dir / "bus.conf"
        conf.write_text(BUS_CONFIG.format(socket=self.bus_socket, policy=self.policy))
        self._bus = subprocess.Popen(["dbus-daemon", f"--config-file={conf}", "--nofork", "--print-address"],
                                     stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                                     start_new_session=detach)
        self.processes.append(self._bus)
        if not self._bus.stdout.readline().startswith("unix:"):  # printed once the bus listens
            raise RuntimeError("dbus-daemon did not start")

    def restart_bus(self, while_down=lambda: None):
        # Ends the bus by its PID, runs while_down, starts a new one on the same socket path;
        # returns what while_down returned.
        self._bus.terminate()
        self._bus.wait(timeout=10)
        result = while_down()
        self._start_bus()
        return result

    def env(self, extra=None):
        return {**os.environ, "DNSPROXY_ROOT": str(self.root),
                "DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={self.bus_socket}", **(extra or {})}

    def exec_argv(self, ns, argv):
        return ["ip", "netns", "exec", self.ns[ns], *argv]

    def write(self, path, text):
        # Writes a file of the daemon's tree, named as the daemon names it (/etc/...).
        full = self.root / path.lstrip("/")
        full.parent.mkdir(parents=True, exist_ok=True)
        full.write_text(text)
        return full

    def read(self, path):
        return (self.root / path.lstrip("/")).read_text()

    def start_dnsproxy(self, *args, ready=True, detach=False, binary=None):
        log = self.dir / f"dnsproxy-{len(self.daemons)}.log"
        with open(log, "w") as out:  # ip netns exec execs the command: the PID is the daemon's
            proc = subprocess.Popen(self.exec_argv("gw", [binary or dnsproxy_binary(), *args]),
                                    stdin=subprocess.DEVNULL, stdout=out, stderr=out, env=self.env(),
                                    start_new_session=detach)
        self.daemons.append(Daemon(self, proc, log))
        if ready:
            self.daemons[-1].wait_ready()
        return self.daemons[-1]

    def _start_recorder(self, ns, script, log, *args, detach=False):
        proc = subprocess.Popen(self.exec_argv(ns, [sys.executable, str(HERE / script), "--log", str(log), *args]),
                                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                                start_new_session=detach)
        self.processes.append(proc)
        if proc.stdout.readline().strip() != "ready":
            raise RuntimeError(f"{script} {args} did not start")
        return Recorder(proc, log)

    def start_responder(self, addr, mode="answer", *extra):
        # An upstream server (responder.py) on addr:53 in wan.
        return self._start_recorder("wan", "responder.py", self.dir / f"responder-{addr}.jsonl", "--addr", addr,
                                    "--mode", mode, *extra)

    def start_module_peer(self, module_id, reply="0,0,0", detach=False):
        # A module (module_peer.py) on the channel of module_id in gw; reply: see there.
        return self._start_recorder("gw", "module_peer.py", self.dir / f"module-{module_id}.jsonl", "--root",
                                    str(self.root), "--id", str(module_id), "--reply", reply, detach=detach)

    def start_knot(self, addrs=(KNOT_ADDR, WAN_V6[0]), detach=False):
        # knotd in wan, authoritative for lab.example (SAMPLE_ZONE), ready when this returns.
        kdir = self.dir / "knot"
        (kdir / "db").mkdir(parents=True, exist_ok=True)
        (kdir / "lab.example.zone").write_text(SAMPLE_ZONE)
        listen = ", ".join(f"{a}@53" for a in addrs)
        (kdir / "knot.conf").write_text(KNOT_CONF.format(dir=kdir, listen=listen))
        proc = subprocess.Popen(self.exec_argv("wan", ["knotd", "-c", str(kdir / "knot.conf")]),
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL,
                                start_new_session=detach)
        self.processes.append(proc)
        dig = self.exec_argv("wan", ["dig", f"@{addrs[0]}", "www.lab.example", "+short", "+time=1", "+tries=1"])
        if not wait_until(lambda: proc.poll() is not None or run(dig, check=False).stdout == "203.0.113.10\n", 15) \
                or proc.poll() is not None:
            raise RuntimeError("knotd did not start")
        return proc

    def query(self, name=None, qtype="A", server=GW_LAN_V4, ns="lan", timeout=2.0, **opts):
        # One query from a lan client with dnsclient.py; its JSON result (see there).
        argv = [sys.executable, str(HERE / "dnsclient.py"), "--server", server, "--type", qtype,
                "--timeout", str(timeout), *(["--name", name] if name else [])]
        for key, value in opts.items():
            argv += [f"--{key}", str(value)]
        return json.loads(run(self.exec_argv(ns, argv), timeout=timeout + 20).stdout)

    def socket(self, ns="lan", family=socket.AF_INET, connect=None, rcvbuf=None, timeout=5.0):
        # A TCP socket of namespace ns, connected to connect (address, port) when given: a thread
        # joins the namespace and makes it, so that the test drives it directly.
        made = []

        def make():
            try:
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

    # ---- the daemon's control plane, through the real tools ---------------------------------

    def bus_signal(self, member, *args, itf="orvik.kiv.dnsproxy.itf.msg", dest=None):
        # Emits a signal with dbus-send from an object path of its own (the daemon matches
        # interface and member only), then pings the daemon so that it has been handled.
        r = run(["dbus-send", "--system", "--type=signal", *([f"--dest={dest}"] if dest else []), "/lab/sender",
                 f"{itf}.{member}", *args], check=False, env=self.env())
        assert r.returncode == 0, r.stderr
        assert self.bus_ping()

    def bus_call(self, method, *args, itf="orvik.kiv.dnsproxy.itf.api", path=OBJECT_PATH):
        # A method call with busctl: (exit status, its output in busctl's text form).
        r = run(["busctl", "--system", "--timeout=5", "call", BUS_NAME, path, itf, method, *args], check=False, env=self.env())
        return r.returncode, (r.stdout if r.returncode == 0 else r.stderr).strip()

    def bus_ping(self):
        return self.bus_call("Ping", itf="org.freedesktop.DBus.Peer")[0] == 0

    @staticmethod
    def kiv_cli_argv(*words):
        return [build_path("kiv_cli"), "dnsproxy", *words]

    def kiv_cli(self, *words, env=None, timeout=20):
        # kiv_cli dnsproxy <words>: (exit status, standard output, standard error).
        r = run(self.kiv_cli_argv(*words), check=False, env=self.env(env), timeout=timeout)
        return r.returncode, r.stdout, r.stderr

    # ---- a lab that outlives its maker, and tear-down ----------------------------------------

    def state(self):
        # What down_from_state() of a later process needs; the command name of each PID
        # recognises it later.
        pids = [p.pid for p in self.processes] + [d.pid for d in self.daemons]
        return {"tag": self.tag, "dir": str(self.dir), "pids": [{"pid": p, "comm": _comm(p)} for p in pids]}

    @staticmethod
    def down_from_state(state):
        for entry in state["pids"]:
            try:
                if _comm(entry["pid"]) == entry["comm"]:  # not gone, nor a PID reused since
                    os.kill(entry["pid"], signal.SIGTERM)
                    if not wait_until(lambda: not _comm(entry["pid"]), 5):
                        os.kill(entry["pid"], signal.SIGKILL)
            except ProcessLookupError:
                pass
        for name in ("lan", "gw", "wan"):
            subprocess.run(["ip", "netns", "del", f"{state['tag']}-{name}"], capture_output=True)
        shutil.rmtree(state["dir"], ignore_errors=True)

    def down(self):
        for d in self.daemons:
            d.stop()
        for proc in self.processes:
            proc.terminate()
            try:
                proc.wait(timeout=5)
            except subprocess.TimeoutExpired:
                proc.kill()
                proc.wait(timeout=5)
        for name in self.ns.values():
            subprocess.run(["ip", "netns", "del", name], capture_output=True)
        shutil.rmtree(self.dir, ignore_errors=True)


def _comm(pid):
    try:
        return Path(f"/proc/{pid}/comm").read_text().strip()
    except OSError:
        return ""
