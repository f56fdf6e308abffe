"""The control plane driven only through real tools: dbus-send and busctl for signals and methods,
kiv_cli for the CLI; effects checked through DNS answers, the CLI views and the traces."""

import re
import subprocess
import time
from concurrent.futures import ThreadPoolExecutor

from lab import BUS_NAME, GW_LAN_V4, WAN_V4, run

UP1, UP2 = WAN_V4[0], WAN_V4[1]
SERVER_TRACES = "debug_mode=0\n"  # masks set per test with the CLI
HELP = ("\nkiv_cli dnsproxy help\nkiv_cli dnsproxy view config\nkiv_cli dnsproxy view server\n"
        "kiv_cli dnsproxy view cache\nkiv_cli dnsproxy view filter\nkiv_cli dnsproxy view statistic\n"
        "kiv_cli dnsproxy view misc\nkiv_cli dnsproxy view debug setting\n"
        "kiv_cli dnsproxy define debug mode [0-6]\nkiv_cli dnsproxy define debug level "
        "proxy|io|endec|server|cache|config|util|debug none|error|warn|detail|func|pkt|endec|io|period|all\n\n")

MSG_SIGNALS = [
    ("dpLoadSystemNameServers", "dpsvr_process_load_system_dns_servers_signal"),
    ("dpLoadV4NameServers", "dpsvr_process_load_v4_dns_servers_signal"),
    ("dpLoadV4FilterNameServers", "dpsvr_process_load_v4_filter_dns_servers_signal"),
    ("dpLoadV6NameServers", "dpsvr_process_load_v6_dns_servers_signal"),
    ("dpLoadV4HsiNameServers", "dpsvr_process_load_v4_hsi_dns_servers_signal"),
    ("dpLoadV4VoipNameServers", "dpsvr_process_load_v4_voip_dns_servers_signal"),
    ("dpLoadV4IptvNameServers", "dpsvr_process_load_v4_iptv_dns_servers_signal"),
    ("dpLoadD2Acache", "dpsvr_process_load_d2a_cache_signal"),
    ("dpLoadD2Dcache", "dpsvr_process_load_d2d_cache_signal"),
    ("dpLoadHostsCache", "dpsvr_process_load_hosts_cache_signal"),
    ("dpLoadNameFilterDb", "dpsvr_process_load_name_filter_db_signal"),
    ("dpDhcpCondPoolUpdate", "dpsvr_process_dhcp_cond_pool_update_signal"),
    ("dpDisableForceRegister", "dpsvr_process_disable_force_register_signal"),
    ("dpEnableForceRegister", "dpsvr_process_enable_force_register_signal"),
    ("dpDisableLockNet", "dpsvr_process_disable_lock_net"),
    ("dpEnableLockNet", "dpsvr_process_enable_lock_net"),
    ("dpLoadLockNetWhiteListDb", "dpsvr_process_load_lock_net_whitelist_signal"),
    ("dpDisableDslite", "dpsvr_process_disable_dslite_signal"),
    ("dpEnableDslite", "dpsvr_process_enable_dslite_signal"),
    ("dpDisableRedirect", "dpsvr_process_disable_redirect_signal"),
    ("dpEnableRedirect", "dpsvr_process_enable_redirect_signal"),
]


def cli(lab, *words):
    rc, out, err = lab.kiv_cli(*words)
    assert (rc, err) == (0, ""), err
    return out


def answers(result):
    return [(a[2], a[3]) for a in result.get("answer", [])]


def test_every_signal_reaches_its_own_handler_and_unknown_members_none(lab):
    d = lab.start_dnsproxy()
    cli(lab, "define", "debug", "level", "server", "detail")
    for member, _ in MSG_SIGNALS:
        lab.bus_signal(member)
    lab.bus_signal("dpBogusSignal")
    lab.bus_signal("dpLoadFirstIpWanNameForDnsFilter", "string:eth9")
    log = d.stderr()
    handled = re.findall(r"DPSERV (\w+):\d+ \1 itf=orvik\.kiv\.dnsproxy\.itf\.msg signal=(\w+)\n", log)
    assert handled == [(handler, member) for member, handler in MSG_SIGNALS]
    assert "dpBogusSignal" not in log
    assert re.search(r"dpsvr_process_load_first_wan_ifname_for_dns_filter_signal:\d+ ====first wan name is eth9\n", log)


def test_a_reload_signal_rereads_only_its_own_file(lab):
    lab.write("/etc/resolv.conf", f"nameserver {UP1}\n")
    lab.write("/etc/dns_resolv_ipv4.conf", f"nameserver {UP1}\n")
    lab.start_dnsproxy()
    lab.write("/etc/resolv.conf", f"nameserver {UP2}\n")
    lab.write("/etc/dns_resolv_ipv4.conf", f"nameserver {UP2}\n")
    lab.bus_signal("dpLoadV4NameServers")
    view = cli(lab, "view", "server")
    assert f"IPv4 System DNS servers num=1 policy=1 active=0 backup=0\nnameserver[0]: ::ffff:{UP1} " in view
    assert f"IPv4 Global DNS servers num=1 policy=0 active=0 backup=0\nnameserver[0]: ::ffff:{UP2} " in view


def test_tables_reload_with_their_feature_off_but_answer_only_with_it_on(lab):
    up = lab.start_responder(UP1, "answer", "--a", "203.0.113.99")
    lab.write("/etc/resolv.conf", f"nameserver {UP1}\n")
    lab.start_dnsproxy()
    lab.write("/etc/dns_d2a.conf", "192.0.2.80 printer.home\n")
    lab.bus_signal("dpLoadD2Acache")
    assert "name=printer.home value=192.0.2.80\n" in cli(lab, "view", "cache")
    assert answers(lab.query("printer.home")) == [("A", "203.0.113.99")]  # D2A is off
    assert len(up.queries()) == 1


def test_lock_net_toggles_by_signal_and_method(lab):
    lab.start_responder(UP1)
    lab.write("/etc/resolv.conf", f"nameserver {UP1}\n")
    lab.start_dnsproxy()
    lab.bus_signal("dpEnableLockNet")
    assert answers(lab.query("www.example.test")) == [("A", GW_LAN_V4)]
    assert lab.bus_call("ToggleLockNet", "u", "0") == (0, "u 0")
    assert answers(lab.query("www.example.test")) == [("A", "203.0.113.7")]


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


def lease_update(action, addr, vci, size=132):
    """The DHCP server's lease update: u32 action, then the 128-byte lease record."""
    record = bytearray(128)
    record[0:6] = bytes.fromhex("020000000010")
    record[16:20] = bytes(int(x) for x in addr.split("."))
    record[20:24] = (86400).to_bytes(4, "big")
    record[60:60 + len(vci)] = vci.encode()
    payload = action.to_bytes(4, "little") + bytes(record)
    payload = (payload + bytes(8))[:size]
    return "array:byte:" + ",".join(str(b) for b in payload)


def test_lease_updates_of_the_wrong_size_are_refused(lab):
    lab.write("/etc/dhcp_condpool.conf", "766f6970 192.0.2.100 192.0.2.150 VOIP\n")
    d = lab.start_dnsproxy()
    for size in (131, 133):
        lab.bus_signal("dhcpLeaseInfoUpdate", lease_update(0, "192.0.2.120", "voip", size), itf="orvik.dhcpd")
    assert d.stderr().count("dplog_process_dhcpd_lease_update, parameter mismatched\n") == 2
    assert "192.0.2.120" not in cli(lab, "view", "filter")
    lab.bus_signal("dhcpLeaseInfoUpdate", lease_update(0, "192.0.2.120", "voip"), itf="orvik.dhcpd")
    assert re.search(r"\d+: 192\.0\.2\.120\(C0000278\) 02:00:00:00:00:10 voip\n", cli(lab, "view", "filter"))
    lab.bus_signal("dhcpLeaseInfoUpdate", lease_update(1, "192.0.2.120", "voip"), itf="orvik.dhcpd")
    assert "192.0.2.120" not in cli(lab, "view", "filter")


def json_call(lab, name, params):
    import json
    rc, out = lab.bus_call("kiv_sync_invoke", "s", json.dumps({"name": name, "params": params}),
                           itf="orvik.kiv.dnsproxy.itf.json.api")
    assert rc == 0, out
    status, text = re.fullmatch(r'us (\d+) "(.*)"', out).groups()
    return int(status) - (1 << 32 if int(status) >= 1 << 31 else 0), text


def test_json_feature_and_reload_requests(lab):
    lab.start_responder(UP1)
    lab.start_dnsproxy()
    assert json_call(lab, "dp_api_cfg_dnsproxy_feature", {"dnsproxy.features": {"intercept": 1, "edns": 0}})[0] == 0
    assert answers(lab.query("www.example.test")) == [("A", GW_LAN_V4)]
    # Malformed, wrongly typed or unknown: refused with -422, nothing applied.
    for bad in ({"dnsproxy.features": {"intercept": "off"}}, {"dnsproxy.features": {"bogus": 1}},
                {"dnsproxy.features": {f"k{i}": 1 for i in range(17)}}, {"other": {}}):
        assert json_call(lab, "dp_api_cfg_dnsproxy_feature", bad)[0] == -422
    assert answers(lab.query("www.example.test")) == [("A", GW_LAN_V4)]
    status, reason = json_call(lab, "no_such_method", {})
    assert status < 0 and reason

    lab.write("/etc/resolv.conf", f"nameserver {UP1}\n")
    assert json_call(lab, "dp_api_reload_dnsproxy_config", {"dnsproxy.configs": {"system_dns_server": 1}})[0] == 0
    assert json_call(lab, "dp_api_cfg_dnsproxy_feature", {"dnsproxy.features": {"intercept": 0}})[0] == 0
    assert answers(lab.query("www.example.test")) == [("A", "203.0.113.7")]


def test_json_messages_through_the_kivmessage_signal(lab):
    lab.write("/etc/flipla.conf", "EnableD2AFeature=1\n")
    lab.start_dnsproxy()
    lab.write("/etc/dns_d2a.conf", "192.0.2.80 printer.home\n")
    lab.bus_signal("kivMessage", 'string:{"name": "dp_msg_reload_dnsproxy_config", "params": '
                   '{"dnsproxy.configs": {"d2a": 1, "first_wan_ifname_for_filter_dns": "eth1"}}}',
                   itf="orvik.kiv.dnsproxy.itf.json.msg")
    assert answers(lab.query("printer.home")) == [("A", "192.0.2.80")]
    lab.bus_signal("kivMessage", 'string:{"name": "dp_msg_cfg_dnsproxy_feature", "params": '
                   '{"dnsproxy.features": {"intercept": 1}}}', itf="orvik.kiv.dnsproxy.itf.json.msg")
    assert answers(lab.query("anything.example.test")) == [("A", GW_LAN_V4)]


def test_cli_views_and_unmatched_commands(lab):
    lab.write("/etc/flipla.conf", "EnableD2AFeature=1\n")
    lab.write("/etc/dns_d2a.conf", "192.0.2.80 printer.home\n")
    d = lab.start_dnsproxy()
    lab.query("printer.home")
    assert cli(lab, "help") == HELP
    assert cli(lab, "view", "nothing") == HELP
    assert cli(lab, "set", "logconfig", "loud", "serial") == HELP  # a word not in the list
    stats = cli(lab, "view", "statistic")
    assert "client packet recv    : 1\n" in stats and stats.startswith("\nDNS statistic\n" + "=" * 59 + "\n")
    assert "is_d2a_feat_enabled              = 1\n" in cli(lab, "view", "config")
    assert "IPv4 System DNS servers num=0" in cli(lab, "view", "server")
    assert "name=printer.home value=192.0.2.80\n" in cli(lab, "view", "cache")
    assert "NameFilter DB VciExplicitForwardEnabld=0\n" in cli(lab, "view", "filter")
    misc = cli(lab, "view", "misc")
    assert f"\nDNSPROXY pid={d.pid} " in misc and "  v4ipstr = 192.0.2.1\n" in misc
    assert "dp_msg_cfg_dnsproxy_feature" in cli(lab, "dump", "itf", "list")
    assert d.stderr().count("DNS statistic") == 0  # every view went to the operator, not the log


def test_cli_debug_and_log_configuration(lab):
    d = lab.start_dnsproxy()
    cli(lab, "define", "debug", "mode", "6")
    assert cli(lab, "view", "debug", "setting").count("xx     xx     xx     xx     xx     xx     xx xx") == 8
    cli(lab, "define", "debug", "mode", "six")  # not a number: mode 0
    setting = cli(lab, "view", "debug", "setting")
    assert len(re.findall(r"^\w+ *: xx +$", setting, re.M)) == 8  # errors only
    cli(lab, "set", "logconfig", "notice", "serial")
    cli(lab, "save", "logconfig")
    assert lab.read("/configs/kiv_dnsproxy_log_config") == "log_level=5\nlog_dest=1\ndebug_mode=4\ntimestamp=1\n"
    assert cli(lab, "dump", "logconfig") == "\nlog_level=5\nlog_dest=1\ndebug_mode=4\ntimestamp=1\n\n"
    cli(lab, "reset", "logconfig")
    assert not (lab.root / "configs/kiv_dnsproxy_log_config").exists()
    assert "clilog: level=3 dest=2\n" in cli(lab, "view", "debug", "setting")
    assert d.alive()


def test_redirect_printf_leaves_output_where_it_put_it(lab):
    d = lab.start_dnsproxy()
    target = lab.root / "redirected.txt"
    target.write_text("")
    out = cli(lab, "redirect", "printf", str(target))
    assert out == ""  # the confirmation went to the new place
    assert target.read_text() == f"redirecting stdout and stderr to {target}\n"
    # The next command prints on the operator's output and then returns to the daemon's own.
    assert cli(lab, "view", "statistic").startswith("\nDNS statistic\n")
    cli(lab, "define", "debug", "level", "proxy", "detail")
    lab.query("www.example.test", timeout=1)
    assert "name=www.example.test" in d.stderr()
    assert "name=www.example.test" not in target.read_text()


def test_cli_readers_that_stop_reading_never_stall_dns(lab):
    lab.write("/etc/dns_d2a.conf", "".join(f"192.0.2.{i % 200 + 20} host{i}.home\n" for i in range(10000)))
    lab.start_dnsproxy("-f", "1")
    with ThreadPoolExecutor() as pool:
        client = pool.submit(lab.query, "host7.home", steady=180, pace=0.05, timeout=1)  # 9 s
        time.sleep(0.5)
        piped = subprocess.Popen(["sh", "-c", " ".join(lab.kiv_cli_argv("view", "cache")) + " | sleep 8"],
                                 env=lab.env())
        # This reader takes nothing for longer than the daemon waits, then reads to the end.
        paused = subprocess.Popen(lab.kiv_cli_argv("view", "cache"), env=lab.env(), stdout=subprocess.PIPE)
        time.sleep(9)
        out = paused.stdout.read().decode()
        assert out.startswith("\nDNS Cache(currtime=") and "name=host0.home " not in out
        assert out.endswith("\n[dnsproxy: output cut: the terminal took nothing for 5 seconds]\n")
        assert paused.wait(timeout=10) == 0 and piped.wait(timeout=10) == 0
        steady = client.result()
    assert (steady["answered"], steady["max_ms"] < 100) == (180, True), steady


def test_kiv_cli_without_a_daemon_fails_clearly(lab):
    rc, out, err = lab.kiv_cli("view", "statistic")
    assert rc != 0 and out == "" and err
