// A scripted DNS server on a loopback address (port 53, one thread) and a
// small builder of DNS messages. The table answers A, AAAA and SRV by name;
// on_query() takes over with any bytes, or silence (reply()).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

namespace vekdns::test {

using bytes = std::vector<uint8_t>;
namespace qtype {
constexpr uint16_t a = 1, cname = 5, txt = 16, aaaa = 28, srv = 33, opt = 41;
}

struct parsed_query {
    bool ok = false; // header and first question complete
    uint16_t id = 0, flags = 0, qtype = 0;
    std::string qname; // dotted, no trailing dot
    bytes raw;
};
parsed_query parse_query(std::span<const uint8_t> datagram);

// A message as written: the answer count follows the records unless set;
// names equal to the question's become pointers to it when compressed.
class msg {
public:
    static msg reply_to(const parsed_query &q);                            // id, QR RD RA, the question
    static msg query(uint16_t id, const std::string &name, uint16_t type); // RD, one question
    msg &flags(uint16_t v) { return set(flags_, v); }
    msg &rcode(uint8_t v) { return set(flags_, static_cast<uint16_t>((flags_ & ~0xF) | v)); }
    msg &ancount(uint16_t n) { return set(an_, n); }
    msg &compress() { return set(compress_, true); }
    msg &tc() { return flags(flags_ | 0x0200); }
    msg &answer_raw(const std::string &name, uint16_t type, uint32_t ttl, test::bytes rdata);
    msg &answer_a(const std::string &name, const std::string &ip, uint32_t ttl);
    msg &answer_aaaa(const std::string &name, const std::string &ip, uint32_t ttl);
    msg &answer_cname(const std::string &name, const std::string &target, uint32_t ttl);
    msg &answer_srv(const std::string &name, uint16_t prio, uint16_t weight, uint16_t port,
                    const std::string &target, uint32_t ttl);
    msg &additional_a(const std::string &name, const std::string &ip, uint32_t ttl);
    msg &additional_aaaa(const std::string &name, const std::string &ip, uint32_t ttl);
    msg &additional_raw(const std::string &name, uint16_t type, uint32_t ttl, test::bytes rdata);
    msg &trailing(test::bytes raw) { return set(trailing_, std::move(raw)); } // after the records
    test::bytes bytes() const;

private:
    template <typename T, typename V> msg &set(T &field, V v) {
        field = v;
        return *this;
    }
    struct record {
        std::string name;
        uint16_t type;
        uint32_t ttl;
        test::bytes rdata;
        std::string rdata_name; // CNAME/SRV target, written as a name after rdata
    };
    test::bytes name(const std::string &n, bool may_point = true) const;
    void records(test::bytes &out, const record &r) const;
    uint16_t id_ = 0, flags_ = 0, qtype_ = 0;
    std::string qname_;
    bool question_ = false, compress_ = false;
    int an_ = -1;
    std::vector<record> answers_, additional_;
    test::bytes trailing_;
};

// Datagrams sent in order (none: silence), after an optional delay that does
// not hold up other queries.
struct reply {
    std::vector<bytes> datagrams;
    std::chrono::milliseconds delay{0};
    reply() = default;
    reply(bytes b) { datagrams.push_back(std::move(b)); }
    reply(const msg &m) : reply(m.bytes()) {}
    reply &then(bytes b) { return datagrams.push_back(std::move(b)), *this; }
    reply &after(std::chrono::milliseconds d) { return delay = d, *this; }
};
using query_handler = std::function<reply(const parsed_query &)>;
struct srv_target {
    uint16_t priority = 0, weight = 0, port = 0;
    std::string target;
};

class scripted_server {
public:
    explicit scripted_server(const std::string &address = "127.0.0.1"); // throws when it cannot bind
    ~scripted_server();
    scripted_server(const scripted_server &) = delete;
    scripted_server &operator=(const scripted_server &) = delete;

    void answer_a(const std::string &name, const std::vector<std::string> &ips, uint32_t ttl = 300);
    void answer_aaaa(const std::string &name, const std::vector<std::string> &ips, uint32_t ttl = 300);
    // SRV answers; the targets' A/AAAA from the table go along as additional records.
    void answer_srv(const std::string &name, const std::vector<srv_target> &targets, uint32_t ttl = 300);
    // Unknown names get NXDOMAIN; known names without the type, no answer.
    reply table_reply(const parsed_query &q) const;
    void on_query(std::function<reply(const parsed_query &)> h);

    std::vector<parsed_query> queries() const;
    bool wait_for_queries(size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    // The questions received as "name TYPE", forgotten afterwards.
    std::vector<std::string> asked();

private:
    void run();
    int sock_ = -1, wake_ = -1;
    mutable std::mutex mu_;
    mutable std::condition_variable arrived_;
    std::function<reply(const parsed_query &)> handler_;
    std::map<std::pair<std::string, uint16_t>, std::vector<std::pair<std::string, uint32_t>>> table_;
    std::map<std::string, std::vector<std::pair<srv_target, uint32_t>>> srv_;
    std::vector<parsed_query> queries_;
    std::thread thread_;
};

} // namespace vekdns::test
