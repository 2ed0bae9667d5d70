// Every exported call that touches the platform, with each of its platform
// operations failing in turn (see support/fault_sweep.h).
#include <arpa/inet.h>

#include <cstring>

#include "config/cache_params.h"
#include "support/dns_server.h"
#include "support/fault_sweep.h"

namespace {

using namespace vekdns::test;
using cbs = std::atomic<int>;

DNS_IPADDR_S ip(const char *text) {
    DNS_IPADDR_S a{};
    a.ulType = std::strchr(text, ':') != nullptr ? DNS_IP_TYPE_IPV6 : DNS_IP_TYPE_IPV4;
    (void)inet_pton(a.ulType == DNS_IP_TYPE_IPV6 ? AF_INET6 : AF_INET, text, &a.unIpAddr);
    return a;
}

DNS_SRV_RR_S srv_record() {
    DNS_SRV_RR_S r{};
    std::strcpy(r.szTarget, "t.h");
    r.usPort = 5060;
    r.stAddr = ip("10.0.0.2");
    return r;
}

// Resolver file, full address files, one service entry, and the clock pinned
// so that every run writes the same stamps.
void files() {
    vekdns::pal_test::set_clock(1700000000);
    set_resolv_conf("nameserver 127.0.0.1\nnameserver ::1\nsearch a\n");
    write_file("/var/orvdns.cache",
               "maxnumber 2\nmaxtime 100\nh 16777226 1699999990 300\nh 33554442 1699999999 300\n");
    write_file("/var/orvdnsaaaa.cache", "maxnumber 9\nmaxtime 100\nh fd00::1 1699999990 300\n");
    write_file("/var/orvdnssrv.cache", "maxnumber 1\nmaxtime 100\n_s._udp.h 1699999990 1\n"
                                       "tn: t.h 0 0 5060 0 10.0.0.2 300 \n");
}

TEST(Sweep, EveryFailurePathKeepsTheInvariants) {
    ORV_NETB_DnsSetLogLevel(0);
    scripted_server v4("127.0.0.1"), v6("::1");
    v4.answer_a("h", {"10.0.0.1"});
    v6.answer_aaaa("h", {"fd00::1"});
    v4.answer_srv("_sip._udp.h", {{1, 1, 9, "h"}, {2, 1, 9, "t.h"}}); // t.h completed by an address look-up
    v4.answer_a("t.h", {"10.0.0.2"});
    const DNS_SERVER_S first = ip("10.0.0.8"), second = ip("fd00::9"), empty = ip("0.0.0.0");
    const DNS_SERVER_S list[] = {empty, first, second};
    const DNS_SRV_RR_S rec = srv_record();
    const uint32_t ttl = 300;
    // Outputs shared by the rows; each call sets its count first.
    DNS_IPADDR_S a[10];
    DNS_IPADDR_STR_S t[3];
    DNS_SERVER_S s[3];
    DNS_SRV_RR_S r[2];
    DNS_SRV_RR_STR_S rs[2];
    const auto srv_callback = [](DNS_SRV_ASYN_S *, DNS_SRV_RR_S *, uint32_t, void *c, uint32_t) -> uint32_t {
        return ++*static_cast<cbs *>(c), 0;
    };
    uint32_t n = 0, m = 0;
    const auto cached = [] { files(), (void)DNS_SetIpToCache("h", 300, ip("10.0.0.7")); };
    const auto no_v4_file = [] { files(), (void)std::remove("/var/orvdns.cache"); };
    const auto no_srv_file = [] { files(), (void)std::remove("/var/orvdnssrv.cache"); };
    const auto async = [](uint32_t type) {
        return [type](cbs &c) { return ORV_NETB_DnsGetIpByAsynResolve("h", type, 1, sweep_callback, &c); };
    };
    const sweep_row rows[] = {
        {"async A", files, async(0), true},
        {"async both", files, async(2), true},
        {"async both, A cached", cached, async(2), true},
        {"async A, cached", cached, async(0), true},
        {"service async", files,
         [&](cbs &c) { return ORV_NETB_DnsGetSrvByAsynResolve("sip", "udp", "h", 1, 4, srv_callback, &c); }, true},
        {"service blocking", files, [&](cbs &) { return n = 2, ORV_NETB_DnsGetSrvBySynResolve("sip", "udp", "h", r, &n); }},
        {"service text", files, [&](cbs &) { return n = 2, vek_dns_get_srv_resolve_syn("sip", "udp", "h", rs, &n); }},
        {"blocking both", files, [&](cbs &) { return n = 10, ORV_NETB_DnsGetIpBySynResolve("h", 2, a, &n); }},
        {"text", files, [&](cbs &) { return n = 3, vek_dns_get_ip_resolve_syn("h", 1, t, &n); }},
        {"set config", files, [&](cbs &) { return ORV_NETB_DnsSetConfig(0x1E, &first, &second, 7, 60); },
         false, [&] { (void)DNS_SetServer(1, &first); }},
        {"set config, delete first", files,
         [&](cbs &) { return ORV_NETB_DnsSetConfig(0x6, &empty, &second, 0, 0); }, false,
         [&] { (void)DNS_SetServer(1, &empty); }},
        {"get config", files, [&](cbs &) { return ORV_NETB_DnsGetConfig(0x1E, &s[0], &s[1], &n, &m); }},
        {"set server list", files, [&](cbs &) { return ORV_NETB_SetServer(list, 3); }, false,
         [&] { (void)DNS_SetServer(1, &first); }},
        {"get server list", files, [&](cbs &) { return ORV_NETB_GetServer(s, 3, &n); }},
        {"address file, replace oldest", files,
         [](cbs &) { return DNS_SetIpToFileCache("n", 6, ip("10.0.0.3")); }},
        {"address file, append", files, [](cbs &) { return DNS_SetIpToFileCache("n", 6, ip("fd00::3")); }},
        {"address file, create", no_v4_file,
         [](cbs &) { return DNS_SetIpToFileCache("n", 6, ip("10.0.0.3")); }},
        {"address file, look-up", files,
         [&](cbs &) { return a[0].ulType = 0, DNS_GetIpFromFileCache("h", a, &n); }},
        {"service file, store", files,
         [&](cbs &) { return DNS_SetSrvToFileCache("_t._udp.h", &rec, 1, &ttl); }},
        {"service file, create", no_srv_file,
         [&](cbs &) { return DNS_SetSrvToFileCache("_t._udp.h", &rec, 1, &ttl); }},
        {"service file, look-up", files,
         [&](cbs &) { return n = 2, DNS_GetSrvFromFileCache("_s._udp.h", r, &n); }},
        {"cache parameters", files, [](cbs &) { return DNS_SetCache(3, 4, "/var/orvdnsaaaa.cache"); }},
        {"file copy", files,
         [](cbs &) { return DNS_CopyOneFileToAnother("/var/orvdns.cache", "/var/orvdnsaaaa.cache"); }},
        {"named semaphore", files,
         [](cbs &) {
             void *h = nullptr;
             uint32_t ret = DNS_SemOpen(&h);
             ret = ret != 0 ? ret : DNS_SemWait(&h);
             ret = ret != 0 ? ret : DNS_SemPost(&h);
             return ret != 0 ? ret : DNS_SemClose(&h);
         }},
        {"lock", files,
         [](cbs &) {
             sem_t l;
             uint32_t ret = DNS_InitLock(&l);
             if (ret == 0) {
                 ret = DNS_Lock(&l) == 0 ? DNS_UnLock(&l) : DNS_ERR_SEM;
                 ret = DNS_DestoryLock(&l) == 0 ? ret : DNS_ERR_SEM;
             }
             return ret;
         }},
    };
    for (const sweep_row &row : rows) {
        sweep(row);
    }
}

} // namespace
