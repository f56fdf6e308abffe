// OPT record checks, the payload rules and the client-MAC option on real messages.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "ctrl/dp_trace.h"
#include "edns/dpedns.h"
#include "server/dpsvr.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr char kMac[] = "02:00:5E:AB:CD:10";
const Bytes kOption = {0xFE, 0x31, 0,   17,  '0', '2', ':', '0', '0', ':', '5',
                       'E',  ':',  'A', 'B', ':', 'C', 'D', ':', '1', '0'}; // the client-MAC option

Bytes with_mac(Bytes options) {
    options.insert(options.end(), kOption.begin(), kOption.end());
    return options;
}
// A query for www.example.com A, with records appended through the returned message.
DnsMsg query(int an = 0, int ar = 0) {
    return std::move(DnsMsg(0x0100, 1, an, 0, ar).q("www.example.com", 1));
}
constexpr size_t kQueryLen = 33;
// A TXT record that brings a query with an empty OPT record to total bytes.
Bytes filler(size_t total) {
    return Bytes(total - kQueryLen - 11 - 12, 'p');
}

// A message in a heap buffer of exactly 2048 bytes, so that any access beyond it is caught,
// with its parsed view and an untouched copy for restoring.
struct Packet {
    std::unique_ptr<uint8_t[]> buf{new uint8_t[DPENDEC_MSG_SIZE]};
    uint16_t len;
    msginf inf{};
    dns_pkt backup{};
    explicit Packet(const DnsMsg& m) : len(m.len()) {
        std::memcpy(buf.get(), m.b.data(), len);
        EXPECT_EQ(dpendec_compose_dns_msg_inf(buf.get(), len, &inf), 1);
        std::memcpy(backup.buf, m.b.data(), len);
        backup.len = len;
        backup.inf = inf;
    }
    Bytes bytes() const { return Bytes(buf.get(), buf.get() + len); }
    int insert(int* had_opt) {
        return dpedns_insert_mac_option(&backup, buf.get(), &len, kMac, &inf, had_opt);
    }
    int strip() { return dpedns_strip_option41(&backup, buf.get(), &len, &inf); }
    int valid() const { return dpedns_is_valid_edns_rr(buf.get(), len, &inf); }
};

class Edns : public ::testing::Test {
  protected:
    void SetUp() override { dp_debug_tbl.modules[DP_MOD_PROXY].level_mask = 0; }
    void TearDown() override { dpsvr_init_server_sets(); }
};

TEST_F(Edns, QueriesThatMayGetTheOption) {
    const std::tuple<DnsMsg, int, int> cases[] = {
        {query(), -1, 0}, // -1 from the counter is not "more than one"
        {query(0, 2).an(1, 60, {192, 0, 2, 1}).opt(1232, Bytes(224, 0)), 1, 0},
        {query(0, 1).opt(1232, Bytes(225, 0)), 1, -3}, // RDLENGTH 225
        {query(0, 3).opt(1232).an(1, 60, {1}).opt(512, Bytes(300, 0)), 2, -1},
        {query(0, 2).an(16, 60, filler(992)).opt(1232), 1, 0},
        {query(0, 2).an(16, 60, filler(993)).opt(1232), 1, -3},
        {query(0, 1).opt(1232, with_mac({0, 10, 0, 1, 7})), 1, -2}};
    for (const auto& [m, count, valid] : cases) {
        Packet p(m);
        EXPECT_EQ(get_edns_array_count(p.buf.get(), p.len, &p.inf), count) << p.len;
        EXPECT_EQ(p.valid(), valid) << p.len;
    }
    // Removing from an additional count of 0 changes nothing.
    Bytes m = query().b;
    EXPECT_EQ(modify_array_count(m.data(), static_cast<uint16_t>(m.size()), 0), -1);
    EXPECT_EQ(m, query().b);
}

TEST_F(Edns, PayloadAgainstTheServers) {
    // 1300 bytes, over the server's 1232: refused while the query advertises a size of its own;
    // advertising 0, the server's value goes in and the query is sent all the same.
    const std::tuple<DnsMsg, uint16_t, int, int> cases[] = {
        {query(0, 2).an(16, 60, filler(1300)).opt(4096), 1232, -1, 4096},
        {query(0, 2).an(16, 60, filler(1300)).opt(0), 1232, 0, 1232},
        {query(0, 1).opt(0), 544, 0, 544}};
    for (auto [m, server, ret, payload] : cases) {
        dp_debug_tbl.modules[DP_MOD_PROXY].level_mask = DP_PKT;
        StderrCapture err;
        EXPECT_EQ(dpedns_check_packet_payload(m.b.data(), m.len(), server), ret);
        dp_debug_tbl.modules[DP_MOD_PROXY].level_mask = 0;
        EXPECT_EQ(m.b[m.len() - 8] << 8 | m.b[m.len() - 7], payload);
        // The trace reports the message's length plus 8 when it is over the server's size.
        const std::string over = "Payload Exceeded Query payload is " +
                                 std::to_string(m.len() + 8) + " Server supported is " +
                                 std::to_string(server) + "\n";
        EXPECT_EQ(err.text().find(over) != std::string::npos, m.len() > server);
    }
    DnsMsg q = query();
    EXPECT_EQ(dpedns_check_packet_payload(q.b.data(), q.len(), 12), 0); // no OPT record

    // An answer's payload size: from the smallest of all servers of all sets.
    auto rewritten = [] {
        Packet p(query(0, 2).an(1, 60, {192, 0, 2, 1}).opt(4096));
        EXPECT_EQ(dpedns_update_edns_payload(p.buf.get(), p.len, &p.inf), 0);
        return p.buf[p.len - 8] << 8 | p.buf[p.len - 7]; // the payload of the OPT record
    };
    dpsvr_init_server_sets();
    EXPECT_EQ(rewritten(), 992); // no servers at all: 4096
    // The sets and the smallest size each brings in: exactly 1024, just below, 0 in the last set.
    const uint32_t sets[] = {DPSVR_V4_IPTV, DPSVR_V4_HSI, DPSVR_V6_SYSTEM, DPSVR_V4_FILTER};
    const uint16_t sizes[] = {1024, 1023, 544, 0};
    const int want[] = {992, 991, 512, 480};
    for (int i = 0; i < 4; ++i) {
        servset* set = dpsvr_get_server_set(sets[i]);
        set->num = 2;
        set->servers[0].udpMaxPayload = 4096;
        set->servers[1].udpMaxPayload = sizes[i];
        EXPECT_EQ(rewritten(), want[i]);
    }
    Packet plain(query(0, 1).an(1, 60, {192, 0, 2, 1}));
    EXPECT_EQ(dpedns_update_edns_payload(plain.buf.get(), plain.len, &plain.inf), -1);
}

TEST_F(Edns, OptionInsertedAndStripped) {
    // No OPT record: the proxy's own is appended, and taken away again from the answer.
    Packet p(query());
    int had_opt = 0;
    EXPECT_EQ(p.insert(&had_opt), 0);
    EXPECT_EQ(p.bytes(), query(0, 1).opt(523, kOption).b);
    Packet back(query(0, 1).opt(523, kOption));
    EXPECT_EQ(back.strip(), 0);
    EXPECT_EQ(back.bytes(), query().b);
    EXPECT_EQ(back.strip(), -1);
    // The client's own OPT record: the option goes inside, the payload size down to 1024.
    for (int payload : {1025, 1024}) {
        Packet c(query(0, 2).opt(payload, {0, 10, 0, 1, 7}).an(1, 60, {9}));
        EXPECT_EQ(c.insert(&had_opt), 0);
        EXPECT_EQ(c.bytes(), query(0, 2).opt(1024, with_mac({0, 10, 0, 1, 7})).an(1, 60, {9}).b);
    }
    EXPECT_EQ(had_opt, 1);
}

} // namespace
