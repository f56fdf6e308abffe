#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "config/dpcfg.h"
#include "ctrl/dp_stats.h"
#include "ctrl/dp_trace.h"
#include "io/dpio.h"
#include "main/dputl.h"
#include "main/dpxy.h"
#include "main/dpxy_pcb.h"
#include "server/dpsvr.h"
#include "test_support.h"

// Control blocks are written with designated initializers: the members left out are zero, which
// GCC 12 still reports.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

// Trace lines with their source line numbers taken out.
std::string without_lines(const std::string& text) {
    return std::regex_replace(text, std::regex(":[0-9]+ "), ": ");
}

// ---- sockets ----------------------------------------------------------------------------------

class Sockets : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!enter_private_network()) GTEST_SKIP() << "needs root for a private network namespace";
        define_debug_mode(0);
        dp_stats = {};
    }
    void TearDown() override { dpio_close_sockets(); }
    TempRoot root;
};

// The datagrams from 127.0.0.7 read one at a time or in one batch: what each read hands out
// (result, length, peer, bytes), its trace lines, the counters and the last-packet dump, as one
// text.
std::string read_all(bool batch) {
    const int lens[] = {12, 11, 1024, 1025, 1500};
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in sa{AF_INET, htons(45053), {htonl(0x7F000007)}, {}};
    bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa);
    sa.sin_port = htons(53);
    for (int len : lens)
        sendto(fd, std::string(len, static_cast<char>(0xA0 + len % 16)).data(), len, 0,
               reinterpret_cast<sockaddr*>(&sa), sizeof sa);
    close(fd);
    dp_stats = {};
    StderrCapture err;
    std::string out;
    const int sock = dpio_get_client_fd();
    const int n = batch ? dpio_read_batch(sock, DPIO_BATCH, DPXY_MAX_PACKET) : 5;
    for (int i = 0; i < n; ++i) {
        uint8_t buf[2048];
        const uint8_t* msg = buf;
        dp_peer_addr peer{};
        uint16_t len = 0;
        const int ret = batch ? dpio_batch_packet(i, &peer, &msg, &len)
                              : dpio_read_packet(sock, &peer, buf, sizeof buf, &len);
        char addr[INET6_ADDRSTRLEN];
        inet_ntop(AF_INET6, peer.addr, addr, sizeof addr);
        out += std::to_string(ret) + " " + std::to_string(len) + " " + addr + " " +
               std::to_string(peer.kind) + " " +
               std::to_string(peer.port == ntohs(peer.sa.sin6_port)) + " " +
               std::string(msg, msg + std::min<uint16_t>(len, 1025)) + "\n";
    }
    dpio_dump_info();
    return out + without_lines(err.text()) + std::to_string(dp_stats.packet_len_too_short) + " " +
           std::to_string(dp_stats.packet_len_too_long);
}

TEST_F(Sockets, ReadLimitsPeerKindsAndTracesTheSameOneByOneAndInABatch) {
    dpcfg_init();
    create_client_socket();
    ASSERT_GE(dpio_get_client_fd(), 0);
    define_debug_level("io", "pkt");
    define_debug_level("io", "io");
    const std::string single = read_all(false);
    EXPECT_EQ(read_all(true), single);
    EXPECT_NE(single.find("1 12 ::ffff:127.0.0.7 1 1 " + std::string(12, '\xAC') + "\n-3 11 "),
              std::string::npos);
    EXPECT_NE(single.find("\n1 1024 "), std::string::npos);
    EXPECT_NE(single.find("\n-5 1025 "), std::string::npos);
    EXPECT_NE(
        single.find("DPIO   dpio_read_packet: rcv sock=" + std::to_string(dpio_get_client_fd()) +
                    " id=0xacac len=12 sip=::ffff:127.0.0.7 sport="),
        std::string::npos);
    EXPECT_NE(single.find("skType=1\nrcv dns(012): ac ac ac ac ac ac ac ac ac ac ac ac\n"),
              std::string::npos);
    EXPECT_EQ(single.substr(single.size() - 4), "\n1 2"); // too short, too long
    uint8_t buf[2048];
    dp_peer_addr peer{};
    uint16_t len = 0;
    EXPECT_EQ(dpio_read_packet(dpio_get_client_fd(), &peer, buf, sizeof buf, &len), 0); // drained
    EXPECT_EQ(dpio_read_batch(dpio_get_client_fd(), DPIO_BATCH, sizeof buf), 0);
}

TEST_F(Sockets, ServerPortDrawnFromTheRangeAndRenewedInPlace) {
    const struct {
        uint32_t start, end, lo, hi;
    } cases[] = {
        {41000, 41000, 41000, 41000}, {41000, 41001, 41000, 41000},
        {41010, 41005, 41010, 41010}, // start alone
        {42000, 42100, 42000, 42099}, // end never drawn
        {43000, 43002, 43000, 43001}, // then renewed below
    };
    for (const auto& c : cases) {
        root.write("/etc/flipla.conf", "ServerSocketSrcPortStart=" + std::to_string(c.start) +
                                           "\nServerSocketSrcPortEnd=" + std::to_string(c.end) +
                                           "\n");
        dpcfg_init();
        dpio_close_sockets();
        create_client_socket();
        EXPECT_GE(dpio_get_server_port(), c.lo);
        EXPECT_LE(dpio_get_server_port(), c.hi);
    }
    // The old socket still holds its port: the new one takes the next, under the same descriptor.
    const int fd = dpio_get_server_fd();
    const uint16_t first = dpio_get_server_port();
    ASSERT_EQ(dpio_renew_server_socket(), 0);
    EXPECT_EQ(dpio_get_server_fd(), fd);
    EXPECT_NE(dpio_get_server_port(), first);
    sockaddr_in6 sa{};
    socklen_t sl = sizeof sa;
    getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &sl);
    EXPECT_EQ(ntohs(sa.sin6_port), dpio_get_server_port());
}

// ---- proxy control blocks ---------------------------------------------------------------------

class Pcbs : public ::testing::Test {
  protected:
    void SetUp() override {
        dp_stats = {};
        dpcfg_init();
        dpsvr_init_server_sets();
    }
    void TearDown() override {
        define_debug_mode(0);
        clock.advance(100);
        handle_expired_query();
        dpxy_reset_timed_out_count();
    }
    // Adds a forwarded query's pcb: client_id is server_id with its bits flipped.
    static void add(uint16_t id, int16_t source = DPXY_SRC_CLIENT, uint8_t responses = 0,
                    uint8_t queries = 2) {
        static uint8_t query[12];
        const dpxy_pcb p{.pkt = query,
                         .pkt_len = 12,
                         .client_id = static_cast<uint16_t>(id ^ 0xFFFF),
                         .server_id = id,
                         .source = static_cast<int8_t>(source),
                         .edns_mode = DPXY_EDNS_NONE,
                         .query_count = queries,
                         .response_count = responses};
        EXPECT_EQ(add_proxy_ctrlblk(&p, 0), 0);
    }
    TempRoot root;
    DrivenClock clock{5000};
};

TEST_F(Pcbs, BoundIndexAndASameServerIdThatUpdatesTheCountsOnly) {
    for (uint16_t id = 1; id <= 1036; ++id)
        add(id);
    define_debug_level("proxy", "pkt");
    StderrCapture err;
    const uint8_t garbage[12] = {0x00, 0x77};
    const dp_peer_addr client{};
    EXPECT_EQ(handle_dns_query(DPXY_SRC_CLIENT, "", 0, &client, garbage, sizeof garbage), -2);
    EXPECT_EQ(without_lines(err.text()),
              "DPMAIN handle_dns_query: client_id=0x77 dropped for reach max pcbs\n");
    EXPECT_EQ(dp_stats.max_pcb_list_reach, 1u);
    for (uint16_t id = 1; id <= 1036; ++id)
        ASSERT_EQ(dpxy_find_pcb(id)->server_id, id);
    remove_proxy_ctrlblk(dpxy_find_pcb(12));
    EXPECT_EQ(dpxy_find_pcb(12), nullptr);
    EXPECT_NE(dpxy_find_pcb(12 + 1024), nullptr); // the same index bucket, still found
    EXPECT_EQ(dpxy_pcb_count(), 1035u);
    const dpxy_pcb not_forwarded{.server_id = 2000};
    EXPECT_EQ(add_proxy_ctrlblk(&not_forwarded, -1), -1);
    EXPECT_EQ(dpxy_find_pcb(2000), nullptr);
    clock.advance(3);
    add(9, DPXY_SRC_CLIENT, 1, 5);
    EXPECT_EQ(dpxy_pcb_count(), 1035u);
    EXPECT_EQ(dpxy_find_pcb(9)->query_count, 5);
    EXPECT_EQ(dpxy_find_pcb(9)->response_count, 1);
    EXPECT_EQ(dpxy_find_pcb(9)->expiry, 5005u);
}

TEST_F(Pcbs, StorageHoldsAnswersUpToTheLargestMessage) {
    add(7);
    dpxy_pcb* p = dpxy_find_pcb(7);
    for (const uint16_t len : {2048, 12, 600, 2048, 100}) { // out of the pcb's own block and back
        const std::string msg(len, static_cast<char>('a' + len % 26));
        ASSERT_TRUE(dpxy_pcb_store(p, reinterpret_cast<const uint8_t*>(msg.data()), len));
        EXPECT_EQ(std::string(p->pkt, p->pkt + p->pkt_len), msg);
    }
    const std::string too_long(2049, 'x');
    EXPECT_FALSE(dpxy_pcb_store(p, reinterpret_cast<const uint8_t*>(too_long.data()), 2049));
    EXPECT_EQ(p->pkt_len, 100);
}

TEST_F(Pcbs, ExpiryInCreationOrderSendsOnlyHeldClientAnswers) {
    add(1, DPXY_SRC_CLIENT, 1);
    add(2, DPXY_SRC_LOCAL, 1);
    clock.advance(1);
    add(3);
    dpsvr_get_server_set(DPSVR_V4_HSI)->primaryDnsActive = 1;
    define_debug_level("proxy", "pkt");
    StderrCapture err;
    clock.advance(4); // the first two are due, the third a second later
    handle_expired_query();
    EXPECT_EQ(dpxy_pcb_count(), 1u);
    EXPECT_NE(dpxy_find_pcb(3), nullptr);
    clock.advance(1);
    handle_expired_query();
    EXPECT_EQ(dpxy_pcb_count(), 0u);
    EXPECT_EQ(
        without_lines(err.text()),
        "DPMAIN handle_expired_query: timeout to send rsp client_id=0xfffe server_id=0x1\n"
        "DPMAIN handle_expired_query: timeout(5005) to remove pcb client_id=0xfffe server_id=0x1\n"
        "DPMAIN handle_expired_query: timeout(5005) to remove pcb client_id=0xfffd server_id=0x2\n"
        "DPMAIN handle_expired_query: timeout(5006) to remove pcb client_id=0xfffc server_id=0x3\n");
    EXPECT_EQ(dp_stats.send_packet_error, 1u); // the one held answer was sent (no client socket)
    EXPECT_EQ(dpsvr_get_server_set(DPSVR_V4_HSI)->primaryDnsActive, 0);
    EXPECT_EQ(dpxy_timed_out_count(), 3u);
}

} // namespace
