#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/csmsg/csmsg.h"
#include "test_support.h"

namespace {

sockaddr_un module_addr(uint32_t id) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    csMsg_module_path(id, addr.sun_path, sizeof addr.sun_path);
    return addr;
}

// Sends one datagram from a fresh socket to module id's path.
void send_raw(uint32_t id, const void* data, size_t len) {
    const sockaddr_un addr = module_addr(id);
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    sendto(fd, data, len, 0, reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
    close(fd);
}

// What arrives next at ch, by its payload length; -1 when nothing does.
int64_t next_length(csMsgChannel* ch) {
    csMsgHeader* got = nullptr;
    if (csMsg_receiveWithTimeout(ch, &got, 1000) != CSMSG_OK) return -1;
    const int64_t len = got->dataLength;
    cslibMem_free(got);
    return len;
}

TEST(ModuleChannel, ARunningModuleKeepsItsSocketAndALeftoverOneIsReplaced) {
    TempRoot root;
    csMsgChannel* running = nullptr;
    csMsgChannel* second = nullptr;
    ASSERT_EQ(csMsg_init(44, &running), CSMSG_OK);
    EXPECT_EQ(csMsg_init(44, &second), CSMSG_ERR_INUSE);
    EXPECT_EQ(second, nullptr);
    const csMsgHeader hdr{1, 150, 44, 0, {}, 0, 0, 0};
    send_raw(44, &hdr, sizeof hdr);
    EXPECT_EQ(next_length(running), 0); // the running one still gets what is sent to 44
    // A socket file whose owner is gone (closed, never unlinked) is replaced.
    csMsg_cleanup(&running);
    const sockaddr_un addr = module_addr(44);
    const int gone = socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_EQ(bind(gone, reinterpret_cast<const sockaddr*>(&addr), sizeof addr), 0);
    close(gone);
    ASSERT_EQ(csMsg_init(44, &second), CSMSG_OK);
    send_raw(44, &hdr, sizeof hdr);
    EXPECT_EQ(next_length(second), 0);
    csMsg_cleanup(&second);
}

TEST(ModuleChannel, AShortOrLyingDatagramIsBoundedByWhatArrived) {
    TempRoot root;
    csMsgChannel* peer = nullptr;
    ASSERT_EQ(csMsg_init(21, &peer), CSMSG_OK);
    // A header that claims 1000 payload bytes but carries 3; then a 5-byte datagram.
    struct {
        csMsgHeader hdr;
        char payload[3];
    } lying{};
    lying.hdr.dataLength = 1000;
    send_raw(21, &lying, sizeof(csMsgHeader) + 3);
    send_raw(21, "abcde", 5);
    EXPECT_EQ(next_length(peer), 3);
    EXPECT_EQ(next_length(peer), 0);
    csMsg_cleanup(&peer);
}

} // namespace
