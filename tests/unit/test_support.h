// Shared helpers of the unit tests: captured standard error, a driven clock, a private
// DNSPROXY_ROOT tree.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "main/dputl.h"

// Points standard error at a temporary file for its lifetime; text() returns what was written.
class StderrCapture {
  public:
    StderrCapture() {
        std::fflush(stderr);
        saved_ = dup(STDERR_FILENO);
        file_ = std::tmpfile();
        dup2(fileno(file_), STDERR_FILENO);
    }
    ~StderrCapture() {
        std::fflush(stderr);
        dup2(saved_, STDERR_FILENO);
        close(saved_);
        std::fclose(file_);
    }
    std::string text() {
        std::fflush(stderr);
        std::string out;
        std::rewind(file_);
        char buf[4096];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, file_)) > 0)
            out.append(buf, n);
        return out;
    }

  private:
    int saved_ = -1;
    FILE* file_ = nullptr;
};

// The monotonic clock as the tests drive it: advance() moves it; the destructor gives
// the real clock back.
class DrivenClock {
  public:
    explicit DrivenClock(uint32_t start = 1000) {
        now() = start;
        dputl_set_time_source([] { return now(); });
    }
    ~DrivenClock() { dputl_set_time_source(nullptr); }
    void advance(uint32_t s) { now() += s; }
    uint32_t get() const { return now(); }

  private:
    static uint32_t& now() {
        static uint32_t value = 0;
        return value;
    }
};

// A fresh DNSPROXY_ROOT for the test's lifetime, with write() to put files under it.
class TempRoot {
  public:
    TempRoot() {
        char tmpl[] = "/tmp/dnsproxy-unit-XXXXXX";
        dir_ = mkdtemp(tmpl);
        setenv("DNSPROXY_ROOT", dir_.c_str(), 1);
    }
    ~TempRoot() {
        unsetenv("DNSPROXY_ROOT");
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    // Writes content to <root><path>, making the folders on the way.
    void write(const std::string& path, const std::string& content) const {
        const std::filesystem::path full = dir_ + path;
        std::filesystem::create_directories(full.parent_path());
        std::ofstream(full, std::ios::binary) << content;
    }
    std::string read(const std::string& path) const {
        std::ifstream in(dir_ + path, std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    const std::string& dir() const { return dir_; }

  private:
    std::string dir_;
};

// 32-bit words in host order, as the module messages, the lease file and the bus records carry
// them: on a big-endian CPU these bytes differ, and so must the daemon's.
inline std::string h32(std::initializer_list<uint32_t> words) {
    return std::string(reinterpret_cast<const char*>(std::data(words)), 4 * words.size());
}
// A text in a zero-padded field.
inline std::string field(std::string text, size_t size) {
    text.resize(size, '\0');
    return text;
}

// Moves the test process into a network namespace of its own with only the loopback interface,
// up, so that tests can bind port 53 and run UDP servers on 127.0.0.0/8 without touching the
// host. Needs root (CAP_SYS_ADMIN); returns false otherwise.
inline bool enter_private_network() {
    static int state = 0; // 0 not tried, 1 in, -1 failed
    if (state != 0) return state > 0;
    state = -1;
    if (unshare(CLONE_NEWNET) != 0) return false;
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct ifreq ifr {};
    std::snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "lo");
    const bool up = ioctl(fd, SIOCGIFFLAGS, &ifr) == 0 &&
                    (ifr.ifr_flags |= IFF_UP, ioctl(fd, SIOCSIFFLAGS, &ifr) == 0);
    close(fd);
    if (up) state = 1;
    return up;
}

// A UDP server on an IPv4 loopback address and port 53 that records what arrives.
class UdpPeer {
  public:
    explicit UdpPeer(const char* v4addr, uint16_t port = 53) {
        fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_port = htons(port);
        inet_pton(AF_INET, v4addr, &sa.sin_addr);
        ok_ = bind(fd_, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0;
    }
    ~UdpPeer() { close(fd_); }
    bool ok() const { return ok_; }
    // Every datagram waiting now (after up to wait_ms for the first one).
    std::vector<std::vector<uint8_t>> received(int wait_ms = 200) {
        std::vector<std::vector<uint8_t>> out;
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, wait_ms) <= 0) return out;
        for (;;) {
            uint8_t buf[4096];
            const ssize_t n = recv(fd_, buf, sizeof buf, 0);
            if (n < 0) break;
            out.emplace_back(buf, buf + n);
        }
        return out;
    }

  private:
    int fd_ = -1;
    bool ok_ = false;
};

// ---- DNS messages for the codec and EDNS tests ------------------------------------------------

#include "endec/dpendec.h"

// A message written field by field; the header's id is always 0x1234.
struct DnsMsg {
    using Bytes = std::vector<uint8_t>;
    Bytes b;
    DnsMsg(int flags, int qd, int an, int ns, int ar) {
        u16(0x1234).u16(flags).u16(qd).u16(an).u16(ns).u16(ar);
    }
    DnsMsg& u8(int v) { return b.push_back(static_cast<uint8_t>(v)), *this; }
    DnsMsg& u16(int v) { return u8(v >> 8).u8(v); }
    DnsMsg& raw(const Bytes& v) { return b.insert(b.end(), v.begin(), v.end()), *this; }
    DnsMsg& name(const char* text) {
        uint8_t w[256];
        return raw(Bytes(w, w + compose_dname(text, w)));
    }
    DnsMsg& q(const char* qname, int type) { return name(qname).u16(type).u16(1); }
    // One record; cls is an OPT record's payload size.
    DnsMsg& rr(const Bytes& owner, int type, int ttl, const Bytes& rdata, int cls = 1) {
        raw(owner).u16(type).u16(cls).u16(ttl >> 16).u16(ttl).u16(static_cast<int>(rdata.size()));
        return raw(rdata);
    }
    // An answer whose owner is the question name.
    DnsMsg& an(int type, int ttl, const Bytes& rdata) { return rr({0xC0, 12}, type, ttl, rdata); }
    DnsMsg& opt(int payload = 1, const Bytes& opts = {}) { return rr({0}, 41, 0, opts, payload); }
    uint16_t len() const { return static_cast<uint16_t>(b.size()); }
};
