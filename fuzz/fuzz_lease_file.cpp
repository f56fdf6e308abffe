// The lease-file reader ("/configs/udhcpd.leases2"): each input is the file, read against a fixed
// VCI table. Its result and its lease table must equal a model of the file: the header checks,
// then whole records only (one cut short by the end of the file counts for nothing), the last
// acceptable record of each address winning.
#include <arpa/inet.h>

#include <map>

#include "fuzz_common.h"

namespace {

// Vendor classes of the seed files, and one range whose /24 holds addresses past its end.
constexpr char kVciTable[] = "564F4950424F58 192.168.1.100 192.168.1.149 VOIP\n" // VOIPBOX
                             "535442 192.168.1.150 192.168.1.199 OTHER\n"        // STB
                             "5043 10.0.0.2 10.0.0.254 INTERNET\n"               // PC
                             "4757 192.168.2.10 192.168.2.20 INTERNET_TR069\n";  // GW

// The loader's result: -2, -3, or the records accepted; leases gets address -> vendor class.
int model(const uint8_t* data, size_t size, std::map<uint32_t, std::string>& leases) {
    if (size < 20) return -2;
    uint32_t rec_size;
    std::memcpy(&rec_size, data + 16, 4);
    if (strnlen(reinterpret_cast<const char*>(data), 16) != 14 ||
        std::memcmp(data, "[LeaseFile_v2]", 14) != 0 || rec_size < DPSVR_LEASE_RECORD_MIN ||
        (rec_size > DPSVR_LEASE_RECORD_ANY && size - 20 < rec_size))
        return -3;
    int accepted = 0;
    for (size_t off = 20; off + rec_size <= size; off += rec_size) {
        dpsvr_lease_record r{};
        std::memcpy(&r, data + off, std::min<size_t>(rec_size, sizeof r));
        const std::string vci(r.vci, strnlen(r.vci, sizeof r.vci));
        const bool has_mac = std::any_of(r.chaddr, r.chaddr + 16, [](uint8_t b) { return b; });
        const uint32_t addr = ntohl(r.yiaddr);
        if (r.expires == 0 || vci.empty() || !has_mac ||
            is_lease_valid(addr, vci.c_str(), static_cast<uint32_t>(vci.size())) != 1)
            continue;
        leases[addr] = vci;
        ++accepted;
    }
    return accepted;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_set_up({"/etc", "/configs"});
    fuzz_write("/etc/dhcp_condpool.conf", kVciTable, sizeof kVciTable - 1);
    FUZZ_CHECK(dpsvr_load_vci_db() == 4);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_write("/configs/udhcpd.leases2", data, size);
    const int ret = dpsvr_load_lease_file();
    std::map<uint32_t, std::string> want;
    FUZZ_CHECK(ret == model(data, size, want) && dpsvr_src_lease_count() == want.size());
    dpsvr_dump_filter();
    // Every lease is in the table, and goes by its address: the table ends empty.
    for (const auto& [addr, vci] : want) {
        const src_lease* l = dpsvr_find_src_lease(addr);
        FUZZ_CHECK(l != nullptr && l->vci == vci && l->vciLen == vci.size());
        dpsvr_lease_record r{};
        r.yiaddr = htonl(addr);
        FUZZ_CHECK(dpsvr_delete_src_lease(&r) == 1);
    }
    FUZZ_CHECK(dpsvr_src_lease_count() == 0);
    return 0;
}
