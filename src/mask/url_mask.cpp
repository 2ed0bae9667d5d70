// Masking of the host address inside URLs and of the address part of call
// identifiers ("head@address;rest"), and two classifiers of address texts.
// None of these functions logs.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sys/socket.h>

#include "base/memory.h"
#include "base/secure.h"
#include "vek_dns.h"
#include "vek_os_adapter.h"

namespace {

constexpr uint32_t kOk = 0;
constexpr uint32_t kFail = 1;

constexpr uint32_t kUrlIpv4 = 0;
constexpr uint32_t kUrlIpv6 = 1;
constexpr uint32_t kUrlNone = 2;
constexpr uint32_t kUrlNull = 3;

constexpr uint32_t kAddrIpv4 = 0;
constexpr uint32_t kAddrIpv6 = 1;
constexpr uint32_t kAddrNone = 2;
constexpr uint32_t kAddrRefused = 3;

static_assert(AF_INET == 2 && AF_INET6 == 10, "address families as the adapter takes them");

constexpr size_t kUrlFieldSize = 256;  // one URL part; a URL of 256 characters or more fails
constexpr size_t kMaxUrlLen = kUrlFieldSize - 1;
constexpr size_t kMaskedAddrSize = 46; // masked address of a call identifier
constexpr size_t kCallidRunSize = 47;  // address run of a call identifier, with its terminator
constexpr size_t kCallidBlockSize = 129;
// The block's text is built with a bound of 128 bytes, terminator included,
// so it holds at most 127 characters and its last byte always stays zero.
constexpr size_t kCallidTextBound = 128;

const char kUrlIpv4Hidden[] = "***";

size_t bounded_len(const char *text, size_t limit) { return strnlen(text, limit + 1); }

void put_text(char *dst, const char *src, size_t len) {
    if (len != 0) {
        std::memcpy(dst, src, len);
    }
    dst[len] = '\0';
}

// Appends len bytes of src to the text of used characters in a buffer whose
// text may take bound bytes with its terminator. Nothing is written when the
// result would not fit.
bool append_bounded(char *buf, size_t bound, size_t &used, const char *src, size_t len) {
    if (used + len >= bound) {
        return false;
    }
    put_text(buf + used, src, len);
    used += len;
    return true;
}

const char *part_or_empty(const char *part) { return part != nullptr ? part : ""; }

bool is_callid_addr_char(char c) { return (c >= '0' && c <= '9') || c == ':' || c == '.'; }

} // namespace

extern "C" {

VEK_DNS_API uint32_t GetUtlAddressType(const char *pszUrl) {
    if (pszUrl == nullptr) {
        return kUrlNull;
    }
    if (std::strchr(pszUrl, '.') != nullptr) {
        return kUrlIpv4;
    }
    if (std::strchr(pszUrl, ':') != nullptr) {
        return kUrlIpv6;
    }
    return kUrlNone;
}

VEK_DNS_API uint32_t GetAddressType(const char *pszAddr, uint32_t ulFlag) {
    if (pszAddr == nullptr || ulFlag == 0 || std::strchr(pszAddr, ',') != nullptr) {
        return kAddrRefused;
    }
    unsigned char aucAddr[16] = {};
    if (PAL_Inet_Pton(AF_INET6, pszAddr, aucAddr) > 0) {
        return kAddrIpv6;
    }
    if (PAL_Inet_Pton(AF_INET, pszAddr, aucAddr) > 0) {
        return kAddrIpv4;
    }
    return kAddrNone;
}

VEK_DNS_API uint32_t VekFilterIpV4UrlStr(const char *pszUrl, char *pszDst, uint32_t ulDstSize) {
    if (pszDst == nullptr || ulDstSize == 0 || pszUrl == nullptr) {
        return kFail;
    }
    size_t len = bounded_len(pszUrl, kMaxUrlLen);
    if (len > kMaxUrlLen) {
        return kFail;
    }
    char acWork[kUrlFieldSize] = {};
    put_text(acWork, pszUrl, len);

    // Parts 1 to 4 at '.', empty parts skipped; a missing part stays empty.
    char *apszParts[4] = {};
    char *pszCtx = nullptr;
    char *pszPart = strtok_s(acWork, ".", &pszCtx);
    for (size_t i = 0; i < 4 && pszPart != nullptr; ++i) {
        apszParts[i] = pszPart;
        if (i + 1 < 4) {
            pszPart = strtok_s(nullptr, ".", &pszCtx);
        }
    }

    // The fourth part ends at its first '/' unless that '/' is its first character.
    if (apszParts[3] != nullptr) {
        char *pszSlash = std::strchr(apszParts[3], '/');
        if (pszSlash != nullptr && pszSlash != apszParts[3]) {
            pszSlash[1] = '\0';
        }
    }

    if (sprintf_s(pszDst, ulDstSize, "%s.%s.%s.%s****", part_or_empty(apszParts[0]),
                  kUrlIpv4Hidden, kUrlIpv4Hidden, part_or_empty(apszParts[3])) < 0) {
        return kFail;
    }
    return kOk;
}

VEK_DNS_API uint32_t VekFilterIpV6UrlStr(const char *pszUrl, char *pszDst, uint32_t ulDstSize) {
    if (pszDst == nullptr || ulDstSize == 0 || pszUrl == nullptr) {
        return kFail;
    }
    size_t len = bounded_len(pszUrl, kMaxUrlLen);
    if (len > kMaxUrlLen) {
        return kFail;
    }
    const char *pszEnd = pszUrl + len;

    const auto *pszOpen = static_cast<const char *>(std::memchr(pszUrl, '[', len));
    if (pszOpen == nullptr || pszOpen == pszUrl) {
        return kFail;
    }
    const char *pszAddr = pszOpen + 1;
    const auto *pszClose =
        static_cast<const char *>(std::memchr(pszAddr, ']', static_cast<size_t>(pszEnd - pszAddr)));
    if (pszClose == nullptr || pszClose == pszAddr) {
        return kFail;
    }
    const auto *pszSlash =
        static_cast<const char *>(std::memchr(pszClose, '/', static_cast<size_t>(pszEnd - pszClose)));
    const char *pszSuffixEnd = pszSlash != nullptr ? pszSlash + 1 : pszEnd;

    char acPrefix[kUrlFieldSize] = {};
    char acAddr[kUrlFieldSize] = {};
    char acSuffix[kUrlFieldSize] = {};
    char acMasked[kUrlFieldSize] = {};
    put_text(acPrefix, pszUrl, static_cast<size_t>(pszAddr - pszUrl));
    put_text(acAddr, pszAddr, static_cast<size_t>(pszClose - pszAddr));
    put_text(acSuffix, pszClose, static_cast<size_t>(pszSuffixEnd - pszClose));

    if (vek_filter_ipaddr_str(acAddr, acMasked, sizeof(acMasked)) != kOk) {
        return kFail;
    }
    if (sprintf_s(pszDst, ulDstSize, "%s%s%s****", acPrefix, acMasked, acSuffix) < 0) {
        return kFail;
    }
    return kOk;
}

VEK_DNS_API uint32_t VekFilterUrlStr(const char *pszUrl, char *pszDst, uint32_t ulDstSize) {
    if (pszDst == nullptr || ulDstSize == 0 || pszUrl == nullptr) {
        return kFail;
    }
    (void)memset_s(pszDst, ulDstSize, 0, ulDstSize);

    switch (GetUtlAddressType(pszUrl)) {
    case kUrlIpv4:
        return VekFilterIpV4UrlStr(pszUrl, pszDst, ulDstSize);
    case kUrlIpv6:
        return VekFilterIpV6UrlStr(pszUrl, pszDst, ulDstSize);
    default:
        return kFail;
    }
}

VEK_DNS_API uint32_t VekFilterCallidStr(const char *pszCallid, char **ppszOut,
                                        uint32_t *pulOutLen) {
    if (ppszOut == nullptr || pulOutLen == nullptr || pszCallid == nullptr ||
        pszCallid[0] == '\0') {
        return kFail;
    }
    const char *pszAt = std::strchr(pszCallid, '@');
    if (pszAt == nullptr) {
        return kFail;
    }

    auto *pszBlock = static_cast<char *>(VEK_MALLOC_ZERO(kCallidBlockSize));
    if (pszBlock == nullptr) {
        return kFail;
    }
    *ppszOut = pszBlock; // the caller's from here on, whatever the result

    size_t ulUsed = 0;
    if (!append_bounded(pszBlock, kCallidTextBound, ulUsed, pszCallid,
                        static_cast<size_t>(pszAt - pszCallid) + 1)) {
        return kFail;
    }

    // The run of digits, ':' and '.' behind the '@'. A run that does not fit
    // its field is refused here: masking refuses any text that long anyway.
    const char *pszRun = pszAt + 1;
    size_t ulRunLen = 0;
    while (pszRun[ulRunLen] != '\0' && is_callid_addr_char(pszRun[ulRunLen])) {
        if (++ulRunLen >= kCallidRunSize) {
            return kFail;
        }
    }
    char acRun[kCallidRunSize] = {};
    put_text(acRun, pszRun, ulRunLen);

    char acMasked[kMaskedAddrSize] = {};
    if (vek_filter_ipaddr_str(acRun, acMasked, sizeof(acMasked)) != kOk) {
        return kFail;
    }
    if (!append_bounded(pszBlock, kCallidTextBound, ulUsed, acMasked, std::strlen(acMasked))) {
        return kFail;
    }
    const char *pszRest = pszRun + ulRunLen;
    if (!append_bounded(pszBlock, kCallidTextBound, ulUsed, pszRest,
                        bounded_len(pszRest, kCallidTextBound))) {
        return kFail;
    }
    *pulOutLen = static_cast<uint32_t>(ulUsed);
    return kOk;
}

} // extern "C"
