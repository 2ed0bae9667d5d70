// The platform adapter over POSIX.
#include "vek_os_adapter.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <semaphore.h>
#include <unistd.h>

#include "os_adapter/named_sem.h"
#include "os_adapter/test_hooks.h"

using vekdns::pal_test::op;
using vekdns::pal_test::should_fail;

extern "C" {

// ---- memory -----------------------------------------------------------------

void *PAL_MemTypeMallocD(size_t ulSize, uint32_t, uint32_t ulLine, const char *pszFile) {
    if (should_fail(op::alloc)) {
        return nullptr;
    }
    void *block = std::malloc(ulSize == 0 ? 1 : ulSize);
    if (block != nullptr) {
        vekdns::pal_test::note_alloc(block, pszFile, ulLine);
    }
    return block;
}

void *PAL_MemTypeMallocS(size_t ulSize, uint32_t, uint32_t, uint32_t ulLine, const char *pszFile) {
    if (should_fail(op::alloc)) {
        return nullptr;
    }
    void *block = std::calloc(1, ulSize == 0 ? 1 : ulSize);
    if (block != nullptr) {
        vekdns::pal_test::note_alloc(block, pszFile, ulLine);
    }
    return block;
}

void PAL_MemTypeFreeD(void *pBlock, uint32_t, uint32_t, const char *) {
    if (pBlock == nullptr) {
        return;
    }
    vekdns::pal_test::note_free(pBlock);
    std::free(pBlock);
}

int PAL_MemCmp(const void *pA, const void *pB, size_t ulLen) { return std::memcmp(pA, pB, ulLen); }

// ---- strings ----------------------------------------------------------------

char *PAL_StrDupEx(const char *pszText, uint32_t ulLine, const char *pszFile) {
    if (pszText == nullptr) {
        return nullptr;
    }
    size_t len = std::strlen(pszText);
    auto *copy = static_cast<char *>(PAL_MemTypeMallocD(len + 1, 0, ulLine, pszFile));
    if (copy != nullptr) {
        std::memcpy(copy, pszText, len + 1);
    }
    return copy;
}

size_t PAL_StrLen(const char *pszText) { return std::strlen(pszText); }
char *PAL_StrChr(const char *pszText, int c) { return const_cast<char *>(std::strchr(pszText, c)); }
int PAL_StrCmp(const char *pszA, const char *pszB) { return std::strcmp(pszA, pszB); }
int PAL_StrNCmp(const char *pszA, const char *pszB, size_t ulLen) { return std::strncmp(pszA, pszB, ulLen); }
char *PAL_StrStr(const char *pszText, const char *pszSub) {
    return const_cast<char *>(std::strstr(pszText, pszSub));
}
unsigned long PAL_Strtoul(const char *pszText, char **ppszEnd, int lBase) {
    return std::strtoul(pszText, ppszEnd, lBase);
}

// ---- files ------------------------------------------------------------------

FILE *PAL_Fopen(const char *pszPath, const char *pszMode) {
    if (vekdns::pal_test::should_fail_fopen(pszPath)) {
        errno = EACCES;
        return nullptr;
    }
    // Close-on-exec always: a program the application starts inherits none
    // of our files.
    char mode[8] = {};
    if (pszMode == nullptr || std::strlen(pszMode) + 2 > sizeof(mode)) {
        return std::fopen(pszPath, pszMode);
    }
    std::strcpy(mode, pszMode);
    if (std::strchr(mode, 'e') == nullptr) {
        std::strcat(mode, "e");
    }
    return std::fopen(pszPath, mode);
}

char *PAL_Fgets(char *pszBuf, int lSize, FILE *pFile) {
    if (should_fail(op::fgets)) {
        return nullptr;
    }
    return std::fgets(pszBuf, lSize, pFile);
}

int PAL_Fputs(const char *pszText, FILE *pFile) {
    if (should_fail(op::fputs)) {
        return -1;
    }
    return std::fputs(pszText, pFile) == EOF ? -1 : 0;
}

int PAL_Fseek(FILE *pFile, long lOffset, int lOrigin) {
    if (should_fail(op::fseek)) {
        return -1;
    }
    return std::fseek(pFile, lOffset, lOrigin);
}

int PAL_Fclose(FILE *pFile) { return pFile == nullptr ? -1 : std::fclose(pFile); }
int PAL_Remove(const char *pszPath) { return std::remove(pszPath); }
int PAL_Access(const char *pszPath, int lMode) { return access(pszPath, lMode); }

// ---- sockets ----------------------------------------------------------------

int PAL_InitSocket(void) { return 0; }
int PAL_DInitSocket(void) { return 0; }
int PAL_CloseSocket(int lFd) { return close(lFd); }
void PAL_FD_SET(int lFd, fd_set *pstSet) {
    // FD_SET on a descriptor at or above FD_SETSIZE would write past the set.
    if (lFd >= 0 && lFd < FD_SETSIZE) {
        FD_SET(lFd, pstSet);
    }
}
int PAL_GetLastErr(void) { return errno; }
int PAL_GetLastSocketErr(void) { return errno; }

int PAL_Poll(int lFd, int lWrite, int lTimeoutMs) {
    if (should_fail(op::poll)) {
        errno = ENOMEM; // not EINTR: an injected failure must end the wait
        return -1;
    }
    struct pollfd pfd {};
    pfd.fd = lFd;
    pfd.events = lWrite != 0 ? POLLOUT : POLLIN;
    const int n = poll(&pfd, 1, lTimeoutMs);
    return n > 0 ? 1 : n;
}

int PAL_StreamSocket(int lFamily) {
    if (should_fail(op::stream_socket)) {
        errno = EMFILE;
        return -1;
    }
    return socket(lFamily, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

int PAL_Connect(int lFd, const void *pAddr, uint32_t ulLen) {
    if (should_fail(op::stream_connect)) {
        errno = ECONNREFUSED;
        return -1;
    }
    return connect(lFd, static_cast<const struct sockaddr *>(pAddr), ulLen);
}

int PAL_ConnectResult(int lFd) {
    int err = 0;
    socklen_t len = sizeof(err);
    if (getsockopt(lFd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) {
        return errno;
    }
    return err;
}

ssize_t PAL_Send(int lFd, const void *pBuf, size_t ulLen) {
    if (should_fail(op::stream_send)) {
        errno = EPIPE;
        return -1;
    }
    return send(lFd, pBuf, ulLen, MSG_NOSIGNAL);
}

ssize_t PAL_Recv(int lFd, void *pBuf, size_t ulLen) {
    if (should_fail(op::stream_recv)) {
        errno = ECONNRESET;
        return -1;
    }
    return recv(lFd, pBuf, ulLen, 0);
}

// ---- address conversion -------------------------------------------------------

// The classic dotted conversion: octal and hexadecimal parts and forms with
// fewer than four parts are accepted; failure reads as 0xFFFFFFFF.
uint32_t PAL_InetAddr(const char *pszText) { return pszText == nullptr ? 0xFFFFFFFFu : inet_addr(pszText); }

char *PAL_InetNtoa(uint32_t ulAddr) {
    static thread_local char text[INET_ADDRSTRLEN];
    struct in_addr addr {};
    addr.s_addr = ulAddr;
    if (inet_ntop(AF_INET, &addr, text, sizeof(text)) == nullptr) {
        text[0] = '\0';
    }
    return text;
}

int PAL_Inet_Pton(int lFamily, const char *pszText, void *pDst) {
    if (pszText == nullptr || pDst == nullptr) {
        return -1;
    }
    return inet_pton(lFamily, pszText, pDst);
}

const char *PAL_Inet_Ntop(int lFamily, const void *pSrc, char *pszDst, uint32_t ulSize) {
    if (pSrc == nullptr || pszDst == nullptr) {
        return nullptr;
    }
    return inet_ntop(lFamily, pSrc, pszDst, ulSize);
}

// ---- semaphores -----------------------------------------------------------------

void *PAL_SemOpen(const char *pszName, int lFlags, uint32_t ulMode, uint32_t ulValue) {
    if (pszName == nullptr || should_fail(op::sem_open)) {
        return nullptr;
    }
    return vekdns::pal::named_sem_open(pszName, lFlags, static_cast<mode_t>(ulMode), ulValue);
}

int PAL_SemWait(void *pSem) {
    if (pSem == nullptr || should_fail(op::sem_wait)) {
        return -1;
    }
    return vekdns::pal::sem_wait_sliced(static_cast<sem_t *>(pSem));
}

int PAL_SemPost(void *pSem) {
    if (pSem == nullptr || should_fail(op::sem_post)) {
        return -1;
    }
    return sem_post(vekdns::pal::posted_sem(static_cast<sem_t *>(pSem)));
}

int PAL_SemClose(void *pSem) {
    if (pSem == nullptr) {
        return -1;
    }
    int ret = vekdns::pal::named_sem_close(static_cast<sem_t *>(pSem));
    // An injected failure still releases the handle: only the result reports it.
    return should_fail(op::sem_close) ? -1 : ret;
}

int PAL_SemUnLink(const char *pszName) {
    if (should_fail(op::sem_unlink)) {
        return -1;
    }
    return vekdns::pal::named_sem_unlink(pszName);
}

int PAL_SemInit(void *pSem, int lShared, uint32_t ulValue) {
    if (pSem == nullptr || should_fail(op::sem_init)) {
        return -1;
    }
    return sem_init(static_cast<sem_t *>(pSem), lShared, ulValue);
}

int PAL_SemDestroy(void *pSem) {
    if (pSem == nullptr || should_fail(op::sem_destroy)) {
        return -1;
    }
    return sem_destroy(static_cast<sem_t *>(pSem));
}

// ---- threads ------------------------------------------------------------------

int PAL_PthreadCreate(pthread_t *pThread, const pthread_attr_t *pAttr, void *(*pfnStart)(void *),
                      void *pArg) {
    if (should_fail(op::thread_create)) {
        return EAGAIN;
    }
    return pthread_create(pThread, pAttr, pfnStart, pArg);
}

int PAL_PthreadDetach(pthread_t thread) { return pthread_detach(thread); }

// ---- time ---------------------------------------------------------------------

// Wall-clock seconds: cache files keep their stamps across restarts. A clock
// step backwards makes entries look expired, never younger than they are.
uint32_t PAL_GetSysTimeSec(void) {
    uint32_t pinned = 0;
    if (vekdns::pal_test::pinned_clock(&pinned)) {
        return pinned;
    }
    struct timespec ts {};
    clock_gettime(CLOCK_REALTIME_COARSE, &ts);
    return static_cast<uint32_t>(ts.tv_sec);
}

} // extern "C"
