// The name filter's index gives the answers of the list walk: generated filters and names, the
// masks computed once through the index (traces off) and once by the walk (traces on).
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "ctrl/dp_trace.h"
#include "server/dpsvr.h"
#include "test_support.h"

namespace {

TEST(ClassifyIndex, SameAnswersAsTheListWalk) {
    TempRoot root;
    std::mt19937 rnd(11);
    // A small alphabet, so that patterns occur inside names, at both ends, and more than once.
    auto word = [&](int max) {
        std::string w;
        for (int n = 1 + static_cast<int>(rnd() % max); n > 0; --n)
            w += "ab.B"[rnd() % 4];
        return w;
    };
    const char* services[] = {"INTERNET", "VOIP", "OTHER", "TR069", "VOIP_OTHER"};
    std::string file;
    for (int i = 0; i < 300; ++i)
        file += word(6) + " " + std::to_string(rnd() % 4) + " " + services[rnd() % 5] + "\n";
    root.write("/etc/dns_prefix.conf", file);
    ASSERT_GT(dpsvr_load_name_filter_db(), 250);
    const uint8_t client[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 192, 0, 2, 10};
    for (int i = 0; i < 1500; ++i) {
        const std::string name = word(9);
        uint16_t m1 = 0, m2 = 0, m3 = 0, m4 = 0;
        const int r1 = get_service_mask_without_ipaddr(name.c_str(), &m1);
        const int r3 = get_service_mask(client, name.c_str(), &m3);
        dp_debug_tbl.modules[DP_MOD_SERVER].level_mask = DP_DETAIL; // the walk, traced
        {
            StderrCapture quiet;
            EXPECT_EQ(get_service_mask_without_ipaddr(name.c_str(), &m2), r1) << name;
            EXPECT_EQ(get_service_mask(client, name.c_str(), &m4), r3) << name;
        }
        dp_debug_tbl.modules[DP_MOD_SERVER].level_mask = DP_ERROR;
        ASSERT_EQ(m1, m2) << name;
        ASSERT_EQ(m3, m4) << name;
    }
    dpsvr_purge_name_filter_db();
}

} // namespace
