#include <gtest/gtest.h>

#include <signal.h>

#include <regex>
#include <string>
#include <utility>

#include "cache/dpcache.h"
#include "config/dpcfg.h"
#include "ctrl/dp_cliout.h"
#include "ctrl/dp_metrics.h"
#include "ctrl/dp_trace.h"
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

TEST_F(Trace, DebugLevelsAccumulateUntilNone) {
    define_debug_level("IO", "NONE");
    define_debug_level("io", "func");
    define_debug_level("io", "pkt");
    EXPECT_EQ(dp_debug_tbl.modules[DP_MOD_IO].level_mask, 0x18u);
    define_debug_level("Util", "all");
    EXPECT_EQ(dp_debug_tbl.modules[DP_MOD_UTIL].level_mask, 0xFFFFFFFFu);
    EXPECT_EQ(dp_debug_tbl.modules[DP_MOD_PROXY].level_mask, 0x01u);
    // The view: a row per module, the io column two wide.
    StderrCapture err;
    dplog_view_debug_setting();
    const std::string eq(59, '=');
    EXPECT_NE(err.text().find("\nDNS debug setting\n" + eq +
                              "\nmodule: error  warn   detail func   pkt"
                              "    endec  io period\n" +
                              std::string(59, '-') + "\nproxy : xx  "),
              std::string::npos);
    EXPECT_NE(err.text().find("\nio    :                      xx     xx                     \n"),
              std::string::npos);
    EXPECT_NE(err.text().find("\nutil  : xx     xx     xx     xx     xx     xx     xx xx    \n"
                              "debug : xx                                                 \n" +
                              eq + "\nclilog: "),
              std::string::npos);
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
        EXPECT_EQ(rgw_impl_get_log_level(), c.level) << c.v;
        EXPECT_EQ(rgw_impl_get_customer_log_level(), c.level) << c.v;
        expect_all_masks(c.mask);
    }
}

TEST_F(Trace, SetLogconfigDerivesTheDebugMode) {
    dplog_set_logconfig("notice", "serial");
    expect_all_masks(0x1F);
    EXPECT_EQ(rgw_impl_get_log_destination(), 1);
    dplog_set_logconfig("ERROR", "telnet");
    expect_all_masks(0x01);
    EXPECT_EQ(rgw_impl_get_log_destination(), 3);
}

TEST(Metrics, RoundTripBucketsIncludeTheirUpperBound) {
    const std::pair<uint32_t, int> cases[] = {
        {0, 0}, {1, 0}, {2, 1}, {3, 2}, {50, 5}, {51, 6}, {5000, 11}, {5001, 12}, {UINT32_MAX, 12}};
    for (const auto& [ms, bucket] : cases)
        EXPECT_EQ(dp_metrics_rtt_bucket(ms), bucket) << ms;
}

TEST(LogConfigFile, TheModeDecidesTimeStampsAtStartUp) {
    TempRoot root;
    const char* file = "/configs/kiv_dnsproxy_log_config";
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
    char page[65536];
    for (int& r : readers) {
        int p[2];
        ASSERT_EQ(pipe2(p, O_NONBLOCK), 0);
        const int spool = dp_cliout_spool();
        ASSERT_EQ(write(spool, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        // The last one pushes the first out: room for its cut line.
        if (&r == &readers[DP_CLIOUT_MAX_WAITING] && read(readers[0], page, 4096) != 4096)
            ADD_FAILURE();
        dp_cliout_send(p[1], spool);
        r = p[0];
    }
    EXPECT_EQ(dp_cliout_waiting(), DP_CLIOUT_MAX_WAITING);
    const ssize_t n = read(readers[0], page, sizeof page);
    EXPECT_EQ(std::string(page, std::max<ssize_t>(n, 0)),
              text.substr(4096, 65536 - 4096) + DP_CLIOUT_CUT_CROWD);
    EXPECT_EQ(read(readers[0], page, 1), 0); // the end, not a pipe still open
    for (int r : readers)
        close(r);
    ombusRegisterPollingTimeOutHandler(
        10, [] { return dp_cliout_waiting() == 0 ? (ombusQuitMainLoop(), 0) : 0; }, 0, 0);
    ombusMainLoop();
    EXPECT_EQ(dp_cliout_waiting(), 0);
    ombusReset();
}

// A line written by a helper for an operation names the operation, not the helper.
TEST(TraceNames, LinesNameTheOperationTheyBelongTo) {
    TempRoot root;
    root.write("/etc/flipla.conf", "EnableD2AFeature=1\n");
    root.write("/etc/dns_d2a.conf", "192.0.2.1 a.test\n");
    root.write("/etc/dns_resolv_ipv4.conf", "nameserver 0.0.0.0\nnameserver 192.0.2.53\n");
    root.write("/etc/dns_prefix.conf", "abc 0 VOIP\n");
    const std::pair<const char*, void (*)()> rows[] = {
        {"DPCFG  dpcfg_load_config_param_from_file:\\d+ parm=EnableD2AFeature val=1",
         [] { dpcfg_load_config_param_from_file("/etc/flipla.conf"); }},
        {"DPCACH dpcache_load_d2a_cache:\\d+ listhead=", [] { dpcache_load_d2a_cache(); }},
        {"DPCACH dpcache_add_dync_cache:\\d+ delete 0 expired",
         [] {
             for (int i = 0; i <= static_cast<int>(DPCACHE_DYN_MAX); ++i)
                 dpcache_add_dync_cache(1, ("n" + std::to_string(i)).c_str(), "192.0.2.9", 60);
         }},
        {"DPSERV load_server_set_from_file:\\d+ ipstr=0.0.0.0 ret=-5",
         [] { dpsvr_load_v4_global_dns_servers(); }},
        {"DPSERV load_dns_servers:\\d+ IPv4 Global DNS servers num=1 ",
         [] { dpsvr_load_v4_global_dns_servers(); }},
        {"DPSERV get_service_mask_without_ipaddr:\\d+ qname=x.abc name=",
         [] {
             uint16_t mask = 0;
             dpsvr_load_name_filter_db();
             get_service_mask_without_ipaddr("x.abc", &mask);
         }},
    };
    dpsvr_init_server_sets();
    for (const auto& [line, run] : rows) {
        define_debug_mode(6);
        dp_debug_tbl.timestamp = 0;
        StderrCapture err;
        run();
        define_debug_mode(0);
        EXPECT_TRUE(std::regex_search(err.text(), std::regex(std::string("(^|\\n)") + line)))
            << line;
    }
    dpcache_purge_all();
    dpsvr_purge_name_filter_db();
    dpsvr_init_server_sets();
}

} // namespace
