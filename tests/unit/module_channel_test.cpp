// The module channel's messages byte for byte, against peers bound in this process.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
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

// A 32-bit word in host order, as the channel carries it.
Bytes h32(uint32_t v) {
    Bytes b(4);
    std::memcpy(b.data(), &v, 4);
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
    return cat({h32(type),
                h32(src),
                h32(dst),
                {flags, 0, 0, 0, 0, 0, 0, 0},
                h32(word5),
                h32(len),
                h32(0)});
}
// A text in a zero-padded field.
Bytes field(const std::string& text, size_t size) {
    Bytes b(text.begin(), text.end());
    b.resize(size, 0);
    return b;
}

// A module bound next to the proxy's channel; reads whole datagrams from its socket.
class Peer {
  public:
    explicit Peer(uint32_t id) {
        EXPECT_EQ(csMsg_init(id, &ch_), CSMSG_OK);
        csMsg_getEventHandle(ch_, &fd_);
    }
    ~Peer() { csMsg_cleanup(&ch_); }
    // The next datagram, empty when none comes within wait_ms.
    Bytes next(int wait_ms = 1000) {
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, wait_ms) <= 0) return {};
        Bytes b(4096);
        const ssize_t n = recv(fd_, b.data(), b.size(), 0);
        b.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return b;
    }
    // Sends a header and payload to module 44 (queued there before the proxy reads).
    void send_to_proxy(uint32_t type, const Bytes& payload) {
        Bytes m = cat({header(type, 21, 44, 0, 0, static_cast<uint32_t>(payload.size())), payload});
        ASSERT_EQ(csMsg_send(ch_, reinterpret_cast<const csMsgHeader*>(m.data())), CSMSG_OK);
    }
    int fd() const { return fd_; }

  private:
    csMsgChannel* ch_ = nullptr;
    int fd_ = -1;
};

// One datagram, byte for byte, from the given socket to module 44.
void send_raw(int fd, const Bytes& datagram) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    csMsg_module_path(44, addr.sun_path, sizeof addr.sun_path);
    ASSERT_EQ(sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&addr),
                     sizeof addr),
              static_cast<ssize_t>(datagram.size()));
}

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
        dpio_set_module_response_hook(nullptr);
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
    Peer mgmt(21);
    Peer other(150);
    const int unbound = socket(AF_UNIX, SOCK_DGRAM, 0);
    enum From { kMgmt, kOther, kUnbound };
    const int from_fd[] = {mgmt.fd(), other.fd(), unbound};
    struct Datagram {
        From from;
        Bytes bytes;
    };
    auto msg = [](uint32_t type, uint32_t src, const Bytes& payload) {
        return cat({header(type, src, 44, 0, 0, static_cast<uint32_t>(payload.size())), payload});
    };
    const Bytes texts = cat({field("1", 5), field("0", 5), field("1", 5)});
    const Bytes wrong = cat({field("0", 5), field("1", 5), field("0", 5)});
    const Bytes reply = msg(0x10000401, 21, texts);
    const std::vector<Datagram> foreign = {
        {kMgmt, msg(0x10000401, 150, wrong)},              // names another source
        {kMgmt, msg(0x10000402, 21, wrong)},               // another type
        {kMgmt, Bytes(reply.begin(), reply.begin() + 12)}, // type and source, no whole header
        {kOther, msg(0x10000401, 21, wrong)},              // from another module's socket
        {kUnbound, msg(0x10000401, 21, wrong)},            // from a socket bound to no path
    };
    std::vector<Datagram> stale = foreign;
    stale.push_back({kMgmt, msg(0x10000401, 21, wrong)}); // a late answer to an earlier request
    std::vector<Datagram> foreign_then_reply = foreign;
    foreign_then_reply.push_back({kMgmt, reply});
    struct Case {
        const char* what;
        std::vector<Datagram> before; // queued before the request
        std::vector<Datagram> during; // sent once the request has arrived
        int ret;
        Bytes got;
    };
    const Case cases[] = {
        {"reply", {}, {{kMgmt, reply}}, 0, texts},
        {"stale before, foreign during", stale, foreign_then_reply, 0, texts},
        {"16 bytes", {}, {{kMgmt, msg(0x10000401, 21, Bytes(16, '1'))}}, -9, {}},
        {"empty", stale, {{kMgmt, msg(0x10000401, 21, {})}}, -7, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        for (const auto& d : c.before)
            send_raw(from_fd[d.from], d.bytes);
        std::thread module([&] {
            EXPECT_EQ(mgmt.next(), header(0x10000401, 44, 21, 3, 0, 0));
            for (const auto& d : c.during)
                send_raw(from_fd[d.from], d.bytes);
        });
        uint8_t got[16] = {};
        EXPECT_EQ(dpio_request_registration_state(0x10000401, got, 15), c.ret);
        module.join();
        Bytes want = c.got;
        want.resize(16, 0);
        EXPECT_EQ(Bytes(got, got + 16), want);
    }
    close(unbound);

    // Refused before anything is sent.
    uint8_t got[16];
    EXPECT_EQ(dpio_request_registration_state(0x10000401, nullptr, 15), -1);
    EXPECT_EQ(dpio_request_registration_state(0x10000401, got, 0), -1);
    EXPECT_EQ(dpio_request_registration_state(0x10000401, got, -4), -1);
    EXPECT_EQ(mgmt.next(50), Bytes{});
}

TEST_F(ModuleMessages, RegistrationStateRequestWithoutManagementModule) {
    uint8_t reply[15];
    EXPECT_EQ(dpio_request_registration_state(0x10000401, reply, 15), -2);
}

TEST_F(ModuleMessages, ServiceStatusIndication) {
    Peer status(150);
    trace(DP_IO);
    StderrCapture err;
    EXPECT_EQ(dpio_send_service_status(0), CSMSG_OK);
    trace(0);
    EXPECT_EQ(dpio_send_service_status(1), CSMSG_OK);
    EXPECT_EQ(status.next(), header(0x100027DB, 44, 150, 3, 3, 0));
    EXPECT_EQ(status.next(), header(0x100027DB, 44, 150, 3, 2, 0));
    EXPECT_EQ(err.text(), "snd cs1(032): db 27 00 10 2c 00 00 00 96 00 00 00 03 00 00 00 00 00 00 "
                          "00 03 00 00 00 00 00 00 00 00 00 00 00\n");
}

TEST_F(ModuleMessages, QueryResponseLayout) {
    Peer status(150);
    const std::string long_name(300, 'n');
    trace(DP_DETAIL | DP_WARN);
    StderrCapture err;
    dpio_send_csmsg_query_response(1, long_name.c_str(), -1, 7, "2001:db8::1,2001:db8::2");
    const Bytes got = status.next();
    ASSERT_EQ(got.size(), 556u);
    EXPECT_EQ(Bytes(got.begin(), got.begin() + 32), header(0x100027C4, 44, 150, 4, 0, 524));
    EXPECT_EQ(Bytes(got.begin() + 32, got.end()),
              cat({h32(1), field(std::string(255, 'n'), 256), h32(static_cast<uint32_t>(-1)),
                   h32(7), field("2001:db8::1,2001:db8::2", 256)}));
    EXPECT_EQ(std::regex_replace(err.text(), std::regex(":[0-9]+ "), ": "),
              "DPIO   dpio_send_csmsg_query_response: query_type=1 domainName=" + long_name +
                  " ret=-1 ttl=7 ipstrs=2001:db8::1,2001:db8::2\n");
}

TEST_F(ModuleMessages, QueryResponseSendFailureIsTraced) {
    trace(DP_WARN);
    StderrCapture err;
    dpio_send_csmsg_query_response(0, "nas.home", 0, 30, "192.0.2.81");
    EXPECT_EQ(std::regex_replace(err.text(), std::regex(":[0-9]+ "), ": "),
              "DPIO   dpio_send_csmsg_query_response: failed to send msg, ret=-3\n");
}

dpio_module_reply last_reply;
int replies = 0;

TEST_F(ModuleMessages, ModuleReplyRecordIsBuiltAndDropped) {
    Peer mgmt(21);
    Peer status(150);
    dpio_send_query_response_to_module("kiv_wifi", 9, 0, "nas.home", 0, 30, "192.0.2.81");
    EXPECT_EQ(mgmt.next(50), Bytes{});
    EXPECT_EQ(status.next(50), Bytes{});

    // What a delivering build would hand on.
    dpio_set_module_response_hook([](const dpio_module_reply* r) {
        last_reply = *r;
        ++replies;
    });
    const std::string tag(40, 't');
    dpio_send_query_response_to_module(tag.c_str(), -2, 1, "v6.home", -1, 7, "2001:db8::80");
    ASSERT_EQ(replies, 1);
    Bytes raw(sizeof last_reply);
    std::memcpy(raw.data(), &last_reply, raw.size());
    EXPECT_EQ(raw,
              cat({field(std::string(31, 't'), 32), h32(0xFFFFFFFE), h32(1), field("v6.home", 256),
                   h32(static_cast<uint32_t>(-1)), h32(7), field("2001:db8::80", 256)}));
}

TEST_F(ModuleMessages, ReceiveCopiesHeaderAndBoundedPayload) {
    Peer mgmt(21);
    mgmt.send_to_proxy(0x12345678, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
    mgmt.send_to_proxy(0x9ABC, {});
    csMsgHeader hdr{};
    uint8_t data[8] = {};
    uint32_t got = 99;
    trace(DP_IO);
    StderrCapture err;
    EXPECT_EQ(dpio_receive_csmsg(&hdr, data, 4, &got), 0);
    EXPECT_EQ(hdr.type, 0x12345678u);
    EXPECT_EQ(hdr.src, 21u);
    EXPECT_EQ(hdr.dataLength, 10u);
    EXPECT_EQ(got, 4u);
    EXPECT_EQ(Bytes(data, data + 8), (Bytes{1, 2, 3, 4, 0, 0, 0, 0}));
    EXPECT_EQ(dpio_receive_csmsg(&hdr, data, sizeof data, &got), 0);
    EXPECT_EQ(hdr.type, 0x9ABCu);
    EXPECT_EQ(got, 0u);
    const std::string dumps = err.text();
    EXPECT_NE(dumps.find("rcv csh(032): 78 56 34 12 15 00 00 00 2c 00"), std::string::npos);
    EXPECT_NE(dumps.find("\nrcv csd(004): 01 02 03 04\n"), std::string::npos);
    EXPECT_EQ(dumps.find("rcv csd", dumps.find("rcv csd") + 1), std::string::npos);
}

} // namespace
