// The gateway's module message library: fixed-layout messages between gateway modules, carried
// by one AF_UNIX datagram socket per module at <DNSPROXY_ROOT>/var/run/csmsg/<module id>.
// A message is the 32-byte header below followed by dataLength payload bytes.
#pragma once

#include <cstdint>

struct csMsgHeader {
    uint32_t type;
    uint32_t src;
    uint32_t dst;
    uint8_t flags;
    uint8_t reserved1[7];
    uint32_t wordData; // "word 5": a small value carried without payload
    uint32_t dataLength;
    uint32_t reserved2;
};
static_assert(sizeof(csMsgHeader) == 32, "module message header is 32 bytes");

enum csMsg_ret : int {
    CSMSG_OK = 0,
    CSMSG_TIMEOUT = 1,       // no message arrived in time
    CSMSG_ERR = -1,          // socket failure
    CSMSG_ERR_ARGUMENT = -2, // null handle or message
    CSMSG_ERR_NOPEER = -3,   // the destination module is not listening
    CSMSG_ERR_INUSE = -4,    // a live socket already holds the module's path
};

struct csMsgChannel;

// Binds the module's socket. A socket file left at the module's path by an earlier run is
// replaced; one that a running process is still bound to is left alone (CSMSG_ERR_INUSE). 0 and
// *handle set, or a negative csMsg_ret.
int csMsg_init(uint32_t module_id, csMsgChannel** handle);
void csMsg_cleanup(csMsgChannel** handle);
// The socket descriptor, readable when a message waits.
int csMsg_getEventHandle(const csMsgChannel* handle, int* fd);
// Sends header and its dataLength payload bytes (which follow the header in memory) to msg->dst.
int csMsg_send(csMsgChannel* handle, const csMsgHeader* msg);
// Waits up to timeout_ms for one message; on CSMSG_OK *msg is a cslibMem_alloc block holding the
// header and its payload (dataLength trimmed to what arrived), to be freed with cslibMem_free.
int csMsg_receiveWithTimeout(csMsgChannel* handle, csMsgHeader** msg, uint32_t timeout_ms);

// Where a received message came from: the module whose own socket sent it (CSMSG_NO_MODULE when
// the sender's socket is not bound to a module path), and the size of the datagram as it arrived
// (below 32 when it did not even hold a whole header).
inline constexpr uint32_t CSMSG_NO_MODULE = 0xFFFFFFFF;
struct csMsgOrigin {
    uint32_t module_id;
    uint32_t size;
};
// csMsg_receiveWithTimeout that also tells where the message came from (origin may be null).
int csMsg_receiveFromWithTimeout(csMsgChannel* handle, csMsgHeader** msg, uint32_t timeout_ms,
                                 csMsgOrigin* origin);

void* cslibMem_alloc(uint32_t size, uint32_t zeroed);
void cslibMem_free(void* block);

// The socket path of a module id under the root prefix.
void csMsg_module_path(uint32_t module_id, char* out, uint32_t size);
