// The gateway's message-bus library: one poll() loop that serves the registered sockets, the
// periodic time-out handlers, the event observers and a D-Bus connection (libdbus-1) on the
// system bus (DBUS_SYSTEM_BUS_ADDRESS points it at a private bus). On that connection a service
// owns its name, offers method interfaces on its object, subscribes to signals and emits them.
//
// A bus that cannot be reached at first use is a failure of that call (the connection is not
// tried again), so a service that cannot register at start-up learns it there. A connection lost
// later is made again by the loop: the first try 100 ms after the loss, the wait doubling after
// every failed try up to 4 s. Each try puts back what was registered (the object with every
// interface, the owned name, the match rules added and not removed); the signal table and the
// loop's sockets, time-outs and observers stay as they are, so the users of this library need not
// know. A try that cannot own the name (another connection has it) has failed like one that finds
// no bus, and is repeated. Until a try succeeds there is no connection: emitting, adding or
// removing a match rule fail with OMBUS_ERR_CONNECT (a removed rule is not put back), and the loop
// keeps serving its sockets. The loss, each new reason of a failed try and the reconnection are
// logged on standard error and syslog.
#pragma once

#include <poll.h>

#include <cstdint>

struct DBusConnection;

// Status values (ombus_get_status_value).
enum ombus_status : int {
    OMBUS_OK = 0,
    OMBUS_ERR_CONNECT = -1,    // no bus connection could be made
    OMBUS_ERR_NAME = -2,       // the bus name could not be owned
    OMBUS_ERR_FULL = -3,       // a registration table is full
    OMBUS_ERR_ARGUMENT = -4,   // a null callback, a bad descriptor or an invalid bus name
    OMBUS_ERR_MATCH = -5,      // the bus refused a match rule
    OMBUS_ERR_REGISTER = -6,   // no name owned yet, or the object could not be registered
    OMBUS_ERR_SEND = -7,       // a message could not be built or queued
    OMBUS_ERR_NAME_OWNED = -8, // another connection owns the bus name
};

// A registered socket's callback receives its poll entry (descriptor and returned events).
using ombusPollingSocketCallback = int (*)(struct pollfd* entry);
// Time-out handlers and event observers take no argument.
using ombusPollingCallback = int (*)();

// Serves fd in the loop; the callback runs when poll() reports events on it. A socket is
// registered for POLLIN.
int ombusRegisterPollingSocket(int fd, ombusPollingSocketCallback callback, int arg3, int arg4);
int ombusUnregisterPollingSocket(int fd);
// The events poll() waits for on a registered socket: POLLOUT for a writer that waits for room,
// 0 to pause it. Errors and hang-ups are reported whatever the events. OMBUS_ERR_ARGUMENT for a
// descriptor that is not registered.
int ombusSetPollingSocketEvents(int fd, short events);
// Calls the handler every period_ms milliseconds.
int ombusRegisterPollingTimeOutHandler(uint32_t period_ms, ombusPollingCallback callback, int arg3,
                                       int arg4);
// Stops calling the handler; it may unregister itself while it runs.
int ombusUnregisterPollingTimeOutHandler(ombusPollingCallback callback);
// Calls the observer after every loop iteration that handled at least one event.
int ombusRegisterPollingEventObserver(ombusPollingCallback callback, int arg2, int arg3);

// Connects to the system bus (on first use) and requests the well-known name without queueing
// (OMBUS_ERR_NAME_OWNED when another connection has it). The service's object path follows from
// the name: "orvik.kiv.dnsproxy" serves /orvik/kiv/dnsproxy. Calls to the bus daemon wait 2 s
// at most for its reply.
int ombusOwnName(const char* name);
// The object path of the owned name ("" before ombusOwnName succeeded).
const char* ombusGetObjectPath();

// ---- method interfaces ------------------------------------------------------------------------
//
// A method call on the object for a registered interface goes to that interface's dispatcher with
// a parcel: the call's arguments are read from it in order, the reply's arguments written to it,
// and the call marked answered. After the dispatcher returns, an answered call gets its reply; an
// unanswered one gets an error reply (UnknownMethod for a method the interface does not describe,
// Failed otherwise), so a caller never waits in vain. A reply that cannot be built is logged and
// answered with Failed, both naming why. A described method called with arguments
// other than its input signature gets InvalidArgs and never reaches the dispatcher; a reply whose
// arguments differ from the described output signature is replaced by a Failed error.
// org.freedesktop.DBus.Introspectable.Introspect is answered from the registered descriptions;
// org.freedesktop.DBus.Peer (Ping) is answered by libdbus itself.

struct ombusParcel;

struct ombusMethodDesc {
    const char* name;
    const char* in_signature;  // D-Bus signature of the arguments, "" for none
    const char* out_signature; // D-Bus signature of the reply
};

// The dispatcher's result is not used: what counts is whether it answered the call.
using ombusServiceDispatcher = int (*)(const void* service, const char* method,
                                       ombusParcel* parcel);

// Serves interface on the object of the owned name; service is handed back to the dispatcher
// as is. The description rows are copied, the texts they point to are not (string literals).
// Up to 8 interfaces.
int ombusRegisterService(const char* interface, const void* service,
                         ombusServiceDispatcher dispatcher, const ombusMethodDesc* methods,
                         int n_methods);

// Names a signal the service emits, so that introspection lists it.
int ombusDeclareEmittedSignal(const char* interface, const char* member, const char* signature);

// Reading the call's arguments in order: 0, or -1 when the next argument is of another type or
// there is none. Texts and bytes stay valid while the dispatcher runs.
int ombusParcelReadU32(ombusParcel* parcel, uint32_t* value);
int ombusParcelReadString(ombusParcel* parcel, const char** text);
int ombusParcelReadBytes(ombusParcel* parcel, const uint8_t** data, uint32_t* length);
// Appending the reply's arguments: 0, or -1 when the reply cannot be built. A text that is not
// UTF-8 is sent repaired (kutl_utf8_fix) and logged, never refused.
int ombusParcelWriteU32(ombusParcel* parcel, uint32_t value);
int ombusParcelWriteString(ombusParcel* parcel, const char* text);
// Marks the call answered: the written arguments are sent as its reply.
void ombusParcelSetAnswered(ombusParcel* parcel);

// ---- signals ----------------------------------------------------------------------------------

// A received signal's handler: the signal's interface and member, and its first argument: for a
// byte array ("ay") the bytes and their count, for a text ("s") the NUL-terminated text and its
// length, for anything else (or no argument) null and 0.
using ombusSignalHandler = int (*)(const char* interface, const char* member, const void* payload,
                                   uint32_t length);

struct ombusInterestedSignal {
    char interface[64];
    char member[64];
    ombusSignalHandler handler;
    int row;
};

// Adds (removes) a D-Bus match rule, passed to the bus as written. 0, OMBUS_ERR_MATCH or
// OMBUS_ERR_CONNECT. The rules added are kept, to be added again on a new connection.
int ombusAddInterestedSignal(const char* match_rule);
int ombusRemoveMatch(const char* match_rule);

// Hands over the signal table (copied; a later call replaces it). A received signal runs the
// handler of the first row whose interface and member equal the signal's; the sender's object
// path is not looked at. Signals matching no row reach no handler.
int ombusSetInteresetedSignals(const ombusInterestedSignal* table, int count);

// Emits a signal with one byte-array argument from the given object path.
int ombusEmitSignal(const char* path, const char* interface, const char* member, const void* bytes,
                    uint32_t length);

// The connection, made on first use; null when the bus cannot be reached or while a lost one is
// being made again.
DBusConnection* ombusGetConnection();

// Runs the loop until ombusQuitMainLoop. SIGINT and SIGTERM are taken only while the loop
// waits in poll, so their handlers never interrupt the daemon inside its own work.
int ombusMainLoop();
void ombusQuitMainLoop();

int ombus_get_status_value();

// A fatal condition of a bus user: standard error and syslog (LOG_CRIT), prefixed with func.
void ombusLogFatalReal(const char* func, const char* fmt, ...)
    __attribute__((format(printf, 2, 3)));

// Drops every registration and closes the connection (tests, and a clean shutdown).
void ombusReset();
