// Address resolution: one question on the wire and the reading of its reply,
// the resolver loop over servers and search suffixes, and the exported calls
// (cache hits on the calling thread, misses on a worker, both families, the
// blocking and text forms, failure paths, many requests at once).
#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <random>
#include <thread>

#include "address/address_calls.h"
#include "address/wire_internal.h"
#include "os_adapter/test_hooks.h"
#include "support/dns_server.h"
#include "support/sandbox.h"
#include "vek_dns_ops.h"

namespace {

using namespace vekdns::test;
using namespace std::chrono_literals;
using vekdns::detail::requests_in_flight;
using vekdns::pal_test::calls;
using vekdns::pal_test::clear_faults;
using vekdns::pal_test::fail_nth;
using vekdns::pal_test::op;
using Q = const parsed_query &;

DNS_IPADDR_S ip(const std::string &text) {
    DNS_IPADDR_S a{};
    a.ulType = text.find(':') != std::string::npos ? DNS_IP_TYPE_IPV6 : DNS_IP_TYPE_IPV4;
    EXPECT_EQ(inet_pton(a.ulType == DNS_IP_TYPE_IPV6 ? AF_INET6 : AF_INET, text.c_str(), &a.unIpAddr), 1);
    return a;
}

// "10.0.0.1 fd00::1", or with TTLs "10.0.0.1/300 fd00::1/60".
std::string join(const DNS_IPADDR_S *addrs, uint32_t n, const uint32_t *ttls = nullptr) {
    std::string out;
    for (uint32_t i = 0; addrs != nullptr && i < n; ++i) {
        char text[INET6_ADDRSTRLEN] = {};
        inet_ntop(addrs[i].ulType == DNS_IP_TYPE_IPV6 ? AF_INET6 : AF_INET, &addrs[i].unIpAddr, text,
                  sizeof(text));
        out += (i == 0 ? "" : " ") + std::string(text) + (ttls ? "/" + std::to_string(ttls[i]) : "");
    }
    return out;
}

bytes with_id(bytes b, uint16_t id) {
    if (b.size() >= 2) {
        b[0] = static_cast<uint8_t>(id >> 8);
        b[1] = static_cast<uint8_t>(id);
    }
    return b;
}

using strings = std::vector<std::string>;

// "<prefix>1" .. "<prefix>n"
strings seq(const std::string &prefix, int n) {
    strings out;
    for (int i = 1; i <= n; ++i) {
        out.push_back(prefix + std::to_string(i));
    }
    return out;
}

// The same, space-separated, each followed by `suffix`.
std::string join_seq(const std::string &prefix, int n, const std::string &suffix = "") {
    std::string out;
    for (const std::string &a : seq(prefix, n)) {
        out += (out.empty() ? "" : " ") + a + suffix;
    }
    return out;
}

// ---- one question, one reply, and the resolver loop -------------------------------------

const uint16_t initial_query_id = g_usQueryId; // read before main: no question asked yet

struct result {
    DNS_IPADDR_S addrs[16] = {};
    uint32_t ttls[16] = {};
    uint32_t count = 0;
    uint32_t ret = 0;
    std::string found() const { return join(addrs, count, ttls); }
};

result resolve(std::string name, uint32_t type, uint32_t capacity = 10, uint32_t timeout = 1) {
    result r;
    DNS_HOSTNAME_S req{type, name.data()};
    r.count = capacity;
    r.ret = DNS_Resolve(&req, r.addrs, &r.count, timeout, r.ttls);
    return r;
}

// The questions `srv` received, as "name TYPE", forgotten afterwards.
std::vector<std::string> asked(scripted_server &srv) {
    std::vector<std::string> out;
    for (const parsed_query &q : srv.queries()) {
        out.push_back(q.qname + " " + type_name(q.qtype));
    }
    srv.clear_queries();
    return out;
}

long open_fds() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
}

class Resolve : public testing::Test {
protected:
    void SetUp() override { fds_ = open_fds(); }
    void TearDown() override { EXPECT_EQ(open_fds(), fds_) << "a socket was left open"; }
    long fds_ = 0;
};

TEST_F(Resolve, QuestionBytesIdsAndReply) {
    EXPECT_EQ(initial_query_id, 1);
    scripted_server v4("127.0.0.1"), v6("::1");
    v4.answer_a("www.example.com", {"10.9.8.7"}, 42);
    g_usQueryId = 65535;
    char dotted[] = "www.example.com.", single[] = "localhost";
    DNS_IPADDR_S s4 = ip("127.0.0.1"), s6 = ip("::1");
    int32_t sock = -1;
    ASSERT_EQ(DNS_Query(dotted, 16, &s4, 0, &sock), DNS_OK);
    EXPECT_STREQ(dotted, "www.example.com") << "the trailing dot is overwritten";
    result r;
    EXPECT_EQ(DNS_Read(sock, r.addrs, &r.count, 4, r.ttls), 0u);
    EXPECT_EQ(r.found(), "10.9.8.7/42");
    close(sock);
    ASSERT_EQ(DNS_Query(single, 9, &s6, 1, &sock), DNS_OK);
    close(sock);
    ASSERT_TRUE(v6.wait_for_queries(1));
    EXPECT_EQ(v4.queries()[0].raw, msg::query(65535, "www.example.com", qtype::a).bytes());
    EXPECT_EQ(v6.queries()[0].raw, msg::query(0, "localhost", qtype::aaaa).bytes()) << "the id wraps";

    EXPECT_EQ(DNS_Read(-1, r.addrs, &r.count, 1, r.ttls), 0u) << "full: nothing is received";
    EXPECT_EQ(DNS_Read(-1, r.addrs, &r.count, 0, r.ttls), 1u) << "more than the capacity";
    EXPECT_EQ(calls(op::recv), 1u);
    s4.ulType = 2;
    EXPECT_EQ(DNS_Query(single, 9, &s4, 0, &sock), DNS_ERR_IP_TYPE);
    EXPECT_EQ(calls(op::socket), 2u);
}

// The reply in an exact-size heap block, so that the sanitizer sees any read past it.
result take(const bytes &reply) {
    result r;
    std::unique_ptr<uint8_t[]> exact(new uint8_t[reply.size()]);
    std::copy(reply.begin(), reply.end(), exact.get());
    r.ret = vekdns::detail::take_reply({exact.get(), reply.size()}, r.addrs, &r.count, 10, r.ttls);
    return r;
}

TEST(TakeReply, HostileRepliesAreRejectedWithinTheirBytes) {
    for (bool compressed : {false, true}) {
        msg m = msg::reply_to(parse_query(msg::query(7, "www.example.org", qtype::a).bytes()));
        m.answer_cname("www.example.org", "h.example.org", 5)
            .answer_a("h.example.org", "10.0.0.1", 1)
            .answer_aaaa("h.example.org", "fd00::1", 2)
            .compress(compressed);
        const bytes full = m.bytes();
        EXPECT_EQ(take(full).found(), "10.0.0.1/1 fd00::1/2");
        for (size_t n = 0; n < full.size(); ++n) {
            const result r = take(bytes(full.begin(), full.begin() + static_cast<long>(n)));
            EXPECT_EQ(r.ret, 1u) << n;
            EXPECT_EQ(r.count, 0u) << n;
        }
        std::mt19937 rng(20240611);
        for (int round = 0; compressed && round < 20000; ++round) {
            bytes damaged = full;
            for (int flips = 1 + static_cast<int>(rng() % 4); flips > 0; --flips) {
                damaged[rng() % damaged.size()] = static_cast<uint8_t>(rng());
            }
            damaged.resize(rng() % (damaged.size() + 1));
            const result r = take(damaged);
            EXPECT_LE(r.count, 10u);
            EXPECT_EQ(r.ret == 0, r.count != 0);
        }
    }
}

TEST_F(Resolve, LiteralsAnswerWithoutTraffic) {
    set_resolv_conf(""); // anything else ends in discovery, which finds no server
    const struct {
        const char *name;
        uint32_t type, ret;
        const char *found;
    } rows[] = {{"192.168.1.10", 0, DNS_OK, "192.168.1.10/0"},
                {"::1", 1, DNS_OK, "::1/0"},
                {"::1", 0, DNS_ERR_NO_SERVER, ""},
                {"10.0.0.1", 1, DNS_ERR_NO_SERVER, ""},
                {"255.255.255.255", 0, DNS_ERR_NO_SERVER, ""}}; // broadcast: never a literal
    for (const auto &row : rows) {
        const result r = resolve(row.name, row.type);
        EXPECT_EQ(r.ret, row.ret) << row.name;
        EXPECT_EQ(r.found(), row.found) << row.name;
        EXPECT_EQ(calls(op::sem_open), row.ret == DNS_OK ? 0u : 1u) << "the resolver file is read";
        clear_faults();
    }
    EXPECT_EQ(calls(op::socket), 0u);
}

TEST_F(Resolve, BadArgumentsAndFailedSetUp) {
    result r;
    log_capture log(3);
    EXPECT_EQ(DNS_Resolve(nullptr, r.addrs, &r.count, 1, r.ttls), DNS_ERR_PARA_INVALID);
    EXPECT_TRUE(log.contains("DNS_Resolve param invalid"));
    EXPECT_EQ(resolve("h", DNS_SEARCH_TYPE_A, 0).ret, DNS_ERR_PARA_INVALID) << "no room";
    EXPECT_EQ(resolve("h", DNS_SEARCH_TYPE_BOTH).ret, DNS_ERR_PARA_INVALID) << "one family at a time";
    log.clear();
    EXPECT_EQ(resolve("", DNS_SEARCH_TYPE_A).ret, DNS_ERR_PARA_INVALID);
    EXPECT_FALSE(log.contains("DNS_Resolve param invalid")) << "an empty name is refused silently";
    scripted_server srv("127.0.0.1");
    srv.answer_a("host", {"10.0.0.1"});
    set_resolv_conf("nameserver 127.0.0.1\n");
    const struct {
        op fails;
        unsigned nth;
        uint32_t ret;
    } rows[] = {{op::sem_open, 1, DNS_ERR_SEM},
                {op::fopen, 1, DNS_ERR_OPEN_FILE},
                {op::alloc, 1, DNS_ERR_NO_MEMORY},  // the server list
                {op::alloc, 2, DNS_ERR_NO_MEMORY}}; // the question
    for (const auto &row : rows) {
        fail_nth(row.fails, row.nth);
        r = resolve("host", DNS_SEARCH_TYPE_A);
        EXPECT_EQ(r.ret, row.ret);
        EXPECT_EQ(r.count, 0u);
    }
    EXPECT_TRUE(log.contains("alloc memory failed!\r\n"));
    set_resolv_conf("nameserver 0.0.0.0\n");
    EXPECT_EQ(resolve("host", DNS_SEARCH_TYPE_A).ret, DNS_ERR_NO_SERVER);
    EXPECT_TRUE(log.contains("DNS_LocateDnsServer ulRet: 2604000a"));
    EXPECT_EQ(srv.query_count(), 0u);
    EXPECT_EQ(calls(op::sem_post), calls(op::sem_wait)) << "the semaphore is always given back";
}

int named_semaphore_value() {
    sem_t *sem = sem_open("dns_lock_sem", 0);
    int value = -1;
    if (sem != SEM_FAILED) {
        sem_getvalue(sem, &value);
        sem_close(sem);
    }
    return value;
}

TEST_F(Resolve, EveryServerAndNameIsAskedInOrderAndAnswersAppend) {
    scripted_server one("127.0.0.1"), six("::1"), two("127.0.0.2");
    one.answer_a("h", {"10.0.0.1", "10.0.0.2"}, 30);
    six.answer_a("h.b", {"10.0.0.3"}, 20);
    six.answer_aaaa("h", {"fd00::1", "fd00::2"}, 60);
    two.answer_a("h.a", {"10.0.0.4"}, 10);
    std::atomic<int> semaphore_taken{0};
    two.on_query([&](Q q) {
        semaphore_taken += named_semaphore_value() == 1 ? 0 : 1;
        return two.table_reply(q);
    });
    log_capture log(4);
    set_resolv_conf("nameserver 127.0.0.1\nnameserver ::1\nnameserver localhost\nnameserver 0.0.0.0\n"
                    "nameserver 127.0.0.2\nnameserver 127.0.0.1\nsearch a b\n");
    const result r = resolve("h", DNS_SEARCH_TYPE_A);
    EXPECT_EQ(r.ret, DNS_OK);
    EXPECT_EQ(r.found(), "10.0.0.1/30 10.0.0.2/30 10.0.0.3/20 10.0.0.4/10 10.0.0.1/30 10.0.0.2/30")
        << "in server order, duplicates kept";
    const std::vector<std::string> names{"h A", "h.a A", "h.b A"};
    EXPECT_EQ(asked(one), (std::vector<std::string>{"h A", "h.a A", "h.b A", "h A", "h.a A", "h.b A"}));
    EXPECT_EQ(asked(six), names);
    EXPECT_EQ(asked(two), names);
    EXPECT_TRUE(log.contains("DNS_JudgeTheServerIsAvalible failed ulTryServer : 2"));
    EXPECT_TRUE(log.contains("DNS_JudgeTheServerIsAvalible failed ulTryServer : 3"));
    EXPECT_EQ(semaphore_taken.load(), 0) << "the named semaphore is free during traffic";
    EXPECT_EQ(calls(op::fopen), 1u) << "the resolver file is read once";
    EXPECT_EQ(calls(op::socket), 12u) << "one socket per question";
    EXPECT_EQ(resolve("h", DNS_SEARCH_TYPE_AAAA).found(), "fd00::1/60 fd00::2/60");
}

TEST_F(Resolve, SearchSuffixesTooLongOrBeyondSixAreNotTried) {
    scripted_server srv("127.0.0.1");
    const std::string l63(63, 'n');
    const std::string name250 = l63 + "." + l63 + "." + l63 + "." + std::string(58, 'm');
    set_resolv_conf("nameserver 127.0.0.1\nsearch abcdefghij abcde x\n");
    log_capture log(4);
    // 250 + 1 + 10 and 250 + 1 + 5 are too long; 250 + 1 + 1 fits.
    EXPECT_EQ(resolve(name250, DNS_SEARCH_TYPE_A).ret, DNS_ERR_PARSE_ANSWER);
    EXPECT_TRUE(log.contains("whole hostname too long, try the next domain"));
    EXPECT_EQ(asked(srv), (std::vector<std::string>{name250 + " A", name250 + ".x A"}));
    // A trailing dot does not stop completion; a seventh suffix is dropped.
    set_resolv_conf("nameserver 127.0.0.1\nsearch s1 s2 s3 s4 s5 s6 s7\n");
    EXPECT_EQ(resolve("host.", DNS_SEARCH_TYPE_AAAA).ret, DNS_ERR_PARSE_ANSWER);
    std::vector<std::string> expected{"host AAAA"};
    for (int i = 1; i <= 6; ++i) {
        expected.push_back("host.s" + std::to_string(i) + " AAAA");
    }
    EXPECT_EQ(asked(srv), expected);
}

TEST_F(Resolve, RepliesDecideTheResult) {
    // One reply for every question, given the id of the query it answers.
    const msg h = msg::reply_to(parse_query(msg::query(0, "h", qtype::a).bytes()));
    msg behind_2047 = h; // the record that crosses byte 2047 is cut
    for (int i = 0; i < 120; ++i) {
        behind_2047.answer_raw("h", qtype::txt, qclass::in, 1, bytes(10, 'x'));
    }
    const struct {
        const char *what;
        msg reply;
        uint32_t ret;
        const char *found;
    } rows[] = {
        {"name error", msg(h).rcode(rcode::nxdomain).answer_a("h", "10.0.0.1", 1), DNS_ERR_PARSE_ANSWER, ""},
        {"not a response", msg(h).response(false).answer_a("h", "10.0.0.1", 1), DNS_ERR_PARSE_ANSWER, ""},
        {"no answers", h, DNS_ERR_PARSE_ANSWER, ""},
        {"owner name cut", msg(h).answer_a("h", "10.0.0.1", 1).truncate(12 + 3 + 4 + 2), DNS_ERR_PARSE_ANSWER,
         ""},
        {"empty datagram", msg(h).truncate(0), DNS_ERR_PARSE_ANSWER, ""},
        {"address behind byte 2047", behind_2047.answer_a("h", "10.9.9.9", 1), DNS_ERR_PARSE_ANSWER, ""},
        {"CNAME then A",
         msg(h).answer_cname("h", "x", 1).answer_a("x", "10.0.0.1", 300).answer_a("x", "10.0.0.2", 5), DNS_OK,
         "10.0.0.1/300 10.0.0.2/5"},
        {"wrong lengths",
         msg(h)
             .answer_raw("h", qtype::a, qclass::in, 1, {1, 2, 3, 4, 5})
             .answer_raw("h", qtype::aaaa, qclass::in, 2, {1, 2, 3, 4})
             .answer_raw("h", qtype::aaaa, qclass::in, 2, bytes(17, 1))
             .answer_aaaa("h", "::2", 3)
             .answer_a("h", "10.0.0.1", 4),
         DNS_OK, "::2/3 10.0.0.1/4"},
    };
    scripted_server srv("127.0.0.1");
    set_resolv_conf("nameserver 127.0.0.1\n");
    log_capture log(2);
    for (const auto &row : rows) {
        srv.on_query([&row](Q q) { return reply(with_id(row.reply.bytes(), q.id)); });
        const result r = resolve("h", DNS_SEARCH_TYPE_A);
        EXPECT_EQ(r.ret, row.ret) << row.what;
        EXPECT_EQ(r.found(), row.found) << row.what;
    }
    EXPECT_TRUE(log.contains("parse head failed!\r\n"));
}

TEST_F(Resolve, SilenceCostsThePerReplyWait) {
    scripted_server quiet("127.0.0.1"), good("127.0.0.2");
    quiet.on_query([](Q) { return reply::silence(); });
    good.answer_a("h", {"10.0.0.1"}, 7);
    set_resolv_conf("nameserver 127.0.0.1\n");
    auto start = std::chrono::steady_clock::now();
    const result r = resolve("h", DNS_SEARCH_TYPE_A, 10, 1);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(r.ret, DNS_ERR_TIMEOUT);
    EXPECT_EQ(r.count, 0u);
    EXPECT_GE(took, 990ms);
    EXPECT_LT(took, 2500ms);
    set_resolv_conf("nameserver 127.0.0.1\nsearch a b c\n");
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(resolve("h", DNS_SEARCH_TYPE_A, 10, 0).ret, DNS_ERR_TIMEOUT);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms) << "a zero time-out does not wait";
    set_resolv_conf("nameserver 127.0.0.1\nnameserver 127.0.0.2\n");
    EXPECT_EQ(resolve("h", DNS_SEARCH_TYPE_A).found(), "10.0.0.1/7");
}

TEST_F(Resolve, TheLatestAttemptDecidesWhenNothingIsFound) {
    scripted_server srv("127.0.0.1");
    set_resolv_conf("nameserver 127.0.0.1\nsearch a\n");
    for (const auto &[silent, ret] :
         {std::pair{"h", DNS_ERR_PARSE_ANSWER}, std::pair{"h.a", DNS_ERR_TIMEOUT}}) {
        srv.on_query([silent = std::string(silent)](Q q) {
            return q.qname == silent ? reply::silence() : reply(msg::reply_to(q).rcode(rcode::nxdomain));
        });
        EXPECT_EQ(resolve("h", DNS_SEARCH_TYPE_A).ret, ret) << silent;
    }
}

TEST_F(Resolve, CapacityStopsTakingButNotAsking) {
    scripted_server one("127.0.0.1"), two("127.0.0.2");
    one.answer_a("h", seq("10.0.0.", 6), 1);
    two.answer_a("h", seq("10.0.1.", 6), 2);
    one.answer_a("big", seq("10.0.0.", 200), 1); // about 3.4 KB: the first ten fit in 2047 bytes
    set_resolv_conf("nameserver 127.0.0.1\nnameserver 127.0.0.2\nsearch a\n");
    const result three = resolve("h", DNS_SEARCH_TYPE_A, 3);
    EXPECT_EQ(three.found(), "10.0.0.1/1 10.0.0.2/1 10.0.0.3/1");
    EXPECT_EQ(three.ttls[3], 0u) << "nothing is written past the capacity";
    EXPECT_EQ(one.query_count() + two.query_count(), 4u) << "the remaining names are still asked";
    const result ten = resolve("h", DNS_SEARCH_TYPE_A);
    EXPECT_EQ(ten.count, 10u);
    EXPECT_THAT(ten.found(), testing::EndsWith("10.0.0.6/1 10.0.1.1/2 10.0.1.2/2 10.0.1.3/2 10.0.1.4/2"));
    EXPECT_EQ(resolve("big", DNS_SEARCH_TYPE_A).found(), join_seq("10.0.0.", 10, "/1"));
}

TEST_F(Resolve, NetworkFailuresEndTheServerOrTheNameAndAreMadeUpFor) {
    scripted_server one("127.0.0.1"), two("127.0.0.2");
    one.answer_a("h", {"10.0.0.1"}, 1);
    two.answer_a("h", {"10.0.0.2"}, 2);
    set_resolv_conf("nameserver 127.0.0.1\nnameserver 127.0.0.2\nsearch a b\n");
    const struct {
        op fails;
        uint32_t ret;
        const char *line;
        bool leaves_server; // else only this name's reply is lost
    } rows[] = {{op::socket, DNS_ERR_SOCKET, "open socket failed!\r\n", true},
                {op::connect, DNS_ERR_CONNECT, "connect to server failed!\r\n", true},
                {op::send, DNS_ERR_SEND, "send data failed!\r\n", true},
                {op::poll, DNS_ERR_TIMEOUT, "", false},
                {op::recv, DNS_ERR_PARSE_ANSWER, "recv data failed!\r\n", false}};
    const std::vector<std::string> names{"h A", "h.a A", "h.b A"};
    for (const auto &row : rows) {
        SCOPED_TRACE(static_cast<int>(row.fails));
        log_capture log(2);
        fail_nth(row.fails, 1, 0);
        const result every = resolve("h", DNS_SEARCH_TYPE_A);
        EXPECT_EQ(every.ret, row.ret);
        EXPECT_EQ(every.count, 0u);
        EXPECT_TRUE(*row.line == '\0' || log.contains(row.line)) << row.line;
        clear_faults();
        EXPECT_TRUE(wait_until(
            [&] { return one.query_count() + two.query_count() == (row.leaves_server ? 0u : 6u); }));
        one.clear_queries();
        two.clear_queries();
        fail_nth(row.fails, 1);
        EXPECT_EQ(resolve("h", DNS_SEARCH_TYPE_A).found(), "10.0.0.2/2");
        EXPECT_EQ(asked(one), row.leaves_server ? std::vector<std::string>{} : names);
        EXPECT_EQ(asked(two), names);
        clear_faults();
    }
}

// ---- the exported calls ---------------------------------------------------------------

void cache(const char *name, const strings &addrs) {
    for (const std::string &a : addrs) {
        EXPECT_EQ(DNS_SetIpToCache(name, 300, ip(a)), DNS_OK);
    }
}

// What the callback saw; it must run exactly once per accepted request.
struct outcome {
    std::mutex mu;
    std::condition_variable cv;
    int calls = 0;
    uint32_t ret = 0xFFFFFFFFu;
    const char *name_ptr = nullptr;
    std::string name, addrs;
    bool list_null = false;
    uint32_t count = 0;
    std::thread::id thread;

    bool wait() {
        std::unique_lock<std::mutex> lock(mu);
        return cv.wait_for(lock, 20s, [this] { return calls > 0; });
    }
};

uint32_t record(uint32_t ret, char *name, DNS_IPADDR_S *addrs, uint32_t n, void *user) {
    auto *o = static_cast<outcome *>(user);
    EXPECT_LE(n, static_cast<uint32_t>(DNS_MAX_IP_NUM));
    std::lock_guard<std::mutex> lock(o->mu);
    o->calls++;
    o->ret = ret;
    o->name_ptr = name;
    o->name = name != nullptr ? name : "(null)";
    o->list_null = addrs == nullptr;
    o->count = n;
    o->addrs = join(addrs, n); // the whole list must be readable
    o->thread = std::this_thread::get_id();
    o->cv.notify_all();
    return 0;
}

// Waits until every worker has finished and freed its request.
void settle() {
    EXPECT_TRUE(wait_until([] { return requests_in_flight() == 0; }, 30s));
}

uint32_t request(const char *name, uint32_t type, outcome &o, int32_t timeout = 1) {
    return ORV_NETB_DnsGetIpByAsynResolve(name, type, timeout, record, &o);
}

void request_and_settle(const char *name, uint32_t type, outcome &o) {
    ASSERT_EQ(request(name, type, o), DNS_OK);
    ASSERT_TRUE(o.wait());
    settle();
    EXPECT_EQ(o.calls, 1);
}

class AddressCalls : public testing::Test {
protected:
    void SetUp() override { set_resolv_conf("nameserver 127.0.0.1\n"); }
    void TearDown() override { settle(); }
};

TEST_F(AddressCalls, BadArgumentsAreRefusedWithoutCallback) {
    const std::string long_name(256, 'a'), long_label = "a." + std::string(64, 'b') + ".example";
    const struct {
        const char *name;
        uint32_t type;
        int32_t timeout;
        DNS_IP_CALLBACK_PFN callback;
        uint32_t ret;
    } rows[] = {
        {nullptr, 0, 1, record, DNS_ERR_PARA_INVALID},
        {"a.example", 0, 1, nullptr, DNS_ERR_PARA_INVALID},
        {"a.example", 0, -1, record, DNS_ERR_PARA_INVALID},
        {"a.example", 3, 1, record, DNS_ERR_PARA_INVALID},
        {long_name.c_str(), 2, 1, record, DNS_ERR_NAME_FORMAT},
        {long_label.c_str(), 2, 1, record, DNS_ERR_NAME_FORMAT},
    };
    for (const auto &row : rows) {
        log_capture log(3);
        outcome o;
        EXPECT_EQ(ORV_NETB_DnsGetIpByAsynResolve(row.name, row.type, row.timeout, row.callback, &o), row.ret);
        EXPECT_TRUE(log.contains(row.ret == DNS_ERR_PARA_INVALID ? "inputting parameter error!\r\n"
                                                                 : "Invalid domain name format."));
        EXPECT_EQ(o.calls, 0);
    }
    EXPECT_EQ(calls(op::sem_open), 0u) << "refused before any cache access";
    EXPECT_EQ(calls(op::thread_create), 0u);
}

TEST_F(AddressCalls, CacheHitAnswersOnTheCallingThread) {
    cache("hit.example", {"10.0.0.1", "10.0.0.2", "fd00::1"});
    for (uint32_t type : {0u, 1u}) {
        const char *name = "hit.example";
        outcome o;
        clear_faults(); // counts from here
        ASSERT_EQ(request(name, type, o), DNS_OK);
        EXPECT_EQ(o.calls, 1) << "called before the call returned";
        EXPECT_EQ(o.thread, std::this_thread::get_id());
        EXPECT_EQ(o.name_ptr, name) << "the caller's own text";
        EXPECT_EQ(o.addrs, type == 0 ? "10.0.0.2 10.0.0.1" : "fd00::1");
        EXPECT_EQ(calls(op::alloc), 0u) << "a hit allocates nothing";
        EXPECT_EQ(calls(op::thread_create), 0u);
    }
}

TEST_F(AddressCalls, MissResolvesOnAWorkerAndStoresTheSmallestTtl) {
    scripted_server srv("127.0.0.1");
    srv.on_query([](const parsed_query &q) -> reply {
        return msg::reply_to(q).answer_a(q.qname, "10.0.0.1", 300).answer_a(q.qname, "10.0.0.2", 60);
    });
    vekdns::pal_test::set_clock(2000000);
    const std::string name = "miss.example";
    outcome o, again, third;
    request_and_settle(name.c_str(), DNS_SEARCH_TYPE_A, o);
    EXPECT_NE(o.thread, std::this_thread::get_id());
    EXPECT_NE(o.name_ptr, name.c_str()) << "the worker reports its own copy";
    EXPECT_EQ(o.name, name);
    EXPECT_EQ(o.ret, DNS_OK);
    EXPECT_EQ(o.addrs, "10.0.0.1 10.0.0.2");
    vekdns::pal_test::set_clock(2000000 + 60);
    ASSERT_EQ(request(name.c_str(), DNS_SEARCH_TYPE_A, again), DNS_OK);
    EXPECT_EQ(again.calls, 1) << "a hit now";
    EXPECT_EQ(srv.query_count(), 1u);
    vekdns::pal_test::set_clock(2000000 + 61); // stored with the smallest TTL, 60
    request_and_settle(name.c_str(), DNS_SEARCH_TYPE_A, third);
    EXPECT_EQ(srv.query_count(), 2u) << "expired";
}

TEST_F(AddressCalls, BothFamiliesAreMergedAndCutAtTen) {
    // Cached: 10.0.0.i and fd00::i; the server: 10.0.1.i and fd00::1:i.
    const std::string hit =
        "10.0.0.7 10.0.0.6 10.0.0.5 10.0.0.4 10.0.0.3 10.0.0.2 10.0.0.1 fd00::6 fd00::5 fd00::4";
    const struct {
        int cached4, cached6, server4, server6;
        std::vector<uint16_t> asked;
        std::string reported;
    } rows[] = {
        {7, 6, 0, 0, {}, hit},
        {1, 0, 0, 1, {qtype::aaaa}, "10.0.0.1 fd00::1:1"},
        {1, 0, 0, 0, {qtype::aaaa}, "10.0.0.1"}, // the cached ones are the answer
        {0, 1, 1, 0, {qtype::a}, "fd00::1 10.0.1.1"},
        {0, 0, 8, 3, {qtype::a, qtype::aaaa}, join_seq("10.0.1.", 8) + " fd00::1:1 fd00::1:2"},
        {0, 0, 10, 1, {qtype::a}, join_seq("10.0.1.", 10)},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.reported);
        scripted_server srv("127.0.0.1");
        if (row.server4 > 0) {
            srv.answer_a("both.example", seq("10.0.1.", row.server4));
        }
        if (row.server6 > 0) {
            srv.answer_aaaa("both.example", seq("fd00::1:", row.server6));
        }
        cache("both.example", seq("10.0.0.", row.cached4));
        cache("both.example", seq("fd00::", row.cached6));
        outcome o;
        request_and_settle("both.example", DNS_SEARCH_TYPE_BOTH, o);
        EXPECT_EQ(o.ret, DNS_OK);
        EXPECT_EQ(o.addrs, row.reported);
        EXPECT_EQ(o.thread == std::this_thread::get_id(), row.asked.empty()) << "a hit starts no worker";
        std::vector<uint16_t> asked;
        for (const parsed_query &q : srv.queries()) {
            asked.push_back(q.qtype);
        }
        EXPECT_EQ(asked, row.asked);
        ORV_NETB_DnsCleanBuffer();
    }
}

TEST_F(AddressCalls, FailuresInTheCallOrInTheWorker) {
    const struct {
        op fails;
        unsigned nth;
        uint32_t ret, reported; // reported: what the callback gets, when it is called
        const char *line;
    } rows[] = {
        {op::alloc, 1, DNS_ERR_MEM_ALLOC, 0, "alloc memory failed!\r\n"}, // the request
        {op::alloc, 2, DNS_ERR_MEM_ALLOC, 0, "alloc memory failed!\r\n"}, // the name copy
        {op::sem_open, 1, DNS_ERR_SEM, 0, "DNS_SemOpen faile,lSemRet:637796361"},
        {op::thread_create, 1, DNS_ERR_CREATE_THREAD, 0, "create thread failed!\r\n"},
        {op::sem_open, 2, DNS_OK, DNS_ERR_SEM, "DNS_SemOpen faile,lSemRet:637796361"}, // to store
        {op::alloc, 3, DNS_OK, DNS_ERR_MEM_ALLOC, "DNS_AsynResolveThread  DNS_SetIpToCache failed"},
    };
    const unsigned reuse = vekdns::detail::worker_reuse();
    vekdns::detail::set_worker_reuse(0); // every request needs a new thread
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line);
        cache("other.example", {"10.9.9.9"}); // the A cache exists: the third block is the entry
        log_capture log(3);
        outcome o;
        fail_nth(row.fails, row.nth);
        EXPECT_EQ(request("10.1.2.3", DNS_SEARCH_TYPE_A, o), row.ret); // a literal: no traffic
        EXPECT_TRUE(row.ret != DNS_OK || o.wait());
        settle();
        clear_faults();
        EXPECT_EQ(o.calls, row.ret == DNS_OK ? 1 : 0);
        EXPECT_TRUE(row.ret != DNS_OK || (o.ret == row.reported && o.list_null && o.count == 0));
        EXPECT_TRUE(log.contains(row.line));
        EXPECT_EQ(pstDNSCache->ulRecords, 1u) << "nothing stored";
        ORV_NETB_DnsCleanBuffer();
    }
    vekdns::detail::set_worker_reuse(reuse);
    // The blocking call does not hang when its worker loses the semaphore or
    // when it has no completion lock.
    for (op fails : {op::sem_open, op::sem_init}) {
        DNS_IPADDR_S addrs[4] = {};
        uint32_t n = 4;
        fail_nth(fails, fails == op::sem_open ? 2 : 1);
        EXPECT_EQ(ORV_NETB_DnsGetIpBySynResolve("10.1.2.3", DNS_SEARCH_TYPE_A, addrs, &n), DNS_ERR_SEM);
        EXPECT_EQ(n, 0u);
    }
    log_capture log(2);
    EXPECT_EQ(DNS_AsynResolveThread(nullptr), nullptr);
    EXPECT_TRUE(log.contains("inputting parameter error!\r\n"));
}

TEST_F(AddressCalls, BlockingCall) {
    scripted_server srv("127.0.0.1");
    srv.answer_a("five.example", seq("10.0.0.", 5));
    srv.answer_aaaa("six.example", {"fd00::1", "fd00::2"});
    srv.answer_a("dual.example", {"10.0.0.1"});
    srv.answer_aaaa("dual.example", {"fd00::1"});
    DNS_IPADDR_S addrs[11] = {};
    const struct {
        const char *name;
        uint32_t type, capacity, ret;
        const char *found;
    } rows[] = {
        {"five.example", 0, 2, DNS_OK, "10.0.0.1 10.0.0.2"},
        {"five.example", 0, 3, DNS_OK, "10.0.0.5 10.0.0.4 10.0.0.3"}, // from the cache now
        {"six.example", 2, 10, DNS_OK, "fd00::1 fd00::2"},            // the A request fails
        {"dual.example", 2, 10, DNS_OK, "10.0.0.1 fd00::1"},
        {"nothing.example", 2, 10, DNS_ERR_PARSE_ANSWER, ""}, // the IPv4 request's code
    };
    for (const auto &row : rows) {
        std::memset(addrs, 0, sizeof(addrs));
        uint32_t n = row.capacity;
        EXPECT_EQ(ORV_NETB_DnsGetIpBySynResolve(row.name, row.type, addrs, &n), row.ret);
        EXPECT_EQ(join(addrs, n), row.found);
        EXPECT_EQ(addrs[n].ulType, 0u) << "nothing past the count";
    }
    uint32_t n = 2, zero = 0;
    EXPECT_EQ(ORV_NETB_DnsGetIpBySynResolve(nullptr, 0, addrs, &n), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(ORV_NETB_DnsGetIpBySynResolve("a", 0, nullptr, &n), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(ORV_NETB_DnsGetIpBySynResolve("a", 0, addrs, nullptr), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(ORV_NETB_DnsGetIpBySynResolve("a", 0, addrs, &zero), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(ORV_NETB_DnsGetIpBySynResolve("a", 3, addrs, &n), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(n, 2u) << "untouched when the arguments are rejected";
    EXPECT_EQ(ORV_NETB_DnsGetIpBySynResolve(std::string(256, 'x').c_str(), 0, addrs, &n),
              DNS_ERR_NAME_FORMAT);
    EXPECT_EQ(n, 0u);
}

TEST_F(AddressCalls, TextForm) {
    for (const char *text : {"255.255.255.254", "2001:db8:aaaa:bbbb:cccc:dddd:eeee:ffff"}) {
        const uint32_t family = std::strchr(text, ':') != nullptr ? DNS_IP_TYPE_IPV6 : DNS_IP_TYPE_IPV4;
        DNS_IPADDR_STR_S out[2];
        std::memset(out, 0x7F, sizeof(out));
        uint32_t n = 2;
        EXPECT_EQ(vek_dns_get_ip_resolve_syn(text, family, out, &n), DNS_OK);
        EXPECT_EQ(n, 1u);
        EXPECT_EQ(out[0].ulType, family);
        EXPECT_STREQ(out[0].acIpAddr, text); // within its 40 characters
        EXPECT_EQ(out[1].ulType, 0x7F7F7F7Fu) << "nothing past the count";
    }
    log_capture log(2);
    DNS_IPADDR_STR_S out[2] = {};
    uint32_t n = 0;
    EXPECT_EQ(vek_dns_get_ip_resolve_syn("a", 0, out, nullptr), 1u);
    EXPECT_EQ(vek_dns_get_ip_resolve_syn("a", 0, out, &n), 1u);
    EXPECT_TRUE(log.contains("inputting parameter error!\r\n"));
    n = 2;
    fail_nth(op::alloc, 1);
    EXPECT_EQ(vek_dns_get_ip_resolve_syn("10.0.0.1", 0, out, &n), 1u);
    EXPECT_TRUE(log.contains("alloc memory failed!\r\n"));
    EXPECT_EQ(vek_dns_get_ip_resolve_syn("10.0.0.1", 3, out, &n), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(n, 0u);
    EXPECT_TRUE(log.contains("ORV_NETB_DnsGetIpBySynResolve Failed!"));
}

// ---- many requests at once -------------------------------------------------------------

TEST_F(AddressCalls, StressConcurrentRequestsWithCleanUps) {
    log_capture quiet(6); // every line still formatted, none printed
    scripted_server srv("127.0.0.1");
    for (int i = 0; i < 10; ++i) {
        const std::string name = "s" + std::to_string(i) + ".example";
        srv.answer_a(name, {"10.0.0." + std::to_string(i + 1), "10.0.1." + std::to_string(i + 1)}, 1 + i);
        srv.answer_aaaa(name, {"fd00::" + std::to_string(i + 1)}, 600);
    }
    constexpr size_t total = 200, submitters = 4;
    std::vector<outcome> outcomes(total);
    std::atomic<bool> submitting{true};
    std::thread cleaner([&] {
        while (submitting.load()) {
            ORV_NETB_DnsCleanBuffer();
            std::this_thread::sleep_for(300us);
        }
    });
    std::vector<std::thread> threads;
    for (size_t t = 0; t < submitters; ++t) {
        threads.emplace_back([&outcomes, t] {
            for (size_t i = t; i < total; i += submitters) { // every fourth a literal
                const std::string name = i % 4 == 0 ? "10.2.0." + std::to_string(i % 256)
                                                    : "s" + std::to_string(i % 10) + ".example";
                const uint32_t type = i % 4 == 0 ? 0 : static_cast<uint32_t>(i % 3);
                EXPECT_EQ(request(name.c_str(), type, outcomes[i], 2), DNS_OK) << i;
            }
        });
    }
    for (std::thread &t : threads) {
        t.join();
    }
    for (outcome &o : outcomes) {
        EXPECT_TRUE(o.wait());
    }
    submitting = false;
    cleaner.join();
    settle();
    for (size_t i = 0; i < total; ++i) {
        EXPECT_EQ(outcomes[i].calls, 1) << i;
        EXPECT_EQ(outcomes[i].ret, DNS_OK) << i;
        EXPECT_GE(outcomes[i].count, 1u) << i;
    }
}

// Holds every worker after it has read the resolver file (and given back the
// named semaphore and the file), before its first socket: the log line written
// at that point is the hook.
std::mutex gate_mu;
std::condition_variable gate_cv;
size_t gate_arrived = 0;
bool gate_open = false;

void gate_sink(const char *line) {
    if (std::strncmp(line, "stServer.ulDnsServers", 21) == 0) {
        std::unique_lock<std::mutex> lock(gate_mu);
        gate_arrived++;
        gate_cv.notify_all();
        gate_cv.wait(lock, [] { return gate_open; });
    }
}

// The descriptor limit under which exactly `free_slots` descriptor numbers are free.
rlim_t limit_with_free(int free_slots) {
    int fd = 0;
    for (int found = 0; found < free_slots; ++fd) {
        found += fcntl(fd, F_GETFD) == -1 ? 1 : 0;
    }
    return static_cast<rlim_t>(fd);
}

TEST_F(AddressCalls, StressRunningOutOfDescriptors) {
    scripted_server srv("127.0.0.1");
    srv.on_query([](const parsed_query &q) { // late replies: every question holds its socket a while
        return reply(msg::reply_to(q).answer_a(q.qname, "10.0.0.1", 60)).after(400ms);
    });
    constexpr size_t total = 20;
    constexpr int free_slots = 6;
    std::vector<outcome> outcomes(total);
    gate_arrived = 0;
    gate_open = false;
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    ORV_NETB_DnsSetLogLevel(6);
    ORV_NETB_DnsRegisterLogFunc(gate_sink);
    // Every worker reaches the gate with descriptors to spare; then they all
    // ask for their socket at once with only a few left.
    for (size_t i = 0; i < total; ++i) {
        EXPECT_EQ(request(("fd" + std::to_string(i) + ".example").c_str(), DNS_SEARCH_TYPE_A, outcomes[i], 3),
                  DNS_OK);
    }
    {
        std::unique_lock<std::mutex> lock(gate_mu);
        EXPECT_TRUE(gate_cv.wait_for(lock, 30s, [] { return gate_arrived == total; }));
    }
    rlimit tight = saved;
    tight.rlim_cur = limit_with_free(free_slots);
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    {
        std::lock_guard<std::mutex> lock(gate_mu);
        gate_open = true;
        gate_cv.notify_all();
    }
    for (outcome &o : outcomes) {
        EXPECT_TRUE(o.wait());
    }
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
    settle();
    int resolved = 0, no_socket = 0;
    for (outcome &o : outcomes) {
        EXPECT_EQ(o.calls, 1);
        resolved += o.ret == DNS_OK ? 1 : 0;
        no_socket += o.ret == DNS_ERR_SOCKET ? 1 : 0;
    }
    // The sockets that fitted resolved; every other request got the socket code.
    EXPECT_GE(resolved, 1);
    EXPECT_LE(resolved, free_slots);
    EXPECT_EQ(resolved + no_socket, static_cast<int>(total));
}


TEST(AddressHelpers, HostNameLengthRulesAndRecordCopy) {
    const std::string l63(63, 'a'), l64(64, 'a');
    struct {
        std::string name;
        uint32_t expect;
    } names[] = {{"", 0},          {"a..b", 0},           {".lead", 0},         {"end.", 0},
                 {l63 + ".x", 0},  {l64 + ".x", 1},       {"x." + l64, 1},      {"x." + l63, 0},
                 {std::string(255, 'a').replace(60, 1, "."), 1}, // 194-char last label
                 {(l63 + ".") + (l63 + ".") + (l63 + ".") + l63, 0},          // 255 characters
                 {(l63 + ".") + (l63 + ".") + (l63 + ".") + l63 + "a", 1}};   // 256
    for (const auto &c : names) {
        EXPECT_EQ(dnsCheckHostName(c.name.c_str()), c.expect) << c.name.size() << ": " << c.name;
    }

    // Families 3 and 4 are read as IPv4 and IPv6 and written as 0 and 1;
    // any other family leaves the target as it was.
    DNS_IPADDR_S src{}, dst{};
    for (int i = 0; i < 16; ++i) {
        src.unIpAddr.aucIpv6[i] = static_cast<uint8_t>(i + 1);
    }
    struct {
        uint32_t family, expect_family;
        size_t bytes;
    } copies[] = {{0, 0, 4}, {3, 0, 4}, {1, 1, 16}, {4, 1, 16}};
    for (const auto &c : copies) {
        src.ulType = c.family;
        std::memset(&dst, 0, sizeof(dst));
        DNS_TransferIpAddr(&src, &dst);
        EXPECT_EQ(dst.ulType, c.expect_family) << c.family;
        EXPECT_EQ(std::memcmp(dst.unIpAddr.aucIpv6, src.unIpAddr.aucIpv6, c.bytes), 0) << c.family;
    }
    src.ulType = 2;
    std::memset(&dst, 0x5A, sizeof(dst));
    DNS_TransferIpAddr(&src, &dst);
    EXPECT_EQ(dst.ulType, 0x5A5A5A5Au);
    src.ulType = 1;
    DNS_TransferIpAddr(&src, &src); // same record
    EXPECT_EQ(src.unIpAddr.aucIpv6[15], 16);
}

} // namespace
