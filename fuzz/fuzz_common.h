// Shared set-up of the fuzz targets.
#pragma once

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <string>

#include "ctrl/dp_trace.h"

// A private DNSPROXY_ROOT for the file readers, made once per process with the given folders.
inline void fuzz_private_root(std::initializer_list<const char*> folders) {
    static char root[] = "/tmp/dnsproxy-fuzz-XXXXXX";
    if (mkdtemp(root) == nullptr) std::abort();
    setenv("DNSPROXY_ROOT", root, 1);
    for (const char* folder : folders)
        mkdir((std::string(root) + folder).c_str(), 0700);
}

// Every trace level of the codec is on, so that each format is run with fuzzed arguments (a
// "%s" of a name that lost its NUL would be caught here), while the lines themselves go to
// /dev/null: only the C stream is pointed elsewhere, and libFuzzer keeps its own copy of the
// original stream and the sanitizers write to descriptor 2, so their reports still show.
inline void fuzz_quiet_traces() {
    dp_debug_tbl.modules[DP_MOD_ENDEC].level_mask = 0xFFFFFFFF;
    dp_debug_tbl.timestamp = 0;
    if (FILE* sink = std::fopen("/dev/null", "w")) stderr = sink;
}

// A property the code promises does not hold: stop here, so libFuzzer records the input.
#define FUZZ_CHECK(cond)                                                                           \
    do {                                                                                           \
        if (!(cond)) __builtin_trap();                                                             \
    } while (0)
