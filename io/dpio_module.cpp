#include <cstdio>

#include "ctrl/dp_trace.h"
#include "io/dpio.h"
#include "platform/csmsg/csmsg.h"

namespace {
constexpr uint32_t kDnsProxyModuleId = 44;

csMsgChannel* s_dp_csmsg_handle = nullptr;
int s_dp_csmsg_fd = -1;
} // namespace

int dpio_init_module_interface() {
    const int ret = csMsg_init(kDnsProxyModuleId, &s_dp_csmsg_handle);
    if (ret != CSMSG_OK) {
        DPIO_TRACE(DP_ERROR, "fail to init csmsg ret=%d\n", ret);
        return -1;
    }
    csMsg_getEventHandle(s_dp_csmsg_handle, &s_dp_csmsg_fd);
    DPIO_TRACE(DP_DETAIL, "s_dp_csmsg_handle=%p msgFd=%d\n", static_cast<void*>(s_dp_csmsg_handle),
               s_dp_csmsg_fd);
    return 0;
}

int dpio_get_module_fd() {
    return s_dp_csmsg_fd;
}
