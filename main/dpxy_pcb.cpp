#include "main/dpxy_pcb.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "config/dpcfg.h"
#include "ctrl/dp_stats.h"
#include "ctrl/dp_trace.h"
#include "edns/dpedns.h"
#include "endec/dpendec.h"
#include "main/dputl.h"
#include "server/dpsvr.h"

namespace {

// Server ids come from a counter, so consecutive ids land in consecutive buckets and a full
// table of 1036 pcbs keeps every chain at one or two entries.
constexpr uint32_t kIndexBuckets = 1024;

struct pcb_list {
    dpxy_pcb* newest = nullptr;
    dpxy_pcb* oldest = nullptr;
    uint32_t count = 0;
    uint32_t timed_out = 0;
    uint32_t max_count = 0;
    dpxy_pcb* index[kIndexBuckets] = {};
};

pcb_list pcbs;

// The pcbs' memory: slabs of kSlabPcbs allocated as the table first grows and kept, so that in
// steady state a query costs no allocation; a removed pcb waits on the free list for the next.
// The table's bound caps the slabs at ceil(1036 / kSlabPcbs).
constexpr uint32_t kSlabPcbs = 32;
constexpr uint32_t kMaxSlabs = (DPXY_PCB_BOUND + kSlabPcbs - 1) / kSlabPcbs;

struct pcb_pool {
    dpxy_pcb* free = nullptr; // linked through hash_next
    dpxy_pcb* slabs[kMaxSlabs] = {};
    uint32_t nslabs = 0;
};

pcb_pool pool;

dpxy_pcb* take_pcb() {
    if (pool.free == nullptr && pool.nslabs < kMaxSlabs) {
        auto* slab = static_cast<dpxy_pcb*>(std::malloc(sizeof(dpxy_pcb) * kSlabPcbs));
        if (slab == nullptr) return nullptr;
        pool.slabs[pool.nslabs++] = slab;
        for (uint32_t i = 0; i < kSlabPcbs; ++i) {
            slab[i].hash_next = pool.free;
            pool.free = &slab[i];
        }
    }
    dpxy_pcb* pcb = pool.free;
    if (pcb != nullptr) pool.free = pcb->hash_next;
    return pcb;
}

void give_back(dpxy_pcb* pcb) {
    pcb->hash_next = pool.free;
    pool.free = pcb;
}

dpxy_pcb** bucket_of(uint16_t server_id) {
    return &pcbs.index[server_id % kIndexBuckets];
}

void index_insert(dpxy_pcb* pcb) {
    dpxy_pcb** head = bucket_of(pcb->server_id);
    pcb->hash_next = *head;
    *head = pcb;
}

void index_remove(dpxy_pcb* pcb) {
    for (dpxy_pcb** link = bucket_of(pcb->server_id); *link != nullptr;
         link = &(*link)->hash_next) {
        if (*link == pcb) {
            *link = pcb->hash_next;
            return;
        }
    }
}

void link_newest(dpxy_pcb* pcb) {
    pcb->newer = nullptr;
    pcb->older = pcbs.newest;
    if (pcbs.newest != nullptr) pcbs.newest->newer = pcb;
    if (pcbs.oldest == nullptr) pcbs.oldest = pcb;
    pcbs.newest = pcb;
    index_insert(pcb);
    if (++pcbs.count > pcbs.max_count) pcbs.max_count = pcbs.count;
}

// The EDNS fix of a held answer is worked on a copy, and the answer goes out as it was stored:
// the response path fixed it already when it was held.
void fix_edns_of_copy(const dpxy_pcb* pcb) {
    static dns_pkt copy;
    static dns_pkt backup;
    copy.len = pcb->pkt_len;
    std::memcpy(copy.buf, pcb->pkt, pcb->pkt_len);
    if (dpendec_compose_dns_msg_inf(copy.buf, copy.len, &copy.inf) < 0) return;
    if (pcb->edns_mode != DPXY_EDNS_STRIP) {
        dpedns_update_edns_payload(copy.buf, copy.len, &copy.inf);
        return;
    }
    dpendec_copy_pkt(&backup, &copy);
    dpedns_strip_option41(&backup, copy.buf, &copy.len, &copy.inf);
}

void send_held_answer(dpxy_pcb* pcb) {
    if (dpcfg_is_edns_enabled() != 0 && pcb->edns_mode != DPXY_EDNS_NONE) fix_edns_of_copy(pcb);
    send_packet_x(&pcb->client, pcb->pkt, pcb->pkt_len);
    if (pcb->waiter_head != 0) dpxy_hard_answer_waiters(pcb, pcb->pkt, pcb->pkt_len);
}

} // namespace

int add_proxy_ctrlblk(const dpxy_pcb* image, int forward_result) {
    if (forward_result != 0) return -1;
    // A retransmission that drew the same server_id updates the waiting pcb; its expiry stays.
    if (dpxy_pcb* same = dpxy_find_pcb(image->server_id); same != nullptr) {
        same->query_count = image->query_count;
        same->response_count = image->response_count;
        return 0;
    }
    dpxy_pcb* pcb = take_pcb();
    if (pcb == nullptr) return -1; // the answer will find no pcb and be dropped
    DPMAIN_TRACE(DP_DETAIL, "pcb=%p\n", static_cast<void*>(pcb));
    // The packet area is copied only as far as the packet goes.
    std::memcpy(pcb, image, offsetof(dpxy_pcb, pkt) + image->pkt_len);
    std::memcpy(pcb->d2d_name, image->d2d_name, sizeof(dpxy_pcb) - offsetof(dpxy_pcb, d2d_name));
    pcb->expiry = dputl_get_current_time() + DPXY_PCB_LIFETIME;
    link_newest(pcb);
    return 0;
}

void remove_proxy_ctrlblk(dpxy_pcb* pcb) {
    if (pcb == nullptr) return;
    DPMAIN_TRACE(DP_FUNC, "pcb=%p\n", static_cast<void*>(pcb));
    index_remove(pcb);
    if (pcb->newer != nullptr)
        pcb->newer->older = pcb->older;
    else
        pcbs.newest = pcb->older;
    if (pcb->older != nullptr)
        pcb->older->newer = pcb->newer;
    else
        pcbs.oldest = pcb->newer;
    if (pcbs.count > 0) pcbs.count--;
    if (pcb->waiter_head != 0) dpxy_hard_free_waiters(pcb);
    std::free(pcb->vendor_opt);
    give_back(pcb);
}

dpxy_pcb* dpxy_find_pcb(uint16_t server_id) {
    for (dpxy_pcb* p = *bucket_of(server_id); p != nullptr; p = p->hash_next) {
        if (p->server_id == server_id) return p;
    }
    return nullptr;
}

void handle_expired_query() {
    const uint32_t now = dputl_get_current_time();
    // All pcbs live equally long and are linked in creation order: stop at the first one alive.
    while (pcbs.oldest != nullptr && dputl_time_due(pcbs.oldest->expiry, now)) {
        dpxy_pcb* pcb = pcbs.oldest;
        if (pcb->response_count != 0 && pcb->source == DPXY_SRC_CLIENT) {
            DPMAIN_TRACE(DP_PKT, "timeout to send rsp client_id=0x%x server_id=0x%x\n",
                         pcb->client_id, pcb->server_id);
            send_held_answer(pcb);
            dp_metrics.answers[DP_ANS_UPSTREAM_HELD]++;
        } else {
            dp_metrics.drops[DP_DROP_EXPIRED]++;
        }
        dp_metrics_expired(&pcb->metrics);
        DPMAIN_TRACE(DP_PKT, "timeout(%lu) to remove pcb client_id=0x%x server_id=0x%x\n",
                     static_cast<unsigned long>(now), pcb->client_id, pcb->server_id);
        dpsvr_set_primary_dns_status(nullptr, 0);
        remove_proxy_ctrlblk(pcb);
        if (dpcfg_is_renew_server_socket_enabled() != 0) pcbs.timed_out++;
        dpsvr_check_dns_server_set_status();
    }
}

uint32_t dpxy_pcb_count() {
    return pcbs.count;
}
uint32_t dpxy_pcb_highest() {
    return pcbs.max_count;
}
dpxy_pcb* dpxy_newest_pcb() {
    return pcbs.newest;
}
uint32_t dpxy_timed_out_count() {
    return pcbs.timed_out;
}
void dpxy_reset_timed_out_count() {
    pcbs.timed_out = 0;
}
void dpxy_count_timed_out() {
    if (dpcfg_is_renew_server_socket_enabled() != 0) pcbs.timed_out++;
}

void dpxy_dump_pcb_info() {
    std::fprintf(stderr, "\nproxy control block(size=%d) current count=%u max=%u:%u\n",
                 static_cast<int>(sizeof(dpxy_pcb)), pcbs.count, pcbs.max_count, DPXY_PCB_BOUND);
}
