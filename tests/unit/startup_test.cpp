#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "config/dpcfg.h"
#include "ctrl/dp_trace.h"
#include "main/dputl.h"
#include "main/dpxy.h"
#include "test_support.h"

namespace {

// Runs dpxy_get_input_parms on a command line given as words (argv[0] added).
int parse(std::vector<std::string> words, dpxy_input_parms* parms) {
    words.insert(words.begin(), "dnsproxy");
    std::vector<char*> argv;
    for (auto& s : words)
        argv.push_back(s.data());
    argv.push_back(nullptr);
    return dpxy_get_input_parms(static_cast<int>(words.size()), argv.data(), parms);
}

TEST(CommandLine, ValuesFlagsAndLeniency) {
    dpxy_input_parms p;
    const std::string path(300, 'p');
    ASSERT_EQ(
        parse({"-c", path, "-D", "lan", "-v", "12", "-f", "1ff", "-p", "7", "-g", "-q", "-P"}, &p),
        0);
    EXPECT_EQ(p.flags, 0xFF);
    EXPECT_EQ(std::string(p.config_file), path.substr(0, 127));
    EXPECT_STREQ(p.domain_name, "lan");
    EXPECT_EQ(p.verbosity, 12);
    EXPECT_EQ(p.feature_mask, 0x1FFu);
    EXPECT_EQ(p.policy, 7u);
    // Unknown options and a missing argument are skipped.
    ASSERT_EQ(parse({"-x", "-g", "--bogus", "-c"}, &p), 0);
    EXPECT_EQ(p.flags, DPXY_OPT_GLOBAL_DNS);
    // Each option is traced; optopt is getopt's own, whatever an earlier parse left there.
    define_debug_level("proxy", "detail");
    StderrCapture err;
    parse({"-v", "2", "-g"}, &p);
    define_debug_mode(0);
    EXPECT_TRUE(std::regex_search(
        err.text(), std::regex("opt=v, optopt=[0-9]+ optarg=2, optind=3 argv\\[3\\]=-g\n.*"
                               "opt=g, optopt=[0-9]+ optarg=\\(null\\), optind=4 "
                               "argv\\[4\\]=\\(null\\)\n")))
        << err.text();
}

TEST(CommandLine, AppliedOverTheConfiguration) {
    TempRoot root;
    root.write("/etc/flipla.conf", "EnableD2AFeature=1\nEnableDynCacheFeature=1\n");
    root.write("/etc/mine.conf", "EnableD2DFeature=1\nEnableDynCacheFeature=1\n");
    dpcfg_init();
    dpxy_input_parms p;
    ASSERT_EQ(
        parse({"-c", "/etc/mine.conf", "-f", "0", "-D", "example.lan", "-g", "-q", "-p", "2"}, &p),
        0);
    dpxy_apply_input_parms(&p);
    const auto& c = dpcfg_get();
    EXPECT_EQ(c.is_d2a_feat_enabled, 0u); // the named file is loaded from the defaults
    EXPECT_EQ(c.is_d2d_feat_enabled, 1u);
    EXPECT_EQ(c.is_dyn_cache_feat_enabled, 1u); // -f 0 clears nothing
    EXPECT_STREQ(c.config_file, "/etc/mine.conf");
    EXPECT_STREQ(c.domain_name, "example.lan");
    EXPECT_EQ(c.is_using_global_dns_servers, 1u);
    EXPECT_EQ(c.global_dns_server_set_policy, 2u);
    ASSERT_EQ(parse({"-p", "3"}, &p), 0);
    dpxy_apply_input_parms(&p);
    EXPECT_EQ(dpcfg_get().global_dns_server_set_policy, 0u);
}

TEST(Tick, AtMostOncePerSecond) {
    DrivenClock clock(100000);
    static int ticks;
    ticks = 0;
    acb every_second{};
    every_second.period = 1;
    every_second.periodic_cb = [](void*) { ++ticks; };
    dputl_start_action(&every_second, nullptr);
    clock.advance(1);
    dpxy_tick();
    dpxy_tick();
    EXPECT_EQ(ticks, 1);
    clock.advance(1);
    dpxy_tick();
    EXPECT_EQ(ticks, 2);
    dputl_stop_action(&every_second);
}

} // namespace
