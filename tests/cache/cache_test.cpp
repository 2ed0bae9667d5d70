// The memory caches and the cache files (address files, service file), with
// the platform clock pinned so that ages are exact to the second. Files are
// real ones in the sandbox's /var; the test main checks after every test that
// no platform block was leaked.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "cache/address_file_cache.h"
#include "cache/service_file_cache.h"
#include "os_adapter/test_hooks.h"
#include "support/sandbox.h"
#include "vek_dns_ops.h"

namespace {

namespace pal = vekdns::pal_test;
using pal::op;
using pal::set_clock;
using namespace vekdns::test;

constexpr uint32_t forever = 0xFFFFFFFFu;

std::string hex(uint32_t value) { return (std::ostringstream() << std::hex << value).str(); }
uint32_t code_of(const std::string &result) { return static_cast<uint32_t>(std::stoul(result, nullptr, 16)); }

DNS_IPADDR_S addr(const char *text) {
    DNS_IPADDR_S a{};
    a.ulType = std::strchr(text, ':') != nullptr ? DNS_IP_TYPE_IPV6 : DNS_IP_TYPE_IPV4;
    EXPECT_EQ(inet_pton(a.ulType == DNS_IP_TYPE_IPV6 ? AF_INET6 : AF_INET, text, &a.unIpAddr), 1) << text;
    return a;
}

std::string text_of(const DNS_IPADDR_S &a) {
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(a.ulType == DNS_IP_TYPE_IPV6 ? AF_INET6 : AF_INET, &a.unIpAddr, text, sizeof(text));
    return " " + std::to_string(a.ulType) + ":" + text;
}

// An address look-up (memory or file) as one string: the code in hex, then
// " type:address" of every record returned.
std::string get_ip(decltype(&DNS_GetIpFromCache) get, const std::string &name, uint32_t family) {
    DNS_IPADDR_S out[DNS_MAX_IP_NUM + 1];
    std::memset(out, 0xAB, sizeof(out));
    out[0].ulType = family;
    uint32_t num = 99;
    std::string all = hex(get(name.c_str(), out, &num));
    EXPECT_EQ(out[DNS_MAX_IP_NUM].ulType, 0xABABABABu) << "written past the ten records";
    for (uint32_t i = 0; num <= DNS_MAX_IP_NUM && i < num; ++i) {
        all += text_of(out[i]);
    }
    return all;
}

DNS_SRV_RR_S rr(const std::string &target, uint16_t port, const char *address = "0.0.0.0") {
    DNS_SRV_RR_S r{};
    std::strncpy(r.szTarget, target.c_str(), sizeof(r.szTarget) - 1);
    r.usPriority = 10;
    r.usWeight = 20;
    r.usPort = port;
    r.stAddr = addr(address);
    return r;
}

uint32_t put_srv(decltype(&DNS_SetSrvToCache) put, const std::string &name, std::vector<DNS_SRV_RR_S> rrs,
                 std::vector<uint32_t> ttls) {
    return put(name.c_str(), rrs.data(), static_cast<uint32_t>(rrs.size()), ttls.data());
}

// A service look-up with room for `room` records as one string: the code in
// hex, then " target:port" and " type:address" (unless 0.0.0.0) of each record.
std::string get_srv(decltype(&DNS_GetSrvFromCache) get, const std::string &name, uint32_t room) {
    std::vector<DNS_SRV_RR_S> out(room + 1);
    std::memset(out.data(), 0xAB, out.size() * sizeof(DNS_SRV_RR_S));
    uint32_t num = room;
    const uint32_t ret = get(name.c_str(), out.data(), &num);
    EXPECT_EQ(out[room].usPort, 0xABABu) << "written past the room";
    std::string all = hex(ret);
    for (uint32_t i = 0; ret == DNS_OK && i < num && i < room; ++i) {
        const DNS_IPADDR_S &a = out[i].stAddr;
        all += " " + std::string(out[i].szTarget) + ":" + std::to_string(out[i].usPort) +
               (a.ulType == 0 && a.unIpAddr.ulIpv4 == 0 ? "" : text_of(a));
    }
    return all;
}

// ---- memory caches ----------------------------------------------------------------------

constexpr uint32_t t0 = 1000000;

uint32_t store(const std::string &name, const char *address, uint32_t ttl = 300) {
    return DNS_SetIpToCache(name.c_str(), ttl, addr(address));
}
std::string mem_ip(const std::string &name, uint32_t family = 0) { return get_ip(DNS_GetIpFromCache, name, family); }
uint32_t mem_put_srv(const std::string &name, std::vector<DNS_SRV_RR_S> rrs, std::vector<uint32_t> ttls) {
    return put_srv(DNS_SetSrvToCache, name, std::move(rrs), std::move(ttls));
}
std::string mem_srv(const std::string &name, uint32_t room = 4) { return get_srv(DNS_GetSrvFromCache, name, room); }

// The list holds `n` well-linked entries, ulRecords agrees, the lock is free.
void expect_entries(const DNS_CACHE_HEAD_S *head, uint32_t n) {
    ASSERT_NE(head, nullptr);
    uint32_t walked = 0;
    for (auto *i = head->pstCacheFirst->pstNext; i != head->pstCacheFirst; i = i->pstNext, ++walked) {
        EXPECT_EQ(i->pstPrev->pstNext, i);
    }
    int lock = -1;
    sem_getvalue(head->pstSem, &lock);
    EXPECT_EQ(head->ulRecords, n);
    EXPECT_EQ(walked, n);
    EXPECT_EQ(lock, 1);
}

TEST(MemoryCache, CreationLimitsAndFailures) {
    DNS_CACHE_HEAD_S *head = DNS_CreateCache(DNS_AAAA, 0, 0);
    ASSERT_NE(head, nullptr);
    EXPECT_EQ(head->enDNSType, static_cast<DNS_TYPE_E>(DNS_AAAA));
    EXPECT_EQ(head->ulMaxNumber, 32u);
    EXPECT_EQ(head->ulMaxTime, 86400u);
    expect_entries(head, 0);
    DNS_DestoryCache(&head);
    EXPECT_EQ(head, nullptr);

    log_capture log(3);
    EXPECT_EQ(DNS_CreateCache(3, 0, 0), nullptr);
    EXPECT_TRUE(log.contains("enDNSType:3"));
    const std::tuple<op, unsigned, const char *> steps[] = {
        {op::alloc, 1, "pstCacheHead is null"}, {op::alloc, 2, "pstCacheHead->pstSem is null"},
        {op::alloc, 3, "pstCacheHead->pstCacheFirst is null"}, {op::sem_init, 1, "DNS Init Lock Faile lRet:"}};
    for (const auto &[o, nth, line] : steps) {
        const long before = pal::outstanding_blocks();
        pal::fail_nth(o, nth);
        EXPECT_EQ(DNS_CreateCache(DNS_A, 0, 0), nullptr) << line;
        EXPECT_TRUE(log.contains(line)) << line;
        EXPECT_EQ(pal::outstanding_blocks(), before) << line;
        pal::clear_faults();
    }
}

TEST(MemoryCache, AddressStoresAndLookUps) {
    set_clock(t0);
    std::string ten = "0";
    for (int i = 1; i <= 12; ++i) {
        ASSERT_EQ(store("many", ("10.0.0." + std::to_string(i)).c_str()), DNS_OK);
        ten += i > 2 ? " 0:10.0.0." + std::to_string(15 - i) : "";
    }
    ASSERT_EQ(store("Other", "10.9.9.9"), DNS_OK);
    ASSERT_EQ(store("Other", "10.9.9.9"), DNS_OK);
    EXPECT_EQ(mem_ip("many"), ten) << "the ten newest, newest first";
    expect_entries(pstDNSCache, 14);
    EXPECT_EQ(mem_ip("Other"), "0 0:10.9.9.9 0:10.9.9.9") << "a second store is a second entry";
    DNS_IPADDR_S out[DNS_MAX_IP_NUM] = {};
    uint32_t num = 7;
    EXPECT_EQ(DNS_GetIpFromCache("other", out, &num), DNS_ERR_CACHE_MISS) << "names compare exactly";
    EXPECT_EQ(num, 7u) << "a miss leaves the count alone";
    // Only the first record carries the family; every filled one gets it.
    ASSERT_EQ(store("six", "2001:db8::1"), DNS_OK);
    ASSERT_EQ(store("six", "2001:db8:ffff:ffff:ffff:ffff:ffff:fffe"), DNS_OK);
    EXPECT_EQ(mem_ip("six", 1), "0 1:2001:db8:ffff:ffff:ffff:ffff:ffff:fffe 1:2001:db8::1");
    EXPECT_EQ(mem_ip("six"), hex(DNS_ERR_CACHE_MISS));

    DNS_IPADDR_S odd = addr("10.0.0.1");
    odd.ulType = 2;
    EXPECT_EQ(DNS_SetIpToCache("x", 60, odd), DNS_ERR_IP_TYPE);
    EXPECT_EQ(mem_ip("x", 2), hex(DNS_ERR_IP_TYPE));
    EXPECT_EQ(dnsAddIPToCache(pstDNSCache, "x", &odd, 1), DNS_ERR_IP_TYPE);
    expect_entries(pstDNSCache, 14); // the entry of the unknown family is removed again
    log_capture log(3);
    EXPECT_EQ(DNS_GetIpFromCache("a", nullptr, &num), DNS_ERR_PARA_INVALID);
    EXPECT_TRUE(log.contains("DNS_GetIpFromMemCache param is null"));
    EXPECT_EQ(DNS_GetSrvFromCache("a", nullptr, &num), DNS_ERR_PARA_INVALID);
    EXPECT_TRUE(log.contains("DNS_GetSrvFromMemCache param is invalid"));
}

TEST(MemoryCache, AllocationFailuresLeaveTheCacheAsItWas) {
    pal::fail_nth(op::alloc, 1); // the A cache itself
    EXPECT_EQ(store("a", "10.0.0.1"), DNS_ERR_IP_TYPE);
    EXPECT_EQ(pstDNSCache, nullptr);
    ASSERT_EQ(store("a", "10.0.0.1"), DNS_OK);
    for (unsigned nth : {1u, 2u}) { // the entry, the name copy
        pal::fail_nth(op::alloc, nth);
        EXPECT_EQ(store("a", "10.0.0.2"), DNS_ERR_MEM_ALLOC) << nth;
        expect_entries(pstDNSCache, 1);
    }
    EXPECT_EQ(mem_ip("a"), "0 0:10.0.0.1");

    log_capture log(3);
    pal::fail_nth(op::alloc, 1); // the SRV cache itself
    EXPECT_EQ(mem_put_srv("s", {rr("t", 1)}, {60}), DNS_ERR_MEM_ALLOC);
    EXPECT_TRUE(log.contains("pstCacheHead is null"));
    EXPECT_EQ(pstDNSSRVCache, nullptr);
    EXPECT_EQ(mem_put_srv("s", {}, {}), DNS_ERR_PARA_INVALID);
    // the entry, the name copy, the records, the time-to-live values
    const uint32_t expect[] = {DNS_ERR_MEM_ALLOC, DNS_ERR_MEM_ALLOC, DNS_ERR_NO_MEMORY, DNS_ERR_NO_MEMORY};
    for (unsigned nth = 1; nth <= 4; ++nth) {
        pal::fail_nth(op::alloc, nth);
        EXPECT_EQ(mem_put_srv("s", {rr("t", 1)}, {60}), expect[nth - 1]) << nth;
        expect_entries(pstDNSSRVCache, 0);
    }
}

TEST(MemoryCache, AddressesLiveWhileTheirAgeIsAtMostTheLimit) {
    for (const auto &[ttl, last_live_age] : {std::pair{0u, 0u}, {5u, 5u}, {forever, 86400u}}) {
        set_clock(t0);
        ASSERT_EQ(store("ttl", "10.0.0.1", ttl), DNS_OK);
        ASSERT_EQ(store("keep", "10.0.0.2", 0), DNS_OK);
        set_clock(t0 + last_live_age);
        EXPECT_EQ(mem_ip("ttl"), "0 0:10.0.0.1") << ttl;
        pal::advance_clock(1);
        EXPECT_EQ(mem_ip("ttl"), hex(DNS_ERR_CACHE_MISS)) << ttl;
        expect_entries(pstDNSCache, 1); // the expired entry went; another name stays, however old
        ORV_NETB_DnsCleanBuffer();
    }
    set_clock(t0);
    ASSERT_EQ(store("mix", "10.0.0.1", 10), DNS_OK);
    set_clock(t0 + 8);
    ASSERT_EQ(store("mix", "10.0.0.2", 10), DNS_OK);
    set_clock(t0 + 11);
    EXPECT_EQ(mem_ip("mix"), "0 0:10.0.0.2");
    expect_entries(pstDNSCache, 1);
    set_clock(t0 + 7);
    EXPECT_EQ(mem_ip("mix"), hex(DNS_ERR_CACHE_MISS)) << "a clock set back expires the entry";

    // The walk stops at ten found, so an expired entry behind them stays.
    ASSERT_EQ(store("ten", "10.0.0.99", 0), DNS_OK);
    set_clock(t0 + 9);
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(store("ten", "10.0.1.1"), DNS_OK);
    }
    EXPECT_EQ(mem_ip("ten").size(), std::string("0").size() + 10 * std::string(" 0:10.0.1.1").size());
    expect_entries(pstDNSCache, 11);
}

TEST(MemoryCache, FullCacheEvictsTheOldestEntryOfAnEarlierSecond) {
    // 32 entries, four per second, e21 expired. The 33rd store removes the
    // newest of the four oldest (e3), whatever the entries' time to live.
    for (int i = 0; i < 32; ++i) {
        set_clock(t0 + static_cast<uint32_t>(i / 4));
        ASSERT_EQ(store("e" + std::to_string(i), "10.0.0.1", i == 21 ? 0 : 300), DNS_OK);
    }
    set_clock(t0 + 9);
    ASSERT_EQ(store("new", "10.0.0.2"), DNS_OK);
    expect_entries(pstDNSCache, 32);
    EXPECT_EQ(mem_ip("e3"), hex(DNS_ERR_CACHE_MISS));
    EXPECT_EQ(mem_ip("e2") + mem_ip("e4"), "0 0:10.0.0.10 0:10.0.0.1");
    // Nothing stamped before this second (or the clock set back): the cache grows.
    for (int i = 0; i < 33; ++i) {
        ASSERT_EQ(store("s" + std::to_string(i), "fd00::1"), DNS_OK);
    }
    set_clock(t0 + 4);
    ASSERT_EQ(store("s33", "fd00::3"), DNS_OK);
    expect_entries(pstDNSAAAACache, 34);
    set_clock(t0 + 10);
    ASSERT_EQ(store("s34", "fd00::4"), DNS_OK);
    expect_entries(pstDNSAAAACache, 34);
    EXPECT_EQ(mem_ip("s33", 1), hex(DNS_ERR_CACHE_MISS));
}

TEST(MemoryCache, ServiceSetsAreServedWholeOrNotAtAll) {
    set_clock(t0);
    log_capture log(5);
    ASSERT_EQ(mem_put_srv("s", {rr("old", 1)}, {forever}), DNS_OK);
    EXPECT_TRUE(log.contains("ulRecords:0, ulMaxNumber:32"));
    set_clock(t0 + 10);
    ASSERT_EQ(mem_put_srv("s", {rr("a", 1), rr("b", 2), rr("c", 3), rr("d", 4, "10.0.0.4")}, {300, 5, 300, 300}),
              DNS_OK);
    set_clock(t0 + 15);
    EXPECT_EQ(mem_srv("s"), "0 a:1 b:2 c:3 d:4 0:10.0.0.4");
    EXPECT_TRUE(log.contains("DNS Get Srv From MemCache "));
    EXPECT_EQ(mem_srv("s", 2), "0 a:1 b:2");
    EXPECT_EQ(mem_srv("s", 0), "0");
    EXPECT_EQ(mem_srv("other"), hex(DNS_ERR_SRV_NOT_FOUND));
    set_clock(t0 + 16);
    EXPECT_EQ(mem_srv("s"), "0 old:1") << "one expired record drops the newer set";
    expect_entries(pstDNSSRVCache, 1);
    set_clock(t0 + 86400);
    EXPECT_EQ(mem_srv("s"), "0 old:1");
    set_clock(t0 + 86401);
    EXPECT_EQ(mem_srv("s"), hex(DNS_ERR_SRV_NOT_FOUND));
    expect_entries(pstDNSSRVCache, 0);

    for (int i = 0; i < 32; ++i) {
        set_clock(t0 + static_cast<uint32_t>(i));
        ASSERT_EQ(mem_put_srv("s" + std::to_string(i), {rr("t", 1)}, {forever}), DNS_OK);
    }
    set_clock(t0 + 40);
    ASSERT_EQ(mem_put_srv("new", {rr("t", 1)}, {60}), DNS_OK);
    expect_entries(pstDNSSRVCache, 32);
    EXPECT_EQ(mem_srv("s0"), hex(DNS_ERR_SRV_NOT_FOUND));
    EXPECT_EQ(mem_srv("s1"), "0 t:1");
}

TEST(MemoryCache, CleanUpEmptiesEverythingUnderTheNamedSemaphore) {
    const long before = pal::outstanding_blocks();
    log_capture log(5);
    // Look-ups before the first store and after the clean-up find no cache.
    auto expect_absent = [&] {
        EXPECT_EQ(mem_ip("a", 0) + mem_ip("a", 1) + mem_srv("s"),
                  hex(DNS_ERR_IP_TYPE) + hex(DNS_ERR_IP_TYPE) + hex(DNS_ERR_MEM_ALLOC));
        EXPECT_TRUE(log.contains("dnsGetCacheByType failed") &&
                    log.contains("DNS_GetSrvFromMemCache pstCacheHead is null"));
        EXPECT_TRUE(pstDNSCache == nullptr && pstDNSAAAACache == nullptr && pstDNSSRVCache == nullptr);
    };
    expect_absent();
    ASSERT_EQ(store("a", "10.0.0.1"), DNS_OK);
    ASSERT_EQ(store("a", "fd00::1"), DNS_OK);
    ASSERT_EQ(mem_put_srv("s", {rr("t", 1)}, {60}), DNS_OK);
    EXPECT_EQ(DNS_GetCacheByType(DNS_SRV), &pstDNSSRVCache);
    EXPECT_EQ(dnsGetCacheByType(DNS_SRV), nullptr) << "only the address caches";

    const unsigned waits = pal::calls(op::sem_wait);
    pal::fail_nth(op::sem_open, 1);
    log.clear();
    ORV_NETB_DnsCleanBuffer();
    EXPECT_NE(pstDNSCache, nullptr);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(pal::calls(op::sem_wait), waits);
    ORV_NETB_DnsCleanBuffer();
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"Start Dns Clean Buffer", "Destory DNS_SRV cache",
                                                     "Destory DNS_A cache", "Destory DNS_AAAA cache",
                                                     "Dns Clean Buffer End"}));
    EXPECT_EQ(pal::outstanding_blocks(), before);
    log.clear();
    expect_absent();
}

// ---- cache files ------------------------------------------------------------------------

const char *const v4_file = "/var/orvdns.cache";
const char *const v6_file = "/var/orvdnsaaaa.cache";
const char *const srv_file = "/var/orvdnssrv.cache";
const char *const v4_temp = "/var/dnsresolv.tmp";
const char *const srv_temp = "/var/dnssrv.tmp";
const std::string head = "maxnumber 32\nmaxtime 86400\n";

// The address field of an IPv4 record line: ulIpv4 as one decimal number.
std::string dec(const char *text) { return std::to_string(addr(text).unIpAddr.ulIpv4); }

unsigned mode_of(const char *path) {
    struct stat st {};
    return stat(path, &st) == 0 ? (st.st_mode & 07777) : 0u;
}

std::string file_ip(const char *name, uint32_t family = 0) { return get_ip(DNS_GetIpFromFileCache, name, family); }
std::string file_srv(const char *name, uint32_t room = 4) { return get_srv(DNS_GetSrvFromFileCache, name, room); }
uint32_t put_new() { return put_srv(DNS_SetSrvToFileCache, "new", {rr("n", 1, "10.0.0.9")}, {30}); }

// One record line of the service file as it is written.
std::string rec(const char *target, const char *address, uint32_t ttl, int port = 5060) {
    return "tn: " + std::string(target) + " 10 20 " + std::to_string(port) +
           (std::strchr(address, ':') != nullptr ? " 1 " : " 0 ") + address + " " + std::to_string(ttl) + " \n";
}

class FileCache : public testing::Test {
protected:
    void SetUp() override {
        ORV_NETB_DnsSetLogLevel(1); // quiet unless a test captures
        for (const char *p : {v4_file, v6_file, srv_file, v4_temp, srv_temp}) {
            (void)std::remove(p);
        }
        set_clock(1000);
    }
};

TEST_F(FileCache, StoresWriteExactLines) {
    ASSERT_EQ(DNS_SetIpToFileCache("host", 300, addr("127.0.0.1")), DNS_OK);
    ASSERT_EQ(put_srv(DNS_SetSrvToFileCache, "_sip._udp.example.com",
                      {rr("a.example", 5060, "10.0.0.1"), rr("b.example", 5061, "fd00::1")}, {60, forever}),
              DNS_OK);
    EXPECT_EQ(mode_of(v4_file), 0777u);
    EXPECT_EQ(mode_of(srv_file), 0640u);
    set_clock(1001);
    ASSERT_EQ(DNS_SetIpToFileCache("other", forever, addr("10.0.0.1")), DNS_OK);
    EXPECT_EQ(read_file(v4_file),
              head + "host " + dec("127.0.0.1") + " 1000 300\nother " + dec("10.0.0.1") + " 1001 4294967295\n");
    ASSERT_EQ(DNS_SetIpToFileCache("host6", 60, addr("fd00::1")), DNS_OK);
    EXPECT_EQ(read_file(v6_file), head + "host6 fd00::1 1001 60\n");
    ASSERT_EQ(put_srv(DNS_SetSrvToFileCache, "other", {rr("a.example", 5060, "10.0.0.1")}, {60}), DNS_OK);
    ASSERT_EQ(DNS_SetSrvToFileCache("none", nullptr, 0, nullptr), DNS_OK);
    EXPECT_EQ(read_file(srv_file), head + "_sip._udp.example.com 1000 2\n" + rec("a.example", "10.0.0.1", 60) +
                                       rec("b.example", "fd00::1", forever, 5061) + "other 1001 1\n" +
                                       rec("a.example", "10.0.0.1", 60) + "none 1001 0\n");

    log_capture cap;
    DNS_IPADDR_S other = addr("10.0.0.1");
    other.ulType = 2;
    EXPECT_EQ(DNS_SetIpToFileCache("h", 9, other), DNS_ERR_OPEN_FILE);
    EXPECT_TRUE(cap.contains("open file failed!\r\n"));
    EXPECT_EQ(DNS_SetIpToFileCache(nullptr, 9, addr("10.0.0.1")), DNS_ERR_PARA_INVALID);

    // A name too long for its line is cut at 127 characters and logged; the
    // line still ends with its line feed, at creation and when appended.
    const std::string name(120, 'n');
    (void)std::remove(v4_file);
    ASSERT_EQ(DNS_SetIpToFileCache(name.c_str(), 9, addr("10.0.0.1")), DNS_OK);
    ASSERT_EQ(DNS_SetIpToFileCache(name.c_str(), 9, addr("10.0.0.1")), DNS_OK);
    EXPECT_EQ(read_file(v4_file), head + std::string(99, 'n') + "\n" + name + " 16777\n");
    EXPECT_TRUE(cap.contains("secure func return fail! lLen = -1"));
    (void)std::remove(v6_file);
    pal::fail_nth(op::chmod, 1);
    EXPECT_EQ(DNS_SetIpToFileCache("h", 9, addr("fd00::2")), DNS_OK) << "the result of chmod is not examined";
}

// A store into an existing file: its code, and the file after it. A full
// file gives up the first record (entry) with the smallest stamp, also when
// none is older than the current second, so the store is kept and the count
// stays at maxnumber; only the first line gives the limit of an address file
// (none: 0 records).
TEST_F(FileCache, StoresIntoExistingFiles) {
    const std::string a_new = "new " + dec("10.0.0.1") + " 1000 7\n",
                      s_new = "new 1000 1\n" + rec("n", "10.0.0.9", 30, 1);
    const std::string p3 = "maxnumber 3\nmaxtime 100\n", p2 = "maxnumber 2\nmaxtime 9\n";
    const std::string x = "x 300 1\n" + rec("a", "10.0.0.1", 1),
                      y = "y 200 2\n" + rec("b", "10.0.0.2", 1) + rec("c", "fd00::3", 1);
    // file, content before, code, what stays before the new line ("": all of it; an error leaves the file as it was)
    const struct { const char *path; std::string before; uint32_t expect; std::string kept; } cases[] = {
        {v4_file, p3 + "a 1 100 9\nb 1 50 9\nc 1 50 9\n", DNS_OK, p3 + "a 1 100 9\nc 1 50 9\n"},
        {v4_file, p3 + "a 1 1000 9\nb 1 1000 9\nc 1 1000 9\n", DNS_OK, p3 + "b 1 1000 9\nc 1 1000 9\n"},
        {v4_file, p3 + "a 1 3000 9\nb 1 3000 9\nc 1 2000 9\n", DNS_OK, p3 + "a 1 3000 9\nb 1 3000 9\n"},
        {v4_file, "maxnumber 2\nmaxtime 5\nx 1 2 3\n", DNS_OK, ""},
        {v4_file, "maxtime 100\n", DNS_OK, ""},
        {v4_file, "maxnumber 4294967295\nmaxtime 5\n", DNS_OK, ""},
        {v4_file, "maxtime 100\nmaxnumber 5\nx 1 2 3\n", DNS_ERR_FILE_FORMAT, ""},
        {v4_file, "maxnumber 1\nmaxtime 5\nx 1 2 3\ny 1 2 3\n", DNS_ERR_FILE_FORMAT, ""},
        {v4_file, "maxnumber", DNS_ERR_FILE_FORMAT, ""},
        {v4_file, "maxnumber 1\nmaxtime 5\nx 1\n", DNS_ERR_FILE_FORMAT, ""},
        {v4_file, "maxnumber 1\nmaxtime 5\n" + std::string(300, 'r') + "\n", DNS_ERR_FILE_FORMAT, ""},
        {srv_file, p2 + x + y, DNS_OK, p2 + x},
        {srv_file, p2 + y + x, DNS_OK, p2 + x},
        {srv_file, p2 + "x 1000 0\ny 1000 0\n", DNS_OK, p2 + "y 1000 0\n"},
        {srv_file, p2 + "x 3000 0\ny 2000 0\n", DNS_OK, p2 + "x 3000 0\n"},
        {srv_file, "maxnumber 1\nmaxtime 9\na 1 0\nb 1 0\n", DNS_ERR_SRV_CACHE_FILE, ""},
        {srv_file, head + "   ", DNS_ERR_FILE_FORMAT, ""},
        {srv_file, "maxnumber", DNS_ERR_FILE_FORMAT, ""},
        {srv_file, "maxnumber 1\nmaxtime 9\nsip\n", DNS_ERR_FILE_FORMAT, ""},
    };
    for (const auto &c : cases) {
        const bool srv = c.path == srv_file;
        write_file(c.path, c.before);
        EXPECT_EQ(srv ? put_new() : DNS_SetIpToFileCache("new", 7, addr("10.0.0.1")), c.expect) << c.before;
        const std::string after = (c.kept.empty() ? c.before : c.kept) + (srv ? s_new : a_new);
        EXPECT_EQ(read_file(c.path), c.expect == DNS_OK ? after : c.before) << c.before;
        EXPECT_FALSE(file_exists(srv ? srv_temp : v4_temp));
        (void)std::remove(c.path);
    }
}

TEST_F(FileCache, AddressLookUpsAgeTrimAndRewrite) {
    log_capture cap;
    uint32_t num = 0;
    EXPECT_EQ(DNS_GetIpFromFileCache("h", nullptr, &num), DNS_ERR_PARA_INVALID);
    EXPECT_TRUE(cap.contains("DNS_GetIpFromFileCache param is null"));
    EXPECT_EQ(file_ip("h"), hex(DNS_ERR_OPEN_FILE)) << "no file yet";
    EXPECT_EQ(file_ip("h", 2), hex(DNS_ERR_OPEN_FILE));
    EXPECT_TRUE(cap.contains("DNS_GetIpFromFileCache DNS_OpenCacheFile failed"));

    const std::string params = "maxnumber 32\nmaxtime 100\n", host = "host " + dec("10.0.0.1") + " 1000 10\n",
                      other = "other 1 1000 5\n", always = "forever " + dec("10.0.0.2") + " 1000 4294967295\n";
    write_file(v4_file, params + host + other + always);
    set_clock(1009);
    EXPECT_EQ(file_ip("host"), "0 0:10.0.0.1");
    set_clock(1099);
    EXPECT_EQ(file_ip("forever"), "0 0:10.0.0.2") << "maxtime applies, not the time to live of the lines before";
    EXPECT_EQ(read_file(v4_file), params + host + other + always);
    set_clock(1010);
    EXPECT_EQ(file_ip("host"), hex(DNS_ERR_CACHE_EXPIRED));
    set_clock(1100);
    EXPECT_EQ(file_ip("forever"), hex(DNS_ERR_CACHE_EXPIRED));
    EXPECT_EQ(read_file(v4_file), params + other) << "expired records of other names stay";
    EXPECT_EQ(file_ip("host"), hex(DNS_ERR_NOT_FOUND));
    EXPECT_FALSE(file_exists(v4_temp));

    // The newest record of the name gives the result; an older live address
    // is returned all the same.
    write_file(v4_file, head + "h " + dec("10.0.0.1") + " 1090 100\nh 2 1095 5\n");
    EXPECT_EQ(file_ip("h"), hex(DNS_ERR_CACHE_EXPIRED) + " 0:10.0.0.1");
    EXPECT_EQ(read_file(v4_file), head + "h " + dec("10.0.0.1") + " 1090 100\n");
    std::string twelve, ten = "0";
    for (int i = 1; i <= 12; ++i) {
        twelve += "many " + std::to_string(i) + " 1099 100\n";
        ten += i <= 10 ? " 0:" + std::to_string(i) + ".0.0.0" : "";
    }
    write_file(v4_file, head + twelve);
    EXPECT_EQ(file_ip("many"), ten) << "the ten oldest";
    EXPECT_EQ(read_file(v4_file), head + twelve) << "live records beyond ten stay";
    write_file(v6_file, head + "h6 fd00::1 1099 100\nh6 fd00::2 1099 100\n");
    EXPECT_EQ(file_ip("h6", DNS_IP_TYPE_IPV6), "0 1:fd00::1 1:fd00::2");

    // Two records over the limit: the two oldest go, whatever their names.
    write_file(v4_file, "maxnumber 2\nmaxtime 100\na 1 1099 100\nb 2 1099 100\nc 3 1099 100\nd 4 1099 100\n");
    EXPECT_EQ(file_ip("a"), hex(DNS_ERR_NOT_FOUND));
    EXPECT_EQ(read_file(v4_file), "maxnumber 2\nmaxtime 100\nc 3 1099 100\nd 4 1099 100\n");
}

TEST_F(FileCache, ServiceStoreRefusesWhatDoesNotFit) {
    DNS_SRV_RR_S unterminated = rr("t", 1, "10.0.0.1");
    std::memset(unterminated.szTarget, 'x', sizeof(unterminated.szTarget));
    const DNS_SRV_RR_S ok = rr("t", 1, "10.0.0.1");
    const std::string n100(100, 'n'), n120(120, 'n');
    // file before the call, service name, second record, code
    const struct { std::string file, name; DNS_SRV_RR_S record; uint32_t expect; } cases[] = {
        {"", "s", rr(std::string(81, 't'), 1, "10.0.0.1"), DNS_OK}, // target and address: 89 characters
        {"", "s", rr(std::string(82, 't'), 1, "10.0.0.1"), DNS_ERR_RECORD_INVALID},
        {"", "s", unterminated, DNS_ERR_RECORD_INVALID},
        {"", n100, ok, DNS_ERR_RECORD_INVALID}, // the creation text does not fit
        {head, n100, ok, DNS_OK},               // the head alone fits
        {head, n120, ok, DNS_ERR_RECORD_INVALID},
    };
    for (const auto &c : cases) {
        SetUp();
        if (!c.file.empty()) {
            write_file(srv_file, c.file);
        }
        EXPECT_EQ(put_srv(DNS_SetSrvToFileCache, c.name, {rr("ok", 1, "10.0.0.5"), c.record}, {1, 1}),
                  c.expect)
            << c.name;
        if (c.expect != DNS_OK) {
            EXPECT_EQ(file_exists(srv_file) ? read_file(srv_file) : "", c.file) << c.name;
        }
    }
    const uint32_t ttl = 1;
    EXPECT_EQ(DNS_SetSrvToFileCache(nullptr, nullptr, 0, nullptr), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(DNS_SetSrvToFileCache("s", nullptr, 1, &ttl), DNS_ERR_PARA_INVALID);
}

TEST_F(FileCache, ServiceLookUpsAgeTrimAndRespectTheCapacity) {
    set_clock(5000);
    const std::string sip =
        "sip 4990 3\n" + rec("a", "10.0.0.1", 60) + rec("b", "fd00::2", 60) + rec("c", "1.0.0.3", 60);
    write_file(srv_file, head + sip);
    EXPECT_EQ(file_srv("sip", 1), "0 a:5060 0:10.0.0.1");
    EXPECT_EQ(file_srv("sip", 3), "0 a:5060 0:10.0.0.1 b:5060 1:fd00::2 c:5060 0:1.0.0.3");
    EXPECT_EQ(file_srv("sip", 0), "0");
    EXPECT_EQ(file_srv("nothing"), hex(DNS_ERR_NOT_FOUND));
    EXPECT_EQ(read_file(srv_file), head + sip);

    // Only the first K records count; a newer expired entry never changes the result.
    const std::string params = "maxnumber 32\nmaxtime 100\n";
    const std::string ttl60 = "s60 5000 1\n" + rec("a", "10.0.0.1", 60);
    const std::string always = "sfor 5000 1\n" + rec("b", "10.0.0.2", forever);
    const std::string mixed = "smix 5000 2\n" + rec("c", "10.0.0.3", 1000) + rec("d", "10.0.0.4", 10);
    write_file(srv_file, params + ttl60 + always + mixed + "sfor 5001 1\n" + rec("e", "10.0.0.5", 1));
    set_clock(5060);
    EXPECT_EQ(file_srv("s60"), "0 a:5060 0:10.0.0.1");
    EXPECT_EQ(file_srv("sfor"), "0 b:5060 0:10.0.0.2");
    EXPECT_EQ(read_file(srv_file), params + ttl60 + always + mixed);
    set_clock(5061);
    EXPECT_EQ(file_srv("s60"), hex(DNS_ERR_NOT_FOUND));
    EXPECT_EQ(read_file(srv_file), params + always + mixed) << "the whole expired entry is dropped";
    set_clock(5100);
    EXPECT_EQ(file_srv("sfor"), "0 b:5060 0:10.0.0.2");
    EXPECT_EQ(file_srv("smix", 1), "0 c:5060 0:10.0.0.3");
    set_clock(5101);
    EXPECT_EQ(file_srv("sfor"), hex(DNS_ERR_NOT_FOUND));
    EXPECT_EQ(file_srv("smix", 2), hex(DNS_ERR_NOT_FOUND));
    EXPECT_EQ(read_file(srv_file), params);

    // Four entries over a limit of one: the three oldest go, whatever their names.
    const std::string c = "c 4000 2\n" + rec("tc", "10.0.0.3", 5000) + rec("td", "10.0.0.4", 5000);
    write_file(srv_file, "maxnumber 1\nmaxtime 9\na 4000 0\nx 4000 1\n" + rec("tx", "10.0.0.1", 5000) +
                             "b 4000 0\n" + c);
    EXPECT_EQ(file_srv("c"), "0 tc:5060 0:10.0.0.3 td:5060 0:10.0.0.4");
    EXPECT_EQ(read_file(srv_file), "maxnumber 1\nmaxtime 9\n" + c);

    // The second handle cannot be opened: the entry counts as not live.
    write_file(srv_file, head + sip);
    pal::fail_nth_path(srv_file, 2);
    EXPECT_EQ(file_srv("sip"), hex(DNS_ERR_NOT_FOUND));
    EXPECT_EQ(read_file(srv_file), head);
    log_capture cap;
    uint32_t num = 1;
    EXPECT_EQ(DNS_GetSrvFromFileCache("s", nullptr, &num), DNS_ERR_PARA_INVALID);
    EXPECT_TRUE(cap.contains("DNS_GetSrvFromFileCache param is null"));
    // A record line reads back as it was written, every field.
    char line[128];
    for (const DNS_SRV_RR_S &r : {rr("a.example", 5060, "10.0.0.1"), rr("b.example", 443, "fd00::1")}) {
        DNS_SRV_RR_S out;
        uint32_t ttl = 0;
        ASSERT_EQ(DNS_SrvCacheFormatTarget(&r, line, 77), DNS_OK);
        ASSERT_EQ(DNS_SrvCacheReadTarget(line, &out, &ttl), DNS_OK) << line;
        EXPECT_EQ(std::memcmp(&out, &r, sizeof(r)), 0) << line;
        EXPECT_EQ(ttl, 77u);
    }
}

// Every failure of a file operation gives its code, leaves the file as it was
// and no temporary file. A fault is the nth open of `path`, else the nth call of `o`.
TEST_F(FileCache, FailuresLeaveTheFileAsItWas) {
    set_clock(5000);
    const std::string room = "maxnumber 5\nmaxtime 5\na 1 900 9\n",
                      full = "maxnumber 2\nmaxtime 5\na 1 900 9\nb 1 800 9\n";
    const std::string two = head + "h 1 4999 100\nh 2 4999 100\n",
                      sip = head + "sip 4990 1\n" + rec("a", "10.0.0.1", 60);
    const std::string s_room = head + "a 4000 1\n" + rec("t", "10.0.0.1", 9);
    const std::string s_full = "maxnumber 1\nmaxtime 9\na 4000 1\n" + rec("t", "10.0.0.1", 9);
    const std::function<uint32_t()> calls[] = {[] { return DNS_SetIpToFileCache("h", 9, addr("10.0.0.2")); },
                                               [] { return code_of(file_ip("h")); }, put_new,
                                               [] { return code_of(file_srv("sip")); }};
    enum { set_a, get_a, set_s, get_s };
    const char *const fail_open = "open file failed!\r\n", *const fail_write = "write cache file failed!\r\n";
    const struct { int call; const std::string *before; op o; const char *path; unsigned nth; uint32_t expect;
                   const char *log; } cases[] = {
        {set_a, nullptr, op::fopen, v4_temp, 1, DNS_ERR_OPEN_FILE, fail_open},
        {set_a, nullptr, op::fputs, nullptr, 1, DNS_ERR_WRITE_FILE, fail_write},
        {set_a, &room, op::fopen, v4_file, 1, DNS_ERR_OPEN_FILE, fail_open},
        {set_a, &room, op::fseek, nullptr, 1, DNS_ERR_SEEK_FILE, nullptr},
        {set_a, &room, op::fgets, nullptr, 2, DNS_ERR_SEEK_FILE, nullptr}, // a read stops early
        {set_a, &room, op::fopen, v4_temp, 1, DNS_ERR_OPEN_FILE, fail_open},
        {set_a, &room, op::fputs, nullptr, 1, DNS_ERR_WRITE_FILE, fail_write},
        {set_a, &full, op::fseek, nullptr, 2, DNS_ERR_SEEK_FILE, nullptr},
        {set_a, &full, op::fopen, v4_temp, 1, DNS_ERR_OPEN_FILE, fail_open},
        {set_a, &full, op::fputs, nullptr, 2, DNS_ERR_WRITE_FILE, fail_write},
        {set_a, &full, op::fputs, nullptr, 4, DNS_ERR_WRITE_FILE, fail_write}, // the new record
        {set_a, &full, op::fsync, nullptr, 1, DNS_ERR_WRITE_FILE, fail_write},
        {get_a, &two, op::fopen, v4_temp, 1, DNS_ERR_OPEN_FILE, fail_open},
        {get_a, &two, op::fseek, nullptr, 1, DNS_ERR_SEEK_FILE, nullptr},
        {get_a, &two, op::fgets, nullptr, 6, DNS_ERR_SEEK_FILE, nullptr},
        {get_a, &two, op::fputs, nullptr, 3, DNS_ERR_WRITE_FILE, fail_write},
        {get_a, &two, op::fflush, nullptr, 1, DNS_ERR_WRITE_FILE, fail_write},
        {set_s, nullptr, op::fopen, srv_temp, 1, DNS_ERR_OPEN_FILE, nullptr},
        {set_s, nullptr, op::fputs, nullptr, 1, DNS_ERR_WRITE_FILE, nullptr},
        {set_s, nullptr, op::fputs, nullptr, 2, DNS_ERR_WRITE_FILE, nullptr},
        {set_s, &s_room, op::fopen, srv_file, 1, DNS_ERR_OPEN_FILE, nullptr},
        {set_s, &s_room, op::fgets, nullptr, 2, DNS_ERR_SEEK_FILE, nullptr},
        {set_s, &s_room, op::fseek, nullptr, 1, DNS_ERR_SEEK_FILE, nullptr},
        {set_s, &s_room, op::fopen, srv_temp, 1, DNS_ERR_OPEN_FILE, nullptr},
        {set_s, &s_room, op::fputs, nullptr, 1, DNS_ERR_WRITE_FILE, nullptr},
        {set_s, &s_full, op::fseek, nullptr, 2, DNS_ERR_SEEK_FILE, nullptr},
        {set_s, &s_full, op::fopen, srv_temp, 1, DNS_ERR_OPEN_FILE, nullptr},
        {set_s, &s_full, op::fputs, nullptr, 2, DNS_ERR_WRITE_FILE, nullptr},
        {set_s, &s_full, op::fputs, nullptr, 3, DNS_ERR_WRITE_FILE, nullptr}, // the new entry
        {set_s, &s_full, op::fsync, nullptr, 1, DNS_ERR_WRITE_FILE, nullptr},
        {get_s, &sip, op::fopen, srv_file, 1, DNS_ERR_OPEN_FILE,
         "DNS_GetSrvFromFileCache open file: /var/orvdnssrv.cache failed"},
        {get_s, &sip, op::fopen, srv_temp, 1, DNS_ERR_OPEN_FILE,
         "DNS_GetSrvFromFileCache open file: /var/dnssrv.tmp failed"},
        {get_s, &sip, op::fgets, nullptr, 2, DNS_ERR_SEEK_FILE,
         "DNS_GetSrvFromFileCache DNS_SrvCacheGetInfo lRet: 2604000e"},
        {get_s, &sip, op::fseek, nullptr, 1, DNS_ERR_SEEK_FILE, nullptr},
        {get_s, &sip, op::fputs, nullptr, 3, DNS_ERR_WRITE_FILE, nullptr},
        {get_s, &sip, op::fseek, nullptr, 2, DNS_ERR_SEEK_FILE,
         "DNS_GetSrvFromFileCache DNS_SrvCacheFindRecond lRet: 2604000e"},
        {get_s, &sip, op::fsync, nullptr, 1, DNS_ERR_WRITE_FILE,
         "DNS_GetSrvFromFileCache DNS_CopyOneFileToAnother failed"},
    };
    for (const auto &c : cases) {
        const char *file = c.call >= set_s ? srv_file : v4_file;
        (void)std::remove(file);
        if (c.before != nullptr) {
            write_file(file, *c.before);
        }
        log_capture cap;
        c.path != nullptr ? pal::fail_nth_path(c.path, c.nth) : pal::fail_nth(c.o, c.nth);
        const uint32_t ret = calls[c.call]();
        pal::clear_faults();
        SCOPED_TRACE("row " + std::to_string(&c - cases));
        EXPECT_EQ(ret, c.expect);
        EXPECT_EQ(file_exists(file) ? read_file(file) : "no file", c.before ? *c.before : "no file");
        EXPECT_FALSE(file_exists(v4_temp) || file_exists(srv_temp));
        EXPECT_TRUE(c.log == nullptr || cap.contains(c.log));
    }
}

// Malformed files give their codes, leave the file as it was on an error and
// no temporary file: address rows are looked up as "h", service rows as "sip".
TEST_F(FileCache, MalformedFilesGiveTheirCodes) {
    const std::string sip = "sip 4990 1\n" + rec("a", "10.0.0.1", 60);
    const struct { const char *path; std::string content; uint32_t expect; } cases[] = {
        {v4_file, "", DNS_ERR_NOT_FOUND},
        {v4_file, head, DNS_ERR_FILE_FORMAT},
        {v4_file, "maxnumber 3\nmaxtime", DNS_ERR_FILE_FORMAT},
        {v4_file, head + "h 1 999\n", DNS_ERR_FILE_FORMAT},
        {v4_file, head + "h 1 999 5 " + std::string(300, 'x') + "\n", DNS_ERR_FILE_FORMAT},
        {v4_file, head + "\x01\xfe\x7f 1 999 5\n", DNS_ERR_NOT_FOUND},
        {v4_file, head + std::string("h\0 1 999 5\n", 11), DNS_ERR_FILE_FORMAT},
        {v4_file, head + "h " + std::string(100, '9') + " 999 5\n", DNS_OK},
        {v6_file, head + "h fd00::zz 999 5\n", DNS_ERR_TEXT_TO_ADDR},
        {srv_file, head, DNS_ERR_NOT_FOUND},
        {srv_file, head + sip + "   ", DNS_ERR_FILE_FORMAT},
        {srv_file, "maxnumber", DNS_ERR_FILE_FORMAT},
        {srv_file, head + "sip 4990\n", DNS_ERR_FILE_FORMAT},
        {srv_file, head + "long 1 0 " + std::string(300, 'z') + "\n", DNS_ERR_FILE_FORMAT},
        {srv_file, head + rec("o", "10.0.0.9", 1) + "\x01\x02\xff 4990 0\n" + sip, DNS_OK},
        {srv_file, head + "sip 4990 1\ntn: a 1 2\n", DNS_ERR_NOT_FOUND},
        {srv_file, head + "sip 4990 1\ntn: a 1 2 3 1 fd00::zz 60 \n", DNS_ERR_NOT_FOUND},
        {srv_file, head + "sip 4990 4294967295\n" + rec("a", "10.0.0.1", 60), DNS_ERR_NOT_FOUND},
        {srv_file, head + "sip 4990 1\ntn: " + std::string(200, 't') + " 1 2 3 0 10.0.0.1 60 \n", DNS_ERR_NOT_FOUND},
    };
    for (const auto &c : cases) {
        const bool srv = c.path == srv_file;
        write_file(c.path, c.content);
        set_clock(srv ? 5000 : 1000);
        const std::string got = srv ? file_srv("sip") : file_ip("h", c.path == v6_file);
        EXPECT_EQ(code_of(got), c.expect) << got << " for " << c.content;
        if (c.expect != DNS_OK && c.expect != DNS_ERR_NOT_FOUND) {
            EXPECT_EQ(read_file(c.path), c.content);
        }
        EXPECT_FALSE(file_exists(srv ? srv_temp : v4_temp));
        (void)std::remove(c.path);
    }
}

// Odd content of every kind: each call ends with one of its codes, never
// writes past the caller's records and leaves no temporary file; the
// sanitizers see no access outside a buffer.
TEST_F(FileCache, ArbitraryContentNeverBreaksTheFileOperations) {
    const std::vector<std::string> parts = {
        "maxnumber ", "maxtime ", "tn: ", "sip ", "h ", "1 ", "4990 ", "4294967295 ", "10.0.0.1 ", "fd00::1 ",
        "0 ", "\n", "\n", " ", "  ", "\t", "\r\n", std::string(1, '\0'), "\xff\xfe", std::string(150, 'q')};
    const std::vector<uint32_t> allowed = {DNS_OK, DNS_ERR_NOT_FOUND, DNS_ERR_FILE_FORMAT, DNS_ERR_SRV_CACHE_FILE,
                                           DNS_ERR_CACHE_EXPIRED};
    uint32_t seed = 12345;
    auto next = [&seed] { return (seed = seed * 1103515245u + 12345u) >> 16 & 0x7FFF; };
    for (int round = 0; round < 300; ++round) {
        std::string content;
        for (unsigned i = next() % 40; i > 0; --i) {
            content += parts[next() % parts.size()];
        }
        write_file(srv_file, content);
        write_file(v4_file, content);
        for (uint32_t code : {code_of(file_srv("sip", next() % 4)), put_new(), code_of(file_ip("h")),
                              DNS_SetIpToFileCache("h", 5, addr("10.0.0.1"))}) {
            EXPECT_NE(std::find(allowed.begin(), allowed.end(), code), allowed.end())
                << hex(code) << " for " << content;
        }
        EXPECT_FALSE(file_exists(srv_temp) || file_exists(v4_temp));
    }
}
} // namespace
