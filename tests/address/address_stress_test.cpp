// Many address requests at once: every accepted request gets exactly one
// callback, with cache clean-ups running in between and when the process runs
// out of file descriptors.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <array>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <cstdio>
#include <atomic>
#include <cstdlib>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "address/address_calls.h"
#include "support/dns_server.h"
#include "support/sandbox.h"
#include "vek_dns_ops.h"

namespace {

using namespace vekdns::test;
using vekdns::detail::requests_in_flight;

constexpr uint32_t not_called = 0xFFFFFFFFu;

// One slot per request: how often its callback ran and with what.
struct slot {
    std::atomic<int> calls{0};
    std::atomic<uint32_t> ret{not_called};
    std::atomic<uint32_t> count{0};
    uint32_t accepted = not_called; // result of the asynchronous call
};

uint32_t count_call(uint32_t ret, char *, DNS_IPADDR_S *addrs, uint32_t n, void *user) {
    auto *s = static_cast<slot *>(user);
    // The list must be readable for the whole count.
    uint32_t families = 0;
    for (uint32_t i = 0; addrs != nullptr && i < n; ++i) {
        families |= 1u << (addrs[i].ulType & 7u);
    }
    EXPECT_LE(n, static_cast<uint32_t>(DNS_MAX_IP_NUM));
    EXPECT_EQ(families & ~3u, 0u);
    s->ret.store(ret);
    s->count.store(n);
    s->calls.fetch_add(1);
    return 0;
}

template <size_t N>
bool all_answered(const std::array<slot, N> &slots) {
    for (const slot &s : slots) {
        if (s.accepted == DNS_OK && s.calls.load() == 0) {
            return false;
        }
    }
    return true;
}

template <size_t N>
void expect_exactly_once(const std::array<slot, N> &slots) {
    for (size_t i = 0; i < N; ++i) {
        const int expected = slots[i].accepted == DNS_OK ? 1 : 0;
        EXPECT_EQ(slots[i].calls.load(), expected) << "request " << i << " accepted " << std::hex << slots[i].accepted;
    }
}

TEST(AddressStress, ConcurrentRequestsWithCleanUps) {
    log_capture quiet(6); // every line still formatted, none printed
    scripted_server srv("127.0.0.1");
    for (int i = 0; i < 10; ++i) {
        const std::string name = "s" + std::to_string(i) + ".example";
        srv.answer_a(name, {"10.0.0." + std::to_string(i + 1), "10.0.1." + std::to_string(i + 1)}, 1 + i);
        srv.answer_aaaa(name, {"fd00::" + std::to_string(i + 1)}, 600);
    }
    set_resolv_conf("nameserver 127.0.0.1\n");

    constexpr size_t total = 200;
    constexpr size_t submitters = 4;
    static std::array<slot, total> slots;
    for (slot &s : slots) {
        s.calls = 0;
        s.ret = not_called;
        s.accepted = not_called;
    }
    std::atomic<bool> submitting{true};
    std::thread cleaner([&] {
        while (submitting.load()) {
            ORV_NETB_DnsCleanBuffer();
            std::this_thread::sleep_for(std::chrono::microseconds(300));
        }
    });
    std::vector<std::thread> threads;
    for (size_t t = 0; t < submitters; ++t) {
        threads.emplace_back([t] {
            for (size_t i = t; i < total; i += submitters) {
                std::string name;
                uint32_t type = static_cast<uint32_t>(i % 3);
                if (i % 4 == 0) {
                    name = "10.2." + std::to_string(i / 256) + "." + std::to_string(i % 256);
                    type = DNS_SEARCH_TYPE_A;
                } else {
                    name = "s" + std::to_string(i % 10) + ".example";
                }
                slots[i].accepted = ORV_NETB_DnsGetIpByAsynResolve(name.c_str(), type, 2, count_call, &slots[i]);
            }
        });
    }
    for (std::thread &t : threads) {
        t.join();
    }
    EXPECT_TRUE(wait_until([] { return all_answered(slots); }, std::chrono::seconds(60)));
    submitting = false;
    cleaner.join();
    EXPECT_TRUE(wait_until([] { return requests_in_flight() == 0; }, std::chrono::seconds(30)));

    expect_exactly_once(slots);
    for (size_t i = 0; i < total; ++i) {
        EXPECT_EQ(slots[i].accepted, DNS_OK) << i;
        // Type 1 of a name with AAAA records, type 0 and 2 with A records.
        EXPECT_EQ(slots[i].ret.load(), DNS_OK) << i;
        EXPECT_GE(slots[i].count.load(), 1u) << i;
    }
}

TEST(AddressStress, ConcurrentBlockingCalls) {
    log_capture quiet(3);
    scripted_server srv("127.0.0.1");
    srv.answer_a("b.example", {"10.0.0.1", "10.0.0.2"}, 0);
    srv.answer_aaaa("b.example", {"fd00::1"}, 0);
    set_resolv_conf("nameserver 127.0.0.1\n");

    std::atomic<int> ok{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 6; ++i) {
                DNS_IPADDR_S addrs[DNS_MAX_IP_NUM] = {};
                uint32_t n = DNS_MAX_IP_NUM;
                const uint32_t type = static_cast<uint32_t>((t + i) % 3);
                if (ORV_NETB_DnsGetIpBySynResolve("b.example", type, addrs, &n) == DNS_OK && n >= 1) {
                    ok.fetch_add(1);
                }
                if ((t + i) % 5 == 0) {
                    ORV_NETB_DnsCleanBuffer();
                }
            }
        });
    }
    for (std::thread &t : threads) {
        t.join();
    }
    EXPECT_EQ(ok.load(), 48);
    EXPECT_TRUE(wait_until([] { return requests_in_flight() == 0; }, std::chrono::seconds(30)));
}

// The descriptor limit under which exactly `free_slots` descriptor numbers
// are still free (inherited descriptors may leave holes anywhere).
rlim_t limit_with_free(int free_slots) {
    std::set<int> open;
    DIR *dir = opendir("/proc/self/fd");
    if (dir == nullptr) {
        return 64;
    }
    const int own = dirfd(dir);
    while (dirent *e = readdir(dir)) {
        if (e->d_name[0] != '.' && std::atoi(e->d_name) != own) {
            open.insert(std::atoi(e->d_name));
        }
    }
    closedir(dir);
    int fd = 0;
    for (int found = 0;; ++fd) {
        if (open.count(fd) == 0 && ++found == free_slots) {
            break;
        }
    }
    return static_cast<rlim_t>(fd + 1);
}

// Holds every worker right after it has read the resolver file (and given
// back the named semaphore and the file), before its first socket: the log
// line written at that point is the hook.
struct socket_gate {
    std::mutex mu;
    std::condition_variable cv;
    int arrived = 0;
    bool open = false;

    void release() {
        std::lock_guard<std::mutex> lock(mu);
        open = true;
        cv.notify_all();
    }
};
socket_gate g_gate;

void gate_sink(const char *line) {
    static const char hook[] = "stServer.ulDnsServers";
    if (std::strncmp(line, hook, sizeof(hook) - 1) != 0) {
        return;
    }
    std::unique_lock<std::mutex> lock(g_gate.mu);
    g_gate.arrived++;
    g_gate.cv.notify_all();
    g_gate.cv.wait(lock, [] { return g_gate.open; });
}

TEST(AddressStress, RunningOutOfDescriptors) {
    scripted_server srv("127.0.0.1");
    // Replies come late, so every question holds its socket for a while.
    srv.on_query([](const parsed_query &q) -> reply {
        return reply(msg::reply_to(q).answer_a(q.qname, "10.0.0.1", 60)).after(std::chrono::milliseconds(400));
    });
    set_resolv_conf("nameserver 127.0.0.1\n");

    constexpr size_t total = 20;
    constexpr int free_slots = 6;
    static std::array<slot, total> slots;
    for (slot &s : slots) {
        s.calls = 0;
        s.ret = not_called;
        s.accepted = not_called;
    }
    {
        std::lock_guard<std::mutex> lock(g_gate.mu);
        g_gate.arrived = 0;
        g_gate.open = false;
    }
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    ORV_NETB_DnsSetLogLevel(6);
    ORV_NETB_DnsRegisterLogFunc(gate_sink);
    struct restore {
        rlimit limit;
        ~restore() {
            g_gate.release();
            setrlimit(RLIMIT_NOFILE, &limit);
        }
    } restore_on_exit{saved};

    // The burst: every worker reaches the gate with descriptors to spare,
    // then they all ask for their socket at once with only a few left.
    for (size_t i = 0; i < total; ++i) {
        const std::string name = "fd" + std::to_string(i) + ".example";
        slots[i].accepted = ORV_NETB_DnsGetIpByAsynResolve(name.c_str(), DNS_SEARCH_TYPE_A, 3, count_call, &slots[i]);
        ASSERT_EQ(slots[i].accepted, DNS_OK);
    }
    {
        std::unique_lock<std::mutex> lock(g_gate.mu);
        ASSERT_TRUE(g_gate.cv.wait_for(lock, std::chrono::seconds(30), [] { return g_gate.arrived == total; }));
    }
    rlimit tight = saved;
    tight.rlim_cur = limit_with_free(free_slots);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    g_gate.release();

    const bool answered = wait_until([] { return all_answered(slots); }, std::chrono::seconds(60));
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
    EXPECT_TRUE(answered);
    EXPECT_TRUE(wait_until([] { return requests_in_flight() == 0; }, std::chrono::seconds(30)));
    expect_exactly_once(slots);

    size_t resolved = 0;
    size_t no_socket = 0;
    std::string outcomes;
    for (const slot &s : slots) {
        const uint32_t ret = s.ret.load();
        resolved += ret == DNS_OK ? 1 : 0;
        no_socket += ret == DNS_ERR_SOCKET ? 1 : 0;
        char text[16];
        std::snprintf(text, sizeof(text), " %x", ret);
        outcomes += text;
    }
    // The sockets that fitted resolved (their descriptors are free again
    // when the answer is stored); every other request got the socket code.
    EXPECT_GE(resolved, 1u) << outcomes;
    EXPECT_LE(resolved, static_cast<size_t>(free_slots)) << outcomes;
    EXPECT_EQ(resolved + no_socket, total) << outcomes;
}

} // namespace
