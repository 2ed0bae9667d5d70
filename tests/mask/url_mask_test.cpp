// Masking of URLs and call identifiers, and the two address classifiers.
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "os_adapter/test_hooks.h"
#include "vek_dns.h"
#include "vek_os_adapter.h"

namespace {

// Exact-size heap copy: a read past the terminator is a sanitizer finding.
std::unique_ptr<char[]> exact(const std::string &s) {
    auto p = std::make_unique<char[]>(s.size() + 1);
    std::memcpy(p.get(), s.c_str(), s.size() + 1);
    return p;
}

using url_fn = uint32_t (*)(const char *, char *, uint32_t);
const url_fn URL = VekFilterUrlStr, V4 = VekFilterIpV4UrlStr, V6 = VekFilterIpV6UrlStr;

} // namespace

TEST(AddressType, ClassifiesUrlsAndAddresses) {
    EXPECT_EQ(GetUtlAddressType("ftp://[fe80::1]/"), 1u);
    EXPECT_EQ(GetUtlAddressType("ftp://[::ffff:1.2.3.4]/"), 0u); // any '.' wins
    EXPECT_EQ(GetUtlAddressType("http://host.example/"), 0u);
    EXPECT_EQ(GetUtlAddressType("nohost"), 2u);
    EXPECT_EQ(GetUtlAddressType(nullptr), 3u);
    struct {
        const char *text;
        uint32_t flag, type;
    } cases[] = {
        {"10.0.0.1", 1, 0},          {"::1", 1, 1},      {"fe80::1", 7, 1},   {"::ffff:1.2.3.4", 1, 1},
        {"10.0.0.1,10.0.0.2", 1, 3}, {"10.0.0.1", 0, 3}, {"256.1.1.1", 1, 2}, {"1.2.3.4:53", 1, 2}};
    for (const auto &c : cases) {
        EXPECT_EQ(GetAddressType(exact(c.text).get(), c.flag), c.type) << c.text;
    }
    EXPECT_EQ(GetAddressType(nullptr, 1), 3u);
}

TEST(UrlMask, MasksTheHostOrFails) {
    // 255 characters are accepted, 256 are not.
    const std::string v4 = "http://1.2.3." + std::string(242, '4');
    const std::string v6 = std::string(246, 'p') + "[fe80::1]";
    struct {
        url_fn fn;
        std::string url, out; // out empty: the call fails
        uint32_t size = 256;
        char first = '\0'; // first destination byte after a failure
    } cases[] = {
        {URL, "ftp://192.168.1.10/path/file", "ftp://192.***.***.10/****"},
        {URL, "ftp://192.168.1.10:8080/a", "ftp://192.***.***.10:8080/****"},
        {URL, "ftp://10.1/x", "ftp://10.***.***.****"},
        {URL, "http://1.2.3.4", "http://1.***.***.4****"},
        {URL, "ftp://a.b.c./x/y", "ftp://a.***.***./x/y****"}, // fourth part begins with '/'
        {URL, "http://host.example/x", "http://host.***.***.****"},
        {URL, "a..b...c....d/e/f", "a.***.***.d/****"},
        {URL, "ftp://[2001:db8::1]:8080/x", "ftp://[2001:****:****:****:****:1]:8080/****"},
        {URL, "ftp://192.168.1.10/", "ftp://192.***.***.10/****", 26},
        {URL, "nohost", ""},
        {URL, "[fe80::1]/", ""},
        {URL, v4, "http://1.***.***." + std::string(242, '4') + "****", 512},
        {URL, "p" + v6, "", 512},
        {V4, v4 + "4", "", 512, 'X'},
        {V4, "nohost", "nohost.***.***.****"},
        {V4, "ftp://192.168.1.10/", "", 25}, // formatting failed: empty text
        {V6, v6, std::string(246, 'p') + "[fe80:****:****:****:****:1]****", 512},
        {V6, "sip:[fe80::1]:5060", "sip:[fe80:****:****:****:****:1]:5060****"},
        {V6, "x[1.2.3.4]/a/b", "x[1.**.**.4]/****"},
        {V6, "a[::1]b[c]/", "a[1:****:****:****:****:1]b[c]/****"},
        {V6, "x[fe80::1]", "", 33},
        {V6, "[fe80::1]/", "", 256, 'X'}, // refused before formatting: untouched
        {V6, "ftp://[]/", "", 256, 'X'},
        {V6, "ftp://[::]/", "", 256, 'X'},
        {V6, "ftp://fe80::1]/", "", 256, 'X'},
        {V6, "ftp://[fe80::1", "", 256, 'X'},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE("\"" + c.url + "\" into " + std::to_string(c.size));
        auto url = exact(c.url);
        std::vector<char> dst(c.size, 'X');
        EXPECT_EQ(c.fn(url.get(), dst.data(), c.size), c.out.empty() ? 1u : 0u);
        if (c.out.empty()) {
            EXPECT_EQ(dst[0], c.first);
        } else {
            EXPECT_EQ(std::string(dst.data()), c.out);
        }
    }
}

TEST(UrlMask, DestinationArgumentFailuresLeaveItUntouched) {
    char dst[8] = "XXXXXXX";
    for (url_fn fn : {URL, V4, V6}) {
        EXPECT_EQ(fn("ftp://1.2.3.4/", dst, 0), 1u);
        EXPECT_EQ(fn(nullptr, dst, sizeof(dst)), 1u);
        EXPECT_EQ(fn("ftp://1.2.3.4/", nullptr, sizeof(dst)), 1u);
    }
    EXPECT_STREQ(dst, "XXXXXXX");
}

TEST(CallidMask, MasksTheAddressAfterTheAt) {
    struct {
        std::string id, out; // out empty: the call fails
        bool block = true;   // a block is handed over
    } cases[] = {
        {"a84hdk3@10.1.2.3;tag=9", "a84hdk3@10.**.**.3;tag=9"},
        {"abc@192.168.0.1:5060;x=1", "abc@192.**.**.1:****:****:****:****:5060;x=1"},
        {"a@b@1.2.3.4", ""}, // the first '@' is followed by a letter
        {"abc@::", ""},
        {"abc", "", false},
        // Address runs of 45 characters are masked; longer ones fail.
        {"a@1:0:0:0:0:0:0:0:0:0:0:0:0:0:0:0:0:0:0:0:0:0:0;t", "a@1:0:****:****:****:****:0:0:0:0;t"},
        {"a@10:0:0:0:0:0:0:0:0:0:0:0:0:0:0:0:0:0:0:0:0:0:0;t", ""},
        {"a@" + std::string(5000, ':'), ""},
        // The output holds at most 127 characters.
        {std::string(117, 'h') + "@1.2.3.4", std::string(117, 'h') + "@1.**.**.4"},
        {std::string(118, 'h') + "@1.2.3.4", ""},
        {"h@1.2.3.4" + std::string(116, ';'), "h@1.**.**.4" + std::string(116, ';')},
        {"h@1.2.3.4" + std::string(117, ';'), ""},
        {std::string(4000, 'h') + "@1.2.3.4", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE("\"" + c.id + "\"");
        auto id = exact(c.id);
        char *out = nullptr;
        uint32_t len = 31337;
        EXPECT_EQ(VekFilterCallidStr(id.get(), &out, &len), c.out.empty() ? 1u : 0u);
        EXPECT_EQ(out != nullptr, c.block);
        if (!c.out.empty()) {
            EXPECT_EQ(std::string(out), c.out);
        }
        EXPECT_EQ(len, c.out.empty() ? 31337u : c.out.size()); // written only on success
        if (out != nullptr) {
            EXPECT_LT(strnlen(out, 129), 128u);
            PAL_MemTypeFreeD(out, 0, __LINE__, __FILE__);
        }
    }
}

TEST(CallidMask, RefusedArgumentsAndAllocationFailureLeaveOutputsUntouched) {
    char *const sentinel = reinterpret_cast<char *>(0x1);
    char *out = sentinel;
    uint32_t len = 5;
    EXPECT_EQ(VekFilterCallidStr(nullptr, &out, &len), 1u);
    EXPECT_EQ(VekFilterCallidStr("a@1.2.3.4", nullptr, &len), 1u);
    EXPECT_EQ(VekFilterCallidStr("a@1.2.3.4", &out, nullptr), 1u);
    vekdns::pal_test::fail_nth(vekdns::pal_test::op::alloc, 1);
    EXPECT_EQ(VekFilterCallidStr("a@1.2.3.4", &out, &len), 1u);
    EXPECT_EQ(out, sentinel);
    EXPECT_EQ(len, 5u);
}
