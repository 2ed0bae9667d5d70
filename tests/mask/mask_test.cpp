// Masking of addresses, URLs and call identifiers in log text. Crash safety
// over any input is the fuzz target's; these rows pin the outputs.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "vek_dns.h"
#include "vek_os_adapter.h"

namespace {

using mask_fn = uint32_t (*)(const char *, char *, uint32_t);
const mask_fn V4 = VekFilterIpv4AddrStr, ANY = vek_filter_ipaddr_str, URL = VekFilterUrlStr,
              URL4 = VekFilterIpV4UrlStr;

TEST(Mask, AddressesAndUrlsRows) {
    const struct {
        mask_fn fn;
        std::string src, out; // out empty: the call fails and leaves an empty text
        uint32_t size = 46;
    } rows[] = {
        {V4, "192.168.10.20", "192.**.**.20"},
        {V4, "10.0.0.1.5555", "10.**.**.1"}, // parts after the fourth not looked at
        {V4, "1234.1.1.1", ""},
        {V4, "111.222.333.444", "111.**.**.444"}, // 15 characters
        {V4, "111.222.333.44.5", ""},             // 16
        {V4, "1.2.3.4", "", 7},                   // accepted size, output does not fit
        {ANY, "2001:db8:85a3:0:0:8a2e:370:7334", "2001:db8:****:****:****:****:370:7334"},
        {ANY, "::ffff:192.168.1.1", "ffff:****:****:****:****:192.**.**.1"},
        {ANY, "1:2:3:4:5:6:7:8:9", "1:****:****:****:****:9"},
        {ANY, "hostname", ""},
        {URL, "ftp://192.168.1.10:8080/a", "ftp://192.***.***.10:8080/****"},
        {URL, "ftp://a.b.c./x/y", "ftp://a.***.***./x/y****", 256}, // fourth part begins with '/'
        {URL, "ftp://[2001:db8::1]:8080/x", "ftp://[2001:****:****:****:****:1]:8080/****", 256},
        {URL, "nohost", ""},
        {URL4, "nohost", "nohost.***.***.****"},
    };
    for (const auto &row : rows) {
        std::vector<char> dst(row.size, 'X');
        EXPECT_EQ(row.fn(row.src.c_str(), dst.data(), row.size), row.out.empty() ? 1u : 0u) << row.src;
        EXPECT_EQ(std::string(dst.data()), row.out) << row.src;
    }
    EXPECT_EQ(GetUtlAddressType("ftp://[fe80::1]/"), 1u);
    EXPECT_EQ(GetAddressType("10.0.0.1,10.0.0.2", 1), 3u);
}

// The allocating calls: the output text, or "fail" for 1.
std::string allocating(uint32_t (*fn)(const char *, char **, uint32_t *), const std::string &text) {
    char *out = nullptr;
    uint32_t len = 0;
    const uint32_t ret = fn(text.c_str(), &out, &len);
    std::string got = ret != 0 ? "fail" : out != nullptr && len == std::strlen(out) ? out : "bad length";
    PAL_MemTypeFreeD(out, 0, __LINE__, __FILE__);
    return got;
}

TEST(Mask, ReplacedAddressesAndCallIdentifiers) {
    const std::string f = "fe80::1 ", fm = "fe80:****:****:****:****:1 ";
    const struct {
        const char *ip;
        std::string text, out;
    } rows[] = {
        {"10.1.1.1", "a 10.1.1.1 b 10.1.1.1 c", "a 10.**.**.1 b 10.**.**.1 c"},
        {"10.1.1.1", "10.1.1.10.1.1.1", "10.**.**.10.1.1.1"},       // searches never overlap
        {"fe80::1", f + f + f + f + f + f, fm + fm + fm + fm + fm}, // each grows by 19: the sixth is left out
        {"fe80::1", f + f + f + f + f + f + std::string(30, 'y'), "fail"}, // beyond the 100 spare bytes
    };
    for (const auto &row : rows) {
        ASSERT_EQ(vek_filter_setIP_str(row.ip), 0u);
        EXPECT_EQ(allocating(vek_replace_ipaddr_str, row.text), row.out) << row.text;
    }
    const std::pair<std::string, std::string> ids[] = {
        {"a84hdk3@10.1.2.3;tag=9", "a84hdk3@10.**.**.3;tag=9"},
        {"abc@192.168.0.1:5060;x=1", "abc@192.**.**.1:****:****:****:****:5060;x=1"},
        {"a@b@1.2.3.4", "fail"},
        {std::string(117, 'h') + "@1.2.3.4", std::string(117, 'h') + "@1.**.**.4"},
        {std::string(118, 'h') + "@1.2.3.4", "fail"}, // more than 127 characters out
    };
    for (const auto &[id, out] : ids) {
        EXPECT_EQ(allocating(VekFilterCallidStr, id), out) << id;
    }
}

} // namespace
