#include "support/dns_server.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace vekdns::test {
namespace {

void put16(bytes &out, uint16_t v) {
    out.push_back(static_cast<uint8_t>(v >> 8));
    out.push_back(static_cast<uint8_t>(v));
}

bytes address(int family, const std::string &text) {
    bytes out(family == AF_INET ? 4 : 16);
    if (inet_pton(family, text.c_str(), out.data()) != 1) {
        throw std::invalid_argument("not an address: " + text);
    }
    return out;
}

} // namespace

parsed_query parse_query(std::span<const uint8_t> d) {
    parsed_query q;
    q.raw.assign(d.begin(), d.end());
    if (d.size() < 12) {
        return q;
    }
    q.id = static_cast<uint16_t>(d[0] << 8 | d[1]);
    q.flags = static_cast<uint16_t>(d[2] << 8 | d[3]);
    size_t off = 12;
    while (off < d.size() && d[off] != 0 && d[off] < 64 && off + 1 + d[off] < d.size()) {
        q.qname.append(q.qname.empty() ? 0 : 1, '.')
            .append(d.begin() + off + 1, d.begin() + off + 1 + d[off]);
        off += 1 + d[off];
    }
    if (off + 5 > d.size() || d[off] != 0) {
        return q;
    }
    q.qtype = static_cast<uint16_t>(d[off + 1] << 8 | d[off + 2]);
    q.ok = true;
    return q;
}

msg msg::reply_to(const parsed_query &q) {
    msg m;
    m.id_ = q.id;
    m.flags_ = static_cast<uint16_t>(0x8080 | (q.flags & 0x0100));
    m.question_ = true;
    m.qname_ = q.qname;
    m.qtype_ = q.qtype;
    return m;
}

msg msg::query(uint16_t id, const std::string &name, uint16_t type) {
    msg m = reply_to(parsed_query{true, id, 0x0100, type, name, {}});
    m.flags_ = 0x0100;
    return m;
}

msg &msg::answer_raw(const std::string &name, uint16_t type, uint32_t ttl, test::bytes rdata) {
    answers_.push_back({name, type, ttl, std::move(rdata), ""});
    return *this;
}
msg &msg::answer_a(const std::string &name, const std::string &ip, uint32_t ttl) {
    return answer_raw(name, qtype::a, ttl, address(AF_INET, ip));
}
msg &msg::answer_aaaa(const std::string &name, const std::string &ip, uint32_t ttl) {
    return answer_raw(name, qtype::aaaa, ttl, address(AF_INET6, ip));
}
msg &msg::answer_cname(const std::string &name, const std::string &target, uint32_t ttl) {
    answers_.push_back({name, qtype::cname, ttl, {}, target});
    return *this;
}

msg &msg::answer_srv(const std::string &name, uint16_t prio, uint16_t weight, uint16_t port,
                     const std::string &target, uint32_t ttl) {
    test::bytes head;
    for (uint16_t v : {prio, weight, port}) {
        put16(head, v);
    }
    answers_.push_back({name, qtype::srv, ttl, std::move(head), target});
    return *this;
}
msg &msg::additional_a(const std::string &name, const std::string &ip, uint32_t ttl) {
    additional_.push_back({name, qtype::a, ttl, address(AF_INET, ip), ""});
    return *this;
}
msg &msg::additional_aaaa(const std::string &name, const std::string &ip, uint32_t ttl) {
    additional_.push_back({name, qtype::aaaa, ttl, address(AF_INET6, ip), ""});
    return *this;
}

msg &msg::additional_raw(const std::string &name, uint16_t type, uint32_t ttl, test::bytes rdata) {
    additional_.push_back({name, type, ttl, std::move(rdata), ""});
    return *this;
}

test::bytes msg::name(const std::string &n, bool may_point) const {
    if (may_point && compress_ && question_ && n == qname_) {
        return {0xC0, 12};
    }
    test::bytes out;
    for (size_t start = 0; start < n.size();) {
        size_t dot = n.find('.', start);
        dot = dot == std::string::npos ? n.size() : dot;
        out.push_back(static_cast<uint8_t>(dot - start));
        out.insert(out.end(), n.begin() + static_cast<long>(start), n.begin() + static_cast<long>(dot));
        start = dot + 1;
    }
    out.push_back(0);
    return out;
}

test::bytes msg::bytes() const {
    test::bytes out;
    for (uint16_t v : {id_, flags_, static_cast<uint16_t>(question_ ? 1 : 0),
                       static_cast<uint16_t>(an_ >= 0 ? an_ : static_cast<int>(answers_.size())), uint16_t{0},
                       static_cast<uint16_t>(additional_.size())}) {
        put16(out, v);
    }
    if (question_) {
        const test::bytes qn = name(qname_, false);
        out.insert(out.end(), qn.begin(), qn.end());
        put16(out, qtype_);
        put16(out, 1);
    }
    for (const record &r : answers_) {
        records(out, r);
    }
    for (const record &r : additional_) {
        records(out, r);
    }
    out.insert(out.end(), trailing_.begin(), trailing_.end());
    return out;
}

void msg::records(test::bytes &out, const record &r) const {
    const test::bytes owner = name(r.name),
                      target = r.type == qtype::cname || r.type == qtype::srv ? name(r.rdata_name) : test::bytes{};
    test::bytes data = r.rdata;
    data.insert(data.end(), target.begin(), target.end());
    out.insert(out.end(), owner.begin(), owner.end());
    put16(out, r.type);
    put16(out, 1);
    put16(out, static_cast<uint16_t>(r.ttl >> 16));
    put16(out, static_cast<uint16_t>(r.ttl));
    put16(out, static_cast<uint16_t>(data.size()));
    out.insert(out.end(), data.begin(), data.end());
}

scripted_server::scripted_server(const std::string &addr) {
    sockaddr_in6 v6{AF_INET6, htons(53), 0, {}, 0};
    sockaddr_in v4{AF_INET, htons(53), {}, {}};
    const bool is_v6 = addr.find(':') != std::string::npos;
    sock_ = socket(is_v6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    wake_ = eventfd(0, EFD_CLOEXEC);
    if (sock_ < 0 || wake_ < 0 ||
        inet_pton(is_v6 ? AF_INET6 : AF_INET, addr.c_str(), is_v6 ? (void *)&v6.sin6_addr : &v4.sin_addr) !=
            1 ||
        (is_v6 ? bind(sock_, reinterpret_cast<sockaddr *>(&v6), sizeof v6)
               : bind(sock_, reinterpret_cast<sockaddr *>(&v4), sizeof v4)) != 0) {
        throw std::runtime_error("scripted_server: cannot bind " + addr + ": " + std::strerror(errno));
    }
    thread_ = std::thread([this] { run(); });
}

scripted_server::~scripted_server() {
    const uint64_t one = 1;
    (void)!write(wake_, &one, sizeof one);
    thread_.join();
    close(wake_);
    close(sock_);
}

void scripted_server::run() {
    using steady = std::chrono::steady_clock;
    struct pending {
        steady::time_point due;
        sockaddr_storage peer;
        socklen_t peer_len;
        std::vector<bytes> datagrams;
    };
    std::vector<pending> later;
    std::vector<uint8_t> buf(65536);
    for (;;) {
        long long wait_ms = -1; // until the next delayed reply is due
        for (const pending &p : later) {
            const long long ms = std::max<long long>(
                0, std::chrono::ceil<std::chrono::milliseconds>(p.due - steady::now()).count());
            wait_ms = wait_ms < 0 ? ms : std::min(wait_ms, ms);
        }
        pollfd fds[2] = {{sock_, POLLIN, 0}, {wake_, POLLIN, 0}};
        if (poll(fds, 2, static_cast<int>(wait_ms)) < 0 || fds[1].revents != 0) {
            return;
        }
        for (auto it = later.begin(); it != later.end();) {
            if (it->due > steady::now()) {
                ++it;
                continue;
            }
            for (const bytes &d : it->datagrams) {
                (void)sendto(sock_, d.data(), d.size(), 0, reinterpret_cast<sockaddr *>(&it->peer),
                             it->peer_len);
            }
            it = later.erase(it);
        }
        if (fds[0].revents == 0) {
            continue;
        }
        pending p{};
        p.peer_len = sizeof p.peer;
        const ssize_t n =
            recvfrom(sock_, buf.data(), buf.size(), 0, reinterpret_cast<sockaddr *>(&p.peer), &p.peer_len);
        if (n < 0) {
            continue;
        }
        const parsed_query q = parse_query({buf.data(), static_cast<size_t>(n)});
        query_handler h;
        {
            std::lock_guard lock(mu_);
            queries_.push_back(q);
            h = handler_;
        }
        arrived_.notify_all();
        reply r = h ? h(q) : table_reply(q);
        p.due = steady::now() + r.delay;
        p.datagrams = std::move(r.datagrams);
        later.push_back(std::move(p));
    }
}

void scripted_server::answer_a(const std::string &name, const std::vector<std::string> &ips, uint32_t ttl) {
    std::lock_guard lock(mu_);
    for (const std::string &ip : ips) {
        table_[{name, qtype::a}].emplace_back(ip, ttl);
    }
}
void scripted_server::answer_aaaa(const std::string &name, const std::vector<std::string> &ips,
                                  uint32_t ttl) {
    std::lock_guard lock(mu_);
    for (const std::string &ip : ips) {
        table_[{name, qtype::aaaa}].emplace_back(ip, ttl);
    }
}
void scripted_server::answer_srv(const std::string &name, const std::vector<srv_target> &targets,
                                 uint32_t ttl) {
    std::lock_guard lock(mu_);
    for (const srv_target &t : targets) {
        srv_[name].emplace_back(t, ttl);
    }
}
void scripted_server::on_query(std::function<reply(const parsed_query &)> h) {
    std::lock_guard lock(mu_);
    handler_ = std::move(h);
}

reply scripted_server::table_reply(const parsed_query &q) const {
    if (!q.ok) {
        return {};
    }
    std::lock_guard lock(mu_);
    msg m = msg::reply_to(q);
    const auto asked = table_.find({q.qname, q.qtype});
    for (const auto &[ip, ttl] : asked != table_.end() ? asked->second : decltype(asked->second){}) {
        q.qtype == qtype::a ? m.answer_a(q.qname, ip, ttl) : m.answer_aaaa(q.qname, ip, ttl);
    }
    const auto srv = srv_.find(q.qname);
    for (const auto &[t, ttl] :
         q.qtype == qtype::srv && srv != srv_.end() ? srv->second : decltype(srv->second){}) {
        m.answer_srv(q.qname, t.priority, t.weight, t.port, t.target, ttl);
        for (uint16_t type : {qtype::a, qtype::aaaa}) {
            const auto glue = table_.find({t.target, type});
            for (const auto &[ip, glue_ttl] :
                 glue != table_.end() ? glue->second : decltype(glue->second){}) {
                type == qtype::a ? m.additional_a(t.target, ip, glue_ttl)
                                 : m.additional_aaaa(t.target, ip, glue_ttl);
            }
        }
    }
    const bool known =
        table_.contains({q.qname, qtype::a}) || table_.contains({q.qname, qtype::aaaa}) || srv != srv_.end();
    return known ? m : m.rcode(3);
}

std::vector<parsed_query> scripted_server::queries() const {
    std::lock_guard lock(mu_);
    return queries_;
}
bool scripted_server::wait_for_queries(size_t n, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mu_);
    return arrived_.wait_for(lock, timeout, [&] { return queries_.size() >= n; });
}
std::vector<std::string> scripted_server::asked() {
    std::vector<std::string> out;
    for (const parsed_query &q : queries()) {
        out.push_back(q.qname + (q.qtype == qtype::a      ? " A"
                                 : q.qtype == qtype::aaaa ? " AAAA"
                                 : q.qtype == qtype::srv  ? " SRV"
                                                          : " ?"));
    }
    std::lock_guard lock(mu_);
    queries_.clear();
    return out;
}

} // namespace vekdns::test
