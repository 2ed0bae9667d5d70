// Completing the addresses of service records before they are handed out:
// targets written as address texts, targets without an address, IPv6-only
// targets, and finally the records still without an address are dropped.
#include <cstring>

#include "base/secure_log.h"
#include "base/secure.h"
#include "service/service_internal.h"
#include "vek_os_adapter.h"

namespace {

constexpr int inet6_family = 10; // AF_INET6, as the adapter takes it
constexpr size_t max_ipv4_text = 16;

using vekdns::log_secure_failure;

bool has_addr(const DNS_SRV_RR_S &rr) {
    return rr.stAddr.ulType != DNS_IP_TYPE_IPV4 || rr.stAddr.unIpAddr.ulIpv4 != 0;
}

// Blocking address resolve of `target`; the number found (0 on failure).
uint32_t resolve(const char *target, uint32_t type, DNS_IPADDR_S (&found)[DNS_MAX_IP_NUM]) {
    std::memset(found, 0, sizeof(found));
    uint32_t n = DNS_MAX_IP_NUM;
    if (ORV_NETB_DnsGetIpBySynResolve(target, type, found, &n) != DNS_OK) {
        return 0;
    }
    return n < DNS_MAX_IP_NUM ? n : DNS_MAX_IP_NUM;
}

// Appends a copy of record `from` with `addr` while there is room; the copy
// takes the TTL of the record it copies.
void append_copy(DNS_SRV_RR_S *rr, uint32_t *ttls, uint32_t *count, uint32_t capacity, uint32_t from,
                 const DNS_IPADDR_S &addr) {
    if (*count >= capacity) {
        return;
    }
    rr[*count] = rr[from];
    log_secure_failure(memcpy_s(&rr[*count].stAddr, sizeof(DNS_IPADDR_S), &addr, sizeof(addr)));
    if (ttls != nullptr) {
        ttls[*count] = ttls[from];
    }
    ++*count;
}

void no_ip_get_ip(DNS_SRV_RR_S *rr, uint32_t *ttls, uint32_t *count, uint32_t capacity) {
    const uint32_t entry = *count;
    DNS_IPADDR_S found[DNS_MAX_IP_NUM];
    for (uint32_t i = 0; i < entry; ++i) {
        if (has_addr(rr[i]) || rr[i].szTarget[0] == '\0') {
            continue;
        }
        const uint32_t n = resolve(rr[i].szTarget, DNS_SEARCH_TYPE_BOTH, found);
        if (n == 0) {
            continue;
        }
        log_secure_failure(memcpy_s(&rr[i].stAddr, sizeof(DNS_IPADDR_S), &found[0], sizeof(found[0])));
        for (uint32_t k = 1; k < n; ++k) {
            append_copy(rr, ttls, count, capacity, i, found[k]);
        }
    }
}

void no_ipv4_get_ip(DNS_SRV_RR_S *rr, uint32_t *ttls, uint32_t *count, uint32_t capacity) {
    const uint32_t entry = *count;
    DNS_IPADDR_S found[DNS_MAX_IP_NUM];
    uint32_t i = 0;
    while (i < entry) {
        if (!has_addr(rr[i])) {
            ++i;
            continue;
        }
        bool only_v6 = rr[i].stAddr.ulType == DNS_IP_TYPE_IPV6;
        uint32_t end = i + 1;
        for (; end < entry && PAL_StrCmp(rr[end].szTarget, rr[i].szTarget) == 0; ++end) {
            only_v6 = only_v6 && rr[end].stAddr.ulType == DNS_IP_TYPE_IPV6;
        }
        if (only_v6) {
            const uint32_t n = resolve(rr[i].szTarget, DNS_SEARCH_TYPE_A, found);
            for (uint32_t k = 0; k < n; ++k) {
                append_copy(rr, ttls, count, capacity, end - 1, found[k]);
            }
        }
        i = end;
    }
}

// Drops the records with a target but no address; a removed record takes
// its TTL along.
void remove_no_ip(DNS_SRV_RR_S *rr, uint32_t *ttls, uint32_t *count) {
    uint32_t i = 0;
    while (i < *count) {
        if (has_addr(rr[i]) || rr[i].szTarget[0] == '\0') {
            ++i;
            continue;
        }
        const uint32_t behind = *count - i - 1;
        log_secure_failure(memmove_s(&rr[i], sizeof(DNS_SRV_RR_S) * (behind + 1), &rr[i + 1],
                                     sizeof(DNS_SRV_RR_S) * behind));
        std::memset(&rr[*count - 1], 0, sizeof(DNS_SRV_RR_S));
        if (ttls != nullptr) {
            std::memmove(&ttls[i], &ttls[i + 1], sizeof(uint32_t) * behind);
            ttls[*count - 1] = 0;
        }
        --*count;
    }
}

} // namespace

namespace vekdns::service {

void complete_targets(DNS_SRV_RR_S *rr, uint32_t *ttls, uint32_t *count, uint32_t capacity) {
    DNS_SrvTargetIsIp(rr, *count);
    if (*count == 0 || capacity == 0) {
        return;
    }
    no_ip_get_ip(rr, ttls, count, capacity);
    no_ipv4_get_ip(rr, ttls, count, capacity);
    remove_no_ip(rr, ttls, count);
}

} // namespace vekdns::service

extern "C" {

VEK_DNS_API void DNS_SrvTargetIsIp(DNS_SRV_RR_S *pstRR, uint32_t ulCount) {
    if (pstRR == nullptr) {
        return;
    }
    for (uint32_t i = 0; i < ulCount; ++i) {
        DNS_SRV_RR_S &rr = pstRR[i];
        if (rr.stAddr.unIpAddr.ulIpv4 != 0 || rr.szTarget[0] == '\0') {
            continue;
        }
        const uint32_t v4 = PAL_InetAddr(rr.szTarget);
        if (v4 != 0xFFFFFFFFu && std::strlen(rr.szTarget) <= max_ipv4_text) {
            rr.stAddr.ulType = DNS_IP_TYPE_IPV4;
            rr.stAddr.unIpAddr.ulIpv4 = v4;
            continue;
        }
        uint8_t v6[16];
        if (PAL_Inet_Pton(inet6_family, rr.szTarget, v6) == 1) {
            rr.stAddr.ulType = DNS_IP_TYPE_IPV6;
            log_secure_failure(memcpy_s(rr.stAddr.unIpAddr.aucIpv6, sizeof(rr.stAddr.unIpAddr.aucIpv6), v6,
                                        sizeof(v6)));
        }
    }
}

VEK_DNS_API void DNS_SrvNoIpGetIp(DNS_SRV_RR_S *pstRR, uint32_t *pulCount, uint32_t ulCapacity) {
    if (pstRR != nullptr && pulCount != nullptr && ulCapacity != 0 && *pulCount != 0) {
        no_ip_get_ip(pstRR, nullptr, pulCount, ulCapacity);
    }
}

VEK_DNS_API void DNS_SrvNoIpv4GetIp(DNS_SRV_RR_S *pstRR, uint32_t *pulCount, uint32_t ulCapacity) {
    if (pstRR != nullptr && pulCount != nullptr && ulCapacity != 0 && *pulCount != 0) {
        no_ipv4_get_ip(pstRR, nullptr, pulCount, ulCapacity);
    }
}

VEK_DNS_API void DNS_SrvNoIpRemoveTarget(DNS_SRV_RR_S *pstRR, uint32_t *pulCount, uint32_t ulCapacity) {
    if (pstRR != nullptr && pulCount != nullptr && ulCapacity != 0 && *pulCount != 0) {
        remove_no_ip(pstRR, nullptr, pulCount);
    }
}

} // extern "C"
