#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ctrl/dp_trace.h"
#include "main/dputl.h"
#include "platform/kutl/kutl.h"
#include "test_support.h"

namespace {

TEST(TransactionId, StartsAtOneAndSkipsZero) {
    dputl_set_transaction_id(0);
    EXPECT_EQ(dputl_get_next_transaction_id(), 1);
    EXPECT_EQ(dputl_get_next_transaction_id(), 2);
    dputl_set_transaction_id(65534);
    EXPECT_EQ(dputl_get_next_transaction_id(), 65535);
    EXPECT_EQ(dputl_get_next_transaction_id(), 1);
}

TEST(TimeDue, SignedDifference) {
    EXPECT_TRUE(dputl_time_due(100, 100));
    EXPECT_TRUE(dputl_time_due(99, 100));
    EXPECT_FALSE(dputl_time_due(101, 100));
    EXPECT_TRUE(dputl_time_due(0xFFFFFFF0u, 5));  // across the wrap: long past
    EXPECT_FALSE(dputl_time_due(5, 0xFFFFFFF0u)); // across the wrap: still ahead
}

// Records every callback of the actions under test.
std::vector<std::string> calls;

void on_start(void* parm, acb*) {
    calls.push_back(std::string("start:") + static_cast<const char*>(parm));
}
void on_period(void* parm) {
    calls.push_back(std::string("period:") + static_cast<const char*>(parm));
}
void on_final(void* parm) {
    calls.push_back(std::string("final:") + static_cast<const char*>(parm));
}

class ActionList : public ::testing::Test {
  protected:
    void SetUp() override { calls.clear(); }
    void TearDown() override {
        for (acb* a : {&a1, &a2, &a3})
            dputl_stop_action(a);
        ASSERT_EQ(dputl_action_list_head(), nullptr);
    }
    // Advances the clock one second at a time, scanning at every second.
    void run_until(uint32_t t) {
        while (clock.get() < t) {
            clock.advance(1);
            dputl_scan_action_list();
        }
    }
    DrivenClock clock{5000};
    acb a1{nullptr, nullptr, 0, 20, nullptr, on_start, on_period, on_final, 0, 0};
    acb a2{nullptr, nullptr, 3, 2, nullptr, nullptr, on_period, on_final, 0, 0};
    acb a3{nullptr, nullptr, 0, 1, nullptr, nullptr, on_period, nullptr, 0, 0};
};

TEST_F(ActionList, PeriodicCallbackFirstAtStartPlusPeriod) {
    char p[] = "a1";
    EXPECT_EQ(dputl_start_action(&a1, p), 2);
    EXPECT_EQ(calls, std::vector<std::string>{"start:a1"});
    EXPECT_EQ(a1.triedTimes, 1);
    run_until(5019);
    EXPECT_EQ(calls.size(), 1u);
    run_until(5020);
    EXPECT_EQ(calls.back(), "period:a1");
    EXPECT_EQ(a1.triedTimes, 2);
    EXPECT_EQ(a1.nextExpiryTime, 5040u);
}

TEST_F(ActionList, MaxTimesCountsTheStartAsFirstTry) {
    char p[] = "a2";
    dputl_start_action(&a2, p);
    run_until(5010);
    EXPECT_EQ(calls, (std::vector<std::string>{"period:a2", "period:a2", "final:a2"}));
    EXPECT_EQ(a2.triedTimes, 0);
    EXPECT_EQ(dputl_action_list_head(), nullptr);
}

TEST_F(ActionList, RestartKeepsOneLinkAndResetsTiming) {
    char p[] = "a3";
    dputl_start_action(&a1, p);
    dputl_start_action(&a3, p);
    run_until(5003);
    EXPECT_EQ(a3.triedTimes, 4);
    EXPECT_EQ(dputl_start_action(&a3, p), 2);
    EXPECT_EQ(a3.triedTimes, 1);
    EXPECT_EQ(a3.nextExpiryTime, 5004u);
    EXPECT_EQ(dputl_action_list_head(), &a1);
    EXPECT_EQ(a1.next, &a3);
    EXPECT_EQ(a3.next, nullptr);
}

TEST_F(ActionList, OverdueActionRunsOnceAndIsRescheduledFromNow) {
    char p[] = "a3";
    dputl_start_action(&a3, p);
    clock.advance(10);
    dputl_scan_action_list();
    EXPECT_EQ(calls.size(), 1u);
    EXPECT_EQ(a3.nextExpiryTime, 5011u);
}

TEST_F(ActionList, StopReportsAbsenceAndUnlinksFromAnyPosition) {
    EXPECT_EQ(dputl_stop_action(nullptr), -1);
    EXPECT_EQ(dputl_start_action(nullptr, nullptr), -1);
    EXPECT_EQ(dputl_stop_action(&a2), -2);
    char p[] = "x";
    dputl_start_action(&a1, p);
    dputl_start_action(&a2, p);
    dputl_start_action(&a3, p);
    EXPECT_EQ(dputl_stop_action(&a2), 1);
    EXPECT_EQ(dputl_stop_action(&a2), -2);
    EXPECT_EQ(a1.next, &a3);
    EXPECT_EQ(a3.prev, &a1);
    EXPECT_EQ(dputl_stop_action(&a1), 1);
    EXPECT_EQ(dputl_action_list_head(), &a3);
}

TEST_F(ActionList, ScanTraceUnderThePeriodBit) {
    char p[] = "a3";
    dputl_start_action(&a3, p);
    define_debug_level("util", "period");
    StderrCapture err;
    clock.advance(1);
    dputl_scan_action_list();
    define_debug_mode(0);
    char expected[160];
    std::snprintf(expected, sizeof expected,
                  "acb=%p maxTimes=0 triedTimes=1 nextExpiryTime=5001 curr_time=5001\n",
                  static_cast<void*>(&a3));
    EXPECT_NE(err.text().find(std::string("DPUTIL dputl_scan_action_list:")), std::string::npos);
    EXPECT_NE(err.text().find(expected), std::string::npos) << err.text();
}

TEST(SplitLine, FieldsAndFailures) {
    struct {
        const char* line;
        int n;
        int ret;
        const char* first;
        const char* second;
    } cases[] = {
        {"192.0.2.1  host.example extra\n", 2, 1, "192.0.2.1", "host.example"},
        {"\tkey\tvalue\r\nignored", 2, 1, "key", "value"},
        {"key\rvalue", 2, -1, "key", nullptr},
        {"onlyone", 2, -1, "onlyone", nullptr},
        {"", 1, -1, nullptr, nullptr},
    };
    for (const auto& c : cases) {
        std::string line = c.line;
        char* fields[2] = {};
        EXPECT_EQ(dputl_split_line(line.data(), " \t", c.n, fields), c.ret) << c.line;
        if (c.first != nullptr) {
            EXPECT_STREQ(fields[0], c.first);
        }
        if (c.ret == 1 && c.n == 2) {
            EXPECT_STREQ(fields[1], c.second);
        }
    }
}

TEST(FixedPath, RootPrefixAndExceptions) {
    {
        TempRoot root;
        EXPECT_EQ(std::string(kutl_fixed_path("/etc/x").s), root.dir() + "/etc/x");
        EXPECT_STREQ(kutl_fixed_path("/proc/net/if_inet6").s, "/proc/net/if_inet6");
        EXPECT_STREQ(kutl_fixed_path("/dev/null").s, "/dev/null");
        const std::string long_path = "/" + std::string(600, 'a');
        EXPECT_STREQ(kutl_fixed_path(long_path.c_str()).s, ""); // never a truncated name
    }
    EXPECT_STREQ(kutl_fixed_path("/etc/x").s, "/etc/x");
}

TEST(InterfaceReaders, LoopbackAndMissingInterface) {
    uint32_t addr = 1;
    uint32_t mask = 1;
    ASSERT_EQ(dputl_get_if_ipv4_addr("lo", &addr), 0);
    ASSERT_EQ(dputl_get_if_ipv4_netmask("lo", &mask), 0);
    EXPECT_EQ(addr, htonl(0x7F000001));
    EXPECT_EQ(mask, htonl(0xFF000000));
    EXPECT_EQ(dputl_get_if_ipv4_addr("nosuchif0", &addr), -1);
    EXPECT_EQ(addr, 0u);
    // Names are cut at 15 characters: "lo" followed by junk is not "lo".
    EXPECT_EQ(dputl_get_if_ipv4_netmask("lo-and-a-very-long-name", &mask), -1);
}

} // namespace
