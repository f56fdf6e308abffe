// Upstream servers: the eight server sets and their resolver files, forwarding by set policy,
// active/backup probing, and the service classification that picks a set for a query.
#pragma once

#include <cstdint>

#include "io/dpio.h"
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
    dpio_expect expect; // hardened mode: where the probe went and what it asked
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
// Hardened mode: whether a probe waits for this id; and the check of an answer to it: -1 when
// no probe has the id, else a dpio_answer_check result.
bool dpsvr_probe_holds_id(uint16_t transid);
int dpsvr_check_probe_answer(uint16_t transid, int fd, const dp_peer_addr* from, const uint8_t* msg,
                             uint16_t len);
// Head of the monitor list (tests and dumps).
servset* dpsvr_monitor_list_head();

// ---- service classification -------------------------------------------------------------------

// Service mask bits, found by case-sensitive substring search in a service text.
enum dpsvr_service_bit : uint16_t {
    DPSVR_SERVICE_INTERNET = 0x1, // "INTERNET"
    DPSVR_SERVICE_VOIP = 0x2,     // "VOIP"
    DPSVR_SERVICE_OTHER = 0x4,    // "OTHER", carried by the IPTV connection
    DPSVR_SERVICE_TR069 = 0x8,    // "TR069"
};

// Match modes of a name-filter entry; any other value never matches.
enum dpsvr_match_mode : uint32_t {
    DPSVR_MATCH_PREFIX = 0,
    DPSVR_MATCH_SUFFIX = 1,
    DPSVR_MATCH_EXACT = 2,
};

// One line of the name filter ("/etc/dns_prefix.conf"), in file order.
struct name_filter {
    uint32_t matchMode;
    char name[256];    // the pattern, lower-cased
    char service[128]; // at most 127 characters
    uint16_t mask;     // service mask of service
    name_filter* next;
};

// One line of the VCI table ("/etc/dhcp_condpool.conf"), in file order.
struct vci_entry {
    uint32_t vciLen; // 0..256
    uint8_t vci[256];
    char startStr[46];
    char endStr[46];
    uint32_t startAddr; // host order
    uint32_t endAddr;   // host order; kept for the dump, never consulted
    char service[128];
    uint16_t mask;
    vci_entry* next;
};

// A client address holding a DHCP lease with a vendor class that the VCI table knows.
struct src_lease {
    uint32_t yiaddr; // host order; its low 8 bits choose the bucket
    uint8_t chaddr[6];
    uint32_t vciLen; // strlen(vci)
    char vci[256];
    src_lease* next;
};

inline constexpr uint32_t DPSVR_LEASE_BUCKETS = 256;

// The DHCP server's lease record: the first 128 bytes of a lease-file record, and what the
// lease-update signal carries behind its action word. Copy unaligned bytes into one of these.
struct dpsvr_lease_record {
    uint8_t chaddr[16]; // the first 6 are the MAC; all 16 zero: an empty record
    uint32_t yiaddr;    // network order
    uint32_t expires;   // network order; 0: an unused record
    uint8_t unused[36];
    char vci[68]; // NUL-terminated, or running to the end of the record
};
static_assert(sizeof(dpsvr_lease_record) == 128, "the lease record layout is fixed");

// The lease file's record size, from its header: at least the fields above up to a short vendor
// class. Any larger size is taken up to DPSVR_LEASE_RECORD_ANY (so a file of the header alone
// stays a valid, empty lease file); beyond it only when the file holds at least one whole record
// of that size, so a broken header cannot make the daemon allocate whatever it claims. Other
// sizes are refused as an invalid header.
inline constexpr uint32_t DPSVR_LEASE_RECORD_MIN = 112;
inline constexpr uint32_t DPSVR_LEASE_RECORD_ANY = 4096;

// Union of the service bits named in the text; 0 when it names none.
uint16_t dpsvr_get_service_mask_by_name(const char* service);

// Loaders. Each empties its table first; a missing file leaves it empty. A line or record that
// does not parse is skipped on its own (traced at the detail level).
// Name filter: lines "<pattern> <mode> <service>". Returns the entries loaded.
int dpsvr_load_name_filter_db();
// Returns the entries freed.
uint32_t dpsvr_purge_name_filter_db();
// VCI table: lines "<vci in hex> <start IPv4> <end IPv4> <service>". The VCI token must be
// hexadecimal digits only (any other character refuses the line); two digits make a byte, an
// odd last digit is ignored and bytes past 256 are dropped. Returns the entries loaded.
int dpsvr_load_vci_db();
// Lease file: the leases stored, or -2 (header not read), -3 (header invalid, or a record size
// below DPSVR_LEASE_RECORD_MIN or above DPSVR_LEASE_RECORD_ANY that the file does not hold),
// -4 (no memory for a record). A last record cut short by the end of the file is dropped.
int dpsvr_load_lease_file();
// The VCI table, then the lease file, whose leases are filtered by it. The lease file's result.
int dpsvr_reload_vci_and_leases();

// 1 a new lease, 2 an existing lease updated, 0 an empty or unused record (ignored), -1 no VCI
// entry accepts it (not stored), -2 no memory.
int dpsvr_add_src_lease(const dpsvr_lease_record* record);
// 1 deleted, 0 no lease for that address.
int dpsvr_delete_src_lease(const dpsvr_lease_record* record);
// 1 when a VCI entry accepts the lease: same /24 as the entry's range start (the range end is
// deliberately not consulted) and the same vendor-class bytes.
int is_lease_valid(uint32_t yiaddr, const char* vci, uint32_t vciLen);
// Frees every entry of the source-lease table.
void dpsvr_purge_src_leases();

// Service mask of a query name by the name filter alone: 1 with the first matching entry's
// mask, 2 with 0x1 (Internet) when no entry matches.
int get_service_mask_without_ipaddr(const char* qname, uint16_t* mask);
// Service mask by the name filter and the client's lease (VCI explicit forwarding): 1 and 2 as
// above, -2 when no set may be chosen.
int get_service_mask(const uint8_t* client_addr, const char* qname, uint16_t* mask);
// The set for a request: 8 FILTER, 6 / 7 System, 4 / 5 Global, 3 VOIP, 2 IPTV, 1 HSI; -2 when
// classification refuses every set, -5 for an unknown type (both with *set null).
int select_server_set(const dpsvr_select_request* request, servset** set);
// Set the request's type (1 / 2), then the default set and the selected set.
int dpsvr_select_v4_server_sets(dpsvr_select_request* request, servset** set, servset** dflt_set);
int dpsvr_select_v6_server_sets(dpsvr_select_request* request, servset** set, servset** dflt_set);

// "view filter": the name filter, the VCI table and the lease table.
void dpsvr_dump_filter();

// The tables as they stand (tests and dumps).
const name_filter* dpsvr_name_filter_head();
const vci_entry* dpsvr_vci_head();
const src_lease* dpsvr_find_src_lease(uint32_t yiaddr);
uint32_t dpsvr_src_lease_count();

// ---- bus signal handlers ----------------------------------------------------------------------
//
// Each is called with the received signal's interface and member (either may be null) and its
// first argument; it traces itself and does one thing, whose result it returns.
#define DPSVR_SIGNAL_HANDLER_DECL(name)                                                            \
    int name(const char* itf, const char* signal, const void* payload, uint32_t length)
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
