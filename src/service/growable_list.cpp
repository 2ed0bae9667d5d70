// The growable list of service records: an ordered array of element
// pointers that starts with 10 slots and doubles when full.
#include <cstring>

#include "base/memory.h"
#include "base/secure.h"
#include "vek_dns_ops.h"

namespace {

constexpr uint32_t initial_slots = 10;

// Doubles the slot array; on failure the list stays as it was.
uint32_t grow(DNS_LIST_S *list) {
    const uint32_t capacity = list->ulCapacity * 2;
    auto *slots = static_cast<void **>(VEK_MALLOC(sizeof(void *) * capacity));
    if (slots == nullptr) {
        return DNS_ERR_NO_MEMORY;
    }
    const errno_t err = memcpy_s(slots, sizeof(void *) * capacity, list->ppElems,
                                 sizeof(void *) * list->ulCapacity);
    if (err != 0) {
        DNS_LOG(3, "secure func return fail! err = %d", err);
    }
    VEK_FREE(list->ppElems);
    list->ppElems = slots;
    list->ulCapacity = capacity;
    return DNS_OK;
}

} // namespace

extern "C" {

VEK_DNS_API uint32_t DNS_ListInit(DNS_LIST_S *pstList) {
    pstList->ppElems = static_cast<void **>(VEK_MALLOC_ZERO(sizeof(void *) * initial_slots));
    pstList->ulSize = 0;
    if (pstList->ppElems == nullptr) {
        pstList->ulCapacity = 0;
        return DNS_ERR_NO_MEMORY;
    }
    pstList->ulCapacity = initial_slots;
    return DNS_OK;
}

VEK_DNS_API uint32_t DNS_ListGetSize(const DNS_LIST_S *pstList) { return pstList->ulSize; }

VEK_DNS_API uint32_t DNS_ListPush(DNS_LIST_S *pstList, void *pElem) {
    if (pstList->ulSize >= pstList->ulCapacity && grow(pstList) != DNS_OK) {
        return DNS_ERR_NO_MEMORY;
    }
    pstList->ppElems[pstList->ulSize++] = pElem;
    return DNS_OK;
}

VEK_DNS_API uint32_t DNS_ListPop(DNS_LIST_S *pstList, void **ppElem) {
    if (pstList->ulSize == 0) {
        return DNS_ERR_LIST_EMPTY;
    }
    *ppElem = pstList->ppElems[--pstList->ulSize];
    return DNS_OK;
}

VEK_DNS_API uint32_t DNS_ListGetElem(const DNS_LIST_S *pstList, uint32_t ulIndex, void **ppElem) {
    if (ulIndex >= pstList->ulSize) {
        return DNS_ERR_LIST_INDEX;
    }
    *ppElem = pstList->ppElems[ulIndex];
    return DNS_OK;
}

VEK_DNS_API void *DNS_ListGetTop(const DNS_LIST_S *pstList) {
    return pstList->ulSize != 0 ? pstList->ppElems[pstList->ulSize - 1] : nullptr;
}

VEK_DNS_API uint32_t DNS_ListInsertAt(DNS_LIST_S *pstList, uint32_t ulIndex, void *pElem) {
    if (ulIndex >= pstList->ulSize) {
        return DNS_ERR_LIST_INDEX; // adding at the end is Push's job
    }
    if (pstList->ulSize >= pstList->ulCapacity && grow(pstList) != DNS_OK) {
        return DNS_ERR_NO_MEMORY;
    }
    std::memmove(pstList->ppElems + ulIndex + 1, pstList->ppElems + ulIndex,
                 sizeof(void *) * (pstList->ulSize - ulIndex));
    pstList->ppElems[ulIndex] = pElem;
    pstList->ulSize++;
    return DNS_OK;
}

VEK_DNS_API uint32_t DNS_ListRemoveAt(DNS_LIST_S *pstList, uint32_t ulIndex) {
    if (ulIndex >= pstList->ulSize) {
        return DNS_ERR_LIST_INDEX;
    }
    std::memmove(pstList->ppElems + ulIndex, pstList->ppElems + ulIndex + 1,
                 sizeof(void *) * (pstList->ulSize - ulIndex - 1));
    pstList->ulSize--;
    return DNS_OK;
}

VEK_DNS_API void DNS_ListUninit(DNS_LIST_S *pstList) {
    for (uint32_t i = 0; i < pstList->ulSize; ++i) {
        VEK_FREE(pstList->ppElems[i]);
    }
    pstList->ulSize = 0;
    if (pstList->ppElems != nullptr) {
        VEK_FREE(pstList->ppElems);
    }
}

} // extern "C"
