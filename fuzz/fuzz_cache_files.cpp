// The readers of the table files ("/etc/dns_d2a.conf", the hosts file, "/etc/dns_d2d.conf"): each
// input is written to all three files and loaded; every entry must be what one line can give and
// must answer its own look-up.
#include <arpa/inet.h>

#include "cache/dpcache.h"
#include "config/dpcfg.h"
#include "fuzz_common.h"

namespace {

// Name and value one token each, the name no comment, and an address value the canonical text of
// that address.
void check_list(const cache_entry* list, bool d2d) {
    char out[256];
    for (const cache_entry *e = list, *prev = nullptr; e != nullptr; prev = e, e = e->next) {
        FUZZ_CHECK(e->prev == prev && e->expiry == DPCACHE_NEVER_EXPIRES && e->name[0] != '#');
        FUZZ_CHECK(fuzz_is_token(e->name, 254) && fuzz_is_token(e->val, 254));
        FUZZ_CHECK(e->val == e->name + std::strlen(e->name) + 1);
        if (d2d) {
            FUZZ_CHECK(e->type == DPCACHE_TYPE_D2D &&
                       dpcache_find_d2d_name(1, e->name, out, sizeof out) == 1);
            continue;
        }
        FUZZ_CHECK(e->type == DPCACHE_TYPE_IPV4 || e->type == DPCACHE_TYPE_IPV6);
        const bool v4 = e->type == DPCACHE_TYPE_IPV4;
        unsigned char addr[sizeof(in6_addr)];
        FUZZ_CHECK(inet_pton(v4 ? AF_INET : AF_INET6, e->val, addr) == 1);
        FUZZ_CHECK(inet_ntop(v4 ? AF_INET : AF_INET6, addr, out, sizeof out) != nullptr &&
                   std::strcmp(out, e->val) == 0);
        FUZZ_CHECK(dpcache_resolve_name_from_local(v4 ? 1 : 28, e->name, out, sizeof out) != 0);
        if (v4) FUZZ_CHECK(dpcache_resolve_name_from_local(12, e->val, out, sizeof out) == 3);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_set_up({"/etc", "/var"});
    dpcfg_set_d2a(1);
    dpcfg_set_d2d(1);
    dpcfg_set_local_hosts(1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    for (const char* file : {"/etc/dns_d2a.conf", "/etc/dns_d2d.conf", dpcfg_hosts_file()})
        fuzz_write(file, data, size);
    const int d2a = dpcache_load_d2a_cache();
    FUZZ_CHECK(d2a >= 0 && dpcache_load_d2d_cache() >= 0 && dpcache_load_hosts_cache() == d2a);
    check_list(dpcache_d2a_list, false);
    check_list(dpcache_hosts_list, false);
    check_list(dpcache_d2d_list, true);
    dpcache_reload_all();
    dpcache_purge_all();
    return 0;
}
