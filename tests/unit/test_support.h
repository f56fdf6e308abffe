// Shared helpers of the unit tests: captured standard error, a driven clock, a private
// DNSPROXY_ROOT tree.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

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
    ~StderrCapture() { restore(); }
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
    void restore() {
        if (saved_ < 0) return;
        std::fflush(stderr);
        dup2(saved_, STDERR_FILENO);
        close(saved_);
        saved_ = -1;
        std::fclose(file_);
    }

  private:
    int saved_ = -1;
    FILE* file_ = nullptr;
};

// The monotonic clock as the tests drive it: set() and advance() move it; the destructor gives
// the real clock back.
class DrivenClock {
  public:
    explicit DrivenClock(uint32_t start = 1000) {
        now() = start;
        dputl_set_time_source([] { return now(); });
    }
    ~DrivenClock() { dputl_set_time_source(nullptr); }
    void set(uint32_t t) { now() = t; }
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
    bool exists(const std::string& path) const { return std::filesystem::exists(dir_ + path); }
    const std::string& dir() const { return dir_; }

  private:
    std::string dir_;
};
