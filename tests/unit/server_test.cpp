#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "config/dpcfg.h"
#include "ctrl/dp_trace.h"
#include "io/dpio.h"
#include "main/dputl.h"
#include "server/dpsvr.h"
#include "test_support.h"

namespace {

std::vector<std::string> addrs(const servset* set) {
    std::vector<std::string> out;
    for (uint32_t i = 0; i < set->num; ++i)
        out.emplace_back(set->servers[i].addrStr);
    return out;
}

class ServerSets : public ::testing::Test {
  protected:
    void SetUp() override {
        define_debug_mode(0);
        dpcfg_init();
        dpsvr_init_server_sets();
    }
    void TearDown() override { dpsvr_init_server_sets(); } // stops every probe
    TempRoot root;
    DrivenClock clock{2000};
};

TEST_F(ServerSets, TableOrderDescriptionsAndPolicies) {
    const char* desc[] = {"IPv4 System", "IPv6 System", "IPv4 Global", "IPv6 Global",
                          "IPv4 HSI   ", "IPv4 VOIP  ", "IPv4 IPTV  ", "IPv4 FILTER"};
    for (uint32_t i = 0; i < DPSVR_SET_COUNT; ++i) {
        EXPECT_STREQ(dpsvr_get_server_set(i)->desc, desc[i]);
        EXPECT_EQ(dpsvr_get_server_set(i)->policy, i < 2 ? 1 : 0);
    }
    EXPECT_EQ(dpsvr_get_hsi_server_set(), dpsvr_get_server_set(DPSVR_V4_HSI));
    EXPECT_EQ(dpsvr_get_server_set(8), nullptr);
}

TEST_F(ServerSets, ResolverFileAcceptsAndRejects) {
    std::string text = "nameserver 192.0.2.53 # primary\n"
                       "nameserver 0.0.0.0\n"
                       "nameserver ::\n"
                       "nameserver 192.0.2.53\n"
                       "#nameserver 192.0.2.60\n"
                       "nameserver #192.0.2.61\n"
                       "nameserver bogus\n"
                       "nameserver 300.1.1.1\n"
                       "nameserver\n"
                       "search example\n"
                       "nameserver\t2001:DB8::53\r\n"
                       "domain lan.example\n";
    for (int i = 1; i <= 40; ++i)
        text += "nameserver 198.51.100." + std::to_string(i) + "\n";
    root.write("/etc/resolv.conf", text);
    EXPECT_EQ(dpsvr_load_system_dns_servers(), 33);
    const servset* v4 = dpsvr_get_server_set(DPSVR_V4_SYSTEM);
    const servset* v6 = dpsvr_get_server_set(DPSVR_V6_SYSTEM);
    ASSERT_EQ(v4->num, 32);
    EXPECT_STREQ(v4->servers[0].addrStr, "::ffff:192.0.2.53");
    EXPECT_STREQ(v4->servers[31].addrStr, "::ffff:198.51.100.31"); // the 33rd is dropped
    EXPECT_EQ(v4->servers[0].udpMaxPayload, 544);
    EXPECT_EQ(addrs(v6), std::vector<std::string>{"2001:db8::53"});
    EXPECT_STREQ(dpcfg_domain_name(), "lan.example");

    // The same lines elsewhere: the other family is dropped and domain changes nothing.
    dpcfg_set_domain_name("Home");
    root.write("/etc/dns_resolv_ipv6.conf", text);
    EXPECT_EQ(dpsvr_load_v6_global_dns_servers(), 1);
    EXPECT_STREQ(dpcfg_domain_name(), "Home");
}

TEST_F(ServerSets, AddServerResultCodes) {
    servset v4{};
    servset v6{};
    EXPECT_EQ(add_dns_server_to_server_set("localhost", &v4, &v6), -1);
    EXPECT_EQ(add_dns_server_to_server_set("1.2.3", &v4, &v6), -3);
    EXPECT_EQ(add_dns_server_to_server_set("0.0.0.0", &v4, &v6), -5);
    EXPECT_EQ(add_dns_server_to_server_set("::ffff:0.0.0.0", &v4, &v6),
              -3); // dotted: taken as IPv4 text
    EXPECT_EQ(add_dns_server_to_server_set("::", &v4, &v6), -5);
    EXPECT_EQ(add_dns_server_to_server_set("2001:db8::1", &v4, &v6), 0);
    EXPECT_EQ(add_dns_server_to_server_set("2001:DB8:0::1", &v4, &v6), -6);
    EXPECT_EQ(v4.num + v6.num, 1);
    EXPECT_EQ(v6.servers[1].addrStr[0], '\0'); // a rejected entry leaves nothing behind
}

TEST_F(ServerSets, ReloadKeepsProbingForAnUnchangedFile) {
    root.write("/etc/resolv.conf",
               "nameserver 192.0.2.1\nnameserver 192.0.2.2\nnameserver 192.0.2.3\n");
    dpsvr_load_v4_system_dns_servers();
    servset* set = dpsvr_get_server_set(DPSVR_V4_SYSTEM);
    EXPECT_EQ(dpsvr_monitor_list_head(), set);
    EXPECT_EQ(set->active.ena, 1);
    EXPECT_EQ(set->active.Time, 2001u);
    set_active_dns_server(set, 2);
    EXPECT_EQ(set->backup.ena, 1);

    clock.advance(5);
    EXPECT_EQ(dpsvr_load_v4_system_dns_servers(), 3);
    EXPECT_EQ(set->activeIdx, 2);
    EXPECT_EQ(set->backup.ena, 1);

    // Only the policy changes: everything resets, and policy 0 is never monitored.
    dpsvr_get_server_set(DPSVR_V4_SYSTEM)->policy = 1;
    root.write("/etc/flipla.conf", "SystemDnsServerSetPolicy=0\n");
    dpcfg_init();
    dpsvr_load_v4_system_dns_servers();
    EXPECT_EQ(set->policy, 0);
    EXPECT_EQ(set->activeIdx, 0);
    EXPECT_EQ(set->backup.ena, 0);
    EXPECT_EQ(set->active.ena, 0);
    EXPECT_EQ(dpsvr_monitor_list_head(), nullptr);
}

TEST_F(ServerSets, OneServerOrAMissingFileLeavesTheMonitorList) {
    root.write("/etc/dns_resolv_ipv4_hsi.conf", "nameserver 192.0.2.1\nnameserver 192.0.2.2\n");
    root.write("/etc/flipla.conf", "GlobalDnsServerSetPolicy=1\n");
    dpcfg_init();
    EXPECT_EQ(dpsvr_load_v4_hsi_dns_servers(), 2);
    EXPECT_EQ(dpsvr_monitor_list_head(), dpsvr_get_hsi_server_set());
    root.write("/etc/dns_resolv_ipv4_hsi.conf", "nameserver 192.0.2.1\n");
    EXPECT_EQ(dpsvr_load_v4_hsi_dns_servers(), 1);
    EXPECT_EQ(dpsvr_monitor_list_head(), nullptr);
    std::filesystem::remove(root.dir() + "/etc/dns_resolv_ipv4_hsi.conf");
    EXPECT_EQ(dpsvr_load_v4_hsi_dns_servers(), 0);
}

TEST_F(ServerSets, FilterSetIsNotLoadedAtStartUp) {
    root.write("/configs/etc/filter_dns_resolv_ipv4.conf", "nameserver 192.0.2.9\n");
    root.write("/etc/dns_resolv_ipv4_iptv.conf", "nameserver 192.0.2.8\n");
    dpsvr_load_all_dns_servers();
    EXPECT_EQ(dpsvr_get_server_set(DPSVR_V4_FILTER)->num, 0);
    EXPECT_EQ(dpsvr_get_server_set(DPSVR_V4_IPTV)->num, 1);
    EXPECT_EQ(dpsvr_load_v4_filter_dns_servers(), 1);
}

TEST_F(ServerSets, DefaultSetAndPrimaryStatus) {
    dpsvr_select_request req{1, {}, "x"};
    servset* dflt = reinterpret_cast<servset*>(1);
    select_default_server_set(&req, &dflt);
    EXPECT_EQ(dflt, nullptr);
    dpcfg_set_using_global_dns_servers(1);
    select_default_server_set(&req, &dflt);
    EXPECT_EQ(dflt, dpsvr_get_server_set(DPSVR_V4_SYSTEM));
    req.type = 2;
    select_default_server_set(&req, &dflt);
    EXPECT_EQ(dflt, dpsvr_get_server_set(DPSVR_V6_SYSTEM));
    req.type = 3;
    select_default_server_set(&req, &dflt);
    EXPECT_EQ(dflt, nullptr);

    root.write("/etc/dns_resolv_ipv4.conf", "nameserver 192.0.2.1\n");
    root.write("/etc/dns_resolv_ipv4_hsi.conf", "nameserver 192.0.2.1\nnameserver 192.0.2.2\n");
    dpsvr_load_all_dns_servers();
    const uint8_t primary[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 192, 0, 2, 1};
    dpsvr_set_primary_dns_status(primary, 1);
    EXPECT_EQ(dpsvr_get_server_set(DPSVR_V4_GLOBAL)->primaryDnsActive, 1);
    EXPECT_EQ(dpsvr_get_server_set(DPSVR_V4_HSI)->primaryDnsActive, 1);
    EXPECT_EQ(dpsvr_get_server_set(DPSVR_V4_VOIP)->primaryDnsActive, 0);
    dpsvr_set_primary_dns_status(nullptr, 0);
    EXPECT_EQ(dpsvr_get_server_set(DPSVR_V4_HSI)->primaryDnsActive, 0);
}

TEST_F(ServerSets, DumpText) {
    root.write("/etc/resolv.conf", "nameserver 192.0.2.1\nnameserver 2001:db8::1\n");
    dpsvr_load_system_dns_servers();
    StderrCapture err;
    dpsvr_dump_dns_servers();
    const std::string rule(59, '=');
    EXPECT_EQ(err.text(), "\nDNS Servers\n" + rule + "\n" +
                              "IPv4 System DNS servers num=1 policy=1 active=0 backup=0\n"
                              "nameserver[0]: ::ffff:192.0.2.1 UDPMAXPAYLOAD is 544\n"
                              "IPv6 System DNS servers num=1 policy=1 active=0 backup=0\n"
                              "nameserver[0]: 2001:db8::1 UDPMAXPAYLOAD is 544\n"
                              "IPv4 Global DNS servers num=0 policy=0 active=0 backup=0\n"
                              "IPv6 Global DNS servers num=0 policy=0 active=0 backup=0\n"
                              "IPv4 HSI    DNS servers num=0 policy=0 active=0 backup=0\n"
                              "IPv4 VOIP   DNS servers num=0 policy=0 active=0 backup=0\n"
                              "IPv4 IPTV   DNS servers num=0 policy=0 active=0 backup=0\n"
                              "IPv4 FILTER DNS servers num=0 policy=0 active=0 backup=0\n" +
                              rule + "\n");
}

// ---- probing and forwarding, against UDP servers on loopback in a private namespace -----------

// The id of each DNS message that arrived.
std::vector<uint16_t> ids(const std::vector<std::vector<uint8_t>>& msgs) {
    std::vector<uint16_t> out;
    for (const auto& m : msgs)
        out.push_back(static_cast<uint16_t>(m[0] << 8 | m[1]));
    return out;
}

class Probing : public ServerSets {
  protected:
    void SetUp() override {
        if (!enter_private_network()) GTEST_SKIP() << "needs root for a private network namespace";
        ServerSets::SetUp();
        // The peers are made only now, inside the private namespace.
        a.emplace("127.0.0.11");
        b.emplace("127.0.0.12");
        c.emplace("127.0.0.13");
        for (auto* p : {&a, &b, &c})
            ASSERT_TRUE((*p)->ok());
        root.write("/etc/flipla.conf",
                   "ServerSocketSrcPortStart=40000\nServerSocketSrcPortEnd=40100\n");
        root.write("/etc/resolv.conf",
                   "nameserver 127.0.0.11\nnameserver 127.0.0.12\nnameserver 127.0.0.13\n");
        dpcfg_init();
        create_client_socket(); // port 53 is taken by the peers: only the server socket opens
        ASSERT_GE(dpio_get_server_fd(), 0);
        dpsvr_load_v4_system_dns_servers();
        set = dpsvr_get_server_set(DPSVR_V4_SYSTEM);
    }
    void TearDown() override {
        ServerSets::TearDown();
        dpio_close_sockets();
    }
    // The tick's probing steps, once a second up to time t.
    void run_to(uint32_t t) {
        while (clock.get() < t) {
            clock.advance(1);
            dpsvr_scan_monitor_list();
            dputl_scan_action_list();
        }
    }
    void got_one(std::optional<UdpPeer>& p) { EXPECT_EQ(p->received().size(), 1u); }
    std::optional<UdpPeer> a, b, c;
    servset* set = nullptr;
};

TEST_F(Probing, SilentActiveServerIsReplacedAndTheBackupWalkReturnsToThePrimary) {
    run_to(2001); // the active monitor is due 1 s after the load
    auto got = a->received();
    ASSERT_EQ(got.size(), 1u);
    // A recursive A query for one of three names (30, 32 or 36 bytes), asked in turn.
    const size_t first_len = got[0].size();
    EXPECT_TRUE(first_len == 30 || first_len == 32 || first_len == 36) << first_len;
    EXPECT_EQ(ids(got)[0], set->active.transid);
    EXPECT_EQ(std::vector<uint8_t>(got[0].begin() + 2, got[0].begin() + 6),
              (std::vector<uint8_t>{1, 0, 0, 1}));
    EXPECT_EQ(std::vector<uint8_t>(got[0].end() - 4, got[0].end()),
              (std::vector<uint8_t>{0, 1, 0, 1}));

    run_to(2002); // A silent for 1 s: B becomes active, probed one second later
    EXPECT_EQ(set->activeIdx, 1);
    EXPECT_TRUE(b->received(0).empty());
    run_to(2003);
    got = b->received();
    ASSERT_EQ(got.size(), 1u);
    const size_t next_len = first_len == 30 ? 32 : (first_len == 32 ? 36 : 30);
    EXPECT_EQ(got[0].size(), next_len);
    EXPECT_EQ(dpsvr_handle_dns_server_probe_response(ids(got)[0]), 1);
    EXPECT_EQ(set->active.Time, 2063u);
    EXPECT_EQ(set->backup.Time, 2122u);

    run_to(2063);
    got = b->received(); // B rechecked after 60 s
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(dpsvr_handle_dns_server_probe_response(ids(got)[0]), 1);
    run_to(2122);
    got = a->received();
    ASSERT_EQ(got.size(), 1u); // the backup monitor tries the primary
    EXPECT_EQ(dpsvr_handle_dns_server_probe_response(ids(got)[0]), 2);
    EXPECT_EQ(set->activeIdx, 0);
    EXPECT_EQ(set->backup.ena, 0);
    EXPECT_EQ(dpsvr_handle_dns_server_probe_response(ids(got)[0]), -2); // answered already
    EXPECT_EQ(dpsvr_handle_dns_server_probe_response(0), -1);
}

TEST_F(Probing, BackupWalkVisitsHigherServersThenRests) {
    set_active_dns_server(set, 2); // backup armed for now + 120
    set->active.ena = 0;           // leave the active server alone here
    run_to(2119);
    EXPECT_TRUE(a->received(0).empty());
    run_to(2120); // index 0 probed
    got_one(a);
    run_to(2121); // silent: index 1 next, one second later
    EXPECT_EQ(set->backupIdx, 1);
    run_to(2122);
    got_one(b);
    run_to(2123); // silent: rest 120 s, starting again at index 0
    EXPECT_EQ(set->backupIdx, 0);
    EXPECT_EQ(set->backup.Time, 2243u);
    EXPECT_TRUE(c->received(0).empty());
}

TEST_F(Probing, LastServerWrapsToTheFirst) {
    set_active_dns_server(set, 2);
    set_next_active_server(set);
    EXPECT_EQ(set->activeIdx, 0);
    EXPECT_EQ(set_active_dns_server(set, 3), -1);
    EXPECT_EQ(set_next_active_server(nullptr), -1);
    EXPECT_EQ(start_active_server_probe(nullptr), -33);
    EXPECT_EQ(start_backup_server_probe(nullptr), -15);
    EXPECT_EQ(stop_active_server_probe(nullptr), -43);
    EXPECT_EQ(stop_backup_server_probe(nullptr), -25);
    EXPECT_EQ(send_probe_packet_to_server(nullptr, nullptr), -88);
}

TEST_F(Probing, UnansweredQueryStartsEveryArmedProbeAtOnce) {
    dpsvr_check_dns_server_set_status();
    EXPECT_EQ(a->received().size(), 1u);
    EXPECT_EQ(set->active.ena, 0);
}

TEST_F(Probing, PoliciesDecideWhoGetsTheQuery) {
    uint8_t query[32] = {0x12, 0x34, 1, 0, 0, 1};
    // Policy 1: the active server only.
    EXPECT_EQ(send_query_to_server_set(query, sizeof query, set), 1);
    EXPECT_EQ(a->received().size(), 1u);
    // Policy 0: everyone.
    set->policy = 0;
    EXPECT_EQ(send_query_to_server_set(query, sizeof query, set), 3);
    EXPECT_EQ(a->received().size() + b->received().size() + c->received().size(), 3u);
    // Policy 2: everyone until the primary answers NOERROR, then the primary alone.
    set->policy = 2;
    dpsvr_mark_first_dns_query();
    dpsvr_set_primary_dns_status(set->servers[0].addr, 1);
    EXPECT_EQ(send_query_to_server_set(query, sizeof query, set), 3); // the first query goes wide
    dpsvr_mark_first_dns_query();
    EXPECT_EQ(send_query_to_server_set(query, sizeof query, set), 1);
    dpsvr_set_primary_dns_status(set->servers[0].addr, 0); // SERVFAIL from the primary
    EXPECT_EQ(send_query_to_server_set(query, sizeof query, set), 3);
    set->policy = 7;
    EXPECT_EQ(send_query_to_server_set(query, sizeof query, set), 0);
}

TEST_F(Probing, EmptySetFallsBackUnlessClassifiedForwardingIsOn) {
    uint8_t query[32] = {0x12, 0x34, 1, 0, 0, 1};
    servset* empty = dpsvr_get_server_set(DPSVR_V4_VOIP);
    EXPECT_EQ(dpsvr_send_query(query, sizeof query, empty, set), 1);
    EXPECT_EQ(dpsvr_send_query(query, sizeof query, empty, nullptr), 0);
    dpcfg_apply_feature_mask(DPCFG_FEAT_NAME_FILTER_FORWARD);
    EXPECT_EQ(dpsvr_send_query(query, sizeof query, empty, set), 0);
}

} // namespace
