// The exported address calls: cache hits on the calling thread, misses on a
// worker, the merge of both families, the blocking and text forms, and every
// failure path of the call and of its worker.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <semaphore.h>

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "address/address_calls.h"
#include "os_adapter/test_hooks.h"
#include "support/dns_server.h"
#include "support/sandbox.h"
#include "vek_dns_ops.h"

namespace {

using namespace vekdns::test;
using vekdns::detail::parked_workers;
using vekdns::detail::requests_in_flight;
using vekdns::pal_test::calls;
using vekdns::pal_test::fail_nth;
using vekdns::pal_test::op;
using vekdns::pal_test::set_clock;

constexpr uint32_t t0 = 2000000;

DNS_IPADDR_S ip(const std::string &text) {
    DNS_IPADDR_S a{};
    if (text.find(':') != std::string::npos) {
        a.ulType = DNS_IP_TYPE_IPV6;
        EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), a.unIpAddr.aucIpv6), 1);
    } else {
        a.ulType = DNS_IP_TYPE_IPV4;
        EXPECT_EQ(inet_pton(AF_INET, text.c_str(), &a.unIpAddr.ulIpv4), 1);
    }
    return a;
}

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

std::string join(const DNS_IPADDR_S *addrs, uint32_t n) {
    std::string out;
    for (uint32_t i = 0; addrs != nullptr && i < n; ++i) {
        out += (i == 0 ? "" : " ") + text_of(addrs[i]);
    }
    return out;
}

// Stores under the named semaphore, as the library's own users do.
void cache(const std::string &name, const std::vector<std::string> &addrs, uint32_t ttl = 300) {
    void *sem = nullptr;
    ASSERT_EQ(DNS_SemOpen(&sem), DNS_OK);
    DNS_SemWait(&sem);
    for (const std::string &a : addrs) {
        EXPECT_EQ(DNS_SetIpToCache(name.c_str(), ttl, ip(a)), DNS_OK);
    }
    DNS_SemPost(&sem);
    DNS_SemClose(&sem);
}

std::string cached(const std::string &name, uint32_t family) {
    DNS_IPADDR_S addrs[DNS_MAX_IP_NUM] = {};
    addrs[0].ulType = family;
    uint32_t n = 0;
    return DNS_GetIpFromCache(name.c_str(), addrs, &n) == DNS_OK ? join(addrs, n) : "miss";
}

// What the callback saw; it must be called exactly once per accepted request.
struct outcome {
    std::mutex mu;
    std::condition_variable cv;
    int calls = 0;
    uint32_t ret = 0xFFFFFFFFu;
    const char *name_ptr = nullptr;
    std::string name;
    bool list_null = false;
    uint32_t count = 0;
    std::string addrs;
    std::thread::id thread;

    bool wait(std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
        std::unique_lock<std::mutex> lock(mu);
        return cv.wait_for(lock, timeout, [this] { return calls > 0; });
    }
};

uint32_t record(uint32_t ret, char *name, DNS_IPADDR_S *addrs, uint32_t n, void *user) {
    auto *o = static_cast<outcome *>(user);
    std::lock_guard<std::mutex> lock(o->mu);
    o->calls++;
    o->ret = ret;
    o->name_ptr = name;
    o->name = name != nullptr ? name : "(null)";
    o->list_null = addrs == nullptr;
    o->count = n;
    o->addrs = join(addrs, n);
    o->thread = std::this_thread::get_id();
    o->cv.notify_all();
    return 0;
}

// Waits until every worker has finished and freed its request.
void settle() {
    EXPECT_TRUE(wait_until([] { return requests_in_flight() == 0; }, std::chrono::seconds(20)));
}

uint32_t resolve(const char *name, uint32_t type, outcome &o, int32_t timeout = 1) {
    return ORV_NETB_DnsGetIpByAsynResolve(name, type, timeout, record, &o);
}

class AddressCalls : public testing::Test {
protected:
    void SetUp() override { set_resolv_conf("nameserver 127.0.0.1\n"); }
    void TearDown() override { settle(); }
};

// ---- arguments --------------------------------------------------------------------------

TEST_F(AddressCalls, BadArgumentsAreRefusedWithoutCallback) {
    struct row {
        const char *what;
        const char *name;
        uint32_t type;
        int32_t timeout;
        bool with_callback;
        uint32_t ret;
    };
    const std::string long_name(256, 'a');
    const std::string long_label = std::string(64, 'b') + ".example";
    const row rows[] = {
        {"null name", nullptr, 0, 1, true, DNS_ERR_PARA_INVALID},
        {"null callback", "a.example", 0, 1, false, DNS_ERR_PARA_INVALID},
        {"negative time-out", "a.example", 0, -1, true, DNS_ERR_PARA_INVALID},
        {"search type 3", "a.example", 3, 1, true, DNS_ERR_PARA_INVALID},
        {"256 characters", long_name.c_str(), 0, 1, true, DNS_ERR_NAME_FORMAT},
        {"64-character label", long_label.c_str(), 2, 1, true, DNS_ERR_NAME_FORMAT},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        log_capture log(3);
        outcome o;
        uint32_t ret =
            ORV_NETB_DnsGetIpByAsynResolve(r.name, r.type, r.timeout, r.with_callback ? record : nullptr, &o);
        EXPECT_EQ(ret, r.ret);
        EXPECT_TRUE(log.contains(r.ret == DNS_ERR_PARA_INVALID ? "inputting parameter error!\r\n"
                                                               : "Invalid domain name format."));
        EXPECT_EQ(calls(op::sem_open), 0u) << "refused before any cache access";
        EXPECT_EQ(calls(op::thread_create), 0u);
        settle();
        EXPECT_EQ(o.calls, 0);
    }
}

// ---- cache hits and misses ------------------------------------------------------------------

TEST_F(AddressCalls, CacheHitAnswersOnTheCallingThread) {
    cache("hit.example", {"10.0.0.1", "10.0.0.2"});
    cache("hit.example", {"fd00::1"});
    for (uint32_t type : {0u, 1u}) {
        SCOPED_TRACE(type);
        const char *name = "hit.example";
        outcome o;
        vekdns::pal_test::clear_faults(); // counts from here
        ASSERT_EQ(resolve(name, type, o), DNS_OK);
        EXPECT_EQ(o.calls, 1) << "called before the call returned";
        EXPECT_EQ(o.thread, std::this_thread::get_id());
        EXPECT_EQ(o.name_ptr, name) << "the caller's own text";
        EXPECT_EQ(o.ret, DNS_OK);
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
    set_clock(t0);
    std::string name = "miss.example";
    outcome o;
    ASSERT_EQ(resolve(name.c_str(), DNS_SEARCH_TYPE_A, o), DNS_OK);
    ASSERT_TRUE(o.wait());
    settle();
    EXPECT_EQ(o.calls, 1);
    EXPECT_NE(o.thread, std::this_thread::get_id());
    EXPECT_NE(o.name_ptr, name.c_str()) << "the worker reports its own copy";
    EXPECT_EQ(o.name, name);
    EXPECT_EQ(o.ret, DNS_OK);
    EXPECT_EQ(o.addrs, "10.0.0.1 10.0.0.2");

    ASSERT_NE(pstDNSCache, nullptr);
    EXPECT_EQ(pstDNSCache->ulRecords, 2u);
    EXPECT_EQ(pstDNSCache->pstCacheFirst->pstNext->ulTtl, 60u);
    EXPECT_EQ(pstDNSCache->pstCacheFirst->pstPrev->ulTtl, 60u);
    set_clock(t0 + 60);
    EXPECT_EQ(cached(name, DNS_IP_TYPE_IPV4), "10.0.0.2 10.0.0.1");

    // The next request is a hit: no question, no thread.
    const size_t questions = srv.query_count();
    outcome again;
    ASSERT_EQ(resolve(name.c_str(), DNS_SEARCH_TYPE_A, again), DNS_OK);
    EXPECT_EQ(again.calls, 1);
    EXPECT_EQ(srv.query_count(), questions);

    set_clock(t0 + 61);
    EXPECT_EQ(cached(name, DNS_IP_TYPE_IPV4), "miss");
}

TEST_F(AddressCalls, FailedResolutionReportsItsCode) {
    scripted_server srv("127.0.0.1");
    srv.unknown_rcode(rcode::nxdomain);
    struct row {
        const char *name;
        int32_t timeout;
        uint32_t ret;
    };
    srv.on_query([&srv](const parsed_query &q) -> reply {
        return q.qname == "silent.example" ? reply::silence() : srv.table_reply(q);
    });
    for (const row &r : {row{"nx.example", 1, DNS_ERR_PARSE_ANSWER}, row{"silent.example", 0, DNS_ERR_TIMEOUT}}) {
        SCOPED_TRACE(r.name);
        outcome o;
        ASSERT_EQ(resolve(r.name, DNS_SEARCH_TYPE_A, o, r.timeout), DNS_OK);
        ASSERT_TRUE(o.wait());
        settle();
        EXPECT_EQ(o.calls, 1);
        EXPECT_EQ(o.ret, r.ret);
        EXPECT_EQ(o.count, 0u);
        EXPECT_EQ(pstDNSCache, nullptr) << "nothing stored";
    }
}

TEST_F(AddressCalls, BothFamiliesFromTheCachesAreCutAtTen) {
    cache("both.example", {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4", "10.0.0.5", "10.0.0.6", "10.0.0.7"});
    cache("both.example", {"fd00::1", "fd00::2", "fd00::3", "fd00::4", "fd00::5", "fd00::6"});
    outcome o;
    ASSERT_EQ(resolve("both.example", DNS_SEARCH_TYPE_BOTH, o), DNS_OK);
    EXPECT_EQ(o.calls, 1);
    EXPECT_EQ(o.count, 10u);
    EXPECT_EQ(o.addrs, "10.0.0.7 10.0.0.6 10.0.0.5 10.0.0.4 10.0.0.3 10.0.0.2 10.0.0.1 fd00::6 fd00::5 fd00::4");
    EXPECT_EQ(calls(op::thread_create), 0u);
    EXPECT_EQ(requests_in_flight(), 0u);
}

TEST_F(AddressCalls, BothFamiliesWithOneCachedAskOnlyTheOther) {
    struct row {
        const char *what;
        std::vector<std::string> cached4, cached6;
        bool server_answers;
        uint16_t asked;
        std::string reported;
    };
    const row rows[] = {
        {"A cached, AAAA resolved", {"10.0.0.1"}, {}, true, qtype::aaaa, "10.0.0.1 fd00::9"},
        {"A cached, AAAA fails", {"10.0.0.1"}, {}, false, qtype::aaaa, "10.0.0.1"},
        {"AAAA cached, A resolved", {}, {"fd00::1"}, true, qtype::a, "fd00::1 10.0.0.9"},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        scripted_server srv("127.0.0.1");
        if (r.server_answers) {
            srv.answer_a("one.example", {"10.0.0.9"});
            srv.answer_aaaa("one.example", {"fd00::9"});
        }
        if (!r.cached4.empty()) {
            cache("one.example", r.cached4);
        }
        if (!r.cached6.empty()) {
            cache("one.example", r.cached6);
        }
        outcome o;
        ASSERT_EQ(resolve("one.example", DNS_SEARCH_TYPE_BOTH, o), DNS_OK);
        ASSERT_TRUE(o.wait());
        settle();
        EXPECT_EQ(o.ret, DNS_OK);
        EXPECT_EQ(o.addrs, r.reported);
        ASSERT_GE(srv.query_count(), 1u);
        for (const parsed_query &q : srv.queries()) {
            EXPECT_EQ(q.qtype, r.asked);
        }
        ORV_NETB_DnsCleanBuffer();
    }
}

TEST_F(AddressCalls, BothFamiliesResolvedAreCutAtTen) {
    scripted_server srv("127.0.0.1");
    srv.answer_a("eight.example", {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4", "10.0.0.5", "10.0.0.6",
                                   "10.0.0.7", "10.0.0.8"});
    srv.answer_aaaa("eight.example", {"fd00::1", "fd00::2", "fd00::3", "fd00::4", "fd00::5"});
    std::vector<std::string> ten;
    for (int i = 1; i <= 10; ++i) {
        ten.push_back("10.0.1." + std::to_string(i));
    }
    srv.answer_a("ten.example", ten);
    srv.answer_aaaa("ten.example", {"fd00::1"});

    outcome o;
    ASSERT_EQ(resolve("eight.example", DNS_SEARCH_TYPE_BOTH, o), DNS_OK);
    ASSERT_TRUE(o.wait());
    settle();
    EXPECT_EQ(o.count, 10u);
    EXPECT_EQ(o.addrs, "10.0.0.1 10.0.0.2 10.0.0.3 10.0.0.4 10.0.0.5 10.0.0.6 10.0.0.7 10.0.0.8 fd00::1 fd00::2");

    srv.clear_queries();
    outcome full;
    ASSERT_EQ(resolve("ten.example", DNS_SEARCH_TYPE_BOTH, full), DNS_OK);
    ASSERT_TRUE(full.wait());
    settle();
    EXPECT_EQ(full.count, 10u);
    ASSERT_EQ(srv.query_count(), 1u) << "no AAAA question once ten IPv4 addresses are in";
    EXPECT_EQ(srv.queries()[0].qtype, qtype::a);
}

// ---- failure paths ------------------------------------------------------------------------

TEST_F(AddressCalls, FailuresInTheCallRefuseTheRequest) {
    struct row {
        const char *what;
        op o;
        unsigned nth;
        uint32_t ret;
        const char *line;
    };
    const row rows[] = {
        {"request", op::alloc, 1, DNS_ERR_MEM_ALLOC, "alloc memory failed!\r\n"},
        {"name copy", op::alloc, 2, DNS_ERR_MEM_ALLOC, "alloc memory failed!\r\n"},
        {"named semaphore", op::sem_open, 1, DNS_ERR_SEM, "DNS_SemOpen faile,lSemRet:637796361"},
        {"thread", op::thread_create, 1, DNS_ERR_CREATE_THREAD, "create thread failed!\r\n"},
    };
    const unsigned reuse = vekdns::detail::worker_reuse();
    vekdns::detail::set_worker_reuse(0); // every request needs a new thread
    ASSERT_TRUE(wait_until([] { return parked_workers() == 0; }));
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        log_capture log(3);
        outcome o;
        fail_nth(r.o, r.nth);
        EXPECT_EQ(resolve("10.1.2.3", DNS_SEARCH_TYPE_A, o), r.ret);
        vekdns::pal_test::clear_faults();
        EXPECT_TRUE(log.contains(r.line));
        settle();
        EXPECT_EQ(o.calls, 0);
    }
    vekdns::detail::set_worker_reuse(reuse);
}

TEST_F(AddressCalls, FailuresInTheWorkerStillCallBackOnce) {
    // A literal: the worker opens the named semaphore only to store.
    struct row {
        const char *what;
        op o;
        unsigned nth;
        uint32_t ret;
    };
    const row rows[] = {
        {"named semaphore after resolving", op::sem_open, 2, DNS_ERR_SEM},
        {"cache entry", op::alloc, 3, DNS_ERR_MEM_ALLOC},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        cache("other.example", {"10.9.9.9"}); // the A cache exists
        log_capture log(3);
        outcome o;
        fail_nth(r.o, r.nth);
        ASSERT_EQ(resolve("10.1.2.3", DNS_SEARCH_TYPE_A, o), DNS_OK);
        ASSERT_TRUE(o.wait());
        settle();
        vekdns::pal_test::clear_faults();
        EXPECT_EQ(o.calls, 1);
        EXPECT_EQ(o.ret, r.ret);
        EXPECT_TRUE(o.list_null);
        EXPECT_EQ(o.count, 0u);
        if (r.o == op::alloc) {
            EXPECT_TRUE(log.contains("DNS_AsynResolveThread  DNS_SetIpToCache failed"));
        }
        EXPECT_EQ(cached("10.1.2.3", DNS_IP_TYPE_IPV4), "miss");
        ORV_NETB_DnsCleanBuffer();
    }
}

TEST_F(AddressCalls, BlockingCallDoesNotHangWhenTheWorkerLosesTheSemaphore) {
    DNS_IPADDR_S addrs[4] = {};
    uint32_t n = 4;
    fail_nth(op::sem_open, 2);
    EXPECT_EQ(ORV_NETB_DnsGetIpBySynResolve("10.1.2.3", DNS_SEARCH_TYPE_A, addrs, &n), DNS_ERR_SEM);
    EXPECT_EQ(n, 0u);
}

TEST_F(AddressCalls, BlockingCallWithoutACompletionLockDoesNotWait) {
    DNS_IPADDR_S addrs[4] = {};
    uint32_t n = 4;
    fail_nth(op::sem_init, 1);
    EXPECT_EQ(ORV_NETB_DnsGetIpBySynResolve("10.1.2.3", DNS_SEARCH_TYPE_A, addrs, &n), DNS_ERR_SEM);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(calls(op::sem_open), 0u) << "no request was made";
}

TEST_F(AddressCalls, WorkerWithoutRequest) {
    log_capture log(2);
    EXPECT_EQ(DNS_AsynResolveThread(nullptr), nullptr);
    EXPECT_TRUE(log.contains("inputting parameter error!\r\n"));
}

// ---- worker reuse ----------------------------------------------------------------------

TEST_F(AddressCalls, ParkedWorkerTakesTheNextRequest) {
    const unsigned reuse = vekdns::detail::worker_reuse();
    ASSERT_GT(reuse, 0u);
    vekdns::detail::set_worker_reuse(0); // start from an empty pool
    vekdns::detail::set_worker_reuse(reuse);
    outcome first;
    ASSERT_EQ(resolve("10.0.0.1", DNS_SEARCH_TYPE_A, first), DNS_OK);
    ASSERT_TRUE(first.wait());
    ASSERT_TRUE(wait_until([] { return parked_workers() == 1; }));
    const unsigned created = calls(op::thread_create);

    outcome second;
    ASSERT_EQ(resolve("10.0.0.2", DNS_SEARCH_TYPE_A, second), DNS_OK);
    ASSERT_TRUE(second.wait());
    EXPECT_EQ(calls(op::thread_create), created) << "no new thread";
    EXPECT_EQ(second.addrs, "10.0.0.2");
    EXPECT_NE(second.thread, std::this_thread::get_id());
    settle();
    EXPECT_TRUE(wait_until([] { return parked_workers() == 1; })) << "parked again";

    // Turning reuse off ends the parked workers.
    vekdns::detail::set_worker_reuse(0);
    EXPECT_EQ(parked_workers(), 0u);
    vekdns::detail::set_worker_reuse(reuse);
}

// ---- blocking call -----------------------------------------------------------------------

TEST_F(AddressCalls, BlockingCallCutsToCapacity) {
    scripted_server srv("127.0.0.1");
    srv.answer_a("five.example", {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4", "10.0.0.5"});
    DNS_IPADDR_S addrs[3] = {};
    uint32_t n = 2;
    EXPECT_EQ(ORV_NETB_DnsGetIpBySynResolve("five.example", DNS_SEARCH_TYPE_A, addrs, &n), DNS_OK);
    EXPECT_EQ(n, 2u);
    EXPECT_EQ(join(addrs, 2), "10.0.0.1 10.0.0.2");
    EXPECT_EQ(addrs[2].ulType, 0u);
    EXPECT_EQ(addrs[2].unIpAddr.ulIpv4, 0u) << "nothing past the capacity";

    // From the cache now, with the same result shape.
    n = 3;
    EXPECT_EQ(ORV_NETB_DnsGetIpBySynResolve("five.example", DNS_SEARCH_TYPE_A, addrs, &n), DNS_OK);
    EXPECT_EQ(n, 3u);
    EXPECT_EQ(join(addrs, 3), "10.0.0.5 10.0.0.4 10.0.0.3");
}

TEST_F(AddressCalls, BlockingCallBothFamilies) {
    scripted_server srv("127.0.0.1");
    srv.answer_aaaa("six.example", {"fd00::1", "fd00::2"});
    srv.answer_a("dual.example", {"10.0.0.1"});
    srv.answer_aaaa("dual.example", {"fd00::1"});
    DNS_IPADDR_S addrs[10] = {};

    uint32_t n = 10;
    EXPECT_EQ(ORV_NETB_DnsGetIpBySynResolve("six.example", DNS_SEARCH_TYPE_BOTH, addrs, &n), DNS_OK)
        << "the A request fails, the AAAA one yields";
    EXPECT_EQ(n, 2u);
    EXPECT_EQ(join(addrs, n), "fd00::1 fd00::2");

    n = 10;
    EXPECT_EQ(ORV_NETB_DnsGetIpBySynResolve("dual.example", DNS_SEARCH_TYPE_BOTH, addrs, &n), DNS_OK);
    EXPECT_EQ(join(addrs, n), "10.0.0.1 fd00::1");

    n = 10;
    EXPECT_EQ(ORV_NETB_DnsGetIpBySynResolve("nothing.example", DNS_SEARCH_TYPE_BOTH, addrs, &n),
              DNS_ERR_PARSE_ANSWER)
        << "the IPv4 request's code";
    EXPECT_EQ(n, 0u);
}

TEST_F(AddressCalls, BlockingCallArguments) {
    DNS_IPADDR_S addrs[2] = {};
    uint32_t n = 2;
    uint32_t zero = 0;
    EXPECT_EQ(ORV_NETB_DnsGetIpBySynResolve(nullptr, 0, addrs, &n), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(ORV_NETB_DnsGetIpBySynResolve("a", 0, nullptr, &n), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(ORV_NETB_DnsGetIpBySynResolve("a", 0, addrs, nullptr), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(ORV_NETB_DnsGetIpBySynResolve("a", 0, addrs, &zero), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(ORV_NETB_DnsGetIpBySynResolve("a", 3, addrs, &n), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(n, 2u) << "untouched when the arguments are rejected";

    const std::string long_name(256, 'x');
    EXPECT_EQ(ORV_NETB_DnsGetIpBySynResolve(long_name.c_str(), 0, addrs, &n), DNS_ERR_NAME_FORMAT);
    EXPECT_EQ(n, 0u);
}

TEST_F(AddressCalls, SynchronousCompletionFunction) {
    sem_t lock;
    ASSERT_EQ(sem_init(&lock, 0, 0), 0);
    DNS_RESULT_S res{};
    res.lIpNum = -1;
    res.pstLock = &lock;
    DNS_IPADDR_S many[12];
    for (int i = 0; i < 12; ++i) {
        many[i] = ip("10.0.0." + std::to_string(i + 1));
    }
    many[1].ulType = 3; // read as IPv4
    dnsSynResolveCallback(DNS_OK, nullptr, many, 12, &res);
    EXPECT_EQ(sem_trywait(&lock), 0) << "released";
    EXPECT_EQ(res.lIpNum, 10) << "the record holds ten";
    EXPECT_EQ(res.astIpAddr[1].ulType, DNS_IP_TYPE_IPV4);
    EXPECT_EQ(join(res.astIpAddr, 10), "10.0.0.1 10.0.0.2 10.0.0.3 10.0.0.4 10.0.0.5 10.0.0.6 10.0.0.7 10.0.0.8 "
                                       "10.0.0.9 10.0.0.10");

    dnsSynResolveCallback(DNS_ERR_TIMEOUT, nullptr, nullptr, 0, &res);
    EXPECT_EQ(sem_trywait(&lock), 0);
    EXPECT_EQ(res.lIpNum, 0);
    EXPECT_EQ(res.ulRet, DNS_ERR_TIMEOUT);
    sem_destroy(&lock);
}

// ---- text form --------------------------------------------------------------------------

TEST_F(AddressCalls, TextFormRendersBothFamilies) {
    struct row {
        const char *name;
        uint32_t type;
        uint32_t family;
        const char *text;
    };
    const row rows[] = {
        {"192.0.2.7", 0, DNS_IP_TYPE_IPV4, "192.0.2.7"},
        {"255.255.255.254", 0, DNS_IP_TYPE_IPV4, "255.255.255.254"},
        {"2001:db8::5", 1, DNS_IP_TYPE_IPV6, "2001:db8::5"},
        {"2001:db8:aaaa:bbbb:cccc:dddd:eeee:ffff", 1, DNS_IP_TYPE_IPV6, "2001:db8:aaaa:bbbb:cccc:dddd:eeee:ffff"},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.name);
        DNS_IPADDR_STR_S out[2];
        std::memset(out, 0x7F, sizeof(out));
        uint32_t n = 2;
        EXPECT_EQ(vek_dns_get_ip_resolve_syn(r.name, r.type, out, &n), DNS_OK);
        ASSERT_EQ(n, 1u);
        EXPECT_EQ(out[0].ulType, r.family);
        EXPECT_NE(std::memchr(out[0].acIpAddr, '\0', sizeof(out[0].acIpAddr)), nullptr);
        EXPECT_STREQ(out[0].acIpAddr, r.text);
        EXPECT_EQ(out[1].ulType, 0x7F7F7F7Fu) << "nothing past the count";
    }
}

TEST_F(AddressCalls, TextFormFailures) {
    DNS_IPADDR_STR_S out[2] = {};
    uint32_t n = 0;
    {
        log_capture log(2);
        EXPECT_EQ(vek_dns_get_ip_resolve_syn("a", 0, out, nullptr), 1u);
        EXPECT_EQ(vek_dns_get_ip_resolve_syn("a", 0, out, &n), 1u);
        EXPECT_TRUE(log.contains("inputting parameter error!\r\n"));
    }
    {
        log_capture log(2);
        n = 2;
        fail_nth(op::alloc, 1);
        EXPECT_EQ(vek_dns_get_ip_resolve_syn("10.0.0.1", 0, out, &n), 1u);
        EXPECT_TRUE(log.contains("alloc memory failed!\r\n"));
    }
    {
        log_capture log(2);
        n = 2;
        EXPECT_EQ(vek_dns_get_ip_resolve_syn("10.0.0.1", 3, out, &n), DNS_ERR_PARA_INVALID);
        EXPECT_EQ(n, 0u);
        EXPECT_TRUE(log.contains("ORV_NETB_DnsGetIpBySynResolve Failed!"));
    }
    n = 2;
    EXPECT_EQ(vek_dns_get_ip_resolve_syn("10.0.0.1", 0, nullptr, &n), DNS_ERR_PARA_INVALID);
}

} // namespace
