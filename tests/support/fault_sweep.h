// A call run with "fail the Nth platform operation" for N = 1, 2, ... until a run hits no fault,
// checking what every failure must keep: a result code of the table (or success), the callback
// exactly once for an accepted asynchronous call, no platform block or temporary file left, and
// every library file as it was, as the fault-free run leaves it, or (failure reported) cut short.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "address/address_calls.h"
#include "os_adapter/test_hooks.h"
#include "support/sandbox.h"
#include "vek_dns_ops.h"

namespace vekdns::test {

struct sweep_row {
    const char *name;
    std::function<void()> setup; // files and caches before each run
    // The call; asynchronous calls pass &callbacks to sweep_callback.
    std::function<uint32_t(std::atomic<int> &callbacks)> call;
    bool async = false;
    // For calls made of several rewrites: the first ones, fault-free. What
    // they leave is a further complete state a failure may end in.
    std::function<void()> first_steps = nullptr;
};

inline uint32_t sweep_callback(uint32_t, char *, DNS_IPADDR_S *, uint32_t, void *user) {
    ++*static_cast<std::atomic<int> *>(user);
    return 0;
}

inline bool is_result_code(uint32_t r) {
    return r <= 1 ||
           (r >= DNS_ERR_PARA_INVALID && r <= DNS_ERR_CACHE_EXPIRED && (r < 0x2604001D || r > 0x2604001F));
}

inline std::vector<std::string> library_files() {
    std::vector<std::string> out;
    for (const char *f :
         {"/etc/resolv.conf", "/var/orvdns.cache", "/var/orvdnsaaaa.cache", "/var/orvdnssrv.cache"}) {
        out.push_back(file_exists(f) ? read_file(f) : "(none)");
    }
    return out;
}

// Runs `row` with the nth operation failing (0: none); true when the fault
// fired. `done` holds the complete states: fault-free, then after first_steps.
inline bool sweep_run(const sweep_row &row, unsigned n, std::vector<std::vector<std::string>> &done) {
    const long blocks = pal_test::outstanding_blocks();
    row.setup();
    const std::vector<std::string> before = library_files();
    std::atomic<int> callbacks{0};
    if (n != 0) {
        pal_test::fail_nth_any(n);
    }
    const uint32_t ret = row.call(callbacks);
    wait_until([] { return detail::requests_in_flight() == 0; });
    const bool fired = pal_test::any_fault_fired();
    pal_test::clear_faults();
    ORV_NETB_DnsCleanBuffer();
    (void)ORV_NETB_DnsUnReachableIPClean(); // a failed wait records the server as unreachable
    (void)ORV_NETB_DnsSemUnLink(); // a failed wait leaves the count raised: start afresh
    const std::string where = std::string(row.name) + ", operation " + std::to_string(n) + " failing";
    EXPECT_TRUE(is_result_code(ret)) << where << ": 0x" << std::hex << ret;
    EXPECT_TRUE(!row.async || callbacks.load() == (ret == DNS_OK ? 1 : 0))
        << where << ": " << callbacks.load();
    EXPECT_EQ(pal_test::outstanding_blocks(), blocks) << where;
    for (const auto &entry : std::filesystem::directory_iterator("/var")) { // "<name>.<pid>.<n>" temporaries
        EXPECT_FALSE(entry.path().filename().string().find(".tmp") != std::string::npos) << where << ": " << entry;
    }
    const std::vector<std::string> after = library_files();
    if (n == 0) {
        EXPECT_EQ(ret, 0u) << where; // every row is a call that succeeds without a fault
        done = {after};
        if (row.first_steps) {
            row.setup();
            row.first_steps();
            done.push_back(library_files());
        }
        return false;
    }
    // A failed copy over the target (written in place: /etc/resolv.conf may be
    // a link or a mount point) leaves the start of the new content, reported.
    for (size_t i = 0; i < after.size(); ++i) {
        bool ok = after[i] == before[i];
        for (const auto &state : done) {
            ok = ok || after[i] == state[i] || (ret != DNS_OK && state[i].starts_with(after[i]));
        }
        EXPECT_TRUE(ok) << where << ":\n" << after[i];
    }
    return fired;
}

inline void sweep(const sweep_row &row) {
    std::vector<std::vector<std::string>> done;
    (void)sweep_run(row, 0, done);
    for (unsigned n = 1; n < 500; ++n) {
        if (!sweep_run(row, n, done)) {
            return;
        }
    }
    ADD_FAILURE() << row.name << ": still failing after 500 operations";
}

} // namespace vekdns::test
