// Requests of other gateway daemons to the proxy core: name resolutions answered through the
// module channel, and DHCP lease updates.
#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include "ctrl/dp_trace.h"
#include "endec/dpendec.h"
#include "io/dpio.h"
#include "main/dputl.h"
#include "main/dpxy.h"
#include "main/dpxy_pcb.h"
#include "server/dpsvr.h"

namespace {
constexpr uint32_t kRequestSize = 260; // u32 AAAA flag, then the name as char[256]
} // namespace

int dpxy_handle_query_request(const uint8_t* record, uint32_t len) {
    if (record == nullptr || len < kRequestSize) return -1;
    uint32_t aaaa = 0;
    std::memcpy(&aaaa, record, sizeof aaaa);
    char name[256];
    std::snprintf(name, sizeof name, "%.*s", 255, reinterpret_cast<const char*>(record + 4));
    DPMAIN_TRACE(DP_DETAIL, "query_type=%u domainName=%s\n", aaaa, name);

    // The local-address resolver asks as an IPv4 client at ::ffff:127.0.0.1.
    dp_peer_addr self{};
    self.kind = DPIO_PEER_IPV4;
    inet_pton(AF_INET6, "::ffff:127.0.0.1", self.addr);
    self.sa.sin6_family = AF_INET6;
    std::memcpy(&self.sa.sin6_addr, self.addr, sizeof self.addr);

    uint8_t query[DPXY_MAX_PACKET];
    const int qlen =
        dpendec_compose_query_a(query, sizeof query, name, dputl_get_next_transaction_id());
    if (qlen < 0) return -2;
    return handle_dns_query(DPXY_SRC_LOCAL, "", 0, &self, query, static_cast<uint16_t>(qlen));
}

int dpxy_update_lease(const uint8_t* payload) {
    uint32_t action = 0;
    std::memcpy(&action, payload, sizeof action);
    dpsvr_lease_record record;
    std::memcpy(&record, payload + sizeof action, sizeof record);
    if (action == 0) return dpsvr_add_src_lease(&record);
    if (action == 1) return dpsvr_delete_src_lease(&record);
    return -1;
}
