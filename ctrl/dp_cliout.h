// The output of CLI commands on its way to the operators' terminals. A command prints into a
// spool in memory, so that it never waits for a terminal; the bus loop then writes the spool to
// the terminal whenever it takes more, and cuts the output, with a line that says so, when it
// grows too long or the terminal stops taking it.
#pragma once

#include <cstddef>
#include <cstdint>

// An output longer than this is cut there.
inline constexpr size_t DP_CLIOUT_MAX_BYTES = size_t{2} << 20;
// Outputs waiting for their terminals at once; one more cuts the oldest.
inline constexpr int DP_CLIOUT_MAX_WAITING = 4;
// A terminal that takes nothing for this long gets the rest of its output cut.
inline constexpr uint32_t DP_CLIOUT_STALL_SECONDS = 5;
// How long the cut line then waits for room before the output is closed without it.
inline constexpr uint32_t DP_CLIOUT_LINE_WAIT_SECONDS = 30;

// The lines an output ends with when it is cut.
inline constexpr char DP_CLIOUT_CUT_SIZE[] = "\n[dnsproxy: output cut: more than 2 MiB]\n";
inline constexpr char DP_CLIOUT_CUT_STALL[] =
    "\n[dnsproxy: output cut: the terminal took nothing for 5 seconds]\n";
inline constexpr char DP_CLIOUT_CUT_CROWD[] =
    "\n[dnsproxy: output cut: too many outputs waiting for their terminals]\n";

// A fresh spool: a file in memory that takes a little more than DP_CLIOUT_MAX_BYTES and refuses
// writes beyond that, so a runaway view cannot use up memory. -1 when none can be made.
int dp_cliout_spool();

// Sends what was written into the spool (up to its file offset) to fd, a terminal, FIFO or file
// opened non-blocking. Whatever fd takes at once is written now; the rest waits in the bus loop.
// Takes both descriptors and closes them when the output is done or cut.
void dp_cliout_send(int fd, int spool);

// Outputs still waiting for their terminals.
int dp_cliout_waiting();
