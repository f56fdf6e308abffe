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

// ---- sockets ----------------------------------------------------------------------------------

class Sockets : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!enter_private_network()) GTEST_SKIP() << "needs root for a private network namespace";
        define_debug_mode(0);
        dp_stats = {};
    }
    void TearDown() override { dpio_close_sockets(); }
    // Sends len bytes from a fresh socket bound to from_addr to the client socket on port 53.
    void send_from(const char* from_addr, size_t len, bool v6 = false) {
        std::vector<uint8_t> buf(len, 0xAB);
        const int fd = socket(v6 ? AF_INET6 : AF_INET, SOCK_DGRAM, 0);
        if (v6) {
            sockaddr_in6 to{};
            to.sin6_family = AF_INET6;
            to.sin6_port = htons(53);
            inet_pton(AF_INET6, from_addr, &to.sin6_addr);
            sendto(fd, buf.data(), len, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
        } else {
            sockaddr_in src{};
            src.sin_family = AF_INET;
            inet_pton(AF_INET, from_addr, &src.sin_addr);
            bind(fd, reinterpret_cast<sockaddr*>(&src), sizeof src);
            sockaddr_in to{};
            to.sin_family = AF_INET;
            to.sin_port = htons(53);
            inet_pton(AF_INET, "127.0.0.1", &to.sin_addr);
            sendto(fd, buf.data(), len, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
        }
        close(fd);
    }
    TempRoot root;
};

TEST_F(Sockets, ReadLimitsAndPeerKinds) {
    dpcfg_init();
    create_client_socket();
    ASSERT_GE(dpio_get_client_fd(), 0);
    struct {
        size_t len;
        int ret;
    } cases[] = {{11, -3}, {12, 1}, {1024, 1}, {1025, -5}, {1500, -5}};
    for (const auto& c : cases)
        send_from("127.0.0.7", c.len);
    uint8_t buf[2048];
    for (const auto& c : cases) {
        dp_peer_addr peer{};
        uint16_t len = 0;
        EXPECT_EQ(dpio_read_packet(dpio_get_client_fd(), &peer, buf, sizeof buf, &len), c.ret)
            << c.len;
        EXPECT_EQ(len, std::min<size_t>(c.len, 1025));
        EXPECT_EQ(peer.kind, DPIO_PEER_IPV4);
        char text[64];
        inet_ntop(AF_INET6, peer.addr, text, sizeof text);
        EXPECT_STREQ(text, "::ffff:127.0.0.7");
    }
    uint16_t len = 0;
    dp_peer_addr peer{};
    EXPECT_EQ(dpio_read_packet(dpio_get_client_fd(), &peer, buf, sizeof buf, &len), 0); // drained
    EXPECT_EQ(dp_stats.packet_len_too_short, 1u);
    EXPECT_EQ(dp_stats.packet_len_too_long, 2u);
    EXPECT_EQ(dp_stats.recv_packet_error, 0u);

    send_from("::1", 40, true);
    EXPECT_EQ(dpio_read_packet(dpio_get_client_fd(), &peer, buf, sizeof buf, &len), 1);
    EXPECT_EQ(peer.kind, DPIO_PEER_IPV6);

    // An answer goes back to the address exactly as received.
    const uint8_t reply[12] = {0xAB, 0xCD};
    EXPECT_EQ(send_packet_x(&peer, reply, sizeof reply), 12);
}

TEST_F(Sockets, ReceiveAndSendTracesUnderThePktAndIoBits) {
    dpcfg_init();
    create_client_socket();
    define_debug_level("io", "pkt");
    define_debug_level("io", "io");
    send_from("127.0.0.9", 12);
    StderrCapture err;
    uint8_t buf[2048];
    dp_peer_addr peer{};
    uint16_t len = 0;
    dpio_read_packet(dpio_get_client_fd(), &peer, buf, sizeof buf, &len);
    define_debug_mode(0);
    const std::string text = err.text();
    EXPECT_NE(text.find("rcv sock=" + std::to_string(dpio_get_client_fd()) +
                        " id=0xabab len=12 sip=::ffff:127.0.0.9 sport=" +
                        std::to_string(peer.port) + " skType=1\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("rcv dns(012): ab ab ab ab ab ab ab ab ab ab ab ab\n"), std::string::npos)
        << text;
}

TEST_F(Sockets, ServerPortDrawnFromTheRange) {
    struct {
        const char* conf;
        uint32_t lo, hi;
    } cases[] = {
        {"ServerSocketSrcPortStart=41000\nServerSocketSrcPortEnd=41000\n", 41000, 41000},
        {"ServerSocketSrcPortStart=41000\nServerSocketSrcPortEnd=41001\n", 41000, 41000},
        {"ServerSocketSrcPortStart=41010\nServerSocketSrcPortEnd=41005\n", 41010,
         41010}, // start alone
        {"ServerSocketSrcPortStart=42000\nServerSocketSrcPortEnd=42100\n", 42000,
         42099}, // end never drawn
    };
    for (const auto& c : cases) {
        root.write("/etc/flipla.conf", c.conf);
        dpcfg_init();
        const int fd = dpio_create_server_socket();
        ASSERT_GE(fd, 0);
        EXPECT_GE(dpio_get_server_port(), c.lo);
        EXPECT_LE(dpio_get_server_port(), c.hi);
        sockaddr_in6 sa{};
        socklen_t sl = sizeof sa;
        getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &sl);
        EXPECT_EQ(ntohs(sa.sin6_port), dpio_get_server_port());
        close(fd);
    }
}

TEST_F(Sockets, BusyPortIsRetriedOnTheNextOneAndRenewalKeepsTheDescriptor) {
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
        clock.advance(100);
        handle_expired_query();
        dpxy_reset_timed_out_count();
    }
    dpxy_pcb image(uint16_t server_id, int16_t source = DPXY_SRC_CLIENT, uint8_t responses = 0) {
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

TEST_F(Pcbs, BoundAndIndexOverAFullTable) {
    for (uint32_t i = 1; i <= 1035; ++i) {
        const dpxy_pcb p = image(static_cast<uint16_t>(i));
        ASSERT_EQ(add_proxy_ctrlblk(&p, 0), 0);
    }
    const dpxy_pcb last = image(1036);
    add_proxy_ctrlblk(&last, 0);
    EXPECT_EQ(dpxy_pcb_count(), 1036u);
    // A full table drops the query before it is even parsed.
    define_debug_level("proxy", "pkt");
    StderrCapture err;
    const uint8_t garbage[12] = {0x00, 0x77};
    const dp_peer_addr client{};
    EXPECT_EQ(handle_dns_query(DPXY_SRC_CLIENT, "", 0, &client, garbage, sizeof garbage), -2);
    define_debug_mode(0);
    EXPECT_NE(err.text().find("DPMAIN handle_dns_query:"), std::string::npos);
    EXPECT_NE(err.text().find("client_id=0x77 dropped for reach max pcbs\n"), std::string::npos);
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
}

TEST_F(Pcbs, SameServerIdUpdatesCountsButNotExpiry) {
    const dpxy_pcb first = image(9);
    add_proxy_ctrlblk(&first, 0);
    clock.advance(3);
    dpxy_pcb again = image(9);
    again.query_count = 5;
    again.response_count = 1;
    add_proxy_ctrlblk(&again, 0);
    EXPECT_EQ(dpxy_pcb_count(), 1u);
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
    define_debug_mode(0);
    EXPECT_EQ(dpxy_pcb_count(), 0u);
    // Source lines aside, exactly these lines in this order.
    EXPECT_EQ(
        std::regex_replace(err.text(), std::regex(":[0-9]+ "), ": "),
        "DPMAIN handle_expired_query: timeout to send rsp client_id=0xfffe server_id=0x1\n"
        "DPMAIN handle_expired_query: timeout(5005) to remove pcb client_id=0xfffe server_id=0x1\n"
        "DPMAIN handle_expired_query: timeout(5005) to remove pcb client_id=0xfffd server_id=0x2\n"
        "DPMAIN handle_expired_query: timeout(5006) to remove pcb client_id=0xfffc server_id=0x3\n");
    EXPECT_EQ(dp_stats.send_packet_error,
              1u); // the one held answer was sent (no client socket here)
    EXPECT_EQ(dpsvr_get_server_set(DPSVR_V4_HSI)->primaryDnsActive, 0);
    EXPECT_EQ(dpxy_timed_out_count(), 3u);
}

TEST_F(Pcbs, HeldAnswerLeavesAsStoredWhileItsEdnsFixRunsOnACopy) {
    if (!enter_private_network()) GTEST_SKIP() << "needs root for a private network namespace";
    create_client_socket();
    UdpPeer client("127.0.0.20", 5353);
    ASSERT_TRUE(client.ok());
    // An empty answer still carrying the proxy's own OPT record with the client-MAC option.
    const std::vector<uint8_t> held = {
        0x00, 0x07, 0x81, 0x80, 0,   1,   0,   0,    0,    0,   0,   1,   1,   'a',
        4,    't',  'e',  's',  't', 0,   0,   1,    0,    1,   0,   0,   41,  0x02,
        0x0B, 0,    0,    0,    0,   0,   21,  0xFE, 0x31, 0,   17,  '0', '2', ':',
        '0',  '0',  ':',  '0',  '0', ':', '0', '0',  ':',  '0', '0', ':', '1', '0'};
    dpxy_pcb p = image(7, DPXY_SRC_CLIENT, 1);
    p.edns_mode = DPXY_EDNS_STRIP;
    p.pkt_len = static_cast<uint16_t>(held.size());
    std::memcpy(p.pkt, held.data(), held.size());
    p.client.kind = DPIO_PEER_IPV4;
    inet_pton(AF_INET6, "::ffff:127.0.0.20", p.client.addr);
    p.client.port = 5353;
    p.client.sa.sin6_family = AF_INET6;
    p.client.sa.sin6_port = htons(5353);
    std::memcpy(&p.client.sa.sin6_addr, p.client.addr, 16);
    add_proxy_ctrlblk(&p, 0);
    dpcfg_set_edns(1);
    define_debug_level("proxy", "pkt");
    StderrCapture err;
    clock.advance(5);
    handle_expired_query();
    define_debug_mode(0);
    dpio_close_sockets();
    EXPECT_NE(err.text().find("dpOpt41Strip Enter..\n"), std::string::npos); // the fix ran
    const auto got = client.received();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0], held); // and the stored answer left unchanged
}

} // namespace
