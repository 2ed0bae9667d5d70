// The memory caches and the cache files, with the platform clock pinned so
// that ages are exact to the second.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <string>
#include <tuple>

#include "os_adapter/test_hooks.h"
#include "support/sandbox.h"
#include "vek_dns_ops.h"

namespace {

using namespace vekdns::test;
using vekdns::pal_test::set_clock;
constexpr uint32_t forever = 0xFFFFFFFFu;
const std::string head = "maxnumber 32\nmaxtime 86400\n";

DNS_IPADDR_S addr(const char *text) {
    DNS_IPADDR_S a{};
    a.ulType = std::strchr(text, ':') != nullptr ? DNS_IP_TYPE_IPV6 : DNS_IP_TYPE_IPV4;
    (void)inet_pton(a.ulType == DNS_IP_TYPE_IPV6 ? AF_INET6 : AF_INET, text, &a.unIpAddr);
    return a;
}

// A look-up as one string: the code in hex, then every address.
std::string get_ip(decltype(&DNS_GetIpFromCache) get, const char *name, uint32_t family) {
    DNS_IPADDR_S out[DNS_MAX_IP_NUM] = {};
    out[0].ulType = family;
    uint32_t num = 0;
    char code[12];
    std::snprintf(code, sizeof(code), "%x", get(name, out, &num));
    std::string all = code;
    for (uint32_t i = 0; i < num; ++i) {
        char text[INET6_ADDRSTRLEN] = {};
        inet_ntop(out[i].ulType == DNS_IP_TYPE_IPV6 ? AF_INET6 : AF_INET, &out[i].unIpAddr, text,
                  sizeof(text));
        all += std::string(" ") + text;
    }
    return all;
}

TEST(MemoryCache, LiveWhileTheAgeIsAtMostTheLimitNewestFirst) {
    set_clock(1000);
    ASSERT_EQ(DNS_SetIpToCache("h", 10, addr("10.0.0.1")), DNS_OK);
    ASSERT_EQ(DNS_SetIpToCache("h", forever, addr("10.0.0.2")), DNS_OK);
    ASSERT_EQ(DNS_SetIpToCache("h", 5, addr("fd00::1")), DNS_OK);
    set_clock(1010);
    EXPECT_EQ(get_ip(DNS_GetIpFromCache, "h", DNS_IP_TYPE_IPV4), "0 10.0.0.2 10.0.0.1");
    EXPECT_EQ(get_ip(DNS_GetIpFromCache, "h", DNS_IP_TYPE_IPV6), "26040027") << "expired entries go";
    set_clock(1011);
    EXPECT_EQ(get_ip(DNS_GetIpFromCache, "h", DNS_IP_TYPE_IPV4), "0 10.0.0.2");
    EXPECT_EQ(pstDNSCache->ulRecords, 1u);
    set_clock(1000 + 86401);
    EXPECT_EQ(get_ip(DNS_GetIpFromCache, "h", DNS_IP_TYPE_IPV4), "26040027") << "maxtime for 0xFFFFFFFF";
    for (int i = 0; i < 12; ++i) {
        ASSERT_EQ(DNS_SetIpToCache("many", 60, addr(("10.0.1." + std::to_string(i)).c_str())), DNS_OK);
    }
    EXPECT_EQ(get_ip(DNS_GetIpFromCache, "many", 0),
              "0 10.0.1.11 10.0.1.10 10.0.1.9 10.0.1.8 10.0.1.7 10.0.1.6 "
              "10.0.1.5 10.0.1.4 10.0.1.3 10.0.1.2");
    dnsDestoryCacheItem(pstDNSCache->pstCacheFirst->pstNext); // through the export: the index follows
    EXPECT_EQ(get_ip(DNS_GetIpFromCache, "many", 0),
              "0 10.0.1.10 10.0.1.9 10.0.1.8 10.0.1.7 10.0.1.6 10.0.1.5 10.0.1.4 10.0.1.3 10.0.1.2 10.0.1.1");
}

TEST(MemoryCache, FullCacheEvictsTheOldestOfAnEarlierSecond) {
    for (uint32_t i = 0; i < 32; ++i) {
        set_clock(2000 + i / 2); // two entries per second
        ASSERT_EQ(DNS_SetIpToCache((std::string("n") += std::to_string(i)).c_str(), 600, addr("10.0.0.1")),
                  DNS_OK);
    }
    ASSERT_EQ(DNS_SetIpToCache("new", 600, addr("10.0.0.2")), DNS_OK);
    EXPECT_EQ(pstDNSCache->ulRecords, 32u);
    std::string gone;
    for (uint32_t i = 0; i < 32; ++i) {
        gone += get_ip(DNS_GetIpFromCache, (std::string("n") += std::to_string(i)).c_str(), 0) == "0 10.0.0.1"
                    ? ""
                    : std::to_string(i);
    }
    EXPECT_EQ(gone, "1") << "among equal stamps the newest of them goes";
}

// Names evicted store by store (40 stores, clock 1000 + i / per_second, set
// back by `back` seconds from store `at` on), then the entry count.
TEST(MemoryCache, EvictionOrderPast32EntriesAndAcrossAClockStep) {
    const std::tuple<uint32_t, uint32_t, uint32_t, const char *> rows[] = {
        {2, 40, 0, "n1 n0 n3 n2 n5 n4 n7 n6 | 32"},
        {40, 40, 0, "| 40"},                           // one second: nothing is older than now
        {3, 20, 5, "n2 n1 n0 n20 n5 n4 n3 n23 | 32"},  // stamps out of list order
        {1, 34, 40, "n0 n1 n34 n35 n36 n37 n38 | 33"}, // set back behind every entry
    };
    auto names = [] {
        std::string all = " ";
        for (auto *it = pstDNSCache->pstCacheFirst->pstNext; it != pstDNSCache->pstCacheFirst;
             it = it->pstNext) {
            all += std::string(it->pszName) + " ";
        }
        return all;
    };
    for (auto [per_second, at, back, want] : rows) {
        ORV_NETB_DnsCleanBuffer();
        std::string out;
        for (uint32_t i = 0; i < 40; ++i) {
            set_clock(1000 + i / per_second - (i >= at ? back : 0));
            const std::string was = pstDNSCache != nullptr ? names() : "";
            ASSERT_EQ(DNS_SetIpToCache(("n" + std::to_string(i)).c_str(), 600, addr("10.0.0.1")), DNS_OK);
            std::istringstream in(was);
            for (std::string n; in >> n;) {
                out += names().find(" " + n + " ") == std::string::npos ? n + " " : "";
            }
        }
        EXPECT_EQ(out + "| " + std::to_string(pstDNSCache->ulRecords), want) << per_second << " " << at;
    }
    // One second's burst grows the name index several times over: every name is still found.
    ORV_NETB_DnsCleanBuffer();
    set_clock(2000);
    std::string found;
    for (int pass = 0; pass < 2; ++pass) {
        for (int i = 0; i < 300; ++i) {
            const std::string name = "b" + std::to_string(i);
            found += pass == 0 ? (DNS_SetIpToCache(name.c_str(), 600, addr("10.0.0.2")) == DNS_OK ? "" : name + " ")
                               : (get_ip(DNS_GetIpFromCache, name.c_str(), 0) == "0 10.0.0.2" ? "" : name + "? ");
        }
    }
    EXPECT_EQ(found, "");
}

// Address files: exact lines on creation and on every store after it.
TEST(FileCache, AddressStoresWriteExactLines) {
    set_clock(1000);
    ASSERT_EQ(DNS_SetIpToFileCache("host", 300, addr("127.0.0.1")), DNS_OK);
    ASSERT_EQ(DNS_SetIpToFileCache("h6", 60, addr("fd00::1")), DNS_OK);
    set_clock(1001);
    ASSERT_EQ(DNS_SetIpToFileCache("other", forever, addr("10.0.0.1")), DNS_OK);
    ASSERT_EQ(DNS_SetIpToFileCache("h6", 9, addr("fd00::2")), DNS_OK);
    EXPECT_EQ(read_file("/var/orvdns.cache"),
              head + "host 16777343 1000 300\nother 16777226 1001 4294967295\n");
    EXPECT_EQ(read_file("/var/orvdnsaaaa.cache"), head + "h6 fd00::1 1000 60\nh6 fd00::2 1001 9\n");
    // A fresh file is one bounded format: cut at 127 characters. Later lines
    // cut keep their line feed.
    const std::string name(120, 'n');
    (void)std::remove("/var/orvdns.cache");
    ASSERT_EQ(DNS_SetIpToFileCache(name.c_str(), 9, addr("10.0.0.1")), DNS_OK);
    ASSERT_EQ(DNS_SetIpToFileCache(name.c_str(), 9, addr("10.0.0.1")), DNS_OK);
    EXPECT_EQ(read_file("/var/orvdns.cache"), (head + name).substr(0, 127) + name + " 16777\n");
    // A full file gives up the first line with the smallest stamp.
    write_file("/var/orvdns.cache", "maxnumber 3\nmaxtime 9\na 1 7 0\nb 2 5 0\nc 3 5 0\n");
    ASSERT_EQ(DNS_SetIpToFileCache("d", 1, addr("0.0.0.4")), DNS_OK);
    EXPECT_EQ(read_file("/var/orvdns.cache"),
              "maxnumber 3\nmaxtime 9\na 1 7 0\nc 3 5 0\nd 67108864 1001 1\n");
}

TEST(FileCache, AddressLookUpsAgeTrimAndRewrite) {
    set_clock(1100);
    // Records over maxnumber (the oldest, first) and expired ones are dropped
    // from the file; age equal to the limit is expired.
    write_file("/var/orvdns.cache", "maxnumber 4\nmaxtime 50\nh 1 1000 500\nh 2 1000 101\nh 3 1000 100\n"
                                    "h 4 1051 4294967295\nx 5 1100 1\n");
    EXPECT_EQ(get_ip(DNS_GetIpFromFileCache, "h", 0), "0 2.0.0.0 4.0.0.0");
    EXPECT_EQ(read_file("/var/orvdns.cache"),
              "maxnumber 4\nmaxtime 50\nh 2 1000 101\nh 4 1051 4294967295\nx 5 1100 1\n");
    EXPECT_EQ(get_ip(DNS_GetIpFromFileCache, "y", 0), "26040020");
    write_file("/var/orvdnsaaaa.cache", "maxnumber 3\nmaxtime 50\nh fd00::1 1050 4294967295\n");
    EXPECT_EQ(get_ip(DNS_GetIpFromFileCache, "h", 1), "26040029");
    EXPECT_FALSE(file_exists("/var/dnsresolv.tmp"));
}

TEST(FileCache, ServiceEntriesWriteExactLinesAndAgePerRecord) {
    set_clock(1000);
    DNS_SRV_RR_S rr[2] = {};
    const char *targets[] = {"a.h", "b.h"}, *ips[] = {"10.0.0.1", "fd00::1"};
    for (int i = 0; i < 2; ++i) {
        std::strcpy(rr[i].szTarget, targets[i]);
        rr[i].usPriority = 1;
        rr[i].usWeight = 2;
        rr[i].usPort = 5060;
        rr[i].stAddr = addr(ips[i]);
    }
    const uint32_t ttls[] = {60, forever};
    ASSERT_EQ(DNS_SetSrvToFileCache("_s._udp.h", rr, 2, ttls), DNS_OK);
    EXPECT_EQ(read_file("/var/orvdnssrv.cache"), head + "_s._udp.h 1000 2\ntn: a.h 1 2 5060 0 10.0.0.1 60 \n"
                                                        "tn: b.h 1 2 5060 1 fd00::1 4294967295 \n");
    DNS_SRV_RR_S out[2] = {};
    uint32_t n = 2;
    set_clock(1060);
    EXPECT_EQ(DNS_GetSrvFromFileCache("_s._udp.h", out, &n), DNS_OK) << "age equal to the TTL is live";
    EXPECT_EQ(std::string(out[0].szTarget) + " " + out[1].szTarget + " " + std::to_string(n), "a.h b.h 2");
    set_clock(1061);
    EXPECT_EQ(DNS_GetSrvFromFileCache("_s._udp.h", out, &n), DNS_ERR_NOT_FOUND);
    EXPECT_EQ(read_file("/var/orvdnssrv.cache"), head) << "the expired entry is dropped";
}

} // namespace
