// (3) burst: a thousand asynchronous A requests for distinct names, until
// every callback (or result) has its address. Peers: the raw fresh-socket
// burst on one thread with epoll (the floor), glibc getaddrinfo_a, c-ares with
// at most 100 in flight. Then our memory: platform allocations per request,
// the peak resident set of a burst, and ten bursts back to back, which must
// leave no more platform blocks and barely more resident memory than one.
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "os_adapter/test_hooks.h"
#include "scenarios.h"
#include "vek_dns.h"

namespace vekbench {
namespace {

// Every question on its own connected socket, all sent first, then every
// reply collected with epoll: the fastest a design with a fresh socket per
// question can go on one thread.
unsigned raw_async(const std::vector<std::string> &names) {
    const int ep = epoll_create1(EPOLL_CLOEXEC);
    if (ep < 0) {
        return static_cast<unsigned>(names.size());
    }
    std::vector<int> fds(names.size(), -1);
    size_t left = 0;
    for (size_t i = 0; i < names.size(); ++i) {
        uint8_t q[512];
        const size_t qlen = encode_query(q, sizeof(q), static_cast<uint16_t>(i), names[i].c_str(), 1);
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            continue;
        }
        fds[i] = fd;
        sockaddr_in to = loopback53();
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.u64 = i;
        if (qlen == 0 || connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof(to)) != 0 ||
            epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev) != 0 ||
            send(fd, q, qlen, 0) != static_cast<ssize_t>(qlen)) {
            close(fd);
            fds[i] = -1;
            continue;
        }
        left++;
    }
    unsigned ok = 0;
    epoll_event events[64];
    while (left > 0) {
        const int n = epoll_wait(ep, events, 64, reply_wait_sec * 1000);
        if (n <= 0) {
            break;
        }
        for (int e = 0; e < n; ++e) {
            const size_t i = events[e].data.u64;
            uint8_t r[2048];
            const ssize_t len = recv(fds[i], r, sizeof(r), 0);
            uint32_t addr = 0;
            ok += len > 0 &&
                          first_a(r, static_cast<size_t>(len), static_cast<int>(static_cast<uint16_t>(i)),
                                  &addr) &&
                          addr == answer_ip_net()
                      ? 1
                      : 0;
            close(fds[i]); // also takes it out of the epoll set
            fds[i] = -1;
            left--;
        }
    }
    for (int fd : fds) {
        if (fd >= 0) {
            close(fd);
        }
    }
    close(ep);
    return static_cast<unsigned>(names.size()) - ok;
}

unsigned glibc_getaddrinfo_a(const std::vector<std::string> &names) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    std::vector<gaicb> cbs(names.size());
    std::vector<gaicb *> list(names.size());
    for (size_t i = 0; i < names.size(); ++i) {
        cbs[i] = gaicb{};
        cbs[i].ar_name = names[i].c_str();
        cbs[i].ar_request = &hints;
        list[i] = &cbs[i];
    }
    unsigned failed = 0;
    if (getaddrinfo_a(GAI_WAIT, list.data(), static_cast<int>(list.size()), nullptr) != 0) {
        // Some failed or are still running: wait for the rest, then count.
        for (;;) {
            std::vector<const gaicb *> pending;
            for (gaicb *cb : list) {
                if (gai_error(cb) == EAI_INPROGRESS) {
                    pending.push_back(cb);
                }
            }
            if (pending.empty()) {
                break;
            }
            (void)gai_suspend(pending.data(), static_cast<int>(pending.size()), nullptr);
        }
    }
    for (gaicb &cb : cbs) {
        const bool ok =
            gai_error(&cb) == 0 && cb.ar_result != nullptr &&
            reinterpret_cast<sockaddr_in *>(cb.ar_result->ai_addr)->sin_addr.s_addr == answer_ip_net();
        failed += ok ? 0 : 1;
        if (cb.ar_result != nullptr) {
            freeaddrinfo(cb.ar_result);
        }
    }
    return failed;
}

#if defined(VEK_BENCH_HAVE_CARES)
struct ares_batch {
    const std::vector<std::string> *names = nullptr;
    size_t next = 0;
    unsigned in_flight = 0;
    unsigned done = 0;
    unsigned failed = 0;
    unsigned window = 0;
};

void ares_batch_fill(ares_batch *b);

void ares_batch_cb(void *arg, int status, int, hostent *host) {
    auto *b = static_cast<ares_batch *>(arg);
    b->failed += ares_ok(status, host) ? 0 : 1;
    b->done++;
    b->in_flight--;
    ares_batch_fill(b);
}

void ares_batch_fill(ares_batch *b) {
    while (b->in_flight < b->window && b->next < b->names->size()) {
        b->in_flight++;
        const std::string &name = (*b->names)[b->next++];
        ares_gethostbyname(g_ares, name.c_str(), AF_INET, ares_batch_cb, b);
    }
}

unsigned cares_async(const std::vector<std::string> &names, unsigned window) {
    ares_batch b;
    b.names = &names;
    b.window = window;
    ares_batch_fill(&b);
    ares_run([&] { return b.done == names.size(); });
    return b.failed + static_cast<unsigned>(names.size() - b.done);
}
#endif

} // namespace

burst_scenario::burst_scenario(const context &c, bool ours_only)
    : ctx(c), ours_all("vek_dns", "ORV_NETB_DnsGetIpByAsynResolve, all at once",
                       [](const std::vector<std::string> &n) { return ours_async(n, 0); }),
      ours_window("vek_dns", "same, at most 100 in flight (information)",
                  [this](const std::vector<std::string> &n) { return ours_async(n, ctx.cfg.async_window); }),
      raw("raw UDP", "fresh socket each, all in flight, epoll (floor)", raw_async),
      gai("glibc", "getaddrinfo_a(GAI_WAIT)", glibc_getaddrinfo_a),
      cares("c-ares", "ares_gethostbyname, at most 100 in flight",
#if defined(VEK_BENCH_HAVE_CARES)
            [this](const std::vector<std::string> &n) { return cares_async(n, ctx.cfg.async_window); }
#else
            nullptr
#endif
      ) {
    ours_window.goal_row = false;
    ours_all.ours = ours_window.ours = true;
    cares.available = c.have_cares;
    rows = {&ours_all, &ours_window, &raw, &gai, &cares};
    if (ours_only) {
        rows = {&ours_all};
    }
}

void burst_scenario::round() {
    for (batch_case *c : rows) {
        ORV_NETB_DnsCleanBuffer();
        run_batch(*c, fresh_names('a', ctx.cfg.async_names), *ctx.srv, true);
    }
}

void burst_scenario::memory() {
    // Like is compared with like: the blocks right after a burst include the
    // burst's cache entries; those after emptying the cache are what the
    // calls themselves leave behind (parked workers included).
    ORV_NETB_DnsCleanBuffer();
    for (unsigned i = 0; i < ctx.cfg.memory_bursts; ++i) {
        const std::vector<std::string> names = fresh_names('m', ctx.cfg.async_names);
        (void)reset_peak_rss();
        const unsigned th0 = vekdns::pal_test::calls(vekdns::pal_test::op::thread_create);
        const clk::time_point t0 = clk::now();
        (void)ours_async(names, 0);
        const double ms = us_between(t0, clk::now()) / 1000.0;
        const unsigned threads = vekdns::pal_test::calls(vekdns::pal_test::op::thread_create) - th0;
        after_burst a{ms, threads, settled_platform_blocks(), 0, 0, 0};
        ORV_NETB_DnsCleanBuffer();
        a.blocks_clean = settled_platform_blocks();
        a.rss_kb = rss_kb();
        a.peak_kb = peak_rss_kb(); // since the reset: the burst and what followed
        bursts.push_back(a);
    }
}

void burst_scenario::report() const {
    const unsigned names = ctx.cfg.async_names;
    std::printf("(3) async: %u A requests for distinct names, until every callback/result has its "
                "address (%u runs per row)\n",
                names, ctx.cfg.rounds);
    std::printf("  %-9s %-48s %10s %8s %10s %8s %8s %7s %16s\n", "", "", "median ms", "us/req", "req/s",
                "quest/r", "thread/r", "failed", "vek_dns / peer");
    for (const batch_case *c : rows) {
        if (!c->available) {
            std::printf("  %-9s %-48s %10s\n", c->peer.c_str(), c->what.c_str(), "n/a");
            continue;
        }
        std::string ratio;
        if (c != &ours_all && c->goal_row) {
            ratio = ratio_text(safe_ratio(ours_all.per_sec(names), c->per_sec(names))) + " thrpt";
        }
        char threads[16] = "-";
        if (c->ours) {
            std::snprintf(threads, sizeof(threads), "%.2f", c->per_request(c->threads, names));
        }
        std::printf("  %-9s %-48s %10.1f %8.1f %10.0f %8.2f %8s %7u %16s\n", c->peer.c_str(), c->what.c_str(),
                    c->median_us() / 1000.0, c->median_us() / names, c->per_sec(names),
                    c->per_request(c->questions, names), threads, c->failed, ratio.c_str());
    }
    for (const batch_case *c : rows) {
        if (c->ours && c->runs > 0) {
            std::printf("  memory, %s: %.2f platform allocations per request, peak RSS of a burst %.1f MiB\n",
                        c == &ours_all ? "all at once" : "at most 100 in flight",
                        c->per_request(c->allocations, names), static_cast<double>(c->peak_rss_kb) / 1024.0);
        }
    }
    goal_line("async throughput vs raw UDP burst floor",
              safe_ratio(ours_all.per_sec(names), raw.per_sec(names)), false, 0.8);
    goal_line("async throughput vs getaddrinfo_a", safe_ratio(ours_all.per_sec(names), gai.per_sec(names)),
              false, 1.25);
    goal_line("async throughput vs c-ares", safe_ratio(ours_all.per_sec(names), cares.per_sec(names)), false,
              0.85);
    if (!bursts.empty()) {
        std::printf("  %u bursts of %u back to back, all at once (platform blocks once the workers are done; "
                    "RSS in KiB):\n",
                    static_cast<unsigned>(bursts.size()), names);
        std::printf("  %6s %10s %8s %18s %20s %10s %10s\n", "burst", "ms", "threads", "blocks, cache full",
                    "blocks, cache empty", "RSS", "peak RSS");
        for (size_t i = 0; i < bursts.size(); ++i) {
            const after_burst &a = bursts[i];
            std::printf("  %6zu %10.1f %8u %18ld %20ld %10ld %10ld\n", i + 1, a.ms, a.threads, a.blocks_full,
                        a.blocks_clean, a.rss_kb, a.peak_kb);
        }
        const after_burst &first = bursts.front();
        const after_burst &last = bursts.back();
        const double growth = safe_ratio(static_cast<double>(last.rss_kb), static_cast<double>(first.rss_kb));
        const bool met = last.blocks_clean <= first.blocks_clean && growth > 0 && growth <= 1.10;
        char now[64];
        std::snprintf(now, sizeof(now), "RSS %.2fx, blocks %ld -> %ld", growth, first.blocks_clean,
                      last.blocks_clean);
        std::printf("  goal: %-44s <= %5.2fx, no more blocks   now %s   %s\n",
                    "memory bounded over 10 bursts", 1.10, now, met ? "met" : "NOT met");
    }
    std::printf("\n");
}

} // namespace vekbench
