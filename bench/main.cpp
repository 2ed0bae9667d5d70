// resolve_bench: address resolution measured against what an application
// would otherwise use, in one run, on one loopback responder:
//
//   (1) cold: one blocking A resolve at a time, memory cache emptied before each
//   (2) hot: one blocking A resolve answered from the memory cache
//   (3) async: 1000 A requests for distinct names, until every callback is in;
//       then the memory of a burst and of ten bursts back to back
//   (4) breakdown of our cold path
//   (5) SRV: one blocking service resolve at a time, cold and cached
//
// Peers: a raw UDP client with a fresh socket per question (the floor for our
// design), glibc getaddrinfo / res_nquery / getaddrinfo_a, and c-ares. The
// tables give medians and our ratio to each peer next to the goals; nothing is
// asserted. Each scenario has its own file; harness.h holds what they share.
//
// The program enters the test sandbox before anything else (private network
// namespace with only loopback, private /etc/resolv.conf) and refuses to run
// when it cannot. Run it pinned to one CPU: `taskset -c 0` (scripts/bench.sh).
#include <cstdio>
#include <string>

#include "harness.h"
#include "scenarios.h"
#include "vek_dns.h"

namespace {

void usage(const char *argv0) {
    std::fprintf(stderr,
                 "usage: %s [--quick] [--only cold|hot|async|async-ours|breakdown|srv]\n"
                 "  --quick  fewer iterations (a smoke run)\n"
                 "  --only   run one part (e.g. under perf record); async-ours: our all-at-once row alone\n",
                 argv0);
}

} // namespace

int main(int argc, char **argv) {
    using namespace vekbench;
    isolate(); // before anything else: no thread and no socket exist before this

    context ctx;
    bool do_cold = true, do_hot = true, do_async = true, do_breakdown = true, do_srv = true;
    bool ours_only = false; // --only async-ours: our all-at-once row alone (for profiling)
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--quick") {
            ctx.cfg.rounds = 2;
            ctx.cfg.cold_per_round = 100;
            ctx.cfg.hot_per_round = 1000;
            ctx.cfg.breakdown = 200;
        } else if (arg == "--only" && i + 1 < argc) {
            const std::string part = argv[++i];
            do_cold = part == "cold";
            do_hot = part == "hot";
            do_async = part == "async" || part == "async-ours";
            ours_only = part == "async-ours";
            do_breakdown = part == "breakdown";
            do_srv = part == "srv";
            if (!do_cold && !do_hot && !do_async && !do_breakdown && !do_srv) {
                usage(argv[0]);
                return 2;
            }
        } else {
            usage(argv[0]);
            return 2;
        }
    }

    ORV_NETB_DnsSetLogLevel(2); // failures only, counted and shown at the end
    ORV_NETB_DnsRegisterLogFunc(log_sink);

    responder srv;
    ctx.srv = &srv;
    ctx.have_cares = peers_init();
    print_environment(ctx.cfg, ctx.have_cares);

    cold_scenario cold(ctx);
    hot_scenario hot(ctx, cold);
    burst_scenario burst(ctx, ours_only);
    breakdown_scenario breakdown(ctx);
    srv_scenario service(ctx);
    if (do_hot && !do_cold) {
        cold.rows = {&cold.raw}; // the hot ratio needs the floor
    }
    if (do_srv && !do_cold && !do_hot) {
        cold.rows.clear();
    }

    // ---- warm-up (not kept): code paths, the named semaphore, parked workers
    cold.warm_up();
    hot.warm_up();
    if (do_srv) {
        service.warm_up();
    }

    // ---- measured rounds, the cases interleaved within each
    for (unsigned round = 0; round < ctx.cfg.rounds; ++round) {
        if (do_cold || do_hot) {
            cold.round();
        }
        if (do_hot) {
            hot.round();
        }
        if (do_async) {
            burst.round();
        }
        if (do_srv) {
            service.round();
        }
        if (do_cold || do_hot || do_async || do_srv) {
            std::fprintf(stderr, "round %u/%u done\n", round + 1, ctx.cfg.rounds);
        }
    }
    if (do_async) {
        burst.memory();
    }
    ORV_NETB_DnsCleanBuffer();
    if (do_breakdown) {
        breakdown.measure();
    }

    // ---- report
    if (do_cold) {
        cold.report();
    }
    if (do_hot) {
        hot.report();
    }
    if (do_async) {
        burst.report();
    }
    if (do_breakdown) {
        breakdown.report(do_cold ? &cold : nullptr);
    }
    if (do_srv) {
        service.report();
    }

    std::printf("failures: ours cold %u, hot %u, async %u + %u, SRV cold %u, cached %u; library log lines at "
                "level <= 2: %u\n",
                cold.ours.failed, hot.ours.failed, burst.ours_all.failed, burst.ours_window.failed,
                service.ours.failed, service.ours_hot.failed, log_lines());
    print_log_summary();

    peers_close();
    ORV_NETB_DnsRegisterLogFunc(nullptr);
    return 0;
}
