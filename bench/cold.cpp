// (1) cold: one blocking A resolve at a time, the memory cache emptied before
// each call. Peers: the raw fresh-socket client (the floor for our design),
// glibc getaddrinfo and res_nquery, c-ares ares_gethostbyname.
#include <arpa/nameser.h>

#include <cstdio>

#include "scenarios.h"
#include "vek_dns.h"

namespace vekbench {
namespace {

bool glibc_res_nquery(const char *name) {
    uint8_t answer[1024];
    const int n = res_nquery(&g_res, name, ns_c_in, ns_t_a, answer, sizeof(answer));
    uint32_t addr = 0;
    return n > 0 && first_a(answer, static_cast<size_t>(n), -1, &addr) && addr == answer_ip_net();
}

} // namespace

cold_scenario::cold_scenario(const context &c)
    : ctx(c), ours{"vek_dns", "ORV_NETB_DnsGetIpBySynResolve", ours_blocking,
                   [] { ORV_NETB_DnsCleanBuffer(); }, 'o'},
      raw{"raw UDP", "fresh socket per question (floor)",
          [](const char *n) { return raw_resolve(n, static_cast<uint16_t>(g_name_counter)); }, nullptr, 'r'},
      gai{"glibc", "getaddrinfo(AF_INET)", glibc_getaddrinfo, nullptr, 'g'},
      resq{"glibc", "res_nquery(A)", glibc_res_nquery, nullptr, 'q'}, cares {
    "c-ares", "ares_gethostbyname(AF_INET)",
#if defined(VEK_BENCH_HAVE_CARES)
        cares_gethostbyname,
#else
        nullptr,
#endif
        nullptr, 'c'
}
, rows{&ours, &raw, &gai, &resq, &cares} {
    cares.available = c.have_cares;
}

void cold_scenario::warm_up() {
    for (serial_case *c : rows) {
        run_serial(*c, 20, *ctx.srv, false);
    }
}

void cold_scenario::round() {
    for (serial_case *c : rows) {
        run_serial(*c, ctx.cfg.cold_per_round, *ctx.srv, true);
    }
}

void cold_scenario::report() const {
    std::printf("(1) cold: one blocking A resolve at a time, memory cache emptied before each call "
                "(n=%zu per row)\n",
                ours.us.size());
    print_serial_table(rows, ours);
    goal_line("cold vs glibc getaddrinfo", safe_ratio(ours.median(), gai.median()), true, 1.0);
    goal_line("cold vs raw UDP floor", safe_ratio(ours.median(), raw.median()), true, 1.3);
    std::printf("\n");
}

} // namespace vekbench
