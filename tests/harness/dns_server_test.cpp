#include "support/dns_server.h"
#include "support/sandbox.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>

namespace vekdns::test {
namespace {

using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;

// A plain connected UDP socket, as a stub resolver uses.
class udp_client {
public:
    udp_client(const std::string &address, uint16_t port) {
        sockaddr_storage addr{};
        socklen_t len = 0;
        auto *v4 = reinterpret_cast<sockaddr_in *>(&addr);
        auto *v6 = reinterpret_cast<sockaddr_in6 *>(&addr);
        if (inet_pton(AF_INET, address.c_str(), &v4->sin_addr) == 1) {
            v4->sin_family = AF_INET;
            v4->sin_port = htons(port);
            len = sizeof *v4;
        } else if (inet_pton(AF_INET6, address.c_str(), &v6->sin6_addr) == 1) {
            v6->sin6_family = AF_INET6;
            v6->sin6_port = htons(port);
            len = sizeof *v6;
        } else {
            throw std::invalid_argument(address);
        }
        fd_ = ::socket(addr.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd_ < 0 || ::connect(fd_, reinterpret_cast<sockaddr *>(&addr), len) != 0)
            throw std::runtime_error("udp_client: cannot connect to " + address);
        len = sizeof addr;
        ::getsockname(fd_, reinterpret_cast<sockaddr *>(&addr), &len);
        local_port_ = ntohs(addr.ss_family == AF_INET ? v4->sin_port : v6->sin6_port);
    }
    ~udp_client() { ::close(fd_); }
    udp_client(const udp_client &) = delete;
    udp_client &operator=(const udp_client &) = delete;

    void send(const bytes &b) { ASSERT_EQ(::send(fd_, b.data(), b.size(), 0), static_cast<ssize_t>(b.size())); }

    // One datagram, or nothing when `timeout` passes first.
    std::optional<bytes> receive(std::chrono::milliseconds timeout = 5s) {
        pollfd p{fd_, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(timeout.count())) != 1)
            return std::nullopt;
        bytes b(65536);
        const ssize_t n = ::recv(fd_, b.data(), b.size(), 0);
        if (n < 0)
            return std::nullopt;
        b.resize(static_cast<size_t>(n));
        return b;
    }

    uint16_t local_port() const { return local_port_; }

private:
    int fd_ = -1;
    uint16_t local_port_ = 0;
};

std::string ask(const scripted_server &srv, const std::string &name, uint16_t type) {
    udp_client c(srv.address(), srv.port());
    c.send(msg::query(42, name, type).bytes());
    const auto r = c.receive();
    return r ? parse_message(*r).describe() : "(no reply)";
}

// ---- over both families ----------------------------------------------------

class ScriptedServer : public testing::TestWithParam<const char *> {};

INSTANTIATE_TEST_SUITE_P(Loopback, ScriptedServer, testing::Values("127.0.0.1", "::1"));

TEST_P(ScriptedServer, SendsTheScriptedBytesAndRecordsTheQuery) {
    scripted_server srv(GetParam());
    EXPECT_EQ(srv.port(), 53);
    srv.on_query([](const parsed_query &q) -> reply {
        return msg::reply_to(q).answer_a(q.qname, "1.2.3.4", 300).answer_aaaa(q.qname, "::1", 60).compress();
    });
    udp_client c(GetParam(), 53);
    const bytes query = msg::query(0x4242, "a.example", qtype::a).bytes();
    c.send(query);

    const auto got = c.receive();
    ASSERT_TRUE(got);
    const bytes expected = msg::query(0x4242, "a.example", qtype::a)
                               .response()
                               .ra()
                               .answer_a("a.example", "1.2.3.4", 300)
                               .answer_aaaa("a.example", "::1", 60)
                               .compress()
                               .bytes();
    EXPECT_EQ(*got, expected);

    ASSERT_EQ(srv.query_count(), 1u);
    const parsed_query q = srv.queries()[0];
    EXPECT_TRUE(q.ok);
    EXPECT_EQ(q.raw, query);
    EXPECT_EQ(q.qname, "a.example");
    EXPECT_EQ(q.qtype, qtype::a);
    EXPECT_EQ(q.peer_port, c.local_port());
}

TEST_P(ScriptedServer, SilenceLetsTheClientTimeOut) {
    scripted_server srv(GetParam());
    srv.on_query([](const parsed_query &) { return reply::silence(); });
    udp_client c(GetParam(), 53);
    c.send(msg::query(1, "a.example", qtype::a).bytes());
    EXPECT_FALSE(c.receive(200ms));
    EXPECT_EQ(srv.query_count(), 1u);
}

TEST_P(ScriptedServer, DelayedReplyDoesNotHoldUpOthers) {
    scripted_server srv(GetParam());
    srv.on_query([](const parsed_query &q) {
        reply r = msg::reply_to(q);
        return q.qname == "slow.example" ? r.after(300ms) : r;
    });
    udp_client slow(GetParam(), 53), fast(GetParam(), 53);
    const auto start = steady::now();
    slow.send(msg::query(1, "slow.example", qtype::a).bytes());
    ASSERT_TRUE(srv.wait_for_queries(1));
    fast.send(msg::query(2, "fast.example", qtype::a).bytes());
    ASSERT_TRUE(fast.receive());
    EXPECT_LT(steady::now() - start, 300ms);
    ASSERT_TRUE(slow.receive());
    EXPECT_GE(steady::now() - start, 300ms);
}

TEST_P(ScriptedServer, SeveralDatagramsArriveInOrder) {
    scripted_server srv(GetParam());
    srv.on_query([](const parsed_query &q) {
        return reply(msg::reply_to(q).id(1)).then(msg::reply_to(q).id(2)).then(bytes{});
    });
    udp_client c(GetParam(), 53);
    c.send(msg::query(1, "a.example", qtype::a).bytes());
    for (uint16_t id : {1, 2}) {
        const auto r = c.receive();
        ASSERT_TRUE(r);
        EXPECT_EQ(parse_message(*r).id, id);
    }
    const auto empty = c.receive(); // an empty datagram: recv returns 0
    ASSERT_TRUE(empty);
    EXPECT_TRUE(empty->empty());
}

TEST_P(ScriptedServer, TableAnswersByNameAndType) {
    scripted_server srv(GetParam());
    srv.answer_a("a.example", {"1.2.3.4", "5.6.7.8"});
    srv.answer_aaaa("A.Example.", {"2001:db8::1"}, 60);
    srv.answer_cname("www.example", "a.example", 30);
    srv.answer_rcode("broken.example", rcode::servfail);
    srv.answer_a("sip1.example", {"10.0.0.1"});
    srv.answer_srv("_sip._udp.example", {{10, 5, 5060, "sip1.example"}, {20, 0, 5061, "sip2.example"}}, 90);

    EXPECT_EQ(ask(srv, "a.example", qtype::a),
              "rcode=0 Q a.example A | AN a.example 300 A 1.2.3.4 | AN a.example 300 A 5.6.7.8");
    EXPECT_EQ(ask(srv, "a.EXAMPLE", qtype::aaaa), "rcode=0 Q a.EXAMPLE AAAA | AN A.Example 60 AAAA 2001:db8::1");
    EXPECT_EQ(ask(srv, "www.example", qtype::aaaa),
              "rcode=0 Q www.example AAAA | AN www.example 30 CNAME a.example | AN A.Example 60 AAAA 2001:db8::1");
    EXPECT_EQ(ask(srv, "a.example", qtype::srv), "rcode=0 Q a.example SRV");
    EXPECT_EQ(ask(srv, "b.example", qtype::a), "rcode=3 Q b.example A");
    EXPECT_EQ(ask(srv, "broken.example", qtype::a), "rcode=2 Q broken.example A");
    EXPECT_EQ(ask(srv, "_sip._udp.example", qtype::srv),
              "rcode=0 Q _sip._udp.example SRV | AN _sip._udp.example 90 SRV 10 5 5060 sip1.example"
              " | AN _sip._udp.example 90 SRV 20 0 5061 sip2.example | AR sip1.example 300 A 10.0.0.1");
    srv.unknown_rcode(rcode::refused);
    EXPECT_EQ(ask(srv, "b.example", qtype::a), "rcode=5 Q b.example A");
    srv.clear_table();
    EXPECT_EQ(ask(srv, "a.example", qtype::a), "rcode=3 Q a.example A");
}

TEST_P(ScriptedServer, MalformedQueryIsRecordedAndIgnoredByTheTable) {
    scripted_server srv(GetParam());
    udp_client c(GetParam(), 53);
    c.send(msg::query(1, "a.example", qtype::a).truncate(15).bytes());
    EXPECT_FALSE(c.receive(200ms));
    ASSERT_EQ(srv.query_count(), 1u);
    EXPECT_FALSE(srv.queries()[0].ok);
    EXPECT_EQ(srv.queries()[0].raw.size(), 15u);
}

TEST_P(ScriptedServer, HandlerExceptionMeansNoReply) {
    scripted_server srv(GetParam());
    srv.on_query([](const parsed_query &) -> reply { throw std::runtime_error("scripted failure"); });
    udp_client c(GetParam(), 53);
    c.send(msg::query(1, "a.example", qtype::a).bytes());
    EXPECT_FALSE(c.receive(200ms));
    EXPECT_TRUE(wait_until([&] { return srv.handler_errors() == 1; }));
    srv.on_query(nullptr); // back to the table
    srv.answer_a("a.example", {"1.2.3.4"});
    EXPECT_EQ(ask(srv, "a.example", qtype::a), "rcode=0 Q a.example A | AN a.example 300 A 1.2.3.4");
}

TEST_P(ScriptedServer, EphemeralPortAndBindFailure) {
    scripted_server srv(GetParam(), 0);
    EXPECT_NE(srv.port(), 0);
    EXPECT_NE(srv.port(), 53);
    srv.answer_a("a.example", {"1.2.3.4"});
    EXPECT_EQ(ask(srv, "a.example", qtype::a), "rcode=0 Q a.example A | AN a.example 300 A 1.2.3.4");
    EXPECT_THROW(scripted_server(GetParam(), srv.port()), std::runtime_error);
}

TEST_P(ScriptedServer, StopsPromptlyWithADelayedReplyPending) {
    const auto start = steady::now();
    {
        scripted_server srv(GetParam());
        srv.on_query([](const parsed_query &q) { return reply(msg::reply_to(q)).after(60s); });
        udp_client c(GetParam(), 53);
        c.send(msg::query(1, "a.example", qtype::a).bytes());
        ASSERT_TRUE(srv.wait_for_queries(1));
    }
    EXPECT_LT(steady::now() - start, 5s);
}

// ---- several servers ---------------------------------------------------------

TEST(ScriptedServers, SeveralAddressesAtOnce) {
    const char *addresses[] = {"127.0.0.1", "127.0.0.2", "127.0.0.3", "::1"};
    std::vector<std::unique_ptr<scripted_server>> servers;
    for (const char *a : addresses) {
        servers.push_back(std::make_unique<scripted_server>(a));
        servers.back()->answer_a("who.example", {a[0] == ':' ? "9.9.9.9" : a});
    }
    for (const auto &s : servers) {
        const std::string ip = s->family() == AF_INET6 ? "9.9.9.9" : s->address();
        EXPECT_EQ(ask(*s, "who.example", qtype::a), "rcode=0 Q who.example A | AN who.example 300 A " + ip);
        EXPECT_EQ(s->query_count(), 1u);
    }
}

TEST(ScriptedServers, RejectsBadAddresses) {
    EXPECT_THROW(scripted_server("localhost"), std::invalid_argument);
    EXPECT_THROW(scripted_server("192.0.2.1"), std::runtime_error); // not on this host
    scripted_server first("127.0.0.1");
    EXPECT_THROW(scripted_server("127.0.0.1"), std::runtime_error);
}

TEST(ScriptedServers, QueriesCanBeClearedAndAwaited) {
    scripted_server srv("127.0.0.1");
    EXPECT_FALSE(srv.wait_for_queries(1, 50ms));
    udp_client c("127.0.0.1", 53);
    for (uint16_t id = 1; id <= 3; ++id)
        c.send(msg::query(id, "a.example", qtype::a).bytes());
    ASSERT_TRUE(srv.wait_for_queries(3));
    const auto qs = srv.queries();
    ASSERT_EQ(qs.size(), 3u);
    EXPECT_EQ(qs[2].id, 3);
    srv.clear_queries();
    EXPECT_EQ(srv.query_count(), 0u);

    srv.keep_queries(false);
    c.send(msg::query(4, "a.example", qtype::a).bytes());
    ASSERT_TRUE(srv.wait_for_queries(1));
    EXPECT_TRUE(srv.queries().empty());
}

} // namespace
} // namespace vekdns::test
