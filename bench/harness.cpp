// The shared part of resolve_bench: see harness.h.
#include "harness.h"

#include <arpa/inet.h>
#include <gnu/libc-version.h>
#include <net/if.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/mount.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <chrono>
#include <cstring>
#include <thread>
#include <fstream>
#include <memory>
#include <mutex>

#include "os_adapter/test_hooks.h"
#include "support/sandbox.h"
#include "vek_dns.h"

namespace vekbench {

uint32_t answer_ip_net() {
    uint32_t v;
    std::memcpy(&v, answer_ip, sizeof(v));
    return v;
}

// ---- statistics -----------------------------------------------------------------------

double quantile(std::vector<double> v, double q) {
    if (v.empty()) {
        return 0.0;
    }
    std::sort(v.begin(), v.end());
    const double pos = q * static_cast<double>(v.size() - 1);
    const size_t lo = static_cast<size_t>(pos);
    const size_t hi = std::min(lo + 1, v.size() - 1);
    return v[lo] + (v[hi] - v[lo]) * (pos - static_cast<double>(lo));
}

double us_between(clk::time_point a, clk::time_point b) {
    return std::chrono::duration<double, std::micro>(b - a).count();
}

double safe_ratio(double a, double b) {
    return a > 0 && b > 0 ? a / b : 0.0;
}

std::vector<double> time_each(unsigned n, const std::function<void(unsigned)> &f) {
    std::vector<double> us;
    us.reserve(n);
    for (unsigned i = 0; i < n; ++i) {
        const clk::time_point t0 = clk::now();
        f(i);
        us.push_back(us_between(t0, clk::now()));
    }
    return us;
}

// ---- sandbox --------------------------------------------------------------------------

namespace {

[[noreturn]] void refuse(const std::string &why) {
    std::fprintf(stderr, "resolve_bench: %s; refusing to run outside the sandbox\n", why.c_str());
    std::exit(2);
}

// Bind-mounts a private file with `content` over `target` (inside our own
// mount namespace), so that the peers' name-service lookups stay in files
// and DNS to 127.0.0.1 only.
void private_file(const char *target, const char *content) {
    if (access(target, F_OK) != 0) {
        return; // absent: glibc's and c-ares' built-in defaults apply
    }
    const std::string copy = std::string("/var/.bench") + std::strrchr(target, '/');
    vekdns::test::write_file(copy, content);
    if (mount(copy.c_str(), target, nullptr, MS_BIND, nullptr) != 0) {
        refuse(std::string("cannot bind a private copy over ") + target + " (" + std::strerror(errno) + ")");
    }
}

} // namespace

void isolate() {
    vekdns::test::enter_sandbox(); // exits when the namespaces cannot be made
    const char *flag = std::getenv("VEK_DNS_SANDBOXED");
    if (flag == nullptr || std::strcmp(flag, "1") != 0) {
        refuse("the sandbox did not confirm itself");
    }
    struct if_nameindex *ifs = if_nameindex();
    if (ifs == nullptr) {
        refuse("cannot list network interfaces");
    }
    for (struct if_nameindex *i = ifs; i->if_index != 0; ++i) {
        if (std::strcmp(i->if_name, "lo") != 0) {
            refuse(std::string("interface ") + i->if_name + " is visible");
        }
    }
    if_freenameindex(ifs);
    if (mkdir("/var/.bench", 0700) != 0 && errno != EEXIST) {
        refuse("cannot create /var/.bench");
    }
    // Only files and DNS: no lookup module that talks to a daemon outside.
    private_file("/etc/nsswitch.conf", "hosts: files dns\n");
    private_file("/etc/hosts", "127.0.0.1 localhost\n::1 localhost\n");
    // Both peers and our library read this one; ours ignores the options line.
    vekdns::test::set_resolv_conf("nameserver 127.0.0.1\noptions attempts:1 timeout:2\n");
    // A resolver file changed within the last two seconds is read again at
    // every query (its stamps cannot yet tell a same-size rewrite apart).
    // Real ones are older: let this one settle before anything is measured.
    std::this_thread::sleep_for(std::chrono::milliseconds(2100));
}

// ---- wire helpers (raw client and responder) ---------------------------------------------

size_t encode_query(uint8_t *buf, size_t cap, uint16_t id, const char *name, uint16_t qtype) {
    if (cap < 12 + 256 + 4) {
        return 0;
    }
    const uint8_t header[12] = {
        static_cast<uint8_t>(id >> 8), static_cast<uint8_t>(id), 0x01, 0x00, 0, 1, 0, 0, 0, 0, 0, 0};
    std::memcpy(buf, header, sizeof(header));
    size_t pos = 12;
    const char *label = name;
    while (*label != '\0') {
        const char *dot = std::strchr(label, '.');
        const size_t len = dot != nullptr ? static_cast<size_t>(dot - label) : std::strlen(label);
        if (len == 0 || len > 63 || pos + 1 + len > 12 + 255) {
            return 0;
        }
        buf[pos++] = static_cast<uint8_t>(len);
        std::memcpy(buf + pos, label, len);
        pos += len;
        label += len + (dot != nullptr ? 1 : 0);
    }
    buf[pos++] = 0;
    buf[pos++] = static_cast<uint8_t>(qtype >> 8);
    buf[pos++] = static_cast<uint8_t>(qtype);
    buf[pos++] = 0;
    buf[pos++] = 1; // IN
    return pos;
}

namespace {

// Position behind the name at `pos`, or 0 when it runs past `len`.
size_t skip_name(const uint8_t *msg, size_t len, size_t pos) {
    while (pos < len) {
        const uint8_t b = msg[pos];
        if (b == 0) {
            return pos + 1;
        }
        if ((b & 0xC0) == 0xC0) {
            return pos + 2 <= len ? pos + 2 : 0;
        }
        pos += 1 + b;
    }
    return 0;
}

uint16_t be16(const uint8_t *p) {
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

} // namespace

const uint8_t *first_answer(const uint8_t *msg, size_t len, int id, uint16_t type, uint16_t *rdlen_out) {
    if (len < 12 || (msg[2] & 0x80) == 0 || (msg[3] & 0x0F) != 0 || (id >= 0 && be16(msg) != id)) {
        return nullptr;
    }
    size_t pos = 12;
    for (uint16_t q = be16(msg + 4); q > 0; --q) {
        pos = skip_name(msg, len, pos);
        if (pos == 0 || pos + 4 > len) {
            return nullptr;
        }
        pos += 4;
    }
    for (uint16_t a = be16(msg + 6); a > 0; --a) {
        pos = skip_name(msg, len, pos);
        if (pos == 0 || pos + 10 > len) {
            return nullptr;
        }
        const uint16_t rdlen = be16(msg + pos + 8);
        pos += 10;
        if (pos + rdlen > len) {
            return nullptr;
        }
        if (be16(msg + pos - 10) == type) {
            *rdlen_out = rdlen;
            return msg + pos;
        }
        pos += rdlen;
    }
    return nullptr;
}

bool first_a(const uint8_t *msg, size_t len, int id, uint32_t *addr) {
    uint16_t rdlen = 0;
    const uint8_t *rd = first_answer(msg, len, id, 1, &rdlen);
    if (rd == nullptr || rdlen != 4) {
        return false;
    }
    std::memcpy(addr, rd, 4);
    return true;
}

namespace {

// Reply to one query in `out`: question echoed, one A answer (for A), one SRV
// answer with the target's A record as additional (for SRV of _sip._udp.X:
// target host.X), or an empty NOERROR for other types. 0: no reply (not a
// query, or malformed).
size_t build_reply(const uint8_t *q, size_t n, uint8_t *out) {
    if (n < 12 || (q[2] & 0x80) != 0) {
        return 0;
    }
    size_t pos = 12;
    while (pos < n && q[pos] != 0) {
        if ((q[pos] & 0xC0) != 0) {
            return 0;
        }
        pos += 1 + q[pos];
    }
    if (pos + 5 > n) {
        return 0;
    }
    const uint16_t qtype = be16(q + pos + 1);
    const size_t qend = pos + 5;
    std::memcpy(out, q, qend);
    out[2] = static_cast<uint8_t>(0x80 | (q[2] & 0x79) | 0x04); // QR, opcode and RD kept, AA
    out[3] = 0x80;                                              // RA, NOERROR
    out[4] = 0;
    out[5] = 1;
    out[6] = 0;
    out[7] = qtype == 1 ? 1 : 0;
    std::memset(out + 8, 0, 4); // no authority, no additional (an OPT is dropped)
    if (qtype == 33 && pos > 22 && std::memcmp(q + 12, "\x04_sip\x04_udp", 10) == 0) {
        // Target "host" + pointer to X (offset 22); the additional A record's
        // owner points at the target inside the answer (offset qend + 18).
        // SRV 10 5 5060 host.X, TTL 300; then A 198.18.0.1, TTL 300.
        static const char rr[] = "\xC0\x0C\x00\x21\x00\x01\x00\x00\x01\x2C\x00\x0D\x00\x0A\x00\x05\x13\xC4"
                                 "\x04"
                                 "host\xC0\x16"
                                 "\xC0\x00\x00\x01\x00\x01\x00\x00\x01\x2C\x00\x04\xC6\x12\x00\x01";
        static_assert(srv_port == 0x13C4 && answer_ttl == 0x12C && answer_ip[0] == 0xC6 &&
                          answer_ip[1] == 0x12 && answer_ip[3] == 1,
                      "the literal above");
        std::memcpy(out + qend, rr, sizeof(rr) - 1);
        out[qend + 25] = static_cast<uint8_t>(0xC0 | ((qend + 18) >> 8));
        out[qend + 26] = static_cast<uint8_t>(qend + 18);
        out[7] = 1;
        out[11] = 1;
        return qend + sizeof(rr) - 1;
    }
    if (qtype != 1) {
        return qend;
    }
    const uint8_t rr[16] = {0xC0,
                            0x0C,
                            0,
                            1,
                            0,
                            1,
                            static_cast<uint8_t>(answer_ttl >> 24),
                            static_cast<uint8_t>(answer_ttl >> 16),
                            static_cast<uint8_t>(answer_ttl >> 8),
                            static_cast<uint8_t>(answer_ttl),
                            0,
                            4,
                            answer_ip[0],
                            answer_ip[1],
                            answer_ip[2],
                            answer_ip[3]};
    std::memcpy(out + qend, rr, sizeof(rr));
    return qend + sizeof(rr);
}

} // namespace

sockaddr_in loopback53() {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(53);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

// ---- the responder ----------------------------------------------------------------------

responder::responder() {
    fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) {
        std::perror("responder socket");
        std::exit(1);
    }
    // A burst of a thousand questions must not overflow the queue.
    int size = 8 << 20;
    if (setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size)) != 0) {
        size = 4 << 20;
        (void)setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
    }
    sockaddr_in a = loopback53();
    if (bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof(a)) != 0) {
        std::perror("responder bind 127.0.0.1:53");
        std::exit(1);
    }
    thread_ = std::thread([this] { run(); });
}

responder::~responder() {
    stop_.store(true);
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in a = loopback53();
    const uint8_t wake = 0;
    (void)sendto(fd, &wake, 1, 0, reinterpret_cast<sockaddr *>(&a), sizeof(a));
    close(fd);
    thread_.join();
    close(fd_);
}

void responder::run() {
    uint8_t in[1500];
    uint8_t out[1600];
    for (;;) {
        sockaddr_in peer{};
        socklen_t peer_len = sizeof(peer);
        const ssize_t n = recvfrom(fd_, in, sizeof(in), 0, reinterpret_cast<sockaddr *>(&peer), &peer_len);
        if (stop_.load()) {
            return;
        }
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            std::perror("responder recvfrom");
            return;
        }
        const size_t m = build_reply(in, static_cast<size_t>(n), out);
        if (m != 0) {
            (void)sendto(fd_, out, m, 0, reinterpret_cast<sockaddr *>(&peer), peer_len);
            answered_.fetch_add(1, std::memory_order_relaxed);
        }
    }
}

// ---- library log ------------------------------------------------------------------------

namespace {
std::atomic<unsigned> g_log_lines{0};
std::mutex g_log_mu;
std::vector<std::string> g_log_first; // guarded by g_log_mu
} // namespace

void log_sink(const char *line) {
    g_log_lines.fetch_add(1);
    std::lock_guard<std::mutex> lock(g_log_mu);
    if (g_log_first.size() < 5) {
        g_log_first.emplace_back(line);
    }
}

void print_log_summary() {
    std::lock_guard<std::mutex> lock(g_log_mu);
    for (const std::string &line : g_log_first) {
        std::printf("  log: %s\n", line.c_str());
    }
}

unsigned log_lines() {
    return g_log_lines.load();
}

// ---- names --------------------------------------------------------------------------------

unsigned g_name_counter = 0;

std::string bench_name(char tag, unsigned i) {
    char buf[64];
    std::snprintf(buf, sizeof(buf), "%c%07u.bench.test", tag, i);
    return buf;
}

std::vector<std::string> fresh_names(char tag, unsigned n) {
    std::vector<std::string> names;
    names.reserve(n);
    for (unsigned i = 0; i < n; ++i) {
        names.push_back(bench_name(tag, ++g_name_counter));
    }
    return names;
}

// ---- single lookups measured by more than one scenario ---------------------------------------

bool raw_resolve(const char *name, uint16_t id, uint16_t qtype) {
    uint8_t q[512];
    const size_t qlen = encode_query(q, sizeof(q), id, name, qtype);
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0 || qlen == 0) {
        if (fd >= 0) {
            close(fd);
        }
        return false;
    }
    sockaddr_in to = loopback53();
    bool ok = false;
    if (connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof(to)) == 0 &&
        send(fd, q, qlen, 0) == static_cast<ssize_t>(qlen) && fd < FD_SETSIZE) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(fd, &readable);
        timeval tv{reply_wait_sec, 0};
        if (select(fd + 1, &readable, nullptr, nullptr, &tv) > 0) {
            uint8_t r[2048];
            const ssize_t n = recv(fd, r, sizeof(r), 0);
            uint32_t addr = 0;
            uint16_t rdlen = 0;
            ok = n > 0 &&
                 (qtype == 1 ? first_a(r, static_cast<size_t>(n), id, &addr) && addr == answer_ip_net()
                             : first_answer(r, static_cast<size_t>(n), id, qtype, &rdlen) != nullptr);
        }
    }
    close(fd);
    return ok;
}

bool ours_blocking(const char *name) {
    DNS_IPADDR_S addrs[DNS_MAX_IP_NUM] = {};
    uint32_t n = DNS_MAX_IP_NUM;
    return ORV_NETB_DnsGetIpBySynResolve(name, DNS_SEARCH_TYPE_A, addrs, &n) == DNS_OK && n >= 1 &&
           addrs[0].ulType == DNS_IP_TYPE_IPV4 && addrs[0].unIpAddr.ulIpv4 == answer_ip_net();
}

bool glibc_getaddrinfo(const char *name) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo *res = nullptr;
    const int rc = getaddrinfo(name, nullptr, &hints, &res);
    const bool ok = rc == 0 && res != nullptr &&
                    reinterpret_cast<sockaddr_in *>(res->ai_addr)->sin_addr.s_addr == answer_ip_net();
    if (res != nullptr) {
        freeaddrinfo(res);
    }
    return ok;
}

struct __res_state g_res;

#if defined(VEK_BENCH_HAVE_CARES)
ares_channel g_ares = nullptr;

// Runs c-ares' event loop until `done` holds (or nothing is pending).
void ares_run(const std::function<bool()> &done) {
    while (!done()) {
        fd_set readable, writable;
        FD_ZERO(&readable);
        FD_ZERO(&writable);
        const int nfds = ares_fds(g_ares, &readable, &writable);
        if (nfds == 0) {
            return;
        }
        timeval tv{};
        timeval *tvp = ares_timeout(g_ares, nullptr, &tv);
        (void)select(nfds, &readable, &writable, nullptr, tvp);
        ares_process(g_ares, &readable, &writable);
    }
}

bool ares_ok(int status, const hostent *host) {
    return status == ARES_SUCCESS && host != nullptr && host->h_addr_list[0] != nullptr &&
           std::memcmp(host->h_addr_list[0], answer_ip, 4) == 0;
}

namespace {

struct ares_one {
    bool done = false;
    bool ok = false;
};

void ares_one_cb(void *arg, int status, int, hostent *host) {
    auto *o = static_cast<ares_one *>(arg);
    o->ok = ares_ok(status, host);
    o->done = true;
}

} // namespace

bool cares_gethostbyname(const char *name) {
    ares_one o;
    ares_gethostbyname(g_ares, name, AF_INET, ares_one_cb, &o);
    ares_run([&] { return o.done; });
    return o.ok;
}
namespace {

bool cares_init() {
    if (ares_library_init(ARES_LIB_INIT_ALL) != ARES_SUCCESS) {
        return false;
    }
    ares_options opts{};
    opts.tries = 1;
    opts.timeout = reply_wait_sec * 1000;
    return ares_init_options(&g_ares, &opts, ARES_OPT_TRIES | ARES_OPT_TIMEOUTMS) == ARES_SUCCESS;
}

} // namespace
#endif

bool peers_init() {
    if (res_ninit(&g_res) != 0) {
        std::fprintf(stderr, "res_ninit failed\n");
    }
#if defined(VEK_BENCH_HAVE_CARES)
    return cares_init();
#else
    return false;
#endif
}

void peers_close() {
#if defined(VEK_BENCH_HAVE_CARES)
    if (g_ares != nullptr) {
        ares_destroy(g_ares);
    }
    ares_library_cleanup();
#endif
    res_nclose(&g_res);
}

// ---- memory ---------------------------------------------------------------------------------

uint64_t platform_allocations() {
    // Every platform allocation asks the fault switch first, which counts it.
    return vekdns::pal_test::calls(vekdns::pal_test::op::alloc);
}

long platform_blocks() {
    return vekdns::pal_test::outstanding_blocks();
}

long settled_platform_blocks() {
    long last = platform_blocks();
    unsigned same = 0;
    const clk::time_point give_up = clk::now() + std::chrono::seconds(2);
    while (same < 20 && clk::now() < give_up) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        const long now = platform_blocks();
        same = now == last ? same + 1 : 0;
        last = now;
    }
    return last;
}

namespace {

// A "Vm...:   123 kB" line of /proc/self/status; 0 when absent.
long status_kb(const char *key) {
    std::ifstream in("/proc/self/status");
    std::string line;
    const size_t len = std::strlen(key);
    while (std::getline(in, line)) {
        if (line.compare(0, len, key) == 0 && line.size() > len && line[len] == ':') {
            return std::atol(line.c_str() + len + 1);
        }
    }
    return 0;
}

} // namespace

long rss_kb() {
    return status_kb("VmRSS");
}

long peak_rss_kb() {
    return status_kb("VmHWM");
}

bool reset_peak_rss() {
    // "5" resets the peak resident set of this process to its current size.
    std::ofstream out("/proc/self/clear_refs");
    out << "5";
    out.flush();
    return static_cast<bool>(out);
}

// ---- measured cases ------------------------------------------------------------------------

double serial_case::allocations_per_call() const {
    return us.empty() ? 0.0 : static_cast<double>(allocations) / static_cast<double>(us.size());
}

double batch_case::per_sec(unsigned names) const {
    const double m = median_us();
    return m > 0 ? static_cast<double>(names) * 1e6 / m : 0.0;
}

double batch_case::per_request(uint64_t total, unsigned names) const {
    return runs == 0 ? 0.0 : static_cast<double>(total) / (static_cast<double>(runs) * names);
}

void run_serial(serial_case &c, unsigned n, const responder &srv, bool keep) {
    if (!c.available) {
        return;
    }
    const uint64_t q0 = srv.answered();
    for (unsigned i = 0; i < n; ++i) {
        const std::string name = bench_name(c.tag, ++g_name_counter);
        if (c.before) {
            c.before();
        }
        const uint64_t a0 = platform_allocations();
        const clk::time_point t0 = clk::now();
        const bool ok = c.resolve(name.c_str());
        const clk::time_point t1 = clk::now();
        const uint64_t a1 = platform_allocations();
        if (keep) {
            c.us.push_back(us_between(t0, t1));
            c.failed += ok ? 0 : 1;
            c.allocations += a1 - a0;
        }
    }
    if (keep) {
        c.questions += srv.answered() - q0;
    }
}

// ---- asynchronous batches --------------------------------------------------------------------

namespace {

struct ours_batch {
    std::atomic<unsigned> done{0};
    std::atomic<unsigned> failed{0};
    unsigned total = 0;
    sem_t all;
    sem_t window;
    bool windowed = false;
};

uint32_t ours_batch_cb(uint32_t ret, char *, DNS_IPADDR_S *addrs, uint32_t n, void *user) {
    auto *b = static_cast<ours_batch *>(user);
    const bool ok = ret == DNS_OK && addrs != nullptr && n >= 1 && addrs[0].ulType == DNS_IP_TYPE_IPV4 &&
                    addrs[0].unIpAddr.ulIpv4 == answer_ip_net();
    if (!ok) {
        b->failed.fetch_add(1);
    }
    if (b->windowed) {
        sem_post(&b->window);
    }
    if (b->done.fetch_add(1) + 1 == b->total) {
        sem_post(&b->all);
    }
    return 0;
}

// Batches stay alive until exit: a worker may still be inside sem_post when
// the waiter wakes.
std::vector<std::unique_ptr<ours_batch>> g_batches;

} // namespace

unsigned ours_async(const std::vector<std::string> &names, unsigned window) {
    auto owned = std::make_unique<ours_batch>();
    ours_batch *b = owned.get();
    g_batches.push_back(std::move(owned));
    b->total = static_cast<unsigned>(names.size());
    sem_init(&b->all, 0, 0);
    b->windowed = window != 0;
    sem_init(&b->window, 0, window);
    for (const std::string &name : names) {
        if (b->windowed) {
            while (sem_wait(&b->window) != 0) {
            }
        }
        if (ORV_NETB_DnsGetIpByAsynResolve(name.c_str(), DNS_SEARCH_TYPE_A, reply_wait_sec, ours_batch_cb,
                                           b) != DNS_OK) {
            // Refused: no callback will come for it.
            b->failed.fetch_add(1);
            if (b->windowed) {
                sem_post(&b->window);
            }
            if (b->done.fetch_add(1) + 1 == b->total) {
                sem_post(&b->all);
            }
        }
    }
    while (sem_wait(&b->all) != 0) {
    }
    return b->failed.load();
}

void run_batch(batch_case &c, const std::vector<std::string> &names, const responder &srv, bool keep) {
    if (!c.available) {
        return;
    }
    const uint64_t q0 = srv.answered();
    const unsigned th0 = vekdns::pal_test::calls(vekdns::pal_test::op::thread_create);
    if (c.ours) {
        (void)reset_peak_rss();
    }
    const uint64_t a0 = platform_allocations();
    const clk::time_point t0 = clk::now();
    const unsigned failed = c.run(names);
    const clk::time_point t1 = clk::now();
    const uint64_t a1 = platform_allocations();
    if (keep) {
        c.threads += vekdns::pal_test::calls(vekdns::pal_test::op::thread_create) - th0;
        c.allocations += a1 - a0;
        if (c.ours) {
            c.peak_rss_kb = std::max(c.peak_rss_kb, peak_rss_kb());
        }
        c.us.push_back(us_between(t0, t1));
        c.failed += failed;
        c.questions += srv.answered() - q0;
        c.runs++;
    }
}

// ---- report ------------------------------------------------------------------------------------

std::string ratio_text(double r) {
    if (r <= 0) {
        return "n/a"; // a side of the ratio was not measured in this run
    }
    char buf[32];
    std::snprintf(buf, sizeof(buf), "%.2fx", r);
    return buf;
}

void goal_line(const char *what, double ratio, bool at_most, double limit) {
    const bool met = at_most ? ratio <= limit : ratio >= limit;
    std::printf("  goal: %-44s %s %5.2fx   now %-8s %s\n", what, at_most ? "<=" : ">=", limit,
                ratio_text(ratio).c_str(), ratio > 0 ? (met ? "met" : "NOT met") : "n/a");
}

void goal_count(const char *what, double value, double at_most) {
    char now[32];
    std::snprintf(now, sizeof(now), "%.2f", value);
    std::printf("  goal: %-44s <= %5.2f    now %-8s %s\n", what, at_most, now,
                value <= at_most ? "met" : "NOT met");
}

void print_serial_table(const std::vector<serial_case *> &rows, const serial_case &ours) {
    std::printf("  %-9s %-38s %10s %9s %10s %7s %14s\n", "", "", "median us", "p90 us", "quest/op", "failed",
                "vek_dns / peer");
    for (const serial_case *c : rows) {
        if (!c->available) {
            std::printf("  %-9s %-38s %10s\n", c->peer.c_str(), c->what.c_str(), "n/a");
            continue;
        }
        const double per_op =
            c->us.empty() ? 0.0 : static_cast<double>(c->questions) / static_cast<double>(c->us.size());
        std::string ratio = c == &ours ? "" : ratio_text(ours.median() / c->median());
        std::printf("  %-9s %-38s %10.1f %9.1f %10.2f %7u %14s\n", c->peer.c_str(), c->what.c_str(),
                    c->median(), quantile(c->us, 0.9), per_op, c->failed, ratio.c_str());
    }
}

void print_environment(const settings &cfg, bool have_cares) {
    utsname un{};
    uname(&un);
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    const int ncpu = sched_getaffinity(0, sizeof(cpus), &cpus) == 0 ? CPU_COUNT(&cpus) : -1;
    std::printf("vek_dns address resolution benchmark\n");
    std::printf("  kernel %s %s, glibc %s, c-ares %s; CPUs allowed: %d%s\n", un.sysname, un.release,
                gnu_get_libc_version(),
#if defined(VEK_BENCH_HAVE_CARES)
                have_cares ? ares_version(nullptr) : "init failed",
#else
                have_cares ? "?" : "not built in",
#endif
                ncpu, ncpu == 1 ? "" : "  (not pinned: run under `taskset -c 0`, as scripts/bench.sh does)");
    std::printf(
        "  sandbox: private network (loopback only) and /etc/resolv.conf; server: in-process responder "
        "on 127.0.0.1:53 (A -> 198.18.0.1, TTL 300; SRV _sip._udp.X -> host.X:5060 + additional A)\n");
    std::printf("  %u rounds, cases interleaved within each round; figures are medians over all rounds\n",
                cfg.rounds);
    std::printf("  quest/op, quest/r: questions the responder answered per call or request; thread/r: worker "
                "threads our library started per request (the others ran on parked workers)\n\n");
    std::fflush(stdout);
}
} // namespace vekbench
