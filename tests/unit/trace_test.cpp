#include <gtest/gtest.h>

#include <signal.h>

#include <cstring>
#include <regex>
#include <string>

#include "cache/dpcache.h"
#include "config/dpcfg.h"
#include "ctrl/dp_cliout.h"
#include "ctrl/dp_trace.h"
#include "endec/dpendec.h"
#include "platform/ombus/ombus.h"
#include "platform/rgw_impl/rgw_impl.h"
#include "server/dpsvr.h"
#include "test_support.h"

namespace {

uint32_t mask_of(dp_module_id m) {
    return dp_debug_tbl.modules[m].level_mask;
}

// Every module has the same mask.
void expect_all_masks(uint32_t mask) {
    for (uint32_t i = 0; i < DP_MOD_COUNT; ++i)
        EXPECT_EQ(dp_debug_tbl.modules[i].level_mask, mask) << i;
}

class Trace : public ::testing::Test {
  protected:
    void SetUp() override { define_debug_mode(0); }
    void TearDown() override { define_debug_mode(0); }
};

TEST_F(Trace, LineFormatWithoutTimeStamp) {
    define_debug_mode(0);
    StderrCapture err;
    const int line = __LINE__ + 1;
    DPCFG_TRACE(DP_ERROR, "value=%d text=%s\n", 42, "abc");
    EXPECT_EQ(err.text(), "DPCFG  TestBody:" + std::to_string(line) + " value=42 text=abc\n");
}

TEST_F(Trace, DisabledLineEvaluatesNothing) {
    define_debug_mode(0);
    int evaluated = 0;
    auto arg = [&] { return ++evaluated; };
    StderrCapture err;
    DPMAIN_TRACE(DP_DETAIL, "%d\n", arg());
    DPIO_TRACE(DP_ERROR, "%d\n", arg());
    EXPECT_EQ(evaluated, 1);
    EXPECT_NE(err.text().find("DPIO   TestBody:"), std::string::npos);
}

TEST_F(Trace, TimeStampIsPositionWithinTheHour) {
    char out[512];
    struct timeval before_hour {
        10 * 3600 + 59 * 60 + 59, 999999
    };
    dp_trace_build_format(out, sizeof out, "DPMAIN", "f", 7, "x=%d\n", &before_hour);
    EXPECT_STREQ(out, "DPMAIN f:7 t=3599:999 x=%d\n");
    struct timeval on_hour {
        11 * 3600, 0
    };
    dp_trace_build_format(out, sizeof out, "DPMAIN", "f", 7, "x=%d\n", &on_hour);
    EXPECT_STREQ(out, "DPMAIN f:7 t=0:0 x=%d\n");
}

TEST_F(Trace, LiveTimeStampAppearsWhenTheModeSetsIt) {
    define_debug_mode(2);
    StderrCapture err;
    DPSERV_TRACE(DP_WARN, "w\n");
    EXPECT_TRUE(
        std::regex_match(err.text(), std::regex("DPSERV TestBody:[0-9]+ t=[0-9]+:[0-9]+ w\n")))
        << err.text();
}

TEST_F(Trace, OverlongFormatIsCutOutsideAConversion) {
    char out[64];
    // The cut falls inside "%lu": the partial conversion must go, so vfprintf sees no "%l".
    const std::string fmt = std::string(38, 'a') + "%lu tail\n";
    dp_trace_build_format(out, sizeof out, "DPMAIN", "func", 12, fmt.c_str(), nullptr);
    EXPECT_EQ(std::string(out), "DPMAIN func:12 " + fmt); // 62 characters: fits
    const std::string longer = std::string(46, 'a') + "%lu tail\n";
    dp_trace_build_format(out, sizeof out, "DPMAIN", "func", 12, longer.c_str(), nullptr);
    EXPECT_EQ(std::string(out), "DPMAIN func:12 " + std::string(46, 'a'));
    const std::string escaped = std::string(47, 'a') + "%%x";
    dp_trace_build_format(out, sizeof out, "DPMAIN", "func", 12, escaped.c_str(), nullptr);
    EXPECT_EQ(std::string(out), "DPMAIN func:12 " + std::string(47, 'a'));
}

TEST_F(Trace, DebugLevelsAccumulateUntilNone) {
    define_debug_level("io", "func");
    define_debug_level("io", "pkt");
    EXPECT_EQ(mask_of(DP_MOD_IO), 0x19u); // error from mode 0, func, pkt
    define_debug_level("IO", "NONE");
    EXPECT_EQ(mask_of(DP_MOD_IO), 0u);
    define_debug_level("io", "func");
    define_debug_level("io", "pkt");
    EXPECT_EQ(mask_of(DP_MOD_IO), 0x18u);
    define_debug_level("Util", "all");
    EXPECT_EQ(mask_of(DP_MOD_UTIL), 0xFFFFFFFFu);
    EXPECT_EQ(mask_of(DP_MOD_PROXY), 0x01u);
}

TEST_F(Trace, UnknownWordsAreReportedAndChangeNothing) {
    StderrCapture err;
    EXPECT_EQ(define_debug_level("dns", "all"), 0);
    EXPECT_EQ(define_debug_level("cache", "verbose"), 0);
    EXPECT_EQ(err.text(), "define_debug_level unknown module name=dns\n"
                          "define_debug_level wrong debug level=verbose\n");
    expect_all_masks(0x01);
}

TEST_F(Trace, DebugModes) {
    struct {
        uint32_t mode;
        uint32_t mask;
        uint32_t ts;
    } cases[] = {
        {0, 0x01, 0},       {1, 0x00, 1},       {2, 0x13, 1}, {3, 0x17, 1},          {4, 0x1F, 1},
        {5, 0xFFFFFF7F, 1}, {6, 0xFFFFFFFF, 1}, {7, 0x01, 0}, {0xFFFFFFFF, 0x01, 0},
    };
    for (const auto& c : cases) {
        define_debug_mode(c.mode);
        expect_all_masks(c.mask);
        EXPECT_EQ(dp_debug_tbl.timestamp, c.ts) << c.mode;
    }
}

TEST_F(Trace, VerbosityEncoding) {
    struct {
        int v;
        int level;
        uint32_t mask; // 0x01 where the masks are left alone (they start at mode 0)
    } cases[] = {
        {0, 3, 0x01},  {1, 5, 0x01},        {2, 7, 0x01},  {8, 7, 0x01},  {9, 7, 0x00},
        {12, 7, 0x1F}, {14, 7, 0xFFFFFFFF}, {15, 7, 0x01}, {16, 7, 0x01},
    };
    for (const auto& c : cases) {
        define_debug_mode(0);
        dplog_apply_verbosity(c.v);
        EXPECT_EQ(dplog_cfg.log_level, c.level) << c.v;
        EXPECT_EQ(rgw_impl_get_log_level(), c.level) << c.v;
        EXPECT_EQ(rgw_impl_get_customer_log_level(), c.level) << c.v;
        expect_all_masks(c.mask);
    }
}

TEST_F(Trace, SetLogconfigDerivesTheDebugMode) {
    dplog_set_logconfig("notice", "serial");
    expect_all_masks(0x1F);
    EXPECT_EQ(dp_debug_tbl.timestamp, 1u);
    EXPECT_EQ(dplog_cfg.debug_mode, 4);
    EXPECT_EQ(rgw_impl_get_log_level(), 5);
    EXPECT_EQ(rgw_impl_get_log_destination(), 1);
    dplog_set_logconfig("ERROR", "telnet");
    expect_all_masks(0x01);
    EXPECT_EQ(dplog_cfg.log_level, 3);
    EXPECT_EQ(dplog_cfg.log_dest, 3);
}

TEST(LogConfigFile, ModeDecidesTimeStampsAtStartUp) {
    TempRoot root;
    root.write("/configs/kiv_dnsproxy_log_config",
               "log_level=6\nlog_dest=1\ndebug_mode=0\ntimestamp=1\n");
    dp_debug_init();
    EXPECT_EQ(dp_debug_tbl.timestamp, 0u);
    expect_all_masks(0x01);
    EXPECT_EQ(rgw_impl_get_log_level(), 6);
    EXPECT_EQ(rgw_impl_get_log_destination(), 1);

    root.write("/configs/kiv_dnsproxy_log_config", "debug_mode=3\n");
    dp_debug_init();
    EXPECT_EQ(dp_debug_tbl.timestamp, 1u);
    expect_all_masks(0x17);
    EXPECT_EQ(dplog_cfg.log_level, 3); // untouched keys keep the reset values
    define_debug_mode(0);
}

TEST(LogConfigFile, SaveDumpAndReset) {
    TempRoot root;
    root.write("/configs/.keep", "");
    dp_debug_init();
    dplog_set_logconfig("info", "syslog");
    dplog_save_logconfig();
    EXPECT_EQ(root.read("/configs/kiv_dnsproxy_log_config"),
              "log_level=6\nlog_dest=2\ndebug_mode=5\ntimestamp=1\n");
    {
        StderrCapture err;
        dplog_dump_logconfig();
        EXPECT_EQ(err.text(), "\nlog_level=6\nlog_dest=2\ndebug_mode=5\ntimestamp=1\n\n");
    }
    dplog_reset_logconfig();
    EXPECT_FALSE(root.exists("/configs/kiv_dnsproxy_log_config"));
    EXPECT_EQ(dplog_cfg.log_level, 3);
    EXPECT_EQ(dplog_cfg.log_dest, 2);
    EXPECT_EQ(dplog_cfg.debug_mode, 0);
    expect_all_masks(0x01);
}

TEST(LogConfigFile, GarbageFileLeavesDefaults) {
    TempRoot root;
    const char garbage[] = "debug_mode=six\n\x01\0debug_mode=3\nlog_level\n";
    root.write("/configs/kiv_dnsproxy_log_config", std::string(garbage, sizeof garbage - 1));
    dp_debug_init();
    EXPECT_EQ(dplog_cfg.debug_mode, 0);
    EXPECT_EQ(dplog_cfg.log_level, 3);
    expect_all_masks(0x01);
}

TEST(DebugView, ExactText) {
    define_debug_mode(0);
    define_debug_level("io", "pkt");
    define_debug_level("util", "period");
    dplog_cfg.log_level = 3;
    dplog_cfg.log_dest = 2;
    StderrCapture err;
    dplog_view_debug_setting();
    define_debug_mode(0);
    // Columns: error..endec six wide, io two wide, period six wide, each after one blank.
    auto row = [](const char* module, uint32_t mask) {
        constexpr int widths[8] = {6, 6, 6, 6, 6, 6, 2, 6};
        std::string r = std::string(module) + std::string(6 - std::strlen(module), ' ') + ":";
        for (int bit = 0; bit < 8; ++bit) {
            const std::string mark = (mask >> bit) & 1 ? "xx" : " ";
            r += " " + mark + std::string(widths[bit] - mark.size(), ' ');
        }
        return r + "\n";
    };
    const std::string eq(59, '=');
    EXPECT_EQ(err.text(), "\nDNS debug setting\n" + eq + "\n" +
                              "module: error  warn   detail func   pkt    endec  io period\n" +
                              std::string(59, '-') + "\n" + row("proxy", 0x01) + row("io", 0x11) +
                              row("endec", 0x01) + row("server", 0x01) + row("cache", 0x01) +
                              row("config", 0x01) + row("util", 0x81) + row("debug", 0x01) + eq +
                              "\nclilog: level=3 dest=2\n" + eq + "\n");
}

TEST(RedirectPrintf, MovesBothStreamsAndReportsFailures) {
    TempRoot root;
    const std::string target = root.dir() + "/out.txt";
    root.write("/out.txt", "");
    std::fflush(stdout);
    std::fflush(stderr);
    const int saved_out = dup(STDOUT_FILENO);
    const int saved_err = dup(STDERR_FILENO);
    dplog_redirect_printf(target.c_str());
    std::fputs("to stdout\n", stdout);
    std::fflush(stdout);
    dplog_redirect_printf("/nonexistent/dir/tty");
    std::fflush(stderr);
    dup2(saved_out, STDOUT_FILENO);
    dup2(saved_err, STDERR_FILENO);
    close(saved_out);
    close(saved_err);
    EXPECT_EQ(root.read("/out.txt"),
              "redirecting stdout and stderr to " + target +
                  "\nto stdout\n/nonexistent/dir/tty is invalid to redirect\n");
}

std::string read_to_end(int fd) {
    std::string got;
    char buf[65536];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0)
        got.append(buf, static_cast<size_t>(n));
    EXPECT_EQ(n, 0); // the end, not a pipe still open
    return got;
}

TEST(CliOutput, TheSpoolIsBoundedAndALongOutputIsCut) {
    TempRoot root;
    root.write("/out.txt", "");
    const int spool = dp_cliout_spool();
    ASSERT_GE(spool, 0);
    const std::string chunk(4096, 'x');
    size_t accepted = 0;
    for (size_t n = 0; n < 2 * DP_CLIOUT_MAX_BYTES; n += chunk.size())
        accepted += static_cast<size_t>(std::max<ssize_t>(0, write(spool, chunk.data(), 4096)));
    EXPECT_LT(accepted, 2 * DP_CLIOUT_MAX_BYTES);
    dp_cliout_send(open((root.dir() + "/out.txt").c_str(), O_WRONLY | O_NONBLOCK), spool);
    EXPECT_EQ(dp_cliout_waiting(), 0);
    EXPECT_EQ(root.read("/out.txt"), std::string(DP_CLIOUT_MAX_BYTES, 'x') + DP_CLIOUT_CUT_SIZE);
}

int quit_when_idle() {
    if (dp_cliout_waiting() == 0) ombusQuitMainLoop();
    return 0;
}

TEST(CliOutput, OneOutputTooManyCutsTheOldestAndGoneReadersEndTheirs) {
    signal(SIGPIPE, SIG_IGN);
    ombusReset();
    const std::string text(200000, 'y');
    int readers[DP_CLIOUT_MAX_WAITING + 1];
    for (int& r : readers) {
        int p[2];
        ASSERT_EQ(pipe2(p, O_NONBLOCK), 0);
        const int spool = dp_cliout_spool();
        ASSERT_EQ(write(spool, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        if (&r == &readers[DP_CLIOUT_MAX_WAITING]) {
            // Room for the cut line of the output that the last one pushes out.
            char page[4096];
            ASSERT_EQ(read(readers[0], page, sizeof page), 4096);
        }
        dp_cliout_send(p[1], spool);
        r = p[0];
    }
    EXPECT_EQ(dp_cliout_waiting(), DP_CLIOUT_MAX_WAITING);
    EXPECT_EQ(read_to_end(readers[0]), text.substr(4096, 65536 - 4096) + DP_CLIOUT_CUT_CROWD);
    for (int r : readers)
        close(r);
    ombusRegisterPollingTimeOutHandler(10, quit_when_idle, 0, 0);
    ombusMainLoop();
    EXPECT_EQ(dp_cliout_waiting(), 0);
    ombusReset();
}

} // namespace

// A line written by a helper on behalf of an operation carries the operation's name.
TEST(TraceNames, LinesNameTheOperationTheyBelongTo) {
    TempRoot root;
    root.write("/etc/flipla.conf", "EnableD2AFeature=1\n");
    root.write("/etc/dns_d2a.conf", "192.0.2.1 a.test\n");
    root.write("/etc/dns_resolv_ipv4.conf", "nameserver 0.0.0.0\nnameserver 192.0.2.53\n");
    root.write("/etc/dns_prefix.conf", "abc 0 VOIP\n");
    // An answer whose owner name is a pointer to itself: indexed, but never decoded.
    const uint8_t looped[] = {0, 1,    0x81, 0, 0, 1, 0, 1, 0, 0, 0, 0, 1, 'a', 0, 0, 1, 0,
                              1, 0xC0, 19,   0, 1, 0, 1, 0, 0, 0, 0, 0, 4, 192, 0, 2, 1};
    struct row {
        const char* prefix; // "<tag> <operation>:"
        const char* text;
        void (*run)();
    };
    const row rows[] = {
        {"DPCFG  dpcfg_load_config_param_from_file:", "parm=EnableD2AFeature val=1\n",
         [] { dpcfg_load_config_param_from_file("/etc/flipla.conf"); }},
        {"DPCACH dpcache_load_d2a_cache:", "listhead=", [] { dpcache_load_d2a_cache(); }},
        {"DPCACH dpcache_add_dync_cache:", "delete 0 expired dyn cache record\n",
         [] {
             for (int i = 0; i <= static_cast<int>(DPCACHE_DYN_MAX); ++i)
                 dpcache_add_dync_cache(1, ("n" + std::to_string(i)).c_str(), "192.0.2.9", 60);
         }},
        {"DPSERV load_server_set_from_file:", "ipstr=0.0.0.0 ret=-5\n",
         [] { dpsvr_load_v4_global_dns_servers(); }},
        {"DPSERV load_dns_servers:", "IPv4 Global DNS servers num=1 ",
         [] { dpsvr_load_v4_global_dns_servers(); }},
        {"DPSERV send_query_to_server_set:", "serv_set->primaryDnsActive = 0",
         [] {
             servset* set = dpsvr_get_server_set(DPSVR_V4_GLOBAL);
             set->policy = 2;
             uint8_t q[12] = {};
             send_query_to_server_set(q, sizeof q, set);
         }},
        {"DPSERV get_service_mask_without_ipaddr:", "qname=x.abc name=",
         [] {
             uint16_t mask = 0;
             dpsvr_load_name_filter_db();
             get_service_mask_without_ipaddr("x.abc", &mask);
         }},
        {"DPSERV get_service_mask:", "qname=abc.x name=",
         [] {
             uint16_t mask = 0;
             const uint8_t client[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 192, 0, 2, 10};
             get_service_mask(client, "abc.x", &mask);
         }},
    };
    dpsvr_init_server_sets();
    for (const row& r : rows) {
        define_debug_mode(6);
        dp_debug_tbl.timestamp = 0;
        StderrCapture err;
        r.run();
        define_debug_mode(0);
        const std::regex line(
            std::string("(^|\n)") + r.prefix + "\\d+ " +
            std::regex_replace(r.text, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)"));
        EXPECT_TRUE(std::regex_search(err.text(), line)) << r.prefix << r.text;
    }
    msginf inf;
    define_debug_mode(6);
    dp_debug_tbl.timestamp = 0;
    StderrCapture err;
    EXPECT_EQ(dpendec_compose_dns_msg_inf(looped, sizeof looped, &inf), -10);
    define_debug_mode(0);
    EXPECT_NE(err.text().find("DPEDC  dpendec_compose_dns_msg_inf:"), std::string::npos);
    dpcache_purge_all();
    dpsvr_init_server_sets();
}
