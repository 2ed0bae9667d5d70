// The service cache file, read and written, over any file content.
#include <arpa/inet.h>
#include <cstring>

#include "fuzz_support.h"

VEK_FUZZ_IN_SANDBOX

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    vekdns::test::write_file("/var/orvdnssrv.cache", vekdns::fuzz::text(data, size));
    DNS_SRV_RR_S found[4] = {};
    uint32_t count = 1 + (size % 4);
    const uint32_t capacity = count;
    if (DNS_GetSrvFromFileCache("_sip._udp.h", found, &count) == DNS_OK) {
        vekdns::fuzz::check(count <= capacity);
    }
    DNS_SRV_RR_S rec = {};
    std::strcpy(rec.szTarget, "t.h");
    rec.usPort = 5060;
    rec.stAddr.ulType = DNS_IP_TYPE_IPV4;
    rec.stAddr.unIpAddr.ulIpv4 = inet_addr("10.0.0.2");
    const uint32_t ttl = 300;
    (void)DNS_SetSrvToFileCache("_sip._udp.h", &rec, 1, &ttl);
    vekdns::fuzz::check_clean();
    return 0;
}
