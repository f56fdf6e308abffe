// Hardened mode on the proxy core's side: only an answer that its own query expects is taken, ids
// are never those of a pending query or probe, and a question asked again by another client
// while it is pending upstream is not sent again: the later clients wait for the same answer.
#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "config/dpcfg.h"
#include "ctrl/dp_trace.h"
#include "endec/dpendec.h"
#include "io/dpio.h"
#include "main/dputl.h"
#include "main/dpxy.h"
#include "main/dpxy_pcb.h"
#include "server/dpsvr.h"

namespace {

constexpr uint16_t kTypeOpt = 41;
constexpr uint16_t kOptClientMac = 0xFE31;
constexpr uint8_t kJoinsNothing = 0xFF; // a do_bit that marks a query no other one joins

struct waiter {
    dpxy_client_ep client;
    uint8_t kind;
    uint16_t client_id;
    uint8_t case_bits[32];
    uint16_t next; // index + 1 of the next waiter of the same question; 0 at the end
    bool used;
};

waiter waiters[DPXY_WAITER_POOL];
dpxy_security_stats stats;

bool id_in_use(uint16_t id) {
    return dpxy_find_pcb(id) != nullptr || dpsvr_probe_holds_id(id) || dpxy_status_probe_id() == id;
}

uint16_t get_u16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

bool is_letter(uint8_t c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// The letters of the question name at offset 12 that are upper case, one bit each.
void read_case(const uint8_t* msg, uint16_t name_len, uint8_t* bits) {
    std::memset(bits, 0, 32);
    for (uint16_t i = 0; i < name_len && i < 256; ++i) {
        if (msg[12 + i] >= 'A' && msg[12 + i] <= 'Z')
            bits[i / 8] |= static_cast<uint8_t>(1 << (i % 8));
    }
}

// Gives the question name at offset 12 of an answer the case a waiter asked it in.
void write_case(uint8_t* msg, uint16_t len, const uint8_t* bits) {
    for (size_t at = 12; at < len && msg[at] != 0 && msg[at] <= 63;) {
        const size_t end = std::min<size_t>(at + 1 + msg[at], len);
        for (size_t i = at + 1; i < end && i - 12 < 256; ++i) {
            if (!is_letter(msg[i])) continue;
            const bool upper = (bits[(i - 12) / 8] >> ((i - 12) % 8)) & 1;
            msg[i] = static_cast<uint8_t>(upper ? (msg[i] & ~0x20) : (msg[i] | 0x20));
        }
        at = end;
    }
}

// The DO bit and the client-MAC option of a query's OPT record. False when the query carries
// additional records other than one OPT record: such a query joins nothing.
bool opt_key(const dns_pkt& pkt, uint8_t* do_bit, char* mac) {
    *do_bit = 0;
    mac[0] = '\0';
    const msginf& inf = pkt.inf;
    if (inf.arcount == 0) return true;
    if (inf.arcount != 1 || inf.ar_num != 1 || inf.ar.type != kTypeOpt) return false;
    const size_t fixed = static_cast<size_t>(inf.ar.offset) + inf.ar.name_len; // TYPE onwards
    if (fixed + 10 > pkt.len) return false;
    *do_bit = (pkt.buf[fixed + 6] & 0x80) != 0 ? 1 : 0;
    const size_t end = std::min<size_t>(fixed + 10 + get_u16(pkt.buf + fixed + 8), pkt.len);
    for (size_t at = fixed + 10; at + 4 <= end;) {
        const uint16_t code = get_u16(pkt.buf + at);
        const uint16_t len = get_u16(pkt.buf + at + 2);
        if (code == kOptClientMac) {
            const size_t n = std::min<size_t>({len, 17, end - (at + 4)});
            std::memcpy(mac, pkt.buf + at + 4, n);
            mac[n] = '\0';
            return true;
        }
        at += 4u + len;
    }
    return true;
}

// The same question as the pending pcb's: name without regard to case, TYPE, CLASS, the same
// EDNS handling, DO bit, client-MAC option and D2D name.
bool same_question(const dpxy_pcb& p, const dpxy_pcb& image, const dns_pkt& pkt) {
    const rrinf& qd = pkt.inf.qd;
    // A datagram client never joins a TCP one (its answer may be longer than a datagram); a query
    // forwarded while hardened mode was off recorded nothing to compare.
    const dpxy_hard_rec* h = dpxy_pcb_hard(&p);
    const dpxy_hard_rec* ih = dpxy_pcb_hard(&image);
    if (h == nullptr || p.source != DPXY_SRC_CLIENT ||
        (p.client.tcp != 0) != (image.client.tcp != 0) || h->expect.qlen != qd.rr_len ||
        qd.offset != 12 || p.edns_mode != image.edns_mode || h->do_bit != ih->do_bit ||
        std::strcmp(h->mac, ih->mac) != 0 ||
        strcasecmp(dpxy_pcb_d2d_name(&p), dpxy_pcb_d2d_name(&image)) != 0) {
        return false;
    }
    const uint8_t* q = pkt.buf + 12;
    const size_t name_len = qd.rr_len - 4u;
    for (size_t i = 0; i < name_len; ++i) {
        const uint8_t a = q[i], b = h->expect.question[i];
        if (a != b && !(is_letter(a) && (a | 0x20) == (b | 0x20))) return false;
    }
    return std::memcmp(q + name_len, h->expect.question + name_len, 4) == 0;
}

waiter* take_waiter() {
    for (auto& w : waiters) {
        if (!w.used) return &w;
    }
    return nullptr;
}

} // namespace

void dpxy_hard_init() {
    dputl_set_id_in_use(id_in_use);
}

int dpxy_hard_check_answer(int fd, const dp_peer_addr& from, uint16_t id, const uint8_t* msg,
                           uint16_t len) {
    int ret = DPIO_ANSWER_UNKNOWN_ID;
    if (const dpxy_pcb* pcb = dpxy_find_pcb(id); pcb != nullptr) {
        // Sent before hardened mode was switched on: nothing was recorded to check against.
        const dpxy_hard_rec* hard = dpxy_pcb_hard(pcb);
        if (hard == nullptr || hard->expect.fd < 0) return DPIO_ANSWER_OK;
        ret = dpio_check_answer(&hard->expect, fd, &from, msg, len);
    } else if (const int probe = dpsvr_check_probe_answer(id, fd, &from, msg, len); probe >= 0) {
        ret = probe;
    } else if (const int status = dpxy_check_status_answer(id, fd, &from, msg, len); status >= 0) {
        ret = status;
    }
    if (ret != DPIO_ANSWER_OK) stats.dropped[ret]++;
    return ret;
}

void dpxy_hard_note_query(dpxy_pcb& image, const dns_pkt& pkt) {
    dpxy_hard_rec* h = dpxy_pcb_hard(&image);
    if (h == nullptr) return;
    h->expect.fd = -1;
    h->waiter_head = 0;
    h->waiter_count = 0;
    if (!opt_key(pkt, &h->do_bit, h->mac)) h->do_bit = kJoinsNothing;
}

void dpxy_hard_note_case(dpxy_pcb& image, const dns_pkt& pkt) {
    if (dpxy_hard_rec* h = dpxy_pcb_hard(&image); h != nullptr)
        read_case(pkt.buf, pkt.inf.qd.name_len, h->case_bits);
}

int dpxy_hard_join(const dpxy_pcb& image, const dns_pkt& pkt) {
    const dpxy_hard_rec* ih = dpxy_pcb_hard(&image);
    if (ih == nullptr || image.source != DPXY_SRC_CLIENT || ih->do_bit == kJoinsNothing) {
        return 0;
    }
    dpxy_pcb* pending = dpxy_newest_pcb();
    while (pending != nullptr && !same_question(*pending, image, pkt))
        pending = pending->older;
    if (pending == nullptr) return 0;
    dpxy_hard_rec& ph = *dpxy_pcb_hard(pending);
    waiter* w = ph.waiter_count < DPXY_WAITERS_MAX ? take_waiter() : nullptr;
    if (w == nullptr) {
        stats.waiters_full++;
        return -1;
    }
    *w = waiter{image.client, image.client_kind, image.client_id, {}, ph.waiter_head, true};
    std::memcpy(w->case_bits, ih->case_bits, sizeof w->case_bits);
    ph.waiter_head = static_cast<uint16_t>(w - waiters + 1);
    ph.waiter_count++;
    stats.joined++;
    return 1;
}

void dpxy_hard_answer_waiters(dpxy_pcb* pcb, uint8_t* msg, uint16_t len) {
    const dpxy_hard_rec* hard = dpxy_pcb_hard(pcb);
    if (len < 12 || hard == nullptr) return;
    for (uint16_t i = hard->waiter_head; i != 0; i = waiters[i - 1].next) {
        const waiter& w = waiters[i - 1];
        msg[0] = static_cast<uint8_t>(w.client_id >> 8);
        msg[1] = static_cast<uint8_t>(w.client_id & 0xFF);
        write_case(msg, len, w.case_bits);
        const dp_peer_addr client = dpxy_peer_of(w.client, w.kind);
        send_packet_x(&client, msg, len);
    }
}

void dpxy_hard_free_waiters(dpxy_pcb* pcb) {
    dpxy_hard_rec* hard = dpxy_pcb_hard(pcb);
    if (hard == nullptr) return;
    for (uint16_t i = hard->waiter_head; i != 0;) {
        waiter& w = waiters[i - 1];
        i = w.next;
        w = waiter{};
    }
    hard->waiter_head = 0;
    hard->waiter_count = 0;
}

const dpxy_security_stats& dpxy_hard_stats() {
    return stats;
}

int dpxy_view_security() {
    std::fputs("\nDNS security\n", stderr);
    std::fprintf(stderr, "%s\n", std::string(59, '=').c_str());
    std::fprintf(stderr, "hardened mode         : %s\n",
                 dpcfg_is_hardened_mode_enabled() != 0 ? "on" : "off");
    std::fprintf(stderr, "unknown id            : %u\n", stats.dropped[DPIO_ANSWER_UNKNOWN_ID]);
    std::fprintf(stderr, "wrong socket          : %u\n", stats.dropped[DPIO_ANSWER_WRONG_SOCKET]);
    std::fprintf(stderr, "wrong source          : %u\n", stats.dropped[DPIO_ANSWER_WRONG_SOURCE]);
    std::fprintf(stderr, "wrong question        : %u\n", stats.dropped[DPIO_ANSWER_WRONG_QUESTION]);
    std::fprintf(stderr, "queries joined        : %u\n", stats.joined);
    std::fprintf(stderr, "waiters full          : %u\n", stats.waiters_full);
    uint16_t ports[DPIO_POOL_SIZE];
    const int n = dpio_pool_ports(ports, DPIO_POOL_SIZE);
    std::fprintf(stderr, "source ports          :");
    for (int i = 0; i < n; ++i)
        std::fprintf(stderr, " %u", ports[i]);
    std::fprintf(stderr, "\n%s\n", std::string(59, '=').c_str());
    return 0;
}
