// The three memory caches (A, AAAA, SRV answers) and the façade the resolve
// calls reach them through.
//
// Each cache is a circular doubly linked list behind a data-less sentinel,
// newest entry first, guarded by its own unnamed semaphore (the inner lock).
// Every caller of the façade holds the named semaphore (the outer lock) around
// its calls: that is what makes the lazy creation of a head, the full test
// before eviction and the destruction of the heads safe.
#include <cerrno>
#include <cstdint>
#include <initializer_list>
#include <pthread.h>

#include "base/memory.h"
#include "base/secure.h"
#include "vek_dns_ops.h"
#include "vek_os_adapter.h"

namespace {

constexpr uint32_t default_max_number = 32;
constexpr uint32_t default_max_time = 86400; // one day
constexpr uint32_t ttl_use_max_time = 0xFFFFFFFFu;

inline uint32_t age_limit(const DNS_CACHE_HEAD_S *head, uint32_t ttl) {
    return ttl == ttl_use_max_time ? head->ulMaxTime : ttl;
}

// Alive while the age in whole seconds (unsigned, so a clock set back behind
// the stamp reads as very old) is at most the limit.
inline bool is_live(const DNS_CACHE_HEAD_S *head, const DNS_CACHE_ITEM_S *item, uint32_t ttl) {
    return PAL_GetSysTimeSec() - item->ulTimeStamp <= age_limit(head, ttl);
}

inline void unlink_item(DNS_CACHE_ITEM_S *item) {
    if (item->pstPrev != nullptr) {
        item->pstPrev->pstNext = item->pstNext;
    }
    if (item->pstNext != nullptr) {
        item->pstNext->pstPrev = item->pstPrev;
    }
    item->pstNext = nullptr;
    item->pstPrev = nullptr;
}

// Destroys an entry met during a walk and keeps the count in step.
inline void drop_item(DNS_CACHE_HEAD_S *head, DNS_CACHE_ITEM_S *item) {
    dnsDestoryCacheItem(item);
    if (head->ulRecords != 0) {
        head->ulRecords--;
    }
}

} // namespace

extern "C" {

VEK_DNS_API DNS_CACHE_HEAD_S *pstDNSCache = nullptr;
VEK_DNS_API DNS_CACHE_HEAD_S *pstDNSAAAACache = nullptr;
VEK_DNS_API DNS_CACHE_HEAD_S *pstDNSSRVCache = nullptr;

} // extern "C"

namespace {

// A child forked while another thread is inside a cache must not inherit
// that cache's lock taken: fork waits until every cache lock is free (taken
// in prepare in the clean-up's order, SRV, A, AAAA; released in parent and
// child). g_heads_mutex keeps the heads from being created or destroyed
// meanwhile; it is taken before a cache lock, never after one.
pthread_mutex_t g_heads_mutex = PTHREAD_MUTEX_INITIALIZER;

// The semaphores are taken directly, not through the platform's wait: the
// handlers of the platform layer may run before these and hold its table.
void lock_caches_for_fork() {
    (void)pthread_mutex_lock(&g_heads_mutex);
    for (DNS_CACHE_HEAD_S *head : {pstDNSSRVCache, pstDNSCache, pstDNSAAAACache}) {
        while (head != nullptr && sem_wait(head->pstSem) != 0 && errno == EINTR) {
        }
    }
}

void unlock_caches_after_fork() {
    for (DNS_CACHE_HEAD_S *head : {pstDNSSRVCache, pstDNSCache, pstDNSAAAACache}) {
        if (head != nullptr) {
            (void)sem_post(head->pstSem);
        }
    }
    (void)pthread_mutex_unlock(&g_heads_mutex);
}

const int g_cache_atfork =
    pthread_atfork(lock_caches_for_fork, unlock_caches_after_fork, unlock_caches_after_fork);

// Creates the head `*slot` when there is none yet.
void create_head_once(DNS_CACHE_HEAD_S **slot, DNS_TYPE_E type) {
    (void)pthread_mutex_lock(&g_heads_mutex);
    if (*slot == nullptr) {
        *slot = DNS_CreateCache(type, 0, 0);
    }
    (void)pthread_mutex_unlock(&g_heads_mutex);
}

} // namespace

extern "C" {

VEK_DNS_API DNS_CACHE_HEAD_S *DNS_CreateCache(DNS_TYPE_E enDNSType, uint32_t ulMaxNumber,
                                              uint32_t ulMaxTime) {
    if (enDNSType > DNS_SRV) {
        DNS_LOG(3, "enDNSType:%d", static_cast<int>(enDNSType));
        return nullptr;
    }
    auto *head = static_cast<DNS_CACHE_HEAD_S *>(VEK_MALLOC_ZERO(sizeof(DNS_CACHE_HEAD_S)));
    if (head == nullptr) {
        DNS_LOG(3, "pstCacheHead is null");
        return nullptr;
    }
    head->pstSem = static_cast<sem_t *>(VEK_MALLOC_ZERO(sizeof(sem_t)));
    if (head->pstSem == nullptr) {
        DNS_LOG(3, "pstCacheHead->pstSem is null");
        VEK_FREE(head);
        return nullptr;
    }
    head->pstCacheFirst = static_cast<DNS_CACHE_ITEM_S *>(VEK_MALLOC_ZERO(sizeof(DNS_CACHE_ITEM_S)));
    if (head->pstCacheFirst == nullptr) {
        DNS_LOG(3, "pstCacheHead->pstCacheFirst is null");
        VEK_FREE(head->pstSem);
        VEK_FREE(head);
        return nullptr;
    }
    head->pstCacheFirst->pstNext = head->pstCacheFirst;
    head->pstCacheFirst->pstPrev = head->pstCacheFirst;

    uint32_t ret = DNS_InitLock(head->pstSem);
    if (ret != DNS_OK) {
        DNS_LOG(3, "DNS Init Lock Faile lRet:%d", static_cast<int>(ret));
        VEK_FREE(head->pstCacheFirst);
        VEK_FREE(head->pstSem);
        VEK_FREE(head);
        return nullptr;
    }
    head->enDNSType = enDNSType;
    head->ulMaxNumber = ulMaxNumber == 0 ? default_max_number : ulMaxNumber;
    head->ulMaxTime = ulMaxTime == 0 ? default_max_time : ulMaxTime;
    head->ulRecords = 0;
    return head;
}

VEK_DNS_API void dnsDestoryCacheItem(DNS_CACHE_ITEM_S *pstItem) {
    if (pstItem == nullptr) {
        return;
    }
    unlink_item(pstItem);
    if (pstItem->pstSrvRR != nullptr) {
        VEK_FREE(pstItem->pstSrvRR);
    }
    if (pstItem->pulTtl != nullptr) {
        VEK_FREE(pstItem->pulTtl);
    }
    if (pstItem->pszName != nullptr) {
        VEK_FREE(pstItem->pszName);
    }
    VEK_FREE(pstItem);
}

VEK_DNS_API void dnsDestoryCacheItemList(DNS_CACHE_ITEM_S *pstCacheFirst) {
    if (pstCacheFirst == nullptr) {
        return;
    }
    DNS_CACHE_ITEM_S *item = pstCacheFirst->pstNext;
    while (item != nullptr && item != pstCacheFirst) {
        DNS_CACHE_ITEM_S *next = item->pstNext;
        dnsDestoryCacheItem(item);
        item = next;
    }
    VEK_FREE(pstCacheFirst);
}

VEK_DNS_API void DNS_DestoryCache(DNS_CACHE_HEAD_S **ppstCacheHead) {
    if (ppstCacheHead == nullptr) {
        return;
    }
    (void)pthread_mutex_lock(&g_heads_mutex);
    DNS_CACHE_HEAD_S *head = *ppstCacheHead;
    if (head == nullptr) {
        (void)pthread_mutex_unlock(&g_heads_mutex);
        return;
    }
    sem_t *sem = head->pstSem;
    (void)DNS_Lock(sem);
    dnsDestoryCacheItemList(head->pstCacheFirst);
    VEK_FREE(head);
    *ppstCacheHead = nullptr;
    (void)DNS_UnLock(sem);
    (void)DNS_DestoryLock(sem);
    VEK_FREE(sem);
    (void)pthread_mutex_unlock(&g_heads_mutex);
}

VEK_DNS_API DNS_CACHE_HEAD_S *dnsGetCacheByType(DNS_TYPE_E enDNSType) {
    switch (enDNSType) {
    case DNS_A:
        return pstDNSCache;
    case DNS_AAAA:
        return pstDNSAAAACache;
    default:
        return nullptr;
    }
}

VEK_DNS_API DNS_CACHE_HEAD_S **DNS_GetCacheByType(DNS_TYPE_E enDNSType) {
    switch (enDNSType) {
    case DNS_A:
        return &pstDNSCache;
    case DNS_AAAA:
        return &pstDNSAAAACache;
    case DNS_SRV:
        return &pstDNSSRVCache;
    default:
        return nullptr;
    }
}

VEK_DNS_API DNS_CACHE_ITEM_S *dnsAddItemToCache(DNS_CACHE_HEAD_S *pstCacheHead, const char *pszName) {
    if (pstCacheHead == nullptr || pszName == nullptr || pstCacheHead->pstCacheFirst == nullptr) {
        return nullptr;
    }
    auto *item = static_cast<DNS_CACHE_ITEM_S *>(VEK_MALLOC_ZERO(sizeof(DNS_CACHE_ITEM_S)));
    if (item == nullptr) {
        return nullptr;
    }
    item->ulTimeStamp = PAL_GetSysTimeSec();
    item->pszName = VEK_STRDUP(pszName);
    if (item->pszName == nullptr) {
        VEK_FREE(item);
        return nullptr;
    }
    DNS_CACHE_ITEM_S *first = pstCacheHead->pstCacheFirst;
    item->pstNext = first->pstNext;
    item->pstPrev = first;
    first->pstNext->pstPrev = item;
    first->pstNext = item;
    return item;
}

VEK_DNS_API uint32_t dnsAddIPToCache(DNS_CACHE_HEAD_S *pstCacheHead, const char *pszName,
                                     const DNS_IPADDR_S *pstIpAddr, uint32_t ulTtl) {
    if (pszName == nullptr || pstIpAddr == nullptr || pstCacheHead == nullptr) {
        return DNS_ERR_PARA_INVALID;
    }
    (void)DNS_Lock(pstCacheHead->pstSem);
    DNS_CACHE_ITEM_S *item = dnsAddItemToCache(pstCacheHead, pszName);
    if (item == nullptr) {
        (void)DNS_UnLock(pstCacheHead->pstSem);
        return DNS_ERR_MEM_ALLOC;
    }
    switch (pstIpAddr->ulType) {
    case DNS_IP_TYPE_IPV4:
        item->unIpAddr.ulIpv4 = pstIpAddr->unIpAddr.ulIpv4;
        break;
    case DNS_IP_TYPE_IPV6:
        (void)memcpy_s(item->unIpAddr.aucIpv6, sizeof(item->unIpAddr.aucIpv6),
                       pstIpAddr->unIpAddr.aucIpv6, sizeof(pstIpAddr->unIpAddr.aucIpv6));
        break;
    default:
        dnsDestoryCacheItem(item);
        (void)DNS_UnLock(pstCacheHead->pstSem);
        return DNS_ERR_IP_TYPE;
    }
    item->ulTtl = ulTtl;
    pstCacheHead->ulRecords++;
    (void)DNS_UnLock(pstCacheHead->pstSem);
    return DNS_OK;
}

VEK_DNS_API uint32_t dnsSetCacheRecordToHost(const DNS_CACHE_ITEM_S *pstItem, DNS_IPADDR_S *pstIpAddr) {
    if (pstItem == nullptr || pstIpAddr == nullptr) {
        return DNS_ERR_PARA_INVALID;
    }
    switch (pstIpAddr->ulType) {
    case DNS_IP_TYPE_IPV4:
        pstIpAddr->unIpAddr.ulIpv4 = pstItem->unIpAddr.ulIpv4;
        return DNS_OK;
    case DNS_IP_TYPE_IPV6:
        (void)memcpy_s(pstIpAddr->unIpAddr.aucIpv6, sizeof(pstIpAddr->unIpAddr.aucIpv6),
                       pstItem->unIpAddr.aucIpv6, sizeof(pstItem->unIpAddr.aucIpv6));
        return DNS_OK;
    default:
        return DNS_ERR_IP_TYPE;
    }
}

VEK_DNS_API uint32_t dnsAddSRVToCache(DNS_CACHE_HEAD_S *pstCacheHead, const char *pszName,
                                      const DNS_SRV_RR_S *pstSrvRR, uint32_t ulSrvNum,
                                      const uint32_t *pulTtl) {
    // The TTL array is required as well: reading ulSrvNum values from a null
    // array is no option.
    if (pstCacheHead == nullptr || pszName == nullptr || pstSrvRR == nullptr || ulSrvNum == 0 ||
        pulTtl == nullptr) {
        return DNS_ERR_PARA_INVALID;
    }
    (void)DNS_Lock(pstCacheHead->pstSem);
    DNS_CACHE_ITEM_S *item = dnsAddItemToCache(pstCacheHead, pszName);
    if (item == nullptr) {
        (void)DNS_UnLock(pstCacheHead->pstSem);
        return DNS_ERR_MEM_ALLOC;
    }
    const size_t rr_bytes = sizeof(DNS_SRV_RR_S) * ulSrvNum;
    const size_t ttl_bytes = sizeof(uint32_t) * ulSrvNum;
    item->pstSrvRR = static_cast<DNS_SRV_RR_S *>(VEK_MALLOC_ZERO(rr_bytes));
    if (item->pstSrvRR != nullptr) {
        (void)memcpy_s(item->pstSrvRR, rr_bytes, pstSrvRR, rr_bytes);
        item->ulSrvNum = ulSrvNum;
    }
    item->pulTtl = static_cast<uint32_t *>(VEK_MALLOC_ZERO(ttl_bytes));
    if (item->pulTtl != nullptr) {
        (void)memcpy_s(item->pulTtl, ttl_bytes, pulTtl, ttl_bytes);
    }
    if (item->pstSrvRR == nullptr || item->pulTtl == nullptr) {
        dnsDestoryCacheItem(item);
        (void)DNS_UnLock(pstCacheHead->pstSem);
        return DNS_ERR_NO_MEMORY;
    }
    pstCacheHead->ulRecords++;
    (void)DNS_UnLock(pstCacheHead->pstSem);
    return DNS_OK;
}

VEK_DNS_API void dnsDelOldestRecord(DNS_CACHE_HEAD_S *pstCacheHead) {
    if (pstCacheHead == nullptr || pstCacheHead->pstCacheFirst == nullptr) {
        return;
    }
    (void)DNS_Lock(pstCacheHead->pstSem);
    uint32_t min_stamp = PAL_GetSysTimeSec();
    DNS_CACHE_ITEM_S *first = pstCacheHead->pstCacheFirst;
    DNS_CACHE_ITEM_S *oldest = nullptr;
    // Strictly smaller: among equal stamps the first met (the newest of them)
    // wins, and entries of the current second are never taken.
    for (DNS_CACHE_ITEM_S *item = first->pstNext; item != first; item = item->pstNext) {
        if (item->ulTimeStamp < min_stamp) {
            min_stamp = item->ulTimeStamp;
            oldest = item;
        }
    }
    if (oldest != nullptr) {
        drop_item(pstCacheHead, oldest);
    }
    (void)DNS_UnLock(pstCacheHead->pstSem);
}

VEK_DNS_API uint32_t DNS_SetIpToMemCache(const char *pszName, uint32_t ulTtl, DNS_IPADDR_S stIpAddr) {
    if (stIpAddr.ulType == DNS_IP_TYPE_IPV4 && pstDNSCache == nullptr) {
        create_head_once(&pstDNSCache, DNS_A);
    } else if (stIpAddr.ulType == DNS_IP_TYPE_IPV6 && pstDNSAAAACache == nullptr) {
        create_head_once(&pstDNSAAAACache, DNS_AAAA);
    }
    DNS_CACHE_HEAD_S *head = dnsGetCacheByType(stIpAddr.ulType);
    if (head == nullptr) {
        return DNS_ERR_IP_TYPE;
    }
    if (head->ulRecords >= head->ulMaxNumber) {
        dnsDelOldestRecord(head);
    }
    return dnsAddIPToCache(head, pszName, &stIpAddr, ulTtl);
}

VEK_DNS_API uint32_t DNS_GetIpFromMemCache(const char *pszName, DNS_IPADDR_S *pstIpAddr,
                                           uint32_t *pulNum) {
    DNS_LOG(5, "DNS Get Ip From MemCache");
    if (pszName == nullptr || pstIpAddr == nullptr || pulNum == nullptr) {
        DNS_LOG(3, "DNS_GetIpFromMemCache param is null");
        return DNS_ERR_PARA_INVALID;
    }
    DNS_CACHE_HEAD_S *head = dnsGetCacheByType(pstIpAddr[0].ulType);
    if (head == nullptr) {
        DNS_LOG(3, "dnsGetCacheByType failed");
        return DNS_ERR_IP_TYPE;
    }

    uint32_t found = 0;
    (void)DNS_Lock(head->pstSem);
    DNS_CACHE_ITEM_S *first = head->pstCacheFirst;
    DNS_CACHE_ITEM_S *item = first->pstNext;
    while (item != first) {
        DNS_CACHE_ITEM_S *next = item->pstNext;
        if (PAL_StrCmp(item->pszName, pszName) == 0) {
            if (!is_live(head, item, item->ulTtl)) {
                drop_item(head, item);
            } else {
                pstIpAddr[found].ulType = head->enDNSType;
                (void)dnsSetCacheRecordToHost(item, &pstIpAddr[found]);
                if (++found == DNS_MAX_IP_NUM) {
                    break;
                }
            }
        }
        item = next;
    }
    (void)DNS_UnLock(head->pstSem);
    if (found == 0) {
        return DNS_ERR_CACHE_MISS;
    }
    *pulNum = found;
    return DNS_OK;
}

VEK_DNS_API uint32_t DNS_SetSrvToMemCache(const char *pszName, const DNS_SRV_RR_S *pstSrvRR,
                                          uint32_t ulSrvNum, const uint32_t *pulTtl) {
    if (pstDNSSRVCache == nullptr) {
        create_head_once(&pstDNSSRVCache, DNS_SRV);
        if (pstDNSSRVCache == nullptr) {
            DNS_LOG(3, "pstCacheHead is null");
            return DNS_ERR_MEM_ALLOC;
        }
    }
    DNS_CACHE_HEAD_S *head = pstDNSSRVCache;
    DNS_LOG(5, "ulRecords:%d, ulMaxNumber:%d", static_cast<int>(head->ulRecords),
            static_cast<int>(head->ulMaxNumber));
    if (head->ulRecords >= head->ulMaxNumber) {
        dnsDelOldestRecord(head);
    }
    return dnsAddSRVToCache(head, pszName, pstSrvRR, ulSrvNum, pulTtl);
}

VEK_DNS_API uint32_t DNS_GetSrvFromMemCache(const char *pszName, DNS_SRV_RR_S *pstSrvRR,
                                            uint32_t *pulSrvNum) {
    DNS_LOG(5, "DNS Get Srv From MemCache ");
    if (pszName == nullptr || pstSrvRR == nullptr || pulSrvNum == nullptr) {
        DNS_LOG(3, "DNS_GetSrvFromMemCache param is invalid");
        return DNS_ERR_PARA_INVALID;
    }
    DNS_CACHE_HEAD_S *head = pstDNSSRVCache;
    if (head == nullptr) {
        DNS_LOG(3, "DNS_GetSrvFromMemCache pstCacheHead is null");
        return DNS_ERR_MEM_ALLOC;
    }

    (void)DNS_Lock(head->pstSem);
    DNS_CACHE_ITEM_S *first = head->pstCacheFirst;
    DNS_CACHE_ITEM_S *item = first->pstNext;
    while (item != first) {
        DNS_CACHE_ITEM_S *next = item->pstNext;
        if (PAL_StrCmp(item->pszName, pszName) == 0) {
            uint32_t live = 0;
            for (uint32_t i = 0; i < item->ulSrvNum; i++) {
                if (is_live(head, item, item->pulTtl[i])) {
                    live++;
                }
            }
            if (live == item->ulSrvNum) {
                // Served whole, cut only to the caller's room.
                uint32_t copy = item->ulSrvNum < *pulSrvNum ? item->ulSrvNum : *pulSrvNum;
                const size_t bytes = sizeof(DNS_SRV_RR_S) * copy;
                errno_t err = copy == 0 ? 0 : memcpy_s(pstSrvRR, bytes, item->pstSrvRR, bytes);
                *pulSrvNum = copy;
                (void)DNS_UnLock(head->pstSem);
                if (err != 0) {
                    DNS_LOG(3, "secure func return fail! err = %d", err);
                }
                return DNS_OK;
            }
            drop_item(head, item);
        }
        item = next;
    }
    (void)DNS_UnLock(head->pstSem);
    return DNS_ERR_SRV_NOT_FOUND;
}

VEK_DNS_API uint32_t DNS_GetIpFromCache(const char *pszName, DNS_IPADDR_S *pstIpAddr, uint32_t *pulNum) {
    return DNS_GetIpFromMemCache(pszName, pstIpAddr, pulNum);
}

VEK_DNS_API uint32_t DNS_SetIpToCache(const char *pszName, uint32_t ulTtl, DNS_IPADDR_S stIpAddr) {
    return DNS_SetIpToMemCache(pszName, ulTtl, stIpAddr);
}

VEK_DNS_API uint32_t DNS_SetSrvToCache(const char *pszName, const DNS_SRV_RR_S *pstSrvRR,
                                       uint32_t ulSrvNum, const uint32_t *pulTtl) {
    return DNS_SetSrvToMemCache(pszName, pstSrvRR, ulSrvNum, pulTtl);
}

VEK_DNS_API uint32_t DNS_GetSrvFromCache(const char *pszName, DNS_SRV_RR_S *pstSrvRR,
                                         uint32_t *pulSrvNum) {
    return DNS_GetSrvFromMemCache(pszName, pstSrvRR, pulSrvNum);
}

VEK_DNS_API void ORV_NETB_DnsCleanBuffer(void) {
    void *sem = nullptr;
    if (DNS_SemOpen(&sem) != DNS_OK) {
        return;
    }
    (void)DNS_SemWait(&sem);
    DNS_LOG(5, "Start Dns Clean Buffer");
    DNS_LOG(5, "Destory DNS_SRV cache");
    DNS_DestoryCache(&pstDNSSRVCache);
    DNS_LOG(5, "Destory DNS_A cache");
    DNS_DestoryCache(&pstDNSCache);
    DNS_LOG(5, "Destory DNS_AAAA cache");
    DNS_DestoryCache(&pstDNSAAAACache);
    DNS_LOG(5, "Dns Clean Buffer End");
    (void)DNS_SemPost(&sem);
    (void)DNS_SemClose(&sem);
}

} // extern "C"
