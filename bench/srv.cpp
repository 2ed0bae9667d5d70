// (5) SRV: one blocking service resolve at a time, cold (memory cache emptied
// before each call) and cached. The responder's SRV answer carries the
// target's address as an additional record, so our call needs one question
// where a glibc or c-ares user asks twice. Peers: the raw fresh-socket SRV
// question (the floor), glibc res_nquery+ns_parserr+getaddrinfo, c-ares
// ares_query+ares_parse_srv_reply+ares_gethostbyname.
#include <arpa/nameser.h>

#include <algorithm>
#include <cstdio>

#include "scenarios.h"
#include "vek_dns.h"

namespace vekbench {
namespace {

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
#endif

} // namespace

srv_scenario::srv_scenario(const context &c)
    : ctx(c), ours{"vek_dns", "ORV_NETB_DnsGetSrvBySynResolve", ours_srv, [] { ORV_NETB_DnsCleanBuffer(); },
                   'v'},
      ours_hot{"vek_dns", "ORV_NETB_DnsGetSrvBySynResolve, cached",
               [this](const char *) { return ours_srv(hot_name.c_str()); }, nullptr, 'V'},
      raw{"raw UDP", "fresh socket per SRV question (floor)",
          [](const char *n) {
              return raw_resolve(srv_qname(n).c_str(), static_cast<uint16_t>(g_name_counter), 33);
          },
          nullptr, 'R'},
      glibc{"glibc", "res_nquery(SRV)+parserr+getaddrinfo", glibc_srv, nullptr, 'G'}, cares {
    "c-ares", "ares_query(SRV)+parse+gethostbyname",
#if defined(VEK_BENCH_HAVE_CARES)
        cares_srv,
#else
        nullptr,
#endif
        nullptr, 'C'
}
, rows{&ours, &raw, &glibc, &cares} {
    cares.available = c.have_cares;
}

void srv_scenario::warm_up() {
    for (serial_case *c : rows) {
        run_serial(*c, 20, *ctx.srv, false);
    }
    if (!ours_srv(hot_name.c_str())) {
        std::fprintf(stderr, "warning: priming the cache for the cached SRV case failed\n");
    }
}

void srv_scenario::round() {
    for (serial_case *c : rows) {
        run_serial(*c, ctx.cfg.cold_per_round, *ctx.srv, true);
    }
    ORV_NETB_DnsCleanBuffer();
    (void)ours_srv(hot_name.c_str());
    run_serial(ours_hot, ctx.cfg.hot_per_round, *ctx.srv, true);
}

void srv_scenario::report() const {
    std::printf("(5) SRV: one blocking service resolve at a time; cold: memory cache emptied before each "
                "call (n=%zu per row), cached: n=%zu\n",
                ours.us.size(), ours_hot.us.size());
    print_serial_table(rows, ours);
    std::printf("  %-9s %-38s %10.2f %9.2f %10.2f %7u\n", ours_hot.peer.c_str(), ours_hot.what.c_str(),
                ours_hot.median(), quantile(ours_hot.us, 0.9),
                static_cast<double>(ours_hot.questions) /
                    static_cast<double>(std::max<size_t>(1, ours_hot.us.size())),
                ours_hot.failed);
    goal_line("cold SRV vs glibc res_nquery+getaddrinfo", safe_ratio(ours.median(), glibc.median()), true,
              0.8);
    goal_line("cold SRV vs raw UDP SRV floor", safe_ratio(ours.median(), raw.median()), true, 1.8);
    goal_line("cached SRV vs raw UDP SRV floor", safe_ratio(ours_hot.median(), raw.median()), true, 0.1);
    std::printf("\n");
}

} // namespace vekbench
