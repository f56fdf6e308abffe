// The gateway's in-house utility library: the fixed-path root, key-table files, word-to-number
// look-ups, output redirection, the CLI command table matcher and the repair of texts that must
// be UTF-8.
#pragma once

#include <cstddef>
#include <cstdint>

// A fixed path (/etc/..., /configs/..., /var/...) as the daemon opens it: prefixed with the
// environment variable DNSPROXY_ROOT, which is empty on a gateway and points tests at a private
// tree. /proc and /dev are never prefixed. A path that would not fit is left empty, so that
// opening it fails instead of opening a truncated name.
struct kutl_path {
    char s[512];
};
kutl_path kutl_fixed_path(const char* path);

// One row of a key table: a key and the 32-bit value it is loaded into and saved from.
struct kutl_kiv_config_entry {
    const char* key;
    int32_t* value;
};

// Reads "key=value" lines; blanks around either are ignored, unknown keys and lines without "="
// are skipped. Returns the number of values loaded, or -1 when the file cannot be opened.
int kutl_load_kiv_config_from_file(const char* path, const kutl_kiv_config_entry* table, int n);

// Writes every row as "key=value\n" (replacing the file). 0, or -1 when it cannot be written.
int kutl_save_kiv_config_to_file(const kutl_kiv_config_entry* table, int n, const char* path);

// Prints every row as "key=value\n" on standard error.
void kutl_dump_kiv_config(const kutl_kiv_config_entry* table, int n);

// Level words "emerg|alert|crit|error|warn|notice|info|debug" give 0..7, destination words
// "serial|syslog|telnet" give 1..3, both compared without regard to case; -1 for other words.
int kutl_get_kiv_cli_log_level_by_str(const char* word);
int kutl_get_kiv_cli_log_dest_by_str(const char* word);

struct kutl_int_pair {
    int key;
    int value;
};

// The value paired with key in the table, or dflt when no row has that key.
int kutl_get_int_by_int(const kutl_int_pair* table, int rows, int key, int dflt);

// Makes the text in buf (size bytes) well-formed UTF-8 in place, so that a text built in a bounded
// buffer can go on the bus: it ends at buf[size - 1] at the latest, a character cut short at its
// end (a bounded write stopped inside it) is dropped whole, and every other byte that belongs to
// no well-formed character becomes '?'. Returns the text's length.
size_t kutl_utf8_fix(char* buf, size_t size);

// Reopens standard output and standard error on path (a terminal, a FIFO or a file), non-blocking:
// what the path does not take at once is dropped, so a stalled terminal never stalls the caller.
// 0 on success; -1 when the path cannot be opened, and output stays where it was.
int kutl_redirect_printf(const char* path);

// ---- CLI command table ------------------------------------------------------------------------
//
// A command line is split into words at blanks and tabs (runs count as one separator; a trailing
// CR or LF is ignored). A row matches when its command words equal the line's leading words,
// compared whole and without regard to case (no abbreviations). When several rows match, the one
// with the most command words wins, the first of those in table order on a tie. The words after
// the command are the row's arguments, checked by kind:
//   KUTL_CLI_ARG_UNCHECKED  one word, passed as typed; the handler parses it;
//   KUTL_CLI_ARG_TEXT       one word; as the row's last argument it takes the rest of the line,
//                           inner blanks kept (a path or a message with blanks arrives whole);
//   KUTL_CLI_ARG_WORDS      one of the listed words ("a|b|c|", compared without regard to case),
//                           passed as typed.
// Otherwise the number of argument words must equal the row's argument count.

enum kutl_cli_arg_kind : uint32_t {
    KUTL_CLI_ARG_UNCHECKED = 0,
    KUTL_CLI_ARG_TEXT = 1,
    KUTL_CLI_ARG_WORDS = 2,
};

constexpr int KUTL_CLI_MAX_ARGS = 4;

struct kutl_cli_arg {
    kutl_cli_arg_kind kind;
    const char* words; // KUTL_CLI_ARG_WORDS: the accepted words, each ended by "|"
};

// Receives the argument words (argc of them), valid for the call only.
using kutl_cli_handler = int (*)(int argc, const char* const* argv);

struct kutl_cli_cmd {
    const char* words; // command words, e.g. "view statistic"
    int argc;          // number of arguments that follow, at most KUTL_CLI_MAX_ARGS
    kutl_cli_arg args[KUTL_CLI_MAX_ARGS];
    kutl_cli_handler handler;
};

enum kutl_cli_result : int {
    KUTL_CLI_OK = 0,        // a row's handler ran (its own result is not passed on)
    KUTL_CLI_NO_MATCH = -1, // no row's command words lead the line
    KUTL_CLI_BAD_ARGS = -2, // the matching row's arguments do not fit
    KUTL_CLI_TOO_LONG = -3, // more than 1023 characters or 32 words
};

// Matches command_line against the table and runs the matching row's handler.
int kutl_process_cli_cmd(const kutl_cli_cmd* table, int rows, const char* command_line);
