// Test isolation: private mount + network namespaces with only loopback.
#include "support/sandbox.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <net/if.h>
#include <sched.h>
#include <semaphore.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vekdns::test {
namespace {

[[noreturn]] void refuse(const char *what) {
    std::fprintf(stderr,
                 "sandbox: %s failed (%s). Tests run only in a private network namespace; run them as "
                 "root or where unprivileged user namespaces are allowed.\n",
                 what, std::strerror(errno));
    _exit(2);
}

void write_proc(const char *path, const std::string &text) {
    const int fd = open(path, O_WRONLY);
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        refuse(path);
    }
    close(fd);
}

void unshare_namespaces() {
    if (unshare(CLONE_NEWNS | CLONE_NEWNET) == 0) {
        return;
    }
    // Not privileged: map ourselves to root in a new user namespace first.
    const uid_t uid = getuid();
    const gid_t gid = getgid();
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWNET) != 0) {
        refuse("unshare(user+mount+net)");
    }
    write_proc("/proc/self/setgroups", "deny");
    write_proc("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    write_proc("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

void loopback_only() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct ifreq ifr {};
    std::strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
    if (fd < 0 || ioctl(fd, SIOCGIFFLAGS, &ifr) != 0) {
        refuse("SIOCGIFFLAGS lo");
    }
    ifr.ifr_flags |= IFF_UP | IFF_RUNNING;
    if (ioctl(fd, SIOCSIFFLAGS, &ifr) != 0) {
        refuse("SIOCSIFFLAGS lo");
    }
    close(fd);
    struct if_nameindex *ifs = if_nameindex();
    for (struct if_nameindex *i = ifs; i != nullptr && i->if_index != 0; ++i) {
        if (std::strcmp(i->if_name, "lo") != 0) {
            refuse(i->if_name);
        }
    }
    if_freenameindex(ifs);
}

void mount_tmpfs(const char *path) {
    if (mount("vek-test", path, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") != 0) {
        refuse(path);
    }
}

} // namespace

void enter_sandbox() {
    unshare_namespaces();
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        refuse("making mounts private");
    }
    loopback_only();
    mount_tmpfs("/var");
    mount_tmpfs("/dev/shm");
    // A private resolver file: a tmpfs file bind-mounted over the real one.
    if (mkdir("/var/.sandbox", 0700) != 0) {
        refuse("mkdir /var/.sandbox");
    }
    write_file("/var/.sandbox/resolv.conf", "nameserver 127.0.0.1\n");
    if (mount("/var/.sandbox/resolv.conf", "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0) {
        refuse("bind mount over /etc/resolv.conf");
    }
    setenv("VEK_DNS_SANDBOXED", "1", 1);
}

std::string read_file(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    std::ostringstream out;
    out << f.rdbuf();
    return out.str();
}

void write_file(const std::string &path, const std::string &content) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f << content;
}

bool file_exists(const std::string &path) {
    return access(path.c_str(), F_OK) == 0;
}

void set_resolv_conf(const std::string &content) {
    write_file("/etc/resolv.conf", content);
}

int named_sem_value() {
    sem_t *sem = sem_open("dns_lock_sem", 0);
    int value = -1;
    if (sem != SEM_FAILED) {
        sem_getvalue(sem, &value);
        sem_close(sem);
    }
    return value;
}

bool wait_until(const std::function<bool()> &pred, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return pred();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace vekdns::test
