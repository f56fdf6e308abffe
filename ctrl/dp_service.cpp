#include "ctrl/dp_service.h"

#include <cstdio>
#include <cstring>
#include <iterator>

#include "cache/dpcache.h"
#include "config/dpcfg.h"
#include "ctrl/dp_json.h"
#include "main/dpxy.h"
#include "platform/ombus/ombus.h"
#include "platform/rcsd/rcsd.h"
#include "server/dpsvr.h"

namespace {

constexpr const char* kBusName = "orvik.kiv.dnsproxy";
constexpr const char* kApiItf = "orvik.kiv.dnsproxy.itf.api";
constexpr const char* kJsonApiItf = "orvik.kiv.dnsproxy.itf.json.api";

// ---- the binary method interface --------------------------------------------------------------

// One operation per method: a switch taking a value, a reload taking nothing, or the
// name-resolution request taking its 260-byte record.
struct api_operation {
    int (*toggle)(uint32_t);
    int (*load)();
    int (*request)(const uint8_t*, uint32_t);
};

// In dispatch order; the first name that matches wins.
constexpr ombusMethodDesc kApiMethods[] = {
    {"ToggleForceRegister", "u", "u"},  {"ToggleLockNet", "u", "u"},
    {"ToggleDslite", "u", "u"},         {"ToggleIntercept", "u", "u"},
    {"ToggleEDNS", "u", "u"},           {"LoadV4NameServers", "", "u"},
    {"LoadV6NameServers", "", "u"},     {"LoadSystemNameServers", "", "u"},
    {"LoadV4HsiNameServers", "", "u"},  {"LoadV4VoipNameServers", "", "u"},
    {"LoadV4IptvNameServers", "", "u"}, {"LoadD2Acache", "", "u"},
    {"LoadD2Dcache", "", "u"},          {"LoadHostsCache", "", "u"},
    {"LoadNameFilterDB", "", "u"},      {"UpdateCondPool", "", "u"},
    {"HandleQueryRequest", "ay", "u"},
};

// The service record: the operations in the order of kApiMethods.
constexpr api_operation kApiOperations[] = {
    {dpcfg_set_force_register, nullptr, nullptr},
    {dpcfg_set_lock_net, nullptr, nullptr},
    {dpcfg_set_dslite, nullptr, nullptr},
    {dpcfg_set_intercept, nullptr, nullptr},
    {dpcfg_set_edns, nullptr, nullptr},
    {nullptr, dpsvr_load_v4_global_dns_servers, nullptr},
    {nullptr, dpsvr_load_v6_global_dns_servers, nullptr},
    {nullptr, dpsvr_load_system_dns_servers, nullptr},
    {nullptr, dpsvr_load_v4_hsi_dns_servers, nullptr},
    {nullptr, dpsvr_load_v4_voip_dns_servers, nullptr},
    {nullptr, dpsvr_load_v4_iptv_dns_servers, nullptr},
    {nullptr, dpcache_load_d2a_cache, nullptr},
    {nullptr, dpcache_load_d2d_cache, nullptr},
    {nullptr, dpcache_load_hosts_cache, nullptr},
    {nullptr, dpsvr_load_name_filter_db, nullptr},
    {nullptr, dpsvr_reload_vci_and_leases, nullptr},
    {nullptr, nullptr, dpxy_handle_query_request},
};
static_assert(std::size(kApiMethods) == std::size(kApiOperations));

// Runs one operation with the call's argument: false when the argument cannot be read.
bool run_operation(const api_operation& op, ombusParcel* parcel, int* result) {
    if (op.toggle != nullptr) {
        uint32_t value = 0;
        if (ombusParcelReadU32(parcel, &value) != 0) return false;
        *result = op.toggle(value);
    } else if (op.load != nullptr) {
        *result = op.load();
    } else {
        const uint8_t* record = nullptr;
        uint32_t len = 0;
        if (ombusParcelReadBytes(parcel, &record, &len) != 0) return false;
        *result = op.request(record, len);
    }
    return true;
}

int onOrvikKivDnsproxyItfApiDispatch(const void* service, const char* method, ombusParcel* parcel) {
    const auto* ops = static_cast<const api_operation*>(service);
    for (size_t i = 0; i < std::size(kApiMethods); ++i) {
        if (std::strcmp(method, kApiMethods[i].name) != 0) continue;
        int result = 0;
        if (!run_operation(ops[i], parcel, &result)) return -1;
        ombusParcelSetAnswered(parcel);
        ombusParcelWriteU32(parcel, static_cast<uint32_t>(result));
        return 0;
    }
    ombusLogFatalReal(__func__, "unknown message: %s\n", method);
    return -1;
}

// ---- the JSON interface -----------------------------------------------------------------------

struct json_api_service {
    int (*invoke)(const char* request, char* result, uint32_t result_size);
};

constexpr ombusMethodDesc kJsonApiMethods[] = {{"kiv_sync_invoke", "s", "us"}};
constexpr json_api_service kJsonApiService = {rcsd_kiv_sync_invoke};

int onOrvikKivDnsproxyItfJsonApiDispatch(const void* service, const char* method,
                                         ombusParcel* parcel) {
    if (std::strcmp(method, "kiv_sync_invoke") != 0) {
        ombusLogFatalReal(__func__, "unknown message: %s\n", method);
        return -1;
    }
    const char* request = nullptr;
    if (ombusParcelReadString(parcel, &request) != 0) return -1;
    static char result[DP_JSON_RESULT_SIZE]; // only the pages a result fills become resident
    const int status =
        static_cast<const json_api_service*>(service)->invoke(request, result, sizeof result);
    ombusParcelSetAnswered(parcel);
    ombusParcelWriteU32(parcel, static_cast<uint32_t>(status));
    ombusParcelWriteString(parcel, result);
    return 0;
}

// ---- signals ----------------------------------------------------------------------------------

#define DP_SIGNAL_ROW(itf, member, handler, row)                                                   \
    ombusInterestedSignal {                                                                        \
        itf, member, handler, row                                                                  \
    }

const ombusInterestedSignal kSignalTable[] = {
    DP_SIGNAL_ROW("orvik.dhcpd", "dhcpLeaseInfoUpdate", dplog_process_dhcpd_lease_update, 0),
    DP_SIGNAL_ROW("orvik.kiv.dnsproxy.itf.msg", "dpLoadSystemNameServers",
                  dpsvr_process_load_system_dns_servers_signal, 1),
    DP_SIGNAL_ROW("orvik.kiv.dnsproxy.itf.msg", "dpLoadV4NameServers",
                  dpsvr_process_load_v4_dns_servers_signal, 2),
    DP_SIGNAL_ROW("orvik.kiv.dnsproxy.itf.msg", "dpLoadV4FilterNameServers",
                  dpsvr_process_load_v4_filter_dns_servers_signal, 3),
    DP_SIGNAL_ROW("orvik.kiv.dnsproxy.itf.msg", "dpLoadV6NameServers",
                  dpsvr_process_load_v6_dns_servers_signal, 4),
    DP_SIGNAL_ROW("orvik.kiv.dnsproxy.itf.msg", "dpLoadV4HsiNameServers",
                  dpsvr_process_load_v4_hsi_dns_servers_signal, 5),
    DP_SIGNAL_ROW("orvik.kiv.dnsproxy.itf.msg", "dpLoadV4VoipNameServers",
                  dpsvr_process_load_v4_voip_dns_servers_signal, 6),
    DP_SIGNAL_ROW("orvik.kiv.dnsproxy.itf.msg", "dpLoadV4IptvNameServers",
                  dpsvr_process_load_v4_iptv_dns_servers_signal, 7),
    DP_SIGNAL_ROW("orvik.kiv.dnsproxy.itf.msg", "dpLoadD2Acache",
                  dpsvr_process_load_d2a_cache_signal, 8),
    DP_SIGNAL_ROW("orvik.kiv.dnsproxy.itf.msg", "dpLoadD2Dcache",
                  dpsvr_process_load_d2d_cache_signal, 9),
    DP_SIGNAL_ROW("orvik.kiv.dnsproxy.itf.msg", "dpLoadHostsCache",
                  dpsvr_process_load_hosts_cache_signal, 10),
    DP_SIGNAL_ROW("orvik.kiv.dnsproxy.itf.msg", "dpLoadNameFilterDb",
                  dpsvr_process_load_name_filter_db_signal, 11),
    DP_SIGNAL_ROW("orvik.kiv.dnsproxy.itf.msg", "dpDhcpCondPoolUpdate",
                  dpsvr_process_dhcp_cond_pool_update_signal, 12),
    DP_SIGNAL_ROW("orvik.kiv.dnsproxy.itf.msg", "dpDisableForceRegister",
                  dpsvr_process_disable_force_register_signal, 13),
    DP_SIGNAL_ROW("orvik.kiv.dnsproxy.itf.msg", "dpEnableForceRegister",
                  dpsvr_process_enable_force_register_signal, 14),
    DP_SIGNAL_ROW("orvik.kiv.dnsproxy.itf.msg", "dpDisableLockNet", dpsvr_process_disable_lock_net,
                  15),
    DP_SIGNAL_ROW("orvik.kiv.dnsproxy.itf.msg", "dpEnableLockNet", dpsvr_process_enable_lock_net,
                  16),
    DP_SIGNAL_ROW("orvik.kiv.dnsproxy.itf.msg", "dpLoadLockNetWhiteListDb",
                  dpsvr_process_load_lock_net_whitelist_signal, 17),
    DP_SIGNAL_ROW("orvik.kiv.dnsproxy.itf.msg", "dpDisableDslite",
                  dpsvr_process_disable_dslite_signal, 18),
    DP_SIGNAL_ROW("orvik.kiv.dnsproxy.itf.msg", "dpEnableDslite",
                  dpsvr_process_enable_dslite_signal, 19),
    DP_SIGNAL_ROW("orvik.kiv.dnsproxy.itf.msg", "dpDisableRedirect",
                  dpsvr_process_disable_redirect_signal, 20),
    DP_SIGNAL_ROW("orvik.kiv.dnsproxy.itf.msg", "dpEnableRedirect",
                  dpsvr_process_enable_redirect_signal, 21),
    DP_SIGNAL_ROW("orvik.kiv.dnsproxy.itf.msg", "dpLoadFirstIpWanNameForDnsFilter",
                  dpsvr_process_load_first_wan_ifname_for_dns_filter_signal, 22),
    DP_SIGNAL_ROW("orvik.kiv.dnsproxy.itf.json.msg", "kivMessage", rcsd_process_kiv_signal, 23),
};
constexpr int kSignalRows = 24;
static_assert(std::size(kSignalTable) == kSignalRows);

#undef DP_SIGNAL_ROW

// The match rule of each row of the signal table, in the same order.
constexpr const char* kMatchRules[kSignalRows] = {
    "type='signal',interface='orvik.dhcpd',member='dhcpLeaseInfoUpdate'",
    "type='signal',interface='orvik.kiv.dnsproxy.itf.msg',member='dpLoadSystemNameServers'",
    "type='signal',interface='orvik.kiv.dnsproxy.itf.msg',member='dpLoadV4NameServers'",
    "type='signal',interface='orvik.kiv.dnsproxy.itf.msg',member='dpLoadV4FilterNameServers'",
    "type='signal',interface='orvik.kiv.dnsproxy.itf.msg',member='dpLoadV6NameServers'",
    "type='signal',interface='orvik.kiv.dnsproxy.itf.msg',member='dpLoadV4HsiNameServers'",
    "type='signal',interface='orvik.kiv.dnsproxy.itf.msg',member='dpLoadV4VoipNameServers'",
    "type='signal',interface='orvik.kiv.dnsproxy.itf.msg',member='dpLoadV4IptvNameServers'",
    "type='signal',interface='orvik.kiv.dnsproxy.itf.msg',member='dpLoadD2Acache'",
    "type='signal',interface='orvik.kiv.dnsproxy.itf.msg',member='dpLoadD2Dcache'",
    "type='signal',interface='orvik.kiv.dnsproxy.itf.msg',member='dpLoadHostsCache'",
    "type='signal',interface='orvik.kiv.dnsproxy.itf.msg',member='dpLoadNameFilterDb'",
    "type='signal',interface='orvik.kiv.dnsproxy.itf.msg',member='dpDhcpCondPoolUpdate'",
    "type='signal',interface='orvik.kiv.dnsproxy.itf.msg',member='dpDisableForceRegister'",
    "type='signal',interface='orvik.kiv.dnsproxy.itf.msg',member='dpEnableForceRegister'",
    "type='signal',interface='orvik.kiv.dnsproxy.itf.msg',member='dpDisableLockNet'",
    "type='signal',interface='orvik.kiv.dnsproxy.itf.msg',member='dpEnableLockNet'",
    "type='signal',interface='orvik.kiv.dnsproxy.itf.msg',member='dpLoadLockNetWhiteListDb'",
    "type='signal',interface='orvik.kiv.dnsproxy.itf.msg',member='dpDisableDslite'",
    "type='signal',interface='orvik.kiv.dnsproxy.itf.msg',member='dpEnableDslite'",
    "type='signal',interface='orvik.kiv.dnsproxy.itf.msg',member='dpDisableRedirect'",
    "type='signal',interface='orvik.kiv.dnsproxy.itf.msg',member='dpEnableRedirect'",
    "type='signal',interface='orvik.kiv.dnsproxy.itf.msg',member='dpLoadFirstIpWanNameForDnsFilter'",
    "type='signal',interface='orvik.kiv.dnsproxy.itf.json.msg',member='kivMessage'",
};

int add_signal_subscriptions() {
    for (const char* rule : kMatchRules) {
        if (ombusAddInterestedSignal(rule) != OMBUS_OK) return ombus_get_status_value();
    }
    return ombusSetInteresetedSignals(kSignalTable, kSignalRows);
}

void remove_signal_subscriptions() {
    for (const char* rule : kMatchRules)
        ombusRemoveMatch(rule);
}

} // namespace

int dplog_process_dhcpd_lease_update(const char*, const char*, const void* payload,
                                     uint32_t length) {
    if (length != DPXY_LEASE_UPDATE_SIZE || payload == nullptr) {
        std::fprintf(stderr, "%s, parameter mismatched\n", "dplog_process_dhcpd_lease_update");
        return -1;
    }
    return dpxy_update_lease(static_cast<const uint8_t*>(payload));
}

int register_kiv_dnsproxy_service() {
    if (ombusOwnName(kBusName) != OMBUS_OK) {
        ombusLogFatalReal("register_kiv_dnsproxy_service",
                          "failed to request bus name for kiv_dnsproxy service\n");
        return ombus_get_status_value();
    }
    if (ombusRegisterService(kApiItf, kApiOperations, onOrvikKivDnsproxyItfApiDispatch, kApiMethods,
                             static_cast<int>(std::size(kApiMethods))) != OMBUS_OK) {
        ombusLogFatalReal("register_kiv_dnsproxy_service",
                          "failed to register OrvikKivDnsproxyItfApi interface\n");
        return ombus_get_status_value();
    }
    if (ombusRegisterService(kJsonApiItf, &kJsonApiService, onOrvikKivDnsproxyItfJsonApiDispatch,
                             kJsonApiMethods,
                             static_cast<int>(std::size(kJsonApiMethods))) != OMBUS_OK) {
        ombusLogFatalReal("register_kiv_dnsproxy_service",
                          "failed to register OrvikKivDnsproxyItfJsonApi interface\n");
        return ombus_get_status_value();
    }
    ombusDeclareEmittedSignal("orvik.kiv.rgwd.itf.msg", "dnsProxyResponse", "ay");
    return ombus_get_status_value();
}

int start_kiv_dnsproxy_service() {
    int status = register_kiv_dnsproxy_service();
    if (status != OMBUS_OK) {
        ombusLogFatalReal("start_kiv_dnsproxy_service",
                          "failed to register kiv_dnsproxy service\n");
        return status;
    }
    status = add_signal_subscriptions();
    if (status != OMBUS_OK) return status;
    status = ombusMainLoop();
    remove_signal_subscriptions();
    return status;
}
