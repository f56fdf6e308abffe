// Any bytes as a DNS message: parse them, decode every indexed record, then run every compose and
// rewrite operation on the parsed packet. The parse reads libFuzzer's own buffer, which is exactly
// as long as the input, so any read past the message is caught; the packet operations work on a
// dns_pkt whose bytes after the message are poisoned while they may only read.
#include <sanitizer/asan_interface.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "endec/dpendec.h"
#include "fuzz_common.h"

namespace {

bool terminated(const char* text, size_t size) {
    return strnlen(text, size) < size;
}

// What a successful parse promises: entries inside the message, texts terminated, caps kept.
void check_index(const msginf& inf, size_t size) {
    FUZZ_CHECK(inf.qd_num == 1 && inf.an_num <= DPENDEC_MAX_AN && inf.ns_num <= 1 &&
               inf.ar_num <= 1);
    FUZZ_CHECK(inf.qd.offset == DPENDEC_HEADER_SIZE);
    FUZZ_CHECK(inf.offsetof1stanRR >= inf.qd.offset + inf.qd.rr_len && inf.offsetof1stanRR <= size);
    FUZZ_CHECK(terminated(inf.name, sizeof inf.name));
    FUZZ_CHECK(terminated(inf.hostaddr, sizeof inf.hostaddr));
    auto inside = [&](const rrinf& e) {
        FUZZ_CHECK(e.offset >= DPENDEC_HEADER_SIZE && e.offset + e.rr_len <= size);
        FUZZ_CHECK(e.name_len < e.rr_len);
    };
    inside(inf.qd);
    for (int i = 0; i < inf.an_num; ++i)
        inside(inf.an[i]);
    if (inf.ns_num != 0) inside(inf.ns);
    if (inf.ar_num != 0) inside(inf.ar);
}

void decode_all(const uint8_t* data, uint16_t size, const msginf& inf) {
    dns_rr rr;
    dpendec_parse_dns_rr(data, size, &inf.qd, 1, &rr);
    for (int i = 0; i < inf.an_num; ++i) {
        if (dpendec_parse_dns_rr(data, size, &inf.an[i], 0, &rr) == 0)
            FUZZ_CHECK(terminated(rr.name, sizeof rr.name));
    }
    if (inf.ns_num != 0) dpendec_parse_dns_rr(data, size, &inf.ns, 0, &rr);
    if (inf.ar_num != 0) dpendec_parse_dns_rr(data, size, &inf.ar, 0, &rr);
}

// A packet holding the message; the unused rest of its buffer is poisoned when reading only.
struct packet {
    dns_pkt pkt;
    packet(const uint8_t* data, uint16_t size, const msginf& inf, bool read_only) {
        std::memcpy(pkt.buf, data, size);
        pkt.len = size;
        pkt.inf = inf;
        if (read_only) ASAN_POISON_MEMORY_REGION(pkt.buf + size, sizeof pkt.buf - size);
    }
    ~packet() { ASAN_UNPOISON_MEMORY_REGION(pkt.buf, sizeof pkt.buf); }
    packet(const packet&) = delete;
    packet& operator=(const packet&) = delete;
};

void compose_all(const uint8_t* data, uint16_t size, const msginf& inf) {
    {
        packet p(data, size, inf, true);
        int32_t ttl = 0;
        char out[256 + DPENDEC_IPSTRS_SLACK];
        FUZZ_CHECK(dpendec_compose_ipstrs(&p.pkt, &ttl, out, 256) == 1);
        FUZZ_CHECK(terminated(out, sizeof out));
        char tight[40]; // smaller than budget + slack: must cut, not overrun
        dpendec_compose_ipstrs(&p.pkt, &ttl, tight, 256);
        FUZZ_CHECK(dpendec_compose_error_response(inf.flags & 0xF, p.pkt.buf, size) == 2);
    }
    const std::string long_name(254, 'z');
    const char* names[] = {inf.name, inf.hostaddr, long_name.c_str(), ""};
    for (const char* name : names) {
        packet a(data, size, inf, false);
        const int n = dpendec_compose_a_response(&a.pkt, "192.0.2.1");
        FUZZ_CHECK(n == -1 || n == inf.offsetof1stanRR + 16);
        packet aaaa(data, size, inf, false);
        const int n6 = dpendec_compose_aaaa_response(&aaaa.pkt, name);
        FUZZ_CHECK(n6 < 0 ? aaaa.pkt.len == size : n6 == inf.offsetof1stanRR + 28);
        packet ptr(data, size, inf, false);
        const int np = dpendec_compose_ptr_response(&ptr.pkt, name);
        FUZZ_CHECK(np < 0 || (np == ptr.pkt.len && np <= DPENDEC_MSG_SIZE));

        packet rw(data, size, inf, false);
        dpendec_replace_qname(&rw.pkt, name);
        FUZZ_CHECK(rw.pkt.len == size || rw.pkt.len <= 1024);
        packet rs(data, size, inf, false);
        dpendec_restore_qname(&rs.pkt, name);
        FUZZ_CHECK(rs.pkt.len <= DPENDEC_MSG_SIZE);
        // A restored response is parsed again, as the proxy relays and caches it.
        msginf again;
        dpendec_compose_dns_msg_inf(rs.pkt.buf, rs.pkt.len, &again);

        uint8_t query[300];
        const int nq = dpendec_compose_query_a(query, sizeof query, name, 0x1234);
        FUZZ_CHECK(nq >= 16 && nq <= static_cast<int>(sizeof query));
        dpendec_compose_dns_msg_inf(query, static_cast<uint16_t>(nq), &again);
    }
}

// The operations again with an index that is not this message's: the message's own bytes are
// taken as the index and the length, as if a stale msginf were passed. Entries are decoded from
// libFuzzer's exact-size buffer; the packet operations must stay inside the packet.
void stale_index(const uint8_t* data, uint16_t size) {
    msginf stale;
    std::memset(&stale, 0, sizeof stale);
    std::memcpy(&stale, data, std::min<size_t>(size, sizeof stale));
    dns_rr rr;
    for (const rrinf& e : stale.an)
        dpendec_parse_dns_rr(data, size, &e, 0, &rr);
    dpendec_parse_dns_rr(data, size, &stale.qd, 1, &rr);
    const auto len = static_cast<uint16_t>(size < 2 ? size : data[0] << 8 | data[1]);
    const auto reset = [&](packet& p) { p.pkt.len = len; };
    packet ip(data, size, stale, false);
    reset(ip);
    int32_t ttl = 0;
    char out[256 + DPENDEC_IPSTRS_SLACK];
    dpendec_compose_ipstrs(&ip.pkt, &ttl, out, 256);
    packet a(data, size, stale, false), ptr(data, size, stale, false);
    packet rw(data, size, stale, false), rs(data, size, stale, false);
    for (packet* p : {&a, &ptr, &rw, &rs})
        reset(*p);
    dpendec_compose_a_response(&a.pkt, "192.0.2.1");
    dpendec_compose_ptr_response(&ptr.pkt, "gw.lan");
    dpendec_replace_qname(&rw.pkt, "cdn.example.net");
    dpendec_restore_qname(&rs.pkt, std::string(200, 'y').c_str());
    FUZZ_CHECK(rs.pkt.len <= DPENDEC_MSG_SIZE || rs.pkt.len == len);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_quiet_traces();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > DPENDEC_MSG_SIZE) return -1; // no datagram read is longer
    const auto len = static_cast<uint16_t>(size);
    stale_index(data, len);
    msginf inf;
    std::memset(&inf, 0xA5, sizeof inf); // stale contents must not leak into a result
    if (dpendec_compose_dns_msg_inf(data, len, &inf) != 1) return 0;
    check_index(inf, size);
    decode_all(data, len, inf);
    compose_all(data, len, inf);
    return 0;
}
