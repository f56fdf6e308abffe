#include "ctrl/dp_cli.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "cache/dpcache.h"
#include "config/dpcfg.h"
#include "ctrl/dp_cliout.h"
#include "ctrl/dp_metrics.h"
#include "ctrl/dp_stats.h"
#include "ctrl/dp_trace.h"
#include "io/dpio.h"
#include "main/dpxy.h"
#include "platform/kutl/kutl.h"
#include "platform/rjson/rjson.h"
#include "server/dpsvr.h"

namespace {

// The service commands (log configuration, "redirect printf", "dump itf list") stay unlisted.
constexpr char kHelpText[] =
    "\nkiv_cli dnsproxy help\nkiv_cli dnsproxy view config\nkiv_cli dnsproxy view server\n"
    "kiv_cli dnsproxy view cache\nkiv_cli dnsproxy view filter\nkiv_cli dnsproxy view statistic\n"
    "kiv_cli dnsproxy view misc\nkiv_cli dnsproxy view debug setting\n"
    "kiv_cli dnsproxy define debug mode [0-6]\n"
    "kiv_cli dnsproxy define debug level proxy|io|endec|server|cache|config|util|debug "
    "none|error|warn|detail|func|pkt|endec|io|period|all\n\n";
static_assert(sizeof kHelpText == 410, "the help text is 410 bytes with its terminator");

constexpr char kRedirectPrefix[] = "redirect printf ";

int saved_stdout = -1;
int saved_stderr = -1;

int print_help() {
    char buf[440];
    std::memcpy(buf, kHelpText, sizeof kHelpText);
    std::fputs(buf, stderr);
    return 0;
}

int cmd_set_logconfig(int, const char* const* argv) {
    return dplog_set_logconfig(argv[0], argv[1]);
}
int cmd_dump_logconfig(int, const char* const*) {
    return dplog_dump_logconfig();
}
int cmd_save_logconfig(int, const char* const*) {
    return dplog_save_logconfig();
}
int cmd_reset_logconfig(int, const char* const*) {
    return dplog_reset_logconfig();
}
int cmd_redirect_printf(int, const char* const* argv) {
    return dplog_redirect_printf(argv[0]);
}
int cmd_help(int, const char* const*) {
    return print_help();
}
int cmd_view_config(int, const char* const*) {
    dpcfg_dump_config();
    return 0;
}
int cmd_view_server(int, const char* const*) {
    dpsvr_dump_dns_servers();
    return 0;
}
int cmd_view_cache(int, const char* const*) {
    dpcache_dump();
    return 0;
}
int cmd_view_filter(int, const char* const*) {
    dpsvr_dump_filter();
    return 0;
}
int cmd_view_statistic(int, const char* const*) {
    return dp_view_statistic();
}
int cmd_view_misc(int, const char* const*) {
    dpxy_dump_info();
    return 0;
}
int cmd_view_debug_setting(int, const char* const*) {
    return dplog_view_debug_setting();
}
int cmd_define_debug_mode(int, const char* const* argv) {
    define_debug_mode(static_cast<uint32_t>(std::strtoul(argv[0], nullptr, 10)));
    return 0;
}
int cmd_define_debug_level(int, const char* const* argv) {
    return define_debug_level(argv[0], argv[1]);
}
int cmd_dump_itf_list(int, const char* const*) {
    rjson_dump_registered_messages();
    rjson_dump_registered_methods();
    return 0;
}

constexpr kutl_cli_arg kNone{KUTL_CLI_ARG_UNCHECKED, nullptr};
constexpr kutl_cli_arg kLevels{KUTL_CLI_ARG_WORDS,
                               "emerg|alert|crit|error|warn|notice|info|debug|"};
constexpr kutl_cli_arg kDests{KUTL_CLI_ARG_WORDS, "serial|syslog|telnet|"};
constexpr kutl_cli_arg kModules{KUTL_CLI_ARG_WORDS,
                                "proxy|io|endec|server|cache|config|util|debug|"};
constexpr kutl_cli_arg kDebugLevels{KUTL_CLI_ARG_WORDS,
                                    "none|error|warn|detail|func|pkt|endec|io|period|all|"};
constexpr kutl_cli_arg kText{KUTL_CLI_ARG_TEXT, nullptr};

constexpr kutl_cli_cmd kCommands[] = {
    {"set logconfig", 2, {kLevels, kDests}, cmd_set_logconfig},
    {"dump logconfig", 0, {}, cmd_dump_logconfig},
    {"save logconfig", 0, {}, cmd_save_logconfig},
    {"reset logconfig", 0, {}, cmd_reset_logconfig},
    {"redirect printf", 1, {kText}, cmd_redirect_printf},
    {"help", 0, {}, cmd_help},
    {"view config", 0, {}, cmd_view_config},
    {"view server", 0, {}, cmd_view_server},
    {"view cache", 0, {}, cmd_view_cache},
    {"view filter", 0, {}, cmd_view_filter},
    {"view statistic", 0, {}, cmd_view_statistic},
    {"view misc", 0, {}, cmd_view_misc},
    {"view debug setting", 0, {}, cmd_view_debug_setting},
    {"define debug mode", 1, {kNone}, cmd_define_debug_mode},
    {"define debug level", 2, {kModules, kDebugLevels}, cmd_define_debug_level},
    {"dump itf list", 0, {}, cmd_dump_itf_list},
};
static_assert(std::size(kCommands) == 16);

int cmd_view_security(int, const char* const*) {
    return dpxy_view_security();
}
int cmd_view_tcp(int, const char* const*) {
    dpio_tcp_view();
    return 0;
}
int cmd_view_metrics(int, const char* const*) {
    return dp_metrics_view();
}

// Commands of the extensions, tried only when the table above matches nothing (so they change
// neither its rows nor its help text).
constexpr kutl_cli_cmd kExtensionCommands[] = {
    {"view security", 0, {}, cmd_view_security},
    {"view tcp", 0, {}, cmd_view_tcp},
    {"view metrics", 0, {}, cmd_view_metrics},
};

// Output back where it was at start-up, terminal or not, so that the daemon never keeps writing
// into an operator's terminal or FIFO.
void restore_own_output() {
    std::fflush(stdout);
    std::fflush(stderr);
    if (saved_stdout >= 0) dup2(saved_stdout, STDOUT_FILENO);
    if (saved_stderr >= 0) dup2(saved_stderr, STDERR_FILENO);
    // A spool refuses writes past its limit; those failures belong to the command's output.
    std::clearerr(stdout);
    std::clearerr(stderr);
}

void point_output_at(int fd) {
    std::fflush(stdout);
    std::fflush(stderr);
    dup2(fd, STDOUT_FILENO);
    dup2(fd, STDERR_FILENO);
}

bool run_extension_command(const char* cmd) {
    return kutl_process_cli_cmd(kExtensionCommands, static_cast<int>(std::size(kExtensionCommands)),
                                cmd) == KUTL_CLI_OK;
}

void run_command(const char* cmd) {
    const int ret = kutl_process_cli_cmd(kCommands, static_cast<int>(std::size(kCommands)), cmd);
    if (ret != 0 && !(ret == KUTL_CLI_NO_MATCH && run_extension_command(cmd))) print_help();
    std::fflush(stdout);
    std::fflush(stderr);
}

} // namespace

void dp_cli_init() {
    if (saved_stdout < 0) saved_stdout = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    if (saved_stderr < 0) saved_stderr = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
}

int dp_cli_process(const char* tty_name, const char* cmd) {
    const bool to_operator = tty_name != nullptr && tty_name[0] != '\0';
    // "redirect printf" moves output for good: straight to the operator's terminal (opened
    // non-blocking), where it stays unless the command moves it on.
    if (to_operator && std::strncmp(cmd, kRedirectPrefix, sizeof kRedirectPrefix - 1) == 0) {
        kutl_redirect_printf(tty_name);
        run_command(cmd);
        return 0;
    }
    // Any other command prints into a spool, which then goes to the operator's terminal without
    // the loop ever waiting for it. A terminal that cannot be opened leaves output where it is.
    const int out = to_operator ? open(tty_name, O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC) : -1;
    if (out < 0) {
        run_command(cmd);
        return 0;
    }
    const int spool = dp_cliout_spool();
    point_output_at(spool >= 0 ? spool : out); // no spool: what the terminal takes at once
    run_command(cmd);
    restore_own_output();
    if (spool < 0) {
        close(out);
        return 0;
    }
    dp_cliout_send(out, spool);
    return 0;
}
