// OPT record checks, the payload rules and the client-MAC option on real messages.
#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include <cstring>
#include <memory>
#include <optional>
#include <regex>
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

Bytes u16(int v) {
    return {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
}
Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}
Bytes text(const std::string& s) {
    return Bytes(s.begin(), s.end());
}

Bytes option(int code, const Bytes& data) {
    return cat({u16(code), u16(static_cast<int>(data.size())), data});
}
// An OPT record with the root owner; owner may be given to test other forms.
Bytes opt(int payload, const Bytes& rdata = {}, const Bytes& owner = {0}) {
    return cat(
        {owner, u16(41), u16(payload), {0, 0, 0, 0}, u16(static_cast<int>(rdata.size())), rdata});
}
// A record of another type, its owner a pointer to the question name.
Bytes record(int type, const Bytes& rdata, const Bytes& owner = {0xC0, 0x0C}) {
    return cat(
        {owner, u16(type), u16(1), {0, 0, 0, 60}, u16(static_cast<int>(rdata.size())), rdata});
}

// A query for www.example.com A with these additional records, and ancount answers before them.
Bytes query(const std::vector<Bytes>& additional = {}, const std::vector<Bytes>& answers = {}) {
    Bytes m = cat({u16(0x1F2E), u16(0x0100), u16(1), u16(static_cast<int>(answers.size())), u16(0),
                   u16(static_cast<int>(additional.size()))});
    m = cat({m,
             {3, 'w', 'w', 'w', 7, 'e', 'x', 'a', 'm', 'p', 'l', 'e', 3, 'c', 'o', 'm', 0},
             u16(1),
             u16(1)});
    for (const auto& a : answers)
        m = cat({m, a});
    for (const auto& a : additional)
        m = cat({m, a});
    return m;
}
constexpr size_t kQueryLen = 33; // header and question of query()

// A message in a heap buffer of exactly 2048 bytes, so that any access beyond it is caught,
// with its parsed view and an untouched copy for restoring.
struct Packet {
    std::unique_ptr<uint8_t[]> buf{new uint8_t[DPENDEC_MSG_SIZE]};
    uint16_t len;
    msginf inf{};
    dns_pkt backup{};
    explicit Packet(const Bytes& m) : len(static_cast<uint16_t>(m.size())) {
        std::memcpy(buf.get(), m.data(), m.size());
        EXPECT_EQ(dpendec_compose_dns_msg_inf(buf.get(), len, &inf), 1);
        std::memcpy(backup.buf, m.data(), m.size());
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
    void SetUp() override { trace(0); }
    void TearDown() override {
        trace(0);
        dpsvr_init_server_sets();
    }
    static void trace(uint32_t mask) {
        dp_debug_tbl.modules[DP_MOD_PROXY].level_mask = mask;
        dp_debug_tbl.timestamp = 0;
    }
    // Captured trace lines without their source line numbers.
    static std::string lines(StderrCapture& err) {
        return std::regex_replace(err.text(), std::regex("(DPMAIN [a-z0-9_]+):[0-9]+ "), "$1: ");
    }
};

TEST_F(Edns, FindsAndCountsOptRecordsAndRefusesBrokenOnes) {
    Packet none(query());
    rrinf entry;
    EXPECT_EQ(is_edns_present(none.buf.get(), none.len, &none.inf, &entry), -1);
    EXPECT_EQ(get_edns_array_count(none.buf.get(), none.len, &none.inf), -1);
    EXPECT_EQ(none.valid(), 0); // -1 from the counter is not "more than one"

    // The OPT record behind another additional record is found where it stands.
    const Bytes a = record(1, {192, 0, 2, 1});
    Packet one(query({a, opt(1232, option(10, Bytes(8, 7)))}));
    ASSERT_EQ(is_edns_present(one.buf.get(), one.len, &one.inf, &entry), 0);
    EXPECT_EQ(entry.offset, kQueryLen + a.size());
    EXPECT_EQ(entry.rr_len, 11 + 12);
    EXPECT_EQ(get_edns_array_count(one.buf.get(), one.len, &one.inf), 1);
    EXPECT_EQ(one.valid(), 0);

    Packet two(query({opt(1232), a, opt(512)}));
    EXPECT_EQ(get_edns_array_count(two.buf.get(), two.len, &two.inf), 2);
    EXPECT_EQ(two.valid(), -1);

    // A message cut inside its additional section, and an owner name that points at itself
    // (indexable, never decodable).
    EXPECT_EQ(get_edns_array_count(one.buf.get(), one.len - 3, &one.inf), -2);
    EXPECT_EQ(is_edns_present(one.buf.get(), one.len - 3, &one.inf, &entry), -1);
    Packet loop(query({record(16, {1, 'x'}, {0xC0, kQueryLen}), opt(1232)}));
    EXPECT_EQ(get_edns_array_count(loop.buf.get(), loop.len, &loop.inf), -3);
    EXPECT_EQ(is_edns_present(loop.buf.get(), loop.len, &loop.inf, &entry), -1);
    EXPECT_EQ(is_edns_rd_len_valid(loop.buf.get(), loop.len, &loop.inf), -1);
    EXPECT_EQ(loop.valid(), -3);
}

TEST_F(Edns, QuerySizeAndRdlengthLimits) {
    // A TXT record fills the query to the byte: 992 passes, 993 is dropped.
    auto sized = [](size_t total) {
        const size_t fill = total - kQueryLen - 11 - 12;
        return query({record(16, Bytes(fill, 'p')), opt(1232)});
    };
    EXPECT_EQ(Packet(sized(992)).valid(), 0);
    trace(DP_DETAIL);
    StderrCapture err;
    EXPECT_EQ(Packet(sized(993)).valid(), -3);
    EXPECT_EQ(lines(err), "DPMAIN dpedns_is_valid_edns_rr: Dns frame size too large for EDNS "
                          "insertion.Packet dropped..\n");

    EXPECT_EQ(Packet(query({opt(1232, option(12, Bytes(220, 0)))})).valid(), 0); // RDLENGTH 224
    Packet big(query({opt(1232, option(12, Bytes(221, 0)))}));
    EXPECT_EQ(is_edns_rd_len_valid(big.buf.get(), big.len, &big.inf), -3);
    EXPECT_EQ(big.valid(), -3);
    // Only the first OPT record's RDLENGTH counts.
    Packet second(query({opt(1232), opt(1232, option(12, Bytes(300, 0)))}));
    EXPECT_EQ(is_edns_rd_len_valid(second.buf.get(), second.len, &second.inf), 0);
}

TEST_F(Edns, ClientMacOptionAlreadyPresent) {
    const Bytes cookie = option(10, Bytes(8, 1));
    Packet p(query({opt(1232, cat({cookie, option(0xFE31, text(kMac))}))}));
    rrinf entry;
    ASSERT_EQ(is_edns_present(p.buf.get(), p.len, &p.inf, &entry), 0);
    edns_option_pos pos{};
    ASSERT_EQ(is_edns_option_fe31_present(p.buf.get(), p.len, &entry, &pos), 0);
    EXPECT_EQ(pos.offset, kQueryLen + 11 + cookie.size());
    EXPECT_EQ(pos.code, 0xFE31);
    EXPECT_EQ(pos.length, 17);
    trace(DP_DETAIL);
    StderrCapture err;
    EXPECT_EQ(p.valid(), -2);
    EXPECT_EQ(lines(err), "DPMAIN dpedns_is_valid_edns_rr: Option 0xfe31 is already present in "
                          "incoming query\n");

    // Options are looked for in the first 256 bytes of the RDATA only.
    Packet late(query({opt(1232, cat({option(12, Bytes(260, 0)), option(0xFE31, text(kMac))}))}));
    ASSERT_EQ(is_edns_present(late.buf.get(), late.len, &late.inf, &entry), 0);
    EXPECT_EQ(is_edns_option_fe31_present(late.buf.get(), late.len, &entry, &pos), -1);
    // An option length that runs past the RDATA ends the walk.
    Packet lying(query({opt(1232, cat({u16(10), u16(500), option(0xFE31, text(kMac))}))}));
    ASSERT_EQ(is_edns_present(lying.buf.get(), lying.len, &lying.inf, &entry), 0);
    EXPECT_EQ(is_edns_option_fe31_present(lying.buf.get(), lying.len, &entry, &pos), -1);
    // An index entry that does not fit the message is refused, not followed.
    rrinf stale = entry;
    stale.rr_len = 2000;
    EXPECT_EQ(is_edns_option_fe31_present(lying.buf.get(), lying.len, &stale, &pos), -1);
}

TEST_F(Edns, ArcountChanges) {
    Bytes m = query();
    m[10] = 0x00;
    m[11] = 0xFF;
    EXPECT_EQ(modify_array_count(m.data(), static_cast<uint16_t>(m.size()), 1), 0);
    EXPECT_EQ(m[10], 0x01);
    EXPECT_EQ(m[11], 0x00);
    m[10] = m[11] = 0;
    const Bytes before = m;
    EXPECT_EQ(modify_array_count(m.data(), static_cast<uint16_t>(m.size()), 0), -1);
    EXPECT_EQ(m, before);
    EXPECT_EQ(modify_array_count(m.data(), 11, 1), -1);
    EXPECT_EQ(m, before);
}

TEST_F(Edns, PayloadCheckAgainstServer) {
    // 1300 bytes, over the server's 1232.
    auto long_query = [](int payload) {
        return query({record(16, Bytes(1300 - kQueryLen - 11 - 12, 'p')), opt(payload)});
    };
    Bytes q = long_query(4096);
    const Bytes before = q;
    trace(DP_PKT);
    StderrCapture err;
    EXPECT_EQ(dpedns_check_packet_payload(q.data(), 1300, 1232), -1);
    EXPECT_EQ(q, before);
    EXPECT_NE(lines(err).find("DPMAIN dpedns_check_packet_payload: \nPayload Exceeded Query "
                              "payload is 1308 Server supported is 1232\n"),
              std::string::npos);
    trace(0);

    // Advertising 0: the server's value goes in and the query is sent all the same.
    q = long_query(0);
    EXPECT_EQ(dpedns_check_packet_payload(q.data(), 1300, 1232), 0);
    EXPECT_EQ(Bytes(q.end() - 11 + 3, q.end() - 11 + 5), u16(1232));
    // Short enough: sent, payload 0 still replaced, a set payload kept.
    q = query({opt(0)});
    EXPECT_EQ(dpedns_check_packet_payload(q.data(), static_cast<uint16_t>(q.size()), 544), 0);
    EXPECT_EQ(Bytes(q.end() - 8, q.end() - 6), u16(544));
    q = query({opt(4096)});
    EXPECT_EQ(dpedns_check_packet_payload(q.data(), static_cast<uint16_t>(q.size()), 544), 0);
    EXPECT_EQ(Bytes(q.end() - 8, q.end() - 6), u16(4096));
    q = query();
    EXPECT_EQ(dpedns_check_packet_payload(q.data(), static_cast<uint16_t>(q.size()), 12), 0);
    q[4] = 0; // no question: not a message
    q[5] = 0;
    EXPECT_EQ(dpedns_check_packet_payload(q.data(), static_cast<uint16_t>(q.size()), 1232), -1);
}

TEST_F(Edns, AnswerPayloadFromEveryServerSet) {
    dpsvr_init_server_sets();
    auto set_servers = [](uint32_t set_index, std::vector<uint16_t> payloads) {
        servset* set = dpsvr_get_server_set(set_index);
        set->num = static_cast<uint8_t>(payloads.size());
        for (size_t i = 0; i < payloads.size(); ++i)
            set->servers[i].udpMaxPayload = payloads[i];
    };
    auto rewritten = []() {
        Packet p(query({record(1, {192, 0, 2, 1}), opt(4096)}));
        EXPECT_EQ(dpedns_update_edns_payload(p.buf.get(), p.len, &p.inf), 0);
        const Bytes b = p.bytes();
        return b[b.size() - 8] << 8 | b[b.size() - 7];
    };
    EXPECT_EQ(rewritten(), 992); // no servers at all: 4096
    set_servers(DPSVR_V4_SYSTEM, {4096, 4096});
    set_servers(DPSVR_V4_FILTER, {4096});
    EXPECT_EQ(rewritten(), 992);
    set_servers(DPSVR_V6_SYSTEM, {1232});
    set_servers(DPSVR_V4_HSI, {1232, 544});
    EXPECT_EQ(rewritten(), 512);
    set_servers(DPSVR_V4_FILTER, {1024}); // the last set counts too
    set_servers(DPSVR_V4_HSI, {1023});
    EXPECT_EQ(rewritten(), 991);
    set_servers(DPSVR_V4_FILTER, {4096, 0});
    EXPECT_EQ(rewritten(), 480);

    const Bytes without = query({record(1, {192, 0, 2, 1})});
    Packet plain(without);
    EXPECT_EQ(dpedns_update_edns_payload(plain.buf.get(), plain.len, &plain.inf), -1);
    EXPECT_EQ(plain.bytes(), without);
}

TEST_F(Edns, OwnRecordAppendedAndStrippedAgain) {
    const Bytes orig = query();
    Packet p(orig);
    int had_opt = 0;
    trace(DP_PKT);
    StderrCapture err;
    EXPECT_EQ(p.insert(&had_opt), 0);
    trace(0);
    EXPECT_EQ(had_opt, 0);
    const Bytes own =
        cat({{0}, u16(41), u16(523), {0, 0, 0, 0}, u16(21), u16(0xFE31), u16(17), text(kMac)});
    Bytes want = cat({orig, own});
    want[11] = 1;
    EXPECT_EQ(p.bytes(), want);
    EXPECT_EQ(p.inf.arcount, 1);
    EXPECT_EQ(p.inf.ar.offset, orig.size()); // parsed anew
    EXPECT_EQ(lines(err), "DPMAIN is_edns_present: is_edns_present Entered..\n"
                          "DPMAIN is_edns_present: No additional RR found in the pkt.\n"
                          "DPMAIN compose_edns_header: compose_edns_header Entered..\n"
                          "DPMAIN compose_edns_header: name:0,type:41,xclass:523,ttl:0 rdlen : 21\n"
                          "DPMAIN compose_edns_header: opcode:fe31, oplen:17,opdata:" +
                              std::string(kMac) +
                              "\n"
                              "DPMAIN compose_edns_header: compose_edns_header Exit..\n"
                              "DPMAIN modify_array_count: modify_array_count Enter..\n"
                              "DPMAIN modify_array_count: modify_array_count Exit..\n"
                              "DPMAIN insert_edns_header: insert_edns_header Enter..\n"
                              "DPMAIN insert_edns_header: insert_edns_header Exit..\n");

    // The server answers with its own options in the record: all of it goes, and the record
    // behind it moves up.
    const Bytes an = record(1, {192, 0, 2, 1});
    const Bytes glue = record(1, {192, 0, 2, 9});
    Packet r(query({opt(1232, option(10, Bytes(16, 3))), glue}, {an}));
    EXPECT_EQ(r.strip(), 0);
    EXPECT_EQ(r.bytes(), query({glue}, {an}));
    EXPECT_EQ(r.inf.arcount, 1);
    EXPECT_EQ(r.inf.ar.offset, kQueryLen + an.size());

    Packet back(p.bytes());
    EXPECT_EQ(back.strip(), 0);
    EXPECT_EQ(back.bytes(), orig);
    Packet again(orig);
    EXPECT_EQ(again.strip(), -1);
    EXPECT_EQ(again.bytes(), orig);
}

TEST_F(Edns, OptionAppendedInsideClientRecord) {
    const Bytes a = record(1, {192, 0, 2, 1});
    const Bytes cookie = option(10, Bytes(8, 1));
    Packet p(query({opt(4096, cookie), a}));
    int had_opt = 0;
    EXPECT_EQ(p.insert(&had_opt), 0);
    EXPECT_EQ(had_opt, 1);
    // Payload down to 1024, RDLENGTH up by 21, the option behind the record's old end and the
    // record that followed intact behind it.
    EXPECT_EQ(p.bytes(), query({opt(1024, cat({cookie, option(0xFE31, text(kMac))})), a}));
    EXPECT_EQ(p.inf.arcount, 2);

    Packet small(query({opt(512)}));
    EXPECT_EQ(small.insert(&had_opt), 0);
    EXPECT_EQ(small.bytes(), query({opt(512, option(0xFE31, text(kMac)))}));
}

TEST_F(Edns, EditsThatDoNotParseOrFitArePutBack) {
    int had_opt = 0;
    // Bytes behind the question become the start of the additional section once the count
    // grows: 0x40 is no label, so the result does not parse.
    const Bytes trailing = cat({query(), {0x40, 0, 0}});
    Packet p(trailing);
    EXPECT_EQ(p.insert(&had_opt), -2); // the parser's result, for the caller's trace
    EXPECT_EQ(p.bytes(), trailing);
    EXPECT_EQ(p.inf.arcount, 0);
    EXPECT_EQ(p.inf.ar_num, 0);

    // An owner other than the root: the fixed offsets miss RDLENGTH, the option lands where the
    // next record should start and the result no longer parses.
    const Bytes odd = query({opt(4096, {}, {1, 'a', 0}), record(1, {192, 0, 2, 1})});
    Packet o(odd);
    EXPECT_LT(o.insert(&had_opt), 0);
    EXPECT_EQ(o.bytes(), odd);

    // No room in the 2048-byte buffer: nothing is written beyond it.
    const Bytes full = query({record(16, Bytes(2048 - kQueryLen - 12 - 20, 'p'))});
    ASSERT_EQ(full.size(), 2048u - 20);
    Packet f(full);
    EXPECT_EQ(f.insert(&had_opt), DPEDNS_NOT_INSERTED);
    EXPECT_EQ(f.bytes(), full);
    const Bytes full_opt = query({record(16, Bytes(2048 - kQueryLen - 12 - 11 - 10, 'p')), opt(0)});
    Packet fo(full_opt);
    EXPECT_EQ(fo.insert(&had_opt), DPEDNS_NOT_INSERTED);
    EXPECT_EQ(fo.bytes(), full_opt);

    // Stripping: an answer owner pointing at the OPT record's root byte points past the end
    // once the record is gone, so the answer no longer decodes.
    const Bytes ptr_owner = {0xC0, static_cast<uint8_t>(kQueryLen + 16)};
    const Bytes answer = query({opt(1232)}, {record(1, {192, 0, 2, 1}, ptr_owner)});
    Packet r(answer);
    const msginf before = r.inf;
    trace(DP_PKT);
    StderrCapture err2;
    EXPECT_EQ(r.strip(), 0);
    EXPECT_EQ(r.bytes(), answer);
    EXPECT_EQ(std::memcmp(&r.inf, &before, sizeof before), 0);
    EXPECT_NE(lines(err2).find("DPMAIN dpedns_strip_option41: Error After strip : -10\n"),
              std::string::npos);
}

// ---- the neighbour dump ---------------------------------------------------------------------

// Netlink messages in host order, as the kernel writes them.
template <class T>
Bytes raw(const T& v) {
    Bytes b(sizeof v);
    std::memcpy(b.data(), &v, sizeof v);
    return b;
}
Bytes padded(Bytes b) {
    b.resize(NLMSG_ALIGN(b.size()));
    return b;
}
Bytes nlmsg(uint16_t type, uint32_t seq, const Bytes& payload) {
    nlmsghdr h{};
    h.nlmsg_len = NLMSG_LENGTH(payload.size());
    h.nlmsg_type = type;
    h.nlmsg_seq = seq;
    return padded(cat({raw(h), payload}));
}
Bytes attr(uint16_t type, const Bytes& value) {
    const rtattr a{static_cast<unsigned short>(RTA_LENGTH(value.size())), type};
    return padded(cat({raw(a), value}));
}
const Bytes kDst = {0x20, 0x01, 0x0d, 0xb8, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x10};
Bytes entry(uint8_t last, uint16_t state = NUD_STALE, uint8_t flags = 0, int family = AF_INET6,
            uint32_t seq = 7, Bytes lladdr = {}, Bytes dst = kDst, int ifindex = 1,
            uint16_t type = RTM_NEWNEIGH) {
    ndmsg ndm{};
    ndm.ndm_family = static_cast<uint8_t>(family);
    ndm.ndm_state = state;
    ndm.ndm_flags = flags;
    ndm.ndm_ifindex = ifindex;
    if (lladdr.empty()) lladdr = {0x02, 0x00, 0x5E, 0xAB, 0xCD, last};
    return nlmsg(type, seq, cat({raw(ndm), attr(NDA_DST, dst), attr(NDA_LLADDR, lladdr)}));
}

// Each result of walking one datagram: a MAC text, or the closing code.
std::vector<std::string> walk(const Bytes& d) {
    const std::unique_ptr<uint8_t[]> buf(new uint8_t[d.size()]); // exact size for ASan
    std::memcpy(buf.get(), d.data(), d.size());
    std::vector<std::string> seen;
    size_t pos = 0;
    char mac[DPEDNS_MAC_TEXT_SIZE];
    int r;
    while ((r = dpedns_neigh_next({buf.get(), d.size()}, &pos, 7, kDst.data(), mac)) ==
           DPEDNS_NEIGH_MATCH) {
        seen.emplace_back(mac);
    }
    seen.push_back(std::to_string(r));
    return seen;
}

TEST(NeighDump, TakesTheEntriesTheListingShowsWithAnEthernetAddress) {
    const Bytes done = nlmsg(NLMSG_DONE, 7, raw(0));
    Bytes other = kDst;
    other[15] = 0x11;
    const Bytes cut = entry(0x33);
    Bytes long_rta = entry(0x55);
    long_rta[NLMSG_SPACE(sizeof(ndmsg))] = 0xFF; // NDA_DST's length runs past the message
    const std::vector<std::pair<Bytes, std::vector<std::string>>> cases = {
        // two entries of the address: both taken, the caller keeps the last
        {cat({entry(0x01), entry(0x02, NUD_PERMANENT), done}),
         {"02:00:5e:ab:cd:01", "02:00:5e:ab:cd:02", "0"}},
        // not listed: NOARP alone and no state; listed: NOARP learned externally
        {cat({entry(1, NUD_NOARP), entry(2, NUD_NONE), entry(3, NUD_NOARP, NTF_EXT_LEARNED)}),
         {"02:00:5e:ab:cd:03", "2"}},
        // another family; another request's entry and end
        {cat({entry(1, NUD_STALE, 0, AF_INET), entry(2, NUD_STALE, 0, AF_INET6, 8),
              nlmsg(NLMSG_DONE, 8, raw(0))}),
         {"2"}},
        // an 8-byte link-layer address; another address; an attribute past the message's end
        {cat({entry(1, NUD_STALE, 0, AF_INET6, 7, Bytes(8, 0xAA)),
              entry(2, NUD_STALE, 0, AF_INET6, 7, {}, other), long_rta}),
         {"2"}},
        // a message cut short, a header cut short, an error answer
        {cat({entry(0x44), Bytes(cut.begin(), cut.end() - 4)}), {"02:00:5e:ab:cd:44", "-1"}},
        {cat({entry(0x44), Bytes(8, 0)}), {"02:00:5e:ab:cd:44", "-1"}},
        {cat({nlmsg(NLMSG_ERROR, 7, raw(nlmsgerr{-EBUSY, {}})), done}), {"-1"}},
    };
    for (const auto& [dgram, want] : cases)
        EXPECT_EQ(walk(dgram), want);
}

// ---- the copy of the neighbour table ---------------------------------------------------------

// The address 2001:db8:1::<n> (two bytes of n).
Bytes host(int n) {
    Bytes d = kDst;
    d[14] = static_cast<uint8_t>(n >> 8);
    d[15] = static_cast<uint8_t>(n);
    return d;
}
// A notification (sequence number 0) for host n on interface ifindex, MAC ending in mac.
Bytes note(int n, int ifindex, uint8_t mac, uint16_t state = NUD_REACHABLE, uint8_t flags = 0,
           uint16_t type = RTM_NEWNEIGH) {
    return entry(mac, state, flags, AF_INET6, 0, {}, host(n), ifindex, type);
}
std::string find(const dpedns_neigh_cache* c, int n) {
    char mac[DPEDNS_MAC_TEXT_SIZE] = "";
    const int r = dpedns_neigh_cache_find(c, host(n).data(), mac);
    return r == 0 ? std::string(mac) : std::to_string(r);
}
int feed(dpedns_neigh_cache* c, const Bytes& d, std::optional<uint32_t> seq = std::nullopt) {
    return dpedns_neigh_cache_apply(c, {d.data(), d.size()}, seq);
}

TEST(NeighCache, FollowsTheNotificationsAsTheListingWould) {
    const auto c = std::make_unique<dpedns_neigh_cache>();
    dpedns_neigh_cache_clear(c.get(), 42);
    // The dump: host 1 listed, host 2 hidden (NOARP alone), host 3 of another request.
    const Bytes dump =
        cat({entry(1, NUD_STALE, 0, AF_INET6, 7, {}, host(1)),
             entry(2, NUD_NOARP, 0, AF_INET6, 7, {}, host(2)),
             entry(3, NUD_STALE, 0, AF_INET6, 8, {}, host(3)), nlmsg(NLMSG_DONE, 7, raw(0))});
    EXPECT_EQ(feed(c.get(), dump, 7), DPEDNS_NEIGH_DONE);
    const std::string several = std::to_string(DPEDNS_NEIGH_UNSURE);
    // Each notification, then what hosts 1 and 2 give.
    const std::vector<std::tuple<Bytes, std::string, std::string>> steps = {
        {Bytes{}, "02:00:5e:ab:cd:01", "-1"},
        {note(1, 1, 0x11, NUD_PERMANENT), "02:00:5e:ab:cd:11", "-1"}, // replaced
        {note(2, 1, 0x22, NUD_NOARP, NTF_EXT_LEARNED), "02:00:5e:ab:cd:11", "02:00:5e:ab:cd:22"},
        {note(1, 2, 0x12), several, "02:00:5e:ab:cd:22"}, // a second interface
        {note(1, 1, 0, NUD_STALE, 0, RTM_DELNEIGH), "02:00:5e:ab:cd:12", "02:00:5e:ab:cd:22"},
        {note(1, 2, 0x12, NUD_NOARP), "-1", "02:00:5e:ab:cd:22"},           // hidden now
        {note(2, 1, 0x99, NUD_NONE, NTF_PROXY), "-1", "02:00:5e:ab:cd:22"}, // another table
        {entry(0x99, NUD_STALE, 0, AF_INET, 0, {}, host(2)), "-1", "02:00:5e:ab:cd:22"},
        {note(2, 1, 0, NUD_STALE, 0, RTM_DELNEIGH), "-1", "-1"},
    };
    for (const auto& [dgram, want1, want2] : steps) {
        EXPECT_EQ(feed(c.get(), dgram), DPEDNS_NEIGH_MORE);
        EXPECT_EQ(find(c.get(), 1), want1);
        EXPECT_EQ(find(c.get(), 2), want2);
    }
}

TEST(NeighCache, KeepsEveryEntryUpToItsBoundAndThenCannotAnswer) {
    const auto c = std::make_unique<dpedns_neigh_cache>();
    dpedns_neigh_cache_clear(c.get(), 7);
    const int max = static_cast<int>(DPEDNS_NEIGH_CACHE_MAX);
    Bytes all, evens;
    for (int n = 0; n < max; ++n) {
        const Bytes add = note(n, 1, static_cast<uint8_t>(n));
        const Bytes del = note(n, 1, 0, NUD_STALE, 0, RTM_DELNEIGH);
        all.insert(all.end(), add.begin(), add.end());
        if (n % 2 == 0) evens.insert(evens.end(), del.begin(), del.end());
    }
    feed(c.get(), all);
    feed(c.get(), evens); // the entries behind each removed one stay reachable
    for (int n = 0; n < max; ++n) {
        char want[DPEDNS_MAC_TEXT_SIZE];
        std::snprintf(want, sizeof want, "02:00:5e:ab:cd:%02x", n & 0xFF);
        ASSERT_EQ(find(c.get(), n), n % 2 ? want : "-1") << n;
    }
    feed(c.get(), all);
    EXPECT_EQ(find(c.get(), max - 1), "02:00:5e:ab:cd:ff");
    EXPECT_EQ(feed(c.get(), note(max, 1, 0)), DPEDNS_NEIGH_MORE);
    EXPECT_EQ(find(c.get(), 1), std::to_string(DPEDNS_NEIGH_UNSURE));
}

} // namespace
