// The local name tables: replacement, look-ups, the dynamic cache's eviction and count, and the
// table files with their reload.
#include <gtest/gtest.h>

#include <string>

#include "cache/dpcache.h"
#include "config/dpcfg.h"
#include "ctrl/dp_trace.h"
#include "test_support.h"

namespace {

constexpr uint32_t A = 1, PTR = 12, AAAA = 28, NEVER = DPCACHE_NEVER_EXPIRES;
cache_entry*& d2a = dpcache_d2a_list;
cache_entry*& dyn = dpcache_dyn_list;

std::string names(const cache_entry* list) {
    std::string out;
    for (const cache_entry* e = list; e != nullptr; e = e->next)
        out += std::string(e->name) + "=" + e->val + (e->next != nullptr ? " " : "");
    return out;
}
// "kind:answer" of a look-up in one list, or through the switches; "-" for none.
std::string resolve(uint32_t qtype, const char* key, cache_entry** list = nullptr) {
    char buf[64] = "";
    const int kind = list != nullptr ? dpcache_lookup_list(list, qtype, key, buf, sizeof buf)
                                     : dpcache_resolve_name_from_local(qtype, key, buf, sizeof buf);
    return kind == 0 ? "-" : std::to_string(kind) + ":" + buf;
}

class CacheTest : public ::testing::Test {
  protected:
    void SetUp() override { dpcache_purge_all(); }
    void TearDown() override {
        define_debug_mode(0);
        dpcache_purge_all();
        for (auto set : {dpcfg_set_d2a, dpcfg_set_d2d, dpcfg_set_local_hosts, dpcfg_set_dyn_cache})
            set(0);
    }
    void add_dyn(const std::string& name, uint32_t ttl, uint32_t qtype = A) {
        dpcache_add_dync_cache(qtype, name.c_str(), "192.0.2.9", ttl);
    }
    DrivenClock clock_{1000};
    TempRoot root_;
};

TEST_F(CacheTest, ListsReplaceByNameAndTypeAndAnswerByKind) {
    EXPECT_EQ(add_cache(&d2a, "nas.lan", 2, "192.0.2.1", NEVER), 1);
    EXPECT_EQ(add_cache(&d2a, "nas.lan", 3, "2001:db8::5", NEVER), 1);
    EXPECT_EQ(add_cache(&d2a, "NAS.lan", 2, "192.0.2.5", NEVER), 1);
    EXPECT_EQ(add_cache(&d2a, nullptr, 2, "x", 0) * 10 + add_cache(&d2a, "x", 2, "", 0), -12);
    // PTR answers by IPv4 value only; A and AAAA by name, any letter case.
    EXPECT_EQ(resolve(PTR, "192.0.2.5", &d2a) + resolve(PTR, "2001:db8::5", &d2a), "3:NAS.lan-");
    EXPECT_EQ(resolve(AAAA, "nas.LAN", &d2a) + resolve(15, "nas.lan", &d2a), "2:2001:db8::5-");
    char small[4]; // answers are cut to the buffer
    EXPECT_EQ(dpcache_lookup_list(&d2a, A, "nas.lan", small, sizeof small), 1);
    EXPECT_STREQ(small, "192");
    // The web-GUI entry answers every name that contains its name, so a sub-name replaces it.
    const std::string webgui = DPCFG_WEBGUI_HOST_NAME;
    add_cache(&d2a, webgui.c_str(), 2, "192.0.2.1", NEVER);
    EXPECT_EQ(resolve(A, "www.GATEWAY.ORVIK-router.lan.example", &d2a), "1:192.0.2.1");
    EXPECT_EQ(resolve(AAAA, "gateway.orvik-router.lan", &d2a) + resolve(A, "x.nas.lan", &d2a),
              "--");
    add_cache(&d2a, "a.gateway.orvik-router.lan", 2, "192.0.2.3", 0);
    EXPECT_EQ(names(d2a), "a.gateway.orvik-router.lan=192.0.2.3 NAS.lan=192.0.2.5 "
                          "nas.lan=2001:db8::5");
    // D2D rewrites A and AAAA queries only, and never expires.
    add_cache(&dpcache_d2d_list, "old.example", 1, "new.example", NEVER);
    clock_.advance(1000000);
    char out[8] = "junk";
    EXPECT_EQ(dpcache_find_d2d_name(A, "OLD.example", out, sizeof out), 1);
    EXPECT_STREQ(out, "new.exa");
    EXPECT_EQ(dpcache_find_d2d_name(PTR, "old.example", out, sizeof out), -2);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(dpcache_find_d2d_name(A, "", out, sizeof out) * 10 +
                  dpcache_find_d2d_name(AAAA, "other.example", out, sizeof out),
              -13);
}

TEST_F(CacheTest, DynamicCacheExpiryEvictionAndCount) {
    // A stale entry is dropped by the look-up that finds it, but stays counted.
    add_dyn("a.example", 10);
    clock_.advance(9);
    EXPECT_EQ(resolve(A, "a.example", &dyn), "1:192.0.2.9");
    clock_.advance(1);
    EXPECT_EQ(resolve(A, "a.example", &dyn), "-");
    EXPECT_EQ(dyn, nullptr);
    EXPECT_EQ(dpcache_dyn_count, 1u);
    // Full with nothing stale: the newest entry makes room.
    dpcache_purge_all();
    for (int i = 0; i < 50; ++i)
        add_dyn("n" + std::to_string(i), i % 10 == 0 ? 5 : 100);
    add_dyn("fresh", 100);
    EXPECT_EQ(dpcache_dyn_count, 50u);
    EXPECT_EQ(std::string(dyn->name) + " " + dyn->next->name, "fresh n48");
    // Full with stale entries: all of them go, and only they.
    clock_.advance(5);
    dp_debug_tbl.timestamp = 0;
    dp_debug_tbl.modules[DP_MOD_CACHE].level_mask = DP_DETAIL;
    StderrCapture err;
    add_dyn("later", 100);
    EXPECT_NE(err.text().find("delete 5 expired dyn cache record\n"), std::string::npos);
    EXPECT_EQ(dpcache_dyn_count, 46u);
    EXPECT_EQ(find_cache(dyn, "n10", 2, nullptr), nullptr);
    EXPECT_NE(find_cache(dyn, "n47", 2, nullptr), nullptr);
    // A replaced entry is counted again; TTL 0 and PTR are not stored.
    dpcache_purge_all();
    for (auto [type, ttl] : {std::pair{A, 100}, {A, 100}, {AAAA, 100}, {A, 0}, {PTR, 100}})
        add_dyn("same", ttl, type);
    EXPECT_EQ(dpcache_dyn_count, 3u);
    EXPECT_EQ(names(dyn), "same=192.0.2.9 same=192.0.2.9");
}

TEST_F(CacheTest, TableFilesAndTheirReload) {
    root_.write("/etc/dns_d2a.conf",
                "# address name\n2001:0DB8::00AB  nas.lan\n300.1.1.1 bad.lan\n"
                "192.0.2.10\tnas.lan alias\r\n192.0.2.11 nas.lan\n#192.0.2.1 x\n"
                "192.0.2.12 #y\nlonely\n\n192.0.2.13 last.lan");
    root_.write("/etc/dns_d2d.conf", "real.example  alias.example\n");
    root_.write("/var/hosts", "192.0.2.20 printer\n");
    // Each switch alone loads its own list only; the dynamic cache is always emptied.
    for (auto set : {dpcfg_set_d2a, dpcfg_set_d2d, dpcfg_set_local_hosts}) {
        add_dyn("dyn.example", 100);
        set(1);
        dpcache_reload_all();
        set(0);
        EXPECT_EQ(names(d2a) + "|" + names(dpcache_d2d_list) + "|" + names(dpcache_hosts_list),
                  set == dpcfg_set_d2a
                      ? "last.lan=192.0.2.13 nas.lan=192.0.2.11 nas.lan=2001:db8::ab||"
                  : set == dpcfg_set_d2d ? "|alias.example=real.example|"
                                         : "||printer=192.0.2.20");
        EXPECT_EQ(dyn, nullptr);
        EXPECT_EQ(dpcache_dyn_count, 0u);
    }
    EXPECT_EQ(dpcache_load_d2a_cache(), 4); // a replaced entry was an add too
}

} // namespace
