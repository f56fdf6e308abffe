#include "config/dpcfg.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <strings.h>

#include "ctrl/dp_trace.h"
#include "main/dputl.h"
#include "platform/kutl/kutl.h"

namespace {

constexpr dpcfg_config make_defaults() {
    dpcfg_config c{};
    c.system_dns_server_set_policy = 1;
    c.is_renew_server_socket_enabled = 1;
    c.server_socket_src_port_start = 57200;
    c.server_socket_src_port_end = 57300;
    c.send_mode_for_client_response = 1;
    c.is_tcp_enabled = 1;
    const char br0[] = "br0";
    const char home[] = "Home";
    const char conf[] = "/etc/flipla.conf";
    const char hosts[] = "/var/hosts";
    for (size_t i = 0; i < sizeof br0; ++i)
        c.client_interface_name[i] = br0[i];
    for (size_t i = 0; i < sizeof home; ++i)
        c.domain_name[i] = home[i];
    for (size_t i = 0; i < sizeof conf; ++i)
        c.config_file[i] = conf[i];
    for (size_t i = 0; i < sizeof hosts; ++i)
        c.hosts_file[i] = hosts[i];
    return c;
}

constexpr dpcfg_config kDefaults = make_defaults();
dpcfg_config config = kDefaults;

constexpr const char* kLockNetFile = "/configs/lock_net";
constexpr const char* kLockNetWhitelistFile = "/configs/locknet_whitelist.conf";

// ---- key table ------------------------------------------------------------------------------

using key_validator = int (*)(const char* value);
using key_parser = void (*)(const char* value, void* field, size_t width);

struct key_row {
    const char* key;
    size_t offset;
    size_t width;
    key_validator validate; // null: every value is accepted
    key_parser parse;
};

// Only "1", "yes" and "on" switch a feature on; "true" or "enable" switch it off.
void parse_bool(const char* value, void* field, size_t) {
    const uint32_t on = std::strcmp(value, "1") == 0 || strcasecmp(value, "yes") == 0 ||
                        strcasecmp(value, "on") == 0;
    std::memcpy(field, &on, sizeof on);
}

void parse_int(const char* value, void* field, size_t) {
    const uint32_t v = static_cast<uint32_t>(std::atoi(value));
    std::memcpy(field, &v, sizeof v);
}

void parse_text(const char* value, void* field, size_t width) {
    std::snprintf(static_cast<char*>(field), width, "%s", value);
}

int validate_policy(const char* value) {
    return static_cast<unsigned>(std::atoi(value)) < 2 ? 0 : -1;
}

#define DPCFG_KEY(key, field, validate, parse)                                                     \
    key_row {                                                                                      \
#key, offsetof(dpcfg_config, field), sizeof(dpcfg_config::field), validate, parse          \
    }

// Matched in this order; the order is part of the file's meaning only through first match.
constexpr key_row kKeyTable[] = {
    DPCFG_KEY(UsingGlobalDnsServers, is_using_global_dns_servers, nullptr, parse_bool),
    DPCFG_KEY(EnableD2DFeature, is_d2d_feat_enabled, nullptr, parse_bool),
    DPCFG_KEY(EnableD2AFeature, is_d2a_feat_enabled, nullptr, parse_bool),
    DPCFG_KEY(EnableLocalHostsFeature, is_local_hosts_feat_enabled, nullptr, parse_bool),
    DPCFG_KEY(EnableDynCacheFeature, is_dyn_cache_feat_enabled, nullptr, parse_bool),
    DPCFG_KEY(EnableForceUrlFeature, is_force_url_feat_enabled, nullptr, parse_bool),
    DPCFG_KEY(EnableServiceStatusDetectFeature, is_service_status_detect_feat_enabled, nullptr,
              parse_bool),
    DPCFG_KEY(EnableVciExplicitForwardFeature, is_vci_explicit_forward_feat_enabled, nullptr,
              parse_bool),
    DPCFG_KEY(EnableDnsFilter, is_dns_filter_enabled, nullptr, parse_bool),
    DPCFG_KEY(EnableRejectPtrLocalIpFeature, is_reject_ptr_local_ip_feat_enabled, nullptr,
              parse_bool),
    DPCFG_KEY(GlobalDnsServerSetPolicy, global_dns_server_set_policy, validate_policy, parse_int),
    DPCFG_KEY(SystemDnsServerSetPolicy, system_dns_server_set_policy, validate_policy, parse_int),
    DPCFG_KEY(ServerSocketSrcPortStart, server_socket_src_port_start, nullptr, parse_int),
    DPCFG_KEY(ServerSocketSrcPortEnd, server_socket_src_port_end, nullptr, parse_int),
    DPCFG_KEY(SendModeForClientResponse, send_mode_for_client_response, nullptr, parse_int),
    DPCFG_KEY(ClientInterfaceName, client_interface_name, nullptr, parse_text),
    DPCFG_KEY(hosts_file, hosts_file, nullptr, parse_text),
    // Extensions, after the 17 keys of the file's own format.
    DPCFG_KEY(EnableHardenedMode, is_hardened_mode_enabled, nullptr, parse_bool),
    DPCFG_KEY(EnableTcp, is_tcp_enabled, nullptr, parse_bool),
    DPCFG_KEY(MetricsFile, metrics_file, nullptr, parse_text),
};
static_assert(std::size(kKeyTable) == 17 + 3);

#undef DPCFG_KEY

char* field_of(dpcfg_config& c, const key_row& row) {
    return reinterpret_cast<char*>(&c) + row.offset;
}
const char* field_of(const dpcfg_config& c, const key_row& row) {
    return reinterpret_cast<const char*>(&c) + row.offset;
}

void reset_keyed_fields() {
    for (const auto& row : kKeyTable)
        std::memcpy(field_of(config, row), field_of(kDefaults, row), row.width);
}

const key_row* find_key(const char* key) {
    for (const auto& row : kKeyTable) {
        if (strncasecmp(key, row.key, 128) == 0) return &row;
    }
    return nullptr;
}

// The key and value of a line, or false for a line to skip: fewer than two tokens, an empty one,
// or a comment in either place.
bool split_key_value(char* line, const char** key, const char** value) {
    char* fields[2];
    if (dputl_split_line(line, " =", 2, fields) != 1) return false;
    *key = fields[0];
    *value = fields[1];
    return (*key)[0] != '#' && (*value)[0] != '#';
}

void apply_value(const char* key, const char* value) {
    const key_row* row = find_key(key);
    if (row == nullptr) {
        std::fprintf(stderr, "Unkown config option: \"%s\"\n", key);
        return;
    }
    if (row->validate != nullptr && row->validate(value) < 0) return;
    row->parse(value, field_of(config, *row), row->width);
}

uint32_t as_switch(uint32_t on) {
    return on != 0 ? 1 : 0;
}

// Reads the first line of a file into buf (zeroed first); false when the file is missing or
// empty.
bool read_first_line(const char* path, char* buf, size_t size) {
    FILE* f = std::fopen(path, "r");
    if (f == nullptr) return false;
    std::memset(buf, 0, size);
    const bool got = std::fgets(buf, static_cast<int>(size), f) != nullptr;
    std::fclose(f);
    return got;
}

} // namespace

const dpcfg_config& dpcfg_get() {
    return config;
}

void dpcfg_init() {
    config = kDefaults;
    dpcfg_load_lock_net_stat();
    dpcfg_load_config_param_from_file(config.config_file);
}

void dpcfg_load_config_param_from_file(const char* path) {
    reset_keyed_fields();
    kutl_path opened = kutl_fixed_path(path);
    FILE* f = std::fopen(opened.s, "r");
    if (f != nullptr) {
        DPCFG_TRACE(DP_DETAIL, "load config file=%s\n", opened.s);
        if (path != config.config_file)
            std::snprintf(config.config_file, sizeof config.config_file, "%s", path);
    } else {
        opened = kutl_fixed_path(config.config_file);
        f = std::fopen(opened.s, "r");
        if (f == nullptr) {
            DPCFG_TRACE(DP_DETAIL, "no config file\n");
            return;
        }
        DPCFG_TRACE(DP_DETAIL, "load config file=%s\n", opened.s);
    }
    char linebuf[256];
    while (std::fgets(linebuf, sizeof linebuf, f) != nullptr) {
        DPCFG_TRACE(DP_DETAIL, "linebuf=%s\n", linebuf);
        const char* key = nullptr;
        const char* value = nullptr;
        if (!split_key_value(linebuf, &key, &value)) continue;
        DPCFG_TRACE(DP_DETAIL, "parm=%s val=%s\n", key, value);
        apply_value(key, value);
    }
    std::fclose(f);
}

void dpcfg_apply_feature_mask(uint32_t mask) {
    struct bit_field {
        uint32_t bit;
        uint32_t dpcfg_config::*field;
    };
    static constexpr bit_field kBits[] = {
        {DPCFG_FEAT_D2A, &dpcfg_config::is_d2a_feat_enabled},
        {DPCFG_FEAT_D2D, &dpcfg_config::is_d2d_feat_enabled},
        {DPCFG_FEAT_LOCAL_HOSTS, &dpcfg_config::is_local_hosts_feat_enabled},
        {DPCFG_FEAT_DYN_CACHE, &dpcfg_config::is_dyn_cache_feat_enabled},
        {DPCFG_FEAT_FORCE_URL, &dpcfg_config::is_force_url_feat_enabled},
        {DPCFG_FEAT_REJECT_PTR_LOCAL_IP, &dpcfg_config::is_reject_ptr_local_ip_feat_enabled},
        {DPCFG_FEAT_VCI_EXPLICIT_FORWARD, &dpcfg_config::is_vci_explicit_forward_feat_enabled},
        {DPCFG_FEAT_EDNS, &dpcfg_config::is_edns_enabled},
        {DPCFG_FEAT_NAME_FILTER_FORWARD, &dpcfg_config::is_name_filter_forward_enabled},
        {DPCFG_FEAT_DNS_FILTER, &dpcfg_config::is_dns_filter_enabled},
    };
    for (const auto& b : kBits) {
        if ((mask & b.bit) != 0) config.*b.field = 1;
    }
}

void dpcfg_dump_config() {
    static constexpr struct {
        const char* label;
        uint32_t dpcfg_config::*field;
    } kNumbers[] = {
        {"is_using_global_dns_servers", &dpcfg_config::is_using_global_dns_servers},
        {"global_dns_server_set_policy", &dpcfg_config::global_dns_server_set_policy},
        {"system_dns_server_set_policy", &dpcfg_config::system_dns_server_set_policy},
        {"is_force_register_enabled", &dpcfg_config::is_force_register_enabled},
        {"is_dslite_enabled", &dpcfg_config::is_dslite_enabled},
        {"is_intercept_enabled", &dpcfg_config::is_intercept_enabled},
        {"is_d2a_feat_enabled", &dpcfg_config::is_d2a_feat_enabled},
        {"is_d2d_feat_enabled", &dpcfg_config::is_d2d_feat_enabled},
        {"is_local_hosts_feat_enabled", &dpcfg_config::is_local_hosts_feat_enabled},
        {"is_dyn_cache_feat_enabled", &dpcfg_config::is_dyn_cache_feat_enabled},
        {"is_force_url_feat_enabled", &dpcfg_config::is_force_url_feat_enabled},
        {"is_service_status_detect_feat_enabled",
         &dpcfg_config::is_service_status_detect_feat_enabled},
        {"is_reject_ptr_local_ip_feat_enabled", &dpcfg_config::is_reject_ptr_local_ip_feat_enabled},
        {"is_vci_explicit_forward_feat_enabled",
         &dpcfg_config::is_vci_explicit_forward_feat_enabled},
        {"is_edns_enabled", &dpcfg_config::is_edns_enabled},
        {"is_dns_filter_enabled", &dpcfg_config::is_dns_filter_enabled},
        {"server_socket_src_port_start", &dpcfg_config::server_socket_src_port_start},
        {"server_socket_src_port_end", &dpcfg_config::server_socket_src_port_end},
        {"send_mode_for_client_response", &dpcfg_config::send_mode_for_client_response},
    };
    static constexpr struct {
        const char* label;
        const char (dpcfg_config::*field)[128];
    } kTexts[] = {
        {"client_interface_name", &dpcfg_config::client_interface_name},
        {"config_file", &dpcfg_config::config_file},
        {"hosts_file", &dpcfg_config::hosts_file},
        {"domain_name", &dpcfg_config::domain_name},
    };
    std::fprintf(stderr, "\n%s in the DNSPROXY\n", "current configuration");
    std::fputs("===========================================================\n", stderr);
    for (const auto& n : kNumbers)
        std::fprintf(stderr, "%-32s = %u\n", n.label, config.*n.field);
    for (const auto& t : kTexts)
        std::fprintf(stderr, "%-32s = %s\n", t.label, config.*t.field);
}

void dpcfg_load_lock_net_stat() {
    char linebuf[1024];
    if (!read_first_line(kutl_fixed_path(kLockNetFile).s, linebuf, sizeof linebuf)) return;
    DPCFG_TRACE(DP_DETAIL, "linebuf=%s\n", linebuf);
    dpcfg_set_lock_net(static_cast<uint32_t>(std::atoi(linebuf)));
    if (!read_first_line(kutl_fixed_path(kLockNetWhitelistFile).s, linebuf, sizeof linebuf)) return;
    DPCFG_TRACE(DP_DETAIL, "linebuf=%s\n", linebuf);
    std::snprintf(config.lock_net_whitelist, sizeof config.lock_net_whitelist, "%s", linebuf);
}

int dpcfg_set_using_global_dns_servers(uint32_t on) {
    config.is_using_global_dns_servers = as_switch(on);
    return 0;
}
int dpcfg_set_service_status_detect(uint32_t on) {
    config.is_service_status_detect_feat_enabled = as_switch(on);
    return 0;
}
int dpcfg_set_force_register(uint32_t on) {
    config.is_force_register_enabled = as_switch(on);
    return 0;
}
int dpcfg_set_lock_net(uint32_t on) {
    config.is_lock_net_enabled = as_switch(on);
    return 0;
}
int dpcfg_set_dslite(uint32_t on) {
    config.is_dslite_enabled = as_switch(on);
    return 0;
}
int dpcfg_set_redirect(uint32_t on) {
    config.is_redirect_enabled = as_switch(on);
    return 0;
}
int dpcfg_set_intercept(uint32_t on) {
    config.is_intercept_enabled = as_switch(on);
    return 0;
}
int dpcfg_set_edns(uint32_t on) {
    config.is_edns_enabled = as_switch(on);
    return 0;
}
int dpcfg_set_d2a(uint32_t on) {
    config.is_d2a_feat_enabled = as_switch(on);
    return 0;
}
int dpcfg_set_hardened_mode(uint32_t on) {
    config.is_hardened_mode_enabled = as_switch(on);
    return 0;
}
int dpcfg_set_d2d(uint32_t on) {
    config.is_d2d_feat_enabled = as_switch(on);
    return 0;
}
int dpcfg_set_local_hosts(uint32_t on) {
    config.is_local_hosts_feat_enabled = as_switch(on);
    return 0;
}
int dpcfg_set_dyn_cache(uint32_t on) {
    config.is_dyn_cache_feat_enabled = as_switch(on);
    return 0;
}

int dpcfg_set_global_dns_server_set_policy(uint32_t policy) {
    config.global_dns_server_set_policy = policy;
    return 0;
}

int dpcfg_set_domain_name(const char* name) {
    std::snprintf(config.domain_name, sizeof config.domain_name, "%s", name);
    return 0;
}

int dpcfg_set_first_wan_ifname(const char* name) {
    std::snprintf(config.first_wan_ifname, sizeof config.first_wan_ifname, "%s", name);
    return 0;
}
