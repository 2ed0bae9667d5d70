// The wait, the reply check and the TCP retry of truncated replies, seen
// through DNS_Resolve against a scripted server on UDP and TCP.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <sstream>

#include "os_adapter/test_hooks.h"
#include "support/dns_server.h"
#include "support/sandbox.h"
#include "support/tcp_once.h"
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
    std::stringstream text;
    text << std::hex << DNS_Resolve(&req, addrs, &count, timeout, ttls);
    for (uint32_t i = 0; i < count; ++i) {
        text << " " << std::string(inet_ntoa(in_addr{addrs[i].unIpAddr.ulIpv4})).substr(5);
    }
    return text.str();
}

reply truncated(Q q) {
    return msg::reply_to(q).tc().answer_a(q.qname, "10.0.0.1", 1);
}
reply other_id(reply r) {
    return r.datagrams[0][1] ^= 1, r;
}

TEST(Transport, WaitMatchAndTcpRetry) {
    struct sigaction sa {};
    sa.sa_handler = [](int) {}; // no SA_RESTART: the wait sees EINTR
    sigaction(SIGUSR1, &sa, nullptr);
    scripted_server srv("127.0.0.1");
    set_resolv_conf("nameserver 127.0.0.1\n");
    std::vector<std::string> ips(40, "10.0.1.");
    std::transform(ips.begin(), ips.end(), ips.begin(),
                   [n = 0](const std::string &p) mutable { return p + std::to_string(++n); });
    srv.answer_a("big", ips, 60);
    srv.answer_a("one", {"10.0.0.2"}, 60);
    const query_handler table = [&srv](Q q) { return srv.table_reply(q); };
    const query_handler slow = [&](Q q) { return table(q).after(300ms); };
    const query_handler late_id = [&](Q q) { return other_id(table(q)).then(table(q).datagrams[0]); };
    const query_handler late_q = [&](Q q) {
        const msg other = msg::reply_to(parse_query(msg::query(q.id, "ONE.x", q.qtype).bytes()));
        const reply ours = table(parse_query(msg::query(q.id, "one", q.qtype).bytes())); // "One" asked
        return reply(msg(other).answer_a("x", "10.6.6.6", 1)).then(ours.datagrams[0]);
    };
    const query_handler tc_only = [](Q q) { return reply(msg::reply_to(q).tc()); };
    const query_handler silent = [](Q) { return reply(); };
    const char *ten = "0 1.1 1.2 1.3 1.4 1.5 1.6 1.7 1.8 1.9 1.10";
    constexpr size_t no_tcp = 99;
    constexpr int high_fd = 1, signals = 2;
    using vekdns::pal_test::op;
    const struct {
        const char *what;
        query_handler udp, tcp;
        size_t pieces; // written per TCP message, 0: the length prefix only
        op fault;      // fails once; count_: none
        int env;
        const char *name, *want;
    } rows[] = {
        // clang-format off
        {"socket above 1023", table, {}, no_tcp, op::count_, high_fd, "one", "0 0.2"},
        {"signals during the wait", slow, {}, no_tcp, op::count_, signals, "one", "0 0.2"},
        {"late reply with another id", late_id, {}, no_tcp, op::count_, 0, "one", "0 0.2"},
        {"late reply to another question", late_q, {}, no_tcp, op::count_, 0, "One", "0 0.2"},
        {"truncated, whole over TCP", truncated, table, 1, op::count_, 0, "big", ten},
        {"truncated, TCP refused", truncated, {}, no_tcp, op::count_, 0, "big", "0 0.1"},
        {"truncated, TCP silent", tc_only, silent, 1, op::count_, 0, "big", "2604001c"},
        {"truncated, TCP closed after the prefix", truncated, table, 0, op::count_, 0, "big", "0 0.1"},
        {"truncated, TCP reply with another id first", truncated, late_id, 1, op::count_, 0, "big", ten},
        {"truncated, TCP framing in pieces", truncated, table, 3, op::count_, 0, "big", ten},
        {"truncated, TCP socket fails", truncated, table, 1, op::stream_socket, 0, "big", "0 0.1"},
        {"truncated, TCP connect fails", truncated, table, 1, op::stream_connect, 0, "big", "0 0.1"},
        {"truncated, TCP send fails", truncated, table, 1, op::stream_send, 0, "big", "0 0.1"},
        {"truncated, TCP receive fails", truncated, table, 1, op::stream_recv, 0, "big", "0 0.1"},
        // clang-format on
    };
    const rlimit lim{4096, 4096};
    setrlimit(RLIMIT_NOFILE, &lim);
    for (const auto &row : rows) {
        srv.on_query(row.udp);
        std::unique_ptr<tcp_once> tcp(row.pieces != no_tcp ? new tcp_once(row.tcp, row.pieces) : nullptr);
        if (row.fault != op::count_) {
            vekdns::pal_test::fail_nth(row.fault, 1);
        }
        std::vector<int> filler;
        while ((row.env & high_fd) && filler.size() < 1100) { // the socket comes above them
            filler.push_back(dup(0));
        }
        std::atomic<bool> done{false};
        const pthread_t self = pthread_self();
        std::thread signaller([&] {
            for (; (row.env & signals) && !done; std::this_thread::sleep_for(20ms)) {
                pthread_kill(self, SIGUSR1);
            }
        });
        EXPECT_EQ(resolve_a(row.name, 1), row.want) << row.what;
        done = true;
        signaller.join();
        for (int fd : filler) {
            close(fd);
        }
        vekdns::pal_test::clear_faults();
        EXPECT_EQ(vekdns::pal_test::outstanding_blocks(), 0) << row.what;
    }
}

} // namespace
