#include <array>
#include <cstring>
#include <string_view>

#include "config/dpcfg.h"
#include "ctrl/dp_metrics.h"
#include "ctrl/dp_trace.h"
#include "edns/dpedns.h"
#include "io/dpio.h"
#include "main/dputl.h"
#include "server/dpsvr.h"
#include "server/dpsvr_internal.h"

namespace {

constexpr uint16_t kDnsPort = 53;
constexpr uint32_t kProbeInterval = 1;  // seconds an answer may take
constexpr uint32_t kActiveRecheck = 60; // an answering active server is probed again after
constexpr uint32_t kBackupRest = 120;   // the backup walk rests this long between rounds
constexpr uint8_t kFirstQuerySeen = 255;

// ---- probe queries ----------------------------------------------------------------------------

constexpr size_t kProbeMax = 49;

// A standard recursive A query with id 0 for a name of three labels, built at compile time.
struct probe_query {
    uint8_t len;
    uint8_t bytes[kProbeMax];
};

constexpr probe_query make_probe(std::string_view name) {
    probe_query q{};
    uint8_t* p = q.bytes;
    const uint8_t header[12] = {0, 0, 0x01, 0x00, 0, 1, 0, 0, 0, 0, 0, 0};
    for (uint8_t b : header)
        *p++ = b;
    size_t start = 0;
    while (start <= name.size()) {
        size_t dot = name.find('.', start);
        if (dot == std::string_view::npos) dot = name.size();
        *p++ = static_cast<uint8_t>(dot - start);
        for (size_t i = start; i < dot; ++i)
            *p++ = static_cast<uint8_t>(name[i]);
        start = dot + 1;
    }
    const uint8_t tail[5] = {0, 0, 1, 0, 1}; // root, QTYPE A, QCLASS IN
    for (uint8_t b : tail)
        *p++ = b;
    q.len = static_cast<uint8_t>(p - q.bytes);
    return q;
}

// Three stable public names, asked in turn so that no single name's cache state decides.
std::array<probe_query, 3> probes = {make_probe("www.iana.org"), make_probe("www.debian.org"),
                                     make_probe("www.cloudflare.com")};
static_assert(make_probe("www.iana.org").len == 30 && make_probe("www.debian.org").len == 32 &&
              make_probe("www.cloudflare.com").len == 36);
int probe_index = 0;

// ---- state ------------------------------------------------------------------------------------

servset* monitor_list = nullptr;
int32_t is_first_dns_query = 0;

servset* set_of(void* parm) {
    return static_cast<servset*>(parm);
}

void active_start_cb(void* parm, acb*) {
    send_probe_packet_to_active_server(set_of(parm));
}
void active_retry_cb(void* parm) {
    send_probe_packet_to_active_server(set_of(parm));
}
void active_final_cb(void* parm) {
    dp_metrics_probe_result(set_of(parm), DP_PROBE_ACTIVE, false);
    set_next_active_server(set_of(parm));
}
void backup_start_cb(void* parm, acb*) {
    send_probe_packet_to_backup_server(set_of(parm));
}
void backup_retry_cb(void* parm) {
    send_probe_packet_to_backup_server(set_of(parm));
}
void backup_final_cb(void* parm) {
    dp_metrics_probe_result(set_of(parm), DP_PROBE_BACKUP, false);
    set_next_backup_server(set_of(parm));
}

void leave_monitor_list(servset* set) {
    for (servset** link = &monitor_list; *link != nullptr; link = &(*link)->next) {
        if (*link == set) {
            *link = set->next;
            set->next = nullptr;
            return;
        }
    }
}

bool on_monitor_list(const servset* set) {
    for (const servset* s = monitor_list; s != nullptr; s = s->next) {
        if (s == set) return true;
    }
    return false;
}

int start_probe(servset* set, dpsvr_monitor& mon) {
    mon.ena = 0; // disarmed while the probe is out
    mon.acb.triedTimes = 0;
    mon.acb.maxTimes = 1;
    mon.acb.period = kProbeInterval;
    mon.acb.nextExpiryTime = dputl_get_current_time() + kProbeInterval;
    return dputl_start_action(&mon.acb, set);
}

// The EDNS payload check of one server; true when the query must not go to it.
bool payload_refused(uint8_t* packet, uint16_t len, const dns_server& server) {
    return dpcfg_is_edns_enabled() != 0 &&
           dpedns_check_packet_payload(packet, len, server.udpMaxPayload) != 0;
}

// Sends to the set's server i: 1 when it went out.
int send_to(const servset* set, uint32_t i, const uint8_t* packet, uint16_t len) {
    if (dpio_send_to_server(set->servers[i].addr, kDnsPort, packet, len) <= 0) return 0;
    dp_metrics_sent(i);
    return 1;
}

// The three policies; their lines are traced under the name of the caller that forwards.
int send_to_active(const char* caller, uint8_t* packet, uint16_t len, servset* set) {
    const dns_server& server = set->servers[set->activeIdx];
    if (payload_refused(packet, len, server)) {
        DPSERV_TRACE_AS(
            caller, DP_DETAIL,
            "Query packet has bigger payload or temp error in updating query. Return error");
        return 0;
    }
    return send_to(set, set->activeIdx, packet, len);
}

int send_to_all(const char* caller, uint8_t* packet, uint16_t len, servset* set,
                bool check_payload) {
    int sent = 0;
    for (uint32_t i = 0; i < set->num; ++i) {
        const dns_server& server = set->servers[i];
        if (check_payload && payload_refused(packet, len, server)) {
            DPSERV_TRACE_AS(
                caller, DP_DETAIL,
                "\nQuery has bigger payload than server. Do not send packet to this server %s %d\n",
                server.addrStr, server.udpMaxPayload);
            continue;
        }
        sent += send_to(set, i, packet, len);
    }
    return sent;
}

// Policy 2: the primary alone while it is known to answer, else every server.
int send_primary_first(const char* caller, uint8_t* packet, uint16_t len, servset* set) {
    DPSERV_TRACE_AS(caller, DP_DETAIL, "serv_set->primaryDnsActive = %d , is_first_dns_query=%d\n",
                    set->primaryDnsActive, is_first_dns_query);
    if (set->primaryDnsActive != 0 && is_first_dns_query != 1) return send_to(set, 0, packet, len);
    if (is_first_dns_query == 1) is_first_dns_query = kFirstQuerySeen;
    return send_to_all(caller, packet, len, set, false);
}

} // namespace

// ---- monitors shared with the set loader ------------------------------------------------------

void dpsvr_prepare_monitors(servset* set) {
    set->active.acb =
        acb{nullptr,         nullptr, 1, kProbeInterval, set, active_start_cb, active_retry_cb,
            active_final_cb, 0,       0};
    set->backup.acb =
        acb{nullptr,         nullptr, 1, kProbeInterval, set, backup_start_cb, backup_retry_cb,
            backup_final_cb, 0,       0};
}

void dpsvr_reset_monitor_list() {
    for (servset* s = monitor_list; s != nullptr;) {
        servset* next = s->next;
        s->next = nullptr;
        s = next;
    }
    monitor_list = nullptr;
    is_first_dns_query = 0;
}

void dpsvr_reset_probing(servset* set) {
    stop_backup_server_probe(set);
    stop_active_server_probe(set);
    leave_monitor_list(set);
    set->active.ena = 0;
    set->backup.ena = 0;
    set->activeIdx = 0;
    set->backupIdx = 0;
    dp_metrics_set_changed(set);
}

void dpsvr_join_monitor_list(servset* set) {
    if (!on_monitor_list(set)) {
        set->next = monitor_list;
        monitor_list = set;
    }
    set->active.ena = 1;
    set->active.Time = dputl_get_current_time() + 1;
    set->backup.ena = 0;
}

servset* dpsvr_monitor_list_head() {
    return monitor_list;
}

// ---- forwarding -------------------------------------------------------------------------------

int send_query_to_server_set(uint8_t* packet, uint16_t len, servset* set) {
    if (set == nullptr || set->num == 0) return 0;
    dp_metrics_use_set(set);
    switch (set->policy) {
    case 0:
        return send_to_all(__func__, packet, len, set, true);
    case 1:
        return send_to_active(__func__, packet, len, set);
    case 2:
        return send_primary_first(__func__, packet, len, set);
    default:
        return 0;
    }
}

int dpsvr_send_query(uint8_t* packet, uint16_t len, servset* set, servset* dflt_set) {
    const int sent = send_query_to_server_set(packet, len, set);
    if (sent != 0 || dpcfg_is_vci_explicit_forward_feat_enabled() != 0 ||
        dpcfg_is_name_filter_forward_enabled() != 0) {
        return sent;
    }
    return send_query_to_server_set(packet, len, dflt_set);
}

void dpsvr_mark_first_dns_query() {
    if (is_first_dns_query == 0) is_first_dns_query = 1;
}

// ---- choosing servers -------------------------------------------------------------------------

int set_active_dns_server(servset* set, uint32_t idx) {
    if (idx >= set->num) return -1;
    const uint32_t now = dputl_get_current_time();
    set->active.ena = 1;
    set->active.Time = now + (idx == set->activeIdx ? kActiveRecheck : 1);
    set->activeIdx = static_cast<uint8_t>(idx);
    if (idx != 0 && set->backup.ena == 0) {
        set->backup.ena = 1;
        set->backup.Time = now + kBackupRest;
    }
    dp_metrics_set_changed(set);
    return 0;
}

int set_next_active_server(servset* set) {
    if (set == nullptr) return -1;
    const uint32_t next = set->activeIdx + 1u < set->num ? set->activeIdx + 1u : 0;
    set_active_dns_server(set, next);
    return 0;
}

// The backup walk visits the servers above the active one, one a second, then rests.
int set_next_backup_server(servset* set) {
    if (set == nullptr) return -1;
    const uint32_t now = dputl_get_current_time();
    if (set->backupIdx + 1 >= set->activeIdx) {
        set->backupIdx = 0;
        set->backup.Time = now + kBackupRest;
    } else {
        set->backupIdx++;
        set->backup.Time = now + 1;
    }
    set->backup.ena = 1;
    return 0;
}

// ---- probing ----------------------------------------------------------------------------------

int start_active_server_probe(servset* set) {
    return set == nullptr ? -33 : start_probe(set, set->active);
}
int start_backup_server_probe(servset* set) {
    return set == nullptr ? -15 : start_probe(set, set->backup);
}

int stop_active_server_probe(servset* set) {
    if (set == nullptr) return -43;
    set->active.transid = 0;
    return dputl_stop_action(&set->active.acb);
}

int stop_backup_server_probe(servset* set) {
    if (set == nullptr) return -25;
    set->backupIdx = 0;
    set->backup.transid = 0;
    return dputl_stop_action(&set->backup.acb);
}

int send_probe_packet_to_active_server(servset* set) {
    if (set->activeIdx >= set->num) return -1;
    dp_metrics_probe_sent(set, DP_PROBE_ACTIVE, set->activeIdx);
    dpio_begin_sends(&set->active.expect);
    send_probe_packet_to_server(&set->servers[set->activeIdx], &set->active.transid);
    dpio_end_sends();
    return 0;
}

int send_probe_packet_to_backup_server(servset* set) {
    if (set->backupIdx >= set->num) return -1;
    dp_metrics_probe_sent(set, DP_PROBE_BACKUP, set->backupIdx);
    dpio_begin_sends(&set->backup.expect);
    send_probe_packet_to_server(&set->servers[set->backupIdx], &set->backup.transid);
    dpio_end_sends();
    return 0;
}

int send_probe_packet_to_server(const dns_server* server, uint16_t* transid) {
    if (server == nullptr) return -88;
    *transid = dputl_get_next_transaction_id();
    probe_index = (probe_index + 1) % static_cast<int>(probes.size());
    probe_query& q = probes[static_cast<size_t>(probe_index)];
    q.bytes[0] = static_cast<uint8_t>(*transid >> 8);
    q.bytes[1] = static_cast<uint8_t>(*transid & 0xFF);
    const int ret = dpio_send_to_server(server->addr, kDnsPort, q.bytes, q.len);
    DPSERV_TRACE(DP_DETAIL, "server=%p ip=%s transid=0x%x ret=%d\n",
                 static_cast<const void*>(server), server->addrStr, *transid, ret);
    return ret;
}

void dpsvr_scan_monitor_list() {
    const uint32_t now = dputl_get_current_time();
    for (servset* set = monitor_list; set != nullptr; set = set->next) {
        DPSERV_TRACE(DP_PERIOD,
                     "pSet=%p curr_time=%d active(ena=%d Time=%d) backup(ena=%d Time=%d)\n",
                     static_cast<void*>(set), static_cast<int>(now), set->active.ena,
                     static_cast<int>(set->active.Time), set->backup.ena,
                     static_cast<int>(set->backup.Time));
        if (set->active.ena != 0 && dputl_time_due(set->active.Time, now))
            start_active_server_probe(set);
        if (set->backup.ena != 0 && dputl_time_due(set->backup.Time, now))
            start_backup_server_probe(set);
    }
}

void dpsvr_check_dns_server_set_status() {
    const uint32_t now = dputl_get_current_time();
    for (servset* set = monitor_list; set != nullptr; set = set->next) {
        DPSERV_TRACE(DP_PERIOD, "pSet=%p currTime=%d active(ena=%d) backup(ena=%d)\n",
                     static_cast<void*>(set), static_cast<int>(now), set->active.ena,
                     set->backup.ena);
        if (set->active.ena != 0) start_active_server_probe(set);
        if (set->backup.ena != 0) start_backup_server_probe(set);
    }
}

int dpsvr_handle_dns_server_probe_response(uint16_t transid) {
    if (transid == 0) return -1;
    for (servset* set = monitor_list; set != nullptr; set = set->next) {
        const bool is_active = set->active.transid == transid;
        const bool is_backup = !is_active && set->backup.transid == transid;
        if (!is_active && !is_backup) continue;
        DPSERV_TRACE(DP_DETAIL, "transid=0x%x found isactive=%d isbackup=%d\n", transid,
                     is_active ? 1 : 0, is_backup ? 1 : 0);
        if (is_active) {
            DPSERV_TRACE(DP_PKT, "active DNS server probe transid=0x%x found\n", transid);
            dp_metrics_probe_result(set, DP_PROBE_ACTIVE, true);
            stop_active_server_probe(set);
            set->active.ena = 1;
            set->active.Time = dputl_get_current_time() + kActiveRecheck;
            return 1;
        }
        DPSERV_TRACE(DP_PKT, "backup DNS server probe transid=0x%x found\n", transid);
        dp_metrics_probe_result(set, DP_PROBE_BACKUP, true);
        const uint32_t answered = set->backupIdx;
        stop_backup_server_probe(set);
        set_active_dns_server(set, answered);
        return 2;
    }
    return -2;
}

bool dpsvr_probe_holds_id(uint16_t transid) {
    for (const servset* set = monitor_list; set != nullptr; set = set->next) {
        if (set->active.transid == transid || set->backup.transid == transid) return true;
    }
    return false;
}

int dpsvr_check_probe_answer(uint16_t transid, int fd, const dp_peer_addr* from, const uint8_t* msg,
                             uint16_t len) {
    if (transid == 0) return -1;
    for (const servset* set = monitor_list; set != nullptr; set = set->next) {
        if (set->active.transid == transid)
            return dpio_check_answer(&set->active.expect, fd, from, msg, len);
        if (set->backup.transid == transid)
            return dpio_check_answer(&set->backup.expect, fd, from, msg, len);
    }
    return -1;
}
