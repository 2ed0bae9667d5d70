// Against a real DNS server: dnsmasq, started inside the test's private
// network namespace, answering from its own records (no upstream).
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <atomic>
#include <string>
#include <vector>

#include "address/address_calls.h"
#include "support/dns_server.h"
#include "support/sandbox.h"
#include "vek_dns_ops.h"

namespace {

using namespace vekdns::test;

// One question straight to the server: true when anything comes back.
bool answers() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{AF_INET, htons(53), {htonl(INADDR_LOOPBACK)}, {}};
    const bytes q = msg::query(1, "www.interop.test", qtype::a).bytes();
    pollfd p{fd, POLLIN, 0};
    uint8_t buf[512];
    const bool ok = connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof(to)) == 0 &&
                    send(fd, q.data(), q.size(), 0) > 0 && poll(&p, 1, 50) == 1 &&
                    recv(fd, buf, sizeof buf, 0) > 0;
    close(fd);
    return ok;
}

class Dnsmasq : public testing::Test {
protected:
    void SetUp() override {
        if (access("/usr/sbin/dnsmasq", X_OK) != 0) {
            GTEST_SKIP() << "dnsmasq is not installed (scripts/setup.sh installs dnsmasq-base)";
        }
        // Its own zones are answered with authority: no upstream, NXDOMAIN for unknown names.
        const std::string args =
            "--keep-in-foreground --conf-file=/dev/null --no-resolv --no-hosts --user=root "
            "--listen-address=127.0.0.1 --bind-interfaces --pid-file= --domain-needed "
            "--local=/interop.test/ --local=/corp.interop/ --local=/other.interop/ "
            "--host-record=www.interop.test,192.0.2.10,2001:db8::10 "
            "--host-record=www.interop.test,192.0.2.11,2001:db8::11 "
            "--host-record=v4only.interop.test,192.0.2.44 "
            "--cname=alias.interop.test,www.interop.test "
            "--host-record=intranet.corp.interop,198.51.100.7 "
            "--host-record=v6only.interop.test,2001:db8::66 "
            "--srv-host=_sip._udp.interop.test,v4only.interop.test,5061,20,5 "
            "--srv-host=_sip._udp.interop.test,v6only.interop.test,5062,10,60 "
            "--srv-host=_sip._udp.interop.test,nohost.interop.test,5063,10,1 "
            "--srv-host=_sip._udp.interop.test,192.0.2.77,5064,30,1 "
            "--srv-host=_ldap._tcp.interop.test";
        std::vector<std::string> words{"/usr/sbin/dnsmasq"};
        for (int i = 100; i < 140; ++i) { // 40 addresses: more than a 512-byte reply holds
            words.push_back("--host-record=many.interop.test,192.0.2." + std::to_string(i));
        }
        for (size_t at = 0, end; at < args.size(); at = end + 1) {
            end = std::min(args.find(' ', at), args.size());
            words.push_back(args.substr(at, end - at));
        }
        std::vector<char *> argv;
        for (std::string &w : words) {
            argv.push_back(w.data());
        }
        argv.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL); // never outlives the test's namespace
            execv(argv[0], argv.data());
            _exit(127);
        }
        ASSERT_TRUE(wait_until(answers)) << "dnsmasq did not start answering";
    }
    void TearDown() override {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    pid_t pid_ = -1;
};

// "code: v4 v4 | v6 v6", each family sorted (dnsmasq rotates its records);
// IPv4 must come first.
std::string resolve(const std::string &name, uint32_t type) {
    DNS_IPADDR_S addrs[DNS_MAX_IP_NUM] = {};
    uint32_t n = DNS_MAX_IP_NUM;
    const uint32_t ret = ORV_NETB_DnsGetIpBySynResolve(name.c_str(), type, addrs, &n);
    EXPECT_TRUE(std::is_sorted(addrs, addrs + n, [](auto &x, auto &y) { return x.ulType < y.ulType; }));
    std::vector<std::pair<uint32_t, std::string>> texts;
    for (uint32_t i = 0; i < n; ++i) {
        char text[INET6_ADDRSTRLEN] = {};
        inet_ntop(addrs[i].ulType == 1 ? AF_INET6 : AF_INET, &addrs[i].unIpAddr, text, sizeof(text));
        texts.emplace_back(addrs[i].ulType, text);
    }
    std::sort(texts.begin(), texts.end());
    std::string out = std::to_string(ret) + ":";
    for (size_t i = 0; i < texts.size(); ++i) {
        out += (i != 0 && texts[i].first != texts[i - 1].first ? " | " : " ") + texts[i].second;
    }
    return out;
}

TEST_F(Dnsmasq, TypesCnameSuffixAndUnknownName) {
    const std::string www4 = " 192.0.2.10 192.0.2.11", www6 = " 2001:db8::10 2001:db8::11";
    const struct {
        const char *search, *name;
        uint32_t type;
        std::string expected;
    } rows[] = {
        {"", "www.interop.test", 0, "0:" + www4},
        {"", "www.interop.test", 1, "0:" + www6},
        {"", "www.interop.test", 2, "0:" + www4 + " |" + www6},
        {"", "alias.interop.test", 2, "0:" + www4 + " |" + www6},
        {"", "v4only.interop.test", 2, "0: 192.0.2.44"},
        {"search other.interop corp.interop\n", "intranet", 0, "0: 198.51.100.7"},
        {"", "nosuch.interop.test", 0, std::to_string(DNS_ERR_PARSE_ANSWER) + ":"},
    };
    for (const auto &row : rows) {
        set_resolv_conf(std::string("nameserver 127.0.0.1\n") + row.search);
        ORV_NETB_DnsCleanBuffer();
        EXPECT_EQ(resolve(row.name, row.type), row.expected) << row.name << " " << row.type;
    }
}

TEST_F(Dnsmasq, ConcurrentRequestsThenCacheHits) {
    set_resolv_conf("nameserver 127.0.0.1\n");
    const auto callback = [](uint32_t ret, char *, DNS_IPADDR_S *, uint32_t n, void *user) -> uint32_t {
        auto *counts = static_cast<std::atomic<int> *>(user);
        counts[1] += ret == DNS_OK && n >= 4 ? 1 : 0; // earlier workers may have stored copies
        ++counts[0];
        return 0;
    };
    std::atomic<int> counts[2] = {{0}, {0}};
    for (int i = 0; i < 32; ++i) {
        ASSERT_EQ(ORV_NETB_DnsGetIpByAsynResolve("www.interop.test", 2, 3, callback, counts), DNS_OK);
    }
    ASSERT_TRUE(wait_until([&] { return counts[0] == 32 && vekdns::detail::requests_in_flight() == 0; }));
    EXPECT_EQ(counts[1].load(), 32);
}

TEST_F(Dnsmasq, TruncatedReplyAskedAgainOverTcp) {
    static std::atomic<int> retried, failed;
    ORV_NETB_DnsRegisterLogFunc([](const char *line) {
        retried += std::strstr(line, "retry over TCP lFdSock") != nullptr;
        failed += std::strstr(line, "retry over TCP failed") != nullptr;
    });
    set_resolv_conf("nameserver 127.0.0.1\n");
    const std::string got = resolve("many.interop.test", 0);
    EXPECT_EQ(std::count(got.begin(), got.end(), ' ') + 10 * retried + 100 * failed, 20) << got;
}

TEST_F(Dnsmasq, ServiceRecordsJoinedWithAddressesInOrder) {
    set_resolv_conf("nameserver 127.0.0.1\n");
    const struct {
        const char *service, *proto, *want;
    } rows[] = {
        {"sip", "udp", "0 | v6only.interop.test 10 60 5062 2001:db8::66 | v4only.interop.test 20 5 5061 192.0.2.44"
                       " | 192.0.2.77 30 1 5064 192.0.2.77"},
        {"ldap", "tcp", "26040012"},
    };
    for (const auto &row : rows) {
        DNS_SRV_RR_STR_S rr[10] = {};
        uint32_t n = 10;
        const uint32_t ret = vek_dns_get_srv_resolve_syn(row.service, row.proto, "interop.test", rr, &n);
        char got[2048];
        int at = snprintf(got, sizeof got, "%x", ret);
        for (uint32_t i = 0; ret == 0 && i < n; ++i) {
            at += snprintf(got + at, sizeof got - at, " | %s %u %u %u %s", rr[i].szTarget, rr[i].usPriority,
                           rr[i].usWeight, rr[i].usPort, rr[i].acIpAddr);
        }
        EXPECT_STREQ(got, row.want) << row.service;
    }
}

} // namespace
