// The table files behind D2A, LocalHosts and D2D: one entry per line, "<value> <name>".
#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdio>
#include <cstring>

#include "cache/dpcache.h"
#include "config/dpcfg.h"
#include "ctrl/dp_trace.h"
#include "main/dputl.h"
#include "platform/kutl/kutl.h"

namespace {

constexpr const char* kD2aFile = "/etc/dns_d2a.conf";
constexpr const char* kD2dFile = "/etc/dns_d2d.conf";

// Splits a line into its value (first) and name (second) tokens. A line is skipped when it
// holds a NUL byte, has fewer than two tokens, or either token is a comment. An over-long line
// keeps its two tokens only when the name ends inside the kept part: a name running into the
// cut may be a truncated name, and storing a wrong name is worse than storing none.
bool split_entry_line(dputl_line& line, char** value, char** name) {
    if (line.has_nul) {
        DPCACH_TRACE(DP_DETAIL, "line %u skipped: binary data\n", line.no);
        return false;
    }
    char* fields[2];
    if (dputl_split_line(line.text, " \t", 2, fields) != 1) return false;
    if (fields[0][0] == '#' || fields[1][0] == '#') return false;
    if (dputl_token_cut(&line, fields[1])) {
        DPCACH_TRACE(DP_DETAIL, "line %u skipped: longer than %zu characters\n", line.no,
                     line.cap - 1);
        return false;
    }
    *value = fields[0];
    *name = fields[1];
    return true;
}

// Parses an IPv4 or IPv6 address and writes its canonical text, so that "2001:0DB8::0001" in a
// file answers and reverse-matches as "2001:db8::1". Returns the entry type, or 0 when the text
// is neither (glibc also refuses IPv4 octets with leading zeros, which could be read as octal).
uint32_t canonical_address(const char* text, char* out, size_t outlen) {
    unsigned char addr[sizeof(struct in6_addr)];
    int family = AF_INET;
    uint32_t type = DPCACHE_TYPE_IPV4;
    if (inet_pton(AF_INET, text, addr) != 1) {
        family = AF_INET6;
        type = DPCACHE_TYPE_IPV6;
        if (inet_pton(AF_INET6, text, addr) != 1) return 0;
    }
    if (inet_ntop(family, addr, out, static_cast<socklen_t>(outlen)) == nullptr) return 0;
    return type;
}

// Adds one line of an address file (D2A, hosts). 1 when an entry was added.
int add_address_line(cache_entry** list, dputl_line& line) {
    char *value, *name;
    if (!split_entry_line(line, &value, &name)) return 0;
    char canonical[INET6_ADDRSTRLEN];
    const uint32_t type = canonical_address(value, canonical, sizeof canonical);
    if (type == 0) {
        DPCACH_TRACE(DP_DETAIL, "line %u skipped: bad address %s\n", line.no, value);
        return 0;
    }
    return add_cache(list, name, type, canonical, DPCACHE_NEVER_EXPIRES) >= 0 ? 1 : 0;
}

// Adds one line of the D2D file: the name to ask for instead, then the queried name.
int add_rewrite_line(cache_entry** list, dputl_line& line) {
    char *value, *name;
    if (!split_entry_line(line, &value, &name)) return 0;
    return add_cache(list, name, DPCACHE_TYPE_D2D, value, DPCACHE_NEVER_EXPIRES) >= 0 ? 1 : 0;
}

using line_adder = int (*)(cache_entry** list, dputl_line& line);

// The common loader: purge, read every line, trace (under the name of the loader that called),
// and at the detail level (the level of the loader's own trace, so whoever follows a reload sees
// what it produced) dump the list.
int load_table(const char* loader, cache_entry** list, const char* path, const char* dump_name,
               line_adder add) {
    // 1. The list is rebuilt from scratch; a missing file leaves it empty.
    purge_cache_list(list);
    // 2.
    FILE* const f = std::fopen(path, "r");
    if (f == nullptr) return 0;
    // 3-5. Each line on its own: a bad line is skipped and costs nothing else.
    // The format allows 256 bytes a line with the terminator.
    dputl_line line;
    line.cap = 256;
    line.no = 0;
    uint32_t count = 0;
    while (dputl_read_line(f, &line))
        count += static_cast<uint32_t>(add(list, line));
    std::fclose(f);
    // 6.
    DPCACH_TRACE_AS(loader, DP_DETAIL, "listhead=%p count=%u\n", static_cast<void*>(*list), count);
    if (DP_TRACE_ON(DP_MOD_CACHE, DP_DETAIL)) dpcache_dump_list(dump_name, *list);
    return static_cast<int>(count);
}

} // namespace

int dpcache_load_d2a_cache() {
    return load_table(__func__, &dpcache_d2a_list, kutl_fixed_path(kD2aFile).s, "D2A",
                      add_address_line);
}

int dpcache_load_hosts_cache() {
    return load_table(__func__, &dpcache_hosts_list, kutl_fixed_path(dpcfg_hosts_file()).s,
                      "LocalHosts", add_address_line);
}

int dpcache_load_d2d_cache() {
    return load_table(__func__, &dpcache_d2d_list, kutl_fixed_path(kD2dFile).s, "D2D",
                      add_rewrite_line);
}

void dpcache_reload_all() {
    dpcache_purge_all();
    if (dpcfg_is_d2a_feat_enabled()) dpcache_load_d2a_cache();
    if (dpcfg_is_d2d_feat_enabled()) dpcache_load_d2d_cache();
    if (dpcfg_is_local_hosts_feat_enabled()) dpcache_load_hosts_cache();
}
