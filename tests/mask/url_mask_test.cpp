// Masking of URLs and call identifiers, and the two address classifiers.
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "os_adapter/test_hooks.h"
#include "vek_dns.h"
#include "vek_os_adapter.h"

namespace {

using vekdns::pal_test::fail_nth;
using vekdns::pal_test::op;

// Exact-size heap copy: a read past the terminator is a sanitizer finding.
std::unique_ptr<char[]> exact(const std::string &s) {
    auto p = std::make_unique<char[]>(s.size() + 1);
    std::memcpy(p.get(), s.c_str(), s.size() + 1);
    return p;
}

using url_fn = uint32_t (*)(const char *, char *, uint32_t);

struct url_case {
    std::string url;
    std::optional<std::string> out; // nullopt: fails
    uint32_t dst_size = 256;
};

// Runs one case; on failure returns the destination for the caller to judge.
std::vector<char> run_url(url_fn fn, const url_case &c) {
    auto url = exact(c.url);
    std::vector<char> dst(c.dst_size, 'X');
    uint32_t ret = fn(url.get(), dst.data(), c.dst_size);
    if (c.out) {
        EXPECT_EQ(ret, 0u);
        EXPECT_EQ(std::string(dst.data(), strnlen(dst.data(), dst.size())), *c.out);
    } else {
        EXPECT_EQ(ret, 1u);
    }
    return dst;
}

// ":0" n times: an address run of digits and colons.
std::string zero_groups(int n) {
    std::string s;
    for (int i = 0; i < n; ++i) {
        s += ":0";
    }
    return s;
}

struct out_block {
    char *p = nullptr;
    ~out_block() {
        if (p != nullptr) {
            PAL_MemTypeFreeD(p, 0, __LINE__, __FILE__);
        }
    }
};

} // namespace

TEST(UrlType, ClassifiesByDotAndColon) {
    EXPECT_EQ(GetUtlAddressType("ftp://[fe80::1]/"), 1u);
    EXPECT_EQ(GetUtlAddressType("ftp://10.1.1.1/"), 0u);
    EXPECT_EQ(GetUtlAddressType("http://host.example/"), 0u); // a host name with '.'
    EXPECT_EQ(GetUtlAddressType("ftp://[::ffff:1.2.3.4]/"), 0u);
    EXPECT_EQ(GetUtlAddressType("nohost"), 2u);
    EXPECT_EQ(GetUtlAddressType(""), 2u);
    EXPECT_EQ(GetUtlAddressType(nullptr), 3u);
}

TEST(AddressType, ClassifiesValidAddresses) {
    struct {
        const char *text;
        uint32_t flag, type;
    } cases[] = {
        {"10.0.0.1", 1, 0},        {"::1", 1, 1},           {"fe80::1", 7, 1},
        {"::ffff:1.2.3.4", 1, 1},  {"10.0.0.1,10.0.0.2", 1, 3}, {",", 1, 3},
        {"10.0.0.1", 0, 3},        {"1.2.3", 1, 2},         {"256.1.1.1", 1, 2},
        {"host", 1, 2},            {"", 1, 2},              {"1.2.3.4:53", 1, 2},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        auto text = exact(c.text);
        EXPECT_EQ(GetAddressType(text.get(), c.flag), c.type);
    }
    EXPECT_EQ(GetAddressType(nullptr, 1), 3u);
}

TEST(UrlMask, MasksTheHostAddress) {
    const url_case cases[] = {
        {"ftp://192.168.1.10/path/file", "ftp://192.***.***.10/****"},
        {"ftp://192.168.1.10:8080/a", "ftp://192.***.***.10:8080/****"},
        {"ftp://10.1/x", "ftp://10.***.***.****"},
        {"http://1.2.3.4", "http://1.***.***.4****"},
        {"http://1.2.3.4.5/x", "http://1.***.***.4****"},
        {"ftp://a.b.c./x/y", "ftp://a.***.***./x/y****"}, // fourth part begins with '/'
        {"http://host.example/x", "http://host.***.***.****"},
        {"a..b...c....d/e/f", "a.***.***.d/****"},
        {"ftp://[2001:db8::1]:8080/x", "ftp://[2001:****:****:****:****:1]:8080/****"},
        {"sip:[fe80::1]:5060", "sip:[fe80:****:****:****:****:1]:5060****"},
        {"ftp://192.168.1.10/", std::nullopt, 10},
        {"ftp://192.168.1.10/", "ftp://192.***.***.10/****", 26},
        {"ftp://192.168.1.10/", std::nullopt, 25},
        {"nohost", std::nullopt},
        {"", std::nullopt},
        {"[fe80::1]/", std::nullopt},
        {"ftp://[]/", std::nullopt},
        {"ftp://[::]/", std::nullopt},
        {"ftp://[fe80::1/", std::nullopt},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE("url \"" + c.url + "\", destination " + std::to_string(c.dst_size));
        auto dst = run_url(VekFilterUrlStr, c);
        if (!c.out) {
            EXPECT_EQ(dst[0], '\0'); // every failure leaves an empty text
        }
    }
}

TEST(UrlMask, LengthLimitIs255Characters) {
    std::string v4 = "http://1.2.3.";
    v4 += std::string(255 - v4.size(), '4');
    std::string v6 = std::string(255 - std::strlen("[fe80::1]"), 'p') + "[fe80::1]";
    ASSERT_EQ(v4.size(), 255u);
    ASSERT_EQ(v6.size(), 255u);
    std::string v4_out = "http://1.***.***." + std::string(255 - 13, '4') + "****";
    std::string v6_out = std::string(246, 'p') + "[fe80:****:****:****:****:1]****";

    for (url_fn fn : {VekFilterUrlStr, VekFilterIpV4UrlStr}) {
        run_url(fn, {v4, v4_out, 512});
        auto dst = run_url(fn, {v4 + "4", std::nullopt, 512});
        if (fn == VekFilterIpV4UrlStr) {
            EXPECT_EQ(dst[0], 'X'); // the worker leaves it as it was
        }
    }
    for (url_fn fn : {VekFilterUrlStr, VekFilterIpV6UrlStr}) {
        run_url(fn, {v6, v6_out, 512});
        auto dst = run_url(fn, {"p" + v6, std::nullopt, 512});
        if (fn == VekFilterIpV6UrlStr) {
            EXPECT_EQ(dst[0], 'X');
        }
    }
}

TEST(UrlMask, WorkersCalledDirectly) {
    const url_case v4[] = {
        {"ftp://192.168.1.10/path/file", "ftp://192.***.***.10/****"},
        {"nohost", "nohost.***.***.****"}, // one part only
        {"....", ".***.***.****"},
        {"ftp://192.168.1.10/", std::nullopt, 25}, // formatting failed: empty text
    };
    for (const auto &c : v4) {
        SCOPED_TRACE(c.url);
        auto dst = run_url(VekFilterIpV4UrlStr, c);
        if (!c.out) {
            EXPECT_EQ(dst[0], '\0');
        }
    }

    const url_case v6[] = {
        {"sip:[fe80::1]:5060", "sip:[fe80:****:****:****:****:1]:5060****"},
        {"x[1.2.3.4]", "x[1.**.**.4]****"},
        {"x[1.2.3.4]/a/b", "x[1.**.**.4]/****"},
        {"a[::1]b[c]/", "a[1:****:****:****:****:1]b[c]/****"},
        {"x[fe80::1]", "x[fe80:****:****:****:****:1]****", 34},
        {"[fe80::1]/", std::nullopt},
        {"ftp://[]/", std::nullopt},
        {"ftp://[host]/", std::nullopt},
        {"ftp://fe80::1]/", std::nullopt},
        {"ftp://[fe80::1", std::nullopt},
        {"ftp://[" + std::string(45, ':') + "]/", std::nullopt},
        {"ftp://[" + std::string(46, '1') + ":]/", std::nullopt},
    };
    for (const auto &c : v6) {
        SCOPED_TRACE(c.url);
        auto dst = run_url(VekFilterIpV6UrlStr, c);
        if (!c.out) {
            EXPECT_EQ(dst[0], 'X'); // refused before formatting: untouched
        }
    }
    // Formatting that does not fit leaves an empty text.
    auto dst = run_url(VekFilterIpV6UrlStr, {"x[fe80::1]", std::nullopt, 33});
    EXPECT_EQ(dst[0], '\0');
}

TEST(UrlMask, DestinationArgumentsLeaveItUntouched) {
    for (url_fn fn : {VekFilterUrlStr, VekFilterIpV4UrlStr, VekFilterIpV6UrlStr}) {
        char dst[8];
        std::memset(dst, 'X', sizeof(dst));
        EXPECT_EQ(fn("ftp://1.2.3.4/", dst, 0), 1u);
        EXPECT_EQ(fn(nullptr, dst, sizeof(dst)), 1u);
        EXPECT_EQ(fn("ftp://1.2.3.4/", nullptr, sizeof(dst)), 1u);
        EXPECT_EQ(std::string(dst, sizeof(dst)), std::string(sizeof(dst), 'X'));
    }
}

TEST(CallidMask, MasksTheAddressAfterTheAt) {
    struct {
        std::string id;
        std::optional<std::string> out;
        bool block; // a block is handed over
    } cases[] = {
        {"a84hdk3@10.1.2.3;tag=9", "a84hdk3@10.**.**.3;tag=9", true},
        {"abc@192.168.0.1:5060;x=1", "abc@192.**.**.1:****:****:****:****:5060;x=1", true},
        {"@1.2.3.4", "@1.**.**.4", true},
        {"a@b@1.2.3.4", std::nullopt, true}, // first '@' followed by a letter
        {"abc@host", std::nullopt, true},
        {"abc@", std::nullopt, true},
        {"abc@1", std::nullopt, true},
        {"abc@::", std::nullopt, true},       // colons only
        {"abc@1234.1.1.1x", std::nullopt, true},
        {"abc", std::nullopt, false},
        {"", std::nullopt, false},
        // Address run limits: 45 characters are masked, 46 and more fail.
        {"a@1" + std::string(44, '.') + ";t", std::nullopt, true},
        {"a@1" + std::string(22, ':') + "0;t", "a@1:****:****:****:****:0;t", true},
        {"a@1" + zero_groups(22) + ";t", "a@1:0:****:****:****:****:0:0:0:0;t", true},
        {"a@10" + zero_groups(22) + ";t", std::nullopt, true},
        {"a@" + std::string(47, '1') + ";t", std::nullopt, true},
        {"a@" + std::string(5000, ':'), std::nullopt, true},
        // The output holds at most 127 characters.
        {std::string(117, 'h') + "@1.2.3.4", std::string(117, 'h') + "@1.**.**.4", true},
        {std::string(118, 'h') + "@1.2.3.4", std::nullopt, true},
        {"h@1.2.3.4" + std::string(116, ';'), "h@1.**.**.4" + std::string(116, ';'), true},
        {"h@1.2.3.4" + std::string(117, ';'), std::nullopt, true},
        {std::string(127, 'h') + "@1.2.3.4", std::nullopt, true},
        {std::string(128, 'h') + "@1.2.3.4", std::nullopt, true},
        {std::string(4000, 'h') + "@1.2.3.4", std::nullopt, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE("identifier \"" + c.id + "\"");
        auto id = exact(c.id);
        out_block out;
        uint32_t len = 31337;
        uint32_t ret = VekFilterCallidStr(id.get(), &out.p, &len);
        EXPECT_EQ(out.p != nullptr, c.block);
        if (c.out) {
            ASSERT_EQ(ret, 0u);
            EXPECT_EQ(std::string(out.p), *c.out);
            EXPECT_EQ(len, c.out->size());
        } else {
            EXPECT_EQ(ret, 1u);
            EXPECT_EQ(len, 31337u); // written only on success
            if (out.p != nullptr) {
                EXPECT_LT(strnlen(out.p, 129), 128u);
            }
        }
    }
}

TEST(CallidMask, RefusedArgumentsAndAllocationFailure) {
    char *const sentinel = reinterpret_cast<char *>(0x1);
    char *out = sentinel;
    uint32_t len = 5;
    EXPECT_EQ(VekFilterCallidStr(nullptr, &out, &len), 1u);
    EXPECT_EQ(VekFilterCallidStr("a@1.2.3.4", nullptr, &len), 1u);
    EXPECT_EQ(VekFilterCallidStr("a@1.2.3.4", &out, nullptr), 1u);
    fail_nth(op::alloc, 1);
    EXPECT_EQ(VekFilterCallidStr("a@1.2.3.4", &out, &len), 1u);
    EXPECT_EQ(out, sentinel);
    EXPECT_EQ(len, 5u);
}
