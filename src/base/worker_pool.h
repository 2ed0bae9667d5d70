// Worker threads for the asynchronous calls (address and service requests).
//
// A worker that has finished its job parks for a while and takes the next job
// instead of a new thread being started for it, so a burst of mixed requests
// shares the same threads. Threads stay detached; each job owns its request
// and frees it before it returns.
#pragma once

namespace vekdns::detail {

using worker_job = void (*)(void *arg);

// Hands `job(arg)` to a parked worker, or starts a new detached thread for it
// (PAL_PthreadCreate). False when no thread could be had: `arg` is then still
// the caller's and `job` never runs.
bool start_worker(worker_job job, void *arg);

// Most workers kept parked at once; 0 turns reuse off. Lowering the limit
// wakes the surplus parked workers, which then end.
void set_worker_reuse(unsigned max_parked);
unsigned worker_reuse();
// Workers parked right now.
unsigned parked_workers();
// Accepted jobs that have not finished yet.
unsigned requests_in_flight();

} // namespace vekdns::detail
