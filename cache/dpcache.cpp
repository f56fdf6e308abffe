// The four name lists, their look-ups, the dynamic cache and the cache dump.
#include "cache/dpcache.h"

#include <strings.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "config/dpcfg.h"
#include "ctrl/dp_trace.h"
#include "main/dputl.h"

cache_entry* dpcache_d2a_list = nullptr;
cache_entry* dpcache_hosts_list = nullptr;
cache_entry* dpcache_dyn_list = nullptr;
cache_entry* dpcache_d2d_list = nullptr;
uint32_t dpcache_dyn_count = 0;

namespace {

constexpr uint32_t kQtypeA = 1;
constexpr uint32_t kQtypePtr = 12;
constexpr uint32_t kQtypeAaaa = 28;
constexpr uint32_t kHardenedMaxTtl = 86400; // seconds
dpcache_list_id last_answer_list = DPCACHE_LIST_NONE;

constexpr const char* kEqRule = "===========================================================";
constexpr const char* kDashRule = "-----------------------------------------------------------";

// Trace arguments may be null (find_cache by value has no key); print them the way glibc would
// without relying on it.
const char* text_or_null(const char* s) {
    return s != nullptr ? s : "(null)";
}

bool is_empty(const char* s) {
    return s == nullptr || s[0] == '\0';
}

bool same_text(const char* a, const char* b) {
    return strcasecmp(a, b) == 0;
}

bool contains_webgui_name(const char* key) {
    return strcasestr(key, DPCFG_WEBGUI_HOST_NAME) != nullptr;
}

// A file entry never goes stale; any other is stale once its expiry is due.
bool is_stale(const cache_entry* e, uint32_t now) {
    return e->expiry != DPCACHE_NEVER_EXPIRES && dputl_time_due(e->expiry, now);
}

bool is_in_list(const cache_entry* list, const cache_entry* entry) {
    for (const cache_entry* e = list; e != nullptr; e = e->next) {
        if (e == entry) return true;
    }
    return false;
}

void unlink_entry(cache_entry** list, cache_entry* entry) {
    if (entry->prev != nullptr) entry->prev->next = entry->next;
    if (entry->next != nullptr) entry->next->prev = entry->prev;
    if (*list == entry) *list = entry->next;
}

// The rules of find_cache for one entry, in order.
bool entry_matches(const cache_entry* e, const char* key, uint32_t type, const char* val) {
    // 1. The key itself.
    if (key != nullptr && e->type == type && same_text(e->name, key)) return true;
    // 2. The web-GUI entry answers every name that contains the web-GUI host name, so that any
    //    sub-name typed into a browser reaches the gateway's own page.
    if (same_text(e->name, DPCFG_WEBGUI_HOST_NAME)) {
        if (e->type != type) return false;
        if (key != nullptr && contains_webgui_name(key)) return true;
        if (val == nullptr) return false;
    } else if (val == nullptr || e->type != type) {
        // 3. Any other entry is only matched by value.
        return false;
    }
    // 4. Reverse look-up by value.
    return same_text(e->val, val);
}

// ---- the index beside each of the four lists --------------------------------------------------
//
// The lists keep the defined order (newest first) for the dumps and the find rules; beside each,
// a hash index by (name, type) and by (value, type), both without regard to case, and the chain
// of the web-GUI host name's own entries, answer find_cache without walking the list: among the
// entries that satisfy a rule, the one nearest the head is the one added last.

struct index_link {
    index_link* next;
    uint32_t hash;
};

struct list_index;

// What an entry carries for the index, in its own allocation, right before the record.
struct entry_extra {
    list_index* owner; // the indexed list the entry is in; null for any other list
    uint64_t seq;      // order of addition: the larger, the nearer the list's head
    index_link by_name;
    index_link by_val;
    index_link webgui;
};
static_assert(sizeof(entry_extra) % alignof(cache_entry) == 0);

struct list_index {
    cache_entry** list;
    index_link** names;
    index_link** vals;
    size_t nbuckets;
    size_t count;
    index_link* webgui;
    bool walked; // the index could not grow (no memory): the list is walked until purged
};

constexpr size_t kMinBuckets = 64;

list_index indexes[] = {{&dpcache_d2a_list, nullptr, nullptr, 0, 0, nullptr, false},
                        {&dpcache_hosts_list, nullptr, nullptr, 0, 0, nullptr, false},
                        {&dpcache_dyn_list, nullptr, nullptr, 0, 0, nullptr, false},
                        {&dpcache_d2d_list, nullptr, nullptr, 0, 0, nullptr, false}};
uint64_t next_seq = 0;

entry_extra* extra_of(const cache_entry* e) {
    return reinterpret_cast<entry_extra*>(
        const_cast<char*>(reinterpret_cast<const char*>(e) - sizeof(entry_extra)));
}

// The entry of a chain link, the link being the member at offset at of the entry's extra.
template <size_t at>
cache_entry* entry_of(index_link* l) {
    auto* x = reinterpret_cast<entry_extra*>(reinterpret_cast<char*>(l) - at);
    return reinterpret_cast<cache_entry*>(x + 1);
}

// FNV-1a over the text's letters in lower case, mixed with the type.
uint32_t text_hash(const char* s, uint32_t type) {
    uint32_t h = 2166136261u;
    for (; *s != '\0'; ++s) {
        const auto c = static_cast<unsigned char>(*s);
        h = (h ^ (c >= 'A' && c <= 'Z' ? c | 0x20u : c)) * 16777619u;
    }
    return h ^ (type * 0x9E3779B1u);
}

list_index* index_of_list(cache_entry** list) {
    for (auto& idx : indexes) {
        if (idx.list == list) return &idx;
    }
    return nullptr;
}

// The index of the list whose head this is; null for an empty or unindexed list.
list_index* index_of_head(const cache_entry* head) {
    for (auto& idx : indexes) {
        if (head != nullptr && *idx.list == head) return &idx;
    }
    return nullptr;
}

void push(index_link** bucket, index_link* l, uint32_t hash) {
    l->hash = hash;
    l->next = *bucket;
    *bucket = l;
}

void unchain(index_link** bucket, const index_link* l) {
    for (index_link** at = bucket; *at != nullptr; at = &(*at)->next) {
        if (*at == l) {
            *at = l->next;
            return;
        }
    }
}

void chain_entry(list_index& idx, cache_entry* e) {
    entry_extra* x = extra_of(e);
    const size_t mask = idx.nbuckets - 1;
    const uint32_t hn = text_hash(e->name, e->type);
    const uint32_t hv = text_hash(e->val, e->type);
    push(&idx.names[hn & mask], &x->by_name, hn);
    push(&idx.vals[hv & mask], &x->by_val, hv);
    if (same_text(e->name, DPCFG_WEBGUI_HOST_NAME)) push(&idx.webgui, &x->webgui, 0);
}

// Bucket arrays of n entries each (a power of two), every indexed entry chained again. False
// when there is no memory: the index then stays as it was.
bool rebuild(list_index& idx, size_t n) {
    auto** names = static_cast<index_link**>(std::calloc(n, sizeof(index_link*)));
    auto** vals = static_cast<index_link**>(std::calloc(n, sizeof(index_link*)));
    if (names == nullptr || vals == nullptr) {
        std::free(names);
        std::free(vals);
        return false;
    }
    std::free(idx.names);
    std::free(idx.vals);
    idx.names = names;
    idx.vals = vals;
    idx.nbuckets = n;
    idx.webgui = nullptr;
    // Chained oldest first, so that each chain keeps the newest entry in front.
    cache_entry* last = *idx.list;
    while (last != nullptr && last->next != nullptr)
        last = last->next;
    for (cache_entry* e = last; e != nullptr; e = e->prev) {
        if (extra_of(e)->owner == &idx) chain_entry(idx, e);
    }
    return true;
}

// An entry just linked at the head of an indexed list. Without memory for the index the list
// goes on unindexed (find_cache walks it).
void index_insert(list_index& idx, cache_entry* e) {
    if (idx.walked) return;
    if (idx.count + 1 > idx.nbuckets && !rebuild(idx, std::max(kMinBuckets, 2 * idx.nbuckets))) {
        idx.walked = true;
        return;
    }
    entry_extra* x = extra_of(e);
    x->owner = &idx;
    x->seq = ++next_seq;
    chain_entry(idx, e);
    idx.count++;
}

void index_remove(list_index& idx, cache_entry* e) {
    entry_extra* x = extra_of(e);
    const size_t mask = idx.nbuckets - 1;
    unchain(&idx.names[x->by_name.hash & mask], &x->by_name);
    unchain(&idx.vals[x->by_val.hash & mask], &x->by_val);
    unchain(&idx.webgui, &x->webgui);
    x->owner = nullptr;
    idx.count--;
}

void index_clear(list_index& idx) {
    std::free(idx.names);
    std::free(idx.vals);
    idx.names = idx.vals = nullptr;
    idx.nbuckets = idx.count = 0;
    idx.webgui = nullptr;
    idx.walked = false;
}

// find_cache's rules through the index: the newest entry that satisfies any of them.
cache_entry* find_indexed(const list_index& idx, const char* key, uint32_t type, const char* val) {
    cache_entry* best = nullptr;
    auto consider = [&](cache_entry* e) {
        if (best == nullptr || extra_of(e)->seq > extra_of(best)->seq) best = e;
    };
    const size_t mask = idx.nbuckets - 1;
    if (key != nullptr) {
        const uint32_t h = text_hash(key, type);
        for (index_link* l = idx.names[h & mask]; l != nullptr; l = l->next) {
            cache_entry* e = entry_of<offsetof(entry_extra, by_name)>(l);
            if (l->hash == h && e->type == type && same_text(e->name, key)) consider(e);
        }
        if (idx.webgui != nullptr && contains_webgui_name(key)) {
            for (index_link* l = idx.webgui; l != nullptr; l = l->next) {
                cache_entry* e = entry_of<offsetof(entry_extra, webgui)>(l);
                if (e->type == type) consider(e);
            }
        }
    }
    if (val != nullptr) {
        const uint32_t h = text_hash(val, type);
        for (index_link* l = idx.vals[h & mask]; l != nullptr; l = l->next) {
            cache_entry* e = entry_of<offsetof(entry_extra, by_val)>(l);
            if (l->hash == h && e->type == type && same_text(e->val, val)) consider(e);
        }
    }
    return best;
}

cache_entry* new_entry(const char* key, uint32_t type, const char* val, uint32_t expiry) {
    const size_t key_len = std::strlen(key);
    const size_t val_len = std::strlen(val);
    auto* x = static_cast<entry_extra*>(
        std::malloc(sizeof(entry_extra) + sizeof(cache_entry) + key_len + val_len + 2));
    if (x == nullptr) return nullptr;
    x->owner = nullptr;
    auto* e = reinterpret_cast<cache_entry*>(x + 1);
    e->prev = nullptr;
    e->next = nullptr;
    e->expiry = expiry;
    e->type = type;
    std::memcpy(e->name, key, key_len + 1);
    e->val = e->name + key_len + 1;
    std::memcpy(e->val, val, val_len + 1);
    return e;
}

void free_entry(cache_entry* e) {
    std::free(extra_of(e));
}

void link_at_head(cache_entry** list, cache_entry* e) {
    e->next = *list;
    if (*list != nullptr) (*list)->prev = e;
    *list = e;
}

// Copies at most dstlen - 1 characters and terminates; dstlen 0 copies nothing.
void copy_answer(char* dst, size_t dstlen, const char* text) {
    if (dst == nullptr) return;
    dputl_copy_text(dst, dstlen, text);
}

// Removes every stale dynamic entry; returns how many.
uint32_t remove_stale_dyn_entries(uint32_t now) {
    uint32_t removed = 0;
    for (cache_entry* e = dpcache_dyn_list; e != nullptr;) {
        cache_entry* const next = e->next;
        // Raw due test: a dynamic entry has no "never", so even that value ages out here.
        if (dputl_time_due(e->expiry, now) && remove_cache(&dpcache_dyn_list, e) == 1) ++removed;
        e = next;
    }
    return removed;
}

} // namespace

cache_entry* find_cache(cache_entry* list, const char* key, uint32_t type, const char* val) {
    cache_entry* found = nullptr;
    if (const list_index* idx = index_of_head(list);
        idx != nullptr && idx->nbuckets != 0 && !idx->walked) {
        found = find_indexed(*idx, key, type, val);
    } else {
        for (cache_entry* e = list; e != nullptr; e = e->next) {
            if (entry_matches(e, key, type, val)) {
                found = e;
                break;
            }
        }
    }
    DPCACH_TRACE(DP_DETAIL, "list=%p key=%s type=%u val=%s ret_entry=%p\n",
                 static_cast<void*>(list), text_or_null(key), type, text_or_null(val),
                 static_cast<void*>(found));
    return found;
}

int add_cache(cache_entry** list, const char* key, uint32_t type, const char* val,
              uint32_t expiry) {
    int ret = 1;
    if (list == nullptr || key == nullptr || val == nullptr) {
        ret = -1;
    } else if (key[0] == '\0' || val[0] == '\0') {
        ret = -2;
    } else {
        // A later add for the same name and type replaces the earlier one.
        cache_entry* const old = find_cache(*list, key, type, nullptr);
        if (old != nullptr) remove_cache(list, old);
        cache_entry* const e = new_entry(key, type, val, expiry);
        if (e == nullptr) {
            ret = -4;
        } else {
            link_at_head(list, e);
            if (list_index* idx = index_of_list(list); idx != nullptr) index_insert(*idx, e);
        }
    }
    DPCACH_TRACE(DP_DETAIL, "key=%s type=%u val=%s expiry=%d ret=%d\n", text_or_null(key), type,
                 text_or_null(val), static_cast<int>(expiry), ret);
    return ret;
}

int remove_cache(cache_entry** list, cache_entry* entry) {
    if (list == nullptr || *list == nullptr || entry == nullptr) return -1;
    // Unlinking an entry of another list would corrupt both. An indexed entry knows its list.
    list_index* idx = index_of_list(list);
    list_index* owner = extra_of(entry)->owner;
    if (owner != nullptr ? owner != idx : !is_in_list(*list, entry)) return -1;
    if (owner != nullptr) index_remove(*owner, entry);
    unlink_entry(list, entry);
    free_entry(entry);
    return 1;
}

uint32_t purge_cache_list(cache_entry** list) {
    uint32_t count = 0;
    if (list != nullptr) {
        for (cache_entry* e = *list; e != nullptr;) {
            cache_entry* const next = e->next;
            free_entry(e);
            e = next;
            ++count;
        }
        *list = nullptr;
        if (list_index* idx = index_of_list(list); idx != nullptr) index_clear(*idx);
    }
    DPCACH_TRACE(DP_DETAIL, "%u records are purged\n", count);
    return count;
}

int dpcache_lookup_list(cache_entry** list, uint32_t qtype, const char* key, char* dst,
                        size_t dstlen) {
    if (list == nullptr) return DPCACHE_ANSWER_NONE;
    // 1-4. Pick the entry: PTR by IPv4 value, AAAA and A by name.
    cache_entry* e = nullptr;
    int kind = DPCACHE_ANSWER_NONE;
    if (qtype == kQtypePtr) {
        e = find_cache(*list, nullptr, DPCACHE_TYPE_IPV4, key);
        kind = DPCACHE_ANSWER_PTR;
    } else if (qtype == kQtypeAaaa) {
        e = find_cache(*list, key, DPCACHE_TYPE_IPV6, nullptr);
        kind = DPCACHE_ANSWER_AAAA;
    } else if (qtype == kQtypeA) {
        e = find_cache(*list, key, DPCACHE_TYPE_IPV4, nullptr);
        kind = DPCACHE_ANSWER_A;
    }
    // 5. Nothing, or stale: a stale entry is dropped by the look-up that finds it.
    if (e == nullptr) return DPCACHE_ANSWER_NONE;
    if (is_stale(e, dputl_get_current_time())) {
        remove_cache(list, e);
        return DPCACHE_ANSWER_NONE;
    }
    // 6. Copy the answer: the name for PTR, the value otherwise.
    const char* const answer = kind == DPCACHE_ANSWER_PTR ? e->name : e->val;
    if (is_empty(answer)) return DPCACHE_ANSWER_NONE;
    copy_answer(dst, dstlen, answer);
    return kind;
}

int dpcache_resolve_name_from_local(uint32_t qtype, const char* key, char* dst, size_t dstlen) {
    DPCACH_TRACE(DP_DETAIL, "qtype=%u key=%s\n", qtype, text_or_null(key));
    last_answer_list = DPCACHE_LIST_NONE;
    if (is_empty(key)) return DPCACHE_ANSWER_NONE;
    int ret = DPCACHE_ANSWER_NONE;
    if (dpcfg_is_d2a_feat_enabled()) {
        ret = dpcache_lookup_list(&dpcache_d2a_list, qtype, key, dst, dstlen);
        if (ret != DPCACHE_ANSWER_NONE) last_answer_list = DPCACHE_LIST_D2A;
    }
    if (ret == DPCACHE_ANSWER_NONE && dpcfg_is_local_hosts_feat_enabled()) {
        ret = dpcache_lookup_list(&dpcache_hosts_list, qtype, key, dst, dstlen);
        if (ret != DPCACHE_ANSWER_NONE) last_answer_list = DPCACHE_LIST_HOSTS;
    }
    if (ret == DPCACHE_ANSWER_NONE && dpcfg_is_dyn_cache_feat_enabled()) {
        ret = dpcache_lookup_list(&dpcache_dyn_list, qtype, key, dst, dstlen);
        if (ret != DPCACHE_ANSWER_NONE) last_answer_list = DPCACHE_LIST_DYN;
    }
    return ret;
}

dpcache_list_id dpcache_last_answer_list() {
    return last_answer_list;
}

int dpcache_find_d2d_name(uint32_t qtype, const char* qname, char* new_name, size_t len) {
    if (new_name != nullptr && len > 0) new_name[0] = '\0';
    int ret = 1;
    if (is_empty(qname)) {
        ret = -1;
    } else if (qtype != kQtypeA && qtype != kQtypeAaaa) {
        ret = -2;
    } else {
        // A rewrite never expires: its expiry is not looked at.
        const cache_entry* const e = find_cache(dpcache_d2d_list, qname, DPCACHE_TYPE_D2D, nullptr);
        if (e == nullptr) {
            ret = -3;
        } else if (is_empty(e->val)) {
            ret = -4;
        } else {
            copy_answer(new_name, len, e->val);
        }
    }
    DPCACH_TRACE(DP_DETAIL, "qtype=%u qname=%s ret=%d new_name=%s\n", qtype, text_or_null(qname),
                 ret, new_name != nullptr && len > 0 ? new_name : "");
    return ret;
}

void dpcache_add_dync_cache(uint32_t qtype, const char* name, const char* value, uint32_t ttl) {
    const uint32_t now = dputl_get_current_time();
    // 1. A full cache makes room first.
    const bool was_below = dpcache_dyn_count < DPCACHE_DYN_MAX;
    if (!was_below) {
        uint32_t removed = remove_stale_dyn_entries(now);
        DPCACH_TRACE(DP_DETAIL, "delete %u expired dyn cache record\n", removed);
        // Nothing stale: the head goes, the entry added last. Evicting the newest rather than the
        // oldest is deliberate: it keeps the long-standing entries that the LAN has been using
        // and lets a burst of new names churn one slot.
        if (removed == 0 && remove_cache(&dpcache_dyn_list, dpcache_dyn_list) == 1) removed = 1;
        if (removed <= dpcache_dyn_count) dpcache_dyn_count -= removed;
    }
    // 2. Only A and AAAA answers with a name, a value and a lifetime are kept. A replaced entry
    //    still raises the count: the count may run ahead of the list.
    const bool has_room = was_below || dpcache_dyn_count < DPCACHE_DYN_MAX;
    const bool storable = !is_empty(name) && !is_empty(value) && ttl != 0 &&
                          (qtype == kQtypeA || qtype == kQtypeAaaa);
    if (has_room && storable) {
        const uint32_t type = qtype == kQtypeA ? DPCACHE_TYPE_IPV4 : DPCACHE_TYPE_IPV6;
        // Hardened mode: a forged answer that slipped through poisons the cache for a day at most.
        if (dpcfg_is_hardened_mode_enabled() != 0) ttl = std::min(ttl, kHardenedMaxTtl);
        if (add_cache(&dpcache_dyn_list, name, type, value, now + ttl) >= 0) ++dpcache_dyn_count;
    }
    // 3.
    DPCACH_TRACE(DP_DETAIL, "dnsDynCache=%p count=%d\n", static_cast<void*>(dpcache_dyn_list),
                 static_cast<int>(dpcache_dyn_count));
}

void dpcache_purge_all() {
    purge_cache_list(&dpcache_d2a_list);
    purge_cache_list(&dpcache_d2d_list);
    purge_cache_list(&dpcache_hosts_list);
    purge_cache_list(&dpcache_dyn_list);
    dpcache_dyn_count = 0;
}

void dpcache_dump_list(const char* dump_name, const cache_entry* list) {
    if (list == nullptr) {
        std::fprintf(stderr, "cache list of %s is empty\n", dump_name);
        return;
    }
    std::fprintf(stderr, "cache list of %s\n", dump_name);
    std::fprintf(stderr, "%s\n", kDashRule);
    const uint32_t now = dputl_get_current_time();
    int pos = 1;
    for (const cache_entry* e = list; e != nullptr; e = e->next, ++pos) {
        const int remaining = e->expiry == DPCACHE_NEVER_EXPIRES
                                  ? -1
                                  : static_cast<int>(static_cast<int32_t>(e->expiry - now));
        std::fprintf(stderr, "%2d ID=%p: type=%u expiry=%d name=%s value=%s\n", pos,
                     static_cast<const void*>(e), e->type, remaining, e->name,
                     e->val != nullptr ? e->val : "");
    }
}

void dpcache_dump() {
    std::fprintf(stderr, "\nDNS Cache(currtime=%lu)\n",
                 static_cast<unsigned long>(dputl_get_current_time()));
    std::fprintf(stderr, "%s\n", kEqRule);
    dpcache_dump_list("D2D", dpcache_d2d_list);
    std::fprintf(stderr, "\n");
    dpcache_dump_list("D2A", dpcache_d2a_list);
    std::fprintf(stderr, "\n");
    dpcache_dump_list("LocalHosts", dpcache_hosts_list);
    std::fprintf(stderr, "\n");
    dpcache_dump_list("DynamicCache", dpcache_dyn_list);
    std::fprintf(stderr, "%s\n", kEqRule);
}
