/*
 * vek_os_adapter: the operating-system adapter used by vek_dns.
 *
 * Thin operations over POSIX for memory, strings, files, sockets, address
 * conversion, semaphores, threads and time. Memory handed out by the masking
 * calls of vek_dns is released by the application with PAL_MemTypeFreeD.
 */
#ifndef VEK_OS_ADAPTER_H
#define VEK_OS_ADAPTER_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/select.h>
#include <sys/types.h>

#if defined(VEK_OS_ADAPTER_BUILDING)
#define VEK_PAL_API __attribute__((visibility("default")))
#else
#define VEK_PAL_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- memory (line and file identify the caller for accounting) ---------- */
VEK_PAL_API void *PAL_MemTypeMallocD(size_t ulSize, uint32_t ulMemType, uint32_t ulLine,
                                     const char *pszFile);
/* Zero-filled block. */
VEK_PAL_API void *PAL_MemTypeMallocS(size_t ulSize, uint32_t ulMemType, uint32_t ulFlag,
                                     uint32_t ulLine, const char *pszFile);
VEK_PAL_API void PAL_MemTypeFreeD(void *pBlock, uint32_t ulMemType, uint32_t ulLine,
                                  const char *pszFile);
VEK_PAL_API int PAL_MemCmp(const void *pA, const void *pB, size_t ulLen);

/* ---- strings -------------------------------------------------------------- */
VEK_PAL_API char *PAL_StrDupEx(const char *pszText, uint32_t ulLine, const char *pszFile);
VEK_PAL_API size_t PAL_StrLen(const char *pszText);
VEK_PAL_API char *PAL_StrChr(const char *pszText, int c);
VEK_PAL_API int PAL_StrCmp(const char *pszA, const char *pszB);
VEK_PAL_API int PAL_StrNCmp(const char *pszA, const char *pszB, size_t ulLen);
VEK_PAL_API char *PAL_StrStr(const char *pszText, const char *pszSub);
VEK_PAL_API unsigned long PAL_Strtoul(const char *pszText, char **ppszEnd, int lBase);

/* ---- files ---------------------------------------------------------------- */
VEK_PAL_API FILE *PAL_Fopen(const char *pszPath, const char *pszMode);
VEK_PAL_API char *PAL_Fgets(char *pszBuf, int lSize, FILE *pFile);
VEK_PAL_API int PAL_Fputs(const char *pszText, FILE *pFile);
VEK_PAL_API int PAL_Fseek(FILE *pFile, long lOffset, int lOrigin);
VEK_PAL_API int PAL_Fclose(FILE *pFile);
VEK_PAL_API int PAL_Remove(const char *pszPath);
VEK_PAL_API int PAL_Access(const char *pszPath, int lMode);

/* ---- sockets -------------------------------------------------------------- */
VEK_PAL_API int PAL_InitSocket(void);
VEK_PAL_API int PAL_DInitSocket(void);
VEK_PAL_API int PAL_CloseSocket(int lFd);
VEK_PAL_API void PAL_FD_SET(int lFd, fd_set *pstSet);
VEK_PAL_API int PAL_GetLastErr(void);
VEK_PAL_API int PAL_GetLastSocketErr(void);
/* Waits until lFd is readable (lWrite == 0) or writable, at most lTimeoutMs
 * milliseconds; any descriptor number works. 1 ready, 0 time-out, -1 error
 * (errno; EINTR when a signal came). */
VEK_PAL_API int PAL_Poll(int lFd, int lWrite, int lTimeoutMs);
/* A non-blocking, close-on-exec stream socket of lFamily, or -1. */
VEK_PAL_API int PAL_StreamSocket(int lFamily);
/* Starts a connect: 0 or -1 (errno; EINPROGRESS while it goes on). */
VEK_PAL_API int PAL_Connect(int lFd, const void *pAddr, uint32_t ulLen);
/* The outcome of a connect that went on: 0 connected, else the error. */
VEK_PAL_API int PAL_ConnectResult(int lFd);
/* send (never raising SIGPIPE) and recv: bytes moved, or -1 (errno). */
VEK_PAL_API ssize_t PAL_Send(int lFd, const void *pBuf, size_t ulLen);
VEK_PAL_API ssize_t PAL_Recv(int lFd, void *pBuf, size_t ulLen);

/* ---- address conversion --------------------------------------------------- */
/* Network-order address, or 0xFFFFFFFF when the text is not a valid address. */
VEK_PAL_API uint32_t PAL_InetAddr(const char *pszText);
/* Dotted text in a per-thread buffer owned by the adapter. */
VEK_PAL_API char *PAL_InetNtoa(uint32_t ulAddr);
VEK_PAL_API int PAL_Inet_Pton(int lFamily, const char *pszText, void *pDst);
VEK_PAL_API const char *PAL_Inet_Ntop(int lFamily, const void *pSrc, char *pszDst, uint32_t ulSize);

/* ---- semaphores ----------------------------------------------------------- */
/* Named: handle or NULL. Others: 0 on success. */
VEK_PAL_API void *PAL_SemOpen(const char *pszName, int lFlags, uint32_t ulMode, uint32_t ulValue);
VEK_PAL_API int PAL_SemWait(void *pSem);
VEK_PAL_API int PAL_SemPost(void *pSem);
VEK_PAL_API int PAL_SemClose(void *pSem);
VEK_PAL_API int PAL_SemUnLink(const char *pszName);
/* Unnamed (pSem points at a sem_t): -1 on failure. */
VEK_PAL_API int PAL_SemInit(void *pSem, int lShared, uint32_t ulValue);
VEK_PAL_API int PAL_SemDestroy(void *pSem);

/* ---- threads -------------------------------------------------------------- */
VEK_PAL_API int PAL_PthreadCreate(pthread_t *pThread, const pthread_attr_t *pAttr,
                                  void *(*pfnStart)(void *), void *pArg);
VEK_PAL_API int PAL_PthreadDetach(pthread_t thread);

/* ---- time ----------------------------------------------------------------- */
/* Whole seconds on a clock that does not run backwards. */
VEK_PAL_API uint32_t PAL_GetSysTimeSec(void);

#ifdef __cplusplus
}
#endif

#endif /* VEK_OS_ADAPTER_H */
