// What each upstream does, and where the daemon's answers come from: counters per server set and
// per server of a set (queries, answers by rcode, time-outs, probe results, state and its changes,
// round-trip times), answers by source and drops by reason. Counting is a few increments in fixed
// tables, no allocation; "view metrics", the JSON method "dnsproxy.metrics" and the Prometheus
// file of MetricsFile show them.
//
// States. A server is down when the last query or probe it was sent went unanswered (a query
// whose pending entry expired before the server answered, a probe that timed out) and it has not
// answered since; otherwise it is active when it gets the set's queries (every server under
// policy 0, the active one under policy 1, the primary under policy 2) and backup when it waits.
// A set is down when all its servers are down, active when its first server is active, backup
// otherwise (it is served by a server other than its first). A set without servers has no state.
#pragma once

#include <cstdint>
#include <cstdio>

struct servset;

// ---- the daemon's own counters, incremented in place ------------------------------------------

// Who answered a query (each answer sent to a client, or to a module or the local resolver).
enum dp_answer_source : uint32_t {
    DP_ANS_FORCE_REGISTER,
    DP_ANS_LOCK_NET,
    DP_ANS_INTERCEPT,
    DP_ANS_D2A,
    DP_ANS_HOSTS,
    DP_ANS_DYN_CACHE,
    DP_ANS_D2D,           // a D2D rewrite answered from the local tables
    DP_ANS_WEBGUI_REFUSE, // AAAA of the web-GUI host name without a local entry
    DP_ANS_REDIRECT,
    DP_ANS_REJECT_PTR,
    DP_ANS_FORCE_URL,
    DP_ANS_SERVER_FAILURE,
    DP_ANS_FORMAT_ERROR,  // FORMERR to a query that does not parse or has a bad OPT record
    DP_ANS_UPSTREAM,      // an upstream answer relayed
    DP_ANS_UPSTREAM_HELD, // an empty upstream answer held and sent when the query expired
    DP_ANS_COUNT,
};

// Why a query or an answer went nowhere, beside the counters of "view statistic".
enum dp_drop_reason : uint32_t {
    DP_DROP_INVALID_QUERY,    // answer records or the QR bit in a query
    DP_DROP_BAD_EDNS,         // an OPT record refused without an answer
    DP_DROP_POLICY,           // a policy ended the query without an answer (other qtypes)
    DP_DROP_UNCLASSIFIED,     // the classification allows no server set
    DP_DROP_EXPIRED,          // expired with nothing to send
    DP_DROP_INVALID_RESPONSE, // no question or no QR bit
    DP_DROP_UNKNOWN_ANSWER,   // no pending query or probe: late (another server was first) or stray
    DP_DROP_COUNT,
};

struct dp_metrics_counters {
    uint32_t answers[DP_ANS_COUNT];
    uint32_t drops[DP_DROP_COUNT];
};

extern dp_metrics_counters dp_metrics;

// ---- one forwarded query, carried in its pcb ---------------------------------------------------

inline constexpr uint8_t DP_METRICS_NO_SET = 0xFF;

struct dp_metrics_query {
    uint32_t sent_ms;  // monotonic milliseconds when it was sent
    uint32_t sent;     // the servers of its set it went to, one bit per server index
    uint32_t answered; // those that answered
    uint16_t gen;      // the set's server list it was sent under
    uint8_t set;       // index of the set, DP_METRICS_NO_SET when it went to none
};

// The sends to servers between these two calls are the query's (probes are not).
void dp_metrics_begin_query(dp_metrics_query* q);
void dp_metrics_end_query();
// Called by the server module: the set a query goes to, then each server it was sent to.
void dp_metrics_use_set(const servset* set);
void dp_metrics_sent(uint32_t server_index);

// An answer with rcode from the server at address from (16 bytes) to the query.
void dp_metrics_answer(dp_metrics_query* q, const uint8_t* from, int rcode);
// The query expired: a time-out for every server it went to that did not answer.
void dp_metrics_expired(const dp_metrics_query* q);

// ---- probes and states -----------------------------------------------------------------------

enum dp_probe_kind : int { DP_PROBE_ACTIVE = 0, DP_PROBE_BACKUP = 1 };

void dp_metrics_probe_sent(const servset* set, dp_probe_kind kind, uint32_t server_index);
void dp_metrics_probe_result(const servset* set, dp_probe_kind kind, bool answered);
// The set's active server, policy or servers changed.
void dp_metrics_set_changed(const servset* set);

// ---- round-trip time histogram ---------------------------------------------------------------

inline constexpr int DP_RTT_BOUNDS = 12;
inline constexpr uint32_t dp_rtt_bounds_ms[DP_RTT_BOUNDS] = {1,   2,   5,   10,   20,   50,
                                                             100, 200, 500, 1000, 2000, 5000};
// The bucket of a round-trip time: the first bound not below ms, DP_RTT_BOUNDS beyond the last.
int dp_metrics_rtt_bucket(uint32_t ms);

// ---- output ----------------------------------------------------------------------------------

// "view metrics" on standard error.
int dp_metrics_view();
// The metrics as one compact JSON object into out: its length, or -1 when it does not fit.
int dp_metrics_json(char* out, uint32_t size);
// The Prometheus text exposition format.
void dp_metrics_prometheus(std::FILE* f);
// Once a tick: every DP_METRICS_FILE_PERIOD seconds, when MetricsFile names a path, writes the
// Prometheus text to a temporary file beside it and renames it into place. A failure is logged
// once (until a write succeeds again); the daemon goes on.
inline constexpr uint32_t DP_METRICS_FILE_PERIOD = 10;
void dp_metrics_tick(uint32_t now);
