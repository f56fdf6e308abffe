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

// Every module has the same mask.
void expect_all_masks(uint32_t mask) {
    for (uint32_t i = 0; i < DP_MOD_COUNT; ++i)
        EXPECT_EQ(dp_debug_tbl.modules[i].level_mask, mask) << i;
}

// Trace lines with their source line numbers taken out.
std::string without_lines(const std::string& text) {
    return std::regex_replace(text, std::regex(":[0-9]+ "), ": ");
}

class Trace : public ::testing::Test {
  protected:
    void SetUp() override { define_debug_mode(0); }
    void TearDown() override { define_debug_mode(0); }
};

TEST_F(Trace, LineFormatAndAGateThatEvaluatesNothingWhenClosed) {
    int evaluated = 0;
    StderrCapture err;
    const int line = __LINE__ + 1;
    DPCFG_TRACE(DP_ERROR, "value=%d text=%s\n", ++evaluated, "abc");
    DPMAIN_TRACE(DP_DETAIL, "%d\n", ++evaluated);
    EXPECT_EQ(evaluated, 1);
    EXPECT_EQ(err.text(), "DPCFG  TestBody:" + std::to_string(line) + " value=1 text=abc\n");
}

TEST_F(Trace, TimeStampIsThePositionWithinTheHour) {
    char out[512];
    const timeval before_hour{10 * 3600 + 59 * 60 + 59, 999999};
    dp_trace_build_format(out, sizeof out, "DPMAIN", "f", 7, "x=%d\n", &before_hour);
    EXPECT_STREQ(out, "DPMAIN f:7 t=3599:999 x=%d\n");
    const timeval on_hour{11 * 3600, 0};
    dp_trace_build_format(out, sizeof out, "DPMAIN", "f", 7, "x=%d\n", &on_hour);
    EXPECT_STREQ(out, "DPMAIN f:7 t=0:0 x=%d\n");
}

TEST_F(Trace, OverlongFormatIsCutOutsideAConversion) {
    char out[64];
    auto build = [&](const std::string& fmt) {
        dp_trace_build_format(out, sizeof out, "DPMAIN", "func", 12, fmt.c_str(), nullptr);
        return std::string(out);
    };
    const std::string a38(38, 'a'), a46(46, 'a'), a47(47, 'a');
    EXPECT_EQ(build(a38 + "%lu tail\n"), "DPMAIN func:12 " + a38 + "%lu tail\n"); // 63 fit
    EXPECT_EQ(build(a46 + "%lu tail\n"), "DPMAIN func:12 " + a46);
    EXPECT_EQ(build(a47 + "%%x"), "DPMAIN func:12 " + a47);
}

TEST_F(Trace, DebugLevelsAccumulateUntilNoneAndUnknownWordsChangeNothing) {
    define_debug_level("IO", "NONE");
    define_debug_level("io", "func");
    define_debug_level("io", "pkt");
    EXPECT_EQ(dp_debug_tbl.modules[DP_MOD_IO].level_mask, 0x18u);
    define_debug_level("Util", "all");
    EXPECT_EQ(dp_debug_tbl.modules[DP_MOD_UTIL].level_mask, 0xFFFFFFFFu);
    EXPECT_EQ(dp_debug_tbl.modules[DP_MOD_PROXY].level_mask, 0x01u);
    define_debug_mode(0);
    StderrCapture err;
    EXPECT_EQ(define_debug_level("dns", "all"), 0);
    EXPECT_EQ(define_debug_level("cache", "verbose"), 0);
    EXPECT_EQ(err.text(), "define_debug_level unknown module name=dns\n"
                          "define_debug_level wrong debug level=verbose\n");
    expect_all_masks(0x01);
}

TEST_F(Trace, DebugModes) {
    const struct {
        uint32_t mode, mask, ts;
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
    const struct {
        int v, level;
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

TEST(LogConfigFile, TheModeDecidesTimeStampsAtStartUpAndResetRemovesTheFile) {
    TempRoot root;
    const char* file = "/configs/kiv_dnsproxy_log_config";
    root.write(file, std::string("debug_mode=six\n\x01\0debug_mode=3\nlog_level\n", 40));
    dp_debug_init();
    EXPECT_EQ(dplog_cfg.debug_mode, 0); // garbage: the defaults stay
    root.write(file, "log_level=6\nlog_dest=1\ndebug_mode=0\ntimestamp=1\n");
    dp_debug_init();
    EXPECT_EQ(dp_debug_tbl.timestamp, 0u);
    expect_all_masks(0x01);
    EXPECT_EQ(rgw_impl_get_log_level(), 6);
    EXPECT_EQ(rgw_impl_get_log_destination(), 1);
    root.write(file, "debug_mode=3\n");
    dp_debug_init();
    EXPECT_EQ(dp_debug_tbl.timestamp, 1u);
    expect_all_masks(0x17);
    EXPECT_EQ(dplog_cfg.log_level, 3); // untouched keys keep the reset values
    dplog_reset_logconfig();
    EXPECT_FALSE(root.exists(file));
    EXPECT_EQ(dplog_cfg.debug_mode, 0);
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
    // A row with the error mark and, at column at, one more: pkt at 36, period at 53.
    auto row = [](const char* module, size_t at = 0) {
        std::string r = (module + std::string(6, ' ')).substr(0, 6) + ": xx" + std::string(49, ' ');
        return (at != 0 ? r.replace(at, 2, "xx") : r) + "\n";
    };
    const std::string eq(59, '=');
    EXPECT_EQ(err.text(), "\nDNS debug setting\n" + eq +
                              "\nmodule: error  warn   detail func   pkt    endec  io period\n" +
                              std::string(59, '-') + "\n" + row("proxy") + row("io", 36) +
                              row("endec") + row("server") + row("cache") + row("config") +
                              row("util", 53) + row("debug") + eq + "\nclilog: level=3 dest=2\n" +
                              eq + "\n");
}

TEST(RedirectPrintf, AnUnusablePathIsReportedAndMovesNothing) {
    StderrCapture err;
    dplog_redirect_printf("/nonexistent/dir/tty");
    EXPECT_EQ(err.text(), "/nonexistent/dir/tty is invalid to redirect\n");
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
            char page[4096]; // room for the cut line of the output that the last one pushes out
            ASSERT_EQ(read(readers[0], page, sizeof page), 4096);
        }
        dp_cliout_send(p[1], spool);
        r = p[0];
    }
    EXPECT_EQ(dp_cliout_waiting(), DP_CLIOUT_MAX_WAITING);
    std::string got(70000, '\0');
    got.resize(static_cast<size_t>(std::max<ssize_t>(0, read(readers[0], got.data(), got.size()))));
    EXPECT_EQ(got, text.substr(4096, 65536 - 4096) + DP_CLIOUT_CUT_CROWD);
    EXPECT_EQ(read(readers[0], got.data(), 1), 0); // the end, not a pipe still open
    for (int r : readers)
        close(r);
    ombusRegisterPollingTimeOutHandler(
        10, [] { return dp_cliout_waiting() == 0 ? (ombusQuitMainLoop(), 0) : 0; }, 0, 0);
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
    dpsvr_init_server_sets();
    dpsvr_load_name_filter_db();
    static uint16_t mask = 0;
    static uint8_t q[12] = {};
    static const uint8_t client[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 192, 0, 2, 10};
    // An answer whose owner name is a pointer to itself: indexed, but never decoded.
    static const uint8_t looped[] = {0, 1,    0x81, 0, 0, 1, 0, 1, 0, 0, 0, 0, 1, 'a', 0, 0, 1, 0,
                                     1, 0xC0, 19,   0, 1, 0, 1, 0, 0, 0, 0, 0, 4, 192, 0, 2, 1};
    const struct {
        const char* line; // "<tag> <operation>: <text>"
        void (*run)();
    } rows[] = {
        {"DPCFG  dpcfg_load_config_param_from_file: parm=EnableD2AFeature val=1\n",
         [] { dpcfg_load_config_param_from_file("/etc/flipla.conf"); }},
        {"DPCACH dpcache_load_d2a_cache: listhead=", [] { dpcache_load_d2a_cache(); }},
        {"DPCACH dpcache_add_dync_cache: delete 0 expired dyn cache record\n",
         [] {
             for (uint32_t i = 0; i <= DPCACHE_DYN_MAX; ++i)
                 dpcache_add_dync_cache(1, ("n" + std::to_string(i)).c_str(), "192.0.2.9", 60);
         }},
        {"DPSERV load_server_set_from_file: ipstr=0.0.0.0 ret=-5\n",
         [] { dpsvr_load_v4_global_dns_servers(); }},
        {"DPSERV load_dns_servers: IPv4 Global DNS servers num=1 ",
         [] { dpsvr_load_v4_global_dns_servers(); }},
        {"DPSERV send_query_to_server_set: serv_set->primaryDnsActive = 0",
         [] {
             servset* set = dpsvr_get_server_set(DPSVR_V4_GLOBAL);
             set->policy = 2;
             send_query_to_server_set(q, sizeof q, set);
         }},
        {"DPSERV get_service_mask_without_ipaddr: qname=x.abc name=",
         [] { get_service_mask_without_ipaddr("x.abc", &mask); }},
        {"DPSERV get_service_mask: qname=abc.x name=",
         [] { get_service_mask(client, "abc.x", &mask); }},
        {"DPEDC  dpendec_compose_dns_msg_inf: ",
         [] {
             msginf inf;
             EXPECT_EQ(dpendec_compose_dns_msg_inf(looped, sizeof looped, &inf), -10);
         }},
    };
    for (const auto& r : rows) {
        define_debug_mode(6);
        dp_debug_tbl.timestamp = 0;
        StderrCapture err;
        r.run();
        define_debug_mode(0);
        EXPECT_NE(("\n" + without_lines(err.text())).find(std::string("\n") + r.line),
                  std::string::npos)
            << r.line;
    }
    dpcache_purge_all();
    dpsvr_init_server_sets();
}
