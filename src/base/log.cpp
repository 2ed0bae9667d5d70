// Logging, log level and version.
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <pthread.h>

#include "base/secure.h"
#include "vek_dns_ops.h"

namespace {
constexpr size_t log_buffer_size = 4096;
constexpr const char version_text[] = "QUORIN DNS 100.001.01.013.SP02";
// The default sink: standard output. A write to a pipe whose reader went
// away must not raise SIGPIPE (its default action would kill the process,
// maybe inside "dns_lock_sem"): it is blocked in this thread around the
// write, and one raised by the write is consumed. A failed write loses the
// line, nothing else.
void print_to_stdout(const char *text, const char *suffix) {
    sigset_t pipe_only;
    sigset_t saved;
    sigset_t pending;
    (void)sigemptyset(&pipe_only);
    (void)sigaddset(&pipe_only, SIGPIPE);
    (void)sigpending(&pending);
    const bool pending_before = sigismember(&pending, SIGPIPE) == 1;
    (void)pthread_sigmask(SIG_BLOCK, &pipe_only, &saved);
    if (std::printf("%s%s", text, suffix) < 0 || std::fflush(stdout) != 0) {
        std::clearerr(stdout);
    }
    if (!pending_before && sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1) {
        const struct timespec no_wait {};
        (void)sigtimedwait(&pipe_only, nullptr, &no_wait);
    }
    (void)pthread_sigmask(SIG_SETMASK, &saved, nullptr);
}

} // namespace

extern "C" {

VEK_DNS_API uint32_t g_ulDnsLogLevel = 5;
VEK_DNS_API DNS_LOG_FUNC_PFN g_fnDnsLogFunc = nullptr;

VEK_DNS_API void DNS_LOG(uint32_t ulLevel, const char *pszFormat, ...) {
    char buffer[log_buffer_size];
    // Filtering comes first so a suppressed line costs one comparison.
    // The two globals are plain objects for the application; the library
    // touches them with relaxed atomic accesses so concurrent use is defined.
    if (__atomic_load_n(&g_ulDnsLogLevel, __ATOMIC_RELAXED) < ulLevel || pszFormat == nullptr) {
        return;
    }
    (void)memset_s(buffer, sizeof(buffer), 0, sizeof(buffer));
    va_list ap;
    va_start(ap, pszFormat);
    int ret = vsprintf_s(buffer, sizeof(buffer), pszFormat, ap);
    va_end(ap);

    DNS_LOG_FUNC_PFN sink = __atomic_load_n(&g_fnDnsLogFunc, __ATOMIC_RELAXED);
    if (ret < 0) {
        static const char failure[] = "DNS_LOG secure func vsprintf_s return fail!";
        if (sink != nullptr) {
            sink(failure);
        } else {
            print_to_stdout(failure, "");
        }
    }
    if (sink != nullptr) {
        sink(buffer);
    } else {
        print_to_stdout(buffer, " \r\n");
    }
}

VEK_DNS_API void ORV_NETB_DnsSetLogLevel(uint32_t ulLevel) { __atomic_store_n(&g_ulDnsLogLevel, ulLevel, __ATOMIC_RELAXED); }

VEK_DNS_API uint32_t ORV_NETB_DnsGetLogLevel(void) { return __atomic_load_n(&g_ulDnsLogLevel, __ATOMIC_RELAXED); }

VEK_DNS_API void vek_dns_set_log_level(uint32_t ulLevel) { ORV_NETB_DnsSetLogLevel(ulLevel); }

VEK_DNS_API void ORV_NETB_DnsRegisterLogFunc(DNS_LOG_FUNC_PFN pfnLog) { __atomic_store_n(&g_fnDnsLogFunc, pfnLog, __ATOMIC_RELAXED); }

VEK_DNS_API void vek_dns_register_log_func(DNS_LOG_FUNC_PFN pfnLog) { ORV_NETB_DnsRegisterLogFunc(pfnLog); }

VEK_DNS_API uint32_t ORV_NETB_DNS_GetVersion(char *pszVersion, uint32_t ulSize) {
    if (pszVersion == nullptr || ulSize == 0) {
        return DNS_ERR_PARA_INVALID;
    }
    (void)strncpy_s(pszVersion, ulSize, version_text, ulSize - 1);
    return DNS_OK;
}

} // extern "C"
