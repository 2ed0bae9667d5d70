// Worker threads shared by the asynchronous address and service calls.
//
// A job goes to a parked worker when there is one, else to a new thread while
// fewer than max_threads are alive, else into a queue that the workers drain
// whenever they finish a job, before they park. A parked worker waits
// park_seconds for a job and ends when none comes. How many may park at once
// follows the load: the larger of the set limit (set_worker_reuse) and the
// number of workers that were busy at once since the pool was last idle for
// park_seconds, so that the next burst finds its threads. Plain pthread
// objects with static initialisers: nothing to destroy at exit while a parked
// worker still waits on them.
#include "base/worker_pool.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <new>
#include <pthread.h>

#include "vek_os_adapter.h"

namespace {

constexpr unsigned default_max_parked = 8;
constexpr time_t park_seconds = 2;
// The most worker threads alive at once; further jobs wait in the queue for
// the next worker that finishes. A request can hold its worker for several
// seconds (every server and suffix waited for up to the time-out), so the
// bound is well above what a burst of fast requests needs: a few slow ones
// leave the other threads to keep the queue moving.
constexpr unsigned max_threads = 64;

struct queued_job {
    vekdns::detail::worker_job job;
    void *arg;
};

struct parked_worker {
    pthread_cond_t wake;
    vekdns::detail::worker_job job; // the next job, handed over under g_pool_mutex
    void *arg;
    bool quit;               // taken off the stack without a request: end
    parked_worker *next;
};

pthread_mutex_t g_pool_mutex = PTHREAD_MUTEX_INITIALIZER;
// Everything below is guarded by g_pool_mutex except g_in_flight.
parked_worker *g_parked = nullptr;
unsigned g_parked_count = 0;
unsigned g_max_parked = default_max_parked;
unsigned g_running = 0;   // worker threads alive (busy or parked)
unsigned g_starting = 0;  // threads being created, not yet counted in g_running
unsigned g_peak_busy = 0; // most workers busy at once since the pool was last idle
// Ring of queued jobs; a thread-start record's kind of memory, not the
// platform allocator's (not request memory). Grows by doubling, never shrinks.
queued_job *g_queue = nullptr;
unsigned g_queue_size = 0;
unsigned g_queue_head = 0;
unsigned g_queue_len = 0;
std::atomic<unsigned> g_in_flight{0};
bool g_stopping = false; // no more parking
unsigned g_leaving = 0;  // told to quit, not yet out
pthread_cond_t g_left = PTHREAD_COND_INITIALIZER;
pthread_once_t g_fork_once = PTHREAD_ONCE_INIT;

// A child process has none of the parent's workers: forget them there, and
// the jobs queued for them (the parent's workers run those).
void pool_prepare_fork() { (void)pthread_mutex_lock(&g_pool_mutex); }
void pool_parent_fork() { (void)pthread_mutex_unlock(&g_pool_mutex); }
void pool_child_fork() {
    g_parked = nullptr;
    g_parked_count = 0;
    g_running = 0;
    g_starting = 0;
    g_peak_busy = 0;
    g_queue_head = 0;
    g_queue_len = 0;
    g_leaving = 0;
    g_in_flight.store(0, std::memory_order_relaxed);
    (void)pthread_mutex_unlock(&g_pool_mutex);
}
void register_fork_handlers() { (void)pthread_atfork(pool_prepare_fork, pool_parent_fork, pool_child_fork); }

unsigned busy_workers() {
    return g_running + g_starting - g_parked_count;
}

void note_busy() {
    const unsigned busy = busy_workers();
    if (busy > g_peak_busy) {
        g_peak_busy = busy;
    }
}

unsigned parking_limit() {
    if (g_max_parked == 0) {
        return 0;
    }
    const unsigned recent = g_peak_busy < max_threads ? g_peak_busy : max_threads;
    return recent > g_max_parked ? recent : g_max_parked;
}

bool push_job(vekdns::detail::worker_job job, void *arg) {
    if (g_queue_len == g_queue_size) {
        const unsigned grown = g_queue_size == 0 ? 64 : g_queue_size * 2;
        auto *ring = static_cast<queued_job *>(std::malloc(sizeof(queued_job) * grown));
        if (ring == nullptr) {
            return false;
        }
        for (unsigned i = 0; i < g_queue_len; ++i) {
            ring[i] = g_queue[(g_queue_head + i) % g_queue_size];
        }
        std::free(g_queue);
        g_queue = ring;
        g_queue_size = grown;
        g_queue_head = 0;
    }
    g_queue[(g_queue_head + g_queue_len) % g_queue_size] = queued_job{job, arg};
    g_queue_len++;
    return true;
}

bool pop_job(parked_worker *self) {
    if (g_queue_len == 0) {
        return false;
    }
    self->job = g_queue[g_queue_head].job;
    self->arg = g_queue[g_queue_head].arg;
    g_queue_head = (g_queue_head + 1) % g_queue_size;
    g_queue_len--;
    return true;
}

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

// The calling worker's next job into *self: a queued one, or one handed to it
// while parked. False to end. Called and returns with the mutex held.
bool next_job(parked_worker *self) {
    if (pop_job(self)) {
        return true;
    }
    if (g_stopping || g_parked_count >= parking_limit()) {
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
            // Idle for park_seconds: the load has gone, and so does the
            // parking it asked for.
            g_peak_busy = busy_workers();
            break;
        }
    }
    if (self->quit && --g_leaving == 0) {
        (void)pthread_cond_broadcast(&g_left);
    }
    return self->job != nullptr;
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
    (void)pthread_mutex_lock(&g_pool_mutex);
    g_starting--;
    g_running++;
    (void)pthread_mutex_unlock(&g_pool_mutex);
    for (;;) {
        self.job(self.arg);
        g_in_flight.fetch_sub(1, std::memory_order_acq_rel);
        (void)pthread_mutex_lock(&g_pool_mutex);
        const bool more = next_job(&self);
        if (!more) {
            // On no list any more (timed out and took itself off, was taken
            // off to quit, or was never put on), and the queue is empty.
            g_running--;
        }
        (void)pthread_mutex_unlock(&g_pool_mutex);
        if (!more) {
            break;
        }
    }
    (void)pthread_cond_destroy(&self.wake);
    return nullptr; // NOLINT(clang-analyzer-core.StackAddressEscape)
}

// Hands the job to the most recently parked worker, or else queues it for a
// busy one (the queue is only ever filled while none is parked, and a worker
// looks at it before it parks or ends). False when no worker is alive or the
// queue cannot grow. Called with g_pool_mutex held.
bool give_to_running(vekdns::detail::worker_job job, void *arg) {
    if (parked_worker *w = g_parked; w != nullptr) {
        g_parked = w->next;
        g_parked_count--;
        w->job = job;
        w->arg = arg;
        (void)pthread_cond_signal(&w->wake);
        note_busy();
        return true;
    }
    return g_running > 0 && push_job(job, arg);
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
// that is gone; busy workers drain the queue, then end instead of parking.
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
    // A parked worker takes it; at the thread bound, the next busy one that
    // finishes (a thread is started all the same when none is alive).
    if ((g_parked != nullptr || g_running + g_starting >= max_threads) && give_to_running(job, arg)) {
        (void)pthread_mutex_unlock(&g_pool_mutex);
        return true;
    }
    g_starting++;
    note_busy();
    (void)pthread_mutex_unlock(&g_pool_mutex);

    // Not from the platform allocator: a thread-start record, not memory the
    // library accounts for requests.
    auto *first = new (std::nothrow) first_job{job, arg};
    pthread_t thread;
    if (first != nullptr && PAL_PthreadCreate(&thread, nullptr, worker_main, first) == 0) {
        (void)PAL_PthreadDetach(thread);
        return true;
    }
    delete first;
    // No thread: a running worker takes the job after its own, before it
    // parks or ends (it looks at the queue under the mutex first). With none
    // running the job is refused and stays the caller's.
    (void)pthread_mutex_lock(&g_pool_mutex);
    g_starting--;
    const bool queued = give_to_running(job, arg);
    (void)pthread_mutex_unlock(&g_pool_mutex);
    if (!queued) {
        g_in_flight.fetch_sub(1, std::memory_order_acq_rel);
    }
    return queued;
}

void set_worker_reuse(unsigned max_parked) {
    (void)pthread_mutex_lock(&g_pool_mutex);
    g_max_parked = max_parked;
    while (g_parked_count > parking_limit()) {
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

unsigned worker_threads() {
    (void)pthread_mutex_lock(&g_pool_mutex);
    unsigned n = g_running + g_starting;
    (void)pthread_mutex_unlock(&g_pool_mutex);
    return n;
}

unsigned requests_in_flight() { return g_in_flight.load(std::memory_order_acquire); }

} // namespace vekdns::detail
