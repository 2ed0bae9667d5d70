// Logging, log level and version.
#include <cstdarg>
#include <cstdio>

#include "base/secure.h"
#include "vek_dns_ops.h"

namespace {
constexpr size_t log_buffer_size = 4096;
constexpr const char version_text[] = "QUORIN DNS 100.001.01.013.SP02";
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
            (void)std::fputs(failure, stdout);
        }
    }
    if (sink != nullptr) {
        sink(buffer);
    } else {
        (void)std::printf("%s \r\n", buffer);
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
