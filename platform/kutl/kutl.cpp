#include "platform/kutl/kutl.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace {

constexpr const char* kLevelWords[] = {"emerg", "alert",  "crit", "error",
                                       "warn",  "notice", "info", "debug"};
constexpr const char* kDestWords[] = {"serial", "syslog", "telnet"};

char* trim(char* s) {
    while (*s == ' ' || *s == '\t')
        ++s;
    char* end = s + std::strlen(s);
    while (end > s && (end[-1] == ' ' || end[-1] == '\t' || end[-1] == '\r' || end[-1] == '\n'))
        --end;
    *end = '\0';
    return s;
}

template <size_t N>
int word_index(const char* const (&words)[N], const char* word) {
    if (word == nullptr) return -1;
    for (size_t i = 0; i < N; ++i) {
        if (strcasecmp(words[i], word) == 0) return static_cast<int>(i);
    }
    return -1;
}

} // namespace

int kutl_load_kiv_config_from_file(const char* path, const kutl_kiv_config_entry* table, int n) {
    FILE* f = std::fopen(path, "r");
    if (f == nullptr) return -1;
    int loaded = 0;
    char line[256];
    while (std::fgets(line, sizeof line, f) != nullptr) {
        char* eq = std::strchr(line, '=');
        if (eq == nullptr) continue;
        *eq = '\0';
        const char* key = trim(line);
        const char* text = trim(eq + 1);
        char* end = nullptr;
        errno = 0;
        const long value = std::strtol(text, &end, 0);
        if (end == text || *end != '\0' || errno != 0) continue;
        for (int i = 0; i < n; ++i) {
            if (std::strcmp(table[i].key, key) == 0) {
                *table[i].value = static_cast<int32_t>(value);
                ++loaded;
                break;
            }
        }
    }
    std::fclose(f);
    return loaded;
}

int kutl_save_kiv_config_to_file(const kutl_kiv_config_entry* table, int n, const char* path) {
    FILE* f = std::fopen(path, "w");
    if (f == nullptr) return -1;
    for (int i = 0; i < n; ++i)
        std::fprintf(f, "%s=%d\n", table[i].key, *table[i].value);
    return std::fclose(f) == 0 ? 0 : -1;
}

void kutl_dump_kiv_config(const kutl_kiv_config_entry* table, int n) {
    for (int i = 0; i < n; ++i)
        std::fprintf(stderr, "%s=%d\n", table[i].key, *table[i].value);
}

int kutl_get_kiv_cli_log_level_by_str(const char* word) {
    return word_index(kLevelWords, word);
}

int kutl_get_kiv_cli_log_dest_by_str(const char* word) {
    const int i = word_index(kDestWords, word);
    return i < 0 ? -1 : i + 1;
}

int kutl_get_int_by_int(const kutl_int_pair* table, int rows, int key, int dflt) {
    for (int i = 0; i < rows; ++i) {
        if (table[i].key == key) return table[i].value;
    }
    return dflt;
}

int kutl_redirect_printf(const char* path) {
    if (path == nullptr || path[0] == '\0') return -1;
    // Non-blocking open: a FIFO without a reader fails at once instead of hanging the caller.
    const int fd = open(path, O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return -1;
    const int flags = fcntl(fd, F_GETFL);
    if (flags >= 0) fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    std::fflush(stdout);
    std::fflush(stderr);
    const bool ok = dup2(fd, STDOUT_FILENO) >= 0 && dup2(fd, STDERR_FILENO) >= 0;
    close(fd);
    return ok ? 0 : -1;
}
