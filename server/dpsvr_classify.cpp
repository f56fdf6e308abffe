#include <cstdlib>

#include "server/dpsvr.h"

namespace {

constexpr uint32_t kLeaseBuckets = 256;

struct src_lease {
    uint32_t yiaddr; // host order
    uint8_t chaddr[6];
    uint32_t vciLen;
    char vci[256];
    src_lease* next;
};

// Bucket: the low 8 bits of the leased address.
src_lease* lease_table[kLeaseBuckets];

} // namespace

void dpsvr_purge_src_leases() {
    for (auto& head : lease_table) {
        while (head != nullptr) {
            src_lease* next = head->next;
            std::free(head);
            head = next;
        }
    }
}
