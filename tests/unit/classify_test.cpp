#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "config/dpcfg.h"
#include "ctrl/dp_trace.h"
#include "server/dpsvr.h"
#include "test_support.h"

namespace {

constexpr const char* kFilterFile = "/etc/dns_prefix.conf";
constexpr const char* kVciFile = "/etc/dhcp_condpool.conf";
constexpr const char* kLeaseFile = "/configs/udhcpd.leases2";

std::string hex(const std::string& s) {
    std::string out;
    char b[3];
    for (unsigned char c : s) {
        std::snprintf(b, sizeof b, "%02X", c);
        out += b;
    }
    return out;
}

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

uint32_t ip(const char* text) {
    in_addr a{};
    inet_pton(AF_INET, text, &a);
    return ntohl(a.s_addr);
}

dpsvr_lease_record lease(const char* addr, const std::string& vci, uint8_t mac = 0x10,
                         uint32_t expires = 86400) {
    dpsvr_lease_record r{};
    const uint8_t chaddr[6] = {0x02, 0x00, 0x5E, 0x00, 0x00, mac};
    std::memcpy(r.chaddr, chaddr, sizeof chaddr);
    r.yiaddr = htonl(ip(addr));
    r.expires = htonl(expires);
    std::memcpy(r.vci, vci.data(), std::min(vci.size(), sizeof r.vci));
    return r;
}

std::string lease_header(const std::string& tag, uint32_t size) {
    std::string h = tag;
    h.resize(16, '\0');
    return h.append(reinterpret_cast<const char*>(&size), 4);
}

// A record of the given size: the 128-byte layout, cut or padded with tail bytes.
std::string lease_bytes(const dpsvr_lease_record& r, size_t size, char tail = '\0') {
    std::string s(reinterpret_cast<const char*>(&r), std::min(size, sizeof r));
    s.resize(size, tail);
    return s;
}

class Classify : public ::testing::Test {
  protected:
    void SetUp() override {
        define_debug_mode(0);
        dpcfg_init();
        dpsvr_init_server_sets();
        empty_tables();
    }
    void TearDown() override {
        define_debug_mode(0);
        empty_tables();
    }
    void empty_tables() {
        filters("");
        vcis("");
        std::filesystem::remove(path(kLeaseFile));
        dpsvr_load_lease_file();
    }
    int filters(const std::string& text) {
        root.write(kFilterFile, text);
        return dpsvr_load_name_filter_db();
    }
    int vcis(const std::string& text) {
        root.write(kVciFile, text);
        return dpsvr_load_vci_db();
    }
    std::string path(const char* fixed) const { return root.dir() + fixed; }
    TempRoot root;
};

TEST_F(Classify, MatchModes) {
    struct {
        const char* entry;
        std::vector<std::string> hits, misses;
    } cases[] = {
        {"abc 0", {"abc.def"}, {"abc", "x.abc.def"}},
        {"abc 1", {"x.abc", "X.ABC"}, {"abc", "abc.abc", "x.abc.y"}}, // first occurrence only
        {"ABC 2", {"abc", "aBc"}, {"abcd", "xabc"}},
        {"abc 3", {}, {"abc", "x.abc", "abc.def"}},
        {"abc x", {"abc.def"}, {}}, // atoi: prefix
    };
    for (const auto& c : cases) {
        ASSERT_EQ(filters(std::string(c.entry) + " VOIP\n"), 1);
        for (const bool hit : {true, false}) {
            for (const std::string& name : hit ? c.hits : c.misses) {
                SCOPED_TRACE(std::string(c.entry) + " / " + name);
                uint16_t mask = 0;
                EXPECT_EQ(get_service_mask_without_ipaddr(name.c_str(), &mask), hit ? 1 : 2);
                EXPECT_EQ(mask, hit ? 0x2 : 0x1);
            }
        }
    }
}

TEST_F(Classify, NameFilterFileSkipsBadLinesOnly) {
    const std::string long_service(300, 'V');
    const std::string text = std::string("Ads.Example 0 VOIP extra\n\n") + "two 1\n" +
                             std::string("bin\0ary 1 VOIP\n", 15) + "x 1 " + long_service + "\n" +
                             "tv 2 other,TR069 " + std::string(300, '#') + "\n" +
                             "cdn x INTERNET_VOIP\r\n" + "acs 2 TR069" + std::string(130, 'z') +
                             "\n";
    define_debug_level("server", "detail");
    define_debug_level("server", "warn");
    StderrCapture err;
    EXPECT_EQ(filters(text), 4);
    EXPECT_EQ(dpsvr_purge_name_filter_db(), 4u);
    EXPECT_EQ(filters(text), 4);
    const std::string log = err.text();
    EXPECT_TRUE(has(log, "4 name filter are purged\n"));
    for (const char* want : {" line 3 skipped: missing fields\n", " line 4 skipped: binary data\n",
                             " line 5 skipped: longer than 255 characters\n"})
        EXPECT_TRUE(has(log, path(kFilterFile) + want)) << want;
    EXPECT_FALSE(has(log, " line 2 ")); // a blank line is no fault

    std::vector<std::string> got;
    for (const name_filter* e = dpsvr_name_filter_head(); e != nullptr; e = e->next)
        got.push_back(std::string(e->name) + "|" + std::to_string(e->matchMode) + "|" +
                      std::to_string(std::strlen(e->service)) + "|" + std::to_string(e->mask));
    EXPECT_EQ(got, (std::vector<std::string>{"ads.example|0|4|2", "tv|2|11|8", "cdn|0|13|3",
                                             "acs|2|127|8"}));
}

TEST_F(Classify, VciFileSkipsBadLinesOnly) {
    const std::string text = hex("PC") + " 192.0.2.10 192.0.2.99 INTERNET\n" +
                             "566F495 192.0.2.1 192.0.2.9 VOIP\n" // odd last digit
                             "zz41 192.0.2.1 192.0.2.9 VOIP\n" +
                             "4142 192.0.2.300 192.0.2.9 VOIP\n" + "4142 192.0.2.1 host VOIP\n" +
                             "4142 192.0.2.1 192.0.2.9\n" + std::string(600, '4') +
                             " 198.51.100.1 198.51.100.2 OTHER\n" + "41 192.0.2.1 192.0.2.2 " +
                             std::string(1100, 'O') + "\n";
    define_debug_level("server", "detail");
    StderrCapture err;
    EXPECT_EQ(vcis(text), 3);
    const std::string log = err.text();
    for (const char* want :
         {" line 3 skipped: bad vci\n", " line 4 skipped: bad start address\n",
          " line 5 skipped: bad end address\n", " line 6 skipped: missing fields\n",
          " line 8 skipped: longer than 1023 characters\n"})
        EXPECT_TRUE(has(log, path(kVciFile) + want)) << want;

    std::vector<std::string> got;
    for (const vci_entry* v = dpsvr_vci_head(); v != nullptr; v = v->next) {
        EXPECT_EQ(v->startAddr, ip(v->startStr));
        EXPECT_EQ(v->endAddr, ip(v->endStr));
        const std::string vci(reinterpret_cast<const char*>(v->vci), v->vciLen);
        got.push_back(vci.substr(0, 3) + "|" + std::to_string(v->vciLen) + "|" + v->startStr + "-" +
                      v->endStr + "|" + std::to_string(v->mask));
    }
    EXPECT_EQ(got, (std::vector<std::string>{"PC|2|192.0.2.10-192.0.2.99|1",
                                             "VoI|3|192.0.2.1-192.0.2.9|2",
                                             "DDD|256|198.51.100.1-198.51.100.2|4"}));
}

TEST_F(Classify, LeaseAddUpdateDelete) {
    vcis(hex("VOIPBOX") + " 192.0.2.10 192.0.2.20 VOIP\n" + hex("VOIPBOX") +
         " 10.0.0.250 10.0.1.10 VOIP\n");
    define_debug_level("server", "detail");
    StderrCapture err;
    auto add = [](const dpsvr_lease_record& r) { return dpsvr_add_src_lease(&r); };
    EXPECT_EQ(add(lease("192.0.2.15", "VOIPBOX")), 1);
    EXPECT_EQ(add(lease("192.0.2.15", "VOIPBOX", 0x77)), 2);
    EXPECT_EQ(add(lease("192.0.2.200", "VOIPBOX")), 1); // above the end, in the start's /24
    EXPECT_EQ(add(lease("10.0.0.3", "VOIPBOX")), 1);    // below the start, same /24
    EXPECT_EQ(add(lease("10.0.1.5", "VOIPBOX")), -1);   // inside the range, another /24
    EXPECT_EQ(add(lease("192.0.2.16", "VOIPBO")), -1);
    EXPECT_EQ(add(lease("192.0.2.16", "VOIPBOXX")), -1);
    EXPECT_EQ(add(lease("192.0.2.16", "VOIPBOX", 0x10, 0)), 0); // unused
    EXPECT_EQ(add(lease("192.0.2.16", "")), 0);
    dpsvr_lease_record no_mac = lease("192.0.2.16", "VOIPBOX");
    std::memset(no_mac.chaddr, 0, sizeof no_mac.chaddr);
    EXPECT_EQ(add(no_mac), 0);
    EXPECT_EQ(dpsvr_src_lease_count(), 3u);
    const src_lease* l = dpsvr_find_src_lease(ip("192.0.2.15"));
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(l->chaddr[5], 0x77);
    EXPECT_STREQ(l->vci, "VOIPBOX");
    EXPECT_EQ(l->vciLen, 7u);

    const dpsvr_lease_record gone = lease("192.0.2.15", "");
    EXPECT_EQ(dpsvr_delete_src_lease(&gone), 1);
    EXPECT_EQ(dpsvr_delete_src_lease(&gone), 0);
    EXPECT_EQ(dpsvr_find_src_lease(ip("192.0.2.15")), nullptr);
    for (const char* want :
         {"hash=15 yiaddr=0xC000020F new\n", "hash=15 yiaddr=0xC000020F updated\n",
          "hash=15 yiaddr=0xC000020F deleted\n",
          "start=C000020A end=C0000214 vci=VOIPBOX yiaddr=C000020F "
          "vci1=VOIPBOX dhcplease size 128\n"})
        EXPECT_TRUE(has(err.text(), want)) << want;
}

TEST_F(Classify, LeaseFileHeaderIsChecked) {
    const std::string rec = lease_bytes(lease("192.0.2.15", "PHONE"), 128);
    struct {
        std::string file;
        int ret;
        const char* trace;
    } cases[] = {
        {"[LeaseFile", -2, "error 2, header string [LeaseFile, lease size 0."},
        {lease_header("[LeaseFile_v1]", 128) + rec, -3,
         "error 3, header string [LeaseFile_v1], lease size 128."},
        {lease_header("[LeaseFile_v2]x", 128) + rec, -3, "header string [LeaseFile_v2]x,"},
        {lease_header("[LeaseFile_v2]", 111) + rec, -3,
         "error 3, header string [LeaseFile_v2], lease size 111."},
        {lease_header("[LeaseFile_v2]", 4097) + rec, -3, "lease size 4097."}, // not held
        {lease_header("[LeaseFile_v2]", 0xFFFFFFFF) + rec, -3, "lease size -1."},
        {std::string(16, 'A') + rec, -3, "header string AAAAAAAAAAAAAAAA, lease size"},
    };
    vcis(hex("PHONE") + " 192.0.2.1 192.0.2.99 VOIP\n");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.trace);
        root.write(kLeaseFile, c.file);
        StderrCapture err;
        EXPECT_EQ(dpsvr_load_lease_file(), c.ret);
        const std::string log = err.text();
        EXPECT_TRUE(has(log, "parse DHCP Leaes file error ") && has(log, c.trace)) << log;
        EXPECT_EQ(dpsvr_src_lease_count(), 0u);
    }
}

TEST_F(Classify, LeaseFileRecords) {
    const std::string long_vci(68, 'L'); // fills the field: no terminator in a 128-byte record
    vcis(hex("PHONE") + " 192.0.2.1 192.0.2.9 VOIP\n" + hex(long_vci) +
         " 192.0.2.1 192.0.2.2 OTHER\n" + hex(long_vci.substr(0, 52)) +
         " 192.0.2.1 192.0.2.2 OTHER\n");
    struct {
        uint32_t size;
        char tail;
        const char* addr;
        std::string vci;
    } cases[] = {
        {128, '\0', "192.0.2.20", "PHONE"},
        {128, '\0', "192.0.2.21", long_vci},
        {112, '\0', "192.0.2.22", long_vci}, // a short record ends the text at its own end
        {400, 'x', "192.0.2.23", "PHONE"},
        {5000, 'x', "192.0.2.24", "PHONE"}, // above 4096: taken because the file holds it
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        const std::string good = lease_bytes(lease(c.addr, c.vci), c.size, c.tail);
        const std::string unused = lease_bytes(lease("192.0.2.30", "PHONE", 1, 0), c.size);
        root.write(kLeaseFile, lease_header("[LeaseFile_v2]", c.size) + unused + good +
                                   good.substr(0, c.size - 1)); // the last record is cut short
        EXPECT_EQ(dpsvr_load_lease_file(), 1);
        EXPECT_EQ(dpsvr_src_lease_count(), 1u);
        const src_lease* l = dpsvr_find_src_lease(ip(c.addr));
        ASSERT_NE(l, nullptr);
        EXPECT_EQ(std::string(l->vci), c.size < 128 ? c.vci.substr(0, 52) : c.vci);
    }
    // The header alone is an empty lease file, not a broken one.
    root.write(kLeaseFile, lease_header("[LeaseFile_v2]", 128));
    StderrCapture err;
    EXPECT_EQ(dpsvr_load_lease_file(), 0);
    EXPECT_EQ(err.text(), "");
    std::filesystem::remove(path(kLeaseFile));
    EXPECT_EQ(dpsvr_load_lease_file(), 0);
    EXPECT_EQ(dpsvr_src_lease_count(), 0u);
}

TEST_F(Classify, ReloadDropsLeasesThatNoLongerMatch) {
    const std::string phone = hex("PHONE") + " 192.0.2.1 192.0.2.9 VOIP\n";
    vcis(phone + hex("STB") + " 192.0.2.1 192.0.2.9 OTHER\n");
    root.write(kLeaseFile, lease_header("[LeaseFile_v2]", 128) +
                               lease_bytes(lease("192.0.2.20", "PHONE"), 128) +
                               lease_bytes(lease("192.0.2.21", "STB"), 128));
    EXPECT_EQ(dpsvr_reload_vci_and_leases(), 2);
    root.write(kVciFile, phone);
    EXPECT_EQ(dpsvr_reload_vci_and_leases(), 1);
    EXPECT_NE(dpsvr_find_src_lease(ip("192.0.2.20")), nullptr);
    EXPECT_EQ(dpsvr_find_src_lease(ip("192.0.2.21")), nullptr);
}

TEST_F(Classify, VciExplicitForwarding) {
    filters("voip.example 2 VOIP\niptv.example 2 OTHER\nboth.example 2 OTHER\n"
            "both.example 2 VOIP\nacs.example 2 TR069\n");
    vcis(hex("STB") + " 192.0.2.1 192.0.2.1 OTHER\n" + hex("PHONE") + " 192.0.2.1 0.0.0.0 VOIP\n" +
         hex("GW") + " 192.0.2.1 192.0.2.1 INTERNET+TR069\n");
    for (auto [addr, vci] :
         {std::pair{"192.0.2.20", "STB"}, {"192.0.2.21", "PHONE"}, {"192.0.2.23", "GW"}}) {
        const dpsvr_lease_record r = lease(addr, vci);
        ASSERT_EQ(dpsvr_add_src_lease(&r), 1);
    }
    dpcfg_set_using_global_dns_servers(1);
    dpcfg_apply_feature_mask(DPCFG_FEAT_VCI_EXPLICIT_FORWARD);
    struct {
        uint8_t host;
        const char* name;
        int ret;
        servset* set;
    } cases[] = {
        {99, "voip.example", 3, dpsvr_get_server_set(DPSVR_V4_VOIP)}, // no lease: voice allowed
        {99, "iptv.example", -2, nullptr},
        {99, "www.example", 1, dpsvr_get_server_set(DPSVR_V4_HSI)},
        {20, "www.example", -2, nullptr}, // the STB's service excludes the Internet
        {20, "IPTV.example", 2, dpsvr_get_server_set(DPSVR_V4_IPTV)},
        {20, "voip.example", -2, nullptr},
        {21, "both.example", 3, dpsvr_get_server_set(DPSVR_V4_VOIP)}, // the walk goes on
        {21, "iptv.example", -2, nullptr},
        {23, "acs.example", 1, dpsvr_get_server_set(DPSVR_V4_HSI)},
        {23, "", 4, dpsvr_get_server_set(DPSVR_V4_GLOBAL)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.host) + " " + c.name);
        dpsvr_select_request req{
            0, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 192, 0, 2, c.host}, ""};
        std::snprintf(req.name, sizeof req.name, "%s", c.name);
        servset* set = dpsvr_get_server_set(0);
        servset* dflt = nullptr;
        EXPECT_EQ(dpsvr_select_v4_server_sets(&req, &set, &dflt), c.ret);
        EXPECT_EQ(set, c.set);
        EXPECT_EQ(dflt, dpsvr_get_server_set(DPSVR_V4_SYSTEM));
        EXPECT_EQ(req.type, 1u);
    }
}

TEST_F(Classify, SelectServerSetRows) {
    filters("voip.example 2 VOIP\niptv.example 2 OTHER\nboth.example 2 INTERNET,VOIP\n");
    // Feature-mask bits as they are, plus two of the test's own.
    constexpr uint32_t VCI = DPCFG_FEAT_VCI_EXPLICIT_FORWARD, NFF = DPCFG_FEAT_NAME_FILTER_FORWARD,
                       FILTER = DPCFG_FEAT_DNS_FILTER, G = 0x10000, FILTER_SET = 0x20000;
    struct {
        uint32_t flags, type;
        const char* name;
        int ret;
        int set; // -1: none
    } rows[] = {
        {FILTER | FILTER_SET, 1, "iptv.example", 8, DPSVR_V4_FILTER},
        {FILTER | FILTER_SET | G, 2, "iptv.example", 5, DPSVR_V6_GLOBAL},
        {FILTER, 1, "iptv.example", 6, DPSVR_V4_SYSTEM}, // an empty FILTER set is passed over
        {G | VCI, 1, "", 4, DPSVR_V4_GLOBAL},            // more VCI rows: VciExplicitForwarding
        {G, 1, "iptv.example", 4, DPSVR_V4_GLOBAL},
        {G | NFF, 1, "", 4, DPSVR_V4_GLOBAL},
        {G | NFF, 1, "iptv.example", 2, DPSVR_V4_IPTV},
        {G | NFF, 1, "voip.example", 3, DPSVR_V4_VOIP},
        {G | NFF, 1, "both.example", 1, DPSVR_V4_HSI},
        {G | NFF, 1, "www.example", 1, DPSVR_V4_HSI},
        {G | VCI | NFF, 2, "voip.example", 5, DPSVR_V6_GLOBAL},
        {0, 1, "voip.example", 6, DPSVR_V4_SYSTEM},
        {0, 2, "voip.example", 7, DPSVR_V6_SYSTEM},
        {G, 0, "voip.example", -5, -1}};
    root.write("/configs/etc/filter_dns_resolv_ipv4.conf", "nameserver 192.0.2.53\n");
    for (const auto& r : rows) {
        SCOPED_TRACE(std::to_string(r.flags) + " " + std::to_string(r.type) + " " + r.name);
        dpcfg_init();
        dpsvr_init_server_sets();
        if (r.flags & FILTER_SET) dpsvr_load_v4_filter_dns_servers();
        dpcfg_set_using_global_dns_servers((r.flags & G) != 0);
        dpcfg_apply_feature_mask(r.flags & 0xFFFF);
        dpsvr_select_request req{r.type, {}, ""};
        std::snprintf(req.name, sizeof req.name, "%s", r.name);
        servset* set = reinterpret_cast<servset*>(&req);
        EXPECT_EQ(select_server_set(&req, &set), r.ret);
        EXPECT_EQ(set, r.set < 0 ? nullptr : dpsvr_get_server_set(static_cast<uint32_t>(r.set)));
    }
}

TEST_F(Classify, DumpText) {
    filters("Voip.Example 1 VOIP\n");
    vcis(hex("ST\x01") + " 192.0.2.1 192.0.2.9 OTHER\n");
    const dpsvr_lease_record r = lease("192.0.2.5", "ST\x01", 0xAB);
    dpsvr_add_src_lease(&r);
    dpcfg_apply_feature_mask(DPCFG_FEAT_VCI_EXPLICIT_FORWARD);
    StderrCapture err;
    dpsvr_dump_filter();
    const std::string eq(59, '='), dash(59, '-');
    EXPECT_EQ(err.text(),
              "\nDNS Filter\n" + eq + "\nNameFilter DB VciExplicitForwardEnabld=1\n" + dash +
                  "\nmatch=1 name=voip.example         service=VOIP     mask=0x2\n"
                  "\nVci DB\n" +
                  dash +
                  "\nIPRANGE=192.0.2.1-192.0.2.9\t service=OTHER                mask=0x4 "
                  "L03:535401(ST.)\n" +
                  eq + "\n\nSrcLease DB\n" + dash +
                  "\n  5: 192.0.2.5(C0000205) 02:00:5E:00:00:AB ST\x01\n" + eq + "\n");
}

} // namespace
