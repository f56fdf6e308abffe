// Shared set-up of the fuzz targets.
#pragma once

#include <cstdio>

#include "ctrl/dp_trace.h"

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
