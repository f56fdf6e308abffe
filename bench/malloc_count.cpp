// LD_PRELOAD library that counts the heap allocations of a process: malloc, calloc, realloc and
// the aligned variants (operator new goes through malloc). SIGUSR2 writes "malloc_count=N" to
// standard error, so that a benchmark reads the count before and after a run of queries.
//
//   c++ -O2 -shared -fPIC -o malloc_count.so bench/malloc_count.cpp
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
}

namespace {

std::atomic<unsigned long> count{0};

void report(int) {
    char line[64];
    const int n = std::snprintf(line, sizeof line, "malloc_count=%lu\n", count.load());
    if (write(2, line, n) < 0) _exit(1);
}

[[gnu::constructor]] void install() {
    signal(SIGUSR2, report);
}

} // namespace

extern "C" {
void* malloc(size_t n) {
    ++count;
    return __libc_malloc(n);
}
void* calloc(size_t n, size_t size) {
    ++count;
    return __libc_calloc(n, size);
}
void* realloc(void* p, size_t n) {
    ++count;
    return __libc_realloc(p, n);
}
void* memalign(size_t align, size_t n) {
    ++count;
    return __libc_memalign(align, n);
}
void* aligned_alloc(size_t align, size_t n) {
    ++count;
    return __libc_memalign(align, n);
}
int posix_memalign(void** p, size_t align, size_t n) {
    ++count;
    *p = __libc_memalign(align, n);
    return *p == nullptr ? 12 : 0;
}
}
