// Test tool: looks up clients' MAC addresses the way the proxy does before it inserts the 0xFE31
// option, for the system tests that fill the ARP and neighbour tables of the lab's gateway.
//
//     find_mac <IPv4 or IPv6 address>...
//
// Prints "ret=<result> mac=<text>" on standard output for each address, in one process: the
// first IPv6 look-up fills the copy of the neighbour table, the later ones are answered from it.
// The proxy's pkt and detail trace lines go to standard error.
#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include "ctrl/dp_trace.h"
#include "edns/dpedns.h"

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: find_mac <address>...\n");
        return 2;
    }
    dp_debug_tbl.timestamp = 0;
    dp_debug_tbl.modules[DP_MOD_PROXY].level_mask = DP_PKT | DP_DETAIL;
    for (int i = 1; i < argc; ++i) {
        dp_peer_addr client{};
        in_addr v4{};
        if (inet_pton(AF_INET, argv[i], &v4) == 1) {
            client.kind = DPIO_PEER_IPV4;
            client.addr[10] = client.addr[11] = 0xFF;
            std::memcpy(client.addr + 12, &v4, sizeof v4);
        } else if (inet_pton(AF_INET6, argv[i], client.addr) == 1) {
            client.kind = DPIO_PEER_IPV6;
        } else {
            std::fprintf(stderr, "find_mac: not an address: %s\n", argv[i]);
            return 2;
        }
        char mac[DPEDNS_MAC_TEXT_SIZE] = {};
        const int ret = dpedns_find_mac(&client, mac);
        std::printf("ret=%d mac=%s\n", ret, mac);
    }
    return 0;
}
