// Proxy core start-up: command line, signals, PID file, exit hook, the client interface's
// addresses, the once-a-second tick and the information dump.
#pragma once

#include <poll.h>

#include <cstdint>

// Which options were given.
enum dpxy_opt_flag : uint8_t {
    DPXY_OPT_GLOBAL_DNS = 0x01,    // -g
    DPXY_OPT_STATUS_DETECT = 0x02, // -q
    DPXY_OPT_PRINT_CONFIG = 0x04,  // -P
    DPXY_OPT_CONFIG_FILE = 0x08,   // -c
    DPXY_OPT_VERBOSITY = 0x10,     // -v
    DPXY_OPT_FEATURE_MASK = 0x20,  // -f
    DPXY_OPT_DOMAIN = 0x40,        // -D
    DPXY_OPT_POLICY = 0x80,        // -p
};

struct dpxy_input_parms {
    uint8_t flags;
    char config_file[128];
    char domain_name[128];
    uint32_t feature_mask;
    int32_t verbosity;
    uint32_t policy;
};

// The LAN interface's addresses: the gateway's own, answered by the policy actions.
struct dpxy_client_itf {
    uint32_t v4addr;  // network order
    uint32_t netmask; // network order
    char v4ipstr[46];
    char v6ipstr[46];
};

// Parses the command line (lenient: unknown options and missing arguments are skipped).
// 0, or -1 after printing the usage text for -h.
int dpxy_get_input_parms(int argc, char** argv, dpxy_input_parms* parms);

// Applies the options in their fixed order: -v, -c, -D, -g, -p, -q, -f, -P.
void dpxy_apply_input_parms(const dpxy_input_parms* parms);

// Reads the configured client interface's IPv4 address and netmask, with defaults on failure.
void dpxy_read_client_interface();
const dpxy_client_itf& dpxy_get_client_itf();

// Opens /dev/null on each of descriptors 0, 1 and 2 that is closed, so that no file or socket
// opened later takes one of them (output and its restores after a CLI command go to 1 and 2).
void dpxy_open_std_descriptors();

// Writes the PID file; 0, or -1 when it cannot be opened.
int save_pid();
// Puts back what the PID file held before save_pid, for a process that turned out to be a second
// instance beside a running daemon; only while the file still holds this process's PID.
void dpxy_restore_pid_file();

// Installs handle_signal for the termination and fault signals.
void register_signal_handler();
void handle_signal(int signo);
// Exit hook: closes the JSON services and prints the preexit line.
void preexit();

struct dp_peer_addr;
struct msginf;

// The query pipeline: one query from a client (source 0), the local-address resolver (1) or a
// module (2). 0 answered or forwarded; -2 pcb table full, -3 format error, -4 not a query,
// -5 answered or dropped by a policy.
int handle_dns_query(int16_t source, const char* module_tag, int32_t module_seq,
                     const dp_peer_addr* client, const uint8_t* packet, uint16_t len);
// "HandleQueryRequest": a 260-byte record (u32 AAAA flag, name char[256]) resolved as an
// internal query whose answer goes out as a module query response.
int dpxy_handle_query_request(const uint8_t* record, uint32_t len);
// A DHCP lease update: u32 action (0 add, 1 delete), then the 128-byte lease record.
inline constexpr uint32_t DPXY_LEASE_UPDATE_SIZE = 132;
int dpxy_update_lease(const uint8_t* payload);
// What is left of the force-URL budget (starts at 10).
uint32_t dpxy_force_url_count();

// Service status detection: the 20-second probe action and its answer.
int send_auto_query_probe_packet(void* parm);
// -50 a good answer to the current probe (service up), -60 anything else.
int handle_auto_query_probe_response(uint16_t server_id, const msginf* answer);
// Hardened mode: the current probe's id, and the check of an answer to it: -1 when the id is not
// the probe's, else a dpio_answer_check result.
uint16_t dpxy_status_probe_id();
int dpxy_check_status_answer(uint16_t id, int fd, const dp_peer_addr* from, const uint8_t* msg,
                             uint16_t len);
void dpxy_reset_status_probe();
void dpxy_start_status_probe();
uint32_t dpxy_status_failed_count();

// Returned by the packet handlers when the socket has nothing more to read.
inline constexpr int DPXY_DRAINED = 1;

// Handle one datagram of the client / upstream socket: its result code, or DPXY_DRAINED.
int dpxy_handle_client_packet(int fd);
int dpxy_handle_server_packet(int fd);
// Socket dispatch callback of the bus loop: drains the readable socket in batches (at most 256
// datagrams a wake-up) and sends the answers of the wake-up to clients together.
int dpxy_dispatch_socket(struct pollfd* entry);
// DNS over TCP (EnableTcp): hands the TCP connections' queries and answers to the pipelines and
// opens the listening socket when enabled. After the client socket is open.
void dpxy_tcp_start();

// The tick: registered as the 1000 ms time-out handler and as the event observer; does its work
// at most once per monotonic second.
int dpxy_tick();

// "view misc": process, time and client interface information on standard error.
void dpxy_dump_info();

// ---- hardened mode -----------------------------------------------------------------------------

struct dpxy_security_stats {
    uint32_t dropped[5];   // answers not taken, by dpio_answer_check reason
    uint32_t joined;       // queries that joined a pending identical question
    uint32_t waiters_full; // queries dropped because their question had all the waiters it takes
};
const dpxy_security_stats& dpxy_hard_stats();
// Installs the id check: no id of a pending query or probe is drawn again.
void dpxy_hard_init();
// "view security": the counters above and the source ports in use.
int dpxy_view_security();
