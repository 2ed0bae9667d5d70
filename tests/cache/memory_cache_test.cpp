// The memory caches: stores, look-ups, ages to the second, eviction, the SRV
// set cache, failure paths and the clean-up.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <semaphore.h>

#include <cstring>
#include <string>
#include <vector>

#include "os_adapter/test_hooks.h"
#include "support/sandbox.h"
#include "vek_dns_ops.h"

namespace {

using namespace vekdns::test;
using vekdns::pal_test::advance_clock;
using vekdns::pal_test::fail_nth;
using vekdns::pal_test::op;
using vekdns::pal_test::set_clock;

constexpr uint32_t t0 = 1000000;
constexpr uint32_t use_max_time = 0xFFFFFFFFu;

DNS_IPADDR_S ip(const std::string &text) {
    DNS_IPADDR_S a{};
    if (text.find(':') != std::string::npos) {
        a.ulType = DNS_IP_TYPE_IPV6;
        EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), a.unIpAddr.aucIpv6), 1);
    } else {
        a.ulType = DNS_IP_TYPE_IPV4;
        EXPECT_EQ(inet_pton(AF_INET, text.c_str(), &a.unIpAddr.ulIpv4), 1);
    }
    return a;
}

std::string text_of(const DNS_IPADDR_S &a) {
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

uint32_t store(const std::string &name, const std::string &addr, uint32_t ttl = 300) {
    return DNS_SetIpToCache(name.c_str(), ttl, ip(addr));
}

// One look-up: the result code and the addresses as "a b c".
struct lookup {
    uint32_t ret = 0;
    uint32_t num = 0xDEAD;
    DNS_IPADDR_S addrs[DNS_MAX_IP_NUM] = {};
    lookup(const std::string &name, uint32_t family) {
        addrs[0].ulType = family;
        ret = DNS_GetIpFromCache(name.c_str(), addrs, &num);
    }
    std::string found() const {
        std::string out;
        for (uint32_t i = 0; ret == DNS_OK && i < num; ++i) {
            out += (i == 0 ? "" : " ") + text_of(addrs[i]);
        }
        return out;
    }
};

uint32_t records(const DNS_CACHE_HEAD_S *head) { return head == nullptr ? 0 : head->ulRecords; }

// Entries actually linked, walked both ways; must match ulRecords.
uint32_t linked(const DNS_CACHE_HEAD_S *head) {
    uint32_t forward = 0;
    uint32_t backward = 0;
    for (auto *i = head->pstCacheFirst->pstNext; i != head->pstCacheFirst; i = i->pstNext) {
        ++forward;
    }
    for (auto *i = head->pstCacheFirst->pstPrev; i != head->pstCacheFirst; i = i->pstPrev) {
        ++backward;
    }
    EXPECT_EQ(forward, backward);
    return forward;
}

// The head's lock is free (value 1) between operations.
int lock_value(const DNS_CACHE_HEAD_S *head) {
    int v = -1;
    sem_getvalue(head->pstSem, &v);
    return v;
}

DNS_SRV_RR_S srv(const std::string &target, uint16_t port) {
    DNS_SRV_RR_S r{};
    std::strncpy(r.szTarget, target.c_str(), sizeof(r.szTarget) - 1);
    r.usPriority = 1;
    r.usWeight = 2;
    r.usPort = port;
    r.stAddr = ip("192.0.2.1");
    return r;
}

uint32_t store_srv(const std::string &name, const std::vector<DNS_SRV_RR_S> &rrs,
                   const std::vector<uint32_t> &ttls) {
    return DNS_SetSrvToCache(name.c_str(), rrs.data(), static_cast<uint32_t>(rrs.size()), ttls.data());
}

// "target:port ..." of a service look-up with room for `room` records.
struct srv_lookup {
    uint32_t ret = 0;
    uint32_t num = 0;
    DNS_SRV_RR_S rrs[8] = {};
    srv_lookup(const std::string &name, uint32_t room = 8) {
        num = room;
        ret = DNS_GetSrvFromCache(name.c_str(), rrs, &num);
    }
    std::string found() const {
        std::string out;
        for (uint32_t i = 0; ret == DNS_OK && i < num; ++i) {
            out += (i == 0 ? "" : " ") + std::string(rrs[i].szTarget) + ":" + std::to_string(rrs[i].usPort);
        }
        return out;
    }
};

// ---- creation and absence ------------------------------------------------------------

TEST(MemCacheCreate, DefaultsAndGivenLimits) {
    DNS_CACHE_HEAD_S *head = DNS_CreateCache(DNS_AAAA, 0, 0);
    ASSERT_NE(head, nullptr);
    EXPECT_EQ(head->enDNSType, static_cast<DNS_TYPE_E>(DNS_AAAA));
    EXPECT_EQ(head->ulMaxNumber, 32u);
    EXPECT_EQ(head->ulMaxTime, 86400u);
    EXPECT_EQ(head->ulRecords, 0u);
    EXPECT_EQ(head->pstCacheFirst->pstNext, head->pstCacheFirst);
    EXPECT_EQ(head->pstCacheFirst->pstPrev, head->pstCacheFirst);
    EXPECT_EQ(lock_value(head), 1);
    DNS_DestoryCache(&head);
    EXPECT_EQ(head, nullptr);

    head = DNS_CreateCache(DNS_SRV, 5, 7);
    ASSERT_NE(head, nullptr);
    EXPECT_EQ(head->ulMaxNumber, 5u);
    EXPECT_EQ(head->ulMaxTime, 7u);
    DNS_DestoryCache(&head);
}

TEST(MemCacheCreate, UnknownTypeIsRefused) {
    log_capture log(3);
    EXPECT_EQ(DNS_CreateCache(3, 0, 0), nullptr);
    EXPECT_EQ(DNS_CreateCache(0xFFFFFFFFu, 0, 0), nullptr);
    EXPECT_TRUE(log.contains("enDNSType:3"));
}

TEST(MemCacheCreate, EachFailureFreesWhatWasTaken) {
    struct step {
        op o;
        unsigned nth;
        const char *line;
    };
    const step steps[] = {
        {op::alloc, 1, "pstCacheHead is null"},
        {op::alloc, 2, "pstCacheHead->pstSem is null"},
        {op::alloc, 3, "pstCacheHead->pstCacheFirst is null"},
        {op::sem_init, 1, "DNS Init Lock Faile lRet:"},
    };
    for (const step &s : steps) {
        SCOPED_TRACE(s.line);
        log_capture log(3);
        long before = vekdns::pal_test::outstanding_blocks();
        fail_nth(s.o, s.nth);
        EXPECT_EQ(DNS_CreateCache(DNS_A, 0, 0), nullptr);
        vekdns::pal_test::clear_faults();
        EXPECT_TRUE(log.contains(s.line));
        EXPECT_EQ(vekdns::pal_test::outstanding_blocks(), before);
    }
}

TEST(MemCacheCreate, TypeSelectors) {
    EXPECT_EQ(DNS_GetCacheByType(DNS_A), &pstDNSCache);
    EXPECT_EQ(DNS_GetCacheByType(DNS_AAAA), &pstDNSAAAACache);
    EXPECT_EQ(DNS_GetCacheByType(DNS_SRV), &pstDNSSRVCache);
    EXPECT_EQ(DNS_GetCacheByType(3), nullptr);

    ASSERT_EQ(store("a.example", "10.0.0.1"), DNS_OK);
    ASSERT_EQ(store("a.example", "fd00::1"), DNS_OK);
    uint32_t ttl = 60;
    DNS_SRV_RR_S one = srv("t.example", 5060);
    ASSERT_EQ(DNS_SetSrvToCache("_sip._udp.example", &one, 1, &ttl), DNS_OK);
    EXPECT_EQ(dnsGetCacheByType(DNS_A), pstDNSCache);
    EXPECT_EQ(dnsGetCacheByType(DNS_AAAA), pstDNSAAAACache);
    EXPECT_EQ(dnsGetCacheByType(DNS_SRV), nullptr) << "only the address caches";
    EXPECT_EQ(pstDNSSRVCache->enDNSType, static_cast<DNS_TYPE_E>(DNS_SRV));
}

TEST(MemCacheCreate, NullArgumentsAreHarmless) {
    DNS_DestoryCache(nullptr);
    DNS_CACHE_HEAD_S *none = nullptr;
    DNS_DestoryCache(&none);
    dnsDestoryCacheItem(nullptr);
    dnsDestoryCacheItemList(nullptr);
    dnsDelOldestRecord(nullptr);
    EXPECT_EQ(dnsAddItemToCache(nullptr, "x"), nullptr);

    DNS_CACHE_HEAD_S *head = DNS_CreateCache(DNS_A, 0, 0);
    ASSERT_NE(head, nullptr);
    EXPECT_EQ(dnsAddItemToCache(head, nullptr), nullptr);
    DNS_IPADDR_S a = ip("10.0.0.1");
    EXPECT_EQ(dnsAddIPToCache(nullptr, "x", &a, 1), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(dnsAddIPToCache(head, nullptr, &a, 1), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(dnsAddIPToCache(head, "x", nullptr, 1), DNS_ERR_PARA_INVALID);
    DNS_CACHE_ITEM_S item{};
    EXPECT_EQ(dnsSetCacheRecordToHost(nullptr, &a), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(dnsSetCacheRecordToHost(&item, nullptr), DNS_ERR_PARA_INVALID);
    a.ulType = 2;
    EXPECT_EQ(dnsSetCacheRecordToHost(&item, &a), DNS_ERR_IP_TYPE);
    EXPECT_EQ(dnsAddIPToCache(head, "x", &a, 1), DNS_ERR_IP_TYPE);
    EXPECT_EQ(head->ulRecords, 0u);
    EXPECT_EQ(linked(head), 0u) << "the entry of an unknown family is removed again";
    EXPECT_EQ(lock_value(head), 1);
    DNS_DestoryCache(&head);
}

TEST(MemCacheLookup, BeforeAnyStoreAndAfterCleanUp) {
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round == 0 ? "before any store" : "after clean-up");
        log_capture log(3);
        EXPECT_EQ(lookup("a.example", DNS_IP_TYPE_IPV4).ret, DNS_ERR_IP_TYPE);
        EXPECT_EQ(lookup("a.example", DNS_IP_TYPE_IPV6).ret, DNS_ERR_IP_TYPE);
        EXPECT_TRUE(log.contains("dnsGetCacheByType failed"));
        EXPECT_EQ(srv_lookup("_sip._udp.example").ret, DNS_ERR_MEM_ALLOC);
        EXPECT_TRUE(log.contains("DNS_GetSrvFromMemCache pstCacheHead is null"));
        EXPECT_EQ(pstDNSCache, nullptr) << "look-ups never create a cache";

        ASSERT_EQ(store("a.example", "10.0.0.1"), DNS_OK);
        ASSERT_EQ(store("a.example", "fd00::1"), DNS_OK);
        uint32_t ttl = 60;
        DNS_SRV_RR_S one = srv("t.example", 5060);
        ASSERT_EQ(DNS_SetSrvToCache("_sip._udp.example", &one, 1, &ttl), DNS_OK);
        ORV_NETB_DnsCleanBuffer();
        EXPECT_EQ(pstDNSCache, nullptr);
        EXPECT_EQ(pstDNSAAAACache, nullptr);
        EXPECT_EQ(pstDNSSRVCache, nullptr);
    }
}

TEST(MemCacheLookup, NullArguments) {
    log_capture log(3);
    DNS_IPADDR_S addrs[DNS_MAX_IP_NUM] = {};
    uint32_t num = 0;
    EXPECT_EQ(DNS_GetIpFromCache(nullptr, addrs, &num), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(DNS_GetIpFromCache("a", nullptr, &num), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(DNS_GetIpFromCache("a", addrs, nullptr), DNS_ERR_PARA_INVALID);
    EXPECT_TRUE(log.contains("DNS_GetIpFromMemCache param is null"));
    DNS_SRV_RR_S rrs[1];
    EXPECT_EQ(DNS_GetSrvFromCache(nullptr, rrs, &num), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(DNS_GetSrvFromCache("a", nullptr, &num), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(DNS_GetSrvFromCache("a", rrs, nullptr), DNS_ERR_PARA_INVALID);
    EXPECT_TRUE(log.contains("DNS_GetSrvFromMemCache param is invalid"));
}

// ---- address stores and look-ups ------------------------------------------------------

TEST(MemCacheAddress, TwelveStoredTenReturnedNewestFirst) {
    set_clock(t0);
    for (int i = 1; i <= 12; ++i) {
        ASSERT_EQ(store("many.example", "10.0.0." + std::to_string(i)), DNS_OK);
    }
    ASSERT_EQ(store("other.example", "10.9.9.9"), DNS_OK);
    lookup l("many.example", DNS_IP_TYPE_IPV4);
    EXPECT_EQ(l.ret, DNS_OK);
    EXPECT_EQ(l.num, 10u);
    EXPECT_EQ(l.found(), "10.0.0.12 10.0.0.11 10.0.0.10 10.0.0.9 10.0.0.8 10.0.0.7 10.0.0.6 10.0.0.5 "
                         "10.0.0.4 10.0.0.3");
    EXPECT_EQ(records(pstDNSCache), 13u) << "the two oldest stay";
    EXPECT_EQ(linked(pstDNSCache), 13u);
    EXPECT_EQ(lock_value(pstDNSCache), 1);
}

TEST(MemCacheAddress, Ipv6FamilyOnlyInFirstRecord) {
    ASSERT_EQ(store("six.example", "2001:db8::1"), DNS_OK);
    ASSERT_EQ(store("six.example", "2001:db8:ffff:ffff:ffff:ffff:ffff:fffe"), DNS_OK);
    ASSERT_EQ(store("six.example", "10.0.0.1"), DNS_OK) << "other family, other cache";
    lookup l("six.example", DNS_IP_TYPE_IPV6);
    ASSERT_EQ(l.ret, DNS_OK);
    ASSERT_EQ(l.num, 2u);
    EXPECT_EQ(l.addrs[1].ulType, DNS_IP_TYPE_IPV6);
    EXPECT_EQ(l.found(), "2001:db8:ffff:ffff:ffff:ffff:ffff:fffe 2001:db8::1");
    EXPECT_EQ(lookup("six.example", DNS_IP_TYPE_IPV4).found(), "10.0.0.1");
}

TEST(MemCacheAddress, SameNameTwiceGivesTwoEntries) {
    ASSERT_EQ(store("dup.example", "10.0.0.1"), DNS_OK);
    ASSERT_EQ(store("dup.example", "10.0.0.1"), DNS_OK);
    EXPECT_EQ(records(pstDNSCache), 2u);
    EXPECT_EQ(lookup("dup.example", DNS_IP_TYPE_IPV4).found(), "10.0.0.1 10.0.0.1");
}

TEST(MemCacheAddress, NamesCompareExactly) {
    ASSERT_EQ(store("Case.example", "10.0.0.1"), DNS_OK);
    EXPECT_EQ(lookup("case.example", DNS_IP_TYPE_IPV4).ret, DNS_ERR_CACHE_MISS);
    EXPECT_EQ(lookup("Case.example.", DNS_IP_TYPE_IPV4).ret, DNS_ERR_CACHE_MISS);
    EXPECT_EQ(lookup("Case.example", DNS_IP_TYPE_IPV4).ret, DNS_OK);
}

TEST(MemCacheAddress, MissLeavesCountAlone) {
    ASSERT_EQ(store("a.example", "10.0.0.1"), DNS_OK);
    lookup l("b.example", DNS_IP_TYPE_IPV4);
    EXPECT_EQ(l.ret, DNS_ERR_CACHE_MISS);
    EXPECT_EQ(l.num, 0xDEADu);
}

TEST(MemCacheAddress, UnknownFamilyCreatesNothing) {
    DNS_IPADDR_S odd = ip("10.0.0.1");
    odd.ulType = 2;
    EXPECT_EQ(DNS_SetIpToCache("x", 60, odd), DNS_ERR_IP_TYPE);
    EXPECT_EQ(pstDNSCache, nullptr);
    EXPECT_EQ(pstDNSAAAACache, nullptr);
    DNS_IPADDR_S addrs[DNS_MAX_IP_NUM] = {};
    addrs[0].ulType = 2;
    uint32_t num = 0;
    EXPECT_EQ(DNS_GetIpFromCache("x", addrs, &num), DNS_ERR_IP_TYPE);
}

TEST(MemCacheAddress, StoreFailures) {
    // Creation of the A cache fails: no cache for the family.
    fail_nth(op::alloc, 1);
    EXPECT_EQ(store("a.example", "10.0.0.1"), DNS_ERR_IP_TYPE);
    EXPECT_EQ(pstDNSCache, nullptr);

    ASSERT_EQ(store("a.example", "10.0.0.1"), DNS_OK);
    for (unsigned nth : {1u, 2u}) { // the entry, then the name copy
        SCOPED_TRACE(nth);
        fail_nth(op::alloc, nth);
        EXPECT_EQ(store("a.example", "10.0.0.2"), DNS_ERR_MEM_ALLOC);
        EXPECT_EQ(records(pstDNSCache), 1u);
        EXPECT_EQ(linked(pstDNSCache), 1u);
        EXPECT_EQ(lock_value(pstDNSCache), 1);
    }
    EXPECT_EQ(lookup("a.example", DNS_IP_TYPE_IPV4).found(), "10.0.0.1");
}

// ---- ages ----------------------------------------------------------------------------

TEST(MemCacheAge, LiveWhileAgeAtMostLimit) {
    struct row {
        uint32_t ttl;
        uint32_t last_live_age;
    };
    const row rows[] = {{0, 0}, {1, 1}, {5, 5}, {300, 300}, {use_max_time, 86400}};
    for (const row &r : rows) {
        SCOPED_TRACE("ttl " + std::to_string(r.ttl));
        set_clock(t0);
        ASSERT_EQ(store("ttl.example", "10.0.0.1", r.ttl), DNS_OK);
        ASSERT_EQ(store("keep.example", "10.0.0.2", 0), DNS_OK);
        const uint32_t before = records(pstDNSCache);
        set_clock(t0 + r.last_live_age);
        EXPECT_EQ(lookup("ttl.example", DNS_IP_TYPE_IPV4).found(), "10.0.0.1");
        advance_clock(1);
        EXPECT_EQ(lookup("ttl.example", DNS_IP_TYPE_IPV4).ret, DNS_ERR_CACHE_MISS);
        EXPECT_EQ(records(pstDNSCache), before - 1) << "the failed look-up removes the entry";
        EXPECT_EQ(linked(pstDNSCache), before - 1);
        ORV_NETB_DnsCleanBuffer();
    }
}

TEST(MemCacheAge, OtherNamesAreNeverRemovedByALookup) {
    set_clock(t0);
    ASSERT_EQ(store("old.example", "10.0.0.1", 0), DNS_OK);
    ASSERT_EQ(store("new.example", "10.0.0.2", 0), DNS_OK);
    set_clock(t0 + 1000000);
    EXPECT_EQ(lookup("new.example", DNS_IP_TYPE_IPV4).ret, DNS_ERR_CACHE_MISS);
    EXPECT_EQ(records(pstDNSCache), 1u);
    EXPECT_EQ(std::string(pstDNSCache->pstCacheFirst->pstNext->pszName), "old.example");
}

TEST(MemCacheAge, ExpiredAndLiveOfOneName) {
    set_clock(t0);
    ASSERT_EQ(store("mix.example", "10.0.0.1", 10), DNS_OK);
    set_clock(t0 + 8);
    ASSERT_EQ(store("mix.example", "10.0.0.2", 10), DNS_OK);
    set_clock(t0 + 11);
    EXPECT_EQ(lookup("mix.example", DNS_IP_TYPE_IPV4).found(), "10.0.0.2");
    EXPECT_EQ(records(pstDNSCache), 1u);
}

TEST(MemCacheAge, ClockSetBackExpiresEntry) {
    set_clock(t0);
    ASSERT_EQ(store("back.example", "10.0.0.1", use_max_time), DNS_OK);
    set_clock(t0 - 1);
    EXPECT_EQ(lookup("back.example", DNS_IP_TYPE_IPV4).ret, DNS_ERR_CACHE_MISS);
    EXPECT_EQ(records(pstDNSCache), 0u);
}

TEST(MemCacheAge, WalkStopsAtTenSoLaterExpiredStay) {
    set_clock(t0);
    ASSERT_EQ(store("ten.example", "10.0.0.99", 0), DNS_OK); // oldest, expired below
    set_clock(t0 + 5);
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(store("ten.example", "10.0.1." + std::to_string(i), 60), DNS_OK);
    }
    EXPECT_EQ(lookup("ten.example", DNS_IP_TYPE_IPV4).num, 10u);
    EXPECT_EQ(records(pstDNSCache), 11u) << "entries behind the tenth are not visited";
}

// ---- eviction ------------------------------------------------------------------------

TEST(MemCacheEvict, FullCacheDropsTheOldest) {
    // 32 entries over 8 seconds, four per second; the 33rd store, a second
    // later, removes one of the four oldest: the last stored of them.
    for (int i = 0; i < 32; ++i) {
        set_clock(t0 + static_cast<uint32_t>(i / 4));
        ASSERT_EQ(store("e" + std::to_string(i) + ".example", "10.0.0.1"), DNS_OK);
    }
    set_clock(t0 + 9);
    ASSERT_EQ(store("new.example", "10.0.0.2"), DNS_OK);
    EXPECT_EQ(records(pstDNSCache), 32u);
    EXPECT_EQ(linked(pstDNSCache), 32u);
    EXPECT_EQ(lookup("e3.example", DNS_IP_TYPE_IPV4).ret, DNS_ERR_CACHE_MISS);
    for (int i : {0, 1, 2, 4, 31}) {
        EXPECT_EQ(lookup("e" + std::to_string(i) + ".example", DNS_IP_TYPE_IPV4).ret, DNS_OK) << i;
    }
    EXPECT_EQ(lookup("new.example", DNS_IP_TYPE_IPV4).ret, DNS_OK);
    EXPECT_EQ(lock_value(pstDNSCache), 1);
}

TEST(MemCacheEvict, EvictionIgnoresTtl) {
    // The expired entry is not preferred: the smallest stamp goes.
    set_clock(t0);
    ASSERT_EQ(store("first.example", "10.0.0.1", use_max_time), DNS_OK);
    for (int i = 1; i < 32; ++i) {
        set_clock(t0 + 1);
        ASSERT_EQ(store("e" + std::to_string(i) + ".example", "10.0.0.1", i == 5 ? 0 : 300), DNS_OK);
    }
    set_clock(t0 + 100);
    ASSERT_EQ(store("new.example", "10.0.0.2"), DNS_OK);
    EXPECT_EQ(lookup("first.example", DNS_IP_TYPE_IPV4).ret, DNS_ERR_CACHE_MISS);
    EXPECT_EQ(records(pstDNSCache), 32u);
}

TEST(MemCacheEvict, NothingOlderThanThisSecondMeansGrowth) {
    set_clock(t0);
    for (int i = 0; i < 32; ++i) {
        ASSERT_EQ(store("e" + std::to_string(i) + ".example", "fd00::1"), DNS_OK);
    }
    ASSERT_EQ(store("e32.example", "fd00::2"), DNS_OK);
    EXPECT_EQ(records(pstDNSAAAACache), 33u);
    set_clock(t0 - 5); // clock set back: the entries are "later", never candidates
    ASSERT_EQ(store("e33.example", "fd00::3"), DNS_OK);
    EXPECT_EQ(records(pstDNSAAAACache), 34u);
    set_clock(t0 + 1);
    ASSERT_EQ(store("e34.example", "fd00::4"), DNS_OK);
    EXPECT_EQ(records(pstDNSAAAACache), 34u) << "one evicted, one added";
    EXPECT_EQ(linked(pstDNSAAAACache), 34u);
}

// ---- service record sets ------------------------------------------------------------

TEST(MemCacheSrv, StoreAndLookupWhole) {
    set_clock(t0);
    log_capture log(5);
    ASSERT_EQ(store_srv("_sip._udp.example", {srv("a.example", 5060), srv("b.example", 5061)}, {60, 60}),
              DNS_OK);
    EXPECT_TRUE(log.contains("ulRecords:0, ulMaxNumber:32"));
    srv_lookup l("_sip._udp.example");
    EXPECT_EQ(l.ret, DNS_OK);
    EXPECT_EQ(l.found(), "a.example:5060 b.example:5061");
    EXPECT_EQ(std::memcmp(&l.rrs[0], &pstDNSSRVCache->pstCacheFirst->pstNext->pstSrvRR[0], sizeof(DNS_SRV_RR_S)), 0)
        << "records are an opaque copy";
    EXPECT_TRUE(log.contains("DNS Get Srv From MemCache "));
    EXPECT_EQ(srv_lookup("_sip._tcp.example").ret, DNS_ERR_SRV_NOT_FOUND);
    EXPECT_EQ(lock_value(pstDNSSRVCache), 1);
}

TEST(MemCacheSrv, CallerRoomCutsTheCopy) {
    ASSERT_EQ(store_srv("s", {srv("a", 1), srv("b", 2), srv("c", 3), srv("d", 4)}, {60, 60, 60, 60}), DNS_OK);
    srv_lookup two("s", 2);
    EXPECT_EQ(two.ret, DNS_OK);
    EXPECT_EQ(two.num, 2u);
    EXPECT_EQ(two.found(), "a:1 b:2");
    EXPECT_EQ(two.rrs[2].usPort, 0u) << "nothing written past the room";
    srv_lookup none("s", 0);
    EXPECT_EQ(none.ret, DNS_OK);
    EXPECT_EQ(none.num, 0u);
}

TEST(MemCacheSrv, OneExpiredRecordDiscardsTheSet) {
    set_clock(t0);
    ASSERT_EQ(store_srv("s", {srv("old", 1)}, {use_max_time}), DNS_OK);
    set_clock(t0 + 10);
    ASSERT_EQ(store_srv("s", {srv("x", 1), srv("y", 2), srv("z", 3)}, {300, 5, 300}), DNS_OK);
    set_clock(t0 + 15);
    EXPECT_EQ(srv_lookup("s").found(), "x:1 y:2 z:3") << "age 5 is still live";
    set_clock(t0 + 16);
    EXPECT_EQ(srv_lookup("s").found(), "old:1") << "the newer set is dropped, the older one served";
    EXPECT_EQ(records(pstDNSSRVCache), 1u);
    set_clock(t0 + 86400);
    EXPECT_EQ(srv_lookup("s").ret, DNS_OK);
    set_clock(t0 + 86401);
    EXPECT_EQ(srv_lookup("s").ret, DNS_ERR_SRV_NOT_FOUND);
    EXPECT_EQ(records(pstDNSSRVCache), 0u);
}

TEST(MemCacheSrv, EvictionAtThirtyTwoSets) {
    for (int i = 0; i < 32; ++i) {
        set_clock(t0 + static_cast<uint32_t>(i));
        ASSERT_EQ(store_srv("s" + std::to_string(i), {srv("t", 1)}, {use_max_time}), DNS_OK);
    }
    set_clock(t0 + 40);
    ASSERT_EQ(store_srv("new", {srv("t", 1)}, {60}), DNS_OK);
    EXPECT_EQ(records(pstDNSSRVCache), 32u);
    EXPECT_EQ(srv_lookup("s0").ret, DNS_ERR_SRV_NOT_FOUND);
    EXPECT_EQ(srv_lookup("s1").ret, DNS_OK);
}

TEST(MemCacheSrv, BadArgumentsAndFailures) {
    DNS_SRV_RR_S one = srv("t", 1);
    uint32_t ttl = 60;
    // Creation of the SRV cache fails.
    {
        log_capture log(3);
        fail_nth(op::alloc, 1);
        EXPECT_EQ(DNS_SetSrvToCache("s", &one, 1, &ttl), DNS_ERR_MEM_ALLOC);
        EXPECT_TRUE(log.contains("pstCacheHead is null"));
        EXPECT_EQ(pstDNSSRVCache, nullptr);
    }
    EXPECT_EQ(DNS_SetSrvToCache(nullptr, &one, 1, &ttl), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(DNS_SetSrvToCache("s", nullptr, 1, &ttl), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(DNS_SetSrvToCache("s", &one, 0, &ttl), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(DNS_SetSrvToCache("s", &one, 1, nullptr), DNS_ERR_PARA_INVALID);
    ASSERT_NE(pstDNSSRVCache, nullptr);
    EXPECT_EQ(dnsAddSRVToCache(nullptr, "s", &one, 1, &ttl), DNS_ERR_PARA_INVALID);

    struct row {
        unsigned nth;
        uint32_t ret;
    };
    // entry, name copy, records, TTLs
    for (const row &r : {row{1, DNS_ERR_MEM_ALLOC}, row{2, DNS_ERR_MEM_ALLOC}, row{3, DNS_ERR_NO_MEMORY},
                         row{4, DNS_ERR_NO_MEMORY}}) {
        SCOPED_TRACE(r.nth);
        fail_nth(op::alloc, r.nth);
        EXPECT_EQ(DNS_SetSrvToCache("s", &one, 1, &ttl), r.ret);
        EXPECT_EQ(records(pstDNSSRVCache), 0u);
        EXPECT_EQ(linked(pstDNSSRVCache), 0u);
        EXPECT_EQ(lock_value(pstDNSSRVCache), 1);
    }
    EXPECT_EQ(DNS_SetSrvToCache("s", &one, 1, &ttl), DNS_OK);
}

// ---- clean-up ------------------------------------------------------------------------

TEST(MemCacheClean, LogsEveryStepAndFreesEverything) {
    long before = vekdns::pal_test::outstanding_blocks();
    ASSERT_EQ(store("a.example", "10.0.0.1"), DNS_OK);
    uint32_t ttl = 60;
    DNS_SRV_RR_S one = srv("t", 1);
    ASSERT_EQ(DNS_SetSrvToCache("s", &one, 1, &ttl), DNS_OK);
    log_capture log(5);
    ORV_NETB_DnsCleanBuffer();
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"Start Dns Clean Buffer", "Destory DNS_SRV cache",
                                                     "Destory DNS_A cache", "Destory DNS_AAAA cache",
                                                     "Dns Clean Buffer End"}));
    EXPECT_EQ(vekdns::pal_test::outstanding_blocks(), before);
    ORV_NETB_DnsCleanBuffer(); // nothing left: harmless
}

TEST(MemCacheClean, WithoutTheNamedSemaphoreNothingHappens) {
    ASSERT_EQ(store("a.example", "10.0.0.1"), DNS_OK);
    log_capture log(5);
    const unsigned waits = vekdns::pal_test::calls(op::sem_wait);
    fail_nth(op::sem_open, 1);
    ORV_NETB_DnsCleanBuffer();
    EXPECT_NE(pstDNSCache, nullptr);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(vekdns::pal_test::calls(op::sem_wait), waits);
}

} // namespace
