// The configuration interface and the cache parameters, against the sandbox's
// private /etc/resolv.conf and the cache files in its /var.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "config/cache_params.h"
#include "os_adapter/test_hooks.h"
#include "support/sandbox.h"
#include "vek_dns_ops.h"

namespace {

namespace pal = vekdns::pal_test;
using pal::op;
using namespace vekdns::test;

const char *const resolv = "/etc/resolv.conf";
const char *const temp = "/var/dnsresolv.tmp";
const char *const v4_cache = "/var/orvdns.cache";
const char *const caches[] = {v4_cache, "/var/orvdnssrv.cache", "/var/orvdnsaaaa.cache"};
const std::string defaults = "maxnumber 32\nmaxtime 86400\n";

std::string ns(const std::string &address) { return "nameserver " + address + "\n"; }
// The test's resolver file with the two given server lines in it.
std::string conf(const std::string &first, const std::string &second) {
    return "# resolver\n" + first + "search example.com\n" + second + "options ndots:1\n";
}
const std::string base = conf(ns("10.0.0.1"), ns("10.0.0.2"));

// A server from its text ("" is the empty server), or of another type.
DNS_SERVER_S server(const char *text, uint32_t type = 0) {
    DNS_SERVER_S s{};
    s.ulType = std::strchr(text, ':') != nullptr ? DNS_IP_TYPE_IPV6 : type;
    if (*text != '\0') {
        EXPECT_EQ(inet_pton(s.ulType == DNS_IP_TYPE_IPV6 ? AF_INET6 : AF_INET, text, &s.unIpAddr), 1) << text;
    }
    return s;
}

std::string text_of(const DNS_SERVER_S &s) {
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(s.ulType == DNS_IP_TYPE_IPV6 ? AF_INET6 : AF_INET, &s.unIpAddr, text, sizeof(text));
    return std::to_string(s.ulType) + ":" + text;
}

// Count of the system-wide semaphore: 1 when nobody holds it.
int lock_value() {
    int value = -1;
    if (sem_t *sem = sem_open("dns_lock_sem", 0); sem != SEM_FAILED) {
        sem_getvalue(sem, &value);
        sem_close(sem);
    }
    return value;
}

unsigned mode_of(const char *path) {
    struct stat st {};
    return stat(path, &st) == 0 ? (st.st_mode & 07777) : 0u;
}

std::string state(const char *path) { return file_exists(path) ? read_file(path) : "no file"; }

class Config : public testing::Test {
protected:
    void SetUp() override {
        ORV_NETB_DnsSetLogLevel(1); // quiet unless a test captures
        for (const char *p : {caches[0], caches[1], caches[2], temp}) {
            (void)std::remove(p);
        }
        set_resolv_conf(base);
    }
};

TEST_F(Config, SetConfigRewritesOnlyTheTargetLines) {
    const std::string comment = "#" + std::string(300, 'c') + "\n", piece = "#" + std::string(126, 'x');
    const std::string odd = "  nameserver 10.0.0.1\nnameserver\t10.0.0.1\nnameserver\n"; // not seen by the rewrite
    const struct { std::string before; uint32_t mask; const char *first, *second; std::string after;
    } cases[] = {
        {base, 0x2, "10.0.0.9", "", conf(ns("10.0.0.9"), ns("10.0.0.2"))},
        // An empty first server drops the first line; the former second
        // line, now the first, takes the second server where it stands.
        {base, 0x6, "", "10.0.0.7", conf("", ns("10.0.0.7"))},
        {ns("10.0.0.1") + ns("10.0.0.2") + "# c\n", 0x6, "", "10.0.0.7", ns("10.0.0.7") + "# c\n"},
        {base, 0x6, "", "", conf("", "")},
        {base, 0x4, "", "", conf(ns("10.0.0.1"), "")},
        {base, 0x6, "10.0.0.8", "fd00::1", conf(ns("10.0.0.8"), ns("fd00::1"))},
        {base, 0x2, "::", "", conf("", ns("10.0.0.2"))},
        {base, 0x1, "10.0.0.9", "10.0.0.9", base},
        {"search x", 0x2, "10.0.0.9", "", "search x\n" + ns("10.0.0.9")},
        {"# c\n", 0x4, "", "10.0.0.9", "# c\n" + ns("10.0.0.9")},
        {"# c\n", 0x4, "", "", "# c\n"},
        {"", 0x2, "10.0.0.9", "", ns("10.0.0.9")},
        {odd, 0x2, "10.0.0.9", "", odd + ns("10.0.0.9")},
        {"nameserver 10.0.0.1 # one\r\n\x01\xfe\x7f\x80 z\r\n", 0x2, "10.0.0.9", "",
         ns("10.0.0.9") + "\x01\xfe\x7f\x80 z\r\n"},
        {comment + ns("10.0.0.1"), 0x2, "10.0.0.9", "", comment + ns("10.0.0.9")},
        // A piece of a long line is handled as a line of its own.
        {piece + ns("10.0.0.1") + ns("10.0.0.2"), 0x2, "10.0.0.9", "",
         piece + ns("10.0.0.9") + ns("10.0.0.2")},
    };
    chmod(resolv, 0604);
    for (const auto &c : cases) {
        set_resolv_conf(c.before);
        const DNS_SERVER_S first = server(c.first), second = server(c.second);
        EXPECT_EQ(ORV_NETB_DnsSetConfig(c.mask, &first, &second, 77, 88), DNS_OK) << c.before;
        EXPECT_EQ(read_file(resolv), c.after) << c.before;
        EXPECT_FALSE(file_exists(temp));
    }
    EXPECT_EQ(mode_of(resolv), 0604u) << "the rewrite keeps the file's permission bits";
    EXPECT_EQ(lock_value(), 1);
    for (const char *p : caches) {
        EXPECT_EQ(read_file(p), defaults) << "without 0x8 and 0x10 the values are not used: " << p;
    }
}

TEST_F(Config, CacheParametersFollowTheMask) {
    for (const char *p : caches) {
        write_file(p, "maxnumber 50\nmaxtime 600\nhost 1 2 3\n");
    }
    EXPECT_EQ(ORV_NETB_DnsSetConfig(0x18, nullptr, nullptr, 64, 120), DNS_OK);
    for (const char *p : caches) {
        EXPECT_EQ(read_file(p), "maxnumber 64\nmaxtime 120\nhost 1 2 3\n") << p;
    }
    EXPECT_EQ(ORV_NETB_DnsSetConfig(0x8, nullptr, nullptr, 5, 120), DNS_OK);
    EXPECT_EQ(read_file(caches[2]), "maxnumber 5\nmaxtime 86400\nhost 1 2 3\n");
    uint32_t number = 0, time = 0;
    EXPECT_EQ(ORV_NETB_DnsGetConfig(0x18, nullptr, nullptr, &number, &time), DNS_OK);
    EXPECT_EQ(number, 5u);
    EXPECT_EQ(time, 86400u);
}

TEST_F(Config, ReadingServers) {
    set_resolv_conf("nameserver 10.0.0.1\nnameserver fd00::1\nnameserver 10.0.0.3\n");
    DNS_SERVER_S list[3] = {server("", 9), server("", 9), server("", 9)};
    uint32_t number = 0, time = 0, count = 0;
    EXPECT_EQ(ORV_NETB_DnsGetConfig(0x1E, &list[0], &list[1], &number, &time), DNS_OK);
    EXPECT_EQ(text_of(list[0]) + " " + text_of(list[1]), "0:10.0.0.1 1:fd00::1");
    EXPECT_EQ(number, 32u) << "no cache file: the defaults";
    EXPECT_EQ(time, 86400u);
    // The walk ends at the first missing position, which is cleared.
    set_resolv_conf("# one server\n  nameserver 10.0.0.1\n");
    list[2] = server("", 7);
    EXPECT_EQ(ORV_NETB_GetServer(list, 3, &count), DNS_OK);
    EXPECT_EQ(text_of(list[0]) + " " + text_of(list[1]) + " " + std::to_string(list[2].ulType) + " " +
                  std::to_string(count), "0:10.0.0.1 0:0.0.0.0 7 1");
    // The records are not cleared first: an address without '.' or ':' leaves one as passed.
    set_resolv_conf("nameserver myhost\n");
    list[0] = server("10.0.0.5");
    EXPECT_EQ(ORV_NETB_DnsGetConfig(0x6, &list[0], &list[1], nullptr, nullptr), DNS_OK);
    EXPECT_EQ(text_of(list[0]) + " " + text_of(list[1]), "0:10.0.0.5 0:0.0.0.0");
    log_capture cap;
    set_resolv_conf("nameserver 10.0.0.1\nnameserver 255.255.255.255\n");
    EXPECT_EQ(ORV_NETB_GetServer(list, 3, &count), DNS_ERR_IP_TYPE);
    EXPECT_EQ(count, 1u) << "the servers read before the failure";
    EXPECT_TRUE(cap.contains("ORV_NETB_GetServer DNS_GetServer ulIndex:1 ulRtn: 26040025"));
    EXPECT_EQ(lock_value(), 1);

    const std::string noise = std::string("\x01\x02\n", 3) + std::string(300, 'a') + "\n  \t\n";
    const char *const missing = "Server does not exist", *const incorrect = "name server's IP is incorrect!\r\n";
    const struct { std::string conf; uint32_t index, expect; const char *record, *log; } cases[] = {
        {base, 2, DNS_OK, "0:10.0.0.2", nullptr},
        {base, 3, DNS_OK, "0:0.0.0.0", missing},
        {"   nameserver 10.0.0.3\r\n", 1, DNS_OK, "0:10.0.0.3", nullptr},
        {noise + "nameserver 10.0.0.4 10.0.0.5\n", 1, DNS_OK, "0:10.0.0.4", nullptr},
        {"nameserver\t10.0.0.3\n", 1, DNS_OK, "0:0.0.0.0", missing},
        {"nameserver 255.255.255.255\n", 1, DNS_ERR_IP_TYPE, nullptr, incorrect},
        {"nameserver", 1, DNS_ERR_FILE_FORMAT, nullptr, incorrect},
        {"nameserver " + std::string(64, '1') + "\n", 1, DNS_ERR_FILE_FORMAT, nullptr, incorrect},
        {"nameserver fd00::zz\n", 1, DNS_ERR_TEXT_TO_ADDR, nullptr, nullptr},
    };
    for (const auto &c : cases) {
        set_resolv_conf(c.conf);
        log_capture one;
        DNS_SERVER_S record = server("", 7);
        EXPECT_EQ(DNS_GetServer(c.index, &record), c.expect) << c.conf;
        EXPECT_TRUE(c.record == nullptr || text_of(record) == c.record) << c.conf << text_of(record);
        EXPECT_TRUE(c.log == nullptr || one.contains(c.log)) << c.conf;
    }
    pal::fail_nth_path(resolv, 1);
    EXPECT_EQ(DNS_GetServer(1, &list[0]), DNS_ERR_OPEN_FILE);
}

TEST_F(Config, SetServerListSkipsEmptyRecordsAndStopsAtPositionThree) {
    log_capture cap;
    const DNS_SERVER_S three[] = {server("10.0.0.11"), server("10.0.0.12"), server("10.0.0.13")};
    EXPECT_EQ(ORV_NETB_SetServer(three, 3), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(read_file(resolv), conf(ns("10.0.0.11"), ns("10.0.0.12")));
    EXPECT_TRUE(cap.contains("ORV_NETB_SetServer DNS_SetServer ulIndex:2 ulRtn: 26040001"));
    const DNS_SERVER_S skip[] = {server(""), server("::"), server("10.0.0.5")};
    EXPECT_EQ(ORV_NETB_SetServer(skip, 3), DNS_OK);
    EXPECT_EQ(read_file(resolv), conf(ns("10.0.0.5"), ns("10.0.0.12")));
    set_resolv_conf("nameserver 1.1.1.1\nnameserver 2.2.2.2\nnameserver 3.3.3.3\n");
    const DNS_SERVER_S two[] = {server("10.0.0.1"), server("fd00::2")};
    EXPECT_EQ(ORV_NETB_SetServer(two, 2), DNS_OK);
    EXPECT_EQ(ORV_NETB_SetServer(nullptr, 0), DNS_OK);
    EXPECT_EQ(read_file(resolv), "nameserver 10.0.0.1\nnameserver fd00::2\nnameserver 3.3.3.3\n");
    EXPECT_EQ(lock_value(), 1);
}

TEST_F(Config, BadArgumentsChangeNothing) {
    const DNS_SERVER_S good = server("10.0.0.9"), bad_type = server("10.0.0.1", 2);
    const DNS_SERVER_S all_ones = server("255.255.255.255");
    DNS_SERVER_S out[3] = {};
    uint32_t value = 0;
    const char *const refused = "inputting parameter error!\r\n";
    const std::string set = "ORV_NETB_DnsSetConfig ", get = "ORV_NETB_GetServer ";
    // the call, its log line, whether it takes the named semaphore
    const struct { std::function<uint32_t()> call; std::string log; bool locks; } cases[] = {
        {[&] { return ORV_NETB_DnsSetConfig(0x6, nullptr, &good, 0, 0); }, set + "sever invalid", true},
        {[&] { return ORV_NETB_DnsSetConfig(0x6, &good, &bad_type, 0, 0); }, set + "ip type invalid", true},
        {[&] { return ORV_NETB_DnsSetConfig(0x2, nullptr, &good, 0, 0); }, set + "pstFirstServer invalid", true},
        {[&] { return ORV_NETB_DnsSetConfig(0x2, &bad_type, &good, 0, 0); }, set + "pstFirstServer ip type invalid",
         true},
        {[&] { return ORV_NETB_DnsSetConfig(0x4, &good, nullptr, 0, 0); }, set + "pstSecondServer invalid", true},
        {[&] { return ORV_NETB_DnsSetConfig(0x4, &good, &bad_type, 0, 0); }, set + "pstSecondServer ip type invalid",
         true},
        {[&] { return ORV_NETB_DnsSetConfig(0x2, &all_ones, &good, 0, 0); },
         "DNS_SetServer pstFirstServer ulRtn : 26040001", true},
        {[&] { return ORV_NETB_DnsGetConfig(0x2, nullptr, out, &value, &value); }, "pstFirstServer is null", true},
        {[&] { return ORV_NETB_DnsGetConfig(0x4, out, nullptr, &value, &value); }, "pstSecondServer is null", true},
        {[&] { return ORV_NETB_DnsGetConfig(0x8, out, out, nullptr, &value); }, "pulRecordNum is null", true},
        {[&] { return ORV_NETB_DnsGetConfig(0x10, out, out, &value, nullptr); }, "pulTime is null", true},
        {[&] { return ORV_NETB_SetServer(&good, 4); }, "ORV_NETB_SetServer Size is too long: 4", false},
        {[&] { return ORV_NETB_SetServer(nullptr, 2); }, refused, false},
        {[&] { return ORV_NETB_SetServer(&bad_type, 1); }, refused, false},
        {[&] { return ORV_NETB_GetServer(out, 0, &value); }, get + "Size invalid: 0", false},
        {[&] { return ORV_NETB_GetServer(out, 4, &value); }, get + "Size invalid: 4", false},
        {[&] { return ORV_NETB_GetServer(out, 2, nullptr); }, get + "pulServerCount is null", false},
        {[&] { return ORV_NETB_GetServer(nullptr, 2, &value); }, refused, false},
        {[&] { return DNS_SetServer(3, &good); }, refused, false},
        {[&] { return DNS_SetServer(1, &bad_type); }, refused, false},
        {[&] { return DNS_GetServer(1, nullptr); }, refused, false},
    };
    for (const auto &c : cases) {
        log_capture cap;
        pal::clear_faults();
        SCOPED_TRACE(c.log);
        EXPECT_EQ(c.call(), DNS_ERR_PARA_INVALID);
        EXPECT_TRUE(cap.contains(c.log));
        EXPECT_EQ(pal::calls(op::sem_open), c.locks ? 1u : 0u);
        EXPECT_EQ(read_file(resolv), base);
        EXPECT_FALSE(file_exists(v4_cache));
    }
    EXPECT_EQ(lock_value(), 1);
}

// Every failure of a rewrite gives its code, leaves the target as it was and
// no temporary file. A fault is the nth open of `path`, else the nth call of `o`.
TEST_F(Config, RewriteFailuresLeaveTheTargetAsItWas) {
    const DNS_SERVER_S nine = server("10.0.0.9");
    const std::string params = "maxnumber 50\nmaxtime 70\nhost 1 2 3\n";
    const std::string blank_piece = "maxnumber 1\n#" + std::string(126, 'x') + std::string(127, ' ') + "\n";
    const char *const fail_open = "open file failed!\r\n", *const fail_write = "write temp file failed!\r\n";
    auto set_server = [&] { return DNS_SetServer(1, &nine); };
    auto set_cache = [] { return DNS_SetCache(1, 2, v4_cache); };
    const struct { std::function<uint32_t()> call; const char *file; std::string before; op o;
                   const char *path; unsigned nth; uint32_t expect; const char *log; } cases[] = {
        {set_server, resolv, base, op::fopen, temp, 1, DNS_ERR_OPEN_FILE,
         "open or create temp file failed!\r\n"},
        {set_server, resolv, base, op::fopen, resolv, 1, DNS_ERR_OPEN_FILE, fail_open},
        {set_server, resolv, base, op::fputs, nullptr, 1, DNS_ERR_WRITE_FILE, fail_write},
        {set_server, resolv, base, op::fputs, nullptr, 2, DNS_ERR_WRITE_FILE, fail_write}, // the target line
        {set_server, resolv, base, op::fputs, nullptr, 5, DNS_ERR_WRITE_FILE, fail_write},
        {set_server, resolv, "# c", op::fputs, nullptr, 2, DNS_ERR_WRITE_FILE,
         fail_write}, // the appended line
        {set_server, resolv, base, op::fopen, resolv, 2, DNS_ERR_COPY_FILE, fail_open},
        {set_server, resolv, base, op::fgets, nullptr, 3, DNS_ERR_SEEK_FILE, nullptr}, // a read stops early
        {set_cache, v4_cache, params, op::fopen, v4_cache, 1, DNS_ERR_OPEN_FILE, fail_open},
        {set_cache, v4_cache, params, op::fopen, temp, 1, DNS_ERR_OPEN_FILE, fail_open},
        {set_cache, v4_cache, params, op::fputs, nullptr, 1, DNS_ERR_WRITE_FILE, fail_write},
        {set_cache, v4_cache, params, op::fputs, nullptr, 3, DNS_ERR_WRITE_FILE, fail_write},
        {set_cache, v4_cache, params, op::fsync, nullptr, 1, DNS_ERR_WRITE_FILE, fail_write},
        {set_cache, v4_cache, params, op::fgets, nullptr, 2, DNS_ERR_SEEK_FILE, nullptr},
        {set_cache, v4_cache, "maxnumber 1\nmaxtime 2\n   ", op::count_, nullptr, 0, DNS_ERR_FILE_FORMAT,
         nullptr},
        {set_cache, v4_cache, blank_piece, op::count_, nullptr, 0, DNS_ERR_FILE_FORMAT, nullptr},
        // A new cache file that cannot be written is not left behind.
        {set_cache, v4_cache, "", op::fopen, temp, 1, DNS_ERR_OPEN_FILE, fail_open},
        {set_cache, v4_cache, "", op::fputs, nullptr, 1, DNS_ERR_WRITE_FILE, "write cache file failed!\r\n"},
        {set_cache, v4_cache, "", op::fputs, nullptr, 2, DNS_ERR_WRITE_FILE, "write cache file failed!\r\n"},
    };
    for (const auto &c : cases) {
        (void)std::remove(c.file);
        if (!c.before.empty()) {
            write_file(c.file, c.before);
        }
        log_capture cap;
        if (c.nth != 0) {
            c.path != nullptr ? pal::fail_nth_path(c.path, c.nth) : pal::fail_nth(c.o, c.nth);
        }
        const uint32_t ret = c.call();
        pal::clear_faults();
        SCOPED_TRACE("row " + std::to_string(&c - cases));
        EXPECT_EQ(ret, c.expect);
        EXPECT_EQ(state(c.file), c.before.empty() ? "no file" : c.before);
        EXPECT_FALSE(file_exists(temp));
        EXPECT_TRUE(c.log == nullptr || cap.contains(c.log));
    }
    pal::fail_nth(op::chmod, 1);
    EXPECT_EQ(DNS_SetCache(0, 0, v4_cache), DNS_OK) << "the result of chmod is not examined";

    // Through the interface: the code comes back, the lock is released, and
    // nothing is rolled back.
    DNS_SERVER_S out[1];
    uint32_t value = 0;
    log_capture cap;
    set_resolv_conf(base);
    pal::fail_nth(op::fputs, 11); // the first rewrite writes 5 lines to the temporary file and 5 back
    EXPECT_EQ(ORV_NETB_DnsSetConfig(0x6, &nine, &nine, 0, 0), DNS_ERR_WRITE_FILE);
    EXPECT_TRUE(cap.contains("DNS_SetServer pstSecondServer ulRtn : 2604000b"));
    EXPECT_EQ(read_file(resolv), conf(ns("10.0.0.9"), ns("10.0.0.2")));
    pal::fail_nth(op::fputs, 1);
    EXPECT_EQ(ORV_NETB_DnsSetConfig(0x2, &nine, nullptr, 0, 0), DNS_ERR_WRITE_FILE);
    EXPECT_TRUE(cap.contains("DNS_SetServer pstFirstServer ulRtn : 2604000b"));
    pal::fail_nth(op::sem_open, 1, 4);
    EXPECT_EQ(ORV_NETB_DnsSetConfig(0x2, &nine, nullptr, 0, 0), DNS_ERR_SEM);
    EXPECT_TRUE(cap.contains("ORV_NETB_DnsSetConfig DNS_SemOpen failed"));
    EXPECT_EQ(ORV_NETB_DnsGetConfig(0x2, out, nullptr, nullptr, nullptr), DNS_ERR_SEM);
    EXPECT_EQ(ORV_NETB_SetServer(&nine, 1), DNS_ERR_SEM);
    EXPECT_EQ(ORV_NETB_GetServer(out, 1, &value), DNS_ERR_SEM);
    pal::clear_faults();
    pal::fail_nth_path(temp, 4); // resolv.conf (made, read back), the IPv4 file, the service file
    EXPECT_EQ(ORV_NETB_DnsSetConfig(0x2, &nine, nullptr, 0, 0), DNS_ERR_OPEN_FILE);
    EXPECT_TRUE(cap.contains("DNS_SetCache srv ulRtn : 26040002"));
    EXPECT_EQ(state(caches[2]), "no file") << "the cache files after the failing one are not reached";
    write_file(v4_cache, "maxnumber 3\n");
    EXPECT_EQ(ORV_NETB_DnsGetConfig(0x8, nullptr, nullptr, &value, nullptr), DNS_ERR_FILE_FORMAT);
    EXPECT_TRUE(cap.contains("DNS_GetCache ulRtn: 2604000c"));
    EXPECT_EQ(lock_value(), 1);
}

TEST_F(Config, CacheParameterLines) {
    uint32_t number = 0, time = 0;
    EXPECT_EQ(DNS_GetCache(&number, &time), DNS_OK);
    EXPECT_EQ(number, 32u) << "a missing file reports the defaults";
    EXPECT_EQ(time, 86400u);
    EXPECT_FALSE(file_exists(v4_cache)) << "and is not created";
    EXPECT_EQ(DNS_GetCache(nullptr, nullptr), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(DNS_SetCache(7, 9, caches[1]), DNS_OK);
    EXPECT_EQ(read_file(caches[1]), "maxnumber 7\nmaxtime 9\n");
    EXPECT_EQ(mode_of(caches[1]), 0640u);

    // 0 is the default, not the value in the file; every line whose first word
    // is a parameter is rewritten, every other piece kept byte for byte.
    const std::string rest = "host 16777343 1000 300\nhost " + std::string(200, 'x') + " 1 2 3\n";
    write_file(v4_cache, "maxnumber 50\nmaxtime 86400\n" + rest + "maxtime 5 record\n\t tab\r\n\x01\xff\n\nlast");
    chmod(v4_cache, 0600);
    EXPECT_EQ(DNS_SetCache(0, 600, v4_cache), DNS_OK);
    EXPECT_EQ(read_file(v4_cache), "maxnumber 32\nmaxtime 600\n" + rest + "maxtime 600\n\t tab\r\n\x01\xff\n\nlast");
    EXPECT_EQ(mode_of(v4_cache), 0600u) << "a rewrite keeps the file's permission bits";
    write_file(v4_cache, "host 1 2 3\n");
    EXPECT_EQ(DNS_SetCache(10, 20, v4_cache), DNS_OK);
    EXPECT_EQ(read_file(v4_cache), "host 1 2 3\n") << "no parameter line is added";

    // Reading needs "maxtime" among the first two lines; "maxnumber" counts
    // only before it, and its value stays stored on failure.
    constexpr uint32_t none = 0xABCDu;
    const struct { std::string content; uint32_t expect, number, time; } cases[] = {
        {"maxnumber 20\nmaxtime 300\nhost 1 2 3\n", DNS_OK, 20, 300},
        {"maxtime 100\nmaxnumber 9\n", DNS_OK, none, 100},
        {"maxnumber 20\n", DNS_ERR_FILE_FORMAT, 20, none},
        {"maxnumber 1\nmaxnumber 2\nmaxtime 3\n", DNS_ERR_FILE_FORMAT, 2, none},
        {"maxnumber\nmaxtime 5\n", DNS_OK, none, 5},
        {"maxnumber 4\nmaxtime", DNS_ERR_FILE_FORMAT, 4, none},
        {"", DNS_ERR_FILE_FORMAT, none, none},
        {"    ", DNS_ERR_FILE_FORMAT, none, none},
        {std::string("\x01\xff\x00 maxtime 1\n", 14) + "maxtime 8\n", DNS_OK, none, 8},
        {std::string(300, 'm') + "\nmaxtime 1\n", DNS_ERR_FILE_FORMAT, none, none},
        {"maxnumber 4294967295\nmaxtime 4294967296\n", DNS_OK, 4294967295u, 0},
    };
    for (const auto &c : cases) {
        write_file(v4_cache, c.content);
        number = time = none;
        EXPECT_EQ(DNS_GetCache(&number, &time), c.expect) << c.content;
        EXPECT_EQ(std::to_string(number) + " " + std::to_string(time),
                  std::to_string(c.number) + " " + std::to_string(c.time)) << c.content;
    }
    write_file(v4_cache, "maxnumber 11\nmaxtime 12\n");
    EXPECT_EQ(DNS_GetCache(&number, nullptr), DNS_OK);
    EXPECT_EQ(DNS_GetCache(nullptr, &time), DNS_OK);
    EXPECT_EQ(number * 100 + time, 1112u) << "one pointer at a time";
    pal::fail_nth_path(v4_cache, 1);
    EXPECT_EQ(DNS_GetCache(&number, nullptr), DNS_ERR_OPEN_FILE);
}

TEST_F(Config, PrintMasksTheAddress) {
    log_capture cap;
    const DNS_SERVER_S records[] = {server("10.0.0.9"), server("fd00::1"), server("10.0.0.1", 5)};
    for (const DNS_SERVER_S &r : records) {
        DnsIPaddrPrint(&r);
    }
    DnsIPaddrPrint(nullptr);
    EXPECT_EQ(cap.lines(), (std::vector<std::string>{"pstFirstServer->ulType : 0, IP : 10.**.**.9",
                                                     "pstFirstServer->ulType : 1, IP : fd00:****:****:****:****:1",
                                                     "pstFirstServer->ulType : 5, IP : ", "pstFirstServer is null"}));
}

// Two processes using the interface at once: the named semaphore keeps every
// rewrite whole, so each reads a consistent pair and the file ends well formed.
TEST_F(Config, TwoProcessesEndWithAWellFormedFile) {
    ORV_NETB_DnsSetLogLevel(0);
    // Everything the child needs is made before the fork: in the child only
    // the library runs.
    const DNS_SERVER_S mine[2] = {server("10.2.0.1"), server("10.2.0.2")};
    const DNS_SERVER_S theirs[2] = {server("10.1.0.1"), server("10.1.0.2")};
    const std::string pairs[] = {text_of(mine[0]) + text_of(mine[1]), text_of(theirs[0]) + text_of(theirs[1])};
    auto work = [&](const DNS_SERVER_S *list) {
        int failures = 0;
        for (int i = 0; i < 60; ++i) {
            failures += (i % 2 == 0 ? ORV_NETB_SetServer(list, 2)
                                    : ORV_NETB_DnsSetConfig(0x1E, &list[0], &list[1], 10 + i, 100)) != DNS_OK;
            DNS_SERVER_S got[3] = {};
            uint32_t count = 0;
            failures += ORV_NETB_GetServer(got, 3, &count) != DNS_OK || count != 2;
            const std::string pair = text_of(got[0]) + text_of(got[1]);
            failures += pair != pairs[0] && pair != pairs[1];
        }
        return failures;
    };
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        _exit(work(theirs) == 0 ? 0 : 1);
    }
    EXPECT_EQ(work(mine), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child saw an inconsistent state";
    const std::string file = read_file(resolv);
    EXPECT_TRUE(file == conf(ns("10.1.0.1"), ns("10.1.0.2")) || file == conf(ns("10.2.0.1"), ns("10.2.0.2"))) << file;
    for (const char *p : caches) {
        const std::string text = read_file(p);
        EXPECT_TRUE(text.rfind("maxnumber ", 0) == 0 && text.find("\nmaxtime 100\n") != std::string::npos) << text;
    }
    EXPECT_FALSE(file_exists(temp));
    EXPECT_EQ(lock_value(), 1);
}

} // namespace
