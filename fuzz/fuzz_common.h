// Shared set-up and helpers of the fuzz targets.
#pragma once

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>

#include "ctrl/dp_trace.h"
#include "endec/dpendec.h"
#include "platform/kutl/kutl.h"
#include "server/dpsvr.h"

// A property the code promises does not hold: stop here, so libFuzzer records the input. An
// expression of type void, so a void function can check and return in one statement.
#define FUZZ_CHECK(cond) ((cond) ? void() : __builtin_trap())

// Once per process (from LLVMFuzzerInitialize): a private DNSPROXY_ROOT with the given folders
// (none made for a target without folders: its root does not exist), the server sets as start-up
// builds them, and every trace of every module on, so that each format runs with fuzzed arguments
// (a "%s" of a name that lost its NUL is caught here). The lines go to /dev/null: only the C stream
// is pointed elsewhere; libFuzzer keeps its own copy of the original stream and the sanitizers
// write to descriptor 2.
inline int fuzz_set_up(std::initializer_list<const char*> folders = {}) {
    static char root[] = "/tmp/dnsproxy-fuzz-XXXXXX";
    if (folders.size() > 0 && mkdtemp(root) == nullptr) std::abort();
    setenv("DNSPROXY_ROOT", root, 1);
    for (const char* folder : folders)
        mkdir((std::string(root) + folder).c_str(), 0700);
    dpsvr_init_server_sets();
    for (dp_debug_entry& m : dp_debug_tbl.modules)
        m.level_mask = 0xFFFFFFFF;
    dp_debug_tbl.timestamp = 0;
    if (FILE* sink = std::fopen("/dev/null", "w")) stderr = sink;
    return 0;
}

inline void fuzz_write(const char* fixed, const void* data, size_t size) {
    FILE* f = std::fopen(kutl_fixed_path(fixed).s, "wb");
    if (f == nullptr || (size > 0 && std::fwrite(data, 1, size, f) != size)) std::abort();
    std::fclose(f);
}

// One token of a line: not empty, at most max characters, no delimiter or line end.
inline bool fuzz_is_token(const char* s, size_t max) {
    const size_t n = strnlen(s, max + 1);
    return n > 0 && n <= max && std::strpbrk(s, " \t\r\n") == nullptr;
}

// A packet holding the size bytes of the message, its length set to len.
inline dns_pkt* fuzz_load(dns_pkt* p, const uint8_t* data, uint16_t size, const msginf& inf,
                          uint16_t len) {
    std::memcpy(p->buf, data, size);
    p->len = len;
    p->inf = inf;
    return p;
}

// An index that is not this message's: the message's own bytes, as a stale msginf would be.
inline msginf fuzz_stale_index(const uint8_t* data, size_t size) {
    msginf stale{};
    std::memcpy(&stale, data, std::min(size, sizeof stale));
    return stale;
}
