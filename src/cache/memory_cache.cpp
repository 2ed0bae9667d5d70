// The three memory caches (A, AAAA, SRV answers) and the façade the resolve
// calls reach them through.
//
// Each cache is a circular doubly linked list behind a data-less sentinel,
// newest entry first, guarded by its own unnamed semaphore (the inner lock).
// Every caller of the façade holds the named semaphore (the outer lock) around
// its calls: that is what makes the lazy creation of a head, the full test
// before eviction and the destruction of the heads safe.
//
// Beside each list runs an index (below), so that a look-up and a store stay
// O(1) when a burst of one second grows a cache far past its 32 entries: a
// hash of the names, and what eviction needs to answer without a walk. The
// index never decides anything the list walk would decide differently.
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

// ---- the index of one cache list ------------------------------------------
//
// Keyed by the list's sentinel (the public records keep their layout), kept
// in a small registry. Nodes live in one array with a free list and chain the
// entries of a bucket; a store links its node at the front of its chain, so
// the entries of one name come out of a chain in list order, newest first.
// The arrays grow by doubling and are freed with the list; the index is made
// at the first store into a list and changed only under the head's lock, like
// the list itself.
//
// Eviction: while `sorted` holds (stamps never increase from the newest entry
// to the oldest, which is what a clock that does not run back gives), the
// entries with the smallest stamp are the run at the tail, and the one to
// evict is the newest of that run, `candidate`, found once by walking the run
// backwards and then followed as entries leave. "Nothing to evict" is then a
// look at the tail. A store stamped before the newest entry (the clock went
// back) clears `sorted`, and eviction walks the whole list as before until a
// walk sees the order hold again.

constexpr uint32_t no_node = 0xFFFFFFFFu;
constexpr uint32_t first_capacity = 64; // nodes and buckets of a new index

struct index_node {
    DNS_CACHE_ITEM_S *item;
    uint32_t hash;
    uint32_t next; // next node of the chain, or of the free list
};

struct cache_index {
    const DNS_CACHE_ITEM_S *sentinel;
    cache_index *next_index; // registry chain
    uint32_t *buckets;       // bucket_mask + 1 chain heads
    uint32_t bucket_mask;
    index_node *nodes;
    uint32_t capacity;
    uint32_t free_node;
    uint32_t used;
    bool sorted;
    DNS_CACHE_ITEM_S *candidate; // while sorted: the entry eviction takes, or null (not known yet)
};

pthread_mutex_t g_index_mutex = PTHREAD_MUTEX_INITIALIZER;
cache_index *g_indexes = nullptr; // guarded by g_index_mutex

uint32_t name_hash(const char *name) {
    uint32_t h = 2166136261u; // FNV-1a
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(name); *p != 0; ++p) {
        h = (h ^ *p) * 16777619u;
    }
    return h;
}

cache_index *index_of(const DNS_CACHE_ITEM_S *sentinel) {
    (void)pthread_mutex_lock(&g_index_mutex);
    cache_index *idx = g_indexes;
    while (idx != nullptr && idx->sentinel != sentinel) {
        idx = idx->next_index;
    }
    (void)pthread_mutex_unlock(&g_index_mutex);
    return idx;
}

// Links nodes [from, capacity) into the free list.
void free_nodes_from(cache_index *idx, uint32_t from) {
    for (uint32_t n = idx->capacity; n-- > from;) {
        idx->nodes[n].next = idx->free_node;
        idx->free_node = n;
    }
}

cache_index *index_create(const DNS_CACHE_ITEM_S *sentinel) {
    auto *idx = static_cast<cache_index *>(VEK_MALLOC_ZERO(sizeof(cache_index)));
    if (idx == nullptr) {
        return nullptr;
    }
    idx->buckets = static_cast<uint32_t *>(VEK_MALLOC(sizeof(uint32_t) * first_capacity));
    idx->nodes = static_cast<index_node *>(VEK_MALLOC(sizeof(index_node) * first_capacity));
    if (idx->buckets == nullptr || idx->nodes == nullptr) {
        VEK_FREE(idx->buckets);
        VEK_FREE(idx->nodes);
        VEK_FREE(idx);
        return nullptr;
    }
    for (uint32_t b = 0; b < first_capacity; ++b) {
        idx->buckets[b] = no_node;
    }
    idx->bucket_mask = first_capacity - 1;
    idx->capacity = first_capacity;
    idx->free_node = no_node;
    free_nodes_from(idx, 0);
    idx->sentinel = sentinel;
    idx->sorted = true;
    (void)pthread_mutex_lock(&g_index_mutex);
    idx->next_index = g_indexes;
    g_indexes = idx;
    (void)pthread_mutex_unlock(&g_index_mutex);
    return idx;
}

// Takes the index of `sentinel` out of the registry and frees it.
void index_destroy(const DNS_CACHE_ITEM_S *sentinel) {
    (void)pthread_mutex_lock(&g_index_mutex);
    cache_index **pp = &g_indexes;
    while (*pp != nullptr && (*pp)->sentinel != sentinel) {
        pp = &(*pp)->next_index;
    }
    cache_index *idx = *pp;
    if (idx != nullptr) {
        *pp = idx->next_index;
    }
    (void)pthread_mutex_unlock(&g_index_mutex);
    if (idx != nullptr) {
        VEK_FREE(idx->buckets);
        VEK_FREE(idx->nodes);
        VEK_FREE(idx);
    }
}

// Makes sure a node is free for the next insert; false when memory runs out.
bool index_reserve(cache_index *idx) {
    if (idx->free_node != no_node) {
        return true;
    }
    const uint32_t grown = idx->capacity * 2;
    auto *nodes = static_cast<index_node *>(VEK_MALLOC(sizeof(index_node) * grown));
    if (nodes == nullptr) {
        return false;
    }
    (void)memcpy_s(nodes, sizeof(index_node) * grown, idx->nodes, sizeof(index_node) * idx->capacity);
    VEK_FREE(idx->nodes);
    idx->nodes = nodes;
    const uint32_t old = idx->capacity;
    idx->capacity = grown;
    free_nodes_from(idx, old);
    return true;
}

// Doubles the buckets; each chain splits in two, keeping its order. Without
// memory the chains just stay longer.
void index_rehash(cache_index *idx) {
    const uint32_t count = idx->bucket_mask + 1;
    auto *buckets = static_cast<uint32_t *>(VEK_MALLOC(sizeof(uint32_t) * count * 2));
    if (buckets == nullptr) {
        return;
    }
    for (uint32_t b = 0; b < count; ++b) {
        uint32_t *tail[2] = {&buckets[b], &buckets[b + count]};
        for (uint32_t n = idx->buckets[b]; n != no_node; n = idx->nodes[n].next) {
            uint32_t **t = &tail[(idx->nodes[n].hash & count) != 0 ? 1 : 0];
            **t = n;
            *t = &idx->nodes[n].next;
        }
        *tail[0] = no_node;
        *tail[1] = no_node;
    }
    VEK_FREE(idx->buckets);
    idx->buckets = buckets;
    idx->bucket_mask = count * 2 - 1;
}

// `item` has just been linked in at the front of the list; a node is reserved.
void index_insert(cache_index *idx, DNS_CACHE_ITEM_S *item) {
    const uint32_t h = name_hash(item->pszName);
    const uint32_t n = idx->free_node;
    idx->free_node = idx->nodes[n].next;
    idx->nodes[n] = index_node{item, h, idx->buckets[h & idx->bucket_mask]};
    idx->buckets[h & idx->bucket_mask] = n;
    const DNS_CACHE_ITEM_S *older = item->pstNext;
    if (older == idx->sentinel) {
        idx->sorted = true; // alone in the list
        idx->candidate = nullptr;
    } else if (item->ulTimeStamp < older->ulTimeStamp) {
        idx->sorted = false;
        idx->candidate = nullptr;
    } else if (idx->candidate != nullptr && item->ulTimeStamp == idx->candidate->ulTimeStamp) {
        idx->candidate = item; // the whole list is one second: the newest of it goes first
    }
    if (++idx->used > idx->bucket_mask + 1) {
        index_rehash(idx);
    }
}

// `item` is about to be unlinked and destroyed.
void index_erase(cache_index *idx, DNS_CACHE_ITEM_S *item) {
    if (item->pszName == nullptr) {
        return; // never indexed
    }
    uint32_t *link = &idx->buckets[name_hash(item->pszName) & idx->bucket_mask];
    while (*link != no_node && idx->nodes[*link].item != item) {
        link = &idx->nodes[*link].next;
    }
    if (*link == no_node) {
        return;
    }
    const uint32_t n = *link;
    *link = idx->nodes[n].next;
    idx->nodes[n].next = idx->free_node;
    idx->free_node = n;
    if (idx->candidate == item) {
        const DNS_CACHE_ITEM_S *older = item->pstNext;
        idx->candidate =
            older != idx->sentinel && older->ulTimeStamp == item->ulTimeStamp ? item->pstNext : nullptr;
    }
    if (--idx->used == 0) {
        idx->sorted = true;
        idx->candidate = nullptr;
    }
}

// The next entry named `name` from the chain at *cursor, which moves past it
// (so the caller may destroy the entry it got); null at the end.
DNS_CACHE_ITEM_S *next_named(const cache_index *idx, uint32_t *cursor, uint32_t h, const char *name) {
    while (*cursor != no_node) {
        const index_node &node = idx->nodes[*cursor];
        *cursor = node.next;
        if (node.hash == h && PAL_StrCmp(node.item->pszName, name) == 0) {
            return node.item;
        }
    }
    return nullptr;
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

// Unlinks and frees an entry (the index is the caller's business).
void free_item(DNS_CACHE_ITEM_S *item) {
    unlink_item(item);
    if (item->pstSrvRR != nullptr) {
        VEK_FREE(item->pstSrvRR);
    }
    if (item->pulTtl != nullptr) {
        VEK_FREE(item->pulTtl);
    }
    if (item->pszName != nullptr) {
        VEK_FREE(item->pszName);
    }
    VEK_FREE(item);
}

// Destroys an entry of `head` (indexed by `idx` when not null) and keeps the
// count in step.
void drop_item(DNS_CACHE_HEAD_S *head, cache_index *idx, DNS_CACHE_ITEM_S *item) {
    if (idx != nullptr) {
        index_erase(idx, item);
    }
    free_item(item);
    if (head->ulRecords != 0) {
        head->ulRecords--;
    }
}

// Takes back an entry just made by dnsAddItemToCache (not counted yet).
void discard_new_item(const DNS_CACHE_HEAD_S *head, DNS_CACHE_ITEM_S *item) {
    if (cache_index *idx = index_of(head->pstCacheFirst); idx != nullptr) {
        index_erase(idx, item);
    }
    free_item(item);
}

// Calls visit(item) for the entries named `name`, newest first, until it
// gives false; visit may destroy the entry it was given through drop_item.
// A list without an index (nothing was ever stored through
// dnsAddItemToCache) is walked.
template <class Visit>
void for_each_named(const DNS_CACHE_HEAD_S *head, const cache_index *idx, const char *name, Visit visit) {
    if (idx != nullptr) {
        const uint32_t h = name_hash(name);
        uint32_t cursor = idx->buckets[h & idx->bucket_mask];
        for (DNS_CACHE_ITEM_S *item = next_named(idx, &cursor, h, name); item != nullptr;
             item = next_named(idx, &cursor, h, name)) {
            if (!visit(item)) {
                return;
            }
        }
        return;
    }
    DNS_CACHE_ITEM_S *first = head->pstCacheFirst;
    for (DNS_CACHE_ITEM_S *item = first->pstNext; item != first;) {
        DNS_CACHE_ITEM_S *next = item->pstNext;
        if (PAL_StrCmp(item->pszName, name) == 0 && !visit(item)) {
            return;
        }
        item = next;
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
    (void)pthread_mutex_lock(&g_index_mutex);
}

void unlock_caches_after_fork() {
    (void)pthread_mutex_unlock(&g_index_mutex);
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
    // Called from outside with an entry alone: its list's sentinel (the one
    // record without a name) tells which index holds it. The library's own
    // paths know the head and do not walk.
    const DNS_CACHE_ITEM_S *sentinel = pstItem->pstNext;
    while (sentinel != nullptr && sentinel != pstItem && sentinel->pszName != nullptr) {
        sentinel = sentinel->pstNext;
    }
    cache_index *idx = sentinel != nullptr && sentinel != pstItem ? index_of(sentinel) : nullptr;
    if (idx != nullptr) {
        index_erase(idx, pstItem);
    }
    free_item(pstItem);
}

VEK_DNS_API void dnsDestoryCacheItemList(DNS_CACHE_ITEM_S *pstCacheFirst) {
    if (pstCacheFirst == nullptr) {
        return;
    }
    index_destroy(pstCacheFirst);
    DNS_CACHE_ITEM_S *item = pstCacheFirst->pstNext;
    while (item != nullptr && item != pstCacheFirst) {
        DNS_CACHE_ITEM_S *next = item->pstNext;
        free_item(item);
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
    // The index node is had first: once linked, the entry is in the index.
    cache_index *idx = index_of(pstCacheHead->pstCacheFirst);
    if (idx == nullptr) {
        idx = index_create(pstCacheHead->pstCacheFirst);
    }
    if (idx == nullptr || !index_reserve(idx)) {
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
    index_insert(idx, item);
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
        discard_new_item(pstCacheHead, item);
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
        discard_new_item(pstCacheHead, item);
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
    cache_index *idx = index_of(first);
    if (idx != nullptr && idx->sorted) {
        // The smallest stamps are the run at the tail; its newest goes.
        const DNS_CACHE_ITEM_S *tail = first->pstPrev;
        if (tail != first && tail->ulTimeStamp < min_stamp) {
            if (idx->candidate == nullptr) {
                DNS_CACHE_ITEM_S *run = first->pstPrev;
                while (run->pstPrev != first && run->pstPrev->ulTimeStamp == tail->ulTimeStamp) {
                    run = run->pstPrev;
                }
                idx->candidate = run;
            }
            oldest = idx->candidate;
        }
    } else {
        // Strictly smaller: among equal stamps the first met (the newest of
        // them) wins, and entries of the current second are never taken.
        bool sorted = true;
        for (DNS_CACHE_ITEM_S *item = first->pstNext; item != first; item = item->pstNext) {
            if (item->ulTimeStamp < min_stamp) {
                min_stamp = item->ulTimeStamp;
                oldest = item;
            }
            sorted = sorted && (item->pstNext == first || item->pstNext->ulTimeStamp <= item->ulTimeStamp);
        }
        if (idx != nullptr && sorted) {
            idx->sorted = true;
            idx->candidate = nullptr;
        }
    }
    if (oldest != nullptr) {
        drop_item(pstCacheHead, idx, oldest);
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
    cache_index *idx = index_of(head->pstCacheFirst);
    for_each_named(head, idx, pszName, [&](DNS_CACHE_ITEM_S *item) {
        if (!is_live(head, item, item->ulTtl)) {
            drop_item(head, idx, item);
            return true;
        }
        pstIpAddr[found].ulType = head->enDNSType;
        (void)dnsSetCacheRecordToHost(item, &pstIpAddr[found]);
        return ++found < DNS_MAX_IP_NUM;
    });
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
    cache_index *idx = index_of(head->pstCacheFirst);
    bool served = false;
    errno_t err = 0;
    for_each_named(head, idx, pszName, [&](DNS_CACHE_ITEM_S *item) {
        uint32_t live = 0;
        for (uint32_t i = 0; i < item->ulSrvNum; i++) {
            if (is_live(head, item, item->pulTtl[i])) {
                live++;
            }
        }
        if (live != item->ulSrvNum) {
            drop_item(head, idx, item);
            return true;
        }
        // Served whole, cut only to the caller's room.
        uint32_t copy = item->ulSrvNum < *pulSrvNum ? item->ulSrvNum : *pulSrvNum;
        const size_t bytes = sizeof(DNS_SRV_RR_S) * copy;
        err = copy == 0 ? 0 : memcpy_s(pstSrvRR, bytes, item->pstSrvRR, bytes);
        *pulSrvNum = copy;
        served = true;
        return false;
    });
    (void)DNS_UnLock(head->pstSem);
    if (!served) {
        return DNS_ERR_SRV_NOT_FOUND;
    }
    if (err != 0) {
        DNS_LOG(3, "secure func return fail! err = %d", err);
    }
    return DNS_OK;
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
