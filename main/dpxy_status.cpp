// Service status detection: a fixed query every 20 seconds through the Internet-service set;
// three unanswered in a row announce the service down, a good answer announces it up.
#include <array>
#include <string_view>

#include "ctrl/dp_trace.h"
#include "endec/dpendec.h"
#include "io/dpio.h"
#include "main/dputl.h"
#include "main/dpxy.h"
#include "server/dpsvr.h"

namespace {

constexpr uint32_t kProbePeriod = 20;
constexpr uint32_t kDownAfter = 2; // more failures than this: down

// A recursive A query for a fixed public name, 32 bytes; the id is written before each send.
constexpr std::array<uint8_t, 32> make_probe() {
    std::array<uint8_t, 32> q{0, 0, 0x01, 0x00, 0, 1, 0, 0, 0, 0, 0, 0};
    constexpr std::string_view name = "ftp.debian.org";
    size_t pos = 12;
    size_t start = 0;
    while (start <= name.size()) {
        size_t dot = name.find('.', start);
        if (dot == std::string_view::npos) dot = name.size();
        q[pos++] = static_cast<uint8_t>(dot - start);
        for (size_t i = start; i < dot; ++i)
            q[pos++] = static_cast<uint8_t>(name[i]);
        start = dot + 1;
    }
    q[pos++] = 0;
    q[pos++] = 0;
    q[pos++] = 1; // QTYPE A
    q[pos++] = 0;
    q[pos++] = 1; // QCLASS IN
    return q;
}

std::array<uint8_t, 32> probe_packet = make_probe();
uint32_t failed_count = 0;
uint16_t probe_transid = 0;
dpio_expect probe_expect{-1, 0, 0, {}, 0, {}}; // hardened mode: where the probe went

void probe_start(void* parm, acb*) {
    send_auto_query_probe_packet(parm);
}
void probe_period(void* parm) {
    send_auto_query_probe_packet(parm);
}

acb probe_action{nullptr, nullptr, 0, kProbePeriod, nullptr, probe_start, probe_period,
                 nullptr, 0,       0};

} // namespace

int send_auto_query_probe_packet(void*) {
    DPMAIN_TRACE(DP_DETAIL, "send auto query(failed_count=%u)\n", failed_count);
    // The down indication goes out before this probe is counted: first on the fourth probe.
    if (failed_count > kDownAfter) dpio_send_service_status(0);
    probe_transid = dputl_get_next_transaction_id();
    probe_packet[0] = static_cast<uint8_t>(probe_transid >> 8);
    probe_packet[1] = static_cast<uint8_t>(probe_transid & 0xFF);
    dpio_begin_sends(&probe_expect);
    dpsvr_send_query(probe_packet.data(), static_cast<uint16_t>(probe_packet.size()),
                     dpsvr_get_hsi_server_set(), nullptr);
    dpio_end_sends();
    failed_count++;
    return 0;
}

int handle_auto_query_probe_response(uint16_t server_id, const msginf* answer) {
    DPMAIN_TRACE(DP_DETAIL, "auto query transid=0x%x transid=0x%x\n", probe_transid, server_id);
    if (answer->ancount == 0 || server_id == 0 || server_id != probe_transid) return -60;
    DPMAIN_TRACE(DP_PKT, "ok service status indication rsp transid=0x%x rcvd\n", server_id);
    dpio_send_service_status(1);
    failed_count = 0;
    return -50;
}

void dpxy_reset_status_probe() {
    failed_count = 0;
}

void dpxy_start_status_probe() {
    dputl_start_action(&probe_action, nullptr);
}

uint32_t dpxy_status_failed_count() {
    return failed_count;
}

uint16_t dpxy_status_probe_id() {
    return probe_transid;
}

int dpxy_check_status_answer(uint16_t id, int fd, const dp_peer_addr* from, const uint8_t* msg,
                             uint16_t len) {
    if (id == 0 || id != probe_transid) return -1;
    return dpio_check_answer(&probe_expect, fd, from, msg, len);
}
