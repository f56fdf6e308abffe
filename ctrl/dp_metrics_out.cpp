// The three ways out of the metrics: "view metrics", the JSON object and the Prometheus file.
// They show the same names: the sources and reasons below, and only sets that have servers.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "config/dpcfg.h"
#include "ctrl/dp_metrics.h"
#include "ctrl/dp_metrics_internal.h"
#include "ctrl/dp_stats.h"
#include "ctrl/dp_trace.h"
#include "main/dputl.h"
#include "main/dpxy.h"
#include "main/dpxy_pcb.h"
#include "platform/kutl/kutl.h"
#include "platform/rjson/rjson.h"

namespace {

constexpr const char* kAnswerNames[DP_ANS_COUNT] = {
    "force_register", "lock_net",      "intercept",     "d2a",
    "hosts",          "dynamic_cache", "d2d",           "webgui_refused",
    "redirect",       "reject_ptr",    "force_url",     "server_failure",
    "format_error",   "upstream",      "upstream_held",
};
constexpr const char* kDropNames[DP_DROP_COUNT] = {
    "invalid_query",      "bad_edns",         "policy_no_answer",       "unclassified",
    "expired_unanswered", "invalid_response", "late_or_unknown_answer",
};
constexpr const char* kRcodeNames[DPM_RCODES] = {"NOERROR", "FORMERR", "SERVFAIL", "NXDOMAIN",
                                                 "NOTIMP",  "REFUSED", "other"};
constexpr const char* kStateNames[] = {"none", "active", "backup", "down"};
constexpr const char* kLeSeconds[DP_RTT_BOUNDS + 1] = {
    "0.001", "0.002", "0.005", "0.01", "0.02", "0.05", "0.1", "0.2", "0.5", "1", "2", "5", "+Inf"};

struct named_count {
    const char* name;
    uint32_t value;
};

// The drops: the counters of "view statistic" that are drops, the pipelines' own reasons, and
// what hardened mode refused.
constexpr int kDrops = 7 + DP_DROP_COUNT + 2;

void collect_drops(named_count (&out)[kDrops]) {
    const dpxy_security_stats& hard = dpxy_hard_stats();
    uint32_t unexpected = 0;
    for (uint32_t n : hard.dropped)
        unexpected += n;
    int k = 0;
    for (const named_count& c : {named_count{"recv_packet_error", dp_stats.recv_packet_error},
                                 {"send_packet_error", dp_stats.send_packet_error},
                                 {"packet_len_too_short", dp_stats.packet_len_too_short},
                                 {"packet_len_too_long", dp_stats.packet_len_too_long},
                                 {"max_pcb_list_reach", dp_stats.max_pcb_list_reach},
                                 {"query_format_error", dp_stats.query_format_error},
                                 {"response_format_error", dp_stats.response_format_error}}) {
        out[k++] = c;
    }
    for (uint32_t i = 0; i < DP_DROP_COUNT; ++i)
        out[k++] = {kDropNames[i], dp_metrics.drops[i]};
    out[k++] = {"unexpected_answer", unexpected};
    out[k++] = {"waiters_full", hard.waiters_full};
}

// The sets with servers, their rows up to date and their names without the trailing blanks.
struct set_view {
    const servset* s;
    const dpm_set* r;
    char name[16];
};

struct snapshot {
    set_view sets[DPSVR_SET_COUNT];
    int n = 0;
    named_count drops[kDrops];

    snapshot() {
        collect_drops(drops);
        for (uint32_t i = 0; i < DPSVR_SET_COUNT; ++i) {
            const servset* s = dpsvr_get_server_set(i);
            const dpm_set& r = dpm_refreshed_set(i);
            if (s == nullptr || r.num == 0) continue;
            set_view& v = sets[n++];
            v.s = s;
            v.r = &r;
            dputl_copy_text(v.name, sizeof v.name, s->desc);
            for (size_t len = std::strlen(v.name); len > 0 && v.name[len - 1] == ' ';)
                v.name[--len] = '\0';
        }
    }
};

uint32_t rtt_count(const dpm_server& row) {
    uint32_t n = 0;
    for (uint32_t c : row.rtt)
        n += c;
    return n;
}

// ---- view metrics ----------------------------------------------------------------------------

std::string when(int64_t t) {
    if (t == 0) return "-";
    const time_t tt = static_cast<time_t>(t);
    tm parts{};
    char text[32];
    gmtime_r(&tt, &parts);
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &parts);
    return text;
}

void view_server(const servset& s, const dpm_server& row, uint32_t i) {
    std::fprintf(stderr, "  %s: %s since %s, changes %u, queries %u, timeouts %u\n",
                 s.servers[i].addrStr, kStateNames[row.st.state], when(row.st.since).c_str(),
                 row.st.changes, row.queries, row.timeouts);
    std::fputs("    answers", stderr);
    for (int k = 0; k < DPM_RCODES; ++k)
        std::fprintf(stderr, " %s %u", kRcodeNames[k], row.rcodes[k]);
    std::fprintf(stderr, "\n    probes sent %u answered %u timeout %u\n    rtt ms", row.probes_sent,
                 row.probes_answered, row.probes_timeout);
    for (int k = 0; k < DP_RTT_BOUNDS; ++k)
        std::fprintf(stderr, " <=%u %u", dp_rtt_bounds_ms[k], row.rtt[k]);
    std::fprintf(stderr, " more %u, sum %llu count %u\n", row.rtt[DP_RTT_BOUNDS],
                 static_cast<unsigned long long>(row.rtt_sum_ms), rtt_count(row));
}

// ---- Prometheus ------------------------------------------------------------------------------

void family(std::FILE* f, const char* name, const char* type, const char* help) {
    std::fprintf(f, "# HELP dnsproxy_%s %s\n# TYPE dnsproxy_%s %s\n", name, help, name, type);
}

void sample(std::FILE* f, const char* name, const std::string& labels, uint64_t value) {
    std::fprintf(f, "dnsproxy_%s{%s} %llu\n", name, labels.c_str(),
                 static_cast<unsigned long long>(value));
}

std::string label(const char* key, const char* value) {
    return std::string(key) + "=\"" + value + "\"";
}

// One family: its header, then value() writes the samples of each set (or each server of each
// set) under the labels that name it.
template <typename F>
void per_set(std::FILE* f, const snapshot& snap, const char* name, const char* type,
             const char* help, F value) {
    family(f, name, type, help);
    for (int i = 0; i < snap.n; ++i)
        value(snap.sets[i], label("set", snap.sets[i].name));
}

template <typename F>
void per_server(std::FILE* f, const snapshot& snap, const char* name, const char* type,
                const char* help, F value) {
    family(f, name, type, help);
    for (int i = 0; i < snap.n; ++i) {
        const set_view& v = snap.sets[i];
        for (uint32_t k = 0; k < v.r->num; ++k) {
            value(v.r->servers[k],
                  label("set", v.name) + "," + label("server", v.s->servers[k].addrStr));
        }
    }
}

void prometheus_daemon(std::FILE* f, const snapshot& snap) {
    family(f, "pcbs", "gauge", "Queries waiting for an upstream answer.");
    std::fprintf(f, "dnsproxy_pcbs %u\n", dpxy_pcb_count());
    family(f, "pcbs_highest", "gauge", "Most queries waiting at once since the start.");
    std::fprintf(f, "dnsproxy_pcbs_highest %u\n", dpxy_pcb_highest());
    family(f, "pcbs_limit", "gauge", "Waiting queries at which new queries are dropped.");
    std::fprintf(f, "dnsproxy_pcbs_limit %u\n", DPXY_PCB_BOUND);
    family(f, "packets_received_total", "counter", "Datagrams read, by socket.");
    sample(f, "packets_received_total", label("socket", "client"), dp_stats.client_packet_recv);
    sample(f, "packets_received_total", label("socket", "server"), dp_stats.server_packet_recv);
    family(f, "answers_total", "counter", "Answers sent, by who gave them.");
    for (uint32_t i = 0; i < DP_ANS_COUNT; ++i)
        sample(f, "answers_total", label("source", kAnswerNames[i]), dp_metrics.answers[i]);
    family(f, "drops_total", "counter", "Queries and answers dropped, by reason.");
    for (const named_count& c : snap.drops)
        sample(f, "drops_total", label("reason", c.name), c.value);
}

void prometheus_sets(std::FILE* f, const snapshot& snap) {
    per_set(
        f, snap, "set_servers", "gauge", "Servers of the set.",
        [f](const set_view& v, const std::string& l) { sample(f, "set_servers", l, v.r->num); });
    per_set(
        f, snap, "set_policy", "gauge", "Forwarding policy of the set (0, 1 or 2).",
        [f](const set_view& v, const std::string& l) { sample(f, "set_policy", l, v.s->policy); });
    per_set(f, snap, "set_active_server", "gauge", "Index of the active server of the set.",
            [f](const set_view& v, const std::string& l) {
                sample(f, "set_active_server", l, v.s->activeIdx);
            });
    per_set(f, snap, "set_queries_total", "counter", "Queries forwarded to the set.",
            [f](const set_view& v, const std::string& l) {
                sample(f, "set_queries_total", l, v.r->queries);
            });
    per_set(f, snap, "set_timeouts_total", "counter",
            "Queries to the set that expired without any answer.",
            [f](const set_view& v, const std::string& l) {
                sample(f, "set_timeouts_total", l, v.r->timeouts);
            });
    per_set(f, snap, "set_state", "gauge", "State of the set: 1 for its current state.",
            [f](const set_view& v, const std::string& l) {
                for (int k = DPM_ACTIVE; k <= DPM_DOWN; ++k)
                    sample(f, "set_state", l + "," + label("state", kStateNames[k]),
                           v.r->st.state == k ? 1 : 0);
            });
    per_set(f, snap, "set_state_changes_total", "counter", "State changes of the set.",
            [f](const set_view& v, const std::string& l) {
                sample(f, "set_state_changes_total", l, v.r->st.changes);
            });
    per_set(f, snap, "set_state_change_timestamp_seconds", "gauge",
            "Time of the set's last state change (or of its first state).",
            [f](const set_view& v, const std::string& l) {
                sample(f, "set_state_change_timestamp_seconds", l,
                       static_cast<uint64_t>(v.r->st.since));
            });
}

void prometheus_servers(std::FILE* f, const snapshot& snap) {
    using row = const dpm_server&;
    using lbl = const std::string&;
    per_server(f, snap, "server_queries_total", "counter", "Queries sent to the server.",
               [f](row r, lbl l) { sample(f, "server_queries_total", l, r.queries); });
    per_server(f, snap, "server_answers_total", "counter", "Answers of the server, by rcode.",
               [f](row r, lbl l) {
                   for (int k = 0; k < DPM_RCODES; ++k)
                       sample(f, "server_answers_total", l + "," + label("rcode", kRcodeNames[k]),
                              r.rcodes[k]);
               });
    per_server(f, snap, "server_timeouts_total", "counter",
               "Queries that expired before the server answered.",
               [f](row r, lbl l) { sample(f, "server_timeouts_total", l, r.timeouts); });
    per_server(f, snap, "server_probes_sent_total", "counter", "Probes sent to the server.",
               [f](row r, lbl l) { sample(f, "server_probes_sent_total", l, r.probes_sent); });
    per_server(f, snap, "server_probes_total", "counter", "Probe results of the server.",
               [f](row r, lbl l) {
                   sample(f, "server_probes_total", l + ",result=\"answered\"", r.probes_answered);
                   sample(f, "server_probes_total", l + ",result=\"timeout\"", r.probes_timeout);
               });
    per_server(f, snap, "server_state", "gauge", "State of the server: 1 for its current state.",
               [f](row r, lbl l) {
                   for (int k = DPM_ACTIVE; k <= DPM_DOWN; ++k)
                       sample(f, "server_state", l + "," + label("state", kStateNames[k]),
                              r.st.state == k ? 1 : 0);
               });
    per_server(f, snap, "server_state_changes_total", "counter", "State changes of the server.",
               [f](row r, lbl l) { sample(f, "server_state_changes_total", l, r.st.changes); });
    per_server(f, snap, "server_state_change_timestamp_seconds", "gauge",
               "Time of the server's last state change (or of its first state).",
               [f](row r, lbl l) {
                   sample(f, "server_state_change_timestamp_seconds", l,
                          static_cast<uint64_t>(r.st.since));
               });
    per_server(f, snap, "server_rtt_seconds", "histogram",
               "Time from sending a query to the server to its answer.", [f](row r, lbl l) {
                   uint64_t n = 0;
                   for (int k = 0; k <= DP_RTT_BOUNDS; ++k) {
                       n += r.rtt[k];
                       sample(f, "server_rtt_seconds_bucket", l + "," + label("le", kLeSeconds[k]),
                              n);
                   }
                   std::fprintf(f, "dnsproxy_server_rtt_seconds_sum{%s} %llu.%03llu\n", l.c_str(),
                                static_cast<unsigned long long>(r.rtt_sum_ms / 1000),
                                static_cast<unsigned long long>(r.rtt_sum_ms % 1000));
                   sample(f, "server_rtt_seconds_count", l, n);
               });
}

// ---- the file ---------------------------------------------------------------------------------

struct file_state {
    bool started = false;
    uint32_t next = 0;
    bool failing = false; // a failure was logged; the next one is not, until a write succeeds
};

file_state metrics_file;

bool write_file(const char* path) {
    std::string tmp = std::string(path) + ".tmp";
    std::FILE* f = std::fopen(tmp.c_str(), "we");
    if (f == nullptr) return false;
    dp_metrics_prometheus(f);
    const bool written = std::fflush(f) == 0 && std::ferror(f) == 0;
    if (std::fclose(f) == 0 && written && std::rename(tmp.c_str(), path) == 0) return true;
    const int err = errno;
    unlink(tmp.c_str());
    errno = err;
    return false;
}

// What a set and a server both report: their state, since when, and their query counts.
void add_state_and_counts(json_object* o, const dpm_state& st, uint64_t queries,
                          uint64_t timeouts) {
    rjson_add_text(o, "state", kStateNames[st.state]);
    rjson_add_u64(o, "state_changes", st.changes);
    rjson_add_i64(o, "state_since", st.since);
    rjson_add_u64(o, "queries", queries);
    rjson_add_u64(o, "timeouts", timeouts);
}

} // namespace

int dp_metrics_view() {
    const snapshot snap;
    const std::string rule(59, '=');
    std::fprintf(stderr, "\nDNS metrics\n%s\n", rule.c_str());
    std::fprintf(stderr, "%-24s: %u of %u, highest %u\n", "pcbs", dpxy_pcb_count(), DPXY_PCB_BOUND,
                 dpxy_pcb_highest());
    std::fprintf(stderr, "%-24s: client %u, server %u\n", "packets received",
                 dp_stats.client_packet_recv, dp_stats.server_packet_recv);
    std::fputs("answers by source\n", stderr);
    for (uint32_t i = 0; i < DP_ANS_COUNT; ++i)
        std::fprintf(stderr, "  %-22s: %u\n", kAnswerNames[i], dp_metrics.answers[i]);
    std::fputs("drops by reason\n", stderr);
    for (const named_count& c : snap.drops)
        std::fprintf(stderr, "  %-22s: %u\n", c.name, c.value);
    for (int i = 0; i < snap.n; ++i) {
        const set_view& v = snap.sets[i];
        std::fprintf(stderr, "%s\n", std::string(59, '-').c_str());
        std::fprintf(stderr,
                     "set %s: %s since %s, changes %u, policy %u, active %u, queries %u, "
                     "timeouts %u\n",
                     v.name, kStateNames[v.r->st.state], when(v.r->st.since).c_str(),
                     v.r->st.changes, v.s->policy, v.s->activeIdx, v.r->queries, v.r->timeouts);
        for (uint32_t k = 0; k < v.r->num; ++k)
            view_server(*v.s, v.r->servers[k], k);
    }
    std::fprintf(stderr, "%s\n", rule.c_str());
    return 0;
}

int dp_metrics_json(char* out, uint32_t size) {
    const snapshot snap;
    json_object* root = rjson_new_object();
    json_object* pcbs = rjson_add_object(root, "pcbs");
    rjson_add_u64(pcbs, "count", dpxy_pcb_count());
    rjson_add_u64(pcbs, "highest", dpxy_pcb_highest());
    rjson_add_u64(pcbs, "limit", DPXY_PCB_BOUND);
    json_object* packets = rjson_add_object(root, "packets_received");
    rjson_add_u64(packets, "client", dp_stats.client_packet_recv);
    rjson_add_u64(packets, "server", dp_stats.server_packet_recv);
    json_object* answers = rjson_add_object(root, "answers");
    for (uint32_t i = 0; i < DP_ANS_COUNT; ++i)
        rjson_add_u64(answers, kAnswerNames[i], dp_metrics.answers[i]);
    json_object* drops = rjson_add_object(root, "drops");
    for (const named_count& c : snap.drops)
        rjson_add_u64(drops, c.name, c.value);
    json_object* sets = rjson_add_array(root, "sets");
    for (int i = 0; i < snap.n; ++i) {
        const set_view& v = snap.sets[i];
        json_object* set = rjson_add_object(sets, nullptr);
        rjson_add_text(set, "set", v.name);
        add_state_and_counts(set, v.r->st, v.r->queries, v.r->timeouts);
        rjson_add_u64(set, "policy", v.s->policy);
        rjson_add_u64(set, "active", v.s->activeIdx);
        json_object* servers = rjson_add_array(set, "servers");
        for (uint32_t k = 0; k < v.r->num; ++k) {
            const dpm_server& row = v.r->servers[k];
            json_object* server = rjson_add_object(servers, nullptr);
            rjson_add_text(server, "server", v.s->servers[k].addrStr);
            add_state_and_counts(server, row.st, row.queries, row.timeouts);
            json_object* rcodes = rjson_add_object(server, "answers");
            for (int c = 0; c < DPM_RCODES; ++c)
                rjson_add_u64(rcodes, kRcodeNames[c], row.rcodes[c]);
            json_object* probes = rjson_add_object(server, "probes");
            rjson_add_u64(probes, "sent", row.probes_sent);
            rjson_add_u64(probes, "answered", row.probes_answered);
            rjson_add_u64(probes, "timeout", row.probes_timeout);
            // Counts per bucket (not cumulative): "5" holds the times above 2 ms up to 5 ms.
            json_object* rtt = rjson_add_object(server, "rtt_ms");
            for (int c = 0; c < DP_RTT_BOUNDS; ++c)
                rjson_add_u64(rtt, std::to_string(dp_rtt_bounds_ms[c]).c_str(), row.rtt[c]);
            rjson_add_u64(rtt, "more", row.rtt[DP_RTT_BOUNDS]);
            rjson_add_u64(rtt, "sum", row.rtt_sum_ms);
            rjson_add_u64(rtt, "count", rtt_count(row));
        }
    }
    const int len = rjson_write(root, out, size);
    rjson_free(root);
    return len < 0 ? -1 : len;
}

void dp_metrics_prometheus(std::FILE* f) {
    const snapshot snap;
    prometheus_daemon(f, snap);
    prometheus_sets(f, snap);
    prometheus_servers(f, snap);
}

void dp_metrics_tick(uint32_t now) {
    const char* path = dpcfg_metrics_file();
    if (path[0] == '\0' || (metrics_file.started && !dputl_time_due(metrics_file.next, now)))
        return;
    metrics_file.started = true;
    metrics_file.next = now + DP_METRICS_FILE_PERIOD;
    const kutl_path full = kutl_fixed_path(path);
    if (write_file(full.s)) {
        metrics_file.failing = false;
    } else if (!metrics_file.failing) {
        metrics_file.failing = true;
        DPMAIN_TRACE(DP_ERROR, "metrics file %s not written: %s\n", full.s, std::strerror(errno));
    }
}
