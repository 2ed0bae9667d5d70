// The resolver file: discovery of servers and suffixes, the rewrite of the
// nameserver lines, the read-back, and the cache parameter lines.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>

#include "config/cache_params.h"
#include "support/sandbox.h"
#include "vek_dns_ops.h"

namespace {

using namespace vekdns::test;

std::string text_of(const DNS_IPADDR_S &a) {
    char text[INET6_ADDRSTRLEN] = "?";
    inet_ntop(a.ulType == DNS_IP_TYPE_IPV6 ? AF_INET6 : AF_INET, &a.unIpAddr, text, sizeof(text));
    return std::string(a.ulType == DNS_IP_TYPE_IPV6 ? "6:" : "4:") + text;
}

std::string hex(uint32_t v) {
    char text[12];
    std::snprintf(text, sizeof(text), "%x", v);
    return text;
}

// "servers | suffixes" after one discovery from `file`, or the code.
std::string locate(const std::string &file) {
    set_resolv_conf(file);
    DNS_LOCAL_SERVER_S rec;
    std::memset(&rec, 0, sizeof(rec));
    const uint32_t ret = DNS_LocateDnsServer(&rec);
    std::string out = ret == DNS_OK ? "" : hex(ret);
    for (uint32_t i = 0; ret == DNS_OK && i < rec.ulDnsServers; ++i) {
        out += text_of(rec.pstDnsServer[i]) + " ";
    }
    for (const char *suffix : rec.apszSearchDomain) {
        out += suffix != nullptr ? std::string("|") + suffix : "";
    }
    DNS_FreeLocalServer(&rec);
    return out;
}

TEST(Discovery, ResolverFileRows) {
    const std::string piece = "#" + std::string(126, 'x'); // exactly one 127-character piece
    const std::string ns = "nameserver 10.0.0.1\n";
    const std::pair<std::string, std::string> rows[] = {
        {"   nameserver 10.0.0.1 10.0.0.2\n# c\n\n", "4:10.0.0.1 "},
        {"nameserver\t10.0.0.1\nnameserver\n", "2604000a"},
        {"nameserver fd00::1\r\nnameserver 10.0.0.2\r\n", "6:fd00::1 4:10.0.0.2 "},
        {"nameserver fd00:0000:0000:0000:0000:0000:0000:000199\n", "6:fd00::1 "}, // cut to 39 characters
        {ns + "nameserver fd00::zz\n", "26040022"},
        {"nameserver 0.0.0.0\n" + ns, "2604000a"},
        {ns + "nameserver localhost\nnameserver 1.2.3.0000000004\n", "4:10.0.0.1 4:0.0.0.0 4:1.2.3.4 "},
        {ns + "nameserver ", "2604000c"},
        {piece + ns, "4:10.0.0.1 "},
        {ns + "search a b c d e f g\n", "4:10.0.0.1 |a|b|c|d|e|f"},
        {ns + "search a\tb c \n", "4:10.0.0.1 |a\tb|c"},
        {ns + "domain d e\n", "4:10.0.0.1 |d"},
        {ns + "domain d\nsearch a b\n", "4:10.0.0.1 |a|b"},
        {ns + "search a b\ndomain d\n", "4:10.0.0.1 |d"},
        {ns + "search a b\ndomain \ndomain\n", "4:10.0.0.1 |a|b"},
    };
    for (const auto &[file, expect] : rows) {
        EXPECT_EQ(locate(file), expect) << file;
    }
}

DNS_SERVER_S server(const char *text) {
    DNS_SERVER_S s{};
    s.ulType = std::strchr(text, ':') != nullptr ? DNS_IP_TYPE_IPV6 : DNS_IP_TYPE_IPV4;
    (void)inet_pton(s.ulType == DNS_IP_TYPE_IPV6 ? AF_INET6 : AF_INET, text, &s.unIpAddr);
    return s;
}

std::string ns(const std::string &address) {
    return "nameserver " + address + "\n";
}
std::string conf(const std::string &first, const std::string &second) {
    return "# r\n" + first + "search x\n" + second;
}

TEST(Config, SetConfigRewritesOnlyTheTargetLines) {
    const std::string base = conf(ns("10.0.0.1"), ns("10.0.0.2")), piece = "#" + std::string(126, 'x');
    const std::string odd =
        "  nameserver 10.0.0.1\nnameserver\t10.0.0.1\nnameserver\n"; // not seen by the rewrite
    const struct {
        std::string before;
        uint32_t mask;
        const char *first, *second;
        std::string after;
    } rows[] = {
        {base, 0x2, "10.0.0.9", "", conf(ns("10.0.0.9"), ns("10.0.0.2"))},
        // An empty first server drops the first line; the former second line,
        // now the first, takes the second server where it stands.
        {base, 0x6, "", "10.0.0.7", conf("", ns("10.0.0.7"))},
        {base, 0x6, "10.0.0.8", "fd00::1", conf(ns("10.0.0.8"), ns("fd00::1"))},
        {base, 0x2, "::", "", conf("", ns("10.0.0.2"))},
        {"search x", 0x2, "10.0.0.9", "", "search x\n" + ns("10.0.0.9")},
        {"# c\n", 0x4, "", "10.0.0.9", "# c\n" + ns("10.0.0.9")},
        {odd, 0x2, "10.0.0.9", "", odd + ns("10.0.0.9")},
        {piece + ns("10.0.0.1") + ns("10.0.0.2"), 0x2, "10.0.0.9", "",
         piece + ns("10.0.0.9") + ns("10.0.0.2")},
    };
    for (const auto &row : rows) {
        set_resolv_conf(row.before);
        const DNS_SERVER_S first = server(row.first), second = server(row.second);
        EXPECT_EQ(ORV_NETB_DnsSetConfig(row.mask, &first, &second, 77, 88), DNS_OK) << row.before;
        EXPECT_EQ(read_file("/etc/resolv.conf"), row.after) << row.before;
    }
    for (const char *path : {"/var/orvdns.cache", "/var/orvdnssrv.cache", "/var/orvdnsaaaa.cache"}) {
        EXPECT_EQ(read_file(path), "maxnumber 32\nmaxtime 86400\n") << "unset bits give the defaults";
    }
    const DNS_SERVER_S bad = server("255.255.255.255");
    EXPECT_EQ(DNS_SetServer(1, &bad), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(DNS_SetServer(3, &bad), DNS_ERR_PARA_INVALID);
}

TEST(Config, ReadingServersAndCacheParameters) {
    set_resolv_conf(" nameserver 10.0.0.1\nnameserver\t10.0.0.3\nnameserver fd00::2\nnameserver 10.0.0.4\n");
    DNS_SERVER_S list[3];
    uint32_t count = 0;
    EXPECT_EQ(ORV_NETB_GetServer(list, 3, &count), DNS_OK);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(text_of(list[0]) + " " + text_of(list[1]) + " " + text_of(list[2]),
              "4:10.0.0.1 6:fd00::2 4:10.0.0.4")
        << "blanks before the keyword are skipped on reading";
    uint32_t number = 0, time = 0;
    EXPECT_EQ(DNS_GetCache(&number, &time), DNS_OK);
    EXPECT_EQ(std::to_string(number) + " " + std::to_string(time), "32 86400") << "no file: the defaults";
    const std::pair<std::string, std::string> rows[] = {
        {"maxnumber 5\nmaxtime 6\nh 1 2 3\n", "0 5 6"},
        {"maxtime 6\nmaxnumber 5\n", "0 0 6"},
        {"maxnumber 5\nh 1 2 3\n", "2604000c 5 0"},
        {"maxnumber\nmaxtime 6\n", "0 0 6"}, // the line feed is part of the word
    };
    for (const auto &[file, expect] : rows) {
        write_file("/var/orvdns.cache", file);
        number = time = 0;
        const uint32_t ret = DNS_GetCache(&number, &time);
        EXPECT_EQ((ret == 0 ? "0" : hex(ret)) + " " + std::to_string(number) + " " + std::to_string(time),
                  expect);
    }
    write_file("/var/orvdns.cache", "x\nmaxtime 6\n" + std::string(130, 'm') + "\nmaxnumber 9 9\n");
    EXPECT_EQ(DNS_SetCache(0, 7, "/var/orvdns.cache"), DNS_OK);
    EXPECT_EQ(read_file("/var/orvdns.cache"), "x\nmaxtime 7\n" + std::string(130, 'm') + "\nmaxnumber 32\n");
}

} // namespace
