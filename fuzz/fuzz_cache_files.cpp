// Fuzzes the readers of the table files ("/etc/dns_d2a.conf", the hosts file,
// "/etc/dns_d2d.conf"): each input is written to all three files under a private DNSPROXY_ROOT
// and loaded, then the lists are checked and looked up.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cache/dpcache.h"
#include "config/dpcfg.h"
#include "fuzz_common.h"
#include "main/dputl.h"
#include "platform/kutl/kutl.h"

namespace {

void write_file(const char* fixed, const uint8_t* data, size_t size) {
    FILE* f = std::fopen(kutl_fixed_path(fixed).s, "wb");
    if (f == nullptr) std::abort();
    if (size > 0 && std::fwrite(data, 1, size, f) != size) std::abort();
    std::fclose(f);
}

// Once per process: the private root with the folders of the three files, every table on.
void set_up() {
    static bool done = false;
    if (done) return;
    done = true;
    fuzz_private_root({"/etc", "/var"});
    dpcfg_set_d2a(1);
    dpcfg_set_d2d(1);
    dpcfg_set_local_hosts(1);
}

// What a loaded entry must look like: one token each for name and value, no comment, a line's
// worth at most, and for an address the canonical text of that address.
void check_entry(const cache_entry* e) {
    const size_t name_len = std::strlen(e->name);
    const size_t val_len = std::strlen(e->val);
    if (name_len == 0 || val_len == 0 || name_len > 254 || val_len > 254) __builtin_trap();
    if (e->val != e->name + name_len + 1) __builtin_trap();
    if (e->name[0] == '#' || std::strpbrk(e->name, " \t\r\n") != nullptr) __builtin_trap();
    if (e->expiry != DPCACHE_NEVER_EXPIRES) __builtin_trap();
    if (e->type == DPCACHE_TYPE_D2D) return;
    const int family = e->type == DPCACHE_TYPE_IPV4 ? AF_INET : AF_INET6;
    unsigned char addr[sizeof(struct in6_addr)];
    char text[INET6_ADDRSTRLEN];
    if (inet_pton(family, e->val, addr) != 1) __builtin_trap();
    if (inet_ntop(family, addr, text, sizeof text) == nullptr) __builtin_trap();
    if (std::strcmp(text, e->val) != 0) __builtin_trap();
}

void check_list(const cache_entry* list, uint32_t want_type) {
    const cache_entry* prev = nullptr;
    for (const cache_entry* e = list; e != nullptr; prev = e, e = e->next) {
        if (e->prev != prev) __builtin_trap();
        if (want_type == DPCACHE_TYPE_D2D
                ? e->type != want_type
                : e->type != DPCACHE_TYPE_IPV4 && e->type != DPCACHE_TYPE_IPV6)
            __builtin_trap();
        check_entry(e);
    }
}

// Every address entry answers its own name, and an IPv4 one its own PTR.
void look_up(cache_entry* list) {
    char out[256];
    for (const cache_entry* e = list; e != nullptr; e = e->next) {
        const uint32_t qtype = e->type == DPCACHE_TYPE_IPV4 ? 1 : 28;
        if (dpcache_resolve_name_from_local(qtype, e->name, out, sizeof out) == 0) __builtin_trap();
        if (e->type == DPCACHE_TYPE_IPV4 &&
            dpcache_resolve_name_from_local(12, e->val, out, sizeof out) != 3)
            __builtin_trap();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    set_up();
    write_file("/etc/dns_d2a.conf", data, size);
    write_file("/etc/dns_d2d.conf", data, size);
    write_file(dpcfg_hosts_file(), data, size);

    const int d2a = dpcache_load_d2a_cache();
    const int d2d = dpcache_load_d2d_cache();
    const int hosts = dpcache_load_hosts_cache();
    if (d2a < 0 || d2d < 0 || hosts != d2a) __builtin_trap();
    check_list(dpcache_d2a_list, DPCACHE_TYPE_IPV4);
    check_list(dpcache_hosts_list, DPCACHE_TYPE_IPV4);
    check_list(dpcache_d2d_list, DPCACHE_TYPE_D2D);
    look_up(dpcache_d2a_list);
    char new_name[256];
    for (const cache_entry* e = dpcache_d2d_list; e != nullptr; e = e->next) {
        if (dpcache_find_d2d_name(1, e->name, new_name, sizeof new_name) != 1) __builtin_trap();
    }

    dpcache_reload_all();
    dpcache_purge_all();
    return 0;
}
