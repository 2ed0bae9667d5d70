// The address reply reader over one received datagram, and the name walker.
#include "address/wire_internal.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using vekdns::fuzz::check;
    ORV_NETB_DnsRegisterLogFunc(vekdns::fuzz::drop_line);
    DNS_IPADDR_S addrs[DNS_MAX_IP_NUM] = {};
    uint32_t ttls[DNS_MAX_IP_NUM] = {};
    uint32_t count = 0;
    const uint32_t ret = vekdns::detail::take_reply({data, size}, addrs, &count, DNS_MAX_IP_NUM, ttls);
    check(count <= DNS_MAX_IP_NUM && (ret == 0) == (count != 0));
    for (uint32_t i = 0; i < count; ++i) {
        check(addrs[i].ulType == DNS_IP_TYPE_IPV4 || addrs[i].ulType == DNS_IP_TYPE_IPV6);
    }
    const uint8_t *behind = DNS_ParseRecord(data, static_cast<uint32_t>(size));
    check(behind == nullptr || (behind > data && behind <= data + size));
    return 0;
}
