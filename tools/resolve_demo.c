/* Resolves the names given on the command line with the blocking calls and
 * prints the addresses. Written as an application would use the library.
 *
 * usage: vek_dns_demo [-4|-6|-b] name...
 *
 * Run it through scripts/demo.sh, which gives it a private network with a
 * local DNS server; it refuses to run where any interface but loopback exists. */
#include <arpa/inet.h>
#include <net/if.h>
#include <stdio.h>
#include <string.h>

#include "vek_dns.h"

static int only_loopback(void) {
    struct if_nameindex *ifs = if_nameindex();
    int ok = ifs != NULL;
    for (struct if_nameindex *i = ifs; ok && i->if_index != 0; ++i) {
        ok = strcmp(i->if_name, "lo") == 0;
    }
    if (ifs != NULL) {
        if_freenameindex(ifs);
    }
    return ok;
}

int main(int argc, char **argv) {
    if (!only_loopback()) {
        fprintf(stderr, "vek_dns_demo: refusing to run outside an isolated network (use scripts/demo.sh)\n");
        return 2;
    }
    uint32_t type = DNS_SEARCH_TYPE_BOTH;
    int first = 1;
    if (argc > 1 && argv[1][0] == '-') {
        type = strcmp(argv[1], "-4") == 0 ? DNS_SEARCH_TYPE_A
               : strcmp(argv[1], "-6") == 0 ? DNS_SEARCH_TYPE_AAAA
                                            : DNS_SEARCH_TYPE_BOTH;
        first = 2;
    }
    vek_dns_set_log_level(1); /* quiet */
    int failures = 0;
    for (int i = first; i < argc; ++i) {
        DNS_IPADDR_STR_S addrs[DNS_MAX_IP_NUM];
        uint32_t count = DNS_MAX_IP_NUM;
        uint32_t ret = vek_dns_get_ip_resolve_syn(argv[i], type, addrs, &count);
        if (ret != DNS_OK) {
            printf("%-24s error 0x%08X\n", argv[i], ret);
            ++failures;
            continue;
        }
        printf("%-24s", argv[i]);
        for (uint32_t k = 0; k < count; ++k) {
            printf(" %s", addrs[k].acIpAddr);
        }
        printf("\n");
    }
    return failures == 0 ? 0 : 1;
}
