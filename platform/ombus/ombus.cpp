#include "platform/ombus/ombus.h"

#include <dbus/dbus.h>
#include <signal.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <vector>

namespace {

struct socket_reg {
    int fd;
    ombusPollingSocketCallback callback;
};

struct timeout_reg {
    uint32_t period_ms;
    ombusPollingCallback callback;
    int64_t due_ms;
};

struct bus_timeout {
    DBusTimeout* timeout;
    int64_t due_ms;
};

// The loop's registrations. Registration happens at start-up; the vectors are sized once and the
// per-wake-up pollfd array is rebuilt in place, so the loop itself does not allocate.
struct loop_state {
    std::vector<socket_reg> sockets;
    std::vector<timeout_reg> timeouts;
    std::vector<ombusPollingCallback> observers;
    std::vector<DBusWatch*> watches;
    std::vector<bus_timeout> bus_timeouts;
    std::vector<pollfd> pfds;
    DBusConnection* conn = nullptr;
    bool connect_failed = false;
    bool disconnected = false;
    bool quit = false;
    int status = OMBUS_OK;
};

loop_state loop;

int64_t now_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int set_status(int status) {
    loop.status = status;
    return status;
}

// ---- libdbus watch and time-out hooks --------------------------------------------------------

dbus_bool_t add_watch(DBusWatch* watch, void*) {
    loop.watches.push_back(watch);
    return TRUE;
}

void remove_watch(DBusWatch* watch, void*) {
    std::erase(loop.watches, watch);
}

void toggle_watch(DBusWatch*, void*) {} // enabled state is read each time the poll set is built

dbus_bool_t add_timeout(DBusTimeout* timeout, void*) {
    loop.bus_timeouts.push_back({timeout, now_ms() + dbus_timeout_get_interval(timeout)});
    return TRUE;
}

void remove_timeout(DBusTimeout* timeout, void*) {
    std::erase_if(loop.bus_timeouts,
                  [timeout](const bus_timeout& t) { return t.timeout == timeout; });
}

void toggle_timeout(DBusTimeout* timeout, void*) {
    for (auto& t : loop.bus_timeouts) {
        if (t.timeout == timeout) t.due_ms = now_ms() + dbus_timeout_get_interval(timeout);
    }
}

DBusHandlerResult watch_disconnect(DBusConnection*, DBusMessage* msg, void*) {
    if (dbus_message_is_signal(msg, DBUS_INTERFACE_LOCAL, "Disconnected")) {
        loop.disconnected = true;
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
}

void close_connection() {
    if (loop.conn == nullptr) return;
    dbus_connection_set_watch_functions(loop.conn, nullptr, nullptr, nullptr, nullptr, nullptr);
    dbus_connection_set_timeout_functions(loop.conn, nullptr, nullptr, nullptr, nullptr, nullptr);
    dbus_connection_remove_filter(loop.conn, watch_disconnect, nullptr);
    dbus_connection_close(loop.conn);
    dbus_connection_unref(loop.conn);
    loop.conn = nullptr;
    loop.watches.clear();
    loop.bus_timeouts.clear();
}

DBusConnection* connect_bus() {
    if (loop.conn != nullptr || loop.connect_failed) return loop.conn;
    DBusError err;
    dbus_error_init(&err);
    DBusConnection* conn = dbus_bus_get_private(DBUS_BUS_SYSTEM, &err);
    if (conn == nullptr) {
        std::fprintf(stderr, "ombus: cannot connect to the system bus: %s\n",
                     dbus_error_is_set(&err) ? err.message : "unknown error");
        dbus_error_free(&err);
        loop.connect_failed = true;
        return nullptr;
    }
    // A lost bus must not end the daemon: DNS service goes on without the control plane.
    dbus_connection_set_exit_on_disconnect(conn, FALSE);
    dbus_connection_add_filter(conn, watch_disconnect, nullptr, nullptr);
    dbus_connection_set_watch_functions(conn, add_watch, remove_watch, toggle_watch, nullptr,
                                        nullptr);
    dbus_connection_set_timeout_functions(conn, add_timeout, remove_timeout, toggle_timeout,
                                          nullptr, nullptr);
    loop.conn = conn;
    return conn;
}

// ---- one iteration ---------------------------------------------------------------------------

short watch_events(DBusWatch* w) {
    const unsigned flags = dbus_watch_get_flags(w);
    short ev = 0;
    if (flags & DBUS_WATCH_READABLE) ev |= POLLIN;
    if (flags & DBUS_WATCH_WRITABLE) ev |= POLLOUT;
    return ev;
}

unsigned watch_flags(short revents) {
    unsigned flags = 0;
    if (revents & POLLIN) flags |= DBUS_WATCH_READABLE;
    if (revents & POLLOUT) flags |= DBUS_WATCH_WRITABLE;
    if (revents & POLLERR) flags |= DBUS_WATCH_ERROR;
    if (revents & POLLHUP) flags |= DBUS_WATCH_HANGUP;
    return flags;
}

// Milliseconds until the earliest time-out, 0 when the bus has queued messages, -1 for none.
int next_wait_ms(int64_t now) {
    if (loop.conn != nullptr &&
        dbus_connection_get_dispatch_status(loop.conn) == DBUS_DISPATCH_DATA_REMAINS) {
        return 0;
    }
    int64_t wait = -1;
    auto consider = [&](int64_t due) {
        const int64_t d = std::max<int64_t>(0, due - now);
        if (wait < 0 || d < wait) wait = d;
    };
    for (const auto& t : loop.timeouts)
        consider(t.due_ms);
    for (const auto& t : loop.bus_timeouts) {
        if (dbus_timeout_get_enabled(t.timeout)) consider(t.due_ms);
    }
    return static_cast<int>(std::min<int64_t>(wait, 60000));
}

size_t build_poll_set() {
    loop.pfds.clear();
    for (const auto& s : loop.sockets)
        loop.pfds.push_back({s.fd, POLLIN, 0});
    const size_t nsockets = loop.pfds.size();
    for (DBusWatch* w : loop.watches) {
        if (dbus_watch_get_enabled(w))
            loop.pfds.push_back({dbus_watch_get_unix_fd(w), watch_events(w), 0});
    }
    return nsockets;
}

bool serve_sockets(size_t nsockets) {
    bool handled = false;
    for (size_t i = 0; i < nsockets && i < loop.pfds.size(); ++i) {
        pollfd entry = loop.pfds[i];
        if (entry.revents == 0) continue;
        // A callback may have unregistered a later socket: look the registration up again.
        for (const auto& s : loop.sockets) {
            if (s.fd == entry.fd) {
                s.callback(&entry);
                handled = true;
                break;
            }
        }
    }
    return handled;
}

bool serve_watches(size_t nsockets) {
    bool handled = false;
    for (size_t i = nsockets; i < loop.pfds.size(); ++i) {
        const pollfd entry = loop.pfds[i];
        if (entry.revents == 0) continue;
        for (DBusWatch* w : loop.watches) {
            if (dbus_watch_get_unix_fd(w) == entry.fd && dbus_watch_get_enabled(w)) {
                dbus_watch_handle(w, watch_flags(entry.revents));
                handled = true;
                break;
            }
        }
    }
    return handled;
}

void serve_timeouts() {
    int64_t now = now_ms();
    for (size_t i = 0; i < loop.timeouts.size(); ++i) {
        if (loop.timeouts[i].due_ms > now) continue;
        loop.timeouts[i].due_ms = now + loop.timeouts[i].period_ms; // no catching up
        loop.timeouts[i].callback();
    }
    now = now_ms();
    for (size_t i = 0; i < loop.bus_timeouts.size(); ++i) {
        bus_timeout& t = loop.bus_timeouts[i];
        if (!dbus_timeout_get_enabled(t.timeout) || t.due_ms > now) continue;
        t.due_ms = now + dbus_timeout_get_interval(t.timeout);
        dbus_timeout_handle(t.timeout);
    }
}

void dispatch_bus() {
    if (loop.conn == nullptr) return;
    while (dbus_connection_dispatch(loop.conn) == DBUS_DISPATCH_DATA_REMAINS) {}
    if (loop.disconnected) {
        std::fprintf(stderr, "ombus: the bus connection was lost\n");
        syslog(LOG_ERR, "ombus: the bus connection was lost");
        close_connection();
        loop.disconnected = false;
    }
}

void run_observers() {
    for (size_t i = 0; i < loop.observers.size(); ++i)
        loop.observers[i]();
}

} // namespace

int ombusRegisterPollingSocket(int fd, ombusPollingSocketCallback callback, int, int) {
    if (fd < 0 || callback == nullptr) return set_status(OMBUS_ERR_ARGUMENT);
    for (auto& s : loop.sockets) {
        if (s.fd == fd) {
            s.callback = callback;
            return set_status(OMBUS_OK);
        }
    }
    loop.sockets.push_back({fd, callback});
    loop.pfds.reserve(loop.sockets.size() + 8);
    return set_status(OMBUS_OK);
}

int ombusUnregisterPollingSocket(int fd) {
    std::erase_if(loop.sockets, [fd](const socket_reg& s) { return s.fd == fd; });
    return set_status(OMBUS_OK);
}

int ombusRegisterPollingTimeOutHandler(uint32_t period_ms, ombusPollingCallback callback, int,
                                       int) {
    if (callback == nullptr || period_ms == 0) return set_status(OMBUS_ERR_ARGUMENT);
    loop.timeouts.push_back({period_ms, callback, now_ms() + period_ms});
    return set_status(OMBUS_OK);
}

int ombusRegisterPollingEventObserver(ombusPollingCallback callback, int, int) {
    if (callback == nullptr) return set_status(OMBUS_ERR_ARGUMENT);
    loop.observers.push_back(callback);
    return set_status(OMBUS_OK);
}

DBusConnection* ombusGetConnection() {
    return connect_bus();
}

int ombusOwnName(const char* name) {
    DBusConnection* conn = connect_bus();
    if (conn == nullptr) return set_status(OMBUS_ERR_CONNECT);
    DBusError err;
    dbus_error_init(&err);
    const int ret = dbus_bus_request_name(conn, name, DBUS_NAME_FLAG_DO_NOT_QUEUE, &err);
    if (dbus_error_is_set(&err)) {
        std::fprintf(stderr, "ombus: cannot own %s: %s\n", name, err.message);
        dbus_error_free(&err);
        return set_status(OMBUS_ERR_NAME);
    }
    if (ret != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER &&
        ret != DBUS_REQUEST_NAME_REPLY_ALREADY_OWNER) {
        std::fprintf(stderr, "ombus: %s is owned by another connection\n", name);
        return set_status(OMBUS_ERR_NAME);
    }
    return set_status(OMBUS_OK);
}

int ombusMainLoop() {
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGINT);
    sigaddset(&term, SIGTERM);
    sigset_t saved;
    sigprocmask(SIG_BLOCK, &term, &saved);
    sigset_t wait_mask = saved;
    sigdelset(&wait_mask, SIGINT);
    sigdelset(&wait_mask, SIGTERM);

    loop.quit = false;
    while (!loop.quit) {
        const size_t nsockets = build_poll_set();
        const int wait = next_wait_ms(now_ms());
        struct timespec ts {
            wait / 1000, static_cast<long>(wait % 1000) * 1000000
        };
        const int n =
            ppoll(loop.pfds.data(), loop.pfds.size(), wait < 0 ? nullptr : &ts, &wait_mask);
        if (n < 0 && errno != EINTR) {
            std::perror("ombus: ppoll");
            break;
        }
        bool handled = false;
        if (n > 0) {
            handled = serve_sockets(nsockets);
            handled = serve_watches(nsockets) || handled;
        }
        serve_timeouts();
        dispatch_bus();
        if (handled) run_observers();
    }
    sigprocmask(SIG_SETMASK, &saved, nullptr);
    return loop.status;
}

void ombusQuitMainLoop() {
    loop.quit = true;
}

int ombus_get_status_value() {
    return loop.status;
}

void ombusLogFatalReal(const char* func, const char* fmt, ...) {
    char text[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    std::fprintf(stderr, "%s: %s", func, text);
    syslog(LOG_CRIT, "%s: %s", func, text);
}

void ombusReset() {
    close_connection();
    loop.sockets.clear();
    loop.timeouts.clear();
    loop.observers.clear();
    loop.pfds.clear();
    loop.connect_failed = false;
    loop.quit = false;
    loop.status = OMBUS_OK;
}
