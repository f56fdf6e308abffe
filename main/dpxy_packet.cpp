#include <cstring>

#include "cache/dpcache.h"
#include "config/dpcfg.h"
#include "ctrl/dp_stats.h"
#include "ctrl/dp_trace.h"
#include "edns/dpedns.h"
#include "endec/dpendec.h"
#include "io/dpio.h"
#include "main/dpxy.h"
#include "main/dpxy_pcb.h"
#include "server/dpsvr.h"

namespace {

// A burst is served in one wake-up, but never so long that the other socket and the bus starve;
// what is left makes the next poll return at once.
constexpr int kMaxDatagramsPerWakeUp = 256;
// Hardened mode: an answer its query does not expect (another socket, source or question, or no
// query at all) is dropped before it can touch anything.
constexpr int kForgedAnswer = -80;

// is_response_valid: a question and the QR bit.
int is_response_valid(const msginf& info) {
    int ret = 0;
    if (info.qdcount == 0)
        ret = -10;
    else if ((info.flags & DPENDEC_FLAG_QR) == 0)
        ret = -11;
    if (ret != 0) {
        DPMAIN_TRACE(DP_WARN, "qdcount=%u isResponse=%u ret=%d\n", info.qdcount,
                     (info.flags & DPENDEC_FLAG_QR) != 0 ? 1u : 0u, ret);
    }
    return ret;
}

void process_primary_dns_status(const dp_peer_addr& from, const msginf& info) {
    const int rcode = info.flags & DPENDEC_RCODE_MASK;
    DPMAIN_TRACE(DP_DETAIL, "ret_code = 0x%x primary_select=%d\n", static_cast<unsigned>(rcode),
                 rcode == 0 ? 1 : 0);
    dpsvr_set_primary_dns_status(from.addr, rcode == 0 ? 1 : 0);
}

// Local-address resolver and modules: the answer's addresses, or status -1 without any.
int respond_to_requester(dpxy_pcb* pcb, dns_pkt& pkt) {
    if (pkt.inf.ancount == 0 && pcb->response_count + 1 < pcb->query_count) {
        pcb->response_count++;
        return -2;
    }
    char ipstrs[256 + DPENDEC_IPSTRS_SLACK] = "";
    int32_t ttl = 0;
    int32_t result = -1;
    if (pkt.inf.ancount != 0) {
        dpendec_compose_ipstrs(&pkt, &ttl, ipstrs, 255);
        result = 0;
    }
    const uint32_t aaaa = pkt.inf.qtype == DPENDEC_TYPE_AAAA ? 1 : 0;
    if (pcb->source == DPXY_SRC_LOCAL) {
        dpio_send_csmsg_query_response(aaaa, pkt.inf.name, result, ttl, ipstrs);
    } else {
        dpio_send_query_response_to_module(pcb->module_tag, pcb->module_seq, aaaa, pkt.inf.name,
                                           result, ttl, ipstrs);
    }
    remove_proxy_ctrlblk(pcb);
    return 0;
}

int handle_response_to_sock(dpxy_pcb* pcb, dns_pkt& pkt) {
    DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x server_id=0x%x query=%u rsp=%u ancnt=%u d2d=%s\n",
                 pcb->client_id, pcb->server_id, pcb->query_count, pcb->response_count,
                 pkt.inf.ancount, pcb->d2d_name);
    const bool has_d2d = pcb->d2d_name[0] != '\0';
    // An empty answer while other servers may still answer better is held, not relayed.
    if (pkt.inf.ancount == 0 && pcb->response_count + 1 < pcb->query_count) {
        pcb->response_count++;
        if (has_d2d) dpendec_restore_qname(&pkt, pcb->d2d_name);
        pcb->pkt_len = pkt.len;
        std::memcpy(pcb->pkt, pkt.buf, pkt.len);
        return -2;
    }
    if (pkt.inf.ancount != 0 && dpcfg_is_dyn_cache_feat_enabled() != 0) {
        dpcache_add_dync_cache(pkt.inf.qtype, pkt.inf.name, pkt.inf.hostaddr,
                               static_cast<uint32_t>(pkt.inf.ttl));
    }
    if (has_d2d) dpendec_restore_qname(&pkt, pcb->d2d_name);
    pkt.buf[0] = static_cast<uint8_t>(pcb->client_id >> 8);
    pkt.buf[1] = static_cast<uint8_t>(pcb->client_id & 0xFF);
    send_packet_x(&pcb->client, pkt.buf, pkt.len);
    if (pcb->waiter_head != 0) dpxy_hard_answer_waiters(pcb, pkt.buf, pkt.len);
    remove_proxy_ctrlblk(pcb);
    if (dpcfg_is_renew_server_socket_enabled() != 0) dpxy_reset_timed_out_count();
    return 0;
}

// Undoes what the proxy did to the query's EDNS on the way out. Stripping works on a backup of
// the answer as it came (message, length and parsed view), put back if the result no longer
// parses; the payload rewrite changes two bytes in place and needs none.
void undo_edns(const dpxy_pcb* pcb, dns_pkt& pkt) {
    if (pcb->edns_mode == DPXY_EDNS_NONE) return;
    if (pcb->edns_mode != DPXY_EDNS_STRIP) {
        dpedns_update_edns_payload(pkt.buf, pkt.len, &pkt.inf);
        return;
    }
    static dns_pkt backup;
    dpendec_copy_pkt(&backup, &pkt);
    dpedns_strip_option41(&backup, pkt.buf, &pkt.len, &pkt.inf);
}

int handle_dns_response(int fd, const dp_peer_addr& from, dns_pkt& pkt) {
    // 3. parse
    int ret = dpendec_compose_dns_msg_inf(pkt.buf, pkt.len, &pkt.inf);
    if (ret < 0) {
        dp_stats.response_format_error++;
        DPMAIN_TRACE(DP_DETAIL, "server_id=0x%x dropped for format err response ret=%d\n",
                     pkt.len >= 2 ? static_cast<unsigned>(pkt.buf[0] << 8 | pkt.buf[1]) : 0u, ret);
        return -20;
    }
    // 4. a response to a question
    if (is_response_valid(pkt.inf) < 0) {
        DPMAIN_TRACE(DP_DETAIL, "server_id=0x%x dropped for invalid response\n", pkt.inf.id);
        return -30;
    }
    // 5. 6. primary status; in hardened mode only from an answer its query expects
    DPMAIN_TRACE(DP_DETAIL, "server_id=0x%x qname=%s hostaddr=%s\n", pkt.inf.id, pkt.inf.name,
                 pkt.inf.hostaddr);
    if (dpcfg_is_hardened_mode_enabled() != 0 &&
        dpxy_hard_check_answer(fd, from, pkt) != DPIO_ANSWER_OK) {
        return kForgedAnswer;
    }
    process_primary_dns_status(from, pkt.inf);
    // 7. 8. the pending query, else a probe
    dpxy_pcb* pcb = dpxy_find_pcb(pkt.inf.id);
    if (pcb == nullptr) {
        DPMAIN_TRACE(DP_DETAIL, "no record for server_id=0x%x\n", pkt.inf.id);
        if (dpsvr_handle_dns_server_probe_response(pkt.inf.id) >= 0) return -40;
        return handle_auto_query_probe_response(pkt.inf.id, &pkt.inf);
    }
    // 9. 10. undo the proxy's EDNS changes: what the query carried decides, not the switch as it
    // stands now, so answers to queries sent before EDNS was switched off are cleaned up too
    undo_edns(pcb, pkt);
    DPMAIN_TRACE(DP_DETAIL, "server_id=0x%x from=%u pcb=%p query=%u response=%u\n", pkt.inf.id,
                 static_cast<unsigned>(pcb->source), static_cast<void*>(pcb), pcb->query_count,
                 pcb->response_count);
    // 11. to whoever asked
    switch (pcb->source) {
    case DPXY_SRC_LOCAL:
    case DPXY_SRC_MODULE:
        return respond_to_requester(pcb, pkt);
    case DPXY_SRC_CLIENT:
        return handle_response_to_sock(pcb, pkt);
    default:
        return -70;
    }
}

} // namespace

int dpxy_handle_client_packet(int fd) {
    static uint8_t buf[DPXY_MAX_PACKET];
    dp_peer_addr from;
    uint16_t len = 0;
    const int ret = dpio_read_packet(fd, &from, buf, sizeof buf, &len);
    if (ret == 0) return DPXY_DRAINED;
    if (ret < 0) return ret;
    dp_stats.client_packet_recv++;
    return handle_dns_query(DPXY_SRC_CLIENT, "", 0, &from, buf, len);
}

int dpxy_handle_server_packet(int fd) {
    static dns_pkt pkt;
    dp_peer_addr from;
    // 1. 2. read and count
    int ret = dpio_read_packet(fd, &from, pkt.buf, sizeof pkt.buf, &pkt.len);
    if (ret == 0) return DPXY_DRAINED;
    if (ret < 0) {
        DPMAIN_TRACE(DP_WARN, "recv server pkt err ret=%d\n", ret);
        return ret;
    }
    dp_stats.server_packet_recv++;
    ret = handle_dns_response(fd, from, pkt);
    DPMAIN_TRACE(DP_DETAIL, "pktlen=%u ret=%d\n", static_cast<unsigned>(pkt.len), ret);
    return ret;
}

int dpxy_dispatch_socket(struct pollfd* entry) {
    if (entry->revents == 0) return 0;
    for (int i = 0; i < kMaxDatagramsPerWakeUp; ++i) {
        int ret = DPXY_DRAINED;
        if (dpio_is_server_fd(entry->fd)) ret = dpxy_handle_server_packet(entry->fd);
        if (entry->fd == dpio_get_client_fd()) ret = dpxy_handle_client_packet(entry->fd);
        if (ret == DPXY_DRAINED) break;
    }
    return 0;
}
