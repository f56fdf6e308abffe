// Shared set-up of the classification file-reader targets: a private DNSPROXY_ROOT with the
// folders of the three files, the server sets as start-up builds them, every server-module trace on
// (written to /dev/null, so each format runs with fuzzed arguments), and a writer for the fixed
// paths.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz_common.h"
#include "main/dputl.h"
#include "platform/kutl/kutl.h"
#include "server/dpsvr.h"

inline void classify_fuzz_set_up() {
    static bool done = false;
    if (done) return;
    done = true;
    fuzz_private_root({"/etc", "/configs"});
    dpsvr_init_server_sets();
    fuzz_quiet_traces();
    dp_debug_tbl.modules[DP_MOD_SERVER].level_mask = 0xFFFFFFFF;
}

inline void classify_fuzz_write(const char* fixed, const void* data, size_t size) {
    FILE* f = std::fopen(kutl_fixed_path(fixed).s, "wb");
    if (f == nullptr) std::abort();
    if (size > 0 && std::fwrite(data, 1, size, f) != size) std::abort();
    std::fclose(f);
}
