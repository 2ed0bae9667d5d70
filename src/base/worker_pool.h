// Worker threads for the asynchronous calls (address and service requests).
//
// A worker that has finished its job takes a queued job, or parks for a while
// and takes the next one, instead of a new thread being started for it, so a
// burst of requests shares few threads (at most 64 alive; beyond that jobs
// queue). Threads stay detached; each job owns its request and frees it
// before it returns. Every accepted job runs exactly once.
#pragma once

namespace vekdns::detail {

using worker_job = void (*)(void *arg);

// Where an accepted request runs: on a worker, or on the calling thread
// before the call returns. The blocking calls take the latter: their
// completion function is the library's own and they wait for it anyway, so a
// hand-off to a worker and back would only add two thread switches.
enum class run_on { worker, caller };

// Hands `job(arg)` to a parked worker, or starts a new detached thread for it
// (PAL_PthreadCreate), or queues it for a busy worker at the thread bound or
// when no thread could be started. False when no thread could be had and no
// worker is alive: `arg` is then still the caller's and `job` never runs.
bool start_worker(worker_job job, void *arg);

// Workers kept parked at once: at least this many, more while that many were
// busy at once lately (until the pool is idle for the parking time); 0 turns
// reuse off. Lowering the limit wakes the surplus parked workers, which end.
void set_worker_reuse(unsigned max_parked);
unsigned worker_reuse();
// Workers parked right now.
unsigned parked_workers();
// Worker threads alive or being started.
unsigned worker_threads();
// Accepted jobs that have not finished yet.
unsigned requests_in_flight();

} // namespace vekdns::detail
