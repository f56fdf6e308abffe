// Fuzzes the VCI-table reader ("/etc/dhcp_condpool.conf"): each input is the file. The loaded
// entries are checked against what a line can produce, and a lease at each entry's range start
// with the entry's vendor class must be accepted and classified by the first entry of that
// class.
#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "classify_fuzz.h"
#include "server/dpsvr.h"

namespace {

void check_address(const char* text, uint32_t addr) {
    in_addr a{};
    FUZZ_CHECK(inet_pton(AF_INET, text, &a) == 1);
    FUZZ_CHECK(ntohl(a.s_addr) == addr);
}

void check_entry(const vci_entry* v) {
    FUZZ_CHECK(v->vciLen <= sizeof v->vci);
    check_address(v->startStr, v->startAddr);
    check_address(v->endStr, v->endAddr);
    const size_t n = strnlen(v->service, sizeof v->service);
    FUZZ_CHECK(n > 0 && n < sizeof v->service);
    FUZZ_CHECK(std::strpbrk(v->service, " \t\r\n") == nullptr);
    FUZZ_CHECK(v->mask == dpsvr_get_service_mask_by_name(v->service));
}

// The first entry with the same vendor class: the one that gives a lease its service.
const vci_entry* first_of_class(const vci_entry* v) {
    for (const vci_entry* w = dpsvr_vci_head(); w != nullptr; w = w->next) {
        if (w->vciLen == v->vciLen && std::memcmp(w->vci, v->vci, v->vciLen) == 0) return w;
    }
    return nullptr;
}

// A lease record can carry the class when it is text that fits the record's field.
void check_lease_for(const vci_entry* v) {
    dpsvr_lease_record r{};
    if (v->vciLen == 0 || v->vciLen >= sizeof r.vci || memchr(v->vci, 0, v->vciLen) != nullptr)
        return;
    r.chaddr[0] = 0x02;
    r.yiaddr = htonl(v->startAddr);
    r.expires = htonl(3600);
    std::memcpy(r.vci, v->vci, v->vciLen);
    const int added = dpsvr_add_src_lease(&r);
    FUZZ_CHECK(added == 1 || added == 2);
    const src_lease* l = dpsvr_find_src_lease(v->startAddr);
    FUZZ_CHECK(l != nullptr && l->vciLen == v->vciLen);
    FUZZ_CHECK(std::memcmp(l->vci, v->vci, v->vciLen) == 0 && l->vci[v->vciLen] == '\0');

    // With no name filter, a client whose class includes the Internet (or has no service at
    // all) gets it; any other class gets no set.
    uint8_t addr[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    const uint32_t net = htonl(v->startAddr);
    std::memcpy(addr + 12, &net, 4);
    const uint16_t src = first_of_class(v)->mask;
    uint16_t mask = 0;
    const int ret = get_service_mask(addr, "www.example.com", &mask);
    if (src == 0 || (src & DPSVR_SERVICE_INTERNET) != 0) {
        FUZZ_CHECK(ret == 2 && mask == DPSVR_SERVICE_INTERNET);
    } else {
        FUZZ_CHECK(ret == -2);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    classify_fuzz_set_up();
    classify_fuzz_write("/etc/dhcp_condpool.conf", data, size);
    const int count = dpsvr_load_vci_db();
    int seen = 0;
    for (const vci_entry* v = dpsvr_vci_head(); v != nullptr; v = v->next, ++seen)
        check_entry(v);
    FUZZ_CHECK(seen == count);
    for (const vci_entry* v = dpsvr_vci_head(); v != nullptr; v = v->next)
        check_lease_for(v);
    dpsvr_dump_filter();
    dpsvr_purge_src_leases();
    FUZZ_CHECK(dpsvr_src_lease_count() == 0);
    return 0;
}
