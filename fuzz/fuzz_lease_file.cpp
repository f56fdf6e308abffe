// Fuzzes the lease-file reader ("/configs/udhcpd.leases2"): each input is the file, read
// against a fixed VCI table. The header checks and the lease table are compared with a model
// built from the same bytes: the last acceptable record of each address wins, a record cut
// short by the end of the file counts for nothing.
#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>

#include "classify_fuzz.h"
#include "server/dpsvr.h"

namespace {

// Vendor classes of the seed files, and one range whose /24 holds addresses past its end.
constexpr char kVciTable[] = "564F4950424F58 192.168.1.100 192.168.1.149 VOIP\n" // VOIPBOX
                             "535442 192.168.1.150 192.168.1.199 OTHER\n"        // STB
                             "5043 10.0.0.2 10.0.0.254 INTERNET\n"               // PC
                             "4757 192.168.2.10 192.168.2.20 INTERNET_TR069\n";  // GW

// -2, -3, or the record size of a valid header.
long expected_header(const uint8_t* data, size_t size) {
    if (size < 20) return -2;
    uint32_t rec_size;
    std::memcpy(&rec_size, data + 16, 4);
    if (strnlen(reinterpret_cast<const char*>(data), 16) != 14 ||
        std::memcmp(data, "[LeaseFile_v2]", 14) != 0)
        return -3;
    if (rec_size < DPSVR_LEASE_RECORD_MIN) return -3;
    if (rec_size > DPSVR_LEASE_RECORD_ANY && size - 20 < rec_size) return -3;
    return rec_size;
}

// address -> vendor class of the lease the table must hold.
std::map<uint32_t, std::string> model(const uint8_t* data, size_t size, size_t rec_size) {
    std::map<uint32_t, std::string> leases;
    for (size_t off = 20; off + rec_size <= size; off += rec_size) {
        dpsvr_lease_record r{};
        std::memcpy(&r, data + off, rec_size < sizeof r ? rec_size : sizeof r);
        const std::string vci(r.vci, strnlen(r.vci, sizeof r.vci));
        bool has_mac = false;
        for (uint8_t b : r.chaddr)
            has_mac = has_mac || b != 0;
        if (r.expires == 0 || vci.empty() || !has_mac) continue;
        const uint32_t addr = ntohl(r.yiaddr);
        if (is_lease_valid(addr, vci.c_str(), static_cast<uint32_t>(vci.size())) == 1)
            leases[addr] = vci;
    }
    return leases;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    classify_fuzz_set_up();
    static bool vci_loaded = false;
    if (!vci_loaded) {
        classify_fuzz_write("/etc/dhcp_condpool.conf", kVciTable, sizeof kVciTable - 1);
        FUZZ_CHECK(dpsvr_load_vci_db() == 4);
        vci_loaded = true;
    }
    classify_fuzz_write("/configs/udhcpd.leases2", data, size);
    const int ret = dpsvr_load_lease_file();

    const long header = expected_header(data, size);
    if (header < 0) {
        FUZZ_CHECK(ret == header && dpsvr_src_lease_count() == 0);
        return 0;
    }
    const std::map<uint32_t, std::string> want = model(data, size, static_cast<size_t>(header));
    FUZZ_CHECK(ret >= static_cast<int>(want.size()));
    FUZZ_CHECK(dpsvr_src_lease_count() == want.size());
    for (const auto& [addr, vci] : want) {
        const src_lease* l = dpsvr_find_src_lease(addr);
        FUZZ_CHECK(l != nullptr && l->vci == vci && l->vciLen == vci.size());
    }
    dpsvr_dump_filter();
    // Every lease goes by its address; the table ends empty.
    for (const auto& entry : want) {
        dpsvr_lease_record r{};
        r.yiaddr = htonl(entry.first);
        FUZZ_CHECK(dpsvr_delete_src_lease(&r) == 1);
    }
    FUZZ_CHECK(dpsvr_src_lease_count() == 0);
    return 0;
}
