// The gateway's JSON command service: a named service whose JSON interfaces carry synchronous
// method calls and messages. Its registry is a json-c document.
#pragma once

struct json_object;

// Opens the service's registry. 0, or -1 when it is already open or cannot be made.
int rcsd_init(const char* service_name);
// Drops the registry and every registration.
void rcsd_done();
// The registry ({"service": name, "interfaces": {...}}), null before rcsd_init.
json_object* rcsd_registry();
