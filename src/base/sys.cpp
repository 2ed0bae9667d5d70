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

// The call, or -1 with `fault_errno` when a test makes `o` fail.
template <typename Call> int unless_failed(op o, int fault_errno, Call call) {
    if (should_fail(o)) {
        errno = fault_errno;
        return -1;
    }
    return call();
}

int fflush(FILE *file) {
    return unless_failed(op::fflush, ENOSPC, [&] { return ::fflush(file); });
}
int fsync(int fd) {
    return unless_failed(op::fsync, EIO, [&] { return ::fsync(fd); });
}
int fchmod(int fd, mode_t mode) {
    return unless_failed(op::fchmod, EPERM, [&] { return ::fchmod(fd, mode); });
}
int fchown(int fd, uid_t uid, gid_t gid) {
    return unless_failed(op::fchown, EPERM, [&] { return ::fchown(fd, uid, gid); });
}
int ftruncate(int fd, off_t length) {
    return unless_failed(op::ftruncate, EIO, [&] { return ::ftruncate(fd, length); });
}
int rename(const char *from, const char *to) {
    return unless_failed(op::rename, EIO, [&] { return ::rename(from, to); });
}

} // namespace vekdns::sys
