// The daemon's bus service "orvik.kiv.dnsproxy": name, method interfaces, signal subscriptions.
#pragma once

// Owns the bus name and registers the method interfaces; 0 or the bus library's status.
int register_kiv_dnsproxy_service();
// Registers the service and runs the bus main loop; returns the bus status when the loop ends.
int start_kiv_dnsproxy_service();
