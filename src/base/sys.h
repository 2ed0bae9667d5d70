// The few system calls the library makes directly (sockets, chmod), routed
// through one place so tests can make any of them fail on demand.
#pragma once

#include <sys/select.h>
#include <sys/socket.h>
#include <sys/types.h>

namespace vekdns::sys {

int socket(int domain, int type, int protocol);
int connect(int fd, const struct sockaddr *addr, socklen_t len);
ssize_t send(int fd, const void *buf, size_t len, int flags);
ssize_t recv(int fd, void *buf, size_t len, int flags);
int select(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds, struct timeval *timeout);
int chmod(const char *path, mode_t mode);

} // namespace vekdns::sys
