// The scripted server and the message builder that the other tests rely on.
#include <gtest/gtest.h>
#include <netdb.h>
#include <poll.h>
#include <unistd.h>

#include <optional>

#include "support/dns_server.h"

namespace vekdns::test {
namespace {

uint16_t be16(const bytes &b, size_t at) {
    return static_cast<uint16_t>((b[at] << 8) | b[at + 1]);
}

// A plain connected UDP socket to port 53, as a stub resolver uses.
struct udp_client {
    int fd = -1;
    uint16_t local_port = 0;

    explicit udp_client(const char *address) {
        addrinfo hints{};
        hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
        hints.ai_socktype = SOCK_DGRAM;
        addrinfo *ai = nullptr;
        EXPECT_EQ(getaddrinfo(address, "53", &hints, &ai), 0);
        fd = socket(ai->ai_family, SOCK_DGRAM, 0);
        EXPECT_EQ(connect(fd, ai->ai_addr, ai->ai_addrlen), 0);
        freeaddrinfo(ai);
        sockaddr_storage local{};
        socklen_t len = sizeof local;
        getsockname(fd, reinterpret_cast<sockaddr *>(&local), &len);
        local_port = ntohs(reinterpret_cast<sockaddr_in *>(&local)->sin_port); // same place in IPv6
    }
    ~udp_client() { close(fd); }

    std::optional<bytes> ask(const bytes &query, int timeout_ms = 5000) {
        EXPECT_EQ(send(fd, query.data(), query.size(), 0), static_cast<ssize_t>(query.size()));
        pollfd p{fd, POLLIN, 0};
        bytes b(4096);
        if (poll(&p, 1, timeout_ms) != 1) {
            return std::nullopt;
        }
        b.resize(static_cast<size_t>(recv(fd, b.data(), b.size(), 0)));
        return b;
    }
};

class ScriptedServer : public testing::TestWithParam<const char *> {};

INSTANTIATE_TEST_SUITE_P(Loopback, ScriptedServer, testing::Values("127.0.0.1", "::1"));

TEST_P(ScriptedServer, RepliesAsScriptedOrNotAtAllAndRecordsQueries) {
    scripted_server srv(GetParam());
    srv.on_query([](const parsed_query &q) -> reply {
        if (q.qname == "quiet.example") {
            return reply::silence();
        }
        return msg::reply_to(q).answer_a(q.qname, "1.2.3.4", 300).answer_aaaa(q.qname, "::1", 60).compress();
    });
    udp_client c(GetParam());
    const bytes query = msg::query(0x4242, "a.example", qtype::a).bytes();
    const bytes expected = msg::query(0x4242, "a.example", qtype::a)
                               .response()
                               .ra()
                               .answer_a("a.example", "1.2.3.4", 300)
                               .answer_aaaa("a.example", "::1", 60)
                               .compress()
                               .bytes();
    EXPECT_EQ(c.ask(query), expected);
    EXPECT_FALSE(c.ask(msg::query(1, "quiet.example", qtype::a).bytes(), 200));

    ASSERT_EQ(srv.query_count(), 2u);
    const parsed_query q = srv.queries()[0];
    EXPECT_TRUE(q.ok);
    EXPECT_EQ(q.raw, query);
    EXPECT_EQ(q.qname, "a.example");
    EXPECT_EQ(q.qtype, qtype::a);
    EXPECT_EQ(q.peer_port, c.local_port);
    EXPECT_EQ(srv.queries()[1].qname, "quiet.example");
}

// Header 12 bytes, question "a.example" 11 + 4: the first answer starts at 27.
constexpr size_t first_answer = 12 + 11 + 4;

TEST(MessageBuilder, CompressionPointsAtTheLongestEarlierSuffix) {
    msg m = msg::query(1, "a.example", qtype::a);
    m.response()
        .answer_cname("a.example", "b.a.example", 60) // owner: the question
        .answer_a("b.a.example", "1.2.3.4", 60)       // owner: the CNAME target
        .additional_a("c.example", "5.6.7.8", 60)     // only "example" is known
        .compress();
    const bytes b = m.bytes();
    EXPECT_EQ(be16(b, first_answer), 0xC00C);
    const size_t target = first_answer + 12; // CNAME data: "b" then a pointer to the question
    EXPECT_EQ(b[target], 1);
    EXPECT_EQ(be16(b, target + 2), 0xC00C);
    EXPECT_EQ(be16(b, target + 4), 0xC000 | target);
    EXPECT_EQ(be16(b, target + 4 + 2 + 14 + 2), 0xC000 | 14); // "c" then "example" of the question
    EXPECT_EQ(parse_message(b).describe(), "rcode=0 Q a.example A | AN a.example 60 CNAME b.a.example"
                                           " | AN b.a.example 60 A 1.2.3.4 | AR c.example 60 A 5.6.7.8");
    const bytes plain = m.compress(false).bytes();
    EXPECT_EQ(plain.size(), b.size() + 9 + 9 + 11 + 7);
    EXPECT_EQ(parse_message(plain).describe(), parse_message(b).describe());
}

TEST(MessageBuilder, OverriddenCountsLengthsAndTruncation) {
    msg m = msg::query(1, "a.example", qtype::a);
    m.response().qdcount(0).ancount(5).nscount(0x0102).arcount(0xFFFF);
    m.answer(a_record("a.example", "1.2.3.4", 1).with_rdlength(16));
    const bytes b = m.bytes();
    EXPECT_EQ((std::vector<uint16_t>{be16(b, 4), be16(b, 6), be16(b, 8), be16(b, 10)}),
              (std::vector<uint16_t>{0, 5, 0x0102, 0xFFFF}));
    const size_t rdlength = first_answer + 11 + 8;
    EXPECT_EQ(be16(b, rdlength), 16);
    EXPECT_EQ(b.size(), rdlength + 2 + 4); // the data itself is still 4 bytes
    for (size_t n : {size_t{0}, size_t{12}, b.size() - 1}) {
        const bytes cut = msg(m).truncate(n).bytes();
        EXPECT_EQ(cut, bytes(b.begin(), b.begin() + static_cast<long>(n)));
    }
    EXPECT_EQ(msg(m).truncate(b.size() + 10).bytes(), b);
}

TEST(ParseQuery, ReadsTheBuilderAndRejectsMalformedInput) {
    const bytes b = msg::query(0x1234, "Www.Example.COM.", qtype::aaaa).bytes();
    const parsed_query q = parse_query(b);
    ASSERT_TRUE(q.ok);
    EXPECT_EQ(q.id, 0x1234);
    EXPECT_EQ(q.flags, 0x0100);
    EXPECT_EQ(q.qname, "Www.Example.COM");
    EXPECT_EQ(q.qtype, qtype::aaaa);
    for (size_t n = 0; n < b.size(); ++n) {
        EXPECT_FALSE(parse_query(bytes(b.begin(), b.begin() + static_cast<long>(n))).ok) << n;
    }
    const std::string l63(63, 'x');
    const struct {
        const char *what;
        msg m;
    } cases[] = {
        {"no question", msg::query(1, "a", qtype::a).qdcount(0)},
        {"label past the end", msg().qdcount(1).trailing({9, 'a', 'b'})},
        {"pointer to itself", msg::query(1, dname::raw({0xC0, 0x0C}), qtype::a)},
        {"pointer past the end", msg::query(1, dname::raw({0xC0, 0xFF}), qtype::a)},
        {"reserved label type", msg::query(1, dname::raw({0x41, 'a', 0}), qtype::a)},
        {"longer than 255", msg::query(1, l63 + "." + l63 + "." + l63 + "." + l63 + ".x", qtype::a)},
    };
    for (const auto &c : cases) {
        EXPECT_FALSE(parse_query(c.m.bytes()).ok) << c.what;
    }
    const parsed_query p = parse_query(
        msg::query(1, dname::pointer(22, "www"), qtype::a).trailing({3, 'c', 'o', 'm', 0}).bytes());
    EXPECT_TRUE(p.ok);
    EXPECT_EQ(p.qname, "www.com");
}

} // namespace
} // namespace vekdns::test
