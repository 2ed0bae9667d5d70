#include "support/tcp_listener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace vekdns::test {

tcp_listener::tcp_listener(const std::string &address, query_handler handler, tcp_options options)
    : handler_(std::move(handler)), options_(options) {
    sockaddr_storage addr{};
    auto *v4 = reinterpret_cast<sockaddr_in *>(&addr);
    auto *v6 = reinterpret_cast<sockaddr_in6 *>(&addr);
    socklen_t len = sizeof *v4;
    if (inet_pton(AF_INET, address.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(53);
    } else if (inet_pton(AF_INET6, address.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(53);
        len = sizeof *v6;
    }
    listen_ = socket(addr.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(listen_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (listen_ < 0 || bind(listen_, reinterpret_cast<sockaddr *>(&addr), len) != 0 || listen(listen_, 8) != 0) {
        throw std::runtime_error("tcp_listener: cannot listen on " + address);
    }
    wake_ = eventfd(0, EFD_CLOEXEC);
    thread_ = std::thread([this] { run(); });
}

tcp_listener::~tcp_listener() {
    const uint64_t one = 1;
    (void)!write(wake_, &one, sizeof one);
    thread_.join();
    close(listen_);
    close(wake_);
}

bool tcp_listener::pause(int ms) {
    pollfd p{wake_, POLLIN, 0};
    return poll(&p, 1, ms) == 0;
}

void tcp_listener::run() {
    for (;;) {
        pollfd p[2] = {{wake_, POLLIN, 0}, {listen_, POLLIN, 0}};
        if (poll(p, 2, -1) < 0 || (p[0].revents & POLLIN) != 0) {
            return;
        }
        const int conn = accept4(listen_, nullptr, nullptr, SOCK_CLOEXEC);
        if (conn >= 0) {
            serve(conn);
            close(conn);
        }
    }
}

void tcp_listener::serve(int conn) {
    uint8_t prefix[2];
    if (recv(conn, prefix, 2, MSG_WAITALL) != 2) {
        return;
    }
    bytes query(static_cast<size_t>(prefix[0] << 8 | prefix[1]));
    if (recv(conn, query.data(), query.size(), MSG_WAITALL) != static_cast<ssize_t>(query.size())) {
        return;
    }
    const reply r = handler_(parse_query(query));
    if (!pause(static_cast<int>(r.delay.count())) || r.datagrams.empty()) {
        pause(-1); // silence: hold the connection until the listener stops
        return;
    }
    for (const bytes &m : r.datagrams) {
        bytes framed{static_cast<uint8_t>(m.size() >> 8), static_cast<uint8_t>(m.size())};
        framed.insert(framed.end(), m.begin(), m.end());
        const size_t cut = options_.close_after_prefix ? 2 : framed.size();
        const size_t step = options_.split ? cut / 3 + 1 : cut;
        for (size_t at = 0; at < cut; at += step) {
            (void)!send(conn, framed.data() + at, std::min(step, cut - at), MSG_NOSIGNAL);
            if (options_.split && !pause(30)) {
                return;
            }
        }
        if (options_.close_after_prefix) {
            return;
        }
    }
}

} // namespace vekdns::test
