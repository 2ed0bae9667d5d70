// The two parameter lines at the head of each cache file ("maxnumber",
// "maxtime"), written and read for the configuration interface. Internal to
// the library: not exported. Callers hold the named semaphore.
#pragma once

#include <cstdint>

namespace vekdns {

inline constexpr uint32_t cache_default_max_number = 32;
inline constexpr uint32_t cache_default_max_time = 86400;

inline constexpr const char *ipv4_cache_path = "/var/orvdns.cache";
inline constexpr const char *ipv6_cache_path = "/var/orvdnsaaaa.cache";
inline constexpr const char *srv_cache_path = "/var/orvdnssrv.cache";
// Temporary file shared by the resolver-file rewrite, the parameter rewrite
// and the address cache files.
inline constexpr const char *resolv_temp_path = "/var/dnsresolv.tmp";

} // namespace vekdns

// Rewrites (or creates, mode 0640) the two parameter lines of one cache file;
// 0 stands for the default (32 records, 86400 seconds).
uint32_t DNS_SetCache(uint32_t ulMaxNumber, uint32_t ulMaxTime, const char *pszFile);
// Reads the parameters of the IPv4 address cache file; either pointer may be
// NULL (not both). A missing file reports the defaults.
uint32_t DNS_GetCache(uint32_t *pulRecordNum, uint32_t *pulTime);
