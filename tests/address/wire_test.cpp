// One address question on the wire and the reading of its reply.
#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "address/wire_internal.h"
#include "os_adapter/test_hooks.h"
#include "support/dns_server.h"
#include "support/message_builder.h"
#include "support/sandbox.h"
#include "vek_dns_ops.h"

namespace {

using namespace vekdns::test;
using vekdns::detail::take_reply;
using vekdns::pal_test::calls;
using vekdns::pal_test::fail_nth;
using vekdns::pal_test::op;

// Read before main: nothing has asked a question yet.
const uint16_t initial_query_id = g_usQueryId;

DNS_IPADDR_S ipv4_server(const char *text) {
    DNS_IPADDR_S s{};
    s.ulType = DNS_IP_TYPE_IPV4;
    inet_pton(AF_INET, text, &s.unIpAddr.ulIpv4);
    return s;
}

DNS_IPADDR_S ipv6_server(const char *text) {
    DNS_IPADDR_S s{};
    s.ulType = DNS_IP_TYPE_IPV6;
    inet_pton(AF_INET6, text, s.unIpAddr.aucIpv6);
    return s;
}

std::string addr_text(const DNS_IPADDR_S &a) {
    char text[INET6_ADDRSTRLEN] = {};
    if (a.ulType == DNS_IP_TYPE_IPV4) {
        inet_ntop(AF_INET, &a.unIpAddr.ulIpv4, text, sizeof(text));
    } else {
        inet_ntop(AF_INET6, a.unIpAddr.aucIpv6, text, sizeof(text));
    }
    return text;
}

// "1.2.3.4/300 ::1/60" for the first n entries.
std::string describe(const DNS_IPADDR_S *addrs, const uint32_t *ttls, uint32_t n) {
    std::string out;
    for (uint32_t i = 0; i < n; ++i) {
        out += (i == 0 ? "" : " ") + addr_text(addrs[i]) + "/" + std::to_string(ttls[i]);
    }
    return out;
}

int open_fds() {
    int n = 0;
    DIR *dir = opendir("/proc/self/fd");
    while (dir != nullptr && readdir(dir) != nullptr) {
        ++n;
    }
    if (dir != nullptr) {
        closedir(dir);
    }
    return n;
}

// ---- byte operations ---------------------------------------------------------

TEST(ByteOps, BigEndianBothWays) {
    uint8_t buf[6] = {};
    EXPECT_EQ(DNS_Spread2Bytes(buf, 0x12345678u), buf + 2) << "only the low 16 bits are written";
    EXPECT_EQ(buf[0], 0x56);
    EXPECT_EQ(buf[1], 0x78);
    EXPECT_EQ(DNS_Build2Bytes(buf), 0x5678);
    const uint8_t four[4] = {0xFF, 0x00, 0x80, 0x01};
    EXPECT_EQ(DNS_Build4Bytes(four), 0xFF008001u);
}

// ---- stepping over names -------------------------------------------------------

struct name_case {
    const char *what;
    bytes name;
    long behind; // offset behind the name, -1 for null
};

std::ostream &operator<<(std::ostream &os, const name_case &c) { return os << c.what; }

class ParseRecord : public testing::TestWithParam<name_case> {};

TEST_P(ParseRecord, StepsOverOneName) {
    const name_case &c = GetParam();
    // An exact-size heap block: any read past it is caught by the sanitizer.
    auto *block = new uint8_t[c.name.size()];
    std::copy(c.name.begin(), c.name.end(), block);
    const uint8_t *behind = DNS_ParseRecord(block, static_cast<uint32_t>(c.name.size()));
    EXPECT_EQ(behind == nullptr ? -1L : behind - block, c.behind);
    delete[] block;
}

INSTANTIATE_TEST_SUITE_P(
    Names, ParseRecord,
    testing::Values(name_case{"root", {0}, 1}, name_case{"pointer", {0xC0, 0x0C}, 2},
                    name_case{"labels", {1, 'a', 2, 'b', 'c', 0, 99}, 6},
                    name_case{"labels then pointer", {1, 'a', 0xC0, 0x0C, 7}, 4},
                    name_case{"loop pointer is not followed", {0xC0, 0x00}, 2},
                    name_case{"01 and 10 are lengths", {0x41, 'x'}, -1},
                    name_case{"label past the end", {5, 'a', 'b'}, -1},
                    name_case{"no closing zero", {1, 'a'}, -1},
                    name_case{"pointer cut in half", {1, 'a', 0xC0}, -1},
                    name_case{"first pointer cut in half", {0xC0}, -1}, name_case{"nothing", {}, -1}),
    [](const testing::TestParamInfo<name_case> &i) { return "case" + std::to_string(i.index); });

// ---- reading a reply -------------------------------------------------------------

parsed_query question_for(const char *name, uint16_t type) {
    return parse_query(msg::query(0x4242, name, type).bytes());
}

struct reader {
    DNS_IPADDR_S addrs[10] = {};
    uint32_t ttls[10] = {};
    uint32_t count = 0;

    // The reply in an exact-size heap block, so no read can leave it unseen.
    uint32_t take(const bytes &reply, uint32_t capacity = 10) {
        std::vector<uint8_t> exact(reply.begin(), reply.end());
        exact.shrink_to_fit();
        return take_reply(std::span<const uint8_t>(exact.data(), exact.size()), addrs, &count, capacity,
                          ttls);
    }
    std::string found() const { return describe(addrs, ttls, count); }
};

TEST(TakeReply, AddressesWithTheirTtls) {
    reader r;
    msg m = msg::reply_to(question_for("host.example", qtype::a));
    m.answer_a("host.example", "10.1.1.1", 300).answer_a("host.example", "10.1.1.2", 60);
    EXPECT_EQ(r.take(m.bytes()), 0u);
    EXPECT_EQ(r.found(), "10.1.1.1/300 10.1.1.2/60");
}

TEST(TakeReply, CnameThenAddressesKeepTheAddressTtls) {
    reader r;
    msg m = msg::reply_to(question_for("www.example", qtype::a));
    m.answer_cname("www.example", "host.example", 5)
        .answer_a("host.example", "10.1.1.1", 300)
        .answer_a("host.example", "10.1.1.2", 200)
        .compress();
    EXPECT_EQ(r.take(m.bytes()), 0u);
    EXPECT_EQ(r.found(), "10.1.1.1/300 10.1.1.2/200");
}

TEST(TakeReply, CnameOnlyLeavesItsTtlInTheNextSlotButCountsNothing) {
    reader r;
    msg m = msg::reply_to(question_for("www.example", qtype::a));
    m.answer_cname("www.example", "host.example", 77);
    EXPECT_EQ(r.take(m.bytes()), 1u);
    EXPECT_EQ(r.count, 0u);
    EXPECT_EQ(r.ttls[0], 77u);
}

TEST(TakeReply, Ipv6AndMixedAnswersAreAllTaken) {
    reader r;
    msg m = msg::reply_to(question_for("h.example", qtype::aaaa));
    m.answer_aaaa("h.example", "fd00::1", 30).answer_a("h.example", "10.0.0.1", 40);
    EXPECT_EQ(r.take(m.bytes()), 0u);
    EXPECT_EQ(r.found(), "fd00::1/30 10.0.0.1/40");
}

TEST(TakeReply, AppendsBehindEarlierEntriesUpToCapacity) {
    reader r;
    r.count = 3;
    msg m = msg::reply_to(question_for("h", qtype::a));
    for (int i = 1; i <= 9; ++i) {
        m.answer_a("h", "10.0.0." + std::to_string(i), static_cast<uint32_t>(i));
    }
    EXPECT_EQ(r.take(m.bytes()), 0u);
    EXPECT_EQ(r.count, 10u);
    EXPECT_EQ(addr_text(r.addrs[3]), "10.0.0.1");
    EXPECT_EQ(addr_text(r.addrs[9]), "10.0.0.7");
    EXPECT_EQ(r.ttls[9], 7u);

    reader small;
    EXPECT_EQ(small.take(m.bytes(), 2), 0u);
    EXPECT_EQ(small.found(), "10.0.0.1/1 10.0.0.2/2");
    EXPECT_EQ(small.ttls[2], 0u) << "nothing is written past the capacity";
}

TEST(TakeReply, WrongLengthDataIsSteppedOver) {
    reader r;
    msg m = msg::reply_to(question_for("h", qtype::aaaa));
    m.answer(a_record("h", "10.0.0.1", 1)).answer_raw("h", qtype::a, qclass::in, 2, {1, 2, 3, 4, 5});
    m.answer_raw("h", qtype::aaaa, qclass::in, 3, {1, 2, 3, 4});
    m.answer_raw("h", qtype::aaaa, qclass::in, 4, bytes(17, 1));
    m.answer_aaaa("h", "::2", 5);
    EXPECT_EQ(r.take(m.bytes()), 0u);
    EXPECT_EQ(r.found(), "10.0.0.1/1 ::2/5");
}

struct reject_case {
    const char *what;
    bytes reply;
};

std::ostream &operator<<(std::ostream &os, const reject_case &c) { return os << c.what; }

msg good_reply() {
    msg m = msg::reply_to(question_for("host.example", qtype::a));
    m.answer_a("host.example", "10.1.1.1", 300).answer_a("host.example", "10.1.1.2", 60).compress();
    return m;
}

class RejectedReply : public testing::TestWithParam<reject_case> {};

TEST_P(RejectedReply, LeavesTheCountAlone) {
    reader r;
    r.count = 1;
    r.addrs[0] = ipv4_server("9.9.9.9");
    EXPECT_EQ(r.take(GetParam().reply), 1u);
    EXPECT_EQ(r.count, 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Hostile, RejectedReply,
    testing::Values(
        reject_case{"name error", good_reply().rcode(rcode::nxdomain).bytes()},
        reject_case{"not a response", good_reply().response(false).bytes()},
        reject_case{"no answers", msg::reply_to(question_for("h", qtype::a)).bytes()},
        reject_case{"answer count lies high", good_reply().ancount(3).bytes()},
        reject_case{"question count lies high", good_reply().qdcount(2).bytes()},
        reject_case{"huge counts", good_reply().qdcount(0xFFFF).ancount(0xFFFF).bytes()},
        reject_case{"data length past the end",
                    msg::reply_to(question_for("h", qtype::a))
                        .answer(a_record("h", "10.0.0.1", 1).with_rdlength(200))
                        .bytes()},
        reject_case{"owner name cut by the end",
                    msg::reply_to(question_for("h", qtype::a))
                        .answer_a(dname::raw({5, 'a', 'b'}), "10.0.0.1", 1)
                        .truncate(12 + 7 + 3)
                        .bytes()},
        reject_case{"question name runs on", msg::reply_to(question_for("h", qtype::a))
                                                 .answer_a("h", "10.0.0.1", 1)
                                                 .truncate(14)
                                                 .bytes()},
        reject_case{"header only", good_reply().truncate(12).bytes()},
        reject_case{"short header", good_reply().truncate(7).bytes()},
        reject_case{"empty", bytes{}}),
    [](const testing::TestParamInfo<reject_case> &i) { return "case" + std::to_string(i.index); });

TEST(TakeReply, HeaderRejectionIsLogged) {
    log_capture log(2);
    reader r;
    EXPECT_EQ(r.take(good_reply().rcode(rcode::nxdomain).bytes()), 1u);
    EXPECT_TRUE(log.contains("parse head failed!\r\n"));
}

TEST(TakeReply, PointersAreSteppedOverNeverFollowed) {
    reader r;
    // The owner name points at itself: stepping over it needs no jump.
    msg m = msg::reply_to(question_for("h", qtype::a));
    m.answer_a(dname::pointer(12 + 7), "10.0.0.1", 1);
    EXPECT_EQ(r.take(m.bytes()), 0u);
    EXPECT_EQ(r.found(), "10.0.0.1/1");
}

TEST(TakeReply, NoQuestionSectionIsFine) {
    reader r;
    msg m;
    m.response().answer_a("h", "10.0.0.1", 1);
    EXPECT_EQ(r.take(m.bytes()), 0u);
    EXPECT_EQ(r.count, 1u);
}

TEST(TakeReply, EveryTruncationIsRejectedInBounds) {
    for (bool compressed : {false, true}) {
        msg m = msg::reply_to(question_for("www.example.org", qtype::a));
        m.answer_cname("www.example.org", "h.example.org", 5)
            .answer_a("h.example.org", "10.0.0.1", 1)
            .answer_aaaa("h.example.org", "fd00::1", 2)
            .compress(compressed);
        const bytes full = m.bytes();
        for (size_t n = 0; n < full.size(); ++n) {
            reader r;
            EXPECT_EQ(r.take(bytes(full.begin(), full.begin() + static_cast<long>(n))), 1u) << n;
            EXPECT_EQ(r.count, 0u) << n;
        }
        reader r;
        EXPECT_EQ(r.take(full), 0u);
        EXPECT_EQ(r.found(), "10.0.0.1/1 fd00::1/2");
    }
}

TEST(TakeReply, RandomDamageStaysInBounds) {
    const bytes full = good_reply().bytes();
    std::mt19937 rng(20240611);
    for (int round = 0; round < 20000; ++round) {
        bytes damaged = full;
        const int flips = 1 + static_cast<int>(rng() % 4);
        for (int f = 0; f < flips; ++f) {
            damaged[rng() % damaged.size()] = static_cast<uint8_t>(rng());
        }
        damaged.resize(rng() % (damaged.size() + 1));
        reader r;
        uint32_t ret = r.take(damaged);
        EXPECT_LE(r.count, 10u);
        EXPECT_EQ(ret == 0, r.count != 0);
    }
}

// ---- questions over a socket --------------------------------------------------

class Query : public testing::Test {
protected:
    void SetUp() override { fds_before_ = open_fds(); }
    void TearDown() override { EXPECT_EQ(open_fds(), fds_before_) << "a socket was left open"; }
    int fds_before_ = 0;
};

TEST_F(Query, FirstQueryOfTheProcessCarriesIdOne) { EXPECT_EQ(initial_query_id, 1); }

TEST_F(Query, SendsOneQuestionAndReadsTheReply) {
    scripted_server srv("127.0.0.1");
    srv.answer_a("www.example.com", {"10.9.8.7"}, 42);
    DNS_IPADDR_S server = ipv4_server("127.0.0.1");
    char name[] = "www.example.com.";
    int32_t sock = -1;
    const uint16_t id = g_usQueryId;
    ASSERT_EQ(DNS_Query(name, 16, &server, 0, &sock), DNS_OK);
    ASSERT_GE(sock, 0);
    EXPECT_STREQ(name, "www.example.com") << "the trailing dot is overwritten";

    ASSERT_TRUE(srv.wait_for_queries(1));
    const parsed_query q = srv.queries()[0];
    ASSERT_TRUE(q.ok);
    EXPECT_EQ(q.raw.size(), 12u + 17u + 4u);
    EXPECT_EQ(q.id, id);
    EXPECT_EQ(q.flags, 0x0100);
    EXPECT_EQ(DNS_Build2Bytes(q.raw.data() + 4), 1) << "one question";
    EXPECT_EQ(DNS_Build2Bytes(q.raw.data() + 6), 0);
    EXPECT_EQ(DNS_Build4Bytes(q.raw.data() + 8), 0u);
    EXPECT_EQ(q.qname, "www.example.com");
    EXPECT_EQ(q.qtype, qtype::a);
    EXPECT_EQ(q.qclass, qclass::in);

    DNS_IPADDR_S addrs[4] = {};
    uint32_t ttls[4] = {};
    uint32_t count = 0;
    EXPECT_EQ(DNS_Read(sock, addrs, &count, 4, ttls), 0u);
    EXPECT_EQ(describe(addrs, ttls, count), "10.9.8.7/42");
    close(sock);
}

TEST_F(Query, Ipv6ServerAaaaQuestionOneLabel) {
    scripted_server srv("::1");
    DNS_IPADDR_S server = ipv6_server("::1");
    char name[] = "localhost";
    int32_t sock = -1;
    ASSERT_EQ(DNS_Query(name, 9, &server, 1, &sock), DNS_OK);
    ASSERT_TRUE(srv.wait_for_queries(1));
    const parsed_query q = srv.queries()[0];
    ASSERT_EQ(q.raw.size(), 12u + 11u + 4u);
    EXPECT_EQ(q.raw[12], 9);
    EXPECT_EQ(q.raw[22], 0);
    EXPECT_EQ(q.qtype, qtype::aaaa);
    close(sock);
}

TEST_F(Query, SuccessiveIdsCountUpAndWrap) {
    scripted_server srv("127.0.0.1");
    DNS_IPADDR_S server = ipv4_server("127.0.0.1");
    g_usQueryId = 65535;
    for (int i = 0; i < 3; ++i) {
        char name[] = "a";
        int32_t sock = -1;
        ASSERT_EQ(DNS_Query(name, 1, &server, 0, &sock), DNS_OK);
        close(sock);
    }
    ASSERT_TRUE(srv.wait_for_queries(3));
    std::vector<uint16_t> ids;
    for (const parsed_query &q : srv.queries()) {
        ids.push_back(q.id);
    }
    EXPECT_EQ(ids, (std::vector<uint16_t>{65535, 0, 1}));
}

TEST_F(Query, UnknownFamilyOpensNothing) {
    DNS_IPADDR_S server = ipv4_server("127.0.0.1");
    server.ulType = 2;
    char name[] = "a";
    int32_t sock = -1;
    EXPECT_EQ(DNS_Query(name, 1, &server, 0, &sock), DNS_ERR_IP_TYPE);
    EXPECT_EQ(calls(op::socket), 0u);
}

struct fault_case {
    const char *what;
    op fails;
    uint32_t ret;
    const char *log;
};

class QueryFault : public Query, public testing::WithParamInterface<fault_case> {};

TEST_P(QueryFault, ClosesTheSocketAndReportsTheCode) {
    const fault_case &c = GetParam();
    scripted_server srv("127.0.0.1");
    DNS_IPADDR_S server = ipv4_server("127.0.0.1");
    log_capture log(3);
    fail_nth(c.fails, 1);
    char name[] = "a.b";
    int32_t sock = 12345;
    EXPECT_EQ(DNS_Query(name, 3, &server, 0, &sock), c.ret);
    EXPECT_LT(sock, 0);
    EXPECT_TRUE(log.contains(c.log)) << c.log;
    EXPECT_FALSE(srv.wait_for_queries(1, std::chrono::milliseconds(100))) << "nothing reached the server";
}

INSTANTIATE_TEST_SUITE_P(Faults, QueryFault,
                         testing::Values(fault_case{"socket", op::socket, DNS_ERR_SOCKET, "open socket failed!\r\n"},
                                         fault_case{"connect", op::connect, DNS_ERR_CONNECT,
                                                    "connect to server failed!\r\n"},
                                         fault_case{"allocation", op::alloc, DNS_ERR_NO_MEMORY,
                                                    "alloc memory failed!\r\n"},
                                         fault_case{"send", op::send, DNS_ERR_SEND, "send data failed!\r\n"}),
                         [](const testing::TestParamInfo<fault_case> &i) { return std::string(i.param.what); });

TEST_F(Query, ReadFailuresReportOne) {
    scripted_server srv("127.0.0.1");
    srv.on_query([](const parsed_query &) { return reply(bytes{}); }); // an empty datagram
    DNS_IPADDR_S server = ipv4_server("127.0.0.1");
    char name[] = "a";
    int32_t sock = -1;
    ASSERT_EQ(DNS_Query(name, 1, &server, 0, &sock), DNS_OK);
    DNS_IPADDR_S addrs[2] = {};
    uint32_t ttls[2] = {};
    uint32_t count = 0;
    {
        log_capture log(2);
        fail_nth(op::recv, 1);
        EXPECT_EQ(DNS_Read(sock, addrs, &count, 2, ttls), 1u);
        EXPECT_TRUE(log.contains("recv data failed!\r\n"));
    }
    EXPECT_EQ(DNS_Read(sock, addrs, &count, 2, ttls), 1u) << "an empty datagram";
    close(sock);
}

TEST_F(Query, FullArrayReadsNothing) {
    DNS_IPADDR_S addrs[2] = {};
    uint32_t ttls[2] = {};
    uint32_t count = 2;
    EXPECT_EQ(DNS_Read(-1, addrs, &count, 2, ttls), 0u);
    EXPECT_EQ(calls(op::recv), 0u);
    count = 3;
    EXPECT_EQ(DNS_Read(-1, addrs, &count, 2, ttls), 1u);
    EXPECT_EQ(DNS_Read(-1, addrs, nullptr, 2, ttls), 1u);
    count = 0;
    EXPECT_EQ(DNS_Read(-1, addrs, &count, 2, nullptr), 1u);
    EXPECT_EQ(calls(op::recv), 0u);
}

} // namespace
