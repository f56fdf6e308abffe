// Proxy control blocks: one per query forwarded upstream, until its answer is relayed or it
// expires. A doubly linked list in creation order, with an index by server_id beside it.
#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <cstring>

#include "ctrl/dp_metrics.h"
#include "io/dpio.h"

inline constexpr uint32_t DPXY_PCB_BOUND = 1036; // a new query is refused at this count
inline constexpr uint32_t DPXY_PCB_LIFETIME = 5; // seconds
inline constexpr uint32_t DPXY_MAX_PACKET = 2048;

// Who asked.
enum dpxy_source : int16_t {
    DPXY_SRC_CLIENT = 0, // a client over the client socket
    DPXY_SRC_LOCAL = 1,  // the local-address resolver (internal query)
    DPXY_SRC_MODULE = 2, // another gateway module
};

// What the response path undoes of the EDNS changes made to the query.
enum dpxy_edns_mode : int32_t {
    DPXY_EDNS_NONE = -1,
    DPXY_EDNS_STRIP = 0,          // strip the client-MAC option (the proxy added the OPT record)
    DPXY_EDNS_UPDATE_PAYLOAD = 1, // rewrite the payload size (the client's own OPT record)
    DPXY_EDNS_VENDOR = 2,         // DNS filter: restore the vendor options
    DPXY_EDNS_VENDOR_STRIP = 3,   // DNS filter: strip the client-MAC option
};

// Hardened mode's part of a pcb: where the query went and what it asked, what makes a later
// identical question join it (the DO bit and the client-MAC option it carried), and those
// waiting. A pcb has one only while hardened mode was on when its query was forwarded.
struct dpxy_hard_rec {
    dpio_expect expect;
    uint8_t do_bit;
    char mac[18];
    uint8_t case_bits[32]; // which letters of the client's question name were upper case
    uint16_t waiter_head;  // first waiter, as its index + 1 in the waiter pool; 0 none
    uint8_t waiter_count;
};

// Where an answer goes, as a pcb keeps it: the socket address as received and the TCP
// connection (0 for a datagram); the 16-byte address and the port are those of the socket
// address, and the kind is kept beside it in the pcb.
struct dpxy_client_ep {
    sockaddr_in6 sa;
    uint32_t tcp;
};

inline dpxy_client_ep dpxy_client_ep_of(const dp_peer_addr& peer) {
    return {peer.sa, peer.tcp};
}

// The peer record a send takes, rebuilt from what the pcb kept.
inline dp_peer_addr dpxy_peer_of(const dpxy_client_ep& ep, uint32_t kind) {
    dp_peer_addr peer{};
    peer.kind = kind;
    std::memcpy(peer.addr, &ep.sa.sin6_addr, 16);
    peer.port = ntohs(ep.sa.sin6_port);
    peer.sa = ep.sa;
    peer.tcp = ep.tcp;
    return peer;
}

// What only some pcbs carry: a D2D name, a module's tag and sequence, the DNS filter's vendor
// options, the hardened-mode record. A pcb without any has none of this record.
struct dpxy_pcb_ext {
    const char* d2d_name;   // the name the client asked when a D2D rewrite was made, else ""
    const char* module_tag; // the requester's tag for a module's query, else ""
    int32_t module_seq;
    void* vendor_opt;    // heap buffer of the DNS filter's vendor options, owned by the pcb
    dpxy_hard_rec* hard; // hardened mode, else null
};

// A pcb and the packet it holds share one block of the pcb store, the packet right behind the
// record, the block only as large as both need; a held answer too long for the block goes into a
// block of its own (up to DPXY_MAX_PACKET bytes). In the image that query handling builds on the
// stack, pkt and ext name the query's own storage; add_proxy_ctrlblk copies what they point at.
struct dpxy_pcb {
    dpxy_pcb* newer;
    dpxy_pcb* older;
    dpxy_client_ep client;
    uint8_t* pkt;        // the query as sent; later the best empty answer held
    dpxy_pcb* hash_next; // chain of the server_id index
    dpxy_pcb_ext* ext;   // null when the pcb carries none of it
    uint32_t expiry;
    dp_metrics_query metrics; // when and where it went, who answered
    uint16_t pkt_len;
    uint16_t client_id;
    uint16_t server_id;
    int8_t source;       // a dpxy_source
    uint8_t client_kind; // of the client endpoint: 1 IPv4, 2 IPv6
    int8_t edns_mode;    // a dpxy_edns_mode
    uint8_t query_count;
    uint8_t response_count;
    uint8_t block_class; // of the block the pcb lives in
};

inline dp_peer_addr dpxy_pcb_client(const dpxy_pcb* pcb) {
    return dpxy_peer_of(pcb->client, pcb->client_kind);
}

inline const char* dpxy_pcb_d2d_name(const dpxy_pcb* pcb) {
    return pcb->ext != nullptr ? pcb->ext->d2d_name : "";
}
inline dpxy_hard_rec* dpxy_pcb_hard(const dpxy_pcb* pcb) {
    return pcb->ext != nullptr ? pcb->ext->hard : nullptr;
}

inline bool dpxy_has_waiters(const dpxy_pcb* pcb) {
    const dpxy_hard_rec* hard = dpxy_pcb_hard(pcb);
    return hard != nullptr && hard->waiter_head != 0;
}

// Hardened mode: a later client of a pending question, answered with its answer.
inline constexpr int DPXY_WAITERS_MAX = 16;  // per question; a query beyond is dropped
inline constexpr int DPXY_WAITER_POOL = 512; // in all

// Records a forwarded query from its image (only when forward_result is 0). A pcb with the same
// server_id takes the new counts instead. 0, or -1 when nothing was recorded.
int add_proxy_ctrlblk(const dpxy_pcb* image, int forward_result);
// Puts len bytes (at most DPXY_MAX_PACKET) in place of the pcb's packet: true, or false when no
// storage could be had (the packet is then left as it was).
bool dpxy_pcb_store(dpxy_pcb* pcb, const uint8_t* msg, uint16_t len);
// Unlinks and frees a pcb; null is ignored.
void remove_proxy_ctrlblk(dpxy_pcb* pcb);
// The pcb waiting for an answer with this id, or null.
dpxy_pcb* dpxy_find_pcb(uint16_t server_id);
// Removes every expired pcb, sending a held answer to its client.
void handle_expired_query();

uint32_t dpxy_pcb_count();
// The highest count reached since the start.
uint32_t dpxy_pcb_highest();
// The newest pcb (null when none); older ones follow through pcb->older.
dpxy_pcb* dpxy_newest_pcb();

// ---- hardened mode (dpxy_hardened.cpp) ----------------------------------------------------------

struct dns_pkt;
// Whether an answer (id, len bytes of msg with its header and question) read from fd and sent by
// from is the one its query, probe or status probe expects: DPIO_ANSWER_OK, else the reason
// (counted) why it is dropped.
int dpxy_hard_check_answer(int fd, const dp_peer_addr& from, uint16_t id, const uint8_t* msg,
                           uint16_t len);
// Notes in the pcb image what makes a later query join it: the question's letter case (from the
// client's query as parsed) and, before forwarding, the DO bit and the client-MAC option.
void dpxy_hard_note_case(dpxy_pcb& image, const dns_pkt& pkt);
void dpxy_hard_note_query(dpxy_pcb& image, const dns_pkt& pkt);
// A client query whose question is pending upstream for another client waits for that answer:
// 1 joined, 0 not (forward it), -1 dropped (the question has all the waiters it takes).
int dpxy_hard_join(const dpxy_pcb& image, const dns_pkt& pkt);
// Sends the answer (msg, as relayed to the pcb's client) to every waiter with its own id and the
// letter case it asked in; frees the waiters.
void dpxy_hard_answer_waiters(dpxy_pcb* pcb, uint8_t* msg, uint16_t len);
void dpxy_hard_free_waiters(dpxy_pcb* pcb);
// Queries that timed out since the last upstream-socket renewal.
uint32_t dpxy_timed_out_count();
void dpxy_reset_timed_out_count();
// Counts one time-out (while upstream-socket renewal is enabled), as an expired pcb does.
void dpxy_count_timed_out();

// The pcb line of the information dump.
void dpxy_dump_pcb_info();
