/*
 * vek_dns: the library's other exported operations and process-wide objects.
 *
 * Applications normally need only vek_dns.h. These are the building blocks
 * underneath it (logging, locks, discovery, wire, caches, service parsing),
 * exported for tests and advanced users.
 */
#ifndef VEK_DNS_OPS_H
#define VEK_DNS_OPS_H

#include "vek_dns.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- logging ------------------------------------------------------------ */
extern VEK_DNS_API uint32_t g_ulDnsLogLevel;     /* initially 5 */
extern VEK_DNS_API DNS_LOG_FUNC_PFN g_fnDnsLogFunc; /* initially NULL: standard output */

VEK_DNS_API void DNS_LOG(uint32_t ulLevel, const char *pszFormat, ...)
    __attribute__((format(printf, 2, 3)));

/* ---- named semaphore "dns_lock_sem" ------------------------------------ */
VEK_DNS_API uint32_t DNS_SemOpen(void **ppHandle);
VEK_DNS_API uint32_t DNS_SemWait(void **ppHandle);
VEK_DNS_API uint32_t DNS_SemPost(void **ppHandle);
VEK_DNS_API uint32_t DNS_SemClose(void **ppHandle);

/* ---- unnamed semaphores --------------------------------------------------- */
VEK_DNS_API uint32_t DNS_InitLock(sem_t *pstSem);
VEK_DNS_API uint32_t DNS_Lock(sem_t *pstSem);
VEK_DNS_API uint32_t DNS_UnLock(sem_t *pstSem);
VEK_DNS_API uint32_t DNS_DestoryLock(sem_t *pstSem);

/* ---- file copy ------------------------------------------------------------ */
VEK_DNS_API uint32_t DNS_CopyOneFileToAnother(const char *pszSrcFile, const char *pszDstFile);

/* ---- name-server discovery ------------------------------------------------ */
/* (discovery section) */
#define DNS_MAX_SEARCH_DOMAIN 6

/* Servers and search suffixes of one reading of /etc/resolv.conf. The caller
 * zeroes the record, fills it with DNS_LocateDnsServer and releases it with
 * DNS_FreeLocalServer. */
typedef struct {
    DNS_IPADDR_S *pstDnsServer; /* one entry per nameserver line, file order */
    uint32_t ulDnsServers;
    char szSearchDomain[256]; /* suffixes back to back, each NUL-ended */
    char *apszSearchDomain[DNS_MAX_SEARCH_DOMAIN]; /* NULL-ended list */
} DNS_LOCAL_SERVER_S;

VEK_DNS_API uint32_t DNS_LocateDnsServer(DNS_LOCAL_SERVER_S *pstLocalServer);
VEK_DNS_API uint32_t dnsAddLocalServer(const char *pszServer, DNS_LOCAL_SERVER_S *pstLocalServer);
VEK_DNS_API void DNS_FreeLocalServer(DNS_LOCAL_SERVER_S *pstLocalServer);
/* Parses one server address text ("10.0.0.1", "fd00::1"). */
VEK_DNS_API uint32_t DNS_GetServerIpAndIpType(const char *pszServer, DNS_IPADDR_S *pstIpAddr);

/* ---- address wire and resolver loop -------------------------------------- */
/* (address section) */
/* Message ID of the next query (address or service); starts at 1, no lock. */
extern VEK_DNS_API uint16_t g_usQueryId;

/* Connected UDP socket to port 53 of the server; *plSock receives it. */
VEK_DNS_API uint32_t DNS_CreatSocketAndConnect(int32_t *plSock, const DNS_IPADDR_S *pstServer);
/* Sends one A (ulType 0) or AAAA (ulType 1) question; on success the socket
 * stays open in *plSock and belongs to the caller. A trailing dot of pszName
 * is overwritten with NUL. */
VEK_DNS_API uint32_t DNS_Query(char *pszName, uint32_t ulNameLen, const DNS_IPADDR_S *pstServer,
                               uint32_t ulType, int32_t *plSock);
/* Receives one reply and appends its addresses at index *pulCount (at most
 * ulCapacity in all); pulTtl is parallel to pstIpAddr. 0 when the count is
 * non-zero afterwards, else 1. */
VEK_DNS_API uint32_t DNS_Read(int32_t lSock, DNS_IPADDR_S *pstIpAddr, uint32_t *pulCount,
                              uint32_t ulCapacity, uint32_t *pulTtl);
/* Position just behind the encoded name at pucPos, or NULL when the name
 * runs past ulRemaining bytes. */
VEK_DNS_API const uint8_t *DNS_ParseRecord(const uint8_t *pucPos, uint32_t ulRemaining);
VEK_DNS_API uint8_t *DNS_Spread2Bytes(uint8_t *pucPos, uint32_t ulValue);
VEK_DNS_API uint16_t DNS_Build2Bytes(const uint8_t *pucPos);
VEK_DNS_API uint32_t DNS_Build4Bytes(const uint8_t *pucPos);

/* Blocking resolve of one name or literal. *pulCount: in the capacity of
 * pstIpAddr and pulTtl, out the number of addresses found. */
VEK_DNS_API uint32_t DNS_Resolve(const DNS_HOSTNAME_S *pstHostName, DNS_IPADDR_S *pstIpAddr,
                                 uint32_t *pulCount, uint32_t ulTimeOutSec, uint32_t *pulTtl);
/* 0 and the server in *pstServer, or 1 for an unset entry or null argument. */
VEK_DNS_API uint32_t DNS_JudgeTheServerIsAvalible(uint32_t ulIndex,
                                                  const DNS_LOCAL_SERVER_S *pstLocalServer,
                                                  DNS_IPADDR_S *pstServer);
/* Copies one address record (families 3 and 4 read as 0 and 1). */
VEK_DNS_API void DNS_TransferIpAddr(const DNS_IPADDR_S *pstSrc, DNS_IPADDR_S *pstDst);
/* 0 when the name keeps the length rules (<= 255, labels <= 63), else 1. */
VEK_DNS_API uint32_t dnsCheckHostName(const char *pszName);

/* ---- memory caches -------------------------------------------------------- */
/* (memory cache section) */
/* Which cache: the values of DNS_A and DNS_AAAA equal the address families. */
typedef uint32_t DNS_TYPE_E;
enum { DNS_A = 0, DNS_AAAA = 1, DNS_SRV = 2 };

/* One cache entry. An address entry holds one address; an SRV entry holds the
 * whole record set of one service name. */
typedef struct DNS_CACHE_ITEM_S {
    struct DNS_CACHE_ITEM_S *pstNext; /* towards older entries */
    struct DNS_CACHE_ITEM_S *pstPrev;
    char *pszName;        /* owned copy of the key */
    uint32_t ulTimeStamp; /* PAL_GetSysTimeSec at creation */
    union {
        union {
            uint32_t ulIpv4;
            uint8_t aucIpv6[16];
            uint64_t ullAlign;
        } unIpAddr;        /* address entries */
        uint32_t ulSrvNum; /* SRV entries: records in pstSrvRR */
    };
    DNS_SRV_RR_S *pstSrvRR; /* SRV entries: owned array of ulSrvNum, else NULL */
    uint32_t ulTtl;         /* address entries; 0xFFFFFFFF: the head's ulMaxTime */
    uint32_t *pulTtl;       /* SRV entries: owned array of ulSrvNum TTLs, else NULL */
} DNS_CACHE_ITEM_S;

/* One cache: a circular doubly linked list behind a data-less sentinel, newest
 * entry first. pstSem guards the list and ulRecords. */
typedef struct {
    DNS_TYPE_E enDNSType;
    uint32_t ulMaxNumber; /* entry count at which a store first evicts (32) */
    uint32_t ulMaxTime;   /* age limit for TTL 0xFFFFFFFF (86400) */
    uint32_t ulRecords;
    sem_t *pstSem;
    DNS_CACHE_ITEM_S *pstCacheFirst; /* sentinel */
} DNS_CACHE_HEAD_S;

/* NULL until the first store of their kind and again after ORV_NETB_DnsCleanBuffer.
 * Read and replaced only under the named semaphore. */
extern VEK_DNS_API DNS_CACHE_HEAD_S *pstDNSCache;     /* DNS_A */
extern VEK_DNS_API DNS_CACHE_HEAD_S *pstDNSAAAACache; /* DNS_AAAA */
extern VEK_DNS_API DNS_CACHE_HEAD_S *pstDNSSRVCache;  /* DNS_SRV */

/* 0 for a limit means its default (32 entries, 86400 seconds). */
VEK_DNS_API DNS_CACHE_HEAD_S *DNS_CreateCache(DNS_TYPE_E enDNSType, uint32_t ulMaxNumber,
                                              uint32_t ulMaxTime);
VEK_DNS_API void DNS_DestoryCache(DNS_CACHE_HEAD_S **ppstCacheHead);
VEK_DNS_API void dnsDestoryCacheItem(DNS_CACHE_ITEM_S *pstItem);
VEK_DNS_API void dnsDestoryCacheItemList(DNS_CACHE_ITEM_S *pstCacheFirst);
/* Head of the A or AAAA cache (may be NULL); NULL for any other type. */
VEK_DNS_API DNS_CACHE_HEAD_S *dnsGetCacheByType(DNS_TYPE_E enDNSType);
/* Address of the global head pointer of DNS_A, DNS_AAAA or DNS_SRV, else NULL. */
VEK_DNS_API DNS_CACHE_HEAD_S **DNS_GetCacheByType(DNS_TYPE_E enDNSType);
/* Caller holds the head's lock. */
VEK_DNS_API DNS_CACHE_ITEM_S *dnsAddItemToCache(DNS_CACHE_HEAD_S *pstCacheHead, const char *pszName);
VEK_DNS_API uint32_t dnsAddIPToCache(DNS_CACHE_HEAD_S *pstCacheHead, const char *pszName,
                                     const DNS_IPADDR_S *pstIpAddr, uint32_t ulTtl);
VEK_DNS_API uint32_t dnsSetCacheRecordToHost(const DNS_CACHE_ITEM_S *pstItem, DNS_IPADDR_S *pstIpAddr);
VEK_DNS_API uint32_t dnsAddSRVToCache(DNS_CACHE_HEAD_S *pstCacheHead, const char *pszName,
                                      const DNS_SRV_RR_S *pstSrvRR, uint32_t ulSrvNum,
                                      const uint32_t *pulTtl);
VEK_DNS_API void dnsDelOldestRecord(DNS_CACHE_HEAD_S *pstCacheHead);

/* Callers hold the named semaphore around every call below. */
VEK_DNS_API uint32_t DNS_SetIpToMemCache(const char *pszName, uint32_t ulTtl, DNS_IPADDR_S stIpAddr);
/* pstIpAddr: room for DNS_MAX_IP_NUM records, the first one's ulType the family wanted. */
VEK_DNS_API uint32_t DNS_GetIpFromMemCache(const char *pszName, DNS_IPADDR_S *pstIpAddr,
                                           uint32_t *pulNum);
VEK_DNS_API uint32_t DNS_SetSrvToMemCache(const char *pszName, const DNS_SRV_RR_S *pstSrvRR,
                                          uint32_t ulSrvNum, const uint32_t *pulTtl);
/* *pulSrvNum: in the capacity of pstSrvRR, out the records returned. */
VEK_DNS_API uint32_t DNS_GetSrvFromMemCache(const char *pszName, DNS_SRV_RR_S *pstSrvRR,
                                            uint32_t *pulSrvNum);

/* The cache façade used by the resolve calls. */
VEK_DNS_API uint32_t DNS_GetIpFromCache(const char *pszName, DNS_IPADDR_S *pstIpAddr, uint32_t *pulNum);
VEK_DNS_API uint32_t DNS_SetIpToCache(const char *pszName, uint32_t ulTtl, DNS_IPADDR_S stIpAddr);
VEK_DNS_API uint32_t DNS_SetSrvToCache(const char *pszName, const DNS_SRV_RR_S *pstSrvRR,
                                       uint32_t ulSrvNum, const uint32_t *pulTtl);
VEK_DNS_API uint32_t DNS_GetSrvFromCache(const char *pszName, DNS_SRV_RR_S *pstSrvRR,
                                         uint32_t *pulSrvNum);

/* Address calls: one asynchronous request, owned and freed by its worker. */
typedef struct {
    char *pszHostName;          /* name handed to the callback (= stHostName.pszName) */
    DNS_HOSTNAME_S stHostName;  /* ulType: what is left to resolve; pszName: own copy */
    int32_t ulTimeOutSec;       /* per-reply wait */
    DNS_IP_CALLBACK_PFN fnCallback;
    uint32_t ulIpNum;           /* addresses already in astIpAddr (from the cache) */
    DNS_IPADDR_S astIpAddr[DNS_MAX_IP_NUM];
    void *pUserData;
} DNS_ASYN_RESOLVE_S;

/* Worker start function; pArg is a DNS_ASYN_RESOLVE_S, freed before it returns. */
VEK_DNS_API void *DNS_AsynResolveThread(void *pArg);
/* Completion function of the blocking call; pUserData is its DNS_RESULT_S. */
VEK_DNS_API uint32_t dnsSynResolveCallback(uint32_t ulRet, char *pszName, DNS_IPADDR_S *pstIpAddr,
                                           uint32_t ulIpNum, void *pUserData);

/* ---- configuration, cache parameters and cache files ---------------------- */
/* (configuration section) */
/* Rewrites position ulIndex (1 or 2) among the nameserver lines of
 * /etc/resolv.conf; an empty server deletes that line. No lock of its own. */
VEK_DNS_API uint32_t DNS_SetServer(uint32_t ulIndex, const DNS_SERVER_S *pstServer);
/* Reads position ulIndex (from 1); a missing position clears the record and
 * gives 0. No lock of its own. */
VEK_DNS_API uint32_t DNS_GetServer(uint32_t ulIndex, DNS_SERVER_S *pstServer);
/* Logs the server at level 5 with its address masked. */
VEK_DNS_API void DnsIPaddrPrint(const DNS_SERVER_S *pstServer);

/* ---- service resolution --------------------------------------------------- */
/* (service section) */
/* Growable list: results 0, DNS_ERR_NO_MEMORY, DNS_ERR_LIST_EMPTY or
 * DNS_ERR_LIST_INDEX. Uninit frees the elements still in the list. */
VEK_DNS_API uint32_t DNS_ListInit(DNS_LIST_S *pstList);
VEK_DNS_API uint32_t DNS_ListGetSize(const DNS_LIST_S *pstList);
VEK_DNS_API uint32_t DNS_ListPush(DNS_LIST_S *pstList, void *pElem);
VEK_DNS_API uint32_t DNS_ListPop(DNS_LIST_S *pstList, void **ppElem);
VEK_DNS_API uint32_t DNS_ListGetElem(const DNS_LIST_S *pstList, uint32_t ulIndex, void **ppElem);
VEK_DNS_API void *DNS_ListGetTop(const DNS_LIST_S *pstList);
VEK_DNS_API uint32_t DNS_ListInsertAt(DNS_LIST_S *pstList, uint32_t ulIndex, void *pElem);
VEK_DNS_API uint32_t DNS_ListRemoveAt(DNS_LIST_S *pstList, uint32_t ulIndex);
VEK_DNS_API void DNS_ListUninit(DNS_LIST_S *pstList);

/* Name servers whose reply wait ran out during a service query (8 texts,
 * used entries first); a mutex guards the three operations. */
#define DNS_SRV_UNREACHABLE_NUM 8
#define DNS_SRV_IP_TEXT_SIZE 47
extern VEK_DNS_API char g_dnsServer[DNS_SRV_UNREACHABLE_NUM][DNS_SRV_IP_TEXT_SIZE];
/* 0 when pszIp (ulLen characters) is a prefix of a recorded entry, else 1. */
VEK_DNS_API uint32_t DNS_SrvIPUnReachableJudge(const char *pszIp, uint32_t ulLen);
/* Records the server, unless pszName (the service name) contains "_ldap". */
VEK_DNS_API void Dns_SrvIPSet(const DNS_IPADDR_S *pstServer, const char *pszName);

/* SRV questions: "_service._proto.domain", the flags word, the message. */
VEK_DNS_API uint32_t DNS_SrvBuildName(const char *pszService, const char *pszProto, const char *pszDomain,
                                      char *pszBuf, uint32_t ulBufSize);
VEK_DNS_API uint32_t DNS_SrvBuildOptions(uint32_t ulQr, uint32_t ulOpcode, uint32_t ulAa, uint32_t ulTc,
                                         uint32_t ulRd, uint32_t ulRa, uint16_t usZ, uint16_t usRcode);
VEK_DNS_API uint32_t DNS_SrvBuildMsg(char *pszName, uint8_t *pMsg, uint32_t ulBufSize, uint16_t usId,
                                     uint32_t *pulMsgLen);
/* Sends on a fresh connected socket, stored in *plSocket (the caller's). */
VEK_DNS_API uint32_t DNS_SrvMsgSend(const uint8_t *pMsg, uint32_t ulLen, const DNS_IPADDR_S *pstServer,
                                    int32_t *plSocket);
VEK_DNS_API uint32_t DNS_SrvMsgRecv(const int32_t *plSocket, uint8_t *pBuf, uint32_t ulBufSize,
                                    uint32_t *pulLen);
/* Receives and reads one SRV reply into pstList (DNS_SRV_RR_S elements, at
 * most 10 in all); pulTtl (room for 10) is parallel to the list. */
VEK_DNS_API uint32_t DNS_SrvRead(const int32_t *plSocket, uint8_t *pBuf, uint32_t ulBufSize,
                                 uint32_t *pulCount, DNS_LIST_S *pstList, uint32_t *pulTtl);
/* Every server and name variant; records accumulate in pstList. */
VEK_DNS_API uint32_t DNS_SrvQuery(const char *pszName, uint32_t ulTimeOutSec, uint32_t *pulCount,
                                  DNS_LIST_S *pstList, uint32_t *pulTtl);

/* Target completion, in this order, in place on an array of ulCapacity. */
VEK_DNS_API void DNS_SrvTargetIsIp(DNS_SRV_RR_S *pstRR, uint32_t ulCount);
VEK_DNS_API void DNS_SrvNoIpGetIp(DNS_SRV_RR_S *pstRR, uint32_t *pulCount, uint32_t ulCapacity);
VEK_DNS_API void DNS_SrvNoIpv4GetIp(DNS_SRV_RR_S *pstRR, uint32_t *pulCount, uint32_t ulCapacity);
VEK_DNS_API void DNS_SrvNoIpRemoveTarget(DNS_SRV_RR_S *pstRR, uint32_t *pulCount, uint32_t ulCapacity);

/* Worker body; pstSrvAsyn is a DNS_SRV_ASYN_S, freed before it returns. */
VEK_DNS_API void *DNS_SrvAsynThread(void *pstSrvAsyn);

#ifdef __cplusplus
}
#endif

#endif /* VEK_DNS_OPS_H */
