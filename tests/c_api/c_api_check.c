/* The public headers as C11, linked against the shared libraries. Calls only
 * what sends nothing on the network. */
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "vek_dns.h"
#include "vek_dns_ops.h"
#include "vek_os_adapter.h"

_Static_assert(sizeof(DNS_IPADDR_S) == 24 && offsetof(DNS_IPADDR_S, unIpAddr) == 8, "DNS_IPADDR_S layout");
_Static_assert(sizeof(DNS_SRV_RR_S) == 296 && offsetof(DNS_SRV_RR_S, stAddr) == 264 &&
                   offsetof(DNS_SRV_RR_S, usPort) == 288,
               "DNS_SRV_RR_S layout");
_Static_assert(offsetof(DNS_LIST_S, ulSize) == 12, "DNS_LIST_S layout");
_Static_assert(offsetof(DNS_SRV_RR_STR_S, ulType) == 260 && offsetof(DNS_SRV_RR_STR_S, usPort) == 304,
               "DNS_SRV_RR_STR_S layout");
_Static_assert(offsetof(DNS_SRV_ASYN_S, pfnCallback) == 256 && offsetof(DNS_SRV_ASYN_S, pUserData) == 272,
               "DNS_SRV_ASYN_S layout");

static int g_lines;
static void sink(const char *line) {
    g_lines += line != NULL;
}

int main(void) {
    char version[64];
    vek_dns_register_log_func(sink);
    vek_dns_set_log_level(5);
    DNS_LOG(5, "c caller %d", 1);
    DNS_LOG(6, "not emitted");
    vek_dns_register_log_func(NULL);
    void *block = PAL_MemTypeMallocS(16, 0, 0, __LINE__, __FILE__);
    PAL_MemTypeFreeD(block, 0, __LINE__, __FILE__);
    if (ORV_NETB_DNS_GetVersion(version, sizeof(version)) != DNS_OK ||
        strcmp(version, "QUORIN DNS 100.001.01.013.SP02") != 0 || g_lines != 1 || block == NULL) {
        fprintf(stderr, "c api: version %s, %d log lines\n", version, g_lines);
        return 1;
    }
    return 0;
}
