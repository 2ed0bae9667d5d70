// The bounded memory and string functions: they never write past the stated
// size and report every refusal.
#include <cstring>
#include <gtest/gtest.h>
#include <string>

#include "base/secure.h"

namespace {

struct guarded {
    char buf[16];
    char canary[8];
    guarded() {
        std::memset(buf, 'x', sizeof(buf));
        std::memset(canary, 'C', sizeof(canary));
    }
    bool intact() const { return std::memcmp(canary, "CCCCCCCC", 8) == 0; }
};

} // namespace

TEST(Secure, StringCopiesRefuseWhatDoesNotFit) {
    struct {
        const char *name;
        size_t dest_size;
        const char *src;
        size_t count; // for strncpy_s; 0 means strcpy_s
        int expect;
        const char *result;
    } cases[] = {
        {"fits", 16, "hello", 0, 0, "hello"},
        {"exactly 15", 16, "123456789012345", 0, 0, "123456789012345"},
        {"16 does not fit", 16, "1234567890123456", 0, VEK_SECURE_ERANGE, ""},
        {"null source", 16, nullptr, 0, VEK_SECURE_EINVAL, ""},
        {"n cuts", 16, "abcdefgh", 3, 0, "abc"},
        {"n longer than text", 16, "ab", 10, 0, "ab"},
        {"n = size - 1", 4, "abcdef", 3, 0, "abc"},
        {"n = size", 4, "abcdef", 4, VEK_SECURE_ERANGE, ""},
    };
    for (const auto &c : cases) {
        guarded g;
        int ret = c.count == 0 ? strcpy_s(g.buf, c.dest_size, c.src) : strncpy_s(g.buf, c.dest_size, c.src, c.count);
        EXPECT_EQ(ret, c.expect) << c.name;
        EXPECT_STREQ(g.buf, c.result) << c.name;
        EXPECT_TRUE(g.intact()) << c.name;
    }
    EXPECT_EQ(strcpy_s(nullptr, 4, "a"), VEK_SECURE_EINVAL);
    char one[1] = {'q'};
    EXPECT_EQ(strcpy_s(one, 0, "a"), VEK_SECURE_EINVAL);
    EXPECT_EQ(one[0], 'q');
}

TEST(Secure, ConcatenationKeepsTheTerminatorInside) {
    guarded g;
    std::strcpy(g.buf, "abc");
    EXPECT_EQ(strcat_s(g.buf, 16, "defghijklmno"), 0);
    EXPECT_STREQ(g.buf, "abcdefghijklmno");
    EXPECT_EQ(strcat_s(g.buf, 16, "p"), VEK_SECURE_ERANGE);
    EXPECT_STREQ(g.buf, "");
    EXPECT_TRUE(g.intact());
}

TEST(Secure, MemoryFunctionsBoundCount) {
    guarded g;
    const char src[32] = "0123456789abcdefghijklmnopqrstu";
    EXPECT_EQ(memcpy_s(g.buf, 16, src, 16), 0);
    EXPECT_EQ(std::memcmp(g.buf, src, 16), 0);
    EXPECT_EQ(memcpy_s(g.buf, 16, src, 17), VEK_SECURE_ERANGE);
    EXPECT_EQ(g.buf[0], 0);
    EXPECT_EQ(memcpy_s(g.buf, 16, g.buf + 2, 8), VEK_SECURE_EOVERLAP);
    EXPECT_EQ(memmove_s(g.buf, 16, src, 4), 0);
    EXPECT_EQ(memmove_s(g.buf + 1, 15, g.buf, 3), 0);
    EXPECT_EQ(std::string(g.buf, 4), "0012");
    EXPECT_EQ(memset_s(g.buf, 16, 'm', 20), VEK_SECURE_ERANGE);
    EXPECT_EQ(g.buf[15], 'm');
    EXPECT_TRUE(g.intact());
}

TEST(Secure, FormattersReportCutOrOverflow) {
    guarded g;
    EXPECT_EQ(sprintf_s(g.buf, 16, "%s-%d", "ab", 7), 4);
    EXPECT_STREQ(g.buf, "ab-7");
    EXPECT_EQ(sprintf_s(g.buf, 16, "%s", "0123456789abcdef"), -1);
    EXPECT_STREQ(g.buf, "");
    // count below the size: cut at count, reported as -1.
    EXPECT_EQ(snprintf_s(g.buf, 16, 5, "%s", "0123456789"), -1);
    EXPECT_STREQ(g.buf, "01234");
    // count at size - 1: the whole room, a longer text is an overflow.
    EXPECT_EQ(snprintf_s(g.buf, 16, 15, "%s", "0123456789abcde"), 15);
    EXPECT_EQ(snprintf_s(g.buf, 16, 15, "%s", "0123456789abcdef"), -1);
    EXPECT_EQ(snprintf_s(g.buf, 16, 16, "%s", "0123456789abcdef"), -1);
    EXPECT_STREQ(g.buf, "");
    EXPECT_TRUE(g.intact());
}

TEST(Secure, TokeniserSplitsOnEveryDelimiterAndKeepsContext) {
    char line[] = "  nameserver  1.2.3.4\n";
    char *ctx = nullptr;
    char *t1 = strtok_s(line, " ", &ctx);
    char *t2 = strtok_s(nullptr, " ", &ctx);
    char *t3 = strtok_s(nullptr, " ", &ctx);
    ASSERT_NE(t1, nullptr);
    ASSERT_NE(t2, nullptr);
    EXPECT_STREQ(t1, "nameserver");
    EXPECT_STREQ(t2, "1.2.3.4\n");
    EXPECT_EQ(t3, nullptr);
    EXPECT_EQ(strtok_s(nullptr, " ", &ctx), nullptr);
    char blanks[] = "   ";
    EXPECT_EQ(strtok_s(blanks, " ", &ctx), nullptr);
    EXPECT_EQ(strtok_s(blanks, nullptr, &ctx), nullptr);
}
