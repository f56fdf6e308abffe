// Any bytes as a client's query on its EDNS path: the OPT inspections and the validation (also
// through an index that is not this message's), the payload check against a server and the
// payload rewrite of an answer, the client-MAC option inserted and the proxy's record stripped
// again. The inspections read libFuzzer's exact-size buffer; the edits work in a heap buffer of
// exactly 2048 bytes, so that any access beyond the message buffer is caught.
#include <vector>

#include "edns/dpedns.h"
#include "fuzz_common.h"

namespace {

constexpr char kMac[] = "02:00:5E:AB:CD:10";

// The message in its 2048-byte buffer with its index, and the untouched copy edits put back from.
struct edit {
    std::vector<uint8_t> buf = std::vector<uint8_t>(DPENDEC_MSG_SIZE);
    uint16_t len;
    msginf info;
    dns_pkt backup;
    edit(const uint8_t* data, uint16_t size, const msginf& inf) : len(size), info(inf) {
        std::memcpy(buf.data(), data, size);
        fuzz_load(&backup, data, size, inf, size);
    }
    bool equals(const uint8_t* data, uint16_t size) const {
        return len == size && std::memcmp(buf.data(), data, size) == 0;
    }
};

// Whether the records of every section end exactly at the end of the message.
bool records_fill(const uint8_t* data, uint16_t size) {
    size_t off = DPENDEC_HEADER_SIZE;
    for (int s = 0; s < 4; ++s) {
        for (int i = 0; i < (data[4 + 2 * s] << 8 | data[5 + 2 * s]); ++i) {
            rrinf e;
            if (off >= size || dpendec_compose_dns_rr_inf(data, size, data + off, s == 0, &e) < 0)
                return false;
            off += e.rr_len;
        }
    }
    return off == size;
}

void stale_index(const uint8_t* data, uint16_t size) {
    const msginf stale = fuzz_stale_index(data, size);
    rrinf opt;
    edns_option_pos pos;
    is_edns_present(data, size, &stale, &opt);
    get_edns_array_count(data, size, &stale);
    is_edns_rd_len_valid(data, size, &stale);
    dpedns_is_valid_edns_rr(data, size, &stale);
    is_edns_option_fe31_present(data, size, &stale.ar, &pos);
    is_edns_option_fe31_present(data, size, &stale.qd, &pos);
}

void inspect(const uint8_t* data, uint16_t size, const msginf& inf, const rrinf* opt) {
    edns_option_pos pos;
    if (opt != nullptr && is_edns_option_fe31_present(data, size, opt, &pos) == 0)
        FUZZ_CHECK(pos.code == DPEDNS_OPT_CLIENT_MAC && pos.offset + 4u <= size);
    const int count = get_edns_array_count(data, size, &inf);
    // A record behind the first OPT record may still be undecodable (-3).
    FUZZ_CHECK(opt == nullptr || count >= 1 || count == -3);
    const int valid = dpedns_is_valid_edns_rr(data, size, &inf);
    FUZZ_CHECK(valid <= 0 && valid >= -3 && (valid != 0 || size <= DPEDNS_MAX_QUERY_LEN));
    // The payload check against three servers, then the payload rewrite of an answer: only the
    // two payload bytes of the first OPT record may change.
    for (int server : {0, 512, 1232, -1}) {
        std::vector<uint8_t> out(data, data + size);
        if (server >= 0) dpedns_check_packet_payload(out.data(), size, uint16_t(server));
        if (server < 0)
            FUZZ_CHECK(dpedns_update_edns_payload(out.data(), size, &inf) == (opt ? 0 : -1));
        if (opt != nullptr) std::copy_n(data + opt->offset + 3, 2, out.begin() + opt->offset + 3);
        FUZZ_CHECK(std::equal(out.begin(), out.end(), data));
    }
}

// Insertion, then stripping of what was inserted.
void insert_and_strip(const uint8_t* data, uint16_t size, const msginf& inf) {
    edit m(data, size, inf);
    int had_opt = 0;
    if (dpedns_insert_mac_option(&m.backup, m.buf.data(), &m.len, kMac, &m.info, &had_opt) != 0)
        return FUZZ_CHECK(m.equals(data, size)); // nothing inserted, or put back
    msginf again;
    FUZZ_CHECK(dpendec_compose_dns_msg_inf(m.buf.data(), m.len, &again) == 1);
    FUZZ_CHECK(again.arcount == m.info.arcount && again.ar.offset == m.info.ar.offset);
    if (had_opt)
        return FUZZ_CHECK(m.len == size + DPEDNS_MAC_OPTION_LEN && again.arcount == inf.arcount);
    FUZZ_CHECK(m.len == size + DPEDNS_OPT_RECORD_LEN && again.arcount == inf.arcount + 1);
    FUZZ_CHECK(std::memcmp(m.buf.data() + size + 15, kMac, DPEDNS_MAC_TEXT_LEN) == 0);
    FUZZ_CHECK(std::memcmp(m.buf.data() + 12, data + 12, size - 12) == 0);

    // The answer to it comes back with the proxy's record: taking it out gives the query back,
    // unless bytes behind the records were taken for a record once the count grew, or a record
    // before the proxy's cannot be decoded.
    fuzz_load(&m.backup, m.buf.data(), m.len, m.info, m.len);
    const int ret = dpedns_strip_option41(&m.backup, m.buf.data(), &m.len, &m.info);
    const int count = get_edns_array_count(data, size, &inf);
    if (records_fill(data, size) && (count == 0 || count == -1))
        FUZZ_CHECK(ret == 0 && m.equals(data, size));
}

// Stripping the first OPT record from the message as an answer.
void strip_answer(const uint8_t* data, uint16_t size, const msginf& inf, const rrinf* opt) {
    edit m(data, size, inf);
    const int ret = dpedns_strip_option41(&m.backup, m.buf.data(), &m.len, &m.info);
    FUZZ_CHECK(ret == (opt ? 0 : -1));
    FUZZ_CHECK(m.equals(data, size) || (opt && m.len == size - opt->rr_len));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_set_up();
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
    rrinf found;
    const rrinf* opt = is_edns_present(data, len, &inf, &found) == 0 ? &found : nullptr;
    if (opt != nullptr)
        FUZZ_CHECK(opt->offset + opt->rr_len <= size && opt->type == DPEDNS_TYPE_OPT);
    inspect(data, len, inf, opt);
    insert_and_strip(data, len, inf);
    strip_answer(data, len, inf, opt);
    return 0;
}
