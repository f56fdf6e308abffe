#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>

#include "config/dpcfg.h"
#include "ctrl/dp_stats.h"
#include "ctrl/dp_trace.h"
#include "io/dpio.h"
#include "main/dputl.h"
#include "platform/ombus/ombus.h"

namespace {

constexpr uint16_t kClientPort = 53;
constexpr int kServerSocketAttempts = 10;
constexpr uint32_t kHeaderLen = 12;
constexpr uint32_t kLastPacketSize = 2048;

int client_fd = -1;
int server_fd = -1;
uint16_t server_port = 0;

// The most recent datagram read, for the diagnostics dumps.
uint8_t last_packet[kLastPacketSize];
uint32_t last_packet_len = 0;

uint16_t message_id(const uint8_t* buf, uint32_t len) {
    return len < 2 ? 0 : static_cast<uint16_t>(buf[0] << 8 | buf[1]);
}

bool is_v4_mapped(const uint8_t* a) {
    static constexpr uint8_t prefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    return std::memcmp(a, prefix, sizeof prefix) == 0;
}

// Beyond the system's limit when the daemon may (it runs as root), else up to that limit.
void set_receive_buffer(int fd, int bytes) {
    if (fd < 0) return;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
}

void trace_send(const char* func, int line, int sock, const uint8_t* addr, uint16_t port,
                const uint8_t* buf, uint16_t len, int ret) {
    if (DP_TRACE_ON(DP_MOD_IO, DP_PKT)) {
        char text[INET6_ADDRSTRLEN] = "";
        inet_ntop(AF_INET6, addr, text, sizeof text);
        dp_trace("DPIO  ", func, line, "snd sock=%d id=0x%x len=%u dip=%s dport=%d ret=%d\n", sock,
                 message_id(buf, len), static_cast<unsigned>(len), text, static_cast<int>(port),
                 ret);
    }
    if (DP_TRACE_ON(DP_MOD_IO, DP_IO)) dpio_hex_dump("snd dns", buf, len);
    if (ret < 0) dp_stats.send_packet_error++;
}

// ---- hardened mode: the pool of server sockets ------------------------------------------------

// A pool socket: in use while retire_at is 0; replaced, it still takes the answers of the queries
// that left from it until retire_at, then it is closed.
struct pool_socket {
    int fd = -1;
    uint16_t port = 0;
    uint32_t retire_at = 0;
    uint64_t order = 0; // which socket was opened first
};

// In use, and lingering after a replacement (a renewal replaces every one at once).
constexpr int kPoolSlots = 3 * DPIO_POOL_SIZE;
constexpr int kPortTries = 16;

pool_socket pool[kPoolSlots];
uint64_t pool_order = 0;
uint32_t last_rotation = 0;
dpio_dispatch server_dispatch = nullptr;
dpio_expect* recording = nullptr; // the query being sent, between dpio_begin/end_sends
bool over_tcp = false;            // the sends of that bracket go over TCP

bool in_use(const pool_socket& s) {
    return s.fd >= 0 && s.retire_at == 0;
}

// A port of the configured range, both ends included.
uint16_t random_port() {
    const uint32_t start = dpcfg_server_socket_src_port_start();
    const uint32_t end = std::max(start, dpcfg_server_socket_src_port_end());
    return static_cast<uint16_t>(start + dputl_random32() % (end - start + 1));
}

// Opens one more pool socket on a free random port; false when no slot or no port is free.
bool open_pool_socket() {
    pool_socket* slot = nullptr;
    for (auto& s : pool) {
        if (s.fd < 0) {
            slot = &s;
            break;
        }
    }
    if (slot == nullptr) return false;
    for (int i = 0; i < kPortTries; ++i) {
        const uint16_t port = random_port();
        const int fd = create_socket(port); // a port taken already fails to bind: draw another
        if (fd < 0) continue;
        set_receive_buffer(fd, DPIO_SERVER_RCVBUF);
        *slot = {fd, port, 0, ++pool_order};
        if (server_dispatch != nullptr) ombusRegisterPollingSocket(fd, server_dispatch, 0, 0);
        return true;
    }
    return false;
}

void close_pool_socket(pool_socket& s) {
    ombusUnregisterPollingSocket(s.fd);
    close(s.fd);
    s = pool_socket{};
}

int sockets_in_use() {
    return static_cast<int>(std::count_if(std::begin(pool), std::end(pool), in_use));
}

void retire(pool_socket& s, uint32_t now) {
    s.retire_at = now + DPIO_POOL_LINGER;
}

void fill_pool() {
    for (int n = sockets_in_use(); n < DPIO_POOL_SIZE && open_pool_socket(); ++n) {}
}

// The question of a query in wire form (name, TYPE, CLASS), read from its first send; 0 when the
// name does not end inside the message or is longer than a name may be.
uint16_t question_length(const uint8_t* buf, uint16_t len) {
    size_t at = kHeaderLen;
    while (at < len && buf[at] != 0) {
        if (buf[at] > 63) return 0;
        at += 1u + buf[at];
    }
    const size_t qlen = at + 1 + 4 - kHeaderLen;
    return at < len && qlen <= DPIO_QUESTION_MAX && kHeaderLen + qlen <= len
               ? static_cast<uint16_t>(qlen)
               : 0;
}

void record_send(dpio_expect* e, const uint8_t* addr, uint16_t port, const uint8_t* buf,
                 uint16_t len) {
    if (e->count == 0) {
        e->port = port;
        e->qlen = question_length(buf, len);
        std::memcpy(e->question, buf + kHeaderLen, e->qlen);
    }
    for (int i = 0; i < e->count; ++i) {
        if (std::memcmp(e->addr[i], addr, 16) == 0) return;
    }
    if (e->count < DPIO_EXPECT_MAX) std::memcpy(e->addr[e->count++], addr, 16);
}

uint8_t fold(uint8_t c) {
    return c >= 'A' && c <= 'Z' ? static_cast<uint8_t>(c - 'A' + 'a') : c;
}

// ---- reading ------------------------------------------------------------------------------------

// What one read takes for a buffer of size bytes: a datagram over 1024 bytes is read as 1025,
// which is how it is recognised.
size_t read_limit(uint32_t size) {
    return size > DPIO_MAX_DATAGRAM ? DPIO_MAX_DATAGRAM + 1 : size;
}

// 0 when nothing is waiting, else the counted and traced read error.
int read_failed(int sock) {
    if (errno == EAGAIN || errno == EWOULDBLOCK) return 0;
    dp_stats.recv_packet_error++;
    DPIO_TRACE_AS("dpio_read_packet", DP_PKT, "failed to read packet from sock_fd=%d\n", sock);
    return -2;
}

// Everything a read does after the system call, for n bytes received from from into buf (a
// buffer of size bytes).
int take_datagram(int sock, const sockaddr_in6& from, const uint8_t* buf, uint32_t size, uint32_t n,
                  dp_peer_addr* peer, uint16_t* len) {
    *len = static_cast<uint16_t>(n);
    last_packet_len = std::min<uint32_t>(n, std::min<uint32_t>(size, kLastPacketSize));
    std::memcpy(last_packet, buf, last_packet_len);

    peer->sa = from;
    std::memcpy(peer->addr, &from.sin6_addr, 16);
    peer->port = ntohs(from.sin6_port);
    peer->kind = is_v4_mapped(peer->addr) ? DPIO_PEER_IPV4 : DPIO_PEER_IPV6;
    peer->tcp = 0;
    if (DP_TRACE_ON(DP_MOD_IO, DP_PKT)) {
        char text[INET6_ADDRSTRLEN] = "";
        inet_ntop(AF_INET6, peer->addr, text, sizeof text);
        dp_trace("DPIO  ", "dpio_read_packet", __LINE__,
                 "rcv sock=%d id=0x%x len=%d sip=%s sport=%d skType=%d\n", sock,
                 message_id(buf, *len), static_cast<int>(*len), text, static_cast<int>(peer->port),
                 static_cast<int>(peer->kind));
    }
    if (DP_TRACE_ON(DP_MOD_IO, DP_IO))
        dpio_hex_dump("rcv dns", buf, std::min<uint32_t>(*len, size));

    if (*len < kHeaderLen) {
        dp_stats.packet_len_too_short++;
        DPIO_TRACE_AS("dpio_read_packet", DP_PKT, "drop short packet for len(%d)\n",
                      static_cast<int>(*len));
        return -3;
    }
    if (*len > DPIO_MAX_DATAGRAM) {
        dp_stats.packet_len_too_long++;
        DPIO_TRACE_AS("dpio_read_packet", DP_PKT, "drop long packet for len(%d)\n",
                      static_cast<int>(*len));
        return -5;
    }
    return 1;
}

// The datagrams of one recvmmsg, handed out one at a time. Large static records here start all
// zero, without a constructor, and what a small batch uses lies together: pages nobody used stay
// untouched.
struct read_batch {
    int count;
    int sock;
    uint32_t size;
    iovec iov[DPIO_BATCH];
    sockaddr_in6 from[DPIO_BATCH];
    mmsghdr msgs[DPIO_BATCH];
    uint8_t buf[DPIO_BATCH][DPIO_MAX_DATAGRAM + 1];
};

read_batch rbatch;

// ---- answers collected for one sendmmsg ---------------------------------------------------------

constexpr int kAnswersMax = 64;
constexpr size_t kAnswerArea = 16 * 1024; // far more than 64 ordinary answers take

struct answer_queue {
    bool open;
    int count;
    size_t used;
    iovec iov[kAnswersMax];
    sockaddr_in6 to[kAnswersMax];
    mmsghdr msgs[kAnswersMax];
    uint8_t area[kAnswerArea];
};

answer_queue answers;

// Sends what was collected: each datagram once, a failed one counted and skipped.
void flush_answers() {
    for (int at = 0; at < answers.count;) {
        const int sent =
            sendmmsg(client_fd, answers.msgs + at, static_cast<unsigned>(answers.count - at), 0);
        if (sent <= 0) {
            dp_stats.send_packet_error++;
            ++at;
            continue;
        }
        at += sent;
    }
    answers.count = 0;
    answers.used = 0;
}

// Collects an answer for the client socket; false when it must go at once (no batch open, or a
// trace that shows each send).
bool collect_answer(const sockaddr_in6& to, const uint8_t* buf, uint16_t len) {
    if (!answers.open || DP_TRACE_ON(DP_MOD_IO, DP_PKT) || DP_TRACE_ON(DP_MOD_IO, DP_IO))
        return false;
    if (answers.count == kAnswersMax || kAnswerArea - answers.used < len) flush_answers();
    const int i = answers.count++;
    uint8_t* copy = answers.area + answers.used;
    std::memcpy(copy, buf, len);
    answers.used += len;
    answers.to[i] = to;
    answers.iov[i] = {copy, len};
    answers.msgs[i].msg_hdr = msghdr{};
    answers.msgs[i].msg_hdr.msg_name = &answers.to[i];
    answers.msgs[i].msg_hdr.msg_namelen = sizeof answers.to[i];
    answers.msgs[i].msg_hdr.msg_iov = &answers.iov[i];
    answers.msgs[i].msg_hdr.msg_iovlen = 1;
    return true;
}

sockaddr_in6 socket_address(const uint8_t* addr, uint16_t port) {
    sockaddr_in6 sa{};
    sa.sin6_family = AF_INET6;
    sa.sin6_port = htons(port);
    std::memcpy(&sa.sin6_addr, addr, 16);
    return sa;
}

} // namespace

int create_socket(uint16_t port) {
    const int fd = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    if (fd < 0) return -1;
    sockaddr_in6 sa{};
    sa.sin6_family = AF_INET6;
    sa.sin6_addr = in6addr_any;
    sa.sin6_port = htons(port);
    // No address reuse and no IPv6-only option: one socket serves both families.
    if (bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) {
        close(fd);
        return -2;
    }
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    const int on = 1;
    if (setsockopt(fd, IPPROTO_IPV6, IPV6_RECVPKTINFO, &on, sizeof on) != 0) {
        DPIO_TRACE(DP_ERROR, "failed to set socket %d port=%d\n", fd, static_cast<int>(port));
    }
    return fd;
}

int create_client_socket() {
    client_fd = create_socket(kClientPort);
    if (client_fd < 0)
        DPIO_TRACE(DP_ERROR, "failed to create client socket with port=%d\n", kClientPort);
    DPIO_TRACE(DP_DETAIL, "socket client_fd=%d\n", client_fd);
    set_receive_buffer(client_fd, DPIO_CLIENT_RCVBUF);
    server_fd = dpio_create_server_socket();
    return 0;
}

int dpio_create_server_socket() {
    const uint32_t start = dpcfg_server_socket_src_port_start();
    uint32_t end = dpcfg_server_socket_src_port_end();
    if (start > end) {
        DPIO_TRACE(DP_WARN, "port end(%d) is less than port start(%d)\n", static_cast<int>(end),
                   static_cast<int>(start));
        end = start;
    }
    // The end port itself is drawn only when the range is that one port; consecutive attempts take
    // consecutive ports.
    uint32_t now = static_cast<uint32_t>(std::time(nullptr));
    int fd = -1;
    for (int left = kServerSocketAttempts - 1; left >= 0; --left) {
        const uint32_t port = start == end ? start : start + now % (end - start);
        server_port = static_cast<uint16_t>(port);
        ++now;
        fd = create_socket(server_port);
        if (fd >= 0) break;
        DPIO_TRACE(DP_WARN, "failed to create server socket with port=%d try_times=%d\n",
                   static_cast<int>(server_port), left);
        if (left == 0) DPIO_TRACE(DP_ERROR, "failed to create server socket\n");
    }
    DPIO_TRACE(DP_DETAIL, "socket server_fd=%d server_port=%d\n", fd,
               static_cast<int>(server_port));
    set_receive_buffer(fd, DPIO_SERVER_RCVBUF);
    return fd;
}

int dpio_renew_server_socket() {
    if (server_fd < 0) return -1;
    const int fresh = dpio_create_server_socket();
    if (fresh < 0) return fresh;
    // dup2 keeps the descriptor number the main loop polls.
    const int ret = dup2(fresh, server_fd) < 0 ? -1 : 0;
    close(fresh);
    return ret;
}

void dpio_close_sockets() {
    if (client_fd >= 0) close(client_fd);
    if (server_fd >= 0) close(server_fd);
    client_fd = -1;
    server_fd = -1;
}

int dpio_get_client_fd() {
    return client_fd;
}
int dpio_get_server_fd() {
    return server_fd;
}
uint16_t dpio_get_server_port() {
    return server_port;
}

int send_packet(int sock, const uint8_t* addr, uint16_t port, const uint8_t* buf, uint16_t len) {
    sockaddr_in6 sa = socket_address(addr, port);
    const int ret =
        static_cast<int>(sendto(sock, buf, len, 0, reinterpret_cast<sockaddr*>(&sa), sizeof sa));
    trace_send(__func__, __LINE__, sock, addr, port, buf, len, ret);
    return ret;
}

int send_packet_x(const dp_peer_addr* peer, const uint8_t* buf, uint16_t len) {
    if (peer->tcp != 0) {
        const int sock = dpio_tcp_client_fd(peer->tcp);
        const int ret = dpio_tcp_send_answer(peer, buf, len);
        trace_send(__func__, __LINE__, sock, peer->addr, static_cast<uint16_t>(peer->port), buf,
                   len, ret);
        return ret;
    }
    if (dpcfg_send_mode_for_client_response() == 0) {
        const auto port = static_cast<uint16_t>(peer->port);
        if (collect_answer(socket_address(peer->addr, port), buf, len)) return len;
        return send_packet(client_fd, peer->addr, port, buf, len);
    }
    if (collect_answer(peer->sa, buf, len)) return len;
    // The address exactly as received keeps the flow information and a link-local scope id.
    iovec iov{const_cast<uint8_t*>(buf), len};
    msghdr msg{};
    msg.msg_name = const_cast<sockaddr_in6*>(&peer->sa);
    msg.msg_namelen = sizeof peer->sa;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    const int ret = static_cast<int>(sendmsg(client_fd, &msg, 0));
    trace_send(__func__, __LINE__, client_fd, peer->addr, static_cast<uint16_t>(peer->port), buf,
               len, ret);
    return ret;
}

int dpio_send_to_client(const uint8_t* addr, uint16_t port, const uint8_t* buf, uint16_t len) {
    return send_packet(client_fd, addr, port, buf, len);
}

int dpio_send_to_server(const uint8_t* addr, uint16_t port, const uint8_t* buf, uint16_t len) {
    if (over_tcp) {
        const int ret = dpio_tcp_send_query(addr, buf, len);
        trace_send(__func__, __LINE__, dpio_tcp_upstream_fd(addr), addr, port, buf, len, ret);
        if (ret > 0 && recording != nullptr) record_send(recording, addr, port, buf, len);
        return ret;
    }
    if (recording == nullptr) return send_packet(server_fd, addr, port, buf, len);
    const int ret = send_packet(recording->fd, addr, port, buf, len);
    if (ret > 0) record_send(recording, addr, port, buf, len);
    return ret;
}

int dpio_read_packet(int sock, dp_peer_addr* peer, uint8_t* buf, uint32_t size, uint16_t* len) {
    // A datagram over 1024 bytes is read as 1025, which is how it is recognised.
    iovec iov{buf, read_limit(size)};
    sockaddr_in6 from{};
    msghdr msg{};
    msg.msg_name = &from;
    msg.msg_namelen = sizeof from;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    const ssize_t n = recvmsg(sock, &msg, MSG_WAITALL);
    if (n < 0) return read_failed(sock);
    return take_datagram(sock, from, buf, size, static_cast<uint32_t>(n), peer, len);
}

int dpio_read_batch(int sock, int max, uint32_t size) {
    max = std::clamp(max, 1, DPIO_BATCH);
    if (rbatch.msgs[0].msg_hdr.msg_iov == nullptr || rbatch.size != size) { // once per buffer size
        for (int i = 0; i < DPIO_BATCH; ++i) {
            rbatch.iov[i] = {rbatch.buf[i], read_limit(size)};
            rbatch.msgs[i].msg_hdr = msghdr{};
            rbatch.msgs[i].msg_hdr.msg_name = &rbatch.from[i];
            rbatch.msgs[i].msg_hdr.msg_iov = &rbatch.iov[i];
            rbatch.msgs[i].msg_hdr.msg_iovlen = 1;
        }
        rbatch.size = size;
    }
    for (int i = 0; i < max; ++i) // what the kernel wrote back
        rbatch.msgs[i].msg_hdr.msg_namelen = sizeof rbatch.from[i];
    const int n = recvmmsg(sock, rbatch.msgs, static_cast<unsigned>(max), MSG_WAITALL, nullptr);
    rbatch.count = std::max(n, 0);
    rbatch.sock = sock;
    return n < 0 ? read_failed(sock) : n;
}

int dpio_batch_packet(int i, dp_peer_addr* peer, const uint8_t** msg, uint16_t* len) {
    if (i < 0 || i >= rbatch.count) return 0;
    *msg = rbatch.buf[i];
    return take_datagram(rbatch.sock, rbatch.from[i], rbatch.buf[i], rbatch.size,
                         rbatch.msgs[i].msg_len, peer, len);
}

void dpio_begin_answers() {
    answers.open = true;
}

void dpio_flush_answers() {
    flush_answers();
}

void dpio_end_answers() {
    flush_answers();
    answers.open = false;
}

void dpio_hex_dump(const char* label, const uint8_t* buf, uint32_t len) {
    std::fprintf(stderr, "%s(%03d):", label, static_cast<int>(len));
    char chunk[3 * 64 + 1];
    for (uint32_t i = 0; i < len;) {
        size_t used = 0;
        for (uint32_t k = 0; k < 64 && i < len; ++k, ++i) {
            used += static_cast<size_t>(
                std::snprintf(chunk + used, sizeof chunk - used, " %02x", buf[i]));
        }
        std::fputs(chunk, stderr);
    }
    std::fputs("\n", stderr);
}

void dpio_dump_info() {
    std::fputs("\nsocket information\n", stderr);
    std::fprintf(stderr, "  client_fd   = %d\n", client_fd);
    std::fprintf(stderr, "  server_fd   = %d\n", server_fd);
    std::fprintf(stderr, "  server_port = %u\n", static_cast<unsigned>(server_port));
    dpio_hex_dump("  last packet", last_packet, last_packet_len);
}

// ---- hardened mode ------------------------------------------------------------------------------

void dpio_begin_sends(dpio_expect* e) {
    dpio_begin_sends(e, false);
}

void dpio_begin_sends(dpio_expect* e, bool tcp) {
    e->fd = -1;
    e->count = 0;
    e->qlen = 0;
    recording = nullptr;
    over_tcp = tcp;
    if (dpcfg_is_hardened_mode_enabled() == 0) return;
    if (tcp) {
        e->fd = DPIO_TCP_STREAM_FD; // TCP answers are checked as read from this one
        recording = e;
        return;
    }
    const pool_socket* chosen[kPoolSlots];
    int n = 0;
    for (const auto& s : pool) {
        if (in_use(s)) chosen[n++] = &s;
    }
    // Without a pool socket (every port of the range taken) the server socket serves.
    e->fd = n > 0 ? chosen[dputl_random32() % static_cast<uint32_t>(n)]->fd : server_fd;
    recording = e;
}

void dpio_end_sends() {
    recording = nullptr;
    over_tcp = false;
}

int dpio_check_answer(const dpio_expect* e, int fd, const dp_peer_addr* from, const uint8_t* msg,
                      uint16_t len) {
    if (fd != e->fd) return DPIO_ANSWER_WRONG_SOCKET;
    bool known = false;
    for (int i = 0; i < e->count && !known; ++i)
        known = std::memcmp(e->addr[i], from->addr, 16) == 0;
    if (!known || from->port != e->port) return DPIO_ANSWER_WRONG_SOURCE;
    if (e->qlen < 5 || len < kHeaderLen + e->qlen) return DPIO_ANSWER_WRONG_QUESTION;
    const uint8_t* q = msg + kHeaderLen;
    const size_t name_len = e->qlen - 4u; // letters without regard to case, TYPE and CLASS exact
    for (size_t i = 0; i < name_len; ++i) {
        if (fold(q[i]) != fold(e->question[i])) return DPIO_ANSWER_WRONG_QUESTION;
    }
    if (std::memcmp(q + name_len, e->question + name_len, 4) != 0)
        return DPIO_ANSWER_WRONG_QUESTION;
    return DPIO_ANSWER_OK;
}

void dpio_pool_tick(uint32_t now) {
    for (auto& s : pool) {
        if (s.fd >= 0 && s.retire_at != 0 && dputl_time_due(s.retire_at, now)) close_pool_socket(s);
    }
    if (dpcfg_is_hardened_mode_enabled() == 0) {
        for (auto& s : pool) {
            if (in_use(s)) retire(s, now);
        }
        return;
    }
    if (sockets_in_use() > 0 && now - last_rotation >= DPIO_POOL_ROTATE) {
        pool_socket* oldest = nullptr;
        for (auto& s : pool) {
            if (in_use(s) && (oldest == nullptr || s.order < oldest->order)) oldest = &s;
        }
        retire(*oldest, now);
        last_rotation = now;
    }
    fill_pool();
}

void dpio_pool_renew(uint32_t now) {
    for (auto& s : pool) {
        if (in_use(s)) retire(s, now);
    }
    last_rotation = now;
    fill_pool();
}

void dpio_set_server_dispatch(dpio_dispatch dispatch) {
    server_dispatch = dispatch;
}

bool dpio_is_server_fd(int fd) {
    if (fd == server_fd) return true;
    return std::any_of(std::begin(pool), std::end(pool),
                       [fd](const pool_socket& s) { return s.fd >= 0 && s.fd == fd; });
}

int dpio_pool_ports(uint16_t* ports, int max) {
    int n = 0;
    for (const auto& s : pool) {
        if (in_use(s) && n < max) ports[n++] = s.port;
    }
    return n;
}

void dpio_pool_close() {
    for (auto& s : pool) {
        if (s.fd >= 0) close_pool_socket(s);
    }
    recording = nullptr;
    over_tcp = false;
}
