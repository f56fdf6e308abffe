#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>

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
    for (const char* w : words)
        store.emplace_back(w);
    std::vector<char*> argv;
    for (auto& s : store)
        argv.push_back(s.data());
    argv.push_back(nullptr);
    return dpxy_get_input_parms(static_cast<int>(store.size()), argv.data(), parms);
}

TEST(CommandLine, ValuesAndFlags) {
    dpxy_input_parms p;
    ASSERT_EQ(parse({"-c", "/etc/x.conf", "-D", "lan", "-v", "12", "-f", "1ff", "-p", "7", "-g",
                     "-q", "-P"},
                    &p),
              0);
    EXPECT_EQ(p.flags, 0xFF);
    EXPECT_STREQ(p.config_file, "/etc/x.conf");
    EXPECT_STREQ(p.domain_name, "lan");
    EXPECT_EQ(p.verbosity, 12);
    EXPECT_EQ(p.feature_mask, 0x1FFu);
    EXPECT_EQ(p.policy, 7u);
}

TEST(CommandLine, LenientAboutUnknownOptionsAndMissingArguments) {
    dpxy_input_parms p;
    ASSERT_EQ(parse({"-x", "-g", "--bogus", "-c"}, &p), 0);
    EXPECT_EQ(p.flags, DPXY_OPT_GLOBAL_DNS);
    EXPECT_STREQ(p.config_file, "");
}

TEST(CommandLine, TextArgumentsKeep127Characters) {
    const std::string path(300, 'p');
    dpxy_input_parms p;
    ASSERT_EQ(parse({"-c", path.c_str()}, &p), 0);
    EXPECT_EQ(std::string(p.config_file), path.substr(0, 127));
}

TEST(CommandLine, HelpPrintsUsageAndFails) {
    StderrCapture err;
    dpxy_input_parms p;
    EXPECT_EQ(parse({"-g", "-h", "-q"}, &p), -1);
    EXPECT_EQ(
        err.text(),
        "\nusage : dnsproxy [-c <configfile>] [-D domain] [-v <level>] [-h] [-P] [-g] [-q] [-f mask]\n"
        "\t-c <configfile> read configuration from <config-file>\n\t-D \t\tDomain Name\n"
        "\t-P \t\tprint configuration on stdout and exit.\n"
        "\t-v \t\tset verbosity, where level 0 is LOG_ERROR, 1 is LOG_NOTICE, 2 is LOG_DEBUG\n"
        "\t-g \t\tthe program will use global DNS server\n\t-q \t\tenable service status indication\n"
        "\t-f \t\tfeature mask\n\t-h \t\tthis message.\n");
}

TEST(CommandLine, EachOptionIsTraced) {
    define_debug_level("proxy", "detail");
    StderrCapture err;
    dpxy_input_parms p;
    parse({"-v", "2", "-g"}, &p);
    define_debug_mode(0);
    const std::string text = err.text();
    // optopt is getopt's own: whatever an earlier parse left there.
    EXPECT_TRUE(std::regex_search(
        text, std::regex("opt=v, optopt=[0-9]+ optarg=2, optind=3 argv\\[3\\]=-g\n")))
        << text;
    EXPECT_TRUE(std::regex_search(
        text,
        std::regex("opt=g, optopt=[0-9]+ optarg=\\(null\\), optind=4 argv\\[4\\]=\\(null\\)\n")))
        << text;
}

class ApplyOptions : public ::testing::Test {
  protected:
    void apply(std::initializer_list<const char*> words) {
        dpxy_input_parms p;
        ASSERT_EQ(parse(words, &p), 0);
        dpxy_apply_input_parms(&p);
    }
    TempRoot root;
};

TEST_F(ApplyOptions, PolicyAboveTwoStoresZero) {
    dpcfg_init();
    apply({"-p", "2"});
    EXPECT_EQ(dpcfg_get().global_dns_server_set_policy, 2u);
    apply({"-p", "7"});
    EXPECT_EQ(dpcfg_get().global_dns_server_set_policy, 0u);
}

TEST_F(ApplyOptions, NamedFileIsLoadedOverTheDefaultsAndMaskOnlyAdds) {
    root.write("/etc/flipla.conf", "EnableD2AFeature=1\nEnableDynCacheFeature=1\n");
    root.write("/etc/mine.conf", "EnableD2DFeature=1\nEnableDynCacheFeature=1\n");
    dpcfg_init();
    EXPECT_EQ(dpcfg_get().is_d2a_feat_enabled, 1u);
    apply({"-c", "/etc/mine.conf", "-f", "0", "-D", "example.lan", "-g", "-q"});
    const auto& c = dpcfg_get();
    EXPECT_EQ(c.is_d2a_feat_enabled, 0u); // the named file is loaded from the defaults
    EXPECT_EQ(c.is_d2d_feat_enabled, 1u);
    EXPECT_EQ(c.is_dyn_cache_feat_enabled, 1u); // -f 0 clears nothing
    EXPECT_STREQ(c.config_file, "/etc/mine.conf");
    EXPECT_STREQ(c.domain_name, "example.lan");
    EXPECT_EQ(c.is_using_global_dns_servers, 1u);
    EXPECT_EQ(c.is_service_status_detect_feat_enabled, 1u);
}

TEST_F(ApplyOptions, PrintConfigurationAfterEveryOtherOption) {
    dpcfg_init();
    StderrCapture err;
    apply({"-P", "-f", "80", "-D", "zz"});
    const std::string text = err.text();
    EXPECT_NE(text.find("is_edns_enabled                  = 1\n"), std::string::npos);
    EXPECT_NE(text.find("domain_name                      = zz\n"), std::string::npos);
}

TEST(ClientInterface, AddressesOrDefaults) {
    TempRoot root;
    root.write("/etc/flipla.conf", "ClientInterfaceName=lo\n");
    dpcfg_init();
    dpxy_read_client_interface();
    EXPECT_STREQ(dpxy_get_client_itf().v4ipstr, "127.0.0.1");
    EXPECT_EQ(dpxy_get_client_itf().netmask, htonl(0xFF000000));
    EXPECT_STREQ(dpxy_get_client_itf().v6ipstr, "fe80::1");

    root.write("/etc/flipla.conf", "ClientInterfaceName=nosuchif0\n");
    dpcfg_init();
    dpxy_read_client_interface();
    EXPECT_STREQ(dpxy_get_client_itf().v4ipstr, "192.168.1.254");
    EXPECT_EQ(dpxy_get_client_itf().v4addr, htonl(0xC0A801FE));
    EXPECT_EQ(dpxy_get_client_itf().netmask, htonl(0xFFFFFF00));
}

TEST(InformationDump, ExactText) {
    TempRoot root;
    root.write("/etc/flipla.conf", "ClientInterfaceName=nosuchif0\n");
    dpcfg_init();
    dpxy_read_client_interface();
    DrivenClock clock(4242);
    StderrCapture err;
    dpxy_dump_info();
    char addr[32];
    char mask[32];
    std::snprintf(addr, sizeof addr, "0x%x", htonl(0xC0A801FE));
    std::snprintf(mask, sizeof mask, "0x%x", htonl(0xFFFFFF00));
    const std::string text = err.text();
    EXPECT_EQ(text.substr(0, text.find("\nproxy control block")),
              "\nDNSPROXY pid=" + std::to_string(getpid()) + " currtime=4242\n" +
                  "\nclient interface information\n  v4addr  = " + addr + "\n  netmask = " + mask +
                  "\n  v4ipstr = 192.168.1.254\n  v6ipstr = fe80::1\n");
    // The counts are whatever earlier tests of this process left.
    EXPECT_TRUE(std::regex_search(text, std::regex("\nproxy control block\\(size=" + std::to_string(sizeof(dpxy_pcb)) +
                                                   "\\) current count=[0-9]+ max=[0-9]+:1036\n")));
    EXPECT_NE(text.find("\nsocket information\n"), std::string::npos);
}

TEST(PidFile, WrittenWithoutNewlineOrReported) {
    TempRoot root;
    root.write("/etc/.keep", "");
    EXPECT_EQ(save_pid(), 0);
    EXPECT_EQ(root.read("/etc/dnsproxy_pid"), std::to_string(getpid()));

    TempRoot bare; // no etc/ folder: the open fails
    define_debug_mode(0);
    StderrCapture err;
    EXPECT_EQ(save_pid(), -1);
    EXPECT_NE(
        err.text().find("failed to save dnsproxy pid to " + bare.dir() + "/etc/dnsproxy_pid\n"),
        std::string::npos);
}

int ticks = 0;
void count_tick(void*) {
    ++ticks;
}

TEST(Tick, AtMostOncePerSecond) {
    static uint32_t base = 100000; // later than any tick an earlier test or repetition made
    base += 1000;
    DrivenClock clock(base);
    acb every_second{nullptr, nullptr, 0, 1, nullptr, nullptr, count_tick, nullptr, 0, 0};
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

TEST(Signals, FaultSignalRestoresDefaultAndTerminationExits) {
    define_debug_mode(0);
    register_signal_handler();
    struct sigaction sa;
    sigaction(SIGFPE, nullptr, &sa);
    EXPECT_EQ(sa.sa_handler, handle_signal);
    handle_signal(SIGFPE);
    sigaction(SIGFPE, nullptr, &sa);
    EXPECT_EQ(sa.sa_handler, SIG_DFL);
    handle_signal(SIGUSR1); // ignored
    EXPECT_EXIT(handle_signal(SIGTERM), ::testing::ExitedWithCode(255), "signo=15");
    // Hand the fault signals back to the test runner.
    for (int s : {SIGTERM, SIGINT, SIGILL, SIGABRT, SIGSEGV})
        signal(s, SIG_DFL);
}

} // namespace
