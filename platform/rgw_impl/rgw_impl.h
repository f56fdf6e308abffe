// The gateway's logging library: a log level and a destination per program, served by syslog.
// Destination 1 (serial) and 3 (telnet) write to standard error, 2 to syslog.
#pragma once

int rgw_impl_init_log();
// Level and destination stored for the program; both are left as the caller pre-set them when
// nothing is stored. Returns 0.
int rgw_impl_get_log_setting(const char* program, int* level, int* dest);
int rgw_impl_set_log_level(int level);
int rgw_impl_set_log_destination(int dest);
int rgw_impl_init_customer_log();
int rgw_impl_set_customer_log_level(int level);

// Current settings, for tests and diagnostics.
int rgw_impl_get_log_level();
int rgw_impl_get_log_destination();
int rgw_impl_get_customer_log_level();

// Writes one message at a syslog severity when the level admits it.
void rgw_impl_log(int severity, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
