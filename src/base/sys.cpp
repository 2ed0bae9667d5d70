// Direct system calls, each behind a fault switch for tests.
#include "base/sys.h"

#include <cerrno>
#include <sys/stat.h>

#include "os_adapter/test_hooks.h"

namespace vekdns::sys {

using pal_test::op;
using pal_test::should_fail;

int socket(int domain, int type, int protocol) {
    if (should_fail(op::socket)) {
        errno = EMFILE;
        return -1;
    }
    return ::socket(domain, type, protocol);
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

} // namespace vekdns::sys
