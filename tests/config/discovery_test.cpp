// Reading name servers and search suffixes from the resolver file.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <string>

#include "os_adapter/test_hooks.h"
#include "support/sandbox.h"
#include "vek_dns_ops.h"

namespace {

using vekdns::pal_test::fail_nth;
using vekdns::pal_test::op;
using vekdns::test::log_capture;
using vekdns::test::set_resolv_conf;

std::string addr_text(const DNS_IPADDR_S &a) {
    char text[INET6_ADDRSTRLEN] = {};
    if (a.ulType == DNS_IP_TYPE_IPV4) {
        inet_ntop(AF_INET, &a.unIpAddr.ulIpv4, text, sizeof(text));
    } else if (a.ulType == DNS_IP_TYPE_IPV6) {
        inet_ntop(AF_INET6, a.unIpAddr.aucIpv6, text, sizeof(text));
    } else {
        return "family " + std::to_string(a.ulType);
    }
    return text;
}

// "10.0.0.1 fd00::1 | a b": the servers, then the suffixes.
std::string describe(const DNS_LOCAL_SERVER_S &rec) {
    std::string out;
    for (uint32_t i = 0; rec.pstDnsServer != nullptr && i < rec.ulDnsServers; ++i) {
        out += (i == 0 ? "" : " ") + addr_text(rec.pstDnsServer[i]);
    }
    out += " |";
    for (const char *s : rec.apszSearchDomain) {
        if (s == nullptr) {
            break;
        }
        out += " ";
        out += s;
    }
    return out;
}

struct locate_outcome {
    uint32_t ret;
    std::string found; // describe() on success
};

locate_outcome locate(const std::string &file) {
    set_resolv_conf(file);
    DNS_LOCAL_SERVER_S rec;
    std::memset(&rec, 0, sizeof(rec));
    uint32_t ret = DNS_LocateDnsServer(&rec);
    locate_outcome out{ret, ret == DNS_OK ? describe(rec) : ""};
    if (ret != DNS_OK) {
        EXPECT_EQ(rec.pstDnsServer, nullptr) << "a failed discovery leaves nothing to free";
    }
    DNS_FreeLocalServer(&rec);
    return out;
}

struct file_case {
    const char *what;
    std::string file;
    uint32_t ret;
    const char *found;
};

std::ostream &operator<<(std::ostream &os, const file_case &c) { return os << c.what; }

class ResolvFile : public testing::TestWithParam<file_case> {};

TEST_P(ResolvFile, ReadsServersAndSuffixes) {
    const file_case &c = GetParam();
    locate_outcome got = locate(c.file);
    EXPECT_EQ(got.ret, c.ret) << std::hex << got.ret;
    EXPECT_EQ(got.found, c.found);
}

const std::string long_comment = "#" + std::string(126, 'x'); // exactly one 127-character piece
const std::string server_39 = "fd00:0000:0000:0000:0000:0000:0000:0001"; // 39 characters

INSTANTIATE_TEST_SUITE_P(
    Quirks, ResolvFile,
    testing::Values(
        file_case{"plain", "nameserver 10.0.0.1\n", 0, "10.0.0.1 |"},
        file_case{"last line without line feed", "nameserver 10.0.0.1", 0, "10.0.0.1 |"},
        file_case{"carriage return before line feed", "nameserver 10.0.0.1\r\n", 0, "10.0.0.1 |"},
        file_case{"only first address on a line", "nameserver 10.0.0.1 10.0.0.2\n", 0, "10.0.0.1 |"},
        file_case{"tab is no separator", "nameserver\t10.0.0.1\n", DNS_ERR_NO_SERVER, ""},
        file_case{"leading spaces", "   nameserver 10.0.0.1\n", 0, "10.0.0.1 |"},
        file_case{"keyword in capitals", "NAMESERVER 10.0.0.1\n", DNS_ERR_NO_SERVER, ""},
        file_case{"keyword and line feed only", "nameserver\nnameserver 10.0.0.3\n", 0, "10.0.0.3 |"},
        file_case{"comments and other keywords", "# x\noptions ndots:2\n\nnameserver 10.0.0.1\n", 0,
                  "10.0.0.1 |"},
        file_case{"ipv6 server", "nameserver fd00::1\n", 0, "fd00::1 |"},
        file_case{"ipv4-mapped ends as ipv6", "nameserver ::ffff:10.0.0.1\n", 0, "::ffff:10.0.0.1 |"},
        file_case{"rejected ipv6 fails all", "nameserver 10.0.0.1\nnameserver fd00::zz\n",
                  DNS_ERR_TEXT_TO_ADDR, ""},
        file_case{"server text cut to 39", "nameserver " + server_39 + "99\n", 0, "fd00::1 |"},
        file_case{"duplicates kept in order",
                  "nameserver 10.0.0.2\nnameserver ::1\nnameserver 10.0.0.2\n", 0,
                  "10.0.0.2 ::1 10.0.0.2 |"},
        file_case{"first server 0.0.0.0", "nameserver 0.0.0.0\nnameserver 10.0.0.1\n",
                  DNS_ERR_NO_SERVER, ""},
        file_case{"later 0.0.0.0 is not checked", "nameserver 10.0.0.1\nnameserver 0.0.0.0\n", 0,
                  "10.0.0.1 0.0.0.0 |"},
        file_case{"host name is counted as an empty entry",
                  "nameserver 10.0.0.1\nnameserver localhost\n", 0, "10.0.0.1 0.0.0.0 |"},
        file_case{"host name first fails", "nameserver localhost\nnameserver 10.0.0.1\n",
                  DNS_ERR_NO_SERVER, ""},
        file_case{"space before line feed gives an empty entry",
                  "nameserver 10.0.0.1\nnameserver \n", 0, "10.0.0.1 0.0.0.0 |"},
        file_case{"unconvertible dotted text kept as it comes",
                  "nameserver 10.0.0.1\nnameserver a.b\n", 0, "10.0.0.1 255.255.255.255 |"},
        file_case{"no servers", "search a\n", DNS_ERR_NO_SERVER, ""},
        file_case{"empty file", "", DNS_ERR_NO_SERVER, ""},
        file_case{"keyword without token at end", "nameserver 10.0.0.1\nnameserver ",
                  DNS_ERR_FILE_FORMAT, ""},
        file_case{"last line of spaces", "nameserver 10.0.0.1\n   ", DNS_ERR_FILE_FORMAT, ""},
        file_case{"line of spaces with line feed", "   \nnameserver 10.0.0.1\n", 0, "10.0.0.1 |"},
        file_case{"long line continues as a line", long_comment + "nameserver 10.0.0.9\n", 0,
                  "10.0.0.9 |"},
        file_case{"continuation piece of spaces", "nameserver 10.0.0.1\n" + long_comment + "   ",
                  DNS_ERR_FILE_FORMAT, ""},
        file_case{"search", "nameserver 10.0.0.1\nsearch a b c\n", 0, "10.0.0.1 | a b c"},
        file_case{"search keeps six", "nameserver 10.0.0.1\nsearch a b c d e f g\n", 0,
                  "10.0.0.1 | a b c d e f"},
        file_case{"search stops at lone line feed", "nameserver 10.0.0.1\nsearch a b \n", 0,
                  "10.0.0.1 | a b"},
        file_case{"search with nothing behind", "nameserver 10.0.0.1\nsearch a\nsearch \n", 0,
                  "10.0.0.1 |"},
        file_case{"search tab stays inside a suffix", "nameserver 10.0.0.1\nsearch a\tb c\n", 0,
                  "10.0.0.1 | a\tb c"},
        file_case{"domain", "nameserver 10.0.0.1\ndomain example.com\n", 0, "10.0.0.1 | example.com"},
        file_case{"domain keeps its first token", "nameserver 10.0.0.1\ndomain a b\n", 0,
                  "10.0.0.1 | a"},
        file_case{"domain then search", "nameserver 10.0.0.1\ndomain d\nsearch a b\n", 0,
                  "10.0.0.1 | a b"},
        file_case{"search then domain", "nameserver 10.0.0.1\nsearch a b\ndomain d\n", 0,
                  "10.0.0.1 | d"},
        file_case{"empty domain ignored", "nameserver 10.0.0.1\nsearch a b\ndomain \n", 0,
                  "10.0.0.1 | a b"},
        file_case{"domain directly followed by line feed", "nameserver 10.0.0.1\nsearch a\ndomain\n",
                  0, "10.0.0.1 | a"}),
    [](const testing::TestParamInfo<file_case> &i) {
        std::string name = i.param.what;
        for (char &ch : name) {
            ch = std::isalnum(static_cast<unsigned char>(ch)) ? ch : '_';
        }
        return name;
    });

TEST(Discovery, SearchSuffixesLieBackToBack) {
    set_resolv_conf("nameserver 10.0.0.1\nsearch ab cde f\n");
    DNS_LOCAL_SERVER_S rec;
    std::memset(&rec, 0, sizeof(rec));
    ASSERT_EQ(DNS_LocateDnsServer(&rec), DNS_OK);
    EXPECT_EQ(rec.apszSearchDomain[0], rec.szSearchDomain);
    EXPECT_EQ(rec.apszSearchDomain[1], rec.szSearchDomain + 3);
    EXPECT_EQ(rec.apszSearchDomain[2], rec.szSearchDomain + 7);
    EXPECT_EQ(rec.apszSearchDomain[3], nullptr);
    DNS_FreeLocalServer(&rec);
    EXPECT_EQ(rec.pstDnsServer, nullptr);
    EXPECT_EQ(rec.ulDnsServers, 1u) << "the count is left as it was";
    DNS_FreeLocalServer(&rec); // harmless twice
    DNS_FreeLocalServer(nullptr);
}

TEST(Discovery, ManyServersKeepFileOrder) {
    std::string file;
    for (int i = 1; i <= 40; ++i) {
        file += "nameserver 10.0.1." + std::to_string(i) + "\n";
    }
    set_resolv_conf(file);
    DNS_LOCAL_SERVER_S rec;
    std::memset(&rec, 0, sizeof(rec));
    ASSERT_EQ(DNS_LocateDnsServer(&rec), DNS_OK);
    ASSERT_EQ(rec.ulDnsServers, 40u);
    for (uint32_t i = 0; i < 40; ++i) {
        EXPECT_EQ(addr_text(rec.pstDnsServer[i]), "10.0.1." + std::to_string(i + 1));
    }
    DNS_FreeLocalServer(&rec);
}

TEST(Discovery, LogsWhyItFailed) {
    log_capture log(5);
    EXPECT_EQ(locate("search a\n").ret, DNS_ERR_NO_SERVER);
    EXPECT_TRUE(log.contains("locate dns server failed!\r\n"));

    log.clear();
    fail_nth(op::fopen, 1);
    DNS_LOCAL_SERVER_S rec;
    std::memset(&rec, 0, sizeof(rec));
    EXPECT_EQ(DNS_LocateDnsServer(&rec), DNS_ERR_OPEN_FILE);
    EXPECT_TRUE(log.contains("can not open /etc/resolv.conf!\r\n"));
}

TEST(Discovery, AllocationFailureOnAnyServerReleasesTheList) {
    set_resolv_conf("nameserver 10.0.0.1\nnameserver 10.0.0.2\nnameserver 10.0.0.3\n");
    for (unsigned n = 1; n <= 3; ++n) {
        fail_nth(op::alloc, n);
        DNS_LOCAL_SERVER_S rec;
        std::memset(&rec, 0, sizeof(rec));
        EXPECT_EQ(DNS_LocateDnsServer(&rec), DNS_ERR_NO_MEMORY) << "allocation " << n;
        EXPECT_EQ(rec.pstDnsServer, nullptr);
        EXPECT_EQ(rec.ulDnsServers, n - 1) << "the count keeps its value";
        vekdns::pal_test::clear_faults();
    }
}

TEST(AddLocalServer, AppendsAndGrowsByOne) {
    DNS_LOCAL_SERVER_S rec;
    std::memset(&rec, 0, sizeof(rec));
    EXPECT_EQ(dnsAddLocalServer("10.0.0.1\n", &rec), DNS_OK);
    EXPECT_EQ(dnsAddLocalServer("fd00::2", &rec), DNS_OK);
    {
        log_capture log(2);
        EXPECT_EQ(dnsAddLocalServer("", &rec), DNS_OK);
        EXPECT_EQ(log.lines(), std::vector<std::string>{"no primary DNS server found!\r\n"});
    }
    EXPECT_EQ(describe(rec), "10.0.0.1 fd00::2 0.0.0.0 |");
    DNS_FreeLocalServer(&rec);
}

TEST(AddLocalServer, RejectsNullArgumentsAndReleases) {
    DNS_LOCAL_SERVER_S rec;
    std::memset(&rec, 0, sizeof(rec));
    EXPECT_EQ(dnsAddLocalServer("10.0.0.1", nullptr), DNS_ERR_PARA_INVALID);
    ASSERT_EQ(dnsAddLocalServer("10.0.0.1", &rec), DNS_OK);
    EXPECT_EQ(dnsAddLocalServer(nullptr, &rec), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(rec.pstDnsServer, nullptr) << "a null text releases the list";
}

TEST(AddLocalServer, BadIpv6EmptiesTheRecord) {
    DNS_LOCAL_SERVER_S rec;
    std::memset(&rec, 0, sizeof(rec));
    ASSERT_EQ(dnsAddLocalServer("10.0.0.1", &rec), DNS_OK);
    EXPECT_EQ(dnsAddLocalServer("fd00:::1:::", &rec), DNS_ERR_TEXT_TO_ADDR);
    EXPECT_EQ(rec.pstDnsServer, nullptr);
    EXPECT_EQ(rec.ulDnsServers, 0u);
}

TEST(AddLocalServer, AllocationFailureFreesTheOldList) {
    DNS_LOCAL_SERVER_S rec;
    std::memset(&rec, 0, sizeof(rec));
    ASSERT_EQ(dnsAddLocalServer("10.0.0.1", &rec), DNS_OK);
    fail_nth(op::alloc, 1);
    EXPECT_EQ(dnsAddLocalServer("10.0.0.2", &rec), DNS_ERR_NO_MEMORY);
    EXPECT_EQ(rec.pstDnsServer, nullptr);
    EXPECT_EQ(rec.ulDnsServers, 1u);
}

struct parse_case {
    const char *text;
    uint32_t ret;
    const char *found; // "untouched" when the record keeps its contents
};

std::ostream &operator<<(std::ostream &os, const parse_case &c) { return os << '"' << c.text << '"'; }

class ServerText : public testing::TestWithParam<parse_case> {};

TEST_P(ServerText, Parses) {
    const parse_case &c = GetParam();
    DNS_IPADDR_S rec;
    std::memset(&rec, 0x5A, sizeof(rec));
    const DNS_IPADDR_S before = rec;
    EXPECT_EQ(DNS_GetServerIpAndIpType(c.text, &rec), c.ret);
    if (std::string(c.found) == "untouched") {
        EXPECT_EQ(std::memcmp(&rec, &before, sizeof(rec)), 0);
    } else if (c.ret == DNS_OK) {
        EXPECT_EQ(addr_text(rec), c.found);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Texts, ServerText,
    testing::Values(parse_case{"10.0.0.1", 0, "10.0.0.1"}, parse_case{"10.0.0.1\r\n", 0, "10.0.0.1"},
                    parse_case{"10.0.0.1\n\r", 0, "10.0.0.1"}, parse_case{"fd00::1", 0, "fd00::1"},
                    parse_case{"::ffff:1.2.3.4", 0, "::ffff:1.2.3.4"},
                    parse_case{"1.2.3.4.5", 0, "255.255.255.255"},
                    parse_case{"fd00:0000:0000:0000:0000:0000:0000:0001", 0, "fd00::1"},
                    parse_case{"fd00:0000:0000:0000:0000:0000:0000:00012", 0, "fd00::1"},
                    parse_case{"fd00::zz", DNS_ERR_TEXT_TO_ADDR, ""},
                    parse_case{"localhost", 0, "untouched"}, parse_case{"", 0, "untouched"}));

TEST(ServerText, NullArguments) {
    DNS_IPADDR_S rec{};
    EXPECT_EQ(DNS_GetServerIpAndIpType(nullptr, &rec), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(DNS_GetServerIpAndIpType("10.0.0.1", nullptr), DNS_ERR_PARA_INVALID);
}

} // namespace
