#include <gtest/gtest.h>

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

TEST(ConfigFile, BooleanValuesAndKeyCase) {
    TempRoot root;
    struct {
        const char* line;
        uint32_t d2a;
    } cases[] = {
        {"EnableD2AFeature=yes\n", 1},  {"enabled2afeature on\n", 1},
        {"EnableD2AFeature 1\n", 1},    {"EnableD2AFeature=YES\n", 1},
        {"EnableD2AFeature true\n", 0}, {"EnableD2AFeature=enable\n", 0},
        {"EnableD2AFeature=11\n", 0},
    };
    for (const auto& c : cases)
        EXPECT_EQ(load(root, c.line).is_d2a_feat_enabled, c.d2a) << c.line;
}

TEST(ConfigFile, LinesThatAreSkipped) {
    TempRoot root;
    StderrCapture err;
    const auto& cfg = load(root, "#EnableD2AFeature=1\n"
                                 "EnableD2DFeature=#1\n"
                                 "EnableLocalHostsFeature\n"
                                 "GlobalDnsServerSetPolicy 2\n"
                                 "SystemDnsServerSetPolicy=-1\n"
                                 "\n"
                                 "ClientInterfaceName br1 extra\r\n");
    EXPECT_EQ(cfg.is_d2a_feat_enabled, 0u);
    EXPECT_EQ(cfg.is_d2d_feat_enabled, 0u);
    EXPECT_EQ(cfg.is_local_hosts_feat_enabled, 0u);
    EXPECT_EQ(cfg.global_dns_server_set_policy, 0u);
    EXPECT_EQ(cfg.system_dns_server_set_policy, 1u);
    EXPECT_STREQ(cfg.client_interface_name, "br1");
    EXPECT_EQ(err.text(), ""); // skipped lines are silent with the default masks
}

TEST(ConfigFile, EveryKeyParsedIntoItsField) {
    TempRoot root;
    const auto& cfg = load(root, "UsingGlobalDnsServers=1\nEnableD2DFeature=1\nEnableD2AFeature=1\n"
                                 "EnableLocalHostsFeature=1\nEnableDynCacheFeature=1\n"
                                 "EnableForceUrlFeature=1\nEnableServiceStatusDetectFeature=1\n"
                                 "EnableVciExplicitForwardFeature=1\nEnableDnsFilter=1\n"
                                 "EnableRejectPtrLocalIpFeature=1\nGlobalDnsServerSetPolicy=1\n"
                                 "SystemDnsServerSetPolicy=0\nServerSocketSrcPortStart=1000\n"
                                 "ServerSocketSrcPortEnd=abc\nSendModeForClientResponse=0\n"
                                 "ClientInterfaceName=lan9\nhosts_file=/tmp/h\n");
    EXPECT_EQ(cfg.is_using_global_dns_servers + cfg.is_d2d_feat_enabled + cfg.is_d2a_feat_enabled +
                  cfg.is_local_hosts_feat_enabled + cfg.is_dyn_cache_feat_enabled +
                  cfg.is_force_url_feat_enabled + cfg.is_service_status_detect_feat_enabled +
                  cfg.is_vci_explicit_forward_feat_enabled + cfg.is_dns_filter_enabled +
                  cfg.is_reject_ptr_local_ip_feat_enabled,
              10u);
    EXPECT_EQ(cfg.global_dns_server_set_policy, 1u);
    EXPECT_EQ(cfg.system_dns_server_set_policy, 0u);
    EXPECT_EQ(cfg.server_socket_src_port_start, 1000u);
    EXPECT_EQ(cfg.server_socket_src_port_end, 0u); // atoi of a word
    EXPECT_EQ(cfg.send_mode_for_client_response, 0u);
    EXPECT_STREQ(cfg.client_interface_name, "lan9");
    EXPECT_STREQ(cfg.hosts_file, "/tmp/h");
    // Keys without a file key keep their defaults.
    EXPECT_EQ(cfg.is_renew_server_socket_enabled, 1u);
    EXPECT_EQ(cfg.is_edns_enabled, 0u);
}

TEST(ConfigFile, UnknownKeyIsReportedAndTheRestStillLoads) {
    TempRoot root;
    StderrCapture err;
    const auto& cfg = load(root, "Bogus=1\nEnableD2AFeature=1\n");
    EXPECT_EQ(err.text(), "Unkown config option: \"Bogus\"\n");
    EXPECT_EQ(cfg.is_d2a_feat_enabled, 1u);
}

TEST(ConfigFile, TextsAreCutAt127Characters) {
    TempRoot root;
    const std::string name(200, 'x');
    const auto& cfg = load(root, "ClientInterfaceName=" + name + "\n");
    EXPECT_EQ(std::string(cfg.client_interface_name), name.substr(0, 127));
}

TEST(ConfigFile, ReloadResetsKeysTheNewFileLacks) {
    TempRoot root;
    load(root, "EnableD2AFeature=1\nServerSocketSrcPortStart=1\n");
    root.write("/etc/other.conf", "EnableD2DFeature=1\n");
    dpcfg_load_config_param_from_file("/etc/other.conf");
    const auto& cfg = dpcfg_get();
    EXPECT_EQ(cfg.is_d2a_feat_enabled, 0u);
    EXPECT_EQ(cfg.server_socket_src_port_start, 57200u);
    EXPECT_EQ(cfg.is_d2d_feat_enabled, 1u);
    EXPECT_STREQ(cfg.config_file, "/etc/other.conf");
}

TEST(ConfigFile, MissingFileFallsBackToTheRecordedPath) {
    TempRoot root;
    load(root, "EnableD2AFeature=1\n");
    define_debug_level("config", "detail");
    StderrCapture err;
    dpcfg_load_config_param_from_file("/etc/missing.conf");
    define_debug_mode(0);
    EXPECT_EQ(dpcfg_get().is_d2a_feat_enabled, 1u);
    EXPECT_STREQ(dpcfg_get().config_file, "/etc/flipla.conf");
    EXPECT_NE(err.text().find("load config file=" + root.dir() + "/etc/flipla.conf\n"),
              std::string::npos);
}

TEST(ConfigFile, NoFileAtAllLeavesDefaults) {
    TempRoot root;
    define_debug_level("config", "detail");
    StderrCapture err;
    dpcfg_init();
    define_debug_mode(0);
    EXPECT_NE(err.text().find("no config file\n"), std::string::npos);
    EXPECT_STREQ(dpcfg_get().domain_name, "Home");
    EXPECT_EQ(dpcfg_get().system_dns_server_set_policy, 1u);
}

TEST(FeatureMask, OnlySwitchesOn) {
    TempRoot root;
    load(root, "EnableDynCacheFeature=1\n");
    dpcfg_apply_feature_mask(0);
    EXPECT_EQ(dpcfg_get().is_dyn_cache_feat_enabled, 1u);
    dpcfg_apply_feature_mask(0x3FF);
    const auto& c = dpcfg_get();
    EXPECT_EQ(c.is_d2a_feat_enabled & c.is_d2d_feat_enabled & c.is_local_hosts_feat_enabled &
                  c.is_dyn_cache_feat_enabled & c.is_force_url_feat_enabled &
                  c.is_reject_ptr_local_ip_feat_enabled & c.is_vci_explicit_forward_feat_enabled &
                  c.is_edns_enabled & c.is_name_filter_forward_enabled & c.is_dns_filter_enabled,
              1u);
    EXPECT_EQ(c.is_service_status_detect_feat_enabled, 0u); // has no bit
}

TEST(ConfigDump, ExactText) {
    TempRoot root;
    load(root, "EnableD2AFeature=1\n");
    dpcfg_set_domain_name("lan.example");
    StderrCapture err;
    dpcfg_dump_config();
    EXPECT_EQ(err.text(), "\ncurrent configuration in the DNSPROXY\n"
                          "===========================================================\n"
                          "is_using_global_dns_servers      = 0\n"
                          "global_dns_server_set_policy     = 0\n"
                          "system_dns_server_set_policy     = 1\n"
                          "is_force_register_enabled        = 0\n"
                          "is_dslite_enabled                = 0\n"
                          "is_intercept_enabled             = 0\n"
                          "is_d2a_feat_enabled              = 1\n"
                          "is_d2d_feat_enabled              = 0\n"
                          "is_local_hosts_feat_enabled      = 0\n"
                          "is_dyn_cache_feat_enabled        = 0\n"
                          "is_force_url_feat_enabled        = 0\n"
                          "is_service_status_detect_feat_enabled = 0\n"
                          "is_reject_ptr_local_ip_feat_enabled = 0\n"
                          "is_vci_explicit_forward_feat_enabled = 0\n"
                          "is_edns_enabled                  = 0\n"
                          "is_dns_filter_enabled            = 0\n"
                          "server_socket_src_port_start     = 57200\n"
                          "server_socket_src_port_end       = 57300\n"
                          "send_mode_for_client_response    = 1\n"
                          "client_interface_name            = br0\n"
                          "config_file                      = /etc/flipla.conf\n"
                          "hosts_file                       = /var/hosts\n"
                          "domain_name                      = lan.example\n");
}

TEST(LockNet, StateAndWhitelistFiles) {
    TempRoot root;
    root.write("/configs/lock_net", "2\n");
    root.write("/configs/locknet_whitelist.conf", "a.example b.example\nsecond line\n");
    dpcfg_init();
    EXPECT_EQ(dpcfg_get().is_lock_net_enabled, 1u);
    EXPECT_STREQ(dpcfg_get().lock_net_whitelist, "a.example b.example\n");

    root.write("/configs/lock_net", "locked\n");
    dpcfg_load_lock_net_stat();
    EXPECT_EQ(dpcfg_get().is_lock_net_enabled, 0u);
}

TEST(LockNet, WhitelistIsNotReadWithoutTheStateFile) {
    TempRoot root;
    root.write("/configs/locknet_whitelist.conf", "a.example\n");
    dpcfg_init();
    EXPECT_EQ(dpcfg_get().is_lock_net_enabled, 0u);
    EXPECT_STREQ(dpcfg_get().lock_net_whitelist, "");
}

TEST(LockNet, EmptyStateFileKeepsThePreviousState) {
    TempRoot root;
    dpcfg_init();
    dpcfg_set_lock_net(7);
    EXPECT_EQ(dpcfg_get().is_lock_net_enabled, 1u);
    root.write("/configs/lock_net", "");
    dpcfg_load_lock_net_stat();
    EXPECT_EQ(dpcfg_get().is_lock_net_enabled, 1u);
}

} // namespace
