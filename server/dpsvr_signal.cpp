// Reload and toggle signals of other gateway daemons: one handler each, doing one thing. No
// handler looks at a feature switch: files are reloaded even when their feature is off, since
// the look-ups themselves are gated.
#include <cstdio>

#include "cache/dpcache.h"
#include "config/dpcfg.h"
#include "ctrl/dp_trace.h"
#include "server/dpsvr.h"

namespace {
const char* or_null(const char* s) {
    return s != nullptr ? s : "NULL";
}
} // namespace

#define DPSVR_SIGNAL_HANDLER(name, action)                                                         \
    int name(const char* itf, const char* signal, const void*, uint32_t) {                         \
        DPSERV_TRACE(DP_DETAIL, "%s itf=%s signal=%s\n", #name, or_null(itf), or_null(signal));    \
        return (action);                                                                           \
    }

DPSVR_SIGNAL_HANDLER(dpsvr_process_load_system_dns_servers_signal, dpsvr_load_system_dns_servers())
DPSVR_SIGNAL_HANDLER(dpsvr_process_load_v4_dns_servers_signal, dpsvr_load_v4_global_dns_servers())
DPSVR_SIGNAL_HANDLER(dpsvr_process_load_v4_filter_dns_servers_signal,
                     dpsvr_load_v4_filter_dns_servers())
DPSVR_SIGNAL_HANDLER(dpsvr_process_load_v6_dns_servers_signal, dpsvr_load_v6_global_dns_servers())
DPSVR_SIGNAL_HANDLER(dpsvr_process_load_v4_hsi_dns_servers_signal, dpsvr_load_v4_hsi_dns_servers())
DPSVR_SIGNAL_HANDLER(dpsvr_process_load_v4_voip_dns_servers_signal,
                     dpsvr_load_v4_voip_dns_servers())
DPSVR_SIGNAL_HANDLER(dpsvr_process_load_v4_iptv_dns_servers_signal,
                     dpsvr_load_v4_iptv_dns_servers())
DPSVR_SIGNAL_HANDLER(dpsvr_process_load_d2a_cache_signal, dpcache_load_d2a_cache())
DPSVR_SIGNAL_HANDLER(dpsvr_process_load_d2d_cache_signal, dpcache_load_d2d_cache())
DPSVR_SIGNAL_HANDLER(dpsvr_process_load_hosts_cache_signal, dpcache_load_hosts_cache())
DPSVR_SIGNAL_HANDLER(dpsvr_process_load_name_filter_db_signal, dpsvr_load_name_filter_db())
DPSVR_SIGNAL_HANDLER(dpsvr_process_dhcp_cond_pool_update_signal, dpsvr_reload_vci_and_leases())
DPSVR_SIGNAL_HANDLER(dpsvr_process_disable_force_register_signal, dpcfg_set_force_register(0))
DPSVR_SIGNAL_HANDLER(dpsvr_process_enable_force_register_signal, dpcfg_set_force_register(1))
DPSVR_SIGNAL_HANDLER(dpsvr_process_disable_lock_net, dpcfg_set_lock_net(0))
DPSVR_SIGNAL_HANDLER(dpsvr_process_enable_lock_net, dpcfg_set_lock_net(1))
DPSVR_SIGNAL_HANDLER(dpsvr_process_load_lock_net_whitelist_signal, (dpcfg_load_lock_net_stat(), 0))
DPSVR_SIGNAL_HANDLER(dpsvr_process_disable_dslite_signal, dpcfg_set_dslite(0))
DPSVR_SIGNAL_HANDLER(dpsvr_process_enable_dslite_signal, dpcfg_set_dslite(1))
DPSVR_SIGNAL_HANDLER(dpsvr_process_disable_redirect_signal, dpcfg_set_redirect(0))
DPSVR_SIGNAL_HANDLER(dpsvr_process_enable_redirect_signal, dpcfg_set_redirect(1))

#undef DPSVR_SIGNAL_HANDLER

// The DNS filter's first WAN interface name arrives as the signal's text argument.
int dpsvr_process_load_first_wan_ifname_for_dns_filter_signal(const char*, const char*,
                                                              const void* payload,
                                                              uint32_t length) {
    char name[128] = "";
    if (payload != nullptr && length != 0) {
        std::snprintf(name, sizeof name, "%.*s", static_cast<int>(length < 127 ? length : 127),
                      static_cast<const char*>(payload));
    }
    DPSERV_TRACE(DP_DETAIL, "====first wan name is %s\n", name);
    return dpcfg_set_first_wan_ifname(name);
}
