#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <strings.h>

#include "config/dpcfg.h"
#include "ctrl/dp_trace.h"
#include "main/dputl.h"
#include "platform/kutl/kutl.h"
#include "server/dpsvr.h"
#include "server/dpsvr_internal.h"

namespace {

constexpr const char* kSystemResolvFile = "/etc/resolv.conf";

enum set_family { V4, V6 };

// The eight sets in table order; the descriptions are eleven characters on purpose.
struct set_row {
    const char* desc;
    set_family family;
    const char* file;
    bool system_policy; // sets 0 and 1 follow the system policy, the others the global one
};
constexpr set_row kSetTable[DPSVR_SET_COUNT] = {
    {"IPv4 System", V4, kSystemResolvFile, true},
    {"IPv6 System", V6, kSystemResolvFile, true},
    {"IPv4 Global", V4, "/etc/dns_resolv_ipv4.conf", false},
    {"IPv6 Global", V6, "/etc/dns_resolv_ipv6.conf", false},
    {"IPv4 HSI   ", V4, "/etc/dns_resolv_ipv4_hsi.conf", false},
    {"IPv4 VOIP  ", V4, "/var/resolv_voip.conf", false},
    {"IPv4 IPTV  ", V4, "/etc/dns_resolv_ipv4_iptv.conf", false},
    {"IPv4 FILTER", V4, "/configs/etc/filter_dns_resolv_ipv4.conf", false},
};

servset sets[DPSVR_SET_COUNT];
servset* set_table[DPSVR_SET_COUNT];

uint32_t policy_of(uint32_t index) {
    return kSetTable[index].system_policy ? dpcfg_system_dns_server_set_policy()
                                          : dpcfg_global_dns_server_set_policy();
}

int load_set(uint32_t index) {
    const set_row& row = kSetTable[index];
    return load_dns_servers(row.family == V4 ? 1 : 0, policy_of(index), row.file, &sets[index]);
}

// Copies a parsed working set into its target: 1 copied, -1 no target, -2 unchanged.
int copy_working_set(const servset& work, servset* target) {
    if (target == nullptr) return -1;
    if (target->num == work.num &&
        std::memcmp(target->servers, work.servers, sizeof(dns_server) * work.num) == 0) {
        return -2;
    }
    std::memcpy(target->servers, work.servers, sizeof target->servers);
    target->num = work.num;
    return 1;
}

// One line of a resolver file: "nameserver <address>" or "domain <name>". A refused address is
// traced under the loader's name.
void parse_resolver_line(const char* loader, char* line, const char* dns_file, servset* v4_work,
                         servset* v6_work) {
    char* tok[2];
    if (dputl_split_line(line, " \t", 2, tok) != 1) return;
    if (tok[0][0] == '#' || tok[1][0] == '#') return;
    if (std::strcmp(tok[0], "nameserver") == 0) {
        const int ret = add_dns_server_to_server_set(tok[1], v4_work, v6_work);
        if (ret != 0) DPSERV_TRACE_AS(loader, DP_DETAIL, "ipstr=%s ret=%d\n", tok[1], ret);
    } else if (std::strcmp(tok[0], "domain") == 0 &&
               std::strcmp(dns_file, kSystemResolvFile) == 0) {
        dpcfg_set_domain_name(tok[1]);
    }
}

void trace_set(const char* loader, const servset* set) {
    DPSERV_TRACE_AS(loader, DP_DETAIL, "%s DNS servers num=%u policy=%u active=%u backup=%u\n",
                    set->desc, set->num, set->policy, set->activeIdx, set->backupIdx);
    for (uint32_t i = 0; i < set->num; ++i) {
        DPSERV_TRACE_AS(loader, DP_DETAIL, "nameserver[%d]: %s UDPMAXPAYLOAD is %d\n",
                        static_cast<int>(i), set->servers[i].addrStr,
                        set->servers[i].udpMaxPayload);
    }
}

} // namespace

void dpsvr_init_server_sets() {
    servset tmpl{};
    std::snprintf(tmpl.desc, sizeof tmpl.desc, "%s", "template dns");
    dpsvr_prepare_monitors(&tmpl);
    for (uint32_t i = 0; i < DPSVR_SET_COUNT; ++i) {
        sets[i] = tmpl;
        std::snprintf(sets[i].desc, sizeof sets[i].desc, "%s", kSetTable[i].desc);
        sets[i].policy = kSetTable[i].system_policy ? 1 : 0;
        sets[i].active.acb.parm = &sets[i];
        sets[i].backup.acb.parm = &sets[i];
        set_table[i] = &sets[i];
    }
    dpsvr_reset_monitor_list();
    dpsvr_purge_src_leases();
}

servset* dpsvr_get_server_set(uint32_t index) {
    return index < DPSVR_SET_COUNT ? set_table[index] : nullptr;
}

int add_dns_server_to_server_set(const char* server_ip, servset* v4_serv_set,
                                 servset* v6_serv_set) {
    char text[46];
    servset* set;
    if (std::strchr(server_ip, '.') != nullptr) {
        std::snprintf(text, sizeof text, "::ffff:%s", server_ip);
        set = v4_serv_set;
    } else if (std::strchr(server_ip, ':') != nullptr) {
        std::snprintf(text, sizeof text, "%s", server_ip);
        set = v6_serv_set;
    } else {
        return -1;
    }
    if (set == nullptr || set->num >= DPSVR_MAX_SERVERS) return -2;
    dns_server& s = set->servers[set->num];
    if (inet_pton(AF_INET6, text, s.addr) != 1) return -3;
    inet_ntop(AF_INET6, s.addr, s.addrStr, sizeof s.addrStr);
    if (std::strcmp(s.addrStr, "::") == 0 || strcasecmp(s.addrStr, "::ffff:0.0.0.0") == 0) {
        std::memset(&s, 0, sizeof s);
        return -5;
    }
    for (uint32_t i = 0; i < set->num; ++i) {
        if (strcasecmp(set->servers[i].addrStr, s.addrStr) == 0) {
            std::memset(&s, 0, sizeof s);
            return -6;
        }
    }
    s.udpMaxPayload = DPSVR_DEFAULT_UDP_PAYLOAD;
    set->num++;
    return 0;
}

int load_server_set_from_file(const char* dns_file, servset* v4_set, servset* v6_set) {
    // Working sets are parsed apart from the live ones, so an unchanged file leaves them alone.
    std::unique_ptr<servset, decltype(&std::free)> v4_work(
        static_cast<servset*>(std::calloc(1, sizeof(servset))), &std::free);
    if (!v4_work) return -2;
    std::unique_ptr<servset, decltype(&std::free)> v6_work(
        static_cast<servset*>(std::calloc(1, sizeof(servset))), &std::free);
    if (!v6_work) return -3;

    if (FILE* f = std::fopen(kutl_fixed_path(dns_file).s, "r"); f != nullptr) {
        char line[256];
        while (std::fgets(line, sizeof line, f) != nullptr)
            parse_resolver_line(__func__, line, dns_file, v4_work.get(), v6_work.get());
        std::fclose(f);
    }
    const int v4_ret = v4_set != nullptr ? copy_working_set(*v4_work, v4_set) : -1;
    const int v6_ret = v6_set != nullptr ? copy_working_set(*v6_work, v6_set) : -1;
    if (v6_ret == 1) return 2;
    if (v4_ret == 1) return 1;
    return -4;
}

int load_dns_servers(int is_v4_serv_set, uint32_t policy, const char* dns_file, servset* set) {
    int is_updated = 0;
    if (set->policy != policy) {
        is_updated = 1;
        set->policy = static_cast<uint8_t>(policy);
    }
    const int ret = is_v4_serv_set != 0 ? load_server_set_from_file(dns_file, set, nullptr)
                                        : load_server_set_from_file(dns_file, nullptr, set);
    if (ret >= 0) is_updated += 2;
    // An unchanged file under an unchanged policy leaves probes and indices as they are.
    if (is_updated != 0) {
        dpsvr_reset_probing(set);
        if (set->num >= 2 && set->policy == 1) dpsvr_join_monitor_list(set);
    }
    DPSERV_TRACE(DP_DETAIL, "is_v4_serv_set=%d policy=%u ret=%d is_updated=%d desc=%s num=%u\n",
                 is_v4_serv_set, static_cast<unsigned>(set->policy), ret, is_updated, set->desc,
                 set->num);
    if (DP_TRACE_ON(DP_MOD_SERVER, DP_DETAIL)) trace_set(__func__, set);
    return set->num;
}

int dpsvr_load_v4_system_dns_servers() {
    return load_set(DPSVR_V4_SYSTEM);
}
int dpsvr_load_v6_system_dns_servers() {
    return load_set(DPSVR_V6_SYSTEM);
}
int dpsvr_load_v4_global_dns_servers() {
    return load_set(DPSVR_V4_GLOBAL);
}
int dpsvr_load_v4_filter_dns_servers() {
    return load_set(DPSVR_V4_FILTER);
}
int dpsvr_load_v6_global_dns_servers() {
    return load_set(DPSVR_V6_GLOBAL);
}
int dpsvr_load_v4_hsi_dns_servers() {
    return load_set(DPSVR_V4_HSI);
}
int dpsvr_load_v4_voip_dns_servers() {
    return load_set(DPSVR_V4_VOIP);
}
int dpsvr_load_v4_iptv_dns_servers() {
    return load_set(DPSVR_V4_IPTV);
}

int dpsvr_load_system_dns_servers() {
    return dpsvr_load_v4_system_dns_servers() + dpsvr_load_v6_system_dns_servers();
}

int dpsvr_load_all_dns_servers() {
    int total = dpsvr_load_v4_system_dns_servers();
    total += dpsvr_load_v6_system_dns_servers();
    total += dpsvr_load_v4_global_dns_servers();
    total += dpsvr_load_v6_global_dns_servers();
    total += dpsvr_load_v4_hsi_dns_servers();
    total += dpsvr_load_v4_iptv_dns_servers();
    total += dpsvr_load_v4_voip_dns_servers();
    return total;
}

void select_default_server_set(const dpsvr_select_request* request, servset** dflt_set) {
    *dflt_set = nullptr;
    if (dpcfg_is_using_global_dns_servers() != 0) {
        if (request->type == 1) *dflt_set = &sets[DPSVR_V4_SYSTEM];
        if (request->type == 2) *dflt_set = &sets[DPSVR_V6_SYSTEM];
    }
    DPSERV_TRACE(DP_DETAIL, "dflt_set=%p\n", static_cast<void*>(*dflt_set));
}

servset* dpsvr_get_hsi_server_set() {
    return &sets[DPSVR_V4_HSI];
}

void dpsvr_set_primary_dns_status(const uint8_t* addr, int32_t active) {
    for (auto& set : sets) {
        if (addr == nullptr || std::memcmp(set.servers[0].addr, addr, 16) == 0)
            set.primaryDnsActive = active;
    }
}

void dpsvr_dump_dns_servers() {
    static constexpr const char* kRule =
        "===========================================================\n";
    std::fputs("\nDNS Servers\n", stderr);
    std::fputs(kRule, stderr);
    for (const auto& set : sets) {
        std::fprintf(stderr, "%s DNS servers num=%u policy=%u active=%u backup=%u\n", set.desc,
                     set.num, set.policy, set.activeIdx, set.backupIdx);
        for (uint32_t i = 0; i < set.num; ++i) {
            std::fprintf(stderr, "nameserver[%d]: %s UDPMAXPAYLOAD is %d\n", static_cast<int>(i),
                         set.servers[i].addrStr, set.servers[i].udpMaxPayload);
        }
    }
    std::fputs(kRule, stderr);
}
