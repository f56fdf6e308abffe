// The gateway's JSON command service: the service's JSON API interface with its synchronous
// method handler, and the handlers of the JSON message signals it receives. The bus side hands
// the texts in: a method call's request to rcsd_kiv_sync_invoke, a received message signal to
// rcsd_process_kiv_signal; this library picks the registered handler (normally the JSON helper's
// rjson_process_kiv_method / rjson_process_kiv_message).
#pragma once

#include <cstdint>

enum rcsd_status : int {
    RCSD_OK = 0,
    RCSD_ERR_STATE = -1,        // not initialised, a null argument, or a second API interface
    RCSD_ERR_FULL = -2,         // too many message handlers
    RCSD_ERR_BAD_TEXT = -400,   // a signal payload that is no text
    RCSD_ERR_NO_HANDLER = -501, // nothing registered for the method or the signal
};

// The synchronous method handler: the JSON request in, a status and a result text out
// (NUL-terminated, at most result_size - 1 characters, "" when none).
using rcsd_sync_method_handler = int (*)(const char* interface, const char* request, char* result,
                                         uint32_t result_size);
// A message handler: the JSON message text of a received signal.
using rcsd_message_handler = int (*)(const char* interface, const char* message);

// The name of the synchronous method handler that rcsd_kiv_sync_invoke runs.
constexpr const char* RCSD_SYNC_METHOD = "kivInvoke";
// The least result buffer a caller of rcsd_kiv_sync_invoke is expected to offer (a service whose
// results may be longer offers more).
constexpr uint32_t RCSD_RESULT_SIZE = 1024;

// Opens the service. 0, or RCSD_ERR_STATE when already open.
int rcsd_init(const char* service_name);
// Drops every registration.
void rcsd_done();

// Names the service's JSON API interface (one per service).
int rcsd_register_json_api_interface(const char* interface);
// Registers the synchronous method handler of the JSON API interface under its name
// (RCSD_SYNC_METHOD); the interface must have been registered.
int rcsd_register_sync_method_handler(const char* interface, const char* name,
                                      rcsd_sync_method_handler handler);
// Registers the handler of the message signal name (its member) on the interface. Up to 8.
int rcsd_register_message_handler(const char* interface, const char* name,
                                  rcsd_message_handler handler);

// Runs the request through the JSON API interface's synchronous method handler: its status, or
// RCSD_ERR_NO_HANDLER. result is always NUL-terminated.
int rcsd_kiv_sync_invoke(const char* request, char* result, uint32_t result_size);

// A bus signal handler (the form the bus library calls): hands the signal's text payload to the
// message handler registered for (interface, member). The handler's result, RCSD_ERR_BAD_TEXT for
// a missing payload or one with a NUL inside, or RCSD_ERR_NO_HANDLER.
int rcsd_process_kiv_signal(const char* interface, const char* member, const void* payload,
                            uint32_t length);
