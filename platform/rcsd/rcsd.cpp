#include "platform/rcsd/rcsd.h"

#include <json-c/json.h>

namespace {
json_object* registry = nullptr;
} // namespace

int rcsd_init(const char* service_name) {
    if (registry != nullptr || service_name == nullptr) return -1;
    registry = json_object_new_object();
    if (registry == nullptr) return -1;
    json_object_object_add(registry, "service", json_object_new_string(service_name));
    json_object_object_add(registry, "interfaces", json_object_new_object());
    return 0;
}

void rcsd_done() {
    json_object_put(registry);
    registry = nullptr;
}

json_object* rcsd_registry() {
    return registry;
}
