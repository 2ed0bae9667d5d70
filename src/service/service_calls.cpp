// The exported service calls: asynchronous (one worker per request: SRV
// memory cache, else the query driver; target completion; cache store),
// blocking (the same request, run on the calling thread), and blocking with
// the addresses as text.
#include <cstring>

#include "base/secure_log.h"
#include "base/memory.h"
#include "base/secure.h"
#include "base/sem_guard.h"
#include "base/worker_pool.h"
#include "service/service_internal.h"
#include "vek_os_adapter.h"

namespace {

using vekdns::service::max_records;

constexpr int32_t syn_timeout_sec = 3;
constexpr uint32_t syn_max_reported = 12;
constexpr int inet6_family = 10; // AF_INET6, as the adapter takes it
constexpr uint32_t ip_text_size = sizeof(DNS_SRV_RR_STR_S::acIpAddr);
constexpr uint32_t target_size = sizeof(DNS_SRV_RR_STR_S::szTarget);

using vekdns::log_secure_failure;

// One service request on its worker: owns the request, the record and TTL
// arrays and the output list, and frees them all when it goes.
class srv_work {
public:
    explicit srv_work(DNS_SRV_ASYN_S *req) : req_(req), capacity_(req->ulRRCount) {}
    ~srv_work() {
        if (list_live_) {
            DNS_ListUninit(&list_);
        }
        if (rr_ != nullptr) {
            VEK_FREE(rr_);
        }
        if (ttls_ != nullptr) {
            VEK_FREE(ttls_);
        }
        VEK_FREE(req_);
    }
    srv_work(const srv_work &) = delete;
    srv_work &operator=(const srv_work &) = delete;

    // The request's outcome; on success the records are rr()[0 .. *count).
    uint32_t run(uint32_t *count);
    DNS_SRV_RR_S *rr() const { return rr_; }

private:
    uint32_t look_up_cache(uint32_t *count);
    uint32_t query(uint32_t *count);
    uint32_t store(uint32_t count);

    DNS_SRV_ASYN_S *req_;
    const uint32_t capacity_;
    DNS_SRV_RR_S *rr_ = nullptr;
    uint32_t *ttls_ = nullptr;
    DNS_LIST_S list_{};
    bool list_live_ = false;
};

uint32_t srv_work::run(uint32_t *count) {
    rr_ = static_cast<DNS_SRV_RR_S *>(VEK_MALLOC_ZERO(sizeof(DNS_SRV_RR_S) * size_t{capacity_}));
    // The driver fills up to 10 TTLs whatever the caller's capacity.
    const uint32_t ttl_room = capacity_ > max_records ? capacity_ : max_records;
    ttls_ = static_cast<uint32_t *>(VEK_MALLOC_ZERO(sizeof(uint32_t) * size_t{ttl_room}));
    if (rr_ == nullptr || ttls_ == nullptr) {
        return DNS_ERR_NO_MEMORY;
    }
    uint32_t ret = look_up_cache(count);
    if (ret == DNS_OK) {
        // A cache hit is completed again but not stored back.
        vekdns::service::complete_targets(rr_, nullptr, count, capacity_);
        return *count != 0 ? DNS_OK : DNS_ERR_SRV_NOT_FOUND;
    }
    if (ret == DNS_ERR_SEM) {
        return ret;
    }
    ret = query(count);
    if (ret != DNS_OK) {
        return ret;
    }
    vekdns::service::complete_targets(rr_, ttls_, count, capacity_);
    if (*count == 0) {
        DNS_LOG(3, "DNS_SrvNoIpRemoveTarget leave no record.");
        return DNS_ERR_SRV_NOT_FOUND;
    }
    return store(*count);
}

// 0 with *count records on a hit; DNS_ERR_SEM when the lock is missing.
uint32_t srv_work::look_up_cache(uint32_t *count) {
    vekdns::named_sem_section section;
    if (!section.is_open()) {
        return DNS_ERR_SEM;
    }
    *count = capacity_;
    const uint32_t ret = DNS_GetSrvFromCache(req_->szName, rr_, count);
    DNS_LOG(5, "DNS_GetSrvFromCache lRet: %x pstSrvAsyn->ulRRCount: %d", ret, static_cast<int>(*count));
    if (ret != DNS_OK || *count == 0) {
        *count = 0;
        return ret != DNS_OK ? ret : DNS_ERR_SRV_NOT_FOUND;
    }
    return DNS_OK;
}

// Runs the driver and copies at most the capacity of records out of its
// list, in list order.
uint32_t srv_work::query(uint32_t *count) {
    if (DNS_ListInit(&list_) != DNS_OK) {
        return DNS_ERR_SRV_LIST_CREATE;
    }
    list_live_ = true;
    uint32_t found = 0;
    const uint32_t ret = DNS_SrvQuery(req_->szName, req_->ulTimeOutSec, &found, &list_, ttls_);
    DNS_LOG(5, "DNS_SrvQuery lRet: %x pstSrvAsyn->ulRRCount: %d", ret, static_cast<int>(found));
    if (ret != DNS_OK) {
        DNS_LOG(2, "dns server query failed!\r\n");
        return ret;
    }
    const uint32_t size = DNS_ListGetSize(&list_);
    const uint32_t n = size < capacity_ ? size : capacity_;
    for (uint32_t i = 0; i < n; ++i) {
        void *elem = nullptr;
        const uint32_t got = DNS_ListGetElem(&list_, i, &elem);
        if (got != DNS_OK) {
            DNS_LOG(3, "DNS_ListGetElem i:%d lRet: %x ", static_cast<int>(i), got);
            return got;
        }
        log_secure_failure(memcpy_s(&rr_[i], sizeof(DNS_SRV_RR_S), elem, sizeof(DNS_SRV_RR_S)));
    }
    *count = n;
    return DNS_OK;
}

uint32_t srv_work::store(uint32_t count) {
    vekdns::named_sem_section section;
    if (!section.is_open()) {
        DNS_LOG(3, "DNS_SemOpen faile,lSemRet:%d", static_cast<int>(section.open_result()));
        return section.open_result();
    }
    const uint32_t ret = DNS_SetSrvToCache(req_->szName, rr_, count, ttls_);
    if (ret != DNS_OK) {
        DNS_LOG(2, "set server to cache failed!\r\n");
    }
    return ret;
}

void run_request(void *req) { (void)DNS_SrvAsynThread(req); }

// The blocking call's completion: copies the records and releases the lock.
// The count never exceeds the capacity the blocking call handed in.
uint32_t syn_srv_done(DNS_SRV_ASYN_S *req, DNS_SRV_RR_S *rr, uint32_t count, void *user, uint32_t ret) {
    (void)req;
    auto *res = static_cast<DNS_SRV_RESULT_S *>(user);
    if (ret == DNS_OK && count != 0 && rr != nullptr) {
        for (uint32_t i = 0; i < count; ++i) {
            log_secure_failure(memcpy_s(&res->pstRR[i], sizeof(DNS_SRV_RR_S), &rr[i], sizeof(DNS_SRV_RR_S)));
        }
        res->ulRRCount = count;
        res->lRet = 0;
    } else {
        res->ulRRCount = 0;
        res->lRet = static_cast<int32_t>(ret);
    }
    // The waiting caller may return as soon as this post lands.
    sem_t *lock = res->pstLock;
    while (DNS_UnLock(lock) != DNS_OK) {
    }
    return DNS_OK;
}

void render(const DNS_SRV_RR_S &rr, DNS_SRV_RR_STR_S *out) {
    out->ulType = rr.stAddr.ulType;
    if (rr.stAddr.ulType == DNS_IP_TYPE_IPV4) {
        const char *text = PAL_InetNtoa(rr.stAddr.unIpAddr.ulIpv4);
        log_secure_failure(text != nullptr ? strcpy_s(out->acIpAddr, ip_text_size, text) : VEK_SECURE_EINVAL);
    } else if (rr.stAddr.ulType == DNS_IP_TYPE_IPV6) {
        (void)PAL_Inet_Ntop(inet6_family, rr.stAddr.unIpAddr.aucIpv6, out->acIpAddr, ip_text_size);
    } else {
        DNS_LOG(2, "UNKNOW ip type");
    }
    out->usPriority = rr.usPriority;
    out->usWeight = rr.usWeight;
    out->usPort = rr.usPort;
    log_secure_failure(strcpy_s(out->szTarget, target_size, rr.szTarget));
}

using vekdns::lock_until_taken;
using vekdns::detail::run_on;

uint32_t accept_request(const char *pszService, const char *pszProto, const char *pszDomain,
                        int32_t ulTimeOutSec, int32_t ulRRCount, DNS_SRV_CALLBACK_PFN pfnCallback,
                        void *pUserData, run_on where) {
    if (pszService == nullptr || pszProto == nullptr || pszDomain == nullptr) {
        return DNS_ERR_SRV_NAME;
    }
    DNS_LOG(5, "Get Dns_Srv By Asynchronous Resolve");
    DNS_LOG(5, "pszService:%s, pszProto:%s", pszService, pszProto);
    if (pfnCallback == nullptr || ulTimeOutSec < 0 || ulRRCount < 1) {
        DNS_LOG(3, "param invalid,ulTimeOutSec=%d, ulRRCount=%d", static_cast<int>(ulTimeOutSec),
                static_cast<int>(ulRRCount));
        return DNS_ERR_PARA_INVALID;
    }
    auto *req = static_cast<DNS_SRV_ASYN_S *>(VEK_MALLOC_ZERO(sizeof(DNS_SRV_ASYN_S)));
    if (req == nullptr) {
        return DNS_ERR_NO_MEMORY;
    }
    const uint32_t ret = DNS_SrvBuildName(pszService, pszProto, pszDomain, req->szName, sizeof(req->szName));
    if (ret != DNS_OK) {
        DNS_LOG(2, "build dns server name failed!\r\n");
        VEK_FREE(req);
        return ret;
    }
    req->ulRRCount = static_cast<uint32_t>(ulRRCount);
    req->ulTimeOutSec = static_cast<uint32_t>(ulTimeOutSec);
    req->pfnCallback = pfnCallback;
    req->pUserData = pUserData;
    if (where == run_on::caller) {
        (void)DNS_SrvAsynThread(req);
        return DNS_OK;
    }
    if (!vekdns::detail::start_worker(run_request, req)) {
        VEK_FREE(req);
        DNS_LOG(3, "PAL_PthreadCreate fail.lRet is %d", -1);
        return DNS_ERR_CREATE_THREAD;
    }
    return DNS_OK;
}

} // namespace

extern "C" {

VEK_DNS_API uint32_t ORV_NETB_DnsGetSrvByAsynResolve(const char *pszService, const char *pszProto,
                                                     const char *pszDomain, int32_t ulTimeOutSec,
                                                     int32_t ulRRCount, DNS_SRV_CALLBACK_PFN pfnCallback,
                                                     void *pUserData) {
    return accept_request(pszService, pszProto, pszDomain, ulTimeOutSec, ulRRCount, pfnCallback, pUserData,
                          run_on::worker);
}

VEK_DNS_API void *DNS_SrvAsynThread(void *pstSrvAsyn) {
    DNS_LOG(5, "Entern DNS_Srv Asynchronous Thread");
    auto *req = static_cast<DNS_SRV_ASYN_S *>(pstSrvAsyn);
    if (req == nullptr) {
        DNS_LOG(3, "DNS_SrvAsynThread pvArg null");
        return nullptr;
    }
    // One exit: every accepted request reports exactly once, then the work
    // frees the request and its arrays.
    srv_work work(req);
    uint32_t count = 0;
    const uint32_t ret = work.run(&count);
    if (ret != DNS_OK) {
        count = 0;
    }
    req->ulRRCount = count;
    (void)req->pfnCallback(req, ret == DNS_OK ? work.rr() : nullptr, count, req->pUserData, ret);
    return nullptr;
}

VEK_DNS_API uint32_t ORV_NETB_DnsGetSrvBySynResolve(const char *pszService, const char *pszProto,
                                                    const char *pszDomain, DNS_SRV_RR_S *pstRR,
                                                    uint32_t *pulRRCount) {
    if (pszService == nullptr || pszProto == nullptr || pszDomain == nullptr) {
        return DNS_ERR_SRV_NAME;
    }
    DNS_LOG(6, "Entern ORV_NETB_DnsGetSrvBySynResolve");
    DNS_LOG(6, "pszService:%s", pszService);
    DNS_LOG(6, "pszProto:%s", pszProto);
    if (pulRRCount == nullptr) {
        DNS_LOG(3, "ORV_NETB_DnsGetSrvBySynResolve param pulRRCount is null");
        return DNS_ERR_PARA_INVALID;
    }
    // The capacity travels as a signed count: above that it is refused.
    if (*pulRRCount == 0 || *pulRRCount > 0x7FFFFFFFu || pstRR == nullptr) {
        DNS_LOG(3, "ORV_NETB_DnsGetSrvBySynResolve param invalid *pulRRCount :%d", static_cast<int>(*pulRRCount));
        return DNS_ERR_PARA_INVALID;
    }
    sem_t lock;
    const uint32_t init_ret = DNS_InitLock(&lock);
    if (init_ret != DNS_OK) {
        *pulRRCount = 0;
        return init_ret; // waiting on a lock that could not be made would never end
    }
    DNS_SRV_RESULT_S res{pstRR, 0xFFFFFFFFu, 0, &lock};
    lock_until_taken(&lock);
    const uint32_t ret = accept_request(pszService, pszProto, pszDomain, syn_timeout_sec,
                                        static_cast<int32_t>(*pulRRCount), syn_srv_done, &res, run_on::caller);
    if (ret != DNS_OK) {
        DNS_LOG(3, "ORV_NETB_DnsGetSrvByAsynResolve  lRet: %x", ret);
        (void)DNS_UnLock(&lock);
        (void)DNS_DestoryLock(&lock);
        return ret;
    }
    lock_until_taken(&lock); // released by syn_srv_done
    (void)DNS_UnLock(&lock);
    (void)DNS_DestoryLock(&lock);
    DNS_LOG(6, "ORV_NETB_DnsGetSrvByAsynResolve  Success stSrvAsynRet.ulRRCount: %d, stSrvAsynRet.lRet: %x",
            static_cast<int>(res.ulRRCount), static_cast<uint32_t>(res.lRet));
    if (res.ulRRCount == 0 || res.lRet != 0) {
        *pulRRCount = 0;
    } else {
        *pulRRCount = res.ulRRCount < syn_max_reported ? res.ulRRCount : syn_max_reported;
    }
    return static_cast<uint32_t>(res.lRet);
}

VEK_DNS_API uint32_t vek_dns_get_srv_resolve_syn(const char *pszService, const char *pszProto,
                                                 const char *pszDomain, DNS_SRV_RR_STR_S *pstRRStr,
                                                 uint32_t *pulRRCount) {
    if (pulRRCount == nullptr || static_cast<int32_t>(*pulRRCount) <= 0 || pstRRStr == nullptr) {
        DNS_LOG(2, "inputting parameter error!\r\n");
        return 1;
    }
    auto *rr = static_cast<DNS_SRV_RR_S *>(VEK_MALLOC_ZERO(sizeof(DNS_SRV_RR_S) * size_t{*pulRRCount}));
    if (rr == nullptr) {
        DNS_LOG(2, "alloc memory failed!\r\n");
        return 1;
    }
    uint32_t count = *pulRRCount;
    const uint32_t ret = ORV_NETB_DnsGetSrvBySynResolve(pszService, pszProto, pszDomain, rr, &count);
    if (ret != DNS_OK) {
        DNS_LOG(2, "ORV_NETB_DnsGetSrvBySynResolve failed,lRet = %d", static_cast<int>(ret));
        VEK_FREE(rr);
        return ret;
    }
    for (uint32_t i = 0; i < count; ++i) {
        render(rr[i], &pstRRStr[i]);
    }
    VEK_FREE(rr);
    *pulRRCount = count;
    return DNS_OK;
}

} // extern "C"
