// OPT records on the wire: finding, counting and validating them, their payload sizes, and the
// client-MAC option put into a query and the proxy's own record taken out of the answer.
#include <algorithm>
#include <array>
#include <cstring>
#include <span>

#include "ctrl/dp_trace.h"
#include "edns/dpedns.h"
#include "server/dpsvr.h"

namespace {

// Offsets inside an OPT record: right for the one-byte root owner name only (see dpedns.h).
constexpr size_t kPayloadOffset = 3;
constexpr size_t kRdlenOffset = 9;
constexpr size_t kFixedFields = 10; // TYPE, CLASS, TTL, RDLENGTH after the owner name
constexpr size_t kOptionHeader = 4; // option code and length

constexpr uint16_t kOwnPayload = 523; // payload size of the record the proxy appends
constexpr uint16_t kMaxServerPayload = 4096;
constexpr uint16_t kZeroServerPayload = 480;
constexpr uint16_t kLargeServerPayload = 992;
constexpr uint16_t kSmallServerLimit = 1024;
constexpr uint16_t kPayloadMargin = 32;

constexpr int kWalkMalformed = -1;
constexpr int kWalkStop = 1;

// A big-endian 16-bit field of the message at off; false (and nothing read or written) when the
// field does not lie wholly inside the message.
bool get_u16(std::span<const uint8_t> msg, size_t off, uint16_t* value) {
    if (off > msg.size() || msg.size() - off < 2) return false;
    *value = static_cast<uint16_t>(msg[off] << 8 | msg[off + 1]);
    return true;
}

bool put_u16(std::span<uint8_t> msg, size_t off, uint16_t value) {
    if (off > msg.size() || msg.size() - off < 2) return false;
    msg[off] = static_cast<uint8_t>(value >> 8);
    msg[off + 1] = static_cast<uint8_t>(value);
    return true;
}

// Address of msg[off] for trace lines only: off may lie past the end.
const void* trace_addr(const uint8_t* msg, size_t off) {
    return reinterpret_cast<const void*>(reinterpret_cast<uintptr_t>(msg) + off);
}

bool has_additional(const msginf* info) {
    return info->arcount != 0 && info->ar_num != 0;
}

// An index entry handed in by a caller describes a whole record inside the message.
bool entry_fits(const rrinf& e, uint16_t len) {
    return e.offset + static_cast<size_t>(e.rr_len) <= len && e.rr_len >= e.name_len + kFixedFields;
}

// Indexes the header's arcount additional records one after another from the first indexed
// one and hands each to visit(idx, entry), which returns 0 to go on; any other value ends the
// walk and is returned. kWalkMalformed (traced under the caller's name) when a record cannot be
// indexed; 0 when every record was visited.
template <typename Visit>
int walk_additional(const char* caller, const uint8_t* msg, uint16_t len, const msginf* info,
                    Visit visit) {
    size_t off = info->ar.offset;
    for (int i = 0; i < info->arcount; ++i) {
        rrinf entry;
        const int ret = off < len ? dpendec_compose_dns_rr_inf(msg, len, msg + off, 0, &entry) : -2;
        if (ret < 0) {
            DPMAIN_TRACE_AS(caller, DP_DETAIL, "rrbuf=%p aridx=%d ret=%d\n", trace_addr(msg, off),
                            i, ret);
            return kWalkMalformed;
        }
        if (const int v = visit(i, entry); v != 0) return v;
        off += entry.rr_len;
    }
    return 0;
}

// Decodes one additional record for the walks that need its TYPE; traces a failure under the
// caller's name.
bool decode_record(const char* caller, const uint8_t* msg, uint16_t len, const rrinf& entry,
                   int idx, dns_rr* rr) {
    const int ret = dpendec_parse_dns_rr(msg, len, &entry, 0, rr);
    if (ret < 0) {
        DPMAIN_TRACE_AS(caller, DP_DETAIL, "err to decode anrr idx=%d ret=%d\n", idx, ret);
        return false;
    }
    return true;
}

// The record step of is_edns_rd_len_valid: the owner name (at most 255 characters), then TYPE,
// CLASS, TTL and RDLENGTH read from behind it. 0, or -1 when the name cannot be decoded or the
// fields do not fit the message.
int parse_edns_rr(const uint8_t* msg, uint16_t len, const rrinf& entry, int idx, dns_rr* rr) {
    *rr = {};
    const std::span<const uint8_t> view(msg, len);
    const int ret = entry.offset < len ? dpendec_parse_domain_name(msg + entry.offset, msg, len,
                                                                   rr->name, DPENDEC_NAME_SIZE - 1)
                                       : -1;
    if (ret < 0) {
        DPMAIN_TRACE(DP_DETAIL, "domain name len wrong ret=%d\n", ret);
        DPMAIN_TRACE(DP_DETAIL, "err to decode anrr idx=%d ret=%d\n", idx, ret);
        return -1;
    }
    const size_t at = static_cast<size_t>(entry.offset) + entry.name_len;
    uint16_t ttl_hi = 0, ttl_lo = 0;
    if (!get_u16(view, at, &rr->type) || !get_u16(view, at + 2, &rr->rclass) ||
        !get_u16(view, at + 4, &ttl_hi) || !get_u16(view, at + 6, &ttl_lo) ||
        !get_u16(view, at + 8, &rr->rdlen)) {
        DPMAIN_TRACE(DP_DETAIL, "err to decode anrr idx=%d ret=%d\n", idx, -2);
        return -1;
    }
    rr->ttl = static_cast<int32_t>(static_cast<uint32_t>(ttl_hi) << 16 | ttl_lo);
    return 0;
}

// The smallest udpMaxPayload of every server of the eight sets, 4096 when none is smaller.
uint16_t min_server_payload() {
    uint16_t low = kMaxServerPayload;
    for (uint32_t i = 0; i < DPSVR_SET_COUNT; ++i) {
        const servset* set = dpsvr_get_server_set(i);
        if (set == nullptr) continue;
        const int n = std::min<int>(set->num, DPSVR_MAX_SERVERS);
        for (int j = 0; j < n; ++j)
            low = std::min(low, set->servers[j].udpMaxPayload);
    }
    return low;
}

// ---- insertion and stripping steps ----------------------------------------------------------

using mac_option = std::array<uint8_t, DPEDNS_MAC_OPTION_LEN>;
using own_opt_record = std::array<uint8_t, DPEDNS_OPT_RECORD_LEN>;

// The option alone: code 0xFE31, length 17, the text bytes (mac: 17 characters and a NUL).
mac_option make_mac_option(const char* mac) {
    mac_option option{};
    put_u16(option, 0, DPEDNS_OPT_CLIENT_MAC);
    put_u16(option, 2, DPEDNS_MAC_TEXT_LEN);
    std::memcpy(option.data() + kOptionHeader, mac, DPEDNS_MAC_TEXT_LEN);
    return option;
}

// The OPT record for a query that has none: root owner, payload 523, TTL 0, the option.
own_opt_record compose_edns_header(const char* mac) {
    DPMAIN_TRACE(DP_PKT, "compose_edns_header Entered..\n");
    DPMAIN_TRACE(DP_PKT, "name:%x,type:%d,xclass:%d,ttl:%d rdlen : %d\n", 0, DPEDNS_TYPE_OPT,
                 kOwnPayload, 0, DPEDNS_MAC_OPTION_LEN);
    DPMAIN_TRACE(DP_PKT, "opcode:%x, oplen:%d,opdata:%s\n", DPEDNS_OPT_CLIENT_MAC,
                 DPEDNS_MAC_TEXT_LEN, mac);
    own_opt_record rec{};
    put_u16(rec, 1, DPEDNS_TYPE_OPT);
    put_u16(rec, kPayloadOffset, kOwnPayload);
    put_u16(rec, kRdlenOffset, DPEDNS_MAC_OPTION_LEN); // the TTL at 5..8 stays 0
    const mac_option option = make_mac_option(mac);
    std::copy(option.begin(), option.end(), rec.end() - option.size());
    DPMAIN_TRACE(DP_PKT, "compose_edns_header Exit..\n");
    return rec;
}

// Inserts bytes at offset at of a message of *len bytes in a buffer of DPENDEC_MSG_SIZE, moving
// what follows up. false (nothing moved) when at lies beyond the message or the result would not
// fit the buffer.
bool splice_in(uint8_t* msg, uint16_t* len, size_t at, std::span<const uint8_t> bytes) {
    if (at > *len || *len + bytes.size() > DPENDEC_MSG_SIZE) return false;
    std::memmove(msg + at + bytes.size(), msg + at, *len - at);
    std::memcpy(msg + at, bytes.data(), bytes.size());
    *len = static_cast<uint16_t>(*len + bytes.size());
    return true;
}

// Removes n bytes at offset at, moving what follows down; false when they are not all inside.
bool cut_out(uint8_t* msg, uint16_t* len, size_t at, size_t n) {
    if (at > *len || n > *len - at) return false;
    std::memmove(msg + at, msg + at + n, *len - at - n);
    *len = static_cast<uint16_t>(*len - n);
    return true;
}

int insert_edns_header(uint8_t* msg, uint16_t* len, const own_opt_record& rec) {
    DPMAIN_TRACE(DP_PKT, "insert_edns_header Enter..\n");
    if (!splice_in(msg, len, *len, rec)) return -1;
    DPMAIN_TRACE(DP_PKT, "insert_edns_header Exit..\n");
    return 0;
}

// Puts the option behind the end of the client's OPT record, which grows by 21 bytes. A payload
// size above 1024 comes down to 1024: no longer answer would be read from the server socket.
int append_mac_header(uint8_t* msg, uint16_t* len, const rrinf& opt,
                      std::span<const uint8_t> option) {
    DPMAIN_TRACE(DP_PKT, "append_mac_header Enter..\n");
    DPMAIN_TRACE(DP_PKT, "length Before appending Mac header: %d\n", *len);
    const std::span<uint8_t> view(msg, *len);
    const size_t end = static_cast<size_t>(opt.offset) + opt.rr_len;
    uint16_t payload = 0, rdlen = 0;
    if (!entry_fits(opt, *len) || *len + option.size() > DPENDEC_MSG_SIZE ||
        !get_u16(view, opt.offset + kPayloadOffset, &payload) ||
        !get_u16(view, opt.offset + kRdlenOffset, &rdlen))
        return -1;
    if (payload > DPEDNS_QUERY_PAYLOAD_CAP)
        put_u16(view, opt.offset + kPayloadOffset, DPEDNS_QUERY_PAYLOAD_CAP);
    put_u16(view, opt.offset + kRdlenOffset, static_cast<uint16_t>(rdlen + option.size()));
    splice_in(msg, len, end, option);
    DPMAIN_TRACE(DP_PKT, "length after appending Mac header: %d\n", *len);
    DPMAIN_TRACE(DP_PKT, "append_mac_header Exit..\n");
    return 0;
}

// Takes the first OPT record out of the message. keep: the record is moved behind the new end
// instead of being overwritten, so that it can be put back; *opt is where it was (rr_len 0 when
// nothing was taken out).
void strip_edns_header(uint8_t* msg, uint16_t* len, const msginf* info, bool keep, rrinf* opt) {
    DPMAIN_TRACE(DP_PKT, "strip_edns_header Entered..\n");
    *opt = {};
    if (is_edns_present(msg, *len, info, opt) < 0) {
        DPMAIN_TRACE(DP_PKT, "Edns Header Not found in the pkt.\n");
        *opt = {};
        return;
    }
    DPMAIN_TRACE(DP_PKT, "Edns Header found.Going to strip it..\n");
    if (!keep) {
        cut_out(msg, len, opt->offset, opt->rr_len);
    } else if (opt->offset <= *len && opt->rr_len <= *len - opt->offset) {
        std::rotate(msg + opt->offset, msg + opt->offset + opt->rr_len, msg + *len);
        *len = static_cast<uint16_t>(*len - opt->rr_len);
    } else {
        opt->rr_len = 0;
    }
    DPMAIN_TRACE(DP_PKT, "strip_edns_header Exit..\n");
}

// The steps of the strip, traced as the operation fn; put_back() undoes them when the result does
// not parse.
template <typename PutBack>
int strip_option41(const char* fn, uint8_t* msg, uint16_t* len, size_t max_len, msginf* info,
                   bool keep, rrinf* cut, PutBack put_back) {
    DPMAIN_TRACE_AS(fn, DP_PKT, "dpOpt41Strip Enter..\n");
    rrinf opt;
    if (*len > max_len || is_edns_present(msg, *len, info, &opt) < 0) {
        DPMAIN_TRACE_AS(fn, DP_PKT, "Edns Header Not found in the response pkt.\n");
        return -1;
    }
    modify_array_count(msg, *len, 0);
    strip_edns_header(msg, len, info, keep, cut);
    const int ret = dpendec_compose_dns_msg_inf(msg, *len, info);
    if (ret < 0) {
        DPMAIN_TRACE_AS(fn, DP_PKT, "Error After strip : %d\n", ret);
        put_back();
    }
    DPMAIN_TRACE_AS(fn, DP_PKT, "dpOpt41Strip Exit..\n");
    return 0;
}

// Puts message and length back as the backup holds them.
void restore_message(const dns_pkt* backup, uint8_t* msg, uint16_t* len) {
    const uint16_t n = std::min(backup->len, DPENDEC_MSG_SIZE);
    std::memmove(msg, backup->buf, n);
    *len = n;
}

} // namespace

// ---- inspection -------------------------------------------------------------------------------

int is_edns_present(const uint8_t* msg, uint16_t len, const msginf* info, rrinf* opt) {
    DPMAIN_TRACE(DP_PKT, "is_edns_present Entered..\n");
    *opt = {};
    if (!has_additional(info)) {
        DPMAIN_TRACE(DP_PKT, "No additional RR found in the pkt.\n");
        return -1;
    }
    const int ret = walk_additional(__func__, msg, len, info, [&](int idx, const rrinf& entry) {
        dns_rr rr;
        if (!decode_record(__func__, msg, len, entry, idx, &rr)) return -1;
        if (rr.type != DPEDNS_TYPE_OPT) return 0;
        *opt = entry;
        return kWalkStop;
    });
    if (ret < 0) return -1;
    if (ret != kWalkStop) {
        DPMAIN_TRACE(DP_PKT, "Edns Header Not found in the pkt.\n");
        return -1;
    }
    DPMAIN_TRACE(DP_PKT, "Edns Header found in the pkt.\n");
    DPMAIN_TRACE(DP_PKT, "RR type:%d, nameLen :%d, rrLen:%d, offset:%d\n", opt->type, opt->name_len,
                 opt->rr_len, opt->offset);
    DPMAIN_TRACE(DP_PKT, "is_edns_present Exit..\n");
    return 0;
}

int get_edns_array_count(const uint8_t* msg, uint16_t len, const msginf* info) {
    DPMAIN_TRACE(DP_PKT, "get_edns_array_count Entered..\n");
    if (!has_additional(info)) {
        DPMAIN_TRACE(DP_PKT, "No additional RR found in the pkt.\n");
        return -1;
    }
    int count = 0;
    const int ret = walk_additional(__func__, msg, len, info, [&](int idx, const rrinf& entry) {
        dns_rr rr;
        if (!decode_record(__func__, msg, len, entry, idx, &rr)) return -3;
        if (rr.type == DPEDNS_TYPE_OPT) ++count;
        return 0;
    });
    if (ret == kWalkMalformed) return -2;
    if (ret < 0) return ret;
    DPMAIN_TRACE(DP_PKT, "edns_count = %d\n", count);
    DPMAIN_TRACE(DP_PKT, "get_edns_array_count Exit..\n");
    return count;
}

int is_edns_option_fe31_present(const uint8_t* msg, uint16_t len, const rrinf* opt,
                                edns_option_pos* pos) {
    DPMAIN_TRACE(DP_PKT, "is_edns_option_fe31_present Entered..\n");
    dns_rr rr;
    if (!entry_fits(*opt, len) || !decode_record(__func__, msg, len, *opt, 0, &rr)) return -1;
    if (rr.rdlen > opt->rr_len - opt->name_len - kFixedFields) return -1;
    // Options are read from the decoded copy of the RDATA, which keeps at most 256 bytes.
    const size_t first = static_cast<size_t>(opt->offset) + opt->rr_len - rr.rdlen;
    const size_t kept = std::min<size_t>(rr.rdlen, DPENDEC_RDATA_SIZE);
    const std::span<const uint8_t> rdata(rr.rdata, kept);
    for (size_t o = 0; o + kOptionHeader <= kept; o += kOptionHeader + pos->length) {
        pos->offset = static_cast<uint16_t>(first + o);
        get_u16(rdata, o, &pos->code);
        get_u16(rdata, o + 2, &pos->length);
        if (pos->code == DPEDNS_OPT_CLIENT_MAC) {
            DPMAIN_TRACE(DP_PKT, "Edns Option fe31 Header found in the pkt.\n");
            DPMAIN_TRACE(DP_PKT, "is_edns_option_fe31_present Exit..\n");
            return 0;
        }
    }
    DPMAIN_TRACE(DP_PKT, "Edns Option fe31 Header Not found in the pkt.\n");
    return -1;
}

int modify_array_count(uint8_t* msg, uint16_t len, int action) {
    DPMAIN_TRACE(DP_PKT, "modify_array_count Enter..\n");
    dns_header h;
    if (dpendec_read_dns_header(msg, len, &h) < 0) return -1;
    if (DP_TRACE_ON(DP_MOD_PROXY, DP_ENDEC)) dpendec_dump_header(&h);
    if (action == 1) {
        ++h.arcount;
    } else if (action == 0) {
        if (h.arcount == 0) {
            DPMAIN_TRACE(DP_DETAIL, "modify_array_count ArrCount can't be modified\n");
            return -1;
        }
        --h.arcount;
    }
    compose_dns_header(&h, msg, len);
    if (DP_TRACE_ON(DP_MOD_PROXY, DP_ENDEC)) dpendec_dump_header(&h);
    DPMAIN_TRACE(DP_PKT, "modify_array_count Exit..\n");
    return 0;
}

int is_edns_rd_len_valid(const uint8_t* msg, uint16_t len, const msginf* info) {
    DPMAIN_TRACE(DP_PKT, "is_edns_rd_len_valid Entered..\n");
    if (!has_additional(info)) {
        DPMAIN_TRACE(DP_PKT, "No additional RR found in the pkt.\n");
        return 0;
    }
    uint16_t rdlen = 0;
    const int ret = walk_additional(__func__, msg, len, info, [&](int idx, const rrinf& entry) {
        dns_rr rr;
        if (parse_edns_rr(msg, len, entry, idx, &rr) < 0) return -1;
        rdlen = rr.rdlen;
        return rr.type == DPEDNS_TYPE_OPT ? kWalkStop : 0;
    });
    if (ret < 0) return -1;
    if (ret == kWalkStop) {
        DPMAIN_TRACE(DP_PKT, "Edns Header found in the pkt.\n");
        if (rdlen > DPEDNS_MAX_OPT_RDLEN) {
            DPMAIN_TRACE(DP_DETAIL, "Edns RRlen is not valid..\n");
            return -3;
        }
    }
    DPMAIN_TRACE(DP_PKT, "is_edns_rd_len_valid Exit..\n");
    return 0;
}

int dpedns_is_valid_edns_rr(const uint8_t* msg, uint16_t len, const msginf* info) {
    DPMAIN_TRACE(DP_PKT, "dpIsValidEdnsPacket Entered..\n");
    if (len > DPEDNS_MAX_QUERY_LEN) {
        DPMAIN_TRACE(DP_DETAIL, "Dns frame size too large for EDNS insertion.Packet dropped..\n");
        return -3;
    }
    if (is_edns_rd_len_valid(msg, len, info) < 0) {
        DPMAIN_TRACE(DP_DETAIL, "is_edns_rd_len_valid : Packet dropped..\n");
        return -3;
    }
    if (get_edns_array_count(msg, len, info) > 1) {
        DPMAIN_TRACE(DP_DETAIL, "Edns Count is greater than one.Invalid frame..\n");
        return -1;
    }
    rrinf opt;
    edns_option_pos pos{};
    if (is_edns_present(msg, len, info, &opt) == 0 &&
        is_edns_option_fe31_present(msg, len, &opt, &pos) == 0) {
        DPMAIN_TRACE(DP_DETAIL, "Option 0xfe31 is already present in incoming query\n");
        return -2;
    }
    DPMAIN_TRACE(DP_PKT, "dpIsValidEdnsPacket Exit..\n");
    return 0;
}

// ---- payload sizes ----------------------------------------------------------------------------

int dpedns_check_packet_payload(uint8_t* msg, uint16_t len, uint16_t udpMaxPayload) {
    msginf scratch;
    if (dpendec_compose_dns_msg_inf(msg, len, &scratch) < 0) {
        DPMAIN_TRACE(DP_DETAIL, "compose msginf failed in dpcheckpayload function\n");
        return -1;
    }
    const std::span<uint8_t> view(msg, len);
    rrinf opt;
    uint16_t payload = 0;
    if (is_edns_present(msg, len, &scratch, &opt) < 0 ||
        !get_u16(view, opt.offset + kPayloadOffset, &payload)) {
        DPMAIN_TRACE(DP_PKT,
                     "\nNo EDNS header in client query packet.Payload validation skipped\n");
        return 0;
    }
    // A query advertising 0 takes the server's size and is sent anyway.
    int result = 0;
    if (payload == 0) {
        put_u16(view, opt.offset + kPayloadOffset, udpMaxPayload);
    } else {
        result = -1;
    }
    if (len > udpMaxPayload) {
        DPMAIN_TRACE(DP_PKT, "\nPayload Exceeded Query payload is %d Server supported is %d\n",
                     len + 8, udpMaxPayload);
        return result;
    }
    DPMAIN_TRACE(DP_PKT, "Payload verification in client query passed\n");
    return 0;
}

int dpedns_update_edns_payload(uint8_t* msg, uint16_t len, const msginf* info) {
    rrinf opt;
    if (is_edns_present(msg, len, info, &opt) < 0) {
        DPMAIN_TRACE(DP_PKT, "Edns Header Not found in the response pkt.\n");
        return -1;
    }
    // The answer must fit the smallest payload any upstream server takes, less some margin.
    // (Servers are added with 544, so no value between 1 and 31 comes here to wrap.)
    const uint16_t low = min_server_payload();
    uint16_t payload = kLargeServerPayload;
    if (low == 0)
        payload = kZeroServerPayload;
    else if (low < kSmallServerLimit)
        payload = static_cast<uint16_t>(low - kPayloadMargin);
    put_u16({msg, len}, opt.offset + kPayloadOffset, payload);
    return 0;
}

// ---- the client-MAC option --------------------------------------------------------------------

int dpedns_insert_mac_option(const dns_pkt* backup, uint8_t* msg, uint16_t* len, const char* mac,
                             msginf* info, int* had_opt) {
    if (*len > DPENDEC_MSG_SIZE) return DPEDNS_NOT_INSERTED; // not a message of this buffer
    char text[DPEDNS_MAC_TEXT_SIZE] = {};
    std::memcpy(text, mac, strnlen(mac, DPEDNS_MAC_TEXT_LEN));
    const msginf kept = *info;
    rrinf opt;
    int ret;
    if (is_edns_present(msg, *len, info, &opt) < 0) {
        const own_opt_record rec = compose_edns_header(text);
        // No room for the record (a query the validation would have refused): nothing changes.
        ret = *len + rec.size() > DPENDEC_MSG_SIZE ? -1 : modify_array_count(msg, *len, 1);
        if (ret == 0) ret = insert_edns_header(msg, len, rec);
    } else {
        *had_opt = 1;
        ret = append_mac_header(msg, len, opt, make_mac_option(text));
    }
    int result = DPEDNS_NOT_INSERTED;
    if (ret == 0) {
        *info = {};
        result = dpendec_compose_dns_msg_inf(msg, *len, info);
        if (result > 0) return 0;
    }
    restore_message(backup, msg, len);
    *info = kept;
    return result;
}

int dpedns_insert_option41(const dns_pkt* backup, uint8_t* msg, uint16_t* len,
                           const dp_peer_addr* client, msginf* info, int* had_opt) {
    DPMAIN_TRACE(DP_PKT, "dpOpt41Insert Enter..\n");
    // Cleared first: a client of another kind is "found" without any text written.
    char mac[DPEDNS_MAC_TEXT_SIZE] = {};
    if (dpedns_find_mac(client, mac) == 0) {
        const int ret = dpedns_insert_mac_option(backup, msg, len, mac, info, had_opt);
        if (ret < 0) DPMAIN_TRACE(DP_PKT, "Error After Inserting EDNS header : %d\n", ret);
    }
    DPMAIN_TRACE(DP_PKT, "dpOpt41Insert Exit..\n");
    return 0;
}

int dpedns_strip_option41(const dns_pkt* backup, uint8_t* msg, uint16_t* len, msginf* info) {
    rrinf cut;
    return strip_option41(__func__, msg, len, DPENDEC_MSG_SIZE, info, false, &cut, [&] {
        restore_message(backup, msg, len);
        *info = backup->inf;
    });
}

int dpedns_strip_option41_in(uint8_t* msg, uint16_t* len, msginf* info) {
    if (*len < DPENDEC_HEADER_SIZE) return -1;
    const msginf before = *info;
    const uint16_t old_len = *len;
    const uint8_t arcount[2] = {msg[10], msg[11]};
    rrinf cut;
    return strip_option41("dpedns_strip_option41", msg, len, UINT16_MAX, info, true, &cut, [&] {
        std::rotate(msg + cut.offset, msg + *len, msg + old_len);
        *len = old_len;
        msg[10] = arcount[0];
        msg[11] = arcount[1];
        *info = before;
    });
}
