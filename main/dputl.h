// Utilities of the proxy core: the action timer list, the process clock, transaction ids,
// interface address readers and the line splitter.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

// ---- clock -------------------------------------------------------------------------------

// Whole seconds of the monotonic clock: the one time source for every expiry in the daemon.
uint32_t dputl_get_current_time();

// Tests drive the clock: a non-null source replaces the monotonic clock, null restores it.
using dputl_time_source = uint32_t (*)();
void dputl_set_time_source(dputl_time_source source);

// True when time t is due at now: their signed 32-bit difference is below 1.
inline bool dputl_time_due(uint32_t t, uint32_t now) {
    return static_cast<int32_t>(t - now) < 1;
}

// ---- transaction ids ---------------------------------------------------------------------

// Next 16-bit id towards the servers: incremented before use, never 0; the first is 1. In
// hardened mode the id is drawn at random instead, never 0 and never one that the in-use check
// reports (a pending query or probe).
uint16_t dputl_get_next_transaction_id();
// Sets the counter (tests of the wrap-around).
void dputl_set_transaction_id(uint16_t value);
using dputl_id_in_use = bool (*)(uint16_t id);
void dputl_set_id_in_use(dputl_id_in_use check);

// ---- randomness --------------------------------------------------------------------------

// Unpredictable numbers from the kernel's random source, fetched in batches so that a draw on the
// packet path makes no system call of its own.
uint32_t dputl_random32();

// ---- action timer list -------------------------------------------------------------------

struct acb;
using dputl_start_cb = void (*)(void* parm, acb* listhead);
using dputl_action_cb = void (*)(void* parm);

// One periodic action. Owned by its user (usually a static object); the list only links it.
struct acb {
    acb* prev;
    acb* next;
    int32_t maxTimes; // tries after which the action ends; 0 = never
    uint32_t period;  // seconds between tries
    void* parm;
    dputl_start_cb start_cb;
    dputl_action_cb periodic_cb;
    dputl_action_cb final_cb;
    int32_t triedTimes;
    uint32_t nextExpiryTime;
};

// -1 for a null acb, otherwise 2. An acb already in the list is restarted in place.
int dputl_start_action(acb* action, void* parm);
// -1 for a null acb, -2 when it is not in the list, 1 when removed.
int dputl_stop_action(acb* action);
// Runs every due action once; called by every effective tick.
void dputl_scan_action_list();
// Head of the list (null when empty), for tests and dumps.
acb* dputl_action_list_head();

// ---- interface readers -------------------------------------------------------------------

// IPv4 address / netmask of an interface in network order. 0 on success; -1 when no socket can
// be opened; the ioctl's -1 (with *out set to 0) when the interface has none.
int dputl_get_if_ipv4_addr(const char* ifname, uint32_t* out);
int dputl_get_if_ipv4_netmask(const char* ifname, uint32_t* out);

// ---- texts -------------------------------------------------------------------------------

// Copies src into dst of size bytes: at most size - 1 characters, always terminated (nothing
// for size 0). Returns the characters copied. The packet path's copy: no formatting machinery.
size_t dputl_copy_text(char* dst, size_t size, const char* src);

// ---- table files -----------------------------------------------------------------------------

// One physical line of a text table, kept up to the size the format allows; whatever a longer
// line holds beyond that is read and dropped, never taken as a line of its own.
struct dputl_line {
    char text[1024];
    size_t cap;   // bytes the format allows, with the terminator (at most sizeof text)
    size_t len;   // bytes kept in text
    bool cut;     // the line was longer than the format allows
    bool has_nul; // the line holds a NUL byte: binary garbage, not text
    unsigned no;  // line number, for traces (0 before the first line)
};

// Reads up to and including the next newline. False at end of file with nothing read.
bool dputl_read_line(std::FILE* f, dputl_line* line);
// True when the line was cut and the token (inside text) runs into the cut: it may be truncated.
bool dputl_token_cut(const dputl_line* line, const char* token);

// ---- line splitter -----------------------------------------------------------------------

// Cuts the line at the first CR or LF and splits it in place on delims into exactly n fields;
// extra tokens are ignored. 1 on success, -1 with fewer than n tokens, -2 when a field is empty.
int dputl_split_line(char* line, const char* delims, int n, char** fields);
