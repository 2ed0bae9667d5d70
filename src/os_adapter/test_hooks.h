// Test-only controls of the platform layer: fault injection, allocation
// accounting and a settable clock. Production code never arms them; the
// checks cost one relaxed atomic load when nothing is armed.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vekdns::pal_test {

enum class op : unsigned {
    alloc,        // PAL_MemTypeMallocD / PAL_MemTypeMallocS / PAL_StrDupEx
    fopen,        // PAL_Fopen (optionally filtered by path, see fail_nth_path)
    fgets,        // PAL_Fgets
    fputs,        // PAL_Fputs
    fseek,        // PAL_Fseek
    sem_open,     // PAL_SemOpen
    sem_wait,     // PAL_SemWait
    sem_post,     // PAL_SemPost
    sem_close,    // PAL_SemClose
    sem_unlink,   // PAL_SemUnLink
    sem_init,     // PAL_SemInit
    sem_destroy,  // PAL_SemDestroy
    thread_create,// PAL_PthreadCreate
    socket,       // socket()
    connect,      // connect()
    send,         // send()
    recv,         // recv()
    select,       // select()
    chmod,        // chmod()
    fflush,       // fflush() of a file being committed
    fsync,        // fsync()
    fchmod,       // fchmod() (a temporary file, the named semaphore)
    fchown,       // fchown()
    ftruncate,    // ftruncate()
    rename,       // rename()
    poll,         // PAL_Poll
    stream_socket,// PAL_StreamSocket
    stream_connect,// PAL_Connect
    stream_send,  // PAL_Send
    stream_recv,  // PAL_Recv
    count_
};

// Make the nth call (1-based, counted from now) of `o` fail. times > 1 makes
// that many consecutive calls fail from the nth on; times == 0 means forever.
void fail_nth(op o, unsigned n, unsigned times = 1);
// Same for PAL_Fopen, counting only opens whose path equals `path`, or is a
// temporary file named after it (`path` followed by '.').
void fail_nth_path(const char *path, unsigned n, unsigned times = 1);
// Make the nth platform operation of any kind (counted from now) fail, once.
// A failing semaphore post is left out: it would keep a lock taken for good.
void fail_nth_any(unsigned n);
// True when the fault armed by fail_nth_any() has fired.
bool any_fault_fired();
// Disarm every fault.
void clear_faults();
// Number of calls of `o` seen since the last clear_faults() (armed or not).
unsigned calls(op o);
// Consulted by every wrapped operation: true when this call is to fail.
bool should_fail(op o);
bool should_fail_fopen(const char *path);

// Blocks currently allocated through the platform allocator.
long outstanding_blocks();
// Text listing of outstanding blocks by file:line (empty when none).
// Tracking of call sites is on only after track_sites(true).
void track_sites(bool on);
void dump_outstanding(char *buf, std::size_t size);

// Pin the clock returned by PAL_GetSysTimeSec, advance it, or release it.
void set_clock(uint32_t sec);
void advance_clock(uint32_t sec);
void release_clock();

} // namespace vekdns::pal_test

namespace vekdns::pal_test {
// Used by the platform layer itself.
void note_alloc(const void *block, const char *file, unsigned line);
void note_free(const void *block);
bool pinned_clock(uint32_t *sec);
} // namespace vekdns::pal_test
