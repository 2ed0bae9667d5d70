// The TCP side of a scripted server: listens on address:53 and answers each
// length-prefixed query with what `handler` returns, framed the same way.
// A reply's delay holds the connection; silence keeps it open until the
// listener stops. One connection at a time.
#pragma once

#include <thread>

#include "support/dns_server.h"

namespace vekdns::test {

struct tcp_options {
    bool close_after_prefix = false; // send the length prefix only, then close
    bool split = false;              // send each message in three pauses
};

class tcp_listener {
public:
    tcp_listener(const std::string &address, query_handler handler, tcp_options options = {});
    ~tcp_listener();
    tcp_listener(const tcp_listener &) = delete;
    tcp_listener &operator=(const tcp_listener &) = delete;

private:
    void run();
    void serve(int conn);
    bool pause(int ms); // false when stopping

    query_handler handler_;
    tcp_options options_;
    int listen_ = -1;
    int wake_ = -1;
    std::thread thread_;
};

} // namespace vekdns::test
