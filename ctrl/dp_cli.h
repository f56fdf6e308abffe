// The diagnostic CLI: "kiv_cli dnsproxy <command>" arrives here with the operator's terminal.
#pragma once

// Keeps the daemon's own standard output and error (as they are at start-up), to which output
// returns after every command.
void dp_cli_init();
// Runs one command line with standard output and error moved to tty_name (when given).
int dp_cli_process(const char* tty_name, const char* cmd);
