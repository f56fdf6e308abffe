// The gateway's JSON helper: the tables of JSON messages and methods a service handles, and
// the parsing of their documents with json-c.
#pragma once

struct json_object;

// Opens the helper's tables for the service. 0, or -1 when already open.
int rjson_init(const char* service_name);
// Drops the tables.
void rjson_done();
// The tables ({"service": name, "messages": {...}, "methods": {...}}), null before rjson_init.
json_object* rjson_registry();
