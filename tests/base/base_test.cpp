// Logging and version, the bounded functions, the named semaphore across
// uses and processes, the file copy, and the platform adapter's switches.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fcntl.h>

#include "base/secure.h"
#include "base/worker_pool.h"
#include "os_adapter/test_hooks.h"
#include "support/sandbox.h"
#include "vek_dns_ops.h"
#include "vek_os_adapter.h"

namespace {

using namespace vekdns::test;
namespace pt = vekdns::pal_test;

TEST(Log, LevelSinkStandardOutputAndVersion) {
    EXPECT_EQ(ORV_NETB_DnsGetLogLevel(), 5u);
    static std::vector<std::string> lines;
    ORV_NETB_DnsRegisterLogFunc([](const char *line) { lines.emplace_back(line); });
    ORV_NETB_DnsSetLogLevel(3);
    DNS_LOG(4, "four");
    DNS_LOG(3, "three %d", 3);
    vek_dns_set_log_level(2);
    DNS_LOG(3, "hidden");
    vek_dns_register_log_func(nullptr);
    EXPECT_EQ(lines, std::vector<std::string>{"three 3"});
    testing::internal::CaptureStdout();
    DNS_LOG(2, "to stdout");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "to stdout \r\n");
    const std::string version = "QUORIN DNS 100.001.01.013.SP02";
    for (uint32_t size : {64u, 31u, 5u, 1u}) {
        char buf[64];
        std::memset(buf, 'x', sizeof(buf));
        EXPECT_EQ(ORV_NETB_DNS_GetVersion(buf, size), DNS_OK);
        EXPECT_EQ(buf, version.substr(0, size - 1)) << size;
    }
    EXPECT_EQ(ORV_NETB_DNS_GetVersion(nullptr, 8), DNS_ERR_PARA_INVALID);
}

TEST(Secure, BoundedFunctionsRefuseWhatDoesNotFit) {
    std::string got;
    char d[8];
    const auto row = [&](int ret) { got += std::to_string(ret) + ":" + d + " "; };
    row(strcpy_s(d, 8, "1234567"));
    row(strcpy_s(d, 8, "12345678"));
    row(strncpy_s(d, 8, "abcdef", 3));
    row(strncpy_s(d, 4, "abcdef", 4));
    row(strcat_s(d, 8, "xyz1234"));
    row(strcat_s(d, 8, "8"));
    row(sprintf_s(d, 8, "%d", 1234567));
    row(sprintf_s(d, 8, "%d", 12345678));
    row(snprintf_s(d, 8, 3, "%s", "abcdef"));
    EXPECT_EQ(got, "0:1234567 34: 0:abc 34: 0:xyz1234 34: 7:1234567 -1: -1:abc ");
    char text[] = "a  b,c", *ctx = nullptr;
    std::string tokens = strtok_s(text, " ,", &ctx);
    tokens += strtok_s(nullptr, " ,", &ctx);
    tokens += strtok_s(nullptr, " ,", &ctx);
    EXPECT_EQ(tokens, "abc");
}

TEST(NamedSem, CountOneReplacedAfterRemovalAndSharedWithOtherProcesses) {
    void *h = nullptr;
    ASSERT_EQ(DNS_SemOpen(&h), DNS_OK);
    ASSERT_EQ(DNS_SemWait(&h), DNS_OK);
    EXPECT_EQ(named_sem_value(), 0);
    const pid_t child = fork();
    if (child == 0) { // blocks until the parent posts
        void *c = nullptr;
        _exit(DNS_SemOpen(&c) == 0 && DNS_SemWait(&c) == 0 && DNS_SemPost(&c) == 0 ? 0 : 1);
    }
    EXPECT_EQ(DNS_SemPost(&h), DNS_OK);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(DNS_SemClose(&h), DNS_OK);
    ASSERT_EQ(DNS_SemOpen(&h), DNS_OK);
    ASSERT_EQ(DNS_SemWait(&h), DNS_OK); // held, then removed: the next open must not wait on it
    EXPECT_EQ(ORV_NETB_DnsSemUnLink(), DNS_OK);
    sem_close(sem_open("dns_lock_sem", O_CREAT, 0777, 1)); // made anew, as by another process
    void *fresh = nullptr;
    ASSERT_EQ(DNS_SemOpen(&fresh), DNS_OK);
    ASSERT_NE(fresh, h) << "the mapping of the removed semaphore handed out again";
    EXPECT_EQ(DNS_SemWait(&fresh), DNS_OK);
    for (void **p : {&fresh, &h}) {
        EXPECT_EQ(DNS_SemPost(p), DNS_OK);
        EXPECT_EQ(DNS_SemClose(p), DNS_OK);
    }
    EXPECT_EQ(DNS_SemOpen(nullptr), DNS_ERR_SEM);
}

TEST(FileCopy, CopiesLongLinesExactly) {
    const std::string text = "short\n" + std::string(300, 'l') + "\nno line feed";
    write_file("/var/a", text);
    write_file("/var/b", "old content that is longer than the new one\n\n\n");
    EXPECT_EQ(DNS_CopyOneFileToAnother("/var/a", "/var/b"), DNS_OK);
    EXPECT_EQ(read_file("/var/b"), text);
    EXPECT_EQ(DNS_CopyOneFileToAnother("/var/none", "/var/b"), DNS_ERR_OPEN_FILE);
    EXPECT_EQ(read_file("/var/b"), text);
}

TEST(Adapter, ConversionsAccountingSwitchesAndClock) {
    EXPECT_EQ(PAL_InetAddr("1.2.3.0000000004"), htonl(0x01020304)) << "octal parts";
    EXPECT_EQ(PAL_InetAddr("0x7f.1"), htonl(0x7F000001)) << "hexadecimal, short form";
    EXPECT_EQ(PAL_InetAddr("256.1.1.1"), 0xFFFFFFFFu);
    EXPECT_STREQ(PAL_InetNtoa(htonl(0x7F000001)), "127.0.0.1");
    const long before = pt::outstanding_blocks();
    char *copy = PAL_StrDupEx("text", __LINE__, __FILE__);
    EXPECT_STREQ(copy, "text");
    EXPECT_EQ(pt::outstanding_blocks(), before + 1);
    PAL_MemTypeFreeD(copy, 0, __LINE__, __FILE__);
    pt::fail_nth(pt::op::alloc, 2, 2); // the 2nd and 3rd allocation from now
    std::string got;
    for (int i = 0; i < 4; ++i) {
        void *p = PAL_MemTypeMallocD(8, 0, __LINE__, __FILE__);
        got += p != nullptr ? "+" : "-";
        PAL_MemTypeFreeD(p, 0, __LINE__, __FILE__);
    }
    pt::fail_nth_any(2);
    FILE *f = PAL_Fopen("/var/x", "w");
    got += f == nullptr ? " -" : " +";
    got += PAL_StrDupEx("x", __LINE__, __FILE__) == nullptr ? "-" : "+";
    (void)PAL_Fclose(f);
    EXPECT_EQ(got, "+--+ +-");
    EXPECT_TRUE(pt::any_fault_fired());
    pt::set_clock(1000);
    pt::advance_clock(59);
    EXPECT_EQ(PAL_GetSysTimeSec(), 1059u);
}

// 200 gated jobs: five failed thread starts queue, at most 64 threads, each job
// runs once, more than 8 stay parked after; with none alive a start refuses.
TEST(WorkerPool, BurstPastTheThreadBoundQueuesAndEveryJobRunsOnce) {
    namespace wp = vekdns::detail;
    static std::atomic<bool> gate{false};
    static std::atomic<int> runs[201];
    auto job = [](void *arg) { gate.wait(false), static_cast<std::atomic<int> *>(arg)->fetch_add(1); };
    std::string seen;
    for (int i = 0; i < 200; ++i) {
        i == 10 ? pt::fail_nth(pt::op::thread_create, 1, 5) : void();
        seen += wp::start_worker(job, &runs[i]) ? "" : " refused " + std::to_string(i);
    }
    seen += " threads<=64 " + std::to_string(wp::worker_threads() <= 64);
    gate = true;
    gate.notify_all();
    EXPECT_TRUE(wait_until([] { return wp::requests_in_flight() == 0 && wp::parked_workers() > 8; }));
    for (int i = 0; i < 200; ++i) {
        seen += runs[i] == 1 ? "" : " ran " + std::to_string(i) + "x" + std::to_string(runs[i]);
    }
    wp::set_worker_reuse(0);
    EXPECT_TRUE(wait_until([] { return wp::worker_threads() == 0; }));
    pt::fail_nth(pt::op::thread_create, 1);
    seen += " none alive " + std::to_string(wp::start_worker(job, &runs[200]));
    pt::clear_faults();
    wp::set_worker_reuse(8);
    EXPECT_EQ(seen, " threads<=64 1 none alive 0");
}

} // namespace
