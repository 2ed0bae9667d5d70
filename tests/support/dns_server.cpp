#include "support/dns_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <stdexcept>

namespace vekdns::test {

namespace {

using steady = std::chrono::steady_clock;

// Table key: lower case, without one trailing dot.
std::string key_of(std::string name) {
    if (!name.empty() && name.back() == '.')
        name.pop_back();
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return name;
}

[[noreturn]] void fail(const std::string &what, const std::string &address, uint16_t port) {
    const std::string reason = std::strerror(errno);
    throw std::runtime_error("scripted_server " + address + " port " + std::to_string(port) +
                             ": " + what + ": " + reason);
}

} // namespace

struct scripted_server::pending {
    steady::time_point due;
    sockaddr_storage peer;
    socklen_t peer_len;
    std::vector<bytes> datagrams;
};

scripted_server::scripted_server(const std::string &address, uint16_t port) : address_(address) {
    sockaddr_storage addr{};
    socklen_t addr_len = 0;
    auto *v4 = reinterpret_cast<sockaddr_in *>(&addr);
    auto *v6 = reinterpret_cast<sockaddr_in6 *>(&addr);
    if (inet_pton(AF_INET, address.c_str(), &v4->sin_addr) == 1) {
        family_ = v4->sin_family = AF_INET;
        v4->sin_port = htons(port);
        addr_len = sizeof *v4;
    } else if (inet_pton(AF_INET6, address.c_str(), &v6->sin6_addr) == 1) {
        family_ = v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(port);
        addr_len = sizeof *v6;
    } else {
        throw std::invalid_argument("scripted_server: not a numeric address: " + address);
    }

    sock_ = ::socket(family_, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sock_ < 0)
        fail("socket", address, port);
    const int one = 1;
    if (family_ == AF_INET6)
        setsockopt(sock_, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one);
    if (::bind(sock_, reinterpret_cast<sockaddr *>(&addr), addr_len) != 0 ||
        getsockname(sock_, reinterpret_cast<sockaddr *>(&addr), &addr_len) != 0) {
        const int saved = errno;
        ::close(sock_);
        errno = saved;
        fail("bind", address, port);
    }
    port_ = ntohs(family_ == AF_INET ? v4->sin_port : v6->sin6_port);

    wake_ = eventfd(0, EFD_CLOEXEC);
    if (wake_ < 0) {
        const int saved = errno;
        ::close(sock_);
        errno = saved;
        fail("eventfd", address, port);
    }
    thread_ = std::thread([this] { run(); });
}

scripted_server::~scripted_server() {
    const uint64_t one = 1;
    if (::write(wake_, &one, sizeof one) != static_cast<ssize_t>(sizeof one))
        std::cerr << "scripted_server: cannot wake the server thread\n";
    thread_.join();
    ::close(wake_);
    ::close(sock_);
}

void scripted_server::run() {
    std::vector<pending> queue;
    std::vector<uint8_t> buf(65536);
    for (;;) {
        // Send what is due, in the order it was queued.
        const auto now = steady::now();
        int timeout = -1;
        for (auto it = queue.begin(); it != queue.end();) {
            if (it->due <= now) {
                for (const auto &d : it->datagrams)
                    ::sendto(sock_, d.data(), d.size(), 0, reinterpret_cast<const sockaddr *>(&it->peer),
                             it->peer_len);
                it = queue.erase(it);
                continue;
            }
            const auto wait = std::chrono::ceil<std::chrono::milliseconds>(it->due - now).count();
            timeout = timeout < 0 ? static_cast<int>(wait) : std::min(timeout, static_cast<int>(wait));
            ++it;
        }

        pollfd fds[2] = {{sock_, POLLIN, 0}, {wake_, POLLIN, 0}};
        const int ready = ::poll(fds, 2, timeout);
        if (ready < 0 && errno != EINTR) {
            std::cerr << "scripted_server: poll: " << std::strerror(errno) << "\n";
            return;
        }
        if (ready <= 0)
            continue;
        if (fds[1].revents != 0)
            return;
        if ((fds[0].revents & POLLIN) == 0)
            continue;
        for (;;) {
            sockaddr_storage peer{};
            socklen_t peer_len = sizeof peer;
            const ssize_t n = ::recvfrom(sock_, buf.data(), buf.size(), MSG_DONTWAIT,
                                         reinterpret_cast<sockaddr *>(&peer), &peer_len);
            if (n < 0)
                break;
            handle(buf.data(), static_cast<size_t>(n), &peer, peer_len, queue);
        }
    }
}

void scripted_server::handle(const uint8_t *data, size_t len, const void *peer, unsigned peer_len,
                             std::vector<pending> &queue) {
    parsed_query q = parse_query({data, len});
    pending p{};
    std::memcpy(&p.peer, peer, std::min<size_t>(peer_len, sizeof p.peer));
    p.peer_len = peer_len;
    q.peer_port = ntohs(p.peer.ss_family == AF_INET
                            ? reinterpret_cast<const sockaddr_in *>(&p.peer)->sin_port
                            : reinterpret_cast<const sockaddr_in6 *>(&p.peer)->sin6_port);

    query_handler h;
    {
        std::lock_guard lock(mu_);
        ++query_count_;
        if (keep_queries_)
            queries_.push_back(q);
        h = handler_;
    }
    arrived_.notify_all();

    reply r;
    try {
        r = h ? h(q) : table_reply(q);
    } catch (const std::exception &e) {
        std::cerr << "scripted_server: query handler threw: " << e.what() << "\n";
        std::lock_guard lock(mu_);
        ++handler_errors_;
        return;
    }
    if (r.datagrams.empty())
        return;
    p.due = steady::now() + r.delay;
    p.datagrams = std::move(r.datagrams);
    queue.push_back(std::move(p));
}

void scripted_server::on_query(query_handler h) {
    std::lock_guard lock(mu_);
    handler_ = std::move(h);
}

// ---- reply table ------------------------------------------------------------

void scripted_server::add_answer(const std::string &name, uint16_t type, rr record) {
    std::lock_guard lock(mu_);
    table_[{key_of(name), type}].answers.push_back(std::move(record));
}

void scripted_server::add_additional(const std::string &name, uint16_t type, rr record) {
    std::lock_guard lock(mu_);
    table_[{key_of(name), type}].additional.push_back(std::move(record));
}

void scripted_server::answer_a(const std::string &name, const std::vector<std::string> &ips, uint32_t ttl) {
    for (const auto &ip : ips)
        add_answer(name, qtype::a, a_record(name, ip, ttl));
}

void scripted_server::answer_aaaa(const std::string &name, const std::vector<std::string> &ips, uint32_t ttl) {
    for (const auto &ip : ips)
        add_answer(name, qtype::aaaa, aaaa_record(name, ip, ttl));
}

void scripted_server::answer_cname(const std::string &name, const std::string &target, uint32_t ttl) {
    std::lock_guard lock(mu_);
    cnames_[key_of(name)] = {name, target, ttl};
}

void scripted_server::answer_srv(const std::string &name, const std::vector<srv_target> &targets,
                                 uint32_t ttl) {
    for (const auto &t : targets)
        add_answer(name, qtype::srv, srv_record(name, t.priority, t.weight, t.port, t.target, ttl));
}

void scripted_server::answer_rcode(const std::string &name, uint8_t rc) {
    std::lock_guard lock(mu_);
    rcodes_[key_of(name)] = rc;
}

void scripted_server::unknown_rcode(uint8_t rc) {
    std::lock_guard lock(mu_);
    unknown_rcode_ = rc;
}

void scripted_server::clear_table() {
    std::lock_guard lock(mu_);
    table_.clear();
    cnames_.clear();
    rcodes_.clear();
    unknown_rcode_ = rcode::nxdomain;
}

reply scripted_server::table_reply(const parsed_query &q) const {
    if (!q.ok)
        return reply::silence();
    std::lock_guard lock(mu_);
    msg m = msg::reply_to(q);
    std::string name = key_of(q.qname);
    bool known = false;
    for (int hops = 0; hops < 8; ++hops) {
        auto c = cnames_.find(name);
        if (c == cnames_.end())
            break;
        m.answer_cname(c->second.owner, c->second.target, c->second.ttl);
        name = key_of(c->second.target);
        known = true;
    }
    if (auto rc = rcodes_.find(name); rc != rcodes_.end())
        return m.rcode(rc->second);

    auto it = table_.find({name, q.qtype});
    if (it != table_.end()) {
        for (const auto &r : it->second.answers)
            m.answer(r);
        for (const auto &r : it->second.additional)
            m.additional(r);
        // Glue: the addresses the table knows for each SRV target.
        if (q.qtype == qtype::srv)
            for (const auto &r : it->second.answers) {
                if (r.type != qtype::srv || r.rdata.size() != 2)
                    continue;
                std::string target;
                for (const auto &label : std::get<dname>(r.rdata[1]).labels())
                    target += (target.empty() ? "" : ".") + label;
                for (uint16_t t : {qtype::a, qtype::aaaa})
                    if (auto g = table_.find({key_of(target), t}); g != table_.end())
                        for (const auto &a : g->second.answers)
                            m.additional(a);
            }
        return m;
    }
    known = known || std::any_of(table_.begin(), table_.end(),
                                 [&](const auto &kv) { return kv.first.first == name; });
    return known ? m : m.rcode(unknown_rcode_);
}

// ---- what was received ------------------------------------------------------

void scripted_server::keep_queries(bool on) {
    std::lock_guard lock(mu_);
    keep_queries_ = on;
}

std::vector<parsed_query> scripted_server::queries() const {
    std::lock_guard lock(mu_);
    return queries_;
}

size_t scripted_server::query_count() const {
    std::lock_guard lock(mu_);
    return query_count_;
}

bool scripted_server::wait_for_queries(size_t n, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mu_);
    return arrived_.wait_for(lock, timeout, [&] { return query_count_ >= n; });
}

void scripted_server::clear_queries() {
    std::lock_guard lock(mu_);
    queries_.clear();
    query_count_ = 0;
}

size_t scripted_server::handler_errors() const {
    std::lock_guard lock(mu_);
    return handler_errors_;
}

} // namespace vekdns::test
