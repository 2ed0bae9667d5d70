// Address cache files: internal helper shared with the tests.
#pragma once

#include <cstdint>

#include "vek_dns.h"

// Clears the 128-byte line buffer and formats one record line of the family's
// file ("%s %u %u %u\n" IPv4, "%s %s %u %u\n" IPv6) stamped with the current
// time; any other family leaves the buffer empty. 0x26040021 when the IPv6
// address cannot be turned into text. Not exported.
uint32_t dnsFormatCacheRecord(const char *pszName, char *pszBuf, uint32_t ulTtl, DNS_IPADDR_S stIpAddr);
