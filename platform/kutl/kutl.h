// The gateway's in-house utility library: key-table files, word-to-number look-ups, output
// redirection and the CLI command table matcher.
#pragma once

#include <cstdint>

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

// Reopens standard output and standard error on path (a terminal, a FIFO or a file).
// 0 on success; -1 when the path cannot be opened, and output stays where it was.
int kutl_redirect_printf(const char* path);
