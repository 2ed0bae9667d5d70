// Service cache file: internal helpers shared with the tests. Not exported.
#pragma once

#include <cstdint>

#include "base/text_file.h"
#include "vek_dns.h"

// Reads the file from where it stands to its end: maxnumber and maxtime from
// the first two entry-head lines (values absent from the file leave their
// out-value untouched) and the number of entries (head lines minus the two
// parameter lines). 0x2604000C for a line without a first word or a
// parameter line without its value.
uint32_t DNS_SrvCacheGetInfo(vekdns::detail::text_file &file, uint32_t *pulMaxNum, uint32_t *pulMaxTime,
                             uint32_t *pulRecordNum);
// Formats the record line "tn: %s %u %u %u %u %s %u \n" into a 128-byte
// buffer; 0x26040017 when the address cannot be turned into text or the line
// would not fit.
uint32_t DNS_SrvCacheFormatTarget(const DNS_SRV_RR_S *pstSrvRR, char *pszBuf, uint32_t ulTtl);
// Parses one record line; either output may be NULL (the time to live is
// required only when asked for). 0x2604000C for a missing field, 0x26040022
// for an IPv6 text that cannot be converted.
uint32_t DNS_SrvCacheReadTarget(const char *pszLine, DNS_SRV_RR_S *pstSrvRR, uint32_t *pulTtl);
