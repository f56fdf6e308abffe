#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "platform/csmsg/csmsg.h"
#include "platform/kutl/kutl.h"
#include "platform/ombus/ombus.h"
#include "test_support.h"

namespace {

// A module message with up to 64 payload bytes.
struct test_msg {
    csMsgHeader hdr;
    char payload[64];
};

TEST(ModuleChannel, MessageCrossesBetweenModules) {
    TempRoot root;
    csMsgChannel* proxy = nullptr;
    csMsgChannel* peer = nullptr;
    ASSERT_EQ(csMsg_init(44, &proxy), CSMSG_OK);
    ASSERT_EQ(csMsg_init(150, &peer), CSMSG_OK);
    EXPECT_TRUE(root.exists("/var/run/csmsg/44"));

    test_msg m{};
    m.hdr = {0x100027DB, 44, 150, 3, {}, 2, 5, 0};
    std::memcpy(m.payload, "hello", 5);
    ASSERT_EQ(csMsg_send(proxy, &m.hdr), CSMSG_OK);

    csMsgHeader* got = nullptr;
    ASSERT_EQ(csMsg_receiveWithTimeout(peer, &got, 1000), CSMSG_OK);
    EXPECT_EQ(got->type, 0x100027DBu);
    EXPECT_EQ(got->src, 44u);
    EXPECT_EQ(got->wordData, 2u);
    ASSERT_EQ(got->dataLength, 5u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(got + 1), 5), "hello");
    cslibMem_free(got);

    EXPECT_EQ(csMsg_receiveWithTimeout(peer, &got, 10), CSMSG_TIMEOUT);
    EXPECT_EQ(got, nullptr);
    csMsg_cleanup(&peer);
    EXPECT_EQ(csMsg_send(proxy, &m.hdr), CSMSG_ERR_NOPEER);
    csMsg_cleanup(&proxy);
    EXPECT_FALSE(root.exists("/var/run/csmsg/44"));
}

TEST(ModuleChannel, LiveSocketIsKeptAndLeftoverReplaced) {
    TempRoot root;
    csMsgChannel* running = nullptr;
    csMsgChannel* second = nullptr;
    ASSERT_EQ(csMsg_init(44, &running), CSMSG_OK);
    EXPECT_EQ(csMsg_init(44, &second), CSMSG_ERR_INUSE);
    EXPECT_EQ(second, nullptr);

    // The running one still gets what is sent to 44.
    csMsgChannel* peer = nullptr;
    ASSERT_EQ(csMsg_init(150, &peer), CSMSG_OK);
    const csMsgHeader hdr{1, 150, 44, 0, {}, 0, 0, 0};
    ASSERT_EQ(csMsg_send(peer, &hdr), CSMSG_OK);
    csMsgHeader* got = nullptr;
    ASSERT_EQ(csMsg_receiveWithTimeout(running, &got, 1000), CSMSG_OK);
    cslibMem_free(got);

    // A socket file whose owner is gone (closed, never unlinked) is replaced.
    csMsg_cleanup(&running);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    csMsg_module_path(44, addr.sun_path, sizeof addr.sun_path);
    const int gone = socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_EQ(bind(gone, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    close(gone);
    ASSERT_EQ(csMsg_init(44, &second), CSMSG_OK);
    ASSERT_EQ(csMsg_send(peer, &hdr), CSMSG_OK);
    ASSERT_EQ(csMsg_receiveWithTimeout(second, &got, 1000), CSMSG_OK);
    cslibMem_free(got);
    csMsg_cleanup(&second);
    csMsg_cleanup(&peer);
}

TEST(ModuleChannel, ShortOrLyingDatagramIsBounded) {
    TempRoot root;
    csMsgChannel* peer = nullptr;
    ASSERT_EQ(csMsg_init(21, &peer), CSMSG_OK);
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    char path[108];
    csMsg_module_path(21, path, sizeof path);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, path);

    // A header that claims 1000 payload bytes but carries 3; then a 5-byte datagram.
    test_msg m{};
    m.hdr.dataLength = 1000;
    sendto(fd, &m, sizeof(csMsgHeader) + 3, 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    sendto(fd, "abcde", 5, 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    csMsgHeader* got = nullptr;
    ASSERT_EQ(csMsg_receiveWithTimeout(peer, &got, 1000), CSMSG_OK);
    EXPECT_EQ(got->dataLength, 3u);
    cslibMem_free(got);
    ASSERT_EQ(csMsg_receiveWithTimeout(peer, &got, 1000), CSMSG_OK);
    EXPECT_EQ(got->dataLength, 0u);
    cslibMem_free(got);
    close(fd);
    csMsg_cleanup(&peer);
}

// ---- the poll loop ----------------------------------------------------------------------------

int pipe_fds[2];
int socket_calls = 0;
int observer_calls = 0;
int timeout_calls = 0;

int on_readable(pollfd* entry) {
    char c;
    EXPECT_EQ(entry->fd, pipe_fds[0]);
    EXPECT_TRUE(entry->revents & POLLIN);
    EXPECT_EQ(read(entry->fd, &c, 1), 1);
    ++socket_calls;
    return 0;
}
int on_observe() {
    ++observer_calls;
    return 0;
}
int on_timeout() {
    if (++timeout_calls == 3) ombusQuitMainLoop();
    return 0;
}

TEST(PollLoop, ServesSocketsObserversAndTimeOuts) {
    ombusReset();
    ASSERT_EQ(pipe(pipe_fds), 0);
    ASSERT_EQ(write(pipe_fds[1], "xy", 2), 2);
    EXPECT_EQ(ombusRegisterPollingSocket(pipe_fds[0], on_readable, 0, 0), OMBUS_OK);
    EXPECT_EQ(ombusRegisterPollingSocket(-1, on_readable, 0, 0), OMBUS_ERR_ARGUMENT);
    EXPECT_EQ(ombusRegisterPollingEventObserver(on_observe, 2, 0), OMBUS_OK);
    EXPECT_EQ(ombusRegisterPollingTimeOutHandler(20, on_timeout, 1, 0), OMBUS_OK);
    ombusMainLoop();
    EXPECT_EQ(socket_calls, 2); // one byte per wake-up: the callback decides how much to read
    EXPECT_EQ(observer_calls, 2);
    EXPECT_EQ(timeout_calls, 3);
    ombusReset();
    close(pipe_fds[0]);
    close(pipe_fds[1]);
}

TEST(Kutl, WordAndPairLookUps) {
    EXPECT_EQ(kutl_get_kiv_cli_log_level_by_str("emerg"), 0);
    EXPECT_EQ(kutl_get_kiv_cli_log_level_by_str("DEBUG"), 7);
    EXPECT_EQ(kutl_get_kiv_cli_log_level_by_str("verbose"), -1);
    EXPECT_EQ(kutl_get_kiv_cli_log_dest_by_str("serial"), 1);
    EXPECT_EQ(kutl_get_kiv_cli_log_dest_by_str("telnet"), 3);
    EXPECT_EQ(kutl_get_kiv_cli_log_dest_by_str(nullptr), -1);
    const kutl_int_pair pairs[] = {{1, 10}, {2, 20}};
    EXPECT_EQ(kutl_get_int_by_int(pairs, 2, 2, -1), 20);
    EXPECT_EQ(kutl_get_int_by_int(pairs, 2, 3, -1), -1);
}

TEST(Kutl, Utf8FixCutsWholeCharactersAndMarksOtherBytes) {
    struct row {
        const char* in;
        size_t size; // of the buffer the text is in
        const char* out;
    };
    const row rows[] = {
        {"a\xC3\xA9z", 8, "a\xC3\xA9z"},
        {"a\xC3\xA9z", 3, "a"},           // the buffer ends inside the character
        {"ab\xE2\x82", 8, "ab"},          // the text does
        {"\xF0\x9F\x98\x80", 4, ""},      // four bytes, three in the buffer
        {"a\xFFg\xC0\x80h", 8, "a?g??h"}, // no lead byte, an overlong form
        {"\xED\xA0\x80x", 8, "???x"},     // a surrogate
        {"\xF4\x90\x80\x80", 8, "????"},  // above U+10FFFF
    };
    for (const auto& r : rows) {
        char buf[8] = {};
        std::memcpy(buf, r.in, std::min(std::strlen(r.in), r.size));
        EXPECT_EQ(kutl_utf8_fix(buf, r.size), std::strlen(r.out)) << r.out;
        EXPECT_STREQ(buf, r.out);
    }
}

} // namespace
