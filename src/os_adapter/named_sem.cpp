// Opening a named semaphore costs a file open, a stat, a map and an unmap on
// close. Callers open and close around every short critical section, so the
// adapter keeps the mapping of the semaphore a name currently refers to and
// hands it out again while the name still refers to the same object.
//
// How an open knows that without a system call: removing a semaphore through
// the adapter (PAL_SemUnLink, in this or any other process) first marks the
// object as retired, in bytes of the semaphore object that the C library
// leaves unused (see retire_mark below). Every process that maps the object
// sees the mark at once. A marked mapping, or one whose name was last checked
// more than recheck_ns ago (a semaphore removed by other means), costs one
// stat of the name: a new inode means a new semaphore, which the open maps,
// and idle mappings of the old one are closed.
#include "os_adapter/named_sem.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <pthread.h>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "os_adapter/test_hooks.h"

namespace vekdns::pal {
namespace {

struct mapping {
    std::string name;
    dev_t dev;
    ino_t ino;
    sem_t *sem;
    unsigned users;
    int flags; // what it was opened with, to follow the name to a new one
    mode_t mode;
    unsigned value;
    int64_t checked_ns; // monotonic time the name was last seen to refer to it
};

// The C library's semaphore is a 32-byte object of which it uses the first
// 16 (a 64-bit counter word and a private flag, padding cleared on creation);
// the last 8 bytes carry the retired mark. Only the adapter writes there,
// once, just before it removes the name.
constexpr uint64_t retired_magic = 0x5645'4b52'4554'4952ULL; // "VEKRETIR"
constexpr std::size_t retire_mark_offset = sizeof(sem_t) - sizeof(uint64_t);
static_assert(sizeof(sem_t) == 32 && retire_mark_offset >= 16, "semaphore layout");

uint64_t *retire_mark(sem_t *sem) {
    return reinterpret_cast<uint64_t *>(reinterpret_cast<unsigned char *>(sem) + retire_mark_offset);
}

bool is_retired(sem_t *sem) { return __atomic_load_n(retire_mark(sem), __ATOMIC_ACQUIRE) == retired_magic; }

// A name removed by other means than the adapter is noticed within this.
constexpr int64_t recheck_ns = 1'000'000'000;

int64_t monotonic_ns() {
    timespec t{};
    (void)clock_gettime(CLOCK_MONOTONIC, &t);
    return int64_t{t.tv_sec} * 1'000'000'000 + t.tv_nsec;
}

// Process-wide and never destroyed: a thread still running at exit (or
// after the library was unloaded) never meets a destroyed table.
std::mutex &g_mutex = *new std::mutex;
std::vector<mapping> &g_mappings = *new std::vector<mapping>; // guarded by g_mutex; a handful at most

// A wait of this thread that moved from a handle to the semaphore its name
// refers to now.
thread_local sem_t *t_moved_from = nullptr;
thread_local sem_t *t_moved_to = nullptr;

constexpr long wait_slice_ns = 250'000'000;

// A child forked while another thread held the mutex must not inherit it locked.
const int g_atfork = pthread_atfork([] { g_mutex.lock(); }, [] { g_mutex.unlock(); },
                                    [] { g_mutex.unlock(); });

// glibc keeps named semaphores as /dev/shm/sem.<name>.
std::string object_path(const char *name) {
    return std::string("/dev/shm/sem.") + (name[0] == '/' ? name + 1 : name);
}

bool identify(const char *name, struct stat *st) {
    return stat(object_path(name).c_str(), st) == 0;
}

// sem_open, but a semaphore this call creates gets `mode` itself: the
// creator's umask would otherwise lock other users out.
sem_t *open_with_mode(const char *name, int flags, mode_t mode, unsigned value) {
    if ((flags & O_CREAT) == 0) {
        return sem_open(name, flags);
    }
    for (int attempt = 0; attempt < 8; ++attempt) {
        sem_t *sem = sem_open(name, flags & ~O_CREAT);
        if (sem != SEM_FAILED || errno != ENOENT) {
            return sem;
        }
        sem = sem_open(name, flags | O_EXCL, mode, value);
        if (sem != SEM_FAILED) {
            const std::string path = object_path(name);
            if (!pal_test::should_fail(pal_test::op::fchmod)) {
                (void)chmod(path.c_str(), mode);
            }
            return sem;
        }
        if (errno != EEXIST) { // EEXIST: made meanwhile by another, open that one
            return SEM_FAILED;
        }
    }
    return SEM_FAILED;
}

} // namespace

sem_t *named_sem_open(const char *name, int flags, mode_t mode, unsigned value) {
    std::lock_guard<std::mutex> lock(g_mutex);
    const int64_t now = monotonic_ns();
    for (mapping &m : g_mappings) {
        if (m.name == name && m.ino != 0 && now - m.checked_ns < recheck_ns && !is_retired(m.sem)) {
            ++m.users;
            return m.sem;
        }
    }
    struct stat st {};
    if (identify(name, &st)) {
        for (mapping &m : g_mappings) {
            if (m.name == name && m.dev == st.st_dev && m.ino == st.st_ino) {
                m.checked_ns = now;
                ++m.users;
                return m.sem;
            }
        }
    }
    // The name refers to something else now: drop idle mappings of the old one.
    for (std::size_t i = g_mappings.size(); i-- > 0;) {
        if (g_mappings[i].users == 0 && g_mappings[i].name == name) {
            (void)sem_close(g_mappings[i].sem);
            g_mappings.erase(g_mappings.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }
    sem_t *sem = open_with_mode(name, flags, mode, value);
    if (sem == SEM_FAILED) {
        return nullptr;
    }
    if (!identify(name, &st)) {
        // Removed between our open and the stat: usable now, and closed by
        // a later open once idle.
        st.st_dev = 0;
        st.st_ino = 0;
    }
    for (mapping &m : g_mappings) {
        if (m.sem == sem) { // the C library handed back a mapping we hold
            (void)sem_close(sem); // keep one C-library reference per entry
            ++m.users;
            m.dev = st.st_dev;
            m.ino = st.st_ino;
            m.checked_ns = now;
            return sem;
        }
    }
    g_mappings.push_back(mapping{name, st.st_dev, st.st_ino, sem, 1, flags, mode, value, now});
    return sem;
}

int named_sem_unlink(const char *name) {
    if (name == nullptr) {
        errno = EINVAL;
        return -1;
    }
    // Mark the object the name refers to now, then remove the name: every
    // process that maps it follows the name at its next open.
    sem_t *sem = sem_open(name, 0);
    if (sem != SEM_FAILED) {
        __atomic_store_n(retire_mark(sem), retired_magic, __ATOMIC_RELEASE);
        (void)sem_close(sem);
    }
    return sem_unlink(name);
}

namespace {

// When `sem` is a named semaphore whose name now refers to another one (or
// to none), opens that one and returns it; else nullptr.
sem_t *follow_name(sem_t *sem) {
    std::string name;
    int flags = 0;
    mode_t mode = 0;
    unsigned value = 0;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        struct stat st {};
        for (const mapping &m : g_mappings) {
            if (m.sem == sem) {
                if (identify(m.name.c_str(), &st) && st.st_dev == m.dev && st.st_ino == m.ino) {
                    return nullptr;
                }
                name = m.name;
                flags = m.flags;
                mode = m.mode;
                value = m.value;
                break;
            }
        }
    }
    return name.empty() ? nullptr : named_sem_open(name.c_str(), flags, mode, value);
}

} // namespace

int sem_wait_sliced(sem_t *sem) {
    for (;;) {
        struct timespec deadline {};
        (void)clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_nsec += wait_slice_ns;
        if (deadline.tv_nsec >= 1'000'000'000) {
            deadline.tv_nsec -= 1'000'000'000;
            ++deadline.tv_sec;
        }
        if (sem_timedwait(sem, &deadline) == 0) {
            return 0;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != ETIMEDOUT) {
            return -1;
        }
        sem_t *current = follow_name(sem);
        if (current == nullptr) {
            continue;
        }
        if (t_moved_to == sem) { // moved before: let go of the intermediate one
            (void)named_sem_close(sem);
        } else {
            t_moved_from = sem;
        }
        t_moved_to = current;
        sem = current;
    }
}

sem_t *posted_sem(sem_t *handle) { return handle == t_moved_from && t_moved_to != nullptr ? t_moved_to : handle; }

int named_sem_close(sem_t *sem) {
    if (sem == t_moved_from && t_moved_to != nullptr) {
        sem_t *moved_to = t_moved_to;
        t_moved_from = nullptr;
        t_moved_to = nullptr;
        (void)named_sem_close(moved_to);
    }
    // No system call here: an idle mapping of a replaced semaphore is closed
    // by the next open that finds the name pointing elsewhere.
    std::lock_guard<std::mutex> lock(g_mutex);
    for (mapping &m : g_mappings) {
        if (m.sem == sem && m.users > 0) {
            --m.users;
            return 0;
        }
    }
    errno = EINVAL;
    return -1;
}

} // namespace vekdns::pal
