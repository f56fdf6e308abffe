// The daemon's bus service "orvik.kiv.dnsproxy": name, method interfaces, signal subscriptions.
#pragma once

#include <cstdint>

// Owns the bus name and registers the method interfaces; 0 or the bus library's status.
int register_kiv_dnsproxy_service();
// Registers the service and runs the bus main loop; returns the bus status when the loop ends.
int start_kiv_dnsproxy_service();

// The DHCP server's lease update ("dhcpLeaseInfoUpdate"): exactly 132 bytes, else reported and
// ignored.
int dplog_process_dhcpd_lease_update(const char* itf, const char* member, const void* payload,
                                     uint32_t length);
