// Any bytes as a message holding a name: measure and decode it at two positions into buffers of
// exactly the capacity given (so a write past the capacity is caught), and encode the bytes as a
// dotted text.
#include <vector>

#include "fuzz_common.h"

namespace {

void decode_at(const uint8_t* data, uint16_t size, uint16_t pos) {
    uint16_t measured = 0;
    const int m = compute_dname_len(data + pos, data + size, &measured);
    FUZZ_CHECK(m < 0 || (measured >= 1 && measured <= size - pos));
    for (uint16_t cap : {uint16_t{255}, uint16_t{256}, static_cast<uint16_t>(size % 64)}) {
        std::vector<char> out(cap);
        const int d = dpendec_parse_domain_name(data + pos, data, size, out.data(), cap);
        FUZZ_CHECK(d <= 0 && d >= -6);
        // A name that decodes is terminated and within the capacity (less the last byte).
        if (d == 0) FUZZ_CHECK(strnlen(out.data(), cap) + 1 < cap || out[0] == '\0');
        // A name measured to a zero byte without pointers decodes unless it does not fit.
        if (m == 0 && d != 0) FUZZ_CHECK(d == -3 || d == -6);
    }
}

void encode(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data),
                           strnlen(reinterpret_cast<const char*>(data), size));
    uint8_t wire[DPENDEC_NAME_SIZE];
    const int n = compose_dname(text.c_str(), wire);
    const size_t len = text.size();
    const int want = len > 254 ? 0 : len == 0 ? 1 : int(len) + (text.back() == '.' ? 1 : 2);
    FUZZ_CHECK(n == want && (n == 0 || wire[n - 1] == 0));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    return fuzz_set_up();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > DPENDEC_MSG_SIZE) return -1;
    const auto len = static_cast<uint16_t>(size);
    decode_at(data, len, 0);
    if (size > 1) decode_at(data, len, static_cast<uint16_t>(data[0] % size));
    encode(data, size);
    return 0;
}
