// The process-wide configuration record: the configuration file, the feature switches and the
// lock-net state. Every other module reads it through the accessors below.
#pragma once

#include <cstdint>

struct dpcfg_config {
    uint32_t is_using_global_dns_servers;
    uint32_t global_dns_server_set_policy;
    uint32_t system_dns_server_set_policy;
    uint32_t is_force_register_enabled;
    uint32_t is_lock_net_enabled;
    uint32_t is_dslite_enabled;
    uint32_t is_redirect_enabled;
    uint32_t is_renew_server_socket_enabled;
    uint32_t is_intercept_enabled;
    uint32_t is_d2d_feat_enabled;
    uint32_t is_d2a_feat_enabled;
    uint32_t is_local_hosts_feat_enabled;
    uint32_t is_dyn_cache_feat_enabled;
    uint32_t is_force_url_feat_enabled;
    uint32_t is_reject_ptr_local_ip_feat_enabled;
    uint32_t is_service_status_detect_feat_enabled;
    uint32_t is_vci_explicit_forward_feat_enabled;
    uint32_t is_edns_enabled;
    uint32_t is_name_filter_forward_enabled;
    uint32_t is_dns_filter_enabled;
    uint32_t server_socket_src_port_start;
    uint32_t server_socket_src_port_end;
    uint32_t send_mode_for_client_response;
    char client_interface_name[128];
    char domain_name[128];
    char config_file[128];
    char hosts_file[128];
    char lock_net_whitelist[1024];
    char first_wan_ifname[128]; // set by the DNS filter's WAN-name signal; no file key
    // Extensions: switched by their own keys, never printed by the configuration dump.
    uint32_t is_hardened_mode_enabled; // EnableHardenedMode, JSON feature "hardened"
    uint32_t is_tcp_enabled;           // EnableTcp: DNS over TCP for clients and upstreams
    char metrics_file[128];            // MetricsFile: where the Prometheus text goes; "" none
};

// Deployment settings, compiled in (listed for operators in docs/).
// The gateway's web-GUI host name: every name containing it is answered from its local entry,
// and an AAAA query for it with no local entry is refused.
inline constexpr char DPCFG_WEBGUI_HOST_NAME[] = "gateway.orvik-router.lan";
static_assert(sizeof DPCFG_WEBGUI_HOST_NAME - 1 == 24, "the web-GUI host name has 24 characters");

// Feature-mask bits of the command line's -f: each set bit switches one feature on.
enum dpcfg_feature_bit : uint32_t {
    DPCFG_FEAT_D2A = 0x001,
    DPCFG_FEAT_D2D = 0x002,
    DPCFG_FEAT_LOCAL_HOSTS = 0x004,
    DPCFG_FEAT_DYN_CACHE = 0x008,
    DPCFG_FEAT_FORCE_URL = 0x010,
    DPCFG_FEAT_REJECT_PTR_LOCAL_IP = 0x020,
    DPCFG_FEAT_VCI_EXPLICIT_FORWARD = 0x040,
    DPCFG_FEAT_EDNS = 0x080,
    DPCFG_FEAT_NAME_FILTER_FORWARD = 0x100,
    DPCFG_FEAT_DNS_FILTER = 0x200,
};

// Start-up load: the whole default record, the lock-net files, then the configuration file
// named by the record (by default "/etc/flipla.conf").
void dpcfg_init();

// Resets the keyed fields to their defaults, then reads the file (falling back to the record's
// own configuration-file path when it cannot be opened).
void dpcfg_load_config_param_from_file(const char* path);

// Switches on the features of a -f mask; clear bits change nothing.
void dpcfg_apply_feature_mask(uint32_t mask);

// Prints the configuration dump ("view config", -P) on standard error.
void dpcfg_dump_config();

// Reads "/configs/lock_net" and, when it exists, the first line of the whitelist file.
void dpcfg_load_lock_net_stat();

// The live record, read-only.
const dpcfg_config& dpcfg_get();

// ---- getters --------------------------------------------------------------------------------
inline uint32_t dpcfg_is_using_global_dns_servers() {
    return dpcfg_get().is_using_global_dns_servers;
}
inline uint32_t dpcfg_global_dns_server_set_policy() {
    return dpcfg_get().global_dns_server_set_policy;
}
inline uint32_t dpcfg_system_dns_server_set_policy() {
    return dpcfg_get().system_dns_server_set_policy;
}
inline uint32_t dpcfg_is_force_register_enabled() {
    return dpcfg_get().is_force_register_enabled;
}
inline uint32_t dpcfg_is_lock_net_enabled() {
    return dpcfg_get().is_lock_net_enabled;
}
inline uint32_t dpcfg_is_dslite_enabled() {
    return dpcfg_get().is_dslite_enabled;
}
inline uint32_t dpcfg_is_redirect_enabled() {
    return dpcfg_get().is_redirect_enabled;
}
inline uint32_t dpcfg_is_renew_server_socket_enabled() {
    return dpcfg_get().is_renew_server_socket_enabled;
}
inline uint32_t dpcfg_is_intercept_enabled() {
    return dpcfg_get().is_intercept_enabled;
}
inline uint32_t dpcfg_is_d2d_feat_enabled() {
    return dpcfg_get().is_d2d_feat_enabled;
}
inline uint32_t dpcfg_is_d2a_feat_enabled() {
    return dpcfg_get().is_d2a_feat_enabled;
}
inline uint32_t dpcfg_is_local_hosts_feat_enabled() {
    return dpcfg_get().is_local_hosts_feat_enabled;
}
inline uint32_t dpcfg_is_dyn_cache_feat_enabled() {
    return dpcfg_get().is_dyn_cache_feat_enabled;
}
inline uint32_t dpcfg_is_force_url_feat_enabled() {
    return dpcfg_get().is_force_url_feat_enabled;
}
inline uint32_t dpcfg_is_reject_ptr_local_ip_feat_enabled() {
    return dpcfg_get().is_reject_ptr_local_ip_feat_enabled;
}
inline uint32_t dpcfg_is_service_status_detect_feat_enabled() {
    return dpcfg_get().is_service_status_detect_feat_enabled;
}
inline uint32_t dpcfg_is_vci_explicit_forward_feat_enabled() {
    return dpcfg_get().is_vci_explicit_forward_feat_enabled;
}
inline uint32_t dpcfg_is_edns_enabled() {
    return dpcfg_get().is_edns_enabled;
}
inline uint32_t dpcfg_is_name_filter_forward_enabled() {
    return dpcfg_get().is_name_filter_forward_enabled;
}
inline uint32_t dpcfg_is_dns_filter_enabled() {
    return dpcfg_get().is_dns_filter_enabled;
}
inline uint32_t dpcfg_server_socket_src_port_start() {
    return dpcfg_get().server_socket_src_port_start;
}
inline uint32_t dpcfg_server_socket_src_port_end() {
    return dpcfg_get().server_socket_src_port_end;
}
inline uint32_t dpcfg_send_mode_for_client_response() {
    return dpcfg_get().send_mode_for_client_response;
}
inline const char* dpcfg_client_interface_name() {
    return dpcfg_get().client_interface_name;
}
inline const char* dpcfg_domain_name() {
    return dpcfg_get().domain_name;
}
inline const char* dpcfg_config_file() {
    return dpcfg_get().config_file;
}
inline const char* dpcfg_hosts_file() {
    return dpcfg_get().hosts_file;
}
inline const char* dpcfg_lock_net_whitelist() {
    return dpcfg_get().lock_net_whitelist;
}
inline const char* dpcfg_first_wan_ifname() {
    return dpcfg_get().first_wan_ifname;
}
inline uint32_t dpcfg_is_hardened_mode_enabled() {
    return dpcfg_get().is_hardened_mode_enabled;
}
inline uint32_t dpcfg_is_tcp_enabled() {
    return dpcfg_get().is_tcp_enabled;
}
inline const char* dpcfg_metrics_file() {
    return dpcfg_get().metrics_file;
}

// ---- setters: each stores 1 for a non-zero value and 0 otherwise, and returns 0 ------------
int dpcfg_set_using_global_dns_servers(uint32_t on);
int dpcfg_set_service_status_detect(uint32_t on);
int dpcfg_set_force_register(uint32_t on);
int dpcfg_set_lock_net(uint32_t on);
int dpcfg_set_dslite(uint32_t on);
int dpcfg_set_redirect(uint32_t on);
int dpcfg_set_intercept(uint32_t on);
int dpcfg_set_edns(uint32_t on);
int dpcfg_set_d2a(uint32_t on);
int dpcfg_set_d2d(uint32_t on);
int dpcfg_set_local_hosts(uint32_t on);
int dpcfg_set_dyn_cache(uint32_t on);
int dpcfg_set_hardened_mode(uint32_t on);

// Stores the policy of the global server set as given (the command line allows 0, 1 and 2).
int dpcfg_set_global_dns_server_set_policy(uint32_t policy);
// Texts are cut at 127 characters.
int dpcfg_set_domain_name(const char* name);
int dpcfg_set_first_wan_ifname(const char* name);
