// The resolver loop and its small helpers.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <semaphore.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "os_adapter/test_hooks.h"
#include "support/dns_server.h"
#include "support/sandbox.h"
#include "vek_dns_ops.h"

namespace {

using namespace vekdns::test;
using vekdns::pal_test::calls;
using vekdns::pal_test::fail_nth;
using vekdns::pal_test::op;

std::string text_of(const DNS_IPADDR_S &a) {
    char text[INET6_ADDRSTRLEN] = {};
    if (a.ulType == DNS_IP_TYPE_IPV4) {
        inet_ntop(AF_INET, &a.unIpAddr.ulIpv4, text, sizeof(text));
    } else if (a.ulType == DNS_IP_TYPE_IPV6) {
        inet_ntop(AF_INET6, a.unIpAddr.aucIpv6, text, sizeof(text));
    } else {
        return "family " + std::to_string(a.ulType);
    }
    return text;
}

// One call of the loop with room for `capacity` addresses.
struct resolve_call {
    DNS_IPADDR_S addrs[16] = {};
    uint32_t ttls[16] = {};
    uint32_t count = 0;
    uint32_t ret = 0;

    resolve_call(std::string name, uint32_t type, uint32_t capacity = 10, uint32_t timeout = 1) {
        DNS_HOSTNAME_S req{type, name.data()};
        count = capacity;
        ret = DNS_Resolve(&req, addrs, &count, timeout, ttls);
    }
    // "10.0.0.1/300 ::1/60"
    std::string found() const {
        std::string out;
        for (uint32_t i = 0; i < count && i < 16; ++i) {
            out += (i == 0 ? "" : " ") + text_of(addrs[i]) + "/" + std::to_string(ttls[i]);
        }
        return out;
    }
};

// ---- literals and arguments -----------------------------------------------------

TEST(ResolveLiteral, Ipv4WithoutTraffic) {
    set_resolv_conf("nameserver 127.0.0.1\n");
    resolve_call r("192.168.1.10", DNS_SEARCH_TYPE_A);
    EXPECT_EQ(r.ret, DNS_OK);
    EXPECT_EQ(r.count, 1u);
    EXPECT_EQ(text_of(r.addrs[0]), "192.168.1.10");
    EXPECT_EQ(calls(op::socket), 0u);
    EXPECT_EQ(calls(op::sem_open), 0u) << "the resolver file is not even read";
}

TEST(ResolveLiteral, Ipv6WithoutTraffic) {
    resolve_call r("::1", DNS_SEARCH_TYPE_AAAA);
    EXPECT_EQ(r.ret, DNS_OK);
    EXPECT_EQ(r.count, 1u);
    EXPECT_EQ(text_of(r.addrs[0]), "::1");
    EXPECT_EQ(calls(op::socket), 0u);
}

TEST(ResolveLiteral, WrongFamilyLiteralIsAName) {
    // No usable server: a name that is not a literal of the asked family ends
    // in discovery.
    set_resolv_conf("");
    EXPECT_EQ(resolve_call("::1", DNS_SEARCH_TYPE_A).ret, DNS_ERR_NO_SERVER);
    EXPECT_EQ(resolve_call("10.0.0.1", DNS_SEARCH_TYPE_AAAA).ret, DNS_ERR_NO_SERVER);
    EXPECT_EQ(resolve_call("255.255.255.255", DNS_SEARCH_TYPE_A).ret, DNS_ERR_NO_SERVER)
        << "the broadcast address is never a literal";
    EXPECT_EQ(calls(op::socket), 0u);
}

TEST(ResolveArguments, Rejected) {
    DNS_IPADDR_S addrs[2] = {};
    uint32_t ttls[2] = {};
    uint32_t count = 2;
    char name[] = "a";
    DNS_HOSTNAME_S req{0, name};
    log_capture log(3);
    EXPECT_EQ(DNS_Resolve(nullptr, addrs, &count, 1, ttls), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(DNS_Resolve(&req, nullptr, &count, 1, ttls), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(DNS_Resolve(&req, addrs, nullptr, 1, ttls), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(DNS_Resolve(&req, addrs, &count, 1, nullptr), DNS_ERR_PARA_INVALID);
    req.ulType = 2;
    EXPECT_EQ(DNS_Resolve(&req, addrs, &count, 1, ttls), DNS_ERR_PARA_INVALID);
    req.ulType = 0;
    count = 0;
    EXPECT_EQ(DNS_Resolve(&req, addrs, &count, 1, ttls), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(count, 0u);
    EXPECT_TRUE(log.contains("DNS_Resolve param invalid"));

    log.clear();
    count = 2;
    char empty[] = "";
    req.pszName = empty;
    EXPECT_EQ(DNS_Resolve(&req, addrs, &count, 1, ttls), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(count, 2u) << "the count is not written";
    EXPECT_FALSE(log.contains("DNS_Resolve param invalid")) << "an empty name is refused silently";
}

TEST(ResolveSetup, SemaphoreOrDiscoveryFailureEndsTheCall) {
    set_resolv_conf("nameserver 127.0.0.1\n");
    fail_nth(op::sem_open, 1);
    resolve_call no_sem("host", DNS_SEARCH_TYPE_A);
    EXPECT_EQ(no_sem.ret, DNS_ERR_SEM);
    EXPECT_EQ(no_sem.count, 0u);

    log_capture log(3);
    set_resolv_conf("nameserver 0.0.0.0\n");
    resolve_call no_server("host", DNS_SEARCH_TYPE_A);
    EXPECT_EQ(no_server.ret, DNS_ERR_NO_SERVER);
    EXPECT_EQ(no_server.count, 0u);
    EXPECT_TRUE(log.contains("DNS_LocateDnsServer ulRet: 2604000a"));

    fail_nth(op::fopen, 1);
    EXPECT_EQ(resolve_call("host", DNS_SEARCH_TYPE_A).ret, DNS_ERR_OPEN_FILE);
    EXPECT_EQ(calls(op::socket), 0u);
    EXPECT_EQ(calls(op::sem_post), calls(op::sem_wait)) << "the semaphore is always given back";
}

// ---- helpers -------------------------------------------------------------------

TEST(CheckHostName, LengthRules) {
    const std::string label63(63, 'a');
    std::string name255 = label63 + "." + label63 + "." + label63 + "." + std::string(63, 'b');
    ASSERT_EQ(name255.size(), 255u);
    EXPECT_EQ(dnsCheckHostName(name255.c_str()), 0u);
    EXPECT_EQ(dnsCheckHostName((name255 + "c").c_str()), 1u) << "256 characters";
    const std::string label64(64, 'x');
    EXPECT_EQ(dnsCheckHostName(label64.c_str()), 1u);
    EXPECT_EQ(dnsCheckHostName((label64 + ".a.b").c_str()), 1u);
    EXPECT_EQ(dnsCheckHostName(("a." + label64 + ".b").c_str()), 1u);
    EXPECT_EQ(dnsCheckHostName(("a.b." + label64).c_str()), 1u);
    EXPECT_EQ(dnsCheckHostName("www.example.com."), 0u);
    EXPECT_EQ(dnsCheckHostName(""), 0u);
    EXPECT_EQ(dnsCheckHostName("a..b"), 0u);
    EXPECT_EQ(dnsCheckHostName(".a"), 0u);
    EXPECT_EQ(dnsCheckHostName(nullptr), 1u);
}

TEST(TransferIpAddr, ByFamily) {
    DNS_IPADDR_S src{};
    DNS_IPADDR_S dst{};
    src.ulType = 3;
    src.unIpAddr.ulIpv4 = 0x0100007F;
    DNS_TransferIpAddr(&src, &dst);
    EXPECT_EQ(dst.ulType, 0u);
    EXPECT_EQ(text_of(dst), "127.0.0.1");

    src.ulType = 4;
    inet_pton(AF_INET6, "fd00::5", src.unIpAddr.aucIpv6);
    DNS_TransferIpAddr(&src, &dst);
    EXPECT_EQ(text_of(dst), "fd00::5");

    DNS_IPADDR_S before = dst;
    src.ulType = 2;
    DNS_TransferIpAddr(&src, &dst);
    EXPECT_EQ(std::memcmp(&before, &dst, sizeof(dst)), 0) << "family 2 leaves the target alone";

    dst.ulType = 4;
    DNS_TransferIpAddr(&dst, &dst);
    EXPECT_EQ(text_of(dst), "fd00::5") << "source and target may be the same record";
    DNS_TransferIpAddr(nullptr, &dst);
    DNS_TransferIpAddr(&dst, nullptr);
}

TEST(JudgeServer, SkipsUnsetEntries) {
    DNS_IPADDR_S list[3] = {};
    list[0].ulType = 0; // unset
    list[1].ulType = 1;
    inet_pton(AF_INET6, "::1", list[1].unIpAddr.aucIpv6);
    list[2].ulType = 0;
    list[2].unIpAddr.ulIpv4 = 0x0200007F;
    DNS_LOCAL_SERVER_S rec;
    std::memset(&rec, 0, sizeof(rec));
    DNS_IPADDR_S out{};
    EXPECT_EQ(DNS_JudgeTheServerIsAvalible(0, &rec, &out), 1u) << "no array";
    rec.pstDnsServer = list;
    rec.ulDnsServers = 3;
    EXPECT_EQ(DNS_JudgeTheServerIsAvalible(0, &rec, &out), 1u);
    EXPECT_EQ(DNS_JudgeTheServerIsAvalible(1, &rec, &out), 0u);
    EXPECT_EQ(text_of(out), "::1");
    EXPECT_EQ(DNS_JudgeTheServerIsAvalible(2, &rec, &out), 0u);
    EXPECT_EQ(text_of(out), "127.0.0.2");
    EXPECT_EQ(DNS_JudgeTheServerIsAvalible(2, nullptr, &out), 1u);
    EXPECT_EQ(DNS_JudgeTheServerIsAvalible(2, &rec, nullptr), 1u);
}

// ---- the loop over servers and names -----------------------------------------------

using steady = std::chrono::steady_clock;

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

// Every question any server received, as "server name type", in arrival order.
class query_journal {
public:
    void attach(scripted_server &srv, query_handler inner = nullptr) {
        scripted_server *s = &srv;
        srv.on_query([this, s, inner](const parsed_query &q) {
            {
                std::lock_guard<std::mutex> lock(mu_);
                lines_.push_back(s->address() + " " + q.qname + " " + type_name(q.qtype));
            }
            return inner ? inner(q) : s->table_reply(q);
        });
    }
    std::vector<std::string> lines() const {
        std::lock_guard<std::mutex> lock(mu_);
        return lines_;
    }

private:
    mutable std::mutex mu_;
    std::vector<std::string> lines_;
};

class ResolveLoop : public testing::Test {
protected:
    void SetUp() override { fds_before_ = open_fds(); }
    void TearDown() override { EXPECT_EQ(open_fds(), fds_before_) << "a socket was left open"; }
    int fds_before_ = 0;
};

TEST_F(ResolveLoop, OneServerOneQuestion) {
    scripted_server srv("127.0.0.1");
    srv.answer_a("host.example", {"10.0.0.1", "10.0.0.2"}, 300);
    set_resolv_conf("nameserver 127.0.0.1\n");
    resolve_call r("host.example", DNS_SEARCH_TYPE_A);
    EXPECT_EQ(r.ret, DNS_OK);
    EXPECT_EQ(r.found(), "10.0.0.1/300 10.0.0.2/300");
    EXPECT_EQ(srv.query_count(), 1u);
    EXPECT_EQ(calls(op::fopen), 1u) << "the resolver file is read once";
    EXPECT_EQ(calls(op::socket), 1u);
}

TEST_F(ResolveLoop, Ipv6ServerAndAaaa) {
    scripted_server srv("::1");
    srv.answer_aaaa("host.example", {"fd00::1", "fd00::2"}, 60);
    set_resolv_conf("nameserver ::1\n");
    resolve_call r("host.example", DNS_SEARCH_TYPE_AAAA);
    EXPECT_EQ(r.ret, DNS_OK);
    EXPECT_EQ(r.found(), "fd00::1/60 fd00::2/60");
}

TEST_F(ResolveLoop, EveryServerIsAskedAndAnswersAppendInServerOrder) {
    scripted_server v4("127.0.0.1");
    scripted_server v6("::1");
    scripted_server v4b("127.0.0.2");
    v4.answer_a("h", {"10.0.0.1", "10.0.0.2"}, 30);
    v6.answer_a("h", {"10.0.0.3"}, 20);
    v4b.answer_a("h", {"10.0.0.1", "10.0.0.2"}, 10);
    query_journal journal;
    journal.attach(v4);
    journal.attach(v6);
    journal.attach(v4b);
    set_resolv_conf("nameserver 127.0.0.1\nnameserver ::1\nnameserver 127.0.0.2\nnameserver 127.0.0.1\n");
    resolve_call r("h", DNS_SEARCH_TYPE_A);
    EXPECT_EQ(r.ret, DNS_OK);
    EXPECT_EQ(r.found(), "10.0.0.1/30 10.0.0.2/30 10.0.0.3/20 10.0.0.1/10 10.0.0.2/10 10.0.0.1/30 10.0.0.2/30")
        << "duplicates are kept";
    EXPECT_EQ(journal.lines(), (std::vector<std::string>{"127.0.0.1 h A", "::1 h A", "127.0.0.2 h A",
                                                          "127.0.0.1 h A"}));
}

TEST_F(ResolveLoop, SearchSuffixesInOrderOnEveryServer) {
    scripted_server one("127.0.0.1");
    scripted_server two("127.0.0.2");
    one.answer_a("host.b", {"10.0.0.9"}, 5);
    two.answer_a("host.b", {"10.0.0.8"}, 6);
    query_journal journal;
    journal.attach(one);
    journal.attach(two);
    set_resolv_conf("nameserver 127.0.0.1\nnameserver 127.0.0.2\nsearch a b\n");
    resolve_call r("host", DNS_SEARCH_TYPE_A);
    EXPECT_EQ(r.ret, DNS_OK);
    EXPECT_EQ(r.found(), "10.0.0.9/5 10.0.0.8/6");
    EXPECT_EQ(journal.lines(),
              (std::vector<std::string>{"127.0.0.1 host A", "127.0.0.1 host.a A", "127.0.0.1 host.b A",
                                        "127.0.0.2 host A", "127.0.0.2 host.a A", "127.0.0.2 host.b A"}));
    EXPECT_EQ(calls(op::socket), 6u) << "one socket per question";
}

TEST_F(ResolveLoop, NameWithTrailingDotIsCompletedToo) {
    scripted_server srv("127.0.0.1");
    query_journal journal;
    journal.attach(srv);
    set_resolv_conf("nameserver 127.0.0.1\nsearch a\n");
    EXPECT_EQ(resolve_call("host.", DNS_SEARCH_TYPE_AAAA).ret, DNS_ERR_PARSE_ANSWER);
    EXPECT_EQ(journal.lines(), (std::vector<std::string>{"127.0.0.1 host AAAA", "127.0.0.1 host.a AAAA"}));
}

TEST_F(ResolveLoop, TooLongCompletionIsSkippedForTheNextSuffix) {
    scripted_server srv("127.0.0.1");
    query_journal journal;
    journal.attach(srv);
    const std::string label(63, 'n');
    const std::string name250 = label + "." + label + "." + label + "." + std::string(58, 'm');
    ASSERT_EQ(name250.size(), 250u);
    set_resolv_conf("nameserver 127.0.0.1\nsearch abcdefghij abcde x\n");
    log_capture log(4);
    resolve_call r(name250, DNS_SEARCH_TYPE_A);
    EXPECT_EQ(r.ret, DNS_ERR_PARSE_ANSWER);
    // 250 + 10 + 1 and 250 + 5 + 1 are too long; 250 + 1 + 1 fits.
    EXPECT_EQ(journal.lines(), (std::vector<std::string>{"127.0.0.1 " + name250 + " A",
                                                          "127.0.0.1 " + name250 + ".x A"}));
    EXPECT_TRUE(log.contains("whole hostname too long, try the next domain"));
}

TEST_F(ResolveLoop, SilenceCostsTheWaitThenTimesOut) {
    scripted_server srv("127.0.0.1");
    srv.on_query([](const parsed_query &) { return reply::silence(); });
    set_resolv_conf("nameserver 127.0.0.1\n");
    const auto start = steady::now();
    resolve_call r("quiet.example", DNS_SEARCH_TYPE_A, 10, 1);
    const auto took = steady::now() - start;
    EXPECT_EQ(r.ret, DNS_ERR_TIMEOUT);
    EXPECT_EQ(r.count, 0u);
    EXPECT_GE(took, std::chrono::milliseconds(990));
    EXPECT_LT(took, std::chrono::milliseconds(2500));
}

TEST_F(ResolveLoop, SilentServerThenAnsweringServer) {
    scripted_server quiet("127.0.0.1");
    scripted_server good("127.0.0.2");
    quiet.on_query([](const parsed_query &) { return reply::silence(); });
    good.answer_a("h", {"10.0.0.1"}, 7);
    set_resolv_conf("nameserver 127.0.0.1\nnameserver 127.0.0.2\n");
    resolve_call r("h", DNS_SEARCH_TYPE_A, 10, 1);
    EXPECT_EQ(r.ret, DNS_OK);
    EXPECT_EQ(r.found(), "10.0.0.1/7");
}

TEST_F(ResolveLoop, ZeroTimeOutDoesNotWait) {
    scripted_server srv("127.0.0.1");
    srv.on_query([](const parsed_query &) { return reply::silence(); });
    set_resolv_conf("nameserver 127.0.0.1\nsearch a b c\n");
    const auto start = steady::now();
    EXPECT_EQ(resolve_call("h", DNS_SEARCH_TYPE_A, 10, 0).ret, DNS_ERR_TIMEOUT);
    EXPECT_LT(steady::now() - start, std::chrono::milliseconds(500));
}

struct reject_case {
    const char *what;
    std::function<reply(const parsed_query &)> answer;
};

std::ostream &operator<<(std::ostream &os, const reject_case &c) { return os << c.what; }

class RejectingServer : public ResolveLoop, public testing::WithParamInterface<reject_case> {};

TEST_P(RejectingServer, GivesParseAnswer) {
    scripted_server srv("127.0.0.1");
    srv.on_query(GetParam().answer);
    set_resolv_conf("nameserver 127.0.0.1\nsearch a\n");
    resolve_call r("h", DNS_SEARCH_TYPE_A);
    EXPECT_EQ(r.ret, DNS_ERR_PARSE_ANSWER);
    EXPECT_EQ(r.count, 0u);
    EXPECT_EQ(srv.query_count(), 2u) << "a rejected reply moves on to the next name";
}

INSTANTIATE_TEST_SUITE_P(
    Replies, RejectingServer,
    testing::Values(
        reject_case{"NameError",
                    [](const parsed_query &q) {
                        return reply(msg::reply_to(q).rcode(rcode::nxdomain).answer_a(q.qname, "10.0.0.1", 1));
                    }},
        reject_case{"NotAResponse",
                    [](const parsed_query &q) {
                        return reply(msg::reply_to(q).response(false).answer_a(q.qname, "10.0.0.1", 1));
                    }},
        reject_case{"NoAnswers", [](const parsed_query &q) { return reply(msg::reply_to(q)); }},
        reject_case{"TruncatedOwnerName",
                    [](const parsed_query &q) {
                        bytes full = msg::reply_to(q).answer_a(q.qname, "10.0.0.1", 1).bytes();
                        full.resize(full.size() - 14 - 1);
                        return reply(full);
                    }},
        reject_case{"EmptyDatagram", [](const parsed_query &) { return reply(bytes{}); }}),
    [](const testing::TestParamInfo<reject_case> &i) { return std::string(i.param.what); });

TEST_F(ResolveLoop, CnameThenAddresses) {
    scripted_server srv("127.0.0.1");
    srv.answer_cname("www.example", "host.example", 3);
    srv.answer_a("host.example", {"10.0.0.1", "10.0.0.2"}, 90);
    set_resolv_conf("nameserver 127.0.0.1\n");
    resolve_call r("www.example", DNS_SEARCH_TYPE_A);
    EXPECT_EQ(r.ret, DNS_OK);
    EXPECT_EQ(r.found(), "10.0.0.1/90 10.0.0.2/90");
}

TEST_F(ResolveLoop, EveryAddressCarriesItsTtlSoTheSmallestCanBeTaken) {
    scripted_server srv("127.0.0.1");
    srv.on_query([](const parsed_query &q) {
        return reply(msg::reply_to(q)
                         .answer_a(q.qname, "10.0.0.1", 300)
                         .answer_cname(q.qname, "other", 1)
                         .answer_a(q.qname, "10.0.0.2", 5)
                         .answer_a(q.qname, "10.0.0.3", 60));
    });
    set_resolv_conf("nameserver 127.0.0.1\n");
    resolve_call r("h", DNS_SEARCH_TYPE_A);
    EXPECT_EQ(r.found(), "10.0.0.1/300 10.0.0.2/5 10.0.0.3/60");
}

TEST_F(ResolveLoop, CapacityStopsTakingButNotAsking) {
    scripted_server srv("127.0.0.1");
    srv.answer_a("h", {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4", "10.0.0.5"}, 1);
    srv.answer_a("h.a", {"10.0.1.1"}, 2);
    set_resolv_conf("nameserver 127.0.0.1\nsearch a\n");
    resolve_call r("h", DNS_SEARCH_TYPE_A, 3);
    EXPECT_EQ(r.ret, DNS_OK);
    EXPECT_EQ(r.found(), "10.0.0.1/1 10.0.0.2/1 10.0.0.3/1");
    EXPECT_EQ(r.ttls[3], 0u) << "nothing is written past the capacity";
    EXPECT_EQ(srv.query_count(), 2u) << "the remaining names are still asked";
}

TEST_F(ResolveLoop, OversizedReplyIsCutAtTheReceiveBuffer) {
    scripted_server srv("127.0.0.1");
    srv.on_query([](const parsed_query &q) {
        msg m = msg::reply_to(q);
        if (q.qname == "many") {
            for (int i = 0; i < 200; ++i) { // about 3.4 KB; the first ten fit easily
                m.answer_a(q.qname, "10.0." + std::to_string(i / 250) + "." + std::to_string(i % 250), 1);
            }
        } else {
            for (int i = 0; i < 120; ++i) { // filler past 2047 bytes, the address behind it
                m.answer_raw(q.qname, qtype::txt, qclass::in, 1, bytes(10, 'x'));
            }
            m.answer_a(q.qname, "10.9.9.9", 1);
        }
        return reply(m);
    });
    set_resolv_conf("nameserver 127.0.0.1\n");
    resolve_call many("many", DNS_SEARCH_TYPE_A);
    EXPECT_EQ(many.ret, DNS_OK);
    EXPECT_EQ(many.count, 10u);
    resolve_call cut("cut", DNS_SEARCH_TYPE_A);
    EXPECT_EQ(cut.ret, DNS_ERR_PARSE_ANSWER) << "the record that crosses byte 2047 is cut";
}

TEST_F(ResolveLoop, TenFromTwoServers) {
    scripted_server one("127.0.0.1");
    scripted_server two("127.0.0.2");
    one.answer_a("h", {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4", "10.0.0.5", "10.0.0.6"}, 1);
    two.answer_a("h", {"10.0.1.1", "10.0.1.2", "10.0.1.3", "10.0.1.4", "10.0.1.5", "10.0.1.6"}, 2);
    set_resolv_conf("nameserver 127.0.0.1\nnameserver 127.0.0.2\n");
    resolve_call r("h", DNS_SEARCH_TYPE_A);
    EXPECT_EQ(r.count, 10u);
    EXPECT_EQ(text_of(r.addrs[9]), "10.0.1.4");
}

TEST_F(ResolveLoop, TheLatestAttemptDecidesWhenNothingIsFound) {
    scripted_server srv("127.0.0.1");
    srv.on_query([](const parsed_query &q) {
        if (q.qname == "h") {
            return reply::silence();
        }
        return reply(msg::reply_to(q).rcode(rcode::nxdomain));
    });
    set_resolv_conf("nameserver 127.0.0.1\nsearch a\n");
    EXPECT_EQ(resolve_call("h", DNS_SEARCH_TYPE_A, 10, 1).ret, DNS_ERR_PARSE_ANSWER);

    srv.on_query([](const parsed_query &q) {
        if (q.qname == "h") {
            return reply(msg::reply_to(q).rcode(rcode::nxdomain));
        }
        return reply::silence();
    });
    EXPECT_EQ(resolve_call("h", DNS_SEARCH_TYPE_A, 10, 1).ret, DNS_ERR_TIMEOUT);
}

TEST_F(ResolveLoop, UnsetEntryIsSkipped) {
    scripted_server one("127.0.0.1");
    scripted_server two("127.0.0.2");
    one.answer_a("h", {"10.0.0.1"}, 1);
    two.answer_a("h", {"10.0.0.2"}, 1);
    set_resolv_conf("nameserver 127.0.0.1\nnameserver localhost\nnameserver 0.0.0.0\nnameserver 127.0.0.2\n");
    log_capture log(4);
    resolve_call r("h", DNS_SEARCH_TYPE_A);
    EXPECT_EQ(r.found(), "10.0.0.1/1 10.0.0.2/1");
    EXPECT_TRUE(log.contains("DNS_JudgeTheServerIsAvalible failed ulTryServer : 1"));
    EXPECT_TRUE(log.contains("DNS_JudgeTheServerIsAvalible failed ulTryServer : 2"));
}

TEST_F(ResolveLoop, NamedSemaphoreIsFreeDuringTraffic) {
    scripted_server srv("127.0.0.1");
    std::atomic<int> held{-1};
    srv.on_query([&](const parsed_query &q) {
        sem_t *sem = sem_open("dns_lock_sem", 0);
        int value = -1;
        if (sem != SEM_FAILED) {
            sem_getvalue(sem, &value);
            sem_close(sem);
        }
        held = value;
        return reply(msg::reply_to(q).answer_a(q.qname, "10.0.0.1", 1));
    });
    set_resolv_conf("nameserver 127.0.0.1\n");
    EXPECT_EQ(resolve_call("h", DNS_SEARCH_TYPE_A).ret, DNS_OK);
    EXPECT_EQ(held.load(), 1) << "the semaphore is posted before the question goes out";
}

// ---- failure paths -----------------------------------------------------------------

struct loop_fault {
    const char *what;
    op fails;
    uint32_t ret;
};

std::ostream &operator<<(std::ostream &os, const loop_fault &c) { return os << c.what; }

class LoopFault : public ResolveLoop, public testing::WithParamInterface<loop_fault> {};

// A failure on every attempt: the code of the last one comes back.
TEST_P(LoopFault, EveryAttemptFails) {
    scripted_server srv("127.0.0.1");
    srv.answer_a("h", {"10.0.0.1"}, 1);
    set_resolv_conf("nameserver 127.0.0.1\nnameserver 127.0.0.1\n");
    fail_nth(GetParam().fails, 1, 0);
    resolve_call r("h", DNS_SEARCH_TYPE_A);
    EXPECT_EQ(r.ret, GetParam().ret) << std::hex << r.ret;
    EXPECT_EQ(r.count, 0u);
}

// The same failure once: the next server (or name) makes up for it.
TEST_P(LoopFault, OneFailureIsMadeUpFor) {
    scripted_server srv("127.0.0.1");
    srv.answer_a("h", {"10.0.0.1"}, 1);
    set_resolv_conf("nameserver 127.0.0.1\nnameserver 127.0.0.1\n");
    fail_nth(GetParam().fails, 1);
    resolve_call r("h", DNS_SEARCH_TYPE_A);
    EXPECT_EQ(r.ret, DNS_OK);
    EXPECT_EQ(r.found(), "10.0.0.1/1");
}

INSTANTIATE_TEST_SUITE_P(Faults, LoopFault,
                         testing::Values(loop_fault{"socket", op::socket, DNS_ERR_SOCKET},
                                         loop_fault{"connect", op::connect, DNS_ERR_CONNECT},
                                         loop_fault{"send", op::send, DNS_ERR_SEND},
                                         loop_fault{"select", op::select, DNS_ERR_TIMEOUT},
                                         loop_fault{"recv", op::recv, DNS_ERR_PARSE_ANSWER}),
                         [](const testing::TestParamInfo<loop_fault> &i) { return std::string(i.param.what); });

TEST_F(ResolveLoop, FailedQuestionLeavesTheServer) {
    scripted_server one("127.0.0.1");
    scripted_server two("127.0.0.2");
    query_journal journal;
    journal.attach(one);
    journal.attach(two);
    set_resolv_conf("nameserver 127.0.0.1\nnameserver 127.0.0.2\nsearch a b\n");
    fail_nth(op::connect, 1);
    EXPECT_EQ(resolve_call("h", DNS_SEARCH_TYPE_A).ret, DNS_ERR_PARSE_ANSWER);
    EXPECT_EQ(journal.lines(),
              (std::vector<std::string>{"127.0.0.2 h A", "127.0.0.2 h.a A", "127.0.0.2 h.b A"}));
}

TEST_F(ResolveLoop, AllocationFailures) {
    scripted_server srv("127.0.0.1");
    srv.answer_a("h", {"10.0.0.1"}, 1);
    set_resolv_conf("nameserver 127.0.0.1\n");
    fail_nth(op::alloc, 1); // the server list
    resolve_call no_list("h", DNS_SEARCH_TYPE_A);
    EXPECT_EQ(no_list.ret, DNS_ERR_NO_MEMORY);
    EXPECT_EQ(no_list.count, 0u);
    EXPECT_EQ(srv.query_count(), 0u);

    vekdns::pal_test::clear_faults();
    fail_nth(op::alloc, 2); // the first question's message
    resolve_call no_message("h", DNS_SEARCH_TYPE_A);
    EXPECT_EQ(no_message.ret, DNS_ERR_NO_MEMORY);
    EXPECT_EQ(no_message.count, 0u);
    EXPECT_EQ(srv.query_count(), 0u);
}

TEST_F(ResolveLoop, ManySearchSuffixesCostSevenQuestionsAtMost) {
    scripted_server srv("127.0.0.1");
    set_resolv_conf("nameserver 127.0.0.1\nsearch s1 s2 s3 s4 s5 s6 s7\n");
    EXPECT_EQ(resolve_call("h", DNS_SEARCH_TYPE_A).ret, DNS_ERR_PARSE_ANSWER);
    EXPECT_EQ(srv.query_count(), 7u);
    EXPECT_EQ(srv.queries().back().qname, "h.s6");
}

} // namespace
