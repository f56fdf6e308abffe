// The local name tables: replacement, look-ups and their gating, the dynamic cache's eviction
// and count, the table files and the dump.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "cache/dpcache.h"
#include "config/dpcfg.h"
#include "ctrl/dp_trace.h"
#include "test_support.h"

namespace {

constexpr uint32_t A = 1, PTR = 12, AAAA = 28;

std::string names(const cache_entry* list) {
    std::string out;
    for (const cache_entry* e = list; e != nullptr; e = e->next) {
        out += std::string(e->name) + "=" + e->val + (e->next != nullptr ? " " : "");
    }
    return out;
}

std::string lookup(cache_entry** list, uint32_t qtype, const char* key, int want) {
    char buf[64] = "untouched";
    EXPECT_EQ(dpcache_lookup_list(list, qtype, key, buf, sizeof buf), want) << key;
    return want == 0 ? "" : buf;
}

std::string resolve(uint32_t qtype, const char* key) {
    char buf[64] = "";
    const int kind = dpcache_resolve_name_from_local(qtype, key, buf, sizeof buf);
    return kind == 0 ? "-" : std::to_string(kind) + ":" + buf;
}

std::string hex(const void* p) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%p", p);
    return buf;
}

class CacheTest : public ::testing::Test {
  protected:
    void SetUp() override {
        define_debug_mode(0); // errors only: no cache trace
        dpcache_purge_all();
    }
    void TearDown() override {
        dpcache_purge_all();
        for (auto set : {dpcfg_set_d2a, dpcfg_set_d2d, dpcfg_set_local_hosts, dpcfg_set_dyn_cache})
            set(0);
        define_debug_mode(0);
    }
    // Cache traces on, at the detail and warn levels, without time stamps.
    static void trace_cache() {
        dp_debug_tbl.timestamp = 0;
        dp_debug_tbl.modules[DP_MOD_CACHE].level_mask = DP_DETAIL | DP_WARN;
    }
    void add_dyn(const std::string& name, uint32_t ttl, uint32_t qtype = A) {
        dpcache_add_dync_cache(qtype, name.c_str(), "192.0.2.9", ttl);
    }
    DrivenClock clock_{1000};
    TempRoot root_;
};

TEST_F(CacheTest, AddReplacesSameNameAndTypeOnly) {
    EXPECT_EQ(add_cache(&dpcache_d2a_list, "nas.lan", 2, "192.0.2.1", 0), 1);
    EXPECT_EQ(add_cache(&dpcache_d2a_list, "nas.lan", 3, "2001:db8::1", 0), 1);
    EXPECT_EQ(add_cache(&dpcache_d2a_list, "NAS.lan", 2, "192.0.2.2", 0), 1);
    EXPECT_EQ(names(dpcache_d2a_list), "NAS.lan=192.0.2.2 nas.lan=2001:db8::1");
    EXPECT_EQ(dpcache_d2a_list->next->prev, dpcache_d2a_list);
    EXPECT_EQ(add_cache(&dpcache_d2a_list, nullptr, 2, "x", 0), -1);
    EXPECT_EQ(add_cache(&dpcache_d2a_list, "x", 2, "", 0), -2);
    EXPECT_EQ(remove_cache(&dpcache_hosts_list, dpcache_d2a_list), -1); // not in that list
    EXPECT_EQ(remove_cache(&dpcache_d2a_list, dpcache_d2a_list), 1);
    EXPECT_EQ(names(dpcache_d2a_list), "nas.lan=2001:db8::1");
    EXPECT_EQ(dpcache_d2a_list->prev, nullptr);
}

TEST_F(CacheTest, PtrAnswersByIpv4ValueOnly) {
    dpcfg_set_d2a(1);
    add_cache(&dpcache_d2a_list, "nas.lan", 2, "192.0.2.5", DPCACHE_NEVER_EXPIRES);
    add_cache(&dpcache_d2a_list, "v6.lan", 3, "2001:db8::5", DPCACHE_NEVER_EXPIRES);
    EXPECT_EQ(resolve(PTR, "192.0.2.5"), "3:nas.lan");
    EXPECT_EQ(resolve(PTR, "2001:db8::5"), "-");
    EXPECT_EQ(resolve(AAAA, "V6.LAN"), "2:2001:db8::5");
    EXPECT_EQ(resolve(15, "nas.lan"), "-");
    // Answers are cut to the buffer; a zero-sized buffer still gets the kind.
    char small[4] = "xyz";
    EXPECT_EQ(dpcache_lookup_list(&dpcache_d2a_list, A, "nas.lan", small, sizeof small), 1);
    EXPECT_STREQ(small, "192");
    EXPECT_EQ(dpcache_lookup_list(&dpcache_d2a_list, A, "nas.lan", nullptr, 0), 1);
}

TEST_F(CacheTest, WebGuiEntryAnswersEveryNameContainingIt) {
    const std::string webgui = DPCFG_WEBGUI_HOST_NAME;
    add_cache(&dpcache_d2a_list, "gw.lan", 2, "192.0.2.2", DPCACHE_NEVER_EXPIRES);
    add_cache(&dpcache_d2a_list, webgui.c_str(), 2, "192.0.2.1", DPCACHE_NEVER_EXPIRES);
    const std::string sub = "www.GATEWAY.ORVIK-router.lan.example";
    EXPECT_EQ(lookup(&dpcache_d2a_list, A, sub.c_str(), 1), "192.0.2.1");
    EXPECT_EQ(lookup(&dpcache_d2a_list, AAAA, sub.c_str(), 0), "");
    EXPECT_EQ(lookup(&dpcache_d2a_list, A, "www.gw.lan", 0), ""); // no substring rule for others
    EXPECT_EQ(lookup(&dpcache_d2a_list, PTR, "192.0.2.1", 3), webgui);
    // So adding any such sub-name replaces the web-GUI entry itself.
    add_cache(&dpcache_d2a_list, "a.gateway.orvik-router.lan", 2, "192.0.2.3", 0);
    EXPECT_EQ(names(dpcache_d2a_list), "a.gateway.orvik-router.lan=192.0.2.3 gw.lan=192.0.2.2");
}

TEST_F(CacheTest, LocalResolutionOrderFollowsTheSwitches) {
    add_cache(&dpcache_d2a_list, "h.lan", 2, "192.0.2.1", DPCACHE_NEVER_EXPIRES);
    add_cache(&dpcache_hosts_list, "h.lan", 2, "192.0.2.2", DPCACHE_NEVER_EXPIRES);
    dpcache_add_dync_cache(A, "h.lan", "192.0.2.3", 60);
    EXPECT_EQ(resolve(A, "h.lan"), "-");
    dpcfg_set_dyn_cache(1);
    EXPECT_EQ(resolve(A, "h.lan"), "1:192.0.2.3");
    dpcfg_set_local_hosts(1);
    EXPECT_EQ(resolve(A, "h.lan"), "1:192.0.2.2");
    dpcfg_set_d2a(1);
    EXPECT_EQ(resolve(A, "h.lan"), "1:192.0.2.1");
    EXPECT_EQ(resolve(A, ""), "-");
    EXPECT_EQ(resolve(A, nullptr), "-");
}

TEST_F(CacheTest, D2dRewritesOnlyAddressQueries) {
    add_cache(&dpcache_d2d_list, "old.example", 1, "new.example", DPCACHE_NEVER_EXPIRES);
    char out[8] = "junk";
    EXPECT_EQ(dpcache_find_d2d_name(A, "OLD.example", out, sizeof out), 1);
    EXPECT_STREQ(out, "new.exa");
    EXPECT_EQ(dpcache_find_d2d_name(AAAA, "old.example", out, sizeof out), 1);
    EXPECT_EQ(dpcache_find_d2d_name(PTR, "old.example", out, sizeof out), -2);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(dpcache_find_d2d_name(A, "", out, sizeof out), -1);
    EXPECT_EQ(dpcache_find_d2d_name(A, "other.example", out, sizeof out), -3);
    clock_.advance(1000000); // a rewrite never expires
    EXPECT_EQ(dpcache_find_d2d_name(A, "old.example", out, sizeof out), 1);
}

TEST_F(CacheTest, StaleEntryIsDroppedByTheLookupButStillCounted) {
    add_dyn("a.example", 10);
    clock_.advance(9);
    EXPECT_EQ(lookup(&dpcache_dyn_list, A, "a.example", 1), "192.0.2.9");
    clock_.advance(1);
    EXPECT_EQ(lookup(&dpcache_dyn_list, A, "a.example", 0), "");
    EXPECT_EQ(dpcache_dyn_list, nullptr);
    EXPECT_EQ(dpcache_dyn_count, 1u);
}

TEST_F(CacheTest, FullCacheEvictsTheNewestWhenNothingIsStale) {
    for (int i = 0; i < 50; ++i)
        add_dyn("n" + std::to_string(i), 100);
    add_dyn("fresh", 100);
    EXPECT_EQ(dpcache_dyn_count, 50u);
    EXPECT_EQ(std::string(dpcache_dyn_list->name), "fresh");
    EXPECT_EQ(std::string(dpcache_dyn_list->next->name), "n48");
    EXPECT_EQ(find_cache(dpcache_dyn_list, "n49", 2, nullptr), nullptr);
    EXPECT_NE(find_cache(dpcache_dyn_list, "n0", 2, nullptr), nullptr);
}

TEST_F(CacheTest, FullCacheEvictsAllStaleEntriesFirst) {
    trace_cache();
    for (int i = 0; i < 50; ++i)
        add_dyn("n" + std::to_string(i), i % 10 == 0 ? 5 : 100);
    clock_.advance(5);
    StderrCapture err;
    add_dyn("fresh", 100);
    EXPECT_NE(err.text().find("delete 5 expired dyn cache record\n"), std::string::npos);
    EXPECT_EQ(dpcache_dyn_count, 46u);
    EXPECT_EQ(find_cache(dpcache_dyn_list, "n10", 2, nullptr), nullptr);
    EXPECT_NE(find_cache(dpcache_dyn_list, "n49", 2, nullptr), nullptr);
}

TEST_F(CacheTest, CountRunsAheadOfTheList) {
    add_dyn("same", 100);
    add_dyn("same", 100);
    add_dyn("same", 100, AAAA); // another type: a second entry
    add_dyn("bad", 0);          // not stored, not counted
    add_dyn("bad", 100, PTR);
    EXPECT_EQ(dpcache_dyn_count, 3u);
    EXPECT_EQ(names(dpcache_dyn_list), "same=192.0.2.9 same=192.0.2.9");
    for (int i = 0; i < 47; ++i)
        add_dyn("same", 100);
    add_dyn("other", 100); // full by count: evicts the head, then adds
    EXPECT_EQ(dpcache_dyn_count, 50u);
    EXPECT_EQ(names(dpcache_dyn_list), "other=192.0.2.9 same=192.0.2.9");
    // An empty list with a full count has nothing to evict and takes nothing more.
    dpcache_purge_all();
    add_dyn("x", 1);
    dpcache_dyn_count = 50;
    clock_.advance(1);
    lookup(&dpcache_dyn_list, A, "x", 0);
    add_dyn("y", 100);
    EXPECT_EQ(dpcache_dyn_list, nullptr);
    EXPECT_EQ(dpcache_dyn_count, 50u);
}

TEST_F(CacheTest, AddressFilesStoreCanonicalTextAndLastLineWins) {
    root_.write("/etc/dns_d2a.conf", "# address name\n"
                                     "2001:0DB8:0000::00AB  nas.lan\n"
                                     "192.0.2.10\tnas.lan alias ignored\r\n"
                                     "192.0.2.11 nas.lan\n"
                                     "::FFFF:192.0.2.1 mapped.lan\n"
                                     "192.000.2.1 octal.lan\n"
                                     "300.1.1.1 bad.lan\n"
                                     "192.0.2.12 #commented\n"
                                     "lonely\n"
                                     "\n"
                                     "192.0.2.13 last.lan");
    EXPECT_EQ(dpcache_load_d2a_cache(), 5);
    EXPECT_EQ(names(dpcache_d2a_list),
              "last.lan=192.0.2.13 mapped.lan=::ffff:192.0.2.1 nas.lan=192.0.2.11 "
              "nas.lan=2001:db8::ab");
    root_.write("/var/hosts", "192.0.2.20 printer\n");
    EXPECT_EQ(dpcache_load_hosts_cache(), 1);
    root_.write("/etc/dns_d2d.conf", "real.example  alias.example\nnot-validated x\n");
    EXPECT_EQ(dpcache_load_d2d_cache(), 2);
    EXPECT_EQ(names(dpcache_d2d_list), "x=not-validated alias.example=real.example");
    EXPECT_EQ(dpcache_d2d_list->type, 1u);
    // A missing file leaves the list empty.
    std::filesystem::remove(root_.dir() + "/etc/dns_d2a.conf");
    EXPECT_EQ(dpcache_load_d2a_cache(), 0);
    EXPECT_EQ(dpcache_d2a_list, nullptr);
}

TEST_F(CacheTest, GarbageLinesAreSkippedAlone) {
    const std::string pad(300, 'x');
    std::string file = "192.0.2.1 first.lan\n";
    file += "192.0.2.2 long.lan " + pad + " 192.0.2.66 smuggled.lan\n"; // rest is not a line
    file += "192.0.2.3 " + pad + "\n";                                  // name runs into the cut
    file += std::string("192.0.2.4 nul") + '\0' + "led.lan\n";
    file += std::string("\0\xff\x01", 3) + "\n";
    file += "192.0.2.5\n";
    file += "192.0.2.6 last.lan\n";
    root_.write("/etc/dns_d2a.conf", file);
    trace_cache();
    StderrCapture err;
    EXPECT_EQ(dpcache_load_d2a_cache(), 3);
    EXPECT_EQ(names(dpcache_d2a_list), "last.lan=192.0.2.6 long.lan=192.0.2.2 first.lan=192.0.2.1");
    const std::string text = err.text();
    EXPECT_NE(text.find("line 3 skipped: longer than 255 characters\n"), std::string::npos);
    EXPECT_NE(text.find("line 4 skipped: binary data\n"), std::string::npos);
    EXPECT_NE(text.find("line 5 skipped: binary data\n"), std::string::npos);
}

TEST_F(CacheTest, ReloadAllEmptiesTheCacheAndLoadsSwitchedListsInOrder) {
    root_.write("/etc/dns_d2a.conf", "192.0.2.1 a.lan\n");
    root_.write("/etc/dns_d2d.conf", "b.example a.example\n");
    root_.write("/var/hosts", "192.0.2.2 h.lan\n");
    // Each switch alone loads its own list only; the dynamic cache is always emptied.
    for (auto set : {dpcfg_set_d2a, dpcfg_set_d2d, dpcfg_set_local_hosts}) {
        add_dyn("dyn.example", 100);
        set(1);
        dpcache_reload_all();
        set(0);
        EXPECT_EQ(names(dpcache_d2a_list) + "|" + names(dpcache_d2d_list) + "|" +
                      names(dpcache_hosts_list),
                  set == dpcfg_set_d2a   ? "a.lan=192.0.2.1||"
                  : set == dpcfg_set_d2d ? "|a.example=b.example|"
                                         : "||h.lan=192.0.2.2");
        EXPECT_EQ(dpcache_dyn_list, nullptr);
        EXPECT_EQ(dpcache_dyn_count, 0u);
    }
    // All on: D2A, then D2D, then the hosts file, each dumped at the detail level.
    dpcfg_set_d2a(1);
    dpcfg_set_d2d(1);
    dpcfg_set_local_hosts(1);
    trace_cache();
    StderrCapture err;
    dpcache_reload_all();
    const std::string text = err.text();
    const size_t d2a = text.find("cache list of D2A\n");
    const size_t d2d = text.find("cache list of D2D\n");
    const size_t hosts = text.find("cache list of LocalHosts\n");
    ASSERT_NE(hosts, std::string::npos);
    EXPECT_LT(d2a, d2d);
    EXPECT_LT(d2d, hosts);
    EXPECT_NE(text.find("listhead=" + hex(dpcache_d2d_list) + " count=1\n"), std::string::npos);
}

TEST_F(CacheTest, DumpText) {
    add_cache(&dpcache_d2a_list, "a.lan", 2, "192.0.2.1", DPCACHE_NEVER_EXPIRES);
    add_cache(&dpcache_d2a_list, "b.lan", 3, "2001:db8::1", DPCACHE_NEVER_EXPIRES);
    dpcache_add_dync_cache(AAAA, "c.example", "2001:db8::2", 30);
    clock_.advance(4);
    StderrCapture err;
    dpcache_dump();
    const std::string eq(59, '='), dash(59, '-');
    const cache_entry* b = dpcache_d2a_list;
    const std::string expected =
        "\nDNS Cache(currtime=1004)\n" + eq + "\n" + "cache list of D2D is empty\n\n" +
        "cache list of D2A\n" + dash + "\n" + " 1 ID=" + hex(b) +
        ": type=3 expiry=-1 name=b.lan value=2001:db8::1\n" + " 2 ID=" + hex(b->next) +
        ": type=2 expiry=-1 name=a.lan value=192.0.2.1\n\n" +
        "cache list of LocalHosts is empty\n\n" + "cache list of DynamicCache\n" + dash + "\n" +
        " 1 ID=" + hex(dpcache_dyn_list) + ": type=3 expiry=26 name=c.example value=2001:db8::2\n" +
        eq + "\n";
    EXPECT_EQ(err.text(), expected);
}

} // namespace
