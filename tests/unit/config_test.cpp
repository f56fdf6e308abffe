#include <gtest/gtest.h>

#include <sstream>
#include <vector>

#include "config/dpcfg.h"
#include "ctrl/dp_trace.h"
#include "test_support.h"

namespace {

// Loads one configuration file body through the start-up path and returns the record.
const dpcfg_config& load(TempRoot& root, const std::string& body) {
    root.write("/etc/flipla.conf", body);
    dpcfg_init();
    return dpcfg_get();
}

TEST(ConfigFile, EveryKeyLandsInItsFieldAndTheDump) {
    TempRoot root;
    const std::string name(200, 'x'); // texts are cut at 127 characters
    load(root, "UsingGlobalDnsServers=1\nEnableD2DFeature=1\nEnableD2AFeature=0\n"
               "EnableLocalHostsFeature=1\nEnableDynCacheFeature=1\nEnableForceUrlFeature=1\n"
               "EnableServiceStatusDetectFeature=1\nEnableVciExplicitForwardFeature=1\n"
               "EnableDnsFilter=1\nEnableRejectPtrLocalIpFeature=1\nGlobalDnsServerSetPolicy=1\n"
               "SystemDnsServerSetPolicy=0\nServerSocketSrcPortStart=1000\n"
               "ServerSocketSrcPortEnd=abc\nSendModeForClientResponse=0\nhosts_file=/tmp/h\n"
               "ClientInterfaceName=" +
                   name + "\n");
    dpcfg_set_domain_name("lan.example");
    StderrCapture err;
    dpcfg_dump_config();
    std::string want = "\ncurrent configuration in the DNSPROXY\n" + std::string(59, '=') + "\n";
    std::istringstream rows(
        "is_using_global_dns_servers=1 global_dns_server_set_policy=1 system_dns_server_set_policy=0 "
        "is_force_register_enabled=0 is_dslite_enabled=0 is_intercept_enabled=0 "
        "is_d2a_feat_enabled=0 is_d2d_feat_enabled=1 is_local_hosts_feat_enabled=1 "
        "is_dyn_cache_feat_enabled=1 is_force_url_feat_enabled=1 "
        "is_service_status_detect_feat_enabled=1 is_reject_ptr_local_ip_feat_enabled=1 "
        "is_vci_explicit_forward_feat_enabled=1 is_edns_enabled=0 is_dns_filter_enabled=1 "
        "server_socket_src_port_start=1000 server_socket_src_port_end=0 "
        "send_mode_for_client_response=0 client_interface_name=" +
        name.substr(0, 127) +
        " config_file=/etc/flipla.conf hosts_file=/tmp/h domain_name=lan.example");
    for (std::string row; rows >> row;) {
        char line[300];
        std::snprintf(line, sizeof line, "%-32s = %s\n", row.substr(0, row.find('=')).c_str(),
                      row.substr(row.find('=') + 1).c_str());
        want += line;
    }
    EXPECT_EQ(err.text(), want);
}

TEST(ConfigFile, ValuesAndLinesThatSwitchNothing) {
    TempRoot root;
    const char* lines[] = {"EnableD2AFeature=yes",  "enabled2afeature on",
                           "EnableD2AFeature 1",    "EnableD2AFeature=YES",
                           "EnableD2AFeature true", "EnableD2AFeature=enable",
                           "EnableD2AFeature=11"};
    for (int i = 0; i < 7; ++i) // only the first four switch the feature on
        EXPECT_EQ(load(root, lines[i]).is_d2a_feat_enabled, i < 4 ? 1u : 0u) << lines[i];
    StderrCapture err;
    const auto& cfg = load(root, "#EnableD2AFeature=1\nEnableD2DFeature=#1\n"
                                 "EnableLocalHostsFeature\nGlobalDnsServerSetPolicy 2\n"
                                 "SystemDnsServerSetPolicy=-1\n\nClientInterfaceName br1 extra\r\n"
                                 "Bogus=1\nEnableDynCacheFeature=1\n");
    EXPECT_EQ(err.text(), "Unkown config option: \"Bogus\"\n"); // the rest is silent
    EXPECT_EQ(
        (std::vector<uint32_t>{cfg.is_d2a_feat_enabled, cfg.is_d2d_feat_enabled,
                               cfg.is_local_hosts_feat_enabled, cfg.global_dns_server_set_policy,
                               cfg.system_dns_server_set_policy, cfg.is_dyn_cache_feat_enabled}),
        (std::vector<uint32_t>{0, 0, 0, 0, 1, 1}));
    EXPECT_STREQ(cfg.client_interface_name, "br1");
}

TEST(ConfigFile, ReloadsAndMissingFiles) {
    TempRoot root;
    load(root, "EnableD2AFeature=1\nServerSocketSrcPortStart=1\n");
    dpcfg_load_config_param_from_file("/etc/missing.conf"); // falls back to the recorded path
    EXPECT_EQ(dpcfg_get().is_d2a_feat_enabled, 1u);
    EXPECT_STREQ(dpcfg_get().config_file, "/etc/flipla.conf");
    // Another file: keys it lacks go back to their defaults.
    root.write("/etc/other.conf", "EnableD2DFeature=1\n");
    dpcfg_load_config_param_from_file("/etc/other.conf");
    const auto& c = dpcfg_get();
    EXPECT_EQ((std::vector<uint32_t>{c.is_d2a_feat_enabled, c.server_socket_src_port_start,
                                     c.is_d2d_feat_enabled}),
              (std::vector<uint32_t>{0, 57200, 1}));
    EXPECT_STREQ(c.config_file, "/etc/other.conf");
}

TEST(LockNet, StateAndWhitelistFiles) {
    TempRoot root;
    root.write("/configs/locknet_whitelist.conf", "a.example b.example\nsecond line\n");
    dpcfg_init(); // no state file: the whitelist is not read either
    EXPECT_STREQ(dpcfg_get().lock_net_whitelist, "");
    root.write("/configs/lock_net", "2\n");
    dpcfg_init();
    EXPECT_EQ(dpcfg_get().is_lock_net_enabled, 1u);
    EXPECT_STREQ(dpcfg_get().lock_net_whitelist, "a.example b.example\n");
    root.write("/configs/lock_net", ""); // empty: the state stays
    dpcfg_load_lock_net_stat();
    EXPECT_EQ(dpcfg_get().is_lock_net_enabled, 1u);
    root.write("/configs/lock_net", "locked\n");
    dpcfg_load_lock_net_stat();
    EXPECT_EQ(dpcfg_get().is_lock_net_enabled, 0u);
}

} // namespace
