// The wait, the reply check and the TCP retry of truncated replies, seen
// through DNS_Resolve against a scripted server on UDP and TCP.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "support/dns_server.h"
#include "support/sandbox.h"
#include "support/tcp_listener.h"
#include "vek_dns_ops.h"

namespace {

using namespace vekdns::test;
using namespace std::chrono_literals;
using Q = const parsed_query &;

// "<code> <address> ..." of one resolve of `name` for A records.
std::string resolve_a(const char *name, uint32_t timeout) {
    DNS_IPADDR_S addrs[10] = {};
    uint32_t ttls[10] = {}, count = 10;
    DNS_HOSTNAME_S req{DNS_SEARCH_TYPE_A, const_cast<char *>(name)};
    char out[32];
    std::snprintf(out, sizeof out, "%x", DNS_Resolve(&req, addrs, &count, timeout, ttls));
    std::string text = out;
    for (uint32_t i = 0; i < count; ++i) {
        text += " " + std::string(inet_ntoa(in_addr{addrs[i].unIpAddr.ulIpv4})).substr(5);
    }
    return text;
}

reply truncated(Q q) { return msg::reply_to(q).tc().answer_a(q.qname, "10.0.0.1", 1); }
reply other_id(const reply &r) {
    reply out = r;
    out.datagrams[0][1] ^= 1;
    return out;
}

TEST(Transport, WaitMatchAndTcpRetry) {
    struct sigaction sa {};
    sa.sa_handler = [](int) {}; // no SA_RESTART: the wait sees EINTR
    sigaction(SIGUSR1, &sa, nullptr);
    scripted_server srv("127.0.0.1");
    set_resolv_conf("nameserver 127.0.0.1\n");
    std::vector<std::string> ips;
    for (int i = 1; i <= 40; ++i) {
        ips.push_back("10.0.1." + std::to_string(i));
    }
    srv.answer_a("big", ips, 60);
    srv.answer_a("one", {"10.0.0.2"}, 60);
    const query_handler table = [&srv](Q q) { return srv.table_reply(q); };
    const query_handler none;
    const std::string ten = "0 1.1 1.2 1.3 1.4 1.5 1.6 1.7 1.8 1.9 1.10";
    const struct {
        const char *what;
        query_handler udp, tcp;
        tcp_options opts;
        bool high_fd, signals;
        const char *name, *want;
    } rows[] = {
        {"socket above 1023", table, none, {}, true, false, "one", "0 0.2"},
        {"signals during the wait", [&](Q q) { return srv.table_reply(q).after(300ms); }, none, {}, false, true,
         "one", "0 0.2"},
        {"late reply with another id", [&](Q q) { return other_id(msg::reply_to(q).answer_a("one", "10.6.6.6", 1)).then(srv.table_reply(q).datagrams[0]); },
         none, {}, false, false, "one", "0 0.2"},
        {"late reply to another question",
         [&](Q q) {
             return reply(msg::reply_to(parse_query(msg::query(q.id, "ONE.x", q.qtype).bytes())).answer_a("one", "10.6.6.6", 1))
                 .then(srv.table_reply(q).datagrams[0]);
         },
         none, {}, false, false, "One", "0 0.2"},
        {"truncated, whole over TCP", truncated, table, {}, false, false, "big", ten.c_str()},
        {"truncated, TCP refused", truncated, none, {}, false, false, "big", "0 0.1"},
        {"truncated, TCP silent", [](Q q) { return reply(msg::reply_to(q).tc()); }, [](Q) { return reply(); }, {},
         false, false, "big", "2604001c"},
        {"truncated, TCP closed after the prefix", truncated, table, {true, false}, false, false, "big", "0 0.1"},
        {"truncated, TCP reply with another id first", truncated,
         [&](Q q) { return other_id(srv.table_reply(q)).then(srv.table_reply(q).datagrams[0]); }, {}, false, false,
         "big", ten.c_str()},
        {"truncated, TCP framing in pieces", truncated, table, {false, true}, false, false, "big", ten.c_str()},
    };
    for (const auto &row : rows) {
        srv.on_query(row.udp);
        std::unique_ptr<tcp_listener> tcp;
        if (row.tcp) {
            tcp = std::make_unique<tcp_listener>("127.0.0.1", row.tcp, row.opts);
        }
        std::vector<int> filler;
        rlimit lim{};
        getrlimit(RLIMIT_NOFILE, &lim);
        lim.rlim_cur = lim.rlim_max;
        setrlimit(RLIMIT_NOFILE, &lim);
        while (row.high_fd && filler.size() < 1100) { // the socket comes above them
            filler.push_back(dup(0));
        }
        std::atomic<bool> done{false};
        const pthread_t self = pthread_self();
        std::thread signaller([&] {
            while (row.signals && !done) {
                pthread_kill(self, SIGUSR1);
                std::this_thread::sleep_for(20ms);
            }
        });
        EXPECT_EQ(resolve_a(row.name, 1), row.want) << row.what;
        for (int fd : filler) {
            close(fd);
        }
        done = true;
        signaller.join();
    }
}

} // namespace
