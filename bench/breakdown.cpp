// (4) breakdown of our cold path: DNS_Resolve and its two halves (resolver
// file, wire), the call layer around a literal, the memory cache small and
// grown by a burst, and for scale a named-semaphore section, a thread create,
// a generic thread hand-off; then a burst with
// enough parked workers for its window.
#include <arpa/inet.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>

#include "address/address_calls.h"
#include "os_adapter/test_hooks.h"
#include "scenarios.h"
#include "vek_dns.h"
#include "vek_dns_ops.h"

namespace vekbench {
namespace {

bool ours_blocking_literal() {
    DNS_IPADDR_S addrs[DNS_MAX_IP_NUM] = {};
    uint32_t n = DNS_MAX_IP_NUM;
    return ORV_NETB_DnsGetIpBySynResolve("198.18.0.1", DNS_SEARCH_TYPE_A, addrs, &n) == DNS_OK && n == 1 &&
           addrs[0].unIpAddr.ulIpv4 == answer_ip_net();
}

void *noop_thread(void *) {
    return nullptr;
}

// A parked thread woken through a condition variable that answers through a
// semaphore: the two thread switches our blocking call makes on a miss.
class ping_pong {
public:
    ping_pong() {
        sem_init(&back_, 0, 0);
        thread_ = std::thread([this] {
            std::unique_lock<std::mutex> lock(mu_);
            for (;;) {
                cv_.wait(lock, [this] { return go_ || quit_; });
                if (quit_) {
                    return;
                }
                go_ = false;
                sem_post(&back_);
            }
        });
    }
    ~ping_pong() {
        {
            std::lock_guard<std::mutex> lock(mu_);
            quit_ = true;
        }
        cv_.notify_one();
        thread_.join();
        sem_destroy(&back_);
    }
    void round_trip() {
        {
            std::lock_guard<std::mutex> lock(mu_);
            go_ = true;
        }
        cv_.notify_one();
        while (sem_wait(&back_) != 0) {
        }
    }

private:
    std::mutex mu_;
    std::condition_variable cv_;
    bool go_ = false;
    bool quit_ = false;
    sem_t back_;
    std::thread thread_;
};

} // namespace

breakdown_scenario::breakdown_scenario(const context &c)
    : ctx(c), literal{"vek_dns", "", [](const char *) { return ours_blocking_literal(); },
                      [] { ORV_NETB_DnsCleanBuffer(); }, 'l'},

      pool("vek_dns", "", nullptr) {}

void breakdown_scenario::measure() {
    breakdown_scenario &b = *this;
    const settings &cfg = ctx.cfg;
    const responder &srv = *ctx.srv;
    b.resolve = time_each(cfg.breakdown, [&](unsigned) {
        std::string name = bench_name('b', ++g_name_counter);
        DNS_HOSTNAME_S req{DNS_SEARCH_TYPE_A, name.data()};
        DNS_IPADDR_S addrs[DNS_MAX_IP_NUM] = {};
        uint32_t ttls[DNS_MAX_IP_NUM] = {};
        uint32_t count = DNS_MAX_IP_NUM;
        (void)DNS_Resolve(&req, addrs, &count, reply_wait_sec, ttls);
    });
    b.discovery = time_each(cfg.breakdown, [](unsigned) {
        DNS_LOCAL_SERVER_S rec;
        std::memset(&rec, 0, sizeof(rec));
        (void)DNS_LocateDnsServer(&rec);
        DNS_FreeLocalServer(&rec);
    });
    b.wire = time_each(cfg.breakdown, [&](unsigned) {
        std::string name = bench_name('w', ++g_name_counter);
        DNS_IPADDR_S server{};
        server.ulType = DNS_IP_TYPE_IPV4;
        server.unIpAddr.ulIpv4 = htonl(INADDR_LOOPBACK);
        int32_t sock = -1;
        if (DNS_Query(name.data(), static_cast<uint32_t>(name.size()), &server, 0, &sock) != DNS_OK) {
            return;
        }
        if (sock < FD_SETSIZE) {
            fd_set readable;
            FD_ZERO(&readable);
            FD_SET(sock, &readable);
            timeval tv{reply_wait_sec, 0};
            if (select(sock + 1, &readable, nullptr, nullptr, &tv) > 0) {
                DNS_IPADDR_S addrs[DNS_MAX_IP_NUM] = {};
                uint32_t ttls[DNS_MAX_IP_NUM] = {};
                uint32_t count = 0;
                (void)DNS_Read(sock, addrs, &count, DNS_MAX_IP_NUM, ttls);
            }
        }
        close(sock);
    });
    b.sem = time_each(cfg.breakdown * 10, [](unsigned) {
        void *h = nullptr;
        if (DNS_SemOpen(&h) == DNS_OK) {
            (void)DNS_SemWait(&h);
            (void)DNS_SemPost(&h);
            (void)DNS_SemClose(&h);
        }
    });
    b.thread = time_each(cfg.breakdown, [](unsigned) {
        pthread_t t;
        if (pthread_create(&t, nullptr, noop_thread, nullptr) == 0) {
            pthread_join(t, nullptr);
        }
    });
    {
        ping_pong pp;
        b.handoff = time_each(cfg.breakdown, [&](unsigned) { pp.round_trip(); });
    }
    DNS_IPADDR_S cached{};
    cached.ulType = DNS_IP_TYPE_IPV4;
    cached.unIpAddr.ulIpv4 = answer_ip_net();
    for (unsigned i = 0; i < cfg.breakdown; ++i) {
        ORV_NETB_DnsCleanBuffer();
        const clk::time_point t0 = clk::now();
        (void)DNS_SetIpToCache("store.bench.test", answer_ttl, cached);
        b.store.push_back(us_between(t0, clk::now()));
    }
    b.lookup = time_each(cfg.breakdown, [](unsigned) {
        DNS_IPADDR_S addrs[DNS_MAX_IP_NUM] = {};
        addrs[0].ulType = DNS_IP_TYPE_IPV4;
        uint32_t n = 0;
        (void)DNS_GetIpFromCache("store.bench.test", addrs, &n);
    });
    ORV_NETB_DnsCleanBuffer();

    // A burst of distinct names fills the A cache within one second; entries
    // of the current second are never evicted, so every look-up of a new name
    // and every store walks the whole list. Clock pinned: all in one second.
    vekdns::pal_test::set_clock(1000000);
    for (unsigned i = 0; i < 1000; ++i) {
        (void)DNS_SetIpToCache(bench_name('f', i).c_str(), answer_ttl, cached);
    }
    b.big_miss = time_each(cfg.breakdown, [](unsigned) {
        DNS_IPADDR_S addrs[DNS_MAX_IP_NUM] = {};
        addrs[0].ulType = DNS_IP_TYPE_IPV4;
        uint32_t n = 0;
        (void)DNS_GetIpFromCache("miss.bench.test", addrs, &n);
    });
    b.big_store = time_each(
        200, [&](unsigned i) { (void)DNS_SetIpToCache(bench_name('s', i).c_str(), answer_ttl, cached); });
    vekdns::pal_test::release_clock();
    ORV_NETB_DnsCleanBuffer();

    // The call layer by itself: a literal needs neither the resolver file nor
    // the network, but takes the same road through cache and completion lock.
    run_serial(b.literal, cfg.breakdown, srv, true);

    // Asynchronous requests with enough parked workers for the whole window.
    const unsigned saved_reuse = vekdns::detail::worker_reuse();
    vekdns::detail::set_worker_reuse(2 * cfg.async_window);
    b.pool.run = [&cfg](const std::vector<std::string> &n) { return ours_async(n, cfg.async_window); };
    b.pool.ours = true;
    for (unsigned r = 0; r < std::max(3u, cfg.rounds / 2); ++r) {
        ORV_NETB_DnsCleanBuffer();
        run_batch(b.pool, fresh_names('p', cfg.async_names), srv, true);
    }
    vekdns::detail::set_worker_reuse(saved_reuse);
    ORV_NETB_DnsCleanBuffer();
}

void breakdown_scenario::report(const cold_scenario *cold) const {
    std::printf("(4) breakdown (medians, us)\n");
    auto row = [](const char *what, double v, const char *note) {
        std::printf("  %-66s %8.2f  %s\n", what, v, note);
    };
    if (cold != nullptr) {
        row("ORV_NETB_DnsGetIpBySynResolve, cold (table 1)", cold->ours.median(), "");
    }
    row("  DNS_Resolve alone (resolver file + one question on the wire)", quantile(resolve, 0.5), "");
    row("    DNS_LocateDnsServer + DNS_FreeLocalServer (resolv.conf read)", quantile(discovery, 0.5), "");
    row("    DNS_Query + select + DNS_Read + close (the wire)", quantile(wire, 0.5), "");
    row("  call layer: blocking call for an address literal, cache emptied", literal.median(),
        "no resolver file, no network: 2 semaphore sections, cache, completion lock, all on the caller");
    row("    thread hand-off and back (condvar wake, semaphore reply)", quantile(handoff, 0.5),
        "a generic pair of thread switches, for scale");
    row("    memory cache: store into an emptied cache (create + entry)", quantile(store, 0.5), "");
    row("    memory cache: look-up hit (DNS_GetIpFromCache)", quantile(lookup, 0.5), "");
    row("    memory cache of 1000 entries of this second: look-up miss", quantile(big_miss, 0.5),
        "what each new name of an async burst pays in the call");
    row("    memory cache of 1000 entries of this second: store", quantile(big_store, 0.5),
        "... and in the worker (eviction walk finds no candidate)");
    row("one named-semaphore section (DNS_SemOpen/Wait/Post/Close)", quantile(sem, 0.5), "");
    row("one thread create + join (pthread)", quantile(thread, 0.5), "");
    const unsigned names = ctx.cfg.async_names;
    char note[96];
    std::snprintf(note, sizeof(note), "%.0f req/s, %.2f threads/req, failed %u", pool.per_sec(names),
                  pool.per_request(pool.threads, names), pool.failed);
    row("async, at most 100 in flight, 200 parked workers allowed: us/req", pool.median_us() / names, note);
    std::printf("\n");
}

} // namespace vekbench
