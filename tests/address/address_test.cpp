// Address resolution: the question on the wire and the reading of replies,
// the resolver loop over servers and suffixes, and the exported calls.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "address/address_calls.h"
#include "address/wire_internal.h"
#include "config/discovery.h"
#include "os_adapter/test_hooks.h"
#include "support/dns_server.h"
#include "support/sandbox.h"
#include "vek_dns_ops.h"

namespace {

using namespace vekdns::test;
using vekdns::pal_test::calls;
using vekdns::pal_test::op;
using strings = std::vector<std::string>;

DNS_IPADDR_S ip(const std::string &text) {
    DNS_IPADDR_S a{};
    a.ulType = text.find(':') != std::string::npos ? DNS_IP_TYPE_IPV6 : DNS_IP_TYPE_IPV4;
    (void)inet_pton(a.ulType == DNS_IP_TYPE_IPV6 ? AF_INET6 : AF_INET, text.c_str(), &a.unIpAddr);
    return a;
}

// "10.0.0.1 fd00::1", or with TTLs "10.0.0.1/300 fd00::1/60".
std::string join(const DNS_IPADDR_S *addrs, uint32_t n, const uint32_t *ttls = nullptr) {
    std::string out;
    for (uint32_t i = 0; addrs != nullptr && i < n; ++i) {
        char text[INET6_ADDRSTRLEN] = {};
        inet_ntop(addrs[i].ulType == DNS_IP_TYPE_IPV6 ? AF_INET6 : AF_INET, &addrs[i].unIpAddr, text,
                  sizeof(text));
        out.append(i == 0 ? "" : " ")
            .append(text)
            .append(ttls ? "/" : "")
            .append(ttls ? std::to_string(ttls[i]) : "");
    }
    return out;
}

struct result {
    DNS_IPADDR_S addrs[10] = {};
    uint32_t ttls[10] = {}, count = 0, ret = 0;
    std::string found() const { return join(addrs, count, ttls); }
};

result resolve(std::string name, uint32_t type, uint32_t timeout = 1) {
    result r;
    DNS_HOSTNAME_S req{type, name.data()};
    r.count = 10;
    r.ret = DNS_Resolve(&req, r.addrs, &r.count, timeout, r.ttls);
    return r;
}

const uint16_t initial_query_id = g_usQueryId; // read before main: no question asked yet

TEST(Wire, QuestionBytesAndIdWrap) {
    EXPECT_EQ(initial_query_id, 1);
    scripted_server v6("::1");
    g_usQueryId = 65535;
    char dotted[] = "www.example.com.";
    const DNS_IPADDR_S server = ip("::1");
    for (int i = 0; i < 2; ++i) {
        int32_t sock = -1;
        ASSERT_EQ(DNS_Query(dotted, static_cast<uint32_t>(std::strlen(dotted)), &server, i, &sock), DNS_OK);
        close(sock);
    }
    ASSERT_TRUE(v6.wait_for_queries(2));
    EXPECT_EQ(v6.queries()[0].raw, msg::query(65535, "www.example.com", qtype::a).bytes());
    EXPECT_EQ(v6.queries()[1].raw, msg::query(0, "www.example.com", qtype::aaaa).bytes());
}

// The reply in an exact-size heap block, so that the sanitizer sees any read past it.
result take(const bytes &reply) {
    result r;
    std::unique_ptr<uint8_t[]> exact(new uint8_t[reply.size()]);
    std::copy(reply.begin(), reply.end(), exact.get());
    r.ret = vekdns::detail::take_reply({exact.get(), reply.size()}, r.addrs, &r.count, 10, r.ttls);
    return r;
}

TEST(Wire, RepliesRows) {
    const msg h = msg::reply_to(parse_query(msg::query(7, "h.example", qtype::a).bytes()));
    const msg good =
        msg(h).answer_cname("h.example", "x", 5).answer_a("x", "10.0.0.1", 1).answer_aaaa("x", "fd00::1", 2);
    const std::pair<msg, std::string> rows[] = {
        {good, "10.0.0.1/1 fd00::1/2"},
        {msg(good).compress(), "10.0.0.1/1 fd00::1/2"},
        {msg(good).rcode(3), ""},
        {msg(good).rcode(8), ""},
        {msg(good).flags(0x0100), ""}, // not a response
        {h, ""},
        {msg(h)
             .answer_raw("h", qtype::a, 1, {1, 2, 3, 4, 5})
             .answer_raw("h", qtype::aaaa, 2, {1, 2, 3, 4})
             .answer_aaaa("h", "::2", 3),
         "::2/3"},
        {msg(h).answer_a("h", "10.0.0.3", 4).ancount(9), ""},
    };
    for (const auto &[reply, found] : rows) {
        const result r = take(reply.bytes());
        EXPECT_EQ(r.found(), found) << reply.bytes().size();
        EXPECT_EQ(r.ret, found.empty() ? 1u : 0u);
    }
    const bytes full = msg(good).compress().bytes();
    for (size_t n = 0; n < full.size(); ++n) {
        EXPECT_EQ(take(bytes(full.begin(), full.begin() + static_cast<long>(n))).found(), "") << n;
    }
}

TEST(Resolve, EveryServerAndNameInOrderAnswersAppend) {
    scripted_server one("127.0.0.1"), six("::1"), two("127.0.0.2");
    one.answer_a("h", {"10.0.0.1", "10.0.0.2"}, 30);
    six.answer_a("h.b", {"10.0.0.3"}, 20);
    six.answer_aaaa("h", {"fd00::1"}, 60);
    two.answer_a("h.a", {"10.0.0.4"}, 10);
    int taken = 0;
    two.on_query([&](const parsed_query &q) {
        taken += named_sem_value() == 1 ? 0 : 1;
        return two.table_reply(q);
    });
    set_resolv_conf("nameserver 127.0.0.1\nnameserver ::1\nnameserver localhost\nnameserver 0.0.0.0\n"
                    "nameserver 127.0.0.2\nsearch a b\n");
    const result r = resolve("h", DNS_SEARCH_TYPE_A);
    EXPECT_EQ(r.ret, DNS_OK);
    EXPECT_EQ(r.found(), "10.0.0.1/30 10.0.0.2/30 10.0.0.3/20 10.0.0.4/10");
    const strings names{"h A", "h.a A", "h.b A"};
    EXPECT_EQ(one.asked(), names);
    EXPECT_EQ(six.asked(), names);
    EXPECT_EQ(two.asked(), names);
    EXPECT_EQ(taken, 0) << "the named semaphore is free during traffic";
    EXPECT_EQ(calls(op::fopen), 1u) << "the resolver file is read once";
    EXPECT_EQ(resolve("h", DNS_SEARCH_TYPE_AAAA).found(), "fd00::1/60");
}

TEST(Resolve, LiteralsSuffixLimitsAndTheLatestAttempt) {
    set_resolv_conf(""); // anything but a literal ends in discovery, which finds no server
    const std::pair<const char *, uint32_t> literals[] = {
        {"192.168.1.10", 0}, {"1.2.3.0000000004", 0}, {"::1", 1}, {"::1", 0}, {"255.255.255.255", 0}};
    std::string got;
    for (const auto &[name, type] : literals) {
        const result r = resolve(name, type);
        got += (r.ret == DNS_OK ? r.found() : std::to_string(r.ret - DNS_ERR_PARA_INVALID + 1)) + ",";
    }
    EXPECT_EQ(got, "192.168.1.10/0,1.2.3.4/0,::1/0,10,10,") << "10: no server";
    scripted_server srv("127.0.0.1");
    const std::string l63(63, 'n'), name253 = l63 + "." + l63 + "." + l63 + "." + std::string(61, 'm');
    set_resolv_conf("nameserver 127.0.0.1\nsearch ab x\n");
    EXPECT_EQ(resolve(name253, DNS_SEARCH_TYPE_A).ret, DNS_ERR_PARSE_ANSWER) << "NXDOMAIN";
    EXPECT_EQ(srv.asked(), (strings{name253 + " A", name253 + ".x A"}))
        << "253 + 1 + 2 is too long, + 1 fits";
    srv.on_query(
        [](const parsed_query &q) { return q.qname == "h.x" ? reply() : reply(msg::reply_to(q).rcode(3)); });
    EXPECT_EQ(resolve("h", DNS_SEARCH_TYPE_A).ret, DNS_ERR_TIMEOUT) << "the last try was not answered";
}

// The resolver file is honoured at every query: rewritten in place with the
// same size within the same second, here and by another process, it is
// read again. A file that has been still long enough is not read again.
TEST(Resolve, EveryQuerySeesTheResolverFileAsItIsNow) {
    scripted_server one("127.0.0.1"), two("127.0.0.2");
    one.answer_a("h", {"10.0.0.1"});
    two.answer_a("h", {"10.0.0.2"});
    std::string seen;
    for (const char *conf : {"nameserver 127.0.0.1\n", "nameserver 127.0.0.2\n", "child", "nameserver 127.0.0.2\n"}) {
        if (std::strcmp(conf, "child") != 0) {
            set_resolv_conf(conf);
        } else if (const pid_t pid = fork(); pid == 0) {
            set_resolv_conf("nameserver 127.0.0.1\n");
            _exit(0);
        } else {
            ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
        }
        seen += resolve("h", DNS_SEARCH_TYPE_A).found() + " ";
    }
    EXPECT_EQ(seen, "10.0.0.1/300 10.0.0.2/300 10.0.0.1/300 10.0.0.2/300 ");

    vekdns::detail::set_resolver_racy_window(0); // as if the file had been still for long
    const unsigned opens = calls(op::fopen);
    seen = resolve("h", DNS_SEARCH_TYPE_A).found() + " " + resolve("h", DNS_SEARCH_TYPE_A).found();
    EXPECT_EQ(calls(op::fopen), opens + 1) << "read once, then taken from the snapshot";
    set_resolv_conf("nameserver 127.0.0.1\n\n"); // another size
    seen += " " + resolve("h", DNS_SEARCH_TYPE_A).found();
    vekdns::detail::set_resolver_racy_window(-1);
    EXPECT_EQ(seen, "10.0.0.2/300 10.0.0.2/300 10.0.0.1/300");
}

// ---- the exported calls ---------------------------------------------------------------

// What the callback saw. It is read once no request is in flight any more:
// a worker counts itself out after its callback returned.
struct outcome {
    int calls = 0;
    std::string text;
    std::thread::id thread;
};

uint32_t record(uint32_t ret, char *, DNS_IPADDR_S *addrs, uint32_t n, void *user) {
    auto *o = static_cast<outcome *>(user);
    o->calls++;
    o->thread = std::this_thread::get_id();
    o->text = std::to_string(ret) + " " + join(addrs, n);
    return 0;
}

std::string request(const char *name, uint32_t type) {
    outcome o;
    EXPECT_EQ(ORV_NETB_DnsGetIpByAsynResolve(name, type, 1, record, &o), DNS_OK);
    EXPECT_TRUE(wait_until([] { return vekdns::detail::requests_in_flight() == 0; }));
    EXPECT_EQ(o.calls, 1);
    return (o.thread == std::this_thread::get_id() ? "here " : "worker ") + o.text;
}

// A lookup from inside a cache-hit callback: the named semaphore must be free.
uint32_t chain(uint32_t, char *, DNS_IPADDR_S *, uint32_t, void *user) {
    return ORV_NETB_DnsGetIpByAsynResolve("c", 0, 1, record, user);
}

TEST(AddressCalls, CacheFirstThenWorkerBothFamiliesMerged) {
    scripted_server v4("127.0.0.1"), v6("::1");
    set_resolv_conf("nameserver 127.0.0.1\nnameserver ::1\n");
    v4.answer_a("h", {"10.0.0.1"}, 300);
    v4.answer_a("h", {"10.0.0.2"}, 60);
    v6.answer_aaaa("h", {"fd00::1", "fd00::2"});
    vekdns::pal_test::set_clock(2000000);
    EXPECT_EQ(request("h", 2), "worker 0 10.0.0.1 10.0.0.2 fd00::1 fd00::2");
    vekdns::pal_test::set_clock(2000060);
    EXPECT_EQ(request("h", 2), "here 0 10.0.0.2 10.0.0.1 fd00::2 fd00::1");
    vekdns::pal_test::set_clock(2000061); // stored with the smallest TTL, 60
    EXPECT_EQ(request("h", 0), "worker 0 10.0.0.1 10.0.0.2");
    EXPECT_EQ(request("h", 2), "worker 0 10.0.0.2 10.0.0.1 fd00::1 fd00::2")
        << "A from the cache, AAAA asked";
    for (int i = 0; i < 9; ++i) {
        ASSERT_EQ(DNS_SetIpToCache("ten", 300, ip("10.0.1." + std::to_string(i))), DNS_OK);
        ASSERT_EQ(DNS_SetIpToCache("ten", 300, ip("fd00::" + std::to_string(i + 1))), DNS_OK);
    }
    EXPECT_EQ(request("ten", 2),
              "here 0 10.0.1.8 10.0.1.7 10.0.1.6 10.0.1.5 10.0.1.4 10.0.1.3 10.0.1.2 10.0.1.1 "
              "10.0.1.0 fd00::9");
    EXPECT_EQ(request("unknown", 0), "worker " + std::to_string(DNS_ERR_PARSE_ANSWER) + " ");
    ASSERT_EQ(DNS_SetIpToCache("c", 300, ip("10.0.0.9")), DNS_OK);
    outcome o;
    ASSERT_EQ(ORV_NETB_DnsGetIpByAsynResolve("c", 0, 1, chain, &o), DNS_OK);
    EXPECT_EQ(o.text, "0 10.0.0.9") << "the chained lookup hit the cache too";
}

TEST(AddressCalls, BlockingAndTextForms) {
    scripted_server v4("127.0.0.1"), v6("::1");
    set_resolv_conf("nameserver 127.0.0.1\nnameserver ::1\n");
    v4.answer_a("h", {"10.0.0.1", "10.0.0.2", "10.0.0.3"});
    v6.answer_aaaa("h", {"fd00::1"});
    DNS_IPADDR_S addrs[10];
    uint32_t n = 3;
    EXPECT_EQ(ORV_NETB_DnsGetIpBySynResolve("h", 2, addrs, &n), DNS_OK);
    EXPECT_EQ(join(addrs, n), "10.0.0.1 10.0.0.2 10.0.0.3") << "cut to the caller's room, IPv4 first";
    n = 10;
    EXPECT_EQ(ORV_NETB_DnsGetIpBySynResolve("nope", 0, addrs, &n), DNS_ERR_PARSE_ANSWER);
    EXPECT_EQ(n, 0u);
    DNS_IPADDR_STR_S texts[4];
    n = 4;
    EXPECT_EQ(vek_dns_get_ip_resolve_syn("h", 2, texts, &n), DNS_OK);
    std::string got;
    for (uint32_t i = 0; i < n; ++i) {
        got += std::to_string(texts[i].ulType) + ":" + texts[i].acIpAddr + " ";
    }
    EXPECT_EQ(got, "0:10.0.0.3 0:10.0.0.2 0:10.0.0.1 1:fd00::1 ") << "A from the cache now";
    n = 0;
    EXPECT_EQ(vek_dns_get_ip_resolve_syn("h", 2, texts, &n), 1u);
}

TEST(AddressCalls, NameRulesAndRefusedArguments) {
    const std::string l63(63, 'a'), l64(64, 'a');
    const std::string n255 = l63 + "." + l63 + "." + l63 + "." + l63;
    std::string got;
    for (const std::string &name :
         {std::string(), l63, l64, "x." + l64 + ".y", n255, n255 + ".c", l63 + ".", std::string("a..b")}) {
        got += std::to_string(dnsCheckHostName(name.c_str()));
    }
    EXPECT_EQ(got, "00110100");
    outcome o;
    EXPECT_EQ(ORV_NETB_DnsGetIpByAsynResolve("h", 3, 1, record, &o), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(ORV_NETB_DnsGetIpByAsynResolve("h", 0, -1, record, &o), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(ORV_NETB_DnsGetIpByAsynResolve(l64.c_str(), 0, 1, record, &o), DNS_ERR_NAME_FORMAT);
    EXPECT_EQ(o.calls, 0);
}

} // namespace
