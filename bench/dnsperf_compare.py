#!/usr/bin/python3
"""dnsperf against dnsproxy and dnsmasq in the same lab, one after the other, in three roles:

  forward  pure forwarding to the lab's authoritative server (knotd in wan), no caching
  local    answers from the proxy's own table (a D2A entry; dnsmasq --address)
  tcp      the forward role with the clients over TCP (dnsperf -m tcp), so that the daemons
           forward over TCP too

Prints queries per second, average latency and peak RSS of both, and their ratios
(dnsproxy / dnsmasq). A third role, not run unless asked for with --roles:

  edns     dnsproxy alone with the client-MAC option on (-f 80), answering the D2A entry to the
           lan client over IPv4 and then over IPv6; prints the IPv6 / IPv4 ratio. Local answers
           leave the MAC look-up (ARP table for IPv4, neighbour table for IPv6) as the only
           difference between the two families. Also prints the daemon's CPU time (user and
           system) per answered query of each family, which other load on the machine moves
           far less than the rates.

With --instructions it also runs each daemon under callgrind for a fixed number of queries and
prints the user-space instructions per query: a count that does not depend on what else the
machine is doing, unlike the timings. Usage, as root, after building
build/dnsproxy (release build):

    bench/dnsperf_compare.py [--seconds 10] [--clients 4] [--outstanding 100] [--instructions]
                             [--roles forward,local,tcp,edns] [--neighbours N]
"""
import argparse
import os
import re
import subprocess
import sys
import tempfile
import time
from pathlib import Path

REPO = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(REPO / "tests" / "system"))

from lab import GW_LAN_V4, GW_LAN_V6, KNOT_ADDR, Lab, dnsproxy_binary  # noqa: E402

FORWARD_NAMES = ["www.lab.example A", "mail.lab.example A", "cdn.lab.example A", "www.lab.example AAAA",
                 "lab.example MX", "ns.lab.example A"]
LOCAL_NAMES = ["printer.home A"]


def rss_peak_kib(pid):
    for line in Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith("VmHWM:"):
            return int(line.split()[1])
    return 0


def run_dnsperf(lab, names, seconds, clients, outstanding, server=GW_LAN_V4, mode="udp"):
    qfile = lab.dir / "queries.txt"
    qfile.write_text("\n".join(names) + "\n")
    r = subprocess.run(lab.exec_argv("lan", ["dnsperf", "-m", mode, "-s", server, "-d", str(qfile), "-l",
                                             str(seconds), "-c", str(clients), "-q", str(outstanding), "-t", "2"]),
                       capture_output=True, text=True, timeout=seconds + 60)
    out = r.stdout
    qps = float(re.search(r"Queries per second:\s+([\d.]+)", out).group(1))
    lat = float(re.search(r"Average Latency \(s\):\s+([\d.]+)", out).group(1))
    lost = int(re.search(r"Queries lost:\s+(\d+)", out).group(1))
    done = int(re.search(r"Queries completed:\s+(\d+)", out).group(1))
    return {"qps": qps, "latency_ms": lat * 1000, "lost": lost, "completed": done}


def mode_of(role):
    return "tcp" if role == "tcp" else "udp"


def cpu_seconds(pid):
    """User and system time of a process; system time includes the kernel's work in its calls."""
    fields = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def configure_dnsproxy(lab):
    lab.write("/etc/resolv.conf", f"nameserver {KNOT_ADDR}\n")
    lab.write("/etc/dns_d2a.conf", "192.0.2.80 printer.home\n")
    lab.write("/etc/flipla.conf", "EnableD2AFeature=1\nSystemDnsServerSetPolicy=0\n")


def dnsmasq_argv(lab, role):
    argv = ["dnsmasq", "--keep-in-foreground", "--no-resolv", "--no-hosts", "--bind-interfaces",
            f"--listen-address={GW_LAN_V4}", "--port=53", "--cache-size=0", "--user=root",
            f"--pid-file={lab.dir / 'dnsmasq.pid'}", f"--server={KNOT_ADDR}", "--dns-forward-max=1000"]
    if role == "local":
        argv.append("--address=/printer.home/192.0.2.80")
    return argv


def wait_answering(lab, role, timeout=60, server=GW_LAN_V4):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        name = "printer.home" if role == "local" else "www.lab.example"
        if not lab.query(name, server=server, timeout=0.5).get("timeout"):
            return
    raise RuntimeError("the daemon under test does not answer")


def callgrind_total(lab, argv, role, queries):
    """Instructions of a whole run under callgrind that answered the given number of queries."""
    out = lab.dir / f"callgrind.{argv[0].rsplit('/', 1)[-1]}.{role}.{queries}"
    proc = subprocess.Popen(lab.exec_argv("gw", ["valgrind", "--tool=callgrind", f"--callgrind-out-file={out}", *argv]),
                            env=lab.env(), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        wait_answering(lab, role)
        if queries:
            qfile = lab.dir / "queries.txt"
            qfile.write_text("\n".join(FORWARD_NAMES if role == "forward" else LOCAL_NAMES) + "\n")
            subprocess.run(lab.exec_argv("lan", ["dnsperf", "-s", GW_LAN_V4, "-d", str(qfile), "-n", "1",
                                                 "-c", "1", "-q", "20", "-t", "5"]), capture_output=True)
            subprocess.run(lab.exec_argv("lan", ["dnsperf", "-s", GW_LAN_V4, "-d", str(qfile), "-n",
                                                 str(queries // len(qfile.read_text().splitlines())), "-q", "20"]),
                           capture_output=True, timeout=600)
    finally:
        proc.terminate()
        proc.wait(timeout=60)
    text = subprocess.run(["callgrind_annotate", str(out)], capture_output=True, text=True).stdout
    return int(re.search(r"([\d,]+) \(100\.0%\)\s+PROGRAM TOTALS", text).group(1).replace(",", ""))


def instructions_per_query(lab, argv, role, queries=12000):
    """The difference of a loaded and an idle run: start-up and shutdown cancel out."""
    idle = callgrind_total(lab, argv, role, 0)
    loaded = callgrind_total(lab, argv, role, queries)
    return (loaded - idle) / queries


def bench_dnsproxy(lab, role, args):
    configure_dnsproxy(lab)
    d = lab.start_dnsproxy()
    names = LOCAL_NAMES if role == "local" else FORWARD_NAMES
    res = run_dnsperf(lab, names, args.seconds, args.clients, args.outstanding, mode=mode_of(role))
    res["rss_kib"] = rss_peak_kib(d.pid)
    d.stop()
    return res


def bench_edns(lab, args):
    """The same daemon and D2A name over both families; the answer to the warm-up query makes
    the gateway learn the client's MAC address before dnsperf starts."""
    for i in range(args.neighbours):  # other LAN hosts, so that the neighbour table is not tiny
        subprocess.run(lab.exec_argv("gw", ["ip", "-6", "neigh", "add", f"2001:db8:1::1:{i:x}", "lladdr",
                                            f"02:00:5e:00:{i >> 8:02x}:{i & 255:02x}", "dev", "br0", "nud",
                                            "stale"]), check=True)
    configure_dnsproxy(lab)
    d = lab.start_dnsproxy("-f", "80")
    results = {}
    for family, server in (("IPv4", GW_LAN_V4), ("IPv6", GW_LAN_V6)):
        wait_answering(lab, "edns", server=server)
        cpu = cpu_seconds(d.pid)
        r = run_dnsperf(lab, LOCAL_NAMES, args.seconds, args.clients, args.outstanding, server)
        r["cpu_us"] = (cpu_seconds(d.pid) - cpu) * 1e6 / max(r["completed"], 1)
        r["rss_kib"] = rss_peak_kib(d.pid)
        results[("edns", family)] = r
    d.stop()
    return results


def bench_dnsmasq(lab, role, args):
    proc = subprocess.Popen(lab.exec_argv("gw", dnsmasq_argv(lab, role)), stdout=subprocess.DEVNULL,
                            stderr=subprocess.DEVNULL)
    try:
        wait_answering(lab, role)
        names = LOCAL_NAMES if role == "local" else FORWARD_NAMES
        res = run_dnsperf(lab, names, args.seconds, args.clients, args.outstanding, mode=mode_of(role))
        res["rss_kib"] = rss_peak_kib(proc.pid)
    finally:
        proc.terminate()
        proc.wait(timeout=10)
    return res


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--seconds", type=int, default=10)
    p.add_argument("--clients", type=int, default=4)
    p.add_argument("--outstanding", type=int, default=100)
    p.add_argument("--instructions", action="store_true", help="also count instructions per query (callgrind)")
    p.add_argument("--roles", default="forward,local", help="comma-separated: forward, local, tcp, edns")
    p.add_argument("--neighbours", type=int, default=0, help="extra IPv6 neighbour entries for the edns role")
    args = p.parse_args()
    roles = args.roles.split(",")
    lab = Lab().up()
    results = {}
    try:
        if {"forward", "local", "tcp"} & set(roles):
            lab.start_knot()
        if "edns" in roles:
            results.update(bench_edns(lab, args))
        for role in [r for r in ("forward", "local", "tcp") if r in roles]:
            results[(role, "dnsproxy")] = bench_dnsproxy(lab, role, args)
            results[(role, "dnsmasq")] = bench_dnsmasq(lab, role, args)
            if args.instructions and role != "tcp":
                configure_dnsproxy(lab)
                results[(role, "dnsproxy")]["ipq"] = instructions_per_query(lab, [dnsproxy_binary()], role)
                results[(role, "dnsmasq")]["ipq"] = instructions_per_query(lab, dnsmasq_argv(lab, role), role)
    finally:
        lab.down()
    print(f"dnsperf {args.seconds} s, {args.clients} clients, {args.outstanding} outstanding; binary {dnsproxy_binary()}")
    print(f"{'role':8} {'run':9} {'qps':>10} {'latency ms':>11} {'lost':>6} {'peak RSS KiB':>13}")
    for (role, daemon), r in results.items():
        print(f"{role:8} {daemon:9} {r['qps']:10.0f} {r['latency_ms']:11.3f} {r['lost']:6d} {r['rss_kib']:13d}")
    if "edns" in roles:
        v4, v6 = results[("edns", "IPv4")], results[("edns", "IPv6")]
        print(f"edns     qps IPv6/IPv4 {v6['qps'] / v4['qps']:.2f}; daemon CPU per query {v4['cpu_us']:.2f} us "
              f"IPv4, {v6['cpu_us']:.2f} us IPv6 ({v4['cpu_us'] / v6['cpu_us']:.2f}); "
              f"{args.neighbours} extra neighbour entries")
    compared = [r for r in ("forward", "local", "tcp") if r in roles]
    if compared:
        print("ratios dnsproxy/dnsmasq (qps: higher is better; latency, RSS: lower is better)")
    for role in compared:
        a, b = results[(role, "dnsproxy")], results[(role, "dnsmasq")]
        line = (f"{role:8} qps {a['qps'] / b['qps']:.2f}  latency {a['latency_ms'] / b['latency_ms']:.2f}  "
                f"RSS {a['rss_kib'] / b['rss_kib']:.2f}")
        if "ipq" in a:
            line += f"  instructions/query {a['ipq']:.0f} vs {b['ipq']:.0f} ({a['ipq'] / b['ipq']:.2f})"
        print(line)
    return 0


if __name__ == "__main__":
    sys.exit(main())
