// The gateway's message-bus library: one poll() loop that serves the registered sockets, the
// periodic time-out handlers, the event observers and a D-Bus connection (libdbus-1) on the
// system bus (DBUS_SYSTEM_BUS_ADDRESS points it at a private bus).
#pragma once

#include <poll.h>

#include <cstdint>

struct DBusConnection;

// Status values (ombus_get_status_value).
enum ombus_status : int {
    OMBUS_OK = 0,
    OMBUS_ERR_CONNECT = -1,  // no bus connection could be made
    OMBUS_ERR_NAME = -2,     // the bus name could not be owned
    OMBUS_ERR_FULL = -3,     // a registration table is full
    OMBUS_ERR_ARGUMENT = -4, // a null callback or a bad descriptor
};

// A registered socket's callback receives its poll entry (descriptor and returned events).
using ombusPollingSocketCallback = int (*)(struct pollfd* entry);
// Time-out handlers and event observers take no argument.
using ombusPollingCallback = int (*)();

// Serves fd in the loop; the callback runs when poll() reports events on it.
int ombusRegisterPollingSocket(int fd, ombusPollingSocketCallback callback, int arg3, int arg4);
int ombusUnregisterPollingSocket(int fd);
// Calls the handler every period_ms milliseconds.
int ombusRegisterPollingTimeOutHandler(uint32_t period_ms, ombusPollingCallback callback, int arg3,
                                       int arg4);
// Calls the observer after every loop iteration that handled at least one event.
int ombusRegisterPollingEventObserver(ombusPollingCallback callback, int arg2, int arg3);

// Connects to the system bus (once) and requests the well-known name without queueing.
int ombusOwnName(const char* name);

// The connection, made on first use; null when the bus cannot be reached.
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
