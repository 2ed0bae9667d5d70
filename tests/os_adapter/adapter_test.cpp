// The platform adapter: conversions, accounting, fault switches and clock.
#include <cstring>
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <string>

#include "os_adapter/test_hooks.h"
#include "vek_os_adapter.h"

namespace pt = vekdns::pal_test;

TEST(Adapter, AddressConversion) {
    EXPECT_EQ(PAL_InetAddr("1.2.3.4"), htonl(0x01020304));
    EXPECT_EQ(PAL_InetAddr("1.2.3"), 0xFFFFFFFFu);
    EXPECT_EQ(PAL_InetAddr("256.1.1.1"), 0xFFFFFFFFu);
    EXPECT_EQ(PAL_InetAddr(nullptr), 0xFFFFFFFFu);
    EXPECT_STREQ(PAL_InetNtoa(htonl(0x7F000001)), "127.0.0.1");
    unsigned char v6[16];
    EXPECT_GT(PAL_Inet_Pton(10, "2001:db8::1", v6), 0);
    EXPECT_EQ(PAL_Inet_Pton(10, "2001:::1", v6), 0);
    char text[46];
    ASSERT_NE(PAL_Inet_Ntop(10, v6, text, sizeof(text)), nullptr);
    EXPECT_STREQ(text, "2001:db8::1");
    EXPECT_EQ(PAL_Inet_Ntop(10, v6, text, 4), nullptr) << "buffer too small";
}

TEST(Adapter, AllocationAccountingAndZeroFill) {
    long before = pt::outstanding_blocks();
    auto *zero = static_cast<unsigned char *>(PAL_MemTypeMallocS(64, 0, 0, __LINE__, __FILE__));
    ASSERT_NE(zero, nullptr);
    for (int i = 0; i < 64; ++i) {
        ASSERT_EQ(zero[i], 0);
    }
    char *copy = PAL_StrDupEx("text", __LINE__, __FILE__);
    EXPECT_STREQ(copy, "text");
    EXPECT_EQ(pt::outstanding_blocks(), before + 2);
    char sites[512];
    pt::dump_outstanding(sites, sizeof(sites));
    EXPECT_NE(std::string(sites).find("adapter_test.cpp"), std::string::npos);
    PAL_MemTypeFreeD(zero, 0, __LINE__, __FILE__);
    PAL_MemTypeFreeD(copy, 0, __LINE__, __FILE__);
    PAL_MemTypeFreeD(nullptr, 0, __LINE__, __FILE__);
    EXPECT_EQ(pt::outstanding_blocks(), before);
}

TEST(Adapter, FaultSwitchCountsFromArming) {
    void *a = PAL_MemTypeMallocD(8, 0, __LINE__, __FILE__);
    pt::fail_nth(pt::op::alloc, 2, 2); // the 2nd and 3rd allocation from now
    void *b = PAL_MemTypeMallocD(8, 0, __LINE__, __FILE__);
    EXPECT_NE(b, nullptr);
    EXPECT_EQ(PAL_MemTypeMallocD(8, 0, __LINE__, __FILE__), nullptr);
    EXPECT_EQ(PAL_StrDupEx("x", __LINE__, __FILE__), nullptr);
    void *c = PAL_MemTypeMallocS(8, 0, 0, __LINE__, __FILE__);
    EXPECT_NE(c, nullptr);
    for (void *p : {a, b, c}) {
        PAL_MemTypeFreeD(p, 0, __LINE__, __FILE__);
    }
    pt::fail_nth_path("/var/x", 1);
    EXPECT_EQ(PAL_Fopen("/var/x", "w"), nullptr);
    FILE *f = PAL_Fopen("/var/x", "w");
    ASSERT_NE(f, nullptr);
    pt::fail_nth(pt::op::fputs, 1, 0); // forever
    EXPECT_EQ(PAL_Fputs("a", f), -1);
    EXPECT_EQ(PAL_Fputs("a", f), -1);
    pt::clear_faults();
    EXPECT_EQ(PAL_Fputs("a", f), 0);
    PAL_Fclose(f);
}

TEST(Adapter, ClockCanBePinnedAndAdvanced) {
    uint32_t real = PAL_GetSysTimeSec();
    EXPECT_GT(real, 1600000000u);
    pt::set_clock(1000);
    EXPECT_EQ(PAL_GetSysTimeSec(), 1000u);
    pt::advance_clock(59);
    EXPECT_EQ(PAL_GetSysTimeSec(), 1059u);
    pt::release_clock();
    EXPECT_GE(PAL_GetSysTimeSec(), real);
}
