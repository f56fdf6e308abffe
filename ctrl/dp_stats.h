// The nine packet counters shown by "view statistic". Plain words incremented in place by the
// modules that see the event; zeroed once at start-up and left to wrap.
#pragma once

#include <cstdint>

struct dp_statistics {
    uint32_t recv_packet_error;
    uint32_t send_packet_error;
    uint32_t packet_len_too_short;
    uint32_t packet_len_too_long;
    uint32_t client_packet_recv;
    uint32_t server_packet_recv;
    uint32_t max_pcb_list_reach;
    uint32_t query_format_error;
    uint32_t response_format_error;
};

extern dp_statistics dp_stats;

// Prints the statistics view on standard error.
int dp_view_statistic();
