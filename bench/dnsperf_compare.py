#!/usr/bin/python3
"""dnsperf against dnsproxy and dnsmasq in the same lab, one after the other, in two roles:

  forward  pure forwarding to the lab's authoritative server (knotd in wan), no caching
  local    answers from the proxy's own table (a D2A entry; dnsmasq --address)

Prints queries per second, average latency and peak RSS of both, and their ratios
(dnsproxy / dnsmasq). Usage, as root, after building build/dnsproxy (release build):

    bench/dnsperf_compare.py [--seconds 10] [--clients 4] [--outstanding 100]
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


def bench_dnsproxy(lab, role, args):
    lab.write("/etc/resolv.conf", f"nameserver {KNOT_ADDR}\n")
    lab.write("/etc/dns_d2a.conf", "192.0.2.80 printer.home\n")
    lab.write("/etc/flipla.conf", "EnableD2AFeature=1\nSystemDnsServerSetPolicy=0\n")
    d = lab.start_dnsproxy()
    names = FORWARD_NAMES if role == "forward" else LOCAL_NAMES
    res = run_dnsperf(lab, names, args.seconds, args.clients, args.outstanding)
    res["rss_kib"] = rss_peak_kib(d.pid)
    d.stop()
    return res


def bench_dnsmasq(lab, role, args):
    argv = ["dnsmasq", "--keep-in-foreground", "--no-resolv", "--no-hosts", "--bind-interfaces",
            f"--listen-address={GW_LAN_V4}", "--port=53", "--cache-size=0", "--user=root",
            f"--pid-file={lab.dir / 'dnsmasq.pid'}", f"--server={KNOT_ADDR}", "--dns-forward-max=1000"]
    if role == "local":
        argv.append("--address=/printer.home/192.0.2.80")
    proc = subprocess.Popen(lab.exec_argv("gw", argv), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        deadline = time.monotonic() + 10
        while time.monotonic() < deadline:  # ready when it answers
            r = lab.query("printer.home" if role == "local" else "www.lab.example", timeout=0.5)
            if not r.get("timeout"):
                break
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
    args = p.parse_args()
    lab = Lab().up()
    results = {}
    try:
        lab.start_knot()
        for role in ("forward", "local"):
            results[(role, "dnsproxy")] = bench_dnsproxy(lab, role, args)
            results[(role, "dnsmasq")] = bench_dnsmasq(lab, role, args)
    finally:
        lab.down()
    print(f"dnsperf {args.seconds} s, {args.clients} clients, {args.outstanding} outstanding; binary {dnsproxy_binary()}")
    print(f"{'role':8} {'daemon':9} {'qps':>10} {'latency ms':>11} {'lost':>6} {'peak RSS KiB':>13}")
    for (role, daemon), r in results.items():
        print(f"{role:8} {daemon:9} {r['qps']:10.0f} {r['latency_ms']:11.3f} {r['lost']:6d} {r['rss_kib']:13d}")
    print("ratios dnsproxy/dnsmasq (qps: higher is better; latency, RSS: lower is better)")
    for role in ("forward", "local"):
        a, b = results[(role, "dnsproxy")], results[(role, "dnsmasq")]
        print(f"{role:8} qps {a['qps'] / b['qps']:.2f}  latency {a['latency_ms'] / b['latency_ms']:.2f}  "
              f"RSS {a['rss_kib'] / b['rss_kib']:.2f}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
