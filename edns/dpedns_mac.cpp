// The client's MAC address for the 0xFE31 option: the kernel's ARP table on the LAN bridge for
// IPv4 clients, the kernel's neighbour table (a copy kept over netlink) for IPv6 clients.
#include <arpa/inet.h>
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if_arp.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "ctrl/dp_trace.h"
#include "edns/dpedns.h"
#include "platform/ombus/ombus.h"

namespace {

constexpr char kLanBridge[] = "br0";

int find_ipv4_mac(const char* caller, const uint8_t* addr16, const char* v6text, char* mac) {
    char v4text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, addr16 + 12, v4text, sizeof v4text);
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    if (inet_aton(v4text, &sin.sin_addr) == 0) {
        const hostent* host = gethostbyname(v4text);
        if (host == nullptr || host->h_addrtype != AF_INET || host->h_addr_list[0] == nullptr) {
            std::fprintf(stderr, "arp: %s ", v4text);
            herror(nullptr);
            return -1;
        }
        std::memcpy(&sin.sin_addr, host->h_addr_list[0], sizeof sin.sin_addr);
    }
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        std::perror("socket() failed.");
        return -1;
    }
    arpreq req{};
    std::memcpy(&req.arp_pa, &sin, sizeof sin);
    std::memcpy(req.arp_dev, kLanBridge, sizeof kLanBridge);
    if (ioctl(fd, SIOCGARP, &req) < 0) {
        // ENXIO: no entry for this address, the usual case of an unknown client.
        if (errno != ENXIO) std::perror("SIOCGARP");
        close(fd);
        return -1;
    }
    close(fd);
    if ((req.arp_flags & ATF_COM) == 0) return -1; // still being resolved
    const auto* hw = reinterpret_cast<const unsigned char*>(req.arp_ha.sa_data);
    std::snprintf(mac, DPEDNS_MAC_TEXT_SIZE, "%02X:%02X:%02X:%02X:%02X:%02X", hw[0], hw[1], hw[2],
                  hw[3], hw[4], hw[5]);
    DPMAIN_TRACE_AS(caller, DP_PKT, "%s (%s) at %s\r\n", v6text, v4text, mac);
    return 0;
}

template <class T>
T load(std::span<const uint8_t> bytes, size_t at) {
    T v;
    std::memcpy(&v, bytes.data() + at, sizeof v);
    return v;
}

// One IPv6 neighbour message, as far as the listing and the copy of the table need it.
struct neigh_msg {
    uint8_t flags;
    int32_t ifindex;
    const uint8_t* dst; // 16 bytes, or null when the message has none
    bool listed;        // "ip -6 neigh show" lists it with a 6-byte link-layer address
    std::span<const uint8_t> lladdr;
};

// Reads one message (header included, its length checked): false when it is not of an IPv6
// neighbour or an attribute runs past its end. The listing hides entries whose state is none or
// NOARP alone, unless learned externally or a proxy entry, and prints n link-layer bytes as
// 3n - 1 characters with n - 1 colons, so 6 bytes are the only length whose text is accepted.
bool parse_neigh(std::span<const uint8_t> msg, neigh_msg* out) {
    if (msg.size() < NLMSG_LENGTH(sizeof(ndmsg))) return false;
    const auto ndm = load<ndmsg>(msg, NLMSG_HDRLEN);
    if (ndm.ndm_family != AF_INET6) return false;
    *out = {ndm.ndm_flags, ndm.ndm_ifindex, nullptr, false, {}};
    for (size_t at = NLMSG_SPACE(sizeof(ndmsg)); at + sizeof(rtattr) <= msg.size();) {
        const auto rta = load<rtattr>(msg, at);
        if (rta.rta_len < sizeof(rtattr) || rta.rta_len > msg.size() - at) return false;
        const auto value = msg.subspan(at + RTA_LENGTH(0), rta.rta_len - RTA_LENGTH(0));
        if (rta.rta_type == NDA_DST) out->dst = value.size() == 16 ? value.data() : nullptr;
        if (rta.rta_type == NDA_LLADDR) out->lladdr = value;
        at += RTA_ALIGN(rta.rta_len);
    }
    const bool shown = (ndm.ndm_state & 0xFF & ~NUD_NOARP) != 0 ||
                       (ndm.ndm_flags & (NTF_PROXY | NTF_EXT_LEARNED)) != 0;
    out->listed = shown && out->lladdr.size() == 6;
    return true;
}

void format_mac(std::span<const uint8_t> lladdr, char* mac) {
    constexpr char kHex[] = "0123456789abcdef";
    for (size_t i = 0; i < 6; ++i) {
        mac[3 * i] = kHex[lladdr[i] >> 4];
        mac[3 * i + 1] = kHex[lladdr[i] & 0xF];
        mac[3 * i + 2] = i < 5 ? ':' : '\0';
    }
}

// The next message of the datagram from *pos whose sequence number is seq (any, when seq is
// empty): 1 and the message, 0 at the datagram's end, -1 for a message running past it.
int next_msg(std::span<const uint8_t> dgram, size_t* pos, std::optional<uint32_t> seq,
             std::span<const uint8_t>* msg) {
    while (*pos < dgram.size()) {
        const auto rest = dgram.subspan(*pos);
        if (rest.size() < sizeof(nlmsghdr)) return -1;
        const auto hdr = load<nlmsghdr>(rest, 0);
        if (hdr.nlmsg_len < sizeof(nlmsghdr) || hdr.nlmsg_len > rest.size()) return -1;
        *pos += std::min<size_t>(NLMSG_ALIGN(hdr.nlmsg_len), rest.size());
        if (seq && hdr.nlmsg_seq != *seq) continue; // left over from an earlier request
        *msg = rest.first(hdr.nlmsg_len);
        return 1;
    }
    return 0;
}

// ---- the copy's table: linear probing from a hash of the address alone, so that every entry of
// one address lies on one run of occupied slots.

constexpr size_t kSlotMask = DPEDNS_NEIGH_CACHE_SLOTS - 1;
static_assert((DPEDNS_NEIGH_CACHE_SLOTS & kSlotMask) == 0, "a power of two");

uint64_t mix64(uint64_t z) {
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
}

size_t home_slot(const dpedns_neigh_cache* c, const uint8_t* addr) {
    uint64_t hi, lo;
    std::memcpy(&hi, addr, 8);
    std::memcpy(&lo, addr + 8, 8);
    return mix64(mix64(hi ^ c->seed) ^ lo) & kSlotMask;
}

bool same_entry(const dpedns_neigh_slot& s, const uint8_t* addr, int32_t ifindex) {
    return s.ifindex == ifindex && std::memcmp(s.addr, addr, 16) == 0;
}

void cache_put(dpedns_neigh_cache* c, const uint8_t* addr, int32_t ifindex,
               std::span<const uint8_t> lladdr) {
    for (size_t i = home_slot(c, addr);; i = (i + 1) & kSlotMask) {
        auto& s = c->slots[i];
        if (s.ifindex == 0) {
            if (c->count == DPEDNS_NEIGH_CACHE_MAX) {
                c->overflow = true;
                return;
            }
            std::memcpy(s.addr, addr, 16);
            s.ifindex = ifindex;
            ++c->count;
        }
        if (same_entry(s, addr, ifindex)) {
            format_mac(lladdr, s.mac);
            return;
        }
    }
}

// Frees the entry's slot and moves later entries of its run back, so that no run has a gap.
void cache_remove(dpedns_neigh_cache* c, const uint8_t* addr, int32_t ifindex) {
    size_t i = home_slot(c, addr);
    for (; !same_entry(c->slots[i], addr, ifindex); i = (i + 1) & kSlotMask) {
        if (c->slots[i].ifindex == 0) return;
    }
    for (size_t j = (i + 1) & kSlotMask; c->slots[j].ifindex != 0; j = (j + 1) & kSlotMask) {
        // The entry in j may fill i when its home slot does not lie after i in the run.
        const size_t home = home_slot(c, c->slots[j].addr);
        if (((j - home) & kSlotMask) >= ((j - i) & kSlotMask)) {
            c->slots[i] = c->slots[j];
            i = j;
        }
    }
    c->slots[i].ifindex = 0;
    --c->count;
}

// The kernel's neighbour table, dumped over a netlink socket that stays open between queries.
// The kernel writes each part of a dump while it is being asked (the first in the request's
// send, the next in the read of the one before), so the answer is there at once; the socket is
// non-blocking and a short deadline bounds the wait should it ever not be. After anything
// unexpected the socket is closed, so that no half-read dump is left for the next query.
constexpr auto kNeighDumpBudget = std::chrono::milliseconds(50);

int neigh_fd = -1;
uint32_t neigh_seq = 0;
// Large enough for any part of a dump: the kernel sizes the parts by the reader's buffer. The
// notifications are read into it too.
alignas(nlmsghdr) uint8_t neigh_buf[16384];

void close_neigh_socket() {
    if (neigh_fd >= 0) close(neigh_fd);
    neigh_fd = -1;
}

bool request_neigh_dump(uint32_t seq) {
    if (neigh_fd < 0)
        neigh_fd = socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (neigh_fd < 0) return false;
    struct {
        nlmsghdr hdr;
        ndmsg ndm;
    } req{};
    req.hdr.nlmsg_len = NLMSG_LENGTH(sizeof req.ndm);
    req.hdr.nlmsg_type = RTM_GETNEIGH;
    req.hdr.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    req.hdr.nlmsg_seq = seq;
    req.ndm.ndm_family = AF_INET6;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    const auto sent = sendto(neigh_fd, &req, req.hdr.nlmsg_len, 0,
                             reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel);
    if (sent == static_cast<ssize_t>(req.hdr.nlmsg_len)) return true;
    close_neigh_socket();
    return false;
}

// One datagram from the kernel on fd into neigh_buf: its length; 0 when the socket has nothing
// queued; -1 a read error (errno; EMSGSIZE for a datagram cut short). Datagrams from anyone else
// are dropped.
ssize_t recv_kernel_dgram(int fd) {
    for (;;) {
        sockaddr_nl from{};
        iovec iov{neigh_buf, sizeof neigh_buf};
        msghdr mh{};
        mh.msg_name = &from;
        mh.msg_namelen = sizeof from;
        mh.msg_iov = &iov;
        mh.msg_iovlen = 1;
        const ssize_t n = recvmsg(fd, &mh, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == EAGAIN) return 0;
        if (n < 0) return -1;
        if (n == 0 || (mh.msg_flags & MSG_TRUNC) != 0) {
            errno = EMSGSIZE;
            return -1;
        }
        if (mh.msg_namelen == sizeof from && from.nl_pid == 0) return n;
    }
}

// The next datagram of the dump into neigh_buf: its length, or -1 (the deadline passed, a read
// error, a datagram cut short).
ssize_t read_neigh_dgram(std::chrono::steady_clock::time_point deadline) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return -1;
        const ssize_t n = recv_kernel_dgram(neigh_fd);
        if (n != 0) return n;
        pollfd pfd{neigh_fd, POLLIN, 0};
        poll(&pfd, 1, static_cast<int>(left.count()));
    }
}

// ---- the copy of the table, kept current by the kernel's notifications -----------------------
//
// neigh_cache_ready is set when a dump filled the copy with the notification socket subscribed
// before it, so that every change since the dump is queued there; it is cleared when
// notifications were lost (ENOBUFS), the socket broke or the copy overflowed. Until a dump fills
// the copy again, each look-up asks the kernel as before.

// Room for bursts of notifications (a flushed interface) while the loop is busy; root may raise
// it above the system's default limit.
constexpr int kNotifyRcvBuf = 512 * 1024;
// Per wake-up of the loop, like the DNS sockets; and what is read and dropped before a fill.
constexpr int kNotifyPerWakeUp = 256;
constexpr int kNotifyDrainMax = 4096;

dpedns_neigh_cache neigh_cache;
bool neigh_cache_ready = false;
int notify_fd = -1;

void close_notify_socket() {
    if (notify_fd < 0) return;
    ombusUnregisterPollingSocket(notify_fd);
    close(notify_fd);
    notify_fd = -1;
    neigh_cache_ready = false;
}

enum class notify_read { drained, more, broken };

// Reads up to max datagrams of notifications, applied to the copy or dropped.
notify_read read_notifications(int max, bool apply) {
    for (int i = 0; i < max; ++i) {
        const ssize_t n = recv_kernel_dgram(notify_fd);
        if (n == 0) return notify_read::drained;
        if (n < 0 && (errno == ENOBUFS || errno == EMSGSIZE)) {
            neigh_cache_ready = false; // notifications were lost: the copy is out of date
            continue;
        }
        if (n < 0) {
            close_notify_socket();
            return notify_read::broken;
        }
        const std::span<const uint8_t> dgram{neigh_buf, static_cast<size_t>(n)};
        if (apply && dpedns_neigh_cache_apply(&neigh_cache, dgram, std::nullopt) < 0)
            neigh_cache_ready = false;
    }
    return notify_read::more;
}

int on_neigh_notification(pollfd*) {
    read_notifications(kNotifyPerWakeUp, true);
    return 0;
}

bool open_notify_socket() {
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (fd < 0) return false;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kNotifyRcvBuf, sizeof kNotifyRcvBuf);
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups = RTMGRP_NEIGH;
    if (bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) < 0 ||
        ombusRegisterPollingSocket(fd, on_neigh_notification, 0, 0) != OMBUS_OK) {
        close(fd);
        return false;
    }
    notify_fd = fd;
    return true;
}

// Readies the copy for a fill from the next dump: subscribed, with what was queued before the
// dump dropped (the dump supersedes it) and an empty table. false when it cannot be done.
bool start_neigh_fill() {
    if (notify_fd < 0 && !open_notify_socket()) return false;
    if (read_notifications(kNotifyDrainMax, false) != notify_read::drained) return false;
    uint64_t seed = 0;
    if (getrandom(&seed, sizeof seed, GRND_NONBLOCK) != sizeof seed)
        seed = static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    dpedns_neigh_cache_clear(&neigh_cache, seed);
    return true;
}

// Every entry of the address in the order of the dump, which is the order of the listing; the
// last one wins. With fill, the dump fills the copy too.
int dump_ipv6_mac(const char* caller, const uint8_t* addr16, const char* v6text, char* mac,
                  bool fill) {
    const uint32_t seq = ++neigh_seq;
    if (!request_neigh_dump(seq)) {
        DPMAIN_TRACE_AS(caller, DP_PKT, "Could not open pipe for Ipv6 Parsing.\n");
        return -1;
    }
    const auto deadline = std::chrono::steady_clock::now() + kNeighDumpBudget;
    int ret = -1;
    for (ssize_t n; (n = read_neigh_dgram(deadline)) > 0;) {
        const std::span<const uint8_t> dgram{neigh_buf, static_cast<size_t>(n)};
        if (fill && dpedns_neigh_cache_apply(&neigh_cache, dgram, seq) < 0) fill = false;
        size_t pos = 0;
        int r;
        while ((r = dpedns_neigh_next(dgram, &pos, seq, addr16, mac)) == DPEDNS_NEIGH_MATCH) {
            DPMAIN_TRACE_AS(caller, DP_PKT, "MAC address Validation passed\n");
            DPMAIN_TRACE_AS(caller, DP_PKT, "MAC address of ipv6 %s is MAC[%s]", v6text, mac);
            ret = 0;
        }
        if (r == DPEDNS_NEIGH_DONE) {
            neigh_cache_ready = fill && notify_fd >= 0 && !neigh_cache.overflow;
            return ret;
        }
        if (r < 0) break;
    }
    close_neigh_socket();
    return ret;
}

// From the copy when it can answer: no system call, whatever the size of the table.
int find_ipv6_mac(const char* caller, const uint8_t* addr16, const char* v6text, char* mac) {
    if (!neigh_cache_ready || neigh_cache.overflow)
        return dump_ipv6_mac(caller, addr16, v6text, mac, start_neigh_fill());
    const int r = dpedns_neigh_cache_find(&neigh_cache, addr16, mac);
    if (r == DPEDNS_NEIGH_UNSURE) return dump_ipv6_mac(caller, addr16, v6text, mac, false);
    if (r < 0) return -1;
    DPMAIN_TRACE_AS(caller, DP_PKT, "MAC address Validation passed\n");
    DPMAIN_TRACE_AS(caller, DP_PKT, "MAC address of ipv6 %s is MAC[%s]", v6text, mac);
    return 0;
}

} // namespace

int dpedns_find_mac(const dp_peer_addr* client, char* mac) {
    char v6text[INET6_ADDRSTRLEN] = "";
    inet_ntop(AF_INET6, client->addr, v6text, sizeof v6text);
    switch (client->kind) {
    case DPIO_PEER_IPV4:
        return find_ipv4_mac(__func__, client->addr, v6text, mac);
    case DPIO_PEER_IPV6:
        return find_ipv6_mac(__func__, client->addr, v6text, mac);
    default:
        return 0;
    }
}

int dpedns_neigh_next(std::span<const uint8_t> dgram, size_t* pos, uint32_t seq,
                      const uint8_t* addr, char* mac) {
    std::span<const uint8_t> msg;
    for (int r; (r = next_msg(dgram, pos, seq, &msg)) != 0;) {
        if (r < 0) return -1;
        const auto type = load<nlmsghdr>(msg, 0).nlmsg_type;
        if (type == NLMSG_DONE) return DPEDNS_NEIGH_DONE;
        if (type == NLMSG_ERROR) return -1;
        neigh_msg n;
        if (type == RTM_NEWNEIGH && parse_neigh(msg, &n) && n.listed && n.dst != nullptr &&
            std::memcmp(n.dst, addr, 16) == 0) {
            format_mac(n.lladdr, mac);
            return DPEDNS_NEIGH_MATCH;
        }
    }
    return DPEDNS_NEIGH_MORE;
}

void dpedns_neigh_cache_clear(dpedns_neigh_cache* cache, uint64_t seed) {
    std::memset(cache, 0, sizeof *cache);
    cache->seed = seed;
}

int dpedns_neigh_cache_apply(dpedns_neigh_cache* cache, std::span<const uint8_t> dgram,
                             std::optional<uint32_t> seq) {
    size_t pos = 0;
    std::span<const uint8_t> msg;
    for (int r; (r = next_msg(dgram, &pos, seq, &msg)) != 0;) {
        if (r < 0) return -1;
        const auto type = load<nlmsghdr>(msg, 0).nlmsg_type;
        if (type == NLMSG_DONE) return DPEDNS_NEIGH_DONE;
        if (type == NLMSG_ERROR) return -1;
        neigh_msg n;
        if ((type != RTM_NEWNEIGH && type != RTM_DELNEIGH) || !parse_neigh(msg, &n) ||
            n.dst == nullptr || (n.flags & NTF_PROXY) != 0 || n.ifindex == 0) {
            continue;
        }
        if (type == RTM_NEWNEIGH && n.listed)
            cache_put(cache, n.dst, n.ifindex, n.lladdr);
        else
            cache_remove(cache, n.dst, n.ifindex);
    }
    return DPEDNS_NEIGH_MORE;
}

int dpedns_neigh_cache_find(const dpedns_neigh_cache* cache, const uint8_t* addr, char* mac) {
    if (cache->overflow) return DPEDNS_NEIGH_UNSURE;
    const dpedns_neigh_slot* hit = nullptr;
    for (size_t i = home_slot(cache, addr); cache->slots[i].ifindex != 0; i = (i + 1) & kSlotMask) {
        if (std::memcmp(cache->slots[i].addr, addr, 16) != 0) continue;
        if (hit != nullptr) return DPEDNS_NEIGH_UNSURE;
        hit = &cache->slots[i];
    }
    if (hit == nullptr) return -1;
    std::memcpy(mac, hit->mac, DPEDNS_MAC_TEXT_SIZE);
    return 0;
}
