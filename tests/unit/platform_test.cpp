#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/csmsg/csmsg.h"
#include "test_support.h"

namespace {

// A module restarted after a crash finds its socket file left behind and takes it over; a live
// owner keeps it. What a message says of its own length is bounded by what arrived, since the
// daemon's readers trust the length they are given.
TEST(ModuleChannel, ALeftoverSocketIsTakenOverAndALyingDatagramBounded) {
    TempRoot root;
    root.write("/var/run/csmsg/.keep", "");
    sockaddr_un addr{AF_UNIX, {}};
    csMsg_module_path(44, addr.sun_path, sizeof addr.sun_path);
    const auto* to = reinterpret_cast<const sockaddr*>(&addr);
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_EQ(bind(fd, to, sizeof addr), 0);
    close(fd); // closed, never unlinked
    csMsgChannel* ch = nullptr;
    csMsgChannel* second = nullptr;
    ASSERT_EQ(csMsg_init(44, &ch), CSMSG_OK);
    EXPECT_EQ(csMsg_init(44, &second), CSMSG_ERR_INUSE);
    // A header that claims 1000 payload bytes but carries 3; then a 5-byte datagram.
    struct {
        csMsgHeader hdr;
        char payload[3];
    } lying{};
    lying.hdr.dataLength = 1000;
    const int from = socket(AF_UNIX, SOCK_DGRAM, 0);
    sendto(from, &lying, sizeof lying.hdr + 3, 0, to, sizeof addr);
    sendto(from, "abcde", 5, 0, to, sizeof addr);
    close(from);
    for (uint32_t want : {3u, 0u}) {
        csMsgHeader* got = nullptr;
        ASSERT_EQ(csMsg_receiveWithTimeout(ch, &got, 1000), CSMSG_OK);
        EXPECT_EQ(got->dataLength, want);
        cslibMem_free(got);
    }
    csMsg_cleanup(&ch);
}

} // namespace
