#include "ctrl/dp_json.h"

#include <cstdio>
#include <cstring>
#include <iterator>

#include "cache/dpcache.h"
#include "config/dpcfg.h"
#include "ctrl/dp_cli.h"
#include "ctrl/dp_metrics.h"
#include "server/dpsvr.h"

namespace {

// ---- "dnsproxy.features": switches set to the given value ------------------------------------

enum feature_code : uint32_t {
    FEAT_FORCE_REGISTER = 1,
    FEAT_EDNS = 2,
    FEAT_INTERCEPT = 3,
    FEAT_DSLITE = 4,
    FEAT_HARDENED = 5, // an extension: the hardened mode of the upstream side
};

// "ifname" is accepted with these objects but has no effect (code 0 is skipped).
constexpr rjson_key_desc kFeatureKeys[] = {
    {"force_register", FEAT_FORCE_REGISTER, RJSON_VALUE_U32},
    {"edns", FEAT_EDNS, RJSON_VALUE_U32},
    {"intercept", FEAT_INTERCEPT, RJSON_VALUE_U32},
    {"dslite", FEAT_DSLITE, RJSON_VALUE_U32},
    {"hardened", FEAT_HARDENED, RJSON_VALUE_U32},
    {"ifname", 0, RJSON_VALUE_TEXT},
};
constexpr rjson_object_desc kFeatures = rjson_object("dnsproxy.features", kFeatureKeys);

using setter = int (*)(uint32_t);
constexpr setter kFeatureSetters[] = {nullptr,          dpcfg_set_force_register,
                                      dpcfg_set_edns,   dpcfg_set_intercept,
                                      dpcfg_set_dslite, dpcfg_set_hardened_mode};

int apply_features(const json_object* params) {
    rjson_item_area area{};
    const int n = rjson_parse_json_object(params, &kFeatures, &area);
    if (n < 0) return n;
    for (int i = 0; i < n; ++i) {
        const rjson_item& item = area.items[i];
        if (item.code >= 1 && item.code < std::size(kFeatureSetters))
            kFeatureSetters[item.code](item.value);
    }
    return 0;
}

// ---- "dnsproxy.configs": reloads asked for by a non-zero value --------------------------------

enum config_code : uint32_t { CFG_FIRST_WAN_IFNAME = 8 };

constexpr rjson_key_desc kConfigKeys[] = {
    {"system_dns_server", 1, RJSON_VALUE_U32},
    {"ipv4_dns_server", 2, RJSON_VALUE_U32},
    {"ipv6_dns_server", 3, RJSON_VALUE_U32},
    {"ipv4_hsi_dns_server", 4, RJSON_VALUE_U32},
    {"ipv4_iptv_dns_server", 5, RJSON_VALUE_U32},
    {"ipv4_voip_dns_server", 6, RJSON_VALUE_U32},
    {"ipv4_filter_dns_server", 7, RJSON_VALUE_U32},
    {"first_wan_ifname_for_filter_dns", CFG_FIRST_WAN_IFNAME, RJSON_VALUE_TEXT},
    {"d2a", 9, RJSON_VALUE_U32},
    {"d2d", 10, RJSON_VALUE_U32},
    {"hosts", 11, RJSON_VALUE_U32},
    {"name_filter_db", 12, RJSON_VALUE_U32},
    {"dhcp_cond_pool", 13, RJSON_VALUE_U32},
    {"ifname", 0, RJSON_VALUE_TEXT},
};
constexpr rjson_object_desc kConfigs = rjson_object("dnsproxy.configs", kConfigKeys);

using reloader = int (*)();
constexpr reloader kReloaders[] = {
    nullptr,
    dpsvr_load_system_dns_servers,
    dpsvr_load_v4_global_dns_servers,
    dpsvr_load_v6_global_dns_servers,
    dpsvr_load_v4_hsi_dns_servers,
    dpsvr_load_v4_iptv_dns_servers,
    dpsvr_load_v4_voip_dns_servers,
    dpsvr_load_v4_filter_dns_servers,
    nullptr, // the WAN interface name: a text, set below
    dpcache_load_d2a_cache,
    dpcache_load_d2d_cache,
    dpcache_load_hosts_cache,
    dpsvr_load_name_filter_db,
    dpsvr_reload_vci_and_leases,
};

int apply_configs(const json_object* params) {
    rjson_item_area area{};
    const int n = rjson_parse_json_object(params, &kConfigs, &area);
    if (n < 0) return n;
    for (int i = 0; i < n; ++i) {
        const rjson_item& item = area.items[i];
        if (item.code == CFG_FIRST_WAN_IFNAME) {
            if (const char* name = rjson_item_text(&area, &item); name != nullptr)
                dpcfg_set_first_wan_ifname(name);
        } else if (item.code < std::size(kReloaders) && kReloaders[item.code] != nullptr &&
                   item.value != 0) {
            kReloaders[item.code]();
        }
    }
    return 0;
}

// ---- handlers ---------------------------------------------------------------------------------

int msg_reload_config(const json_object* params) {
    return apply_configs(params);
}
int msg_cfg_feature(const json_object* params) {
    return apply_features(params);
}

// "kiv.cli": the operator's terminal and the command line; nothing happens without either.
int msg_cli_cmd(const json_object* params) {
    const char* tty = rjson_get_text(params, "kiv.cli", "tty_name");
    const char* cmd = rjson_get_text(params, "kiv.cli", "cmd");
    if (tty == nullptr || cmd == nullptr) return 0;
    return dp_cli_process(tty, cmd);
}

int api_reload_config(const json_object* params, char*, uint32_t) {
    return apply_configs(params) < 0 ? RJSON_ERR_INVALID : 0;
}

int api_cfg_feature(const json_object* params, char*, uint32_t) {
    return apply_features(params) < 0 ? RJSON_ERR_INVALID : 0;
}

// An extension: the metrics as one object; it takes no params.
int api_metrics(const json_object*, char* result, uint32_t size) {
    if (dp_metrics_json(result, size) >= 0) return 0;
    std::snprintf(result, size, "the metrics do not fit in %u bytes", size);
    return RJSON_ERR_FULL;
}

} // namespace

const rjson_json_message dp_json_messages[DP_JSON_MESSAGES] = {
    {"dp_msg_reload_dnsproxy_config", msg_reload_config},
    {"dp_msg_cfg_dnsproxy_feature", msg_cfg_feature},
    {"kiv_msg_cli_cmd", msg_cli_cmd},
};

const rjson_json_method dp_json_methods[DP_JSON_METHODS] = {
    {"dp_api_reload_dnsproxy_config", api_reload_config},
    {"dp_api_cfg_dnsproxy_feature", api_cfg_feature},
    {"dnsproxy.metrics", api_metrics},
};
