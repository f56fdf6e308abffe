#include "ctrl/dp_stats.h"

#include <cstdio>

dp_statistics dp_stats;

namespace {
constexpr const char* kEqRule = "===========================================================";

void print_counter(const char* label, uint32_t value) {
    std::fprintf(stderr, label, static_cast<unsigned long>(value));
}
} // namespace

// Print order differs from storage order: length drops first, then the socket errors.
int dp_view_statistic() {
    std::fprintf(stderr, "\nDNS statistic\n%s\n", kEqRule);
    print_counter("packet len too short  : %lu\n", dp_stats.packet_len_too_short);
    print_counter("packet len too long   : %lu\n", dp_stats.packet_len_too_long);
    print_counter("recv packet error     : %lu\n", dp_stats.recv_packet_error);
    print_counter("send packet error     : %lu\n", dp_stats.send_packet_error);
    print_counter("client packet recv    : %lu\n", dp_stats.client_packet_recv);
    print_counter("server packet recv    : %lu\n", dp_stats.server_packet_recv);
    print_counter("max pcb list reach    : %lu\n", dp_stats.max_pcb_list_reach);
    print_counter("query format error    : %lu\n", dp_stats.query_format_error);
    print_counter("response format error : %lu\n", dp_stats.response_format_error);
    std::fprintf(stderr, "%s\n", kEqRule);
    return 0;
}
