// The module message channel: registration-state requests to the management module, service
// status indications and query responses to the status collector, and the generic receive.

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <span>

#include "ctrl/dp_trace.h"
#include "io/dpio.h"
#include "platform/csmsg/csmsg.h"
#include "platform/ombus/ombus.h"

namespace {

constexpr uint32_t kRegisterStateWaitMs = 3000;
constexpr uint32_t kReceiveWaitMs = 1500;
constexpr int kDrainLimit = 256;         // a bound for a channel that never runs dry
constexpr uint8_t kFlagsRequest = 0x03;  // bits 0 and 1: requests and status indications
constexpr uint8_t kFlagsResponse = 0x04; // bit 2 set, bit 1 clear: query responses

constexpr char kBusPath[] = "/orvik/kiv/dnsproxy";
constexpr char kBusInterface[] = "orvik.kiv.rgwd.itf.msg";
constexpr char kBusMember[] = "dnsProxyResponse";

// A query response as it travels: header and payload in one block of 556 bytes.
struct query_response_msg {
    csMsgHeader hdr;
    dpio_query_response payload;
};
static_assert(sizeof(query_response_msg) == 556, "query response message is 556 bytes");

csMsgChannel* s_dp_csmsg_handle = nullptr;
int s_dp_csmsg_fd = -1;

void drop_module_reply(const dpio_module_reply*) {}
dpio_module_response_hook s_module_response_hook = drop_module_reply;

csMsgHeader make_header(uint32_t type, uint32_t dst, uint8_t flags) {
    csMsgHeader h{};
    h.type = type;
    h.src = DPIO_MODULE_DNSPROXY;
    h.dst = dst;
    h.flags = flags;
    return h;
}

void dump(const char* label, const void* data, uint32_t len) {
    if (DP_TRACE_ON(DP_MOD_IO, DP_IO)) dpio_hex_dump(label, static_cast<const uint8_t*>(data), len);
}

// Copies a text into a fixed field, cut to fit and always terminated; null gives "".
void copy_text(std::span<char> dst, const char* src) {
    const size_t n = src == nullptr ? 0 : strnlen(src, dst.size() - 1);
    if (n != 0) std::memcpy(dst.data(), src, n);
    dst[n] = '\0';
}

// The payload of one received message, as long as its header says and the block holds.
std::span<const uint8_t> payload_of(const csMsgHeader* msg) {
    return {reinterpret_cast<const uint8_t*>(msg + 1), msg->dataLength};
}

int64_t now_ms() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Drops what waits on the channel: nothing that arrived before a request can be its reply (a
// reply that came after its request had timed out would otherwise answer the next one).
void drain_channel() {
    for (int i = 0; i < kDrainLimit; ++i) {
        csMsgHeader* msg = nullptr;
        if (csMsg_receiveWithTimeout(s_dp_csmsg_handle, &msg, 0) != CSMSG_OK) return;
        cslibMem_free(msg);
    }
}

// The management module's answer to a request of this type: a whole header that names it as the
// source and carries the request's type, sent from its own socket.
bool is_registration_reply(const csMsgHeader* msg, const csMsgOrigin& from, uint32_t type) {
    return from.size >= sizeof *msg && from.module_id == DPIO_MODULE_MGMT &&
           msg->src == DPIO_MODULE_MGMT && msg->type == type;
}

// Waits until the deadline for the reply; any other message is dropped and the wait goes on.
// What the receive gave, with *reply set on CSMSG_OK.
int wait_registration_reply(uint32_t type, csMsgHeader** reply) {
    const int64_t deadline = now_ms() + kRegisterStateWaitMs;
    for (int64_t left = kRegisterStateWaitMs; left > 0; left = deadline - now_ms()) {
        csMsgOrigin from{};
        const int ret = csMsg_receiveFromWithTimeout(s_dp_csmsg_handle, reply,
                                                     static_cast<uint32_t>(left), &from);
        if (ret != CSMSG_OK || *reply == nullptr || is_registration_reply(*reply, from, type))
            return ret;
        cslibMem_free(*reply);
        *reply = nullptr;
    }
    return CSMSG_TIMEOUT;
}

} // namespace

int dpio_init_module_interface() {
    const int ret = csMsg_init(DPIO_MODULE_DNSPROXY, &s_dp_csmsg_handle);
    if (ret != CSMSG_OK) {
        DPIO_TRACE(DP_ERROR, "fail to init csmsg ret=%d\n", ret);
        return -1;
    }
    csMsg_getEventHandle(s_dp_csmsg_handle, &s_dp_csmsg_fd);
    DPIO_TRACE(DP_DETAIL, "s_dp_csmsg_handle=%p msgFd=%d\n", static_cast<void*>(s_dp_csmsg_handle),
               s_dp_csmsg_fd);
    return 0;
}

int dpio_get_module_fd() {
    return s_dp_csmsg_fd;
}

void dpio_close_module_interface() {
    csMsg_cleanup(&s_dp_csmsg_handle);
    s_dp_csmsg_fd = -1;
}

int dpio_request_registration_state(uint32_t type, uint8_t* reply, int32_t size) {
    if (reply == nullptr || size <= 0) return -1;
    const csMsgHeader req = make_header(type, DPIO_MODULE_MGMT, kFlagsRequest);
    dpio_flush_answers(); // the loop waits for the reply: answers collected so far go first
    drain_channel();
    dump("snd cs3", &req, sizeof req);
    if (csMsg_send(s_dp_csmsg_handle, &req) != CSMSG_OK) return -2;

    csMsgHeader* msg = nullptr;
    if (wait_registration_reply(type, &msg) != CSMSG_OK) return -3;
    if (msg == nullptr) return -5;
    dump("rcv cs3", msg, static_cast<uint32_t>(sizeof *msg + msg->dataLength));
    const auto payload = payload_of(msg);
    int ret = 0;
    if (payload.empty())
        ret = -7;
    else if (payload.size() > static_cast<uint32_t>(size))
        ret = -9;
    else
        std::memcpy(reply, payload.data(), payload.size());
    cslibMem_free(msg);
    return ret;
}

int dpio_send_service_status(int up) {
    csMsgHeader msg = make_header(DPIO_MSG_SERVICE_STATUS, DPIO_MODULE_STATUS, kFlagsRequest);
    msg.wordData = up != 0 ? DPIO_SERVICE_UP : DPIO_SERVICE_DOWN;
    dump("snd cs1", &msg, sizeof msg);
    return csMsg_send(s_dp_csmsg_handle, &msg);
}

void dpio_send_csmsg_query_response(uint32_t is_aaaa, const char* name, int32_t result, int32_t ttl,
                                    const char* ipstrs) {
    DPIO_TRACE(DP_DETAIL, "query_type=%u domainName=%s ret=%d ttl=%d ipstrs=%s\n", is_aaaa,
               name != nullptr ? name : "", result, ttl, ipstrs != nullptr ? ipstrs : "");
    auto* msg = static_cast<query_response_msg*>(cslibMem_alloc(sizeof(query_response_msg), 1));
    if (msg == nullptr) return;
    msg->hdr = make_header(DPIO_MSG_QUERY_RESPONSE, DPIO_MODULE_STATUS, kFlagsResponse);
    msg->hdr.dataLength = sizeof msg->payload;
    msg->payload.query_type = is_aaaa;
    copy_text(msg->payload.name, name);
    msg->payload.result = result;
    msg->payload.ttl = ttl;
    copy_text(msg->payload.ipstrs, ipstrs);
    const int ret = csMsg_send(s_dp_csmsg_handle, &msg->hdr);
    if (ret != CSMSG_OK) DPIO_TRACE(DP_WARN, "failed to send msg, ret=%d\n", ret);
    // Bus listeners get the answer even when the status collector is not there.
    dpio_publish_query_response(&msg->payload, sizeof msg->payload);
    dump("snd cs2", msg, sizeof *msg);
    cslibMem_free(msg);
}

int dpio_publish_query_response(const void* payload, uint32_t len) {
    return ombusEmitSignal(kBusPath, kBusInterface, kBusMember, payload, len) == OMBUS_OK ? 0 : -1;
}

void dpio_send_query_response_to_module(const char* module, int32_t seq, uint32_t is_aaaa,
                                        const char* name, int32_t result, int32_t ttl,
                                        const char* ipstrs) {
    DPIO_TRACE(DP_DETAIL, "module=%s query_type=%u domainName=%s ret=%d ttl=%d ipstrs=%s\n",
               module != nullptr ? module : "", is_aaaa, name != nullptr ? name : "", result, ttl,
               ipstrs != nullptr ? ipstrs : "");
    dpio_module_reply reply{};
    copy_text(reply.module, module);
    reply.seq = static_cast<uint32_t>(seq);
    reply.query_type = is_aaaa;
    copy_text(reply.name, name);
    reply.result = result;
    reply.ttl = ttl;
    copy_text(reply.ipstrs, ipstrs);
    s_module_response_hook(&reply);
}

void dpio_set_module_response_hook(dpio_module_response_hook hook) {
    s_module_response_hook = hook != nullptr ? hook : drop_module_reply;
}

int dpio_receive_csmsg(csMsgHeader* header, uint8_t* data, uint32_t size, uint32_t* received) {
    *received = 0;
    csMsgHeader* msg = nullptr;
    if (csMsg_receiveWithTimeout(s_dp_csmsg_handle, &msg, kReceiveWaitMs) != CSMSG_OK) return -2;
    if (msg == nullptr) return -1;
    *header = *msg;
    dump("rcv csh", header, sizeof *header);
    const auto payload = payload_of(msg);
    if (!payload.empty()) {
        *received = std::min<uint32_t>(static_cast<uint32_t>(payload.size()), size);
        if (*received != 0) std::memcpy(data, payload.data(), *received);
        dump("rcv csd", data, *received);
    }
    cslibMem_free(msg);
    return 0;
}
