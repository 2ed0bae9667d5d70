// Reading name servers and search suffixes from the resolver file.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>

#include "os_adapter/test_hooks.h"
#include "support/sandbox.h"
#include "vek_dns_ops.h"

namespace {

namespace pal = vekdns::pal_test;
using vekdns::test::log_capture;

// "type:address" of one entry; an entry never written reads as what it holds.
std::string entry(const DNS_IPADDR_S &a) {
    char text[INET6_ADDRSTRLEN] = "?";
    if (a.ulType <= DNS_IP_TYPE_IPV6) {
        inet_ntop(a.ulType == DNS_IP_TYPE_IPV4 ? AF_INET : AF_INET6, &a.unIpAddr, text, sizeof(text));
    }
    return std::string(a.ulType == DNS_IP_TYPE_IPV6 ? "6:" : "4:") + text;
}

// "servers | suffixes" of a record, e.g. "4:10.0.0.1 6:fd00::1 | a b".
std::string describe(const DNS_LOCAL_SERVER_S &rec) {
    std::string out;
    for (uint32_t i = 0; rec.pstDnsServer != nullptr && i < rec.ulDnsServers; ++i) {
        out += entry(rec.pstDnsServer[i]) + " ";
    }
    out += "|";
    for (const char *suffix : rec.apszSearchDomain) {
        out += suffix != nullptr ? std::string(" ") + suffix : "";
    }
    return out;
}

// One discovery from `file`: describe() on success, else the code in hex.
std::string locate(const std::string &file) {
    vekdns::test::set_resolv_conf(file);
    DNS_LOCAL_SERVER_S rec;
    std::memset(&rec, 0, sizeof(rec));
    const uint32_t ret = DNS_LocateDnsServer(&rec);
    char code[12];
    std::snprintf(code, sizeof(code), "%x", ret);
    EXPECT_TRUE(ret == DNS_OK || rec.pstDnsServer == nullptr) << "a failed discovery leaves nothing to free";
    const std::string out = ret == DNS_OK ? describe(rec) : code;
    DNS_FreeLocalServer(&rec);
    return out;
}

// The quirks of the resolver file, one row each: the space is the only
// separator, lines are read in pieces of 127 characters, the last "domain"
// or "search" line wins, only the first server is checked, and a server text
// with neither '.' nor ':' is counted but reads as the empty IPv4 entry.
TEST(Discovery, ResolverFileQuirks) {
    const std::string piece = "#" + std::string(126, 'x'); // exactly one 127-character piece
    const std::string ns = "nameserver 10.0.0.1\n";
    const std::pair<std::string, std::string> cases[] = {
        {"nameserver 10.0.0.1", "4:10.0.0.1 |"},
        {"   nameserver 10.0.0.1 10.0.0.2\n# c\noptions ndots:2\n\n", "4:10.0.0.1 |"},
        {"nameserver\t10.0.0.1\nNAMESERVER 10.0.0.2\nnameserver\n", "2604000a"},
        {"nameserver fd00::1\r\nnameserver ::ffff:10.0.0.1\n", "6:fd00::1 6:::ffff:10.0.0.1 |"},
        {"nameserver fd00:0000:0000:0000:0000:0000:0000:000199\n", "6:fd00::1 |"}, // cut to 39 characters
        {ns + "nameserver fd00::zz\n", "26040022"},
        {"nameserver 10.0.0.2\nnameserver ::1\nnameserver 10.0.0.2\n", "4:10.0.0.2 6:::1 4:10.0.0.2 |"},
        {"nameserver 0.0.0.0\n" + ns, "2604000a"},
        {"nameserver localhost\n" + ns, "2604000a"},
        {ns + "nameserver 0.0.0.0\nnameserver localhost\nnameserver \nnameserver a.b\n",
         "4:10.0.0.1 4:0.0.0.0 4:0.0.0.0 4:0.0.0.0 4:255.255.255.255 |"},
        {"search a\n", "2604000a"},
        {ns + "nameserver ", "2604000c"},
        {ns + "   ", "2604000c"},
        {"   \n" + ns, "4:10.0.0.1 |"},
        {piece + ns, "4:10.0.0.1 |"},
        {ns + piece + "   ", "2604000c"},
        {ns + "search a b c d e f g\n", "4:10.0.0.1 | a b c d e f"},
        {ns + "search a\tb c \n", "4:10.0.0.1 | a\tb c"},
        {ns + "search a\nsearch \n", "4:10.0.0.1 |"},
        {ns + "domain d e\n", "4:10.0.0.1 | d"},
        {ns + "domain d\nsearch a b\n", "4:10.0.0.1 | a b"},
        {ns + "search a b\ndomain d\n", "4:10.0.0.1 | d"},
        {ns + "search a b\ndomain \ndomain\n", "4:10.0.0.1 | a b"},
    };
    for (const auto &[file, expect] : cases) {
        EXPECT_EQ(locate(file), expect) << file;
    }
}

TEST(Discovery, RecordLayoutFailuresAndAllocation) {
    vekdns::test::set_resolv_conf("nameserver 10.0.0.1\nsearch ab cde f\n");
    DNS_LOCAL_SERVER_S rec;
    std::memset(&rec, 0, sizeof(rec));
    ASSERT_EQ(DNS_LocateDnsServer(&rec), DNS_OK);
    EXPECT_EQ(rec.apszSearchDomain[1] - rec.apszSearchDomain[0], 3) << "suffixes lie back to back";
    EXPECT_EQ(rec.apszSearchDomain[2], rec.szSearchDomain + 7);
    DNS_FreeLocalServer(&rec);
    EXPECT_EQ(rec.pstDnsServer, nullptr);
    EXPECT_EQ(rec.ulDnsServers, 1u) << "the count is left as it was";
    DNS_FreeLocalServer(&rec);
    DNS_FreeLocalServer(nullptr);

    log_capture log(5);
    EXPECT_EQ(locate("search a\n"), "2604000a");
    EXPECT_TRUE(log.contains("locate dns server failed!\r\n"));
    pal::fail_nth(pal::op::fopen, 1);
    EXPECT_EQ(locate(""), "26040002");
    EXPECT_TRUE(log.contains("can not open /etc/resolv.conf!\r\n"));

    // The array doubles: allocations at the 1st server (room for 4) and the 5th.
    vekdns::test::set_resolv_conf("nameserver 10.0.0.1\nnameserver 10.0.0.2\nnameserver 10.0.0.3\n"
                                  "nameserver 10.0.0.4\nnameserver 10.0.0.5\n");
    for (unsigned n = 1; n <= 2; ++n) {
        pal::fail_nth(pal::op::alloc, n);
        std::memset(&rec, 0, sizeof(rec));
        EXPECT_EQ(DNS_LocateDnsServer(&rec), DNS_ERR_NO_MEMORY) << n;
        EXPECT_EQ(rec.pstDnsServer, nullptr);
        EXPECT_EQ(rec.ulDnsServers, (n - 1) * 4) << "the count keeps its value";
    }
}

TEST(Discovery, AddingOneServer) {
    DNS_LOCAL_SERVER_S rec;
    std::memset(&rec, 0, sizeof(rec));
    ASSERT_EQ(dnsAddLocalServer("10.0.0.1\n", &rec), DNS_OK);
    ASSERT_EQ(dnsAddLocalServer("fd00::2", &rec), DNS_OK);
    {
        log_capture log(2);
        ASSERT_EQ(dnsAddLocalServer("", &rec), DNS_OK);
        EXPECT_EQ(log.lines(), std::vector<std::string>{"no primary DNS server found!\r\n"});
    }
    EXPECT_EQ(describe(rec), "4:10.0.0.1 6:fd00::2 4:0.0.0.0 |") << "an empty text reads as the empty entry";
    pal::fail_nth(pal::op::alloc, 1);
    EXPECT_EQ(dnsAddLocalServer("10.0.0.2", &rec), DNS_ERR_NO_MEMORY);
    EXPECT_EQ(rec.pstDnsServer, nullptr) << "the old list is freed";
    EXPECT_EQ(rec.ulDnsServers, 3u);

    rec.ulDnsServers = 0;
    ASSERT_EQ(dnsAddLocalServer("10.0.0.1", &rec), DNS_OK);
    EXPECT_EQ(dnsAddLocalServer("fd00:::1:::", &rec), DNS_ERR_TEXT_TO_ADDR);
    EXPECT_TRUE(rec.pstDnsServer == nullptr && rec.ulDnsServers == 0) << "a bad text empties the record";
    ASSERT_EQ(dnsAddLocalServer("10.0.0.1", &rec), DNS_OK);
    EXPECT_EQ(dnsAddLocalServer(nullptr, &rec), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(rec.pstDnsServer, nullptr) << "a null text releases the list";
    EXPECT_EQ(dnsAddLocalServer("10.0.0.1", nullptr), DNS_ERR_PARA_INVALID);
    DNS_IPADDR_S parsed = {};
    EXPECT_EQ(DNS_GetServerIpAndIpType("10.0.0.1\n\r", &parsed), DNS_OK);
    EXPECT_EQ(entry(parsed), "4:10.0.0.1") << "cut at the first carriage return, then the first line feed";
    EXPECT_EQ(DNS_GetServerIpAndIpType(nullptr, &parsed), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(DNS_GetServerIpAndIpType("10.0.0.1", nullptr), DNS_ERR_PARA_INVALID);
}

} // namespace
