// The gateway's JSON helper: the tables of JSON messages and methods a service handles, their
// dispatch, and the reading of their documents (json-c underneath; callers never touch it).
//
// A JSON message and a JSON request are one object {"name": "<registered name>", "params": {...}}.
// The name selects the handler among those registered for the interface the text arrived on; the
// handler receives the "params" object (null when absent) and reads it with the functions below.
#pragma once

#include <cstddef>
#include <cstdint>

struct json_object;

enum rjson_status : int {
    RJSON_OK = 0,
    RJSON_ERR_STATE = -1,     // not initialised, or a null argument
    RJSON_ERR_FULL = -2,      // too many tables registered
    RJSON_ERR_SYNTAX = -400,  // not JSON, or no envelope with a text "name" free of NUL
    RJSON_ERR_NAME = -404,    // no handler registered under the envelope's name
    RJSON_ERR_INVALID = -422, // the params do not fit the object description
};

// A message handler's result is logged when negative; a method handler's is the call's status.
// A method handler may write a result text (NUL-terminated, at most result_size - 1 characters).
using rjson_message_handler = int (*)(const json_object* params);
using rjson_method_handler = int (*)(const json_object* params, char* result, uint32_t result_size);

struct rjson_json_message {
    const char* name;
    rjson_message_handler handler;
};

struct rjson_json_method {
    const char* name;
    rjson_method_handler handler;
};

// Opens the helper for the service. 0, or RJSON_ERR_STATE when already open.
int rjson_init(const char* service_name);
// Forgets every registered table.
void rjson_done();

// Registers a table of messages (methods) handled on the interface. The table is referenced, not
// copied: keep it alive (a static table). Up to 16 tables of each kind.
int rjson_add_json_messages(const char* interface, const rjson_json_message* table, int n);
int rjson_add_json_methods(const char* interface, const rjson_json_method* table, int n);

// Dispatches a JSON message that arrived on the interface: the handler's result, or a negative
// rjson_status when the text is refused (the reason goes to standard error).
int rjson_process_kiv_message(const char* interface, const char* message);

// Dispatches a JSON request of the interface: the handler's status, or a negative rjson_status.
// result receives the handler's result text; when the call failed and the handler wrote none, it
// receives the reason of the failure instead (a handler that gave none is named as the refuser).
// Either text is cut to fit result_size on a character boundary: it is well-formed UTF-8.
int rjson_process_kiv_method(const char* interface, const char* request, char* result,
                             uint32_t result_size);

// Prints the registered names on standard error, one "  <interface> <name>" line each, after a
// heading; returns the number of names.
int rjson_dump_registered_messages();
int rjson_dump_registered_methods();

// ---- object descriptions and the item area ----------------------------------------------------
//
// An object description names an object inside "params" and its keys, each with the item code it
// becomes and its value type. rjson_parse_json_object turns the object's members, in document
// order, into items of a 128-byte area: up to 16 items of 8 bytes from the front, and the texts of
// text items packed at the back (a text item's value is its text's offset in the area; read it
// with rjson_item_text). A missing object, an unknown key, a wrong value type, more than 16 items
// or texts that do not fit are refused with RJSON_ERR_INVALID, and the area is left unchanged.

enum rjson_value_type : uint32_t {
    RJSON_VALUE_U32 = 1,  // a JSON integer 0..4294967295, or true/false as 1/0
    RJSON_VALUE_TEXT = 2, // a JSON string without NUL characters
};

struct rjson_key_desc {
    const char* key;
    uint32_t code;
    rjson_value_type type;
};

struct rjson_object_desc {
    const char* name; // the member of "params" holding the object
    const rjson_key_desc* keys;
    uint32_t n_keys;
};

template <size_t N>
constexpr rjson_object_desc rjson_object(const char* name, const rjson_key_desc (&keys)[N]) {
    return {name, keys, static_cast<uint32_t>(N)};
}

constexpr uint32_t RJSON_MAX_ITEMS = 16;

struct rjson_item {
    uint32_t code;
    uint32_t value; // RJSON_VALUE_TEXT: the text's offset in the area
};

struct rjson_item_area {
    rjson_item items[RJSON_MAX_ITEMS];
};
static_assert(sizeof(rjson_item_area) == 128, "the item area is 128 bytes");

// Fills the area from params (a handler's argument). The number of items, or RJSON_ERR_INVALID.
int rjson_parse_json_object(const json_object* params, const rjson_object_desc* desc,
                            rjson_item_area* area);

// The text of a text item of the area, null when the item's value is no text offset.
const char* rjson_item_text(const rjson_item_area* area, const rjson_item* item);

// The text params[object][key], null when either is absent or the value is not a string. Valid
// while the handler runs.
const char* rjson_get_text(const json_object* params, const char* object, const char* key);

// ---- building a result document ---------------------------------------------------------------
//
// A method's result as a JSON document: objects and arrays made here, filled with the add
// functions (under key in an object, appended to an array when key is null), written out as
// compact text, then freed through their root. A null parent is ignored.

json_object* rjson_new_object();
void rjson_free(json_object* root);
json_object* rjson_add_object(json_object* parent, const char* key);
json_object* rjson_add_array(json_object* parent, const char* key);
void rjson_add_u64(json_object* parent, const char* key, uint64_t value);
void rjson_add_i64(json_object* parent, const char* key, int64_t value);
void rjson_add_text(json_object* parent, const char* key, const char* text);
// The document as compact text into out: its length, or RJSON_ERR_FULL when it does not fit
// (out is then "").
int rjson_write(json_object* root, char* out, uint32_t size);

// Why the last refused call of this library was refused ("" when none was).
const char* rjson_last_error();
