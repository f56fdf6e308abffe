// Trace lines, per-module debug masks and the persisted log configuration.
//
// Every trace line is gated at its call site by one AND of the calling module's mask with the
// line's level bit, so a disabled line costs neither a call nor any formatting. Use the
// per-module macros (DPMAIN_TRACE, DPIO_TRACE, ...), never dp_trace directly.
#pragma once

#include <sys/time.h>

#include <cstddef>
#include <cstdint>

// Module ids: the index into the debug table and the word accepted by "define debug level".
enum dp_module_id : uint32_t {
    DP_MOD_PROXY = 0,
    DP_MOD_IO = 1,
    DP_MOD_ENDEC = 2,
    DP_MOD_SERVER = 3,
    DP_MOD_CACHE = 4,
    DP_MOD_CONFIG = 5,
    DP_MOD_UTIL = 6,
    DP_MOD_DEBUG = 7,
    DP_MOD_COUNT = 8,
};

// Level bits of a module mask.
enum dp_level : uint32_t {
    DP_ERROR = 0x01,
    DP_WARN = 0x02,
    DP_DETAIL = 0x04,
    DP_FUNC = 0x08,
    DP_PKT = 0x10,
    DP_ENDEC = 0x20,
    DP_IO = 0x40,
    DP_PERIOD = 0x80,
};

struct dp_debug_entry {
    uint32_t module_id;
    uint32_t level_mask;
};

struct dp_debug_table {
    uint32_t timestamp; // non-zero: trace lines carry "t=<sec-in-hour>:<ms>"
    dp_debug_entry modules[DP_MOD_COUNT];
};

extern dp_debug_table dp_debug_tbl;

// The persisted log configuration, kept as a key table ("/configs/kiv_dnsproxy_log_config")
// together with the debug table's time-stamp flag.
struct dplog_config {
    int32_t log_level;  // syslog severity 0..7
    int32_t log_dest;   // 1 serial, 2 syslog, 3 telnet
    int32_t debug_mode; // 0..6
};

extern dplog_config dplog_cfg;

// True when the module's mask has the level bit; for guarding work done only for a trace (dumps).
#define DP_TRACE_ON(mod, lvl) ((dp_debug_tbl.modules[(mod)].level_mask & (lvl)) != 0)

#define DP_TRACE_AT(mod, tag, lvl, ...)                                                            \
    do {                                                                                           \
        if (DP_TRACE_ON(mod, lvl)) dp_trace(tag, __func__, __LINE__, __VA_ARGS__);                 \
    } while (0)

// A helper that writes a line on behalf of the operation that called it passes that
// operation's name: every line names the operation it belongs to, not how the code is cut up.
#define DP_TRACE_AS(func, mod, tag, lvl, ...)                                                      \
    do {                                                                                           \
        if (DP_TRACE_ON(mod, lvl)) dp_trace(tag, func, __LINE__, __VA_ARGS__);                     \
    } while (0)

#define DPMAIN_TRACE(lvl, ...)          DP_TRACE_AT(DP_MOD_PROXY, "DPMAIN", lvl, __VA_ARGS__)
#define DPIO_TRACE(lvl, ...)            DP_TRACE_AT(DP_MOD_IO, "DPIO  ", lvl, __VA_ARGS__)
#define DPEDC_TRACE(lvl, ...)           DP_TRACE_AT(DP_MOD_ENDEC, "DPEDC ", lvl, __VA_ARGS__)
#define DPSERV_TRACE(lvl, ...)          DP_TRACE_AT(DP_MOD_SERVER, "DPSERV", lvl, __VA_ARGS__)
#define DPCACH_TRACE(lvl, ...)          DP_TRACE_AT(DP_MOD_CACHE, "DPCACH", lvl, __VA_ARGS__)
#define DPCFG_TRACE(lvl, ...)           DP_TRACE_AT(DP_MOD_CONFIG, "DPCFG ", lvl, __VA_ARGS__)
#define DPUTIL_TRACE(lvl, ...)          DP_TRACE_AT(DP_MOD_UTIL, "DPUTIL", lvl, __VA_ARGS__)
#define DPMAIN_TRACE_AS(func, lvl, ...) DP_TRACE_AS(func, DP_MOD_PROXY, "DPMAIN", lvl, __VA_ARGS__)
#define DPIO_TRACE_AS(func, lvl, ...)   DP_TRACE_AS(func, DP_MOD_IO, "DPIO  ", lvl, __VA_ARGS__)
#define DPEDC_TRACE_AS(func, lvl, ...)  DP_TRACE_AS(func, DP_MOD_ENDEC, "DPEDC ", lvl, __VA_ARGS__)
#define DPSERV_TRACE_AS(func, lvl, ...) DP_TRACE_AS(func, DP_MOD_SERVER, "DPSERV", lvl, __VA_ARGS__)
#define DPCACH_TRACE_AS(func, lvl, ...) DP_TRACE_AS(func, DP_MOD_CACHE, "DPCACH", lvl, __VA_ARGS__)

// Writes one trace line to standard error: "<tag> <func>:<line> [t=<s>:<ms> ]<text>".
// Returns what the final formatted write returns. Call sites test the mask, not this function.
int dp_trace(const char* tag, const char* func, int line, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

// Builds the line's format (prefix plus the caller's format) into out; tv is the wall-clock time
// used for the time stamp, or null for a line without one. The result is cut at out_size - 1
// characters, never inside a conversion. Exposed for tests of the time stamp.
void dp_trace_build_format(char* out, size_t out_size, const char* tag, const char* func, int line,
                           const char* fmt, const struct timeval* tv);

// Start-up initialisation: masks, statistics, the gateway logging library, the log
// configuration file. Called first thing by main.
void dp_debug_init();

// Module word and level word as typed at the CLI; unknown words are reported and ignored.
int define_debug_level(const char* module_word, const char* level_word);
void define_debug_mode(uint32_t mode);

// Applies the command line's -v value (log level, and debug mode for values above 8).
void dplog_apply_verbosity(int verbosity);

// CLI handlers of the log configuration commands.
int dplog_set_logconfig(const char* level_word, const char* dest_word);
int dplog_dump_logconfig();
int dplog_save_logconfig();
int dplog_reset_logconfig();
int dplog_redirect_printf(const char* path);
int dplog_view_debug_setting();
