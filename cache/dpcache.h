// The local name tables: domain-to-address (D2A), local hosts, the dynamic cache of upstream
// answers and the domain-to-domain rewrites (D2D), with their look-ups and their files.
//
// Every list is a doubly linked list of cache_entry records owned by this module; new entries go
// to the head. Names and values are compared without regard to case. Results follow the daemon's
// convention: 0 or a positive count or kind on success, a small negative code on failure.
#pragma once

#include <cstddef>
#include <cstdint>

// Entry types.
enum dpcache_type : uint32_t {
    DPCACHE_TYPE_D2D = 1,  // value is the name to ask for instead
    DPCACHE_TYPE_IPV4 = 2, // value is an IPv4 address text
    DPCACHE_TYPE_IPV6 = 3, // value is an IPv6 address text
};

// Answer kinds of the look-ups.
enum dpcache_answer : int {
    DPCACHE_ANSWER_NONE = 0,
    DPCACHE_ANSWER_A = 1,    // an IPv4 address text
    DPCACHE_ANSWER_AAAA = 2, // an IPv6 address text
    DPCACHE_ANSWER_PTR = 3,  // a name
};

// Expiry of an entry that never goes stale (every entry loaded from a file).
inline constexpr uint32_t DPCACHE_NEVER_EXPIRES = 0xFFFFFFFF;

// Size of the dynamic cache: at this count an add first evicts.
inline constexpr uint32_t DPCACHE_DYN_MAX = 50;

// One entry: the record and both strings live in one allocation of
// sizeof(cache_entry) + strlen(name) + 1 + strlen(val) + 1 bytes (on the gateway's 32-bit build
// that is name length + value length + 22). `val` points right behind the name's terminator.
struct cache_entry {
    cache_entry* prev;
    cache_entry* next;
    uint32_t expiry; // monotonic second after which the entry is stale; DPCACHE_NEVER_EXPIRES
    uint32_t type;   // dpcache_type
    char* val;
    char name[]; // the key, NUL-terminated, followed by the value
};

// The list heads (null when empty) and the dynamic cache's count. The count is raised by every
// successful add to the dynamic cache, including one that replaced an entry of the same name
// and type, and lowered only by eviction and dpcache_purge_all: it may run ahead of the list.
extern cache_entry* dpcache_d2a_list;   // "D2A"
extern cache_entry* dpcache_hosts_list; // "LocalHosts"
extern cache_entry* dpcache_dyn_list;   // "DynamicCache"
extern cache_entry* dpcache_d2d_list;   // "D2D"
extern uint32_t dpcache_dyn_count;

// ---- list operations ----------------------------------------------------------------------

// First entry from the head that matches (key or val may be null):
//  - key given, same type and name equal to key;
//  - the web-GUI host name's own entry of the same type answers every key that contains the
//    web-GUI host name, and is otherwise matched by value like any other entry;
//  - any entry of the same type whose value equals val (reverse look-up), when val is given.
cache_entry* find_cache(cache_entry* list, const char* key, uint32_t type, const char* val);

// Adds at the head, replacing the entry find_cache(list, key, type, null) finds.
// 1, or -1 (key or value null), -2 (key or value empty), -4 (no memory).
int add_cache(cache_entry** list, const char* key, uint32_t type, const char* val, uint32_t expiry);

// Unlinks and frees entry. 1, or -1 (null list, empty list, null entry, entry not in the list).
int remove_cache(cache_entry** list, cache_entry* entry);

// Frees every entry of the list; returns how many.
uint32_t purge_cache_list(cache_entry** list);

// ---- look-ups -----------------------------------------------------------------------------

// Answers qtype 1 (A) and 28 (AAAA) by name and qtype 12 (PTR) by IPv4 address text (IPv6
// entries never answer a PTR). Returns the dpcache_answer kind, 0 when there is none; a stale
// entry found is removed and gives 0. The answer text is copied into dst, at most dstlen - 1
// characters and terminated; with dstlen 0 only the kind is returned.
int dpcache_lookup_list(cache_entry** list, uint32_t qtype, const char* key, char* dst,
                        size_t dstlen);

// D2A, then LocalHosts, then DynamicCache, each only when its feature is on; the first answer
// wins. Same results as dpcache_lookup_list.
int dpcache_resolve_name_from_local(uint32_t qtype, const char* key, char* dst, size_t dstlen);
// The list that gave the last answer of dpcache_resolve_name_from_local (the metrics count
// answers by table): DPCACHE_LIST_NONE when it found nothing.
enum dpcache_list_id : int {
    DPCACHE_LIST_NONE,
    DPCACHE_LIST_D2A,
    DPCACHE_LIST_HOSTS,
    DPCACHE_LIST_DYN,
};
dpcache_list_id dpcache_last_answer_list();

// The D2D rewrite of qname for an A or AAAA query, copied into new_name (at most len - 1
// characters). 1, or -1 (empty name), -2 (type not A or AAAA), -3 (no entry), -4 (entry
// without value). new_name is cleared first.
int dpcache_find_d2d_name(uint32_t qtype, const char* qname, char* new_name, size_t len);

// Stores an upstream A (qtype 1) or AAAA (qtype 28) answer for ttl seconds. When the cache holds
// DPCACHE_DYN_MAX entries, stale entries are evicted first, else the newest one (the head).
void dpcache_add_dync_cache(uint32_t qtype, const char* name, const char* value, uint32_t ttl);

// Empties all four lists and sets the dynamic count to 0.
void dpcache_purge_all();

// ---- dumps --------------------------------------------------------------------------------

// The cache dump of the CLI ("view cache") on standard error: D2D, D2A, LocalHosts,
// DynamicCache.
void dpcache_dump();

// One list's section of the dump under its dump name; the loaders use it at debug level.
void dpcache_dump_list(const char* dump_name, const cache_entry* list);

// ---- files --------------------------------------------------------------------------------

// Each loader purges its own list and rebuilds it from its file ("/etc/dns_d2a.conf", the
// configured hosts file, "/etc/dns_d2d.conf"), whatever the feature switches say. Returns the
// number of entries added; a missing file leaves the list empty and returns 0.
int dpcache_load_d2a_cache();
int dpcache_load_hosts_cache();
int dpcache_load_d2d_cache();

// Purges everything (the dynamic cache too), then loads D2A, D2D and the hosts file, each only
// when its feature is on, in that order.
void dpcache_reload_all();
