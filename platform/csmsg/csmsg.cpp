#include "platform/csmsg/csmsg.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/kutl/kutl.h"

struct csMsgChannel {
    int fd;
    uint32_t module_id;
    char path[sizeof(sockaddr_un::sun_path)];
};

namespace {

constexpr uint32_t kMaxMessage = 65536;

bool make_dirs(const char* dir) {
    char buf[512];
    std::snprintf(buf, sizeof buf, "%s", dir);
    for (char* p = buf + 1; *p != '\0'; ++p) {
        if (*p != '/') continue;
        *p = '\0';
        if (mkdir(buf, 0755) != 0 && errno != EEXIST) return false;
        *p = '/';
    }
    return mkdir(buf, 0755) == 0 || errno == EEXIST;
}

bool fill_addr(sockaddr_un* addr, const char* path) {
    std::memset(addr, 0, sizeof *addr);
    addr->sun_family = AF_UNIX;
    const size_t len = std::strlen(path);
    if (len == 0 || len >= sizeof addr->sun_path) return false;
    std::memcpy(addr->sun_path, path, len + 1);
    return true;
}

// Whether a process is bound to the socket at addr: a datagram connect reaches it, and is refused
// when the file is only a leftover that nobody listens on any more (or is gone).
bool is_live(const sockaddr_un& addr) {
    const int probe = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (probe < 0) return true; // cannot tell: leave the file alone
    const bool live = connect(probe, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0 ||
                      (errno != ECONNREFUSED && errno != ENOENT);
    close(probe);
    return live;
}

// Binds fd to the module's path. Taking the path of a live socket away would cut its owner off
// the channel (a second daemon started by mistake beside the running one), so an existing file
// is replaced only when nobody is bound to it. The check and the replacement hold a lock on the
// directory, so that two modules starting together cannot both find a leftover and replace each
// other's fresh socket.
int bind_module_socket(int fd, const sockaddr_un& addr, const char* dir) {
    const auto* sa = reinterpret_cast<const sockaddr*>(&addr);
    if (bind(fd, sa, sizeof addr) == 0) return CSMSG_OK;
    if (errno != EADDRINUSE) return CSMSG_ERR;
    const int lock = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (lock < 0) return CSMSG_ERR;
    int ret = CSMSG_ERR;
    if (flock(lock, LOCK_EX) == 0) {
        if (is_live(addr)) {
            ret = CSMSG_ERR_INUSE;
        } else if ((unlink(addr.sun_path) == 0 || errno == ENOENT) &&
                   bind(fd, sa, sizeof addr) == 0) {
            ret = CSMSG_OK;
        }
    }
    close(lock); // and with it the lock
    return ret;
}

// The module whose socket is bound at the sender's path: the path's last component names it, and
// the file must be that module's socket (compared by inode, so that spellings of the root prefix
// do not matter).
uint32_t sender_module(const sockaddr_un& from, socklen_t len) {
    constexpr socklen_t kPathOffset = offsetof(sockaddr_un, sun_path);
    if (len <= kPathOffset || from.sun_path[0] == '\0') return CSMSG_NO_MODULE; // unbound
    char path[sizeof from.sun_path + 1] = {};
    std::memcpy(path, from.sun_path, std::min<size_t>(len - kPathOffset, sizeof from.sun_path));
    const char* name = std::strrchr(path, '/');
    name = name != nullptr ? name + 1 : path;
    if (*name < '0' || *name > '9' || std::strlen(name) > 10) return CSMSG_NO_MODULE;
    char* end = nullptr;
    const unsigned long id = std::strtoul(name, &end, 10);
    if (*end != '\0' || id >= CSMSG_NO_MODULE) return CSMSG_NO_MODULE;
    char own[sizeof from.sun_path];
    csMsg_module_path(static_cast<uint32_t>(id), own, sizeof own);
    struct stat sender_st, module_st;
    if (own[0] == '\0' || stat(path, &sender_st) != 0 || stat(own, &module_st) != 0 ||
        sender_st.st_dev != module_st.st_dev || sender_st.st_ino != module_st.st_ino) {
        return CSMSG_NO_MODULE;
    }
    return static_cast<uint32_t>(id);
}

} // namespace

void csMsg_module_path(uint32_t module_id, char* out, uint32_t size) {
    char rel[64];
    std::snprintf(rel, sizeof rel, "/var/run/csmsg/%u", module_id);
    const kutl_path path = kutl_fixed_path(rel);
    const size_t len = std::strlen(path.s);
    // A path too long for a socket address is left empty so that binding or sending fails.
    if (size == 0) return;
    out[0] = '\0';
    if (len < size) std::memcpy(out, path.s, len + 1);
}

int csMsg_init(uint32_t module_id, csMsgChannel** handle) {
    if (handle == nullptr) return CSMSG_ERR_ARGUMENT;
    auto* ch = static_cast<csMsgChannel*>(std::calloc(1, sizeof(csMsgChannel)));
    if (ch == nullptr) return CSMSG_ERR;
    ch->module_id = module_id;
    csMsg_module_path(module_id, ch->path, sizeof ch->path);
    sockaddr_un addr;
    char dir[sizeof ch->path];
    std::snprintf(dir, sizeof dir, "%s", ch->path);
    if (char* slash = std::strrchr(dir, '/'); slash != nullptr) *slash = '\0';
    ch->fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (ch->fd < 0 || !make_dirs(dir) || !fill_addr(&addr, ch->path)) {
        if (ch->fd >= 0) close(ch->fd);
        std::free(ch);
        return CSMSG_ERR;
    }
    if (const int ret = bind_module_socket(ch->fd, addr, dir); ret != CSMSG_OK) {
        close(ch->fd);
        std::free(ch);
        return ret;
    }
    *handle = ch;
    return CSMSG_OK;
}

void csMsg_cleanup(csMsgChannel** handle) {
    if (handle == nullptr || *handle == nullptr) return;
    close((*handle)->fd);
    unlink((*handle)->path);
    std::free(*handle);
    *handle = nullptr;
}

int csMsg_getEventHandle(const csMsgChannel* handle, int* fd) {
    if (handle == nullptr || fd == nullptr) return CSMSG_ERR_ARGUMENT;
    *fd = handle->fd;
    return CSMSG_OK;
}

int csMsg_send(csMsgChannel* handle, const csMsgHeader* msg) {
    if (handle == nullptr || msg == nullptr || msg->dataLength > kMaxMessage)
        return CSMSG_ERR_ARGUMENT;
    char path[sizeof(sockaddr_un::sun_path)];
    csMsg_module_path(msg->dst, path, sizeof path);
    sockaddr_un addr;
    if (!fill_addr(&addr, path)) return CSMSG_ERR;
    const size_t len = sizeof(csMsgHeader) + msg->dataLength;
    const ssize_t n =
        sendto(handle->fd, msg, len, 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    if (n == static_cast<ssize_t>(len)) return CSMSG_OK;
    return (errno == ENOENT || errno == ECONNREFUSED) ? CSMSG_ERR_NOPEER : CSMSG_ERR;
}

int csMsg_receiveWithTimeout(csMsgChannel* handle, csMsgHeader** msg, uint32_t timeout_ms) {
    return csMsg_receiveFromWithTimeout(handle, msg, timeout_ms, nullptr);
}

int csMsg_receiveFromWithTimeout(csMsgChannel* handle, csMsgHeader** msg, uint32_t timeout_ms,
                                 csMsgOrigin* origin) {
    if (handle == nullptr || msg == nullptr) return CSMSG_ERR_ARGUMENT;
    *msg = nullptr;
    pollfd pfd{handle->fd, POLLIN, 0};
    int n;
    do {
        n = poll(&pfd, 1, static_cast<int>(timeout_ms));
    } while (n < 0 && errno == EINTR);
    if (n < 0) return CSMSG_ERR;
    if (n == 0) return CSMSG_TIMEOUT;
    const ssize_t size = recv(handle->fd, nullptr, 0, MSG_PEEK | MSG_TRUNC);
    if (size < 0) return errno == EAGAIN ? CSMSG_TIMEOUT : CSMSG_ERR;
    // Room for at least a whole header, so a short datagram reads as zeroed fields.
    const size_t room = static_cast<size_t>(size) < sizeof(csMsgHeader) ? sizeof(csMsgHeader)
                                                                        : static_cast<size_t>(size);
    auto* block = static_cast<csMsgHeader*>(cslibMem_alloc(static_cast<uint32_t>(room), 1));
    if (block == nullptr) return CSMSG_ERR;
    sockaddr_un from{};
    socklen_t from_len = sizeof from;
    const ssize_t got =
        recvfrom(handle->fd, block, room, 0, reinterpret_cast<sockaddr*>(&from), &from_len);
    if (got < 0) {
        cslibMem_free(block);
        return CSMSG_ERR;
    }
    if (origin != nullptr) *origin = {sender_module(from, from_len), static_cast<uint32_t>(got)};
    const size_t payload = static_cast<size_t>(got) > sizeof(csMsgHeader)
                               ? static_cast<size_t>(got) - sizeof(csMsgHeader)
                               : 0;
    if (block->dataLength > payload) block->dataLength = static_cast<uint32_t>(payload);
    *msg = block;
    return CSMSG_OK;
}

void* cslibMem_alloc(uint32_t size, uint32_t zeroed) {
    return zeroed != 0 ? std::calloc(1, size) : std::malloc(size);
}

void cslibMem_free(void* block) {
    std::free(block);
}
