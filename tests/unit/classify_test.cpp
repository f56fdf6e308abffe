#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "config/dpcfg.h"
#include "ctrl/dp_service.h"
#include "ctrl/dp_trace.h"
#include "server/dpsvr.h"
#include "test_support.h"

namespace {

std::string hex(const std::string& s) {
    std::string out;
    for (unsigned char c : s)
        out += {"0123456789ABCDEF"[c >> 4], "0123456789ABCDEF"[c & 15]};
    return out;
}
uint32_t ip(const char* text) {
    in_addr a{};
    inet_pton(AF_INET, text, &a);
    return ntohl(a.s_addr);
}
dpsvr_lease_record lease(const char* addr, const std::string& vci, uint32_t expires = 86400) {
    dpsvr_lease_record r{};
    const uint8_t chaddr[6] = {0x02, 0x00, 0x5E, 0x00, 0x00, 0xAB};
    std::memcpy(r.chaddr, chaddr, sizeof chaddr);
    r.yiaddr = htonl(ip(addr));
    r.expires = htonl(expires);
    std::memcpy(r.vci, vci.data(), std::min(vci.size(), sizeof r.vci));
    return r;
}
int add(dpsvr_lease_record r, int (*op)(const dpsvr_lease_record*) = dpsvr_add_src_lease) {
    return op(&r);
}

class Classify : public ::testing::Test {
  protected:
    void SetUp() override {
        define_debug_mode(0);
        dpcfg_init();
        dpsvr_init_server_sets();
    }
    void TearDown() override {
        filters("");
        vcis("");
        dpsvr_purge_src_leases();
    }
    int filters(const std::string& text) {
        root.write("/etc/dns_prefix.conf", text);
        return dpsvr_load_name_filter_db();
    }
    int vcis(const std::string& text) {
        root.write("/etc/dhcp_condpool.conf", text);
        return dpsvr_load_vci_db();
    }
    TempRoot root;
};

TEST_F(Classify, Leases) {
    vcis(hex("VOIPBOX") + " 192.0.2.10 192.0.2.20 VOIP\n" + hex("VOIPBOX") +
         " 10.0.0.250 10.0.1.10 VOIP\n");
    EXPECT_EQ(add(lease("192.0.2.15", "VOIPBOX")), 1);
    EXPECT_EQ(add(lease("192.0.2.15", "VOIPBOX")), 2);
    // Another address in the /24 of a range's start is taken, above the end or below the start;
    // one inside the range but in another /24 is not; nor a class of another length, an unused
    // record, or one without a class or a MAC.
    const char* addrs[] = {"192.0.2.200", "10.0.0.3",   "10.0.1.5",  "192.0.2.16",
                           "192.0.2.16",  "192.0.2.16", "192.0.2.16"};
    const char* vci[] = {"VOIPBOX", "VOIPBOX", "VOIPBOX", "VOIPBO", "VOIPBOXX", "VOIPBOX", ""};
    const int want[] = {1, 1, -1, -1, -1, 0, 0};
    for (int i = 0; i < 7; ++i)
        EXPECT_EQ(add(lease(addrs[i], vci[i], i == 5 ? 0 : 1)), want[i]) << i;
    dpsvr_lease_record no_mac = lease("192.0.2.16", "VOIPBOX");
    std::memset(no_mac.chaddr, 0, sizeof no_mac.chaddr);
    EXPECT_EQ(add(no_mac), 0);
    EXPECT_EQ(dpsvr_src_lease_count(), 3u);
    EXPECT_EQ(add(lease("192.0.2.15", ""), dpsvr_delete_src_lease), 1);
    EXPECT_EQ(dpsvr_find_src_lease(ip("192.0.2.15")), nullptr);
}

// The lease file: a 20-byte header (tag, record size in host order), then whole records.
TEST_F(Classify, LeaseFile) {
    vcis(hex("PHONE") + " 192.0.2.1 192.0.2.9 VOIP\n");
    auto file = [](const char* tag, uint32_t size, std::vector<dpsvr_lease_record> recs) {
        std::string f(tag, std::strlen(tag));
        f.resize(16, '\0');
        f.append(reinterpret_cast<const char*>(&size), 4);
        for (const auto& r : recs) {
            std::string rec(reinterpret_cast<const char*>(&r), sizeof r);
            rec.resize(size, 'x');
            f += rec;
        }
        return f;
    };
    const auto two = std::vector{lease("192.0.2.20", "PHONE"), lease("192.0.2.21", "PHONE")};
    const std::tuple<std::string, int> cases[] = {
        {file("[LeaseFile_v2]", 128, two), 2},
        {file("[LeaseFile_v2]", 5000, two), 2}, // beyond 4096: taken, the file holds it
        {file("[LeaseFile_v2]", 112, two), 2},
        {file("[LeaseFile_v2]", 111, two), -3},
        {file("[LeaseFile_v2]", 9000, two).substr(0, 5000), -3}, // the file cannot hold one
        {file("[LeaseFile_v1]", 128, two), -3},
        {"[LeaseFile_v2]", -2},
        {file("[LeaseFile_v2]", 128, {}), 0}, // the header alone: no leases, no error
    };
    for (const auto& [text, want] : cases) {
        root.write("/configs/udhcpd.leases2", text);
        EXPECT_EQ(dpsvr_load_lease_file(), want) << text.size();
        EXPECT_EQ(dpsvr_src_lease_count(), want > 0 ? 2u : 0u);
        EXPECT_EQ(dpsvr_find_src_lease(ip("192.0.2.21")) != nullptr, want > 0);
    }
}

// The DHCP server's records as it writes them: the lease file's record size and the update's
// action in host order, the leased address and the expiry in network order.
TEST_F(Classify, LeaseFileAndLeaseUpdateBytes) {
    vcis(hex("VOIPBOX") + " 192.0.2.10 192.0.2.20 VOIP\n");
    // size bytes: the MAC at 0, the address 192.0.2.<host> at 16, the expiry at 20, the class
    // at 60.
    auto record = [](size_t size, char host) {
        std::string r(size, '\0');
        r.replace(0, 6, "\x02\x00\x5E\x00\x00\xAB", 6);
        r.replace(16, 8, std::string{'\xC0', 0, 2, host, 0, 1, 0x51, '\x80'});
        return r.replace(60, 7, "VOIPBOX");
    };
    const std::tuple<uint32_t, size_t, int> files[] = {
        {112, 112, 2}, {300, 300, 2}, {__builtin_bswap32(128), 128, -3}};
    for (const auto& [word, size, want] : files) {
        root.write("/configs/udhcpd.leases2",
                   field("[LeaseFile_v2]", 16) + h32({word}) + record(size, 15) + record(size, 16));
        EXPECT_EQ(dpsvr_load_lease_file(), want) << size;
    }
    EXPECT_EQ(dpsvr_src_lease_count(), 0u);
    // "dhcpLeaseInfoUpdate": the action, then the record, at an odd address as a bus buffer may
    // put it.
    for (const auto& [action, want] : {std::pair{0u, 1}, {0u, 2}, {1u, 1}, {1u, 0}}) {
        const std::string payload = "-" + h32({action}) + record(128, 15);
        EXPECT_EQ(dplog_process_dhcpd_lease_update(nullptr, nullptr, payload.data() + 1, 132),
                  want);
        if (want == 1 && action == 0) {
            const src_lease* l = dpsvr_find_src_lease(ip("192.0.2.15"));
            ASSERT_NE(l, nullptr);
            EXPECT_EQ(std::string(l->vci) + hex({reinterpret_cast<const char*>(l->chaddr), 6}),
                      "VOIPBOX02005E0000AB");
        }
    }
}

TEST_F(Classify, ServerSetSelection) {
    filters("voip.example 2 VOIP\niptv.exAmple 2 OTHER\nboth.example 2 OTHER\n"
            "both.example 2 VOIP\nacs.example 2 TR069\nmix.example 2 INTERNET,VOIP\n");
    vcis(hex("STB") + " 192.0.2.1 192.0.2.1 OTHER\n" + hex("PHONE") + " 192.0.2.1 0.0.0.0 VOIP\n" +
         hex("GW") + " 192.0.2.1 192.0.2.1 INTERNET+TR069\n");
    for (auto [addr, vci] :
         {std::pair{"192.0.2.20", "STB"}, {"192.0.2.21", "PHONE"}, {"192.0.2.23", "GW"}})
        ASSERT_EQ(add(lease(addr, vci)), 1);
    root.write("/configs/etc/filter_dns_resolv_ipv4.conf", "nameserver 192.0.2.53\n");
    dpsvr_load_v4_filter_dns_servers();
    // Feature-mask bits as they are, plus two of the test's own: global servers, a FILTER set.
    constexpr uint32_t VCI = DPCFG_FEAT_VCI_EXPLICIT_FORWARD, NFF = DPCFG_FEAT_NAME_FILTER_FORWARD,
                       FILTER = DPCFG_FEAT_DNS_FILTER, G = 0x10000, FS = 0x20000, GV = G | VCI;
    // Switches, request type, the client 192.0.2.<host>, name; result and the set (-1: none).
    const std::tuple<uint32_t, uint32_t, uint8_t, const char*, int, int> rows[] = {
        {GV, 1, 99, "voip.example", 3, DPSVR_V4_VOIP}, // no lease: voice allowed
        {GV, 1, 99, "iptv.example", -2, -1},
        {GV, 1, 99, "www.example", 1, DPSVR_V4_HSI},
        {GV, 1, 20, "www.example", -2, -1}, // the STB's service excludes the Internet
        {GV, 1, 20, "IPTV.example", 2, DPSVR_V4_IPTV},
        {GV, 1, 20, "voip.example", -2, -1},
        {GV, 1, 21, "both.example", 3, DPSVR_V4_VOIP}, // the walk goes on
        {GV, 1, 21, "iptv.example", -2, -1},
        {GV, 1, 23, "acs.example", 1, DPSVR_V4_HSI},
        {GV, 1, 23, "", 4, DPSVR_V4_GLOBAL},
        {FILTER | FS, 1, 99, "iptv.example", 8, DPSVR_V4_FILTER},
        {FILTER | FS | G, 2, 99, "iptv.example", 5, DPSVR_V6_GLOBAL},
        {FILTER, 1, 99, "iptv.example", 6, DPSVR_V4_SYSTEM}, // an empty FILTER set is passed over
        {G, 1, 99, "iptv.example", 4, DPSVR_V4_GLOBAL},
        {G | NFF, 1, 99, "", 4, DPSVR_V4_GLOBAL},
        {G | NFF, 1, 99, "iptv.example", 2, DPSVR_V4_IPTV},
        {G | NFF, 1, 99, "voip.example", 3, DPSVR_V4_VOIP},
        {G | NFF, 1, 99, "mix.example", 1, DPSVR_V4_HSI},
        {G | NFF, 1, 99, "www.example", 1, DPSVR_V4_HSI},
        {GV | NFF, 2, 99, "voip.example", 5, DPSVR_V6_GLOBAL},
        {0, 1, 99, "voip.example", 6, DPSVR_V4_SYSTEM},
        {0, 2, 99, "voip.example", 7, DPSVR_V6_SYSTEM},
        {G, 0, 99, "voip.example", -5, -1}};
    for (const auto& [flags, type, host, name, ret, want] : rows) {
        dpcfg_init();
        dpsvr_get_server_set(DPSVR_V4_FILTER)->num = (flags & FS) != 0;
        dpcfg_set_using_global_dns_servers((flags & G) != 0);
        dpcfg_apply_feature_mask(flags & 0xFFFF);
        dpsvr_select_request req{
            type, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 192, 0, 2, host}, ""};
        std::snprintf(req.name, sizeof req.name, "%s", name);
        servset* set = dpsvr_get_server_set(0);
        EXPECT_EQ(select_server_set(&req, &set), ret) << flags << " " << name;
        EXPECT_EQ(set, want < 0 ? nullptr : dpsvr_get_server_set(static_cast<uint32_t>(want)));
    }
}

} // namespace
