// The two address cache files, read and written, over any file content.
#include <arpa/inet.h>

#include "fuzz_support.h"

VEK_FUZZ_IN_SANDBOX

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using vekdns::fuzz::check;
    const std::string input = vekdns::fuzz::text(data, size);
    DNS_IPADDR_S v4 = {}, v6 = {};
    v4.ulType = DNS_IP_TYPE_IPV4;
    v4.unIpAddr.ulIpv4 = inet_addr("10.0.0.1");
    v6.ulType = DNS_IP_TYPE_IPV6;
    (void)inet_pton(AF_INET6, "fd00::1", v6.unIpAddr.aucIpv6);
    for (const DNS_IPADDR_S &addr : {v4, v6}) {
        vekdns::test::write_file(
            addr.ulType == DNS_IP_TYPE_IPV4 ? "/var/orvdns.cache" : "/var/orvdnsaaaa.cache", input);
        DNS_IPADDR_S found[DNS_MAX_IP_NUM] = {};
        found[0].ulType = addr.ulType;
        uint32_t count = 0;
        if (DNS_GetIpFromFileCache("h", found, &count) == DNS_OK) {
            check(count >= 1 && count <= DNS_MAX_IP_NUM);
        }
        (void)DNS_SetIpToFileCache("h", 300, addr);
        (void)DNS_SetIpToFileCache(input.size() < 200 ? input.c_str() : "n", 0xFFFFFFFF, addr);
        vekdns::fuzz::check_clean();
    }
    return 0;
}
