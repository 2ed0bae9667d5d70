// The library inside a hostile process and host: full file systems, size
// limits, kills during rewrites, concurrent rewrites. One row per fault; each
// row gives one string that says what survived.
#include <arpa/inet.h>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>

#include "base/sys.h"
#include "base/text_file.h"
#include "os_adapter/test_hooks.h"
#include "support/sandbox.h"
#include "vek_dns_ops.h"

namespace {

using namespace vekdns::test;

const char *const resolv = "/etc/resolv.conf";
const char *const v4_cache = "/var/orvdns.cache";

std::string conf(int last_octet) {
    return "# resolver\nnameserver 10.0.0." + std::to_string(last_octet) + "\nsearch example.com\n";
}
DNS_SERVER_S server(int last_octet) {
    DNS_SERVER_S s{};
    inet_pton(AF_INET, ("10.0.0." + std::to_string(last_octet)).c_str(), &s.unIpAddr);
    return s;
}
std::string hex(uint32_t code) {
    char text[16];
    std::snprintf(text, sizeof(text), "%x", code);
    return text;
}
// Entries of /var that are not the three cache files.
std::string var_leftovers() {
    std::string names;
    DIR *d = opendir("/var");
    while (const dirent *e = d != nullptr ? readdir(d) : nullptr) {
        const std::string n = e->d_name;
        names += n[0] == '.' || n.rfind("orvdns", 0) == 0 ? "" : " " + n;
    }
    closedir(d);
    return names;
}
// Runs `fn` in a child process and returns what it returned.
std::string in_child(const std::function<std::string()> &fn) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        const std::string out = fn();
        (void)!write(fds[1], out.data(), out.size());
        _exit(0);
    }
    close(fds[1]);
    std::string out;
    char buf[256];
    for (ssize_t n; (n = read(fds[0], buf, sizeof(buf))) > 0;) {
        out.append(buf, static_cast<size_t>(n));
    }
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFSIGNALED(status) ? "killed by " + std::to_string(WTERMSIG(status)) : out;
}

// A look-up of the IPv4 file (which rewrites it) and the IPv4 file after it.
std::string lookup_and_file() {
    DNS_IPADDR_S out[DNS_MAX_IP_NUM] = {};
    uint32_t num = 0;
    const std::string code = hex(DNS_GetIpFromFileCache("h", out, &num));
    return code + " " + read_file(v4_cache);
}
std::string set_server_and_file(int last_octet) {
    const DNS_SERVER_S s = server(last_octet);
    const std::string code = hex(ORV_NETB_SetServer(&s, 1));
    return code + " " + read_file(resolv);
}

// The two targets a child keeps rewriting until it is killed: resolv.conf
// (written in place: the sandbox bind-mounts it) and the IPv4 cache file
// (renamed over). After each kill both hold a whole old or new content.
std::string kill_during_rewrites() {
    const std::string params[] = {"maxnumber 10\nmaxtime 100\n", "maxnumber 20\nmaxtime 200\n"};
    write_file(v4_cache, params[0]);
    std::mt19937 rng(7);
    int damaged = 0;
    for (int round = 0; round < 150; ++round) {
        const pid_t pid = fork();
        if (pid == 0) {
            for (int i = 0;; ++i) {
                const DNS_SERVER_S s = server(1 + i % 2);
                (void)ORV_NETB_SetServer(&s, 1);
                (void)ORV_NETB_DnsSetConfig(0x18, nullptr, nullptr, 10 + 10 * (i % 2), 100 + 100 * (i % 2));
            }
        }
        usleep(std::uniform_int_distribution<unsigned>(0, 3000)(rng));
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        (void)ORV_NETB_DnsSemUnLink(); // the child may have died holding it
        const std::string r = read_file(resolv), c = read_file(v4_cache);
        damaged += (r != conf(1) && r != conf(2)) || (c != params[0] && c != params[1]);
    }
    const DNS_SERVER_S s = server(3);
    const std::string set = hex(ORV_NETB_SetServer(&s, 1)); // removes what the killed left
    return std::to_string(damaged) + " damaged, " + set + var_leftovers();
}

// One thread keeps looking up the cache file while another sets the server.
std::string concurrent_rewrites() {
    std::atomic<bool> done{false};
    int bad_lookups = 0;
    std::thread lookups([&] {
        while (!done.load()) {
            DNS_IPADDR_S out[DNS_MAX_IP_NUM] = {};
            uint32_t num = 0;
            bad_lookups += DNS_GetIpFromFileCache("h", out, &num) != DNS_OK || num != 1;
        }
    });
    int bad_sets = 0;
    for (int i = 0; i < 300; ++i) {
        const DNS_SERVER_S s = server(1 + i % 2);
        bad_sets += ORV_NETB_SetServer(&s, 1) != DNS_OK;
    }
    done.store(true);
    lookups.join();
    return std::to_string(bad_sets) + " " + std::to_string(bad_lookups) + " " + read_file(resolv) + var_leftovers();
}

// Children forked while another thread works in the memory cache; each
// looks the cache up once. Gives the number that hung.
std::string fork_beside_busy_cache() {
    std::atomic<bool> done{false};
    DNS_IPADDR_S a{};
    a.unIpAddr.ulIpv4 = 0x0100007F;
    std::thread busy([&] {
        while (!done.load()) {
            DNS_IPADDR_S out[DNS_MAX_IP_NUM] = {};
            uint32_t num = 0;
            (void)DNS_SetIpToMemCache("h", 60, a);
            (void)DNS_GetIpFromMemCache("h", out, &num);
        }
    });
    int hung = 0;
    for (int i = 0; i < 20; ++i) {
        const pid_t pid = fork();
        if (pid == 0) {
            DNS_IPADDR_S out[DNS_MAX_IP_NUM] = {};
            uint32_t num = 0;
            _exit(static_cast<int>(DNS_GetIpFromMemCache("h", out, &num)));
        }
        if (!wait_until([&] { return waitpid(pid, nullptr, WNOHANG) == pid; }, std::chrono::seconds(5))) {
            ++hung;
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    done.store(true);
    busy.join();
    return std::to_string(hung) + " hung";
}

// A process dies holding "dns_lock_sem" while a thread here waits for it;
// the semaphore is then removed. Gives the waiter's result.
std::string waiter_of_dead_holder() {
    int ready[2];
    (void)!pipe(ready);
    const pid_t holder = fork();
    if (holder == 0) {
        void *sem = nullptr;
        (void)DNS_SemOpen(&sem);
        (void)DNS_SemWait(&sem);
        (void)!write(ready[1], "x", 1);
        pause();
    }
    char c;
    (void)!read(ready[0], &c, 1);
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    std::atomic<pid_t> tid{0};
    std::atomic<uint32_t> result{1};
    std::thread waiter([&] {
        tid.store(gettid());
        DNS_SERVER_S got[1];
        uint32_t count = 0;
        result.store(ORV_NETB_GetServer(got, 1, &count));
    });
    // Blocked: the thread sleeps in its wait.
    wait_until([&] { return tid != 0 && read_file("/proc/self/task/" + std::to_string(tid) + "/stat").find(") S") != std::string::npos; });
    void *old = nullptr;
    (void)DNS_SemOpen(&old);
    const uint32_t unlinked = ORV_NETB_DnsSemUnLink();
    const bool woke = wait_until([&] { return result.load() != 1; }, std::chrono::seconds(10));
    if (!woke) {
        (void)DNS_SemPost(&old); // free the waiter so the test can end
    }
    waiter.join();
    (void)DNS_SemClose(&old);
    close(ready[0]);
    close(ready[1]);
    return hex(unlinked) + (woke ? " woke " : " stuck ") + hex(result.load());
}

// An endless resolver file: every reader stops with 0x2604000C.
std::string endless_resolver_file() {
    EXPECT_EQ(mount("/dev/zero", resolv, nullptr, MS_BIND, nullptr), 0);
    DNS_SERVER_S got[1];
    uint32_t count = 0;
    DNS_LOCAL_SERVER_S rec{};
    std::string out = hex(ORV_NETB_GetServer(got, 1, &count));
    out += " " + hex(ORV_NETB_DnsSetConfig(0x2, got, nullptr, 0, 0));
    out += " " + hex(DNS_LocateDnsServer(&rec));
    EXPECT_EQ(umount(resolv), 0);
    return out;
}

// 40,000 server lines: found with a handful of allocations.
std::string many_servers() {
    std::string text;
    for (int i = 0; i < 40000; ++i) {
        text += "nameserver 10.0." + std::to_string(i / 250) + "." + std::to_string(1 + i % 250) + "\n";
    }
    write_file(resolv, text);
    DNS_LOCAL_SERVER_S rec{};
    const unsigned before = vekdns::pal_test::calls(vekdns::pal_test::op::alloc);
    const std::string code = hex(DNS_LocateDnsServer(&rec));
    const unsigned allocations = vekdns::pal_test::calls(vekdns::pal_test::op::alloc) - before;
    DNS_FreeLocalServer(&rec);
    return code + " " + std::to_string(rec.ulDnsServers) + " servers, " + std::to_string(allocations) + " allocations";
}

// Links planted at the temporary file's names: nothing is written through them.
std::string planted_links() {
    write_file("/var/victim", "keep\n");
    const std::string base = "/var/dnsresolv.tmp";
    const std::string links[] = {base, base + ".0", base + "." + std::to_string(getpid()) + ".0"};
    for (const std::string &l : links) {
        EXPECT_EQ(symlink("/var/victim", l.c_str()), 0);
    }
    const std::string out = set_server_and_file(2) + read_file("/var/victim");
    for (const std::string &l : links) {
        unlink(l.c_str());
    }
    unlink("/var/victim");
    return out;
}

// A service of one user (umask 022) creates the semaphore; another user
// then opens it. Gives the mode and the other user's result.
std::string semaphore_of_another_user() {
    const std::string mode = in_child([] {
        (void)ORV_NETB_DnsSemUnLink();
        umask(022);
        void *sem = nullptr;
        (void)DNS_SemOpen(&sem);
        (void)DNS_SemClose(&sem);
        struct stat st {};
        stat("/dev/shm/sem.dns_lock_sem", &st);
        char text[8];
        std::snprintf(text, sizeof(text), "%o ", st.st_mode & 0777);
        return std::string(text);
    });
    return mode + in_child([] {
        void *other = nullptr;
        return setuid(65534) != 0 ? "no second user" : hex(DNS_SemOpen(&other));
    });
}

// Descriptors the library opens are closed on exec.
std::string close_on_exec() {
    std::string out;
    FILE *file = PAL_Fopen(resolv, "r");
    out += std::to_string(fcntl(fileno(file), F_GETFD) & FD_CLOEXEC);
    PAL_Fclose(file);
    const int fd = vekdns::sys::socket(AF_INET, SOCK_DGRAM, 0);
    out += std::to_string(fcntl(fd, F_GETFD) & FD_CLOEXEC);
    close(fd);
    vekdns::detail::temp_rewrite temp("/var/cloexec.tmp");
    out += temp.open() ? std::to_string(fcntl(fileno(temp.out.get()), F_GETFD) & FD_CLOEXEC) : "-";
    return out;
}

// The shared library loaded, used (a worker is left parked) and unloaded:
// it stays mapped, so the parked worker returns into code that is there.
std::string unload_with_parked_worker() {
    write_file(resolv, "# no server\n");
    void *lib = dlopen(VEK_DNS_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    if (lib == nullptr) {
        return dlerror();
    }
    auto resolve = reinterpret_cast<decltype(&ORV_NETB_DnsGetIpBySynResolve)>(
        dlsym(lib, "ORV_NETB_DnsGetIpBySynResolve"));
    DNS_IPADDR_S out[DNS_MAX_IP_NUM];
    uint32_t num = DNS_MAX_IP_NUM;
    const std::string code = hex(resolve("example.com", 0, out, &num));
    dlclose(lib);
    void *still = dlopen(VEK_DNS_SHARED_LIBRARY, RTLD_NOW | RTLD_NOLOAD);
    if (still != nullptr) {
        dlclose(still);
    }
    return code + (still != nullptr ? " still mapped" : " unmapped");
}

struct row {
    const char *fault;
    std::function<std::string()> run;
    std::string expect;
};

TEST(Robust, EveryFaultLeavesWholeFiles) {
    ORV_NETB_DnsSetLogLevel(0);
    const std::string cache = "maxnumber 32\nmaxtime 4000000000\nh 16777343 1 4294967295\n";
    const row rows[] = {
        {"full /var: the rewrite reports it, the targets stay",
         [] {
             EXPECT_EQ(mount("tmpfs", "/var", "tmpfs", 0, "size=16k"), 0);
             write_file(v4_cache, "maxnumber 32\nmaxtime 4000000000\nh 16777343 1 4294967295\n");
             write_file("/var/filler", std::string(16384, 'x')); // cut where the space ends
             std::string out = lookup_and_file();
             out += set_server_and_file(2) + var_leftovers();
             EXPECT_EQ(umount("/var"), 0);
             return out;
         },
         "2604000b " + cache + "2604000b " + conf(1) + " filler"},
        {"file-size limit: the rewrite reports it, the target stays",
         [] {
             return in_child([] {
                 signal(SIGXFSZ, SIG_IGN);
                 const rlimit limit{20, 20};
                 setrlimit(RLIMIT_FSIZE, &limit);
                 const std::string out = lookup_and_file();
                 return out + set_server_and_file(2);
             }) + var_leftovers();
         },
         "2604000b " + cache + "2604000b " + conf(1)},
        {"kills during rewrites leave old or new content", kill_during_rewrites, "0 damaged, 0"},
        {"a look-up beside a server rewrite", concurrent_rewrites, "0 0 " + conf(2)},
        {"standard output is a pipe nobody reads",
         [] {
             return in_child([] {
                 int fds[2];
                 (void)!pipe(fds);
                 close(fds[0]);
                 dup2(fds[1], STDOUT_FILENO);
                 setvbuf(stdout, nullptr, _IONBF, 0); // every line written at once
                 ORV_NETB_DnsSetLogLevel(5);
                 DNS_SERVER_S got[1];
                 uint32_t count = 0;
                 const std::string code = hex(ORV_NETB_GetServer(got, 1, &count));
                 return code + " " + std::to_string(count);
             });
         },
         "0 1"},
        {"fork beside a busy memory cache", fork_beside_busy_cache, "0 hung"},
        {"a waiter of a dead holder, then the semaphore removed", waiter_of_dead_holder, "0 woke 0"},
        {"/dev/zero as the resolver file", endless_resolver_file, "2604000c 2604000c 2604000c"},
        {"40,000 server lines", many_servers, "0 40000 servers, 15 allocations"},
        {"links planted at the temporary names", planted_links, "0 " + conf(2) + "keep\n"},
        {"the semaphore made by one user, opened by another", semaphore_of_another_user, "777 0"},
        {"files and sockets are closed on exec", close_on_exec, "111"},
        {"unloaded with a parked worker", unload_with_parked_worker, "2604000a still mapped"},
    };
    for (const row &r : rows) {
        write_file(resolv, conf(1));
        write_file(v4_cache, cache);
        EXPECT_EQ(r.run(), r.expect) << r.fault;
    }
}

} // namespace
