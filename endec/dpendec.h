// DNS message codec: the header, domain names, the record index of a whole message, and the
// messages the proxy builds itself (error answers, local A/AAAA/PTR answers, A queries, the
// question-name rewrite and its restoration).
//
// Every operation works on one message held in a contiguous buffer with an explicit length and
// never reads or writes outside that message, the caller's fixed-size output fields (names 256,
// address texts 46, rdata 256) or the 2048-byte message buffer of a dns_pkt, whatever the bytes.
// Nothing here allocates. Trace lines go to module "endec" (tag "DPEDC").
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

inline constexpr uint16_t DPENDEC_MSG_SIZE = 2048;  // message buffer of a dns_pkt
inline constexpr uint16_t DPENDEC_NAME_SIZE = 256;  // text and wire names
inline constexpr uint16_t DPENDEC_ADDR_SIZE = 46;   // address texts (INET6_ADDRSTRLEN)
inline constexpr uint16_t DPENDEC_RDATA_SIZE = 256; // rdata kept by dns_rr
inline constexpr uint16_t DPENDEC_HEADER_SIZE = 12;
inline constexpr uint16_t DPENDEC_MAX_AN = 32; // answers kept in the index

// Record types the codec looks at.
inline constexpr uint16_t DPENDEC_TYPE_A = 1;
inline constexpr uint16_t DPENDEC_TYPE_PTR = 12;
inline constexpr uint16_t DPENDEC_TYPE_AAAA = 28;

// Header flag bits the proxy core looks at.
inline constexpr uint16_t DPENDEC_FLAG_QR = 0x8000;
inline constexpr uint16_t DPENDEC_RCODE_MASK = 0x000F;

// The 12-byte DNS header in host byte order.
struct dns_header {
    uint16_t id;
    uint16_t flags;
    uint16_t qdcount;
    uint16_t ancount;
    uint16_t nscount;
    uint16_t arcount;
};

// One entry of the record index of a message.
struct rrinf {
    uint16_t offset;   // of the owner name from the start of the message
    uint16_t rr_len;   // whole record: name + 4 (question) or name + 10 + rdata
    uint16_t name_len; // bytes the owner name occupies in place
    uint16_t type;
};

// The parsed view of one message, filled by dpendec_compose_dns_msg_inf.
struct msginf {
    uint16_t qtype;
    char name[DPENDEC_NAME_SIZE]; // question name, or the PTR target of a PTR answer
    char
        hostaddr[DPENDEC_ADDR_SIZE]; // first usable A/AAAA answer, or the address of a reverse name
    int32_t ttl;                     // of the last examined answer of the question's type
    char d2d[DPENDEC_NAME_SIZE];     // the client's name before a rewrite; kept by the proxy core
    uint16_t offsetof1stanRR;        // first byte after the question section
    uint16_t id;
    uint16_t flags;
    uint16_t qdcount;
    uint16_t ancount;
    uint16_t nscount;
    uint16_t arcount;
    uint16_t qd_num;
    rrinf qd;
    uint16_t an_num;
    rrinf an[DPENDEC_MAX_AN];
    uint16_t ns_num;
    rrinf ns;
    uint16_t ar_num;
    rrinf ar;
};

// One message with its parsed view. The compose operations rewrite buf and len in place.
struct dns_pkt {
    uint16_t len;
    uint8_t buf[DPENDEC_MSG_SIZE];
    msginf inf;
};

// A copy of a packet as far as its message goes, with its parsed view: the backup an edit puts
// back when its result no longer parses.
void dpendec_copy_pkt(dns_pkt* dst, const dns_pkt* src);

// One decoded record. rdlen is the RDLENGTH as received; at most 256 rdata bytes are kept.
struct dns_rr {
    char name[DPENDEC_NAME_SIZE];
    uint16_t type;
    uint16_t rclass;
    int32_t ttl;
    uint16_t rdlen;
    uint8_t rdata[DPENDEC_RDATA_SIZE];
};

// ---- header and names ----------------------------------------------------------------------

// Writes the header big-endian into buf[0..11]. 1, or -1 when len is below 12 (nothing written).
int compose_dns_header(const dns_header* header, uint8_t* buf, uint16_t len);

// Reads the header of a message into host order (the inverse of compose_dns_header).
// 1, or -1 when len is below 12.
int dpendec_read_dns_header(const uint8_t* buf, uint16_t len, dns_header* header);

// Measures the name at dname in place, without following pointers; tail is one past the last
// byte of the message. 0 ends in a zero byte, 1 ends in a pointer; -3 runs past the end,
// -2 label byte 64..191, -1 pointer cut off at the end.
int compute_dname_len(const uint8_t* dname, const uint8_t* tail, uint16_t* dname_len);

// Decodes the name at dname (inside msg) to dotted text, following at most 64 pointers.
// 0, or -1 past the end, -2 label past the end, -3 no room in name, -4 too many pointers,
// -5 pointer cut off at the end, -6 label byte 64..191. On error name holds no usable text.
int dpendec_parse_domain_name(const uint8_t* dname, const uint8_t* msg, uint16_t len, char* name,
                              uint16_t name_len);

// Encodes a dotted text name into wire labels in out (all 256 bytes are cleared first).
// The encoded length, or 0 for a text longer than 254 characters.
int compose_dname(const char* name, uint8_t* out);

// ---- records and message info ----------------------------------------------------------------

// Indexes the record starting at rr. 1, -1 (owner name malformed) or -2 (record runs past the
// end of the message).
int dpendec_compose_dns_rr_inf(const uint8_t* msg, uint16_t len, const uint8_t* rr, int is_question,
                               rrinf* info);

// Decodes the record an index entry describes. 0, -1 owner name not decodable, -2 the entry does
// not fit the message (an entry not made from this message).
int dpendec_parse_dns_rr(const uint8_t* msg, uint16_t len, const rrinf* info, int is_question,
                         dns_rr* rr);

// Validates and indexes a whole message. 1, or: -15 shorter than 12 bytes or no question;
// -1 question malformed; -7 no question indexed; -2 answer or additional record malformed;
// -3 authority record malformed; -8 question name not decodable; -10 an answer of the question's
// type not decodable.
int dpendec_compose_dns_msg_inf(const uint8_t* msg, uint16_t len, msginf* info);

// A buffer of budget + DPENDEC_IPSTRS_SLACK bytes holds any result of dpendec_compose_ipstrs:
// the commas between up to 32 addresses are not charged against the budget.
inline constexpr uint32_t DPENDEC_IPSTRS_SLACK = DPENDEC_MAX_AN;

// Joins the A/AAAA answers of the question's type with commas into out (cleared first) while the
// budget lasts, and reports their lowest TTL (2147483647 when none). Always 1. Never writes
// beyond out, which should hold budget + DPENDEC_IPSTRS_SLACK bytes.
int dpendec_compose_ipstrs(const dns_pkt* pkt, int32_t* ttl, std::span<char> out, uint32_t budget);
// The same for a message held elsewhere than in a dns_pkt (a TCP answer).
int dpendec_compose_ipstrs_in(std::span<const uint8_t> msg, const msginf* info, int32_t* ttl,
                              std::span<char> out, uint32_t budget);

// Debug dumps, written to standard error whatever the masks (callers test their mask).
void dpendec_dump_header(const dns_header* header);
void dpendec_dump_rrinf(const rrinf* info);
void dpendec_dump_dns_rr(const dns_rr* rr);

// ---- composing -----------------------------------------------------------------------------

// Turns a query into an error answer in place: QR and RA set, RCODE replaced. 2, or -2 when len
// is below 12.
int dpendec_compose_error_response(int rcode, uint8_t* buf, uint16_t len);

// Local answers appended to the query's question (header rebuilt, TTL 0, other sections
// dropped). The new length, or -1 (no room) / -3 (AAAA text not an address); on failure the
// packet is unchanged. The packet's msginf must be the one parsed from its message.
int dpendec_compose_a_response(dns_pkt* pkt, const char* hostaddr);
int dpendec_compose_aaaa_response(dns_pkt* pkt, const char* hostaddr);
int dpendec_compose_ptr_response(dns_pkt* pkt, const char* name);

// Builds a recursive A query for name under the transaction id the caller drew. The message
// length, or -1 when buf cannot hold it (nothing written).
int dpendec_compose_query_a(uint8_t* buf, uint16_t len, const char* name, uint16_t id);

// Rewrites the question name of a query (the length is the old length adjusted by the names'
// difference; bytes after the question are cleared). Silently does nothing when the result
// would exceed 1024 bytes or the question index does not fit the message.
void dpendec_replace_qname(dns_pkt* pkt, const char* name);

// Rebuilds a response under the client's question name: header, that name, TYPE and CLASS, and
// the indexed answers of the question's type (owner pointer 0xC0xx redirected to offset 12).
// Answers that would not fit the 2048-byte buffer are left out; an index that does not fit the
// message leaves the packet unchanged.
void dpendec_restore_qname(dns_pkt* pkt, const char* name);
// The same for the *len bytes of a message in area (its capacity), built in scratch (distinct
// from area) and copied back: answers that fit neither are left out.
void dpendec_restore_qname_in(std::span<uint8_t> area, uint16_t* len, const msginf* info,
                              const char* name, std::span<uint8_t> scratch);
