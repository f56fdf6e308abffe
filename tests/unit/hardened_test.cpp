// Hardened mode: random ids that no pending query holds, the pool of server sockets and its
// rotation, the answer check, the dynamic cache's one-day cap.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <set>

#include "cache/dpcache.h"
#include "config/dpcfg.h"
#include "io/dpio.h"
#include "main/dputl.h"
#include "test_support.h"

namespace {

class Hardened : public ::testing::Test {
  protected:
    void SetUp() override { dpcfg_set_hardened_mode(1); }
    void TearDown() override {
        dpcfg_set_hardened_mode(0);
        dputl_set_id_in_use(nullptr);
        dpio_pool_close();
        dpcache_purge_all();
    }
};

TEST_F(Hardened, IdsAreRandomNeverZeroNorInUse) {
    dputl_set_id_in_use([](uint16_t id) { return id < 0x8000; });
    std::set<uint16_t> seen;
    int steps_of_one = 0;
    uint16_t last = 0;
    for (int i = 0; i < 500; ++i) {
        const uint16_t id = dputl_get_next_transaction_id();
        EXPECT_GE(id, 0x8000);
        steps_of_one += id == last + 1;
        last = id;
        seen.insert(id);
    }
    EXPECT_GT(seen.size(), 450u);
    EXPECT_LT(steps_of_one, 5);
    // Off again: the counter goes on where it was.
    dpcfg_set_hardened_mode(0);
    dputl_set_transaction_id(41);
    EXPECT_EQ(dputl_get_next_transaction_id(), 42);
}

TEST_F(Hardened, PoolOfRandomPortsRotatesAndLingers) {
    ASSERT_TRUE(enter_private_network());
    TempRoot root;
    root.write("/etc/flipla.conf", "ServerSocketSrcPortStart=40000\nServerSocketSrcPortEnd=40999\n"
                                   "EnableHardenedMode=1\n");
    dpcfg_load_config_param_from_file("/etc/flipla.conf");
    DrivenClock clock(100);
    auto ports = [] {
        uint16_t p[DPIO_POOL_SIZE];
        const int n = dpio_pool_ports(p, DPIO_POOL_SIZE);
        return std::set<uint16_t>(p, p + n);
    };
    dpio_pool_tick(clock.get());
    const std::set<uint16_t> first = ports();
    ASSERT_EQ(first.size(), size_t{DPIO_POOL_SIZE});
    EXPECT_TRUE(std::all_of(first.begin(), first.end(),
                            [](uint16_t p) { return p >= 40000 && p <= 40999; }));
    // Each query leaves from one of them, recorded with where it went.
    dpio_expect e;
    dpio_begin_sends(&e);
    uint8_t server[16] = {};
    server[15] = 1; // ::1
    const uint8_t query[] = {0, 7, 1, 0, 0, 1, 0, 0, 0, 0, 0, 0, 1, 'a', 0, 0, 1, 0, 1};
    EXPECT_EQ(dpio_send_to_server(server, 53, query, sizeof query), static_cast<int>(sizeof query));
    dpio_end_sends();
    EXPECT_TRUE(dpio_is_server_fd(e.fd));
    EXPECT_EQ(e.count, 1);
    EXPECT_EQ(e.qlen, 7);
    // One replaced every DPIO_POOL_ROTATE seconds; a replaced one still takes answers a while.
    clock.advance(DPIO_POOL_ROTATE);
    dpio_pool_tick(clock.get());
    const std::set<uint16_t> second = ports();
    std::vector<uint16_t> gone;
    std::set_difference(first.begin(), first.end(), second.begin(), second.end(),
                        std::back_inserter(gone));
    EXPECT_EQ(gone.size(), 1u);
    EXPECT_EQ(second.size(), size_t{DPIO_POOL_SIZE});
    // Off: none in use; the lingering ones close once their answers can no longer come.
    dpcfg_set_hardened_mode(0);
    dpio_pool_tick(clock.get());
    EXPECT_TRUE(ports().empty());
    EXPECT_TRUE(dpio_is_server_fd(e.fd));
    clock.advance(DPIO_POOL_LINGER);
    dpio_pool_tick(clock.get());
    EXPECT_FALSE(dpio_is_server_fd(e.fd));
}

TEST_F(Hardened, AnswerIsTakenOnlyAsItsQueryWent) {
    dpio_expect e{};
    e.fd = 7;
    e.port = 53;
    e.count = 2;
    inet_pton(AF_INET6, "::ffff:198.51.100.53", e.addr[0]);
    inet_pton(AF_INET6, "2001:db8:2::53", e.addr[1]);
    const uint8_t question[] = {3, 'w', 'W', 'w', 1, 'A', 0, 0, 0x41, 0, 1}; // TYPE 65
    e.qlen = sizeof question;
    std::memcpy(e.question, question, sizeof question);
    struct {
        int fd;
        const char* from;
        uint32_t port;
        const char* name; // the answer's question name, TYPE 65
        uint16_t type;
        int want;
    } cases[] = {
        {7, "2001:db8:2::53", 53, "\3WwW\1a", 0x41, DPIO_ANSWER_OK},
        {8, "2001:db8:2::53", 53, "\3www\1a", 0x41, DPIO_ANSWER_WRONG_SOCKET},
        {7, "::ffff:198.51.100.54", 53, "\3www\1a", 0x41, DPIO_ANSWER_WRONG_SOURCE},
        {7, "::ffff:198.51.100.53", 5353, "\3www\1a", 0x41, DPIO_ANSWER_WRONG_SOURCE},
        {7, "::ffff:198.51.100.53", 53, "\3wwx\1a", 0x41, DPIO_ANSWER_WRONG_QUESTION},
        {7, "::ffff:198.51.100.53", 53, "\3www\1a", 0x61, DPIO_ANSWER_WRONG_QUESTION},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        dp_peer_addr from{};
        inet_pton(AF_INET6, c.from, from.addr);
        from.port = c.port;
        uint8_t msg[64] = {0, 1, 0x81, 0, 0, 1};
        const size_t n = std::strlen(c.name) + 1;
        std::memcpy(msg + 12, c.name, n);
        msg[12 + n + 1] = static_cast<uint8_t>(c.type);
        msg[12 + n + 3] = 1;
        EXPECT_EQ(dpio_check_answer(&e, c.fd, &from, msg, static_cast<uint16_t>(12 + n + 4)),
                  c.want);
        EXPECT_EQ(dpio_check_answer(&e, c.fd, &from, msg, static_cast<uint16_t>(12 + n + 3)),
                  c.want == DPIO_ANSWER_OK ? DPIO_ANSWER_WRONG_QUESTION : c.want); // cut short
    }
}

TEST_F(Hardened, DynamicCacheKeepsAnAnswerADayAtMost) {
    DrivenClock clock(5000);
    dpcache_add_dync_cache(1, "a.test", "192.0.2.1", 7 * 86400);
    ASSERT_NE(dpcache_dyn_list, nullptr);
    EXPECT_EQ(dpcache_dyn_list->expiry, 5000u + 86400u);
}

} // namespace
