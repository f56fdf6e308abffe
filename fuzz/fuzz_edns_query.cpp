// Any bytes as a client's query on its EDNS path: the OPT inspections and the validation, the
// client-MAC option inserted and the proxy's record stripped again, the payload check against a
// server and the payload rewrite of an answer. The inspections read libFuzzer's exact-size buffer
// (also through an index that is not this message's); the edits work in a heap buffer of exactly
// 2048 bytes, so that any access beyond the message buffer is caught.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "edns/dpedns.h"
#include "fuzz_common.h"
#include "server/dpsvr.h"

namespace {

constexpr char kMac[] = "02:00:5E:AB:CD:10";

struct message_buffer {
    std::unique_ptr<uint8_t[]> buf{new uint8_t[DPENDEC_MSG_SIZE]};
    uint16_t len;
    message_buffer(const uint8_t* data, uint16_t size) : len(size) {
        std::memcpy(buf.get(), data, size);
    }
    bool equals(const uint8_t* data, uint16_t size) const {
        return len == size && std::memcmp(buf.get(), data, size) == 0;
    }
};

// The untouched copy that the edits put back from.
dns_pkt copy_of(const uint8_t* data, uint16_t size, const msginf& inf) {
    dns_pkt p;
    std::memcpy(p.buf, data, size);
    p.len = size;
    p.inf = inf;
    return p;
}

uint16_t get16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

// The end of the last record of every section: the message has no bytes behind its records
// when this equals its length.
size_t records_end(const uint8_t* data, uint16_t size) {
    size_t off = DPENDEC_HEADER_SIZE;
    for (int s = 0; s < 4; ++s) {
        for (int i = 0; i < get16(data + 4 + 2 * s); ++i) {
            rrinf e;
            if (off >= size || dpendec_compose_dns_rr_inf(data, size, data + off, s == 0, &e) < 0)
                return SIZE_MAX;
            off += e.rr_len;
        }
    }
    return off;
}

// Only the two payload bytes of the first OPT record may differ from the input.
void check_payload_edit(const uint8_t* data, const std::vector<uint8_t>& out, const rrinf* opt) {
    for (size_t i = 0; i < out.size(); ++i) {
        if (out[i] == data[i]) continue;
        FUZZ_CHECK(opt != nullptr && (i == opt->offset + 3u || i == opt->offset + 4u));
    }
}

// Inspections through an index made of the message's own bytes, as a stale msginf would be.
void stale_index(const uint8_t* data, uint16_t size) {
    msginf stale;
    std::memset(&stale, 0, sizeof stale);
    std::memcpy(&stale, data, std::min<size_t>(size, sizeof stale));
    rrinf opt;
    is_edns_present(data, size, &stale, &opt);
    get_edns_array_count(data, size, &stale);
    is_edns_rd_len_valid(data, size, &stale);
    dpedns_is_valid_edns_rr(data, size, &stale);
    edns_option_pos pos;
    is_edns_option_fe31_present(data, size, &stale.ar, &pos);
    is_edns_option_fe31_present(data, size, &stale.qd, &pos);
}

void inspect(const uint8_t* data, uint16_t size, const msginf& inf) {
    rrinf opt;
    const bool has_opt = is_edns_present(data, size, &inf, &opt) == 0;
    if (has_opt) {
        FUZZ_CHECK(opt.offset + opt.rr_len <= size && opt.type == DPEDNS_TYPE_OPT);
        edns_option_pos pos;
        if (is_edns_option_fe31_present(data, size, &opt, &pos) == 0)
            FUZZ_CHECK(pos.code == DPEDNS_OPT_CLIENT_MAC && pos.offset + 4u <= size);
    }
    const int count = get_edns_array_count(data, size, &inf);
    // A record behind the first OPT record may still be undecodable (-3).
    FUZZ_CHECK(!has_opt || count >= 1 || count == -3);
    const int valid = dpedns_is_valid_edns_rr(data, size, &inf);
    FUZZ_CHECK(valid <= 0 && valid >= -3);
    FUZZ_CHECK(valid != 0 || size <= DPEDNS_MAX_QUERY_LEN);

    for (uint16_t server : {0, 512, 1232}) {
        std::vector<uint8_t> copy(data, data + size);
        dpedns_check_packet_payload(copy.data(), size, server);
        check_payload_edit(data, copy, has_opt ? &opt : nullptr);
    }
    std::vector<uint8_t> answer(data, data + size);
    FUZZ_CHECK(dpedns_update_edns_payload(answer.data(), size, &inf) == (has_opt ? 0 : -1));
    check_payload_edit(data, answer, has_opt ? &opt : nullptr);
}

// Insertion, then stripping of what was inserted.
void insert_and_strip(const uint8_t* data, uint16_t size, const msginf& inf) {
    const dns_pkt backup = copy_of(data, size, inf);
    message_buffer m(data, size);
    msginf info = inf;
    int had_opt = 0;
    if (dpedns_insert_mac_option(&backup, m.buf.get(), &m.len, kMac, &info, &had_opt) != 0) {
        FUZZ_CHECK(m.len == size && m.equals(data, size)); // nothing inserted, or put back
        return;
    }
    msginf again;
    FUZZ_CHECK(dpendec_compose_dns_msg_inf(m.buf.get(), m.len, &again) == 1);
    FUZZ_CHECK(again.arcount == info.arcount && again.ar.offset == info.ar.offset);
    if (had_opt) {
        FUZZ_CHECK(m.len == size + DPEDNS_MAC_OPTION_LEN && again.arcount == inf.arcount);
        return;
    }
    FUZZ_CHECK(m.len == size + DPEDNS_OPT_RECORD_LEN && again.arcount == inf.arcount + 1);
    FUZZ_CHECK(std::memcmp(m.buf.get() + size + 15, kMac, DPEDNS_MAC_TEXT_LEN) == 0);
    FUZZ_CHECK(std::memcmp(m.buf.get() + 12, data + 12, size - 12) == 0);

    // The answer to it comes back with the proxy's record: taking it out gives the query back,
    // unless bytes behind the records were taken for a record once the count grew, or a record
    // before the proxy's cannot be decoded.
    const dns_pkt sent = copy_of(m.buf.get(), m.len, info);
    const int ret = dpedns_strip_option41(&sent, m.buf.get(), &m.len, &info);
    const int count = get_edns_array_count(data, size, &inf);
    if (records_end(data, size) == size && (count == 0 || count == -1))
        FUZZ_CHECK(ret == 0 && m.equals(data, size));
}

// Stripping the first OPT record from the message as an answer.
void strip_answer(const uint8_t* data, uint16_t size, const msginf& inf) {
    const dns_pkt backup = copy_of(data, size, inf);
    message_buffer m(data, size);
    msginf info = inf;
    rrinf opt;
    const bool has_opt = is_edns_present(data, size, &inf, &opt) == 0;
    const int ret = dpedns_strip_option41(&backup, m.buf.get(), &m.len, &info);
    FUZZ_CHECK(ret == (has_opt ? 0 : -1));
    FUZZ_CHECK(m.equals(data, size) || (has_opt && m.len == size - opt.rr_len));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_quiet_traces();
    dp_debug_tbl.modules[DP_MOD_PROXY].level_mask = 0xFFFFFFFF;
    dpsvr_init_server_sets();
    servset* set = dpsvr_get_server_set(DPSVR_V4_HSI);
    set->num = 2;
    set->servers[0].udpMaxPayload = 544;
    set->servers[1].udpMaxPayload = 1232;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > DPENDEC_MSG_SIZE) return -1; // no datagram read is longer
    const auto len = static_cast<uint16_t>(size);
    stale_index(data, len);
    msginf inf;
    std::memset(&inf, 0xA5, sizeof inf);
    if (dpendec_compose_dns_msg_inf(data, len, &inf) != 1) return 0;
    inspect(data, len, inf);
    insert_and_strip(data, len, inf);
    strip_answer(data, len, inf);
    return 0;
}
