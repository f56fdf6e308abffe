// The client's MAC address for the 0xFE31 option: the kernel's ARP table on the LAN bridge for
// IPv4 clients, the neighbour table for IPv6 clients.
#include <arpa/inet.h>
#include <net/if_arp.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "ctrl/dp_trace.h"
#include "edns/dpedns.h"
#include "main/dputl.h"

namespace {

constexpr char kLanBridge[] = "br0";

// A link-layer address as the neighbour table prints an Ethernet one: 17 characters, 5 colons.
bool is_mac_text(const char* text) {
    const size_t n = strnlen(text, DPEDNS_MAC_TEXT_SIZE);
    size_t colons = 0;
    for (size_t i = 0; i < n; ++i)
        colons += text[i] == ':' ? 1 : 0;
    return n == DPEDNS_MAC_TEXT_LEN && colons == 5;
}

int find_ipv4_mac(const uint8_t* addr16, const char* v6text, char* mac) {
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
    DPMAIN_TRACE(DP_PKT, "%s (%s) at %s\r\n", v6text, v4text, mac);
    return 0;
}

// The neighbour table through the "ip" tool, whose text form of the link-layer address is the
// one carried in the option. The address text comes from inet_ntop, so it is safe in a shell.
int find_ipv6_mac(const char* v6text, char* mac) {
    char cmd[128];
    std::snprintf(cmd, sizeof cmd, "ip -6 n s | grep %s", v6text);
    FILE* pipe = popen(cmd, "r");
    if (pipe == nullptr) {
        DPMAIN_TRACE(DP_PKT, "Could not open pipe for Ipv6 Parsing.\n");
        return -1;
    }
    int ret = -1;
    char line[256];
    while (std::fgets(line, sizeof line, pipe) != nullptr) {
        // "<address> dev <name> lladdr <link-layer address> <state>"
        char* fields[5];
        if (dputl_split_line(line, " ", 5, fields) != 1) continue;
        if (std::strcmp(fields[0], v6text) != 0 || !is_mac_text(fields[4])) continue;
        DPMAIN_TRACE(DP_PKT, "MAC address Validation passed\n");
        DPMAIN_TRACE(DP_PKT, "MAC address of ipv6 %s is MAC[%s]", v6text, fields[4]);
        std::memcpy(mac, fields[4], DPEDNS_MAC_TEXT_SIZE);
        ret = 0;
    }
    pclose(pipe);
    return ret;
}

} // namespace

int dpedns_find_mac(const dp_peer_addr* client, char* mac) {
    char v6text[INET6_ADDRSTRLEN] = "";
    inet_ntop(AF_INET6, client->addr, v6text, sizeof v6text);
    switch (client->kind) {
    case DPIO_PEER_IPV4:
        return find_ipv4_mac(client->addr, v6text, mac);
    case DPIO_PEER_IPV6:
        return find_ipv6_mac(v6text, mac);
    default:
        return 0;
    }
}
