// Masking of address texts and of a stored address inside log text.
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

std::string rep(const std::string &s, size_t n) {
    std::string out;
    while (n-- != 0) {
        out += s;
    }
    return out;
}

using mask_fn = uint32_t (*)(const char *, char *, uint32_t);
const mask_fn V4 = VekFilterIpv4AddrStr, ANY = vek_filter_ipaddr_str;

} // namespace

TEST(MaskAddress, MasksOrFailsLeavingAnEmptyText) {
    struct {
        mask_fn fn;
        std::string src, out; // out empty: the call fails
        uint32_t size = 46;
    } cases[] = {
        {V4, "192.168.10.20", "192.**.**.20"},
        {V4, "a.b.c.d", "a.**.**.d"},        // parts are not checked for digits
        {V4, "10.0.0.1.5555", "10.**.**.1"}, // parts after the fourth not looked at
        {V4, "1..2.3.4", "1.**.**.4"},       // empty parts skipped
        {V4, "1234.1.1.1", ""},
        {V4, "1.2.3.", ""},                       // 6 characters
        {V4, "111.222.333.444", "111.**.**.444"}, // 15
        {V4, "111.222.333.44.5", ""},             // 16
        {V4, "1.2.3..", ""},                      // three parts
        {V4, "1.2.3.4", "", 7},                   // accepted size, output does not fit
        {V4, "1.2.3.4", "1.**.**.4", 10},
        {ANY, "1.2.3.4.5.6.7.8", "1.**.**.4"}, // 15 characters, all IPv4
        {ANY, "hostname", ""},
        {ANY, "2001:db8:85a3:0:0:8a2e:370:7334", "2001:db8:****:****:****:****:370:7334"},
        {ANY, "fe80::1", "fe80:****:****:****:****:1"},
        {ANY, "::ffff:192.168.1.1", "ffff:****:****:****:****:192.**.**.1"},
        {ANY, "1.2.3.4:5060", "1.**.**.4:****:****:****:****:5060"},
        {ANY, "1:2:3:4:5:6:7:8:9:10", "1:2:****:****:****:****:7:8:9:10"},
        {ANY, "1:2:3:4:5:6:7:8:9:10:11:12", "1:2:****:****:****:****:7:8:9:10"},
        {ANY, "1:2:3:4:5:6:7:8:9", "1:****:****:****:****:9"},
        {ANY, "1:", "1:****:****:****:****:1"},
        {ANY, "1.23:3", "1.23:****:****:****:****:3"}, // a 4-character group kept as it is
        {ANY, "1.2.3::1", ""},                         // 5 characters: masked as IPv4, fails
        {ANY, "::1.2.3.4.5.6.7.8", "1.**.**.4:****:****:****:****:1.**.**.4"},
        {ANY, "::1.2.3.4.5.6.7.89", ""}, // group of 16 characters
        {ANY, "::", ""},                 // colons only
        {ANY, std::string(45, ':'), ""},
        {ANY, "fe8" + rep(":0", 20) + ":1", "fe8:0:****:****:****:****:0:0:0:0"}, // 45
        {ANY, "fe80" + rep(":0", 20) + ":1", ""},                                 // 46
        {ANY, "1.2.3.4:1.2.3.4:1:1:1:1:1:1:1:1", "", 47},
        {ANY, "1.2.3.4:1.2.3.4:1:1:1:1:1:1:1:1", "1.**.**.4:1.**.**.4:****:****:****:****:1:1:1:1", 48},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE("\"" + c.src + "\" into " + std::to_string(c.size));
        auto src = exact(c.src);
        std::vector<char> dst(c.size, 'X');
        EXPECT_EQ(c.fn(src.get(), dst.data(), c.size), c.out.empty() ? 1u : 0u);
        if (c.out.empty()) { // cleared from the first byte to the last
            EXPECT_EQ(dst.front(), '\0');
            EXPECT_EQ(dst.back(), '\0');
        } else {
            EXPECT_EQ(std::string(dst.data()), c.out);
        }
    }
}

TEST(MaskAddress, DestinationArgumentFailuresLeaveItUntouched) {
    std::vector<char> dst(64, 'X');
    for (auto [fn, min] : {std::pair{V4, 7u}, std::pair{ANY, 46u}}) {
        EXPECT_EQ(fn("1.2.3.4", dst.data(), min - 1), 1u);
        EXPECT_EQ(fn(nullptr, dst.data(), min), 1u);
        EXPECT_EQ(fn("1.2.3.4", nullptr, min), 1u);
    }
    EXPECT_EQ(dst, std::vector<char>(64, 'X'));
}

TEST(FilterIp, StoresTextsShorterThan45Characters) {
    const std::string t44(44, '7'); // its form is not checked
    EXPECT_EQ(vek_filter_setIP_str(exact(t44).get()), 0u);
    EXPECT_EQ(vek_filter_setIP_str(exact(std::string(45, '8')).get()), 1u);
    EXPECT_EQ(vek_filter_setIP_str(nullptr), 1u);
    EXPECT_EQ(std::string(g_szFilterIp), t44);
}

TEST(ReplaceIp, MasksEveryOccurrenceWithinTheSpareRoom) {
    const std::string f = "fe80::1", fm = "fe80:****:****:****:****:1";
    const std::string l = "1:2:3:44:55:66:7:8", lm = "1:2:****:****:****:****:7:8";
    struct {
        std::string ip, text, out;
        uint32_t ret = 0;
    } cases[] = {
        {"10.1.1.1", "a 10.1.1.1 b 10.1.1.1 c", "a 10.**.**.1 b 10.**.**.1 c"},
        {"10.1.1.1", "no address here", "no address here"},
        {"10.1.1.1", "110.1.1.12", "110.**.**.12"},
        {"10.1.1.1", "10.1.1.110.1.1.1", "10.**.**.110.**.**.1"},
        {"10.1.1.1", "10.1.1.10.1.1.1", "10.**.**.10.1.1.1"}, // searches never overlap
        {"111.222.111.222", rep("111.222.111.222,", 1000), rep("111.**.**.222,", 1000)},
        // Each fe80::1 grows by 19 of the 100 spare bytes: the sixth no longer
        // fits, or fits but leaves no room for the rest (failure, block kept).
        {f, rep(f + " ", 6), rep(fm + " ", 5)},
        {f, rep(f + " ", 6) + std::string(30, 'y'), rep(fm + " ", 5) + fm, 1},
        // The room left after the last mask equals the rest, or exceeds it by one.
        {"10.1.1.1", rep("10.1.1.1 ", 50) + "end", rep("10.**.**.1 ", 49) + "10.**.**.1"},
        {l, rep(l + " ", 11) + "end", rep(lm + " ", 10) + lm},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.ip + " in \"" + c.text + "\"");
        auto ip = exact(c.ip), text = exact(c.text);
        ASSERT_EQ(vek_filter_setIP_str(ip.get()), 0u);
        char *out = nullptr;
        uint32_t len = 4242;
        EXPECT_EQ(vek_replace_ipaddr_str(text.get(), &out, &len), c.ret);
        ASSERT_NE(out, nullptr); // handed over also when the call fails
        EXPECT_EQ(std::string(out), c.out);
        EXPECT_EQ(len, c.ret == 0 ? c.out.size() : 4242u);
        PAL_MemTypeFreeD(out, 0, __LINE__, __FILE__);
    }
}

TEST(ReplaceIp, FailuresBeforeTheBlockLeaveOutputsUntouched) {
    char *const sentinel = reinterpret_cast<char *>(0x1);
    char *out = sentinel;
    uint32_t len = 77;
    auto text = exact("at 10.1.1.1");
    ASSERT_EQ(vek_filter_setIP_str("10.1.1.1"), 0u);
    EXPECT_EQ(vek_replace_ipaddr_str(nullptr, &out, &len), 1u);
    EXPECT_EQ(vek_replace_ipaddr_str(text.get(), nullptr, &len), 1u);
    EXPECT_EQ(vek_replace_ipaddr_str(text.get(), &out, nullptr), 1u);
    EXPECT_EQ(vek_replace_ipaddr_str("", &out, &len), 1u);
    vekdns::pal_test::fail_nth(vekdns::pal_test::op::alloc, 1);
    EXPECT_EQ(vek_replace_ipaddr_str(text.get(), &out, &len), 1u);
    for (const char *ip : {"1.2.3", "localhost"}) { // too short; cannot be masked
        ASSERT_EQ(vek_filter_setIP_str(ip), 0u);
        EXPECT_EQ(vek_replace_ipaddr_str(text.get(), &out, &len), 1u);
    }
    EXPECT_EQ(out, sentinel);
    EXPECT_EQ(len, 77u);
}
