// Packet I/O: the UDP sockets towards clients and servers, and the module message channel.
#pragma once

#include <cstdint>

// ---- module message channel -------------------------------------------------------------------

// Binds the daemon's module channel (id 44). 0, or -1 when the channel cannot be opened.
int dpio_init_module_interface();
// The channel's descriptor, or -1 before a successful init.
int dpio_get_module_fd();
