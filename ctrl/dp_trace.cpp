#include "ctrl/dp_trace.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <strings.h>

#include "ctrl/dp_stats.h"
#include "main/dputl.h"
#include "platform/kutl/kutl.h"
#include "platform/rgw_impl/rgw_impl.h"

dp_debug_table dp_debug_tbl;
dplog_config dplog_cfg;

namespace {

constexpr const char* kLogConfigFile = "/configs/kiv_dnsproxy_log_config";
constexpr const char* kProgramWord = "dnsproxy";

// Module words in index order, in fixed 10-byte slots as the views print them.
constexpr char kModuleWords[DP_MOD_COUNT][10] = {"proxy", "io",     "endec", "server",
                                                 "cache", "config", "util",  "debug"};

struct level_word {
    const char* word;
    uint32_t bit;
};
constexpr level_word kLevelWords[] = {
    {"error", DP_ERROR}, {"warn", DP_WARN},   {"detail", DP_DETAIL}, {"func", DP_FUNC},
    {"pkt", DP_PKT},     {"endec", DP_ENDEC}, {"io", DP_IO},         {"period", DP_PERIOD},
};

// Masks of debug modes 1..6, stored as signed 16-bit values: sign extension is what gives
// modes 5 and 6 all the upper bits.
constexpr int16_t kModeMasks[7] = {
    0x0001,
    0x0000,
    0x0013,
    0x0017,
    0x001F,
    static_cast<int16_t>(0xFF7F),
    static_cast<int16_t>(0xFFFF),
};

constexpr kutl_int_pair kLevelPairs[] = {{0, 0}, {1, 1}, {2, 2}, {3, 3},
                                         {4, 4}, {5, 5}, {6, 6}, {7, 7}};
constexpr kutl_int_pair kDestPairs[] = {{1, 1}, {2, 2}, {3, 3}};
constexpr kutl_int_pair kLevelToMode[] = {{0, 0}, {1, 0}, {2, 0}, {3, 0},
                                          {4, 0}, {5, 4}, {6, 5}, {7, 6}};

constexpr int kLogKeys = 4;
const kutl_kiv_config_entry kLogKeyTable[kLogKeys] = {
    {"log_level", &dplog_cfg.log_level},
    {"log_dest", &dplog_cfg.log_dest},
    {"debug_mode", &dplog_cfg.debug_mode},
    // The flag itself: a loaded value is overridden by the mode applied right after it.
    {"timestamp", reinterpret_cast<int32_t*>(&dp_debug_tbl.timestamp)},
};

constexpr const char* kEqRule = "===========================================================";
constexpr const char* kDashRule = "-----------------------------------------------------------";

void apply_log_level(int level) {
    const int translated = kutl_get_int_by_int(kLevelPairs, 8, level, 6);
    rgw_impl_set_log_level(translated);
    rgw_impl_set_customer_log_level(translated);
}

void apply_log_dest(int dest) {
    rgw_impl_set_log_destination(kutl_get_int_by_int(kDestPairs, 3, dest, 2));
}

void apply_log_defaults() {
    dplog_cfg.debug_mode = 0;
    define_debug_mode(0);
    dplog_cfg.log_dest = 2;
    apply_log_dest(2);
    dplog_cfg.log_level = 3;
    apply_log_level(3);
}

// Length of the longest prefix of s that does not end inside a printf conversion, so that a
// format cut short never hands vfprintf half a conversion.
size_t complete_format_prefix(const char* s, size_t len) {
    size_t safe = 0;
    for (size_t i = 0; i < len;) {
        if (s[i] != '%') {
            safe = ++i;
            continue;
        }
        size_t j = i + 1;
        while (j < len && std::strchr("#0- +'123456789.*hlLqjzt", s[j]) != nullptr)
            ++j;
        if (j >= len) break; // the conversion is cut off: drop it
        i = j + 1;
        safe = i;
    }
    return safe;
}

} // namespace

void dp_trace_build_format(char* out, size_t out_size, const char* tag, const char* func, int line,
                           const char* fmt, const struct timeval* tv) {
    int n;
    if (tv != nullptr) {
        n = std::snprintf(out, out_size, "%s %s:%d t=%lu:%lu %s", tag, func, line,
                          static_cast<unsigned long>(tv->tv_sec % 3600),
                          static_cast<unsigned long>(tv->tv_usec / 1000), fmt);
    } else {
        n = std::snprintf(out, out_size, "%s %s:%d %s", tag, func, line, fmt);
    }
    if (n >= 0 && static_cast<size_t>(n) >= out_size) {
        out[complete_format_prefix(out, out_size - 1)] = '\0';
    }
}

int dp_trace(const char* tag, const char* func, int line, const char* fmt, ...) {
    char built[512];
    if (dp_debug_tbl.timestamp != 0) {
        struct timeval tv;
        gettimeofday(&tv, nullptr);
        dp_trace_build_format(built, sizeof built, tag, func, line, fmt, &tv);
    } else {
        dp_trace_build_format(built, sizeof built, tag, func, line, fmt, nullptr);
    }
    va_list ap;
    va_start(ap, fmt);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    const int ret = std::vfprintf(stderr, built, ap);
#pragma GCC diagnostic pop
    va_end(ap);
    return ret;
}

void define_debug_mode(uint32_t mode) {
    const bool on = mode >= 1 && mode <= 6;
    const uint32_t mask = static_cast<uint32_t>(static_cast<int32_t>(kModeMasks[on ? mode : 0]));
    for (auto& entry : dp_debug_tbl.modules)
        entry.level_mask = mask;
    dp_debug_tbl.timestamp = on ? 1 : 0;
}

int define_debug_level(const char* module_word, const char* level_word) {
    int mod = -1;
    for (int i = 0; i < static_cast<int>(DP_MOD_COUNT); ++i) {
        if (strcasecmp(module_word, kModuleWords[i]) == 0) {
            mod = i;
            break;
        }
    }
    if (mod < 0) {
        std::fprintf(stderr, "%s unknown module name=%s\n", "define_debug_level", module_word);
        return 0;
    }
    uint32_t& mask = dp_debug_tbl.modules[mod].level_mask;
    if (strcasecmp(level_word, "none") == 0) {
        mask = 0;
        return 0;
    }
    if (strcasecmp(level_word, "all") == 0) {
        mask = 0xFFFFFFFF;
        return 0;
    }
    for (const auto& lw : kLevelWords) {
        if (strcasecmp(level_word, lw.word) == 0) {
            mask |= lw.bit;
            return 0;
        }
    }
    std::fprintf(stderr, "%s wrong debug level=%s\n", "define_debug_level", level_word);
    return 0;
}

void dp_debug_init() {
    // 1. every module reports errors only, no time stamps
    for (uint32_t i = 0; i < DP_MOD_COUNT; ++i)
        dp_debug_tbl.modules[i] = {i, DP_ERROR};
    dp_debug_tbl.timestamp = 0;
    // 2. statistics
    dp_stats = {};
    // 3. the gateway logging library, with what it has stored for this program
    rgw_impl_init_log();
    int level = 3;
    int dest = 2;
    rgw_impl_get_log_setting(kProgramWord, &level, &dest);
    rgw_impl_set_log_level(level);
    rgw_impl_set_log_destination(dest);
    // 4. customer log
    rgw_impl_init_customer_log();
    rgw_impl_set_customer_log_level(6);
    // 5. defaults
    apply_log_defaults();
    // 6. the persisted configuration; the mode decides the time stamps, whatever the file says
    const kutl_path path = kutl_fixed_path(kLogConfigFile);
    if (kutl_load_kiv_config_from_file(path.s, kLogKeyTable, kLogKeys) > 0) {
        define_debug_mode(static_cast<uint32_t>(dplog_cfg.debug_mode));
        apply_log_dest(dplog_cfg.log_dest);
        apply_log_level(dplog_cfg.log_level);
    }
}

void dplog_apply_verbosity(int verbosity) {
    dplog_cfg.log_level = verbosity == 0 ? 3 : (verbosity == 1 ? 5 : 7);
    apply_log_level(dplog_cfg.log_level);
    // Values above 8 carry a debug mode in their low three bits: 9..14 select modes 1..6.
    if (verbosity > 8) {
        dplog_cfg.debug_mode = verbosity & 7;
        define_debug_mode(static_cast<uint32_t>(verbosity & 7));
    }
}

int dplog_set_logconfig(const char* level_word, const char* dest_word) {
    dplog_cfg.log_dest = kutl_get_kiv_cli_log_dest_by_str(dest_word);
    apply_log_dest(dplog_cfg.log_dest);
    dplog_cfg.log_level = kutl_get_kiv_cli_log_level_by_str(level_word);
    apply_log_level(dplog_cfg.log_level);
    dplog_cfg.debug_mode = kutl_get_int_by_int(kLevelToMode, 8, dplog_cfg.log_level, 0);
    define_debug_mode(static_cast<uint32_t>(dplog_cfg.debug_mode));
    return 0;
}

int dplog_dump_logconfig() {
    std::fputs("\n", stderr);
    kutl_dump_kiv_config(kLogKeyTable, kLogKeys);
    std::fputs("\n", stderr);
    return 0;
}

int dplog_save_logconfig() {
    const kutl_path path = kutl_fixed_path(kLogConfigFile);
    kutl_save_kiv_config_to_file(kLogKeyTable, kLogKeys, path.s);
    return 0;
}

int dplog_reset_logconfig() {
    const kutl_path path = kutl_fixed_path(kLogConfigFile);
    std::remove(path.s);
    apply_log_defaults();
    return 0;
}

int dplog_redirect_printf(const char* path) {
    if (kutl_redirect_printf(path) < 0) {
        std::fprintf(stderr, "%s is invalid to redirect\n", path);
    } else {
        std::fprintf(stderr, "redirecting stdout and stderr to %s\n", path);
    }
    return 0;
}

int dplog_view_debug_setting() {
    std::fprintf(stderr, "\nDNS debug setting\n%s\n", kEqRule);
    std::fputs("module: error  warn   detail func   pkt    endec  io period\n", stderr);
    std::fprintf(stderr, "%s\n", kDashRule);
    for (uint32_t i = 0; i < DP_MOD_COUNT; ++i) {
        const uint32_t m = dp_debug_tbl.modules[i].level_mask;
        auto mark = [m](uint32_t bit) { return (m & bit) != 0 ? "xx" : " "; };
        std::fprintf(stderr, "%-6s: %-6s %-6s %-6s %-6s %-6s %-6s %-2s %-6s\n", kModuleWords[i],
                     mark(DP_ERROR), mark(DP_WARN), mark(DP_DETAIL), mark(DP_FUNC), mark(DP_PKT),
                     mark(DP_ENDEC), mark(DP_IO), mark(DP_PERIOD));
    }
    std::fprintf(stderr, "%s\n", kEqRule);
    std::fprintf(stderr, "%-6s: level=%d dest=%d\n", "clilog", dplog_cfg.log_level,
                 dplog_cfg.log_dest);
    std::fprintf(stderr, "%s\n", kEqRule);
    return 0;
}
