#include "platform/ombus/ombus.h"

#include <dbus/dbus.h>
#include <signal.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "platform/kutl/kutl.h"

namespace {

struct socket_reg {
    int fd;
    ombusPollingSocketCallback callback;
    short events;
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

// A method interface of the object. Kept in a fixed array so that a dispatcher that registers
// more never moves the entry being served.
constexpr int kMaxServices = 8;
constexpr size_t kBusNameMax = 256; // D-Bus names are at most 255 characters

// A call to the bus daemon waits this long for its reply at most, so that a bus that takes
// connections but does not answer holds the loop up only so long (libdbus would wait 25 s).
constexpr int kDaemonCallMs = 2000;
// After the connection was lost, the first new one is tried this soon; the wait doubles after
// every failed try, up to the cap.
constexpr int64_t kReconnectFirstMs = 100;
constexpr int64_t kReconnectMaxMs = 4000;

struct service_reg {
    char interface[kBusNameMax];
    const void* service;
    ombusServiceDispatcher dispatcher;
    std::vector<ombusMethodDesc> methods; // names point into the registrant's static table
};

struct emitted_signal {
    std::string interface;
    std::string member;
    std::string signature;
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
    // A lost connection is made again by the loop alone: when to try next, the wait after that
    // try, the tries so far, and the last failure reported (a new reason is reported once).
    bool lost = false;
    int64_t reconnect_due_ms = 0;
    int64_t reconnect_delay_ms = 0;
    int reconnect_tries = 0;
    std::string reconnect_failure;
    volatile sig_atomic_t quit = 0; // may be set from a signal handler
    int status = OMBUS_OK;

    // What a new connection must carry again: the owned name, the object with every registered
    // interface, and the match rules added and not removed, in their order.
    std::string owned_name;
    std::vector<std::string> match_rules;
    std::string object_path;
    bool object_registered = false;
    service_reg services[kMaxServices];
    int service_count = 0;
    std::vector<emitted_signal> emitted;
    std::string introspect_xml;
    std::vector<ombusInterestedSignal> signals;
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

__attribute__((format(printf, 2, 3))) void log_bus(int priority, const char* fmt, ...) {
    char text[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    std::fprintf(stderr, "ombus: %s\n", text);
    syslog(priority, "ombus: %s", text);
}

// ---- libdbus helpers -------------------------------------------------------------------------

struct message_unref {
    void operator()(DBusMessage* m) const { dbus_message_unref(m); }
};
using msg_ptr = std::unique_ptr<DBusMessage, message_unref>;

// A DBusError that frees itself.
struct bus_error {
    DBusError err;
    bus_error() { dbus_error_init(&err); }
    ~bus_error() { dbus_error_free(&err); }
    bus_error(const bus_error&) = delete;
    bus_error& operator=(const bus_error&) = delete;
    bool set() const { return dbus_error_is_set(&err); }
    const char* text() const { return set() ? err.message : "unknown error"; }
};

// ---- libdbus watch and time-out hooks --------------------------------------------------------

dbus_bool_t add_watch(DBusWatch* watch, void*) {
    loop.watches.push_back(watch);
    loop.pfds.reserve(loop.sockets.size() + loop.watches.size() + 4);
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

// ---- received signals ------------------------------------------------------------------------

struct signal_payload {
    const void* data = nullptr;
    uint32_t length = 0;
};

signal_payload first_argument(DBusMessage* msg) {
    DBusMessageIter it;
    if (!dbus_message_iter_init(msg, &it)) return {};
    const int type = dbus_message_iter_get_arg_type(&it);
    if (type == DBUS_TYPE_STRING) {
        const char* text = nullptr;
        dbus_message_iter_get_basic(&it, &text);
        return {text, static_cast<uint32_t>(std::strlen(text))};
    }
    if (type == DBUS_TYPE_ARRAY && dbus_message_iter_get_element_type(&it) == DBUS_TYPE_BYTE) {
        DBusMessageIter sub;
        dbus_message_iter_recurse(&it, &sub);
        const unsigned char* bytes = nullptr;
        int n = 0;
        dbus_message_iter_get_fixed_array(&sub, &bytes, &n);
        return {bytes, static_cast<uint32_t>(n)};
    }
    return {};
}

void deliver_signal(DBusMessage* msg) {
    const char* interface = dbus_message_get_interface(msg);
    const char* member = dbus_message_get_member(msg);
    if (interface == nullptr || member == nullptr) return;
    for (const auto& row : loop.signals) {
        if (std::strcmp(row.interface, interface) != 0 || std::strcmp(row.member, member) != 0)
            continue;
        // The handler may replace the table: take what is needed first, and stop here.
        const ombusSignalHandler handler = row.handler;
        const signal_payload payload = first_argument(msg);
        handler(interface, member, payload.data, payload.length);
        return;
    }
}

DBusHandlerResult on_bus_message(DBusConnection*, DBusMessage* msg, void*) {
    if (dbus_message_is_signal(msg, DBUS_INTERFACE_LOCAL, "Disconnected")) {
        loop.disconnected = true;
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    if (dbus_message_get_type(msg) == DBUS_MESSAGE_TYPE_SIGNAL) deliver_signal(msg);
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
}

void close_connection() {
    if (loop.conn == nullptr) return;
    dbus_connection_set_watch_functions(loop.conn, nullptr, nullptr, nullptr, nullptr, nullptr);
    dbus_connection_set_timeout_functions(loop.conn, nullptr, nullptr, nullptr, nullptr, nullptr);
    dbus_connection_remove_filter(loop.conn, on_bus_message, nullptr);
    dbus_connection_close(loop.conn);
    dbus_connection_unref(loop.conn);
    loop.conn = nullptr;
    loop.object_registered = false;
    loop.watches.clear();
    loop.bus_timeouts.clear();
}

// A new connection to the system bus, served by the loop; null with err set when the bus cannot
// be reached (a socket nobody listens on fails at once).
DBusConnection* open_connection(bus_error* err) {
    DBusConnection* conn = dbus_bus_get_private(DBUS_BUS_SYSTEM, &err->err);
    if (conn == nullptr) return nullptr;
    // A lost bus must not end the daemon: DNS service goes on, and the loop connects again.
    dbus_connection_set_exit_on_disconnect(conn, FALSE);
    dbus_connection_add_filter(conn, on_bus_message, nullptr, nullptr);
    dbus_connection_set_watch_functions(conn, add_watch, remove_watch, toggle_watch, nullptr,
                                        nullptr);
    dbus_connection_set_timeout_functions(conn, add_timeout, remove_timeout, toggle_timeout,
                                          nullptr, nullptr);
    return conn;
}

// The connection, made on first use. Once one was lost, only the loop's reconnection makes the
// next, with everything registered on it; until then there is none.
DBusConnection* connect_bus() {
    if (loop.conn != nullptr || loop.connect_failed || loop.lost) return loop.conn;
    bus_error err;
    loop.conn = open_connection(&err);
    if (loop.conn == nullptr) {
        log_bus(LOG_ERR, "cannot connect to the system bus: %s", err.text());
        loop.connect_failed = true;
    }
    return loop.conn;
}

// A method of the bus daemon with a text argument (and flags when given); null with err set when
// it fails or no reply comes within kDaemonCallMs.
msg_ptr call_daemon(DBusConnection* conn, const char* member, const char* text, bus_error* err,
                    const dbus_uint32_t* flags = nullptr) {
    if (!dbus_validate_utf8(text, nullptr)) {
        dbus_set_error_const(&err->err, DBUS_ERROR_INVALID_ARGS, "the text is not UTF-8");
        return nullptr;
    }
    msg_ptr call(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                              DBUS_INTERFACE_DBUS, member));
    if (call == nullptr ||
        !dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID) ||
        (flags != nullptr &&
         !dbus_message_append_args(call.get(), DBUS_TYPE_UINT32, flags, DBUS_TYPE_INVALID))) {
        dbus_set_error_const(&err->err, DBUS_ERROR_NO_MEMORY, "out of memory");
        return nullptr;
    }
    return msg_ptr(
        dbus_connection_send_with_reply_and_block(conn, call.get(), kDaemonCallMs, &err->err));
}

// Requests the name without queueing: true when the connection is its primary owner.
// OMBUS_OK when the name is ours; OMBUS_ERR_NAME_OWNED when another connection has it;
// OMBUS_ERR_NAME when the bus refused or did not answer. err says why.
int request_name(DBusConnection* conn, const char* name, bus_error* err) {
    const dbus_uint32_t flags = DBUS_NAME_FLAG_DO_NOT_QUEUE;
    msg_ptr reply = call_daemon(conn, "RequestName", name, err, &flags);
    dbus_uint32_t ret = 0;
    if (reply == nullptr ||
        !dbus_message_get_args(reply.get(), &err->err, DBUS_TYPE_UINT32, &ret, DBUS_TYPE_INVALID)) {
        return OMBUS_ERR_NAME;
    }
    if (ret != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER &&
        ret != DBUS_REQUEST_NAME_REPLY_ALREADY_OWNER) {
        dbus_set_error(&err->err, DBUS_ERROR_FAILED, "%s is owned by another connection", name);
        return OMBUS_ERR_NAME_OWNED;
    }
    return OMBUS_OK;
}

} // namespace

// ---- the object: method calls and introspection -----------------------------------------------

// The call being served. Arguments are read in order from the call; the reply is made on the
// first write.
struct ombusParcel {
    DBusMessage* call;
    DBusMessageIter in;
    bool has_arg;
    msg_ptr reply;
    DBusMessageIter out;
    const char* write_failure = nullptr; // why the reply could not be built
    bool answered = false;

    explicit ombusParcel(DBusMessage* msg) : call(msg) {
        has_arg = dbus_message_iter_init(call, &in);
    }
};

namespace {

const ombusMethodDesc* find_method(const service_reg& svc, const char* member) {
    if (member == nullptr) return nullptr;
    for (const auto& m : svc.methods) {
        if (std::strcmp(m.name, member) == 0) return &m;
    }
    return nullptr;
}

// The interface a call is for; a call without an interface goes to the first that describes it.
service_reg* find_service(const char* interface, const char* member) {
    for (int i = 0; i < loop.service_count; ++i) {
        service_reg& svc = loop.services[i];
        if (interface != nullptr ? std::strcmp(svc.interface, interface) == 0
                                 : find_method(svc, member) != nullptr) {
            return &svc;
        }
    }
    return nullptr;
}

void send_error(DBusConnection* conn, DBusMessage* call, const char* name, const char* text) {
    if (dbus_message_get_no_reply(call)) return;
    msg_ptr err(dbus_message_new_error(call, name, text));
    if (err != nullptr) dbus_connection_send(conn, err.get(), nullptr);
}

void send_text_reply(DBusConnection* conn, DBusMessage* call, const char* text) {
    msg_ptr reply(dbus_message_new_method_return(call));
    if (reply == nullptr ||
        !dbus_message_append_args(reply.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID)) {
        return;
    }
    dbus_connection_send(conn, reply.get(), nullptr);
}

// Sends what the dispatcher made of the call: its reply, or an error so the caller never hangs.
void finish_call(DBusConnection* conn, ombusParcel* p, const char* interface, const char* member,
                 const ombusMethodDesc* desc) {
    char text[512];
    if (!p->answered && desc == nullptr) {
        std::snprintf(text, sizeof text, "no method %s in %s", member, interface);
        send_error(conn, p->call, DBUS_ERROR_UNKNOWN_METHOD, text);
        return;
    }
    if (!p->answered) {
        std::snprintf(text, sizeof text, "%s of %s was not answered", member, interface);
        std::fprintf(stderr, "ombus: %s\n", text);
        send_error(conn, p->call, DBUS_ERROR_FAILED, text);
        return;
    }
    if (p->reply == nullptr && p->write_failure == nullptr) {
        p->reply.reset(dbus_message_new_method_return(p->call));
        if (p->reply == nullptr) p->write_failure = "out of memory";
    }
    if (p->write_failure != nullptr) {
        std::snprintf(text, sizeof text, "the reply of %s of %s could not be built: %s", member,
                      interface, p->write_failure);
        log_bus(LOG_ERR, "%s", text);
        send_error(conn, p->call, DBUS_ERROR_FAILED, text);
        return;
    }
    if (desc != nullptr && !dbus_message_has_signature(p->reply.get(), desc->out_signature)) {
        std::snprintf(text, sizeof text, "%s of %s replied (%s), described as (%s)", member,
                      interface, dbus_message_get_signature(p->reply.get()), desc->out_signature);
        std::fprintf(stderr, "ombus: %s\n", text);
        send_error(conn, p->call, DBUS_ERROR_FAILED, text);
        return;
    }
    if (!dbus_message_get_no_reply(p->call)) dbus_connection_send(conn, p->reply.get(), nullptr);
}

DBusHandlerResult on_object_message(DBusConnection* conn, DBusMessage* msg, void*) {
    if (dbus_message_get_type(msg) != DBUS_MESSAGE_TYPE_METHOD_CALL)
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    if (dbus_message_is_method_call(msg, DBUS_INTERFACE_INTROSPECTABLE, "Introspect")) {
        send_text_reply(conn, msg, loop.introspect_xml.c_str());
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    const char* member = dbus_message_get_member(msg);
    const service_reg* svc = find_service(dbus_message_get_interface(msg), member);
    if (svc == nullptr) return DBUS_HANDLER_RESULT_NOT_YET_HANDLED; // libdbus answers UnknownMethod
    const ombusMethodDesc* desc = find_method(*svc, member);
    if (desc != nullptr && !dbus_message_has_signature(msg, desc->in_signature)) {
        char text[512];
        std::snprintf(text, sizeof text, "%s of %s takes (%s), not (%s)", member, svc->interface,
                      desc->in_signature, dbus_message_get_signature(msg));
        std::fprintf(stderr, "ombus: %s\n", text);
        send_error(conn, msg, DBUS_ERROR_INVALID_ARGS, text);
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    ombusParcel parcel(msg);
    svc->dispatcher(svc->service, member, &parcel);
    finish_call(conn, &parcel, svc->interface, member, desc);
    return DBUS_HANDLER_RESULT_HANDLED;
}

// One <arg> per complete type of the signature.
void append_xml_args(std::string* xml, const char* signature, const char* direction) {
    if (signature == nullptr || signature[0] == '\0') return;
    DBusSignatureIter it;
    dbus_signature_iter_init(&it, signature);
    do {
        char* type = dbus_signature_iter_get_signature(&it);
        *xml += "   <arg type=\"";
        *xml += type;
        *xml += '"';
        if (direction != nullptr) {
            *xml += " direction=\"";
            *xml += direction;
            *xml += '"';
        }
        *xml += "/>\n";
        dbus_free(type);
    } while (dbus_signature_iter_next(&it));
}

void append_xml_methods(std::string* xml, const char* interface) {
    const service_reg* svc = find_service(interface, nullptr);
    if (svc == nullptr) return;
    for (const auto& m : svc->methods) {
        *xml += std::string("  <method name=\"") + m.name + "\">\n";
        append_xml_args(xml, m.in_signature, "in");
        append_xml_args(xml, m.out_signature, "out");
        *xml += "  </method>\n";
    }
}

void append_xml_signals(std::string* xml, const std::string& interface) {
    for (const auto& sig : loop.emitted) {
        if (sig.interface != interface) continue;
        *xml += "  <signal name=\"" + sig.member + "\">\n";
        append_xml_args(xml, sig.signature.c_str(), nullptr);
        *xml += "  </signal>\n";
    }
}

// The object's introspection data, remade on every registration: one element per interface, with
// its methods and the signals emitted on it. Every name in it was validated as a D-Bus name, so
// none needs escaping.
void build_introspection() {
    std::vector<std::string> interfaces;
    for (int i = 0; i < loop.service_count; ++i)
        interfaces.emplace_back(loop.services[i].interface);
    for (const auto& sig : loop.emitted) {
        if (std::find(interfaces.begin(), interfaces.end(), sig.interface) == interfaces.end())
            interfaces.push_back(sig.interface);
    }
    std::string& xml = loop.introspect_xml;
    xml = DBUS_INTROSPECT_1_0_XML_DOCTYPE_DECL_NODE;
    xml += "<node>\n"
           " <interface name=\"" DBUS_INTERFACE_INTROSPECTABLE "\">\n"
           "  <method name=\"Introspect\">\n"
           "   <arg type=\"s\" direction=\"out\"/>\n"
           "  </method>\n"
           " </interface>\n"
           " <interface name=\"" DBUS_INTERFACE_PEER "\">\n"
           "  <method name=\"Ping\"/>\n"
           "  <method name=\"GetMachineId\">\n"
           "   <arg type=\"s\" direction=\"out\"/>\n"
           "  </method>\n"
           " </interface>\n";
    for (const auto& interface : interfaces) {
        xml += " <interface name=\"" + interface + "\">\n";
        append_xml_methods(&xml, interface.c_str());
        append_xml_signals(&xml, interface);
        xml += " </interface>\n";
    }
    xml += "</node>\n";
}

bool valid_signature(const char* signature) {
    return signature != nullptr && dbus_signature_validate(signature, nullptr);
}

bool valid_methods(const ombusMethodDesc* methods, int n) {
    if (n < 0 || (n > 0 && methods == nullptr)) return false;
    for (int i = 0; i < n; ++i) {
        if (methods[i].name == nullptr || !dbus_validate_member(methods[i].name, nullptr) ||
            !valid_signature(methods[i].in_signature) ||
            !valid_signature(methods[i].out_signature)) {
            return false;
        }
    }
    return true;
}

// The object is registered with the first interface, at the owned name's path; it serves every
// registered interface. err is set when libdbus refused it.
int register_object(bus_error* err) {
    if (loop.object_registered) return OMBUS_OK;
    if (loop.conn == nullptr || loop.object_path.empty()) return OMBUS_ERR_REGISTER;
    static const DBusObjectPathVTable vtable = {nullptr, on_object_message, nullptr,
                                                nullptr, nullptr,           nullptr};
    if (!dbus_connection_try_register_object_path(loop.conn, loop.object_path.c_str(), &vtable,
                                                  nullptr, &err->err)) {
        return OMBUS_ERR_REGISTER;
    }
    loop.object_registered = true;
    return OMBUS_OK;
}

int call_match(const char* rule, bool add) {
    if (rule == nullptr) return set_status(OMBUS_ERR_ARGUMENT);
    if (!add) { // forgotten even while the bus is away, so that no reconnection adds it again
        const auto it = std::find(loop.match_rules.begin(), loop.match_rules.end(), rule);
        if (it != loop.match_rules.end()) loop.match_rules.erase(it);
    }
    DBusConnection* conn = connect_bus();
    if (conn == nullptr) return set_status(OMBUS_ERR_CONNECT);
    bus_error err;
    if (call_daemon(conn, add ? "AddMatch" : "RemoveMatch", rule, &err) == nullptr) {
        log_bus(LOG_ERR, "cannot %s match rule %s: %s", add ? "add" : "remove", rule, err.text());
        return set_status(OMBUS_ERR_MATCH);
    }
    if (add) loop.match_rules.emplace_back(rule);
    return set_status(OMBUS_OK);
}

// ---- a lost connection -----------------------------------------------------------------------

// Puts the service on a new connection as it was: the object first (so that no call arriving once
// the name is owned finds it missing), then the name, then every match rule. The registrations
// and the signal table are kept in the loop and stay as they are. false, with err set, when a
// step fails; a name owned by another connection is such a failure.
bool restore_service(bus_error* err) {
    loop.conn = open_connection(err);
    if (loop.conn == nullptr) return false;
    if (loop.service_count > 0 && register_object(err) != OMBUS_OK) return false;
    if (!loop.owned_name.empty() &&
        request_name(loop.conn, loop.owned_name.c_str(), err) != OMBUS_OK)
        return false;
    for (const auto& rule : loop.match_rules) {
        if (call_daemon(loop.conn, "AddMatch", rule.c_str(), err) == nullptr) return false;
    }
    return true;
}

void connection_lost() {
    log_bus(LOG_ERR, "the bus connection was lost");
    close_connection();
    loop.lost = true;
    loop.reconnect_tries = 0;
    loop.reconnect_failure.clear();
    loop.reconnect_delay_ms = kReconnectFirstMs;
    loop.reconnect_due_ms = now_ms() + kReconnectFirstMs;
}

// One try when it is due; a failed try leaves no connection and waits twice as long for the next.
void reconnect() {
    if (!loop.lost || now_ms() < loop.reconnect_due_ms) return;
    ++loop.reconnect_tries;
    bus_error err;
    if (!restore_service(&err)) {
        close_connection();
        if (loop.reconnect_failure != err.text()) { // not every few seconds while the bus is away
            loop.reconnect_failure = err.text();
            log_bus(LOG_WARNING, "no new bus connection yet (try %d): %s", loop.reconnect_tries,
                    err.text());
        }
        loop.reconnect_delay_ms = std::min(loop.reconnect_delay_ms * 2, kReconnectMaxMs);
        loop.reconnect_due_ms = now_ms() + loop.reconnect_delay_ms;
        return;
    }
    loop.lost = false;
    log_bus(LOG_NOTICE, "reconnected to the bus (try %d): %s served again", loop.reconnect_tries,
            loop.owned_name.empty() ? "no name" : loop.owned_name.c_str());
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
    if (loop.lost) consider(loop.reconnect_due_ms);
    return static_cast<int>(std::min<int64_t>(wait, 60000));
}

size_t build_poll_set() {
    loop.pfds.clear();
    for (const auto& s : loop.sockets)
        loop.pfds.push_back({s.fd, s.events, 0});
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
        loop.disconnected = false;
        connection_lost();
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
    loop.sockets.push_back({fd, callback, POLLIN});
    loop.pfds.reserve(loop.sockets.size() + 8);
    return set_status(OMBUS_OK);
}

int ombusUnregisterPollingSocket(int fd) {
    std::erase_if(loop.sockets, [fd](const socket_reg& s) { return s.fd == fd; });
    return set_status(OMBUS_OK);
}

int ombusSetPollingSocketEvents(int fd, short events) {
    for (auto& s : loop.sockets) {
        if (s.fd == fd) {
            s.events = events;
            return set_status(OMBUS_OK);
        }
    }
    return set_status(OMBUS_ERR_ARGUMENT);
}

int ombusRegisterPollingTimeOutHandler(uint32_t period_ms, ombusPollingCallback callback, int,
                                       int) {
    if (callback == nullptr || period_ms == 0) return set_status(OMBUS_ERR_ARGUMENT);
    loop.timeouts.push_back({period_ms, callback, now_ms() + period_ms});
    return set_status(OMBUS_OK);
}

int ombusUnregisterPollingTimeOutHandler(ombusPollingCallback callback) {
    std::erase_if(loop.timeouts,
                  [callback](const timeout_reg& t) { return t.callback == callback; });
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
    if (name == nullptr || !dbus_validate_bus_name(name, nullptr) || name[0] == ':')
        return set_status(OMBUS_ERR_ARGUMENT);
    bus_error err;
    if (const int status = request_name(conn, name, &err); status != OMBUS_OK) {
        log_bus(LOG_ERR, "cannot own %s: %s", name, err.text());
        return set_status(status);
    }
    loop.owned_name = name;
    if (loop.object_path.empty()) {
        loop.object_path = std::string("/") + name;
        std::replace(loop.object_path.begin(), loop.object_path.end(), '.', '/');
    }
    return set_status(OMBUS_OK);
}

const char* ombusGetObjectPath() {
    return loop.object_path.c_str();
}

int ombusRegisterService(const char* interface, const void* service,
                         ombusServiceDispatcher dispatcher, const ombusMethodDesc* methods,
                         int n_methods) {
    if (interface == nullptr || !dbus_validate_interface(interface, nullptr) ||
        dispatcher == nullptr || !valid_methods(methods, n_methods)) {
        return set_status(OMBUS_ERR_ARGUMENT);
    }
    if (find_service(interface, nullptr) != nullptr || loop.service_count == kMaxServices)
        return set_status(OMBUS_ERR_FULL);
    bus_error err;
    const int status = register_object(&err);
    if (err.set()) log_bus(LOG_ERR, "cannot serve %s: %s", loop.object_path.c_str(), err.text());
    if (status != OMBUS_OK) return set_status(status);
    service_reg& svc = loop.services[loop.service_count++];
    std::snprintf(svc.interface, sizeof svc.interface, "%s", interface);
    svc.service = service;
    svc.dispatcher = dispatcher;
    svc.methods.assign(methods, methods + n_methods);
    build_introspection();
    return set_status(OMBUS_OK);
}

int ombusDeclareEmittedSignal(const char* interface, const char* member, const char* signature) {
    if (interface == nullptr || !dbus_validate_interface(interface, nullptr) || member == nullptr ||
        !dbus_validate_member(member, nullptr) || !valid_signature(signature)) {
        return set_status(OMBUS_ERR_ARGUMENT);
    }
    loop.emitted.push_back({interface, member, signature});
    build_introspection();
    return set_status(OMBUS_OK);
}

int ombusParcelReadU32(ombusParcel* p, uint32_t* value) {
    if (p == nullptr || value == nullptr || !p->has_arg ||
        dbus_message_iter_get_arg_type(&p->in) != DBUS_TYPE_UINT32) {
        return -1;
    }
    dbus_uint32_t v = 0;
    dbus_message_iter_get_basic(&p->in, &v);
    *value = v;
    p->has_arg = dbus_message_iter_next(&p->in);
    return 0;
}

int ombusParcelReadString(ombusParcel* p, const char** text) {
    if (p == nullptr || text == nullptr || !p->has_arg ||
        dbus_message_iter_get_arg_type(&p->in) != DBUS_TYPE_STRING) {
        return -1;
    }
    dbus_message_iter_get_basic(&p->in, text);
    p->has_arg = dbus_message_iter_next(&p->in);
    return 0;
}

int ombusParcelReadBytes(ombusParcel* p, const uint8_t** data, uint32_t* length) {
    if (p == nullptr || data == nullptr || length == nullptr || !p->has_arg ||
        dbus_message_iter_get_arg_type(&p->in) != DBUS_TYPE_ARRAY ||
        dbus_message_iter_get_element_type(&p->in) != DBUS_TYPE_BYTE) {
        return -1;
    }
    DBusMessageIter sub;
    dbus_message_iter_recurse(&p->in, &sub);
    const unsigned char* bytes = nullptr;
    int n = 0;
    dbus_message_iter_get_fixed_array(&sub, &bytes, &n);
    *data = bytes;
    *length = static_cast<uint32_t>(n);
    p->has_arg = dbus_message_iter_next(&p->in);
    return 0;
}

namespace {
int fail_write(ombusParcel* p, const char* why) {
    if (p->write_failure == nullptr) p->write_failure = why;
    return -1;
}

// The reply to append to, made on the first write; null once a write failed.
DBusMessageIter* reply_iter(ombusParcel* p) {
    if (p->write_failure != nullptr) return nullptr;
    if (p->reply == nullptr) {
        p->reply.reset(dbus_message_new_method_return(p->call));
        if (p->reply == nullptr) {
            fail_write(p, "out of memory");
            return nullptr;
        }
        dbus_message_iter_init_append(p->reply.get(), &p->out);
    }
    return &p->out;
}

int append_basic(ombusParcel* p, int type, const void* value) {
    DBusMessageIter* out = reply_iter(p);
    if (out == nullptr) return -1;
    if (!dbus_message_iter_append_basic(out, type, value)) return fail_write(p, "out of memory");
    return 0;
}
} // namespace

int ombusParcelWriteU32(ombusParcel* p, uint32_t value) {
    if (p == nullptr) return -1;
    const dbus_uint32_t v = value;
    return append_basic(p, DBUS_TYPE_UINT32, &v);
}

int ombusParcelWriteString(ombusParcel* p, const char* text) {
    if (p == nullptr) return -1;
    if (text == nullptr) return fail_write(p, "a text argument is null");
    if (dbus_validate_utf8(text, nullptr)) return append_basic(p, DBUS_TYPE_STRING, &text);
    // Only UTF-8 travels as a D-Bus text: the caller gets the text repaired rather than an error
    // in place of the whole reply.
    std::string fixed(text);
    fixed.resize(kutl_utf8_fix(fixed.data(), fixed.size() + 1));
    log_bus(LOG_WARNING, "a reply text of %s is not UTF-8: sent repaired",
            dbus_message_get_member(p->call));
    const char* repaired = fixed.c_str();
    if (!dbus_validate_utf8(repaired, nullptr)) return fail_write(p, "a text is not UTF-8");
    return append_basic(p, DBUS_TYPE_STRING, &repaired);
}

void ombusParcelSetAnswered(ombusParcel* p) {
    if (p != nullptr) p->answered = true;
}

int ombusAddInterestedSignal(const char* match_rule) {
    return call_match(match_rule, true);
}

int ombusRemoveMatch(const char* match_rule) {
    return call_match(match_rule, false);
}

int ombusSetInteresetedSignals(const ombusInterestedSignal* table, int count) {
    if (count < 0 || (count > 0 && table == nullptr)) return set_status(OMBUS_ERR_ARGUMENT);
    for (int i = 0; i < count; ++i) {
        // Rows are compared as texts: each field must end inside its 64 bytes.
        if (std::memchr(table[i].interface, '\0', sizeof table[i].interface) == nullptr ||
            std::memchr(table[i].member, '\0', sizeof table[i].member) == nullptr ||
            table[i].handler == nullptr) {
            return set_status(OMBUS_ERR_ARGUMENT);
        }
    }
    loop.signals.assign(table, table + count);
    return set_status(OMBUS_OK);
}

int ombusEmitSignal(const char* path, const char* interface, const char* member, const void* bytes,
                    uint32_t length) {
    DBusConnection* conn = connect_bus();
    if (conn == nullptr) return set_status(OMBUS_ERR_CONNECT);
    if (path == nullptr || !dbus_validate_path(path, nullptr) || interface == nullptr ||
        !dbus_validate_interface(interface, nullptr) || member == nullptr ||
        !dbus_validate_member(member, nullptr) || (bytes == nullptr && length > 0) ||
        length > DBUS_MAXIMUM_ARRAY_LENGTH) {
        return set_status(OMBUS_ERR_ARGUMENT);
    }
    static const unsigned char kNone = 0;
    const unsigned char* data = length > 0 ? static_cast<const unsigned char*>(bytes) : &kNone;
    const int n = static_cast<int>(length);
    msg_ptr msg(dbus_message_new_signal(path, interface, member));
    if (msg == nullptr ||
        !dbus_message_append_args(msg.get(), DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &data, n,
                                  DBUS_TYPE_INVALID) ||
        !dbus_connection_send(conn, msg.get(), nullptr)) {
        return set_status(OMBUS_ERR_SEND);
    }
    dbus_connection_flush(conn); // out now, also for a caller that runs no loop
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

    loop.quit = 0;
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
        reconnect();
        if (handled) run_observers();
    }
    sigprocmask(SIG_SETMASK, &saved, nullptr);
    return loop.status;
}

void ombusQuitMainLoop() {
    loop.quit = 1;
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
    loop.lost = false;
    loop.quit = 0;
    loop.status = OMBUS_OK;
    loop.owned_name.clear();
    loop.match_rules.clear();
    loop.object_path.clear();
    for (int i = 0; i < loop.service_count; ++i)
        loop.services[i].methods.clear();
    loop.service_count = 0;
    loop.emitted.clear();
    loop.introspect_xml.clear();
    loop.signals.clear();
}
