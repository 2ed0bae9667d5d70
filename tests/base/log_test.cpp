// Logging, log level, version, and the public record layouts.
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

#include "support/sandbox.h"
#include "vek_dns_ops.h"

using vekdns::test::log_capture;

namespace {

// Runs `fn` with standard output redirected to a file and returns what it printed.
template <typename Fn> std::string capture_stdout(Fn fn) {
    std::fflush(stdout);
    int saved = dup(STDOUT_FILENO);
    FILE *tmp = std::tmpfile();
    dup2(fileno(tmp), STDOUT_FILENO);
    fn();
    std::fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    std::rewind(tmp);
    std::string out;
    char buf[256];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof(buf), tmp)) > 0) {
        out.append(buf, n);
    }
    std::fclose(tmp);
    return out;
}

} // namespace

TEST(RecordLayout, MatchesTheBinaryInterface) {
    static_assert(sizeof(DNS_IPADDR_S) == 24 && alignof(DNS_IPADDR_S) == 8);
    static_assert(offsetof(DNS_IPADDR_S, ulType) == 0 && offsetof(DNS_IPADDR_S, unIpAddr) == 8);
    static_assert(sizeof(DNS_SRV_RR_S) == 296);
    static_assert(offsetof(DNS_SRV_RR_S, szTarget) == 0 && offsetof(DNS_SRV_RR_S, usPriority) == 256 &&
                  offsetof(DNS_SRV_RR_S, usWeight) == 258 && offsetof(DNS_SRV_RR_S, stAddr) == 264 &&
                  offsetof(DNS_SRV_RR_S, usPort) == 288);
    static_assert(offsetof(DNS_RESULT_S, lIpNum) == 240 && offsetof(DNS_RESULT_S, ulRet) == 244 &&
                  offsetof(DNS_RESULT_S, pstLock) == 248 && sizeof(DNS_RESULT_S) == 256);
    static_assert(sizeof(DNS_IPADDR_STR_S) == 44 && offsetof(DNS_IPADDR_STR_S, acIpAddr) == 4);
    static_assert(offsetof(DNS_SRV_RESULT_S, ulRRCount) == 8 && offsetof(DNS_SRV_RESULT_S, lRet) == 12 &&
                  offsetof(DNS_SRV_RESULT_S, pstLock) == 16);
    static_assert(offsetof(DNS_HOSTNAME_S, pszName) == 8);
    SUCCEED();
}

TEST(Log, LevelFiltersBeforeFormatting) {
    EXPECT_EQ(g_ulDnsLogLevel, 5u);
    log_capture cap(5);
    DNS_LOG(6, "detail %d", 1);
    DNS_LOG(5, "outcome %d", 2);
    DNS_LOG(2, "failure\r\n");
    EXPECT_EQ(cap.lines(), (std::vector<std::string>{"outcome 2", "failure\r\n"}));

    cap.clear();
    ORV_NETB_DnsSetLogLevel(0);
    DNS_LOG(2, "alloc memory failed!\r\n");
    DNS_LOG(0, "level zero");
    DNS_LOG(5, nullptr);
    EXPECT_EQ(cap.lines(), std::vector<std::string>{"level zero"});
}

TEST(Log, BothNamesSetAndRegister) {
    vek_dns_set_log_level(7);
    EXPECT_EQ(ORV_NETB_DnsGetLogLevel(), 7u);
    ORV_NETB_DnsSetLogLevel(0xFFFFFFFFu);
    EXPECT_EQ(g_ulDnsLogLevel, 0xFFFFFFFFu);
    static std::string seen;
    vek_dns_register_log_func([](const char *line) { seen = line; });
    DNS_LOG(6, "x=%s", "y");
    EXPECT_EQ(seen, "x=y");
    EXPECT_NE(g_fnDnsLogFunc, nullptr);
    ORV_NETB_DnsRegisterLogFunc(nullptr);
    EXPECT_EQ(g_fnDnsLogFunc, nullptr);
}

TEST(Log, StandardOutputGetsBlankCarriageReturnLineFeed) {
    std::string out = capture_stdout([] { DNS_LOG(2, "send data failed!\r\n"); });
    EXPECT_EQ(out, "send data failed!\r\n \r\n");
}

TEST(Log, OverlongMessageReportsTheFormatterFailureToTheSameSink) {
    std::string big(5000, 'a');
    {
        log_capture cap(5);
        DNS_LOG(2, "%s", big.c_str());
        EXPECT_EQ(cap.lines(), (std::vector<std::string>{"DNS_LOG secure func vsprintf_s return fail!", ""}));
    }
    std::string out = capture_stdout([&] { DNS_LOG(2, "%s", big.c_str()); });
    EXPECT_EQ(out, "DNS_LOG secure func vsprintf_s return fail! \r\n");
    // 4095 characters still fit with the terminator.
    log_capture cap(5);
    std::string fits(4095, 'b');
    DNS_LOG(2, "%s", fits.c_str());
    EXPECT_EQ(cap.lines(), std::vector<std::string>{fits});
}

TEST(Version, CopiesWhatFitsAndAlwaysTerminates) {
    const std::string full = "QUORIN DNS 100.001.01.013.SP02";
    struct {
        uint32_t size;
        std::string expect;
    } cases[] = {{64, full}, {31, full}, {30, full.substr(0, 29)}, {10, full.substr(0, 9)}, {1, ""}};
    for (const auto &c : cases) {
        char buf[64];
        std::memset(buf, 'Z', sizeof(buf));
        EXPECT_EQ(ORV_NETB_DNS_GetVersion(buf, c.size), DNS_OK);
        EXPECT_EQ(std::string(buf), c.expect) << "size " << c.size;
        if (c.size < sizeof(buf)) {
            EXPECT_EQ(buf[c.size], 'Z') << "wrote past size " << c.size;
        }
    }
    char buf[4] = {'Q', 'Q', 'Q', 'Q'};
    EXPECT_EQ(ORV_NETB_DNS_GetVersion(buf, 0), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(buf[0], 'Q');
    EXPECT_EQ(ORV_NETB_DNS_GetVersion(nullptr, 10), DNS_ERR_PARA_INVALID);
}
