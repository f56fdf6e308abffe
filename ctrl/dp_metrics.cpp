// Counting: fixed tables, a few increments per query, one clock read per forwarded query and one
// per answer.
#include "ctrl/dp_metrics.h"

#include <cstring>
#include <ctime>

#include "ctrl/dp_metrics_internal.h"
#include "server/dpsvr.h"

dp_metrics_counters dp_metrics;

namespace {

dpm_set sets[DPSVR_SET_COUNT];
dp_metrics_query* recording = nullptr; // the query being sent, between begin and end

uint32_t now_ms() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint32_t>(static_cast<uint64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000);
}

int index_of(const servset* set) {
    if (set == nullptr) return -1;
    for (uint32_t i = 0; i < DPSVR_SET_COUNT; ++i) {
        if (dpsvr_get_server_set(i) == set) return static_cast<int>(i);
    }
    return -1;
}

void track(dpm_state& t, uint8_t state) {
    if (t.state == state) return;
    if (t.state != DPM_NONE && state != DPM_NONE) t.changes++;
    t.state = state;
    t.since = static_cast<int64_t>(std::time(nullptr));
}

uint8_t server_state(const servset& s, const dpm_server& row, uint32_t i) {
    if (row.down) return DPM_DOWN;
    switch (s.policy) {
    case 1:
        return i == s.activeIdx ? DPM_ACTIVE : DPM_BACKUP;
    case 2:
        return i == 0 ? DPM_ACTIVE : DPM_BACKUP;
    default:
        return DPM_ACTIVE;
    }
}

void evaluate(uint32_t index) {
    const servset& s = *dpsvr_get_server_set(index);
    dpm_set& r = sets[index];
    uint32_t down = 0;
    for (uint32_t i = 0; i < r.num; ++i) {
        track(r.servers[i].st, server_state(s, r.servers[i], i));
        if (r.servers[i].down) down++;
    }
    uint8_t state = DPM_NONE;
    if (r.num != 0)
        state = down == r.num                         ? DPM_DOWN
                : r.servers[0].st.state == DPM_ACTIVE ? DPM_ACTIVE
                                                      : DPM_BACKUP;
    track(r.st, state);
}

// Rebuilds the rows when the set's servers are no longer those they count for.
void sync(uint32_t index) {
    const servset& s = *dpsvr_get_server_set(index);
    dpm_set& r = sets[index];
    bool same = r.num == s.num;
    for (uint32_t i = 0; same && i < s.num; ++i)
        same = std::memcmp(r.servers[i].addr, s.servers[i].addr, 16) == 0;
    if (same) return;
    static dpm_server old[DPSVR_MAX_SERVERS];
    std::memcpy(old, r.servers, sizeof old);
    const uint32_t old_num = r.num;
    std::memset(r.servers, 0, sizeof r.servers);
    for (uint32_t i = 0; i < s.num; ++i) {
        dpm_server& row = r.servers[i];
        std::memcpy(row.addr, s.servers[i].addr, 16);
        for (uint32_t j = 0; j < old_num; ++j) {
            if (std::memcmp(old[j].addr, row.addr, 16) == 0) row = old[j];
        }
    }
    r.num = s.num;
    r.gen++;
    evaluate(index);
}

void mark_down(uint32_t index, dpm_server& row, bool down) {
    if (row.down == down) return;
    row.down = down;
    evaluate(index);
}

} // namespace

int dp_metrics_rtt_bucket(uint32_t ms) {
    int i = 0;
    while (i < DP_RTT_BOUNDS && ms > dp_rtt_bounds_ms[i])
        ++i;
    return i;
}

void dp_metrics_begin_query(dp_metrics_query* q) {
    *q = dp_metrics_query{now_ms(), 0, 0, 0, DP_METRICS_NO_SET};
    recording = q;
}

void dp_metrics_end_query() {
    if (recording != nullptr && recording->sent != 0) sets[recording->set].queries++;
    recording = nullptr;
}

void dp_metrics_use_set(const servset* set) {
    if (recording == nullptr) return;
    const int index = index_of(set);
    recording->set = DP_METRICS_NO_SET;
    recording->sent = 0;
    if (index < 0) return;
    sync(static_cast<uint32_t>(index));
    recording->set = static_cast<uint8_t>(index);
    recording->gen = sets[index].gen;
}

void dp_metrics_sent(uint32_t server_index) {
    if (recording == nullptr || recording->set == DP_METRICS_NO_SET ||
        server_index >= sets[recording->set].num) {
        return;
    }
    sets[recording->set].servers[server_index].queries++;
    recording->sent |= 1u << server_index;
}

void dp_metrics_answer(dp_metrics_query* q, const uint8_t* from, int rcode) {
    if (q->set >= DPSVR_SET_COUNT) return;
    sync(q->set);
    dpm_set& r = sets[q->set];
    uint32_t i = 0;
    while (i < r.num && std::memcmp(r.servers[i].addr, from, 16) != 0)
        ++i;
    if (i == r.num) return; // not a server of the set
    dpm_server& row = r.servers[i];
    row.rcodes[rcode >= 0 && rcode < DPM_RCODES - 1 ? rcode : DPM_RCODES - 1]++;
    const uint32_t ms = now_ms() - q->sent_ms;
    row.rtt[dp_metrics_rtt_bucket(ms)]++;
    row.rtt_sum_ms += ms;
    if (q->gen == r.gen) q->answered |= 1u << i;
    mark_down(q->set, row, false);
}

void dp_metrics_expired(const dp_metrics_query* q) {
    if (q->set >= DPSVR_SET_COUNT || q->sent == 0) return;
    sync(q->set);
    dpm_set& r = sets[q->set];
    if (q->answered == 0) r.timeouts++;
    if (q->gen != r.gen) return; // the servers changed meanwhile: the bits name others now
    const uint32_t silent = q->sent & ~q->answered;
    for (uint32_t i = 0; i < r.num; ++i) {
        if (((silent >> i) & 1) == 0) continue;
        r.servers[i].timeouts++;
        mark_down(q->set, r.servers[i], true);
    }
}

void dp_metrics_probe_sent(const servset* set, dp_probe_kind kind, uint32_t server_index) {
    const int index = index_of(set);
    if (index < 0) return;
    sync(static_cast<uint32_t>(index));
    dpm_set& r = sets[index];
    if (server_index >= r.num) return;
    r.servers[server_index].probes_sent++;
    r.probe_idx[kind] = static_cast<uint8_t>(server_index);
    r.probe_gen[kind] = r.gen;
    r.probe_out[kind] = true;
}

void dp_metrics_probe_result(const servset* set, dp_probe_kind kind, bool answered) {
    const int index = index_of(set);
    if (index < 0) return;
    sync(static_cast<uint32_t>(index));
    dpm_set& r = sets[index];
    const bool counts = r.probe_out[kind] && r.probe_gen[kind] == r.gen;
    r.probe_out[kind] = false;
    if (!counts) return;
    dpm_server& row = r.servers[r.probe_idx[kind]];
    (answered ? row.probes_answered : row.probes_timeout)++;
    mark_down(static_cast<uint32_t>(index), row, !answered);
}

void dp_metrics_set_changed(const servset* set) {
    const int index = index_of(set);
    if (index < 0) return;
    sync(static_cast<uint32_t>(index));
    evaluate(static_cast<uint32_t>(index));
}

const dpm_set& dpm_refreshed_set(uint32_t index) {
    if (dpsvr_get_server_set(index) != nullptr) {
        sync(index);
        evaluate(index);
    }
    return sets[index];
}
