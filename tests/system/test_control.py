# The control plane driven only through real tools: dbus-send and busctl for signals and methods,
# kiv_cli for the CLI; effects checked through DNS answers, the CLI views and the traces.
import json
import os
import re
import select
import signal
import subprocess
import time
from concurrent.futures import ThreadPoolExecutor

from lab import BUS_NAME, GW_LAN_V4, OBJECT_PATH, WAN_V4, answers, run, wait_until

UP1, UP2 = WAN_V4[0], WAN_V4[1]
API = "orvik.kiv.dnsproxy.itf.api"
HELP = ("\nkiv_cli dnsproxy help\nkiv_cli dnsproxy view config\nkiv_cli dnsproxy view server\n"
        "kiv_cli dnsproxy view cache\nkiv_cli dnsproxy view filter\nkiv_cli dnsproxy view statistic\n"
        "kiv_cli dnsproxy view misc\nkiv_cli dnsproxy view debug setting\n"
        "kiv_cli dnsproxy define debug mode [0-6]\nkiv_cli dnsproxy define debug level "
        "proxy|io|endec|server|cache|config|util|debug none|error|warn|detail|func|pkt|endec|io|period|all\n\n")

# Each member of orvik.kiv.dnsproxy.itf.msg and the handler that traces it (dpsvr_process_...).
MSG_SIGNALS = [
    ("dpLoadSystemNameServers", "load_system_dns_servers_signal"),
    ("dpLoadV4NameServers", "load_v4_dns_servers_signal"),
    ("dpLoadV4FilterNameServers", "load_v4_filter_dns_servers_signal"),
    ("dpLoadV6NameServers", "load_v6_dns_servers_signal"),
    ("dpLoadV4HsiNameServers", "load_v4_hsi_dns_servers_signal"),
    ("dpLoadV4VoipNameServers", "load_v4_voip_dns_servers_signal"),
    ("dpLoadV4IptvNameServers", "load_v4_iptv_dns_servers_signal"), ("dpLoadD2Acache", "load_d2a_cache_signal"),
    ("dpLoadD2Dcache", "load_d2d_cache_signal"), ("dpLoadHostsCache", "load_hosts_cache_signal"),
    ("dpLoadNameFilterDb", "load_name_filter_db_signal"), ("dpDhcpCondPoolUpdate", "dhcp_cond_pool_update_signal"),
    ("dpDisableForceRegister", "disable_force_register_signal"),
    ("dpEnableForceRegister", "enable_force_register_signal"), ("dpDisableLockNet", "disable_lock_net"),
    ("dpEnableLockNet", "enable_lock_net"), ("dpLoadLockNetWhiteListDb", "load_lock_net_whitelist_signal"),
    ("dpDisableDslite", "disable_dslite_signal"), ("dpEnableDslite", "enable_dslite_signal"),
    ("dpDisableRedirect", "disable_redirect_signal"), ("dpEnableRedirect", "enable_redirect_signal"),
]
API_METHODS = {
    **{m: ("u", "u") for m in ("ToggleForceRegister", "ToggleLockNet", "ToggleDslite", "ToggleIntercept", "ToggleEDNS")},
    **{m: ("-", "u") for m in ("LoadV4NameServers", "LoadV6NameServers", "LoadSystemNameServers", "LoadV4HsiNameServers",
                               "LoadV4VoipNameServers", "LoadV4IptvNameServers", "LoadD2Acache", "LoadD2Dcache",
                               "LoadHostsCache", "LoadNameFilterDB", "UpdateCondPool")},
    "HandleQueryRequest": ("ay", "u"),
}


def cli(lab, *words, refused=False):
    # A command that fails prints the help text after whatever it printed; one that works never does.
    rc, out, err = lab.kiv_cli(*words)
    assert (rc, err) == (0, ""), err
    assert out.endswith(HELP) == (refused or words == ("help",)), out
    return out


def test_the_bus_interface_its_errors_and_the_signal_table(lab):
    d = lab.start_dnsproxy()
    members = {}  # interface: {member: (signature, result)}
    for f in map(str.split, run(["busctl", "--system", "introspect", BUS_NAME, OBJECT_PATH], env=lab.env()).stdout.splitlines()[1:]):
        if f[1] == "interface":
            itf = members.setdefault(f[0], {})
        else:
            itf[f[0][1:]] = (f[2], f[3])
    assert members[API] == API_METHODS
    assert members["orvik.kiv.dnsproxy.itf.json.api"] == {"kiv_sync_invoke": ("s", "us")}
    assert members["orvik.kiv.rgwd.itf.msg"] == {"dnsProxyResponse": ("ay", "-")}
    assert "Ping" in members["org.freedesktop.DBus.Peer"]
    # Every call gets a reply: unknown methods and interfaces, wrong arguments, another path.
    assert lab.bus_call("Bogus") == (1, f"Call failed: no method Bogus in {API}")
    assert re.search(r"^onOrvikKivDnsproxyItfApiDispatch: unknown message: Bogus$", d.stderr(), re.M)
    assert lab.bus_call("ToggleEDNS", "s", "1") == (1, f"Call failed: ToggleEDNS of {API} takes (u), not (s)")
    assert lab.bus_call("ToggleEDNS")[0] == 1 and lab.bus_call("ToggleEDNS", "uu", "1", "2")[0] == 1
    assert lab.bus_call("ToggleEDNS", "u", "1", itf="orvik.kiv.other")[0] == 1
    assert lab.bus_call("ToggleEDNS", "u", "1", path="/orvik/kiv")[0] == 1

    # Signals reach their own handler whatever the sender's path; a member or interface that the
    # table does not hold reaches none, even sent to the daemon directly.
    cli(lab, "define", "debug", "level", "server", "detail")
    for member, _ in MSG_SIGNALS:
        lab.bus_signal(member)
    lab.bus_signal("dpBogusSignal", dest=BUS_NAME)
    lab.bus_signal("dpLoadD2Acache", itf="orvik.kiv.other", dest=BUS_NAME)
    lab.bus_signal("dpLoadFirstIpWanNameForDnsFilter", "string:eth9")
    log = d.stderr()
    handled = re.findall(r"DPSERV dpsvr_process_(\w+):\d+ dpsvr_process_\1 itf=(\S+) signal=(\w+)\n", log)
    assert handled == [(h, "orvik.kiv.dnsproxy.itf.msg", m) for m, h in MSG_SIGNALS]
    assert "dpBogusSignal" not in log
    assert re.search(r"dpsvr_process_load_first_wan_ifname_for_dns_filter_signal:\d+ ====first wan name is eth9\n", log)


def json_call(lab, name, params):
    r = run(["busctl", "--system", "--json=short", "call", BUS_NAME, OBJECT_PATH, "orvik.kiv.dnsproxy.itf.json.api",
             "kiv_sync_invoke", "s", json.dumps({"name": name, "params": params})], env=lab.env())
    status, text = json.loads(r.stdout)["data"]
    return status - (1 << 32 if status >= 1 << 31 else 0), text


def json_message(lab, name, params):
    lab.bus_signal("kivMessage", "string:" + json.dumps({"name": name, "params": params}),
                   itf="orvik.kiv.dnsproxy.itf.json.msg")


def test_reloads_and_switches_by_signal_json_method_and_json_message(lab):
    lab.start_responder(UP1, "answer", "--a", "203.0.113.99")
    lab.start_responder(UP2, "answer", "--a", "203.0.113.98")
    lab.write("/etc/resolv.conf", f"nameserver {UP1}\n")
    lab.write("/etc/dns_resolv_ipv4.conf", f"nameserver {UP1}\n")
    lab.start_dnsproxy()
    lab.write("/etc/resolv.conf", f"nameserver {UP2}\n")
    lab.write("/etc/dns_resolv_ipv4.conf", f"nameserver {UP2}\n")
    lab.bus_signal("dpLoadV4NameServers")  # rereads its own file only
    view = cli(lab, "view", "server")
    assert f"IPv4 System DNS servers num=1 policy=1 active=0 backup=0\nnameserver[0]: ::ffff:{UP1} " in view
    assert f"IPv4 Global DNS servers num=1 policy=0 active=0 backup=0\nnameserver[0]: ::ffff:{UP2} " in view
    # A table reloads with its feature off, but answers only with it on.
    lab.write("/etc/dns_d2a.conf", "192.0.2.80 printer.home\n")
    lab.bus_signal("dpLoadD2Acache")
    assert "name=printer.home value=192.0.2.80\n" in cli(lab, "view", "cache")
    assert answers(lab.query("printer.home")) == [("A", "203.0.113.99")]

    assert json_call(lab, "dp_api_cfg_dnsproxy_feature", {"dnsproxy.features": {"intercept": 1, "edns": 0}}) == (0, "")
    assert answers(lab.query("www.example.test")) == [("A", GW_LAN_V4)]
    # Malformed, wrongly typed or unknown: refused with -422, nothing applied.
    for bad in ({"dnsproxy.features": {"intercept": "off"}}, {"dnsproxy.features": {"bogus": 1}}, {"other": {}}):
        assert json_call(lab, "dp_api_cfg_dnsproxy_feature", bad)[0] == -422
        assert json_call(lab, "dp_api_reload_dnsproxy_config", bad)[0] == -422
    assert answers(lab.query("www.example.test")) == [("A", GW_LAN_V4)]
    status, reason = json_call(lab, "no_such_method", {})
    assert status < 0 and reason
    assert json_call(lab, "dp_api_reload_dnsproxy_config", {"dnsproxy.configs": {"system_dns_server": 1}}) == (0, "")
    json_message(lab, "dp_msg_cfg_dnsproxy_feature", {"dnsproxy.features": {"intercept": 0}})
    assert answers(lab.query("www.example.test")) == [("A", "203.0.113.98")]
    lab.write("/etc/dns_d2a.conf", "192.0.2.81 scanner.home\n")
    json_message(lab, "dp_msg_reload_dnsproxy_config", {"dnsproxy.configs": {"d2a": 1, "first_wan_ifname_for_filter_dns": "eth1"}})
    assert "name=scanner.home value=192.0.2.81\n" in cli(lab, "view", "cache")


def test_the_control_plane_comes_back_on_a_restarted_bus(lab):
    lab.write("/etc/flipla.conf", "EnableD2AFeature=1\n")
    lab.write("/etc/dns_d2a.conf", "192.0.2.80 printer.home\n")
    d = lab.start_dnsproxy()
    assert answers(lab.restart_bus(lambda: lab.query("printer.home"))) == [("A", "192.0.2.80")]
    d.wait_ready()
    owner = run(["busctl", "--system", "call", "org.freedesktop.DBus", "/org/freedesktop/DBus",
                 "org.freedesktop.DBus", "GetConnectionUnixProcessID", "s", BUS_NAME], env=lab.env())
    assert owner.stdout.strip() == f"u {d.pid}"
    assert lab.bus_call("ToggleLockNet", "u", "0") == (0, "u 0")
    lab.write("/etc/dns_d2a.conf", "192.0.2.81 scanner.home\n")
    lab.bus_signal("dpLoadD2Acache")
    assert answers(lab.query("scanner.home")) == [("A", "192.0.2.81")]
    assert re.search(r"ombus: the bus connection was lost\n(.|\n)*"
                     rf"ombus: reconnected to the bus \(try \d+\): {BUS_NAME} served again\n", d.stderr())


def test_kiv_cli_views_settings_and_errors(lab, tmp_path):
    # Without a bus, without a daemon, and wrong command lines.
    rc, out, err = lab.kiv_cli("help", env={"DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={tmp_path}/no-bus"})
    assert rc == 1 and err.startswith("kiv_cli: cannot reach the system bus: ")
    assert lab.kiv_cli("help") == (1, "", "kiv_cli: dnsproxy is not running (orvik.kiv.dnsproxy has no owner on the system bus)\n")
    for argv, message in [([], "no daemon named"), (["dnsproxy"], "no command given"), (["dhcpd", "help"], "unknown daemon dhcpd"),
                          (["-t", "0", "dnsproxy", "help"], "-t takes seconds between 0 and 3600, not 0")]:
        r = run(lab.kiv_cli_argv()[:1] + argv, check=False)
        assert r.returncode == 2
        assert r.stderr.startswith(f"kiv_cli: {message}\nusage: kiv_cli [-t seconds] <daemon> <command words...>\n")

    lab.write("/etc/flipla.conf", "EnableD2AFeature=1\n")
    lab.write("/etc/dns_d2a.conf", "192.0.2.80 printer.home\n")
    d = lab.start_dnsproxy()
    lab.query("printer.home")
    assert cli(lab, "help") == HELP
    assert cli(lab, "view", "nothing", refused=True) == HELP
    assert cli(lab, "set", "logconfig", "loud", "serial", refused=True) == HELP  # a word not in the list
    stats = cli(lab, "view", "statistic")
    assert "client packet recv    : 1\n" in stats and stats.startswith("\nDNS statistic\n" + "=" * 59 + "\n")
    assert "is_d2a_feat_enabled              = 1\n" in cli(lab, "view", "config")
    assert "IPv4 System DNS servers num=0" in cli(lab, "view", "server")
    assert "NameFilter DB VciExplicitForwardEnabld=0\n" in cli(lab, "view", "filter")
    misc = cli(lab, "view", "misc")
    assert f"\nDNSPROXY pid={d.pid} " in misc and "  v4ipstr = 192.0.2.1\n" in misc
    assert "dp_msg_cfg_dnsproxy_feature" in cli(lab, "dump", "itf", "list")
    assert d.stderr().count("DNS statistic") == 0  # every view went to the operator, not the log

    cli(lab, "define", "debug", "mode", "6")
    assert cli(lab, "view", "debug", "setting").count("xx     xx     xx     xx     xx     xx     xx xx") == 8
    cli(lab, "define", "debug", "mode", "six")  # not a number: mode 0, errors only
    assert len(re.findall(r"^\w+ *: xx +$", cli(lab, "view", "debug", "setting"), re.M)) == 8
    cli(lab, "set", "logconfig", "notice", "serial")
    cli(lab, "save", "logconfig")
    assert lab.read("/configs/kiv_dnsproxy_log_config") == "log_level=5\nlog_dest=1\ndebug_mode=4\ntimestamp=1\n"
    assert cli(lab, "dump", "logconfig") == "\nlog_level=5\nlog_dest=1\ndebug_mode=4\ntimestamp=1\n\n"
    cli(lab, "reset", "logconfig")
    assert not (lab.root / "configs/kiv_dnsproxy_log_config").exists()
    assert "clilog: level=3 dest=2\n" in cli(lab, "view", "debug", "setting")

    # redirect printf: the confirmation goes to the new place; the next command prints on the
    # operator's output and then returns to the daemon's own, not to the new place.
    target = lab.write("/redirected.txt", "")
    assert cli(lab, "redirect", "printf", str(target)) == ""
    assert target.read_text() == f"redirecting stdout and stderr to {target}\n"
    assert cli(lab, "view", "statistic").startswith("\nDNS statistic\n")
    cli(lab, "define", "debug", "level", "proxy", "detail")
    lab.query("www.example.test", timeout=1)
    assert "name=www.example.test" in d.stderr() and "name=www.example.test" not in target.read_text()

    # A daemon that owns its name but does not act: the wait for the FIFO is bounded.
    d.signal(signal.SIGSTOP)
    r = run(lab.kiv_cli_argv()[:1] + ["-t", "0.5", "dnsproxy", "help"], check=False, env=lab.env({"TMPDIR": str(tmp_path)}))
    d.signal(signal.SIGCONT)
    assert (r.returncode, r.stdout, r.stderr) == (1, "", "kiv_cli: dnsproxy did not open the output FIFO within 500 ms\n")
    assert os.listdir(tmp_path) == [] and cli(lab, "help") == HELP


def test_cli_output_through_fifos_and_terminals_never_stalls_dns(lab, tmp_path):
    lab.write("/etc/dns_d2a.conf", "".join(f"192.0.2.{i % 200 + 20} host{i}.home\n" for i in range(10000)))
    lab.start_dnsproxy("-f", "1")
    # More than a pipe holds is copied whole; a reader that goes away harms neither side; the
    # FIFOs are removed.
    rc, out, _ = lab.kiv_cli("view", "cache", env={"TMPDIR": str(tmp_path)})
    assert rc == 0 and len(re.findall(r" name=host\d+\.home value=", out)) == 10000
    r = run(["sh", "-c", " ".join(lab.kiv_cli_argv("view", "cache")) + " | head -n 2"], env=lab.env({"TMPDIR": str(tmp_path)}))
    assert r.stdout.startswith("\nDNS Cache(currtime=")
    assert os.listdir(tmp_path) == []
    # A terminal gets the output directly.
    master, slave = os.openpty()
    try:
        assert subprocess.run(lab.kiv_cli_argv("help"), env=lab.env(), stdout=slave, timeout=20).returncode == 0
        seen = b""
        while HELP.replace("\n", "\r\n").encode() not in seen and select.select([master], [], [], 5)[0]:
            seen += os.read(master, 4096)
        assert HELP.replace("\n", "\r\n").encode() in seen
    finally:
        os.close(master)
        os.close(slave)

    # Readers that stop reading, for longer than the daemon waits, never hold up DNS.
    with ThreadPoolExecutor() as pool:
        client = pool.submit(lab.query, "host7.home", steady=180, pace=0.05, timeout=1)  # 9 s
        time.sleep(0.5)
        piped = subprocess.Popen(["sh", "-c", " ".join(lab.kiv_cli_argv("view", "cache")) + " | sleep 8"],
                                 env=lab.env())
        paused = subprocess.Popen(lab.kiv_cli_argv("view", "cache"), env=lab.env(), stdout=subprocess.PIPE)
        time.sleep(9)
        out = paused.stdout.read().decode()  # then reads to the end
        assert out.startswith("\nDNS Cache(currtime=") and "name=host0.home " not in out
        assert out.endswith("\n[dnsproxy: output cut: the terminal took nothing for 5 seconds]\n")
        assert paused.wait(timeout=10) == 0 and piped.wait(timeout=10) == 0
        steady = client.result()
    assert (steady["answered"], steady["max_ms"] < 100) == (180, True), steady


def test_metrics_in_the_view_the_json_method_and_the_prometheus_file(lab):
    # The System set (policy 1): its silent first server fails its probe, the second takes over.
    lab.start_responder(UP2, "silent")
    lab.start_responder(UP1, "answer", "--a", "203.0.113.99")
    lab.write("/etc/resolv.conf", f"nameserver {UP2}\nnameserver {UP1}\n")
    lab.write("/etc/flipla.conf", "EnableD2AFeature=1\nMetricsFile=/var/lib/m/dnsproxy.prom\n")
    lab.write("/etc/dns_d2a.conf", "192.0.2.80 printer.home\n")
    prom = lab.write("/var/lib/m/dnsproxy.prom", "")
    lab.start_dnsproxy()
    assert wait_until(lambda: "policy=1 active=1" in cli(lab, "view", "server"))
    assert answers(lab.query("www.example.test")) == [("A", "203.0.113.99")]
    assert answers(lab.query("printer.home")) == [("A", "192.0.2.80")]
    qr = "abcd81000001000000000000" + "03777777076578616d706c650474657374" + "00" + "00010001"
    assert lab.query(wire=qr, timeout=1)["timeout"]  # QR set: no query

    def metrics():
        status, text = json_call(lab, "dnsproxy.metrics", {})
        assert status == 0
        return json.loads(text)
    m = wait_until(lambda: (m := metrics())["sets"][0]["servers"][1]["probes"]["answered"] and m)
    assert (m["answers"]["d2a"], m["answers"]["upstream"], m["drops"]["invalid_query"]) == (1, 1, 1)
    system = m["sets"][0]
    assert [system[k] for k in ("set", "state", "state_changes", "active", "queries", "timeouts")] == \
        ["IPv4 System", "backup", 1, 1, 1, 0]
    down, up = system["servers"]
    assert (down["server"], down["state"], down["state_changes"], down["probes"]) == \
        (f"::ffff:{UP2}", "down", 1, {"sent": 1, "answered": 0, "timeout": 1})
    assert (up["state"], up["queries"], up["answers"]["NOERROR"], up["rtt_ms"]["count"]) == ("active", 1, 1, 1)
    view = cli(lab, "view", "metrics")
    assert "  d2a                   : 1\n" in view and "\nset IPv4 System: backup since " in view
    assert re.search(rf"\n  ::ffff:{UP2}: down since .+, changes 1, queries 0, timeouts 0\n", view)

    # The file: rewritten every 10 s, in place, and valid for Prometheus.
    label = f'{{set="IPv4 System",server="::ffff:{UP1}"'
    assert wait_until(lambda: f'dnsproxy_server_rtt_seconds_count{label}}} 1\n' in prom.read_text(), 15)
    text = prom.read_text()
    assert f'dnsproxy_server_rtt_seconds_bucket{label},le="+Inf"}} 1\n' in text
    assert 'dnsproxy_set_state{set="IPv4 System",state="backup"} 1\n' in text
    assert run(["promtool", "check", "metrics"], input=text).returncode == 0
    assert os.listdir(prom.parent) == ["dnsproxy.prom"]
