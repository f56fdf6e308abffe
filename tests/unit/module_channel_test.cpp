// The module channel's messages byte for byte, against peers bound in this process.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <iterator>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "cache/dpcache.h"
#include "config/dpcfg.h"
#include "ctrl/dp_trace.h"
#include "io/dpio.h"
#include "main/dpxy.h"
#include "platform/csmsg/csmsg.h"
#include "platform/ombus/ombus.h"
#include "test_support.h"

namespace {

std::string header(uint32_t type, uint32_t src, uint32_t dst, char flags, uint32_t len,
                   uint32_t word5 = 0) {
    return h32({type, src, dst}) + field({flags}, 8) + h32({word5, len, 0});
}

// One datagram, byte for byte, from the socket from to module 44.
void send_raw(int from, const std::string& datagram) {
    sockaddr_un addr{AF_UNIX, {}};
    csMsg_module_path(44, addr.sun_path, sizeof addr.sun_path);
    sendto(from, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&addr),
           sizeof addr);
}

// A module bound next to the proxy's channel; reads whole datagrams from its socket.
struct Peer {
    explicit Peer(uint32_t id) {
        EXPECT_EQ(csMsg_init(id, &ch), CSMSG_OK);
        csMsg_getEventHandle(ch, &fd);
    }
    ~Peer() { csMsg_cleanup(&ch); }
    // The next datagram, empty when none comes within wait_ms.
    std::string next(int wait_ms = 1000) const {
        pollfd p{fd, POLLIN, 0};
        std::string b(4096, '\0');
        b.resize(poll(&p, 1, wait_ms) > 0 ? std::max<ssize_t>(0, recv(fd, b.data(), 4096, 0)) : 0);
        return b;
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
        ASSERT_EQ(dpio_init_module_interface(), 0);
    }
    void TearDown() override {
        dpio_close_module_interface();
        ombusReset();
        unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
        define_debug_mode(0);
    }
    TempRoot root;
};

TEST_F(ModuleMessages, RegistrationStateReplyIsTheManagementModulesAnswer) {
    uint8_t got[16] = {};
    EXPECT_EQ(dpio_request_registration_state(0x10000401, got, 15), -2); // no module 21 yet
    Peer mgmt(21), other(150);
    const int unbound = socket(AF_UNIX, SOCK_DGRAM, 0);
    auto msg = [](uint32_t type, uint32_t src, const std::string& payload) {
        return header(type, src, 44, 0, static_cast<uint32_t>(payload.size())) + payload;
    };
    const std::string texts = field("1", 5) + field("0", 5) + field("1", 5), wrong(15, '9');
    using Datagrams = std::vector<std::pair<int, std::string>>; // sending socket, bytes
    Datagrams stale = {
        {mgmt.fd, msg(0x10000401, 150, wrong)},              // names another source
        {mgmt.fd, msg(0x10000402, 21, wrong)},               // another type
        {mgmt.fd, msg(0x10000401, 21, wrong).substr(0, 12)}, // type and source, no whole header
        {other.fd, msg(0x10000401, 21, wrong)},              // from another module's socket
        {unbound, msg(0x10000401, 21, wrong)},               // from a socket bound to no path
        {mgmt.fd, msg(0x10000401, 21, wrong)},               // queued before: a late answer
    };
    // The foreign ones sent again once the request has arrived, then the answer.
    Datagrams foreign_then_reply(stale.begin(), stale.end() - 1);
    foreign_then_reply.push_back({mgmt.fd, msg(0x10000401, 21, texts)});
    const std::pair<Datagrams, int> cases[] = {{foreign_then_reply, 0},
                                               {{{mgmt.fd, msg(0x10000401, 21, "")}}, -7}};
    for (const auto& c : cases) {
        for (const auto& [fd, bytes] : stale)
            send_raw(fd, bytes);
        std::thread module([&] {
            EXPECT_EQ(mgmt.next(), header(0x10000401, 44, 21, 3, 0));
            for (const auto& [fd, bytes] : c.first)
                send_raw(fd, bytes);
        });
        std::fill(got, got + 16, 0);
        EXPECT_EQ(dpio_request_registration_state(0x10000401, got, 15), c.second);
        module.join();
        EXPECT_EQ(std::string(reinterpret_cast<char*>(got), 16),
                  field(c.second == 0 ? texts : "", 16));
    }
    close(unbound);
    // Refused before anything is sent.
    EXPECT_EQ(dpio_request_registration_state(0x10000401, nullptr, 15), -1);
    EXPECT_EQ(dpio_request_registration_state(0x10000401, got, 0), -1);
    EXPECT_EQ(dpio_request_registration_state(0x10000401, got, -4), -1);
    EXPECT_EQ(mgmt.next(50), "");
}

TEST_F(ModuleMessages, QueryResponseFieldsAreCutToFitAndTheModuleReplyIsDropped) {
    Peer mgmt(21), status(150);
    const std::string long_name(300, 'n');
    dp_debug_tbl.modules[DP_MOD_IO].level_mask = DP_DETAIL;
    StderrCapture err;
    dpio_send_csmsg_query_response(1, long_name.c_str(), -1, 7, "2001:db8::1,2001:db8::2");
    EXPECT_EQ(status.next(), header(0x100027C4, 44, 150, 4, 524) + h32({1}) +
                                 field(std::string(255, 'n'), 256) + h32({0xFFFFFFFF, 7}) +
                                 field("2001:db8::1,2001:db8::2", 256));
    EXPECT_EQ(std::regex_replace(err.text(), std::regex(":[0-9]+ "), ": "),
              "DPIO   dpio_send_csmsg_query_response: query_type=1 domainName=" + long_name +
                  " ret=-1 ttl=7 ipstrs=2001:db8::1,2001:db8::2\n");
    // The module reply record is built, cut to its fields, and dropped: no message at all.
    static std::string record;
    dpio_send_query_response_to_module("kiv_wifi", 9, 0, "nas.home", 0, 30, "192.0.2.81");
    EXPECT_EQ(mgmt.next(50) + status.next(50), "");
    dpio_set_module_response_hook([](const dpio_module_reply* r) {
        record.assign(reinterpret_cast<const char*>(r), sizeof *r);
    });
    dpio_send_query_response_to_module(std::string(40, 't').c_str(), -2, 1, "v6.home", -1, 7,
                                       "2001:db8::80");
    dpio_set_module_response_hook(nullptr);
    EXPECT_EQ(record, field(std::string(31, 't'), 32) + h32({0xFFFFFFFE, 1}) +
                          field("v6.home", 256) + h32({0xFFFFFFFF, 7}) +
                          field("2001:db8::80", 256));
}

TEST_F(ModuleMessages, StatusAndAnInternalRequestsAnswerAreInHostOrder) {
    Peer status(150);
    for (const int up : {1, 0}) {
        dpio_send_service_status(up);
        EXPECT_EQ(status.next(), header(0x100027DB, 44, 150, 3, 0, up != 0 ? 2 : 3));
    }
    // The request record of "HandleQueryRequest", at an odd address as a bus buffer may put it:
    // the AAAA flag in host order, then the name. A hosts-table name is answered on the channel.
    dpcfg_init();
    dpcfg_apply_feature_mask(DPCFG_FEAT_LOCAL_HOSTS);
    add_cache(&dpcache_hosts_list, "nas.home", DPCACHE_TYPE_IPV4, "192.0.2.81",
              DPCACHE_NEVER_EXPIRES);
    dp_debug_tbl.modules[DP_MOD_PROXY].level_mask = DP_DETAIL;
    const std::string record = "-" + h32({1}) + field("nas.home", 256);
    StderrCapture err;
    EXPECT_EQ(dpxy_handle_query_request(reinterpret_cast<const uint8_t*>(record.data() + 1), 260),
              0);
    dpcache_purge_all();
    EXPECT_EQ(status.next(), header(0x100027C4, 44, 150, 4, 524) + h32({0}) +
                                 field("nas.home", 256) + h32({0, 30}) + field("192.0.2.81", 256));
    EXPECT_NE(err.text().find("query_type=1 domainName=nas.home\n"), std::string::npos);
}

} // namespace
