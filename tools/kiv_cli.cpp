// kiv_cli: the operator's command line to the gateway's kiv daemons.
//
//   kiv_cli [-t seconds] dnsproxy <command words...>
//
// The words, joined by one blank, travel to the daemon as the JSON message "kiv_msg_cli_cmd" in a
// "kivMessage" signal addressed to the daemon's bus name. The daemon prints the command's output
// on the terminal named in the message: the caller's own terminal when standard output is one;
// otherwise a FIFO made here, whose contents are copied to standard output until the daemon
// closes it, so that the output can be piped and captured.
#include <dbus/dbus.h>
#include <fcntl.h>
#include <getopt.h>
#include <json-c/json.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

struct kiv_daemon {
    const char* word;      // as typed after kiv_cli
    const char* bus_name;  // its well-known name on the system bus
    const char* interface; // the interface of its JSON message signal
};

constexpr kiv_daemon kDaemons[] = {
    {"dnsproxy", "orvik.kiv.dnsproxy", "orvik.kiv.dnsproxy.itf.json.msg"},
};

constexpr const char* kSenderPath = "/orvik/kiv/cli";
constexpr const char* kSignalMember = "kivMessage";
constexpr const char* kCliMessage = "kiv_msg_cli_cmd";
constexpr size_t kCommandMax = 4000;
constexpr double kDefaultWait = 5.0;

enum exit_code : int {
    EXIT_DONE = 0,
    EXIT_UNREACHABLE = 1, // the bus or the daemon cannot be reached, or it did not answer
    EXIT_USAGE = 2,
    EXIT_INTERRUPTED = 130,
};

const char kUsage[] =
    "usage: kiv_cli [-t seconds] <daemon> <command words...>\n"
    "       kiv_cli dnsproxy help\n"
    "\n"
    "Sends the command to the daemon over the system bus. The daemon prints its output on this\n"
    "terminal; when standard output is not a terminal, the output is copied to standard output.\n"
    "\n"
    "  daemons      dnsproxy\n"
    "  -t seconds   how long to wait for the daemon's output when standard output is not a\n"
    "               terminal (default 5)\n"
    "\n"
    "Exit status: 0 sent (and output copied), 1 the bus or the daemon cannot be reached or did\n"
    "not answer in time, 2 usage error.\n";

volatile sig_atomic_t interrupted = 0;

void on_interrupt(int) {
    interrupted = 1;
}

const kiv_daemon* find_daemon(const char* word) {
    for (const auto& d : kDaemons) {
        if (std::strcmp(d.word, word) == 0) return &d;
    }
    return nullptr;
}

// ---- the message -----------------------------------------------------------------------------

struct json_put {
    void operator()(json_object* obj) const { json_object_put(obj); }
};
using json_ptr = std::unique_ptr<json_object, json_put>;

// {"name":"kiv_msg_cli_cmd","params":{"kiv.cli":{"tty_name":...,"cmd":...}}}
std::string cli_message(const std::string& tty_name, const std::string& command) {
    json_object* cli = json_object_new_object();
    json_object_object_add(cli, "tty_name", json_object_new_string(tty_name.c_str()));
    json_object_object_add(cli, "cmd", json_object_new_string(command.c_str()));
    json_object* params = json_object_new_object();
    json_object_object_add(params, "kiv.cli", cli);
    json_ptr envelope(json_object_new_object());
    json_object_object_add(envelope.get(), "name", json_object_new_string(kCliMessage));
    json_object_object_add(envelope.get(), "params", params);
    return json_object_to_json_string_ext(envelope.get(),
                                          JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

// ---- the bus ---------------------------------------------------------------------------------

struct connection_close {
    void operator()(DBusConnection* c) const {
        dbus_connection_close(c);
        dbus_connection_unref(c);
    }
};
using conn_ptr = std::unique_ptr<DBusConnection, connection_close>;

struct message_unref {
    void operator()(DBusMessage* m) const { dbus_message_unref(m); }
};
using msg_ptr = std::unique_ptr<DBusMessage, message_unref>;

struct bus_error {
    DBusError err;
    bus_error() { dbus_error_init(&err); }
    ~bus_error() { dbus_error_free(&err); }
    const char* text() const { return dbus_error_is_set(&err) ? err.message : "unknown error"; }
};

// The system bus with the daemon on it, or null after saying why not.
conn_ptr reach_daemon(const kiv_daemon& daemon) {
    bus_error err;
    conn_ptr conn(dbus_bus_get_private(DBUS_BUS_SYSTEM, &err.err));
    if (conn == nullptr) {
        std::fprintf(stderr, "kiv_cli: cannot reach the system bus: %s\n", err.text());
        return nullptr;
    }
    dbus_connection_set_exit_on_disconnect(conn.get(), FALSE);
    const bool owned = dbus_bus_name_has_owner(conn.get(), daemon.bus_name, &err.err);
    if (dbus_error_is_set(&err.err)) {
        std::fprintf(stderr, "kiv_cli: cannot ask the system bus for %s: %s\n", daemon.bus_name,
                     err.text());
        return nullptr;
    }
    if (!owned) {
        std::fprintf(stderr, "kiv_cli: %s is not running (%s has no owner on the system bus)\n",
                     daemon.word, daemon.bus_name);
        return nullptr;
    }
    return conn;
}

// The bus's error for a refused message, if one came back for serial; "" otherwise. The bus
// reports a refusal only to messages that expect replies, and answers in order, so once a later
// call to the bus has been answered any such error has already arrived.
std::string refusal_of(DBusConnection* conn, dbus_uint32_t serial, const kiv_daemon& daemon) {
    bus_error err;
    dbus_bus_name_has_owner(conn, daemon.bus_name, &err.err);
    std::string refusal;
    while (msg_ptr m{dbus_connection_pop_message(conn)}) {
        if (dbus_message_get_type(m.get()) != DBUS_MESSAGE_TYPE_ERROR ||
            dbus_message_get_reply_serial(m.get()) != serial) {
            continue;
        }
        const char* text = "";
        dbus_message_get_args(m.get(), nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
        refusal = std::string(dbus_message_get_error_name(m.get())) + ": " + text;
    }
    return refusal;
}

bool send_message(DBusConnection* conn, const kiv_daemon& daemon, const std::string& text) {
    msg_ptr msg(dbus_message_new_signal(kSenderPath, daemon.interface, kSignalMember));
    const char* arg = text.c_str();
    dbus_uint32_t serial = 0;
    if (msg == nullptr || !dbus_message_set_destination(msg.get(), daemon.bus_name) ||
        !dbus_message_append_args(msg.get(), DBUS_TYPE_STRING, &arg, DBUS_TYPE_INVALID)) {
        std::fprintf(stderr, "kiv_cli: cannot build the message for %s\n", daemon.word);
        return false;
    }
    dbus_message_set_no_reply(msg.get(), FALSE); // so that a refusal is reported
    if (!dbus_connection_send(conn, msg.get(), &serial)) {
        std::fprintf(stderr, "kiv_cli: cannot send the command to %s\n", daemon.word);
        return false;
    }
    const std::string refusal = refusal_of(conn, serial, daemon);
    if (!refusal.empty()) {
        std::fprintf(stderr, "kiv_cli: the bus refused the command for %s: %s\n", daemon.word,
                     refusal.c_str());
        return false;
    }
    return true;
}

// ---- the FIFO --------------------------------------------------------------------------------

// A private directory with the FIFO in it, open for reading; both removed on destruction.
class output_fifo {
  public:
    bool make() {
        const char* tmp = std::getenv("TMPDIR");
        dir_ = std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") + "/kiv_cli.XXXXXX";
        if (mkdtemp(dir_.data()) == nullptr) {
            dir_.clear();
            return fail("cannot make a directory for the output FIFO");
        }
        path_ = dir_ + "/out";
        if (mkfifo(path_.c_str(), 0600) != 0) {
            path_.clear();
            return fail("cannot make the output FIFO");
        }
        // Opened before the message goes out: the daemon's non-blocking open for writing fails
        // unless a reader is there.
        fd_ = open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd_ < 0) return fail("cannot open the output FIFO");
        return true;
    }
    ~output_fifo() {
        if (fd_ >= 0) close(fd_);
        if (!path_.empty()) unlink(path_.c_str());
        if (!dir_.empty()) rmdir(dir_.c_str());
    }
    const std::string& path() const { return path_; }
    int fd() const { return fd_; }

  private:
    bool fail(const char* what) {
        std::fprintf(stderr, "kiv_cli: %s in %s: %s\n", what, dir_.c_str(), std::strerror(errno));
        return false;
    }
    std::string dir_;
    std::string path_;
    int fd_ = -1;
};

bool write_all(int fd, const char* data, size_t len) {
    while (len > 0) {
        const ssize_t n = write(fd, data, len);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

// Copies the FIFO to standard output until the daemon closes it. A FIFO that never had a writer
// reports nothing to poll, so silence for wait_ms, before or during the output, ends the wait.
int copy_output(int fd, int wait_ms, const char* daemon) {
    bool opened = false;
    char buf[8192];
    while (true) {
        pollfd p{fd, POLLIN, 0};
        const int n = poll(&p, 1, wait_ms);
        if (interrupted) return EXIT_INTERRUPTED;
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            std::perror("kiv_cli: poll");
            return EXIT_UNREACHABLE;
        }
        if (n == 0) {
            std::fprintf(stderr,
                         opened ? "kiv_cli: %s stopped writing its output for %d ms\n"
                                : "kiv_cli: %s did not open the output FIFO within %d ms\n",
                         daemon, wait_ms);
            return EXIT_UNREACHABLE;
        }
        const ssize_t got = read(fd, buf, sizeof buf);
        if (got == 0) return EXIT_DONE; // the daemon closed its end
        if (got < 0) {
            if (errno == EAGAIN || errno == EINTR) continue;
            std::perror("kiv_cli: read");
            return EXIT_UNREACHABLE;
        }
        opened = true;
        // A reader of our output that went away ends the copy; the daemon sees a closed FIFO.
        if (!write_all(STDOUT_FILENO, buf, static_cast<size_t>(got))) return EXIT_UNREACHABLE;
    }
}

// ---- the command line ------------------------------------------------------------------------

struct options {
    int wait_ms = static_cast<int>(kDefaultWait * 1000);
    const kiv_daemon* daemon = nullptr;
    std::string command;
};

int usage_error(const char* fmt, const char* arg) {
    std::fprintf(stderr, "kiv_cli: ");
    std::fprintf(stderr, fmt, arg);
    std::fprintf(stderr, "\n%s", kUsage);
    return EXIT_USAGE;
}

// EXIT_DONE with opts filled, or the exit status.
int parse_options(int argc, char** argv, options* opts) {
    int c;
    // "+": options end at the daemon's name, so command words are never taken for options.
    while ((c = getopt(argc, argv, "+ht:")) != -1) {
        if (c == 'h') {
            std::fputs(kUsage, stdout);
            return -1;
        }
        if (c != 't') return usage_error("unknown option %s", argv[optind - 1]);
        char* end = nullptr;
        const double s = std::strtod(optarg, &end);
        if (end == optarg || *end != '\0' || !std::isfinite(s) || s <= 0 || s > 3600)
            return usage_error("-t takes seconds between 0 and 3600, not %s", optarg);
        opts->wait_ms = static_cast<int>(std::ceil(s * 1000));
    }
    if (optind >= argc) return usage_error("%s", "no daemon named");
    opts->daemon = find_daemon(argv[optind]);
    if (opts->daemon == nullptr) return usage_error("unknown daemon %s", argv[optind]);
    if (optind + 1 >= argc) return usage_error("%s", "no command given");
    for (int i = optind + 1; i < argc; ++i) {
        if (!opts->command.empty()) opts->command += ' ';
        opts->command += argv[i];
    }
    if (opts->command.size() > kCommandMax) return usage_error("%s", "the command is too long");
    if (!dbus_validate_utf8(opts->command.c_str(), nullptr))
        return usage_error("%s", "the command is not valid UTF-8");
    return EXIT_DONE;
}

void install_signal_handlers() {
    struct sigaction sa {};
    sa.sa_handler = on_interrupt;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGHUP, &sa, nullptr);
    // A closed output pipe shows as a failed write, so the FIFO is still removed.
    signal(SIGPIPE, SIG_IGN);
}

int run(const options& opts) {
    conn_ptr conn = reach_daemon(*opts.daemon);
    if (conn == nullptr) return EXIT_UNREACHABLE;

    const char* tty = isatty(STDOUT_FILENO) ? ttyname(STDOUT_FILENO) : nullptr;
    if (tty != nullptr) {
        return send_message(conn.get(), *opts.daemon, cli_message(tty, opts.command))
                   ? EXIT_DONE
                   : EXIT_UNREACHABLE;
    }
    output_fifo fifo;
    if (!fifo.make()) return EXIT_UNREACHABLE;
    if (!send_message(conn.get(), *opts.daemon, cli_message(fifo.path(), opts.command)))
        return EXIT_UNREACHABLE;
    return copy_output(fifo.fd(), opts.wait_ms, opts.daemon->word);
}

} // namespace

int main(int argc, char** argv) {
    options opts;
    const int parsed = parse_options(argc, argv, &opts);
    if (parsed < 0) return EXIT_DONE; // -h
    if (parsed != EXIT_DONE) return parsed;
    install_signal_handlers();
    const int status = run(opts);
    dbus_shutdown();
    return status;
}
