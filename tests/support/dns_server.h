// A scripted DNS server for tests and benchmarks: one UDP socket on a
// loopback address, one receive thread, and a reply for every query chosen by
// the test.
//
//   scripted_server srv("127.0.0.1");           // port 53; "::1" works too
//   srv.answer_a("a.example", {"1.2.3.4"}, 300); // table: name + type -> records
//   srv.on_query([](const parsed_query &q) -> reply {
//       return msg::reply_to(q).answer_a(q.qname, "1.2.3.4", 60);
//   });
//   ... run the code under test ...
//   EXPECT_EQ(srv.query_count(), 1u);
//
// Only the C++ standard library and POSIX are used (no library code).
#pragma once

#include "support/message_builder.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace vekdns::test {

// What the server sends back for one query: nothing (silence), or one or
// more datagrams, sent in order after an optional delay. A delayed reply
// does not hold up other queries.
struct reply {
    std::vector<bytes> datagrams;
    std::chrono::milliseconds delay{0};

    reply() = default;                                    // silence
    reply(bytes datagram) { datagrams.push_back(std::move(datagram)); }
    reply(const msg &m) : reply(m.bytes()) {}
    static reply silence() { return {}; }

    reply &then(bytes datagram) { datagrams.push_back(std::move(datagram)); return *this; }
    reply &then(const msg &m) { return then(m.bytes()); }
    reply &after(std::chrono::milliseconds d) { delay = d; return *this; }
};

using query_handler = std::function<reply(const parsed_query &)>;

struct srv_target {
    uint16_t priority = 0;
    uint16_t weight = 0;
    uint16_t port = 0;
    std::string target;
};

class scripted_server {
public:
    // Binds address:port (numeric IPv4 or IPv6; port 0 picks a free port) and
    // starts answering. Throws std::runtime_error when it cannot bind.
    explicit scripted_server(const std::string &address = "127.0.0.1", uint16_t port = 53);
    ~scripted_server(); // stops and joins the thread; unsent delayed replies are dropped
    scripted_server(const scripted_server &) = delete;
    scripted_server &operator=(const scripted_server &) = delete;

    const std::string &address() const { return address_; }
    uint16_t port() const { return port_; }
    int family() const { return family_; } // AF_INET or AF_INET6

    // Replaces the reply table by `h` (nullptr: back to the table). `h` runs
    // on the server thread, also for malformed queries (q.ok == false).
    void on_query(query_handler h);

    // ---- reply table ----
    // Records for a (name, type) question; names compare ignoring case and a
    // trailing dot. A question for an unknown name gets `unknown_rcode`
    // (NXDOMAIN by default); a known name without records of the asked type
    // gets NOERROR with no answers; a name with a CNAME gets the CNAME and
    // then the records of its target.
    void add_answer(const std::string &name, uint16_t type, rr record);
    void add_additional(const std::string &name, uint16_t type, rr record);
    void answer_a(const std::string &name, const std::vector<std::string> &ips, uint32_t ttl = 300);
    void answer_aaaa(const std::string &name, const std::vector<std::string> &ips, uint32_t ttl = 300);
    void answer_cname(const std::string &name, const std::string &target, uint32_t ttl = 300);
    // SRV answers; each target's A/AAAA records already in the table are
    // added to the additional section.
    void answer_srv(const std::string &name, const std::vector<srv_target> &targets, uint32_t ttl = 300);
    void answer_rcode(const std::string &name, uint8_t rc); // every question for `name`
    void unknown_rcode(uint8_t rc);
    void clear_table();
    // The reply the table gives to `q` (silence for a malformed query);
    // handlers can start from it.
    reply table_reply(const parsed_query &q) const;

    // ---- what was received ----
    // Off: queries are only counted, not kept (long benchmark runs).
    void keep_queries(bool on);
    std::vector<parsed_query> queries() const;
    size_t query_count() const;
    // Waits until at least `n` queries have arrived.
    bool wait_for_queries(size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    void clear_queries();
    // Handler exceptions are caught (the query gets no reply) and counted.
    size_t handler_errors() const;

private:
    struct entry {
        std::vector<rr> answers;
        std::vector<rr> additional;
    };
    struct alias {
        std::string owner;
        std::string target;
        uint32_t ttl;
    };
    struct pending;

    void run();
    void handle(const uint8_t *data, size_t len, const void *peer, unsigned peer_len,
                std::vector<pending> &queue);

    std::string address_;
    uint16_t port_ = 0;
    int family_ = 0;
    int sock_ = -1;
    int wake_ = -1; // eventfd that stops the thread

    mutable std::mutex mu_;
    mutable std::condition_variable arrived_;
    query_handler handler_;
    std::map<std::pair<std::string, uint16_t>, entry> table_;
    std::map<std::string, alias> cnames_;
    std::map<std::string, uint8_t> rcodes_;
    uint8_t unknown_rcode_ = rcode::nxdomain;
    std::vector<parsed_query> queries_;
    size_t query_count_ = 0;
    bool keep_queries_ = true;
    size_t handler_errors_ = 0;

    std::thread thread_;
};

} // namespace vekdns::test
