// Named semaphores with their mappings kept open between uses.
#pragma once

#include <semaphore.h>
#include <sys/types.h>

namespace vekdns::pal {

// Like sem_open, but a semaphore that is still what the name refers to is
// handed out again from the mapping kept by an earlier open.
sem_t *named_sem_open(const char *name, int flags, mode_t mode, unsigned value);
// Releases one handle from named_sem_open (and what a wait moved it to in
// this thread); 0 or -1 like sem_close.
int named_sem_close(sem_t *sem);
// sem_unlink, after marking the object so that its users follow the name.
int named_sem_unlink(const char *name);

// Waits on a semaphore, named or not, in bounded slices. Between slices a
// named one is checked against its name: when the name now refers to another
// semaphore (removed, maybe created anew, while its holder is dead), the
// wait moves over to that one, and this thread's post and close of the handle
// go to it from then on. 0, or -1 with errno like sem_wait.
int sem_wait_sliced(sem_t *sem);
// The semaphore a post of `handle` reaches in this thread.
sem_t *posted_sem(sem_t *handle);

} // namespace vekdns::pal
