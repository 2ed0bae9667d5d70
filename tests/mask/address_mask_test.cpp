// Masking of address texts and of a stored address inside log text.
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

// Exact-size heap copy of a text, so that a read past its terminator is a
// sanitizer finding rather than a silent read of neighbouring memory.
std::unique_ptr<char[]> exact(const std::string &s) {
    auto p = std::make_unique<char[]>(s.size() + 1);
    std::memcpy(p.get(), s.c_str(), s.size() + 1);
    return p;
}

std::string repeat(const std::string &s, size_t n) {
    std::string out;
    for (size_t i = 0; i < n; ++i) {
        out += s;
    }
    return out;
}

using mask_fn = uint32_t (*)(const char *, char *, uint32_t);

struct mask_case {
    std::string src;
    std::optional<std::string> out; // nullopt: fails, leaving an empty text
    uint32_t dst_size = 46;
};

void check_mask(mask_fn fn, const mask_case &c) {
    SCOPED_TRACE("source \"" + c.src + "\", destination " + std::to_string(c.dst_size));
    auto src = exact(c.src);
    std::vector<char> dst(c.dst_size, 'X');
    uint32_t ret = fn(src.get(), dst.data(), c.dst_size);
    if (c.out) {
        ASSERT_EQ(ret, 0u);
        EXPECT_EQ(std::string(dst.data()), *c.out);
    } else {
        EXPECT_EQ(ret, 1u);
        EXPECT_EQ(dst[0], '\0');
    }
}

// Owns a block handed out by vek_replace_ipaddr_str.
struct out_block {
    char *p = nullptr;
    ~out_block() {
        if (p != nullptr) {
            PAL_MemTypeFreeD(p, 0, __LINE__, __FILE__);
        }
    }
};

void store(const std::string &ip) {
    auto copy = exact(ip);
    ASSERT_EQ(vek_filter_setIP_str(copy.get()), 0u);
}

// The replacement walk written out literally, step by step (the rest of
// the text is appended after every masked occurrence and overwritten by the
// next one), used to check the implementation on many generated texts.
// Returns nullopt on failure; `block` receives the block's text either way.
std::optional<std::string> reference_replace(const std::string &text, const std::string &ip,
                                             const std::string &masked, std::string &block) {
    std::vector<char> out(text.size() + 100, '\0');
    size_t w = 0, room = out.size(), pos = 0;
    auto put = [&](const std::string &s) {
        std::memcpy(&out[w], s.data(), s.size());
        out[w + s.size()] = '\0';
    };
    for (size_t hit = text.find(ip, pos); hit != std::string::npos; hit = text.find(ip, pos)) {
        size_t prefix = hit - pos;
        if (static_cast<long>(room) - static_cast<long>(prefix) <= 1) {
            break;
        }
        put(text.substr(pos, prefix));
        w += prefix, room -= prefix, pos = hit;
        if (static_cast<long>(room) - static_cast<long>(masked.size()) <= 1) {
            break;
        }
        put(masked);
        w += masked.size(), room -= masked.size(), pos += ip.size();
        size_t rest = text.size() - pos;
        if (rest > room) {
            block = out.data();
            return std::nullopt;
        }
        if (room - rest <= 1) {
            break;
        }
        put(text.substr(pos));
    }
    block = out.data();
    if (block.empty()) {
        block = text.substr(pos);
    }
    return block;
}

} // namespace

TEST(MaskIpv4, MasksSecondAndThirdParts) {
    const mask_case cases[] = {
        {"1.2.3.4", "1.**.**.4"},
        {"192.168.10.20", "192.**.**.20"},
        {"111.222.333.444", "111.**.**.444"},    // 15 characters, no digit check
        {"a.b.c.d", "a.**.**.d"},                // parts are not checked for digits
        {"10.0.0.1.5", "10.**.**.1"},            // parts after the fourth ignored
        {"1.2.3.4.5555", "1.**.**.4"},           // ... and not even measured
        {"1..2.3.4", "1.**.**.4"},               // empty parts skipped
        {".1.2.3.4", "1.**.**.4"},
        {"1234.1.1.1", std::nullopt},            // a part of 4 characters
        {"1.2.3.4444", std::nullopt},
        {"1.2.3", std::nullopt},                 // 5 characters
        {"1.2.3.", std::nullopt},                // 6 characters
        {"1.2.3.44", "1.**.**.44"},
        {"1.2.3..", std::nullopt},               // 7 characters, three parts
        {"1111111", std::nullopt},               // no '.'
        {".......", std::nullopt},               // no part at all
        {"111.222.333.4445", std::nullopt},      // 16 characters
        {"", std::nullopt},
        {"1.2.3.4", std::nullopt, 7},            // "1.**.**.4" needs 10 bytes
        {"1.2.3.4", std::nullopt, 9},
        {"1.2.3.4", "1.**.**.4", 10},
        {"111.222.333.444", std::nullopt, 13},
        {"111.222.333.444", "111.**.**.444", 14},
    };
    for (const auto &c : cases) {
        check_mask(VekFilterIpv4AddrStr, c);
    }
}

TEST(MaskIpv4, DestinationArgumentsLeaveItUntouched) {
    char dst[16];
    std::memset(dst, 'X', sizeof(dst));
    EXPECT_EQ(VekFilterIpv4AddrStr("1.2.3.4", dst, 6), 1u);
    EXPECT_EQ(VekFilterIpv4AddrStr(nullptr, dst, sizeof(dst)), 1u);
    EXPECT_EQ(VekFilterIpv4AddrStr("1.2.3.4", nullptr, sizeof(dst)), 1u);
    EXPECT_EQ(std::string(dst, sizeof(dst)), std::string(sizeof(dst), 'X'));

    // A failure caused by the source clears the whole destination.
    EXPECT_EQ(VekFilterIpv4AddrStr("1234.1.1.1", dst, sizeof(dst)), 1u);
    EXPECT_EQ(std::string(dst, sizeof(dst)), std::string(sizeof(dst), '\0'));
}

TEST(MaskAddress, MasksIpv4AndIpv6Texts) {
    const mask_case cases[] = {
        {"1.2.3.4", "1.**.**.4"},
        {"10.0.0.1.5", "10.**.**.1"},
        {"1.2.3.4.5.6.7.8", "1.**.**.4"},       // 15 characters
        {"1.2.3.4.5.6.7.89", std::nullopt},     // IPv4 of 16 characters
        {"1.2", std::nullopt},                  // IPv4 shorter than 7
        {"1234.1.1.1", std::nullopt},
        {"hostname", std::nullopt},
        {"x", std::nullopt},
        {"", std::nullopt},
        {"2001:db8:85a3:0:0:8a2e:370:7334", "2001:db8:****:****:****:****:370:7334"},
        {"fe80::1", "fe80:****:****:****:****:1"},
        {"::ffff:192.168.1.1", "ffff:****:****:****:****:192.**.**.1"},
        {"1.2.3.4:5060", "1.**.**.4:****:****:****:****:5060"},
        {"1:2:3:4:5:6:7:8:9:10", "1:2:****:****:****:****:7:8:9:10"},
        {"1:2:3:4:5:6:7:8:9", "1:****:****:****:****:9"},
        {"1:2:3:4:5:6:7:8:9:10:11:12", "1:2:****:****:****:****:7:8:9:10"},
        {"1:2:3:4:5:6:7", "1:****:****:****:****:7"},
        {"1:", "1:****:****:****:****:1"},       // one group: first and last
        {":1", "1:****:****:****:****:1"},
        {"::1.2.3.4.5.6.7.8", "1.**.**.4:****:****:****:****:1.**.**.4"}, // 15-character group
        {"::1.2.3.4.5.6.7.89", std::nullopt},   // 16-character group
        {"12345::1", std::nullopt},             // 5 characters but no IPv4 form
        {"1.2.3::1", std::nullopt},
        {"1.2:3", "1.2:****:****:****:****:3"},  // short groups kept as they are
        // Colon-only texts have no group: they fail.
        {"::", std::nullopt},
        {":::::::", std::nullopt},
        {std::string(45, ':'), std::nullopt},
        {":", std::nullopt},
        // Length limits: 45 characters pass, 46 do not.
        {"fe8" + repeat(":0", 20) + ":1", "fe8:0:****:****:****:****:0:0:0:0"},
        {"fe80" + repeat(":0", 20) + ":1", std::nullopt},
        {"0000:0000:0000:0000:0000:ffff:255.255.255.255", "0000:****:****:****:****:255.**.**.255"},
        {"00000:0000:0000:0000:0000:ffff:255.255.255.255", std::nullopt},
        // A masked text that does not fit the destination fails.
        {"1.2.3.4:1.2.3.4:1:1:1:1:1:1:1:1", std::nullopt},
        {"1.2.3.4:1.2.3.4:1:1:1:1:1:1:1:1", "1.**.**.4:1.**.**.4:****:****:****:****:1:1:1:1", 48},
        {"1.2.3.4:1.2.3.4:1:1:1:1:1:1:1:1", std::nullopt, 47},
        {"1.2.3.4", "1.**.**.4", 256},
    };
    for (const auto &c : cases) {
        check_mask(vek_filter_ipaddr_str, c);
    }
}

TEST(MaskAddress, DestinationArgumentsLeaveItUntouched) {
    std::vector<char> dst(64, 'X');
    EXPECT_EQ(vek_filter_ipaddr_str("1.2.3.4", dst.data(), 45), 1u);
    EXPECT_EQ(vek_filter_ipaddr_str(nullptr, dst.data(), 46), 1u);
    EXPECT_EQ(vek_filter_ipaddr_str("1.2.3.4", nullptr, 46), 1u);
    EXPECT_EQ(std::string(dst.begin(), dst.end()), std::string(64, 'X'));

    EXPECT_EQ(vek_filter_ipaddr_str("hostname", dst.data(), 46), 1u);
    EXPECT_EQ(std::string(dst.begin(), dst.begin() + 46), std::string(46, '\0'));
    EXPECT_EQ(std::string(dst.begin() + 46, dst.end()), std::string(18, 'X'));
}

TEST(MaskAddress, LongSourceIsNotReadToItsEnd) {
    // A text far longer than any address fails on its length alone.
    std::string huge(1 << 20, '1');
    huge[3] = '.';
    auto src = exact(huge);
    std::vector<char> dst(46, 'X');
    EXPECT_EQ(vek_filter_ipaddr_str(src.get(), dst.data(), 46), 1u);
    EXPECT_EQ(VekFilterIpv4AddrStr(src.get(), dst.data(), 46), 1u);
    EXPECT_EQ(dst[0], '\0');
}

TEST(FilterIp, StoresTextsShorterThan45) {
    store("10.1.1.1");
    EXPECT_STREQ(g_szFilterIp, "10.1.1.1");

    std::string t44(44, '7');
    store(t44);
    EXPECT_EQ(std::string(g_szFilterIp), t44);

    auto t45 = exact(std::string(45, '8'));
    EXPECT_EQ(vek_filter_setIP_str(t45.get()), 1u);
    EXPECT_EQ(vek_filter_setIP_str(nullptr), 1u);
    EXPECT_EQ(std::string(g_szFilterIp), t44); // unchanged

    store("anything"); // its form is not checked here
    EXPECT_STREQ(g_szFilterIp, "anything");
}

TEST(ReplaceIp, MasksEveryOccurrence) {
    struct {
        std::string ip, text, out;
    } cases[] = {
        {"10.1.1.1", "server 10.1.1.1 down", "server 10.**.**.1 down"},
        {"10.1.1.1", "10.1.1.1", "10.**.**.1"},
        {"10.1.1.1", "no address here", "no address here"},
        {"10.1.1.1", "x", "x"},
        {"10.1.1.1", "110.1.1.12", "110.**.**.12"},
        {"10.1.1.1", "a 10.1.1.1 b 10.1.1.1 c", "a 10.**.**.1 b 10.**.**.1 c"},
        {"10.1.1.1", "10.1.1.110.1.1.1", "10.**.**.110.**.**.1"},
        {"10.1.1.1", "10.1.1.10.1.1.1", "10.**.**.10.1.1.1"}, // searches never overlap
        {"10.1.1.1", "10.1.1.2 10.1.1.1", "10.1.1.2 10.**.**.1"},
        {"10.1.1.1", "10.1.1.", "10.1.1."},
        {"fe80::1", "to [fe80::1]:53", "to [fe80:****:****:****:****:1]:53"},
        {"1.2.3.4:5060", "sip 1.2.3.4:5060;x", "sip 1.**.**.4:****:****:****:****:5060;x"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.ip + " in \"" + c.text + "\"");
        store(c.ip);
        auto text = exact(c.text);
        out_block out;
        uint32_t len = 12345;
        ASSERT_EQ(vek_replace_ipaddr_str(text.get(), &out.p, &len), 0u);
        ASSERT_NE(out.p, nullptr);
        EXPECT_EQ(std::string(out.p), c.out);
        EXPECT_EQ(len, c.out.size());
    }
}

TEST(ReplaceIp, FailuresBeforeTheBlockLeaveOutputsUntouched) {
    char *const sentinel = reinterpret_cast<char *>(0x1);
    auto text = exact("at 10.1.1.1");
    char *out = sentinel;
    uint32_t len = 77;

    store("10.1.1.1");
    EXPECT_EQ(vek_replace_ipaddr_str(nullptr, &out, &len), 1u);
    EXPECT_EQ(vek_replace_ipaddr_str(text.get(), nullptr, &len), 1u);
    EXPECT_EQ(vek_replace_ipaddr_str(text.get(), &out, nullptr), 1u);
    EXPECT_EQ(vek_replace_ipaddr_str("", &out, &len), 1u);

    fail_nth(op::alloc, 1);
    EXPECT_EQ(vek_replace_ipaddr_str(text.get(), &out, &len), 1u);

    store("1.2.3");     // shorter than 7
    EXPECT_EQ(vek_replace_ipaddr_str(text.get(), &out, &len), 1u);
    store("");
    EXPECT_EQ(vek_replace_ipaddr_str(text.get(), &out, &len), 1u);
    store("localhost"); // cannot be masked
    EXPECT_EQ(vek_replace_ipaddr_str(text.get(), &out, &len), 1u);
    store("1234.1.1.1");
    EXPECT_EQ(vek_replace_ipaddr_str(text.get(), &out, &len), 1u);

    EXPECT_EQ(out, sentinel);
    EXPECT_EQ(len, 77u);
}

// fe80::1 (7 characters) masks to 26: each occurrence eats 19 of the 100
// spare bytes, so the sixth one either ends the output or fails.
TEST(ReplaceIp, ManyIpv6OccurrencesEndEarlyOrFail) {
    const std::string m = "fe80:****:****:****:****:1";
    store("fe80::1");

    {   // Little text behind the sixth: the output ends before it.
        auto text = exact(repeat("fe80::1 ", 6));
        out_block out;
        uint32_t len = 0;
        ASSERT_EQ(vek_replace_ipaddr_str(text.get(), &out.p, &len), 0u);
        EXPECT_EQ(std::string(out.p), repeat(m + " ", 5));
        EXPECT_EQ(len, 5 * (m.size() + 1));
    }
    {   // More text behind it: the sixth is masked, the rest no longer fits.
        auto text = exact(repeat("fe80::1 ", 6) + std::string(30, 'y'));
        out_block out;
        uint32_t len = 4242;
        ASSERT_EQ(vek_replace_ipaddr_str(text.get(), &out.p, &len), 1u);
        ASSERT_NE(out.p, nullptr); // handed over even though the call failed
        EXPECT_EQ(std::string(out.p), repeat(m + " ", 5) + m);
        EXPECT_EQ(len, 4242u);
    }
    {   // Hundreds of occurrences stay inside the block.
        auto text = exact(repeat("fe80::1", 500));
        out_block out;
        uint32_t len = 0;
        (void)vek_replace_ipaddr_str(text.get(), &out.p, &len);
        ASSERT_NE(out.p, nullptr);
        EXPECT_LT(std::strlen(out.p), 500 * 7 + 100u);
    }
}

TEST(ReplaceIp, OutputEndsAfterAMaskWhenTheRestFillsTheRoomExactly) {
    // 10.1.1.1 grows by 2: after the 50th mask the room equals the rest, so
    // the output ends with that mask and the tail " end" is dropped.
    store("10.1.1.1");
    auto text = exact(repeat("10.1.1.1 ", 50) + "end");
    out_block out;
    uint32_t len = 0;
    ASSERT_EQ(vek_replace_ipaddr_str(text.get(), &out.p, &len), 0u);
    std::string want = repeat("10.**.**.1 ", 49) + "10.**.**.1";
    EXPECT_EQ(std::string(out.p), want);
    EXPECT_EQ(len, want.size());
}

TEST(ReplaceIp, OutputEndsAfterAMaskWhenTheRoomExceedsTheRestByOne) {
    // This address grows by 9: after the 11th mask the room is the rest plus one.
    store("1:2:3:44:55:66:7:8");
    const std::string m = "1:2:****:****:****:****:7:8";
    auto text = exact(repeat("1:2:3:44:55:66:7:8 ", 11) + "end");
    out_block out;
    uint32_t len = 0;
    ASSERT_EQ(vek_replace_ipaddr_str(text.get(), &out.p, &len), 0u);
    std::string want = repeat(m + " ", 10) + m;
    EXPECT_EQ(std::string(out.p), want);
    EXPECT_EQ(len, want.size());
}

TEST(ReplaceIp, ShrinkingMaskHandlesLongTexts) {
    store("111.222.111.222"); // masks to 13 characters
    const size_t n = 20000;
    auto text = exact(repeat("111.222.111.222,", n));
    out_block out;
    uint32_t len = 0;
    ASSERT_EQ(vek_replace_ipaddr_str(text.get(), &out.p, &len), 0u);
    EXPECT_EQ(len, n * 14);
    EXPECT_EQ(std::string(out.p, 28), "111.**.**.222,111.**.**.222,");
}

TEST(ReplaceIp, AgreesWithTheStepByStepWalk) {
    // Generated texts over a small alphabet hit every stop and failure rule.
    struct {
        std::string ip, masked;
    } ips[] = {{"fe80::1", "fe80:****:****:****:****:1"},
               {"1.1.1.1", "1.**.**.1"},
               {"111.1.1.111", "111.**.**.111"},
               {"1:2:3:4:5:6:7:8", "1:2:****:****:****:****:7:8"},
               {"1:2:3:44:55:66:7:8", "1:2:****:****:****:****:7:8"}};
    size_t failed = 0;
    uint32_t seed = 12345;
    auto next = [&] { return seed = seed * 1103515245u + 12345u, (seed >> 16) & 0x7fff; };
    for (const auto &ip : ips) {
        store(ip.ip);
        for (int round = 0; round < 300; ++round) {
            std::string text;
            size_t pieces = 1 + next() % 40;
            for (size_t i = 0; i < pieces; ++i) {
                switch (next() % 4) {
                case 0: text += ip.ip; break;
                case 1: text += std::string(1 + next() % 9, 'a'); break;
                case 2: text += ip.ip.substr(0, 1 + next() % ip.ip.size()); break;
                default: text += ' '; break;
                }
            }
            SCOPED_TRACE(ip.ip + " in \"" + text + "\"");
            std::string want_block;
            auto want = reference_replace(text, ip.ip, ip.masked, want_block);
            auto src = exact(text);
            out_block out;
            uint32_t len = 999999;
            uint32_t ret = vek_replace_ipaddr_str(src.get(), &out.p, &len);
            ASSERT_NE(out.p, nullptr);
            EXPECT_EQ(std::string(out.p), want_block);
            if (want) {
                EXPECT_EQ(ret, 0u);
                EXPECT_EQ(len, want->size());
            } else {
                ++failed;
                EXPECT_EQ(ret, 1u);
                EXPECT_EQ(len, 999999u);
            }
        }
    }
    EXPECT_GT(failed, 0u); // the generated texts reach the failure rule
}
