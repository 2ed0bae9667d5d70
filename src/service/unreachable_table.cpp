// Name servers that let a service query's reply wait run out: later service
// queries of the process skip them until the table is cleaned.
#include <cstring>
#include <pthread.h>

#include "base/secure.h"
#include "service/service_internal.h"
#include "vek_os_adapter.h"

namespace {

constexpr int inet6_family = 10; // AF_INET6, as the adapter takes it

// Workers record and check, the caller's thread cleans, all at once: one
// mutex around the three operations keeps every entry whole.
pthread_mutex_t g_table_mutex = PTHREAD_MUTEX_INITIALIZER;

struct table_lock {
    table_lock() { (void)pthread_mutex_lock(&g_table_mutex); }
    ~table_lock() { (void)pthread_mutex_unlock(&g_table_mutex); }
    table_lock(const table_lock &) = delete;
    table_lock &operator=(const table_lock &) = delete;
};

// An entry matches a candidate of n characters when its first n characters
// are the candidate's (a prefix match of the entry).
bool entry_matches(const char *entry, const char *text, size_t n) {
    return PAL_StrNCmp(entry, text, n) == 0;
}

} // namespace

namespace vekdns::service {

void server_text(const DNS_IPADDR_S *server, char (&text)[ip_text_size]) {
    std::memset(text, 0, sizeof(text));
    if (server->ulType == DNS_IP_TYPE_IPV4) {
        (void)PAL_Inet_Ntop(2, &server->unIpAddr.ulIpv4, text, ip_text_size);
    } else if (server->ulType == DNS_IP_TYPE_IPV6) {
        (void)PAL_Inet_Ntop(inet6_family, server->unIpAddr.aucIpv6, text, ip_text_size);
    }
}

} // namespace vekdns::service

extern "C" {

VEK_DNS_API char g_dnsServer[DNS_SRV_UNREACHABLE_NUM][DNS_SRV_IP_TEXT_SIZE] = {};

VEK_DNS_API uint32_t DNS_SrvIPUnReachableJudge(const char *pszIp, uint32_t ulLen) {
    table_lock lock;
    for (const auto &entry : g_dnsServer) {
        if (entry_matches(entry, pszIp, ulLen)) {
            return 0;
        }
    }
    return 1;
}

VEK_DNS_API void Dns_SrvIPSet(const DNS_IPADDR_S *pstServer, const char *pszName) {
    DNS_LOG(3, "timeout pszName: %s", pszName);
    if (PAL_StrStr(pszName, "_ldap") != nullptr) {
        return; // LDAP service servers are never recorded
    }
    char text[vekdns::service::ip_text_size];
    vekdns::service::server_text(pstServer, text);
    const size_t len = PAL_StrLen(text);
    table_lock lock;
    for (auto &entry : g_dnsServer) {
        if (entry_matches(entry, text, len)) {
            return; // already recorded
        }
        if (entry[0] == '\0') {
            const errno_t err = strncpy_s(entry, DNS_SRV_IP_TEXT_SIZE, text, DNS_SRV_IP_TEXT_SIZE - 1);
            if (err == 0) {
                return;
            }
            DNS_LOG(3, "strncpy_s return fail! err = %d", err);
        }
    }
    // All 8 in use: the server stays queryable.
}

VEK_DNS_API uint32_t ORV_NETB_DnsUnReachableIPClean(void) {
    table_lock lock;
    return static_cast<uint32_t>(memset_s(g_dnsServer, sizeof(g_dnsServer), 0, sizeof(g_dnsServer)));
}

} // extern "C"
