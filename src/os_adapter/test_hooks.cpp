// Fault switches, allocation accounting and the settable clock.
#include "os_adapter/test_hooks.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

namespace vekdns::pal_test {
namespace {

struct fault {
    std::atomic<unsigned> calls{0};
    std::atomic<unsigned> first{0}; // 0: not armed
    std::atomic<unsigned> last{0};  // inclusive; UINT_MAX: forever
};

constexpr std::size_t op_count = static_cast<std::size_t>(op::count_);
std::array<fault, op_count> g_faults;
std::atomic<bool> g_any_armed{false};
std::atomic<unsigned> g_any_calls{0};
std::atomic<unsigned> g_any_nth{0}; // 0: not armed
std::atomic<bool> g_any_fired{false};

std::mutex g_path_mutex;
std::string &g_fopen_path = *new std::string; // guarded by g_path_mutex; never destroyed
unsigned g_fopen_calls = 0; // guarded
unsigned g_fopen_first = 0;
unsigned g_fopen_last = 0;
std::atomic<bool> g_path_armed{false};

bool hit(unsigned call, unsigned first, unsigned last) { return first != 0 && call >= first && call <= last; }

unsigned last_of(unsigned n, unsigned times) {
    return times == 0 ? ~0u : n + times - 1;
}

} // namespace

void fail_nth(op o, unsigned n, unsigned times) {
    fault &f = g_faults[static_cast<std::size_t>(o)];
    unsigned base = f.calls.load();
    f.last.store(last_of(base + n, times));
    f.first.store(base + n);
    g_any_armed.store(true);
}

void fail_nth_path(const char *path, unsigned n, unsigned times) {
    std::lock_guard<std::mutex> lock(g_path_mutex);
    g_fopen_path = path;
    g_fopen_calls = 0;
    g_fopen_first = n;
    g_fopen_last = last_of(n, times);
    g_path_armed.store(true);
}

void fail_nth_any(unsigned n) {
    g_any_fired.store(false);
    g_any_calls.store(0);
    g_any_nth.store(n);
    g_any_armed.store(true);
}

bool any_fault_fired() { return g_any_fired.load(); }

void clear_faults() {
    g_any_nth.store(0);
    g_any_fired.store(false);
    for (fault &f : g_faults) {
        f.first.store(0);
        f.last.store(0);
        f.calls.store(0);
    }
    g_any_armed.store(false);
    std::lock_guard<std::mutex> lock(g_path_mutex);
    g_fopen_path.clear();
    g_fopen_first = 0;
    g_path_armed.store(false);
}

unsigned calls(op o) { return g_faults[static_cast<std::size_t>(o)].calls.load(); }

bool should_fail(op o) {
    fault &f = g_faults[static_cast<std::size_t>(o)];
    unsigned call = f.calls.fetch_add(1, std::memory_order_relaxed) + 1;
    if (!g_any_armed.load(std::memory_order_relaxed)) {
        return false;
    }
    const unsigned nth = g_any_nth.load();
    if (nth != 0 && o != op::sem_post && g_any_calls.fetch_add(1) + 1 == nth) {
        g_any_fired.store(true);
        return true;
    }
    return hit(call, f.first.load(), f.last.load());
}

bool should_fail_fopen(const char *path) {
    if (should_fail(op::fopen)) {
        return true;
    }
    if (!g_path_armed.load(std::memory_order_relaxed) || path == nullptr) {
        return false;
    }
    std::lock_guard<std::mutex> lock(g_path_mutex);
    const std::size_t len = g_fopen_path.size();
    if (std::strncmp(path, g_fopen_path.c_str(), len) != 0 || (path[len] != '\0' && path[len] != '.')) {
        return false;
    }
    ++g_fopen_calls;
    return hit(g_fopen_calls, g_fopen_first, g_fopen_last);
}

// ---- allocation accounting ---------------------------------------------------

namespace {
std::atomic<long> g_outstanding{0};
std::atomic<bool> g_track{false};
std::mutex g_site_mutex;
struct site {
    const void *block;
    const char *file;
    unsigned line;
};
constexpr std::size_t max_sites = 4096;
site g_sites[max_sites]; // guarded by g_site_mutex
std::size_t g_site_count = 0;
} // namespace

long outstanding_blocks() { return g_outstanding.load(); }

void track_sites(bool on) {
    std::lock_guard<std::mutex> lock(g_site_mutex);
    g_track.store(on);
    g_site_count = 0;
}

void dump_outstanding(char *buf, std::size_t size) {
    if (buf == nullptr || size == 0) {
        return;
    }
    buf[0] = '\0';
    std::lock_guard<std::mutex> lock(g_site_mutex);
    std::size_t used = 0;
    for (std::size_t i = 0; i < g_site_count && used + 1 < size; ++i) {
        int n = std::snprintf(buf + used, size - used, "%s:%u\n", g_sites[i].file, g_sites[i].line);
        if (n < 0) {
            break;
        }
        used += static_cast<std::size_t>(n);
    }
}

void note_alloc(const void *block, const char *file, unsigned line) {
    g_outstanding.fetch_add(1, std::memory_order_relaxed);
    if (g_track.load(std::memory_order_relaxed)) {
        std::lock_guard<std::mutex> lock(g_site_mutex);
        if (g_site_count < max_sites) {
            g_sites[g_site_count++] = site{block, file, line};
        }
    }
}

void note_free(const void *block) {
    g_outstanding.fetch_sub(1, std::memory_order_relaxed);
    if (g_track.load(std::memory_order_relaxed)) {
        std::lock_guard<std::mutex> lock(g_site_mutex);
        for (std::size_t i = 0; i < g_site_count; ++i) {
            if (g_sites[i].block == block) {
                g_sites[i] = g_sites[--g_site_count];
                break;
            }
        }
    }
}

// ---- clock -------------------------------------------------------------------

namespace {
std::atomic<bool> g_clock_pinned{false};
std::atomic<uint32_t> g_clock{0};
} // namespace

void set_clock(uint32_t sec) {
    g_clock.store(sec);
    g_clock_pinned.store(true);
}

void advance_clock(uint32_t sec) { g_clock.fetch_add(sec); }

void release_clock() { g_clock_pinned.store(false); }

bool pinned_clock(uint32_t *sec) {
    if (!g_clock_pinned.load(std::memory_order_relaxed)) {
        return false;
    }
    *sec = g_clock.load();
    return true;
}

} // namespace vekdns::pal_test
