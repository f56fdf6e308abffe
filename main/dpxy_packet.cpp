#include <cstring>

#include "ctrl/dp_stats.h"
#include "ctrl/dp_trace.h"
#include "endec/dpendec.h"
#include "io/dpio.h"
#include "main/dpxy.h"
#include "main/dpxy_pcb.h"
#include "server/dpsvr.h"

namespace {

// A burst is served in one wake-up, but never so long that the other socket and the bus starve;
// what is left makes the next poll return at once.
constexpr int kMaxDatagramsPerWakeUp = 256;

constexpr uint16_t kFlagQR = 0x8000;

// is_response_valid: a question and the QR bit.
int is_response_valid(const msginf& info) {
    int ret = 0;
    if (info.qdcount == 0)
        ret = -10;
    else if ((info.flags & kFlagQR) == 0)
        ret = -11;
    if (ret != 0) {
        DPMAIN_TRACE(DP_WARN, "qdcount=%u isResponse=%u ret=%d\n", info.qdcount,
                     (info.flags & kFlagQR) != 0 ? 1u : 0u, ret);
    }
    return ret;
}

void process_primary_dns_status(const dp_peer_addr& from, const msginf& info) {
    const int rcode = info.flags & 0x000F;
    DPMAIN_TRACE(DP_DETAIL, "ret_code = 0x%x primary_select=%d\n", static_cast<unsigned>(rcode),
                 rcode == 0 ? 1 : 0);
    dpsvr_set_primary_dns_status(from.addr, rcode == 0 ? 1 : 0);
}

int handle_dns_response(const dp_peer_addr& from, dns_pkt& pkt) {
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
    // 5. 6. primary status
    DPMAIN_TRACE(DP_DETAIL, "server_id=0x%x qname=%s hostaddr=%s\n", pkt.inf.id, pkt.inf.name,
                 pkt.inf.hostaddr);
    process_primary_dns_status(from, pkt.inf);
    // 7. 8. the pending query, else a probe
    dpxy_pcb* pcb = dpxy_find_pcb(pkt.inf.id);
    if (pcb == nullptr) {
        DPMAIN_TRACE(DP_DETAIL, "no record for server_id=0x%x\n", pkt.inf.id);
        if (dpsvr_handle_dns_server_probe_response(pkt.inf.id) >= 0) return -40;
        return -60;
    }
    return -70;
}

} // namespace

int dpxy_handle_client_packet(int fd) {
    static dns_pkt pkt;
    dp_peer_addr from;
    const int ret = dpio_read_packet(fd, &from, pkt.buf, sizeof pkt.buf, &pkt.len);
    if (ret == 0) return DPXY_DRAINED;
    if (ret < 0) return ret;
    dp_stats.client_packet_recv++;
    return 0;
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
    ret = handle_dns_response(from, pkt);
    DPMAIN_TRACE(DP_DETAIL, "pktlen=%u ret=%d\n", static_cast<unsigned>(pkt.len), ret);
    return ret;
}

int dpxy_dispatch_socket(struct pollfd* entry) {
    if (entry->revents == 0) return 0;
    for (int i = 0; i < kMaxDatagramsPerWakeUp; ++i) {
        int ret = DPXY_DRAINED;
        if (entry->fd == dpio_get_server_fd()) ret = dpxy_handle_server_packet(entry->fd);
        if (entry->fd == dpio_get_client_fd()) ret = dpxy_handle_client_packet(entry->fd);
        if (ret == DPXY_DRAINED) break;
    }
    return 0;
}
