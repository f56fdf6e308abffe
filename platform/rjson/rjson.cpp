#include "platform/rjson/rjson.h"

#include <json-c/json.h>

namespace {
json_object* registry = nullptr;
} // namespace

int rjson_init(const char* service_name) {
    if (registry != nullptr || service_name == nullptr) return -1;
    registry = json_object_new_object();
    if (registry == nullptr) return -1;
    json_object_object_add(registry, "service", json_object_new_string(service_name));
    json_object_object_add(registry, "messages", json_object_new_object());
    json_object_object_add(registry, "methods", json_object_new_object());
    return 0;
}

void rjson_done() {
    json_object_put(registry);
    registry = nullptr;
}

json_object* rjson_registry() {
    return registry;
}
