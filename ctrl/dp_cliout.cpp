#include "ctrl/dp_cliout.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "main/dputl.h"
#include "platform/ombus/ombus.h"

namespace {

static_assert(DP_CLIOUT_MAX_BYTES == size_t{2} << 20 && DP_CLIOUT_STALL_SECONDS == 5,
              "the cut lines name the limits");

// Room past the limit: stdio writes at most a few KiB at once, so an output beyond the limit
// always leaves the spool's offset past it too, and the cut is seen.
constexpr size_t kSpoolSlack = 64 * 1024;

// One output waiting for its terminal: the spool's bytes [sent, end), then the tail line.
struct cli_output {
    int fd = -1; // -1: the slot is free
    int spool = -1;
    size_t sent = 0;
    size_t end = 0;
    const char* tail = nullptr;
    size_t tail_sent = 0;
    bool cut = false;      // the rest was dropped; only the tail line is left to go
    uint32_t deadline = 0; // no progress by then: cut (or, once cut, close)
    uint64_t order = 0;    // which output came first
};

cli_output outputs[DP_CLIOUT_MAX_WAITING];
uint64_t next_order = 0;

enum class pumped { done, waiting };

// Writes what fd takes now. Done also when the terminal has gone (nothing more can reach it).
pumped pump(cli_output& o) {
    char buf[16384];
    while (o.sent < o.end) {
        const ssize_t got =
            pread(o.spool, buf, std::min(sizeof buf, o.end - o.sent), static_cast<off_t>(o.sent));
        if (got <= 0) return pumped::done;
        const ssize_t n = write(o.fd, buf, static_cast<size_t>(got));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return n < 0 && errno == EAGAIN ? pumped::waiting : pumped::done;
        o.sent += static_cast<size_t>(n);
    }
    const size_t tail_len = o.tail != nullptr ? std::strlen(o.tail) : 0;
    while (o.tail_sent < tail_len) {
        const ssize_t n = write(o.fd, o.tail + o.tail_sent, tail_len - o.tail_sent);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return n < 0 && errno == EAGAIN ? pumped::waiting : pumped::done;
        o.tail_sent += static_cast<size_t>(n);
    }
    return pumped::done;
}

int on_tick();

void finish(cli_output& o) {
    ombusUnregisterPollingSocket(o.fd);
    close(o.fd);
    close(o.spool);
    o = cli_output{};
    if (dp_cliout_waiting() == 0) ombusUnregisterPollingTimeOutHandler(on_tick);
}

// Drops what has not gone yet and sends the line instead.
void cut(cli_output& o, const char* line, uint32_t now) {
    o.sent = o.end;
    o.tail = line;
    o.tail_sent = 0;
    o.cut = true;
    o.deadline = now + DP_CLIOUT_LINE_WAIT_SECONDS;
    if (pump(o) == pumped::done) finish(o);
}

// Whole seconds are coarse: one more makes a stall of at least the stated time.
uint32_t stall_deadline(uint32_t now) {
    return now + DP_CLIOUT_STALL_SECONDS + 1;
}

cli_output* find(int fd) {
    for (auto& o : outputs) {
        if (o.fd >= 0 && o.fd == fd) return &o;
    }
    return nullptr;
}

int on_writable(pollfd* entry) {
    cli_output* o = find(entry->fd);
    if (o == nullptr) return 0;
    const size_t before = o->sent + o->tail_sent;
    if (pump(*o) == pumped::done || (entry->revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
        finish(*o);
        return 0;
    }
    if (!o->cut && o->sent + o->tail_sent != before)
        o->deadline = stall_deadline(dputl_get_current_time());
    return 0;
}

int on_tick() {
    const uint32_t now = dputl_get_current_time();
    for (auto& o : outputs) {
        if (o.fd < 0 || !dputl_time_due(o.deadline, now)) continue;
        if (o.cut || o.tail_sent > 0) { // a line half written is not cut into
            finish(o);
        } else {
            cut(o, DP_CLIOUT_CUT_STALL, now);
        }
    }
    return 0;
}

// A free slot; when there is none, the oldest output is cut to make one.
cli_output& take_slot() {
    cli_output* oldest = &outputs[0];
    for (auto& o : outputs) {
        if (o.fd < 0) return o;
        if (o.order < oldest->order) oldest = &o;
    }
    oldest->sent = oldest->end;
    oldest->tail = DP_CLIOUT_CUT_CROWD;
    oldest->tail_sent = 0;
    pump(*oldest); // one try: the newer output does not wait for it
    finish(*oldest);
    return *oldest;
}

} // namespace

int dp_cliout_spool() {
    const int fd = memfd_create("dnsproxy-cli", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0) return -1;
    if (ftruncate(fd, static_cast<off_t>(DP_CLIOUT_MAX_BYTES + kSpoolSlack)) != 0 ||
        fcntl(fd, F_ADD_SEALS, F_SEAL_GROW | F_SEAL_SHRINK | F_SEAL_SEAL) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

void dp_cliout_send(int fd, int spool) {
    const off_t written = lseek(spool, 0, SEEK_CUR);
    cli_output o;
    o.fd = fd;
    o.spool = spool;
    o.end = std::min(static_cast<size_t>(std::max<off_t>(written, 0)), DP_CLIOUT_MAX_BYTES);
    if (written > static_cast<off_t>(DP_CLIOUT_MAX_BYTES)) o.tail = DP_CLIOUT_CUT_SIZE;
    if (pump(o) == pumped::done) {
        close(fd);
        close(spool);
        return;
    }
    o.deadline = stall_deadline(dputl_get_current_time());
    o.order = next_order++;
    take_slot() = o;
    if (dp_cliout_waiting() == 1) ombusRegisterPollingTimeOutHandler(1000, on_tick, 0, 0);
    ombusRegisterPollingSocket(fd, on_writable, 0, 0);
    ombusSetPollingSocketEvents(fd, POLLOUT);
}

int dp_cliout_waiting() {
    return static_cast<int>(std::count_if(std::begin(outputs), std::end(outputs),
                                          [](const cli_output& o) { return o.fd >= 0; }));
}
