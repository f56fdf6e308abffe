#include "platform/rgw_impl/rgw_impl.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>

namespace {

int log_level = LOG_ERR;
int log_dest = 2;
int customer_log_level = LOG_INFO;
bool opened = false;

int clamp_level(int level) {
    return level < LOG_EMERG ? LOG_EMERG : (level > LOG_DEBUG ? LOG_DEBUG : level);
}

} // namespace

int rgw_impl_init_log() {
    if (!opened) {
        openlog("dnsproxy", LOG_PID | LOG_NDELAY, LOG_DAEMON);
        opened = true;
    }
    return 0;
}

// This build keeps no per-program store: the caller's pre-set values stand.
int rgw_impl_get_log_setting(const char*, int*, int*) {
    return 0;
}

int rgw_impl_set_log_level(int level) {
    log_level = clamp_level(level);
    setlogmask(LOG_UPTO(log_level));
    return 0;
}

int rgw_impl_set_log_destination(int dest) {
    log_dest = (dest >= 1 && dest <= 3) ? dest : 2;
    return 0;
}

int rgw_impl_init_customer_log() {
    return rgw_impl_init_log();
}

int rgw_impl_set_customer_log_level(int level) {
    customer_log_level = clamp_level(level);
    return 0;
}

int rgw_impl_get_log_level() {
    return log_level;
}
int rgw_impl_get_log_destination() {
    return log_dest;
}
int rgw_impl_get_customer_log_level() {
    return customer_log_level;
}

void rgw_impl_log(int severity, const char* fmt, ...) {
    if (severity > log_level) return;
    va_list ap;
    va_start(ap, fmt);
    if (log_dest == 2) {
        vsyslog(severity, fmt, ap);
    } else {
        std::vfprintf(stderr, fmt, ap);
    }
    va_end(ap);
}
