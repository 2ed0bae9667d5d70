// Worker threads shared by the asynchronous address and service calls.
//
// A worker thread runs one job, then parks for park_seconds waiting for
// another one; when none comes, or enough workers are parked already, it ends.
// The pool is a stack of parked workers under one mutex; a job is handed over
// by writing it into the parked worker's slot and signalling it. Plain pthread
// objects with static initialisers: nothing to destroy at exit while a parked
// worker still waits on them.
#include "base/worker_pool.h"

#include <atomic>
#include <cerrno>
#include <ctime>
#include <new>
#include <pthread.h>

#include "vek_os_adapter.h"

namespace {

// A worker thread runs one request, then parks for park_seconds waiting for
// another one; when none comes, or enough workers are parked already, it ends.
// The pool is a stack of parked workers under one mutex; a request is handed
// over by writing it into the parked worker's slot and signalling it. Plain
// pthread objects with static initialisers: nothing to destroy at exit while a
// parked worker still waits on them.

constexpr unsigned default_max_parked = 8;
constexpr time_t park_seconds = 2;

struct parked_worker {
    pthread_cond_t wake;
    vekdns::detail::worker_job job; // the next job, handed over under g_pool_mutex
    void *arg;
    bool quit;               // taken off the stack without a request: end
    parked_worker *next;
};

pthread_mutex_t g_pool_mutex = PTHREAD_MUTEX_INITIALIZER;
parked_worker *g_parked = nullptr; // guarded by g_pool_mutex
unsigned g_parked_count = 0;       // guarded by g_pool_mutex
unsigned g_max_parked = default_max_parked; // guarded by g_pool_mutex
std::atomic<unsigned> g_in_flight{0};
bool g_stopping = false;              // guarded by g_pool_mutex: no more parking
unsigned g_leaving = 0;               // guarded by g_pool_mutex: told to quit, not yet out
pthread_cond_t g_left = PTHREAD_COND_INITIALIZER;
pthread_once_t g_fork_once = PTHREAD_ONCE_INIT;

// A child process has none of the parent's workers: forget them there.
void pool_prepare_fork() { (void)pthread_mutex_lock(&g_pool_mutex); }
void pool_parent_fork() { (void)pthread_mutex_unlock(&g_pool_mutex); }
void pool_child_fork() {
    g_parked = nullptr;
    g_parked_count = 0;
    g_leaving = 0;
    g_in_flight.store(0, std::memory_order_relaxed);
    (void)pthread_mutex_unlock(&g_pool_mutex);
}
void register_fork_handlers() { (void)pthread_atfork(pool_prepare_fork, pool_parent_fork, pool_child_fork); }

// Removes `w` from the stack (called with the mutex held).
void unlink_parked(parked_worker *w) {
    for (parked_worker **pp = &g_parked; *pp != nullptr; pp = &(*pp)->next) {
        if (*pp == w) {
            *pp = w->next;
            g_parked_count--;
            return;
        }
    }
}

// Parks the calling worker; false to end, else its next job is in *self.
bool park(parked_worker *self) {
    (void)pthread_mutex_lock(&g_pool_mutex);
    if (g_stopping || g_parked_count >= g_max_parked) {
        (void)pthread_mutex_unlock(&g_pool_mutex);
        return false;
    }
    self->job = nullptr;
    self->quit = false;
    self->next = g_parked;
    g_parked = self;
    g_parked_count++;

    timespec deadline{};
    (void)clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += park_seconds;
    while (self->job == nullptr && !self->quit) {
        int rc = pthread_cond_timedwait(&self->wake, &g_pool_mutex, &deadline);
        if (rc == ETIMEDOUT && self->job == nullptr && !self->quit) {
            unlink_parked(self);
            break;
        }
    }
    const bool got = self->job != nullptr;
    if (self->quit && --g_leaving == 0) {
        (void)pthread_cond_broadcast(&g_left);
    }
    (void)pthread_mutex_unlock(&g_pool_mutex);
    return got;
}

// The first job comes through the thread argument.
struct first_job {
    vekdns::detail::worker_job job;
    void *arg;
};

void *worker_main(void *start) {
    parked_worker self{};
    pthread_condattr_t attr;
    (void)pthread_condattr_init(&attr);
    (void)pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    (void)pthread_cond_init(&self.wake, &attr);
    (void)pthread_condattr_destroy(&attr);

    auto *first = static_cast<first_job *>(start);
    self.job = first->job;
    self.arg = first->arg;
    delete first;
    do {
        self.job(self.arg);
        g_in_flight.fetch_sub(1, std::memory_order_acq_rel);
    } while (park(&self));
    // park() gave false: `self` is on no list any more (it timed out and took
    // itself off, was taken off to quit, or was never put on).
    (void)pthread_cond_destroy(&self.wake);
    return nullptr; // NOLINT(clang-analyzer-core.StackAddressEscape)
}

// Takes the most recently parked worker off the stack and tells it to end.
// Called with g_pool_mutex held and a worker parked.
void dismiss_first_parked() {
        parked_worker *w = g_parked;
        g_parked = w->next;
        g_parked_count--;
        w->quit = true;
        ++g_leaving;
        (void)pthread_cond_signal(&w->wake);
}

// When the library is unloaded or the process exits: parked workers are told
// to end and waited for (a second at most) so that none wakes later into code
// that is gone; busy workers end after their job instead of parking.
__attribute__((destructor)) void stop_parked_workers() {
    (void)pthread_mutex_lock(&g_pool_mutex);
    g_stopping = true;
    while (g_parked != nullptr) {
        dismiss_first_parked();
    }
    timespec deadline{};
    (void)clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 1;
    while (g_leaving != 0 && pthread_cond_timedwait(&g_left, &g_pool_mutex, &deadline) != ETIMEDOUT) {
    }
    (void)pthread_mutex_unlock(&g_pool_mutex);
}

} // namespace

namespace vekdns::detail {

bool start_worker(worker_job job, void *arg) {
    (void)pthread_once(&g_fork_once, register_fork_handlers);
    g_in_flight.fetch_add(1, std::memory_order_acq_rel);

    (void)pthread_mutex_lock(&g_pool_mutex);
    parked_worker *w = g_parked;
    if (w != nullptr) {
        g_parked = w->next;
        g_parked_count--;
        w->job = job;
        w->arg = arg;
        (void)pthread_cond_signal(&w->wake);
    }
    (void)pthread_mutex_unlock(&g_pool_mutex);
    if (w != nullptr) {
        return true;
    }

    // Not from the platform allocator: a thread-start record, not memory the
    // library accounts for requests.
    auto *first = new (std::nothrow) first_job{job, arg};
    pthread_t thread;
    if (first == nullptr || PAL_PthreadCreate(&thread, nullptr, worker_main, first) != 0) {
        delete first;
        g_in_flight.fetch_sub(1, std::memory_order_acq_rel);
        return false;
    }
    (void)PAL_PthreadDetach(thread);
    return true;
}

void set_worker_reuse(unsigned max_parked) {
    (void)pthread_mutex_lock(&g_pool_mutex);
    g_max_parked = max_parked;
    while (g_parked_count > g_max_parked) {
        dismiss_first_parked();
    }
    (void)pthread_mutex_unlock(&g_pool_mutex);
}

unsigned worker_reuse() {
    (void)pthread_mutex_lock(&g_pool_mutex);
    unsigned n = g_max_parked;
    (void)pthread_mutex_unlock(&g_pool_mutex);
    return n;
}

unsigned parked_workers() {
    (void)pthread_mutex_lock(&g_pool_mutex);
    unsigned n = g_parked_count;
    (void)pthread_mutex_unlock(&g_pool_mutex);
    return n;
}

unsigned requests_in_flight() { return g_in_flight.load(std::memory_order_acquire); }

} // namespace vekdns::detail
