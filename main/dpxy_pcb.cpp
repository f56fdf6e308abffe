#include "main/dpxy_pcb.h"

#include <algorithm>
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

// The pcbs' memory: blocks of size classes, each pcb in one only as large as the record and its
// packet need, and what only some pcbs carry (a held answer too long for the pcb's own block,
// the rare fields, their names, the hardened-mode record) in blocks of their own. Blocks are cut
// from slabs that are allocated as a class first runs dry and kept, so that in steady state a
// query costs no allocation; a freed block waits on its class's free list for the next, and a
// slab is handed out from its start as needed, so that pages nobody used stay untouched. The
// table's bound caps what the slabs can grow to.
constexpr uint32_t kClassSizes[] = {32,  48,  64,  80,  96,   104,  112,  120,  128,
                                    136, 144, 152, 160, 176,  192,  224,  256,  320,
                                    384, 512, 640, 768, 1024, 1280, 1536, 2048, 2304};
constexpr int kClasses = sizeof kClassSizes / sizeof kClassSizes[0];
constexpr uint32_t kLargest = kClassSizes[kClasses - 1];
constexpr uint32_t kSlabBytes = 16 * 1024;
constexpr size_t kModuleTagMax = 31; // what a 32-byte field formatted with "%s" keeps
static_assert(sizeof(dpxy_pcb) + DPXY_MAX_PACKET <= kLargest, "a pcb with a whole packet fits");
static_assert(sizeof(dpxy_hard_rec) <= kLargest, "a hardened-mode record fits a block");

struct free_item {
    free_item* next;
};

// The head of a slab, its blocks right behind it: linked to the previous slab of its class, so
// that every slab stays reachable.
struct alignas(std::max_align_t) slab_head {
    slab_head* next;
};

unsigned char* blocks_of(slab_head* slab) {
    return reinterpret_cast<unsigned char*>(slab + 1);
}

struct block_class {
    free_item* free = nullptr;
    slab_head* slabs = nullptr;
    uint32_t carved = 0; // blocks of the newest slab handed out so far
};

block_class classes[kClasses];

uint32_t per_slab(int c) {
    return std::max<uint32_t>(1, kSlabBytes / kClassSizes[c]);
}

// The smallest class whose blocks hold len bytes (len at most kLargest).
constexpr int class_of(uint32_t len) {
    int c = 0;
    while (c < kClasses - 1 && kClassSizes[c] < len)
        ++c;
    return c;
}

void* take_block(int c) {
    block_class& k = classes[c];
    if (k.free != nullptr) {
        free_item* item = k.free;
        k.free = item->next;
        return item;
    }
    if (k.slabs == nullptr || k.carved == per_slab(c)) {
        auto* slab = static_cast<slab_head*>(
            std::malloc(sizeof(slab_head) + size_t{kClassSizes[c]} * per_slab(c)));
        if (slab == nullptr) return nullptr;
        slab->next = k.slabs;
        k.slabs = slab;
        k.carved = 0;
    }
    return blocks_of(k.slabs) + size_t{kClassSizes[c]} * k.carved++;
}

void give_block(int c, void* p) {
    if (p == nullptr) return;
    auto* item = static_cast<free_item*>(p);
    item->next = classes[c].free;
    classes[c].free = item;
}

uint8_t* inline_packet(dpxy_pcb* pcb) {
    return reinterpret_cast<uint8_t*>(pcb + 1);
}

uint32_t inline_room(const dpxy_pcb* pcb) {
    return kClassSizes[pcb->block_class] - sizeof(dpxy_pcb);
}

// A packet of the pcb's in a block of its own: its class follows from its length.
void drop_outside_packet(dpxy_pcb* pcb) {
    if (pcb->pkt != inline_packet(pcb)) give_block(class_of(pcb->pkt_len), pcb->pkt);
    pcb->pkt = inline_packet(pcb);
}

// A text of at most max characters in a block of its own; "" takes none. Null when no block
// could be had.
const char* keep_text(const char* text, size_t max) {
    const size_t n = text == nullptr ? 0 : strnlen(text, max);
    if (n == 0) return "";
    auto* copy = static_cast<char*>(take_block(class_of(static_cast<uint32_t>(n + 1))));
    if (copy == nullptr) return nullptr;
    std::memcpy(copy, text, n);
    copy[n] = '\0';
    return copy;
}

void drop_text(const char* text) {
    if (text != nullptr && text[0] != '\0')
        give_block(class_of(static_cast<uint32_t>(std::strlen(text) + 1)), const_cast<char*>(text));
}

void drop_ext(dpxy_pcb_ext* ext) {
    if (ext == nullptr) return;
    drop_text(ext->d2d_name);
    drop_text(ext->module_tag);
    give_block(class_of(sizeof(dpxy_hard_rec)), ext->hard);
    give_block(class_of(sizeof(dpxy_pcb_ext)), ext);
}

bool carries_nothing(const dpxy_pcb_ext* ext) {
    return ext == nullptr ||
           ((ext->d2d_name == nullptr || ext->d2d_name[0] == '\0') &&
            (ext->module_tag == nullptr || ext->module_tag[0] == '\0') && ext->module_seq == 0 &&
            ext->vendor_opt == nullptr && ext->hard == nullptr);
}

// A copy of what the image's rare record names, in blocks of the pcb's own; false (nothing kept)
// when a block could not be had.
bool keep_ext(dpxy_pcb* pcb, const dpxy_pcb_ext* from) {
    pcb->ext = nullptr;
    if (carries_nothing(from)) return true;
    auto* ext = static_cast<dpxy_pcb_ext*>(take_block(class_of(sizeof(dpxy_pcb_ext))));
    if (ext == nullptr) return false;
    *ext = {"", "", from->module_seq, from->vendor_opt, nullptr};
    pcb->ext = ext;
    const char* d2d = keep_text(from->d2d_name, DPENDEC_NAME_SIZE - 1);
    const char* tag = keep_text(from->module_tag, kModuleTagMax);
    ext->d2d_name = d2d != nullptr ? d2d : "";
    ext->module_tag = tag != nullptr ? tag : "";
    if (from->hard != nullptr) {
        ext->hard = static_cast<dpxy_hard_rec*>(take_block(class_of(sizeof(dpxy_hard_rec))));
        if (ext->hard != nullptr) *ext->hard = *from->hard;
    }
    if (d2d != nullptr && tag != nullptr && (from->hard == nullptr || ext->hard != nullptr))
        return true;
    ext->vendor_opt = nullptr; // still the image's
    drop_ext(ext);
    pcb->ext = nullptr;
    return false;
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
    const dp_peer_addr peer = dpxy_pcb_client(pcb);
    send_packet_x(&peer, pcb->pkt, pcb->pkt_len);
    if (dpxy_has_waiters(pcb)) dpxy_hard_answer_waiters(pcb, pcb->pkt, pcb->pkt_len);
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
    const uint16_t len = std::min<uint16_t>(image->pkt_len, DPXY_MAX_PACKET);
    const int c = class_of(sizeof(dpxy_pcb) + len);
    auto* pcb = static_cast<dpxy_pcb*>(take_block(c));
    if (pcb == nullptr) return -1; // the answer will find no pcb and be dropped
    *pcb = *image;
    pcb->block_class = static_cast<uint8_t>(c);
    pcb->pkt_len = len;
    pcb->pkt = inline_packet(pcb);
    if (len != 0) std::memcpy(pcb->pkt, image->pkt, len);
    if (!keep_ext(pcb, image->ext)) {
        give_block(c, pcb);
        return -1;
    }
    DPMAIN_TRACE(DP_DETAIL, "pcb=%p\n", static_cast<void*>(pcb));
    pcb->expiry = dputl_get_current_time() + DPXY_PCB_LIFETIME;
    link_newest(pcb);
    return 0;
}

bool dpxy_pcb_store(dpxy_pcb* pcb, const uint8_t* msg, uint16_t len) {
    if (len > DPXY_MAX_PACKET) return false;
    uint8_t* dst = inline_packet(pcb);
    if (len > inline_room(pcb)) {
        const bool outside = pcb->pkt != inline_packet(pcb);
        dst = outside && class_of(pcb->pkt_len) == class_of(len)
                  ? pcb->pkt
                  : static_cast<uint8_t*>(take_block(class_of(len)));
        if (dst == nullptr) return false;
    }
    std::memmove(dst, msg, len);
    if (dst != pcb->pkt) drop_outside_packet(pcb);
    pcb->pkt = dst;
    pcb->pkt_len = len;
    return true;
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
    if (dpxy_has_waiters(pcb)) dpxy_hard_free_waiters(pcb);
    if (pcb->ext != nullptr) std::free(pcb->ext->vendor_opt);
    drop_ext(pcb->ext);
    drop_outside_packet(pcb);
    give_block(pcb->block_class, pcb);
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
