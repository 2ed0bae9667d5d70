// The scenarios of resolve_bench, each with its peers beside our call. main
// runs their warm-ups, then their rounds interleaved, then prints their
// reports in order: (1) cold, (2) hot, (3) burst, (4) breakdown, (5) SRV.
#pragma once

#include <string>
#include <vector>

#include "harness.h"

namespace vekbench {

// Shared by every scenario.
struct context {
    settings cfg;
    const responder *srv = nullptr;
    bool have_cares = false;
};

// (1) cold: one blocking A resolve at a time, memory cache emptied before each.
struct cold_scenario {
    explicit cold_scenario(const context &ctx);
    void warm_up();
    void round();
    void report() const;

    const context &ctx;
    serial_case ours, raw, gai, resq, cares;
    std::vector<serial_case *> rows; // what runs: main may narrow it
};

// (2) hot: one blocking A resolve answered from the memory cache; its ratios
// take the floor and getaddrinfo from the cold scenario.
struct hot_scenario {
    hot_scenario(const context &ctx, const cold_scenario &cold);
    void warm_up();
    void round();
    void report() const;

    const context &ctx;
    const cold_scenario &cold;
    std::string name = "hot.bench.test";
    serial_case ours;
};

// (3) burst: a thousand asynchronous A requests for distinct names, then the
// memory of ten bursts back to back.
struct burst_scenario {
    explicit burst_scenario(const context &ctx, bool ours_only);
    void round();
    void memory();
    void report() const;

    const context &ctx;
    batch_case ours_all, ours_window, raw, gai, cares;
    std::vector<batch_case *> rows;
    struct after_burst {
        double ms;
        unsigned threads;  // worker threads our library started
        long blocks_full;  // cache still holding the burst's entries
        long blocks_clean; // after the cache was emptied
        long rss_kb;
        long peak_kb;
    };
    std::vector<after_burst> bursts;
};

// (4) breakdown of our cold path.
struct breakdown_scenario {
    explicit breakdown_scenario(const context &ctx);
    void measure();
    void report(const cold_scenario *cold) const;

    const context &ctx;
    std::vector<double> resolve, discovery, wire, sem, thread, handoff, store, lookup, big_miss, big_store;
    serial_case literal;
    batch_case pool;
};

// (5) SRV: one blocking service resolve at a time, cold and cached.
struct srv_scenario {
    explicit srv_scenario(const context &ctx);
    void warm_up();
    void round();
    void report() const;

    const context &ctx;
    std::string hot_name = "srv-hot.bench.test";
    serial_case ours, ours_hot, raw, glibc, cares;
    std::vector<serial_case *> rows;
};

} // namespace vekbench
