// A one-connection TCP DNS server for the truncated-reply tests.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "support/dns_server.h"

namespace vekdns::test {

// 127.0.0.1:53 on TCP for one connection: the messages `h` gives, framed and
// sent in `pieces` writes (0: the first length prefix only, then close); the
// connection is then held until the client closes it.
struct tcp_once {
    int lfd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::thread t;
    tcp_once(query_handler h, size_t pieces) {
        const int on = 1;
        sockaddr_in a{AF_INET, htons(53), {htonl(INADDR_LOOPBACK)}, {}};
        setsockopt(lfd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        EXPECT_EQ(bind(lfd, reinterpret_cast<sockaddr *>(&a), sizeof a) | listen(lfd, 1), 0);
        t = std::thread([this, h, pieces] {
            const int c = accept(lfd, nullptr, nullptr);
            uint8_t p[2] = {};
            bytes q(recv(c, p, 2, MSG_WAITALL) == 2 ? p[0] << 8 | p[1] : 0);
            const bool asked = c >= 0 && recv(c, q.data(), q.size(), MSG_WAITALL) > 0;
            for (bytes m : (asked ? h(parse_query(q)) : reply()).datagrams) {
                m.insert(m.begin(), {static_cast<uint8_t>(m.size() >> 8), static_cast<uint8_t>(m.size())});
                const size_t n = pieces != 0 ? m.size() : 2, step = n / std::max<size_t>(pieces, 1) + 1;
                for (size_t at = 0; at < n; at += step) {
                    send(c, m.data() + at, std::min(step, n - at), MSG_NOSIGNAL);
                    std::this_thread::sleep_for(std::chrono::milliseconds(pieces > 1 ? 20 : 0)); // separate segments
                }
            }
            while (pieces != 0 && c >= 0 && recv(c, p, 1, 0) > 0) {
            }
            close(c);
        });
    }
    ~tcp_once() {
        shutdown(lfd, SHUT_RDWR); // wakes an accept that no client reached
        t.join();
        close(lfd);
    }
};

} // namespace vekdns::test
