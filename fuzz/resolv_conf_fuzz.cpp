// Name-server discovery and the server read-back over any resolver file.
#include <cstring>

#include "fuzz_support.h"

VEK_FUZZ_IN_SANDBOX

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using vekdns::fuzz::check;
    vekdns::test::set_resolv_conf(vekdns::fuzz::text(data, size));
    DNS_LOCAL_SERVER_S rec;
    std::memset(&rec, 0, sizeof(rec));
    if (DNS_LocateDnsServer(&rec) == DNS_OK) {
        check(rec.ulDnsServers != 0 && rec.pstDnsServer != nullptr);
    }
    const char *end = rec.szSearchDomain + sizeof(rec.szSearchDomain);
    for (const char *suffix : rec.apszSearchDomain) {
        check(suffix == nullptr ||
              (suffix >= rec.szSearchDomain && suffix < end && memchr(suffix, 0, end - suffix) != nullptr));
    }
    DNS_FreeLocalServer(&rec);
    DNS_SERVER_S server;
    (void)DNS_GetServer(1, &server);
    (void)DNS_GetServer(2, &server);
    vekdns::fuzz::check_clean();
    return 0;
}
