#include <algorithm>
#include <cstring>
#include <span>

#include "cache/dpcache.h"
#include "config/dpcfg.h"
#include "ctrl/dp_metrics.h"
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

// An answer worked on in place: len bytes in an area of cap bytes (a dns_pkt's for a datagram,
// the TCP answer area for a TCP answer), its parsed view, and room to rebuild it.
struct answer {
    uint8_t* buf;
    uint16_t len;
    size_t cap;
    msginf& inf;
    std::span<uint8_t> scratch;
};

// Local-address resolver and modules: the answer's addresses, or status -1 without any.
int respond_to_requester(dpxy_pcb* pcb, answer& a) {
    if (a.inf.ancount == 0 && pcb->response_count + 1 < pcb->query_count) {
        pcb->response_count++;
        return -2;
    }
    char ipstrs[256 + DPENDEC_IPSTRS_SLACK] = "";
    int32_t ttl = 0;
    int32_t result = -1;
    if (a.inf.ancount != 0) {
        dpendec_compose_ipstrs_in({a.buf, a.len}, &a.inf, &ttl, ipstrs, 255);
        result = 0;
    }
    const uint32_t aaaa = a.inf.qtype == DPENDEC_TYPE_AAAA ? 1 : 0;
    if (pcb->source == DPXY_SRC_LOCAL) {
        dpio_send_csmsg_query_response(aaaa, a.inf.name, result, ttl, ipstrs);
    } else {
        dpio_send_query_response_to_module(pcb->ext != nullptr ? pcb->ext->module_tag : "",
                                           pcb->ext != nullptr ? pcb->ext->module_seq : 0, aaaa,
                                           a.inf.name, result, ttl, ipstrs);
    }
    dp_metrics.answers[DP_ANS_UPSTREAM]++;
    remove_proxy_ctrlblk(pcb);
    return 0;
}

void restore_d2d(answer& a, const char* name) {
    dpendec_restore_qname_in({a.buf, a.cap}, &a.len, &a.inf, name, a.scratch);
}

int handle_response_to_sock(dpxy_pcb* pcb, answer& a) {
    DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x server_id=0x%x query=%u rsp=%u ancnt=%u d2d=%s\n",
                 pcb->client_id, pcb->server_id, pcb->query_count, pcb->response_count,
                 a.inf.ancount, dpxy_pcb_d2d_name(pcb));
    const char* d2d_name = dpxy_pcb_d2d_name(pcb);
    bool to_restore = d2d_name[0] != '\0';
    // An empty answer while other servers may still answer better is held, not relayed; one too
    // long for the pcb (a TCP answer), or one no storage could be had for, is relayed at once.
    if (a.inf.ancount == 0 && pcb->response_count + 1 < pcb->query_count) {
        if (to_restore) restore_d2d(a, d2d_name);
        to_restore = false;
        if (dpxy_pcb_store(pcb, a.buf, a.len)) {
            pcb->response_count++;
            return -2;
        }
    }
    if (a.inf.ancount != 0 && dpcfg_is_dyn_cache_feat_enabled() != 0) {
        dpcache_add_dync_cache(a.inf.qtype, a.inf.name, a.inf.hostaddr,
                               static_cast<uint32_t>(a.inf.ttl));
    }
    if (to_restore) restore_d2d(a, d2d_name);
    a.buf[0] = static_cast<uint8_t>(pcb->client_id >> 8);
    a.buf[1] = static_cast<uint8_t>(pcb->client_id & 0xFF);
    const dp_peer_addr client = dpxy_pcb_client(pcb);
    send_packet_x(&client, a.buf, a.len);
    dp_metrics.answers[DP_ANS_UPSTREAM]++;
    if (dpxy_has_waiters(pcb)) dpxy_hard_answer_waiters(pcb, a.buf, a.len);
    remove_proxy_ctrlblk(pcb);
    if (dpcfg_is_renew_server_socket_enabled() != 0) dpxy_reset_timed_out_count();
    return 0;
}

// Undoes what the proxy did to the query's EDNS on the way out. The strip puts the answer back as
// it came (message, length and parsed view) if the result no longer parses; the payload rewrite
// changes two bytes in place.
void undo_edns(const dpxy_pcb* pcb, answer& a) {
    if (pcb->edns_mode == DPXY_EDNS_NONE) return;
    if (pcb->edns_mode != DPXY_EDNS_STRIP) {
        dpedns_update_edns_payload(a.buf, a.len, &a.inf);
        return;
    }
    dpedns_strip_option41_in(a.buf, &a.len, &a.inf);
}

int handle_dns_response(int fd, const dp_peer_addr& from, answer& a) {
    // 3. parse
    int ret = dpendec_compose_dns_msg_inf(a.buf, a.len, &a.inf);
    if (ret < 0) {
        dp_stats.response_format_error++;
        DPMAIN_TRACE(DP_DETAIL, "server_id=0x%x dropped for format err response ret=%d\n",
                     a.len >= 2 ? static_cast<unsigned>(a.buf[0] << 8 | a.buf[1]) : 0u, ret);
        return -20;
    }
    // 4. a response to a question
    if (is_response_valid(a.inf) < 0) {
        DPMAIN_TRACE(DP_DETAIL, "server_id=0x%x dropped for invalid response\n", a.inf.id);
        dp_metrics.drops[DP_DROP_INVALID_RESPONSE]++;
        return -30;
    }
    // 5. 6. primary status; in hardened mode only from an answer its query expects
    DPMAIN_TRACE(DP_DETAIL, "server_id=0x%x qname=%s hostaddr=%s\n", a.inf.id, a.inf.name,
                 a.inf.hostaddr);
    if (dpcfg_is_hardened_mode_enabled() != 0 &&
        dpxy_hard_check_answer(fd, from, a.inf.id, a.buf, a.len) != DPIO_ANSWER_OK) {
        return kForgedAnswer;
    }
    process_primary_dns_status(from, a.inf);
    // 7. 8. the pending query, else a probe
    dpxy_pcb* pcb = dpxy_find_pcb(a.inf.id);
    if (pcb == nullptr) {
        DPMAIN_TRACE(DP_DETAIL, "no record for server_id=0x%x\n", a.inf.id);
        if (dpsvr_handle_dns_server_probe_response(a.inf.id) >= 0) return -40;
        ret = handle_auto_query_probe_response(a.inf.id, &a.inf);
        if (ret == -60) dp_metrics.drops[DP_DROP_UNKNOWN_ANSWER]++;
        return ret;
    }
    dp_metrics_answer(&pcb->metrics, from.addr, a.inf.flags & DPENDEC_RCODE_MASK);
    // 9. 10. undo the proxy's EDNS changes: what the query carried decides, not the switch as it
    // stands now, so answers to queries sent before EDNS was switched off are cleaned up too
    undo_edns(pcb, a);
    DPMAIN_TRACE(DP_DETAIL, "server_id=0x%x from=%u pcb=%p query=%u response=%u\n", a.inf.id,
                 static_cast<unsigned>(pcb->source), static_cast<void*>(pcb), pcb->query_count,
                 pcb->response_count);
    // 11. to whoever asked
    switch (pcb->source) {
    case DPXY_SRC_LOCAL:
    case DPXY_SRC_MODULE:
        return respond_to_requester(pcb, a);
    case DPXY_SRC_CLIENT:
        return handle_response_to_sock(pcb, a);
    default:
        return -70;
    }
}

// ---- DNS over TCP ----------------------------------------------------------------------------

// The length of the question at offset 12 (name, TYPE, CLASS) when it lies whole in the len bytes
// of msg; 0 otherwise.
size_t question_length(const uint8_t* msg, size_t len) {
    size_t at = DPENDEC_HEADER_SIZE;
    while (at < len && msg[at] != 0) {
        if (msg[at] > 63) return 0;
        at += 1u + msg[at];
    }
    const size_t end = at + 1 + 4;
    return at < len && end <= len && end - DPENDEC_HEADER_SIZE <= DPENDEC_NAME_SIZE + 4
               ? end - DPENDEC_HEADER_SIZE
               : 0;
}

// A datagram answer too long for the server socket's read limit: its client gets its question
// back with TC set under its own id at once, and retries over TCP instead of waiting for the pcb
// to expire. msg holds what was read (header and question at least). Queries of modules and of
// the local-address resolver are left to expire as before.
void answer_truncated(int fd, const dp_peer_addr& from, const uint8_t* msg, size_t len) {
    const size_t qlen = question_length(msg, len);
    if (qlen == 0 || (msg[2] & 0x80) == 0 || (msg[4] == 0 && msg[5] == 0)) return;
    const auto id = static_cast<uint16_t>(msg[0] << 8 | msg[1]);
    dpxy_pcb* pcb = dpxy_find_pcb(id);
    if (pcb == nullptr || pcb->source != DPXY_SRC_CLIENT || pcb->client.tcp != 0) return;
    if (dpcfg_is_hardened_mode_enabled() != 0 &&
        dpxy_hard_check_answer(fd, from, id, msg,
                               static_cast<uint16_t>(DPENDEC_HEADER_SIZE + qlen)) !=
            DPIO_ANSWER_OK) {
        return;
    }
    uint8_t tc[DPENDEC_HEADER_SIZE + DPENDEC_NAME_SIZE + 4] = {};
    tc[0] = static_cast<uint8_t>(pcb->client_id >> 8);
    tc[1] = static_cast<uint8_t>(pcb->client_id & 0xFF);
    tc[2] = static_cast<uint8_t>(msg[2] | 0x02); // TC
    tc[3] = msg[3];
    tc[5] = 1;
    size_t n = DPENDEC_HEADER_SIZE;
    if (const char* d2d = dpxy_pcb_d2d_name(pcb); d2d[0] != '\0') {
        // the name the client asked, with the answer's TYPE and CLASS
        uint8_t wire[DPENDEC_NAME_SIZE];
        const int wlen = compose_dname(d2d, wire);
        if (wlen <= 0) return;
        std::memcpy(tc + n, wire, static_cast<size_t>(wlen));
        n += static_cast<size_t>(wlen);
        std::memcpy(tc + n, msg + DPENDEC_HEADER_SIZE + qlen - 4, 4);
        n += 4;
    } else {
        std::memcpy(tc + n, msg + DPENDEC_HEADER_SIZE, qlen);
        n += qlen;
    }
    const dp_peer_addr client = dpxy_pcb_client(pcb);
    send_packet_x(&client, tc, static_cast<uint16_t>(n));
    dp_metrics_answer(&pcb->metrics, from.addr, msg[3] & DPENDEC_RCODE_MASK);
    dp_metrics.answers[DP_ANS_UPSTREAM]++;
    if (dpxy_has_waiters(pcb)) dpxy_hard_answer_waiters(pcb, tc, static_cast<uint16_t>(n));
    dpio_tcp_counters().truncated++;
    remove_proxy_ctrlblk(pcb);
}

void tcp_query(const dp_peer_addr* client, std::span<const uint8_t> msg) {
    dp_stats.client_packet_recv++;
    handle_dns_query(DPXY_SRC_CLIENT, "", 0, client, msg.data(), static_cast<uint16_t>(msg.size()));
}

// A TCP answer is worked on in one area of the largest size a message can have (the loop
// handles one answer at a time), rebuilt in a second when a D2D name is put back.
void tcp_answer(const dp_peer_addr* from, std::span<const uint8_t> msg) {
    static uint8_t area[DPIO_TCP_MAX_MESSAGE];
    static uint8_t rebuild[DPIO_TCP_MAX_MESSAGE];
    static msginf inf;
    dp_stats.server_packet_recv++;
    const size_t len = std::min(msg.size(), sizeof area);
    std::memcpy(area, msg.data(), len);
    answer a{area, static_cast<uint16_t>(len), sizeof area, inf, rebuild};
    const int ret = handle_dns_response(DPIO_TCP_STREAM_FD, *from, a);
    DPMAIN_TRACE(DP_DETAIL, "pktlen=%u ret=%d\n", static_cast<unsigned>(a.len), ret);
}

// A server that refused a TCP connection, or did not take it in time, counts as one that let a
// query time out.
bool tcp_pending_query(uint16_t id, std::span<const uint8_t>* msg) {
    const dpxy_pcb* pcb = dpxy_find_pcb(id);
    if (pcb == nullptr || pcb->response_count != 0) return false;
    *msg = {pcb->pkt, pcb->pkt_len};
    return true;
}

void tcp_connect_failed(const uint8_t*) {
    dpsvr_set_primary_dns_status(nullptr, 0);
    dpxy_count_timed_out();
    dpsvr_check_dns_server_set_status();
}

// ---- datagrams ---------------------------------------------------------------------------------

// The upstream datagram being worked on: read into it, or copied from a batch.
dns_pkt server_pkt;

// A client datagram as the read handed it out (ret its result).
int client_datagram(int ret, const dp_peer_addr& from, const uint8_t* msg, uint16_t len) {
    if (ret < 0) return ret;
    dp_stats.client_packet_recv++;
    return handle_dns_query(DPXY_SRC_CLIENT, "", 0, &from, msg, len);
}

// The upstream datagram in server_pkt as the read handed it out (ret its result).
int server_datagram(int fd, int ret, const dp_peer_addr& from) {
    dns_pkt& pkt = server_pkt;
    if (ret < 0) {
        DPMAIN_TRACE_AS("dpxy_handle_server_packet", DP_WARN, "recv server pkt err ret=%d\n", ret);
        if (ret == -5 && dpio_tcp_listening()) answer_truncated(fd, from, pkt.buf, pkt.len);
        return ret;
    }
    dp_stats.server_packet_recv++;
    uint8_t scratch[DPENDEC_MSG_SIZE];
    answer a{pkt.buf, pkt.len, sizeof pkt.buf, pkt.inf, scratch};
    ret = handle_dns_response(fd, from, a);
    pkt.len = a.len;
    DPMAIN_TRACE_AS("dpxy_handle_server_packet", DP_DETAIL, "pktlen=%u ret=%d\n",
                    static_cast<unsigned>(pkt.len), ret);
    return ret;
}

} // namespace

int dpxy_handle_client_packet(int fd) {
    static uint8_t buf[DPXY_MAX_PACKET];
    dp_peer_addr from;
    uint16_t len = 0;
    const int ret = dpio_read_packet(fd, &from, buf, sizeof buf, &len);
    if (ret == 0) return DPXY_DRAINED;
    return client_datagram(ret, from, buf, len);
}

int dpxy_handle_server_packet(int fd) {
    dp_peer_addr from;
    // 1. 2. read and count
    const int ret =
        dpio_read_packet(fd, &from, server_pkt.buf, sizeof server_pkt.buf, &server_pkt.len);
    if (ret == 0) return DPXY_DRAINED;
    return server_datagram(fd, ret, from);
}

void dpxy_tcp_start() {
    dpio_tcp_set_hooks({tcp_query, tcp_answer, tcp_connect_failed, tcp_pending_query});
    if (dpcfg_is_tcp_enabled() != 0) dpio_tcp_listen();
}

int dpxy_dispatch_socket(struct pollfd* entry) {
    if (entry->revents == 0) return 0;
    const bool server = dpio_is_server_fd(entry->fd);
    const bool client = entry->fd == dpio_get_client_fd();
    if (!server && !client) return 0;
    dpio_begin_answers();
    for (int done = 0; done < kMaxDatagramsPerWakeUp;) {
        const int want = std::min(DPIO_BATCH, kMaxDatagramsPerWakeUp - done);
        const int n = dpio_read_batch(entry->fd, want, DPXY_MAX_PACKET);
        if (n == 0) break; // drained
        if (n < 0) {       // a failed read counts as one datagram of the wake-up
            if (server) server_datagram(entry->fd, n, dp_peer_addr{});
            ++done;
            continue;
        }
        for (int i = 0; i < n; ++i) {
            dp_peer_addr from;
            const uint8_t* msg = nullptr;
            uint16_t len = 0;
            const int ret = dpio_batch_packet(i, &from, &msg, &len);
            if (server) {
                server_pkt.len = len;
                std::memcpy(server_pkt.buf, msg, len);
                server_datagram(entry->fd, ret, from);
            }
            if (client) client_datagram(ret, from, msg, len);
        }
        done += n;
        if (n < want) break; // what arrives meanwhile wakes the loop again
    }
    dpio_end_answers();
    return 0;
}
