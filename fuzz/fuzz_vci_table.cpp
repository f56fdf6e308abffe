// The VCI-table reader ("/etc/dhcp_condpool.conf"): each input is the file. Every entry must be
// what one line can give, and a lease at each entry's range start with the entry's vendor class
// must be accepted and classified by the first entry of that class.
#include <arpa/inet.h>

#include "fuzz_common.h"

namespace {

// The first entry with the same vendor class: the one that gives a lease its service.
const vci_entry* first_of_class(const vci_entry* v) {
    const vci_entry* w = dpsvr_vci_head();
    while (w->vciLen != v->vciLen || std::memcmp(w->vci, v->vci, v->vciLen) != 0)
        w = w->next;
    return w;
}

// What one line can give; then a lease record, when it can carry the class (text that fits the
// record's field).
void check_entry(const vci_entry* v) {
    in_addr start{}, end{};
    FUZZ_CHECK(v->vciLen <= sizeof v->vci && fuzz_is_token(v->service, sizeof v->service - 1));
    FUZZ_CHECK(inet_pton(AF_INET, v->startStr, &start) == 1 && ntohl(start.s_addr) == v->startAddr);
    FUZZ_CHECK(inet_pton(AF_INET, v->endStr, &end) == 1 && ntohl(end.s_addr) == v->endAddr);
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
    FUZZ_CHECK(l != nullptr && l->vciLen == v->vciLen && l->vci[v->vciLen] == '\0');
    FUZZ_CHECK(std::memcmp(l->vci, v->vci, v->vciLen) == 0);
    // With no name filter, a client whose class includes the Internet (or has no service at
    // all) gets it; any other class gets no set.
    uint8_t addr[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    std::memcpy(addr + 12, &r.yiaddr, 4);
    const uint16_t src = first_of_class(v)->mask;
    uint16_t mask = 0;
    const int ret = get_service_mask(addr, "www.example.com", &mask);
    if (src == 0 || (src & DPSVR_SERVICE_INTERNET) != 0)
        return FUZZ_CHECK(ret == 2 && mask == DPSVR_SERVICE_INTERNET);
    FUZZ_CHECK(ret == -2);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    return fuzz_set_up({"/etc", "/configs"});
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_write("/etc/dhcp_condpool.conf", data, size);
    const int count = dpsvr_load_vci_db();
    int seen = 0;
    for (const vci_entry* v = dpsvr_vci_head(); v != nullptr; v = v->next, ++seen)
        check_entry(v);
    FUZZ_CHECK(seen == count);
    dpsvr_dump_filter();
    dpsvr_purge_src_leases();
    FUZZ_CHECK(dpsvr_src_lease_count() == 0);
    return 0;
}
