// Named semaphore, unnamed locks and the file copy, including their failure
// paths and the behaviour across processes.
#include <atomic>
#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "os_adapter/test_hooks.h"
#include "support/sandbox.h"
#include "vek_dns_ops.h"

using vekdns::pal_test::fail_nth;
using vekdns::pal_test::fail_nth_path;
using vekdns::pal_test::op;
using vekdns::test::file_exists;
using vekdns::test::log_capture;
using vekdns::test::read_file;
using vekdns::test::write_file;

namespace {

// One full critical section on "dns_lock_sem".
uint32_t locked_section() {
    void *handle = nullptr;
    uint32_t ret = DNS_SemOpen(&handle);
    if (ret != DNS_OK) {
        return ret;
    }
    (void)DNS_SemWait(&handle);
    (void)DNS_SemPost(&handle);
    return DNS_SemClose(&handle);
}

// Waits for a child for at most `limit`; returns its exit status or -1 if it
// is still running (the child is then left to the caller).
int wait_child(pid_t pid, std::chrono::milliseconds limit) {
    int status = 0;
    bool done = vekdns::test::wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; }, limit);
    if (!done) {
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void kill_and_reap(pid_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

class NamedSem : public testing::Test {
protected:
    void SetUp() override { (void)ORV_NETB_DnsSemUnLink(); }
    void TearDown() override { (void)ORV_NETB_DnsSemUnLink(); }
};

} // namespace

TEST_F(NamedSem, CreatedWithCountOneAndOpenMode) {
    ASSERT_EQ(locked_section(), DNS_OK);
    EXPECT_TRUE(file_exists("/dev/shm/sem.dns_lock_sem"));
    void *handle = nullptr;
    ASSERT_EQ(DNS_SemOpen(&handle), DNS_OK);
    int value = -1;
    ASSERT_EQ(sem_getvalue(static_cast<sem_t *>(handle), &value), 0);
    EXPECT_EQ(value, 1);
    EXPECT_EQ(DNS_SemClose(&handle), DNS_OK);
    EXPECT_EQ(DNS_SemOpen(nullptr), DNS_ERR_SEM);
}

TEST_F(NamedSem, RemovedSemaphoreIsReplacedInThisProcess) {
    // The adapter keeps mappings between uses; a removed semaphore must not be
    // handed out again.
    void *stuck = nullptr;
    ASSERT_EQ(DNS_SemOpen(&stuck), DNS_OK);
    ASSERT_EQ(DNS_SemWait(&stuck), DNS_OK); // left at 0, as by a crashed holder
    ASSERT_EQ(ORV_NETB_DnsSemUnLink(), DNS_OK);
    for (int round = 0; round < 3; ++round) {
        void *fresh = nullptr;
        ASSERT_EQ(DNS_SemOpen(&fresh), DNS_OK);
        EXPECT_NE(fresh, stuck);
        int value = -1;
        sem_getvalue(static_cast<sem_t *>(fresh), &value);
        EXPECT_EQ(value, 1) << "round " << round;
        EXPECT_EQ(DNS_SemClose(&fresh), DNS_OK);
    }
    EXPECT_EQ(DNS_SemClose(&stuck), DNS_OK);
    EXPECT_EQ(locked_section(), DNS_OK);
}

TEST_F(NamedSem, EveryPlatformFailureMapsToTheSemaphoreCode) {
    log_capture cap(5);
    void *handle = nullptr;
    fail_nth(op::sem_open, 1);
    EXPECT_EQ(DNS_SemOpen(&handle), DNS_ERR_SEM);
    EXPECT_EQ(handle, nullptr);
    EXPECT_TRUE(cap.lines().empty()) << "opening logs nothing";

    ASSERT_EQ(DNS_SemOpen(&handle), DNS_OK);
    fail_nth(op::sem_wait, 1);
    EXPECT_EQ(DNS_SemWait(&handle), DNS_ERR_SEM);
    EXPECT_TRUE(cap.contains("wait semaphore failed!\r\n"));
    ASSERT_EQ(DNS_SemWait(&handle), DNS_OK);
    fail_nth(op::sem_post, 1);
    EXPECT_EQ(DNS_SemPost(&handle), DNS_ERR_SEM);
    EXPECT_TRUE(cap.contains("post semaphore failed!\r\n"));
    ASSERT_EQ(DNS_SemPost(&handle), DNS_OK);
    cap.clear();
    fail_nth(op::sem_close, 1);
    EXPECT_EQ(DNS_SemClose(&handle), DNS_ERR_SEM);
    EXPECT_TRUE(cap.lines().empty());

    fail_nth(op::sem_unlink, 1);
    EXPECT_EQ(ORV_NETB_DnsSemUnLink(), DNS_ERR_SEM);
    EXPECT_TRUE(cap.contains("remove named semaphore failed!\r\n"));
    EXPECT_EQ(ORV_NETB_DnsSemUnLink(), DNS_OK);
    EXPECT_EQ(ORV_NETB_DnsSemUnLink(), DNS_ERR_SEM) << "already removed";
}

TEST_F(NamedSem, TwoProcessesSerialise) {
    ASSERT_EQ(locked_section(), DNS_OK);
    // Shared between the processes: a counter updated non-atomically inside
    // the section, and the number of processes inside it at once.
    struct shared {
        long counter;
        int inside;
        int overlap;
    };
    auto *s = static_cast<shared *>(mmap(nullptr, sizeof(shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(s, MAP_FAILED);
    *s = shared{};
    constexpr int rounds = 300;
    auto work = [s] {
        for (int i = 0; i < rounds; ++i) {
            void *handle = nullptr;
            if (DNS_SemOpen(&handle) != DNS_OK || DNS_SemWait(&handle) != DNS_OK) {
                return false;
            }
            if (__atomic_add_fetch(&s->inside, 1, __ATOMIC_SEQ_CST) != 1) {
                s->overlap = 1;
            }
            long v = s->counter;
            sched_yield();
            s->counter = v + 1;
            __atomic_sub_fetch(&s->inside, 1, __ATOMIC_SEQ_CST);
            (void)DNS_SemPost(&handle);
            (void)DNS_SemClose(&handle);
        }
        return true;
    };
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        _exit(work() ? 0 : 1);
    }
    EXPECT_TRUE(work());
    EXPECT_EQ(wait_child(child, std::chrono::seconds(30)), 0);
    EXPECT_EQ(s->counter, 2 * rounds);
    EXPECT_EQ(s->overlap, 0);
    munmap(s, sizeof(shared));
}

TEST_F(NamedSem, HolderKilledInsideBlocksOthersUntilUnlinked) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t holder = fork();
    ASSERT_GE(holder, 0);
    if (holder == 0) {
        void *handle = nullptr;
        if (DNS_SemOpen(&handle) != DNS_OK || DNS_SemWait(&handle) != DNS_OK) {
            _exit(1);
        }
        (void)!write(ready[1], "x", 1);
        pause(); // killed while inside
        _exit(0);
    }
    char c;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    kill_and_reap(holder);

    // A user in another process now blocks in its wait.
    pid_t waiter = fork();
    ASSERT_GE(waiter, 0);
    if (waiter == 0) {
        _exit(locked_section() == DNS_OK ? 0 : 1);
    }
    EXPECT_EQ(wait_child(waiter, std::chrono::milliseconds(300)), -1) << "waiter should still be blocked";
    kill_and_reap(waiter);

    // Removing the semaphore lets the next user create a fresh one.
    EXPECT_EQ(ORV_NETB_DnsSemUnLink(), DNS_OK);
    pid_t next = fork();
    ASSERT_GE(next, 0);
    if (next == 0) {
        _exit(locked_section() == DNS_OK ? 0 : 1);
    }
    int status = wait_child(next, std::chrono::seconds(10));
    if (status == -1) {
        kill_and_reap(next);
    }
    EXPECT_EQ(status, 0);
    EXPECT_EQ(locked_section(), DNS_OK);
    close(ready[0]);
    close(ready[1]);
}

TEST(UnnamedLock, LockUnlockAndFailures) {
    log_capture cap(5);
    sem_t sem;
    ASSERT_EQ(DNS_InitLock(&sem), DNS_OK);
    EXPECT_EQ(DNS_Lock(&sem), DNS_OK);
    int value = -1;
    sem_getvalue(&sem, &value);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(DNS_UnLock(&sem), DNS_OK);
    fail_nth(op::sem_wait, 1);
    EXPECT_EQ(DNS_Lock(&sem), DNS_ERR_SEM);
    fail_nth(op::sem_post, 1);
    EXPECT_EQ(DNS_UnLock(&sem), DNS_ERR_SEM);
    EXPECT_TRUE(cap.contains("wait semaphore failed!\r\n"));
    EXPECT_TRUE(cap.contains("post semaphore failed!\r\n"));
    fail_nth(op::sem_destroy, 1);
    EXPECT_EQ(DNS_DestoryLock(&sem), DNS_ERR_SEM);
    EXPECT_EQ(DNS_DestoryLock(&sem), DNS_OK);
    fail_nth(op::sem_init, 1);
    EXPECT_EQ(DNS_InitLock(&sem), DNS_ERR_SEM);
}

TEST(UnnamedLock, CompletionSignalPattern) {
    // Taken once before the request, a second time to wait; the completion
    // releases it and the caller releases once more: count back at 1.
    sem_t sem;
    ASSERT_EQ(DNS_InitLock(&sem), DNS_OK);
    ASSERT_EQ(DNS_Lock(&sem), DNS_OK);
    std::thread completion([&] { (void)DNS_UnLock(&sem); });
    EXPECT_EQ(DNS_Lock(&sem), DNS_OK);
    completion.join();
    EXPECT_EQ(DNS_UnLock(&sem), DNS_OK);
    int value = -1;
    sem_getvalue(&sem, &value);
    EXPECT_EQ(value, 1);
    EXPECT_EQ(DNS_DestoryLock(&sem), DNS_OK);
}

TEST(FileCopy, CopiesContentExactly) {
    const std::string long_line(300, 'L');
    struct {
        const char *name;
        std::string content;
    } cases[] = {
        {"empty", ""},
        {"300-character line", long_line + "\nshort\n"},
        {"no final newline", "a\nb"},
        {"127 and 128", std::string(127, 'x') + "\n" + std::string(128, 'y') + "\n"},
    };
    for (const auto &c : cases) {
        write_file("/var/src.txt", c.content);
        write_file("/var/dst.txt", "old content that must go\n");
        EXPECT_EQ(DNS_CopyOneFileToAnother("/var/src.txt", "/var/dst.txt"), DNS_OK) << c.name;
        EXPECT_EQ(read_file("/var/dst.txt"), c.content) << c.name;
    }
    EXPECT_EQ(DNS_CopyOneFileToAnother("/var/src.txt", "/var/new.txt"), DNS_OK);
    EXPECT_TRUE(file_exists("/var/new.txt"));
}

TEST(FileCopy, FailurePaths) {
    log_capture cap(5);
    write_file("/var/src.txt", "line one\nline two\n");
    write_file("/var/dst.txt", "target\n");
    EXPECT_EQ(DNS_CopyOneFileToAnother(nullptr, "/var/dst.txt"), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(DNS_CopyOneFileToAnother("/var/src.txt", nullptr), DNS_ERR_PARA_INVALID);

    EXPECT_EQ(DNS_CopyOneFileToAnother("/var/missing.txt", "/var/dst.txt"), DNS_ERR_OPEN_FILE);
    EXPECT_EQ(read_file("/var/dst.txt"), "target\n");
    EXPECT_TRUE(cap.contains("open file failed!\r\n"));

    cap.clear();
    fail_nth_path("/var/dst.txt", 1);
    EXPECT_EQ(DNS_CopyOneFileToAnother("/var/src.txt", "/var/dst.txt"), DNS_ERR_OPEN_FILE);
    EXPECT_EQ(read_file("/var/dst.txt"), "target\n");
    EXPECT_TRUE(cap.contains("open file failed!\r\n"));

    cap.clear();
    fail_nth(op::fputs, 2);
    EXPECT_EQ(DNS_CopyOneFileToAnother("/var/src.txt", "/var/dst.txt"), DNS_ERR_WRITE_FILE);
    EXPECT_EQ(read_file("/var/dst.txt"), "line one\n") << "target left partly written";
    EXPECT_EQ(read_file("/var/src.txt"), "line one\nline two\n");
    EXPECT_TRUE(cap.contains("write cache file failed!\r\n"));
}
