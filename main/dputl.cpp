#include "main/dputl.h"

#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "config/dpcfg.h"
#include "ctrl/dp_trace.h"

namespace {

dputl_time_source time_source = nullptr;
uint16_t transaction_id = 0;
acb* action_head = nullptr;
dputl_id_in_use id_in_use = nullptr;

// Random numbers fetched 256 at a time.
uint32_t random_batch[256];
size_t random_left = 0;

// The kernel's pool; /dev/urandom before it is initialised (getrandom would block the loop then).
void refill_random() {
    const ssize_t n = getrandom(random_batch, sizeof random_batch, GRND_NONBLOCK);
    if (n != static_cast<ssize_t>(sizeof random_batch)) {
        const int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
        if (fd >= 0) {
            if (read(fd, random_batch, sizeof random_batch) < 0) std::perror("/dev/urandom");
            close(fd);
        }
    }
    random_left = sizeof random_batch / sizeof random_batch[0];
}

uint32_t draw32() {
    if (random_left == 0) refill_random();
    return random_batch[--random_left];
}

// Hardened mode: a random id that no pending query or probe holds. With at most a little over a
// thousand ids in use among 65535, a few draws always find one.
uint16_t random_transaction_id() {
    for (;;) {
        const auto id = static_cast<uint16_t>(draw32());
        if (id != 0 && (id_in_use == nullptr || !id_in_use(id))) return id;
    }
}
acb* action_tail = nullptr;

bool action_in_list(const acb* action) {
    for (const acb* a = action_head; a != nullptr; a = a->next) {
        if (a == action) return true;
    }
    return false;
}

uint32_t monotonic_seconds() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint32_t>(ts.tv_sec);
}

int read_if_ipv4(const char* ifname, unsigned long request, uint32_t* out) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) return -1;
    struct ifreq ifr;
    std::memset(&ifr, 0, sizeof ifr);
    std::snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "%.15s", ifname);
    ifr.ifr_addr.sa_family = AF_INET;
    const int ret = ioctl(fd, request, &ifr);
    close(fd);
    if (ret < 0) {
        *out = 0;
        return ret;
    }
    struct sockaddr_in sin;
    std::memcpy(&sin, &ifr.ifr_addr, sizeof sin);
    *out = sin.sin_addr.s_addr;
    return 0;
}

} // namespace

uint32_t dputl_get_current_time() {
    return time_source != nullptr ? time_source() : monotonic_seconds();
}

void dputl_set_time_source(dputl_time_source source) {
    time_source = source;
}

uint16_t dputl_get_next_transaction_id() {
    if (dpcfg_is_hardened_mode_enabled() != 0) return random_transaction_id();
    transaction_id = static_cast<uint16_t>(transaction_id + (transaction_id == 0xFFFF ? 2 : 1));
    return transaction_id;
}

void dputl_set_id_in_use(dputl_id_in_use check) {
    id_in_use = check;
}

uint32_t dputl_random32() {
    return draw32();
}

void dputl_set_transaction_id(uint16_t value) {
    transaction_id = value;
}

acb* dputl_action_list_head() {
    return action_head;
}

int dputl_start_action(acb* action, void* parm) {
    if (action == nullptr) return -1;
    DPUTIL_TRACE(DP_DETAIL, "listhead=%p tail=%p acb=%p next=%p prev=%p parm=%p\n",
                 static_cast<void*>(action_head), static_cast<void*>(action_tail),
                 static_cast<void*>(action), static_cast<void*>(action->next),
                 static_cast<void*>(action->prev), parm);
    action->parm = parm;
    if (!action_in_list(action)) {
        action->prev = action_tail;
        action->next = nullptr;
        if (action_tail != nullptr) action_tail->next = action;
        action_tail = action;
        if (action_head == nullptr) action_head = action;
    }
    if (action->start_cb != nullptr) action->start_cb(parm, action_head);
    action->nextExpiryTime = dputl_get_current_time() + action->period;
    action->triedTimes = 1;
    return 2;
}

int dputl_stop_action(acb* action) {
    if (action == nullptr) return -1;
    if (!action_in_list(action)) return -2;
    DPUTIL_TRACE(DP_DETAIL, "listhead=%p tail=%p acb=%p next=%p prev=%p\n",
                 static_cast<void*>(action_head), static_cast<void*>(action_tail),
                 static_cast<void*>(action), static_cast<void*>(action->next),
                 static_cast<void*>(action->prev));
    if (action->prev != nullptr) action->prev->next = action->next;
    if (action->next != nullptr) action->next->prev = action->prev;
    if (action_head == action) action_head = action->next;
    if (action_tail == action) action_tail = action->prev;
    return 1;
}

void dputl_scan_action_list() {
    const uint32_t now = dputl_get_current_time();
    // From the tail, taking prev first, so that an action may stop itself.
    for (acb* a = action_tail; a != nullptr;) {
        acb* const prev = a->prev;
        DPUTIL_TRACE(
            DP_PERIOD, "acb=%p maxTimes=%d triedTimes=%d nextExpiryTime=%lu curr_time=%lu\n",
            static_cast<void*>(a), a->maxTimes, a->triedTimes,
            static_cast<unsigned long>(a->nextExpiryTime), static_cast<unsigned long>(now));
        if (dputl_time_due(a->nextExpiryTime, now)) {
            if (a->maxTimes != 0 && a->maxTimes <= a->triedTimes) {
                if (a->final_cb != nullptr) a->final_cb(a->parm);
                a->triedTimes = 0;
                dputl_stop_action(a);
            } else {
                if (a->periodic_cb != nullptr) a->periodic_cb(a->parm);
                a->triedTimes += 1;
                a->nextExpiryTime = now + a->period;
            }
        }
        a = prev;
    }
}

int dputl_get_if_ipv4_addr(const char* ifname, uint32_t* out) {
    return read_if_ipv4(ifname, SIOCGIFADDR, out);
}

int dputl_get_if_ipv4_netmask(const char* ifname, uint32_t* out) {
    return read_if_ipv4(ifname, SIOCGIFNETMASK, out);
}

size_t dputl_copy_text(char* dst, size_t size, const char* src) {
    if (size == 0) return 0;
    const size_t n = src != nullptr ? strnlen(src, size - 1) : 0;
    std::memcpy(dst, src, n);
    dst[n] = '\0';
    return n;
}

bool dputl_read_line(std::FILE* f, dputl_line* line) {
    const size_t cap =
        line->cap == 0 || line->cap > sizeof line->text ? sizeof line->text : line->cap;
    line->len = 0;
    line->cut = false;
    line->has_nul = false;
    bool any = false;
    for (int c = std::getc(f); c != EOF; c = std::getc(f)) {
        any = true;
        if (c == '\n') break;
        if (c == '\0') line->has_nul = true;
        if (line->len < cap - 1) {
            line->text[line->len++] = static_cast<char>(c);
        } else {
            line->cut = true;
        }
    }
    line->text[line->len] = '\0';
    if (any) ++line->no;
    return any;
}

bool dputl_token_cut(const dputl_line* line, const char* token) {
    return line->cut && token + std::strlen(token) == line->text + line->len;
}

int dputl_split_line(char* line, const char* delims, int n, char** fields) {
    line[std::strcspn(line, "\r\n")] = '\0';
    char* save = nullptr;
    char* cursor = line;
    for (int i = 0; i < n; ++i) {
        fields[i] = strtok_r(cursor, delims, &save);
        cursor = nullptr;
        if (fields[i] == nullptr) return -1;
        if (fields[i][0] == '\0') return -2;
    }
    return 1;
}
