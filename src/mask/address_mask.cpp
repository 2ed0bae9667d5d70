// Masking of IPv4 and IPv6 address texts for log lines: only the outer parts
// of an address stay readable. None of these functions logs.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "base/memory.h"
#include "base/secure.h"
#include "vek_dns.h"

extern "C" {
VEK_DNS_API char g_szFilterIp[VEK_FILTER_IP_SIZE] = {};
}

namespace {

constexpr uint32_t kOk = 0;
constexpr uint32_t kFail = 1;

constexpr size_t kWorkSize = 46;        // work copy of an address text (45 characters at most)
constexpr size_t kMaxAddrLen = 45;      // longest address text accepted
constexpr uint32_t kMinIpv4Dst = 7;     // smallest destination of the IPv4 mask
constexpr uint32_t kMinAddrDst = 46;    // smallest destination of the general mask
constexpr size_t kMinIpv4Len = 7;       // "1.2.3.4"
constexpr size_t kMaxIpv4Len = 15;      // "255.255.255.255"
constexpr size_t kIpv4PartSize = 4;     // one dotted part, 3 characters at most
constexpr size_t kIpv4Parts = 4;
constexpr size_t kGroupSize = 16;       // one IPv6 group, or an embedded IPv4 part masked
constexpr uint32_t kGroupMaskSize = 15; // room given to the IPv4 mask of an embedded address
constexpr size_t kMaxGroupLen = 15;
constexpr size_t kEmbeddedIpv4Len = 5;  // groups this long or longer are masked as IPv4
constexpr size_t kMaxGroups = 10;
constexpr size_t kReplaceSpare = 100;   // growth allowed for the masked occurrences

const char kIpv4Hidden[] = "**";
const char kIpv6Hidden[] = "****";

// Length of a NUL-terminated text, looking at no more than limit + 1 bytes:
// enough to tell whether it exceeds limit without walking a long text.
size_t bounded_len(const char *text, size_t limit) { return strnlen(text, limit + 1); }

// Clears a caller's destination of the size the caller declared.
void clear_dst(char *dst, uint32_t size) { (void)memset_s(dst, size, 0, size); }

// Copies len bytes of src and a terminator at dst; the caller has checked the room.
void put_text(char *dst, const char *src, size_t len) {
    if (len != 0) {
        std::memcpy(dst, src, len);
    }
    dst[len] = '\0';
}

} // namespace

extern "C" {

VEK_DNS_API uint32_t VekFilterIpv4AddrStr(const char *pszSrc, char *pszDst, uint32_t ulDstSize) {
    if (pszDst == nullptr || ulDstSize < kMinIpv4Dst || pszSrc == nullptr) {
        return kFail;
    }
    clear_dst(pszDst, ulDstSize);

    size_t len = bounded_len(pszSrc, kMaxIpv4Len);
    if (len < kMinIpv4Len || len > kMaxIpv4Len || std::memchr(pszSrc, '.', len) == nullptr) {
        return kFail;
    }

    char acWork[kWorkSize] = {};
    put_text(acWork, pszSrc, len);

    char acParts[kIpv4Parts][kIpv4PartSize] = {};
    char *pszCtx = nullptr;
    char *pszPart = strtok_s(acWork, ".", &pszCtx);
    if (pszPart == nullptr) {
        return kFail;
    }
    size_t ulTaken = 0;
    while (pszPart != nullptr) {
        size_t ulPartLen = std::strlen(pszPart);
        if (ulPartLen >= kIpv4PartSize) {
            return kFail; // a part longer than 3 characters
        }
        put_text(acParts[ulTaken], pszPart, ulPartLen);
        if (++ulTaken == kIpv4Parts) {
            break; // parts after the fourth are not looked at
        }
        pszPart = strtok_s(nullptr, ".", &pszCtx);
    }
    if (ulTaken < kIpv4Parts) {
        return kFail;
    }

    if (sprintf_s(pszDst, ulDstSize, "%s.%s.%s.%s", acParts[0], kIpv4Hidden, kIpv4Hidden,
                  acParts[3]) < 0) {
        return kFail;
    }
    return kOk;
}

VEK_DNS_API uint32_t vek_filter_ipaddr_str(const char *pszSrc, char *pszDst, uint32_t ulDstSize) {
    if (pszDst == nullptr || ulDstSize < kMinAddrDst || pszSrc == nullptr) {
        return kFail;
    }
    clear_dst(pszDst, ulDstSize);

    size_t len = bounded_len(pszSrc, kMaxAddrLen);
    if (len < 2 || len > kMaxAddrLen) {
        return kFail;
    }
    bool bDot = std::memchr(pszSrc, '.', len) != nullptr;
    bool bColon = std::memchr(pszSrc, ':', len) != nullptr;
    if (!bDot && !bColon) {
        return kFail;
    }

    char acWork[kWorkSize] = {};
    put_text(acWork, pszSrc, len);

    if (!bColon) {
        if (len < kMinIpv4Len || len > kMaxIpv4Len) {
            return kFail;
        }
        return VekFilterIpv4AddrStr(pszSrc, pszDst, ulDstSize);
    }

    char acGroups[kMaxGroups][kGroupSize] = {};
    size_t ulGroups = 0;
    char *pszCtx = nullptr;
    for (char *pszGroup = strtok_s(acWork, ":", &pszCtx); pszGroup != nullptr;
         pszGroup = strtok_s(nullptr, ":", &pszCtx)) {
        size_t ulGroupLen = std::strlen(pszGroup);
        if (ulGroupLen > kMaxGroupLen) {
            return kFail;
        }
        if (ulGroupLen >= kEmbeddedIpv4Len) {
            if (VekFilterIpv4AddrStr(pszGroup, acGroups[ulGroups], kGroupMaskSize) != kOk) {
                return kFail;
            }
        } else {
            put_text(acGroups[ulGroups], pszGroup, ulGroupLen);
        }
        if (++ulGroups == kMaxGroups) {
            break; // the rest is not read
        }
    }

    // A text of colons only has no group to show; failing keeps every read
    // inside the group fields.
    if (ulGroups == 0) {
        return kFail;
    }

    int lWritten;
    if (ulGroups == 8) {
        lWritten = sprintf_s(pszDst, ulDstSize, "%s:%s:%s:%s:%s:%s:%s:%s", acGroups[0], acGroups[1],
                             kIpv6Hidden, kIpv6Hidden, kIpv6Hidden, kIpv6Hidden, acGroups[6],
                             acGroups[7]);
    } else if (ulGroups == kMaxGroups) {
        lWritten = sprintf_s(pszDst, ulDstSize, "%s:%s:%s:%s:%s:%s:%s:%s:%s:%s", acGroups[0],
                             acGroups[1], kIpv6Hidden, kIpv6Hidden, kIpv6Hidden, kIpv6Hidden,
                             acGroups[6], acGroups[7], acGroups[8], acGroups[9]);
    } else {
        lWritten = sprintf_s(pszDst, ulDstSize, "%s:%s:%s:%s:%s:%s", acGroups[0], kIpv6Hidden,
                             kIpv6Hidden, kIpv6Hidden, kIpv6Hidden, acGroups[ulGroups - 1]);
    }
    return lWritten < 0 ? kFail : kOk;
}

VEK_DNS_API uint32_t vek_filter_setIP_str(const char *pszIp) {
    if (pszIp == nullptr) {
        return kFail;
    }
    size_t len = bounded_len(pszIp, kMaxAddrLen);
    if (len >= kMaxAddrLen) {
        return kFail;
    }
    put_text(g_szFilterIp, pszIp, len);
    return kOk;
}

VEK_DNS_API uint32_t vek_replace_ipaddr_str(const char *pszText, char **ppszOut,
                                            uint32_t *pulOutLen) {
    if (ppszOut == nullptr || pulOutLen == nullptr || pszText == nullptr || pszText[0] == '\0') {
        return kFail;
    }

    // Work on a snapshot of the stored address so that its length and its
    // text cannot disagree within one call.
    char acIp[VEK_FILTER_IP_SIZE] = {};
    size_t ulIpLen = strnlen(g_szFilterIp, kMaxAddrLen + 1);
    if (ulIpLen < kMinIpv4Len || ulIpLen > kMaxAddrLen) {
        return kFail;
    }
    put_text(acIp, g_szFilterIp, ulIpLen);

    char acMasked[kWorkSize] = {};
    if (vek_filter_ipaddr_str(acIp, acMasked, sizeof(acMasked)) != kOk) {
        return kFail;
    }
    size_t ulMaskLen = std::strlen(acMasked);

    // The output length is handed out in 32 bits: a text whose block size
    // would not fit in them is refused before anything is allocated.
    size_t ulTextLen = std::strlen(pszText);
    if (ulTextLen > UINT32_MAX - kReplaceSpare - 1) {
        return kFail;
    }
    size_t ulBlockSize = ulTextLen + kReplaceSpare;
    auto *pszBlock = static_cast<char *>(VEK_MALLOC_ZERO(ulBlockSize));
    if (pszBlock == nullptr) {
        return kFail;
    }
    *ppszOut = pszBlock; // the caller's from here on, whatever the result

    // Each masked occurrence is followed by the rest of the text; the next
    // occurrence overwrites that rest from its own prefix on. The rest is
    // written only when no later step overwrites it (bRestPending), which
    // gives the same block without copying the tail once per occurrence.
    char *pszWrite = pszBlock;
    size_t ulRoom = ulBlockSize;
    const char *pszPos = pszText;
    bool bRestPending = false;
    auto flush_rest = [&]() {
        if (bRestPending) {
            put_text(pszWrite, pszPos, ulTextLen - static_cast<size_t>(pszPos - pszText));
            bRestPending = false;
        }
    };

    for (const char *pszHit = std::strstr(pszPos, acIp); pszHit != nullptr;
         pszHit = std::strstr(pszPos, acIp)) {
        size_t ulPrefixLen = static_cast<size_t>(pszHit - pszPos);
        if (ulRoom <= ulPrefixLen + 1) {
            flush_rest();
            break;
        }
        put_text(pszWrite, pszPos, ulPrefixLen);
        bRestPending = false; // overwritten from the prefix on
        pszWrite += ulPrefixLen;
        ulRoom -= ulPrefixLen;
        pszPos = pszHit;

        if (ulRoom <= ulMaskLen + 1) {
            break; // the output ends before this occurrence
        }
        put_text(pszWrite, acMasked, ulMaskLen);
        pszWrite += ulMaskLen;
        ulRoom -= ulMaskLen;
        pszPos += ulIpLen;

        size_t ulRestLen = ulTextLen - static_cast<size_t>(pszPos - pszText);
        if (ulRestLen > ulRoom) {
            return kFail; // the block ends with this masked address; no length
        }
        if (ulRoom <= ulRestLen + 1) {
            break; // the output ends after this masked address
        }
        bRestPending = true;
    }
    flush_rest();

    size_t ulOutLen = strnlen(pszBlock, ulBlockSize);
    if (ulOutLen == 0) {
        if (strcpy_s(pszBlock, ulBlockSize, pszPos) != 0) {
            return kFail;
        }
        ulOutLen = std::strlen(pszBlock);
    }
    *pulOutLen = static_cast<uint32_t>(ulOutLen);
    return kOk;
}

} // extern "C"
