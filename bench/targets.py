#!/usr/bin/python3
"""The speed and scale figures of docs/performance.md, each against its reference, in one lab and
one run (dnsperf or bench/dnsload.cpp in lan, the daemons in gw, knotd in wan):

  forward    10,000 distinct names forwarded: dnsproxy against dnsmasq
  local      a 100-entry D2A table: dnsproxy against dnsmasq --address and a bare
             recvmmsg/sendmmsg responder (bench/udp_responder.cpp)
  hosts      local answers from a hosts file of 100,000 entries against one of 100
  filter     forwarding with a name filter of 10,000 entries against one of 10
  reload     reloading the 100,000-line hosts file (bus signal dpLoadHostsCache), timed from the
             client side: signal and bus ping, less a signal nobody handles and a bus ping
  latency    p50/p99/max at 5,000 queries a second, forwarding (bench/dnsload.cpp)
  overload   16 sockets x 500 outstanding, forwarding: latencies, and every answer's question
             checked against what its id asked (dnsproxy, dnsmasq, dnsdist when installed)
  memory     Private_Dirty of /proc/PID/smaps_rollup at rest and with a full table of 1036
             pending queries (an upstream that never answers): dnsproxy against dnsmasq
  allocs     heap allocations per 100,000 queries after a warm-up (bench/malloc_count.cpp),
             forwarding and local answers

The rate roles run --rounds interleaved rounds and print medians, with the daemon's CPU time
per answered query beside each rate. Before the first run it waits (at most --wait-minutes) for
the 1-minute load average to fall below --quiet-load. Usage, as root, after a release build:

    cmake -S . -B build -DCMAKE_BUILD_TYPE=Release && cmake --build build -j2
    bench/targets.py [--roles forward,local,...] [--seconds 10] [--rounds 3]
"""
import argparse
import json
import os
import re
import shutil
import signal
import statistics
import subprocess
import sys
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))
import dnsperf_compare as dc  # noqa: E402
import lab as labmod  # noqa: E402  (dnsperf_compare put tests/system on the path)
from lab import GW_LAN_V4, KNOT_ADDR, Lab, dnsproxy_binary  # noqa: E402

ROLES = ["forward", "local", "hosts", "filter", "reload", "latency", "overload", "memory", "allocs"]
SUFFIX = "w.lab.example"  # a wildcard of the lab zone answers every name below it
SILENT = "198.51.100.53"  # a lab address where no server listens: queries to it stay pending
BASE_CONF = "EnableD2AFeature=1\nSystemDnsServerSetPolicy=0\nhosts_file=/etc/hosts.bench\n"
BARE_UPSTREAM = "198.51.100.54"  # bench/udp_responder.cpp as the upstream of the overload role


def build_tools(lab):
    tools = {}
    for name, extra in (("dnsload", []), ("udp_responder", []), ("malloc_count", ["-shared", "-fPIC"])):
        out = lab.dir / (name + (".so" if extra else ""))
        subprocess.run(["c++", "-std=c++20", "-O2", *extra, "-o", str(out), str(HERE / f"{name}.cpp")], check=True)
        tools[name] = str(out)
    return tools


def names(n, suffix=SUFFIX):
    return [f"n{i}.{suffix} A" for i in range(n)]


def private_dirty_kib(pid):
    text = Path(f"/proc/{pid}/smaps_rollup").read_text()
    return int(re.search(r"Private_Dirty:\s+(\d+)", text).group(1))


class Run:
    """One daemon in gw: started from its argv, ended by its PID."""

    def __init__(self, lab, argv, env=None, ready_name="n0." + SUFFIX, log=None):
        self.lab, self.log = lab, log or lab.dir / f"run-{time.monotonic_ns()}.log"
        with open(self.log, "w") as out:
            self.proc = subprocess.Popen(lab.exec_argv("gw", argv), env=lab.env(env), stdout=out, stderr=out,
                                         stdin=subprocess.DEVNULL)
        deadline = time.monotonic() + 30
        while lab.query(ready_name, timeout=0.5).get("timeout"):
            if time.monotonic() > deadline or self.proc.poll() is not None:
                raise RuntimeError(f"{argv[0]} does not answer: {self.log.read_text()[-2000:]}")
        self.pid = self.proc.pid

    def stop(self):
        self.proc.terminate()
        try:
            self.proc.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()


def dnsproxy(lab, files=None, args=(), env=None, binary=None):
    """A starter: writes the daemon's files (over a base configuration) when it is called."""
    def start():
        base = {"/etc/dns_d2a.conf": "", "/etc/dns_prefix.conf": "", "/etc/hosts.bench": "",
                "/etc/resolv.conf": f"nameserver {KNOT_ADDR}\n",
                "/etc/flipla.conf": BASE_CONF}
        for path, text in {**base, **(files or {})}.items():
            lab.write(path, text)
        return Run(lab, [binary or dnsproxy_binary(), *args], env=env)
    return start


def dnsmasq(lab, extra=(), server=KNOT_ADDR):
    argv = [a for a in dc.dnsmasq_argv(lab, "forward") if not a.startswith(("--server", "--dns-forward-max"))]
    return lambda: Run(lab, [*argv, f"--server={server}", "--dns-forward-max=1036", *extra])


def dnsdist(lab, server=KNOT_ADDR):
    conf = lab.dir / "dnsdist.conf"
    conf.write_text(f"setLocal('{GW_LAN_V4}:53')\nsetACL({{'0.0.0.0/0', '::/0'}})\nsetSecurityPollSuffix('')\n"
                    f"newServer({{address='{server}:53'}})\n")
    return lambda: Run(lab, ["dnsdist", "--supervised", "--disable-syslog", "-C", str(conf)])


def responder(lab, tools):
    return lambda: Run(lab, [tools["udp_responder"], GW_LAN_V4])


def rate(lab, start, qnames, args):
    run = start()
    try:
        cpu = dc.cpu_seconds(run.pid)
        r = dc.run_dnsperf(lab, qnames, args.seconds, args.clients, args.outstanding)
        r["cpu_us"] = (dc.cpu_seconds(run.pid) - cpu) * 1e6 / max(r["completed"], 1)
    finally:
        run.stop()
    return r


HOSTS_CONF = "EnableLocalHostsFeature=1\nhosts_file=/etc/hosts.bench\n"
FILTER_FILES = {"/etc/flipla.conf": "UsingGlobalDnsServers=1\n", "/etc/dns_resolv_ipv4_hsi.conf":
                f"nameserver {KNOT_ADDR}\n", "/var/resolv_voip.conf": f"nameserver {KNOT_ADDR}\n"}


def hosts_file(n):
    return "".join(f"198.18.{i >> 8 & 255}.{i & 255} h{i}.home\n" for i in range(n))


def name_filter(n):
    """Patterns of other names in all three modes: every query is tried against the whole filter."""
    return "".join(f"voip{i}.example {i % 3} VOIP\n" for i in range(n))


def rate_roles(lab, tools, roles, args):
    """Every contender of the rate roles, interleaved over rounds; medians."""
    d2a = "".join(f"192.0.2.{100 + i} p{i}.home\n" for i in range(100))
    local_names = [f"p{i}.home A" for i in range(100)]
    plan = {
        "forward": [("dnsproxy", dnsproxy(lab), names(10000)), ("dnsmasq", dnsmasq(lab), names(10000))],
        "forward-before": [("dnsproxy", dnsproxy(lab, binary=args.baseline), names(10000))],
        "local-before": [("dnsproxy", dnsproxy(lab, {"/etc/dns_d2a.conf": d2a}, binary=args.baseline),
                          local_names)],
        "local": [("dnsproxy", dnsproxy(lab, {"/etc/dns_d2a.conf": d2a}), local_names),
                  ("dnsmasq", dnsmasq(lab, [f"--address=/p{i}.home/192.0.2.{100 + i}" for i in range(100)]),
                   local_names),
                  ("responder", responder(lab, tools), local_names)],
        "hosts": [(str(n), dnsproxy(lab, {"/etc/flipla.conf": HOSTS_CONF, "/etc/hosts.bench": hosts_file(n)}),
                   [f"h{i * 7919 % n}.home A" for i in range(min(n, 10000))]) for n in (100, 100000)],
        "filter": [(str(n), dnsproxy(lab, {**FILTER_FILES, "/etc/dns_prefix.conf": name_filter(n)}, ["-f", "100"]),
                    names(10000)) for n in (10, 10000)],
    }
    results = {}
    wanted = [r for r in plan if r.split("-")[0] in roles and (args.baseline or "-" not in r)]
    for rnd in range(args.rounds):
        for role in wanted:
            for who, start, qnames in plan[role]:
                r = rate(lab, start, qnames, args)
                results.setdefault((role, who), []).append(r)
                print(f"round {rnd + 1} {role:8} {who:9} {r['qps']:9.0f} q/s {r['cpu_us']:6.2f} us/query "
                      f"lost {r['lost']}", flush=True)
    return {k: {"qps": statistics.median(x["qps"] for x in v), "cpu_us": statistics.median(x["cpu_us"] for x in v),
                "rounds": [round(x["qps"]) for x in v]} for k, v in results.items()}


def reload_time(lab, args):
    """Seconds a reload of the 100,000-line hosts file takes, seen from a client of the bus."""
    run = dnsproxy(lab, {"/etc/flipla.conf": HOSTS_CONF, "/etc/hosts.bench": hosts_file(100000)})()

    def timed(member):
        t = time.monotonic()
        lab.bus_signal(member)  # the signal, then a bus ping answered after it was handled
        return time.monotonic() - t
    try:
        cpu = dc.cpu_seconds(run.pid)
        reload = statistics.median(timed("dpLoadHostsCache") for _ in range(5))
        cpu = (dc.cpu_seconds(run.pid) - cpu) / 5  # the daemon's own time per reload (and ping)
        base = statistics.median(timed("dpNoSuchSignal") for _ in range(5))
    finally:
        run.stop()
    return {"reload_s": reload - base, "with_ipc_s": reload, "ipc_s": base, "daemon_cpu_s": cpu}


def dnsload(lab, tools, start, *opts):
    run = start()
    try:
        r = subprocess.run(lab.exec_argv("lan", [tools["dnsload"], GW_LAN_V4, SUFFIX, *map(str, opts)]),
                           capture_output=True, text=True, timeout=300)
        out = json.loads(r.stdout)
        out["private_dirty_kib"] = private_dirty_kib(run.pid)
    finally:
        run.stop()
    return out


def latency(lab, tools, args):
    """Forwarding at 5,000 queries a second: p50/p99/max, medians of interleaved rounds."""
    opts = ("--rate", 5000, "--sockets", 4, "--outstanding", 100, "--seconds", args.seconds)
    contenders = {"dnsproxy": dnsproxy(lab), "dnsmasq": dnsmasq(lab)}
    if args.baseline:
        contenders["dnsproxy-before"] = dnsproxy(lab, binary=args.baseline)
    runs = {}
    for _ in range(args.rounds):
        for who, start in contenders.items():
            runs.setdefault(who, []).append(r := dnsload(lab, tools, start, *opts))
            print(f"latency {who:15} {json.dumps(r)}", flush=True)
    return {who: {k: statistics.median(r[k] for r in v) for k in ("p50_ms", "p99_ms", "max_ms", "wrong", "lost")}
            for who, v in runs.items()}


def overload(lab, tools, args):
    """16 sockets x 500 outstanding, every answer checked. Upstream: knotd, and a bare responder
    with a 4 MiB receive buffer, which loses nothing."""
    opts = ("--sockets", 16, "--outstanding", 500, "--seconds", args.seconds, "--timeout", 2)
    bare = subprocess.Popen(lab.exec_argv("wan", [tools["udp_responder"], BARE_UPSTREAM, "53", str(4 << 20)]))
    out = {}
    try:
        for upstream, server in (("knotd", KNOT_ADDR), ("bare", BARE_UPSTREAM)):
            contenders = {"dnsproxy": dnsproxy(lab, {"/etc/resolv.conf": f"nameserver {server}\n"}),
                          "dnsmasq": dnsmasq(lab, server=server)}
            if shutil.which("dnsdist"):
                contenders["dnsdist"] = dnsdist(lab, server)
            contenders["dnsproxy-hardened"] = dnsproxy(lab, {"/etc/resolv.conf": f"nameserver {server}\n",
                                                             "/etc/flipla.conf": BASE_CONF + "EnableHardenedMode=1\n"})
            for who, start in contenders.items():
                out[f"{who} upstream {upstream}"] = r = dnsload(lab, tools, start, *opts)
                print(f"overload {who:17} upstream {upstream:6} {json.dumps(r)}", flush=True)
    finally:
        bare.terminate()
        bare.wait()
    return out


def memory(lab, tools, rounds, baseline=None):
    """Private_Dirty at rest, and with a full table: queries to an upstream that never answers;
    medians of interleaved rounds."""
    runs = {}
    for _ in range(rounds):
        for who, r in memory_round(lab, tools, baseline).items():
            runs.setdefault(who, []).append(r)
    return {who: {"rest_kib": statistics.median(r["rest_kib"] for r in v),
                  "full_kib": statistics.median(r["full_kib"] for r in v),
                  "rounds": [(r["rest_kib"], r["full_kib"], r["pending"]) for r in v]} for who, v in runs.items()}


def memory_round(lab, tools, baseline):
    out = {}
    files = {"/etc/resolv.conf": f"nameserver {SILENT}\n", "/etc/dns_d2a.conf": f"192.0.2.80 n0.{SUFFIX}\n"}
    contenders = [("dnsproxy", dnsproxy(lab, files)),
                  ("dnsmasq", dnsmasq(lab, [f"--address=/n0.{SUFFIX}/192.0.2.80"], server=SILENT))]
    if baseline:
        contenders.append(("dnsproxy-before", dnsproxy(lab, files, binary=baseline)))
    for who, start in contenders:
        run = start()
        try:
            time.sleep(2.5)  # past the first ticks of the loop
            rest = private_dirty_kib(run.pid)
            load = subprocess.Popen(lab.exec_argv("lan", [tools["dnsload"], GW_LAN_V4, SUFFIX, "--sockets", "4",
                                                          "--outstanding", "259", "--seconds", "0.5", "--timeout", "4"]),
                                    stdout=subprocess.PIPE, text=True)
            time.sleep(2)  # every query sent and pending (a pcb lives 5 s)
            full = private_dirty_kib(run.pid)
            sent = json.loads(load.communicate(timeout=60)[0])
        finally:
            run.stop()
        out[who] = {"rest_kib": rest, "full_kib": full, "pending": sent["lost"]}
    return out


def allocations(lab, tools, role, queries=100000):
    """Heap allocations of dnsproxy per `queries` queries, after a warm-up of 20,000."""
    files = {"/etc/dns_d2a.conf": "".join(f"192.0.2.{i % 200 + 1} n{i}.{SUFFIX}\n" for i in range(100))}
    run = dnsproxy(lab, files if role == "local" else {}, env={"LD_PRELOAD": tools["malloc_count"]})()
    qnames = names(100) if role == "local" else names(10000)

    def count():
        before = len(re.findall(r"malloc_count=(\d+)", run.log.read_text()))
        os.kill(run.pid, signal.SIGUSR2)
        while len(found := re.findall(r"malloc_count=(\d+)", run.log.read_text())) == before:
            time.sleep(0.05)
        return int(found[-1])
    try:
        qfile = lab.dir / "alloc-queries.txt"
        qfile.write_text("\n".join(qnames) + "\n")
        perf = ["dnsperf", "-s", GW_LAN_V4, "-d", str(qfile), "-c", "4", "-q", "100", "-t", "2"]
        subprocess.run(lab.exec_argv("lan", perf + ["-n", str(20000 // len(qnames))]), capture_output=True)
        first = count()
        r = subprocess.run(lab.exec_argv("lan", perf + ["-n", str(queries // len(qnames))]), capture_output=True,
                           text=True)
        done = int(re.search(r"Queries completed:\s+(\d+)", r.stdout).group(1))
        return {"allocations": count() - first, "queries": done}
    finally:
        run.stop()


def wait_quiet(limit_minutes, threshold):
    deadline = time.monotonic() + limit_minutes * 60
    while os.getloadavg()[0] >= threshold and time.monotonic() < deadline:
        print(f"load average {os.getloadavg()[0]:.2f}: waiting for it to fall below {threshold}", flush=True)
        time.sleep(60)
    return os.getloadavg()


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--roles", default=",".join(ROLES))
    p.add_argument("--seconds", type=int, default=10)
    p.add_argument("--rounds", type=int, default=3)
    p.add_argument("--clients", type=int, default=4)
    p.add_argument("--outstanding", type=int, default=100)
    p.add_argument("--wait-minutes", type=float, default=30)
    p.add_argument("--quiet-load", type=float, default=1.5)
    p.add_argument("--baseline", help="an earlier dnsproxy binary, run beside in forward, local, latency")
    args = p.parse_args()
    roles = args.roles.split(",")
    labmod.SAMPLE_ZONE += "*.w A 203.0.113.99\n"
    os.sync()  # a freshly built binary's pages would count as dirty until written back
    load_before = wait_quiet(args.wait_minutes, args.quiet_load)
    lab = Lab().up()
    out = {"load_before": load_before}
    try:
        lab.start_knot()
        tools = build_tools(lab)
        out["rates"] = {f"{k[0]} {k[1]}": v for k, v in rate_roles(lab, tools, roles, args).items()}
        if "reload" in roles:
            out["reload"] = reload_time(lab, args)
        if "latency" in roles:
            opts = ("--rate", 5000, "--sockets", 4, "--outstanding", 100, "--seconds", args.seconds)
            out["latency"] = latency(lab, tools, args)
        if "overload" in roles:
            out["overload"] = overload(lab, tools, args)
        if "memory" in roles:
            out["memory"] = memory(lab, tools, args.rounds, args.baseline)
            print("memory", json.dumps(out["memory"]), flush=True)
        if "allocs" in roles:
            out["allocs"] = {role: allocations(lab, tools, role) for role in ("forward", "local")}
    finally:
        lab.down()
    out["load_after"] = os.getloadavg()
    print(json.dumps(out, indent=1))
    return 0


if __name__ == "__main__":
    sys.exit(main())
