// Fuzz target of the SRV reply reader: each input is one datagram, sent
// through a socket pair and read with DNS_SrvRead into a fresh list.
#include <cstddef>
#include <cstdint>
#include <sys/socket.h>
#include <unistd.h>

#include "vek_dns_ops.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool quiet = (ORV_NETB_DnsSetLogLevel(0), true);
    (void)quiet;
    int fds[2];
    if (size > 2048 || socketpair(AF_UNIX, SOCK_DGRAM, 0, fds) != 0) {
        return 0;
    }
    if (send(fds[1], data, size, 0) == static_cast<ssize_t>(size)) {
        DNS_LIST_S list;
        if (DNS_ListInit(&list) == DNS_OK) {
            static uint8_t buf[2048];
            uint32_t ttls[10] = {};
            uint32_t count = 0;
            const int32_t sock = fds[0];
            (void)DNS_SrvRead(&sock, buf, sizeof(buf), &count, &list, ttls);
            if (count > 10 || DNS_ListGetSize(&list) > 10) {
                __builtin_trap();
            }
            DNS_ListUninit(&list);
        }
    }
    close(fds[0]);
    close(fds[1]);
    return 0;
}
