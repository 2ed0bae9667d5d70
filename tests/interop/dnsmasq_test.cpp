// Address resolution against a real DNS server: dnsmasq, started for each test
// inside the test's private network namespace, answering from its own records
// (no upstream). Checks what a real server's replies turn into: addresses and
// their order, TTLs, CNAME chains, search suffixes, and the codes for names the
// server does not know.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/message_builder.h"
#include "support/sandbox.h"
#include "vek_dns_ops.h"

namespace {

using namespace vekdns::test;

const char *const dnsmasq_log = "/var/vek-dnsmasq.log";
constexpr uint32_t local_ttl = 300;

std::string find_dnsmasq() {
    for (const char *path : {"/usr/sbin/dnsmasq", "/usr/bin/dnsmasq", "/sbin/dnsmasq"}) {
        if (access(path, X_OK) == 0) {
            return path;
        }
    }
    return "";
}

// What dnsmasq knows. Its own zones are answered authoritatively (--local):
// an unknown name there gets NXDOMAIN, a known name without records of the
// asked type gets an empty NOERROR reply; plain names are never forwarded.
std::vector<std::string> dnsmasq_records() {
    std::vector<std::string> out = {
        "--local=/interop.test/",
        "--local=/corp.interop/",
        "--local=/other.interop/",
        "--domain-needed",
        "--local-ttl=" + std::to_string(local_ttl),
        "--host-record=www.interop.test,192.0.2.10,2001:db8::10",
        "--host-record=www.interop.test,192.0.2.11,2001:db8::11",
        "--host-record=v4only.interop.test,192.0.2.44",
        "--host-record=v6only.interop.test,2001:db8::66",
        "--cname=alias.interop.test,www.interop.test",
        "--host-record=intranet.corp.interop,198.51.100.7",
        "--host-record=both.interop.test,192.0.2.50",
        "--host-record=both.interop.test.corp.interop,192.0.2.51",
        "--srv-host=_sip._udp.interop.test,v4only.interop.test,5061,20,5",
        "--srv-host=_sip._udp.interop.test,v6only.interop.test,5062,10,60",
        "--srv-host=_sip._udp.interop.test,nohost.interop.test,5063,10,1",
        "--srv-host=_sip._udp.interop.test,192.0.2.77,5064,30,1",
        "--srv-host=_ldap._tcp.interop.test",
    };
    for (int i = 100; i < 140; ++i) { // 40 addresses: more than a 512-byte reply holds
        out.push_back("--host-record=many.interop.test,192.0.2." + std::to_string(i));
    }
    return out;
}

std::string text_of(const DNS_IPADDR_S &a) {
    char text[INET6_ADDRSTRLEN] = {};
    if (a.ulType == DNS_IP_TYPE_IPV4) {
        inet_ntop(AF_INET, &a.unIpAddr.ulIpv4, text, sizeof(text));
    } else if (a.ulType == DNS_IP_TYPE_IPV6) {
        inet_ntop(AF_INET6, a.unIpAddr.aucIpv6, text, sizeof(text));
    } else {
        return "family " + std::to_string(a.ulType);
    }
    return text;
}

std::string join(const std::vector<std::string> &parts) {
    std::string out;
    for (const std::string &p : parts) {
        out += (out.empty() ? "" : " ") + p;
    }
    return out;
}

// The addresses as "v4 v4 | v6 v6", each family sorted (the order inside a
// family is the server's business and checked on its own below), or
// "IPv6 before IPv4: ..." when the families are interleaved.
std::string by_family(const DNS_IPADDR_S *addrs, uint32_t n) {
    std::vector<std::string> v4, v6;
    bool seen_v6 = false;
    std::vector<std::string> all;
    for (uint32_t i = 0; i < n; ++i) {
        all.push_back(text_of(addrs[i]));
        if (addrs[i].ulType == DNS_IP_TYPE_IPV6) {
            seen_v6 = true;
            v6.push_back(all.back());
        } else if (seen_v6) {
            return "IPv6 before IPv4: " + join(all);
        } else {
            v4.push_back(all.back());
        }
    }
    std::sort(v4.begin(), v4.end());
    std::sort(v6.begin(), v6.end());
    if (v6.empty()) {
        return join(v4);
    }
    return v4.empty() ? join(v6) : join(v4) + " | " + join(v6);
}

struct blocking_result {
    uint32_t ret = 0;
    uint32_t count = 0;
    DNS_IPADDR_S addrs[DNS_MAX_IP_NUM] = {};
    std::string text() const { return by_family(addrs, count); }
};

blocking_result resolve(const std::string &name, uint32_t type) {
    blocking_result r;
    r.count = DNS_MAX_IP_NUM;
    r.ret = ORV_NETB_DnsGetIpBySynResolve(name.c_str(), type, r.addrs, &r.count);
    return r;
}

// One question straight to dnsmasq; the reply decoded, or nothing after
// `wait`.
std::optional<parsed_message> ask(const std::string &name, uint16_t type,
                                  std::chrono::milliseconds wait = std::chrono::milliseconds(200)) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return std::nullopt;
    }
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(53);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::optional<parsed_message> out;
    const bytes query = msg::query(0x4242, name, type).bytes();
    if (connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof(to)) == 0 &&
        send(fd, query.data(), query.size(), 0) == static_cast<ssize_t>(query.size())) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(wait.count())) == 1) {
            uint8_t buf[2048];
            ssize_t n = recv(fd, buf, sizeof(buf), 0);
            if (n > 0) {
                out = parse_message(std::span<const uint8_t>(buf, static_cast<size_t>(n)));
            }
        }
    }
    close(fd);
    return out;
}

class Dnsmasq : public testing::Test {
protected:
    void SetUp() override {
        const std::string path = find_dnsmasq();
        if (path.empty()) {
            GTEST_SKIP() << "dnsmasq is not installed (Debian package dnsmasq-base; scripts/setup.sh "
                            "installs it): the interop tests need a real DNS server";
        }
        std::vector<std::string> args = {path,
                                         "--keep-in-foreground",
                                         "--conf-file=/dev/null",
                                         "--no-resolv",
                                         "--no-hosts",
                                         "--listen-address=127.0.0.1",
                                         "--bind-interfaces",
                                         "--port=53",
                                         "--pid-file=",
                                         "--user=root",
                                         std::string("--log-facility=") + dnsmasq_log};
        for (std::string &r : dnsmasq_records()) {
            args.push_back(std::move(r));
        }
        start(args);
        ASSERT_GT(pid_, 0) << "fork failed";
        // Ready once it answers one of its own names.
        bool answering = wait_until(
            [&] {
                int status = 0;
                if (waitpid(pid_, &status, WNOHANG) == pid_) {
                    pid_ = -1; // exited early: reaped here
                    return true;
                }
                return ask("www.interop.test", qtype::a, std::chrono::milliseconds(50)).has_value();
            },
            std::chrono::seconds(10));
        ASSERT_TRUE(answering && pid_ > 0) << "dnsmasq did not start answering; its log:\n"
                                           << read_file(dnsmasq_log);
        set_resolv_conf("nameserver 127.0.0.1\n");
    }

    void TearDown() override {
        if (pid_ <= 0) {
            return;
        }
        kill(pid_, SIGTERM);
        int status = 0;
        bool gone =
            wait_until([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, std::chrono::seconds(5));
        if (!gone) {
            kill(pid_, SIGKILL);
            waitpid(pid_, &status, 0);
        }
        pid_ = -1;
    }

private:
    void start(const std::vector<std::string> &args) {
        // Everything the child needs is prepared before fork: after it, the
        // child only makes system calls.
        std::vector<char *> argv;
        for (const std::string &a : args) {
            argv.push_back(const_cast<char *>(a.c_str()));
        }
        argv.push_back(nullptr);
        const pid_t parent = getpid();
        pid_ = fork();
        if (pid_ == 0) {
            // Never outlive the test process (the namespace would keep it).
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) {
                _exit(127);
            }
            int null_fd = open("/dev/null", O_RDWR);
            if (null_fd >= 0) {
                dup2(null_fd, STDIN_FILENO);
                dup2(null_fd, STDOUT_FILENO);
                dup2(null_fd, STDERR_FILENO);
            }
            execv(argv[0], argv.data());
            _exit(127);
        }
    }

    pid_t pid_ = -1;
};

// ---- blocking calls by search type -------------------------------------------------

struct search_case {
    const char *name;
    uint32_t type;
    const char *expected; // by_family() form
};

class DnsmasqSearchTypes : public Dnsmasq, public testing::WithParamInterface<search_case> {};

TEST_P(DnsmasqSearchTypes, AddressesIpv4First) {
    const search_case &c = GetParam();
    blocking_result r = resolve(c.name, c.type);
    EXPECT_EQ(r.ret, DNS_OK);
    EXPECT_EQ(r.text(), c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Interop, DnsmasqSearchTypes,
    testing::Values(search_case{"www.interop.test", 0, "192.0.2.10 192.0.2.11"},
                    search_case{"www.interop.test", 1, "2001:db8::10 2001:db8::11"},
                    search_case{"www.interop.test", 2, "192.0.2.10 192.0.2.11 | 2001:db8::10 2001:db8::11"},
                    // A CNAME: the alias record is stepped over, its target's addresses taken.
                    search_case{"alias.interop.test", 0, "192.0.2.10 192.0.2.11"},
                    search_case{"alias.interop.test", 2, "192.0.2.10 192.0.2.11 | 2001:db8::10 2001:db8::11"},
                    // One family missing: its empty reply is rejected, the other family is the answer.
                    search_case{"v4only.interop.test", 2, "192.0.2.44"},
                    search_case{"v6only.interop.test", 2, "2001:db8::66"},
                    search_case{"v6only.interop.test", 1, "2001:db8::66"}),
    [](const testing::TestParamInfo<search_case> &info) {
        std::string n = info.param.name;
        n = n.substr(0, n.find('.'));
        return n + "_type" + std::to_string(info.param.type);
    });

TEST_F(Dnsmasq, TruncatedReplyAskedAgainOverTcp) {
    log_capture log(4);
    const blocking_result r = resolve("many.interop.test", 0);
    EXPECT_EQ(std::to_string(r.ret) + " " + std::to_string(r.count) + " " + std::to_string(log.contains("retry over TCP lFdSock")) +
                  std::to_string(log.contains("retry over TCP failed")),
              "0 10 10") << r.text();
}

// ---- what the server sent, taken over whole ----------------------------------------

TEST_F(Dnsmasq, ResolverLoopTakesEveryAddressWithItsTtl) {
    // dnsmasq rotates the records of a name from one reply to the next, so
    // the order is compared in the scripted-server tests; here the content.
    for (uint16_t type : {qtype::a, qtype::aaaa}) {
        SCOPED_TRACE(type_name(type));
        std::optional<parsed_message> reply = ask("alias.interop.test", type);
        ASSERT_TRUE(reply.has_value());
        ASSERT_FALSE(reply->answers.empty());
        EXPECT_EQ(reply->answers.front().type, qtype::cname) << reply->describe();
        std::vector<std::string> sent;
        for (const parsed_rr &rr : reply->answers) {
            if (rr.type == type) {
                sent.push_back(rr.text + "/" + std::to_string(rr.ttl));
            }
        }
        ASSERT_EQ(sent.size(), 2u) << reply->describe();

        char name[] = "alias.interop.test";
        DNS_HOSTNAME_S req{type == qtype::a ? 0u : 1u, name};
        DNS_IPADDR_S addrs[DNS_MAX_IP_NUM] = {};
        uint32_t ttls[DNS_MAX_IP_NUM] = {};
        uint32_t count = DNS_MAX_IP_NUM;
        ASSERT_EQ(DNS_Resolve(&req, addrs, &count, 3, ttls), DNS_OK);
        std::vector<std::string> got;
        for (uint32_t i = 0; i < count; ++i) {
            got.push_back(text_of(addrs[i]) + "/" + std::to_string(ttls[i]));
        }
        std::sort(sent.begin(), sent.end());
        std::sort(got.begin(), got.end());
        EXPECT_EQ(join(got), join(sent));
        EXPECT_EQ(ttls[0], local_ttl);
    }
}

// ---- search suffixes -----------------------------------------------------------------

TEST_F(Dnsmasq, BareNameResolvedThroughTheSuffix) {
    set_resolv_conf("nameserver 127.0.0.1\nsearch corp.interop\n");
    blocking_result r = resolve("intranet", 0);
    EXPECT_EQ(r.ret, DNS_OK);
    EXPECT_EQ(r.text(), "198.51.100.7");

    // The first suffix is unknown to the server: its NXDOMAIN is passed over.
    set_resolv_conf("nameserver 127.0.0.1\nsearch other.interop corp.interop\n");
    ORV_NETB_DnsCleanBuffer();
    r = resolve("intranet", 2);
    EXPECT_EQ(r.ret, DNS_OK);
    EXPECT_EQ(r.text(), "198.51.100.7");
}

TEST_F(Dnsmasq, NameAndCompletedNameAreBothAsked) {
    // A successful answer does not end the loop: the completed name is asked
    // too and its addresses come behind those of the name itself.
    set_resolv_conf("nameserver 127.0.0.1\nsearch corp.interop\n");
    char name[] = "both.interop.test";
    DNS_HOSTNAME_S req{0, name};
    DNS_IPADDR_S addrs[DNS_MAX_IP_NUM] = {};
    uint32_t ttls[DNS_MAX_IP_NUM] = {};
    uint32_t count = DNS_MAX_IP_NUM;
    ASSERT_EQ(DNS_Resolve(&req, addrs, &count, 3, ttls), DNS_OK);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(text_of(addrs[0]), "192.0.2.50");
    EXPECT_EQ(text_of(addrs[1]), "192.0.2.51");

    EXPECT_EQ(resolve("both.interop.test", 0).text(), "192.0.2.50 192.0.2.51");
}

// ---- names the server does not know -------------------------------------------------

TEST_F(Dnsmasq, UnknownNameIsARejectedReply) {
    // The server answers, with a name error: each reply is rejected by the
    // reader, so the code of the last attempt is 0x26040028 (not a time-out).
    std::optional<parsed_message> reply = ask("nosuch.interop.test", qtype::a);
    ASSERT_TRUE(reply.has_value());
    ASSERT_EQ(reply->rcode(), rcode::nxdomain) << reply->describe();

    struct unknown_case {
        const char *resolv_conf;
        const char *name;
        uint32_t type;
    };
    const unknown_case cases[] = {
        {"nameserver 127.0.0.1\n", "nosuch.interop.test", 0},
        {"nameserver 127.0.0.1\n", "nosuch.interop.test", 1},
        {"nameserver 127.0.0.1\n", "nosuch.interop.test", 2},
        {"nameserver 127.0.0.1\nsearch corp.interop other.interop\n", "nosuch.interop.test", 0},
        {"nameserver 127.0.0.1\nsearch corp.interop\n", "nosuch", 0},
    };
    for (const unknown_case &c : cases) {
        SCOPED_TRACE(std::string(c.name) + " type " + std::to_string(c.type) + " with " + c.resolv_conf);
        set_resolv_conf(c.resolv_conf);
        blocking_result r = resolve(c.name, c.type);
        EXPECT_EQ(r.ret, DNS_ERR_PARSE_ANSWER) << "every question is answered: no wait runs out";
        EXPECT_EQ(r.count, 0u);
    }
}

// ---- asynchronous calls and the memory cache -----------------------------------------

TEST_F(Dnsmasq, ConcurrentAsynchronousRequestsThenCacheHits) {
    set_resolv_conf("nameserver 127.0.0.1\nsearch corp.interop\n");
    struct request {
        const char *name;
        uint32_t type;
        const char *expected;
        std::atomic<int> calls{0};
        std::string got;
        uint32_t ret = 0xFFFFFFFF;
        std::thread::id thread;
    };
    request reqs[] = {
        {"www.interop.test", 2, "192.0.2.10 192.0.2.11 | 2001:db8::10 2001:db8::11", {}, {}, {}, {}},
        {"alias.interop.test", 0, "192.0.2.10 192.0.2.11", {}, {}, {}, {}},
        {"intranet", 0, "198.51.100.7", {}, {}, {}, {}},
        {"v6only.interop.test", 1, "2001:db8::66", {}, {}, {}, {}},
    };
    auto callback = [](uint32_t ret, char *, DNS_IPADDR_S *addrs, uint32_t n, void *user) -> uint32_t {
        auto *r = static_cast<request *>(user);
        r->ret = ret;
        r->got = by_family(addrs, n);
        r->thread = std::this_thread::get_id();
        r->calls.fetch_add(1);
        return 0;
    };
    for (request &r : reqs) {
        ASSERT_EQ(ORV_NETB_DnsGetIpByAsynResolve(r.name, r.type, 3, callback, &r), DNS_OK);
    }
    ASSERT_TRUE(wait_until([&] {
        return std::all_of(std::begin(reqs), std::end(reqs), [](const request &r) { return r.calls >= 1; });
    }));
    for (request &r : reqs) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(r.calls.load(), 1) << "exactly one callback per request";
        EXPECT_EQ(r.ret, DNS_OK);
        EXPECT_EQ(r.got, r.expected);
        EXPECT_NE(r.thread, std::this_thread::get_id()) << "a miss is answered from a worker";
    }

    // dnsmasq's TTL of 300 s keeps the answers: the second round is served
    // from the memory cache, on this thread, before the call returns.
    for (request &r : reqs) {
        SCOPED_TRACE(r.name);
        r.calls = 0;
        ASSERT_EQ(ORV_NETB_DnsGetIpByAsynResolve(r.name, r.type, 3, callback, &r), DNS_OK);
        EXPECT_EQ(r.calls.load(), 1);
        EXPECT_EQ(r.thread, std::this_thread::get_id());
        EXPECT_EQ(r.got, r.expected);
    }
}

// ---- service records ---------------------------------------------------------------

TEST_F(Dnsmasq, ServiceRecordsJoinedWithAddressesInOrder) {
    const struct {
        const char *service, *proto;
        std::string want;
    } rows[] = {
        {"sip", "udp", "0 | v6only.interop.test 10 60 5062 2001:db8::66 | v4only.interop.test 20 5 5061 192.0.2.44"
                       " | 192.0.2.77 30 1 5064 192.0.2.77"},
        {"ldap", "tcp", "26040012"},
    };
    for (const auto &row : rows) {
        DNS_SRV_RR_STR_S rr[10] = {};
        uint32_t n = 10;
        const uint32_t ret = vek_dns_get_srv_resolve_syn(row.service, row.proto, "interop.test", rr, &n);
        std::string got = (std::stringstream() << std::hex << ret).str();
        for (uint32_t i = 0; ret == 0 && i < n; ++i) {
            got += std::string(" | ") + rr[i].szTarget + " " + std::to_string(rr[i].usPriority) + " " +
                   std::to_string(rr[i].usWeight) + " " + std::to_string(rr[i].usPort) + " " + rr[i].acIpAddr;
        }
        EXPECT_EQ(got, row.want) << row.service;
    }
}

} // namespace
