// Bounded memory and string functions.
#include "base/secure.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

constexpr size_t max_dest = SIZE_MAX >> 1; // larger sizes are taken as a caller bug

bool overlaps(const void *a, size_t alen, const void *b, size_t blen) {
    auto pa = reinterpret_cast<uintptr_t>(a);
    auto pb = reinterpret_cast<uintptr_t>(b);
    return pa < pb + blen && pb < pa + alen;
}

} // namespace

extern "C" {

errno_t memcpy_s(void *dest, size_t destMax, const void *src, size_t count) {
    if (dest == nullptr || destMax == 0 || destMax > max_dest) {
        return VEK_SECURE_EINVAL;
    }
    if (src == nullptr) {
        std::memset(dest, 0, destMax);
        return VEK_SECURE_EINVAL;
    }
    if (count > destMax) {
        std::memset(dest, 0, destMax);
        return VEK_SECURE_ERANGE;
    }
    if (count == 0 || dest == src) {
        return 0;
    }
    if (overlaps(dest, count, src, count)) {
        std::memset(dest, 0, destMax);
        return VEK_SECURE_EOVERLAP;
    }
    std::memcpy(dest, src, count);
    return 0;
}

errno_t memset_s(void *dest, size_t destMax, int c, size_t count) {
    if (dest == nullptr || destMax == 0 || destMax > max_dest) {
        return VEK_SECURE_EINVAL;
    }
    if (count > destMax) {
        std::memset(dest, c, destMax);
        return VEK_SECURE_ERANGE;
    }
    std::memset(dest, c, count);
    return 0;
}

errno_t memmove_s(void *dest, size_t destMax, const void *src, size_t count) {
    if (dest == nullptr || destMax == 0 || destMax > max_dest) {
        return VEK_SECURE_EINVAL;
    }
    if (src == nullptr) {
        std::memset(dest, 0, destMax);
        return VEK_SECURE_EINVAL;
    }
    if (count > destMax) {
        std::memset(dest, 0, destMax);
        return VEK_SECURE_ERANGE;
    }
    if (count != 0) {
        std::memmove(dest, src, count);
    }
    return 0;
}

errno_t strncpy_s(char *dest, size_t destMax, const char *src, size_t count) {
    if (dest == nullptr || destMax == 0 || destMax > max_dest) {
        return VEK_SECURE_EINVAL;
    }
    if (src == nullptr) {
        dest[0] = '\0';
        return VEK_SECURE_EINVAL;
    }
    size_t len = strnlen(src, count);
    if (len >= destMax) {
        dest[0] = '\0';
        return VEK_SECURE_ERANGE;
    }
    if (overlaps(dest, len + 1, src, len + 1)) {
        dest[0] = '\0';
        return VEK_SECURE_EOVERLAP;
    }
    std::memcpy(dest, src, len);
    dest[len] = '\0';
    return 0;
}

errno_t strcpy_s(char *dest, size_t destMax, const char *src) {
    if (dest == nullptr || destMax == 0 || destMax > max_dest) {
        return VEK_SECURE_EINVAL;
    }
    if (src == nullptr) {
        dest[0] = '\0';
        return VEK_SECURE_EINVAL;
    }
    size_t len = strnlen(src, destMax);
    if (len >= destMax) {
        dest[0] = '\0';
        return VEK_SECURE_ERANGE;
    }
    if (dest == src) {
        return 0;
    }
    if (overlaps(dest, len + 1, src, len + 1)) {
        dest[0] = '\0';
        return VEK_SECURE_EOVERLAP;
    }
    std::memcpy(dest, src, len + 1);
    return 0;
}

errno_t strcat_s(char *dest, size_t destMax, const char *src) {
    if (dest == nullptr || destMax == 0 || destMax > max_dest) {
        return VEK_SECURE_EINVAL;
    }
    if (src == nullptr) {
        dest[0] = '\0';
        return VEK_SECURE_EINVAL;
    }
    size_t used = strnlen(dest, destMax);
    if (used >= destMax) {
        dest[0] = '\0';
        return VEK_SECURE_EINVAL; // destination not terminated within its size
    }
    size_t len = strnlen(src, destMax - used);
    if (used + len >= destMax) {
        dest[0] = '\0';
        return VEK_SECURE_ERANGE;
    }
    if (overlaps(dest, destMax, src, len + 1)) {
        dest[0] = '\0';
        return VEK_SECURE_EOVERLAP;
    }
    std::memcpy(dest + used, src, len + 1);
    return 0;
}

int vsprintf_s(char *dest, size_t destMax, const char *format, va_list ap) {
    if (dest == nullptr || destMax == 0 || destMax > max_dest) {
        return -1;
    }
    if (format == nullptr) {
        dest[0] = '\0';
        return -1;
    }
    int n = std::vsnprintf(dest, destMax, format, ap);
    if (n < 0 || static_cast<size_t>(n) >= destMax) {
        dest[0] = '\0';
        return -1;
    }
    return n;
}

int sprintf_s(char *dest, size_t destMax, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    int n = vsprintf_s(dest, destMax, format, ap);
    va_end(ap);
    return n;
}

int snprintf_s(char *dest, size_t destMax, size_t count, const char *format, ...) {
    if (dest == nullptr || destMax == 0 || destMax > max_dest) {
        return -1;
    }
    if (format == nullptr) {
        dest[0] = '\0';
        return -1;
    }
    // When count leaves room, the text is cut at count characters (result -1);
    // when it does not, a text that does not fit is an error (dest emptied).
    bool may_cut = count < destMax;
    size_t limit = may_cut ? count : destMax - 1;
    va_list ap;
    va_start(ap, format);
    int n = std::vsnprintf(dest, limit + 1, format, ap);
    va_end(ap);
    if (n < 0) {
        dest[0] = '\0';
        return -1;
    }
    if (static_cast<size_t>(n) > limit) {
        if (!may_cut) {
            dest[0] = '\0';
        }
        return -1;
    }
    return n;
}

char *strtok_s(char *str, const char *delim, char **context) {
    if (delim == nullptr || context == nullptr) {
        return nullptr;
    }
    char *s = str != nullptr ? str : *context;
    if (s == nullptr) {
        return nullptr;
    }
    s += std::strspn(s, delim);
    if (*s == '\0') {
        *context = s;
        return nullptr;
    }
    char *end = s + std::strcspn(s, delim);
    if (*end != '\0') {
        *end = '\0';
        *context = end + 1;
    } else {
        *context = end;
    }
    return s;
}

} // extern "C"
