// Named semaphores with their mappings kept open between uses.
#pragma once

#include <semaphore.h>
#include <sys/types.h>

namespace vekdns::pal {

// Like sem_open, but a semaphore that is still what the name refers to is
// handed out again from the mapping kept by an earlier open.
sem_t *named_sem_open(const char *name, int flags, mode_t mode, unsigned value);
// Releases one handle from named_sem_open; 0 or -1 like sem_close.
int named_sem_close(sem_t *sem);

} // namespace vekdns::pal
