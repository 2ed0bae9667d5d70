// (2) hot: one blocking A resolve answered from the memory cache, beside the
// floor and getaddrinfo of the cold scenario (the peers keep no cache: every
// call of theirs asks). A hit must not allocate.
#include <algorithm>
#include <cstdio>

#include "scenarios.h"
#include "vek_dns.h"

namespace vekbench {

hot_scenario::hot_scenario(const context &c, const cold_scenario &cs)
    : ctx(c), cold(cs), ours{"vek_dns", "ORV_NETB_DnsGetIpBySynResolve (cache hit)",
                             [this](const char *) { return ours_blocking(name.c_str()); }, nullptr, 'h'} {}

void hot_scenario::warm_up() {
    if (!ours_blocking(name.c_str())) {
        std::fprintf(stderr, "warning: priming the cache for the hot case failed\n");
    }
    run_serial(ours, 100, *ctx.srv, false);
}

void hot_scenario::round() {
    ORV_NETB_DnsCleanBuffer();
    (void)ours_blocking(name.c_str());
    run_serial(ours, ctx.cfg.hot_per_round, *ctx.srv, true);
}

void hot_scenario::report() const {
    std::printf("(2) hot: blocking A resolve answered from the memory cache (n=%zu)\n", ours.us.size());
    std::printf("  %-9s %-38s %10s %9s %10s %7s %9s\n", "", "", "median us", "p90 us", "quest/op", "failed",
                "alloc/op");
    std::printf("  %-9s %-38s %10.2f %9.2f %10.2f %7u %9.2f\n", ours.peer.c_str(), ours.what.c_str(),
                ours.median(), quantile(ours.us, 0.9),
                static_cast<double>(ours.questions) /
                    static_cast<double>(std::max<size_t>(1, ours.us.size())),
                ours.failed, ours.allocations_per_call());
    std::printf("  ratio to the raw UDP floor %s; to getaddrinfo %s (the peers keep no cache: every call "
                "asks)\n",
                ratio_text(safe_ratio(ours.median(), cold.raw.median())).c_str(),
                ratio_text(safe_ratio(ours.median(), cold.gai.median())).c_str());
    goal_line("cache hit vs raw UDP floor", safe_ratio(ours.median(), cold.raw.median()), true, 0.1);
    goal_count("allocations per cache hit", ours.allocations_per_call(), 0.0);
    std::printf("\n");
}

} // namespace vekbench
