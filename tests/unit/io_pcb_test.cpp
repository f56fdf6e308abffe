#include <gtest/gtest.h>

#include <cstring>
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
    // Sends len bytes 0xAB from a fresh socket bound to the IPv6 address from to port 53 of
    // loopback in the same family.
    static void send_from(const char* from, size_t len) {
        sockaddr_in6 src{AF_INET6, 0, 0, {}, 0};
        sockaddr_in6 to{AF_INET6, htons(53), 0, {}, 0};
        inet_pton(AF_INET6, from, &src.sin6_addr);
        inet_pton(AF_INET6, std::strchr(from, '.') ? "::ffff:127.0.0.1" : "::1", &to.sin6_addr);
        const int fd = socket(AF_INET6, SOCK_DGRAM, 0);
        bind(fd, reinterpret_cast<sockaddr*>(&src), sizeof src);
        const std::vector<uint8_t> buf(len, 0xAB);
        sendto(fd, buf.data(), len, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
        close(fd);
    }
    TempRoot root;
};

TEST_F(Sockets, ReadLimitsPeerKindsAndTraces) {
    dpcfg_init();
    create_client_socket();
    ASSERT_GE(dpio_get_client_fd(), 0);
    const struct {
        size_t len;
        int ret;
    } cases[] = {{12, 1}, {11, -3}, {1024, 1}, {1025, -5}, {1500, -5}};
    for (const auto& c : cases)
        send_from("::ffff:127.0.0.7", c.len);
    uint8_t buf[2048];
    dp_peer_addr peer{};
    uint16_t len = 0;
    for (const auto& c : cases) {
        define_debug_level("io", c.len == 12 ? "pkt" : "none");
        define_debug_level("io", c.len == 12 ? "io" : "none");
        StderrCapture err;
        EXPECT_EQ(dpio_read_packet(dpio_get_client_fd(), &peer, buf, sizeof buf, &len), c.ret)
            << c.len;
        EXPECT_EQ(len, std::min<size_t>(c.len, 1025));
        EXPECT_EQ(peer.kind, DPIO_PEER_IPV4);
        char text[64];
        EXPECT_STREQ(inet_ntop(AF_INET6, peer.addr, text, sizeof text), "::ffff:127.0.0.7");
        if (c.len != 12) continue;
        EXPECT_EQ(without_lines(err.text()),
                  "DPIO   dpio_read_packet: rcv sock=" + std::to_string(dpio_get_client_fd()) +
                      " id=0xabab len=12 sip=::ffff:127.0.0.7 sport=" + std::to_string(peer.port) +
                      " skType=1\nrcv dns(012): ab ab ab ab ab ab ab ab ab ab ab ab\n");
    }
    define_debug_mode(0);
    EXPECT_EQ(dpio_read_packet(dpio_get_client_fd(), &peer, buf, sizeof buf, &len), 0); // drained
    EXPECT_EQ(dp_stats.packet_len_too_short, 1u);
    EXPECT_EQ(dp_stats.packet_len_too_long, 2u);
    EXPECT_EQ(dp_stats.recv_packet_error, 0u);
    send_from("::1", 40);
    EXPECT_EQ(dpio_read_packet(dpio_get_client_fd(), &peer, buf, sizeof buf, &len), 1);
    EXPECT_EQ(peer.kind, DPIO_PEER_IPV6);
    const uint8_t reply[12] = {0xAB, 0xCD}; // back to the address exactly as received
    EXPECT_EQ(send_packet_x(&peer, reply, sizeof reply), 12);
}

TEST_F(Sockets, ServerPortDrawnFromTheRangeAndRenewedInPlace) {
    const struct {
        uint32_t start, end, lo, hi;
    } cases[] = {
        {41000, 41000, 41000, 41000},
        {41000, 41001, 41000, 41000},
        {41010, 41005, 41010, 41010}, // start alone
        {42000, 42100, 42000, 42099}, // end never drawn
    };
    for (const auto& c : cases) {
        root.write("/etc/flipla.conf", "ServerSocketSrcPortStart=" + std::to_string(c.start) +
                                           "\nServerSocketSrcPortEnd=" + std::to_string(c.end) +
                                           "\n");
        dpcfg_init();
        const int fd = dpio_create_server_socket();
        ASSERT_GE(fd, 0);
        EXPECT_GE(dpio_get_server_port(), c.lo);
        EXPECT_LE(dpio_get_server_port(), c.hi);
        close(fd);
    }
    root.write("/etc/flipla.conf",
               "ServerSocketSrcPortStart=43000\nServerSocketSrcPortEnd=43002\n");
    dpcfg_init();
    create_client_socket();
    const int fd = dpio_get_server_fd();
    const uint16_t first = dpio_get_server_port();
    ASSERT_EQ(dpio_renew_server_socket(), 0); // the old socket still holds its port
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
        define_debug_mode(0);
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
    static dpxy_pcb image(uint16_t server_id, int16_t source = DPXY_SRC_CLIENT,
                          uint8_t responses = 0) {
        dpxy_pcb p{};
        p.server_id = server_id;
        p.client_id = static_cast<uint16_t>(server_id ^ 0xFFFF);
        p.source = source;
        p.query_count = 2;
        p.response_count = responses;
        p.pkt_len = 12;
        p.edns_mode = DPXY_EDNS_NONE;
        return p;
    }
    TempRoot root;
    DrivenClock clock{5000};
};

TEST_F(Pcbs, BoundIndexAndASameServerIdThatUpdatesTheCountsOnly) {
    for (uint32_t i = 1; i <= 1036; ++i) {
        const dpxy_pcb p = image(static_cast<uint16_t>(i));
        ASSERT_EQ(add_proxy_ctrlblk(&p, 0), 0);
        if (i != 1035) continue;
        // 1035 pcbs: a query still passes the bound (it fails later, as garbage).
        const uint8_t garbage[12] = {0x00, 0x77};
        const dp_peer_addr client{};
        EXPECT_NE(handle_dns_query(DPXY_SRC_CLIENT, "", 0, &client, garbage, sizeof garbage), -2);
        EXPECT_EQ(dp_stats.max_pcb_list_reach, 0u);
    }
    EXPECT_EQ(dpxy_pcb_count(), 1036u);
    define_debug_level("proxy", "pkt");
    StderrCapture err;
    const uint8_t garbage[12] = {0x00, 0x77};
    const dp_peer_addr client{};
    EXPECT_EQ(handle_dns_query(DPXY_SRC_CLIENT, "", 0, &client, garbage, sizeof garbage), -2);
    EXPECT_EQ(without_lines(err.text()),
              "DPMAIN handle_dns_query: client_id=0x77 dropped for reach max pcbs\n");
    EXPECT_EQ(dp_stats.max_pcb_list_reach, 1u);
    for (uint32_t i = 1; i <= 1036; ++i)
        ASSERT_EQ(dpxy_find_pcb(static_cast<uint16_t>(i))->server_id, i);
    remove_proxy_ctrlblk(dpxy_find_pcb(12));
    EXPECT_EQ(dpxy_find_pcb(12), nullptr);
    EXPECT_NE(dpxy_find_pcb(12 + 1024), nullptr); // the same index bucket, still found
    EXPECT_EQ(dpxy_pcb_count(), 1035u);
    const dpxy_pcb not_forwarded = image(2000);
    EXPECT_EQ(add_proxy_ctrlblk(&not_forwarded, -1), -1);
    EXPECT_EQ(dpxy_find_pcb(2000), nullptr);
    clock.advance(3);
    dpxy_pcb again = image(9);
    again.query_count = 5;
    again.response_count = 1;
    add_proxy_ctrlblk(&again, 0);
    EXPECT_EQ(dpxy_pcb_count(), 1035u);
    const dpxy_pcb* p = dpxy_find_pcb(9);
    EXPECT_EQ(p->query_count, 5);
    EXPECT_EQ(p->response_count, 1);
    EXPECT_EQ(p->expiry, 5005u);
}

TEST_F(Pcbs, ExpiryInCreationOrderSendsOnlyHeldClientAnswers) {
    const dpxy_pcb held = image(1, DPXY_SRC_CLIENT, 1);
    const dpxy_pcb internal = image(2, DPXY_SRC_LOCAL, 1);
    add_proxy_ctrlblk(&held, 0);
    add_proxy_ctrlblk(&internal, 0);
    clock.advance(1);
    const dpxy_pcb empty = image(3);
    add_proxy_ctrlblk(&empty, 0);
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

TEST_F(Pcbs, HeldAnswerLeavesAsStoredWhileItsEdnsFixRunsOnACopy) {
    if (!enter_private_network()) GTEST_SKIP() << "needs root for a private network namespace";
    create_client_socket();
    UdpPeer client("127.0.0.20", 5353);
    ASSERT_TRUE(client.ok());
    // An empty answer still carrying the proxy's own OPT record with the client-MAC option.
    const std::string wire = std::string("\0\7\x81\x80\0\1\0\0\0\0\0\1\1a\4test\0\0\1\0\1"
                                         "\0\0\x29\2\x0B\0\0\0\0\0\x15\xFE\x31\0\x11",
                                         39) +
                             "02:00:00:00:00:10";
    const std::vector<uint8_t> held(wire.begin(), wire.end());
    dpxy_pcb p = image(7, DPXY_SRC_CLIENT, 1);
    p.edns_mode = DPXY_EDNS_STRIP;
    p.pkt_len = static_cast<uint16_t>(held.size());
    std::memcpy(p.pkt, held.data(), held.size());
    p.client.sa = {AF_INET6, htons(5353), 0, {}, 0}; // the answer goes where the query came from
    inet_pton(AF_INET6, "::ffff:127.0.0.20", &p.client.sa.sin6_addr);
    add_proxy_ctrlblk(&p, 0);
    dpcfg_set_edns(1);
    define_debug_level("proxy", "pkt");
    StderrCapture err;
    clock.advance(5);
    handle_expired_query();
    dpio_close_sockets();
    EXPECT_NE(err.text().find("dpOpt41Strip Enter..\n"), std::string::npos); // the fix ran
    const auto got = client.received();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0], held); // and the stored answer left unchanged
}

} // namespace
