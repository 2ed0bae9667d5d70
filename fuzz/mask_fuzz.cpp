// The address, URL and call-identifier masking calls. Byte 0 picks the
// destination size, byte 1 the stored address; the rest is split at the first
// '\n' into two texts. Texts are exact-size heap copies and destinations are
// exactly as large as the size given, so any access outside them is a finding.
#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "fuzz_support.h"
#include "vek_dns.h"
#include "vek_os_adapter.h"

namespace {

using vekdns::fuzz::check;

std::unique_ptr<char[]> exact(const uint8_t *p, size_t n) {
    auto s = std::make_unique<char[]>(n + 1); // zero-filled: the terminator is there
    std::copy(p, p + n, s.get());
    return s;
}

// A size of 0 still gets a valid pointer, into which nothing may be written.
void run_dst(uint32_t (*fn)(const char *, char *, uint32_t), const char *src, uint32_t size) {
    std::vector<char> dst(size == 0 ? 1 : size, 'X');
    const uint32_t ret = fn(src, dst.data(), size);
    check(ret <= 1 && (size != 0 || (ret == 1 && dst[0] == 'X')));
    check(ret == 1 || strnlen(dst.data(), size) < size);
}

// An allocating call: its output ends within `limit` and its length is reported.
void run_out(uint32_t (*fn)(const char *, char **, uint32_t *), const char *src, size_t limit) {
    char *out = nullptr;
    uint32_t len = 0xFFFFFFFFu;
    const uint32_t ret = fn(src, &out, &len);
    check(ret <= 1 && (out != nullptr || ret == 1));
    if (out != nullptr) {
        const size_t n = strnlen(out, limit);
        check(n < limit && (ret == 1 || n == len));
        PAL_MemTypeFreeD(out, 0, __LINE__, __FILE__);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const uint32_t sizes[] = {0,  1,  6,  7,  9,  10,  13,  14,  15, 16,
                                     32, 45, 46, 47, 64, 128, 255, 256, 257};
    if (size < 2 || size > 4096) { // libFuzzer runs with -max_len=4096
        return 0;
    }
    const uint32_t dst_size = sizes[data[0] % (sizeof(sizes) / sizeof(sizes[0]))];
    const uint8_t ip_pick = data[1];
    data += 2;
    size -= 2;
    const auto *nl = static_cast<const uint8_t *>(std::memchr(data, '\n', size));
    const size_t a_len = nl != nullptr ? static_cast<size_t>(nl - data) : size;
    auto a = exact(data, a_len);
    auto b = nl != nullptr ? exact(nl + 1, size - a_len - 1) : exact(data, 0);
    const size_t a_text = std::strlen(a.get());

    for (auto fn : {VekFilterIpv4AddrStr, vek_filter_ipaddr_str, VekFilterUrlStr, VekFilterIpV4UrlStr,
                    VekFilterIpV6UrlStr}) {
        run_dst(fn, a.get(), dst_size);
    }
    run_dst(vek_filter_ipaddr_str, b.get(), 46);
    run_dst(VekFilterIpV6UrlStr, b.get(), 256);
    check(GetUtlAddressType(a.get()) <= 2 && GetAddressType(a.get(), 1) <= 3 &&
          GetAddressType(b.get(), ip_pick) <= 3);
    // The stored address: the second text, or the first (so that the replacement finds it).
    (void)vek_filter_setIP_str((ip_pick & 1) != 0 ? b.get()
                                                  : a.get() + (a_text != 0 ? (ip_pick >> 1) % a_text : 0));
    check(strnlen(g_szFilterIp, VEK_FILTER_IP_SIZE) < VEK_FILTER_IP_SIZE);
    run_out(vek_replace_ipaddr_str, a.get(), a_text + 100);
    run_out(VekFilterCallidStr, a.get(), 129);
    return 0;
}
