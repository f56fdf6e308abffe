#include "platform/rjson/rjson.h"

#include <json-c/json.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "platform/kutl/kutl.h"

namespace {

constexpr int kMaxTables = 16;

template <typename Row>
struct table_ref {
    std::string interface;
    const Row* rows;
    int n;
};

template <typename Row>
struct table_set {
    table_ref<Row> tables[kMaxTables];
    int count = 0;
};

struct helper_state {
    bool open = false;
    std::string service;
    table_set<rjson_json_message> messages;
    table_set<rjson_json_method> methods;
    char last_error[256] = "";
};

helper_state helper;

struct json_put {
    void operator()(json_object* obj) const { json_object_put(obj); }
};
using json_ptr = std::unique_ptr<json_object, json_put>;

// Records why a call is refused; the dispatchers print it when the call fails, and a method's
// caller receives it. It names what the caller sent, so it may be cut, but never inside a
// character: the reason travels on the bus as a text.
__attribute__((format(printf, 2, 3))) int refuse(int status, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(helper.last_error, sizeof helper.last_error, fmt, ap);
    va_end(ap);
    kutl_utf8_fix(helper.last_error, sizeof helper.last_error);
    return status;
}

template <typename Row>
int add_table(table_set<Row>* set, const char* interface, const Row* rows, int n) {
    if (!helper.open || interface == nullptr || rows == nullptr || n < 0) return RJSON_ERR_STATE;
    if (set->count == kMaxTables) return RJSON_ERR_FULL;
    set->tables[set->count++] = {interface, rows, n};
    return RJSON_OK;
}

template <typename Row>
const Row* find_row(const table_set<Row>& set, const char* interface, const char* name) {
    for (int t = 0; t < set.count; ++t) {
        const table_ref<Row>& table = set.tables[t];
        if (table.interface != interface) continue;
        for (int i = 0; i < table.n; ++i) {
            if (table.rows[i].name != nullptr && std::strcmp(table.rows[i].name, name) == 0)
                return &table.rows[i];
        }
    }
    return nullptr;
}

template <typename Row>
int dump_tables(const table_set<Row>& set, const char* kind) {
    std::fprintf(stderr, "\nJSON %s of %s\n", kind, helper.service.c_str());
    int listed = 0;
    for (int t = 0; t < set.count; ++t) {
        for (int i = 0; i < set.tables[t].n; ++i) {
            std::fprintf(stderr, "  %s %s\n", set.tables[t].interface.c_str(),
                         set.tables[t].rows[i].name);
            ++listed;
        }
    }
    return listed;
}

bool only_blanks(const char* s) {
    for (; *s != '\0'; ++s) {
        if (*s != ' ' && *s != '\t' && *s != '\r' && *s != '\n') return false;
    }
    return true;
}

// Strict JSON: one value, nothing after it but white space.
json_ptr parse_text(const char* text) {
    std::unique_ptr<json_tokener, void (*)(json_tokener*)> tok(json_tokener_new(),
                                                               json_tokener_free);
    if (tok == nullptr) return nullptr;
    json_tokener_set_flags(tok.get(), JSON_TOKENER_STRICT);
    const size_t len = std::strlen(text);
    json_ptr doc(json_tokener_parse_ex(tok.get(), text, static_cast<int>(len)));
    if (doc == nullptr || json_tokener_get_error(tok.get()) != json_tokener_success ||
        !only_blanks(text + json_tokener_get_parse_end(tok.get()))) {
        return nullptr;
    }
    return doc;
}

// An envelope: the parsed document, its name and its params (null when absent).
struct envelope {
    json_ptr doc;
    const char* name = nullptr;
    const json_object* params = nullptr;
};

int open_envelope(const char* text, envelope* env) {
    if (text == nullptr) return refuse(RJSON_ERR_SYNTAX, "no JSON text");
    if (std::strlen(text) > static_cast<size_t>(INT32_MAX))
        return refuse(RJSON_ERR_SYNTAX, "JSON text too long");
    env->doc = parse_text(text);
    if (env->doc == nullptr) return refuse(RJSON_ERR_SYNTAX, "malformed JSON");
    if (!json_object_is_type(env->doc.get(), json_type_object))
        return refuse(RJSON_ERR_SYNTAX, "the JSON text is not an object");
    json_object* name = nullptr;
    if (!json_object_object_get_ex(env->doc.get(), "name", &name) ||
        !json_object_is_type(name, json_type_string)) {
        return refuse(RJSON_ERR_SYNTAX, "the JSON object has no text \"name\"");
    }
    env->name = json_object_get_string(name);
    // Looked up as a C text, "x\u0000y" would pass for a registered "x".
    if (std::strlen(env->name) != static_cast<size_t>(json_object_get_string_len(name))) {
        env->name = nullptr;
        return refuse(RJSON_ERR_SYNTAX, "the \"name\" holds a NUL character");
    }
    json_object* params = nullptr;
    if (json_object_object_get_ex(env->doc.get(), "params", &params) && params != nullptr &&
        !json_object_is_type(params, json_type_object)) {
        return refuse(RJSON_ERR_SYNTAX, "\"params\" of %s is not an object", env->name);
    }
    env->params = params;
    return RJSON_OK;
}

void report(const char* what, const char* name, int status) {
    std::fprintf(stderr, "rjson: %s %s failed (%d): %s\n", what, name != nullptr ? name : "-",
                 status, helper.last_error[0] != '\0' ? helper.last_error : "by its handler");
}

// ---- the item area ----------------------------------------------------------------------------

// Builds an area: items from the front, texts from the back.
struct area_builder {
    rjson_item_area area{};
    uint32_t count = 0;
    uint32_t text_low = sizeof(rjson_item_area); // texts occupy [text_low, 128)

    unsigned char* bytes() { return reinterpret_cast<unsigned char*>(&area); }
    bool room_for_number() const { return (count + 1) * sizeof(rjson_item) <= text_low; }
    void add(uint32_t code, uint32_t value) { area.items[count++] = {code, value}; }
    // Stores the text below the others; false when it would run into the items.
    bool add_text(uint32_t code, const char* text, size_t len) {
        const size_t items_end = (count + 1) * sizeof(rjson_item);
        if (len + 1 > text_low || text_low - (len + 1) < items_end) return false;
        text_low -= static_cast<uint32_t>(len + 1);
        std::memcpy(bytes() + text_low, text, len + 1);
        add(code, text_low);
        return true;
    }
};

const rjson_key_desc* find_key(const rjson_object_desc* desc, const char* key) {
    for (uint32_t i = 0; i < desc->n_keys; ++i) {
        if (std::strcmp(desc->keys[i].key, key) == 0) return &desc->keys[i];
    }
    return nullptr;
}

int add_u32_item(area_builder* b, const rjson_object_desc* desc, const char* key, uint32_t code,
                 json_object* value) {
    int64_t v = 0;
    if (json_object_is_type(value, json_type_boolean)) {
        v = json_object_get_boolean(value) ? 1 : 0;
    } else if (json_object_is_type(value, json_type_int)) {
        v = json_object_get_int64(value);
    } else {
        return refuse(RJSON_ERR_INVALID, "%s.%s takes a number", desc->name, key);
    }
    if (v < 0 || v > static_cast<int64_t>(UINT32_MAX))
        return refuse(RJSON_ERR_INVALID, "%s.%s is out of range", desc->name, key);
    if (!b->room_for_number())
        return refuse(RJSON_ERR_INVALID, "%s: the items do not fit in the item area", desc->name);
    b->add(code, static_cast<uint32_t>(v));
    return RJSON_OK;
}

int add_text_item(area_builder* b, const rjson_object_desc* desc, const char* key, uint32_t code,
                  json_object* value) {
    if (!json_object_is_type(value, json_type_string))
        return refuse(RJSON_ERR_INVALID, "%s.%s takes a text", desc->name, key);
    const char* text = json_object_get_string(value);
    const size_t len = static_cast<size_t>(json_object_get_string_len(value));
    if (std::strlen(text) != len)
        return refuse(RJSON_ERR_INVALID, "%s.%s holds a NUL character", desc->name, key);
    if (!b->add_text(code, text, len))
        return refuse(RJSON_ERR_INVALID, "%s: the texts do not fit in the item area", desc->name);
    return RJSON_OK;
}

} // namespace

int rjson_init(const char* service_name) {
    if (helper.open || service_name == nullptr) return RJSON_ERR_STATE;
    helper.open = true;
    helper.service = service_name;
    return RJSON_OK;
}

void rjson_done() {
    helper.open = false;
    helper.service.clear();
    helper.messages.count = 0;
    helper.methods.count = 0;
    helper.last_error[0] = '\0';
}

int rjson_add_json_messages(const char* interface, const rjson_json_message* table, int n) {
    return add_table(&helper.messages, interface, table, n);
}

int rjson_add_json_methods(const char* interface, const rjson_json_method* table, int n) {
    return add_table(&helper.methods, interface, table, n);
}

int rjson_process_kiv_message(const char* interface, const char* message) {
    helper.last_error[0] = '\0';
    envelope env;
    int status = open_envelope(message, &env);
    if (status == RJSON_OK) {
        const rjson_json_message* row =
            interface != nullptr ? find_row(helper.messages, interface, env.name) : nullptr;
        if (row == nullptr || row->handler == nullptr) {
            status = refuse(RJSON_ERR_NAME, "no message %s on %s", env.name,
                            interface != nullptr ? interface : "-");
        } else {
            status = row->handler(env.params);
        }
    }
    if (status < 0) report("message", env.name, status);
    return status;
}

int rjson_process_kiv_method(const char* interface, const char* request, char* result,
                             uint32_t result_size) {
    helper.last_error[0] = '\0';
    if (result == nullptr || result_size == 0) return RJSON_ERR_STATE;
    result[0] = '\0';
    envelope env;
    int status = open_envelope(request, &env);
    if (status == RJSON_OK) {
        const rjson_json_method* row =
            interface != nullptr ? find_row(helper.methods, interface, env.name) : nullptr;
        if (row == nullptr || row->handler == nullptr) {
            status = refuse(RJSON_ERR_NAME, "no method %s on %s", env.name,
                            interface != nullptr ? interface : "-");
        } else {
            status = row->handler(env.params, result, result_size);
            kutl_utf8_fix(result, result_size);
        }
    }
    if (status < 0) {
        // A refused call always tells its caller why.
        if (helper.last_error[0] == '\0')
            refuse(status, "%s refused the request", env.name != nullptr ? env.name : "-");
        report("method", env.name, status);
        if (result[0] == '\0') {
            std::snprintf(result, result_size, "%s", helper.last_error);
            kutl_utf8_fix(result, result_size);
        }
    }
    return status;
}

int rjson_dump_registered_messages() {
    return dump_tables(helper.messages, "messages");
}

int rjson_dump_registered_methods() {
    return dump_tables(helper.methods, "methods");
}

int rjson_parse_json_object(const json_object* params, const rjson_object_desc* desc,
                            rjson_item_area* area) {
    if (desc == nullptr || area == nullptr) return refuse(RJSON_ERR_INVALID, "no description");
    json_object* object = nullptr;
    if (params == nullptr || !json_object_object_get_ex(params, desc->name, &object) ||
        !json_object_is_type(object, json_type_object)) {
        return refuse(RJSON_ERR_INVALID, "no object %s in the params", desc->name);
    }
    area_builder b;
    // json-c keeps an object's members in document order.
    json_object_object_foreach(object, key, value) {
        const rjson_key_desc* kd = find_key(desc, key);
        if (kd == nullptr) return refuse(RJSON_ERR_INVALID, "unknown key %s.%s", desc->name, key);
        if (b.count == RJSON_MAX_ITEMS)
            return refuse(RJSON_ERR_INVALID, "%s has more than %u items", desc->name,
                          RJSON_MAX_ITEMS);
        const int status = kd->type == RJSON_VALUE_TEXT
                               ? add_text_item(&b, desc, key, kd->code, value)
                               : add_u32_item(&b, desc, key, kd->code, value);
        if (status != RJSON_OK) return status;
    }
    *area = b.area;
    return static_cast<int>(b.count);
}

const char* rjson_item_text(const rjson_item_area* area, const rjson_item* item) {
    if (area == nullptr || item == nullptr || item->value >= sizeof(rjson_item_area))
        return nullptr;
    const char* text = reinterpret_cast<const char*>(area) + item->value;
    return std::memchr(text, '\0', sizeof(rjson_item_area) - item->value) != nullptr ? text
                                                                                     : nullptr;
}

const char* rjson_get_text(const json_object* params, const char* object, const char* key) {
    json_object* obj = nullptr;
    json_object* value = nullptr;
    if (params == nullptr || object == nullptr || key == nullptr ||
        !json_object_object_get_ex(params, object, &obj) ||
        !json_object_object_get_ex(obj, key, &value) ||
        !json_object_is_type(value, json_type_string)) {
        return nullptr;
    }
    return json_object_get_string(value);
}

json_object* rjson_new_object() {
    return json_object_new_object();
}

void rjson_free(json_object* root) {
    json_object_put(root);
}

namespace {

json_object* add_value(json_object* parent, const char* key, json_object* value) {
    if (parent == nullptr || value == nullptr) {
        json_object_put(value);
        return nullptr;
    }
    const int ret = key != nullptr ? json_object_object_add(parent, key, value)
                                   : json_object_array_add(parent, value);
    if (ret != 0) {
        json_object_put(value);
        return nullptr;
    }
    return value;
}

} // namespace

json_object* rjson_add_object(json_object* parent, const char* key) {
    return add_value(parent, key, json_object_new_object());
}

json_object* rjson_add_array(json_object* parent, const char* key) {
    return add_value(parent, key, json_object_new_array());
}

void rjson_add_u64(json_object* parent, const char* key, uint64_t value) {
    add_value(parent, key, json_object_new_uint64(value));
}

void rjson_add_i64(json_object* parent, const char* key, int64_t value) {
    add_value(parent, key, json_object_new_int64(value));
}

void rjson_add_text(json_object* parent, const char* key, const char* text) {
    add_value(parent, key, json_object_new_string(text));
}

int rjson_write(json_object* root, char* out, uint32_t size) {
    if (out == nullptr || size == 0) return RJSON_ERR_STATE;
    out[0] = '\0';
    size_t len = 0;
    const char* text = json_object_to_json_string_length(
        root, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE, &len);
    if (text == nullptr || len >= size) return RJSON_ERR_FULL;
    std::memcpy(out, text, len + 1);
    return static_cast<int>(len);
}

const char* rjson_last_error() {
    return helper.last_error;
}
