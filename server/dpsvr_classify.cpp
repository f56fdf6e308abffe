// Service classification: which server set a client's query goes to. The name filter maps query
// names to services, the VCI table maps DHCP vendor classes to services, and the source-lease
// table (owned here) says which client address holds a lease with which vendor class. The two
// lists are read from their files by dpsvr_classify_files.cpp.
#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "config/dpcfg.h"
#include "ctrl/dp_trace.h"
#include "server/dpsvr.h"
#include "server/dpsvr_internal.h"

namespace {

// The size the per-entry validity trace reports: the part of a record that is read.
constexpr long kLeaseRecordUsed = sizeof(dpsvr_lease_record);

// Bucket: the low 8 bits of the leased address.
src_lease* lease_table[DPSVR_LEASE_BUCKETS];

uint32_t bucket_of(uint32_t yiaddr) {
    return yiaddr & (DPSVR_LEASE_BUCKETS - 1);
}

src_lease* find_lease(uint32_t yiaddr) {
    for (src_lease* l = lease_table[bucket_of(yiaddr)]; l != nullptr; l = l->next) {
        if (l->yiaddr == yiaddr) return l;
    }
    return nullptr;
}

// The IPv4 address of a client: the last four bytes of its (IPv4-mapped) address, host order.
uint32_t client_ipv4(const uint8_t* addr) {
    return static_cast<uint32_t>(addr[12]) << 24 | static_cast<uint32_t>(addr[13]) << 16 |
           static_cast<uint32_t>(addr[14]) << 8 | addr[15];
}

bool all_zero(const uint8_t* bytes, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        if (bytes[i] != 0) return false;
    }
    return true;
}

// An entry's vendor class as text for the traces; bytes after a NUL byte do not show.
void vci_text(const vci_entry* v, char (&out)[sizeof(vci_entry::vci) + 1]) {
    std::memcpy(out, v->vci, v->vciLen);
    out[v->vciLen] = '\0';
}

// ---- name matching ----------------------------------------------------------------------------

// A query name as the filter compares it: at most 256 characters, lower-cased.
struct lowered_name {
    char s[257];
    size_t len;
};

lowered_name lower_qname(const char* qname) {
    lowered_name q;
    q.len = strnlen(qname, sizeof q.s - 1);
    for (size_t i = 0; i < q.len; ++i) {
        const char c = qname[i];
        q.s[i] = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }
    q.s[q.len] = '\0';
    return q;
}

// Only the first occurrence of the pattern is tried, deliberately: a suffix pattern that also
// occurs earlier in the name does not match, and a name must be longer than a prefix pattern
// and differ from a suffix pattern. Each test is traced under the mask function's name.
bool filter_matches(const char* caller, const name_filter* e, const lowered_name& q) {
    DPSERV_TRACE_AS(caller, DP_DETAIL, "qname=%s name=%p name=%s matchMode=%u\n", q.s,
                    static_cast<const void*>(e->name), e->name, e->matchMode);
    const char* at = std::strstr(q.s, e->name);
    if (at == nullptr) return false;
    const size_t plen = std::strlen(e->name);
    switch (e->matchMode) {
    case DPSVR_MATCH_PREFIX:
        return at == q.s && q.len > plen;
    case DPSVR_MATCH_SUFFIX:
        return at != q.s && at + plen == q.s + q.len;
    case DPSVR_MATCH_EXACT:
        return q.len == plen;
    default:
        return false;
    }
}

// ---- the name filter's index --------------------------------------------------------------------
//
// Every entry of the three match modes is hashed by its pattern, a suffix pattern by its text read
// backwards: a query name then finds its candidates with one hash step per character (its
// prefixes, its suffixes, itself), whatever the number of entries, and only the candidates are
// tested the way the list walk tests them. The answer is the first candidate in list order.

struct filter_node {
    const name_filter* entry;
    uint32_t position; // in the list, from 0
    uint32_t hash;
    uint32_t len;
    int32_t next; // next node of the bucket, -1 at the end
};

struct filter_index {
    std::vector<filter_node> nodes;
    std::vector<int32_t> buckets[3]; // by match mode: prefix, suffix, exact
    size_t mask = 0;
};

filter_index filter_idx;

// More candidates than this (a pattern listed very many times) and the list is walked instead.
constexpr size_t kMaxCandidates = 64;

constexpr uint32_t kHashStart = 2166136261u;
uint32_t hash_step(uint32_t h, char c) {
    return (h ^ static_cast<unsigned char>(c)) * 16777619u;
}

uint32_t pattern_hash(const char* s, size_t len, bool backwards) {
    uint32_t h = kHashStart;
    for (size_t i = 0; i < len; ++i)
        h = hash_step(h, backwards ? s[len - 1 - i] : s[i]);
    return h;
}

struct candidates {
    const name_filter* entry[kMaxCandidates];
    uint32_t position[kMaxCandidates];
    size_t n = 0;
    bool overflow = false;
};

// Every node of the mode's bucket with this hash and pattern (of len characters at text).
void collect(const filter_index& idx, uint32_t mode, uint32_t h, const char* text, size_t len,
             const lowered_name& q, candidates* out) {
    for (int32_t i = idx.buckets[mode][h & idx.mask]; i >= 0; i = idx.nodes[i].next) {
        const filter_node& n = idx.nodes[static_cast<size_t>(i)];
        if (n.hash != h || n.len != len || std::memcmp(n.entry->name, text, len) != 0) continue;
        // A suffix counts only as the pattern's first occurrence in the name.
        if (mode == DPSVR_MATCH_SUFFIX && std::strstr(q.s, n.entry->name) != text) continue;
        if (out->n == kMaxCandidates) {
            out->overflow = true;
            return;
        }
        out->entry[out->n] = n.entry;
        out->position[out->n++] = n.position;
    }
}

// The entries that match the name, in list order; false when the index cannot say (none built,
// or too many candidates): the caller walks the list.
bool indexed_matches(const lowered_name& q, candidates* out) {
    const filter_index& idx = filter_idx;
    if (idx.mask == 0 || q.len == 0) return idx.mask != 0;
    uint32_t h = kHashStart;
    for (size_t len = 1; len < q.len; ++len) { // prefixes shorter than the name
        h = hash_step(h, q.s[len - 1]);
        collect(idx, DPSVR_MATCH_PREFIX, h, q.s, len, q, out);
    }
    collect(idx, DPSVR_MATCH_EXACT, hash_step(h, q.s[q.len - 1]), q.s, q.len, q, out);
    h = kHashStart;
    for (size_t at = q.len - 1; at >= 1; --at) { // suffixes not at the start
        h = hash_step(h, q.s[at]);
        collect(idx, DPSVR_MATCH_SUFFIX, h, q.s + at, q.len - at, q, out);
    }
    if (out->overflow) return false;
    // In list order (insertion sort: the candidates are few).
    for (size_t i = 1; i < out->n; ++i) {
        for (size_t j = i; j > 0 && out->position[j - 1] > out->position[j]; --j) {
            std::swap(out->position[j - 1], out->position[j]);
            std::swap(out->entry[j - 1], out->entry[j]);
        }
    }
    return true;
}

// The trace lines of the walk name every entry tested: with them on, the list is walked.
bool use_index() {
    return !DP_TRACE_ON(DP_MOD_SERVER, DP_DETAIL);
}

// The service mask of the client's vendor class: 0 without a lease or a VCI entry for it.
uint16_t source_mask(const char* caller, uint32_t src) {
    const src_lease* lease = find_lease(src);
    if (lease == nullptr) return 0;
    DPSERV_TRACE_AS(caller, DP_DETAIL, "hash=%d yiaddr=0x%08lX found\n",
                    static_cast<int>(bucket_of(src)), static_cast<unsigned long>(src));
    uint16_t mask = 0;
    for (const vci_entry* v = dpsvr_vci_head(); v != nullptr; v = v->next) {
        if (v->vciLen == lease->vciLen && std::memcmp(v->vci, lease->vci, v->vciLen) == 0) {
            mask = v->mask;
            break;
        }
    }
    DPSERV_TRACE_AS(caller, DP_DETAIL, "src_addr=0x%x mask=0x%x\n", src, mask);
    return mask;
}

// ---- set selection ----------------------------------------------------------------------------

int pick(uint32_t index, int code, servset** set) {
    *set = dpsvr_get_server_set(index);
    return code;
}

// OTHER goes to the IPTV set on purpose: that connection carries the service.
int pick_by_mask(uint16_t mask, servset** set) {
    if (mask == DPSVR_SERVICE_VOIP) return pick(DPSVR_V4_VOIP, 3, set);
    if (mask == DPSVR_SERVICE_OTHER) return pick(DPSVR_V4_IPTV, 2, set);
    return pick(DPSVR_V4_HSI, 1, set);
}

// An IPv4 query under global servers: classified by name (and lease) when a forwarding feature
// is on and there is a name, otherwise the Global set.
int pick_global_v4(const dpsvr_select_request* request, const char* name, uint16_t* mask,
                   servset** set) {
    const bool named = name[0] != '\0';
    if (dpcfg_is_vci_explicit_forward_feat_enabled() != 0) {
        if (!named) return pick(DPSVR_V4_GLOBAL, 4, set);
        if (get_service_mask(request->addr, name, mask) < 0) return -2;
        return pick_by_mask(*mask, set);
    }
    if (dpcfg_is_name_filter_forward_enabled() == 0 || !named) return pick(DPSVR_V4_GLOBAL, 4, set);
    get_service_mask_without_ipaddr(name, mask);
    return pick_by_mask(*mask, set);
}

int pick_set(const dpsvr_select_request* request, const char* name, uint16_t* mask, servset** set) {
    const bool global = dpcfg_is_using_global_dns_servers() != 0;
    if (dpcfg_is_dns_filter_enabled() != 0 && request->type == 1 &&
        dpsvr_get_server_set(DPSVR_V4_FILTER)->num >= 1) {
        return pick(DPSVR_V4_FILTER, 8, set);
    }
    if (request->type == 1) {
        return global ? pick_global_v4(request, name, mask, set) : pick(DPSVR_V4_SYSTEM, 6, set);
    }
    if (request->type == 2) {
        return global ? pick(DPSVR_V6_GLOBAL, 5, set) : pick(DPSVR_V6_SYSTEM, 7, set);
    }
    return -5;
}

int select_sets(uint32_t type, dpsvr_select_request* request, servset** set, servset** dflt_set) {
    request->type = type;
    *set = nullptr;
    *dflt_set = nullptr;
    select_default_server_set(request, dflt_set);
    return select_server_set(request, set);
}

// ---- dump -------------------------------------------------------------------------------------

constexpr const char* kEqualsRule = "===========================================================\n";
constexpr const char* kDashRule = "-----------------------------------------------------------\n";

void dump_name_filter() {
    std::fprintf(stderr, "NameFilter DB VciExplicitForwardEnabld=%u\n",
                 dpcfg_is_vci_explicit_forward_feat_enabled());
    std::fputs(kDashRule, stderr);
    for (const name_filter* e = dpsvr_name_filter_head(); e != nullptr; e = e->next) {
        std::fprintf(stderr, "match=%d name=%-20s service=%-8s mask=0x%x\n",
                     static_cast<int>(e->matchMode), e->name, e->service, e->mask);
    }
}

void dump_vci_table() {
    std::fputs("Vci DB\n", stderr);
    std::fputs(kDashRule, stderr);
    for (const vci_entry* v = dpsvr_vci_head(); v != nullptr; v = v->next) {
        std::fprintf(stderr, "IPRANGE=%s-%s\t service=%-20s mask=0x%x L%02d:", v->startStr,
                     v->endStr, v->service, v->mask, static_cast<int>(v->vciLen));
        for (uint32_t i = 0; i < v->vciLen; ++i)
            std::fprintf(stderr, "%02x", v->vci[i]);
        std::fputc('(', stderr);
        for (uint32_t i = 0; i < v->vciLen; ++i)
            std::fputc(v->vci[i] >= 0x20 && v->vci[i] < 0x7F ? v->vci[i] : '.', stderr);
        std::fputs(")\n", stderr);
    }
}

void dump_leases() {
    std::fputs("SrcLease DB\n", stderr);
    std::fputs(kDashRule, stderr);
    for (uint32_t b = 0; b < DPSVR_LEASE_BUCKETS; ++b) {
        for (const src_lease* l = lease_table[b]; l != nullptr; l = l->next) {
            const in_addr net{htonl(l->yiaddr)};
            char dotted[INET_ADDRSTRLEN];
            inet_ntop(AF_INET, &net, dotted, sizeof dotted);
            const uint8_t* m = l->chaddr;
            std::fprintf(stderr, "%3d: %s(%08lX) %02X:%02X:%02X:%02X:%02X:%02X %s\n",
                         static_cast<int>(b), dotted, static_cast<unsigned long>(l->yiaddr), m[0],
                         m[1], m[2], m[3], m[4], m[5], l->vci);
        }
    }
}

} // namespace

// ---- service masks ----------------------------------------------------------------------------

uint16_t dpsvr_get_service_mask_by_name(const char* service) {
    static constexpr struct {
        const char* word;
        uint16_t bit;
    } kWords[] = {
        {"INTERNET", DPSVR_SERVICE_INTERNET},
        {"VOIP", DPSVR_SERVICE_VOIP},
        {"OTHER", DPSVR_SERVICE_OTHER},
        {"TR069", DPSVR_SERVICE_TR069},
    };
    uint16_t mask = 0;
    for (const auto& w : kWords) {
        if (std::strstr(service, w.word) != nullptr) mask |= w.bit;
    }
    return mask;
}

int get_service_mask_without_ipaddr(const char* qname, uint16_t* mask) {
    const lowered_name q = lower_qname(qname);
    const name_filter* e = nullptr;
    candidates found;
    if (use_index() && indexed_matches(q, &found)) {
        e = found.n > 0 ? found.entry[0] : nullptr;
    } else {
        e = dpsvr_name_filter_head();
        while (e != nullptr && !filter_matches(__func__, e, q))
            e = e->next;
    }
    const int matched = e != nullptr ? 1 : 0;
    *mask = matched != 0 ? e->mask : static_cast<uint16_t>(DPSVR_SERVICE_INTERNET);
    DPSERV_TRACE(DP_DETAIL, "qname=%s namemask=0x%x matched=%d\n", q.s, *mask, matched);
    return matched != 0 ? 1 : 2;
}

int get_service_mask(const uint8_t* client_addr, const char* qname, uint16_t* mask) {
    // 1. The source mask of the client's lease.
    const uint32_t src = client_ipv4(client_addr);
    const uint16_t srcmask = source_mask(__func__, src);
    // 2. The first matching entry whose service the client may use decides.
    const lowered_name q = lower_qname(qname);
    bool matched_any = false;
    candidates found;
    const bool indexed = use_index() && indexed_matches(q, &found);
    size_t next = 0;
    for (const name_filter* e = indexed ? nullptr : dpsvr_name_filter_head();
         indexed ? next < found.n : e != nullptr; e = indexed ? e : e->next) {
        if (indexed) e = found.entry[next++];
        const bool matched = indexed || filter_matches(__func__, e, q);
        DPSERV_TRACE(DP_DETAIL, "qname=%s src=0x%x namemask=0x%x srcmask=0x%x matched=%d\n", q.s,
                     src, e->mask, srcmask, matched ? 1 : 0);
        if (!matched) continue;
        // Voice names go to the voice servers even for clients without a known vendor class.
        if (srcmask == 0 && e->mask == DPSVR_SERVICE_VOIP) {
            *mask = DPSVR_SERVICE_VOIP;
            return 1;
        }
        if ((e->mask & srcmask) == e->mask) {
            *mask = e->mask;
            return 1;
        }
        matched_any = true;
    }
    // 3. A name reserved to services the client lacks gets no server; an unlisted name goes to
    // the Internet unless the client's vendor class excludes it.
    *mask = 0;
    if (matched_any) return -2;
    if (srcmask == 0 || (srcmask & DPSVR_SERVICE_INTERNET) != 0) {
        *mask = DPSVR_SERVICE_INTERNET;
        return 2;
    }
    return -2;
}

// ---- set selection ----------------------------------------------------------------------------

int select_server_set(const dpsvr_select_request* request, servset** set) {
    DPSERV_TRACE(DP_DETAIL, "isGlobal=%d type=%d vciExplicitForwardEnabled=%d\n",
                 static_cast<int>(dpcfg_is_using_global_dns_servers()),
                 static_cast<int>(request->type),
                 static_cast<int>(dpcfg_is_vci_explicit_forward_feat_enabled()));
    // The request's name is read as at most 256 characters, terminated here.
    char name[sizeof request->name + 1];
    const size_t len = strnlen(request->name, sizeof request->name);
    std::memcpy(name, request->name, len);
    name[len] = '\0';

    *set = nullptr;
    uint16_t mask = 0;
    const int ret = pick_set(request, name, &mask, set);
    if (ret < 0) *set = nullptr;
    DPSERV_TRACE(DP_DETAIL, "mask=%u qname=%s ret=%d\n", mask, name, ret);
    return ret;
}

int dpsvr_select_v4_server_sets(dpsvr_select_request* request, servset** set, servset** dflt_set) {
    return select_sets(1, request, set, dflt_set);
}

int dpsvr_select_v6_server_sets(dpsvr_select_request* request, servset** set, servset** dflt_set) {
    return select_sets(2, request, set, dflt_set);
}

// ---- source leases ----------------------------------------------------------------------------

int is_lease_valid(uint32_t yiaddr, const char* vci, uint32_t vciLen) {
    for (const vci_entry* v = dpsvr_vci_head(); v != nullptr; v = v->next) {
        if (DP_TRACE_ON(DP_MOD_SERVER, DP_DETAIL)) {
            char text[sizeof(vci_entry::vci) + 1];
            vci_text(v, text);
            DPSERV_TRACE(
                DP_DETAIL, "start=%08lX end=%08lX vci=%s yiaddr=%08lX vci1=%s dhcplease size %ld\n",
                static_cast<unsigned long>(v->startAddr), static_cast<unsigned long>(v->endAddr),
                text, static_cast<unsigned long>(yiaddr), vci, kLeaseRecordUsed);
        }
        // The /24 of the range start decides; the range end is deliberately not consulted.
        if ((v->startAddr ^ yiaddr) < 256 && v->vciLen == vciLen &&
            std::memcmp(v->vci, vci, vciLen) == 0) {
            return 1;
        }
    }
    return 0;
}

int dpsvr_add_src_lease(const dpsvr_lease_record* record) {
    // 1. Unused and empty records carry no lease.
    const uint32_t vci_len = static_cast<uint32_t>(strnlen(record->vci, sizeof record->vci));
    if (record->expires == 0 || vci_len == 0 || all_zero(record->chaddr, sizeof record->chaddr))
        return 0;
    char vci[sizeof record->vci + 1];
    std::memcpy(vci, record->vci, vci_len);
    vci[vci_len] = '\0';
    // 2. Only leases of a vendor class the VCI table knows are kept.
    const uint32_t yiaddr = ntohl(record->yiaddr);
    if (is_lease_valid(yiaddr, vci, vci_len) == 0) return -1;
    // 3. Update the address's lease, or put a new one at the head of its bucket.
    const int hash = static_cast<int>(bucket_of(yiaddr));
    src_lease* lease = find_lease(yiaddr);
    const bool known = lease != nullptr;
    if (!known) {
        lease = static_cast<src_lease*>(std::calloc(1, sizeof(src_lease)));
        if (lease == nullptr) return -2;
        lease->yiaddr = yiaddr;
        lease->next = lease_table[hash];
        lease_table[hash] = lease;
    }
    std::memcpy(lease->chaddr, record->chaddr, sizeof lease->chaddr);
    std::snprintf(lease->vci, sizeof lease->vci, "%s", vci);
    lease->vciLen = vci_len;
    if (known) {
        DPSERV_TRACE(DP_DETAIL, "hash=%d yiaddr=0x%08lX updated\n", hash,
                     static_cast<unsigned long>(yiaddr));
        return 2;
    }
    DPSERV_TRACE(DP_DETAIL, "hash=%d yiaddr=0x%08lX new\n", hash,
                 static_cast<unsigned long>(yiaddr));
    return 1;
}

int dpsvr_delete_src_lease(const dpsvr_lease_record* record) {
    const uint32_t yiaddr = ntohl(record->yiaddr);
    const int hash = static_cast<int>(bucket_of(yiaddr));
    src_lease** link = &lease_table[hash];
    while (*link != nullptr && (*link)->yiaddr != yiaddr)
        link = &(*link)->next;
    if (*link == nullptr) return 0;
    src_lease* gone = *link;
    *link = gone->next;
    std::free(gone);
    DPSERV_TRACE(DP_DETAIL, "hash=%d yiaddr=0x%08lX deleted\n", hash,
                 static_cast<unsigned long>(yiaddr));
    return 1;
}

void dpsvr_purge_src_leases() {
    for (auto& head : lease_table) {
        while (head != nullptr) {
            src_lease* next = head->next;
            std::free(head);
            head = next;
        }
    }
}

const src_lease* dpsvr_find_src_lease(uint32_t yiaddr) {
    return find_lease(yiaddr);
}

uint32_t dpsvr_src_lease_count() {
    uint32_t count = 0;
    for (const src_lease* head : lease_table) {
        for (const src_lease* l = head; l != nullptr; l = l->next)
            ++count;
    }
    return count;
}

// ---- dump -------------------------------------------------------------------------------------

void dpsvr_dump_filter() {
    std::fputs("\nDNS Filter\n", stderr);
    std::fputs(kEqualsRule, stderr);
    dump_name_filter();
    std::fputc('\n', stderr);
    dump_vci_table();
    std::fputs(kEqualsRule, stderr);
    std::fputc('\n', stderr);
    dump_leases();
    std::fputs(kEqualsRule, stderr);
}

void dpsvr_index_name_filter() {
    filter_index idx;
    uint32_t position = 0;
    for (const name_filter* e = dpsvr_name_filter_head(); e != nullptr; e = e->next, ++position) {
        if (e->matchMode > DPSVR_MATCH_EXACT) continue; // never matches
        const size_t len = strnlen(e->name, sizeof e->name);
        idx.nodes.push_back({e, position,
                             pattern_hash(e->name, len, e->matchMode == DPSVR_MATCH_SUFFIX),
                             static_cast<uint32_t>(len), -1});
    }
    size_t n = 16;
    while (n < 2 * idx.nodes.size())
        n *= 2;
    for (auto& b : idx.buckets)
        b.assign(n, -1);
    idx.mask = n - 1;
    for (size_t i = 0; i < idx.nodes.size(); ++i) {
        filter_node& node = idx.nodes[i];
        int32_t& head = idx.buckets[node.entry->matchMode][node.hash & idx.mask];
        node.next = head;
        head = static_cast<int32_t>(i);
    }
    filter_idx = std::move(idx);
}
