// Address resolution measured against what an application would otherwise
// use, in one run, on one loopback responder:
//
//   (1) cold: one blocking A resolve at a time, memory cache emptied before each
//   (2) hot: one blocking A resolve answered from the memory cache
//   (3) async: 1000 A requests for distinct names, until every callback is in
//   (5) SRV: one blocking service resolve at a time, cold and cached; the
//       responder's SRV answer carries the target's address as an additional
//       record, so our call needs one question where a glibc user asks twice
//
// Peers: a raw UDP client with a fresh socket per question (the floor for our
// design), glibc getaddrinfo / res_nquery / getaddrinfo_a, and c-ares. The
// table gives medians and our ratio to each peer next to the goals; nothing is
// asserted. A breakdown of our own costs follows.
//
// The program enters the test sandbox before anything else (private network
// namespace with only loopback, private /etc/resolv.conf) and refuses to run
// when it cannot. Run it pinned to one CPU: `taskset -c 0` (scripts/bench.sh).
#include <arpa/inet.h>
#include <arpa/nameser.h>
#include <gnu/libc-version.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <pthread.h>
#include <resolv.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/mount.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#if defined(VEK_BENCH_HAVE_CARES)
#include <ares.h>
#endif

#include "address/address_calls.h"
#include "os_adapter/test_hooks.h"
#include "support/sandbox.h"
#include "vek_dns.h"
#include "vek_dns_ops.h"

namespace {

using clk = std::chrono::steady_clock;

// ---- settings -------------------------------------------------------------------------

struct settings {
    unsigned rounds = 10; // every case runs once per round, interleaved
    unsigned cold_per_round = 500;
    unsigned hot_per_round = 10000;
    unsigned async_names = 1000;
    unsigned async_window = 100; // c-ares (and our second async row): most in flight
    unsigned breakdown = 5000;
};

// The responder answers every A question with this address, TTL 300.
constexpr uint8_t answer_ip[4] = {198, 18, 0, 1};
constexpr uint32_t answer_ttl = 300;
constexpr int reply_wait_sec = 2;
constexpr uint16_t srv_port = 5060; // the one SRV record: _sip._udp.<name> -> host.<name>:5060

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

// ---- sandbox --------------------------------------------------------------------------

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
}

// ---- wire helpers (raw client and responder) ---------------------------------------------

// Encodes an RD query for `name`; 0 when it does not fit.
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

// The data of the first answer of type `type` in a NOERROR response (with id
// `id`, if not negative); nullptr when there is none.
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

// True when the answers hold an A record; its address goes to *addr.
bool first_a(const uint8_t *msg, size_t len, int id, uint32_t *addr) {
    uint16_t rdlen = 0;
    const uint8_t *rd = first_answer(msg, len, id, 1, &rdlen);
    if (rd == nullptr || rdlen != 4) {
        return false;
    }
    std::memcpy(addr, rd, 4);
    return true;
}

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

sockaddr_in loopback53() {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(53);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

// ---- the responder ----------------------------------------------------------------------

// One thread, one socket, recvfrom/sendto: a reply costs a parse of the
// question and a copy, nothing else, so the peers' differences show.
class responder {
public:
    responder() {
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

    ~responder() {
        stop_.store(true);
        int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in a = loopback53();
        const uint8_t wake = 0;
        (void)sendto(fd, &wake, 1, 0, reinterpret_cast<sockaddr *>(&a), sizeof(a));
        close(fd);
        thread_.join();
        close(fd_);
    }

    uint64_t answered() const { return answered_.load(std::memory_order_relaxed); }

private:
    void run() {
        uint8_t in[1500];
        uint8_t out[1600];
        for (;;) {
            sockaddr_in peer{};
            socklen_t peer_len = sizeof(peer);
            const ssize_t n =
                recvfrom(fd_, in, sizeof(in), 0, reinterpret_cast<sockaddr *>(&peer), &peer_len);
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

    int fd_ = -1;
    std::atomic<bool> stop_{false};
    std::atomic<uint64_t> answered_{0};
    std::thread thread_;
};

// ---- library log ------------------------------------------------------------------------

std::atomic<unsigned> g_log_lines{0};
std::mutex g_log_mu;
std::vector<std::string> g_log_first; // guarded by g_log_mu

void log_sink(const char *line) {
    g_log_lines.fetch_add(1);
    std::lock_guard<std::mutex> lock(g_log_mu);
    if (g_log_first.size() < 5) {
        g_log_first.emplace_back(line);
    }
}

// ---- one-at-a-time resolvers --------------------------------------------------------------

std::string bench_name(char tag, unsigned i) {
    char buf[64];
    std::snprintf(buf, sizeof(buf), "%c%07u.bench.test", tag, i);
    return buf;
}

bool raw_resolve(const char *name, uint16_t id, uint16_t qtype = 1) {
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

bool ours_blocking_literal() {
    DNS_IPADDR_S addrs[DNS_MAX_IP_NUM] = {};
    uint32_t n = DNS_MAX_IP_NUM;
    return ORV_NETB_DnsGetIpBySynResolve("198.18.0.1", DNS_SEARCH_TYPE_A, addrs, &n) == DNS_OK && n == 1 &&
           addrs[0].unIpAddr.ulIpv4 == answer_ip_net();
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

bool glibc_res_nquery(const char *name) {
    uint8_t answer[1024];
    const int n = res_nquery(&g_res, name, ns_c_in, ns_t_a, answer, sizeof(answer));
    uint32_t addr = 0;
    return n > 0 && first_a(answer, static_cast<size_t>(n), -1, &addr) && addr == answer_ip_net();
}

// ---- service (SRV) resolvers: `domain` is X of _sip._udp.X ---------------------------------

std::string srv_qname(const char *domain) {
    return std::string("_sip._udp.") + domain;
}

bool ours_srv(const char *domain) {
    DNS_SRV_RR_S rr[4] = {};
    uint32_t n = 4;
    return ORV_NETB_DnsGetSrvBySynResolve("sip", "udp", domain, rr, &n) == DNS_OK && n >= 1 &&
           rr[0].usPort == srv_port && rr[0].stAddr.ulType == DNS_IP_TYPE_IPV4 &&
           rr[0].stAddr.unIpAddr.ulIpv4 == answer_ip_net();
}

// What a glibc user writes: the SRV question, the record read with
// ns_parserr, then getaddrinfo of its target (a second question).
bool glibc_srv(const char *domain) {
    uint8_t answer[1024];
    const int n = res_nquery(&g_res, srv_qname(domain).c_str(), ns_c_in, ns_t_srv, answer, sizeof(answer));
    ns_msg msg;
    if (n <= 0 || ns_initparse(answer, n, &msg) != 0) {
        return false;
    }
    for (int i = 0; i < ns_msg_count(msg, ns_s_an); ++i) {
        ns_rr rr;
        char target[NS_MAXDNAME];
        if (ns_parserr(&msg, ns_s_an, i, &rr) == 0 && ns_rr_type(rr) == ns_t_srv && ns_rr_rdlen(rr) > 6 &&
            ns_get16(ns_rr_rdata(rr) + 4) == srv_port &&
            dn_expand(ns_msg_base(msg), ns_msg_end(msg), ns_rr_rdata(rr) + 6, target, sizeof(target)) > 0) {
            return glibc_getaddrinfo(target);
        }
    }
    return false;
}

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

struct ares_one {
    bool done = false;
    bool ok = false;
};

void ares_one_cb(void *arg, int status, int, hostent *host) {
    auto *o = static_cast<ares_one *>(arg);
    o->ok = ares_ok(status, host);
    o->done = true;
}

bool cares_gethostbyname(const char *name) {
    ares_one o;
    ares_gethostbyname(g_ares, name, AF_INET, ares_one_cb, &o);
    ares_run([&] { return o.done; });
    return o.ok;
}

struct ares_srv_one {
    bool done = false;
    std::string target;
};

void ares_srv_cb(void *arg, int status, int, unsigned char *abuf, int alen) {
    auto *o = static_cast<ares_srv_one *>(arg);
    ares_srv_reply *srv = nullptr;
    if (status == ARES_SUCCESS && ares_parse_srv_reply(abuf, alen, &srv) == ARES_SUCCESS && srv != nullptr &&
        srv->port == srv_port) {
        o->target = srv->host;
    }
    if (srv != nullptr) {
        ares_free_data(srv);
    }
    o->done = true;
}

// ares_query(T_SRV), ares_parse_srv_reply, then the target's address.
bool cares_srv(const char *domain) {
    ares_srv_one o;
    ares_query(g_ares, srv_qname(domain).c_str(), ns_c_in, ns_t_srv, ares_srv_cb, &o);
    ares_run([&] { return o.done; });
    return !o.target.empty() && cares_gethostbyname(o.target.c_str());
}

bool cares_init() {
    if (ares_library_init(ARES_LIB_INIT_ALL) != ARES_SUCCESS) {
        return false;
    }
    ares_options opts{};
    opts.tries = 1;
    opts.timeout = reply_wait_sec * 1000;
    return ares_init_options(&g_ares, &opts, ARES_OPT_TRIES | ARES_OPT_TIMEOUTMS) == ARES_SUCCESS;
}
#endif

// ---- measured cases ------------------------------------------------------------------------

// A one-at-a-time case: per-call times, failures, questions the server saw.
struct serial_case {
    std::string peer;
    std::string what;
    std::function<bool(const char *)> resolve;
    std::function<void()> before; // untimed, before each call
    char tag;
    std::vector<double> us;
    unsigned failed = 0;
    uint64_t questions = 0;
    bool available = true;

    double median() const { return quantile(us, 0.5); }
};

unsigned g_name_counter = 0;

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
        const clk::time_point t0 = clk::now();
        const bool ok = c.resolve(name.c_str());
        const clk::time_point t1 = clk::now();
        if (keep) {
            c.us.push_back(us_between(t0, t1));
            c.failed += ok ? 0 : 1;
        }
    }
    if (keep) {
        c.questions += srv.answered() - q0;
    }
}

// A batch case: one sample per run (the whole batch).
struct batch_case {
    batch_case(std::string p, std::string w, std::function<unsigned(const std::vector<std::string> &)> r)
        : peer(std::move(p)), what(std::move(w)), run(std::move(r)) {}

    std::string peer;
    std::string what;
    std::function<unsigned(const std::vector<std::string> &)> run; // returns failures
    std::vector<double> us;
    unsigned failed = 0;
    uint64_t questions = 0;
    unsigned runs = 0;
    uint64_t threads = 0; // worker threads our library started (ours only)
    bool available = true;
    bool goal_row = true; // false: shown for information
    bool ours = false;

    double median_us() const { return quantile(us, 0.5); }
    double per_sec(unsigned names) const {
        const double m = median_us();
        return m > 0 ? static_cast<double>(names) * 1e6 / m : 0.0;
    }
};

// ---- asynchronous batches --------------------------------------------------------------------

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

// Every question on its own connected socket, all sent first, then every
// reply collected with epoll: the fastest a design with a fresh socket per
// question can go on one thread.
unsigned raw_async(const std::vector<std::string> &names) {
    const int ep = epoll_create1(EPOLL_CLOEXEC);
    if (ep < 0) {
        return static_cast<unsigned>(names.size());
    }
    std::vector<int> fds(names.size(), -1);
    size_t left = 0;
    for (size_t i = 0; i < names.size(); ++i) {
        uint8_t q[512];
        const size_t qlen = encode_query(q, sizeof(q), static_cast<uint16_t>(i), names[i].c_str(), 1);
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            continue;
        }
        fds[i] = fd;
        sockaddr_in to = loopback53();
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.u64 = i;
        if (qlen == 0 || connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof(to)) != 0 ||
            epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev) != 0 ||
            send(fd, q, qlen, 0) != static_cast<ssize_t>(qlen)) {
            close(fd);
            fds[i] = -1;
            continue;
        }
        left++;
    }
    unsigned ok = 0;
    epoll_event events[64];
    while (left > 0) {
        const int n = epoll_wait(ep, events, 64, reply_wait_sec * 1000);
        if (n <= 0) {
            break;
        }
        for (int e = 0; e < n; ++e) {
            const size_t i = events[e].data.u64;
            uint8_t r[2048];
            const ssize_t len = recv(fds[i], r, sizeof(r), 0);
            uint32_t addr = 0;
            ok += len > 0 &&
                          first_a(r, static_cast<size_t>(len), static_cast<int>(static_cast<uint16_t>(i)),
                                  &addr) &&
                          addr == answer_ip_net()
                      ? 1
                      : 0;
            close(fds[i]); // also takes it out of the epoll set
            fds[i] = -1;
            left--;
        }
    }
    for (int fd : fds) {
        if (fd >= 0) {
            close(fd);
        }
    }
    close(ep);
    return static_cast<unsigned>(names.size()) - ok;
}

unsigned glibc_getaddrinfo_a(const std::vector<std::string> &names) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    std::vector<gaicb> cbs(names.size());
    std::vector<gaicb *> list(names.size());
    for (size_t i = 0; i < names.size(); ++i) {
        cbs[i] = gaicb{};
        cbs[i].ar_name = names[i].c_str();
        cbs[i].ar_request = &hints;
        list[i] = &cbs[i];
    }
    unsigned failed = 0;
    if (getaddrinfo_a(GAI_WAIT, list.data(), static_cast<int>(list.size()), nullptr) != 0) {
        // Some failed or are still running: wait for the rest, then count.
        for (;;) {
            std::vector<const gaicb *> pending;
            for (gaicb *cb : list) {
                if (gai_error(cb) == EAI_INPROGRESS) {
                    pending.push_back(cb);
                }
            }
            if (pending.empty()) {
                break;
            }
            (void)gai_suspend(pending.data(), static_cast<int>(pending.size()), nullptr);
        }
    }
    for (gaicb &cb : cbs) {
        const bool ok =
            gai_error(&cb) == 0 && cb.ar_result != nullptr &&
            reinterpret_cast<sockaddr_in *>(cb.ar_result->ai_addr)->sin_addr.s_addr == answer_ip_net();
        failed += ok ? 0 : 1;
        if (cb.ar_result != nullptr) {
            freeaddrinfo(cb.ar_result);
        }
    }
    return failed;
}

#if defined(VEK_BENCH_HAVE_CARES)
struct ares_batch {
    const std::vector<std::string> *names = nullptr;
    size_t next = 0;
    unsigned in_flight = 0;
    unsigned done = 0;
    unsigned failed = 0;
    unsigned window = 0;
};

void ares_batch_fill(ares_batch *b);

void ares_batch_cb(void *arg, int status, int, hostent *host) {
    auto *b = static_cast<ares_batch *>(arg);
    b->failed += ares_ok(status, host) ? 0 : 1;
    b->done++;
    b->in_flight--;
    ares_batch_fill(b);
}

void ares_batch_fill(ares_batch *b) {
    while (b->in_flight < b->window && b->next < b->names->size()) {
        b->in_flight++;
        const std::string &name = (*b->names)[b->next++];
        ares_gethostbyname(g_ares, name.c_str(), AF_INET, ares_batch_cb, b);
    }
}

unsigned cares_async(const std::vector<std::string> &names, unsigned window) {
    ares_batch b;
    b.names = &names;
    b.window = window;
    ares_batch_fill(&b);
    ares_run([&] { return b.done == names.size(); });
    return b.failed + static_cast<unsigned>(names.size() - b.done);
}
#endif

void run_batch(batch_case &c, const std::vector<std::string> &names, const responder &srv, bool keep) {
    if (!c.available) {
        return;
    }
    const uint64_t q0 = srv.answered();
    const unsigned th0 = vekdns::pal_test::calls(vekdns::pal_test::op::thread_create);
    const clk::time_point t0 = clk::now();
    const unsigned failed = c.run(names);
    const clk::time_point t1 = clk::now();
    if (keep) {
        c.threads += vekdns::pal_test::calls(vekdns::pal_test::op::thread_create) - th0;
        c.us.push_back(us_between(t0, t1));
        c.failed += failed;
        c.questions += srv.answered() - q0;
        c.runs++;
    }
}

// ---- breakdown ---------------------------------------------------------------------------------

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

void *noop_thread(void *) {
    return nullptr;
}

// A parked thread woken through a condition variable that answers through a
// semaphore: the two thread switches our blocking call makes on a miss.
class ping_pong {
public:
    ping_pong() {
        sem_init(&back_, 0, 0);
        thread_ = std::thread([this] {
            std::unique_lock<std::mutex> lock(mu_);
            for (;;) {
                cv_.wait(lock, [this] { return go_ || quit_; });
                if (quit_) {
                    return;
                }
                go_ = false;
                sem_post(&back_);
            }
        });
    }
    ~ping_pong() {
        {
            std::lock_guard<std::mutex> lock(mu_);
            quit_ = true;
        }
        cv_.notify_one();
        thread_.join();
        sem_destroy(&back_);
    }
    void round_trip() {
        {
            std::lock_guard<std::mutex> lock(mu_);
            go_ = true;
        }
        cv_.notify_one();
        while (sem_wait(&back_) != 0) {
        }
    }

private:
    std::mutex mu_;
    std::condition_variable cv_;
    bool go_ = false;
    bool quit_ = false;
    sem_t back_;
    std::thread thread_;
};

// ---- report ------------------------------------------------------------------------------------

std::string ratio_text(double r) {
    char buf[32];
    std::snprintf(buf, sizeof(buf), "%.2fx", r);
    return buf;
}

void goal_line(const char *what, double ratio, bool at_most, double limit) {
    const bool met = at_most ? ratio <= limit : ratio >= limit;
    std::printf("  goal: %-44s %s %5.2fx   now %-8s %s\n", what, at_most ? "<=" : ">=", limit,
                ratio_text(ratio).c_str(), ratio > 0 ? (met ? "met" : "NOT met") : "n/a");
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

// ---- breakdown of our cold path ------------------------------------------------------------

struct breakdown {
    std::vector<double> resolve, discovery, wire, sem, thread, handoff, store, lookup, big_miss, big_store;
    serial_case literal{"vek_dns",
                        "",
                        [](const char *) { return ours_blocking_literal(); },
                        [] { ORV_NETB_DnsCleanBuffer(); },
                        'l',
                        {},
                        0,
                        0,
                        true};
    serial_case no_reuse{"vek_dns", "", ours_blocking, [] { ORV_NETB_DnsCleanBuffer(); }, 'n', {},
                         0,         0,  true};
    batch_case pool{"vek_dns", "", nullptr};
};

void measure_breakdown(breakdown &b, const settings &cfg, const responder &srv,
                       const std::function<std::vector<std::string>(char)> &fresh_names) {
    b.resolve = time_each(cfg.breakdown, [&](unsigned) {
        std::string name = bench_name('b', ++g_name_counter);
        DNS_HOSTNAME_S req{DNS_SEARCH_TYPE_A, name.data()};
        DNS_IPADDR_S addrs[DNS_MAX_IP_NUM] = {};
        uint32_t ttls[DNS_MAX_IP_NUM] = {};
        uint32_t count = DNS_MAX_IP_NUM;
        (void)DNS_Resolve(&req, addrs, &count, reply_wait_sec, ttls);
    });
    b.discovery = time_each(cfg.breakdown, [](unsigned) {
        DNS_LOCAL_SERVER_S rec;
        std::memset(&rec, 0, sizeof(rec));
        (void)DNS_LocateDnsServer(&rec);
        DNS_FreeLocalServer(&rec);
    });
    b.wire = time_each(cfg.breakdown, [&](unsigned) {
        std::string name = bench_name('w', ++g_name_counter);
        DNS_IPADDR_S server{};
        server.ulType = DNS_IP_TYPE_IPV4;
        server.unIpAddr.ulIpv4 = htonl(INADDR_LOOPBACK);
        int32_t sock = -1;
        if (DNS_Query(name.data(), static_cast<uint32_t>(name.size()), &server, 0, &sock) != DNS_OK) {
            return;
        }
        if (sock < FD_SETSIZE) {
            fd_set readable;
            FD_ZERO(&readable);
            FD_SET(sock, &readable);
            timeval tv{reply_wait_sec, 0};
            if (select(sock + 1, &readable, nullptr, nullptr, &tv) > 0) {
                DNS_IPADDR_S addrs[DNS_MAX_IP_NUM] = {};
                uint32_t ttls[DNS_MAX_IP_NUM] = {};
                uint32_t count = 0;
                (void)DNS_Read(sock, addrs, &count, DNS_MAX_IP_NUM, ttls);
            }
        }
        close(sock);
    });
    b.sem = time_each(cfg.breakdown * 10, [](unsigned) {
        void *h = nullptr;
        if (DNS_SemOpen(&h) == DNS_OK) {
            (void)DNS_SemWait(&h);
            (void)DNS_SemPost(&h);
            (void)DNS_SemClose(&h);
        }
    });
    b.thread = time_each(cfg.breakdown, [](unsigned) {
        pthread_t t;
        if (pthread_create(&t, nullptr, noop_thread, nullptr) == 0) {
            pthread_join(t, nullptr);
        }
    });
    {
        ping_pong pp;
        b.handoff = time_each(cfg.breakdown, [&](unsigned) { pp.round_trip(); });
    }
    DNS_IPADDR_S cached{};
    cached.ulType = DNS_IP_TYPE_IPV4;
    cached.unIpAddr.ulIpv4 = answer_ip_net();
    for (unsigned i = 0; i < cfg.breakdown; ++i) {
        ORV_NETB_DnsCleanBuffer();
        const clk::time_point t0 = clk::now();
        (void)DNS_SetIpToCache("store.bench.test", answer_ttl, cached);
        b.store.push_back(us_between(t0, clk::now()));
    }
    b.lookup = time_each(cfg.breakdown, [](unsigned) {
        DNS_IPADDR_S addrs[DNS_MAX_IP_NUM] = {};
        addrs[0].ulType = DNS_IP_TYPE_IPV4;
        uint32_t n = 0;
        (void)DNS_GetIpFromCache("store.bench.test", addrs, &n);
    });
    ORV_NETB_DnsCleanBuffer();

    // A burst of distinct names fills the A cache within one second; entries
    // of the current second are never evicted, so every look-up of a new name
    // and every store walks the whole list. Clock pinned: all in one second.
    vekdns::pal_test::set_clock(1000000);
    for (unsigned i = 0; i < 1000; ++i) {
        (void)DNS_SetIpToCache(bench_name('f', i).c_str(), answer_ttl, cached);
    }
    b.big_miss = time_each(cfg.breakdown, [](unsigned) {
        DNS_IPADDR_S addrs[DNS_MAX_IP_NUM] = {};
        addrs[0].ulType = DNS_IP_TYPE_IPV4;
        uint32_t n = 0;
        (void)DNS_GetIpFromCache("miss.bench.test", addrs, &n);
    });
    b.big_store = time_each(
        200, [&](unsigned i) { (void)DNS_SetIpToCache(bench_name('s', i).c_str(), answer_ttl, cached); });
    vekdns::pal_test::release_clock();
    ORV_NETB_DnsCleanBuffer();

    // The call layer by itself: a literal needs neither the resolver file nor
    // the network, but takes the same road through cache, worker and
    // completion lock.
    run_serial(b.literal, cfg.breakdown, srv, true);

    // The cold call with a new thread for every request, then asynchronous
    // requests with enough parked workers for the whole window.
    const unsigned saved_reuse = vekdns::detail::worker_reuse();
    vekdns::detail::set_worker_reuse(0);
    run_serial(b.no_reuse, cfg.breakdown / 2, srv, true);
    vekdns::detail::set_worker_reuse(2 * cfg.async_window);
    b.pool.run = [&cfg](const std::vector<std::string> &n) { return ours_async(n, cfg.async_window); };
    b.pool.ours = true;
    for (unsigned r = 0; r < std::max(3u, cfg.rounds / 2); ++r) {
        ORV_NETB_DnsCleanBuffer();
        run_batch(b.pool, fresh_names('p'), srv, true);
    }
    vekdns::detail::set_worker_reuse(saved_reuse);
    ORV_NETB_DnsCleanBuffer();
}

double safe_ratio(double a, double b) {
    return a > 0 && b > 0 ? a / b : 0.0;
}

double threads_per_request(const batch_case &c, unsigned names) {
    return c.runs == 0 ? 0.0 : static_cast<double>(c.threads) / (static_cast<double>(c.runs) * names);
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

void usage(const char *argv0) {
    std::fprintf(stderr,
                 "usage: %s [--quick] [--only cold|hot|async|async-ours|breakdown|srv]\n"
                 "  --quick  fewer iterations (a smoke run)\n"
                 "  --only   run one part (e.g. under perf record); async-ours: our all-at-once row alone\n",
                 argv0);
}

} // namespace

int main(int argc, char **argv) {
    isolate(); // before anything else: no thread and no socket exist before this

    settings cfg;
    bool do_cold = true, do_hot = true, do_async = true, do_breakdown = true, do_srv = true;
    bool ours_only = false; // --only async-ours: our all-at-once row alone (for profiling)
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--quick") {
            cfg.rounds = 2;
            cfg.cold_per_round = 100;
            cfg.hot_per_round = 1000;
            cfg.breakdown = 200;
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
    if (res_ninit(&g_res) != 0) {
        std::fprintf(stderr, "res_ninit failed\n");
    }
    bool have_cares = false;
#if defined(VEK_BENCH_HAVE_CARES)
    have_cares = cares_init();
#endif
    print_environment(cfg, have_cares);

    // ---- cases
    serial_case ours_cold{"vek_dns",
                          "ORV_NETB_DnsGetIpBySynResolve",
                          ours_blocking,
                          [] { ORV_NETB_DnsCleanBuffer(); },
                          'o',
                          {},
                          0,
                          0,
                          true};
    serial_case raw{"raw UDP",
                    "fresh socket per question (floor)",
                    [](const char *n) { return raw_resolve(n, static_cast<uint16_t>(g_name_counter)); },
                    nullptr,
                    'r',
                    {},
                    0,
                    0,
                    true};
    serial_case gai{"glibc", "getaddrinfo(AF_INET)", glibc_getaddrinfo, nullptr, 'g', {}, 0, 0, true};
    serial_case resq{"glibc", "res_nquery(A)", glibc_res_nquery, nullptr, 'q', {}, 0, 0, true};
    serial_case cares {
        "c-ares", "ares_gethostbyname(AF_INET)",
#if defined(VEK_BENCH_HAVE_CARES)
            cares_gethostbyname,
#else
            nullptr,
#endif
            nullptr, 'c', {}, 0, 0, have_cares
    };
    std::vector<serial_case *> cold = {&ours_cold, &raw, &gai, &resq, &cares};
    if (do_hot && !do_cold) {
        cold = {&raw}; // the hot ratio needs the floor
    }
    if (do_srv && !do_cold && !do_hot) {
        cold.clear();
    }

    // SRV: cold, cached (one primed name) and the peers, one question type each
    const std::string srv_hot_name = "srv-hot.bench.test";
    serial_case srv_cold{"vek_dns", "ORV_NETB_DnsGetSrvBySynResolve",
                         ours_srv,  [] { ORV_NETB_DnsCleanBuffer(); },
                         'v',       {},
                         0,         0,
                         true};
    serial_case srv_hot{"vek_dns",
                        "ORV_NETB_DnsGetSrvBySynResolve, cached",
                        [&](const char *) { return ours_srv(srv_hot_name.c_str()); },
                        nullptr,
                        'V',
                        {},
                        0,
                        0,
                        true};
    serial_case srv_raw{"raw UDP",
                        "fresh socket per SRV question (floor)",
                        [](const char *n) {
                            return raw_resolve(srv_qname(n).c_str(), static_cast<uint16_t>(g_name_counter),
                                               33);
                        },
                        nullptr,
                        'R',
                        {},
                        0,
                        0,
                        true};
    serial_case srv_glibc{"glibc", "res_nquery(SRV)+parserr+getaddrinfo", glibc_srv, nullptr, 'G', {}, 0, 0,
                          true};
    serial_case srv_cares {
        "c-ares", "ares_query(SRV)+parse+gethostbyname",
#if defined(VEK_BENCH_HAVE_CARES)
            cares_srv,
#else
            nullptr,
#endif
            nullptr, 'C', {}, 0, 0, have_cares
    };
    std::vector<serial_case *> srv_rows = {&srv_cold, &srv_raw, &srv_glibc, &srv_cares};
    if (!do_srv) {
        srv_rows.clear();
    }

    const std::string hot_name = "hot.bench.test";
    serial_case ours_hot{"vek_dns",
                         "ORV_NETB_DnsGetIpBySynResolve (cache hit)",
                         [&](const char *) { return ours_blocking(hot_name.c_str()); },
                         nullptr,
                         'h',
                         {},
                         0,
                         0,
                         true};

    batch_case ours_async_all{"vek_dns", "ORV_NETB_DnsGetIpByAsynResolve, all at once",
                              [](const std::vector<std::string> &n) { return ours_async(n, 0); }};
    batch_case ours_async_win{
        "vek_dns", "same, at most 100 in flight (information)",
        [&](const std::vector<std::string> &n) { return ours_async(n, cfg.async_window); }};
    ours_async_win.goal_row = false;
    ours_async_all.ours = ours_async_win.ours = true;
    batch_case raw_a{"raw UDP", "fresh socket each, all in flight, epoll (floor)", raw_async};
    raw_a.goal_row = false;
    batch_case gai_a{"glibc", "getaddrinfo_a(GAI_WAIT)", glibc_getaddrinfo_a};
    batch_case cares_a {
        "c-ares", "ares_gethostbyname, at most 100 in flight",
#if defined(VEK_BENCH_HAVE_CARES)
            [&](const std::vector<std::string> &n) { return cares_async(n, cfg.async_window); }
#else
            nullptr
#endif
    };
    cares_a.available = have_cares;
    std::vector<batch_case *> async = {&ours_async_all, &ours_async_win, &raw_a, &gai_a, &cares_a};
    if (ours_only) {
        async = {&ours_async_all};
    }

    auto fresh_names = [&](char tag) {
        std::vector<std::string> names;
        names.reserve(cfg.async_names);
        for (unsigned i = 0; i < cfg.async_names; ++i) {
            names.push_back(bench_name(tag, ++g_name_counter));
        }
        return names;
    };

    // ---- warm-up (not kept): code paths, the named semaphore, parked workers
    for (serial_case *c : cold) {
        run_serial(*c, 20, srv, false);
    }
    if (!ours_blocking(hot_name.c_str())) {
        std::fprintf(stderr, "warning: priming the cache for the hot case failed\n");
    }
    run_serial(ours_hot, 100, srv, false);
    for (serial_case *c : srv_rows) {
        run_serial(*c, 20, srv, false);
    }
    if (do_srv && !ours_srv(srv_hot_name.c_str())) {
        std::fprintf(stderr, "warning: priming the cache for the cached SRV case failed\n");
    }

    // ---- measured rounds
    for (unsigned round = 0; round < cfg.rounds; ++round) {
        if (do_cold || do_hot) {
            for (serial_case *c : cold) {
                run_serial(*c, cfg.cold_per_round, srv, true);
            }
        }
        if (do_hot) {
            ORV_NETB_DnsCleanBuffer();
            (void)ours_blocking(hot_name.c_str());
            run_serial(ours_hot, cfg.hot_per_round, srv, true);
        }
        if (do_async) {
            for (batch_case *c : async) {
                ORV_NETB_DnsCleanBuffer();
                run_batch(*c, fresh_names('a'), srv, true);
            }
        }
        for (serial_case *c : srv_rows) {
            run_serial(*c, cfg.cold_per_round, srv, true);
        }
        if (do_srv) {
            ORV_NETB_DnsCleanBuffer();
            (void)ours_srv(srv_hot_name.c_str());
            run_serial(srv_hot, cfg.hot_per_round, srv, true);
        }
        if (do_cold || do_hot || do_async || do_srv) {
            std::fprintf(stderr, "round %u/%u done\n", round + 1, cfg.rounds);
        }
    }
    ORV_NETB_DnsCleanBuffer();
    breakdown bd;
    if (do_breakdown) {
        measure_breakdown(bd, cfg, srv, fresh_names);
    }

    // ---- report
    if (do_cold) {
        std::printf("(1) cold: one blocking A resolve at a time, memory cache emptied before each call "
                    "(n=%zu per row)\n",
                    ours_cold.us.size());
        print_serial_table(cold, ours_cold);
        goal_line("cold vs glibc getaddrinfo", safe_ratio(ours_cold.median(), gai.median()), true, 1.0);
        goal_line("cold vs raw UDP floor", safe_ratio(ours_cold.median(), raw.median()), true, 1.8);
        std::printf("\n");
    }
    if (do_hot) {
        std::printf("(2) hot: blocking A resolve answered from the memory cache (n=%zu)\n",
                    ours_hot.us.size());
        std::printf("  %-9s %-38s %10s %9s %10s %7s\n", "", "", "median us", "p90 us", "quest/op", "failed");
        std::printf("  %-9s %-38s %10.2f %9.2f %10.2f %7u\n", ours_hot.peer.c_str(), ours_hot.what.c_str(),
                    ours_hot.median(), quantile(ours_hot.us, 0.9),
                    static_cast<double>(ours_hot.questions) /
                        static_cast<double>(std::max<size_t>(1, ours_hot.us.size())),
                    ours_hot.failed);
        std::printf("  ratio to the raw UDP floor %s; to getaddrinfo %s (the peers keep no cache: every call "
                    "asks)\n",
                    ratio_text(safe_ratio(ours_hot.median(), raw.median())).c_str(),
                    ratio_text(safe_ratio(ours_hot.median(), gai.median())).c_str());
        goal_line("cache hit vs raw UDP floor", safe_ratio(ours_hot.median(), raw.median()), true, 0.1);
        std::printf("\n");
    }
    if (do_async) {
        const unsigned names = cfg.async_names;
        std::printf("(3) async: %u A requests for distinct names, until every callback/result has its "
                    "address (%u runs per row)\n",
                    names, cfg.rounds);
        std::printf("  %-9s %-48s %10s %8s %10s %8s %8s %7s %16s\n", "", "", "median ms", "us/req", "req/s",
                    "quest/r", "thread/r", "failed", "vek_dns / peer");
        for (const batch_case *c : async) {
            if (!c->available) {
                std::printf("  %-9s %-48s %10s\n", c->peer.c_str(), c->what.c_str(), "n/a");
                continue;
            }
            const double per_req =
                c->runs == 0 ? 0.0
                             : static_cast<double>(c->questions) / (static_cast<double>(c->runs) * names);
            std::string ratio;
            if (c != &ours_async_all && c->goal_row) {
                ratio = ratio_text(safe_ratio(ours_async_all.per_sec(names), c->per_sec(names))) + " thrpt";
            }
            char threads[16] = "-";
            if (c->ours) {
                std::snprintf(threads, sizeof(threads), "%.2f", threads_per_request(*c, names));
            }
            std::printf("  %-9s %-48s %10.1f %8.1f %10.0f %8.2f %8s %7u %16s\n", c->peer.c_str(),
                        c->what.c_str(), c->median_us() / 1000.0, c->median_us() / names, c->per_sec(names),
                        per_req, threads, c->failed, ratio.c_str());
        }
        goal_line("async throughput vs getaddrinfo_a",
                  safe_ratio(ours_async_all.per_sec(names), gai_a.per_sec(names)), false, 2.0);
        goal_line("async throughput vs c-ares",
                  safe_ratio(ours_async_all.per_sec(names), cares_a.per_sec(names)), false, 0.5);
        std::printf("\n");
    }
    if (do_breakdown) {
        std::printf("(4) breakdown (medians, us)\n");
        const double resolve_us = quantile(bd.resolve, 0.5);
        auto row = [](const char *what, double v, const char *note) {
            std::printf("  %-66s %8.2f  %s\n", what, v, note);
        };
        if (do_cold) {
            row("ORV_NETB_DnsGetIpBySynResolve, cold (table 1)", ours_cold.median(), "");
        }
        row("  DNS_Resolve alone (resolver file + one question on the wire)", resolve_us, "");
        row("    DNS_LocateDnsServer + DNS_FreeLocalServer (resolv.conf read)", quantile(bd.discovery, 0.5),
            "");
        row("    DNS_Query + select + DNS_Read + close (the wire)", quantile(bd.wire, 0.5), "");
        row("  call layer: blocking call for an address literal, cache emptied", bd.literal.median(),
            "no resolver file, no network: 2 semaphore sections, cache, worker hand-off, completion");
        row("    thread hand-off and back (condvar wake, semaphore reply)", quantile(bd.handoff, 0.5),
            "a generic pair of thread switches, for scale");
        row("    memory cache: store into an emptied cache (create + entry)", quantile(bd.store, 0.5), "");
        row("    memory cache: look-up hit (DNS_GetIpFromCache)", quantile(bd.lookup, 0.5), "");
        row("    memory cache of 1000 entries of this second: look-up miss", quantile(bd.big_miss, 0.5),
            "what each new name of an async burst pays in the call");
        row("    memory cache of 1000 entries of this second: store", quantile(bd.big_store, 0.5),
            "... and in the worker (eviction walk finds no candidate)");
        row("one named-semaphore section (DNS_SemOpen/Wait/Post/Close)", quantile(bd.sem, 0.5), "");
        row("one thread create + join (pthread)", quantile(bd.thread, 0.5), "");
        row("cold call with worker reuse off (a new thread per request)", bd.no_reuse.median(), "");
        char note[96];
        std::snprintf(note, sizeof(note), "%.0f req/s, %.2f threads/req, failed %u",
                      bd.pool.per_sec(cfg.async_names), threads_per_request(bd.pool, cfg.async_names),
                      bd.pool.failed);
        row("async, at most 100 in flight, 200 parked workers allowed: us/req",
            bd.pool.median_us() / cfg.async_names, note);
        std::printf("\n");
    }

    if (do_srv) {
        std::printf("(5) SRV: one blocking service resolve at a time; cold: memory cache emptied before each "
                    "call (n=%zu per row), cached: n=%zu\n",
                    srv_cold.us.size(), srv_hot.us.size());
        print_serial_table(srv_rows, srv_cold);
        std::printf("  %-9s %-38s %10.2f %9.2f %10.2f %7u\n", srv_hot.peer.c_str(), srv_hot.what.c_str(),
                    srv_hot.median(), quantile(srv_hot.us, 0.9),
                    static_cast<double>(srv_hot.questions) /
                        static_cast<double>(std::max<size_t>(1, srv_hot.us.size())),
                    srv_hot.failed);
        goal_line("cold SRV vs glibc res_nquery+getaddrinfo",
                  safe_ratio(srv_cold.median(), srv_glibc.median()), true, 0.8);
        goal_line("cold SRV vs raw UDP SRV floor", safe_ratio(srv_cold.median(), srv_raw.median()), true,
                  1.8);
        goal_line("cached SRV vs raw UDP SRV floor", safe_ratio(srv_hot.median(), srv_raw.median()), true,
                  0.1);
        std::printf("\n");
    }

    std::printf("failures: ours cold %u, hot %u, async %u + %u, SRV cold %u, cached %u; library log lines at "
                "level <= 2: %u\n",
                ours_cold.failed, ours_hot.failed, ours_async_all.failed, ours_async_win.failed,
                srv_cold.failed, srv_hot.failed, g_log_lines.load());
    {
        std::lock_guard<std::mutex> lock(g_log_mu);
        for (const std::string &line : g_log_first) {
            std::printf("  log: %s\n", line.c_str());
        }
    }

#if defined(VEK_BENCH_HAVE_CARES)
    if (g_ares != nullptr) {
        ares_destroy(g_ares);
    }
    ares_library_cleanup();
#endif
    res_nclose(&g_res);
    ORV_NETB_DnsRegisterLogFunc(nullptr);
    return 0;
}
