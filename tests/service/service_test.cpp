// Service resolution end to end through the scripted server: reply reading
// and joining, the driver's order over servers and search domains, the
// unreachable table, the cache, target completion, the three exported calls,
// and one fault sweep over those calls.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <sstream>

#include "os_adapter/test_hooks.h"
#include "support/dns_server.h"
#include "support/sandbox.h"
#include "support/tcp_once.h"
#include "vek_dns_ops.h"

namespace {

using namespace vekdns::test;
using vekdns::pal_test::calls;
using vekdns::pal_test::op;
using Q = const parsed_query &;

std::string addr_text(const DNS_IPADDR_S &a) {
    char t[INET6_ADDRSTRLEN] = {};
    inet_ntop(a.ulType == DNS_IP_TYPE_IPV6 ? AF_INET6 : AF_INET, &a.unIpAddr, t, sizeof(t));
    return t;
}

// "13 | t 10 60 5060 1.2.3.4 | ..." (code in hex, then each record).
std::string show(uint32_t ret, const DNS_SRV_RR_S *rr, uint32_t n) {
    std::ostringstream o;
    o << std::hex << ret << std::dec;
    for (uint32_t i = 0; rr != nullptr && i < n; ++i) {
        o << " | " << rr[i].szTarget << ' ' << rr[i].usPriority << ' ' << rr[i].usWeight << ' ' << rr[i].usPort
          << ' ' << addr_text(rr[i].stAddr);
    }
    return o.str();
}

std::string blocking(const char *domain, uint32_t capacity = 12, const char *service = "sip") {
    std::vector<DNS_SRV_RR_S> rr(capacity);
    uint32_t n = capacity;
    const uint32_t ret = ORV_NETB_DnsGetSrvBySynResolve(service, "udp", domain, rr.data(), &n);
    return show(ret, ret == DNS_OK ? rr.data() : nullptr, n);
}

// Collects the callbacks of asynchronous requests.
struct waiter {
    std::mutex mu;
    std::condition_variable cv;
    int calls = 0;
    std::string result;
    static uint32_t done(DNS_SRV_ASYN_S *req, DNS_SRV_RR_S *rr, uint32_t n, void *user, uint32_t ret) {
        auto *w = static_cast<waiter *>(user);
        std::lock_guard<std::mutex> lock(w->mu);
        w->result = std::string(req->szName) + " " + show(ret, rr, n);
        ++w->calls;
        w->cv.notify_all();
        return 0;
    }
    std::string wait() {
        std::unique_lock<std::mutex> lock(mu);
        cv.wait_for(lock, std::chrono::seconds(20), [&] { return calls > 0; });
        return result;
    }
};

std::string async(const char *service, const char *domain, int32_t timeout, int32_t capacity = 10) {
    waiter w;
    const uint32_t ret =
        ORV_NETB_DnsGetSrvByAsynResolve(service, "udp", domain, timeout, capacity, waiter::done, &w);
    return ret != DNS_OK ? show(ret, nullptr, 0) : w.wait();
}

// One SRV answer written byte by byte: owner name, then data of `rdlength`
// (default: its size) with `data` behind it.
msg raw_answer(Q q, bytes owner, const bytes &data, int rdlength = -1) {
    const uint16_t len = static_cast<uint16_t>(rdlength < 0 ? data.size() : rdlength);
    owner.insert(owner.end(), {0, 33, 0, 1, 0, 0, 0, 60, uint8_t(len >> 8), uint8_t(len)});
    owner.insert(owner.end(), data.begin(), data.end());
    return msg::reply_to(q).ancount(1).trailing(owner);
}

class Service : public testing::Test {
protected:
    void SetUp() override {
        ORV_NETB_DnsSetLogLevel(0);
        set_resolv_conf("nameserver 127.0.0.1\n");
    }
    // SRV questions get `f`'s reply, the others the table's (set under the
    // server's lock: its thread reads the handler).
    void use(std::function<reply(Q)> f) {
        srv.on_query([this, f](Q q) { return q.qtype == qtype::srv ? reply(f(q)) : srv.table_reply(q); });
    }
    scripted_server srv{"127.0.0.1"};
};

TEST_F(Service, RepliesAreOrderedJoinedAndChecked) {
    srv.answer_a("x.example", {"192.0.2.9"});
    const std::string root = "", name = "_sip._udp.d";
    const struct {
        const char *row;
        std::function<reply(Q)> build;
        std::string want;
    } rows[] = {
        {"priority, weight, equal pairs later first", [](Q q) { return msg::reply_to(q)
            .answer_srv(q.qname, 20, 5, 1, "a", 60).answer_srv(q.qname, 10, 1, 2, "b", 60)
            .answer_srv(q.qname, 10, 60, 3, "c", 60).answer_srv(q.qname, 10, 1, 4, "d", 60)
            .additional_a("a", "10.0.0.1", 60).additional_a("b", "10.0.0.2", 60)
            .additional_a("c", "10.0.0.3", 60).additional_a("d", "10.0.0.4", 60); },
         "0 | c 10 60 3 10.0.0.3 | d 10 1 4 10.0.0.4 | b 10 1 2 10.0.0.2 | a 20 5 1 10.0.0.1"},
        {"families in additional order", [](Q q) { return msg::reply_to(q).answer_srv(q.qname, 1, 1, 9, "t", 60)
            .additional_a("t", "10.0.0.1", 60).additional_aaaa("t", "fd00::1", 60).additional_a("t", "10.0.0.2", 60); },
         "0 | t 1 1 9 10.0.0.1 | t 1 1 9 fd00::1 | t 1 1 9 10.0.0.2"},
        {"case and one trailing dot", [](Q q) { return msg::reply_to(q).answer_srv(q.qname, 1, 1, 9, "sip1.Example.COM", 60)
            .additional_a("SIP1.example.com.", "10.0.0.1", 60).compress(); },
         "0 | sip1.Example.COM 1 1 9 10.0.0.1"},
        {"root alone", [&](Q q) { return msg::reply_to(q).answer_srv(q.qname, 0, 0, 0, root, 60); }, "26040012"},
        {"root beside another", [&](Q q) { return msg::reply_to(q).answer_srv(q.qname, 0, 0, 0, root, 60)
            .answer_srv(q.qname, 1, 0, 5, "x.example", 60); },
         "0 |  0 0 0 0.0.0.0 | x.example 1 0 5 192.0.2.9"},
        {"12 answers capped at 10", [](Q q) { msg m = msg::reply_to(q);
            for (int i = 0; i < 12; ++i) m.answer_srv(q.qname, 1, 0, 1, "t", 60).additional_a("t", "10.0.0." + std::to_string(i + 1), 60);
            return m; },
         "0 | t 1 0 1 10.0.0.1 | t 1 0 1 10.0.0.2 | t 1 0 1 10.0.0.3 | t 1 0 1 10.0.0.4 | t 1 0 1 10.0.0.5 | t 1 0 1 10.0.0.6 | t 1 0 1 10.0.0.7 | t 1 0 1 10.0.0.8 | t 1 0 1 10.0.0.9 | t 1 0 1 10.0.0.10"},
        {"OPT, TXT, odd A lengths, broadcast skipped", [](Q q) { return msg::reply_to(q).answer_srv(q.qname, 1, 1, 9, "t", 60)
            .additional_raw("", qtype::opt, 0, {}).additional_raw("t", qtype::txt, 60, {1, 'x'})
            .additional_raw("t", qtype::a, 60, {10, 0, 0, 7, 1}).additional_a("t", "255.255.255.255", 60)
            .additional_aaaa("t", "fd00::2", 60); },
         "0 | t 1 1 9 fd00::2"},
        {"name error", [](Q q) { return msg::reply_to(q).rcode(3); }, "26040016"},
        {"no answers", [](Q q) { return msg::reply_to(q); }, "26040016"},
        {"header only", [](Q q) { bytes b = msg::reply_to(q).answer_srv(q.qname, 1, 1, 1, "t", 1).bytes(); b.resize(12); return b; }, "26040016"},
        {"CNAME answer", [](Q q) { return msg::reply_to(q).answer_cname(q.qname, "t", 60); }, "26040014"},
        {"pointer loop", [](Q q) { return raw_answer(q, {0xC0, uint8_t(q.qname.size() + 18)}, {0, 1, 0, 1, 0, 1, 0}); }, "26040016"},
        {"forward pointer", [](Q q) { return raw_answer(q, {0xC0, 12}, {0, 1, 0, 1, 0, 1, 0xC0, 0x60}).trailing(bytes(64, 1)); }, "26040016"},
        {"name of 256", [](Q q) { bytes d{0, 1, 0, 1, 0, 1}; for (int i = 0; i < 4; ++i) { d.push_back(63); d.insert(d.end(), 63, 'a'); }
            return d.push_back(0), raw_answer(q, {0xC0, 12}, d); }, "26040018"},
        {"answer data cut", [](Q q) { return raw_answer(q, {0xC0, 12}, {0, 1, 0, 1, 0, 1, 1, 't', 0}, 200); }, "26040016"},
    };
    for (const auto &row : rows) {
        ORV_NETB_DnsCleanBuffer();
        use(row.build);
        EXPECT_EQ(blocking("d"), row.want) << row.row;
    }
}

TEST_F(Service, TruncatedRepliesAndLateIds) {
    srv.answer_a("t", {"10.0.0.5"}); // completes a target read without its address
    const auto full = [](Q q) { return msg::reply_to(q).answer_srv(q.qname, 1, 1, 9, "t", 60).additional_a("t", "10.0.0.1", 60); };
    const auto cut = [](Q q) { return reply(msg::reply_to(q).tc().answer_srv(q.qname, 1, 1, 9, "t", 60)); };
    const auto late = [&](Q q) { reply r(full(q)); bytes old = msg::reply_to(q).answer_srv(q.qname, 2, 2, 8, "t", 60).additional_a("t", "10.6.6.6", 60).bytes();
        old[1] ^= 1; return reply(old).then(r.datagrams[0]); };
    const struct { const char *row; query_handler udp; bool tcp; std::string want; } rows[] = {
        {"truncated, whole over TCP", cut, true, "0 | t 1 1 9 10.0.0.1"},
        {"truncated, TCP refused: the cut reply", cut, false, "0 | t 1 1 9 10.0.0.5"},
        {"late reply with another id", late, false, "0 | t 1 1 9 10.0.0.1"},
    };
    for (const auto &row : rows) {
        ORV_NETB_DnsCleanBuffer();
        srv.on_query([&](Q q) { return q.qtype == qtype::srv ? row.udp(q) : srv.table_reply(q); });
        std::unique_ptr<tcp_once> tcp(row.tcp ? new tcp_once([&](Q q) { return reply(full(q)); }, 1) : nullptr);
        EXPECT_EQ(blocking("d"), row.want) << row.row;
    }
}

TEST_F(Service, ServersAndSearchDomainsInOrder) {
    scripted_server second("127.0.0.2");
    set_resolv_conf("nameserver 127.0.0.1\nnameserver 127.0.0.2\nsearch a.example b.example\n");
    use([](Q q) { return msg::reply_to(q).rcode(3); });
    EXPECT_EQ(blocking("corp"), "26040016");
    std::string asked;
    for (const auto *s : {&srv, &second}) {
        for (const parsed_query &q : s->queries()) {
            asked += (s == &srv ? "127.0.0.1 " : "127.0.0.2 ") + q.qname + ";";
        }
    }
    EXPECT_EQ(asked, "127.0.0.1 _sip._udp.corp;127.0.0.1 _sip._udp.corp.a.example;127.0.0.1 _sip._udp.corp.b.example;"
                     "127.0.0.2 _sip._udp.corp;127.0.0.2 _sip._udp.corp.a.example;127.0.0.2 _sip._udp.corp.b.example;");
}

TEST_F(Service, SilentServersAreRecordedSkippedAndCleaned) {
    scripted_server silent("127.0.0.2");
    silent.on_query([](Q) { return reply(); });
    set_resolv_conf("nameserver 127.0.0.2\nnameserver 127.0.0.1\n");
    use([](Q q) { return msg::reply_to(q).answer_srv(q.qname, 1, 1, 9, "t", 60).additional_a("t", "10.0.0.1", 60); });
    EXPECT_EQ(async("ldap", "d", 1), "_ldap._udp.d 0 | t 1 1 9 10.0.0.1");
    EXPECT_EQ(std::string(g_dnsServer[0]), "") << "_ldap servers are never recorded";
    EXPECT_EQ(async("sip", "d", 1), "_sip._udp.d 0 | t 1 1 9 10.0.0.1");
    EXPECT_EQ(std::string(g_dnsServer[0]), "127.0.0.2");
    const size_t asked = silent.queries().size();
    ORV_NETB_DnsCleanBuffer();
    EXPECT_EQ(async("sip", "d", 1), "_sip._udp.d 0 | t 1 1 9 10.0.0.1");
    EXPECT_EQ(silent.queries().size(), asked) << "a recorded server is skipped";
    EXPECT_EQ(DNS_SrvIPUnReachableJudge("127.0.0.", 8), 0u) << "prefix match";
    EXPECT_EQ(ORV_NETB_DnsUnReachableIPClean(), 0u);
    ORV_NETB_DnsCleanBuffer();
    EXPECT_EQ(async("sip", "d", 1), "_sip._udp.d 0 | t 1 1 9 10.0.0.1");
    EXPECT_EQ(silent.queries().size(), asked + 1);
}

TEST_F(Service, CacheAndCompletion) {
    srv.answer_a("multi", {"10.0.0.1", "10.0.0.2"});
    srv.answer_aaaa("multi", {"fd00::1"});
    srv.answer_a("v6only", {"10.0.0.6"});
    use([](Q q) { return msg::reply_to(q).answer_srv(q.qname, 1, 1, 1, "multi", 60)
        .answer_srv(q.qname, 2, 1, 2, "gone", 60).answer_srv(q.qname, 3, 1, 3, "gone2", 60)
        .answer_srv(q.qname, 4, 1, 4, "192.0.2.7", 60).answer_srv(q.qname, 5, 1, 5, "v6only", 60)
        .additional_aaaa("v6only", "fd00::6", 60); });
    const std::string full = "0 | multi 1 1 1 10.0.0.1 | 192.0.2.7 4 1 4 192.0.2.7 | v6only 5 1 5 fd00::6"
                             " | multi 1 1 1 10.0.0.2 | multi 1 1 1 fd00::1 | v6only 5 1 5 10.0.0.6";
    // Runs are consecutive records of one target: the cached fd00::6 record
    // stands alone again and gets its IPv4 address appended once more.
    EXPECT_EQ(blocking("d"), full);
    const size_t asked = srv.queries().size();
    EXPECT_EQ(blocking("d"), full + " | v6only 5 1 5 10.0.0.6") << "from the cache, completed again";
    EXPECT_EQ(srv.queries().size(), asked) << "no traffic: the addresses are cached too";
    ORV_NETB_DnsCleanBuffer();
    EXPECT_EQ(blocking("d", 5), "0 | multi 1 1 1 10.0.0.1 | 192.0.2.7 4 1 4 192.0.2.7 | v6only 5 1 5 fd00::6");
    use([](Q q) { return msg::reply_to(q).answer_srv(q.qname, 1, 1, 1, "gone", 60); });
    ORV_NETB_DnsCleanBuffer();
    EXPECT_EQ(async("sip", "d", 1), "_sip._udp.d 26040013");
}

TEST_F(Service, ArgumentsAndTextCall) {
    use([](Q q) { return msg::reply_to(q).answer_srv(q.qname, 1, 2, 3, "t", 60)
        .answer_srv(q.qname, 4, 5, 6, "u", 60).additional_aaaa("t", "fd00::1", 60); });
    srv.answer_a("u", {"10.1.2.3"});
    DNS_SRV_RR_STR_S text[2] = {};
    uint32_t n = 2;
    ASSERT_EQ(vek_dns_get_srv_resolve_syn("sip", "udp", "d", text, &n), 0u);
    std::string got = std::to_string(n);
    for (uint32_t i = 0; i < n; ++i) {
        got += std::string(" | ") + text[i].szTarget + " " + std::to_string(text[i].usPriority) + " " +
               std::to_string(text[i].usPort) + " " + std::to_string(text[i].ulType) + " " + text[i].acIpAddr;
    }
    EXPECT_EQ(got, "2 | t 1 3 1 fd00::1 | u 4 6 0 10.1.2.3");
    DNS_SRV_RR_S rr[1];
    uint32_t zero = 0;
    EXPECT_EQ(ORV_NETB_DnsGetSrvBySynResolve("sip", "udp", "d", rr, &zero), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(vek_dns_get_srv_resolve_syn("sip", "udp", "d", text, &zero), 1u);
    EXPECT_EQ(async("sip", "d", -1), "26040001");
    EXPECT_EQ(async("fifteen_chars_x", "d", 1), "26040010");
    EXPECT_EQ(async("sip", std::string(64, 'a').c_str(), 1), "26040026");
    EXPECT_EQ(blocking("d", 1), "0 | t 1 2 3 fd00::1") << "never past the capacity";
}

} // namespace
