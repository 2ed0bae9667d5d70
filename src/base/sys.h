// The few system calls the library makes directly (sockets, file commits),
// routed through one place so tests can make any of them fail on demand.
#pragma once

#include <sys/select.h>
#include <sys/socket.h>
#include <cstdio>
#include <sys/types.h>

namespace vekdns::sys {

int socket(int domain, int type, int protocol);
int connect(int fd, const struct sockaddr *addr, socklen_t len);
ssize_t send(int fd, const void *buf, size_t len, int flags);
ssize_t recv(int fd, void *buf, size_t len, int flags);
int select(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds, struct timeval *timeout);
int chmod(const char *path, mode_t mode);
// A new file opened for writing: O_CREAT|O_EXCL|O_NOFOLLOW|O_CLOEXEC, mode
// 0600; nullptr when the entry exists (a link included) or cannot be made.
FILE *create_exclusive(const char *path);
int fflush(FILE *file);
int fsync(int fd);
int fchmod(int fd, mode_t mode);
int fchown(int fd, uid_t uid, gid_t gid);
int ftruncate(int fd, off_t length);
int rename(const char *from, const char *to);

} // namespace vekdns::sys
