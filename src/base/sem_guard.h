// Scoped critical section on the system-wide named semaphore: open, wait,
// and on every path out post and close.
#pragma once

#include <cstdint>

#include "vek_dns_ops.h"

namespace vekdns {

// Takes a blocking call's completion lock, retrying: the call must not go on
// before its completion function has posted. The adapter already retries
// interruptions; a failure here can only be transient.
inline void lock_until_taken(sem_t *lock) {
    while (DNS_Lock(lock) != DNS_OK) {
    }
}

class named_sem_section {
public:
    // Opens and waits. A failed wait is not fatal (work goes on), a failed
    // open is: check open_result().
    named_sem_section() {
        open_ret_ = DNS_SemOpen(&handle_);
        if (open_ret_ == 0) {
            (void)DNS_SemWait(&handle_);
        }
    }
    ~named_sem_section() { release(); }
    named_sem_section(const named_sem_section &) = delete;
    named_sem_section &operator=(const named_sem_section &) = delete;

    uint32_t open_result() const { return open_ret_; }
    bool is_open() const { return open_ret_ == 0; }

    // Posts and closes now (idempotent).
    void release() {
        if (open_ret_ == 0 && handle_ != nullptr) {
            (void)DNS_SemPost(&handle_);
            (void)DNS_SemClose(&handle_);
            handle_ = nullptr;
        }
    }

private:
    void *handle_ = nullptr;
    uint32_t open_ret_ = 0;
};

} // namespace vekdns
