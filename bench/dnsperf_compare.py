#!/usr/bin/python3
"""dnsperf against dnsproxy and dnsmasq in the same lab, one after the other, in two roles:

  forward  pure forwarding to the lab's authoritative server (knotd in wan), no caching
  local    answers from the proxy's own table (a D2A entry; dnsmasq --address)

Prints queries per second, average latency and peak RSS of both, and their ratios
(dnsproxy / dnsmasq). With --instructions it also runs each daemon under callgrind for a fixed
number of queries and prints the user-space instructions per query: a count that does not
depend on what else the machine is doing, unlike the timings. Usage, as root, after building
build/dnsproxy (release build):

    bench/dnsperf_compare.py [--seconds 10] [--clients 4] [--outstanding 100] [--instructions]
"""
import argparse
import re
import subprocess
import sys
import tempfile
import time
from pathlib import Path

REPO = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(REPO / "tests" / "system"))

from lab import GW_LAN_V4, KNOT_ADDR, Lab, dnsproxy_binary  # noqa: E402

FORWARD_NAMES = ["www.lab.example A", "mail.lab.example A", "cdn.lab.example A", "www.lab.example AAAA",
                 "lab.example MX", "ns.lab.example A"]
LOCAL_NAMES = ["printer.home A"]


def rss_peak_kib(pid):
    for line in Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith("VmHWM:"):
            return int(line.split()[1])
    return 0


def run_dnsperf(lab, names, seconds, clients, outstanding):
    qfile = lab.dir / "queries.txt"
    qfile.write_text("\n".join(names) + "\n")
    r = subprocess.run(lab.exec_argv("lan", ["dnsperf", "-s", GW_LAN_V4, "-d", str(qfile), "-l", str(seconds),
                                             "-c", str(clients), "-q", str(outstanding), "-t", "2"]),
                       capture_output=True, text=True, timeout=seconds + 60)
    out = r.stdout
    qps = float(re.search(r"Queries per second:\s+([\d.]+)", out).group(1))
    lat = float(re.search(r"Average Latency \(s\):\s+([\d.]+)", out).group(1))
    lost = int(re.search(r"Queries lost:\s+(\d+)", out).group(1))
    return {"qps": qps, "latency_ms": lat * 1000, "lost": lost}


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


def wait_answering(lab, role, timeout=60):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if not lab.query("printer.home" if role == "local" else "www.lab.example", timeout=0.5).get("timeout"):
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
    names = FORWARD_NAMES if role == "forward" else LOCAL_NAMES
    res = run_dnsperf(lab, names, args.seconds, args.clients, args.outstanding)
    res["rss_kib"] = rss_peak_kib(d.pid)
    d.stop()
    return res


def bench_dnsmasq(lab, role, args):
    proc = subprocess.Popen(lab.exec_argv("gw", dnsmasq_argv(lab, role)), stdout=subprocess.DEVNULL,
                            stderr=subprocess.DEVNULL)
    try:
        wait_answering(lab, role)
        names = FORWARD_NAMES if role == "forward" else LOCAL_NAMES
        res = run_dnsperf(lab, names, args.seconds, args.clients, args.outstanding)
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
    args = p.parse_args()
    lab = Lab().up()
    results = {}
    try:
        lab.start_knot()
        for role in ("forward", "local"):
            results[(role, "dnsproxy")] = bench_dnsproxy(lab, role, args)
            results[(role, "dnsmasq")] = bench_dnsmasq(lab, role, args)
            if args.instructions:
                configure_dnsproxy(lab)
                results[(role, "dnsproxy")]["ipq"] = instructions_per_query(lab, [dnsproxy_binary()], role)
                results[(role, "dnsmasq")]["ipq"] = instructions_per_query(lab, dnsmasq_argv(lab, role), role)
    finally:
        lab.down()
    print(f"dnsperf {args.seconds} s, {args.clients} clients, {args.outstanding} outstanding; binary {dnsproxy_binary()}")
    print(f"{'role':8} {'daemon':9} {'qps':>10} {'latency ms':>11} {'lost':>6} {'peak RSS KiB':>13}")
    for (role, daemon), r in results.items():
        print(f"{role:8} {daemon:9} {r['qps']:10.0f} {r['latency_ms']:11.3f} {r['lost']:6d} {r['rss_kib']:13d}")
    print("ratios dnsproxy/dnsmasq (qps: higher is better; latency, RSS: lower is better)")
    for role in ("forward", "local"):
        a, b = results[(role, "dnsproxy")], results[(role, "dnsmasq")]
        line = (f"{role:8} qps {a['qps'] / b['qps']:.2f}  latency {a['latency_ms'] / b['latency_ms']:.2f}  "
                f"RSS {a['rss_kib'] / b['rss_kib']:.2f}")
        if args.instructions:
            line += f"  instructions/query {a['ipq']:.0f} vs {b['ipq']:.0f} ({a['ipq'] / b['ipq']:.2f})"
        print(line)
    return 0


if __name__ == "__main__":
    sys.exit(main())
