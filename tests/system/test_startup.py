# Start-up, PID file, options, signals and the log configuration of the running daemon.

import os
import re
import signal
import subprocess

import pytest

from lab import dnsproxy_binary

USAGE = ("\nusage : dnsproxy [-c <configfile>] [-D domain] [-v <level>] [-h] [-P] [-g] [-q] [-f mask]\n"
         "\t-c <configfile> read configuration from <config-file>\n"
         "\t-D \t\tDomain Name\n"
         "\t-P \t\tprint configuration on stdout and exit.\n"
         "\t-v \t\tset verbosity, where level 0 is LOG_ERROR, 1 is LOG_NOTICE, 2 is LOG_DEBUG\n"
         "\t-g \t\tthe program will use global DNS server\n"
         "\t-q \t\tenable service status indication\n"
         "\t-f \t\tfeature mask\n"
         "\t-h \t\tthis message.\n")


def test_help_prints_usage_and_exits_1(lab):
    r = subprocess.run(lab.exec_argv("gw", [dnsproxy_binary(), "-q", "-h"]), env=lab.env(),
                       capture_output=True, text=True, timeout=30)
    assert r.returncode == 1
    pid = re.match(r"\ndnsproxy is started with pid=(\d+)\n", r.stderr).group(1)
    assert r.stderr == f"\ndnsproxy is started with pid={pid}\n{USAGE}\ndnsproxy preexit with pid={pid}\n"
    assert not (lab.root / "etc/dnsproxy_pid").exists()  # -h ends before the PID file


# SIGTERM and SIGINT end the daemon with 255, the PID file left in place; the first SIGSEGV only
# restores the default action, the second kills it.
@pytest.mark.parametrize("signo", [signal.SIGTERM, signal.SIGINT, signal.SIGSEGV])
def test_pid_file_and_signals(lab, signo):
    d = lab.start_dnsproxy()
    assert lab.read("/etc/dnsproxy_pid") == str(d.pid)
    assert d.stderr().startswith(f"\ndnsproxy is started with pid={d.pid}\n")
    assert "is saved to" not in d.stderr()  # the default masks show no detail lines
    d.signal(signo)
    if signo == signal.SIGSEGV:
        d.wait_ready()
        d.signal(signo)
    assert d.wait() == (-signo if signo == signal.SIGSEGV else 255)
    assert re.search(rf"DPMAIN handle_signal:\d+ signo={int(signo)}\n", d.stderr())
    assert signo == signal.SIGSEGV or d.stderr().endswith(f"\ndnsproxy preexit with pid={d.pid}\n")
    assert lab.read("/etc/dnsproxy_pid") == str(d.pid)


def test_started_with_descriptors_0_to_2_closed(lab):
    lab.write("/etc/dns_d2a.conf", "192.0.2.80 printer.home\n")
    d = lab.start_dnsproxy("-c", f"exec {dnsproxy_binary()} -f 1 0<&- 1>&- 2>&-", binary="sh")
    assert [os.readlink(f"/proc/{d.pid}/fd/{fd}") for fd in range(3)] == ["/dev/null"] * 3
    rc, out, _ = lab.kiv_cli("view", "statistic")
    assert rc == 0 and out.startswith("\nDNS statistic\n")
    assert [a[3] for a in lab.query("printer.home")["answer"]] == ["192.0.2.80"]


def test_print_configuration_options_and_the_log_configuration_file(lab):
    # Mode 3 switches on the detail lines with time stamps; the stored timestamp 0 has no say.
    lab.write("/configs/kiv_dnsproxy_log_config", "log_level=3\nlog_dest=2\ndebug_mode=3\ntimestamp=0\n")
    lab.write("/etc/flipla.conf", "EnableD2AFeature=yes\nServerSocketSrcPortStart=40000\n")
    d = lab.start_dnsproxy("-P", "-f", "8", "-D", "lab.example", "-x")  # -P prints and keeps running
    log = d.stderr()
    assert "\ncurrent configuration in the DNSPROXY\n" + "=" * 59 + "\n" in log
    for line in ("is_d2a_feat_enabled              = 1\n", "is_dyn_cache_feat_enabled        = 1\n",
                 "server_socket_src_port_start     = 40000\n", "domain_name                      = lab.example\n"):
        assert line in log
    pid_file = lab.root / "etc/dnsproxy_pid"
    assert re.search(rf"DPMAIN save_pid:\d+ t=\d+:\d+ dnsproxy pid\({d.pid}\) is saved to {pid_file}\n", log)
