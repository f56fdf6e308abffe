// The name-filter reader ("/etc/dns_prefix.conf"): each input is the file. Every entry must be
// what one line can give and must match the names its mode promises; the input itself is then
// classified as a query name under each forwarding switch.
#include "config/dpcfg.h"
#include "fuzz_common.h"

namespace {

void check_entry(const name_filter* e) {
    FUZZ_CHECK(fuzz_is_token(e->name, 255) && fuzz_is_token(e->service, 127));
    FUZZ_CHECK(std::none_of(e->name, e->name + std::strlen(e->name),
                            [](char c) { return c >= 'A' && c <= 'Z'; }));
    // A name the entry matches by its mode, when one is easy to build: some entry then matches.
    // The suffix rule tries the first occurrence only: "." + pattern qualifies unless the pattern
    // also starts at the dot.
    const std::string pat = e->name;
    std::string name;
    if (e->matchMode == DPSVR_MATCH_EXACT) name = pat;
    if (e->matchMode == DPSVR_MATCH_PREFIX && pat.size() < 255) name = pat + ".";
    if (e->matchMode == DPSVR_MATCH_SUFFIX && pat.size() < 255 && pat[0] != '.') name = "." + pat;
    uint16_t mask = 0;
    if (!name.empty()) FUZZ_CHECK(get_service_mask_without_ipaddr(name.c_str(), &mask) == 1);
    // A name equal to a prefix or suffix pattern never matches that entry.
    if (e->matchMode != DPSVR_MATCH_EXACT && dpsvr_name_filter_head() == e && e->next == nullptr)
        FUZZ_CHECK(get_service_mask_without_ipaddr(e->name, &mask) == 2 &&
                   mask == DPSVR_SERVICE_INTERNET);
}

// The input as a query name, through the set selection under each switch.
void select_input(const uint8_t* data, size_t size) {
    dpsvr_select_request req{};
    std::memcpy(req.name, data, std::min(size, sizeof req.name));
    req.addr[10] = req.addr[11] = 0xFF;
    servset *set = nullptr, *dflt = nullptr;
    dpcfg_set_using_global_dns_servers(1);
    dpcfg_apply_feature_mask(DPCFG_FEAT_NAME_FILTER_FORWARD);
    const int r1 = dpsvr_select_v4_server_sets(&req, &set, &dflt);
    FUZZ_CHECK(r1 >= 1 && r1 <= 4 && set != nullptr);
    dpcfg_apply_feature_mask(DPCFG_FEAT_VCI_EXPLICIT_FORWARD);
    const int r2 = dpsvr_select_v4_server_sets(&req, &set, &dflt);
    FUZZ_CHECK((r2 >= 1 && r2 <= 4 && set != nullptr) || (r2 == -2 && set == nullptr));
    dpcfg_init(); // every switch back off
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    return fuzz_set_up({"/etc", "/configs"});
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_write("/etc/dns_prefix.conf", data, size);
    const int count = dpsvr_load_name_filter_db();
    int seen = 0;
    for (const name_filter* e = dpsvr_name_filter_head(); e != nullptr; e = e->next, ++seen)
        check_entry(e);
    FUZZ_CHECK(seen == count);
    select_input(data, size);
    dpsvr_dump_filter();
    FUZZ_CHECK(dpsvr_purge_name_filter_db() == static_cast<uint32_t>(count));
    FUZZ_CHECK(dpsvr_name_filter_head() == nullptr);
    return 0;
}
