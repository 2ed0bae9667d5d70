// The configuration rewrite over any input file: the same text stands in
// for /etc/resolv.conf and the three cache files whose parameter lines are
// rewritten.
#include <arpa/inet.h>

#include "config/cache_params.h"
#include "fuzz_support.h"

VEK_FUZZ_IN_SANDBOX

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using vekdns::test::read_file;
    const std::string input = vekdns::fuzz::text(data, size);
    vekdns::test::set_resolv_conf(input);
    for (const char *path : {"/var/orvdns.cache", "/var/orvdnsaaaa.cache", "/var/orvdnssrv.cache"}) {
        vekdns::test::write_file(path, input);
    }
    DNS_SERVER_S first = {}, second = {};
    first.ulType = DNS_IP_TYPE_IPV4;
    first.unIpAddr.ulIpv4 = inet_addr(size % 3 == 0 ? "0.0.0.0" : "10.0.0.8");
    second.ulType = DNS_IP_TYPE_IPV6;
    (void)inet_pton(AF_INET6, "fd00::9", second.unIpAddr.aucIpv6);
    const uint32_t ret = ORV_NETB_DnsSetConfig(0x1E, &first, &second, 7, 60);
    vekdns::fuzz::check(ret != DNS_OK ||
                        read_file("/etc/resolv.conf").find("nameserver fd00::9\n") != std::string::npos);
    uint32_t number = 0, time = 0;
    (void)DNS_GetCache(&number, &time);
    vekdns::fuzz::check_clean();
    return 0;
}
