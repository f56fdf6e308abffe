// Packet I/O: the UDP sockets towards clients and servers, and the module message channel.
#pragma once

#include <netinet/in.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/csmsg/csmsg.h"

// ---- sockets ----------------------------------------------------------------------------------

// Where a datagram came from, filled by dpio_read_packet and handed back to answer it.
struct dp_peer_addr {
    uint32_t kind;    // 1 IPv4 peer (IPv4-mapped address), 2 IPv6 peer; traced as "skType"
    uint8_t addr[16]; // as received, network order
    uint32_t port;    // host order
    sockaddr_in6 sa;  // the source address exactly as the kernel returned it
    // Extension: 0 for a datagram; else the TCP connection it came on (slot and generation, see
    // dpio_tcp_send_answer), where its answer goes back.
    uint32_t tcp;
};

enum dpio_peer_kind : uint32_t {
    DPIO_PEER_IPV4 = 1,
    DPIO_PEER_IPV6 = 2,
};

// Largest datagram accepted: a longer one is read as 1025 bytes and dropped.
inline constexpr uint32_t DPIO_MAX_DATAGRAM = 1024;

// Kernel receive buffers of the two sockets (the kernel doubles what is asked and counts about
// 0.8 KiB of it per small datagram). The client socket's holds about 600 queries: a burst queues
// at most a few tens of milliseconds of work (about 12 ms at this daemon's forwarding rate on a
// 2-core x86, more on a slower gateway) and what comes beyond is dropped by the kernel at once,
// before it costs anything, instead of being answered late. The server socket's holds about
// 4,800 answers: every answer to a full table of pending queries, even each sent to three
// servers, fits while the loop serves clients, so that no answer is lost and no pcb waits out
// its life for nothing.
inline constexpr int DPIO_CLIENT_RCVBUF = 256 * 1024;
inline constexpr int DPIO_SERVER_RCVBUF = 2 * 1024 * 1024;

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
// Answers a client through the client socket, as the configured send mode says; a client of a
// TCP connection gets the answer framed on that connection.
int send_packet_x(const dp_peer_addr* peer, const uint8_t* buf, uint16_t len);
int dpio_send_to_client(const uint8_t* addr, uint16_t port, const uint8_t* buf, uint16_t len);
int dpio_send_to_server(const uint8_t* addr, uint16_t port, const uint8_t* buf, uint16_t len);

// Reads one datagram: 1 to process it, 0 when nothing is waiting (the socket is drained), -2 on
// a read error, -3 for a datagram shorter than a DNS header, -5 for one longer than 1024 bytes.
int dpio_read_packet(int sock, dp_peer_addr* peer, uint8_t* buf, uint32_t size, uint16_t* len);

// ---- batches: several datagrams a system call ---------------------------------------------------
//
// A readable socket is read with recvmmsg, up to DPIO_BATCH datagrams at a time, and each datagram
// is then handed out exactly as dpio_read_packet hands out one: the same result, peer record,
// length, counters, last-packet copy and trace lines, at the moment it is handed out. Answers to
// clients sent while a batch is open are collected and leave together with sendmmsg when it is
// closed; while the io module's pkt or io trace bit is on they leave one by one at once, so that
// the trace reads as it always has.

inline constexpr int DPIO_BATCH = 8;

// Reads up to max (at most DPIO_BATCH) datagrams waiting on sock, each cut as dpio_read_packet
// cuts it for a buffer of size bytes: their number, 0 when nothing is waiting, -2 on a read
// error (counted and traced as dpio_read_packet does).
int dpio_read_batch(int sock, int max, uint32_t size);
// Hands out datagram i of the last batch read: what dpio_read_packet returns for it, with *msg
// pointing at its bytes (valid until the next batch read) and *len its length.
int dpio_batch_packet(int i, dp_peer_addr* peer, const uint8_t** msg, uint16_t* len);
// Opens and closes the collection of client answers; closing sends what was collected (a failed
// datagram counts one "send packet error", as a single send does).
void dpio_begin_answers();
void dpio_end_answers();
// Sends what was collected so far; the collection stays open (before the loop blocks).
void dpio_flush_answers();

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
// The same, with the queries of the bracket going to the servers over TCP (dpio_tcp_send_query):
// the recorded socket is then DPIO_TCP_STREAM_FD, the one TCP answers are checked as read from.
void dpio_begin_sends(dpio_expect* e, bool over_tcp);
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

// ---- DNS over TCP (extension, EnableTcp)
// ---------------------------------------------------------
//
// Clients: a dual-stack listening socket on port 53 beside the client socket, served by the poll
// loop like the others. Each message carries a 2-byte length prefix; a client may send several
// queries without waiting, and answers go back in the order they come. Upstreams: one connection
// per server address, opened when a query of a TCP client is to go there, pipelined, closed when
// idle. Buffers are per connection, taken when bytes wait and given back when none do.

inline constexpr int DPIO_TCP_MAX_CLIENTS = 64;         // a new one beyond closes the oldest idle
inline constexpr uint32_t DPIO_TCP_IDLE = 10;           // seconds without progress
inline constexpr int DPIO_TCP_CLIENT_INFLIGHT = 16;     // queries of one client awaiting answers
inline constexpr uint32_t DPIO_TCP_MAX_MESSAGE = 65535; // what a 2-byte length can announce
inline constexpr uint32_t DPIO_TCP_MAX_QUERY = 2048;    // longer queries are read and dropped
inline constexpr int DPIO_TCP_MAX_UPSTREAMS = 16;       // upstream connections, one per server
inline constexpr int DPIO_TCP_UPSTREAM_INFLIGHT = 256;  // queries awaiting answers on one
inline constexpr uint32_t DPIO_TCP_CONNECT_TIME = 3;    // seconds a connect may take
inline constexpr uint32_t DPIO_TCP_INFLIGHT_TIME = 6;   // a query's slot outlives its pcb (5 s)
inline constexpr uint32_t DPIO_TCP_SNDBUF = 64 * 1024;  // kernel send buffer of a client
// The socket TCP answers are checked as read from (hardened mode); no descriptor has it.
inline constexpr int DPIO_TCP_STREAM_FD = INT_MAX;

// ---- framing: pure, no socket ----

// Bytes of a stream not yet taken: a linear heap buffer, null while nothing waits.
struct dpio_stream {
    uint8_t* buf = nullptr;
    uint32_t len = 0;
    uint32_t cap = 0;
};

inline constexpr int DPIO_FRAME_MORE = 0;    // no whole message at the front
inline constexpr int DPIO_FRAME_MESSAGE = 1; // *msg is the first message
inline constexpr int DPIO_FRAME_BAD = -1;    // a zero length, or one above max
inline constexpr int DPIO_FRAME_NOMEM = -2;  // the rest could not be kept

// The first message of in (behind its length prefix) into *msg; in stays as it is.
int dpio_frame_cut(std::span<const uint8_t> in, uint32_t max, std::span<const uint8_t>* msg);

// Takes one message: true when it was taken, false to stop (it stays held, with what follows).
using dpio_frame_sink = bool (*)(void* ctx, std::span<const uint8_t> msg);

// Hands every whole message of what s holds followed by data to sink, in order, until the sink
// stops; keeps the rest (a message cut short, and what the sink did not take) in s. Messages are
// handed out of data itself while nothing was held. DPIO_FRAME_MORE when all was taken or kept,
// else DPIO_FRAME_BAD or DPIO_FRAME_NOMEM (the stream is then of no further use).
int dpio_stream_take(dpio_stream* s, std::span<const uint8_t> data, uint32_t max,
                     dpio_frame_sink sink, void* ctx);
// Appends bytes; false when memory cannot be had.
bool dpio_stream_append(dpio_stream* s, std::span<const uint8_t> data);
// Drops the first n bytes; the buffer is given back once nothing is left.
void dpio_stream_consume(dpio_stream* s, size_t n);
void dpio_stream_free(dpio_stream* s);

// ---- connections ----

// What the proxy core does with what arrives; set once at start-up.
struct dpio_tcp_hooks {
    // A client's query (at most DPIO_TCP_MAX_QUERY bytes); client->tcp names its connection.
    void (*query)(const dp_peer_addr* client, std::span<const uint8_t> msg);
    // An upstream's answer; from holds the server's address and port 53.
    void (*answer)(const dp_peer_addr* from, std::span<const uint8_t> msg);
    // A connection to the server at addr could not be made (refused or timed out).
    void (*connect_failed)(const uint8_t* addr);
    // The query (as sent) of the pending query with this server id, while it still waits with
    // it: false when it is gone or holds an answer.
    bool (*pending_query)(uint16_t id, std::span<const uint8_t>* msg);
};
void dpio_tcp_set_hooks(const dpio_tcp_hooks& hooks);

// Opens the listening socket on port 53 and registers it with the loop; 0, or -1 (traced).
int dpio_tcp_listen();
bool dpio_tcp_listening();

// Frames an answer onto the client connection named by peer->tcp (when it still is the one the
// query came on): what was sent or queued (len), or -1 when the connection is gone or had to be
// closed. Frees the query's in-flight slot.
int dpio_tcp_send_answer(const dp_peer_addr* peer, const uint8_t* buf, uint16_t len);
// The descriptor of a client connection, -1 when it is gone; of the connection to a server.
int dpio_tcp_client_fd(uint32_t token);
int dpio_tcp_upstream_fd(const uint8_t* addr);
// Queues a query on the connection to the server at addr (port 53), opening it when there is
// none: len, or -1 when no connection can be had or it has all the queries it takes.
int dpio_tcp_send_query(const uint8_t* addr, const uint8_t* buf, uint16_t len);

// Once a tick: idle, stalled and half-read connections are closed, connects that take too long
// fail, slots of queries that were never answered are freed.
void dpio_tcp_tick(uint32_t now);
// Serves what clients sent while they had all the queries in flight they may have; called after
// the loop handled events (answers free slots).
void dpio_tcp_pump();
// Closes every connection and the listening socket (shutdown, tests).
void dpio_tcp_close_all();

// Why connections were closed.
enum dpio_tcp_close_reason : int {
    DPIO_TCP_CLOSED_PEER = 0, // the other side closed or reset it
    DPIO_TCP_CLOSED_IDLE,     // nothing for DPIO_TCP_IDLE seconds
    DPIO_TCP_CLOSED_CUT,      // a message cut short: closed mid-message, or half-read when idle
    DPIO_TCP_CLOSED_FRAMING,  // a zero length (or one above the limit)
    DPIO_TCP_CLOSED_STALLED,  // answers not read (a client), queries not answered (an upstream)
    DPIO_TCP_CLOSED_EVICTED,  // the oldest idle client, for a new one beyond the cap
    DPIO_TCP_CLOSED_ERROR,    // a read or write error, or no memory
    DPIO_TCP_CLOSED_REASONS,
};

struct dpio_tcp_stats {
    uint32_t accepted;
    uint32_t refused; // beyond the cap with no idle one to close
    uint32_t client_closed[DPIO_TCP_CLOSED_REASONS];
    uint32_t queries;
    uint32_t answers;
    uint32_t queries_dropped; // shorter than a header, or longer than DPIO_TCP_MAX_QUERY
    uint32_t answers_lost;    // for a connection that was gone
    uint32_t connects;
    uint32_t connect_failed;
    uint32_t upstream_closed[DPIO_TCP_CLOSED_REASONS];
    uint32_t upstream_queries;
    uint32_t upstream_answers;
    uint32_t upstream_refused; // no connection could be had, or it was full
    uint32_t upstream_retried; // sent again after the server closed with them unanswered
    uint32_t truncated;        // too-long UDP answers turned into truncated ones
};
dpio_tcp_stats& dpio_tcp_counters();
// "view tcp": the connections and the counters on standard error.
void dpio_tcp_view();

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
