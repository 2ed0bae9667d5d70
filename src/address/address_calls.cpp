// The exported address calls: asynchronous (memory cache first, else one
// worker per request), blocking (the same request, run on the calling
// thread), and blocking with the addresses as text.
#include "address/address_calls.h"
#include "base/worker_pool.h"

#include "base/memory.h"
#include "base/secure.h"
#include "base/secure_log.h"
#include "base/sem_guard.h"
#include "vek_dns_ops.h"
#include "vek_os_adapter.h"

namespace {

constexpr int32_t syn_timeout_sec = 3;
constexpr int inet6_family = 10; // AF_INET6, as the adapter takes it
constexpr uint32_t ip_text_size = sizeof(DNS_IPADDR_STR_S::acIpAddr);

using vekdns::log_secure_failure;

inline uint32_t min_u32(uint32_t a, uint32_t b) { return a < b ? a : b; }

// ---- worker steps ----

void run_request(void *req) { (void)DNS_AsynResolveThread(req); }

void free_request(DNS_ASYN_RESOLVE_S *req) {
    if (req->stHostName.pszName != nullptr) {
        VEK_FREE(req->stHostName.pszName);
    }
    VEK_FREE(req);
}

void report(const DNS_ASYN_RESOLVE_S *req, uint32_t ret, DNS_IPADDR_S *addrs, uint32_t count) {
    (void)req->fnCallback(ret, req->pszHostName, addrs, count, req->pUserData);
}

// Resolves what the request still needs into addrs/ttls (10 each). Returns the
// outcome and the number of addresses found in *found.
uint32_t resolve_request(DNS_ASYN_RESOLVE_S *req, DNS_IPADDR_S *addrs, uint32_t *ttls,
                         uint32_t *found) {
    const auto timeout = static_cast<uint32_t>(req->ulTimeOutSec);
    *found = 0;
    if (req->stHostName.ulType != DNS_SEARCH_TYPE_BOTH) {
        uint32_t count = DNS_MAX_IP_NUM;
        uint32_t ret = DNS_Resolve(&req->stHostName, addrs, &count, timeout, ttls);
        DNS_LOG(5, "DNS_Resolve ulRet: %d ulIpCount: %d", static_cast<int>(ret), static_cast<int>(count));
        // A rejected call leaves the count as it was: trust it only on success.
        *found = ret == DNS_OK ? min_u32(count, DNS_MAX_IP_NUM) : 0;
        return ret;
    }

    req->stHostName.ulType = DNS_SEARCH_TYPE_A;
    uint32_t count4 = DNS_MAX_IP_NUM;
    uint32_t ret4 = DNS_Resolve(&req->stHostName, addrs, &count4, timeout, ttls);
    DNS_LOG(5, "DNS_Resolve ulIpv4Ret: %d ulIpv4Count: %d", static_cast<int>(ret4), static_cast<int>(count4));
    const uint32_t found4 = ret4 == DNS_OK ? min_u32(count4, DNS_MAX_IP_NUM) : 0;

    req->stHostName.ulType = DNS_SEARCH_TYPE_AAAA;
    uint32_t count6 = 0;
    uint32_t ret6 = DNS_ERR_NOT_FOUND; // no room left: counts as failed, nothing asked
    if (found4 < DNS_MAX_IP_NUM) {
        count6 = DNS_MAX_IP_NUM - found4;
        ret6 = DNS_Resolve(&req->stHostName, addrs + found4, &count6, timeout, ttls + found4);
    }
    DNS_LOG(5, "DNS_Resolve ulIpv6Ret: %d ulIpv6Count: %d", static_cast<int>(ret6), static_cast<int>(count6));
    const uint32_t found6 = ret6 == DNS_OK ? min_u32(count6, DNS_MAX_IP_NUM - found4) : 0;

    if (ret4 != DNS_OK && ret6 != DNS_OK) {
        return ret4;
    }
    *found = found4 + found6;
    return DNS_OK;
}

// ---- blocking call --------------------------------------------------------------

struct syn_texts {
    const char *failure;
    const char *success;
};

using vekdns::lock_until_taken;
using vekdns::detail::run_on;

uint32_t accept_request(const char *name, uint32_t type, int32_t timeout, DNS_IP_CALLBACK_PFN callback,
                        void *user, run_on where);

// One request with dnsSynResolveCallback, run on this thread and waited for.
uint32_t run_syn_request(const char *name, uint32_t type, DNS_RESULT_S *res, sem_t *lock,
                         const syn_texts &texts) {
    (void)memset_s(res, sizeof(*res), 0, sizeof(*res));
    res->lIpNum = -1;
    res->pstLock = lock;

    lock_until_taken(lock);
    uint32_t ret = accept_request(name, type, syn_timeout_sec, dnsSynResolveCallback, res, run_on::caller);
    if (ret != DNS_OK) {
        DNS_LOG(3, texts.failure, ret);
        (void)DNS_UnLock(lock);
        return ret;
    }
    lock_until_taken(lock); // released by the completion function
    (void)DNS_UnLock(lock);
    DNS_LOG(5, texts.success, static_cast<int>(res->lIpNum));
    return DNS_OK;
}

inline uint32_t delivered(const DNS_RESULT_S &res) {
    return res.lIpNum > 0 ? min_u32(static_cast<uint32_t>(res.lIpNum), DNS_MAX_IP_NUM) : 0;
}

uint32_t accept_request(const char *pszHostName, uint32_t ulSearchType, int32_t ulTimeOutSec,
                        DNS_IP_CALLBACK_PFN pfnCallback, void *pUserData, run_on where) {
    DNS_IPADDR_S main_list[DNS_MAX_IP_NUM];
    DNS_IPADDR_S v6_list[DNS_MAX_IP_NUM];
    (void)memset_s(main_list, sizeof(main_list), 0, sizeof(main_list));
    (void)memset_s(v6_list, sizeof(v6_list), 0, sizeof(v6_list));
    uint32_t main_count = 0;
    uint32_t v6_count = 0;
    DNS_LOG(5, "Get Dns Ip By Asynchronous Resolve");
    DNS_LOG(5, "ulSearchType: %d, ulTimeOutSec: %d", static_cast<int>(ulSearchType),
            static_cast<int>(ulTimeOutSec));
    if (pszHostName == nullptr || pfnCallback == nullptr || ulTimeOutSec < 0 ||
        ulSearchType > DNS_SEARCH_TYPE_BOTH) {
        DNS_LOG(2, "inputting parameter error!\r\n");
        return DNS_ERR_PARA_INVALID;
    }
    if (dnsCheckHostName(pszHostName) != 0) {
        DNS_LOG(3, "Invalid domain name format.");
        return DNS_ERR_NAME_FORMAT;
    }

    // The callback takes a modifiable pointer; it must not write through it.
    char *caller_name = const_cast<char *>(pszHostName);
    uint32_t worker_type = ulSearchType;
    {
        vekdns::named_sem_section section;
        if (!section.is_open()) {
            DNS_LOG(3, "DNS_SemOpen faile,lSemRet:%d", static_cast<int>(section.open_result()));
            return section.open_result();
        }
        if (ulSearchType != DNS_SEARCH_TYPE_BOTH) {
            main_list[0].ulType = ulSearchType;
            if (DNS_GetIpFromCache(pszHostName, main_list, &main_count) == DNS_OK) {
                DNS_LOG(5, "DNS_GetIpFromCache Success ulFindCount:%d", static_cast<int>(main_count));
                section.release();
                (void)pfnCallback(DNS_OK, caller_name, main_list, main_count, pUserData);
                return DNS_OK;
            }
            main_count = 0;
        } else {
            main_list[0].ulType = DNS_IP_TYPE_IPV4;
            uint32_t ret4 = DNS_GetIpFromCache(pszHostName, main_list, &main_count);
            if (ret4 != DNS_OK) {
                main_count = 0;
            }
            DNS_LOG(5, "DNS_GetIpFromCache lRes: %x Count %d", ret4, static_cast<int>(main_count));
            v6_list[0].ulType = DNS_IP_TYPE_IPV6;
            uint32_t ret6 = DNS_GetIpFromCache(pszHostName, v6_list, &v6_count);
            if (ret6 != DNS_OK) {
                v6_count = 0;
            }
            DNS_LOG(5, "DNS_GetIpFromCache ulRetIpv6: %x Count %d", ret6, static_cast<int>(v6_count));

            if (main_count != 0 && v6_count != 0) {
                main_count = min_u32(main_count, DNS_MAX_IP_NUM);
                v6_count = min_u32(min_u32(v6_count, DNS_MAX_IP_NUM), DNS_MAX_IP_NUM - main_count);
                log_secure_failure(memcpy_s(main_list + main_count,
                                            sizeof(DNS_IPADDR_S) * (DNS_MAX_IP_NUM - main_count), v6_list,
                                            sizeof(DNS_IPADDR_S) * v6_count));
                section.release();
                (void)pfnCallback(DNS_OK, caller_name, main_list, main_count + v6_count, pUserData);
                return DNS_OK;
            }
            if (main_count != 0) {
                worker_type = DNS_SEARCH_TYPE_AAAA;
            } else if (v6_count != 0) {
                log_secure_failure(memcpy_s(main_list, sizeof(main_list), v6_list, sizeof(v6_list)));
                main_count = v6_count;
                worker_type = DNS_SEARCH_TYPE_A;
            }
        }
    }

    auto *req = static_cast<DNS_ASYN_RESOLVE_S *>(VEK_MALLOC(sizeof(DNS_ASYN_RESOLVE_S)));
    if (req == nullptr) {
        DNS_LOG(2, "alloc memory failed!\r\n");
        return DNS_ERR_MEM_ALLOC;
    }
    (void)memset_s(req, sizeof(*req), 0, sizeof(*req));
    req->stHostName.ulType = worker_type;

    const size_t name_size = PAL_StrLen(pszHostName) + 1;
    req->stHostName.pszName = static_cast<char *>(VEK_MALLOC(name_size));
    if (req->stHostName.pszName == nullptr) {
        DNS_LOG(2, "alloc memory failed!\r\n");
        VEK_FREE(req);
        return DNS_ERR_MEM_ALLOC;
    }
    log_secure_failure(strcpy_s(req->stHostName.pszName, name_size, pszHostName));

    req->ulTimeOutSec = ulTimeOutSec;
    req->fnCallback = pfnCallback;
    req->pUserData = pUserData;
    req->ulIpNum = min_u32(main_count, DNS_MAX_IP_NUM);
    log_secure_failure(memcpy_s(req->astIpAddr, sizeof(req->astIpAddr), main_list,
                                sizeof(DNS_IPADDR_S) * req->ulIpNum));

    if (where == run_on::caller) {
        (void)DNS_AsynResolveThread(req);
        return DNS_OK;
    }
    if (!vekdns::detail::start_worker(run_request, req)) {
        free_request(req);
        DNS_LOG(2, "create thread failed!\r\n");
        return DNS_ERR_CREATE_THREAD;
    }
    return DNS_OK;
}

} // namespace

extern "C" {

VEK_DNS_API uint32_t ORV_NETB_DnsGetIpByAsynResolve(const char *pszHostName, uint32_t ulSearchType,
                                                    int32_t ulTimeOutSec,
                                                    DNS_IP_CALLBACK_PFN pfnCallback,
                                                    void *pUserData) {
    return accept_request(pszHostName, ulSearchType, ulTimeOutSec, pfnCallback, pUserData, run_on::worker);
}

VEK_DNS_API void *DNS_AsynResolveThread(void *pArg) {
    DNS_LOG(5, "Entren asynchronous resolve thread");
    auto *req = static_cast<DNS_ASYN_RESOLVE_S *>(pArg);
    if (req == nullptr) {
        DNS_LOG(2, "inputting parameter error!\r\n");
        return nullptr;
    }
    req->pszHostName = req->stHostName.pszName;
    DNS_LOG(5, "pstAsynResolve->stHostName.ulType: %d", static_cast<int>(req->stHostName.ulType));

    DNS_IPADDR_S found[DNS_MAX_IP_NUM];
    uint32_t ttls[DNS_MAX_IP_NUM];
    (void)memset_s(found, sizeof(found), 0, sizeof(found));
    (void)memset_s(ttls, sizeof(ttls), 0, sizeof(ttls));
    uint32_t count = 0;
    uint32_t ret = resolve_request(req, found, ttls, &count);
    if (ret != DNS_OK) {
        // Addresses taken from the cache before the worker started are the answer.
        report(req, req->ulIpNum != 0 ? DNS_OK : ret, req->astIpAddr, req->ulIpNum);
        free_request(req);
        return nullptr;
    }

    uint32_t ttl = ttls[0];
    for (uint32_t i = 1; i < count; i++) {
        ttl = min_u32(ttl, ttls[i]);
    }

    DNS_IPADDR_S copied[DNS_MAX_IP_NUM];
    (void)memset_s(copied, sizeof(copied), 0, sizeof(copied));
    {
        vekdns::named_sem_section section;
        if (!section.is_open()) {
            // Every accepted request gets its callback, also here: a blocking
            // caller waits on it without a limit.
            DNS_LOG(3, "DNS_SemOpen faile,lSemRet:%d", static_cast<int>(section.open_result()));
            report(req, section.open_result(), nullptr, 0);
            free_request(req);
            return nullptr;
        }
        for (uint32_t i = 0; i < count; i++) {
            DNS_TransferIpAddr(&found[i], &copied[i]);
        }
        for (uint32_t i = 0; i < count; i++) {
            uint32_t store = DNS_SetIpToCache(req->pszHostName, ttl, found[i]);
            if (store != DNS_OK) {
                DNS_LOG(3, "DNS_AsynResolveThread  DNS_SetIpToCache failed");
                section.release();
                report(req, store, nullptr, 0);
                free_request(req);
                return nullptr;
            }
        }
    }

    const uint32_t room = DNS_MAX_IP_NUM - min_u32(req->ulIpNum, DNS_MAX_IP_NUM);
    const uint32_t append = min_u32(count, room);
    if (append != 0) {
        log_secure_failure(memcpy_s(req->astIpAddr + (DNS_MAX_IP_NUM - room), sizeof(DNS_IPADDR_S) * room,
                                    copied, sizeof(DNS_IPADDR_S) * append));
    }
    req->ulIpNum = DNS_MAX_IP_NUM - room + append;
    report(req, DNS_OK, req->astIpAddr, req->ulIpNum);
    free_request(req);
    return nullptr;
}

VEK_DNS_API uint32_t dnsSynResolveCallback(uint32_t ulRet, char *pszName, DNS_IPADDR_S *pstIpAddr,
                                           uint32_t ulIpNum, void *pUserData) {
    (void)pszName;
    auto *res = static_cast<DNS_RESULT_S *>(pUserData);
    if (res == nullptr) {
        return DNS_ERR_PARA_INVALID;
    }
    if (ulRet == DNS_OK && ulIpNum != 0 && pstIpAddr != nullptr) {
        const uint32_t n = min_u32(ulIpNum, DNS_MAX_IP_NUM); // the record holds 10
        for (uint32_t i = 0; i < n; i++) {
            DNS_TransferIpAddr(&pstIpAddr[i], &res->astIpAddr[i]);
        }
        res->lIpNum = static_cast<int32_t>(n);
    } else {
        res->lIpNum = 0;
        res->ulRet = ulRet;
    }
    // The waiting caller may return as soon as this post lands: nothing of
    // *res is touched afterwards.
    sem_t *lock = res->pstLock;
    while (DNS_UnLock(lock) != DNS_OK) {
    }
    return DNS_OK;
}

VEK_DNS_API uint32_t ORV_NETB_DnsGetIpBySynResolve(const char *pszHostName, uint32_t ulSearchType,
                                                   DNS_IPADDR_S *pstIpAddr, uint32_t *pulIpNum) {
    sem_t lock;
    const uint32_t init_ret = DNS_InitLock(&lock);
    DNS_LOG(5, "Get Dns Ip By Synchronize Resolve");
    DNS_LOG(5, "ulSearchType: %d", static_cast<int>(ulSearchType));
    if (pstIpAddr == nullptr || pulIpNum == nullptr || pszHostName == nullptr || *pulIpNum == 0 ||
        ulSearchType > DNS_SEARCH_TYPE_BOTH) {
        DNS_LOG(2, "inputting parameter error!\r\n");
        if (init_ret == DNS_OK) {
            (void)DNS_DestoryLock(&lock);
        }
        return DNS_ERR_PARA_INVALID;
    }
    // Waiting on a lock that could not be made would never end.
    if (init_ret != DNS_OK) {
        *pulIpNum = 0;
        return init_ret;
    }

    DNS_RESULT_S result;
    uint32_t ret = DNS_OK;
    if (ulSearchType != DNS_SEARCH_TYPE_BOTH) {
        ret = run_syn_request(pszHostName, ulSearchType, &result, &lock,
                              {"ORV_NETB_DnsGetIpByAsynResolve  lRet: %x",
                               "ORV_NETB_DnsGetIpByAsynResolve Success stResult.lIpNum: %d"});
    } else {
        DNS_RESULT_S result6;
        ret = run_syn_request(pszHostName, DNS_SEARCH_TYPE_A, &result, &lock,
                              {"ORV_NETB_DnsGetIpByAsynResolve A lRet: %x",
                               "ORV_NETB_DnsGetIpByAsynResolve A Success stResult.lIpNum: %d"});
        if (ret == DNS_OK) {
            ret = run_syn_request(pszHostName, DNS_SEARCH_TYPE_AAAA, &result6, &lock,
                                  {"ORV_NETB_DnsGetIpByAsynResolve AAAA lRet: %x",
                                   "ORV_NETB_DnsGetIpByAsynResolve AAAA Success stResultIpv6.lIpNum: %d"});
        }
        if (ret == DNS_OK && delivered(result6) != 0) {
            const uint32_t have = delivered(result);
            const uint32_t add = min_u32(delivered(result6), DNS_MAX_IP_NUM - have);
            log_secure_failure(memcpy_s(result.astIpAddr + have, sizeof(DNS_IPADDR_S) * (DNS_MAX_IP_NUM - have),
                                        result6.astIpAddr, sizeof(DNS_IPADDR_S) * add));
            result.lIpNum = static_cast<int32_t>(have + add);
        }
    }
    (void)DNS_DestoryLock(&lock);
    if (ret != DNS_OK) {
        *pulIpNum = 0;
        return ret;
    }

    DNS_LOG(5, "ORV_NETB_DnsGetIpBySynResolve stResult.lIpNum: %d", static_cast<int>(result.lIpNum));
    const uint32_t n = min_u32(delivered(result), *pulIpNum);
    if (n == 0) {
        *pulIpNum = 0;
        return result.ulRet;
    }
    for (uint32_t i = 0; i < n; i++) {
        pstIpAddr[i].ulType = result.astIpAddr[i].ulType;
        DNS_TransferIpAddr(&result.astIpAddr[i], &pstIpAddr[i]);
    }
    *pulIpNum = n;
    return DNS_OK;
}

VEK_DNS_API uint32_t vek_dns_get_ip_resolve_syn(const char *pszHostName, uint32_t ulSearchType,
                                                DNS_IPADDR_STR_S *pstIpAddr, uint32_t *pulIpNum) {
    if (pulIpNum == nullptr || *pulIpNum == 0) {
        DNS_LOG(2, "inputting parameter error!\r\n");
        return 1;
    }
    // Nowhere to write the texts: refused like any other bad argument.
    if (pstIpAddr == nullptr) {
        DNS_LOG(2, "inputting parameter error!\r\n");
        return DNS_ERR_PARA_INVALID;
    }
    auto *list = static_cast<DNS_IPADDR_S *>(VEK_MALLOC_ZERO(sizeof(DNS_IPADDR_S) * size_t{*pulIpNum}));
    if (list == nullptr) {
        DNS_LOG(2, "alloc memory failed!\r\n");
        return 1;
    }
    uint32_t ret = ORV_NETB_DnsGetIpBySynResolve(pszHostName, ulSearchType, list, pulIpNum);
    if (ret != DNS_OK) {
        DNS_LOG(2, "ORV_NETB_DnsGetIpBySynResolve Failed!");
        *pulIpNum = 0;
        VEK_FREE(list);
        return ret;
    }
    for (uint32_t i = 0; i < *pulIpNum; i++) {
        pstIpAddr[i].ulType = list[i].ulType;
        if (list[i].ulType == DNS_IP_TYPE_IPV4) {
            const char *text = PAL_InetNtoa(list[i].unIpAddr.ulIpv4);
            log_secure_failure(text != nullptr ? strcpy_s(pstIpAddr[i].acIpAddr, ip_text_size, text)
                                               : VEK_SECURE_EINVAL);
        } else if (list[i].ulType == DNS_IP_TYPE_IPV6) {
            (void)PAL_Inet_Ntop(inet6_family, list[i].unIpAddr.aucIpv6, pstIpAddr[i].acIpAddr, ip_text_size);
        } else {
            DNS_LOG(2, "UNKNOW ip type");
        }
    }
    VEK_FREE(list);
    return DNS_OK;
}

} // extern "C"
