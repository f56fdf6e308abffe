#include "ctrl/dp_service.h"

#include "platform/ombus/ombus.h"

namespace {
constexpr const char* kBusName = "orvik.kiv.dnsproxy";
} // namespace

int register_kiv_dnsproxy_service() {
    if (ombusOwnName(kBusName) != OMBUS_OK) {
        ombusLogFatalReal("register_kiv_dnsproxy_service",
                          "failed to request bus name for kiv_dnsproxy service\n");
        return ombus_get_status_value();
    }
    return ombus_get_status_value();
}

int start_kiv_dnsproxy_service() {
    const int status = register_kiv_dnsproxy_service();
    if (status != OMBUS_OK) {
        ombusLogFatalReal("start_kiv_dnsproxy_service",
                          "failed to register kiv_dnsproxy service\n");
        return status;
    }
    return ombusMainLoop();
}
