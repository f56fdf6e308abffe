// Upstream servers: the eight server sets and their resolver files, forwarding by set policy,
// active/backup probing, and the service classification that picks a set for a query.
#pragma once

#include <cstdint>

#include "main/dputl.h"

// ---- server sets ------------------------------------------------------------------------------

inline constexpr uint32_t DPSVR_MAX_SERVERS = 32;
inline constexpr uint16_t DPSVR_DEFAULT_UDP_PAYLOAD = 544;

struct dns_server {
    uint8_t addr[16];       // network order; an IPv4 server as its IPv4-mapped address
    char addrStr[46];       // inet_ntop text of addr; the identity for duplicate checks
    uint16_t udpMaxPayload; // largest UDP payload the server accepts
};

// One probe monitor of a set: armed (ena) until Time, then probing with transid outstanding.
struct dpsvr_monitor {
    uint8_t ena;
    uint16_t transid;
    uint32_t Time;
    struct acb acb;
};

struct servset {
    char desc[16];
    dns_server servers[DPSVR_MAX_SERVERS]; // file order; index 0 is the primary
    uint8_t policy; // 0 all servers, 1 active server, 2 primary while it answers
    uint8_t num;
    uint8_t activeIdx;
    uint8_t backupIdx;
    dpsvr_monitor active;
    dpsvr_monitor backup;
    servset* next; // monitor list
    int32_t primaryDnsActive;
};

// The sets, in table order.
enum dpsvr_set_index : uint32_t {
    DPSVR_V4_SYSTEM = 0,
    DPSVR_V6_SYSTEM = 1,
    DPSVR_V4_GLOBAL = 2,
    DPSVR_V6_GLOBAL = 3,
    DPSVR_V4_HSI = 4,
    DPSVR_V4_VOIP = 5,
    DPSVR_V4_IPTV = 6,
    DPSVR_V4_FILTER = 7,
    DPSVR_SET_COUNT = 8,
};

// What a query asks of the classification: type 1 selects among IPv4 sets, 2 among IPv6 sets.
struct dpsvr_select_request {
    uint32_t type;
    uint8_t addr[16]; // the client's address; an IPv4 client's is IPv4-mapped
    char name[256];   // the query name
};

// Start-up, before any load: the eight sets from their template, zeroed.
void dpsvr_init_server_sets();
servset* dpsvr_get_server_set(uint32_t index);

// Parses a resolver file into the sets given (either may be null): 2 the IPv6 set changed, 1 the
// IPv4 set changed, -4 nothing changed; -2 / -3 when a working buffer cannot be had.
int load_server_set_from_file(const char* dns_file, servset* v4_set, servset* v6_set);
// 0, or -1 (no "." or ":"), -2 (32 servers already), -3 (not an address), -5 (unspecified
// address), -6 (duplicate).
int add_dns_server_to_server_set(const char* server_ip, servset* v4_serv_set, servset* v6_serv_set);
// Loads the file into the set under the policy; resets probing only when something changed.
// Returns the number of servers.
int load_dns_servers(int is_v4_serv_set, uint32_t policy, const char* dns_file, servset* set);

int dpsvr_load_v4_system_dns_servers();
int dpsvr_load_v6_system_dns_servers();
int dpsvr_load_v4_global_dns_servers();
int dpsvr_load_v4_filter_dns_servers();
int dpsvr_load_v6_global_dns_servers();
int dpsvr_load_v4_hsi_dns_servers();
int dpsvr_load_v4_voip_dns_servers();
int dpsvr_load_v4_iptv_dns_servers();
int dpsvr_load_system_dns_servers();
// Start-up: every set but the FILTER set, which only its reload signal loads.
int dpsvr_load_all_dns_servers();

// The fallback set of a query (the System set of its family when global servers are in use).
void select_default_server_set(const dpsvr_select_request* request, servset** dflt_set);
servset* dpsvr_get_hsi_server_set();
// For every set whose primary has addr (all sets when addr is null): primaryDnsActive = active.
void dpsvr_set_primary_dns_status(const uint8_t* addr, int32_t active);
// "view server".
void dpsvr_dump_dns_servers();

// ---- forwarding and probing -------------------------------------------------------------------

// Number of servers of the set the query was handed to.
int send_query_to_server_set(uint8_t* packet, uint16_t len, servset* set);
// Sends to set; when that reaches nobody, to dflt_set unless VCI or name-filter forwarding is on.
int dpsvr_send_query(uint8_t* packet, uint16_t len, servset* set, servset* dflt_set);
void dpsvr_mark_first_dns_query();

int set_active_dns_server(servset* set, uint32_t idx);
int set_next_active_server(servset* set);
int set_next_backup_server(servset* set);
int start_active_server_probe(servset* set);
int start_backup_server_probe(servset* set);
int stop_active_server_probe(servset* set);
int stop_backup_server_probe(servset* set);
int send_probe_packet_to_active_server(servset* set);
int send_probe_packet_to_backup_server(servset* set);
int send_probe_packet_to_server(const dns_server* server, uint16_t* transid);

// Once a second: starts the probes whose monitors are due.
void dpsvr_scan_monitor_list();
// After an unanswered query: starts every armed probe at once.
void dpsvr_check_dns_server_set_status();
// 1 an active probe answered, 2 a backup probe answered, -2 no probe has this id, -1 id 0.
int dpsvr_handle_dns_server_probe_response(uint16_t transid);
// Head of the monitor list (tests and dumps).
servset* dpsvr_monitor_list_head();

// ---- service classification -------------------------------------------------------------------

// Frees every entry of the source-lease table.
void dpsvr_purge_src_leases();

// ---- bus signal handlers ----------------------------------------------------------------------
//
// Each is called with the received signal's interface and member (either may be null) and its
// first argument; it traces itself and does one thing, whose result it returns.
#define DPSVR_SIGNAL_HANDLER_DECL(name) int name(const char* itf, const char* signal, const void* payload, uint32_t length)
DPSVR_SIGNAL_HANDLER_DECL(dpsvr_process_load_system_dns_servers_signal);
DPSVR_SIGNAL_HANDLER_DECL(dpsvr_process_load_v4_dns_servers_signal);
DPSVR_SIGNAL_HANDLER_DECL(dpsvr_process_load_v4_filter_dns_servers_signal);
DPSVR_SIGNAL_HANDLER_DECL(dpsvr_process_load_v6_dns_servers_signal);
DPSVR_SIGNAL_HANDLER_DECL(dpsvr_process_load_v4_hsi_dns_servers_signal);
DPSVR_SIGNAL_HANDLER_DECL(dpsvr_process_load_v4_voip_dns_servers_signal);
DPSVR_SIGNAL_HANDLER_DECL(dpsvr_process_load_v4_iptv_dns_servers_signal);
DPSVR_SIGNAL_HANDLER_DECL(dpsvr_process_load_d2a_cache_signal);
DPSVR_SIGNAL_HANDLER_DECL(dpsvr_process_load_d2d_cache_signal);
DPSVR_SIGNAL_HANDLER_DECL(dpsvr_process_load_hosts_cache_signal);
DPSVR_SIGNAL_HANDLER_DECL(dpsvr_process_load_name_filter_db_signal);
DPSVR_SIGNAL_HANDLER_DECL(dpsvr_process_dhcp_cond_pool_update_signal);
DPSVR_SIGNAL_HANDLER_DECL(dpsvr_process_disable_force_register_signal);
DPSVR_SIGNAL_HANDLER_DECL(dpsvr_process_enable_force_register_signal);
DPSVR_SIGNAL_HANDLER_DECL(dpsvr_process_disable_lock_net);
DPSVR_SIGNAL_HANDLER_DECL(dpsvr_process_enable_lock_net);
DPSVR_SIGNAL_HANDLER_DECL(dpsvr_process_load_lock_net_whitelist_signal);
DPSVR_SIGNAL_HANDLER_DECL(dpsvr_process_disable_dslite_signal);
DPSVR_SIGNAL_HANDLER_DECL(dpsvr_process_enable_dslite_signal);
DPSVR_SIGNAL_HANDLER_DECL(dpsvr_process_disable_redirect_signal);
DPSVR_SIGNAL_HANDLER_DECL(dpsvr_process_enable_redirect_signal);
DPSVR_SIGNAL_HANDLER_DECL(dpsvr_process_load_first_wan_ifname_for_dns_filter_signal);
#undef DPSVR_SIGNAL_HANDLER_DECL
