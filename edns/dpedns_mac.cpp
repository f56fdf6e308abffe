// The client's MAC address for the 0xFE31 option: the kernel's ARP table on the LAN bridge for
// IPv4 clients, the kernel's neighbour table (over netlink) for IPv6 clients.
#include <arpa/inet.h>
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if_arp.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "ctrl/dp_trace.h"
#include "edns/dpedns.h"

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

// Whether one RTM_NEWNEIGH message (header included, its length checked) is an entry for addr
// that "ip -6 neigh show" lists: not when its state is none or NOARP alone, unless the entry
// was learned externally or is a proxy entry. The listing prints n link-layer bytes as 3n - 1
// characters with n - 1 colons, so 6 bytes are the only length whose text is accepted.
bool neigh_entry_mac(std::span<const uint8_t> msg, const uint8_t* addr, char* mac) {
    if (msg.size() < NLMSG_LENGTH(sizeof(ndmsg))) return false;
    const auto ndm = load<ndmsg>(msg, NLMSG_HDRLEN);
    if (ndm.ndm_family != AF_INET6) return false;
    if ((ndm.ndm_state & 0xFF & ~NUD_NOARP) == 0 &&
        (ndm.ndm_flags & (NTF_PROXY | NTF_EXT_LEARNED)) == 0) {
        return false;
    }
    bool is_addr = false;
    std::span<const uint8_t> lladdr;
    for (size_t at = NLMSG_SPACE(sizeof(ndmsg)); at + sizeof(rtattr) <= msg.size();) {
        const auto rta = load<rtattr>(msg, at);
        if (rta.rta_len < sizeof(rtattr) || rta.rta_len > msg.size() - at) return false;
        const auto value = msg.subspan(at + RTA_LENGTH(0), rta.rta_len - RTA_LENGTH(0));
        if (rta.rta_type == NDA_DST)
            is_addr = value.size() == 16 && std::memcmp(value.data(), addr, 16) == 0;
        if (rta.rta_type == NDA_LLADDR) lladdr = value;
        at += RTA_ALIGN(rta.rta_len);
    }
    if (!is_addr || lladdr.size() != 6) return false;
    constexpr char kHex[] = "0123456789abcdef";
    for (size_t i = 0; i < 6; ++i) {
        mac[3 * i] = kHex[lladdr[i] >> 4];
        mac[3 * i + 1] = kHex[lladdr[i] & 0xF];
        mac[3 * i + 2] = i < 5 ? ':' : '\0';
    }
    return true;
}

// The kernel's neighbour table, dumped over a netlink socket that stays open between queries.
// The kernel writes each part of a dump while it is being asked (the first in the request's
// send, the next in the read of the one before), so the answer is there at once; the socket is
// non-blocking and a short deadline bounds the wait should it ever not be. After anything
// unexpected the socket is closed, so that no half-read dump is left for the next query.
constexpr auto kNeighDumpBudget = std::chrono::milliseconds(50);

int neigh_fd = -1;
uint32_t neigh_seq = 0;
// Large enough for any part of a dump: the kernel sizes the parts by the reader's buffer.
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

// The next datagram from the kernel into neigh_buf: its length, or -1 (the deadline passed, a
// read error, a datagram cut short). Datagrams from anyone else are dropped.
ssize_t read_neigh_dgram(std::chrono::steady_clock::time_point deadline) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return -1;
        sockaddr_nl from{};
        iovec iov{neigh_buf, sizeof neigh_buf};
        msghdr mh{};
        mh.msg_name = &from;
        mh.msg_namelen = sizeof from;
        mh.msg_iov = &iov;
        mh.msg_iovlen = 1;
        const ssize_t n = recvmsg(neigh_fd, &mh, 0);
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            pollfd pfd{neigh_fd, POLLIN, 0};
            poll(&pfd, 1, static_cast<int>(left.count()));
            continue;
        }
        if (n <= 0 || (mh.msg_flags & MSG_TRUNC) != 0) return -1;
        if (mh.msg_namelen == sizeof from && from.nl_pid == 0) return n;
    }
}

// Every entry of the address in the order of the dump, which is the order of the listing; the
// last one wins.
int find_ipv6_mac(const char* caller, const uint8_t* addr16, const char* v6text, char* mac) {
    const uint32_t seq = ++neigh_seq;
    if (!request_neigh_dump(seq)) {
        DPMAIN_TRACE_AS(caller, DP_PKT, "Could not open pipe for Ipv6 Parsing.\n");
        return -1;
    }
    const auto deadline = std::chrono::steady_clock::now() + kNeighDumpBudget;
    int ret = -1;
    for (ssize_t n; (n = read_neigh_dgram(deadline)) > 0;) {
        const std::span<const uint8_t> dgram{neigh_buf, static_cast<size_t>(n)};
        size_t pos = 0;
        int r;
        while ((r = dpedns_neigh_next(dgram, &pos, seq, addr16, mac)) == DPEDNS_NEIGH_MATCH) {
            DPMAIN_TRACE_AS(caller, DP_PKT, "MAC address Validation passed\n");
            DPMAIN_TRACE_AS(caller, DP_PKT, "MAC address of ipv6 %s is MAC[%s]", v6text, mac);
            ret = 0;
        }
        if (r == DPEDNS_NEIGH_DONE) return ret;
        if (r < 0) break;
    }
    close_neigh_socket();
    return ret;
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
    while (*pos < dgram.size()) {
        const auto rest = dgram.subspan(*pos);
        if (rest.size() < sizeof(nlmsghdr)) return -1;
        const auto hdr = load<nlmsghdr>(rest, 0);
        if (hdr.nlmsg_len < sizeof(nlmsghdr) || hdr.nlmsg_len > rest.size()) return -1;
        *pos += std::min<size_t>(NLMSG_ALIGN(hdr.nlmsg_len), rest.size());
        if (hdr.nlmsg_seq != seq) continue; // left over from an earlier request
        if (hdr.nlmsg_type == NLMSG_DONE) return DPEDNS_NEIGH_DONE;
        if (hdr.nlmsg_type == NLMSG_ERROR) return -1;
        if (hdr.nlmsg_type == RTM_NEWNEIGH && neigh_entry_mac(rest.first(hdr.nlmsg_len), addr, mac))
            return DPEDNS_NEIGH_MATCH;
    }
    return DPEDNS_NEIGH_MORE;
}
