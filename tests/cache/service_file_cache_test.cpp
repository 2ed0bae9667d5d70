// Service cache file against a real file in the sandbox's /var, with the
// platform clock pinned so that ages are exact to the second.
#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "cache/service_file_cache.h"
#include "os_adapter/test_hooks.h"
#include "support/sandbox.h"
#include "vek_dns_ops.h"

namespace pal = vekdns::pal_test;
using vekdns::test::file_exists;
using vekdns::test::log_capture;
using vekdns::test::read_file;
using vekdns::test::write_file;

namespace {

constexpr const char *srv_file = "/var/orvdnssrv.cache";
constexpr const char *temp_file = "/var/dnssrv.tmp";
constexpr uint32_t use_max_time = 0xFFFFFFFFu;
const std::string head = "maxnumber 32\nmaxtime 86400\n";

DNS_SRV_RR_S rr(const std::string &target, uint16_t port, const char *addr) {
    DNS_SRV_RR_S r{};
    std::strncpy(r.szTarget, target.c_str(), sizeof(r.szTarget) - 1);
    r.usPriority = 10;
    r.usWeight = 20;
    r.usPort = port;
    if (std::strchr(addr, ':') != nullptr) {
        r.stAddr.ulType = DNS_IP_TYPE_IPV6;
        EXPECT_EQ(inet_pton(AF_INET6, addr, r.stAddr.unIpAddr.aucIpv6), 1);
    } else {
        EXPECT_EQ(inet_pton(AF_INET, addr, &r.stAddr.unIpAddr.ulIpv4), 1);
    }
    return r;
}

// "target port type:address" of each record, joined by blanks.
std::string describe(const DNS_SRV_RR_S *records, uint32_t n) {
    std::string out;
    for (uint32_t i = 0; i < n; ++i) {
        char buf[INET6_ADDRSTRLEN] = {};
        const DNS_IPADDR_S &a = records[i].stAddr;
        inet_ntop(a.ulType == DNS_IP_TYPE_IPV6 ? AF_INET6 : AF_INET, a.unIpAddr.aucIpv6, buf, sizeof(buf));
        out += (i ? " " : "") + std::string(records[i].szTarget) + " " + std::to_string(records[i].usPort) + " " +
               std::to_string(a.ulType) + ":" + buf;
    }
    return out;
}

struct lookup {
    uint32_t ret;
    uint32_t num;
    std::string records;
};

lookup get(const char *name, uint32_t capacity = 4) {
    std::vector<DNS_SRV_RR_S> out(capacity + 1);
    std::memset(out.data(), 0xAB, out.size() * sizeof(DNS_SRV_RR_S));
    uint32_t num = capacity;
    lookup r{DNS_GetSrvFromFileCache(name, out.data(), &num), num, ""};
    if (r.ret == DNS_OK) {
        r.records = describe(out.data(), num);
    }
    EXPECT_EQ(out[capacity].usPort, 0xABABu) << "wrote past the caller's capacity";
    return r;
}

// One record line as the file holds it.
std::string rec(const char *target, const char *addr, uint32_t ttl, int port = 5060) {
    const int type = std::strchr(addr, ':') != nullptr ? 1 : 0;
    return "tn: " + std::string(target) + " 10 20 " + std::to_string(port) + " " + std::to_string(type) + " " + addr +
           " " + std::to_string(ttl) + " \n";
}

unsigned mode_of(const char *path) {
    struct stat st {};
    return stat(path, &st) == 0 ? (st.st_mode & 07777) : 0xFFFFu;
}

class ServiceFileCache : public testing::Test {
protected:
    void SetUp() override {
        ORV_NETB_DnsSetLogLevel(1); // quiet unless a test captures
        (void)std::remove(srv_file);
        (void)std::remove(temp_file);
        pal::set_clock(5000);
    }
};

} // namespace

TEST_F(ServiceFileCache, FirstStoreCreatesTheFileAndLaterStoresAppend) {
    const DNS_SRV_RR_S records[] = {rr("a.example", 5060, "10.0.0.1"), rr("b.example", 5061, "fd00::1")};
    const uint32_t ttls[] = {60, use_max_time};
    EXPECT_EQ(DNS_SetSrvToFileCache("_sip._udp.example.com", records, 2, ttls), DNS_OK);
    const std::string first = head + "_sip._udp.example.com 5000 2\n" + rec("a.example", "10.0.0.1", 60) +
                              rec("b.example", "fd00::1", use_max_time, 5061);
    EXPECT_EQ(read_file(srv_file), first);
    EXPECT_EQ(mode_of(srv_file), 0640u);

    pal::set_clock(5001);
    EXPECT_EQ(DNS_SetSrvToFileCache("other", records, 1, ttls), DNS_OK);
    EXPECT_EQ(DNS_SetSrvToFileCache("none", nullptr, 0, nullptr), DNS_OK);
    EXPECT_EQ(read_file(srv_file), first + "other 5001 1\n" + rec("a.example", "10.0.0.1", 60) + "none 5001 0\n");
    EXPECT_FALSE(file_exists(temp_file));
}

TEST_F(ServiceFileCache, LookUpReturnsAtMostTheCallersCapacity) {
    const std::string content = head + "sip 4990 3\n" + rec("a", "10.0.0.1", 60) + rec("b", "fd00::2", 60) +
                                rec("c", "10.0.0.3", 60);
    write_file(srv_file, content);
    lookup r = get("sip", 1);
    EXPECT_EQ(r.ret, DNS_OK);
    EXPECT_EQ(r.num, 1u);
    EXPECT_EQ(r.records, "a 5060 0:10.0.0.1");
    EXPECT_EQ(read_file(srv_file), content);
    r = get("sip", 8);
    EXPECT_EQ(r.num, 3u);
    EXPECT_EQ(r.records, "a 5060 0:10.0.0.1 b 5060 1:fd00::2 c 5060 0:10.0.0.3");
    r = get("sip", 0);
    EXPECT_EQ(r.ret, DNS_OK);
    EXPECT_EQ(r.num, 0u);
    r = get("nothing", 4);
    EXPECT_EQ(r.ret, DNS_ERR_NOT_FOUND);
    EXPECT_EQ(read_file(srv_file), content);
    EXPECT_FALSE(file_exists(temp_file));
}

TEST_F(ServiceFileCache, EntriesLiveWhileNoExaminedRecordIsOlderThanItsLimit) {
    const std::string params = "maxnumber 32\nmaxtime 100\n";
    const std::string ttl60 = "s60 5000 1\n" + rec("a", "10.0.0.1", 60);
    const std::string forever = "sfor 5000 1\n" + rec("b", "10.0.0.2", use_max_time);
    // Only the first K records count: the second expires early.
    const std::string mixed = "smix 5000 2\n" + rec("c", "10.0.0.3", 1000) + rec("d", "10.0.0.4", 10);
    write_file(srv_file, params + ttl60 + forever + mixed);

    pal::set_clock(5060);
    EXPECT_EQ(get("s60").ret, DNS_OK);
    pal::set_clock(5061);
    EXPECT_EQ(get("s60").ret, DNS_ERR_NOT_FOUND);
    EXPECT_EQ(read_file(srv_file), params + forever + mixed) << "the whole expired entry is dropped";

    pal::set_clock(5100);
    EXPECT_EQ(get("sfor").ret, DNS_OK);
    lookup r = get("smix", 1);
    EXPECT_EQ(r.ret, DNS_OK);
    EXPECT_EQ(r.records, "c 5060 0:10.0.0.3");
    pal::set_clock(5101);
    EXPECT_EQ(get("sfor").ret, DNS_ERR_NOT_FOUND);
    EXPECT_EQ(get("smix", 2).ret, DNS_ERR_NOT_FOUND);
    EXPECT_EQ(read_file(srv_file), params);
}

TEST_F(ServiceFileCache, TheNewestLiveEntryIsReturned) {
    write_file(srv_file, head + "sip 4000 1\n" + rec("old", "10.0.0.1", 5000) + "sip 4990 1\n" +
                             rec("new", "10.0.0.2", 5000) + "sip 4995 1\n" + rec("gone", "10.0.0.3", 1));
    lookup r = get("sip");
    EXPECT_EQ(r.ret, DNS_OK) << "an expired entry never changes the result";
    EXPECT_EQ(r.records, "new 5060 0:10.0.0.2");
    EXPECT_EQ(read_file(srv_file),
              head + "sip 4000 1\n" + rec("old", "10.0.0.1", 5000) + "sip 4990 1\n" + rec("new", "10.0.0.2", 5000));
}

TEST_F(ServiceFileCache, LookUpTrimsEntriesOverTheLimit) {
    const std::string b = "b 4000 1\n" + rec("tb", "10.0.0.2", 5000);
    const std::string c = "c 4000 2\n" + rec("tc", "10.0.0.3", 5000) + rec("tc2", "10.0.0.4", 5000);
    write_file(srv_file, "maxnumber 1\nmaxtime 9\na 4000 0\nx 4000 1\n" + rec("tx", "10.0.0.1", 5000) + b + c);
    lookup r = get("c");
    EXPECT_EQ(r.ret, DNS_OK);
    EXPECT_EQ(r.num, 2u);
    // Four entries over a limit of one: the three oldest go, whatever their names.
    EXPECT_EQ(read_file(srv_file), "maxnumber 1\nmaxtime 9\n" + c);
}

TEST_F(ServiceFileCache, FullFileGivesUpItsOldestEntry) {
    const DNS_SRV_RR_S records[] = {rr("n", 1, "10.0.0.9")};
    const uint32_t ttls[] = {30};
    const std::string added = "new 5000 1\n" + rec("n", "10.0.0.9", 30, 1);
    struct {
        const char *name;
        std::string entries; // after "maxnumber 2\nmaxtime 9\n"
        std::string expect;
    } cases[] = {
        {"oldest first", "x 100 1\n" + rec("a", "10.0.0.1", 1) + "y 200 2\n" + rec("b", "10.0.0.2", 1) +
                             rec("c", "10.0.0.3", 1),
         "y 200 2\n" + rec("b", "10.0.0.2", 1) + rec("c", "10.0.0.3", 1) + added},
        {"oldest last", "x 300 1\n" + rec("a", "10.0.0.1", 1) + "y 200 2\n" + rec("b", "10.0.0.2", 1) +
                            rec("c", "10.0.0.3", 1),
         "x 300 1\n" + rec("a", "10.0.0.1", 1) + added},
        // Nothing older than the current second: the first entry goes all the
        // same, so the store is kept and the file still holds 2 entries.
        {"all stamped now", "x 5000 0\ny 5000 0\n", "y 5000 0\n" + added},
        {"stamps after now", "x 7000 0\ny 6000 0\n", "x 7000 0\n" + added},
    };
    for (const auto &c : cases) {
        write_file(srv_file, "maxnumber 2\nmaxtime 9\n" + c.entries);
        EXPECT_EQ(DNS_SetSrvToFileCache("new", records, 1, ttls), DNS_OK) << c.name;
        EXPECT_EQ(read_file(srv_file), "maxnumber 2\nmaxtime 9\n" + c.expect) << c.name;
        EXPECT_FALSE(file_exists(temp_file)) << c.name;
    }
}

TEST_F(ServiceFileCache, StoreRefusesWhatDoesNotFit) {
    const uint32_t ttls[] = {1, 1};
    DNS_SRV_RR_S unterminated = rr("t", 1, "10.0.0.1");
    std::memset(unterminated.szTarget, 'x', sizeof(unterminated.szTarget));
    const std::string name100(100, 'n');
    const std::string name120(120, 'n');
    struct {
        const char *name;
        std::string existing; // empty: no file
        std::string service;
        DNS_SRV_RR_S record;
        uint32_t expect;
    } cases[] = {
        {"target and address of 89 characters", "", "s", rr(std::string(81, 't'), 1, "10.0.0.1"), DNS_OK},
        {"target and address of 90 characters", "", "s", rr(std::string(82, 't'), 1, "10.0.0.1"),
         DNS_ERR_RECORD_INVALID},
        {"target not terminated", "", "s", unterminated, DNS_ERR_RECORD_INVALID},
        {"head does not fit", head, name120, rr("t", 1, "10.0.0.1"), DNS_ERR_RECORD_INVALID},
        {"creation text does not fit", "", name100, rr("t", 1, "10.0.0.1"), DNS_ERR_RECORD_INVALID},
        {"the same head fits an existing file", head, name100, rr("t", 1, "10.0.0.1"), DNS_OK},
    };
    for (const auto &c : cases) {
        SetUp();
        if (!c.existing.empty()) {
            write_file(srv_file, c.existing);
        }
        const DNS_SRV_RR_S records[] = {rr("ok", 1, "10.0.0.5"), c.record};
        EXPECT_EQ(DNS_SetSrvToFileCache(c.service.c_str(), records, 2, ttls), c.expect) << c.name;
        if (c.expect != DNS_OK) {
            if (c.existing.empty()) {
                EXPECT_FALSE(file_exists(srv_file)) << c.name;
            } else {
                EXPECT_EQ(read_file(srv_file), c.existing) << c.name;
            }
        }
    }
    EXPECT_EQ(DNS_SetSrvToFileCache(nullptr, nullptr, 0, nullptr), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(DNS_SetSrvToFileCache("s", nullptr, 1, ttls), DNS_ERR_PARA_INVALID);

    const std::string over = "maxnumber 1\nmaxtime 9\na 1 0\nb 1 0\n";
    write_file(srv_file, over);
    EXPECT_EQ(DNS_SetSrvToFileCache("s", nullptr, 0, nullptr), DNS_ERR_SRV_CACHE_FILE);
    EXPECT_EQ(read_file(srv_file), over);
}

TEST_F(ServiceFileCache, StoreFailuresLeaveTheFileAsItWas) {
    const std::string room = head + "a 4000 1\n" + rec("t", "10.0.0.1", 9);
    const std::string full = "maxnumber 1\nmaxtime 9\na 4000 1\n" + rec("t", "10.0.0.1", 9);
    struct {
        const char *name;
        const std::string *content; // nullptr: no file
        std::function<void()> arm;
        uint32_t expect;
    } cases[] = {
        {"new file cannot be created", nullptr, [] { pal::fail_nth_path(srv_file, 1); }, DNS_ERR_OPEN_FILE},
        {"new file head cannot be written", nullptr, [] { pal::fail_nth(pal::op::fputs, 1); }, DNS_ERR_WRITE_FILE},
        {"new file record cannot be written", nullptr, [] { pal::fail_nth(pal::op::fputs, 2); },
         DNS_ERR_WRITE_FILE},
        {"file cannot be read", &room, [] { pal::fail_nth_path(srv_file, 1); }, DNS_ERR_OPEN_FILE},
        {"read stops early", &room, [] { pal::fail_nth(pal::op::fgets, 2); }, DNS_ERR_SEEK_FILE},
        {"rewind fails", &room, [] { pal::fail_nth(pal::op::fseek, 1); }, DNS_ERR_SEEK_FILE},
        {"append cannot open", &room, [] { pal::fail_nth_path(srv_file, 2); }, DNS_ERR_OPEN_FILE},
        {"append head cannot be written", &room, [] { pal::fail_nth(pal::op::fputs, 1); }, DNS_ERR_WRITE_FILE},
        {"full: second rewind fails", &full, [] { pal::fail_nth(pal::op::fseek, 2); }, DNS_ERR_SEEK_FILE},
        {"full: temporary file cannot be created", &full, [] { pal::fail_nth_path(temp_file, 1); },
         DNS_ERR_OPEN_FILE},
        {"full: a line cannot be written", &full, [] { pal::fail_nth(pal::op::fputs, 2); }, DNS_ERR_WRITE_FILE},
        {"full: the new entry cannot be written", &full, [] { pal::fail_nth(pal::op::fputs, 3); },
         DNS_ERR_WRITE_FILE},
        {"full: copy back fails", &full, [] { pal::fail_nth_path(srv_file, 2); }, DNS_ERR_COPY_FILE},
    };
    const DNS_SRV_RR_S records[] = {rr("n", 1, "10.0.0.9")};
    const uint32_t ttls[] = {30};
    for (const auto &c : cases) {
        SetUp();
        if (c.content != nullptr) {
            write_file(srv_file, *c.content);
        }
        c.arm();
        EXPECT_EQ(DNS_SetSrvToFileCache("new", records, 1, ttls), c.expect) << c.name;
        pal::clear_faults();
        if (c.content != nullptr) {
            EXPECT_EQ(read_file(srv_file), *c.content) << c.name;
        } else {
            EXPECT_FALSE(file_exists(srv_file)) << c.name;
        }
        EXPECT_FALSE(file_exists(temp_file)) << c.name;
    }
}

TEST_F(ServiceFileCache, LookUpFailuresLeaveTheFileAsItWas) {
    const std::string content = head + "sip 4990 1\n" + rec("a", "10.0.0.1", 60);
    struct {
        const char *name;
        std::function<void()> arm;
        uint32_t expect;
        const char *log;
    } cases[] = {
        {"cache file cannot be opened", [] { pal::fail_nth_path(srv_file, 1); }, DNS_ERR_OPEN_FILE,
         "DNS_GetSrvFromFileCache open file: /var/orvdnssrv.cache failed"},
        {"temporary file cannot be created", [] { pal::fail_nth_path(temp_file, 1); }, DNS_ERR_OPEN_FILE,
         "DNS_GetSrvFromFileCache open file: /var/dnssrv.tmp failed"},
        {"counting read stops early", [] { pal::fail_nth(pal::op::fgets, 2); }, DNS_ERR_SEEK_FILE,
         "DNS_GetSrvFromFileCache DNS_SrvCacheGetInfo lRet: 2604000e"},
        {"rewind fails", [] { pal::fail_nth(pal::op::fseek, 1); }, DNS_ERR_SEEK_FILE, nullptr},
        {"a line cannot be written", [] { pal::fail_nth(pal::op::fputs, 3); }, DNS_ERR_WRITE_FILE, nullptr},
        {"final rewind fails", [] { pal::fail_nth(pal::op::fseek, 2); }, DNS_ERR_SEEK_FILE,
         "DNS_GetSrvFromFileCache DNS_SrvCacheFindRecond lRet: 2604000e"},
        {"copy back fails", [] { pal::fail_nth_path(srv_file, 3); }, DNS_ERR_COPY_FILE,
         "DNS_GetSrvFromFileCache DNS_CopyOneFileToAnother failed"},
    };
    for (const auto &c : cases) {
        write_file(srv_file, content);
        log_capture cap;
        c.arm();
        EXPECT_EQ(get("sip").ret, c.expect) << c.name;
        pal::clear_faults();
        EXPECT_EQ(read_file(srv_file), content) << c.name;
        EXPECT_FALSE(file_exists(temp_file)) << c.name;
        if (c.log != nullptr) {
            EXPECT_TRUE(cap.contains(c.log)) << c.name;
        }
    }
    // The second handle cannot be opened: the entry counts as not live.
    write_file(srv_file, content);
    pal::fail_nth_path(srv_file, 2);
    EXPECT_EQ(get("sip").ret, DNS_ERR_NOT_FOUND);
    EXPECT_EQ(read_file(srv_file), head);

    log_capture cap;
    DNS_SRV_RR_S out[1];
    uint32_t num = 1;
    EXPECT_EQ(DNS_GetSrvFromFileCache("s", nullptr, &num), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(DNS_GetSrvFromFileCache(nullptr, out, &num), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(DNS_GetSrvFromFileCache("s", out, nullptr), DNS_ERR_PARA_INVALID);
    EXPECT_TRUE(cap.contains("DNS_GetSrvFromFileCache param is null"));
}

TEST_F(ServiceFileCache, MalformedFilesGiveTheirCodes) {
    const std::string sip = "sip 4990 1\n" + rec("a", "10.0.0.1", 60);
    struct {
        const char *name;
        std::string content;
        uint32_t expect;
        bool unchanged;
    } cases[] = {
        {"empty file", "", DNS_ERR_NOT_FOUND, true},
        {"only parameter lines", head, DNS_ERR_NOT_FOUND, true},
        {"line of blanks", head + sip + "   ", DNS_ERR_FILE_FORMAT, true},
        {"maxnumber without value", "maxnumber", DNS_ERR_FILE_FORMAT, true},
        {"head without count", head + "sip 4990\n", DNS_ERR_FILE_FORMAT, true},
        {"other head without stamp", head + sip + "other\n", DNS_ERR_FILE_FORMAT, true},
        {"NUL in a head", head + std::string("sip\0 4990 1\n", 12), DNS_ERR_FILE_FORMAT, true},
        {"long head line", head + "long 1 0 " + std::string(300, 'z') + "\n", DNS_ERR_FILE_FORMAT, true},
        {"record lines before any head", head + rec("o", "10.0.0.9", 1) + sip, DNS_OK, true},
        {"binary head", head + "\x01\x02\xff 4990 0\n" + sip, DNS_OK, true},
        {"record missing fields", head + "sip 4990 1\ntn: a 1 2\n", DNS_ERR_NOT_FOUND, false},
        {"record with a bad IPv6 text", head + "sip 4990 1\ntn: a 1 2 3 1 fd00::zz 60 \n", DNS_ERR_NOT_FOUND, false},
        {"count beyond the file", head + "sip 4990 4294967295\n" + rec("a", "10.0.0.1", 60), DNS_ERR_NOT_FOUND, false},
        {"count over the next entry", head + "sip 4990 3\n" + rec("a", "10.0.0.1", 60) + "x 4990 1\n" +
                                          rec("b", "10.0.0.2", 60),
         DNS_ERR_NOT_FOUND, false},
        {"huge target", head + "sip 4990 1\ntn: " + std::string(200, 't') + " 1 2 3 0 10.0.0.1 60 \n",
         DNS_ERR_NOT_FOUND, false},
    };
    for (const auto &c : cases) {
        write_file(srv_file, c.content);
        lookup r = get("sip");
        EXPECT_EQ(r.ret, c.expect) << c.name;
        if (c.unchanged) {
            EXPECT_EQ(read_file(srv_file), c.content) << c.name;
        }
        EXPECT_FALSE(file_exists(temp_file)) << c.name;
    }
    // A store into such files is refused the same way.
    const DNS_SRV_RR_S records[] = {rr("n", 1, "10.0.0.9")};
    const uint32_t ttls[] = {30};
    const std::string bad_files[] = {head + "   ", "maxnumber", "maxnumber 1\nmaxtime 9\nsip\n"};
    for (const std::string &bad : bad_files) {
        write_file(srv_file, bad);
        EXPECT_EQ(DNS_SetSrvToFileCache("new", records, 1, ttls), DNS_ERR_FILE_FORMAT) << bad;
        EXPECT_EQ(read_file(srv_file), bad);
    }
}

TEST_F(ServiceFileCache, RecordLinesReadBackAsWritten) {
    char line[128];
    const DNS_SRV_RR_S in[] = {rr("a.example", 5060, "10.0.0.1"), rr("b.example", 443, "fd00::1")};
    for (const DNS_SRV_RR_S &r : in) {
        ASSERT_EQ(DNS_SrvCacheFormatTarget(&r, line, 77), DNS_OK);
        DNS_SRV_RR_S out;
        std::memset(&out, 0xAB, sizeof(out));
        uint32_t ttl = 0;
        ASSERT_EQ(DNS_SrvCacheReadTarget(line, &out, &ttl), DNS_OK) << line;
        EXPECT_EQ(describe(&out, 1), describe(&r, 1));
        EXPECT_EQ(out.usPriority, 10);
        EXPECT_EQ(out.usWeight, 20);
        EXPECT_EQ(ttl, 77u);
    }
    struct {
        const char *line;
        bool want_ttl;
        uint32_t expect;
    } reads[] = {
        {"tn: a 1 2 3 0 10.0.0.1 60 \n", true, DNS_OK},
        {"tn: a 1 2 3 0 10.0.0.1\n", false, DNS_OK},
        {"tn: a 1 2 3 0 10.0.0.1\n", true, DNS_ERR_FILE_FORMAT},
        {"tn: a 1 2 3 0", false, DNS_ERR_FILE_FORMAT},
        {"", false, DNS_ERR_FILE_FORMAT},
        {"tn: a 1 2 3 1 fd00::zz 60 \n", true, DNS_ERR_TEXT_TO_ADDR},
    };
    for (const auto &c : reads) {
        uint32_t ttl = 0;
        EXPECT_EQ(DNS_SrvCacheReadTarget(c.line, nullptr, c.want_ttl ? &ttl : nullptr), c.expect) << c.line;
    }
    const std::string long_line = "tn: " + std::string(300, 'x') + " 1 2 3 0 10.0.0.1 60 \n";
    EXPECT_EQ(DNS_SrvCacheReadTarget(long_line.c_str(), nullptr, nullptr), DNS_ERR_FILE_FORMAT);
}

TEST_F(ServiceFileCache, InfoCountsEntryHeads) {
    constexpr uint32_t untouched = 0xABCDu;
    struct {
        std::string content;
        uint32_t expect;
        uint32_t number, time, entries;
    } cases[] = {
        {"maxnumber 5\nmaxtime 7\na 1 1\ntn: x\nb 2 0\n", DNS_OK, 5, 7, 2},
        {"maxtime 9\nmaxnumber 3\n", DNS_OK, 3, 9, 0},
        {"tn: x\ntn: y\n", DNS_OK, untouched, untouched, 0},
        {"a 1 1\nb 1 1\nmaxnumber 99\n", DNS_OK, untouched, untouched, 1},
        {"", DNS_OK, untouched, untouched, 0},
        {"maxnumber 5\nmaxtime\n", DNS_OK, 5, untouched, 0},
        {"maxnumber 5\nmaxtime", DNS_ERR_FILE_FORMAT, 5, untouched, untouched},
        {"maxnumber 5\n\t\n \n", DNS_OK, 5, untouched, 1},
        {"maxnumber 5\n  ", DNS_ERR_FILE_FORMAT, 5, untouched, untouched},
    };
    for (const auto &c : cases) {
        write_file(srv_file, c.content);
        vekdns::detail::text_file file(srv_file, "r");
        uint32_t number = untouched, time = untouched, entries = untouched;
        EXPECT_EQ(DNS_SrvCacheGetInfo(file, &number, &time, &entries), c.expect) << c.content;
        EXPECT_EQ(number, c.number) << c.content;
        EXPECT_EQ(time, c.time) << c.content;
        EXPECT_EQ(entries, c.entries) << c.content;
    }
}

// Odd content of every kind (long lines, binary bytes, NULs, stray keywords):
// each call ends with one of its documented codes and no temporary file, and
// the sanitizers see no access outside a buffer.
TEST_F(ServiceFileCache, ArbitraryContentNeverBreaksTheFileOperations) {
    const std::vector<std::string> alphabet = {
        "maxnumber ", "maxtime ", "tn: ", "sip ", "h ", "1 ", "4990 ", "4294967295 ", "10.0.0.1 ", "fd00::1 ",
        "0 ", "\n", "\n", " ", "  ", "\t", "\r\n", std::string(1, '\0'), "\xff\xfe", std::string(150, 'q')};
    uint32_t seed = 12345;
    auto next = [&seed] {
        seed = seed * 1103515245u + 12345u;
        return (seed >> 16) & 0x7FFF;
    };
    const DNS_SRV_RR_S records[] = {rr("n", 1, "10.0.0.9")};
    const uint32_t ttls[] = {30};
    DNS_IPADDR_S addr{};
    addr.unIpAddr.ulIpv4 = 0x0100000A;
    for (int round = 0; round < 300; ++round) {
        std::string content;
        const unsigned parts = next() % 40;
        for (unsigned i = 0; i < parts; ++i) {
            content += alphabet[next() % alphabet.size()];
        }
        write_file(srv_file, content);
        write_file("/var/orvdns.cache", content);
        const uint32_t codes[] = {
            get("sip", next() % 4).ret,
            DNS_SetSrvToFileCache("sip", records, 1, ttls),
            DNS_SetIpToFileCache("h", 5, addr),
        };
        DNS_IPADDR_S out[DNS_MAX_IP_NUM] = {};
        uint32_t num = 0;
        const uint32_t address_get = DNS_GetIpFromFileCache("h", out, &num);
        for (uint32_t code : codes) {
            EXPECT_TRUE(code == DNS_OK || code == DNS_ERR_NOT_FOUND || code == DNS_ERR_FILE_FORMAT ||
                        code == DNS_ERR_SRV_CACHE_FILE)
                << std::hex << code << " for " << content;
        }
        EXPECT_TRUE(address_get == DNS_OK || address_get == DNS_ERR_NOT_FOUND || address_get == DNS_ERR_FILE_FORMAT ||
                    address_get == DNS_ERR_CACHE_EXPIRED)
            << std::hex << address_get;
        EXPECT_LE(num, static_cast<uint32_t>(DNS_MAX_IP_NUM));
        EXPECT_FALSE(file_exists(temp_file));
        EXPECT_FALSE(file_exists("/var/dnsresolv.tmp"));
    }
    (void)std::remove("/var/orvdns.cache");
}
