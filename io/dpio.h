// Packet I/O: the UDP sockets towards clients and servers, and the module message channel.
#pragma once

#include <netinet/in.h>

#include <cstdint>

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

// ---- module message channel -------------------------------------------------------------------

// Binds the daemon's module channel (id 44). 0, or -1 when the channel cannot be opened.
int dpio_init_module_interface();
// The channel's descriptor, or -1 before a successful init.
int dpio_get_module_fd();
