#include <arpa/inet.h>
#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>

#include "config/dpcfg.h"
#include "ctrl/dp_metrics.h"
#include "ctrl/dp_trace.h"
#include "io/dpio.h"
#include "main/dputl.h"
#include "main/dpxy.h"
#include "main/dpxy_pcb.h"
#include "platform/kutl/kutl.h"
#include "platform/rcsd/rcsd.h"
#include "platform/rjson/rjson.h"
#include "server/dpsvr.h"

namespace {

constexpr const char* kPidFile = "/etc/dnsproxy_pid";
constexpr const char* kDefaultV4Addr = "192.168.1.254";
constexpr const char* kDefaultNetmask = "255.255.255.0";
constexpr const char* kDefaultV6Addr = "fe80::1";

// -p is accepted but left out of the usage text, and -P does not exit although the text says so.
constexpr const char* kUsage =
    "\nusage : dnsproxy [-c <configfile>] [-D domain] [-v <level>] [-h] [-P] [-g] [-q] [-f mask]\n"
    "\t-c <configfile> read configuration from <config-file>\n"
    "\t-D \t\tDomain Name\n"
    "\t-P \t\tprint configuration on stdout and exit.\n"
    "\t-v \t\tset verbosity, where level 0 is LOG_ERROR, 1 is LOG_NOTICE, 2 is LOG_DEBUG\n"
    "\t-g \t\tthe program will use global DNS server\n"
    "\t-q \t\tenable service status indication\n"
    "\t-f \t\tfeature mask\n"
    "\t-h \t\tthis message.\n";

dpxy_client_itf client_itf;
// What the PID file held before this process wrote its own PID (a PID is at most 7 digits).
char previous_pid[16];
uint32_t next_tick_time = 0;
uint32_t twelve_ticks = 0;

// Queries timing out point at a server socket that upstream firewalls or NAT have forgotten:
// after twelve ticks with time-outs, move to a new source port in place.
void renew_server_socket_if_stale() {
    if (dpcfg_is_renew_server_socket_enabled() == 0) return;
    if (twelve_ticks >= 12 && dpxy_timed_out_count() != 0) {
        dpio_renew_server_socket();
        if (dpcfg_is_hardened_mode_enabled() != 0) dpio_pool_renew(dputl_get_current_time());
        dpxy_reset_timed_out_count();
        twelve_ticks = 0;
    } else {
        twelve_ticks++;
    }
}

struct signal_row {
    int signo;
    const char* failure;
};
constexpr signal_row kSignals[] = {
    {SIGTERM, "error to install signal SIGTERM\n"}, {SIGINT, "error to install signal SIGINT\n"},
    {SIGILL, "error to install signal SIGILL\n"},   {SIGABRT, "error to install signal SIGABRT\n"},
    {SIGFPE, "error to install signal SIGFPE\n"},   {SIGSEGV, "error to install signal SIGSEGV\n"},
};

const char* or_null(const char* s) {
    return s != nullptr ? s : "(null)";
}

// The first bytes of a file, NUL-terminated ("" when it cannot be read).
void read_head(const char* path, std::span<char> out) {
    out[0] = '\0';
    FILE* f = std::fopen(path, "r");
    if (f == nullptr) return;
    out[std::fread(out.data(), 1, out.size() - 1, f)] = '\0';
    std::fclose(f);
}

} // namespace

int dpxy_get_input_parms(int argc, char** argv, dpxy_input_parms* parms) {
    std::memset(parms, 0, sizeof *parms);
    optind = 0;
    opterr = 0;
    int opt;
    while ((opt = getopt(argc, argv, "c:D:v:f:p:hgqP")) != -1) {
        const char* arg_at_optind = optind <= argc ? argv[optind] : nullptr;
        DPMAIN_TRACE(DP_DETAIL, "opt=%c, optopt=%d optarg=%s, optind=%d argv[%d]=%s\n", opt, optopt,
                     or_null(optarg), optind, optind, or_null(arg_at_optind));
        switch (opt) {
        case 'c':
            parms->flags |= DPXY_OPT_CONFIG_FILE;
            std::snprintf(parms->config_file, sizeof parms->config_file, "%s", optarg);
            break;
        case 'D':
            parms->flags |= DPXY_OPT_DOMAIN;
            std::snprintf(parms->domain_name, sizeof parms->domain_name, "%s", optarg);
            break;
        case 'v':
            parms->flags |= DPXY_OPT_VERBOSITY;
            parms->verbosity = std::atoi(optarg);
            break;
        case 'f':
            parms->flags |= DPXY_OPT_FEATURE_MASK;
            parms->feature_mask = static_cast<uint32_t>(std::strtoul(optarg, nullptr, 16));
            break;
        case 'p':
            parms->flags |= DPXY_OPT_POLICY;
            parms->policy = static_cast<uint32_t>(std::strtoul(optarg, nullptr, 10));
            break;
        case 'g':
            parms->flags |= DPXY_OPT_GLOBAL_DNS;
            break;
        case 'q':
            parms->flags |= DPXY_OPT_STATUS_DETECT;
            break;
        case 'P':
            parms->flags |= DPXY_OPT_PRINT_CONFIG;
            break;
        case 'h':
            std::fputs(kUsage, stderr);
            return -1;
        default: // '?': an unknown option or a missing argument is skipped
            break;
        }
    }
    return 0;
}

void dpxy_apply_input_parms(const dpxy_input_parms* parms) {
    const uint8_t f = parms->flags;
    if (f & DPXY_OPT_VERBOSITY) dplog_apply_verbosity(parms->verbosity);
    if (f & DPXY_OPT_CONFIG_FILE) dpcfg_load_config_param_from_file(parms->config_file);
    if (f & DPXY_OPT_DOMAIN) dpcfg_set_domain_name(parms->domain_name);
    if (f & DPXY_OPT_GLOBAL_DNS) dpcfg_set_using_global_dns_servers(1);
    if (f & DPXY_OPT_POLICY)
        dpcfg_set_global_dns_server_set_policy(parms->policy > 2 ? 0 : parms->policy);
    if (f & DPXY_OPT_STATUS_DETECT) dpcfg_set_service_status_detect(1);
    if (f & DPXY_OPT_FEATURE_MASK) dpcfg_apply_feature_mask(parms->feature_mask);
    if (f & DPXY_OPT_PRINT_CONFIG) dpcfg_dump_config();
}

void dpxy_read_client_interface() {
    const char* ifname = dpcfg_client_interface_name();
    if (dputl_get_if_ipv4_addr(ifname, &client_itf.v4addr) == 0) {
        inet_ntop(AF_INET, &client_itf.v4addr, client_itf.v4ipstr, sizeof client_itf.v4ipstr);
    } else {
        std::snprintf(client_itf.v4ipstr, sizeof client_itf.v4ipstr, "%s", kDefaultV4Addr);
        inet_pton(AF_INET, kDefaultV4Addr, &client_itf.v4addr);
    }
    if (dputl_get_if_ipv4_netmask(ifname, &client_itf.netmask) != 0) {
        inet_pton(AF_INET, kDefaultNetmask, &client_itf.netmask);
    }
    std::snprintf(client_itf.v6ipstr, sizeof client_itf.v6ipstr, "%s", kDefaultV6Addr);
}

const dpxy_client_itf& dpxy_get_client_itf() {
    return client_itf;
}

void dpxy_open_std_descriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) >= 0 || errno != EBADF) continue;
        // Every lower number is open, so the lowest free one is fd itself.
        const int null = open("/dev/null", O_RDWR);
        if (null >= 0 && null != fd) {
            dup2(null, fd);
            close(null);
        }
    }
}

int save_pid() {
    const kutl_path path = kutl_fixed_path(kPidFile);
    read_head(path.s, previous_pid);
    FILE* f = std::fopen(path.s, "w+");
    if (f == nullptr) {
        DPMAIN_TRACE(DP_ERROR, "failed to save dnsproxy pid to %s\n", path.s);
        return -1;
    }
    std::fprintf(f, "%d", static_cast<int>(getpid()));
    std::fclose(f);
    DPMAIN_TRACE(DP_DETAIL, "dnsproxy pid(%d) is saved to %s\n", static_cast<int>(getpid()),
                 path.s);
    return 0;
}

void dpxy_restore_pid_file() {
    const kutl_path path = kutl_fixed_path(kPidFile);
    char own[sizeof previous_pid];
    std::snprintf(own, sizeof own, "%d", static_cast<int>(getpid()));
    char now[sizeof previous_pid];
    read_head(path.s, now);
    if (previous_pid[0] == '\0' || std::strcmp(now, own) != 0) return;
    if (FILE* f = std::fopen(path.s, "w"); f != nullptr) {
        std::fputs(previous_pid, f);
        std::fclose(f);
    }
}

void register_signal_handler() {
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = handle_signal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;
    for (const auto& s : kSignals) {
        if (sigaction(s.signo, &sa, nullptr) != 0) DPMAIN_TRACE(DP_ERROR, "%s", s.failure);
    }
    // A vanished operator terminal must not end the daemon.
    signal(SIGPIPE, SIG_IGN);
}

void handle_signal(int signo) {
    DPMAIN_TRACE(DP_ERROR, "signo=%d\n", signo);
    switch (signo) {
    case SIGINT:
    case SIGTERM:
        std::exit(-1); // status 255, through the exit hook
    case SIGILL:
    case SIGABRT:
    case SIGFPE:
    case SIGSEGV:
        signal(signo, SIG_DFL); // the fault recurs and ends the process by its default action
        return;
    default:
        return;
    }
}

void preexit() {
    rjson_done();
    rcsd_done();
    std::fprintf(stderr, "\ndnsproxy preexit with pid=%d\n", static_cast<int>(getpid()));
}

int dpxy_tick() {
    const uint32_t now = dputl_get_current_time();
    if (static_cast<int32_t>(next_tick_time - now) > 0) return 0;
    next_tick_time = now + 1;
    // Start-up reads files and sets up the bus in memory it frees again: given back once, so that
    // the daemon at rest keeps only what it uses.
    static bool trimmed = false;
    if (!trimmed) trimmed = malloc_trim(0) >= 0;
    handle_expired_query();
    renew_server_socket_if_stale();
    dpio_pool_tick(now);
    dpio_tcp_tick(now);
    dpsvr_scan_monitor_list();
    dputl_scan_action_list();
    dp_metrics_tick(now);
    return 0;
}

void dpxy_dump_info() {
    std::fprintf(stderr, "\nDNSPROXY pid=%d currtime=%lu\n", static_cast<int>(getpid()),
                 static_cast<unsigned long>(dputl_get_current_time()));
    std::fputs("\nclient interface information\n", stderr);
    std::fprintf(stderr, "  v4addr  = 0x%x\n", client_itf.v4addr);
    std::fprintf(stderr, "  netmask = 0x%x\n", client_itf.netmask);
    std::fprintf(stderr, "  v4ipstr = %s\n", client_itf.v4ipstr);
    std::fprintf(stderr, "  v6ipstr = %s", client_itf.v6ipstr);
    std::fputs("\n", stderr);
    dpxy_dump_pcb_info();
    dpio_dump_info();
}
