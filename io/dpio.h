// Packet I/O: the UDP sockets towards clients and servers, and the module message channel.
#pragma once

#include <netinet/in.h>

#include <cstdint>

#include "platform/csmsg/csmsg.h"

// ---- sockets ----------------------------------------------------------------------------------

// Where a datagram came from, filled by dpio_read_packet and handed back to answer it.
struct dp_peer_addr {
    uint32_t kind;    // 1 IPv4 peer (IPv4-mapped address), 2 IPv6 peer; traced as "skType"
    uint8_t addr[16]; // as received, network order
    uint32_t port;    // host order
    sockaddr_in6 sa;  // the source address exactly as the kernel returned it
};

enum dpio_peer_kind : uint32_t {
    DPIO_PEER_IPV4 = 1,
    DPIO_PEER_IPV6 = 2,
};

// Largest datagram accepted: a longer one is read as 1025 bytes and dropped.
inline constexpr uint32_t DPIO_MAX_DATAGRAM = 1024;

// A dual-stack non-blocking UDP socket bound to the port: the descriptor, -1 when no socket can
// be made, -2 when it cannot be bound.
int create_socket(uint16_t port);
// Opens the client socket (port 53) and the server socket; always 0 (a failed socket is kept as
// its negative code).
int create_client_socket();
// Opens a server socket on a port drawn from the configured range; the descriptor or a negative
// code. Used at start-up and for renewal.
int dpio_create_server_socket();
// Replaces the server socket by a new one on a new port, keeping its descriptor number (the one
// the main loop polls). 0, or the negative code of the failed socket.
int dpio_renew_server_socket();

// Closes both sockets (shutdown, tests).
void dpio_close_sockets();

int dpio_get_client_fd();
int dpio_get_server_fd();
uint16_t dpio_get_server_port();

// sendto(2) of buf to addr (16 bytes) and port through sock: what sendto returns.
int send_packet(int sock, const uint8_t* addr, uint16_t port, const uint8_t* buf, uint16_t len);
// Answers a client through the client socket, as the configured send mode says.
int send_packet_x(const dp_peer_addr* peer, const uint8_t* buf, uint16_t len);
int dpio_send_to_client(const uint8_t* addr, uint16_t port, const uint8_t* buf, uint16_t len);
int dpio_send_to_server(const uint8_t* addr, uint16_t port, const uint8_t* buf, uint16_t len);

// Reads one datagram: 1 to process it, 0 when nothing is waiting (the socket is drained), -2 on
// a read error, -3 for a datagram shorter than a DNS header, -5 for one longer than 1024 bytes.
int dpio_read_packet(int sock, dp_peer_addr* peer, uint8_t* buf, uint32_t size, uint16_t* len);

// "%s(%03d):" then " %02x" per byte: one line on standard error.
void dpio_hex_dump(const char* label, const uint8_t* buf, uint32_t len);

// The I/O part of the information dump: descriptors, server port, the last datagram read.
void dpio_dump_info();

// ---- hardened mode: the upstream side that an off-path host cannot forge -----------------------
//
// Queries leave from a pool of server sockets on random ports of the configured range (one
// socket drawn at random per query, the oldest replaced every few seconds), and an answer is
// taken only on the socket its query left from, from a server it was sent to, with its question.

inline constexpr int DPIO_POOL_SIZE = 16;       // sockets in use at a time
inline constexpr uint32_t DPIO_POOL_ROTATE = 2; // seconds between two replacements
inline constexpr uint32_t DPIO_POOL_LINGER = 6; // seconds a replaced socket still takes answers
inline constexpr int DPIO_EXPECT_MAX = 32;      // servers of one set
inline constexpr int DPIO_QUESTION_MAX = 259;   // a name of 255 bytes, TYPE and CLASS

// Where one query went and what it asked.
struct dpio_expect {
    int fd;        // the socket it left from; -1 when nothing was recorded
    uint16_t port; // the servers' port
    uint8_t count; // servers it was sent to
    uint8_t addr[DPIO_EXPECT_MAX][16];
    uint16_t qlen; // its question in wire form: the name, TYPE and CLASS
    uint8_t question[DPIO_QUESTION_MAX];
};

// Why an answer was not taken.
enum dpio_answer_check : int {
    DPIO_ANSWER_OK = 0,
    DPIO_ANSWER_WRONG_SOCKET = 1,
    DPIO_ANSWER_WRONG_SOURCE = 2,   // another address, or a port other than 53
    DPIO_ANSWER_WRONG_QUESTION = 3, // another name, TYPE or CLASS
    DPIO_ANSWER_UNKNOWN_ID = 4,     // no query or probe waits for this id
};

// While hardened mode is on, the sends to servers between these two calls leave from one pool
// socket drawn at random and are recorded in *e; off, they leave from the server socket as
// always and *e is left empty (fd -1).
void dpio_begin_sends(dpio_expect* e);
void dpio_end_sends();
// Whether the answer msg (len bytes, at least a header), read from fd and sent by from, is the
// answer to the recorded query.
int dpio_check_answer(const dpio_expect* e, int fd, const dp_peer_addr* from, const uint8_t* msg,
                      uint16_t len);

// Pool upkeep, once a tick: opens the pool while hardened mode is on, replaces the oldest socket
// every DPIO_POOL_ROTATE seconds, closes a replaced one DPIO_POOL_LINGER seconds later; with
// hardened mode off every socket is replaced, and closed once its answers can no longer come.
void dpio_pool_tick(uint32_t now);
// Renewal after time-outs in hardened mode: every socket in use is replaced at once.
void dpio_pool_renew(uint32_t now);
// The poll loop callback that pool sockets are registered with (the server socket's).
using dpio_dispatch = int (*)(struct pollfd* entry);
void dpio_set_server_dispatch(dpio_dispatch dispatch);
// True for the server socket and every pool socket, the ones answers arrive on.
bool dpio_is_server_fd(int fd);
// The ports of the sockets in use (at most max); their number.
int dpio_pool_ports(uint16_t* ports, int max);
// Closes every pool socket (shutdown, tests).
void dpio_pool_close();

// ---- module message channel -------------------------------------------------------------------
//
// Fixed-layout messages to other gateway modules: the 32-byte csMsgHeader (host order) and a
// payload. Hex dumps of what is sent and received go to standard error under the io module's
// DP_IO bit.

// Module ids and message types of the channel.
enum dpio_module_id : uint32_t {
    DPIO_MODULE_MGMT = 21,     // management: answers registration-state requests
    DPIO_MODULE_DNSPROXY = 44, // this daemon
    DPIO_MODULE_STATUS = 150,  // status collector: service status and query responses
};
inline constexpr uint32_t DPIO_MSG_REGISTER_STATE = 0x10000401;
inline constexpr uint32_t DPIO_MSG_SERVICE_STATUS = 0x100027DB;
inline constexpr uint32_t DPIO_MSG_QUERY_RESPONSE = 0x100027C4;
inline constexpr uint32_t DPIO_SERVICE_UP = 2;
inline constexpr uint32_t DPIO_SERVICE_DOWN = 3;

// Payload of a query response (524 bytes, behind the 32-byte header).
struct dpio_query_response {
    uint32_t query_type; // 1 AAAA, 0 A
    char name[256];      // NUL-terminated, at most 255 characters
    int32_t result;      // 0 resolved, negative failure
    int32_t ttl;
    char ipstrs[256]; // addresses joined by commas, at most 255 characters
};
static_assert(sizeof(dpio_query_response) == 524, "query response payload is 524 bytes");

// The record answering a requesting module (560 bytes).
struct dpio_module_reply {
    char module[32]; // the requester's tag, at most 31 characters
    uint32_t seq;    // the requester's sequence number
    uint32_t query_type;
    char name[256];
    int32_t result;
    int32_t ttl;
    char ipstrs[256];
};
static_assert(sizeof(dpio_module_reply) == 560, "module reply record is 560 bytes");

// Binds the daemon's module channel (id 44). 0, or -1 when the channel cannot be opened.
int dpio_init_module_interface();
// The channel's descriptor, or -1 before a successful init.
int dpio_get_module_fd();
// Closes the channel (shutdown, tests).
void dpio_close_module_interface();

// Asks the management module (21) for its registration state with a request of the given type
// and waits up to 3000 ms for the reply, whose payload is copied into reply. The event loop
// blocks meanwhile. The reply is the first message that module 21 sends from its own socket with
// source 21 and the request's type; what waited on the channel before the request, and any other
// message that arrives meanwhile, is dropped. 0; -1 null reply or size not above 0; -2 send failed;
// -3 no reply (receive failed or timed out); -5 no message; -7 empty payload; -9 payload longer
// than size.
int dpio_request_registration_state(uint32_t type, uint8_t* reply, int32_t size);

// Tells the status collector (150) whether the DNS service answers (word 5: 2 up, 3 down).
// What csMsg_send returns.
int dpio_send_service_status(int up);

// Sends the result of an internally requested resolution to the status collector (150), and
// publishes the same payload as the bus signal "dnsProxyResponse" whatever the send gave.
// Texts are cut to 255 characters. Nothing happens when the message cannot be allocated.
void dpio_send_csmsg_query_response(uint32_t is_aaaa, const char* name, int32_t result, int32_t ttl,
                                    const char* ipstrs);

// Publishes a query response payload on the bus as signal "dnsProxyResponse" of
// "orvik.kiv.rgwd.itf.msg" (path /orvik/kiv/dnsproxy, one "ay" argument). 0, or -1 when the bus
// cannot be reached or the signal not built.
int dpio_publish_query_response(const void* payload, uint32_t len);

// Builds the reply record for a requesting module and hands it to the module-response hook.
// In this build the hook drops it: a requesting module gets no reply through this path.
void dpio_send_query_response_to_module(const char* module, int32_t seq, uint32_t is_aaaa,
                                        const char* name, int32_t result, int32_t ttl,
                                        const char* ipstrs);
// Replaces the module-response hook (null: the dropping one), for a build that delivers replies.
using dpio_module_response_hook = void (*)(const dpio_module_reply* reply);
void dpio_set_module_response_hook(dpio_module_response_hook hook);

// Waits up to 1500 ms for one module message: its header into header, min(payload, size) payload
// bytes into data and their number into *received (0 without payload). 0; -1 no message; -2
// receive failed or timed out.
int dpio_receive_csmsg(csMsgHeader* header, uint8_t* data, uint32_t size, uint32_t* received);
