// DNS over TCP: the listening socket, the client connections and the connections to upstream
// servers, all non-blocking and served by the poll loop.
//
// A connection owns two byte streams (what was read and not yet taken, what is to be written
// and not yet taken by the kernel); each holds a heap buffer only while bytes wait in it, so an
// idle connection costs its slot and the kernel's socket alone. A close asked for while the
// connection's own read is handing out messages waits until that read is done.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>

#include "ctrl/dp_trace.h"
#include "io/dpio.h"
#include "main/dputl.h"
#include "platform/ombus/ombus.h"

namespace {

constexpr uint16_t kDnsPort = 53;
constexpr int kListenBacklog = 64;
constexpr int kAcceptsPerWakeUp = 16;
constexpr int kReadsPerWakeUp = 8;
constexpr uint32_t kPrefix = 2;
// One read of a client: what a client's stream can hold beyond a message cut short.
constexpr size_t kClientRead = 16 * 1024;
// Queries waiting for an upstream connection to take them.
constexpr uint32_t kUpstreamQueueMax = 64 * 1024;
constexpr uint32_t kStreamGrain = 4096;
constexpr int kMaxFailureReports = DPIO_TCP_MAX_UPSTREAMS;

// Every read lands here first: the loop serves one socket at a time.
uint8_t scratch[kPrefix + DPIO_TCP_MAX_MESSAGE + 1];

// The ids of queries awaiting their answers, with when each was sent and whether it is a second
// try.
template <int N>
struct inflight {
    uint16_t id[N];
    uint32_t since[N];
    bool again[N];
    int n = 0;

    bool full() const { return n >= N; }
    void add(uint16_t qid, uint32_t now, bool second = false) {
        if (full()) return;
        id[n] = qid;
        again[n] = second;
        since[n++] = now;
    }
    // Frees the slot of the first query with this id; the time it was sent, or false.
    bool remove(uint16_t qid) {
        for (int i = 0; i < n; ++i) {
            if (id[i] != qid) continue;
            id[i] = id[n - 1];
            since[i] = since[n - 1];
            again[i] = again[n - 1];
            --n;
            return true;
        }
        return false;
    }
    // Frees the slots older than DPIO_TCP_INFLIGHT_TIME; the time the newest of those was sent
    // (0 when none expired).
    uint32_t expire(uint32_t now) {
        uint32_t newest = 0;
        for (int i = 0; i < n;) {
            if (now - since[i] < DPIO_TCP_INFLIGHT_TIME) {
                ++i;
                continue;
            }
            newest = std::max(newest, since[i]);
            id[i] = id[n - 1];
            since[i] = since[n - 1];
            again[i] = again[n - 1];
            --n;
        }
        return newest;
    }
};

struct client_conn {
    int fd = -1;
    uint32_t token = 0; // slot + 1 in the low byte, a generation above it
    dp_peer_addr peer{};
    uint32_t opened = 0;
    uint32_t last = 0;      // a query read whole, or an answer handed to the kernel
    uint32_t out_since = 0; // the answers waiting in out have made no progress since
    dpio_stream in;
    dpio_stream out;
    inflight<DPIO_TCP_CLIENT_INFLIGHT> slots;
    short events = 0;
    bool eof = false;  // the client sent all it will: answer what it asked, then close
    bool busy = false; // handing out its messages
    int closing = -1;  // a close asked for while busy: its reason
    uint32_t queries = 0;
    uint32_t answers = 0;
};

struct upstream_conn {
    int fd = -1;
    uint8_t addr[16] = {};
    bool connected = false;
    uint32_t opened = 0;
    uint32_t last = 0;        // a query queued or an answer read
    uint32_t last_answer = 0; // an answer read
    uint32_t out_since = 0;
    dpio_stream in;
    dpio_stream out;
    inflight<DPIO_TCP_UPSTREAM_INFLIGHT> slots;
    short events = 0;
    bool busy = false;
    int closing = -1;
    uint32_t queries = 0;
    uint32_t answers = 0;
};

// The connection tables, made with the first connection: a daemon whose clients never speak TCP
// never touches their memory.
std::span<client_conn> clients;
std::span<upstream_conn> upstreams;

void make_tables() {
    if (!clients.empty()) return;
    clients = {new client_conn[DPIO_TCP_MAX_CLIENTS], DPIO_TCP_MAX_CLIENTS};
    upstreams = {new upstream_conn[DPIO_TCP_MAX_UPSTREAMS], DPIO_TCP_MAX_UPSTREAMS};
}
int listen_fd = -1;
uint32_t generation = 0;
dpio_tcp_hooks hooks{};
dpio_tcp_stats stats{};
bool pump_wanted = false;
// Connect failures are reported to the proxy core outside the send that found them (a report
// may start probes, which send too).
uint8_t failed[kMaxFailureReports][16];
int failed_count = 0;

constexpr const char* kReasons[DPIO_TCP_CLOSED_REASONS] = {"peer",    "idle",    "cut",  "framing",
                                                           "stalled", "evicted", "error"};

uint32_t now_s() {
    return dputl_get_current_time();
}

uint16_t get_u16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

bool is_v4_mapped(const uint8_t* a) {
    static constexpr uint8_t prefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    return std::memcmp(a, prefix, sizeof prefix) == 0;
}

std::string addr_text(const uint8_t* addr, uint32_t port) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(AF_INET6, addr, text, sizeof text);
    return "[" + std::string(text) + "]:" + std::to_string(port);
}

bool would_block() {
    return errno == EAGAIN || errno == EWOULDBLOCK;
}

// A reset or a closed peer is the peer's doing, anything else an error.
int reason_of_errno() {
    return errno == ECONNRESET || errno == EPIPE || errno == ETIMEDOUT ? DPIO_TCP_CLOSED_PEER
                                                                       : DPIO_TCP_CLOSED_ERROR;
}

// Writes the length prefix and the message, what the kernel does not take at once going to out
// (whose bytes, if any, go first). false on a write error or when memory cannot be had.
bool send_framed(int fd, dpio_stream& out, bool can_write, const uint8_t* buf, uint16_t len) {
    const uint8_t prefix[kPrefix] = {static_cast<uint8_t>(len >> 8), static_cast<uint8_t>(len)};
    size_t sent = 0;
    if (can_write && out.len == 0) {
        iovec iov[2] = {{const_cast<uint8_t*>(prefix), kPrefix}, {const_cast<uint8_t*>(buf), len}};
        msghdr msg{};
        msg.msg_iov = iov;
        msg.msg_iovlen = 2;
        const ssize_t n = sendmsg(fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && !would_block()) return false;
        sent = n > 0 ? static_cast<size_t>(n) : 0;
    }
    if (sent >= kPrefix + len) return true;
    if (sent < kPrefix && !dpio_stream_append(&out, std::span(prefix + sent, kPrefix - sent)))
        return false;
    const size_t body = sent > kPrefix ? sent - kPrefix : 0;
    return dpio_stream_append(&out, std::span(buf + body, len - body));
}

// Hands waiting bytes to the kernel; false on a write error.
bool flush(int fd, dpio_stream& out, bool* progress) {
    *progress = false;
    while (out.len > 0) {
        const ssize_t n = send(fd, out.buf, out.len, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0) return would_block();
        *progress = true;
        dpio_stream_consume(&out, static_cast<size_t>(n));
    }
    return true;
}

void set_events(int fd, short* current, short wanted) {
    if (*current == wanted) return;
    *current = wanted;
    ombusSetPollingSocketEvents(fd, wanted);
}

// After POLLHUP or POLLERR: whether the socket is really closed or failed. The loop may report
// events of a descriptor closed and reused within one wake-up; a live socket says so here.
bool really_closed(int fd) {
    uint8_t b;
    const ssize_t n = recv(fd, &b, 1, MSG_PEEK | MSG_DONTWAIT);
    return n >= 0 || !would_block();
}

// ---- clients -----------------------------------------------------------------------------------

bool takes_queries(const client_conn& c) {
    return c.closing < 0 && !c.eof && !c.slots.full() && c.out.len == 0;
}

client_conn* client_of_token(uint32_t token) {
    const uint32_t slot = (token & 0xFF) - 1;
    if (slot >= clients.size()) return nullptr;
    client_conn& c = clients[slot];
    return c.fd >= 0 && c.token == token ? &c : nullptr;
}

void close_client(client_conn& c, int reason) {
    if (c.busy) {
        if (c.closing < 0) c.closing = reason;
        return;
    }
    DPIO_TRACE(DP_DETAIL, "tcp client fd=%d %s closed %s queries=%u answers=%u\n", c.fd,
               addr_text(c.peer.addr, c.peer.port).c_str(), kReasons[reason], c.queries, c.answers);
    ombusUnregisterPollingSocket(c.fd);
    close(c.fd);
    stats.client_closed[reason]++;
    dpio_stream_free(&c.in);
    dpio_stream_free(&c.out);
    c = client_conn{};
}

bool client_sink(void* ctx, std::span<const uint8_t> msg) {
    auto& c = *static_cast<client_conn*>(ctx);
    if (!takes_queries(c)) return false;
    c.last = now_s();
    c.queries++;
    stats.queries++;
    if (msg.size() < 12 || msg.size() > DPIO_TCP_MAX_QUERY) { // as a datagram would be
        stats.queries_dropped++;
        return true;
    }
    c.slots.add(get_u16(msg.data()), c.last);
    hooks.query(&c.peer, msg);
    return true;
}

// Applies a close asked for meanwhile, closes a client that sent all it will once it has its
// answers, and polls for what the connection can do now.
void settle_client(client_conn& c) {
    if (c.closing >= 0) {
        close_client(c, c.closing);
        return;
    }
    // A client done sending is closed once it has its answers; the whole queries it sent were
    // served before, what is left can never become one.
    if (c.eof && c.slots.n == 0 && c.out.len == 0 &&
        dpio_frame_cut({c.in.buf, c.in.len}, DPIO_TCP_MAX_MESSAGE, nullptr) != DPIO_FRAME_MESSAGE) {
        close_client(c, c.in.len != 0 ? DPIO_TCP_CLOSED_CUT : DPIO_TCP_CLOSED_PEER);
        return;
    }
    set_events(
        c.fd, &c.events,
        static_cast<short>((takes_queries(c) ? POLLIN : 0) | (c.out.len != 0 ? POLLOUT : 0)));
    if (c.in.len != 0 && !c.slots.full() && c.out.len == 0) pump_wanted = true;
}

void take_from(client_conn& c, std::span<const uint8_t> data) {
    c.busy = true;
    const int ret = dpio_stream_take(&c.in, data, DPIO_TCP_MAX_MESSAGE, client_sink, &c);
    c.busy = false;
    if (ret == DPIO_FRAME_BAD) close_client(c, DPIO_TCP_CLOSED_FRAMING);
    if (ret == DPIO_FRAME_NOMEM) close_client(c, DPIO_TCP_CLOSED_ERROR);
}

// What the client sent while it had all its queries in flight, now that slots are free.
void serve_held(client_conn& c) {
    while (c.fd >= 0 && c.closing < 0 && c.in.len != 0 && !c.slots.full() && c.out.len == 0) {
        const uint32_t before = c.in.len;
        const bool eof = c.eof;
        c.eof = false; // held queries of a client that is done sending are still answered
        take_from(c, {});
        if (c.fd >= 0) c.eof = eof;
        if (c.fd < 0 || c.in.len == before) break;
    }
}

void read_client(client_conn& c) {
    for (int i = 0; i < kReadsPerWakeUp && c.fd >= 0 && takes_queries(c); ++i) {
        const ssize_t n = recv(c.fd, scratch, kClientRead, 0);
        if (n == 0) {
            c.eof = true;
            break;
        }
        if (n < 0) {
            if (errno == EINTR) continue;
            if (!would_block()) close_client(c, reason_of_errno());
            break;
        }
        take_from(c, {scratch, static_cast<size_t>(n)});
        if (static_cast<size_t>(n) < kClientRead) break;
    }
    if (c.fd >= 0) serve_held(c);
}

void write_client(client_conn& c) {
    bool progress = false;
    if (!flush(c.fd, c.out, &progress)) {
        close_client(c, reason_of_errno());
        return;
    }
    if (progress) c.last = c.out_since = now_s();
}

int client_ready(pollfd* entry) {
    client_conn* c = nullptr;
    for (auto& k : clients) {
        if (k.fd == entry->fd) c = &k;
    }
    if (c == nullptr) return 0;
    if ((entry->revents & (POLLHUP | POLLERR)) != 0 && (entry->revents & POLLIN) == 0) {
        if (really_closed(c->fd)) close_client(*c, DPIO_TCP_CLOSED_PEER);
        return 0;
    }
    if ((entry->revents & POLLOUT) != 0) write_client(*c);
    if (c->fd >= 0 && (entry->revents & POLLIN) != 0) read_client(*c);
    if (c->fd >= 0) {
        serve_held(*c);
        if (c->fd >= 0) settle_client(*c);
    }
    return 0;
}

// The idle client that did nothing for the longest time, or null.
client_conn* oldest_idle_client() {
    client_conn* oldest = nullptr;
    for (auto& c : clients) {
        if (c.fd < 0 || c.slots.n != 0 || c.out.len != 0) continue;
        if (oldest == nullptr || static_cast<int32_t>(c.last - oldest->last) < 0) oldest = &c;
    }
    return oldest;
}

void admit(int fd, const sockaddr_in6& sa) {
    make_tables();
    client_conn* slot = nullptr;
    for (auto& c : clients) {
        if (c.fd < 0) {
            slot = &c;
            break;
        }
    }
    if (slot == nullptr) {
        slot = oldest_idle_client();
        if (slot != nullptr) close_client(*slot, DPIO_TCP_CLOSED_EVICTED);
    }
    if (slot == nullptr || slot->fd >= 0) {
        stats.refused++;
        DPIO_TRACE(DP_DETAIL, "tcp client refused: %d connections busy\n", DPIO_TCP_MAX_CLIENTS);
        close(fd);
        return;
    }
    const int on = 1;
    const int sndbuf = DPIO_TCP_SNDBUF;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
    generation = (generation + 1) & 0xFFFFFF;
    if (generation == 0) generation = 1;
    client_conn& c = *slot;
    c.fd = fd;
    c.token = generation << 8 | static_cast<uint32_t>(slot - clients.data() + 1);
    c.peer.sa = sa;
    std::memcpy(c.peer.addr, &sa.sin6_addr, 16);
    c.peer.port = ntohs(sa.sin6_port);
    c.peer.kind = is_v4_mapped(c.peer.addr) ? DPIO_PEER_IPV4 : DPIO_PEER_IPV6;
    c.peer.tcp = c.token;
    c.opened = c.last = now_s();
    c.events = POLLIN;
    ombusRegisterPollingSocket(fd, client_ready, 0, 0);
    stats.accepted++;
    DPIO_TRACE(DP_DETAIL, "tcp client fd=%d %s accepted\n", fd,
               addr_text(c.peer.addr, c.peer.port).c_str());
}

int listen_ready(pollfd*) {
    for (int i = 0; i < kAcceptsPerWakeUp; ++i) {
        sockaddr_in6 sa{};
        socklen_t len = sizeof sa;
        const int fd = accept4(listen_fd, reinterpret_cast<sockaddr*>(&sa), &len,
                               SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd >= 0) {
            admit(fd, sa);
            continue;
        }
        if (errno == EINTR || errno == ECONNABORTED) continue;
        break;
    }
    return 0;
}

// ---- upstreams ---------------------------------------------------------------------------------

int queue_query(const uint8_t* addr, const uint8_t* buf, uint16_t len, bool again);

void close_upstream(upstream_conn& u, int reason) {
    if (u.busy) {
        if (u.closing < 0) u.closing = reason;
        return;
    }
    DPIO_TRACE(DP_DETAIL, "tcp upstream fd=%d %s closed %s queries=%u answers=%u\n", u.fd,
               addr_text(u.addr, kDnsPort).c_str(), kReasons[reason], u.queries, u.answers);
    ombusUnregisterPollingSocket(u.fd);
    close(u.fd);
    stats.upstream_closed[reason]++;
    dpio_stream_free(&u.in);
    dpio_stream_free(&u.out);
    // A server may close a connection it found idle just as a query went out on it: what it left
    // unanswered is sent once more on a new connection, if its pcb still waits with the query.
    const upstream_conn gone = u;
    u = upstream_conn{};
    if (reason != DPIO_TCP_CLOSED_PEER && reason != DPIO_TCP_CLOSED_CUT) return;
    for (int i = 0; i < gone.slots.n; ++i) {
        std::span<const uint8_t> query;
        if (gone.slots.again[i] || hooks.pending_query == nullptr ||
            !hooks.pending_query(gone.slots.id[i], &query)) {
            continue;
        }
        if (queue_query(gone.addr, query.data(), static_cast<uint16_t>(query.size()), true) > 0)
            stats.upstream_retried++;
    }
}

void report_failure(const uint8_t* addr) {
    if (failed_count < kMaxFailureReports) std::memcpy(failed[failed_count++], addr, 16);
}

void fail_connect(upstream_conn& u) {
    DPIO_TRACE(DP_DETAIL, "tcp upstream fd=%d %s connect failed, %d queries lost\n", u.fd,
               addr_text(u.addr, kDnsPort).c_str(), u.slots.n);
    stats.connect_failed++;
    report_failure(u.addr);
    ombusUnregisterPollingSocket(u.fd);
    close(u.fd);
    dpio_stream_free(&u.in);
    dpio_stream_free(&u.out);
    u = upstream_conn{};
}

void flush_failures() {
    for (int i = 0; i < failed_count; ++i) {
        if (hooks.connect_failed != nullptr) hooks.connect_failed(failed[i]);
    }
    failed_count = 0;
}

void settle_upstream(upstream_conn& u) {
    if (u.closing >= 0) {
        close_upstream(u, u.closing);
        return;
    }
    const short wanted = u.connected ? static_cast<short>(POLLIN | (u.out.len != 0 ? POLLOUT : 0))
                                     : static_cast<short>(POLLOUT);
    set_events(u.fd, &u.events, wanted);
}

bool upstream_sink(void* ctx, std::span<const uint8_t> msg) {
    auto& u = *static_cast<upstream_conn*>(ctx);
    u.last = u.last_answer = now_s();
    u.answers++;
    stats.upstream_answers++;
    if (msg.size() >= 2) u.slots.remove(get_u16(msg.data()));
    if (msg.size() < 12) return true;
    dp_peer_addr from{};
    std::memcpy(from.addr, u.addr, 16);
    from.port = kDnsPort;
    from.kind = is_v4_mapped(u.addr) ? DPIO_PEER_IPV4 : DPIO_PEER_IPV6;
    from.sa.sin6_family = AF_INET6;
    from.sa.sin6_port = htons(kDnsPort);
    std::memcpy(&from.sa.sin6_addr, u.addr, 16);
    if (hooks.answer != nullptr) hooks.answer(&from, msg);
    return true;
}

void read_upstream(upstream_conn& u) {
    for (int i = 0; i < kReadsPerWakeUp && u.fd >= 0 && u.closing < 0; ++i) {
        const ssize_t n = recv(u.fd, scratch, sizeof scratch, 0);
        if (n == 0) {
            close_upstream(u, u.in.len != 0 ? DPIO_TCP_CLOSED_CUT : DPIO_TCP_CLOSED_PEER);
            return;
        }
        if (n < 0) {
            if (errno == EINTR) continue;
            if (!would_block()) close_upstream(u, reason_of_errno());
            return;
        }
        u.busy = true;
        const int ret = dpio_stream_take(&u.in, {scratch, static_cast<size_t>(n)},
                                         DPIO_TCP_MAX_MESSAGE, upstream_sink, &u);
        u.busy = false;
        if (ret == DPIO_FRAME_BAD) close_upstream(u, DPIO_TCP_CLOSED_FRAMING);
        if (ret == DPIO_FRAME_NOMEM) close_upstream(u, DPIO_TCP_CLOSED_ERROR);
        if (static_cast<size_t>(n) < sizeof scratch) return;
    }
}

void write_upstream(upstream_conn& u) {
    bool progress = false;
    if (!flush(u.fd, u.out, &progress)) {
        close_upstream(u, reason_of_errno());
        return;
    }
    if (progress) u.out_since = now_s();
}

int upstream_ready(pollfd* entry) {
    upstream_conn* u = nullptr;
    for (auto& k : upstreams) {
        if (k.fd == entry->fd) u = &k;
    }
    if (u == nullptr) return 0;
    if (!u->connected) {
        int err = 0;
        socklen_t len = sizeof err;
        getsockopt(u->fd, SOL_SOCKET, SO_ERROR, &err, &len);
        sockaddr_in6 peer{};
        socklen_t plen = sizeof peer;
        if (err != 0) {
            fail_connect(*u);
        } else if (getpeername(u->fd, reinterpret_cast<sockaddr*>(&peer), &plen) == 0) {
            u->connected = true;
            u->out_since = now_s();
            stats.connects++;
            DPIO_TRACE(DP_DETAIL, "tcp upstream fd=%d %s connected\n", u->fd,
                       addr_text(u->addr, kDnsPort).c_str());
        }
        if (u->fd < 0 || !u->connected) {
            flush_failures();
            return 0;
        }
    }
    if ((entry->revents & POLLOUT) != 0) write_upstream(*u);
    if (u->fd >= 0 && (entry->revents & (POLLIN | POLLHUP | POLLERR)) != 0) read_upstream(*u);
    if (u->fd >= 0) settle_upstream(*u);
    flush_failures();
    dpio_tcp_pump();
    return 0;
}

upstream_conn* find_upstream(const uint8_t* addr) {
    for (auto& u : upstreams) {
        if (u.fd >= 0 && std::memcmp(u.addr, addr, 16) == 0) return &u;
    }
    return nullptr;
}

upstream_conn* open_upstream(const uint8_t* addr) {
    make_tables();
    upstream_conn* slot = nullptr;
    for (auto& u : upstreams) {
        if (u.fd < 0) {
            slot = &u;
            break;
        }
    }
    if (slot == nullptr) { // the one idle longest makes room
        for (auto& u : upstreams) {
            if (u.slots.n != 0 || u.out.len != 0 || u.busy) continue;
            if (slot == nullptr || static_cast<int32_t>(u.last - slot->last) < 0) slot = &u;
        }
        if (slot == nullptr) return nullptr;
        close_upstream(*slot, DPIO_TCP_CLOSED_EVICTED);
    }
    const int fd = socket(AF_INET6, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return nullptr;
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    sockaddr_in6 sa{};
    sa.sin6_family = AF_INET6;
    sa.sin6_port = htons(kDnsPort);
    std::memcpy(&sa.sin6_addr, addr, 16);
    upstream_conn& u = *slot;
    u.fd = fd;
    std::memcpy(u.addr, addr, 16);
    u.opened = u.last = u.last_answer = now_s();
    u.events = POLLOUT;
    ombusRegisterPollingSocket(fd, upstream_ready, 0, 0);
    ombusSetPollingSocketEvents(fd, POLLOUT);
    DPIO_TRACE(DP_DETAIL, "tcp upstream fd=%d %s connecting\n", fd,
               addr_text(addr, kDnsPort).c_str());
    if (connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0) {
        u.connected = true;
        stats.connects++;
    } else if (errno != EINPROGRESS) {
        fail_connect(u);
        return nullptr;
    }
    return &u;
}

int pump_observer() {
    dpio_tcp_pump();
    return 0;
}

} // namespace

// ---- framing -----------------------------------------------------------------------------------

int dpio_frame_cut(std::span<const uint8_t> in, uint32_t max, std::span<const uint8_t>* msg) {
    if (in.size() < kPrefix) return DPIO_FRAME_MORE;
    const uint32_t n = get_u16(in.data());
    if (n == 0 || n > max) return DPIO_FRAME_BAD;
    if (in.size() - kPrefix < n) return DPIO_FRAME_MORE;
    if (msg != nullptr) *msg = in.subspan(kPrefix, n);
    return DPIO_FRAME_MESSAGE;
}

bool dpio_stream_append(dpio_stream* s, std::span<const uint8_t> data) {
    if (data.empty()) return true;
    const size_t need = s->len + data.size();
    if (need > UINT32_MAX / 2) return false;
    if (need > s->cap) {
        const size_t cap = (need + kStreamGrain - 1) / kStreamGrain * kStreamGrain;
        auto* grown = static_cast<uint8_t*>(std::realloc(s->buf, cap));
        if (grown == nullptr) return false;
        s->buf = grown;
        s->cap = static_cast<uint32_t>(cap);
    }
    std::memcpy(s->buf + s->len, data.data(), data.size());
    s->len = static_cast<uint32_t>(need);
    return true;
}

void dpio_stream_consume(dpio_stream* s, size_t n) {
    if (n >= s->len) {
        dpio_stream_free(s);
        return;
    }
    std::memmove(s->buf, s->buf + n, s->len - n);
    s->len -= static_cast<uint32_t>(n);
}

void dpio_stream_free(dpio_stream* s) {
    std::free(s->buf);
    *s = dpio_stream{};
}

int dpio_stream_take(dpio_stream* s, std::span<const uint8_t> data, uint32_t max,
                     dpio_frame_sink sink, void* ctx) {
    const bool held = s->len != 0;
    if (held && !dpio_stream_append(s, data)) return DPIO_FRAME_NOMEM;
    const std::span<const uint8_t> in = held ? std::span<const uint8_t>(s->buf, s->len) : data;
    size_t used = 0;
    int ret = DPIO_FRAME_MORE;
    for (;;) {
        std::span<const uint8_t> msg;
        ret = dpio_frame_cut(in.subspan(used), max, &msg);
        if (ret != DPIO_FRAME_MESSAGE) break;
        if (!sink(ctx, msg)) {
            ret = DPIO_FRAME_MORE;
            break;
        }
        used += kPrefix + msg.size();
    }
    if (ret == DPIO_FRAME_BAD) return ret;
    if (held) {
        dpio_stream_consume(s, used);
    } else if (!dpio_stream_append(s, in.subspan(used))) {
        return DPIO_FRAME_NOMEM;
    }
    return DPIO_FRAME_MORE;
}

// ---- connections -------------------------------------------------------------------------------

void dpio_tcp_set_hooks(const dpio_tcp_hooks& h) {
    hooks = h;
}

int dpio_tcp_listen() {
    const int fd = socket(AF_INET6, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    const int off = 0;
    sockaddr_in6 sa{};
    sa.sin6_family = AF_INET6;
    sa.sin6_addr = in6addr_any;
    sa.sin6_port = htons(kDnsPort);
    // Address reuse lets a restarted daemon listen while connections it closed linger; one
    // socket serves both families.
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off) != 0 ||
        bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 ||
        listen(fd, kListenBacklog) != 0) {
        DPIO_TRACE(DP_ERROR, "failed to create tcp socket with port=%d\n", kDnsPort);
        if (fd >= 0) close(fd);
        return -1;
    }
    listen_fd = fd;
    ombusRegisterPollingSocket(fd, listen_ready, 0, 0);
    ombusRegisterPollingEventObserver(pump_observer, 0, 0);
    return 0;
}

bool dpio_tcp_listening() {
    return listen_fd >= 0;
}

int dpio_tcp_client_fd(uint32_t token) {
    const client_conn* c = client_of_token(token);
    return c != nullptr ? c->fd : -1;
}

int dpio_tcp_upstream_fd(const uint8_t* addr) {
    const upstream_conn* u = find_upstream(addr);
    return u != nullptr ? u->fd : -1;
}

int dpio_tcp_send_answer(const dp_peer_addr* peer, const uint8_t* buf, uint16_t len) {
    client_conn* c = client_of_token(peer->tcp);
    if (c == nullptr || c->closing >= 0) {
        stats.answers_lost++;
        return -1;
    }
    if (len >= 2) c->slots.remove(get_u16(buf));
    c->answers++;
    stats.answers++;
    const bool was_waiting = c->out.len != 0;
    if (!send_framed(c->fd, c->out, true, buf, len)) {
        close_client(*c, errno == ENOMEM ? DPIO_TCP_CLOSED_ERROR : reason_of_errno());
        return -1;
    }
    c->last = now_s();
    if (c->out.len != 0 && !was_waiting) c->out_since = c->last;
    if (!c->busy) settle_client(*c);
    return len;
}

int dpio_tcp_send_query(const uint8_t* addr, const uint8_t* buf, uint16_t len) {
    return queue_query(addr, buf, len, false);
}

namespace {

int queue_query(const uint8_t* addr, const uint8_t* buf, uint16_t len, bool again) {
    // A connection the server has closed fails at the first write: the query then goes on a new
    // one.
    for (int attempt = 0; attempt < 2 && len >= 2; ++attempt) {
        upstream_conn* u = find_upstream(addr);
        if (u == nullptr) u = open_upstream(addr);
        if (u == nullptr || u->slots.full() || u->out.len > kUpstreamQueueMax) break;
        const bool was_waiting = u->out.len != 0;
        if (!send_framed(u->fd, u->out, u->connected, buf, len)) {
            close_upstream(*u, errno == ENOMEM ? DPIO_TCP_CLOSED_ERROR : reason_of_errno());
            continue;
        }
        u->last = now_s();
        if (u->out.len != 0 && !was_waiting) u->out_since = u->last;
        u->slots.add(get_u16(buf), u->last, again);
        u->queries++;
        stats.upstream_queries++;
        settle_upstream(*u);
        return len;
    }
    stats.upstream_refused++;
    return -1;
}

} // namespace

void dpio_tcp_tick(uint32_t now) {
    for (auto& c : clients) {
        if (c.fd < 0) continue;
        c.slots.expire(now);
        if (c.out.len != 0 && now - c.out_since >= DPIO_TCP_IDLE) {
            close_client(c, DPIO_TCP_CLOSED_STALLED);
        } else if (c.slots.n == 0 && c.out.len == 0 && now - c.last >= DPIO_TCP_IDLE) {
            close_client(c, c.in.len != 0 ? DPIO_TCP_CLOSED_CUT : DPIO_TCP_CLOSED_IDLE);
        } else {
            settle_client(c);
        }
    }
    for (auto& u : upstreams) {
        if (u.fd < 0) continue;
        if (!u.connected) {
            if (now - u.opened >= DPIO_TCP_CONNECT_TIME) fail_connect(u);
            continue;
        }
        // A query unanswered for its whole life with nothing at all read since it was sent: the
        // server no longer serves this connection.
        const uint32_t expired = u.slots.expire(now);
        if (expired != 0 && static_cast<int32_t>(u.last_answer - expired) < 0) {
            close_upstream(u, DPIO_TCP_CLOSED_STALLED);
        } else if (u.out.len != 0 && now - u.out_since >= DPIO_TCP_IDLE) {
            close_upstream(u, DPIO_TCP_CLOSED_STALLED);
        } else if (u.slots.n == 0 && u.out.len == 0 && now - u.last >= DPIO_TCP_IDLE) {
            close_upstream(u, DPIO_TCP_CLOSED_IDLE);
        }
    }
    flush_failures();
    dpio_tcp_pump();
}

void dpio_tcp_pump() {
    flush_failures();
    if (!pump_wanted) return;
    pump_wanted = false;
    for (auto& c : clients) {
        if (c.fd < 0 || c.busy || c.in.len == 0) continue;
        serve_held(c);
        if (c.fd >= 0) settle_client(c);
    }
}

void dpio_tcp_close_all() {
    for (auto& c : clients) {
        if (c.fd >= 0) close_client(c, DPIO_TCP_CLOSED_ERROR);
    }
    for (auto& u : upstreams) {
        if (u.fd >= 0) close_upstream(u, DPIO_TCP_CLOSED_ERROR);
    }
    if (listen_fd >= 0) {
        ombusUnregisterPollingSocket(listen_fd);
        close(listen_fd);
    }
    listen_fd = -1;
    failed_count = 0;
    pump_wanted = false;
}

dpio_tcp_stats& dpio_tcp_counters() {
    return stats;
}

void dpio_tcp_view() {
    const std::string rule(59, '=');
    const uint32_t now = now_s();
    auto row = [](const char* label, unsigned value) {
        std::fprintf(stderr, "%-24s: %u\n", label, value);
    };
    std::fprintf(stderr, "\nDNS over TCP\n%s\n", rule.c_str());
    std::fprintf(stderr, "%-24s: %s\n", "tcp", listen_fd >= 0 ? "on" : "off");
    const auto open_clients = std::count_if(std::begin(clients), std::end(clients),
                                            [](const client_conn& c) { return c.fd >= 0; });
    std::fprintf(stderr, "%-24s: %d of %d\n", "client connections", static_cast<int>(open_clients),
                 DPIO_TCP_MAX_CLIENTS);
    row("accepted", stats.accepted);
    row("refused", stats.refused);
    for (int r = 0; r < DPIO_TCP_CLOSED_REASONS; ++r)
        row(("closed " + std::string(kReasons[r])).c_str(), stats.client_closed[r]);
    row("queries", stats.queries);
    row("answers", stats.answers);
    row("queries dropped", stats.queries_dropped);
    row("answers lost", stats.answers_lost);
    row("truncated over udp", stats.truncated);
    const auto open_upstreams = std::count_if(std::begin(upstreams), std::end(upstreams),
                                              [](const upstream_conn& u) { return u.fd >= 0; });
    std::fprintf(stderr, "%-24s: %d of %d\n", "upstream connections",
                 static_cast<int>(open_upstreams), DPIO_TCP_MAX_UPSTREAMS);
    row("upstream connects", stats.connects);
    row("upstream failed", stats.connect_failed);
    for (int r = 0; r < DPIO_TCP_CLOSED_REASONS; ++r)
        row(("upstream closed " + std::string(kReasons[r])).c_str(), stats.upstream_closed[r]);
    row("upstream queries", stats.upstream_queries);
    row("upstream answers", stats.upstream_answers);
    row("upstream refused", stats.upstream_refused);
    row("upstream retried", stats.upstream_retried);
    std::fprintf(stderr, "%s\n", std::string(59, '-').c_str());
    for (const auto& c : clients) {
        if (c.fd < 0) continue;
        std::fprintf(stderr, "client   %s fd=%d age=%u idle=%u inflight=%d held=%u queued=%u\n",
                     addr_text(c.peer.addr, c.peer.port).c_str(), c.fd, now - c.opened,
                     now - c.last, c.slots.n, c.in.len, c.out.len);
    }
    for (const auto& u : upstreams) {
        if (u.fd < 0) continue;
        std::fprintf(stderr, "upstream %s fd=%d %s age=%u idle=%u inflight=%d queued=%u\n",
                     addr_text(u.addr, kDnsPort).c_str(), u.fd,
                     u.connected ? "connected" : "connecting", now - u.opened, now - u.last,
                     u.slots.n, u.out.len);
    }
    std::fprintf(stderr, "%s\n", rule.c_str());
}
