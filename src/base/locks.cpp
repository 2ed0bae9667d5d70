// The system-wide named semaphore and the process-private locks.
#include <fcntl.h>

#include "vek_dns_ops.h"
#include "vek_os_adapter.h"

namespace {
constexpr const char sem_name[] = "dns_lock_sem";
constexpr int sem_create_flag = O_CREAT; // create if missing (64 here)
constexpr uint32_t sem_mode = 511;  // 0777
} // namespace

extern "C" {

VEK_DNS_API uint32_t DNS_SemOpen(void **ppHandle) {
    if (ppHandle == nullptr) {
        return DNS_ERR_SEM;
    }
    *ppHandle = PAL_SemOpen(sem_name, sem_create_flag, sem_mode, 1);
    return *ppHandle == nullptr ? DNS_ERR_SEM : DNS_OK;
}

VEK_DNS_API uint32_t DNS_SemWait(void **ppHandle) {
    if (ppHandle == nullptr || PAL_SemWait(*ppHandle) != 0) {
        DNS_LOG(2, "wait semaphore failed!\r\n");
        return DNS_ERR_SEM;
    }
    return DNS_OK;
}

VEK_DNS_API uint32_t DNS_SemPost(void **ppHandle) {
    if (ppHandle == nullptr || PAL_SemPost(*ppHandle) != 0) {
        DNS_LOG(2, "post semaphore failed!\r\n");
        return DNS_ERR_SEM;
    }
    return DNS_OK;
}

VEK_DNS_API uint32_t DNS_SemClose(void **ppHandle) {
    if (ppHandle == nullptr || PAL_SemClose(*ppHandle) != 0) {
        return DNS_ERR_SEM;
    }
    return DNS_OK;
}

VEK_DNS_API uint32_t ORV_NETB_DnsSemUnLink(void) {
    if (PAL_SemUnLink(sem_name) != 0) {
        DNS_LOG(2, "remove named semaphore failed!\r\n");
        return DNS_ERR_SEM;
    }
    return DNS_OK;
}

VEK_DNS_API uint32_t DNS_InitLock(sem_t *pstSem) {
    // Only -1 counts as a failure of the platform call.
    return PAL_SemInit(pstSem, 0, 1) == -1 ? DNS_ERR_SEM : DNS_OK;
}

VEK_DNS_API uint32_t DNS_Lock(sem_t *pstSem) {
    if (PAL_SemWait(pstSem) != 0) {
        DNS_LOG(2, "wait semaphore failed!\r\n");
        return DNS_ERR_SEM;
    }
    return DNS_OK;
}

VEK_DNS_API uint32_t DNS_UnLock(sem_t *pstSem) {
    if (PAL_SemPost(pstSem) != 0) {
        DNS_LOG(2, "post semaphore failed!\r\n");
        return DNS_ERR_SEM;
    }
    return DNS_OK;
}

VEK_DNS_API uint32_t DNS_DestoryLock(sem_t *pstSem) {
    return PAL_SemDestroy(pstSem) != 0 ? DNS_ERR_SEM : DNS_OK;
}

} // extern "C"
