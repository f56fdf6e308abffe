// Any bytes as a DNS message: parse them, decode every indexed record, then run every compose and
// rewrite operation on the parsed packet, and all of them once more over an index that is not
// this message's. Parsing and decoding read libFuzzer's own buffer, exactly as long as the input,
// so any read past the message is caught; the read-only packet operations run with the bytes
// after the message poisoned.
#include <sanitizer/asan_interface.h>

#include "fuzz_common.h"

namespace {

// What a successful parse promises: entries inside the message, texts terminated, caps kept.
void check_index(const uint8_t* data, uint16_t size, const msginf& inf) {
    FUZZ_CHECK(inf.qd_num == 1 && inf.an_num <= DPENDEC_MAX_AN && inf.ns_num <= 1 &&
               inf.ar_num <= 1 && inf.qd.offset == DPENDEC_HEADER_SIZE);
    FUZZ_CHECK(inf.offsetof1stanRR >= inf.qd.offset + inf.qd.rr_len && inf.offsetof1stanRR <= size);
    FUZZ_CHECK(std::memchr(inf.name, 0, sizeof inf.name) &&
               std::memchr(inf.hostaddr, 0, sizeof inf.hostaddr));
    dns_rr rr;
    auto entry = [&](const rrinf& e, int is_question) {
        FUZZ_CHECK(e.offset >= DPENDEC_HEADER_SIZE && e.offset + e.rr_len <= size);
        FUZZ_CHECK(e.name_len < e.rr_len);
        if (dpendec_parse_dns_rr(data, size, &e, is_question, &rr) == 0)
            FUZZ_CHECK(std::memchr(rr.name, 0, sizeof rr.name));
    };
    entry(inf.qd, 1);
    for (int i = 0; i < inf.an_num; ++i)
        entry(inf.an[i], 0);
    if (inf.ns_num != 0) entry(inf.ns, 0);
    if (inf.ar_num != 0) entry(inf.ar, 0);
}

void compose_all(const uint8_t* data, uint16_t size, const msginf& inf) {
    dns_pkt p;
    const auto load = [&] { return fuzz_load(&p, data, size, inf, size); };
    load();
    ASAN_POISON_MEMORY_REGION(p.buf + size, sizeof p.buf - size);
    int32_t ttl = 0;
    char out[256 + DPENDEC_IPSTRS_SLACK];
    FUZZ_CHECK(dpendec_compose_ipstrs(&p, &ttl, out, 256) == 1 && std::memchr(out, 0, sizeof out));
    char tight[40]; // smaller than budget + slack: must cut, not overrun
    dpendec_compose_ipstrs(&p, &ttl, tight, 256);
    FUZZ_CHECK(dpendec_compose_error_response(inf.flags & 0xF, p.buf, size) == 2);
    ASAN_UNPOISON_MEMORY_REGION(p.buf, sizeof p.buf);

    const int n = dpendec_compose_a_response(load(), "192.0.2.1");
    FUZZ_CHECK(n < 0 ? n == -1 && p.len == size : n == inf.offsetof1stanRR + 16 && n == p.len);
    const std::string long_name(254, 'z');
    for (const char* name : {inf.name, inf.hostaddr, long_name.c_str(), ""}) {
        const int n6 = dpendec_compose_aaaa_response(load(), name);
        FUZZ_CHECK(n6 < 0 ? p.len == size : n6 == inf.offsetof1stanRR + 28 && n6 == p.len);
        const int np = dpendec_compose_ptr_response(load(), name);
        FUZZ_CHECK(np < 0 ? p.len == size : np == p.len && np <= DPENDEC_MSG_SIZE);
        dpendec_replace_qname(load(), name);
        FUZZ_CHECK(p.len == size || p.len <= 1024);
        dpendec_restore_qname(load(), name);
        FUZZ_CHECK(p.len <= DPENDEC_MSG_SIZE);
        // A restored response is parsed again, as the proxy relays and caches it.
        msginf again;
        dpendec_compose_dns_msg_inf(p.buf, p.len, &again);
        uint8_t query[300];
        const int nq = dpendec_compose_query_a(query, sizeof query, name, 0x1234);
        FUZZ_CHECK(nq >= 16 && nq <= static_cast<int>(sizeof query));
        dpendec_compose_dns_msg_inf(query, static_cast<uint16_t>(nq), &again);
    }
}

// Every operation with an index made of the message's bytes and a length from its first two
// bytes, as if a stale msginf were passed: nothing may leave the message or the packet.
void stale_index(const uint8_t* data, uint16_t size) {
    const msginf stale = fuzz_stale_index(data, size);
    dns_rr rr;
    for (const rrinf& e : stale.an)
        dpendec_parse_dns_rr(data, size, &e, 0, &rr);
    dpendec_parse_dns_rr(data, size, &stale.qd, 1, &rr);
    const auto len = static_cast<uint16_t>(size < 2 ? size : data[0] << 8 | data[1]);
    dns_pkt p;
    const auto load = [&] { return fuzz_load(&p, data, size, stale, len); };
    int32_t ttl = 0;
    char out[256 + DPENDEC_IPSTRS_SLACK];
    dpendec_compose_ipstrs(load(), &ttl, out, 256);
    dpendec_compose_a_response(load(), "192.0.2.1");
    dpendec_compose_ptr_response(load(), "gw.lan");
    dpendec_replace_qname(load(), "cdn.example.net");
    dpendec_restore_qname(load(), std::string(200, 'y').c_str());
    FUZZ_CHECK(p.len <= DPENDEC_MSG_SIZE || p.len == len);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    return fuzz_set_up();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > DPENDEC_MSG_SIZE) return -1; // no datagram read is longer
    const auto len = static_cast<uint16_t>(size);
    stale_index(data, len);
    msginf inf;
    std::memset(&inf, 0xA5, sizeof inf); // stale contents must not leak into a result
    if (dpendec_compose_dns_msg_inf(data, len, &inf) != 1) return 0;
    check_index(data, len, inf);
    compose_all(data, len, inf);
    return 0;
}
