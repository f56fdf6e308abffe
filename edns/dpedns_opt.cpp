#include <cstring>

#include "ctrl/dp_trace.h"
#include "edns/dpedns.h"

namespace {

// An OPT record's payload size sits at record offset 3: the owner name is the one-byte root.
constexpr uint16_t kPayloadOffset = 3;

bool payload_in_bounds(const rrinf& opt, uint16_t len) {
    return opt.offset + kPayloadOffset + 2u <= len;
}

uint16_t read_payload(const uint8_t* msg, const rrinf& opt) {
    const uint8_t* p = msg + opt.offset + kPayloadOffset;
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

void write_payload(uint8_t* msg, const rrinf& opt, uint16_t value) {
    uint8_t* p = msg + opt.offset + kPayloadOffset;
    p[0] = static_cast<uint8_t>(value >> 8);
    p[1] = static_cast<uint8_t>(value & 0xFF);
}

} // namespace

int is_edns_present(const uint8_t* msg, uint16_t len, const msginf* info, rrinf* opt) {
    DPMAIN_TRACE(DP_PKT, "is_edns_present Entered..\n");
    *opt = {};
    if (info->arcount == 0 || info->ar_num == 0) {
        DPMAIN_TRACE(DP_PKT, "No additional RR found in the pkt.\n");
        return -1;
    }
    uint32_t off = info->ar.offset;
    bool found = false;
    for (int i = 0; i < info->arcount; ++i) {
        rrinf entry;
        int ret = off < len ? dpendec_compose_dns_rr_inf(msg, len, msg + off, 0, &entry) : -2;
        if (ret < 0) {
            DPMAIN_TRACE(DP_DETAIL, "rrbuf=%p aridx=%d ret=%d\n",
                         static_cast<const void*>(msg + off), i, ret);
            return -1;
        }
        dns_rr rr;
        ret = dpendec_parse_dns_rr(msg, len, &entry, 0, &rr);
        if (ret < 0) {
            DPMAIN_TRACE(DP_DETAIL, "err to decode anrr idx=%d ret=%d\n", i, ret);
            return -1;
        }
        if (rr.type == DPEDNS_TYPE_OPT) {
            *opt = entry;
            found = true;
            break;
        }
        off += entry.rr_len;
    }
    if (!found) {
        DPMAIN_TRACE(DP_PKT, "Edns Header Not found in the pkt.\n");
        return -1;
    }
    DPMAIN_TRACE(DP_PKT, "Edns Header found in the pkt.\n");
    DPMAIN_TRACE(DP_PKT, "RR type:%d, nameLen :%d, rrLen:%d, offset:%d\n", opt->type, opt->name_len,
                 opt->rr_len, opt->offset);
    DPMAIN_TRACE(DP_PKT, "is_edns_present Exit..\n");
    return 0;
}

int dpedns_check_packet_payload(uint8_t* msg, uint16_t len, uint16_t udpMaxPayload) {
    msginf scratch;
    if (dpendec_compose_dns_msg_inf(msg, len, &scratch) < 0) {
        DPMAIN_TRACE(DP_DETAIL, "compose msginf failed in dpcheckpayload function\n");
        return -1;
    }
    rrinf opt;
    if (is_edns_present(msg, len, &scratch, &opt) < 0 || !payload_in_bounds(opt, len)) {
        DPMAIN_TRACE(DP_PKT,
                     "\nNo EDNS header in client query packet.Payload validation skipped\n");
        return 0;
    }
    // A query advertising 0 takes the server's size and is sent anyway.
    int result = 0;
    if (read_payload(msg, opt) == 0) {
        write_payload(msg, opt, udpMaxPayload);
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
