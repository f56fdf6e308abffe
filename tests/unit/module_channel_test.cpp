// The module channel's messages byte for byte, against peers bound in this process.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <iterator>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "ctrl/dp_trace.h"
#include "io/dpio.h"
#include "platform/csmsg/csmsg.h"
#include "platform/ombus/ombus.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

// 32-bit words in host order, as the channel carries them.
Bytes h32(std::initializer_list<uint32_t> words) {
    Bytes b(4 * words.size());
    std::memcpy(b.data(), std::data(words), b.size());
    return b;
}
Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}
Bytes header(uint32_t type, uint32_t src, uint32_t dst, uint8_t flags, uint32_t word5,
             uint32_t len) {
    return cat({h32({type, src, dst}), {flags, 0, 0, 0, 0, 0, 0, 0}, h32({word5, len, 0})});
}
// A text in a zero-padded field.
Bytes field(const std::string& text, size_t size) {
    Bytes b(text.begin(), text.end());
    b.resize(size, 0);
    return b;
}

// A module bound next to the proxy's channel; reads whole datagrams from its socket.
struct Peer {
    explicit Peer(uint32_t id) {
        EXPECT_EQ(csMsg_init(id, &ch), CSMSG_OK);
        csMsg_getEventHandle(ch, &fd);
    }
    ~Peer() { csMsg_cleanup(&ch); }
    // The next datagram, empty when none comes within wait_ms.
    Bytes next(int wait_ms = 1000) {
        pollfd p{fd, POLLIN, 0};
        Bytes b(4096);
        b.resize(poll(&p, 1, wait_ms) > 0 ? std::max<ssize_t>(0, recv(fd, b.data(), 4096, 0)) : 0);
        return b;
    }
    // One datagram, byte for byte, to module 44.
    void send(const Bytes& datagram) const { send_raw(fd, datagram); }
    static void send_raw(int from, const Bytes& datagram) {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        csMsg_module_path(44, addr.sun_path, sizeof addr.sun_path);
        ASSERT_EQ(sendto(from, datagram.data(), datagram.size(), 0,
                         reinterpret_cast<sockaddr*>(&addr), sizeof addr),
                  static_cast<ssize_t>(datagram.size()));
    }
    csMsgChannel* ch = nullptr;
    int fd = -1;
};

class ModuleMessages : public ::testing::Test {
  protected:
    void SetUp() override {
        // No bus here: the publication fails fast instead of reaching a real system bus.
        setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + root.dir() + "/no-bus").c_str(), 1);
        ombusReset();
        EXPECT_EQ(ombusGetConnection(), nullptr); // said once, here, not in a captured trace
        trace(0);
        ASSERT_EQ(dpio_init_module_interface(), 0);
    }
    void TearDown() override {
        dpio_close_module_interface();
        ombusReset();
        unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
        trace(0);
    }
    static void trace(uint32_t mask) {
        dp_debug_tbl.modules[DP_MOD_IO].level_mask = mask;
        dp_debug_tbl.timestamp = 0;
    }
    TempRoot root;
};

TEST_F(ModuleMessages, RegistrationStateReplyIsTheManagementModulesAnswer) {
    uint8_t got[16] = {};
    EXPECT_EQ(dpio_request_registration_state(0x10000401, got, 15), -2); // no module 21 yet
    Peer mgmt(21), other(150);
    const int unbound = socket(AF_UNIX, SOCK_DGRAM, 0);
    auto msg = [](uint32_t type, uint32_t src, const Bytes& payload) {
        return cat({header(type, src, 44, 0, 0, static_cast<uint32_t>(payload.size())), payload});
    };
    const Bytes texts = cat({field("1", 5), field("0", 5), field("1", 5)});
    const Bytes wrong = cat({field("0", 5), field("1", 5), field("0", 5)});
    const Bytes reply = msg(0x10000401, 21, texts);
    using Datagrams = std::vector<std::pair<int, Bytes>>; // sending socket, bytes
    const Datagrams foreign = {
        {mgmt.fd, msg(0x10000401, 150, wrong)},              // names another source
        {mgmt.fd, msg(0x10000402, 21, wrong)},               // another type
        {mgmt.fd, Bytes(reply.begin(), reply.begin() + 12)}, // type and source, no whole header
        {other.fd, msg(0x10000401, 21, wrong)},              // from another module's socket
        {unbound, msg(0x10000401, 21, wrong)},               // from a socket bound to no path
    };
    Datagrams stale = foreign;
    stale.push_back({mgmt.fd, msg(0x10000401, 21, wrong)}); // a late answer to an earlier request
    Datagrams foreign_then_reply = foreign;
    foreign_then_reply.push_back({mgmt.fd, reply});
    const struct {
        Datagrams before, during; // queued before the request; sent once it has arrived
        int ret;
        Bytes got;
    } cases[] = {
        {{}, {{mgmt.fd, reply}}, 0, texts},
        {stale, foreign_then_reply, 0, texts},
        {{}, {{mgmt.fd, msg(0x10000401, 21, Bytes(16, '1'))}}, -9, {}},
        {stale, {{mgmt.fd, msg(0x10000401, 21, {})}}, -7, {}},
    };
    for (const auto& c : cases) {
        for (const auto& [fd, bytes] : c.before)
            Peer::send_raw(fd, bytes);
        std::thread module([&] {
            EXPECT_EQ(mgmt.next(), header(0x10000401, 44, 21, 3, 0, 0));
            for (const auto& [fd, bytes] : c.during)
                Peer::send_raw(fd, bytes);
        });
        std::memset(got, 0, sizeof got);
        EXPECT_EQ(dpio_request_registration_state(0x10000401, got, 15), c.ret);
        module.join();
        Bytes want = c.got;
        want.resize(16, 0);
        EXPECT_EQ(Bytes(got, got + 16), want) << c.ret;
    }
    close(unbound);
    // Refused before anything is sent.
    EXPECT_EQ(dpio_request_registration_state(0x10000401, nullptr, 15), -1);
    EXPECT_EQ(dpio_request_registration_state(0x10000401, got, 0), -1);
    EXPECT_EQ(dpio_request_registration_state(0x10000401, got, -4), -1);
    EXPECT_EQ(mgmt.next(50), Bytes{});
}

TEST_F(ModuleMessages, StatusIndicationQueryResponseAndNoModuleReply) {
    Peer mgmt(21), status(150);
    trace(DP_IO);
    {
        StderrCapture err;
        EXPECT_EQ(dpio_send_service_status(0), CSMSG_OK);
        EXPECT_EQ(err.text(), "snd cs1(032): db 27 00 10 2c 00 00 00 96 00 00 00 03 00 00 00 00 "
                              "00 00 00 03 00 00 00 00 00 00 00 00 00 00 00\n");
    }
    trace(DP_DETAIL);
    EXPECT_EQ(dpio_send_service_status(1), CSMSG_OK);
    EXPECT_EQ(status.next(), header(0x100027DB, 44, 150, 3, 3, 0));
    EXPECT_EQ(status.next(), header(0x100027DB, 44, 150, 3, 2, 0));

    const std::string long_name(300, 'n');
    StderrCapture err;
    dpio_send_csmsg_query_response(1, long_name.c_str(), -1, 7, "2001:db8::1,2001:db8::2");
    EXPECT_EQ(status.next(), cat({header(0x100027C4, 44, 150, 4, 0, 524), h32({1}),
                                  field(std::string(255, 'n'), 256), h32({0xFFFFFFFF, 7}),
                                  field("2001:db8::1,2001:db8::2", 256)}));
    EXPECT_EQ(std::regex_replace(err.text(), std::regex(":[0-9]+ "), ": "),
              "DPIO   dpio_send_csmsg_query_response: query_type=1 domainName=" + long_name +
                  " ret=-1 ttl=7 ipstrs=2001:db8::1,2001:db8::2\n");

    // The module reply record is built, cut to its fields, and dropped: no message at all.
    static Bytes record;
    dpio_send_query_response_to_module("kiv_wifi", 9, 0, "nas.home", 0, 30, "192.0.2.81");
    EXPECT_EQ(mgmt.next(50), Bytes{});
    EXPECT_EQ(status.next(50), Bytes{});
    dpio_set_module_response_hook([](const dpio_module_reply* r) {
        record.assign(reinterpret_cast<const uint8_t*>(r), reinterpret_cast<const uint8_t*>(r + 1));
    });
    dpio_send_query_response_to_module(std::string(40, 't').c_str(), -2, 1, "v6.home", -1, 7,
                                       "2001:db8::80");
    dpio_set_module_response_hook(nullptr);
    EXPECT_EQ(record,
              cat({field(std::string(31, 't'), 32), h32({0xFFFFFFFE, 1}), field("v6.home", 256),
                   h32({0xFFFFFFFF, 7}), field("2001:db8::80", 256)}));
}

TEST_F(ModuleMessages, ReceiveCopiesHeaderAndBoundedPayload) {
    Peer mgmt(21);
    mgmt.send(cat({header(0x12345678, 21, 44, 0, 0, 10), {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}}));
    mgmt.send(header(0x9ABC, 21, 44, 0, 0, 0));
    csMsgHeader hdr{};
    uint8_t data[8] = {};
    uint32_t got = 99;
    trace(DP_IO);
    StderrCapture err;
    EXPECT_EQ(dpio_receive_csmsg(&hdr, data, 4, &got), 0);
    EXPECT_EQ(Bytes(reinterpret_cast<uint8_t*>(&hdr), reinterpret_cast<uint8_t*>(&hdr + 1)),
              header(0x12345678, 21, 44, 0, 0, 10));
    EXPECT_EQ(got, 4u);
    EXPECT_EQ(Bytes(data, data + 8), (Bytes{1, 2, 3, 4, 0, 0, 0, 0}));
    EXPECT_EQ(dpio_receive_csmsg(&hdr, data, sizeof data, &got), 0);
    EXPECT_EQ(hdr.type, 0x9ABCu);
    EXPECT_EQ(got, 0u);
    const std::string dumps = err.text();
    EXPECT_NE(dumps.find("rcv csh(032): 78 56 34 12 15 00 00 00 2c 00"), std::string::npos);
    EXPECT_NE(dumps.find("\nrcv csd(004): 01 02 03 04\n"), std::string::npos);
    EXPECT_EQ(dumps.find("rcv csd"), dumps.rfind("rcv csd")); // none for an empty payload
}

} // namespace
