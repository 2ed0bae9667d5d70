// The library inside a hostile process and host: full file systems, size
// limits, kills, concurrent rewrites, fork, a closed stdout, unloading, other
// users. One row per fault; each row gives one string that says what survived.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <numeric>
#include <random>
#include <sstream>
#include <thread>
#include <tuple>

#include "base/sys.h"
#include "base/text_file.h"
#include "os_adapter/test_hooks.h"
#include "support/sandbox.h"
#include "vek_dns_ops.h"

namespace {

using namespace vekdns::test;
using std::to_string;
const char *const resolv = "/etc/resolv.conf", *const v4_cache = "/var/orvdns.cache";
const std::string cache = "maxnumber 32\nmaxtime 4000000000\nh 16777343 1 4294967295\n";

std::string conf(int n) {
    return "# resolver\nnameserver 10.0.0." + to_string(n) + "\nsearch example.com\n";
}
// Texts joined in the order written (a braced list is evaluated in order).
std::string cat(std::initializer_list<std::string> parts) {
    return std::accumulate(parts.begin(), parts.end(), std::string());
}
std::string hex(uint32_t code) {
    return (std::ostringstream() << std::hex << code << ' ').str();
}
std::string set_server(uint32_t n) {
    const DNS_SERVER_S s{DNS_IP_TYPE_IPV4, {htonl(0x0A000000u | n)}};
    return hex(ORV_NETB_SetServer(&s, 1));
}
// A look-up of "h" (one address stored) through `get`.
std::string lookup(decltype(&DNS_GetIpFromFileCache) get = DNS_GetIpFromFileCache) {
    DNS_IPADDR_S out[DNS_MAX_IP_NUM] = {};
    uint32_t num = 0;
    const uint32_t ret = get("h", out, &num);
    return ret == DNS_OK && num != 1 ? "short " : hex(ret);
}
// Entries of /var other than the cache files ("orvdns...") and hidden ones.
std::string var_leftovers() {
    std::string names;
    for (const auto &e : std::filesystem::directory_iterator("/var")) {
        names +=
            e.path().filename().string().find_first_of(".o") == 0 ? "" : "+" + e.path().filename().string();
    }
    return names;
}
std::string files_after(const std::string &lookup_code) {
    return cat({lookup_code, read_file(v4_cache), set_server(2), read_file(resolv), var_leftovers()});
}
std::string cloexec(int fd) {
    return to_string(fcntl(fd, F_GETFD) & FD_CLOEXEC);
}
// What `fn` returned in a child process, or how the child died.
std::string in_child(const std::function<std::string()> &fn) {
    int fds[2], status = 0;
    (void)!pipe(fds);
    if (fork() == 0) {
        const std::string out = fn();
        _exit(write(fds[1], out.data(), out.size()) < 0);
    }
    char buf[4096];
    close(fds[1]);
    const ssize_t n = read(fds[0], buf, sizeof(buf));
    close(fds[0]), wait(&status);
    return WIFSIGNALED(status) ? "killed by " + to_string(WTERMSIG(status)) : std::string(buf, n > 0 ? n : 0);
}
// `body`'s result while another thread keeps running `work`.
std::string beside(const std::function<void()> &work, const std::function<std::string()> &body) {
    std::atomic<bool> done{false};
    std::thread t([&] {
        while (!done.load()) {
            work();
        }
    });
    const std::string out = body();
    done.store(true), t.join();
    return out;
}

// Children rewrite resolv.conf (in place: the sandbox bind-mounts it) and the
// IPv4 file (renamed over) until killed at a random moment.
std::string kill_during_rewrites() {
    const std::string params[] = {"maxnumber 10\nmaxtime 100\n", "maxnumber 20\nmaxtime 200\n"};
    write_file(v4_cache, params[0]);
    std::mt19937 rng(7);
    int damaged = 0;
    for (int round = 0; round < 150; ++round) {
        const pid_t pid = fork();
        for (uint32_t i = 0; pid == 0; ++i) {
            set_server(1 + i % 2),
                ORV_NETB_DnsSetConfig(0x18, nullptr, nullptr, 10 + 10 * (i % 2), 100 + 100 * (i % 2));
        }
        usleep(std::uniform_int_distribution<unsigned>(0, 3000)(rng));
        kill(pid, SIGKILL), waitpid(pid, nullptr, 0), ORV_NETB_DnsSemUnLink(); // it may have died holding it
        const std::string r = read_file(resolv), c = read_file(v4_cache);
        damaged += (r != conf(1) && r != conf(2)) || (c != params[0] && c != params[1]);
    }
    return cat({to_string(damaged), " damaged ", set_server(3), var_leftovers()});
}

// "dns_lock_sem" taken by nobody alive, a thread waiting for it, then removed.
std::string waiter_of_dead_holder() {
    sem_t *dead = sem_open("dns_lock_sem", O_CREAT, 0777, 1);
    sem_wait(dead);
    std::atomic<pid_t> tid{0};
    std::string result;
    std::thread waiter([&] { tid = gettid(), result = set_server(2); });
    wait_until([&] { // asleep in its wait
        return tid != 0 &&
               read_file("/proc/self/task/" + to_string(tid) + "/stat").find(") S") != std::string::npos;
    });
    const std::string unlinked = hex(ORV_NETB_DnsSemUnLink());
    const bool woke = wait_until([&] { return read_file(resolv) == conf(2); }, std::chrono::seconds(10));
    sem_post(dead), waiter.join(), sem_close(dead);
    return unlinked + (woke ? "woke " : "stuck ") + result;
}

// A rewrite's temporary name is "<base>.<pid>.<n>": one rewrite shows n (its
// creation watched), a link is planted at n + 1, and the next rewrite must not
// follow it.
std::string link_at_next_temp_name() {
    const int watch = inotify_init1(IN_CLOEXEC);
    inotify_add_watch(watch, "/var", IN_CREATE);
    set_server(1);
    alignas(inotify_event) char buf[4096];
    std::string name;
    for (ssize_t n = read(watch, buf, sizeof(buf)), at = 0; name.empty() && at < n;) {
        const auto *ev = reinterpret_cast<const inotify_event *>(buf + at);
        name = std::string(ev->name).rfind("dnsresolv.tmp.", 0) == 0 ? ev->name : "";
        at += sizeof(inotify_event) + ev->len;
    }
    close(watch);
    const size_t dot = name.rfind('.') + 1;
    const std::string link = "/var/" + name.substr(0, dot) + to_string(std::stoul(name.substr(dot)) + 1);
    const char *const victim = "/var/orvdnsvictim";
    (void)!symlink(victim, link.c_str()), write_file(victim, "keep");
    const std::string out = cat({set_server(2), read_file(resolv), read_file(victim)});
    unlink(link.c_str()), unlink(victim);
    return out;
}

TEST(Robust, EveryFaultLeavesWholeFilesAndLiveProcesses) {
    ORV_NETB_DnsSetLogLevel(0);
    const std::tuple<const char *, std::function<std::string()>, std::string> rows[] = {
        {"full /var",
         [] {
             return in_child([] {
                 unshare(CLONE_NEWNS), mount("tmpfs", "/var", "tmpfs", 0, "size=16k");
                 write_file(v4_cache, cache), write_file("/var/filler", std::string(16384, 'x')); // cut short
                 return files_after(lookup());
             });
         },
         "2604000b " + cache + "2604000b " + conf(1) + "+filler"},
        {"file-size limit",
         [] {
             return in_child([] {
                 const rlimit limit{20, 20};
                 signal(SIGXFSZ, SIG_IGN), setrlimit(RLIMIT_FSIZE, &limit);
                 return files_after(lookup());
             });
         },
         "2604000b " + cache + "2604000b " + conf(1)},
        {"kills during rewrites", kill_during_rewrites, "0 damaged 0 "},
        {"a look-up beside server rewrites",
         [] {
             std::string bad;
             const std::string sets = beside([&] { bad += lookup() == "0 " ? "" : "bad"; },
                                             [] {
                                                 std::string all;
                                                 for (uint32_t i = 0; i < 300; ++i) {
                                                     all += set_server(1 + i % 2) == "0 " ? "" : "bad";
                                                 }
                                                 return all;
                                             });
             return cat({sets, bad, read_file(resolv), var_leftovers()});
         },
         conf(2)},
        {"standard output a pipe nobody reads",
         [] {
             return in_child([] {
                 int fds[2];
                 (void)!pipe(fds);
                 close(fds[0]), dup2(fds[1], STDOUT_FILENO), setvbuf(stdout, nullptr, _IONBF, 0);
                 ORV_NETB_DnsSetLogLevel(5);
                 return set_server(2);
             });
         },
         "0 "},
        {"fork beside a busy memory cache",
         [] {
             const DNS_IPADDR_S local{DNS_IP_TYPE_IPV4, {htonl(INADDR_LOOPBACK)}};
             return beside([&] { DNS_SetIpToMemCache("h", 60, local), lookup(DNS_GetIpFromMemCache); },
                           [] {
                               std::string hung; // a child still waiting after 5 s dies of SIGALRM (14)
                               for (int i = 0; i < 20; ++i) {
                                   hung += in_child(
                                       [] { return alarm(5), lookup(DNS_GetIpFromMemCache), std::string(); });
                               }
                               return hung;
                           });
         },
         ""},
        {"a waiter of a dead holder, the semaphore removed", waiter_of_dead_holder, "0 woke 0 "},
        {"/dev/zero as the resolver file",
         [] {
             return in_child([] {
                 DNS_SERVER_S got[1];
                 uint32_t count = 0;
                 DNS_LOCAL_SERVER_S rec{};
                 alarm(10), unshare(CLONE_NEWNS), mount("/dev/zero", resolv, nullptr, MS_BIND, nullptr);
                 return cat({hex(ORV_NETB_GetServer(got, 1, &count)), hex(DNS_LocateDnsServer(&rec)),
                             hex(ORV_NETB_DnsSetConfig(0x2, got, nullptr, 0, 0))});
             });
         },
         "2604000c 2604000c 2604000c "},
        {"40,000 server lines",
         [] {
             std::string text;
             for (int i = 0; i < 40000; ++i) {
                 text += "nameserver 10.0." + to_string(i / 250) + "." + to_string(1 + i % 250) + "\n";
             }
             write_file(resolv, text);
             DNS_LOCAL_SERVER_S rec{};
             using vekdns::pal_test::calls, vekdns::pal_test::op;
             const unsigned before = calls(op::alloc);
             const std::string code = hex(DNS_LocateDnsServer(&rec));
             DNS_FreeLocalServer(&rec);
             return cat(
                 {code, to_string(rec.ulDnsServers), " servers ", to_string(calls(op::alloc) - before)});
         },
         "0 40000 servers 15"},
        {"a link planted at the name the next rewrite takes", link_at_next_temp_name, "0 " + conf(2) + "keep"},
        {"the semaphore of one user (umask 022), opened by another",
         [] {
             const std::string mode = in_child([] {
                 void *sem = nullptr;
                 struct stat st {};
                 ORV_NETB_DnsSemUnLink(), umask(022), DNS_SemOpen(&sem),
                     stat("/dev/shm/sem.dns_lock_sem", &st);
                 return to_string(st.st_mode & 0777) + " ";
             });
             return mode + in_child([] {
                        void *sem = nullptr;
                        return setuid(65534) != 0 ? "0 " /* no second user here: the mode tells */
                                                  : hex(DNS_SemOpen(&sem));
                    });
         },
         "511 0 "}, // 0777
        {"files and sockets closed on exec",
         [] {
             FILE *file = PAL_Fopen(resolv, "r");
             const int sock = vekdns::sys::socket(AF_INET, SOCK_DGRAM, 0);
             vekdns::detail::temp_rewrite temp("/var/cloexec.tmp");
             const std::string out = cat(
                 {cloexec(fileno(file)), cloexec(sock), temp.open() ? cloexec(fileno(temp.out.get())) : "-"});
             PAL_Fclose(file), close(sock);
             return out;
         },
         "111"},
        {"unloaded with a parked worker",
         [] {
             write_file(resolv, "# no server\n");
             void *lib = dlopen(VEK_DNS_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL);
             auto resolve = reinterpret_cast<decltype(&ORV_NETB_DnsGetIpBySynResolve)>(
                 dlsym(lib, "ORV_NETB_DnsGetIpBySynResolve"));
             DNS_IPADDR_S out[DNS_MAX_IP_NUM];
             uint32_t num = DNS_MAX_IP_NUM;
             const std::string code = hex(resolve("example.com", 0, out, &num)); // its worker parks
             dlclose(lib);
             void *still = dlopen(VEK_DNS_SHARED_LIBRARY, RTLD_NOW | RTLD_NOLOAD);
             return code + (still != nullptr && dlclose(still) == 0 ? "mapped" : "unmapped");
         },
         "2604000a mapped"},
    };
    for (const auto &[fault, run, expect] : rows) {
        write_file(resolv, conf(1)), write_file(v4_cache, cache);
        EXPECT_EQ(run(), expect) << fault;
    }
}

} // namespace
