// Address cache files against real files in the sandbox's /var, with the
// platform clock pinned so that ages are exact to the second.
#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>

#include "cache/address_file_cache.h"
#include "os_adapter/test_hooks.h"
#include "support/sandbox.h"
#include "vek_dns_ops.h"

namespace pal = vekdns::pal_test;
using vekdns::test::file_exists;
using vekdns::test::log_capture;
using vekdns::test::read_file;
using vekdns::test::write_file;

namespace {

constexpr const char *v4_file = "/var/orvdns.cache";
constexpr const char *v6_file = "/var/orvdnsaaaa.cache";
constexpr const char *temp_file = "/var/dnsresolv.tmp";
constexpr uint32_t use_max_time = 0xFFFFFFFFu;

DNS_IPADDR_S v4(const char *text) {
    DNS_IPADDR_S a{};
    a.ulType = DNS_IP_TYPE_IPV4;
    EXPECT_EQ(inet_pton(AF_INET, text, &a.unIpAddr.ulIpv4), 1);
    return a;
}

DNS_IPADDR_S v6(const char *text) {
    DNS_IPADDR_S a{};
    a.ulType = DNS_IP_TYPE_IPV6;
    EXPECT_EQ(inet_pton(AF_INET6, text, a.unIpAddr.aucIpv6), 1);
    return a;
}

// The address field of an IPv4 record: ulIpv4 as one decimal number.
std::string field(const char *text) { return std::to_string(v4(text).unIpAddr.ulIpv4); }

std::string text_of(const DNS_IPADDR_S &a) {
    char buf[INET6_ADDRSTRLEN] = {};
    inet_ntop(a.ulType == DNS_IP_TYPE_IPV6 ? AF_INET6 : AF_INET, a.unIpAddr.aucIpv6, buf, sizeof(buf));
    return std::to_string(a.ulType) + ":" + buf;
}

unsigned mode_of(const char *path) {
    struct stat st {};
    return stat(path, &st) == 0 ? (st.st_mode & 07777) : 0xFFFFu;
}

struct lookup {
    uint32_t ret;
    uint32_t num;
    std::string addrs; // "type:addr" joined by blanks
};

lookup get(const char *name, uint32_t family = DNS_IP_TYPE_IPV4) {
    DNS_IPADDR_S out[DNS_MAX_IP_NUM + 2];
    std::memset(out, 0xAB, sizeof(out));
    out[0].ulType = family;
    uint32_t num = 0xFFFF;
    lookup r{DNS_GetIpFromFileCache(name, out, &num), num, ""};
    for (uint32_t i = 0; i < num && i < DNS_MAX_IP_NUM; ++i) {
        r.addrs += (i ? " " : "") + text_of(out[i]);
    }
    EXPECT_EQ(out[DNS_MAX_IP_NUM].ulType, 0xABABABABu) << "wrote past the 10 records";
    return r;
}

class AddressFileCache : public testing::Test {
protected:
    void SetUp() override {
        ORV_NETB_DnsSetLogLevel(1); // quiet unless a test captures
        for (const char *p : {v4_file, v6_file, temp_file}) {
            (void)std::remove(p);
        }
        pal::set_clock(1000);
    }
};

const std::string head = "maxnumber 32\nmaxtime 86400\n";

} // namespace

TEST_F(AddressFileCache, FirstStoreCreatesTheFile) {
    EXPECT_EQ(DNS_SetIpToFileCache("host", 300, v4("127.0.0.1")), DNS_OK);
    EXPECT_EQ(read_file(v4_file), head + "host " + field("127.0.0.1") + " 1000 300\n");
    EXPECT_EQ(mode_of(v4_file), 0777u);
    pal::set_clock(1001);
    EXPECT_EQ(DNS_SetIpToFileCache("other", use_max_time, v4("10.0.0.1")), DNS_OK);
    EXPECT_EQ(read_file(v4_file), head + "host " + field("127.0.0.1") + " 1000 300\nother " + field("10.0.0.1") +
                                      " 1001 4294967295\n");

    EXPECT_EQ(DNS_SetIpToFileCache("host6", 60, v6("fd00::1")), DNS_OK);
    EXPECT_EQ(read_file(v6_file), head + "host6 fd00::1 1001 60\n");
    EXPECT_FALSE(file_exists(temp_file));
}

TEST_F(AddressFileCache, FullFileReplacesItsOldestRecord) {
    const std::string a = field("10.0.0.1");
    struct {
        const char *name;
        std::string records; // after "maxnumber 3\nmaxtime 100\n"
        std::string expect;
    } cases[] = {
        {"first of the two oldest", "a " + a + " 100 9\nb " + a + " 50 9\nc " + a + " 50 9\n",
         "a " + a + " 100 9\nc " + a + " 50 9\nnew " + a + " 1000 7\n"},
        // Nothing older than the current second: the oldest goes all the same,
        // so the store is kept and the file still holds 3 records.
        {"all stamped now", "a " + a + " 1000 9\nb " + a + " 1000 9\nc " + a + " 1000 9\n",
         "b " + a + " 1000 9\nc " + a + " 1000 9\nnew " + a + " 1000 7\n"},
        {"stamps after now", "a " + a + " 3000 9\nb " + a + " 2000 9\nc " + a + " 2000 9\n",
         "a " + a + " 3000 9\nc " + a + " 2000 9\nnew " + a + " 1000 7\n"},
        {"oldest is last", "a " + a + " 900 9\nb " + a + " 800 9\nc " + a + " 10 9\n",
         "a " + a + " 900 9\nb " + a + " 800 9\nnew " + a + " 1000 7\n"},
    };
    for (const auto &c : cases) {
        write_file(v4_file, "maxnumber 3\nmaxtime 100\n" + c.records);
        EXPECT_EQ(DNS_SetIpToFileCache("new", 7, v4("10.0.0.1")), DNS_OK) << c.name;
        EXPECT_EQ(read_file(v4_file), "maxnumber 3\nmaxtime 100\n" + c.expect) << c.name;
        EXPECT_FALSE(file_exists(temp_file)) << c.name;
    }
}

TEST_F(AddressFileCache, StoreReadsOnlyTheFirstLineForTheLimit) {
    struct {
        const char *name;
        std::string content;
        uint32_t expect;
        bool appended;
    } cases[] = {
        {"room left", "maxnumber 2\nmaxtime 5\nx 1 2 3\n", DNS_OK, true},
        {"more records than the limit", "maxnumber 1\nmaxtime 5\nx 1 2 3\ny 1 2 3\n", DNS_ERR_FILE_FORMAT, false},
        {"maxtime first: limit 0", "maxtime 100\nmaxnumber 5\nx 1 2 3\n", DNS_ERR_FILE_FORMAT, false},
        {"maxtime first, no record", "maxtime 100\n", DNS_OK, true},
        {"maxnumber without value", "maxnumber", DNS_ERR_FILE_FORMAT, false},
        {"empty first line", "\nmaxtime 5\n", DNS_OK, false}, // limit 0, full, no record to replace
        {"limit near 2^32", "maxnumber 4294967295\nmaxtime 5\n", DNS_OK, true},
        {"record without its stamp", "maxnumber 1\nmaxtime 5\nx 1\n", DNS_ERR_FILE_FORMAT, false},
        {"huge record line", "maxnumber 1\nmaxtime 5\n" + std::string(300, 'r') + "\n", DNS_ERR_FILE_FORMAT, false},
        {"blank first line", "   ", DNS_OK, true},
    };
    for (const auto &c : cases) {
        write_file(v4_file, c.content);
        EXPECT_EQ(DNS_SetIpToFileCache("h", 9, v4("10.0.0.2")), c.expect) << c.name;
        const std::string expect = c.content + (c.appended ? "h " + field("10.0.0.2") + " 1000 9\n" : "");
        EXPECT_EQ(read_file(v4_file), expect) << c.name;
        EXPECT_FALSE(file_exists(temp_file)) << c.name;
    }
}

TEST_F(AddressFileCache, StoreRefusesWhatItCannotFile) {
    log_capture cap;
    DNS_IPADDR_S other = v4("10.0.0.1");
    other.ulType = 2;
    EXPECT_EQ(DNS_SetIpToFileCache("h", 9, other), DNS_ERR_OPEN_FILE);
    EXPECT_TRUE(cap.contains("open file failed!\r\n"));
    EXPECT_EQ(DNS_SetIpToFileCache(nullptr, 9, v4("10.0.0.1")), DNS_ERR_PARA_INVALID);
    EXPECT_FALSE(file_exists(v4_file));

    // A name too long for one line is cut, logged, and still ends its line.
    const std::string name(120, 'n');
    EXPECT_EQ(DNS_SetIpToFileCache(name.c_str(), 9, v4("10.0.0.1")), DNS_OK);
    EXPECT_TRUE(cap.contains("secure func return fail! lLen = -1"));
    EXPECT_EQ(DNS_SetIpToFileCache(name.c_str(), 9, v4("10.0.0.1")), DNS_OK);
    const std::string text = read_file(v4_file);
    ASSERT_EQ(text.back(), '\n');
    size_t lines = 0;
    for (size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos; start = end + 1, ++lines) {
        EXPECT_LE(end - start + 1, 127u) << "line " << lines;
    }
    EXPECT_EQ(lines, 4u);

    char line[128];
    std::memset(line, 'z', sizeof(line));
    EXPECT_EQ(dnsFormatCacheRecord("h", line, 5, other), DNS_OK);
    EXPECT_STREQ(line, "") << "another family leaves the line empty";
}

TEST_F(AddressFileCache, StoreFailuresLeaveTheFileAsItWas) {
    const std::string full = "maxnumber 2\nmaxtime 5\na 1 900 9\nb 1 800 9\n";
    const std::string room = "maxnumber 5\nmaxtime 5\na 1 900 9\n";
    struct {
        const char *name;
        const std::string *content; // nullptr: no file
        std::function<void()> arm;
        uint32_t expect;
    } cases[] = {
        {"new file cannot be created", nullptr, [] { pal::fail_nth_path(v4_file, 1); }, DNS_ERR_OPEN_FILE},
        {"new file cannot be written", nullptr, [] { pal::fail_nth(pal::op::fputs, 1); }, DNS_ERR_WRITE_FILE},
        {"file cannot be read", &room, [] { pal::fail_nth_path(v4_file, 1); }, DNS_ERR_OPEN_FILE},
        {"rewind fails", &room, [] { pal::fail_nth(pal::op::fseek, 1); }, DNS_ERR_SEEK_FILE},
        {"read stops early", &room, [] { pal::fail_nth(pal::op::fgets, 2); }, DNS_ERR_SEEK_FILE},
        {"append cannot open", &room, [] { pal::fail_nth_path(v4_file, 2); }, DNS_ERR_OPEN_FILE},
        {"append cannot write", &room, [] { pal::fail_nth(pal::op::fputs, 1); }, DNS_ERR_WRITE_FILE},
        {"full: second rewind fails", &full, [] { pal::fail_nth(pal::op::fseek, 2); }, DNS_ERR_SEEK_FILE},
        {"full: temporary file cannot be created", &full, [] { pal::fail_nth_path(temp_file, 1); },
         DNS_ERR_OPEN_FILE},
        {"full: a line cannot be written", &full, [] { pal::fail_nth(pal::op::fputs, 2); }, DNS_ERR_WRITE_FILE},
        {"full: the new record cannot be written", &full, [] { pal::fail_nth(pal::op::fputs, 4); },
         DNS_ERR_WRITE_FILE},
        {"full: copy back fails", &full, [] { pal::fail_nth_path(v4_file, 2); }, DNS_ERR_COPY_FILE},
    };
    for (const auto &c : cases) {
        SetUp();
        if (c.content != nullptr) {
            write_file(v4_file, *c.content);
        }
        c.arm();
        EXPECT_EQ(DNS_SetIpToFileCache("h", 9, v4("10.0.0.2")), c.expect) << c.name;
        pal::clear_faults();
        if (c.content != nullptr) {
            EXPECT_EQ(read_file(v4_file), *c.content) << c.name;
        } else {
            EXPECT_FALSE(file_exists(v4_file)) << c.name;
        }
        EXPECT_FALSE(file_exists(temp_file)) << c.name;
    }
    pal::fail_nth(pal::op::chmod, 1);
    EXPECT_EQ(DNS_SetIpToFileCache("h", 9, v4("10.0.0.2")), DNS_OK) << "the result of chmod is not examined";
}

TEST_F(AddressFileCache, RecordsLiveWhileYoungerThanTheirLimit) {
    const std::string a = field("10.0.0.1");
    const std::string b = field("10.0.0.2");
    write_file(v4_file, "maxnumber 32\nmaxtime 100\nhost " + a + " 1000 10\nother " + b + " 1000 5\nforever " + b +
                            " 1000 4294967295\n");
    pal::set_clock(1009);
    lookup r = get("host");
    EXPECT_EQ(r.ret, DNS_OK);
    EXPECT_EQ(r.num, 1u);
    EXPECT_EQ(r.addrs, "0:10.0.0.1");
    pal::set_clock(1099);
    EXPECT_EQ(get("forever").ret, DNS_OK) << "maxtime applies, not the ttl of the lines before";
    EXPECT_EQ(read_file(v4_file), "maxnumber 32\nmaxtime 100\nhost " + a + " 1000 10\nother " + b +
                                      " 1000 5\nforever " + b + " 1000 4294967295\n")
        << "expired records of other names stay";
    pal::set_clock(1010);
    r = get("host");
    EXPECT_EQ(r.ret, DNS_ERR_CACHE_EXPIRED);
    EXPECT_EQ(r.num, 0u);
    pal::set_clock(1100);
    EXPECT_EQ(get("forever").ret, DNS_ERR_CACHE_EXPIRED);
    EXPECT_EQ(read_file(v4_file), "maxnumber 32\nmaxtime 100\nother " + b + " 1000 5\n");
    EXPECT_EQ(get("host").ret, DNS_ERR_NOT_FOUND);
}

TEST_F(AddressFileCache, ResultFollowsTheNewestRecordOfTheName) {
    const std::string a = field("10.0.0.1");
    const std::string b = field("10.0.0.2");
    // Older live, newer expired: the live address is returned, the result
    // says expired.
    write_file(v4_file, head + "h " + a + " 990 100\nh " + b + " 995 5\n");
    lookup r = get("h");
    EXPECT_EQ(r.ret, DNS_ERR_CACHE_EXPIRED);
    EXPECT_EQ(r.addrs, "0:10.0.0.1");
    EXPECT_EQ(read_file(v4_file), head + "h " + a + " 990 100\n");

    std::string twelve;
    for (int i = 0; i < 12; ++i) {
        twelve += "many " + std::to_string(i + 1) + " 999 100\n";
    }
    write_file(v4_file, head + twelve);
    r = get("many");
    EXPECT_EQ(r.ret, DNS_OK);
    EXPECT_EQ(r.num, 10u);
    EXPECT_EQ(read_file(v4_file), head + twelve) << "live records beyond ten stay";

    write_file(v6_file, head + "h6 fd00::1 999 100\nh6 fd00::2 999 100\n");
    r = get("h6", DNS_IP_TYPE_IPV6);
    EXPECT_EQ(r.ret, DNS_OK);
    EXPECT_EQ(r.addrs, "1:fd00::1 1:fd00::2") << "every returned record carries type 1";
}

TEST_F(AddressFileCache, LookUpTrimsRecordsOverTheLimit) {
    write_file(v4_file, "maxnumber 2\nmaxtime 100\na 1 999 100\nb 2 999 100\nc 3 999 100\nd 4 999 100\n");
    lookup r = get("a");
    EXPECT_EQ(r.ret, DNS_ERR_NOT_FOUND);
    EXPECT_EQ(r.num, 0u);
    EXPECT_EQ(read_file(v4_file), "maxnumber 2\nmaxtime 100\nc 3 999 100\nd 4 999 100\n");
}

TEST_F(AddressFileCache, MalformedFilesGiveTheirCodes) {
    struct {
        const char *name;
        std::string content;
        uint32_t family;
        uint32_t expect;
    } cases[] = {
        {"empty file", "", 0, DNS_ERR_NOT_FOUND},
        {"one line", "maxnumber 3\n", 0, DNS_ERR_NOT_FOUND},
        {"only parameter lines", head, 0, DNS_ERR_FILE_FORMAT},
        {"first line of blanks", "   ", 0, DNS_ERR_FILE_FORMAT},
        {"maxtime without value", "maxnumber 3\nmaxtime", 0, DNS_ERR_FILE_FORMAT},
        {"record with three fields", head + "h 1 999\n", 0, DNS_ERR_FILE_FORMAT},
        {"huge record line", head + "h 1 999 5 " + std::string(300, 'x') + "\n", 0, DNS_ERR_FILE_FORMAT},
        {"binary name", head + "\x01\xfe\x7f 1 999 5\n", 0, DNS_ERR_NOT_FOUND},
        {"NUL inside a record", head + std::string("h\0 1 999 5\n", 11), 0, DNS_ERR_FILE_FORMAT},
        {"address too long for its buffer", head + "h " + std::string(100, '9') + " 999 5\n", 0, DNS_OK},
        {"IPv6 text not accepted", head + "h fd00::zz 999 5\n", 1, DNS_ERR_TEXT_TO_ADDR},
        {"IPv6 other name not parsed", head + "o fd00::zz 999 5\n", 1, DNS_ERR_NOT_FOUND},
    };
    for (const auto &c : cases) {
        const char *path = c.family == 0 ? v4_file : v6_file;
        write_file(path, c.content);
        lookup r = get("h", c.family);
        EXPECT_EQ(r.ret, c.expect) << c.name;
        if (c.expect != DNS_OK && c.expect != DNS_ERR_NOT_FOUND) {
            EXPECT_EQ(read_file(path), c.content) << c.name;
        }
        EXPECT_FALSE(file_exists(temp_file)) << c.name;
    }
}

TEST_F(AddressFileCache, LookUpArgumentsAndFailures) {
    log_capture cap;
    DNS_IPADDR_S out[DNS_MAX_IP_NUM] = {};
    uint32_t num = 0;
    EXPECT_EQ(DNS_GetIpFromFileCache(nullptr, out, &num), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(DNS_GetIpFromFileCache("h", nullptr, &num), DNS_ERR_PARA_INVALID);
    EXPECT_EQ(DNS_GetIpFromFileCache("h", out, nullptr), DNS_ERR_PARA_INVALID);
    EXPECT_TRUE(cap.contains("DNS_GetIpFromFileCache param is null"));
    EXPECT_EQ(DNS_GetIpFromFileCache("h", out, &num), DNS_ERR_OPEN_FILE) << "no file yet";
    out[0].ulType = 2;
    EXPECT_EQ(DNS_GetIpFromFileCache("h", out, &num), DNS_ERR_OPEN_FILE);
    EXPECT_TRUE(cap.contains("DNS_GetIpFromFileCache DNS_OpenCacheFile failed"));

    const std::string content = head + "h 1 999 100\nh 2 999 100\n";
    struct {
        const char *name;
        std::function<void()> arm;
        uint32_t expect;
    } cases[] = {
        {"temporary file cannot be created", [] { pal::fail_nth_path(temp_file, 1); }, DNS_ERR_OPEN_FILE},
        {"rewind fails", [] { pal::fail_nth(pal::op::fseek, 1); }, DNS_ERR_SEEK_FILE},
        {"read stops early", [] { pal::fail_nth(pal::op::fgets, 6); }, DNS_ERR_SEEK_FILE},
        {"a line cannot be written", [] { pal::fail_nth(pal::op::fputs, 3); }, DNS_ERR_WRITE_FILE},
        {"copy back fails", [] { pal::fail_nth_path(v4_file, 2); }, DNS_ERR_COPY_FILE},
    };
    for (const auto &c : cases) {
        write_file(v4_file, content);
        out[0].ulType = DNS_IP_TYPE_IPV4;
        c.arm();
        EXPECT_EQ(DNS_GetIpFromFileCache("h", out, &num), c.expect) << c.name;
        pal::clear_faults();
        EXPECT_EQ(read_file(v4_file), content) << c.name;
        EXPECT_FALSE(file_exists(temp_file)) << c.name;
    }
}
