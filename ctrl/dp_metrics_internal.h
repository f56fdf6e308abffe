// Shared between the counting and the output of the metrics; not for other modules.
#pragma once

#include <cstdint>

#include "ctrl/dp_metrics.h"
#include "server/dpsvr.h"

enum dp_metrics_state : uint8_t { DPM_NONE, DPM_ACTIVE, DPM_BACKUP, DPM_DOWN };

// NOERROR .. REFUSED by their code, then every other rcode.
inline constexpr int DPM_RCODES = 7;

struct dpm_state {
    uint8_t state;
    uint32_t changes; // from one state to another; a server's or set's first state is none
    int64_t since;    // wall-clock seconds of the last change, or of the first state
};

struct dpm_server {
    uint8_t addr[16];
    uint32_t queries;
    uint32_t timeouts;
    uint32_t rcodes[DPM_RCODES];
    uint32_t probes_sent;
    uint32_t probes_answered;
    uint32_t probes_timeout;
    uint32_t rtt[DP_RTT_BOUNDS + 1];
    uint64_t rtt_sum_ms;
    bool down;
    dpm_state st;
};

// The rows of a set follow its servers by address: a server that stays keeps its counts when a
// reload moves it, a new one starts from zero, a removed one is forgotten.
struct dpm_set {
    uint8_t num;
    uint16_t gen; // changes whenever the rows are rebuilt: indices held elsewhere are then stale
    uint32_t queries;
    uint32_t timeouts;
    uint8_t probe_idx[2];
    uint16_t probe_gen[2];
    bool probe_out[2];
    dpm_state st;
    dpm_server servers[DPSVR_MAX_SERVERS];
};

// A set's rows, brought up to date with its servers and their states.
const dpm_set& dpm_refreshed_set(uint32_t index);
