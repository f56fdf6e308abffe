// The DNS codec: names, the message index, the answer scan, and the messages the proxy builds.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "ctrl/dp_trace.h"
#include "endec/dpendec.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Msg = DnsMsg;
const Bytes kV6{0x20, 1, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}; // 2001:db8::1

// A response header and one question; the answers follow through the returned message.
Msg response(const char* qname, int qtype, int answers) {
    return std::move(Msg(0x8180, 1, answers, 0, 0).q(qname, qtype));
}

// A dotted name of exactly that many characters, in labels of at most 63.
std::string dotted(size_t chars) {
    std::string name(chars, 'x');
    for (size_t dot = 63; dot < chars; dot += 64)
        name[dot] = '.';
    return name;
}

class Endec : public ::testing::Test {
  protected:
    void TearDown() override { trace(0); }
    static void trace(uint32_t mask) {
        dp_debug_tbl.modules[DP_MOD_ENDEC].level_mask = mask;
        dp_debug_tbl.timestamp = 0;
    }
    static int parse(const Msg& m, msginf& inf) {
        return dpendec_compose_dns_msg_inf(m.b.data(), m.len(), &inf);
    }
    static Bytes contents(const dns_pkt& pkt) { return Bytes(pkt.buf, pkt.buf + pkt.len); }
    static dns_pkt packet(const Msg& m) {
        dns_pkt pkt{};
        std::copy(m.b.begin(), m.b.end(), pkt.buf);
        pkt.len = m.len();
        EXPECT_EQ(1, parse(m, pkt.inf));
        return pkt;
    }
};

TEST_F(Endec, NamesMeasuredDecodedAndEncoded) {
    // Wire name; compute_dname_len's result and length; the decoder's result and text.
    const std::tuple<Bytes, int, uint16_t, int, const char*> cases[] = {
        {{0}, 0, 1, 0, ""},
        {{3, 'w', 'w', 'w', 1, 'x', 0, 0xEE}, 0, 7, 0, "www.x"},
        {{1, 'a', 0xC0, 0x05, 0, 1, 'b', 0}, 1, 4, 0, "a.b"},
        {{3, 'a', 'b'}, -3, 0, -2, nullptr},     // label cut short
        {{2, 'a', 'b'}, -3, 0, -1, nullptr},     // label fits, zero byte missing
        {{1, 'a', 0x40, 0}, -2, 0, -6, nullptr}, // extended label types 64..191
        {{0xBF, 0}, -2, 0, -6, nullptr},
        {{1, 'a', 0xC0}, -1, 0, -5, nullptr}, // pointer cut off by the end
        {{0xC0, 0x09}, 1, 2, -1, nullptr},    // pointer past the message
    };
    char text[256];
    for (const auto& [wire, measured, want_len, decoded, want] : cases) {
        const uint8_t* p = wire.data();
        const auto n = static_cast<uint16_t>(wire.size());
        uint16_t len = 99;
        EXPECT_EQ(measured, compute_dname_len(p, p + n, &len)) << testing::PrintToString(wire);
        EXPECT_EQ(measured >= 0 ? want_len : 0, len);
        EXPECT_EQ(decoded, dpendec_parse_domain_name(p, p, n, text, sizeof text));
        EXPECT_STREQ(want != nullptr ? want : text, text);
    }
    // 64 pointers are followed, the 65th is not; a pointer to itself ends the same way.
    Bytes m = {1, 'x', 0, 0xC0, 0}; // "x" at 0, then 65 pointers, each to the one before it
    for (int i = 1; i < 65; ++i)
        m.insert(m.end(), {0xC0, static_cast<uint8_t>(1 + 2 * i)});
    const uint8_t* p = m.data();
    EXPECT_EQ(0, dpendec_parse_domain_name(p + 3 + 2 * 63, p, 133, text, 256));
    EXPECT_STREQ("x", text);
    EXPECT_EQ(-4, dpendec_parse_domain_name(p + 3 + 2 * 64, p, 133, text, 256));
    EXPECT_EQ(-4, dpendec_parse_domain_name(p + 3, p + 3, 2, text, 256));
    // Room in the output for the name and its NUL: 253 characters fit 255 bytes, 254 do not.
    for (size_t chars : {253, 254}) {
        const std::string name = dotted(chars);
        Msg w(0, 0, 0, 0, 0);
        w.b.clear();
        w.name(name.c_str());
        EXPECT_EQ(chars == 253 ? 0 : -3,
                  dpendec_parse_domain_name(w.b.data(), w.b.data(), w.len(), text, 255));
        EXPECT_TRUE(chars != 253 || name == text);
    }
    uint8_t out[256];
    for (auto [name, want] : {std::pair{"a.b.", Bytes{1, 'a', 1, 'b', 0}},
                              {"a.b", {1, 'a', 1, 'b', 0}},
                              {"", {0}},
                              {"a..b", {1, 'a', 0, 1, 'b', 0}}}) {
        EXPECT_EQ(static_cast<int>(want.size()), compose_dname(name, out)) << name;
        EXPECT_EQ(want, Bytes(out, out + want.size())) << name;
    }
    EXPECT_EQ(0, compose_dname(std::string(255, 'a').c_str(), out));
    EXPECT_EQ(Bytes(256, 0), Bytes(out, out + 256));
    const dns_header h{0x0102, 0x8180, 1, 2, 3, 0xFFFF};
    EXPECT_EQ(-1, compose_dns_header(&h, out, 11));
    EXPECT_EQ(Bytes(256, 0), Bytes(out, out + 256));
}

// Cut on either side of each section's end, a message fails with that section's code; bytes after
// the records are ignored.
TEST_F(Endec, MessageIndex) {
    Msg m(0x8180, 1, 1, 1, 1);
    m.q("ab.c", 1).an(1, 60, {1, 2, 3, 4}).rr({2, 'n', 's', 0}, 2, 60, {1, 'n', 0}).opt().u16(0);
    const int cuts[] = {11, 21, 22, 37, 38, 54, 55, 65, 66, 68};
    const int rets[] = {-15, -1, -2, -2, -3, -3, -2, -2, 1, 1};
    msginf inf;
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(rets[i], dpendec_compose_dns_msg_inf(m.b.data(), cuts[i], &inf)) << cuts[i];

    // 40 answers, 2 authority and 3 additional records: all walked, the first ones indexed.
    Msg big(0x8180, 1, 40, 2, 3);
    big.q("a", 1);
    for (int i = 0; i < 45; ++i)
        i < 40 ? big.an(5, 60, {0}) : i < 42 ? big.an(2, 60, {0}) : big.opt();
    ASSERT_EQ(1, parse(big, inf));
    EXPECT_EQ((std::vector<int>{19, 19 + 31 * 13, 19 + 40 * 13, 1, 32, 1, 1}),
              (std::vector<int>{inf.offsetof1stanRR, inf.an[31].offset, inf.ns.offset, inf.qd_num,
                                inf.an_num, inf.ns_num, inf.ar_num}));
    big.b[19 + 34 * 13] = 0x40; // the 35th answer's owner
    trace(DP_DETAIL);
    StderrCapture cap;
    EXPECT_EQ(-2, parse(big, inf));
    EXPECT_EQ(-15, parse(Msg(0, 0, 0, 0, 0), inf));
    EXPECT_NE(std::string::npos, cap.text().find(" anidx=34 ret=-1\n"));
    EXPECT_NE(std::string::npos, cap.text().find(" dec head ret=-76\n")); // qdcount 0
}

TEST_F(Endec, AnswerScanAndReverseNames) {
    const std::tuple<Msg, const char*, const char*, int> cases[] = {
        // A CNAME is skipped by type; the first A gives address and TTL.
        {response("a", 1, 3).an(5, 7, {0}).an(1, 300, {10, 0, 0, 1}).an(1, 400, {10, 0, 0, 2}), "a",
         "10.0.0.1", 300},
        // A first A record of the wrong size ends the scan: no address, its TTL.
        {response("a", 1, 2).an(1, 30, {1, 2, 3, 4, 5}).an(1, 40, {1, 2, 3, 4}), "a", "", 30},
        {response("a", 28, 1).an(28, 9, kV6), "a", "2001:db8::1", 9},
        // PTR: an undecodable target empties the name and the next answer is tried.
        {response("4.3.2.1.in-addr.arpa", 12, 2)
             .an(12, 5, {0x41, 0})
             .an(12, 6, {2, 'g', 'w', 0xC0, 12}),
         "gw.4.3.2.1.in-addr.arpa", "1.2.3.4", 6},
    };
    for (const auto& [m, name, hostaddr, ttl] : cases) {
        msginf inf;
        ASSERT_EQ(1, parse(m, inf));
        EXPECT_EQ(std::string(name) + "|" + hostaddr + "|" + std::to_string(ttl),
                  std::string(inf.name) + "|" + inf.hostaddr + "|" + std::to_string(inf.ttl));
    }
    // Reverse names: the address they spell, when they spell one.
    const char* names[] = {"10.1.168.192.in-addr.arpa", "9.4.3.2.1.in-addr.arpa",
                           "1.168.192.in-addr.arpa", "256.1.168.192.in-addr.arpa"};
    const char* addrs[] = {"192.168.1.10", "1.2.3.4", "", ""};
    for (int i = 0; i < 4; ++i) {
        msginf inf;
        ASSERT_EQ(1, parse(Msg(0x0100, 1, 0, 0, 0).q(names[i], 12), inf));
        EXPECT_STREQ(addrs[i], inf.hostaddr) << names[i];
    }
    // The address list: answer order, the lowest TTL, and commas not charged to the budget.
    Msg r = response("a", 1, 4);
    r.an(1, 300, {1, 1, 1, 1}).an(1, 60, {2, 2, 2, 2});
    r.an(1, 10, {1, 2, 3}).an(1, 120, {3, 3, 3, 3});
    dns_pkt pkt = packet(r);
    int32_t ttl = 0;
    char out[256 + DPENDEC_IPSTRS_SLACK];
    for (uint32_t budget : {256, 22, 21}) { // 21: 7 + 7 leaves exactly 7, not enough
        EXPECT_EQ(1, dpendec_compose_ipstrs(&pkt, &ttl, out, budget));
        EXPECT_STREQ(budget == 21 ? "1.1.1.1,2.2.2.2" : "1.1.1.1,2.2.2.2,3.3.3.3", out);
        EXPECT_EQ(10, ttl); // the short record has no address, but its TTL counts
    }
}

TEST_F(Endec, LocalAnswersAreByteExact) {
    // AA and RCODE cleared, QR and RA set, opcode, RD and Z kept; the OPT record goes.
    const Msg query = Msg(0x0533, 1, 0, 0, 1).q("gw.lan", 1).opt();
    const Msg answer = Msg(0x81B0, 1, 1, 0, 0).q("gw.lan", 1);
    dns_pkt pkt = packet(query);
    EXPECT_EQ(40, dpendec_compose_a_response(&pkt, "192.0.2.1"));
    EXPECT_EQ(Msg(answer).an(1, 0, {192, 0, 2, 1}).b, contents(pkt));
    // The address text read as inet_pton reads it; a text it refuses gives 0.0.0.0.
    for (const char* text : {"255.255.255.255", "0.10.0.9", "01.2.3.4", "1.2.3", "256.1.1.1",
                             "1.2.3.4.", "1..2.3", "1.2.3.4x"}) {
        uint8_t want[4] = {};
        inet_pton(AF_INET, text, want);
        pkt = packet(query);
        EXPECT_EQ(40, dpendec_compose_a_response(&pkt, text));
        EXPECT_EQ(Msg(answer).an(1, 0, Bytes(want, want + 4)).b, contents(pkt)) << text;
    }
    pkt = packet(query);
    EXPECT_EQ(-3, dpendec_compose_aaaa_response(&pkt, "zz"));
    EXPECT_EQ(query.b, contents(pkt));
    EXPECT_EQ(52, dpendec_compose_aaaa_response(&pkt, "2001:db8::1"));
    EXPECT_EQ(Msg(answer).an(28, 0, kV6).b, contents(pkt));
    pkt = packet(Msg(0x0100, 1, 0, 0, 0).q("1.2.0.192.in-addr.arpa", 12));
    EXPECT_EQ(60, dpendec_compose_ptr_response(&pkt, "gw.lan"));
    EXPECT_EQ(
        response("1.2.0.192.in-addr.arpa", 12, 1).an(12, 0, {2, 'g', 'w', 3, 'l', 'a', 'n', 0}).b,
        contents(pkt));

    pkt = packet(query);
    EXPECT_EQ(2, dpendec_compose_error_response(0x13, pkt.buf, DPENDEC_MSG_SIZE));
    Bytes refused = query.b;
    refused[2] = 0x85, refused[3] = 0xB3; // QR, RA and RCODE 3; everything else as it was
    EXPECT_EQ(refused, contents(pkt));
    uint8_t buf[64];
    EXPECT_EQ(21, dpendec_compose_query_a(buf, sizeof buf, "a.b", 0x1234));
    EXPECT_EQ(Msg(0x0100, 1, 0, 0, 0).q("a.b", 1).b, Bytes(buf, buf + 21));

    // Room for the answer in 2048 bytes: long questions up to the first answer's offset.
    for (int end : {2020, 2021, 2032, 2033}) {
        Msg q(0x0100, 9, 0, 0, 0);
        for (int i = 0; i < 9; ++i)
            q.q(dotted(i == 0 ? 1 : i < 8 ? 254 : end - 1845).c_str(), 1);
        pkt = packet(q);
        EXPECT_EQ(end <= 2032 ? end + 16 : -1, dpendec_compose_a_response(&pkt, "1.2.3.4"));
        pkt = packet(q);
        EXPECT_EQ(end <= 2020 ? end + 28 : -1, dpendec_compose_aaaa_response(&pkt, "::1"));
    }
}

TEST_F(Endec, ReplaceAndRestoreQuestionName) {
    dns_pkt pkt = packet(Msg(0x0100, 1, 0, 0, 1).q("www.example.com", 1).opt());
    dpendec_replace_qname(&pkt, "cdn.net");
    // Header and counts unchanged, the new name, TYPE and CLASS; the OPT record's place is cleared.
    EXPECT_EQ(Msg(0x0100, 1, 0, 0, 1).q("cdn.net", 1).raw(Bytes(11, 0)).b, contents(pkt));
    EXPECT_EQ(9, pkt.inf.qd.name_len);
    for (int rdlen : {984, 985}) { // the new message would be 1024 bytes, or 1025: left alone
        const Msg big = Msg(0x0100, 1, 0, 0, 1).q("a", 1).opt(1, Bytes(rdlen, 0));
        pkt = packet(big);
        dpendec_replace_qname(&pkt, "longer.name");
        EXPECT_EQ(rdlen == 984 ? 1024 : big.len(), pkt.len);
    }

    // The CNAME, authority and additional records go; an owner 0xC0xx now points at the question.
    Msg r(0x8180, 1, 4, 1, 1);
    r.q("cdn.net", 1).an(5, 10, {3, 'c', 'd', 'n', 3, 'n', 'e', 't', 0}).an(1, 20, {1, 1, 1, 1});
    r.rr({1, 'x', 0}, 1, 30, {2, 2, 2, 2}).rr({0xC0, 0xFF}, 1, 40, {3, 3, 3, 3});
    r.an(2, 60, {0}).opt();
    pkt = packet(r);
    dpendec_restore_qname(&pkt, "www.example.com");
    Msg want = response("www.example.com", 1, 3).an(1, 20, {1, 1, 1, 1});
    EXPECT_EQ(want.rr({1, 'x', 0}, 1, 30, {2, 2, 2, 2}).an(1, 40, {3, 3, 3, 3}).b, contents(pkt));
}

} // namespace
