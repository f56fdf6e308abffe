// Fuzzes the TCP framing: each input is a limit, a seed and a byte stream. The stream is fed to a
// connection's stream in pieces cut at points the seed draws, with the sink refusing messages now
// and then (as a client with all its queries in flight does); what comes out must be exactly what
// cutting the whole stream at once gives: the same messages in the same order, a bad length at
// the same place, and the same bytes left over.
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "fuzz_common.h"
#include "io/dpio.h"

namespace {

using bytes = std::vector<uint8_t>;

struct feeder {
    uint64_t state;
    std::vector<bytes> got;
    uint32_t max;

    uint32_t next() {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        return static_cast<uint32_t>(state);
    }
};

bool sink(void* ctx, std::span<const uint8_t> msg) {
    auto& f = *static_cast<feeder*>(ctx);
    FUZZ_CHECK(!msg.empty() && msg.size() <= f.max);
    if (f.next() % 4 == 0) return false;
    f.got.emplace_back(msg.begin(), msg.end());
    return true;
}

bool take_all(void* ctx, std::span<const uint8_t> msg) {
    static_cast<feeder*>(ctx)->got.emplace_back(msg.begin(), msg.end());
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 9) return 0;
    const uint32_t max = data[0] == 0 ? DPIO_TCP_MAX_MESSAGE : data[0] * 16u;
    uint64_t seed = 0;
    for (int i = 1; i < 9; ++i)
        seed = seed << 8 | data[i];
    const std::span<const uint8_t> stream(data + 9, size - 9);

    // What cutting the whole stream gives.
    std::vector<bytes> want;
    size_t at = 0;
    int want_end = DPIO_FRAME_MORE;
    for (std::span<const uint8_t> msg;;) {
        want_end = dpio_frame_cut(stream.subspan(at), max, &msg);
        if (want_end != DPIO_FRAME_MESSAGE) break;
        want.emplace_back(msg.begin(), msg.end());
        at += 2 + msg.size();
    }

    feeder f{seed | 1, {}, max};
    dpio_stream s;
    int end = DPIO_FRAME_MORE;
    for (size_t pos = 0; pos < stream.size() && end == DPIO_FRAME_MORE;) {
        const size_t n = std::min<size_t>(1 + f.next() % 700, stream.size() - pos);
        end = dpio_stream_take(&s, stream.subspan(pos, n), max, sink, &f);
        pos += n;
    }
    while (end == DPIO_FRAME_MORE) { // the refused ones, once the client may send again
        const size_t before = f.got.size();
        end = dpio_stream_take(&s, {}, max, take_all, &f);
        if (f.got.size() == before) break;
    }
    // A message goes out only once all before it did: at a bad length every message before it
    // has gone out, and nothing after it.
    FUZZ_CHECK(end == want_end);
    FUZZ_CHECK(f.got == want);
    if (end == DPIO_FRAME_MORE) FUZZ_CHECK(s.len == stream.size() - at);
    dpio_stream_free(&s);
    return 0;
}
