// Worker reuse of the asynchronous address call.
//
// A worker that has finished its request parks for a while and takes the next
// request instead of a new thread being started for it. Threads stay detached;
// each request is still freed by the thread that ran it.
#pragma once

#include <cstdint>

namespace vekdns::detail {

// Most workers kept parked at once; 0 turns reuse off. Lowering the limit
// wakes the surplus parked workers, which then end.
void set_worker_reuse(unsigned max_parked);
unsigned worker_reuse();
// Workers parked right now.
unsigned parked_workers();
// Accepted asynchronous requests whose worker has not finished yet.
unsigned requests_in_flight();

} // namespace vekdns::detail
