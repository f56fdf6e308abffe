// The indexed tables answer exactly as the plain list walk does: the same random operations on
// an indexed list (D2A) and on a list of the test's own (never indexed) give the same entries.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "cache/dpcache.h"
#include "config/dpcfg.h"
#include "test_support.h"

namespace {

std::string describe(const cache_entry* e) {
    return e == nullptr ? "-" : std::string(e->name) + "=" + e->val + "/" + std::to_string(e->type);
}

std::string dump(const cache_entry* list) {
    std::string out;
    for (const cache_entry* e = list; e != nullptr; e = e->next)
        out += describe(e) + " ";
    return out;
}

TEST(CacheIndex, SameAnswersAsTheListWalk) {
    DrivenClock clock(100);
    dpcache_purge_all();
    cache_entry* plain = nullptr;
    std::mt19937 rnd(7);
    const std::string gui = DPCFG_WEBGUI_HOST_NAME;
    // Few names and values, so that replacements, shared values and the web-GUI rule all occur.
    const std::string names[] = {
        "a.lan", "B.lan", "b.LAN", "c.lan", gui, "x." + gui, "GATEWAY.orvik-router.LAN", "printer"};
    const std::string vals[] = {"192.0.2.1", "192.0.2.2", "2001:db8::1", "192.0.2.1", "Printer"};
    auto pick = [&](auto& arr) { return arr[rnd() % std::size(arr)]; };
    for (int step = 0; step < 2000; ++step) {
        const std::string name = pick(names);
        const std::string val = pick(vals);
        const uint32_t type = 1 + rnd() % 3;
        switch (rnd() % 5) {
        case 0: // add, replacing as find_cache(key) says; some entries go stale
        case 1: {
            const uint32_t expiry = rnd() % 4 == 0 ? clock.get() + 1 : DPCACHE_NEVER_EXPIRES;
            ASSERT_EQ(add_cache(&dpcache_d2a_list, name.c_str(), type, val.c_str(), expiry),
                      add_cache(&plain, name.c_str(), type, val.c_str(), expiry));
            break;
        }
        case 2: // look-ups by name and by value, stale entries dropped by the one that finds them
            for (uint32_t qtype : {1u, 12u, 28u}) {
                char a[64] = "", b[64] = "";
                const char* key = qtype == 12 ? val.c_str() : name.c_str();
                ASSERT_EQ(dpcache_lookup_list(&dpcache_d2a_list, qtype, key, a, sizeof a),
                          dpcache_lookup_list(&plain, qtype, key, b, sizeof b));
                ASSERT_STREQ(a, b);
            }
            break;
        case 3: // every rule at once: key and value given
            ASSERT_EQ(describe(find_cache(dpcache_d2a_list, name.c_str(), type, val.c_str())),
                      describe(find_cache(plain, name.c_str(), type, val.c_str())));
            break;
        default:
            clock.advance(1);
            break;
        }
        ASSERT_EQ(dump(dpcache_d2a_list), dump(plain)) << step;
    }
    // Removing through the wrong list is refused; purging empties the index with the list.
    if (plain != nullptr) {
        EXPECT_EQ(remove_cache(&dpcache_d2a_list, plain), -1);
    }
    purge_cache_list(&plain);
    purge_cache_list(&dpcache_d2a_list);
    EXPECT_EQ(find_cache(dpcache_d2a_list, "a.lan", 2, nullptr), nullptr);
}

} // namespace
