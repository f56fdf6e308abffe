// Proxy control blocks: one per query forwarded upstream, until its answer is relayed or it
// expires. A doubly linked list in creation order, with an index by server_id beside it.
#pragma once

#include <cstdint>

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

struct dpxy_pcb {
    dpxy_pcb* newer;
    dpxy_pcb* older;
    dp_peer_addr client;
    uint16_t pkt_len;
    uint8_t pkt[DPXY_MAX_PACKET]; // the query as sent; later the best empty answer held
    char d2d_name[256];           // the name the client asked, when a D2D rewrite was made; else ""
    uint16_t client_id;
    char module_tag[32];
    int32_t module_seq;
    int32_t edns_mode;
    int16_t source;
    uint16_t server_id;
    uint8_t query_count;
    uint8_t response_count;
    uint32_t expiry;
    void* vendor_opt;    // heap buffer of the DNS filter's vendor options, owned by the pcb
    dpxy_pcb* hash_next; // chain of the server_id index
};

// Records a forwarded query from its image (only when forward_result is 0). A pcb with the same
// server_id takes the new counts instead. 0, or -1 when nothing was recorded.
int add_proxy_ctrlblk(const dpxy_pcb* image, int forward_result);
// Unlinks and frees a pcb; null is ignored.
void remove_proxy_ctrlblk(dpxy_pcb* pcb);
// The pcb waiting for an answer with this id, or null.
dpxy_pcb* dpxy_find_pcb(uint16_t server_id);
// Removes every expired pcb, sending a held answer to its client.
void handle_expired_query();

uint32_t dpxy_pcb_count();
// Queries that timed out since the last upstream-socket renewal.
uint32_t dpxy_timed_out_count();
void dpxy_reset_timed_out_count();

// The pcb line of the information dump.
void dpxy_dump_pcb_info();
