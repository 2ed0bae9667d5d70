// Direct system calls, each behind a fault switch for tests.
#include "base/sys.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "os_adapter/test_hooks.h"

namespace vekdns::sys {

using pal_test::op;
using pal_test::should_fail;

int socket(int domain, int type, int protocol) {
    if (should_fail(op::socket)) {
        errno = EMFILE;
        return -1;
    }
    // Never inherited by a program the application starts.
    return ::socket(domain, type | SOCK_CLOEXEC, protocol);
}

int connect(int fd, const struct sockaddr *addr, socklen_t len) {
    if (should_fail(op::connect)) {
        errno = ENETUNREACH;
        return -1;
    }
    return ::connect(fd, addr, len);
}

ssize_t send(int fd, const void *buf, size_t len, int flags) {
    if (should_fail(op::send)) {
        errno = EIO;
        return -1;
    }
    return ::send(fd, buf, len, flags | MSG_NOSIGNAL);
}

ssize_t recv(int fd, void *buf, size_t len, int flags) {
    if (should_fail(op::recv)) {
        errno = EIO;
        return -1;
    }
    return ::recv(fd, buf, len, flags);
}

int select(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds, struct timeval *timeout) {
    if (should_fail(op::select)) {
        errno = EINTR;
        return -1;
    }
    return ::select(nfds, readfds, writefds, exceptfds, timeout);
}

int chmod(const char *path, mode_t mode) {
    if (should_fail(op::chmod)) {
        errno = EPERM;
        return -1;
    }
    return ::chmod(path, mode);
}

FILE *create_exclusive(const char *path) {
    if (pal_test::should_fail_fopen(path)) {
        errno = ENOSPC;
        return nullptr;
    }
    int fd = ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        return nullptr;
    }
    FILE *file = ::fdopen(fd, "w");
    if (file == nullptr) {
        (void)::close(fd);
        (void)::unlink(path);
    }
    return file;
}

// Each of these reports ENOSPC or EIO when a test makes it fail.
#define VEK_SYS_CALL(name, fault_errno, call) \
    if (should_fail(op::name)) {              \
        errno = fault_errno;                  \
        return -1;                            \
    }                                         \
    return call

int fflush(FILE *file) { VEK_SYS_CALL(fflush, ENOSPC, ::fflush(file)); }
int fsync(int fd) { VEK_SYS_CALL(fsync, EIO, ::fsync(fd)); }
int fchmod(int fd, mode_t mode) { VEK_SYS_CALL(fchmod, EPERM, ::fchmod(fd, mode)); }
int fchown(int fd, uid_t uid, gid_t gid) { VEK_SYS_CALL(fchown, EPERM, ::fchown(fd, uid, gid)); }
int ftruncate(int fd, off_t length) { VEK_SYS_CALL(ftruncate, EIO, ::ftruncate(fd, length)); }
int rename(const char *from, const char *to) { VEK_SYS_CALL(rename, EIO, ::rename(from, to)); }

#undef VEK_SYS_CALL

} // namespace vekdns::sys
