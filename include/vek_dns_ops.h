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

/* ---- configuration, cache parameters and cache files ---------------------- */
/* (configuration section) */

/* ---- service resolution --------------------------------------------------- */
/* (service section) */

#ifdef __cplusplus
}
#endif

#endif /* VEK_DNS_OPS_H */
