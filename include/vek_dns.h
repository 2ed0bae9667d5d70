/*
 * vek_dns: stub DNS resolver library, application interface.
 *
 * Plain C records, callback types, result codes and the exported calls.
 * Compiles as C11 and as C++. Link with -lvek_dns -lvek_os_adapter.
 */
#ifndef VEK_DNS_H
#define VEK_DNS_H

#include <stdint.h>
#include <semaphore.h>

#if defined(VEK_DNS_BUILDING)
#define VEK_DNS_API __attribute__((visibility("default")))
#else
#define VEK_DNS_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- address family and search type ---------------------------------- */
#define DNS_IP_TYPE_IPV4 0u
#define DNS_IP_TYPE_IPV6 1u

typedef enum {
    DNS_SEARCH_TYPE_A = 0,
    DNS_SEARCH_TYPE_AAAA = 1,
    DNS_SEARCH_TYPE_BOTH = 2
} DNS_SEARCH_TYPE_E;

/* Most addresses any result hands to a caller. */
#define DNS_MAX_IP_NUM 10

/* ---- records ------------------------------------------------------------ */

/* One IP address: 24 bytes, address union at offset 8. */
typedef struct {
    uint32_t ulType; /* DNS_IP_TYPE_IPV4 or DNS_IP_TYPE_IPV6 */
    union {
        uint32_t ulIpv4;     /* network byte order, first 4 bytes */
        uint8_t aucIpv6[16]; /* network order */
        uint64_t ullAlign;   /* keeps the union 8-byte aligned */
    } unIpAddr;
} DNS_IPADDR_S;

/* One host-name request as the resolver loop takes it. */
typedef struct {
    uint32_t ulType; /* search type */
    char *pszName;
} DNS_HOSTNAME_S;

/* Result record of the blocking address call. */
typedef struct {
    DNS_IPADDR_S astIpAddr[DNS_MAX_IP_NUM];
    int32_t lIpNum; /* -1 until an answer is delivered */
    uint32_t ulRet;
    sem_t *pstLock;
} DNS_RESULT_S;

/* One address in text form. */
typedef struct {
    uint32_t ulType;
    char acIpAddr[40];
} DNS_IPADDR_STR_S;

/* One service record. */
typedef struct {
    char szTarget[256];
    uint16_t usPriority;
    uint16_t usWeight;
    DNS_IPADDR_S stAddr;
    uint16_t usPort;
} DNS_SRV_RR_S;

/* Outcome of one blocking service resolve. */
typedef struct {
    DNS_SRV_RR_S *pstRR;
    uint32_t ulRRCount; /* 0xFFFFFFFF until delivered */
    int32_t lRet;
    sem_t *pstLock;
} DNS_SRV_RESULT_S;

#ifdef __cplusplus
#define VEK_DNS_LAYOUT(cond, what) static_assert(cond, what)
#else
#define VEK_DNS_LAYOUT(cond, what) _Static_assert(cond, what)
#endif
VEK_DNS_LAYOUT(sizeof(DNS_SRV_RR_S) == 296, "DNS_SRV_RR_S layout");

/* ---- callbacks ---------------------------------------------------------- */
typedef uint32_t (*DNS_IP_CALLBACK_PFN)(uint32_t ulRet, char *pszName, DNS_IPADDR_S *pstIpAddr,
                                        uint32_t ulIpNum, void *pUserData);
typedef void (*DNS_LOG_FUNC_PFN)(const char *pszLog);

/* ---- result codes ------------------------------------------------------- */
#define DNS_OK 0u
#define DNS_ERR_PARA_INVALID 0x26040001u
#define DNS_ERR_OPEN_FILE 0x26040002u
#define DNS_ERR_MEM_ALLOC 0x26040003u
#define DNS_ERR_CREATE_THREAD 0x26040004u
#define DNS_ERR_SRV_LIST_CREATE 0x26040005u
#define DNS_ERR_LIST_EMPTY 0x26040006u
#define DNS_ERR_LIST_INDEX 0x26040007u
#define DNS_ERR_LIST_OPERATE 0x26040008u
#define DNS_ERR_SEM 0x26040009u
#define DNS_ERR_NO_SERVER 0x2604000Au
#define DNS_ERR_WRITE_FILE 0x2604000Bu
#define DNS_ERR_FILE_FORMAT 0x2604000Cu
#define DNS_ERR_COPY_FILE 0x2604000Du
#define DNS_ERR_SEEK_FILE 0x2604000Eu
#define DNS_ERR_SRV_CACHE_FILE 0x2604000Fu
#define DNS_ERR_SRV_NAME 0x26040010u
#define DNS_ERR_SRV_MSG_BUF 0x26040011u
#define DNS_ERR_SRV_NOT_OFFERED 0x26040012u
#define DNS_ERR_SRV_NOT_FOUND 0x26040013u
#define DNS_ERR_SRV_ANSWER_TYPE 0x26040014u
#define DNS_ERR_SRV_ADD_ADDR 0x26040015u
#define DNS_ERR_MSG_FORMAT 0x26040016u
#define DNS_ERR_RECORD_INVALID 0x26040017u
#define DNS_ERR_NAME_TOO_LONG 0x26040018u
#define DNS_ERR_SEND 0x26040019u
#define DNS_ERR_RECV 0x2604001Au
#define DNS_ERR_NO_MEMORY 0x2604001Bu
#define DNS_ERR_TIMEOUT 0x2604001Cu
#define DNS_ERR_NOT_FOUND 0x26040020u
#define DNS_ERR_ADDR_TO_TEXT 0x26040021u
#define DNS_ERR_TEXT_TO_ADDR 0x26040022u
#define DNS_ERR_SOCKET 0x26040023u
#define DNS_ERR_CONNECT 0x26040024u
#define DNS_ERR_IP_TYPE 0x26040025u
#define DNS_ERR_NAME_FORMAT 0x26040026u
#define DNS_ERR_CACHE_MISS 0x26040027u
#define DNS_ERR_PARSE_ANSWER 0x26040028u
#define DNS_ERR_CACHE_EXPIRED 0x26040029u

/* ---- logging and version ------------------------------------------------ */
VEK_DNS_API void ORV_NETB_DnsSetLogLevel(uint32_t ulLevel);
VEK_DNS_API uint32_t ORV_NETB_DnsGetLogLevel(void);
VEK_DNS_API void vek_dns_set_log_level(uint32_t ulLevel);
VEK_DNS_API void ORV_NETB_DnsRegisterLogFunc(DNS_LOG_FUNC_PFN pfnLog);
VEK_DNS_API void vek_dns_register_log_func(DNS_LOG_FUNC_PFN pfnLog);
VEK_DNS_API uint32_t ORV_NETB_DNS_GetVersion(char *pszVersion, uint32_t ulSize);

/* Removes the system-wide named semaphore (recovery after a crashed holder). */
VEK_DNS_API uint32_t ORV_NETB_DnsSemUnLink(void);

/* ---- address calls ------------------------------------------------------ */
/* (address resolution section) */
/* Resolves pszHostName (ulSearchType 0 A, 1 AAAA, 2 both, IPv4 first, at most
 * DNS_MAX_IP_NUM addresses). 0: pfnCallback has been called already (memory
 * cache hit, on this thread, with pszHostName itself) or will be called exactly
 * once from a worker thread (with a copy of the name). Any other result: the
 * request was refused and pfnCallback is never called. ulTimeOutSec bounds
 * each single reply wait. */
VEK_DNS_API uint32_t ORV_NETB_DnsGetIpByAsynResolve(const char *pszHostName, uint32_t ulSearchType,
                                                    int32_t ulTimeOutSec,
                                                    DNS_IP_CALLBACK_PFN pfnCallback,
                                                    void *pUserData);
/* Blocking form (3 seconds per reply wait). *pulIpNum: in the capacity of
 * pstIpAddr, out the number of addresses written (0 on failure). */
VEK_DNS_API uint32_t ORV_NETB_DnsGetIpBySynResolve(const char *pszHostName, uint32_t ulSearchType,
                                                   DNS_IPADDR_S *pstIpAddr, uint32_t *pulIpNum);
/* Blocking form with the addresses as text; 1 for a bad count or when memory
 * runs out, else as ORV_NETB_DnsGetIpBySynResolve. */
VEK_DNS_API uint32_t vek_dns_get_ip_resolve_syn(const char *pszHostName, uint32_t ulSearchType,
                                                DNS_IPADDR_STR_S *pstIpAddr, uint32_t *pulIpNum);
/* Empties the three memory caches (A, AAAA, SRV). */
VEK_DNS_API void ORV_NETB_DnsCleanBuffer(void);

/* ---- service calls ------------------------------------------------------ */
/* (service resolution section) */
/* Growable list of element pointers (starts with 10 slots, doubles). Slots
 * 0 .. ulSize-1 are in use, in list order; the list owns its elements. */
typedef struct {
    void **ppElems;
    uint32_t ulCapacity;
    uint32_t ulSize;
} DNS_LIST_S;

/* One service record with its address as text. */
typedef struct {
    char szTarget[256];
    uint16_t usPriority;
    uint16_t usWeight;
    uint32_t ulType;    /* DNS_IP_TYPE_IPV4 or DNS_IP_TYPE_IPV6 */
    char acIpAddr[40];  /* dotted decimal or IPv6 text; 0.0.0.0 without address */
    uint16_t usPort;
} DNS_SRV_RR_STR_S;

struct DNS_SRV_ASYN_TAG;
/* Completion of an asynchronous service request: the request (its first
 * field is the query name _service._proto.domain), the records (NULL on
 * failure), their number, the caller's data and the result code. The request
 * and the records are the library's and are freed when the function returns.
 * Called exactly once per accepted request, always from a worker thread. */
typedef uint32_t (*DNS_SRV_CALLBACK_PFN)(struct DNS_SRV_ASYN_TAG *pstSrvAsyn, DNS_SRV_RR_S *pstRR,
                                         uint32_t ulRRCount, void *pUserData, uint32_t ulRet);

/* One asynchronous service request, owned and freed by its worker. */
typedef struct DNS_SRV_ASYN_TAG {
    char szName[256]; /* query name */
    DNS_SRV_CALLBACK_PFN pfnCallback;
    uint32_t ulRRCount;    /* in: the caller's capacity; then the records found */
    uint32_t ulTimeOutSec; /* per reply wait */
    void *pUserData;
} DNS_SRV_ASYN_S;

/* Resolves _pszService._pszProto.pszDomain (service and protocol without
 * their underscores): SRV records in priority/weight order, each joined with
 * one address of its target, at most ulRRCount (and at most 10 from the
 * network). 0: pfnCallback will be called exactly once; any other result:
 * refused, pfnCallback is never called. ulTimeOutSec bounds each reply wait. */
VEK_DNS_API uint32_t ORV_NETB_DnsGetSrvByAsynResolve(const char *pszService, const char *pszProto,
                                                     const char *pszDomain, int32_t ulTimeOutSec,
                                                     int32_t ulRRCount, DNS_SRV_CALLBACK_PFN pfnCallback,
                                                     void *pUserData);
/* Blocking form (3 seconds per reply wait). *pulRRCount: in the capacity of
 * pstRR, out the number of records written (0 on failure). */
VEK_DNS_API uint32_t ORV_NETB_DnsGetSrvBySynResolve(const char *pszService, const char *pszProto,
                                                    const char *pszDomain, DNS_SRV_RR_S *pstRR,
                                                    uint32_t *pulRRCount);
/* Blocking form with the addresses as text; 1 for a bad count or when memory
 * runs out, else as ORV_NETB_DnsGetSrvBySynResolve. */
VEK_DNS_API uint32_t vek_dns_get_srv_resolve_syn(const char *pszService, const char *pszProto,
                                                 const char *pszDomain, DNS_SRV_RR_STR_S *pstRRStr,
                                                 uint32_t *pulRRCount);
/* Forgets the name servers recorded as unreachable by service queries. */
VEK_DNS_API uint32_t ORV_NETB_DnsUnReachableIPClean(void);

VEK_DNS_LAYOUT(sizeof(DNS_LIST_S) == 16, "DNS_LIST_S layout");
VEK_DNS_LAYOUT(sizeof(DNS_SRV_RR_STR_S) == 308, "DNS_SRV_RR_STR_S layout");
VEK_DNS_LAYOUT(sizeof(DNS_SRV_ASYN_S) == 280, "DNS_SRV_ASYN_S layout");

/* ---- configuration and caches ------------------------------------------ */
/* (configuration section) */
/* One name server at the configuration interface (layout of DNS_IPADDR_S).
 * Empty: IPv4 0.0.0.0 or IPv6 ::; writing an empty server deletes its line. */
typedef DNS_IPADDR_S DNS_SERVER_S;

/* ulMask bits of ORV_NETB_DnsSetConfig / ORV_NETB_DnsGetConfig. */
#define DNS_CONFIG_MASK_FIRST_SERVER 0x2u
#define DNS_CONFIG_MASK_SECOND_SERVER 0x4u
#define DNS_CONFIG_MASK_RECORD_NUM 0x8u
#define DNS_CONFIG_MASK_TIME 0x10u

/* Sets the first / second nameserver line of /etc/resolv.conf and, on every
 * call, "maxnumber" / "maxtime" of the three cache files (0 or an unset bit:
 * the defaults 32 and 86400). */
VEK_DNS_API uint32_t ORV_NETB_DnsSetConfig(uint32_t ulMask, const DNS_SERVER_S *pstFirstServer,
                                           const DNS_SERVER_S *pstSecondServer, uint32_t ulRecordNum,
                                           uint32_t ulTime);
VEK_DNS_API uint32_t ORV_NETB_DnsGetConfig(uint32_t ulMask, DNS_SERVER_S *pstFirstServer,
                                           DNS_SERVER_S *pstSecondServer, uint32_t *pulRecordNum,
                                           uint32_t *pulTime);
/* Writes the non-empty servers of the list (at most 3 records, at most 2 of
 * them non-empty) at positions 1, 2. */
VEK_DNS_API uint32_t ORV_NETB_SetServer(const DNS_SERVER_S *pstServerList, uint32_t ulSize);
/* Reads positions 1..ulSize (1 to 3); *pulServerCount receives how many. */
VEK_DNS_API uint32_t ORV_NETB_GetServer(DNS_SERVER_S *pstServerList, uint32_t ulSize,
                                        uint32_t *pulServerCount);

/* Address cache files /var/orvdns.cache (IPv4) and /var/orvdnsaaaa.cache
 * (IPv6); the family of stIpAddr, resp. of pstIpAddr[0], chooses the file.
 * ulTtl 0xFFFFFFFF: the file's maxtime applies. pstIpAddr holds
 * DNS_MAX_IP_NUM records. No lock: callers serialise these calls. */
VEK_DNS_API uint32_t DNS_SetIpToFileCache(const char *pszName, uint32_t ulTtl, DNS_IPADDR_S stIpAddr);
VEK_DNS_API uint32_t DNS_GetIpFromFileCache(const char *pszName, DNS_IPADDR_S *pstIpAddr,
                                            uint32_t *pulNum);
/* Service cache file /var/orvdnssrv.cache. *pulSrvNum: in the capacity of
 * pstSrvRR, out the number of records returned. No lock. */
VEK_DNS_API uint32_t DNS_SetSrvToFileCache(const char *pszName, const DNS_SRV_RR_S *pstSrvRR,
                                           uint32_t ulSrvNum, const uint32_t *pulTtl);
VEK_DNS_API uint32_t DNS_GetSrvFromFileCache(const char *pszName, DNS_SRV_RR_S *pstSrvRR,
                                             uint32_t *pulSrvNum);

/* ---- masking of addresses in log text ----------------------------------- */
/* (masking section) */
/* All masking calls return 0 on success and 1 on failure (the two classifiers
 * return a type value) and never log. Blocks handed out through a char ** are
 * the caller's, also on failure, and are released with PAL_MemTypeFreeD. */

/* Address searched by vek_replace_ipaddr_str; set by vek_filter_setIP_str. */
#define VEK_FILTER_IP_SIZE 46
extern VEK_DNS_API char g_szFilterIp[VEK_FILTER_IP_SIZE];

VEK_DNS_API uint32_t vek_filter_setIP_str(const char *pszIp);
/* Destination of at least 7 bytes: "a.b.c.d" -> "a.**.**.d". */
VEK_DNS_API uint32_t VekFilterIpv4AddrStr(const char *pszSrc, char *pszDst, uint32_t ulDstSize);
/* IPv4 or IPv6 text; destination of at least 46 bytes. */
VEK_DNS_API uint32_t vek_filter_ipaddr_str(const char *pszSrc, char *pszDst, uint32_t ulDstSize);
/* Masks every occurrence of g_szFilterIp in pszText into a new block. */
VEK_DNS_API uint32_t vek_replace_ipaddr_str(const char *pszText, char **ppszOut, uint32_t *pulOutLen);

/* URL text: 0 has '.', 1 has ':' but no '.', 2 neither, 3 NULL. */
VEK_DNS_API uint32_t GetUtlAddressType(const char *pszUrl);
/* Address text: 0 IPv4, 1 IPv6, 2 neither, 3 NULL text, ulFlag 0 or a ','. */
VEK_DNS_API uint32_t GetAddressType(const char *pszAddr, uint32_t ulFlag);
VEK_DNS_API uint32_t VekFilterUrlStr(const char *pszUrl, char *pszDst, uint32_t ulDstSize);
VEK_DNS_API uint32_t VekFilterIpV4UrlStr(const char *pszUrl, char *pszDst, uint32_t ulDstSize);
VEK_DNS_API uint32_t VekFilterIpV6UrlStr(const char *pszUrl, char *pszDst, uint32_t ulDstSize);
/* "head@address;rest" with the address masked, in a new block. */
VEK_DNS_API uint32_t VekFilterCallidStr(const char *pszCallid, char **ppszOut, uint32_t *pulOutLen);

#ifdef __cplusplus
}
#endif

#endif /* VEK_DNS_H */
