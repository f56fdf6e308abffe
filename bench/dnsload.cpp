// Load generator that checks every answer: N sockets with up to M queries outstanding each (or a
// fixed rate), every query a name of its own, and every answer matched by id to the query that
// its socket sent with that id: an answer whose question is not that query's is counted wrong.
// Prints one line of JSON: queries, answers, lost, wrong, late, rate, p50/p99/max latency.
//
//   dnsload SERVER SUFFIX [--sockets N] [--outstanding M] [--seconds S] [--rate Q] [--timeout S]
#include <arpa/inet.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

namespace {

using clk = std::chrono::steady_clock;

struct pending {
    clk::time_point sent;
    uint32_t seq = 0;
    bool open = false;      // waiting for its answer
    bool timed_out = false; // given up on; an answer may still come (late)
};

struct client {
    int fd;
    uint16_t next_id = 0;
    int outstanding = 0;
    std::vector<pending> ids = std::vector<pending>(65536);
    std::deque<std::pair<uint16_t, uint32_t>> fifo; // id and sequence, in the order sent
};

std::string name_of(uint32_t seq, int sock, const std::string& suffix) {
    return "q" + std::to_string(seq) + "-" + std::to_string(sock) + "." + suffix;
}

size_t encode_query(uint8_t* buf, uint16_t id, const std::string& name) {
    const uint8_t head[12] = {uint8_t(id >> 8), uint8_t(id), 1, 0, 0, 1, 0, 0, 0, 0, 0, 0};
    std::memcpy(buf, head, 12);
    size_t at = 12;
    for (size_t start = 0; start < name.size();) {
        const size_t dot = std::min(name.find('.', start), name.size());
        buf[at++] = uint8_t(dot - start);
        std::memcpy(buf + at, name.data() + start, dot - start);
        at += dot - start;
        start = dot + 1;
    }
    const uint8_t tail[5] = {0, 0, 1, 0, 1}; // root, TYPE A, CLASS IN
    std::memcpy(buf + at, tail, 5);
    return at + 5;
}

// The question name of an answer as text, or "" when it cannot be read.
std::string question_of(const uint8_t* m, ssize_t len) {
    std::string name;
    for (ssize_t at = 12; at < len;) {
        const int l = m[at];
        if (l == 0) return name.empty() ? "." : name;
        if (l > 63 || at + 1 + l > len) return "";
        if (!name.empty()) name += '.';
        name.append(reinterpret_cast<const char*>(m + at + 1), l);
        at += 1 + l;
    }
    return "";
}

double arg(int argc, char** argv, const char* key, double dflt) {
    for (int i = 3; i + 1 < argc; ++i)
        if (std::strcmp(argv[i], key) == 0) return std::atof(argv[i + 1]);
    return dflt;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: dnsload SERVER SUFFIX [--sockets N] [--outstanding M] "
                             "[--seconds S] [--rate Q] [--timeout S]\n");
        return 2;
    }
    const std::string suffix = argv[2];
    const int nsock = int(arg(argc, argv, "--sockets", 16));
    const int depth = int(arg(argc, argv, "--outstanding", 500));
    const double seconds = arg(argc, argv, "--seconds", 10);
    const double rate = arg(argc, argv, "--rate", 0);
    const auto timeout = std::chrono::duration_cast<clk::duration>(
        std::chrono::duration<double>(arg(argc, argv, "--timeout", 2)));
    sockaddr_in to{AF_INET, htons(53), {}, {}};
    inet_pton(AF_INET, argv[1], &to.sin_addr);

    std::vector<client> clients(nsock);
    std::vector<pollfd> pfds;
    for (auto& c : clients) {
        c.fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
        const int rcvbuf = 4 << 20; // room for every answer outstanding: none lost here
        setsockopt(c.fd, SOL_SOCKET, SO_RCVBUFFORCE, &rcvbuf, sizeof rcvbuf);
        connect(c.fd, reinterpret_cast<sockaddr*>(&to), sizeof to);
        pfds.push_back({c.fd, POLLIN, 0});
    }
    std::vector<double> lat_ms;
    uint64_t sent = 0, wrong = 0, late = 0, lost = 0;
    double max_ms = 0;
    uint32_t seq = 0;
    const clk::time_point start = clk::now();
    const auto stop =
        start + std::chrono::duration_cast<clk::duration>(std::chrono::duration<double>(seconds));
    for (auto now = start; now < stop + timeout; now = clk::now()) {
        // One query a socket a round while a socket has room and the rate allows.
        for (bool more = now < stop; more;) {
            more = false;
            for (size_t k = 0; k < clients.size(); ++k) {
                client& c = clients[k];
                if (c.outstanding >= depth ||
                    (rate > 0 && sent >= rate * std::chrono::duration<double>(now - start).count()))
                    continue;
                int tries = 0;
                while (c.ids[c.next_id].open && ++tries < 65536)
                    ++c.next_id;
                pending& p = c.ids[c.next_id];
                if (p.open) continue; // every id waits (lost answers): no room
                uint8_t q[300];
                const size_t n = encode_query(q, c.next_id, name_of(seq, int(k), suffix));
                if (send(c.fd, q, n, 0) < 0) continue;
                p = {clk::now(), seq++, true, false};
                c.fifo.push_back({c.next_id++, p.seq});
                ++c.outstanding;
                ++sent;
                more = true;
            }
        }
        // Queries past the timeout are given up on, in the order they were sent.
        for (auto& c : clients) {
            while (!c.fifo.empty()) {
                const auto [id, s] = c.fifo.front();
                pending& p = c.ids[id];
                if (p.open && p.seq == s && !p.timed_out) {
                    if (now - p.sent <= timeout) break;
                    p.timed_out = true;
                    --c.outstanding;
                    ++lost;
                }
                c.fifo.pop_front();
            }
        }
        if (poll(pfds.data(), pfds.size(), 1) <= 0) continue;
        for (size_t k = 0; k < clients.size(); ++k) {
            uint8_t m[4096];
            ssize_t len;
            while ((len = recv(clients[k].fd, m, sizeof m, 0)) >= 12) {
                pending& p = clients[k].ids[m[0] << 8 | m[1]];
                if (!p.open) { // no query waits with this id
                    ++wrong;
                    continue;
                }
                const double ms =
                    std::chrono::duration<double, std::milli>(clk::now() - p.sent).count();
                max_ms = std::max(max_ms, ms);
                const std::string want = name_of(p.seq, int(k), suffix);
                if (strcasecmp(question_of(m, len).c_str(), want.c_str()) != 0) ++wrong;
                if (p.timed_out) {
                    ++late;
                    --lost;
                } else {
                    --clients[k].outstanding;
                    lat_ms.push_back(ms);
                }
                p.open = false;
            }
        }
    }
    std::sort(lat_ms.begin(), lat_ms.end());
    auto pct = [&](double f) {
        return lat_ms.empty() ? 0 : lat_ms[size_t(f * (lat_ms.size() - 1))];
    };
    std::printf(
        "{\"queries\": %lu, \"answers\": %zu, \"lost\": %lu, \"wrong\": %lu, \"late\": %lu, "
        "\"qps\": %.0f, \"p50_ms\": %.3f, \"p99_ms\": %.3f, \"max_ms\": %.3f}\n",
        sent, lat_ms.size(), lost, wrong, late, double(lat_ms.size()) / seconds, pct(0.5),
        pct(0.99), max_ms);
    return 0;
}
