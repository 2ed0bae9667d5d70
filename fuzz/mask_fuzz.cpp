// Fuzz target for the address, URL and call-identifier masking calls.
//
// Built over the masking sources, the platform adapter and the bounded string
// functions only: nothing linked here opens a socket.
//
// Input layout: byte 0 picks the destination size, byte 1 picks the stored
// address, the rest is split at the first '\n' into the text under test and a
// second text. Every text is passed as an exact-size NUL-terminated heap copy
// and every destination is exactly as large as the size given, so any read or
// write outside them is a sanitizer finding.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "vek_dns.h"
#include "vek_os_adapter.h"

namespace {

std::unique_ptr<char[]> exact(const uint8_t *p, size_t n) {
    auto s = std::make_unique<char[]>(n + 1);
    if (n != 0) {
        std::memcpy(s.get(), p, n);
    }
    s[n] = '\0';
    return s;
}

// Sizes around every boundary of the calls, plus a few ordinary ones.
uint32_t pick_size(uint8_t b) {
    static const uint32_t sizes[] = {0,  1,  6,  7,  9,  10, 13, 14, 15,  16,  32,
                                     45, 46, 47, 48, 64, 128, 255, 256, 257, 512};
    return sizes[b % (sizeof(sizes) / sizeof(sizes[0]))];
}

void check(bool ok) {
    if (!ok) {
        std::abort();
    }
}

// A masking call with a destination exactly as large as the size given; a
// size of 0 still gets a valid pointer, into which nothing may be written.
void run_dst(uint32_t (*fn)(const char *, char *, uint32_t), const char *src, uint32_t size) {
    std::vector<char> dst(size == 0 ? 1 : size, 'X');
    uint32_t ret = fn(src, dst.data(), size);
    check(ret == 0 || ret == 1);
    if (size == 0) {
        check(ret == 1 && dst[0] == 'X');
    } else if (ret == 0) {
        check(strnlen(dst.data(), size) < size);
    }
}

void free_block(char *p) {
    if (p != nullptr) {
        PAL_MemTypeFreeD(p, 0, __LINE__, __FILE__);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) {
        return 0;
    }
    uint32_t dst_size = pick_size(data[0]);
    uint8_t ip_pick = data[1];
    data += 2;
    size -= 2;

    const auto *nl = static_cast<const uint8_t *>(std::memchr(data, '\n', size));
    size_t a_len = nl != nullptr ? static_cast<size_t>(nl - data) : size;
    auto a = exact(data, a_len);
    auto b = nl != nullptr ? exact(nl + 1, size - a_len - 1) : exact(data, 0);
    // The texts as the calls see them: up to the first NUL byte.
    size_t a_text = std::strlen(a.get());

    run_dst(VekFilterIpv4AddrStr, a.get(), dst_size);
    run_dst(vek_filter_ipaddr_str, a.get(), dst_size);
    run_dst(vek_filter_ipaddr_str, b.get(), 46);
    run_dst(VekFilterUrlStr, a.get(), dst_size);
    run_dst(VekFilterIpV4UrlStr, a.get(), dst_size);
    run_dst(VekFilterIpV6UrlStr, a.get(), dst_size);
    run_dst(VekFilterIpV6UrlStr, b.get(), 256);

    check(GetUtlAddressType(a.get()) <= 2);
    check(GetAddressType(a.get(), 1) <= 3);
    check(GetAddressType(b.get(), ip_pick) <= 3);

    // The stored address: the second text, or a piece of the first so that
    // the replacement finds occurrences.
    if ((ip_pick & 1) != 0 || a_text == 0) {
        (void)vek_filter_setIP_str(b.get());
    } else {
        size_t start = (ip_pick >> 1) % a_text;
        size_t len = std::min<size_t>(a_text - start, 7 + (ip_pick >> 4));
        auto ip = exact(reinterpret_cast<const uint8_t *>(a.get()) + start, len);
        (void)vek_filter_setIP_str(ip.get());
    }
    check(strnlen(g_szFilterIp, VEK_FILTER_IP_SIZE) < VEK_FILTER_IP_SIZE);

    {
        char *out = nullptr;
        uint32_t len = 0xFFFFFFFFu;
        uint32_t ret = vek_replace_ipaddr_str(a.get(), &out, &len);
        check(ret == 0 || ret == 1);
        if (out != nullptr) {
            size_t n = strnlen(out, a_text + 100);
            check(n < a_text + 100);
            check(ret == 1 || n == len);
        } else {
            check(ret == 1 && len == 0xFFFFFFFFu);
        }
        free_block(out);
    }
    {
        char *out = nullptr;
        uint32_t len = 0xFFFFFFFFu;
        uint32_t ret = VekFilterCallidStr(a.get(), &out, &len);
        check(ret == 0 || ret == 1);
        if (out != nullptr) {
            size_t n = strnlen(out, 129);
            check(n < 128);
            check(ret == 1 || n == len);
        } else {
            check(ret == 1);
        }
        free_block(out);
    }
    return 0;
}
