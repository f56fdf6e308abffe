// EDNS handling: inspection and validation of OPT records, the payload checks, and the
// client-MAC option (0xFE31) inserted into queries and stripped from answers.
//
// The OPT functions read the payload size at record offset 3 and RDLENGTH at record offset 9,
// which is right only for the one-byte root owner name that every real OPT record has; a record
// with another owner name is edited at those offsets all the same, inside the record. Every read
// and write stays inside the message length given, and the editing functions stay inside the
// 2048-byte message buffer (DPENDEC_MSG_SIZE) whatever the message holds.
//
// Trace lines use tag "DPMAIN" under the proxy module's mask: entry, exit and "found" lines at
// level pkt, errors at level detail.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "endec/dpendec.h"
#include "io/dpio.h"

inline constexpr uint16_t DPEDNS_TYPE_OPT = 41;
inline constexpr uint16_t DPEDNS_OPT_CLIENT_MAC = 0xFE31;
inline constexpr uint16_t DPEDNS_MAC_TEXT_LEN = 17;        // "02:00:00:00:00:10"
inline constexpr uint16_t DPEDNS_MAC_TEXT_SIZE = 18;       // with its NUL
inline constexpr uint16_t DPEDNS_OPT_RECORD_LEN = 32;      // the OPT record the proxy appends
inline constexpr uint16_t DPEDNS_MAC_OPTION_LEN = 21;      // code, length and the MAC text
inline constexpr uint16_t DPEDNS_MAX_QUERY_LEN = 992;      // largest query that may get options
inline constexpr uint16_t DPEDNS_MAX_OPT_RDLEN = 224;      // largest OPT RDLENGTH of such a query
inline constexpr uint16_t DPEDNS_QUERY_PAYLOAD_CAP = 1024; // payload size of a query we extend

// Where is_edns_option_fe31_present found the option.
struct edns_option_pos {
    uint16_t offset; // of the option's code, from the start of the message
    uint16_t code;
    uint16_t length;
};

// ---- inspection -----------------------------------------------------------------------------

// The first OPT record of the additional section: 0 and its index entry, or -1 (none, no
// additional records, or a malformed record).
int is_edns_present(const uint8_t* msg, uint16_t len, const msginf* info, rrinf* opt);

// Number of OPT records in the additional section; -1 no additional records, -2 a record is
// malformed, -3 a record cannot be decoded.
int get_edns_array_count(const uint8_t* msg, uint16_t len, const msginf* info);

// Looks for option 0xFE31 in the first 256 bytes of the OPT record's RDATA: 0 found (pos
// filled), -1 not found or the record cannot be decoded.
int is_edns_option_fe31_present(const uint8_t* msg, uint16_t len, const rrinf* opt,
                                edns_option_pos* pos);

// Adds 1 to the header's arcount (action 1) or takes 1 from it (action 0). 0, or -1 for a
// message shorter than 12 bytes or an arcount of 0 to decrement (the message is left as it is).
int modify_array_count(uint8_t* msg, uint16_t len, int action);

// 0 when the first OPT record's RDLENGTH is at most 224 (or there are no additional records);
// -1 a record is malformed; -3 RDLENGTH too large.
int is_edns_rd_len_valid(const uint8_t* msg, uint16_t len, const msginf* info);

// Whether a client's query may receive the proxy's EDNS option: 0 yes; -3 longer than 992 bytes
// or an OPT RDLENGTH over 224 (drop silently); -1 more than one OPT record; -2 it carries 0xFE31
// already.
int dpedns_is_valid_edns_rr(const uint8_t* msg, uint16_t len, const msginf* info);

// ---- payload sizes --------------------------------------------------------------------------

// Whether a query may go to a server accepting udpMaxPayload bytes: 0 yes, -1 no. Only a query
// longer than udpMaxPayload whose OPT record advertises a non-zero size is refused; a query
// advertising 0 gets the server's value written into its OPT record and is sent.
int dpedns_check_packet_payload(uint8_t* msg, uint16_t len, uint16_t udpMaxPayload);

// Rewrites a server response's OPT payload size from the smallest udpMaxPayload of all eight
// server sets (4096 when none is smaller): 480 for 0, that value - 32 below 1024, else 992.
// 0, or -1 when the response has no OPT record.
int dpedns_update_edns_payload(uint8_t* msg, uint16_t len, const msginf* info);

// ---- the client-MAC option ------------------------------------------------------------------

// The client's MAC address as text into mac (at least 18 bytes). IPv4 clients (kind 1, address
// in the last 4 bytes) from the kernel's ARP table on "br0", upper case; IPv6 clients (kind 2)
// from the kernel's neighbour table as "ip -6 neigh show" prints it (lower case): from the copy
// of the table kept below, or from a dump of the table over netlink when the copy cannot answer.
// 0 found; -1 not found or not complete. Any other kind returns 0 without writing.
//
// The first IPv6 look-up fills the copy from its dump and subscribes to the kernel's neighbour
// notifications on a netlink socket served by the bus library's loop, which keeps it current.
int dpedns_find_mac(const dp_peer_addr* client, char* mac);

// What dpedns_neigh_next found in one datagram of a neighbour dump.
inline constexpr int DPEDNS_NEIGH_DONE = 0;  // the end of the dump
inline constexpr int DPEDNS_NEIGH_MATCH = 1; // an entry for the address; mac written
inline constexpr int DPEDNS_NEIGH_MORE = 2;  // datagram used up, the dump goes on in the next

// Walks one datagram of the kernel's answer to an IPv6 neighbour dump (RTM_GETNEIGH) from *pos
// to the next entry for addr (16 bytes) that "ip -6 neigh show" lists with a 6-byte link-layer
// address, and writes that address into mac (18 bytes) as the listing prints it
// ("02:00:5e:ab:cd:10"). Messages of another sequence number than seq are passed over. One of
// the results above, or -1 for an error answer or a message running past the datagram.
int dpedns_neigh_next(std::span<const uint8_t> dgram, size_t* pos, uint32_t seq,
                      const uint8_t* addr, char* mac);

// ---- the copy of the neighbour table --------------------------------------------------------

// The IPv6 entries that "ip -6 neigh show" lists with a 6-byte link-layer address, keyed by
// address and interface, in a fixed open-addressing table that is never more than half full.
// DPEDNS_NEIGH_CACHE_MAX is the kernel's default limit of IPv6 neighbours (gc_thresh3); one entry
// more sets overflow, and the copy cannot answer until it is filled anew.
inline constexpr size_t DPEDNS_NEIGH_CACHE_MAX = 1024;
inline constexpr size_t DPEDNS_NEIGH_CACHE_SLOTS = 2 * DPEDNS_NEIGH_CACHE_MAX;

struct dpedns_neigh_slot {
    uint8_t addr[16];
    int32_t ifindex; // 0: a free slot (the kernel numbers interfaces from 1)
    char mac[DPEDNS_MAC_TEXT_SIZE];
};

struct dpedns_neigh_cache {
    uint64_t seed; // of the address hash, so that LAN hosts cannot choose colliding addresses
    uint32_t count;
    bool overflow;
    dpedns_neigh_slot slots[DPEDNS_NEIGH_CACHE_SLOTS];
};

void dpedns_neigh_cache_clear(dpedns_neigh_cache* cache, uint64_t seed);

// Applies one datagram of neighbour messages to the copy: the answer to the dump of sequence
// number *seq, or notifications (seq empty: any sequence number). An RTM_NEWNEIGH that the
// listing shows with a 6-byte address adds or replaces the entry of its address and interface;
// any other RTM_NEWNEIGH and every RTM_DELNEIGH removes it. Proxy entries are a table of their
// own and are passed over. Results as dpedns_neigh_next.
int dpedns_neigh_cache_apply(dpedns_neigh_cache* cache, std::span<const uint8_t> dgram,
                             std::optional<uint32_t> seq);

// The MAC text of addr (16 bytes) into mac (18 bytes): 0 when one entry has the address, -1 when
// none has, DPEDNS_NEIGH_UNSURE when the copy cannot tell: it overflowed, or the address has
// entries on several interfaces (the listing's order, which the copy does not know, decides).
inline constexpr int DPEDNS_NEIGH_UNSURE = 3;
int dpedns_neigh_cache_find(const dpedns_neigh_cache* cache, const uint8_t* addr, char* mac);

// Adds the client's MAC option to a query that dpedns_is_valid_edns_rr accepted. msg is the
// query's 2048-byte buffer holding *len bytes, info its parsed view, backup an untouched copy of
// the packet. Without an OPT record the proxy's own 32-byte record is appended (arcount + 1);
// with one, the 21-byte option goes inside it, its payload size capped at 1024, and *had_opt is
// set to 1. A client whose MAC is unknown leaves the query as it is. info is parsed anew; a
// result that does not parse puts message, length and info back. Always 0.
int dpedns_insert_option41(const dns_pkt* backup, uint8_t* msg, uint16_t* len,
                           const dp_peer_addr* client, msginf* info, int* had_opt);

// The insertion of dpedns_insert_option41 with the MAC text already found (exactly 17
// characters are inserted). 0 inserted; DPEDNS_NOT_INSERTED when it does not fit (the message is
// put back); the parser's negative result when the new message does not parse (put back too).
inline constexpr int DPEDNS_NOT_INSERTED = 1;
int dpedns_insert_mac_option(const dns_pkt* backup, uint8_t* msg, uint16_t* len, const char* mac,
                             msginf* info, int* had_opt);

// Removes the first OPT record from a response to a query the proxy gave its own OPT record
// (arcount - 1), whatever options the server put into it. info is parsed anew; a result that does
// not parse puts message, length and info back from backup. 0, or -1 when there is no OPT
// record.
int dpedns_strip_option41(const dns_pkt* backup, uint8_t* msg, uint16_t* len, msginf* info);
// The same for a message of any length (up to 65,535 bytes) without a backup: the record is
// moved behind the message's new end, and put back from there when the result does not parse.
// Traced as dpedns_strip_option41.
int dpedns_strip_option41_in(uint8_t* msg, uint16_t* len, msginf* info);
