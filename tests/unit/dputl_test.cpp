#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "ctrl/dp_trace.h"
#include "main/dputl.h"
#include "test_support.h"

namespace {

TEST(TransactionIdAndTime, IdsStartAtOneAndSkipZeroAndDueIsASignedDifference) {
    dputl_set_transaction_id(0);
    EXPECT_EQ(dputl_get_next_transaction_id(), 1);
    dputl_set_transaction_id(65534);
    EXPECT_EQ(dputl_get_next_transaction_id(), 65535);
    EXPECT_EQ(dputl_get_next_transaction_id(), 1);
    EXPECT_TRUE(dputl_time_due(100, 100));
    EXPECT_FALSE(dputl_time_due(101, 100));
    EXPECT_TRUE(dputl_time_due(0xFFFFFFF0u, 5));  // across the wrap: long past
    EXPECT_FALSE(dputl_time_due(5, 0xFFFFFFF0u)); // across the wrap: still ahead
}

// Every callback of the actions under test, as "<kind>:<parm>".
std::vector<std::string> calls;
struct cb {
    static void note(const char* kind, void* p) {
        calls.push_back(kind + (":" + std::string(static_cast<const char*>(p))));
    }
    static void start(void* p, acb*) { note("start", p); }
    static void period(void* p) { note("period", p); }
    static void final(void* p) { note("final", p); }
};

TEST(ActionList, TimingTriesRestartsAndUnlinking) {
    DrivenClock clock(5000);
    // Advances the clock one second at a time, scanning at every second.
    auto run_until = [&](uint32_t t) {
        while (clock.get() < t) {
            clock.advance(1);
            dputl_scan_action_list();
        }
    };
    acb a1{nullptr, nullptr, 0, 20, nullptr, cb::start, cb::period, nullptr, 0, 0};
    acb a2{nullptr, nullptr, 3, 2, nullptr, nullptr, cb::period, cb::final, 0, 0};
    acb a3{nullptr, nullptr, 0, 1, nullptr, nullptr, nullptr, nullptr, 0, 0};
    char p1[] = "a1", p2[] = "a2";
    EXPECT_EQ(dputl_stop_action(nullptr), -1);
    EXPECT_EQ(dputl_start_action(nullptr, nullptr), -1);
    EXPECT_EQ(dputl_stop_action(&a1), -2); // never started
    EXPECT_EQ(dputl_start_action(&a1, p1), 2);
    dputl_start_action(&a2, p2);
    dputl_start_action(&a3, nullptr);
    EXPECT_EQ(calls, std::vector<std::string>{"start:a1"});
    define_debug_level("util", "period");
    StderrCapture err;
    run_until(5003);
    EXPECT_TRUE(std::regex_search(err.text(), std::regex("DPUTIL dputl_scan_action_list:[0-9]+ "
                                                         "acb=0x[0-9a-f]+ maxTimes=0 triedTimes=3 "
                                                         "nextExpiryTime=5003 curr_time=5003\n")));
    define_debug_mode(0);
    // The start counts as the first try: maxTimes 3 makes two periodic calls, then the final.
    run_until(5019);
    EXPECT_EQ(calls, (std::vector<std::string>{"start:a1", "period:a2", "period:a2", "final:a2"}));
    EXPECT_EQ(a2.triedTimes, 0);
    EXPECT_EQ(a1.next, &a3); // a2 left from the middle
    EXPECT_EQ(a3.prev, &a1);
    run_until(5020);
    EXPECT_EQ(calls.back(), "period:a1"); // first at start + period
    EXPECT_EQ(a1.triedTimes, 2);
    EXPECT_EQ(a1.nextExpiryTime, 5040u);
    // A restart keeps the one link and starts timing and count afresh.
    EXPECT_EQ(dputl_start_action(&a1, p1), 2);
    EXPECT_EQ(calls.back(), "start:a1");
    EXPECT_EQ(a1.triedTimes, 1);
    EXPECT_EQ(dputl_action_list_head(), &a1);
    EXPECT_EQ(a1.next, &a3);
    EXPECT_EQ(a3.next, nullptr);
    // An overdue action runs once and is rescheduled from now.
    clock.advance(30);
    dputl_scan_action_list();
    EXPECT_EQ(calls.size(), 7u);
    EXPECT_EQ(a1.nextExpiryTime, 5070u);
    EXPECT_EQ(dputl_stop_action(&a1), 1);
    EXPECT_EQ(dputl_stop_action(&a3), 1);
    EXPECT_EQ(dputl_action_list_head(), nullptr);
}

TEST(SplitLine, ExactlyNFieldsOrFewerTokens) {
    char line[] = "\t192.0.2.1  host.example extra\r\nignored", cut[] = "key\rvalue";
    char* fields[2] = {};
    EXPECT_EQ(dputl_split_line(line, " \t", 2, fields), 1);
    EXPECT_STREQ(fields[0], "192.0.2.1");
    EXPECT_STREQ(fields[1], "host.example");
    EXPECT_EQ(dputl_split_line(cut, " \t", 2, fields), -1); // cut at the carriage return
}

} // namespace
