// The DNS codec: names, the message index, the answer scan, and the messages the proxy builds.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include "ctrl/dp_trace.h"
#include "endec/dpendec.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;
const Bytes kToQname{0xC0, 0x0C};
const Bytes kV6{0x20, 1, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}; // 2001:db8::1

// One record for Msg::response: the owner is a pointer to the question name unless given.
struct Rr {
    int type, ttl;
    Bytes rdata, owner = kToQname;
};

// A message written field by field; the header's id is always 0x1234.
struct Msg {
    Bytes b;
    Msg(int flags, int qd, int an, int ns, int ar) {
        u16(0x1234).u16(flags).u16(qd).u16(an).u16(ns).u16(ar);
    }
    Msg& u8(int v) { return b.push_back(static_cast<uint8_t>(v)), *this; }
    Msg& u16(int v) { return u8(v >> 8).u8(v); }
    Msg& raw(const Bytes& v) { return b.insert(b.end(), v.begin(), v.end()), *this; }
    Msg& name(const char* text) {
        uint8_t w[256];
        return raw(Bytes(w, w + compose_dname(text, w)));
    }
    Msg& q(const char* qname, int type) { return name(qname).u16(type).u16(1); }
    Msg& rr(const Bytes& owner, int type, int ttl, const Bytes& rdata) {
        raw(owner).u16(type).u16(1).u16(ttl >> 16).u16(ttl).u16(static_cast<int>(rdata.size()));
        return raw(rdata);
    }
    Msg& an(int type, int ttl, const Bytes& rdata) { return rr(kToQname, type, ttl, rdata); }
    Msg& opt() { return rr({0}, 41, 0, {}); }
    // A response to one question with these answers.
    static Msg response(const char* qname, int qtype, const std::vector<Rr>& answers) {
        Msg m(0x8180, 1, static_cast<int>(answers.size()), 0, 0);
        m.q(qname, qtype);
        for (const auto& a : answers)
            m.rr(a.owner, a.type, a.ttl, a.rdata);
        return m;
    }
    uint16_t len() const { return static_cast<uint16_t>(b.size()); }
};

// A wire name of exactly n bytes (n >= 2): labels of at most 63 bytes, then the zero.
Bytes wire_name_of(size_t n) {
    Bytes w;
    for (size_t left = n - 1; left > 0;) {
        size_t label = std::min<size_t>(63, left - 1);
        if (left - label - 1 == 1) --label; // never leave room for only an empty label
        w.push_back(static_cast<uint8_t>(label));
        w.insert(w.end(), label, 'x');
        left -= label + 1;
    }
    w.push_back(0);
    return w;
}

class Endec : public ::testing::Test {
  protected:
    void SetUp() override { trace(0); }
    void TearDown() override { trace(0); }
    static void trace(uint32_t mask) {
        dp_debug_tbl.modules[DP_MOD_ENDEC].level_mask = mask;
        dp_debug_tbl.timestamp = 0;
    }
    // Captured output with the source line numbers taken out: "DPEDC  func: text".
    static std::string lines(StderrCapture& cap) {
        return std::regex_replace(cap.text(), std::regex(":[0-9]+ "), ": ");
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

// ---- names -----------------------------------------------------------------------------------

TEST_F(Endec, NamesMeasureAndDecodeAtEveryFault) {
    const struct {
        Bytes wire;
        int measured, len, decoded;
        const char* text;
    } cases[] = {
        {{0}, 0, 1, 0, ""},
        {{3, 'w', 'w', 'w', 1, 'x', 0, 0xEE}, 0, 7, 0, "www.x"},
        {{1, 'a', 0xC0, 0x05, 0, 1, 'b', 0}, 1, 4, 0, "a.b"},
        {{}, -3, 0, -1, nullptr},
        {{3, 'a', 'b'}, -3, 0, -2, nullptr},     // label cut short
        {{2, 'a', 'b'}, -3, 0, -1, nullptr},     // label fits, zero byte missing
        {{1, 'a', 0x40, 0}, -2, 0, -6, nullptr}, // extended label types 64..191
        {{0xBF, 0}, -2, 0, -6, nullptr},
        {{1, 'a', 0xC0}, -1, 0, -5, nullptr}, // pointer cut off by the end
        {{0xC0, 0x09}, 1, 2, -1, nullptr},    // pointer past the message
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.wire));
        const uint8_t* p = c.wire.data();
        const auto n = static_cast<uint16_t>(c.wire.size());
        uint16_t len = 99;
        char text[256] = "";
        EXPECT_EQ(c.measured, compute_dname_len(p, p + n, &len));
        EXPECT_EQ(c.measured >= 0 ? c.len : 0, len);
        EXPECT_EQ(c.decoded, dpendec_parse_domain_name(p, p, n, text, sizeof text));
        EXPECT_STREQ(c.text != nullptr ? c.text : text, text);
    }
}

TEST_F(Endec, PointerLoopsStopAfterSixtyFourPointers) {
    // "x" at offset 0, then 65 pointers, each to the one before it.
    Msg m(0, 0, 0, 0, 0);
    m.b = {1, 'x', 0, 0xC0, 0};
    for (int i = 1; i < 65; ++i)
        m.u16(0xC000 | (1 + 2 * i));
    char text[256];
    const uint8_t* p = m.b.data();
    EXPECT_EQ(0, dpendec_parse_domain_name(p + 3 + 2 * 63, p, m.len(), text, 256));
    EXPECT_STREQ("x", text);
    EXPECT_EQ(-4, dpendec_parse_domain_name(p + 3 + 2 * 64, p, m.len(), text, 256));
    EXPECT_EQ(-4, dpendec_parse_domain_name(p + 3, p + 3, 2, text, 256)); // points to itself
}

TEST_F(Endec, DecodedNameCapacity) {
    const struct {
        int chars, cap, want;
    } cases[] = {{253, 255, 0}, {254, 255, -3}, {254, 256, 0}, {255, 256, -3}};
    for (auto [chars, cap, want] : cases) {
        const Bytes w = wire_name_of(static_cast<size_t>(chars) + 2);
        char text[256] = "";
        EXPECT_EQ(want,
                  dpendec_parse_domain_name(w.data(), w.data(), static_cast<uint16_t>(w.size()),
                                            text, static_cast<uint16_t>(cap)));
        EXPECT_EQ(want == 0 ? static_cast<size_t>(chars) : strlen(text), strlen(text));
    }
    char untouched = '#';
    const uint8_t root = 0;
    EXPECT_EQ(-3, dpendec_parse_domain_name(&root, &root, 1, &untouched, 0));
    EXPECT_EQ('#', untouched);
}

TEST_F(Endec, EncodeNamesAndHeader) {
    const std::pair<const char*, Bytes> cases[] = {{"a.b.", {1, 'a', 1, 'b', 0}},
                                                   {"a.b", {1, 'a', 1, 'b', 0}},
                                                   {"", {0}},
                                                   {"a..b", {1, 'a', 0, 1, 'b', 0}}};
    uint8_t out[256];
    for (const auto& [text, wire] : cases) {
        EXPECT_EQ(static_cast<int>(wire.size()), compose_dname(text, out)) << text;
        EXPECT_EQ(wire, Bytes(out, out + wire.size())) << text;
    }
    EXPECT_EQ(256, compose_dname(std::string(254, 'a').c_str(), out));
    EXPECT_EQ(254, out[0]);
    EXPECT_EQ(0, compose_dname(std::string(255, 'a').c_str(), out));
    EXPECT_EQ(Bytes(256, 0), Bytes(out, out + 256));

    const dns_header h{0x0102, 0x8180, 1, 2, 3, 0xFFFF};
    Bytes buf(13, 0xEE);
    EXPECT_EQ(-1, compose_dns_header(&h, buf.data(), 11));
    EXPECT_EQ(Bytes(13, 0xEE), buf);
    EXPECT_EQ(1, compose_dns_header(&h, buf.data(), 13));
    EXPECT_EQ((Bytes{1, 2, 0x81, 0x80, 0, 1, 0, 2, 0, 3, 0xFF, 0xFF, 0xEE}), buf);
}

// ---- message index ---------------------------------------------------------------------------

// A response with a record in every section, cut at every length: each cut fails with the code of
// the section it falls in, and the record step names the field boundary it crossed.
TEST_F(Endec, TruncationAtEveryFieldBoundary) {
    Msg m(0x8180, 1, 1, 1, 1);
    m.q("ab.c", 1)
        .an(1, 60, {1, 2, 3, 4})
        .rr({2, 'n', 's', 0}, 2, 60, {1, 'n', 0})
        .opt(); // 12, 22, 38, 55
    const struct {
        size_t upto;
        int ret;
        const char* step;
    } parts[] = {
        {12, -15, " dec head ret=-1"},           {18, -1, "fail to get name_len ret=-3"},
        {22, -1, "fail to get rr_len ret=-2"},   {23, -2, "fail to get name_len ret=-3"},
        {24, -2, "fail to get name_len ret=-1"}, {34, -2, "fail to get rr_len ret=-4"},
        {38, -2, "fail to get rr_len ret=-3"},   {42, -3, "fail to get name_len ret=-3"},
        {52, -3, "fail to get rr_len ret=-4"},   {55, -3, "fail to get rr_len ret=-3"},
        {56, -2, "fail to get name_len ret=-3"}, {66, -2, "fail to get rr_len ret=-4"},
    };
    trace(DP_WARN | DP_DETAIL);
    msginf inf;
    for (uint16_t cut = 0, part = 0; cut < m.len(); ++cut) {
        part = static_cast<uint16_t>(part + (cut >= parts[part].upto));
        StderrCapture cap;
        EXPECT_EQ(parts[part].ret, dpendec_compose_dns_msg_inf(m.b.data(), cut, &inf)) << cut;
        EXPECT_NE(std::string::npos, cap.text().find(parts[part].step)) << cut;
    }
    trace(0);
    EXPECT_EQ(1, parse(m, inf));
    EXPECT_EQ(1, parse(m.raw({0xFF, 0xFF, 0xFF}), inf)); // bytes after the records are ignored
}

TEST_F(Endec, IndexCapsAndHeaderFaults) {
    Msg m(0x8180, 1, 40, 2, 3);
    m.q("a", 1);
    for (int i = 0; i < 45; ++i)
        i < 40 ? m.an(5, 60, {0}) : i < 42 ? m.an(2, 60, {0}) : m.opt();
    msginf inf;
    ASSERT_EQ(1, parse(m, inf));
    EXPECT_EQ(19, inf.offsetof1stanRR);
    EXPECT_EQ(19 + 31 * 13, inf.an[31].offset);
    EXPECT_EQ(19 + 40 * 13, inf.ns.offset);
    EXPECT_EQ((std::tuple{1, 32, 1, 1}),
              std::tuple(inf.qd_num, inf.an_num, inf.ns_num, inf.ar_num));

    m.b[19 + 34 * 13] = 0x40; // the 35th answer's owner
    trace(DP_DETAIL);
    StderrCapture cap;
    EXPECT_EQ(-2, parse(m, inf));
    EXPECT_EQ(-15, dpendec_compose_dns_msg_inf(m.b.data(), 11, &inf));
    EXPECT_EQ(-15, parse(Msg(0, 0, 0, 0, 0), inf));
    char line[128];
    std::snprintf(line, sizeof line,
                  "DPEDC  dpendec_compose_dns_msg_inf: rrbuf=%p anidx=34 ret=-1\n",
                  static_cast<const void*>(m.b.data() + 19 + 34 * 13));
    EXPECT_EQ(std::string(line) + "DPEDC  dpendec_compose_dns_msg_inf:  dec head ret=-1\n"
                                  "DPEDC  dpendec_compose_dns_msg_inf:  dec head ret=-76\n",
              lines(cap));
}

TEST_F(Endec, ReverseNameGivesAddress) {
    const std::pair<const char*, const char*> cases[] = {
        {"10.1.168.192.in-addr.arpa", "192.168.1.10"},
        {"9.4.3.2.1.in-addr.arpa", "1.2.3.4"},
        {"1.168.192.in-addr.arpa", ""},
        {"256.1.168.192.in-addr.arpa", ""},
        {"a.1.168.192.in-addr.arpa", ""},
        {"1.0.0.127.in-addr.arpa.example", "127.0.0.1"},
        {"1.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.ip6.arpa", ""},
    };
    for (auto [name, addr] : cases) {
        msginf inf;
        ASSERT_EQ(1, parse(Msg(0x0100, 1, 0, 0, 0).q(name, 12), inf)) << name;
        EXPECT_STREQ(addr, inf.hostaddr) << name;
        EXPECT_STREQ(name, inf.name);
    }
}

TEST_F(Endec, AnswerScanStoppingRules) {
    const struct {
        Msg m;
        const char *name, *hostaddr;
        int ttl;
    } cases[] = {
        // A CNAME is skipped by type; the first A gives address and TTL.
        {Msg::response("a", 1, {{5, 7, {0}}, {1, 300, {10, 0, 0, 1}}, {1, 400, {10, 0, 0, 2}}}),
         "a", "10.0.0.1", 300},
        // A first A record of the wrong size ends the scan: no address, its TTL.
        {Msg::response("a", 1, {{1, 30, {1, 2, 3, 4, 5}}, {1, 40, {1, 2, 3, 4}}}), "a", "", 30},
        {Msg::response("a", 28, {{28, 9, kV6}}), "a", "2001:db8::1", 9},
        // Other types: every answer is examined, the TTL is the last one's.
        {Msg::response("a", 15, {{15, 10, {0}}, {15, 20, {0}}}), "a", "", 20},
        // PTR: an undecodable target empties the name and the next answer is tried.
        {Msg::response("4.3.2.1.in-addr.arpa", 12,
                       {{12, 5, {0x41, 0}}, {12, 6, {2, 'g', 'w', 0xC0, 12}}}),
         "gw.4.3.2.1.in-addr.arpa", "1.2.3.4", 6},
    };
    for (const auto& c : cases) {
        msginf inf;
        ASSERT_EQ(1, parse(c.m, inf));
        EXPECT_STREQ(c.name, inf.name);
        EXPECT_STREQ(c.hostaddr, inf.hostaddr);
        EXPECT_EQ(c.ttl, inf.ttl);
    }
}

TEST_F(Endec, RecordDecodeBoundsAndDump) {
    const Msg m = Msg::response("a", 16, {{16, 5, Bytes(300, 0xAB)}});
    msginf inf;
    ASSERT_EQ(1, parse(m, inf));
    dns_rr rr;
    trace(DP_DETAIL | DP_ENDEC);
    StderrCapture cap;
    ASSERT_EQ(0, dpendec_parse_dns_rr(m.b.data(), m.len(), &inf.an[0], 0, &rr));
    std::string want = "DPEDC  dpendec_parse_dns_rr: rdlen=300 is bigger the length of rdata=256\n"
                       "RR type=16 class=1 ttl=5 name=a rdlen=300:";
    for (int i = 0; i < 256; ++i)
        want += " ab";
    EXPECT_NE(std::string::npos, lines(cap).find(want + "\n"));
    EXPECT_EQ(300, rr.rdlen);
    const rrinf elsewhere{12, 20, 3, 16}; // an entry of some longer message
    EXPECT_EQ(-2, dpendec_parse_dns_rr(m.b.data(), 20, &elsewhere, 0, &rr));
    const rrinf past{400, 20, 3, 16};
    EXPECT_EQ(-1, dpendec_parse_dns_rr(m.b.data(), m.len(), &past, 0, &rr));
}

TEST_F(Endec, ComposeIpstrsBudgetAndTtl) {
    dns_pkt pkt = packet(Msg::response("a", 1,
                                       {{1, 300, {1, 1, 1, 1}},
                                        {1, 60, {2, 2, 2, 2}},
                                        {1, 10, {1, 2, 3}},
                                        {1, 120, {3, 3, 3, 3}}}));
    int32_t ttl = 0;
    char out[256 + DPENDEC_IPSTRS_SLACK], small[10];
    EXPECT_EQ(1, dpendec_compose_ipstrs(&pkt, &ttl, out, 256));
    EXPECT_STREQ("1.1.1.1,2.2.2.2,3.3.3.3", out);
    EXPECT_EQ(10, ttl); // the short record has no address, but its TTL counts
    // Commas are not charged: 7 + 7 leaves exactly 7 of 21, not enough for a third address.
    dpendec_compose_ipstrs(&pkt, &ttl, out, 21);
    EXPECT_STREQ("1.1.1.1,2.2.2.2", out);
    dpendec_compose_ipstrs(&pkt, &ttl, out, 22);
    EXPECT_STREQ("1.1.1.1,2.2.2.2,3.3.3.3", out);
    dpendec_compose_ipstrs(&pkt, &ttl, small, 256); // a buffer below budget + slack is not overrun
    EXPECT_STREQ("1.1.1.1", small);
    pkt = packet(Msg::response("a", 1, {}));
    dpendec_compose_ipstrs(&pkt, &ttl, out, 256);
    EXPECT_STREQ("", out);
    EXPECT_EQ(INT_MAX, ttl);
}

// ---- composing -------------------------------------------------------------------------------

TEST_F(Endec, LocalAnswersAreByteExact) {
    // AA and RCODE cleared, QR and RA set, opcode, RD and Z kept; the OPT record goes.
    const Msg query = Msg(0x0533, 1, 0, 0, 1).q("gw.lan", 1).opt();
    const Msg answer = Msg(0x81B0, 1, 1, 0, 0).q("gw.lan", 1);
    dns_pkt pkt = packet(query);
    EXPECT_EQ(40, dpendec_compose_a_response(&pkt, "192.0.2.1"));
    EXPECT_EQ(Msg(answer).an(1, 0, {192, 0, 2, 1}).b, contents(pkt));
    pkt = packet(query);
    EXPECT_EQ(-3, dpendec_compose_aaaa_response(&pkt, "zz"));
    EXPECT_EQ(query.b, contents(pkt));
    EXPECT_EQ(52, dpendec_compose_aaaa_response(&pkt, "2001:db8::1"));
    EXPECT_EQ(Msg(answer).an(28, 0, kV6).b, contents(pkt));
    pkt = packet(Msg(0x0100, 1, 0, 0, 0).q("1.2.0.192.in-addr.arpa", 12));
    EXPECT_EQ(60, dpendec_compose_ptr_response(&pkt, "gw.lan"));
    const Bytes gw_lan{2, 'g', 'w', 3, 'l', 'a', 'n', 0};
    EXPECT_EQ(Msg::response("1.2.0.192.in-addr.arpa", 12, {{12, 0, gw_lan}}).b, contents(pkt));

    EXPECT_EQ(-2, dpendec_compose_error_response(3, pkt.buf, 11));
    pkt = packet(query);
    EXPECT_EQ(2, dpendec_compose_error_response(0x13, pkt.buf, DPENDEC_MSG_SIZE));
    Bytes refused = query.b;
    refused[2] = 0x85, refused[3] = 0xB3; // QR, RA and RCODE 3; everything else as it was
    EXPECT_EQ(refused, contents(pkt));
}

TEST_F(Endec, LocalAnswerRoomInTheBuffer) {
    const struct {
        int question_end, a_ret, aaaa_ret;
    } cases[] = {{2020, 2036, 2048}, {2021, 2037, -1}, {2032, 2048, -1}, {2033, -1, -1}};
    for (auto [question_end, a_ret, aaaa_ret] : cases) {
        // A second, long question moves the first answer's offset.
        Msg q = Msg(0x0100, 2, 0, 0, 0).q("a", 1);
        q.raw(wire_name_of(static_cast<size_t>(question_end) - q.len() - 4)).u16(1).u16(1);
        dns_pkt pkt = packet(q);
        ASSERT_EQ(question_end, pkt.inf.offsetof1stanRR);
        EXPECT_EQ(a_ret, dpendec_compose_a_response(&pkt, "1.2.3.4"));
        pkt = packet(q);
        EXPECT_EQ(aaaa_ret, dpendec_compose_aaaa_response(&pkt, "::1"));
        EXPECT_EQ(aaaa_ret < 0 ? q.len() : aaaa_ret, pkt.len);
    }
}

TEST_F(Endec, ComposeQueryA) {
    uint8_t buf[64];
    EXPECT_EQ(21, dpendec_compose_query_a(buf, sizeof buf, "a.b", 0xBEEF));
    const Bytes want = Msg(0x0100, 1, 0, 0, 0).q("a.b", 1).b;
    EXPECT_EQ(Bytes(want.begin() + 2, want.end()), Bytes(buf + 2, buf + 21));
    EXPECT_EQ(0xBEEF, buf[0] << 8 | buf[1]);
    EXPECT_EQ(-1, dpendec_compose_query_a(buf, 20, "a.b", 1));
    EXPECT_EQ(22, dpendec_compose_query_a(buf, 22, "ab.c", 2));
}

TEST_F(Endec, ReplaceAndRestoreQuestionName) {
    const Msg query = Msg(0x0100, 1, 0, 0, 1).q("www.example.com", 1).opt();
    dns_pkt pkt = packet(query);
    dpendec_replace_qname(&pkt, "cdn.net");
    // Header and counts unchanged, the new name, TYPE and CLASS; the OPT record's place is cleared.
    EXPECT_EQ(Msg(0x0100, 1, 0, 0, 1).q("cdn.net", 1).raw(Bytes(11, 0)).b, contents(pkt));
    EXPECT_EQ(9, pkt.inf.qd.name_len);
    const Msg big = Msg(0x0100, 1, 0, 0, 1).q("a", 1).rr({0}, 41, 0, Bytes(1000, 0));
    pkt = packet(big);
    dpendec_replace_qname(&pkt, "longer.name"); // 1040 bytes: too long, left alone
    EXPECT_EQ(big.b, contents(pkt));

    const Bytes target{3, 'c', 'd', 'n', 3, 'n', 'e', 't', 0};
    const Rr a1{1, 20, {1, 1, 1, 1}}, a2{1, 30, {2, 2, 2, 2}, {1, 'x', 0}};
    Msg r =
        Msg::response("cdn.net", 1, {{5, 10, target}, a1, a2, {1, 40, {3, 3, 3, 3}, {0xC0, 0xFF}}});
    r.an(2, 60, {0}).opt().b[9] = 1;
    r.b[11] = 1; // one authority and one additional record
    pkt = packet(r);
    dpendec_restore_qname(&pkt, "www.example.com");
    // The CNAME, authority and additional records go; an owner 0xC0xx now points at the question.
    EXPECT_EQ(Msg::response("www.example.com", 1, {a1, a2, {1, 40, {3, 3, 3, 3}}}).b,
              contents(pkt));
}

TEST_F(Endec, RestoreStaysInsideTheBuffer) {
    // 2048 bytes: one long A answer and 31 short ones, restored under a much longer name.
    const int first = 2048 - 19 - 31 * 16;
    std::vector<Rr> answers(32, {1, 1, Bytes(4, 9)});
    answers[0].rdata.resize(first - 12);
    const Msg r = Msg::response("a", 1, answers);
    dns_pkt pkt = packet(r);
    dpendec_restore_qname(&pkt, std::string(200, 'y').c_str());
    EXPECT_EQ(12 + 202 + 4 + first + 18 * 16, pkt.len); // 13 short answers did not fit
    EXPECT_EQ(19, pkt.buf[7]);

    for (const Msg& m : {r, Msg(0x0100, 1, 0, 0, 0).q("a", 1)}) {
        dns_pkt stale = packet(m);
        stale.inf.qd.rr_len = 1; // an index that is not this message's
        dpendec_restore_qname(&stale, "b");
        dpendec_replace_qname(&stale, "b");
        EXPECT_EQ(m.b, contents(stale));
    }
}

} // namespace
