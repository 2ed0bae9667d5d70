// Name-server configuration against the sandbox's private /etc/resolv.conf
// and the cache files in its /var.
#include <arpa/inet.h>
#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "os_adapter/test_hooks.h"
#include "support/sandbox.h"
#include "vek_dns_ops.h"

namespace pal = vekdns::pal_test;
using vekdns::test::file_exists;
using vekdns::test::log_capture;
using vekdns::test::read_file;
using vekdns::test::set_resolv_conf;
using vekdns::test::write_file;

namespace {

constexpr const char *resolv = "/etc/resolv.conf";
constexpr const char *temp_file = "/var/dnsresolv.tmp";
constexpr const char *cache_files[] = {"/var/orvdns.cache", "/var/orvdnssrv.cache", "/var/orvdnsaaaa.cache"};
constexpr const char *defaults = "maxnumber 32\nmaxtime 86400\n";

const std::string base = "# resolver\nnameserver 10.0.0.1\nsearch example.com\nnameserver 10.0.0.2\noptions ndots:1\n";

DNS_SERVER_S v4(const char *text) {
    DNS_SERVER_S s{};
    s.ulType = DNS_IP_TYPE_IPV4;
    EXPECT_EQ(inet_pton(AF_INET, text, &s.unIpAddr.ulIpv4), 1) << text;
    return s;
}

DNS_SERVER_S v6(const char *text) {
    DNS_SERVER_S s{};
    s.ulType = DNS_IP_TYPE_IPV6;
    EXPECT_EQ(inet_pton(AF_INET6, text, s.unIpAddr.aucIpv6), 1) << text;
    return s;
}

DNS_SERVER_S of_type(uint32_t type) {
    DNS_SERVER_S s{};
    s.ulType = type;
    s.unIpAddr.ulIpv4 = 0x0100000Au;
    return s;
}

const DNS_SERVER_S empty{};

std::string text_of(const DNS_SERVER_S &s) {
    char buf[INET6_ADDRSTRLEN] = {};
    if (s.ulType == DNS_IP_TYPE_IPV4) {
        inet_ntop(AF_INET, &s.unIpAddr.ulIpv4, buf, sizeof(buf));
    } else if (s.ulType == DNS_IP_TYPE_IPV6) {
        inet_ntop(AF_INET6, s.unIpAddr.aucIpv6, buf, sizeof(buf));
    }
    return std::to_string(s.ulType) + ":" + buf;
}

// Count of the system-wide semaphore: 1 when nobody holds it.
int lock_value() {
    sem_t *sem = sem_open("dns_lock_sem", 0);
    if (sem == SEM_FAILED) {
        return -1;
    }
    int value = -1;
    sem_getvalue(sem, &value);
    sem_close(sem);
    return value;
}

class ServerConfig : public testing::Test {
protected:
    void SetUp() override {
        ORV_NETB_DnsSetLogLevel(1); // quiet unless a test captures
        for (const char *p : cache_files) {
            (void)std::remove(p);
        }
        (void)std::remove(temp_file);
        set_resolv_conf(base);
    }
    void expect_default_cache_files(const std::string &what) {
        for (const char *p : cache_files) {
            EXPECT_EQ(read_file(p), defaults) << what << ": " << p;
        }
    }
};

} // namespace

TEST_F(ServerConfig, SetConfigRewritesOnlyTheTargetLines) {
    const std::string comment = "#" + std::string(300, 'c') + "\n"; // arrives in pieces
    struct {
        const char *name;
        std::string conf;
        uint32_t mask;
        DNS_SERVER_S first;
        DNS_SERVER_S second;
        std::string expect;
    } cases[] = {
        {"first replaced", base, 0x2, v4("10.0.0.9"), empty,
         "# resolver\nnameserver 10.0.0.9\nsearch example.com\nnameserver 10.0.0.2\noptions ndots:1\n"},
        // The first line is dropped; the former second line, now the first,
        // takes the second server where it stands.
        {"empty first with second", base, 0x6, empty, v4("10.0.0.7"),
         "# resolver\nsearch example.com\nnameserver 10.0.0.7\noptions ndots:1\n"},
        {"empty first with second, adjacent lines", "nameserver 10.0.0.1\nnameserver 10.0.0.2\n# c\n", 0x6, empty,
         v4("10.0.0.7"), "nameserver 10.0.0.7\n# c\n"},
        {"empty second deletes", base, 0x4, empty, empty,
         "# resolver\nnameserver 10.0.0.1\nsearch example.com\noptions ndots:1\n"},
        {"both set", base, 0x6, v4("10.0.0.8"), v6("fd00::1"),
         "# resolver\nnameserver 10.0.0.8\nsearch example.com\nnameserver fd00::1\noptions ndots:1\n"},
        {"both empty", base, 0x6, empty, empty, "# resolver\nsearch example.com\noptions ndots:1\n"},
        {"IPv6 :: deletes", base, 0x2, v6("::"), empty,
         "# resolver\nsearch example.com\nnameserver 10.0.0.2\noptions ndots:1\n"},
        {"other bits only", base, 0x1, v4("10.0.0.9"), v4("10.0.0.9"), base},
        {"no server line, no final feed", "search x", 0x2, v4("10.0.0.9"), empty, "search x\nnameserver 10.0.0.9\n"},
        {"second position of a file without servers", "# c\n", 0x4, empty, v4("10.0.0.9"),
         "# c\nnameserver 10.0.0.9\n"},
        {"deleting a missing position", "# c\n", 0x4, empty, empty, "# c\n"},
        {"empty file", "", 0x2, v4("10.0.0.9"), empty, "nameserver 10.0.0.9\n"},
        {"indented line not seen by the rewrite", "  nameserver 10.0.0.1\n", 0x2, v4("10.0.0.9"), empty,
         "  nameserver 10.0.0.1\nnameserver 10.0.0.9\n"},
        {"tab after the keyword", "nameserver\t10.0.0.1\nnameserver 10.0.0.2\n", 0x2, v4("10.0.0.9"), empty,
         "nameserver\t10.0.0.1\nnameserver 10.0.0.9\n"},
        {"keyword alone", "nameserver\nnameserver 10.0.0.2\n", 0x2, v4("10.0.0.9"), empty,
         "nameserver\nnameserver 10.0.0.9\n"},
        {"whole target line replaced", "nameserver 10.0.0.1 # primary\r\n# x\r\n", 0x2, v4("10.0.0.9"), empty,
         "nameserver 10.0.0.9\n# x\r\n"},
        {"long comment kept", comment + "nameserver 10.0.0.1\n", 0x2, v4("10.0.0.9"), empty,
         comment + "nameserver 10.0.0.9\n"},
        // A piece of a long line is handled as a line of its own.
        {"continuation piece", "#" + std::string(126, 'x') + "nameserver 10.0.0.1\nnameserver 10.0.0.2\n", 0x2,
         v4("10.0.0.9"), empty, "#" + std::string(126, 'x') + "nameserver 10.0.0.9\nnameserver 10.0.0.2\n"},
        {"binary bytes kept", "\x01\xfe\x7f\x80 z\nnameserver 10.0.0.1\n", 0x2, v4("10.0.0.9"), empty,
         "\x01\xfe\x7f\x80 z\nnameserver 10.0.0.9\n"},
    };
    for (const auto &c : cases) {
        SetUp();
        set_resolv_conf(c.conf);
        EXPECT_EQ(ORV_NETB_DnsSetConfig(c.mask, &c.first, &c.second, 0, 0), DNS_OK) << c.name;
        EXPECT_EQ(read_file(resolv), c.expect) << c.name;
        EXPECT_FALSE(file_exists(temp_file)) << c.name;
        expect_default_cache_files(c.name);
        EXPECT_EQ(lock_value(), 1) << c.name;
    }
}

TEST_F(ServerConfig, CacheParametersFollowTheMask) {
    for (const char *p : cache_files) {
        write_file(p, "maxnumber 50\nmaxtime 600\nhost 1 2 3\n");
    }
    const DNS_SERVER_S server = v4("10.0.0.9");
    EXPECT_EQ(ORV_NETB_DnsSetConfig(0x2, &server, nullptr, 77, 88), DNS_OK);
    for (const char *p : cache_files) {
        EXPECT_EQ(read_file(p), "maxnumber 32\nmaxtime 86400\nhost 1 2 3\n") << "unset bits write defaults: " << p;
    }
    EXPECT_EQ(ORV_NETB_DnsSetConfig(0x18, nullptr, nullptr, 64, 120), DNS_OK);
    for (const char *p : cache_files) {
        EXPECT_EQ(read_file(p), "maxnumber 64\nmaxtime 120\nhost 1 2 3\n") << p;
    }
    EXPECT_EQ(ORV_NETB_DnsSetConfig(0x8, nullptr, nullptr, 5, 120), DNS_OK);
    EXPECT_EQ(read_file(cache_files[0]), "maxnumber 5\nmaxtime 86400\nhost 1 2 3\n");
    uint32_t number = 0;
    uint32_t time = 0;
    EXPECT_EQ(ORV_NETB_DnsGetConfig(0x18, nullptr, nullptr, &number, &time), DNS_OK);
    EXPECT_EQ(number, 5u);
    EXPECT_EQ(time, 86400u);
}

TEST_F(ServerConfig, GetConfigReadsPositionsAndParameters) {
    set_resolv_conf("nameserver 10.0.0.1\nnameserver fd00::1\n");
    DNS_SERVER_S first = of_type(9);
    DNS_SERVER_S second = of_type(9);
    uint32_t number = 0;
    uint32_t time = 0;
    EXPECT_EQ(ORV_NETB_DnsGetConfig(0x1E, &first, &second, &number, &time), DNS_OK);
    EXPECT_EQ(text_of(first), "0:10.0.0.1");
    EXPECT_EQ(text_of(second), "1:fd00::1");
    EXPECT_EQ(number, 32u);
    EXPECT_EQ(time, 86400u);

    // Records are not cleared first: an address without '.' or ':' leaves the
    // record as passed; a missing position clears it.
    set_resolv_conf("nameserver myhost\n");
    first = of_type(0);
    second = of_type(0);
    EXPECT_EQ(ORV_NETB_DnsGetConfig(0x6, &first, &second, nullptr, nullptr), DNS_OK);
    EXPECT_EQ(first.unIpAddr.ulIpv4, 0x0100000Au);
    EXPECT_EQ(text_of(second), "0:0.0.0.0");
    EXPECT_EQ(lock_value(), 1);
}

TEST_F(ServerConfig, ReadingOnePosition) {
    const std::string noise = std::string("\x01\x02\n", 3) + std::string(300, 'a') + "\n  \t\n";
    struct {
        const char *name;
        std::string conf;
        uint32_t index;
        uint32_t expect;
        const char *record; // text_of() after the call; nullptr: not checked
        const char *log;
    } cases[] = {
        {"first", base, 1, DNS_OK, "0:10.0.0.1", nullptr},
        {"second", base, 2, DNS_OK, "0:10.0.0.2", nullptr},
        {"missing", base, 3, DNS_OK, "0:0.0.0.0", "Server does not exist"},
        {"position 0", base, 0, DNS_OK, "0:0.0.0.0", "Server does not exist"},
        {"IPv6", "nameserver fd00::1\n", 1, DNS_OK, "1:fd00::1", nullptr},
        {"indented", "   nameserver 10.0.0.3\n", 1, DNS_OK, "0:10.0.0.3", nullptr},
        {"carriage return", "nameserver 10.0.0.3\r\n", 1, DNS_OK, "0:10.0.0.3", nullptr},
        {"two addresses", "nameserver 10.0.0.1 10.0.0.2\n", 1, DNS_OK, "0:10.0.0.1", nullptr},
        {"after noise", noise + "nameserver 10.0.0.4\n", 1, DNS_OK, "0:10.0.0.4", nullptr},
        {"tab after keyword", "nameserver\t10.0.0.3\n", 1, DNS_OK, "0:0.0.0.0", "Server does not exist"},
        {"all ones", "nameserver 255.255.255.255\n", 1, DNS_ERR_IP_TYPE, nullptr, "name server's IP is incorrect!\r\n"},
        {"no address", "nameserver", 1, DNS_ERR_FILE_FORMAT, nullptr, "name server's IP is incorrect!\r\n"},
        {"address of 64 characters", "nameserver " + std::string(64, '1') + "\n", 1, DNS_ERR_FILE_FORMAT, nullptr,
         "name server's IP is incorrect!\r\n"},
        {"IPv6 not accepted", "nameserver fd00::zz\n", 1, DNS_ERR_TEXT_TO_ADDR, nullptr, nullptr},
    };
    for (const auto &c : cases) {
        set_resolv_conf(c.conf);
        log_capture cap;
        DNS_SERVER_S record = of_type(7);
        EXPECT_EQ(DNS_GetServer(c.index, &record), c.expect) << c.name;
        if (c.record != nullptr) {
            EXPECT_EQ(text_of(record), c.record) << c.name;
        }
        if (c.log != nullptr) {
            EXPECT_TRUE(cap.contains(c.log)) << c.name;
        }
        EXPECT_EQ(read_file(resolv), c.conf) << c.name;
    }
    EXPECT_EQ(DNS_GetServer(1, nullptr), DNS_ERR_PARA_INVALID);
    DNS_SERVER_S record{};
    pal::fail_nth_path(resolv, 1);
    EXPECT_EQ(DNS_GetServer(1, &record), DNS_ERR_OPEN_FILE);
}

TEST_F(ServerConfig, SetServerListSkipsEmptyRecordsAndStopsAtPositionThree) {
    log_capture cap;
    const DNS_SERVER_S three[] = {v4("10.0.0.11"), v4("10.0.0.12"), v4("10.0.0.13")};
    EXPECT_EQ(ORV_NETB_SetServer(three, 3), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(read_file(resolv),
              "# resolver\nnameserver 10.0.0.11\nsearch example.com\nnameserver 10.0.0.12\noptions ndots:1\n");
    EXPECT_TRUE(cap.contains("ORV_NETB_SetServer DNS_SetServer ulIndex:2 ulRtn: 26040001"));
    EXPECT_EQ(lock_value(), 1);

    set_resolv_conf(base);
    const DNS_SERVER_S skip[] = {empty, v6("::"), v4("10.0.0.5")};
    EXPECT_EQ(ORV_NETB_SetServer(skip, 3), DNS_OK);
    EXPECT_EQ(read_file(resolv),
              "# resolver\nnameserver 10.0.0.5\nsearch example.com\nnameserver 10.0.0.2\noptions ndots:1\n");

    set_resolv_conf("nameserver 1.1.1.1\nnameserver 2.2.2.2\nnameserver 3.3.3.3\n");
    const DNS_SERVER_S two[] = {v4("10.0.0.1"), v6("fd00::2")};
    EXPECT_EQ(ORV_NETB_SetServer(two, 2), DNS_OK);
    EXPECT_EQ(read_file(resolv), "nameserver 10.0.0.1\nnameserver fd00::2\nnameserver 3.3.3.3\n");
    EXPECT_EQ(ORV_NETB_SetServer(nullptr, 0), DNS_OK);
    EXPECT_EQ(read_file(resolv), "nameserver 10.0.0.1\nnameserver fd00::2\nnameserver 3.3.3.3\n");
}

TEST_F(ServerConfig, GetServerCountsUntilTheFirstMissingPosition) {
    set_resolv_conf("# one server\n  nameserver 10.0.0.1\n");
    DNS_SERVER_S list[3] = {of_type(7), of_type(7), of_type(7)};
    uint32_t count = 99;
    EXPECT_EQ(ORV_NETB_GetServer(list, 3, &count), DNS_OK);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(text_of(list[0]), "0:10.0.0.1");
    EXPECT_EQ(text_of(list[1]), "0:0.0.0.0");
    EXPECT_EQ(list[2].ulType, 7u) << "the walk ends at the first missing position";

    set_resolv_conf("nameserver 10.0.0.1\nnameserver fd00::1\nnameserver 10.0.0.3\n");
    EXPECT_EQ(ORV_NETB_GetServer(list, 2, &count), DNS_OK);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(text_of(list[1]), "1:fd00::1");

    log_capture cap;
    set_resolv_conf("nameserver 10.0.0.1\nnameserver 255.255.255.255\n");
    EXPECT_EQ(ORV_NETB_GetServer(list, 3, &count), DNS_ERR_IP_TYPE);
    EXPECT_EQ(count, 1u) << "the servers read before the failure";
    EXPECT_TRUE(cap.contains("ORV_NETB_GetServer DNS_GetServer ulIndex:1 ulRtn: 26040025"));
    EXPECT_EQ(lock_value(), 1);
}

TEST_F(ServerConfig, BadArgumentsChangeNothing) {
    const DNS_SERVER_S good = v4("10.0.0.9");
    const DNS_SERVER_S bad_type = of_type(2);
    const DNS_SERVER_S all_ones = v4("255.255.255.255");
    DNS_SERVER_S out[3] = {};
    uint32_t count = 0;
    uint32_t value = 0;
    struct {
        const char *name;
        std::function<uint32_t()> call;
        const char *log;
        bool takes_lock;
    } cases[] = {
        {"set both, first null", [&] { return ORV_NETB_DnsSetConfig(0x6, nullptr, &good, 0, 0); },
         "ORV_NETB_DnsSetConfig sever invalid", true},
        {"set both, second type", [&] { return ORV_NETB_DnsSetConfig(0x6, &good, &bad_type, 0, 0); },
         "ORV_NETB_DnsSetConfig ip type invalid", true},
        {"set first null", [&] { return ORV_NETB_DnsSetConfig(0x2, nullptr, &good, 0, 0); },
         "ORV_NETB_DnsSetConfig pstFirstServer invalid", true},
        {"set first type", [&] { return ORV_NETB_DnsSetConfig(0x2, &bad_type, nullptr, 0, 0); },
         "ORV_NETB_DnsSetConfig pstFirstServer ip type invalid", true},
        {"set second null", [&] { return ORV_NETB_DnsSetConfig(0x4, &good, nullptr, 0, 0); },
         "ORV_NETB_DnsSetConfig pstSecondServer invalid", true},
        {"set second type", [&] { return ORV_NETB_DnsSetConfig(0x4, nullptr, &bad_type, 0, 0); },
         "ORV_NETB_DnsSetConfig pstSecondServer ip type invalid", true},
        {"set 255.255.255.255", [&] { return ORV_NETB_DnsSetConfig(0x2, &all_ones, nullptr, 0, 0); },
         "DNS_SetServer pstFirstServer ulRtn : 26040001", true},
        {"get first null", [&] { return ORV_NETB_DnsGetConfig(0x2, nullptr, out, &value, &value); },
         "pstFirstServer is null", true},
        {"get second null", [&] { return ORV_NETB_DnsGetConfig(0x4, out, nullptr, &value, &value); },
         "pstSecondServer is null", true},
        {"get number null", [&] { return ORV_NETB_DnsGetConfig(0x8, out, out, nullptr, &value); },
         "pulRecordNum is null", true},
        {"get time null", [&] { return ORV_NETB_DnsGetConfig(0x10, out, out, &value, nullptr); },
         "pulTime is null", true},
        {"list size 4", [&] { return ORV_NETB_SetServer(&good, 4); }, "ORV_NETB_SetServer Size is too long: 4", false},
        {"null list", [&] { return ORV_NETB_SetServer(nullptr, 2); }, "inputting parameter error!\r\n", false},
        {"record type 2", [&] { return ORV_NETB_SetServer(&bad_type, 1); }, "inputting parameter error!\r\n", false},
        {"get size 0", [&] { return ORV_NETB_GetServer(out, 0, &count); }, "ORV_NETB_GetServer Size invalid: 0", false},
        {"get size 4", [&] { return ORV_NETB_GetServer(out, 4, &count); }, "ORV_NETB_GetServer Size invalid: 4", false},
        {"get null count", [&] { return ORV_NETB_GetServer(out, 2, nullptr); },
         "ORV_NETB_GetServer pulServerCount is null", false},
        {"get null list", [&] { return ORV_NETB_GetServer(nullptr, 2, &count); }, "inputting parameter error!\r\n",
         false},
        {"position 3", [&] { return DNS_SetServer(3, &good); }, "inputting parameter error!\r\n", false},
        {"position 0", [&] { return DNS_SetServer(0, &good); }, "inputting parameter error!\r\n", false},
        {"rewrite type 2", [&] { return DNS_SetServer(1, &bad_type); }, "inputting parameter error!\r\n", false},
        {"rewrite null", [&] { return DNS_SetServer(1, nullptr); }, "inputting parameter error!\r\n", false},
    };
    for (const auto &c : cases) {
        log_capture cap;
        pal::clear_faults();
        EXPECT_EQ(c.call(), DNS_ERR_PARA_INVALID) << c.name;
        EXPECT_TRUE(cap.contains(c.log)) << c.name;
        EXPECT_EQ(pal::calls(pal::op::sem_open), c.takes_lock ? 1u : 0u) << c.name;
        EXPECT_EQ(read_file(resolv), base) << c.name;
        EXPECT_FALSE(file_exists(cache_files[0])) << c.name;
        EXPECT_EQ(lock_value(), 1) << c.name;
    }
}

// Every failure of a rewrite leaves /etc/resolv.conf as it was and removes
// the temporary file.
TEST_F(ServerConfig, RewriteFailuresLeaveTheResolverFileUntouched) {
    struct {
        const char *name;
        std::string conf;
        std::function<void()> arm;
        uint32_t expect;
        const char *log;
    } cases[] = {
        {"temporary file cannot be created", base, [] { pal::fail_nth_path(temp_file, 1); }, DNS_ERR_OPEN_FILE,
         "open or create temp file failed!\r\n"},
        {"resolver file cannot be opened", base, [] { pal::fail_nth_path(resolv, 1); }, DNS_ERR_OPEN_FILE,
         "open file failed!\r\n"},
        {"first line cannot be written", base, [] { pal::fail_nth(pal::op::fputs, 1); }, DNS_ERR_WRITE_FILE,
         "write temp file failed!\r\n"},
        {"target line cannot be written", base, [] { pal::fail_nth(pal::op::fputs, 2); }, DNS_ERR_WRITE_FILE,
         "write temp file failed!\r\n"},
        {"last line cannot be written", base, [] { pal::fail_nth(pal::op::fputs, 5); }, DNS_ERR_WRITE_FILE,
         "write temp file failed!\r\n"},
        {"appended line cannot be written", "# c", [] { pal::fail_nth(pal::op::fputs, 2); }, DNS_ERR_WRITE_FILE,
         "write temp file failed!\r\n"},
        {"copy back fails", base, [] { pal::fail_nth_path(resolv, 2); }, DNS_ERR_COPY_FILE, "open file failed!\r\n"},
        {"read stops early", base, [] { pal::fail_nth(pal::op::fgets, 3); }, DNS_ERR_SEEK_FILE, nullptr},
    };
    const DNS_SERVER_S server = v4("10.0.0.9");
    for (const auto &c : cases) {
        set_resolv_conf(c.conf);
        log_capture cap;
        c.arm();
        EXPECT_EQ(DNS_SetServer(1, &server), c.expect) << c.name;
        pal::clear_faults();
        EXPECT_EQ(read_file(resolv), c.conf) << c.name;
        EXPECT_FALSE(file_exists(temp_file)) << c.name;
        if (c.log != nullptr) {
            EXPECT_TRUE(cap.contains(c.log)) << c.name;
        }
    }

    // Through the interface: the code comes back, the lock is released, and
    // the cache files are not reached.
    log_capture cap;
    set_resolv_conf(base);
    pal::fail_nth(pal::op::fputs, 1);
    EXPECT_EQ(ORV_NETB_DnsSetConfig(0x6, &server, &server, 0, 0), DNS_ERR_WRITE_FILE);
    EXPECT_TRUE(cap.contains("DNS_SetServer pstFirstServer ulRtn : 2604000b"));
    // The first rewrite writes 5 lines to the temporary file and 5 back.
    pal::fail_nth(pal::op::fputs, 11);
    EXPECT_EQ(ORV_NETB_DnsSetConfig(0x6, &server, &server, 0, 0), DNS_ERR_WRITE_FILE);
    EXPECT_TRUE(cap.contains("DNS_SetServer pstSecondServer ulRtn : 2604000b"));
    EXPECT_EQ(read_file(resolv),
              "# resolver\nnameserver 10.0.0.9\nsearch example.com\nnameserver 10.0.0.2\noptions ndots:1\n")
        << "nothing is rolled back";
    EXPECT_FALSE(file_exists(cache_files[0]));
    EXPECT_EQ(lock_value(), 1);
}

TEST_F(ServerConfig, SemaphoreAndCacheFailures) {
    const DNS_SERVER_S server = v4("10.0.0.9");
    DNS_SERVER_S list[3] = {};
    uint32_t count = 0;
    {
        log_capture cap;
        pal::fail_nth(pal::op::sem_open, 1, 4);
        EXPECT_EQ(ORV_NETB_DnsSetConfig(0x2, &server, nullptr, 0, 0), DNS_ERR_SEM);
        EXPECT_TRUE(cap.contains("ORV_NETB_DnsSetConfig DNS_SemOpen failed"));
        EXPECT_EQ(ORV_NETB_DnsGetConfig(0x2, list, nullptr, nullptr, nullptr), DNS_ERR_SEM);
        EXPECT_EQ(ORV_NETB_SetServer(&server, 1), DNS_ERR_SEM);
        EXPECT_EQ(ORV_NETB_GetServer(list, 1, &count), DNS_ERR_SEM);
        EXPECT_EQ(read_file(resolv), base);
        pal::clear_faults();
    }
    // A failing cache parameter write is returned; earlier changes stay.
    log_capture cap;
    pal::fail_nth_path("/var/orvdnssrv.cache", 1);
    EXPECT_EQ(ORV_NETB_DnsSetConfig(0x2, &server, nullptr, 0, 0), DNS_ERR_OPEN_FILE);
    EXPECT_TRUE(cap.contains("DNS_SetCache srv ulRtn : 26040002"));
    EXPECT_NE(read_file(resolv), base);
    EXPECT_EQ(read_file(cache_files[0]), defaults);
    EXPECT_FALSE(file_exists("/var/orvdnssrv.cache"));
    EXPECT_FALSE(file_exists("/var/orvdnsaaaa.cache"));
    EXPECT_EQ(lock_value(), 1);

    write_file(cache_files[0], "maxnumber 3\n");
    EXPECT_EQ(ORV_NETB_DnsGetConfig(0x8, nullptr, nullptr, &count, nullptr), DNS_ERR_FILE_FORMAT);
    EXPECT_TRUE(cap.contains("DNS_GetCache ulRtn: 2604000c"));
    EXPECT_EQ(lock_value(), 1);
}

TEST_F(ServerConfig, PrintMasksTheAddress) {
    log_capture cap;
    const DNS_SERVER_S ipv4 = v4("10.0.0.9");
    const DNS_SERVER_S ipv6 = v6("fd00::1");
    const DNS_SERVER_S other = of_type(5);
    DnsIPaddrPrint(&ipv4);
    DnsIPaddrPrint(&ipv6);
    DnsIPaddrPrint(&other);
    DnsIPaddrPrint(nullptr);
    const std::vector<std::string> expect = {
        "pstFirstServer->ulType : 0, IP : 10.**.**.9",
        "pstFirstServer->ulType : 1, IP : fd00:****:****:****:****:1",
        "pstFirstServer->ulType : 5, IP : ",
        "pstFirstServer is null",
    };
    EXPECT_EQ(cap.lines(), expect);
}

// Two processes using the interface at once: the named semaphore keeps every
// rewrite whole, so each reads a consistent pair and the file ends well formed.
TEST_F(ServerConfig, TwoProcessesEndWithAWellFormedFile) {
    ORV_NETB_DnsSetLogLevel(0);
    constexpr int rounds = 60;
    // Everything the child needs is made before the fork: in the child only
    // the library runs.
    const DNS_SERVER_S mine[2] = {v4("10.2.0.1"), v4("10.2.0.2")};
    const DNS_SERVER_S theirs[2] = {v4("10.1.0.1"), v4("10.1.0.2")};
    const std::string mine_pair = text_of(mine[0]) + " " + text_of(mine[1]);
    const std::string theirs_pair = text_of(theirs[0]) + " " + text_of(theirs[1]);
    auto work = [&](const DNS_SERVER_S *list) {
        int failures = 0;
        for (int i = 0; i < rounds; ++i) {
            if (i % 2 == 0) {
                failures += ORV_NETB_SetServer(list, 2) != DNS_OK;
            } else {
                failures += ORV_NETB_DnsSetConfig(0x1E, &list[0], &list[1], 10 + i, 100) != DNS_OK;
            }
            DNS_SERVER_S got[3] = {};
            uint32_t count = 0;
            failures += ORV_NETB_GetServer(got, 3, &count) != DNS_OK || count != 2;
            const std::string pair = text_of(got[0]) + " " + text_of(got[1]);
            failures += pair != mine_pair && pair != theirs_pair;
        }
        return failures;
    };
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        _exit(work(theirs) == 0 ? 0 : 1);
    }
    const int failures = work(mine);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child saw an inconsistent state";
    EXPECT_EQ(failures, 0);
    const std::string conf = read_file(resolv);
    const std::string one =
        "# resolver\nnameserver 10.1.0.1\nsearch example.com\nnameserver 10.1.0.2\noptions ndots:1\n";
    const std::string two =
        "# resolver\nnameserver 10.2.0.1\nsearch example.com\nnameserver 10.2.0.2\noptions ndots:1\n";
    EXPECT_TRUE(conf == one || conf == two) << conf;
    for (const char *p : cache_files) {
        const std::string text = read_file(p);
        EXPECT_TRUE(text.rfind("maxnumber ", 0) == 0 && text.find("\nmaxtime 100\n") != std::string::npos) << text;
    }
    EXPECT_FALSE(file_exists(temp_file));
    EXPECT_EQ(lock_value(), 1);
}
