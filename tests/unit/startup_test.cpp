#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <regex>
#include <string>
#include <vector>

#include "config/dpcfg.h"
#include "ctrl/dp_trace.h"
#include "main/dputl.h"
#include "main/dpxy.h"
#include "main/dpxy_pcb.h"
#include "test_support.h"

namespace {

// Runs dpxy_get_input_parms on a command line given as words (argv[0] added).
int parse(std::initializer_list<const char*> words, dpxy_input_parms* parms) {
    std::vector<std::string> store{"dnsproxy"};
    store.insert(store.end(), words.begin(), words.end());
    std::vector<char*> argv;
    for (auto& s : store)
        argv.push_back(s.data());
    argv.push_back(nullptr);
    return dpxy_get_input_parms(static_cast<int>(store.size()), argv.data(), parms);
}

TEST(CommandLine, ValuesFlagsAndLeniency) {
    dpxy_input_parms p;
    const std::string path(300, 'p');
    ASSERT_EQ(parse({"-c", path.c_str(), "-D", "lan", "-v", "12", "-f", "1ff", "-p", "7", "-g",
                     "-q", "-P"},
                    &p),
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
    EXPECT_STREQ(p.config_file, "");
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
    EXPECT_EQ(dpcfg_get().is_d2a_feat_enabled, 1u);
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
    EXPECT_EQ(c.is_service_status_detect_feat_enabled, 1u);
    EXPECT_EQ(c.global_dns_server_set_policy, 2u);
    ASSERT_EQ(parse({"-p", "3"}, &p), 0);
    dpxy_apply_input_parms(&p);
    EXPECT_EQ(dpcfg_get().global_dns_server_set_policy, 0u);
}

TEST(InformationDump, DefaultClientInterfaceAndExactText) {
    TempRoot root;
    root.write("/etc/flipla.conf", "ClientInterfaceName=nosuchif0\n");
    dpcfg_init();
    dpxy_read_client_interface();
    DrivenClock clock(4242);
    StderrCapture err;
    dpxy_dump_info();
    char addr[64];
    std::snprintf(addr, sizeof addr, "0x%x\n  netmask = 0x%x", htonl(0xC0A801FE),
                  htonl(0xFFFFFF00));
    const std::string text = err.text();
    EXPECT_EQ(text.substr(0, text.find("\nproxy control block")),
              "\nDNSPROXY pid=" + std::to_string(getpid()) +
                  " currtime=4242\n\nclient interface information\n  v4addr  = " + addr +
                  "\n  v4ipstr = 192.168.1.254\n  v6ipstr = fe80::1\n");
    // The counts are whatever earlier tests of this process left.
    EXPECT_TRUE(std::regex_search(
        text, std::regex("\nproxy control block\\(size=" + std::to_string(sizeof(dpxy_pcb)) +
                         "\\) current count=[0-9]+ max=[0-9]+:1036\n")));
    EXPECT_NE(text.find("\nsocket information\n"), std::string::npos);
}

TEST(PidFile, AFailedWriteIsReported) {
    TempRoot bare; // no etc/ folder: the open fails
    define_debug_mode(0);
    StderrCapture err;
    EXPECT_EQ(save_pid(), -1);
    EXPECT_NE(
        err.text().find("failed to save dnsproxy pid to " + bare.dir() + "/etc/dnsproxy_pid\n"),
        std::string::npos);
}

int ticks = 0;

TEST(Tick, AtMostOncePerSecond) {
    static uint32_t base = 100000; // later than any tick an earlier test or repetition made
    base += 1000;
    DrivenClock clock(base);
    acb every_second{nullptr, nullptr, 0, 1, nullptr, nullptr, [](void*) { ++ticks; },
                     nullptr, 0,       0};
    dputl_start_action(&every_second, nullptr);
    clock.advance(1);
    ticks = 0;
    dpxy_tick();
    dpxy_tick();
    EXPECT_EQ(ticks, 1);
    clock.advance(1);
    dpxy_tick();
    EXPECT_EQ(ticks, 2);
    dputl_stop_action(&every_second);
}

} // namespace
