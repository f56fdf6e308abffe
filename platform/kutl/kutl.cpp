#include "platform/kutl/kutl.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

kutl_path kutl_fixed_path(const char* path) {
    kutl_path p{};
    const bool never_prefixed =
        std::strncmp(path, "/proc/", 6) == 0 || std::strncmp(path, "/dev/", 5) == 0;
    const char* root = std::getenv("DNSPROXY_ROOT");
    if (root == nullptr || never_prefixed) root = "";
    const int n = std::snprintf(p.s, sizeof p.s, "%s%s", root, path);
    if (n < 0 || static_cast<size_t>(n) >= sizeof p.s) p.s[0] = '\0';
    return p;
}

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

// The CLI matcher works on a copy of the line and the spans of its words.
constexpr size_t kCliLineMax = 1024;
constexpr int kCliWordsMax = 32;

struct cli_span {
    size_t start;
    size_t end; // one past the last character
};

struct cli_line {
    char text[kCliLineMax];
    size_t length;
    cli_span words[kCliWordsMax];
    int count;
};

bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// Copies the line and finds its words; false when it is too long or has too many words.
bool split_cli_line(const char* line, cli_line* out) {
    out->length = std::strlen(line);
    if (out->length >= kCliLineMax) return false;
    std::memcpy(out->text, line, out->length + 1);
    out->count = 0;
    size_t i = 0;
    while (i < out->length) {
        while (i < out->length && is_blank(out->text[i]))
            ++i;
        if (i == out->length) break;
        if (out->count == kCliWordsMax) return false;
        const size_t start = i;
        while (i < out->length && !is_blank(out->text[i]))
            ++i;
        out->words[out->count++] = {start, i};
    }
    return true;
}

bool span_equals(const cli_line& line, const cli_span& w, const char* word, size_t len) {
    return w.end - w.start == len && strncasecmp(line.text + w.start, word, len) == 0;
}

// The number of line words a row's command words take, or -1 when they do not lead the line.
int match_command_words(const cli_line& line, const char* words) {
    int matched = 0;
    const char* p = words;
    while (true) {
        while (*p == ' ')
            ++p;
        if (*p == '\0') return matched;
        const size_t len = std::strcspn(p, " ");
        if (matched == line.count || !span_equals(line, line.words[matched], p, len)) return -1;
        ++matched;
        p += len;
    }
}

bool is_listed_word(const cli_line& line, const cli_span& w, const char* list) {
    if (list == nullptr) return false;
    for (const char* p = list; *p != '\0';) {
        const size_t len = std::strcspn(p, "|");
        if (len > 0 && span_equals(line, w, p, len)) return true;
        p += len;
        if (*p == '|') ++p;
    }
    return false;
}

// Checks the row's arguments against the words from first on and fills argv (NUL-terminating
// the words in the line's copy); false when they do not fit.
bool bind_cli_args(const kutl_cli_cmd& row, cli_line* line, int first, const char** argv) {
    const int given = line->count - first;
    if (row.argc < 0 || row.argc > KUTL_CLI_MAX_ARGS) return false;
    const bool rest_is_text = row.argc > 0 && row.args[row.argc - 1].kind == KUTL_CLI_ARG_TEXT;
    if (given != row.argc && !(rest_is_text && given > row.argc)) return false;
    for (int i = 0; i < row.argc; ++i) {
        const cli_span& w = line->words[first + i];
        if (row.args[i].kind == KUTL_CLI_ARG_WORDS && !is_listed_word(*line, w, row.args[i].words))
            return false;
        if (row.args[i].kind > KUTL_CLI_ARG_WORDS) return false;
    }
    // Terminate only now: the rest-of-line argument spans later words' ends.
    for (int i = 0; i < row.argc; ++i) {
        const cli_span& w = line->words[first + i];
        const bool last = i == row.argc - 1;
        const size_t end = last && rest_is_text ? line->words[line->count - 1].end : w.end;
        line->text[end] = '\0';
        argv[i] = line->text + w.start;
    }
    return true;
}

template <size_t N>
int word_index(const char* const (&words)[N], const char* word) {
    if (word == nullptr) return -1;
    for (size_t i = 0; i < N; ++i) {
        if (strcasecmp(words[i], word) == 0) return static_cast<int>(i);
    }
    return -1;
}

// The well-formed UTF-8 character at s, with n bytes left: its length, 0 when the bytes there are
// no such character, or -1 when they are its beginning and the text ends before the rest.
int utf8_char(const unsigned char* s, size_t n) {
    const unsigned char c = s[0];
    if (c < 0x80) return 1;
    // The lead byte fixes the length and the range of the second byte (no overlong forms, no
    // surrogates, nothing above U+10FFFF); later bytes are 0x80..0xBF.
    int len = 0;
    unsigned char lo = 0x80;
    unsigned char hi = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
        len = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
        len = 3;
        if (c == 0xE0) lo = 0xA0;
        if (c == 0xED) hi = 0x9F;
    } else if (c >= 0xF0 && c <= 0xF4) {
        len = 4;
        if (c == 0xF0) lo = 0x90;
        if (c == 0xF4) hi = 0x8F;
    } else {
        return 0;
    }
    for (int i = 1; i < len; ++i) {
        if (static_cast<size_t>(i) == n) return -1;
        if (s[i] < (i == 1 ? lo : 0x80) || s[i] > (i == 1 ? hi : 0xBF)) return 0;
    }
    return len;
}

} // namespace

size_t kutl_utf8_fix(char* buf, size_t size) {
    if (buf == nullptr || size == 0) return 0;
    const size_t len = strnlen(buf, size - 1);
    buf[len] = '\0';
    auto* s = reinterpret_cast<unsigned char*>(buf);
    for (size_t i = 0; i < len;) {
        const int n = utf8_char(s + i, len - i);
        if (n < 0) {
            buf[i] = '\0';
            return i;
        }
        if (n == 0) s[i] = '?';
        i += n > 0 ? static_cast<size_t>(n) : 1;
    }
    return len;
}

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
    // Non-blocking, and kept so: a FIFO without a reader fails at once instead of hanging the
    // caller, and a terminal that stops reading costs output, never the caller's time.
    const int fd = open(path, O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return -1;
    std::fflush(stdout);
    std::fflush(stderr);
    const bool ok = dup2(fd, STDOUT_FILENO) >= 0 && dup2(fd, STDERR_FILENO) >= 0;
    close(fd);
    return ok ? 0 : -1;
}

int kutl_process_cli_cmd(const kutl_cli_cmd* table, int rows, const char* command_line) {
    if (table == nullptr || command_line == nullptr) return KUTL_CLI_NO_MATCH;
    cli_line line;
    if (!split_cli_line(command_line, &line)) return KUTL_CLI_TOO_LONG;
    int best = -1;
    int best_words = 0;
    for (int r = 0; r < rows; ++r) {
        const int n = match_command_words(line, table[r].words);
        if (n > best_words) {
            best = r;
            best_words = n;
        }
    }
    if (best < 0) return KUTL_CLI_NO_MATCH;
    const char* argv[KUTL_CLI_MAX_ARGS] = {};
    if (!bind_cli_args(table[best], &line, best_words, argv)) return KUTL_CLI_BAD_ARGS;
    if (table[best].handler != nullptr) table[best].handler(table[best].argc, argv);
    return KUTL_CLI_OK;
}
