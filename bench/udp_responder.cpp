// The bare responder the local role is measured against: one socket, recvmmsg, every query
// turned into an answer with one A record (192.0.2.80) behind its question, sendmmsg. No parse
// beyond finding the end of the question, no table, no policy: what the machine allows a DNS
// answer to cost.
//
//   udp_responder ADDRESS [PORT [RCVBUF]]    (RCVBUF: the socket's receive buffer, in bytes)
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in sa{AF_INET, htons(argc > 2 ? atoi(argv[2]) : 53), {}, {}};
    inet_pton(AF_INET, argv[1], &sa.sin_addr);
    if (bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) return 1;
    const int rcvbuf = argc > 3 ? atoi(argv[3]) : 0;
    if (rcvbuf > 0) setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &rcvbuf, sizeof rcvbuf);
    constexpr int kBatch = 16;
    static uint8_t buf[kBatch][1100];
    static sockaddr_in from[kBatch];
    static iovec iov[kBatch];
    static mmsghdr msgs[kBatch];
    const uint8_t rr[16] = {0xC0, 12, 0, 1, 0, 1, 0, 0, 0, 30, 0, 4, 192, 0, 2, 80};
    for (;;) {
        for (int i = 0; i < kBatch; ++i) {
            iov[i] = {buf[i], 1024};
            msgs[i].msg_hdr = {&from[i], sizeof from[i], &iov[i], 1, nullptr, 0, 0};
        }
        const int n = recvmmsg(fd, msgs, kBatch, MSG_WAITFORONE, nullptr);
        int out = 0;
        for (int i = 0; i < n; ++i) {
            uint8_t* m = buf[i];
            size_t at = 12, len = msgs[i].msg_len;
            while (at < len && m[at] != 0)
                at += 1u + m[at];
            if (len < 12 || at + 5 > len) continue;
            at += 5;                  // root label, TYPE, CLASS: the answer follows the question
            m[2] = 0x84 | (m[2] & 1); // QR, AA, RD as asked
            m[3] = 0;
            m[6] = 0, m[7] = 1, m[8] = m[9] = m[10] = m[11] = 0;
            std::memcpy(m + at, rr, sizeof rr);
            iov[i].iov_len = at + sizeof rr;
            msgs[out++] = msgs[i];
        }
        if (out > 0) sendmmsg(fd, msgs, out, 0);
    }
}
