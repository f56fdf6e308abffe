#include "platform/rcsd/rcsd.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "platform/kutl/kutl.h"

namespace {

constexpr int kMaxMessageHandlers = 8;

struct message_reg {
    std::string interface;
    std::string name;
    rcsd_message_handler handler;
};

struct service_state {
    bool open = false;
    std::string service;
    std::string api_interface;
    rcsd_sync_method_handler sync_handler = nullptr;
    message_reg messages[kMaxMessageHandlers];
    int message_count = 0;
};

service_state svc;

bool same(const std::string& registered, const char* name) {
    return name != nullptr && registered == name;
}

} // namespace

int rcsd_init(const char* service_name) {
    if (svc.open || service_name == nullptr) return RCSD_ERR_STATE;
    svc.open = true;
    svc.service = service_name;
    return RCSD_OK;
}

void rcsd_done() {
    svc = service_state{};
}

int rcsd_register_json_api_interface(const char* interface) {
    if (!svc.open || interface == nullptr) return RCSD_ERR_STATE;
    if (!svc.api_interface.empty() && svc.api_interface != interface) return RCSD_ERR_STATE;
    svc.api_interface = interface;
    return RCSD_OK;
}

int rcsd_register_sync_method_handler(const char* interface, const char* name,
                                      rcsd_sync_method_handler handler) {
    if (!svc.open || handler == nullptr || !same(svc.api_interface, interface) || name == nullptr ||
        std::strcmp(name, RCSD_SYNC_METHOD) != 0) {
        return RCSD_ERR_STATE;
    }
    svc.sync_handler = handler;
    return RCSD_OK;
}

int rcsd_register_message_handler(const char* interface, const char* name,
                                  rcsd_message_handler handler) {
    if (!svc.open || interface == nullptr || name == nullptr || handler == nullptr)
        return RCSD_ERR_STATE;
    for (int i = 0; i < svc.message_count; ++i) {
        if (same(svc.messages[i].interface, interface) && same(svc.messages[i].name, name)) {
            svc.messages[i].handler = handler;
            return RCSD_OK;
        }
    }
    if (svc.message_count == kMaxMessageHandlers) return RCSD_ERR_FULL;
    svc.messages[svc.message_count++] = {interface, name, handler};
    return RCSD_OK;
}

int rcsd_kiv_sync_invoke(const char* request, char* result, uint32_t result_size) {
    if (result == nullptr || result_size == 0) return RCSD_ERR_STATE;
    result[0] = '\0';
    if (svc.sync_handler == nullptr) {
        std::snprintf(result, result_size, "no JSON API handler registered");
        return RCSD_ERR_NO_HANDLER;
    }
    const int status = svc.sync_handler(svc.api_interface.c_str(), request, result, result_size);
    kutl_utf8_fix(result, result_size); // the result goes on the bus as a text
    return status;
}

int rcsd_process_kiv_signal(const char* interface, const char* member, const void* payload,
                            uint32_t length) {
    const message_reg* reg = nullptr;
    for (int i = 0; i < svc.message_count && reg == nullptr; ++i) {
        if (same(svc.messages[i].interface, interface) && same(svc.messages[i].name, member))
            reg = &svc.messages[i];
    }
    if (reg == nullptr) return RCSD_ERR_NO_HANDLER;
    // The payload is counted, not terminated (a byte array would do too): copy it as a text.
    if (payload == nullptr || std::memchr(payload, '\0', length) != nullptr) {
        std::fprintf(stderr, "rcsd: %s of %s carries no JSON text\n", member, interface);
        return RCSD_ERR_BAD_TEXT;
    }
    const std::string text(static_cast<const char*>(payload), length);
    return reg->handler(interface, text.c_str());
}
