// dnsproxy: the DNS proxy daemon of the residential gateway.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "cache/dpcache.h"
#include "config/dpcfg.h"
#include "ctrl/dp_cli.h"
#include "ctrl/dp_json.h"
#include "ctrl/dp_service.h"
#include "ctrl/dp_trace.h"
#include "io/dpio.h"
#include "main/dpxy.h"
#include "platform/ombus/ombus.h"
#include "platform/rcsd/rcsd.h"
#include "platform/rjson/rjson.h"
#include "server/dpsvr.h"

namespace {
constexpr const char* kServiceName = "orvik.kiv.dnsproxy";
constexpr const char* kJsonApiItf = "orvik.kiv.dnsproxy.itf.json.api";
constexpr const char* kJsonMsgItf = "orvik.kiv.dnsproxy.itf.json.msg";
} // namespace

int main(int argc, char** argv) {
    // Descriptors 0-2 closed at start would be taken by the first files and sockets opened.
    dpxy_open_std_descriptors();
    // 1. start line
    std::fprintf(stderr, "\ndnsproxy is started with pid=%d\n", static_cast<int>(getpid()));
    // 2. trace masks and log configuration; the output the CLI returns to after each command
    dp_debug_init();
    dp_cli_init();
    // 3. exit hook
    std::atexit(preexit);
    // 4. signals
    register_signal_handler();
    // 5. command line
    dpxy_input_parms parms;
    if (dpxy_get_input_parms(argc, argv, &parms) < 0) std::exit(1);

    // 6.1 configuration defaults and the default configuration file
    dpcfg_init();
    // 6.2 PID file
    save_pid();
    // 6.3 module message channel and the server sets
    dpio_init_module_interface();
    dpsvr_init_server_sets();
    // 6.4 options, in their fixed order
    dpxy_apply_input_parms(&parms);
    // 6.5 the LAN interface's addresses
    dpxy_read_client_interface();
    // 6.6 server sets, name tables, the name filter, the VCI table, then the lease file (which
    // the VCI table filters), sockets
    dpsvr_load_all_dns_servers();
    dpcache_reload_all();
    dpsvr_load_name_filter_db();
    dpsvr_load_vci_db();
    dpsvr_load_lease_file();
    create_client_socket();
    // 6.7 6.8 service status detection
    dpxy_reset_status_probe();
    if (dpcfg_is_service_status_detect_feat_enabled() != 0) dpxy_start_status_probe();

    // 7. bus loop registrations; the tick is both the periodic handler and the event observer
    ombusRegisterPollingSocket(dpio_get_client_fd(), dpxy_dispatch_socket, 0, 0);
    ombusRegisterPollingSocket(dpio_get_server_fd(), dpxy_dispatch_socket, 0, 0);
    dpio_set_server_dispatch(dpxy_dispatch_socket); // hardened mode's pool of server sockets
    dpxy_hard_init();
    dpxy_tcp_start();
    ombusRegisterPollingTimeOutHandler(1000, dpxy_tick, 1, 0);
    ombusRegisterPollingEventObserver(dpxy_tick, 2, 0);
    rcsd_init(kServiceName);
    rcsd_register_json_api_interface(kJsonApiItf);
    rcsd_register_sync_method_handler(kJsonApiItf, "kivInvoke", rjson_process_kiv_method);
    rcsd_register_message_handler(kJsonMsgItf, "kivMessage", rjson_process_kiv_message);
    rjson_init(kServiceName);
    rjson_add_json_messages(kJsonMsgItf, dp_json_messages, DP_JSON_MESSAGES);
    rjson_add_json_methods(kJsonApiItf, dp_json_methods, DP_JSON_METHODS);
    // A daemon already running owns the bus name: this one was started by mistake beside it, and
    // leaves the running one's PID file as it found it.
    if (start_kiv_dnsproxy_service() == OMBUS_ERR_NAME_OWNED) dpxy_restore_pid_file();
    std::exit(0);
}
