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

servset* set_of(uint32_t index) {
    return dpsvr_get_server_set(index);
}
// "num policy active backup", each monitor's "ena@Time", and whether the set is monitored.
std::string state(const servset* s) {
    char out[96];
    std::snprintf(out, sizeof out, "%u %u %u %u %u@%u %u@%u %s", s->num, s->policy, s->activeIdx,
                  s->backupIdx, s->active.ena, s->active.Time, s->backup.ena, s->backup.Time,
                  dpsvr_monitor_list_head() == s ? "monitored" : "-");
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

TEST_F(ServerSets, ResolverFileAcceptsAndRejects) {
    std::string text = "nameserver 192.0.2.53 # primary\nnameserver 0.0.0.0\nnameserver ::\n"
                       "nameserver 192.0.2.53\n#nameserver 192.0.2.60\nnameserver #192.0.2.61\n"
                       "nameserver bogus\nnameserver 300.1.1.1\nnameserver\nsearch example\n"
                       "nameserver\t2001:DB8::53\r\ndomain lan.example\n";
    for (int i = 1; i <= 40; ++i)
        text += "nameserver 198.51.100." + std::to_string(i) + "\n";
    root.write("/etc/resolv.conf", text);
    EXPECT_EQ(dpsvr_load_system_dns_servers(), 33);
    const servset *v4 = set_of(DPSVR_V4_SYSTEM), *v6 = set_of(DPSVR_V6_SYSTEM);
    EXPECT_EQ((std::vector<int>{v4->num, v4->servers[0].udpMaxPayload, v6->num}),
              (std::vector<int>{32, 544, 1})); // the 33rd IPv4 server is dropped
    EXPECT_EQ(std::string(v4->servers[0].addrStr) + " " + v4->servers[31].addrStr + " " +
                  v6->servers[0].addrStr + " " + dpcfg_domain_name(),
              "::ffff:192.0.2.53 ::ffff:198.51.100.31 2001:db8::53 lan.example");
    dpcfg_set_domain_name("Home"); // elsewhere: the other family dropped, domain changes nothing
    root.write("/etc/dns_resolv_ipv6.conf", text);
    EXPECT_EQ(dpsvr_load_v6_global_dns_servers(), 1);
    EXPECT_STREQ(dpcfg_domain_name(), "Home");
}

TEST_F(ServerSets, ReloadResetsProbingOnlyWhenSomethingChanged) {
    auto load = [&](const char* servers, const char* policy) {
        root.write("/etc/resolv.conf", servers);
        root.write("/etc/flipla.conf", std::string("SystemDnsServerSetPolicy=") + policy + "\n");
        dpcfg_init();
        dpsvr_load_v4_system_dns_servers();
        return state(set_of(DPSVR_V4_SYSTEM));
    };
    const char* two = "nameserver 192.0.2.1\nnameserver 192.0.2.2\n";
    EXPECT_EQ(load(two, "1"), "2 1 0 0 1@2001 0@0 monitored");
    set_active_dns_server(set_of(DPSVR_V4_SYSTEM), 1);
    clock.advance(5);
    EXPECT_EQ(load(two, "1"), "2 1 1 0 1@2001 1@2120 monitored"); // unchanged: nothing resets
    EXPECT_EQ(load(two, "0"), "2 0 0 0 0@2001 0@2120 -"); // only the policy: everything resets
    EXPECT_EQ(load("nameserver 192.0.2.1\n", "1"), "1 1 0 0 0@2001 0@2120 -"); // one server
}

TEST_F(ServerSets, StartUpLoadDumpDefaultSetAndPrimaryStatus) {
    root.write("/configs/etc/filter_dns_resolv_ipv4.conf", "nameserver 192.0.2.9\n");
    root.write("/etc/dns_resolv_ipv4_iptv.conf", "nameserver 192.0.2.8\n");
    root.write("/etc/dns_resolv_ipv6.conf", "nameserver 2001:db8::1\n");
    root.write("/etc/dns_resolv_ipv4_hsi.conf", "nameserver 192.0.2.1\nnameserver 192.0.2.2\n");
    dpsvr_load_all_dns_servers(); // the FILTER set is not loaded at start-up
    set_of(DPSVR_V4_HSI)->activeIdx = 1, set_of(DPSVR_V4_HSI)->backupIdx = 2;
    StderrCapture err;
    dpsvr_dump_dns_servers();
    const std::string rule(59, '=');
    EXPECT_EQ(err.text(), "\nDNS Servers\n" + rule + "\n" +
                              "IPv4 System DNS servers num=0 policy=1 active=0 backup=0\n"
                              "IPv6 System DNS servers num=0 policy=1 active=0 backup=0\n"
                              "IPv4 Global DNS servers num=0 policy=0 active=0 backup=0\n"
                              "IPv6 Global DNS servers num=1 policy=0 active=0 backup=0\n"
                              "nameserver[0]: 2001:db8::1 UDPMAXPAYLOAD is 544\n"
                              "IPv4 HSI    DNS servers num=2 policy=0 active=1 backup=2\n"
                              "nameserver[0]: ::ffff:192.0.2.1 UDPMAXPAYLOAD is 544\n"
                              "nameserver[1]: ::ffff:192.0.2.2 UDPMAXPAYLOAD is 544\n"
                              "IPv4 VOIP   DNS servers num=0 policy=0 active=0 backup=0\n"
                              "IPv4 IPTV   DNS servers num=1 policy=0 active=0 backup=0\n"
                              "nameserver[0]: ::ffff:192.0.2.8 UDPMAXPAYLOAD is 544\n"
                              "IPv4 FILTER DNS servers num=0 policy=0 active=0 backup=0\n" +
                              rule + "\n");
    EXPECT_EQ(dpsvr_load_v4_filter_dns_servers(), 1);

    // The primary's status, in every set whose first server it is, or in all of them.
    const uint8_t primary[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 192, 0, 2, 1};
    dpsvr_set_primary_dns_status(primary, 1);
    EXPECT_EQ(set_of(DPSVR_V4_HSI)->primaryDnsActive * 10 + set_of(DPSVR_V4_IPTV)->primaryDnsActive,
              10);
    dpsvr_set_primary_dns_status(nullptr, 0);
    EXPECT_EQ(set_of(DPSVR_V4_HSI)->primaryDnsActive, 0);

    // The fallback set: the System set of the request's family, with global servers only.
    dpsvr_select_request req{1, {}, "x"};
    servset* dflt = reinterpret_cast<servset*>(1);
    select_default_server_set(&req, &dflt);
    EXPECT_EQ(dflt, nullptr);
    dpcfg_set_using_global_dns_servers(1);
    for (uint32_t type : {1, 2, 3}) {
        req.type = type;
        select_default_server_set(&req, &dflt);
        EXPECT_EQ(dflt, type == 3 ? nullptr : set_of(type - 1));
    }
}

// ---- probing and forwarding, against UDP servers on loopback in a private namespace -----------

class Probing : public ServerSets {
  protected:
    void SetUp() override {
        if (!enter_private_network()) GTEST_SKIP() << "needs root for a private network namespace";
        ServerSets::SetUp();
        for (int i = 0; i < 3; ++i) { // made only now, inside the private namespace
            peers[i].emplace(("127.0.0.1" + std::to_string(i + 1)).c_str());
            ASSERT_TRUE(peers[i]->ok());
        }
        root.write("/etc/resolv.conf",
                   "nameserver 127.0.0.11\nnameserver 127.0.0.12\nnameserver 127.0.0.13\n");
        create_client_socket(); // port 53 is taken by the peers: only the server socket opens
        ASSERT_GE(dpio_get_server_fd(), 0);
        dpsvr_load_v4_system_dns_servers();
        set = set_of(DPSVR_V4_SYSTEM);
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
    // How many datagrams each peer got since the last look, one decimal digit each (101: the
    // first and the third one); the last datagram is kept.
    int got() {
        int n = 0;
        for (auto& p : peers) {
            const auto msgs = p->received(50);
            n = n * 10 + static_cast<int>(msgs.size());
            if (!msgs.empty()) last = msgs.back();
        }
        return n;
    }
    uint16_t last_id() const { return static_cast<uint16_t>(last[0] << 8 | last[1]); }
    std::optional<UdpPeer> peers[3];
    std::vector<uint8_t> last;
    servset* set = nullptr;
};

// One second of probing after another up to t: the probes the servers got, and what handling
// an answer to the last one returns (0: no answer).
struct Step {
    uint32_t t;
    int got, answer;
};

TEST_F(Probing, ActiveServerFailoverAndTheBackupWalk) {
    auto play = [&](std::initializer_list<Step> steps) {
        for (const Step& s : steps) {
            run_to(s.t);
            EXPECT_EQ(got(), s.got) << s.t;
            EXPECT_EQ(s.answer == 0 ? 0 : dpsvr_handle_dns_server_probe_response(last_id()),
                      s.answer);
        }
    };
    // A silent active server is replaced by the next one, probed a second later; an answer keeps
    // it for 60 s, and the backup monitor tries the primary after 120 s.
    play({{2000, 0, 0}, {2001, 100, 0}});
    // One of three probe queries, 30, 32 or 36 bytes long, asked in turn.
    const size_t first_len = last.size();
    EXPECT_EQ(last_id(), set->active.transid);
    play({{2002, 0, 0}, {2003, 10, 1}});
    EXPECT_EQ(last.size(), first_len == 30 ? 32u : (first_len == 32 ? 36u : 30u));
    play({{2062, 0, 0}, {2063, 10, 1}, {2121, 0, 0}, {2122, 100, 2}});
    EXPECT_EQ(state(set), "3 1 0 0 1@2123 0@2122 monitored");
    EXPECT_EQ(dpsvr_handle_dns_server_probe_response(last_id()), -2); // answered already
    EXPECT_EQ(dpsvr_handle_dns_server_probe_response(0), -1);

    // With the third server active the backup monitor walks the two above it, then rests.
    set_active_dns_server(set, 2);
    set->active.ena = 0; // leave the active server alone here
    play({{2241, 0, 0}, {2242, 100, 0}, {2243, 0, 0}, {2244, 10, 0}, {2364, 0, 0}, {2365, 100, 0}});
    set_next_active_server(set); // the last server wraps to the first
    EXPECT_EQ(set->activeIdx, 0);
    dpsvr_check_dns_server_set_status(); // an unanswered query: the armed probe starts at once
    EXPECT_EQ(got(), 100);
    EXPECT_EQ(set_active_dns_server(set, 3), -1);
    EXPECT_EQ(
        (std::vector<int>{set_next_active_server(nullptr), start_active_server_probe(nullptr),
                          start_backup_server_probe(nullptr), stop_active_server_probe(nullptr),
                          stop_backup_server_probe(nullptr),
                          send_probe_packet_to_server(nullptr, nullptr)}),
        (std::vector<int>{-1, -33, -15, -43, -25, -88}));
}

TEST_F(Probing, PoliciesDecideWhoGetsTheQuery) {
    uint8_t query[32] = {0x12, 0x34, 1, 0, 0, 1};
    auto send = [&](int policy) {
        set->policy = static_cast<uint8_t>(policy);
        return send_query_to_server_set(query, sizeof query, set);
    };
    // An empty set falls back to the default one unless classified forwarding is on.
    servset* empty = set_of(DPSVR_V4_VOIP);
    EXPECT_EQ(dpsvr_send_query(query, sizeof query, empty, set), 1); // the active server only
    EXPECT_EQ(dpsvr_send_query(query, sizeof query, empty, nullptr), 0);
    EXPECT_EQ(got(), 100);
    EXPECT_EQ(send(0), 3); // everyone
    EXPECT_EQ(got(), 111);
    // Policy 2: everyone until the primary answers NOERROR, then the primary alone.
    dpsvr_mark_first_dns_query();
    dpsvr_set_primary_dns_status(set->servers[0].addr, 1);
    EXPECT_EQ(send(2), 3); // the first query goes wide
    dpsvr_mark_first_dns_query();
    EXPECT_EQ(send(2), 1);
    dpsvr_set_primary_dns_status(set->servers[0].addr, 0); // SERVFAIL from the primary
    EXPECT_EQ(send(2), 3);
    set->policy = 0;
    dpcfg_apply_feature_mask(DPCFG_FEAT_NAME_FILTER_FORWARD);
    EXPECT_EQ(dpsvr_send_query(query, sizeof query, empty, set), 0);
}

} // namespace
