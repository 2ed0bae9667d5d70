/* An application built against an installed vek_dns: the header compiles,
 * both libraries link and load. */
#include <stdio.h>
#include <vek_dns.h>

int main(void) {
    char version[64];
    char masked[64];
    if (ORV_NETB_DNS_GetVersion(version, sizeof(version)) != DNS_OK ||
        vek_filter_ipaddr_str("192.0.2.10", masked, sizeof(masked)) != 0) {
        return 1;
    }
    printf("%s %s\n", version, masked);
    return 0;
}
