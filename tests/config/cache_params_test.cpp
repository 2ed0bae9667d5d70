// Cache parameters: the "maxnumber" / "maxtime" lines of the cache files,
// written and read against real files in the sandbox's /var.
#include <cstdio>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>

#include "config/cache_params.h"
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
constexpr const char *temp_file = "/var/dnsresolv.tmp";

unsigned mode_of(const char *path) {
    struct stat st {};
    return stat(path, &st) == 0 ? (st.st_mode & 07777) : 0xFFFFu;
}

class CacheParams : public testing::Test {
protected:
    void SetUp() override {
        ORV_NETB_DnsSetLogLevel(1); // quiet unless a test captures
        for (const char *p : {"/var/orvdns.cache", "/var/orvdnsaaaa.cache", "/var/orvdnssrv.cache", temp_file}) {
            (void)std::remove(p);
        }
    }
};

} // namespace

TEST_F(CacheParams, MissingFileReportsDefaultsAndCreatesNothing) {
    uint32_t number = 0;
    uint32_t time = 0;
    EXPECT_EQ(DNS_GetCache(&number, &time), DNS_OK);
    EXPECT_EQ(number, 32u);
    EXPECT_EQ(time, 86400u);
    EXPECT_FALSE(file_exists(v4_file));
    EXPECT_EQ(DNS_GetCache(nullptr, nullptr), DNS_ERR_PARA_INVALID);
}

TEST_F(CacheParams, NewFileGetsBothLinesAndMode0640) {
    EXPECT_EQ(DNS_SetCache(0, 0, v4_file), DNS_OK);
    EXPECT_EQ(read_file(v4_file), "maxnumber 32\nmaxtime 86400\n");
    EXPECT_EQ(mode_of(v4_file), 0640u);
    EXPECT_EQ(DNS_SetCache(7, 9, "/var/orvdnssrv.cache"), DNS_OK);
    EXPECT_EQ(read_file("/var/orvdnssrv.cache"), "maxnumber 7\nmaxtime 9\n");
    EXPECT_FALSE(file_exists(temp_file));
}

TEST_F(CacheParams, RewriteReplacesParameterLinesAndKeepsEveryOtherByte) {
    const std::string long_line = "host " + std::string(200, 'x') + " 1 2 3\n"; // arrives in pieces
    write_file(v4_file, "maxnumber 50\nmaxtime 86400\nhost 16777343 1000 300\n" + long_line +
                            "maxtime 5 record\n\t tab\r\n\x01\x02\xff bytes\n\nlast without feed");
    chmod(v4_file, 0600);
    // 0 is the default, not the value already in the file.
    EXPECT_EQ(DNS_SetCache(0, 600, v4_file), DNS_OK);
    EXPECT_EQ(read_file(v4_file), "maxnumber 32\nmaxtime 600\nhost 16777343 1000 300\n" + long_line +
                                      "maxtime 600\n\t tab\r\n\x01\x02\xff bytes\n\nlast without feed");
    EXPECT_EQ(mode_of(v4_file), 0600u) << "a rewrite keeps the file's permission bits";
    EXPECT_FALSE(file_exists(temp_file));
}

TEST_F(CacheParams, RewriteNeitherAddsNorRemovesLines) {
    write_file(v4_file, "host 1 2 3\n");
    EXPECT_EQ(DNS_SetCache(10, 20, v4_file), DNS_OK);
    EXPECT_EQ(read_file(v4_file), "host 1 2 3\n");
}

// Every failure of an existing file's rewrite leaves it as it was and takes
// the temporary file away.
TEST_F(CacheParams, RewriteFailuresLeaveTheFileUntouched) {
    const std::string original = "maxnumber 50\nmaxtime 70\nhost 1 2 3\n";
    struct {
        const char *name;
        std::function<void()> arm;
        std::string content; // empty: `original`
        uint32_t expect;
        const char *log;
    } cases[] = {
        {"cache file cannot be opened", [] { pal::fail_nth_path(v4_file, 1); }, "", DNS_ERR_OPEN_FILE,
         "open file failed!\r\n"},
        {"temporary file cannot be created", [] { pal::fail_nth_path(temp_file, 1); }, "",
         DNS_ERR_OPEN_FILE, "open file failed!\r\n"},
        {"first write fails", [] { pal::fail_nth(pal::op::fputs, 1); }, "", DNS_ERR_WRITE_FILE,
         "write temp file failed!\r\n"},
        {"third write fails", [] { pal::fail_nth(pal::op::fputs, 3); }, "", DNS_ERR_WRITE_FILE,
         "write temp file failed!\r\n"},
        {"copy back cannot open the target", [] { pal::fail_nth_path(v4_file, 2); }, "",
         DNS_ERR_COPY_FILE, "open file failed!\r\n"},
        {"read stops early", [] { pal::fail_nth(pal::op::fgets, 2); }, "", DNS_ERR_SEEK_FILE, nullptr},
        {"piece of blanks only", [] {}, "maxnumber 1\nmaxtime 2\n   ", DNS_ERR_FILE_FORMAT, nullptr},
        // "#" and 126 characters make a full piece; the next piece holds only blanks.
        {"continuation piece of blanks only", [] {},
         "maxnumber 1\n#" + std::string(126, 'x') + std::string(127, ' ') + "\n", DNS_ERR_FILE_FORMAT, nullptr},
    };
    for (const auto &c : cases) {
        const std::string content = c.content.empty() ? original : c.content;
        write_file(v4_file, content);
        log_capture cap;
        c.arm();
        EXPECT_EQ(DNS_SetCache(1, 2, v4_file), c.expect) << c.name;
        pal::clear_faults();
        EXPECT_EQ(read_file(v4_file), content) << c.name;
        EXPECT_FALSE(file_exists(temp_file)) << c.name;
        if (c.log != nullptr) {
            EXPECT_TRUE(cap.contains(c.log)) << c.name;
        }
    }
}

TEST_F(CacheParams, NewFileFailures) {
    {
        pal::fail_nth_path(v4_file, 1);
        EXPECT_EQ(DNS_SetCache(0, 0, v4_file), DNS_ERR_OPEN_FILE);
        EXPECT_FALSE(file_exists(v4_file));
    }
    for (unsigned nth : {1u, 2u}) {
        log_capture cap;
        pal::fail_nth(pal::op::fputs, nth);
        EXPECT_EQ(DNS_SetCache(0, 0, v4_file), DNS_ERR_WRITE_FILE) << nth;
        EXPECT_TRUE(cap.contains("write cache file failed!\r\n"));
        EXPECT_FALSE(file_exists(v4_file)) << "no half-written file is left, write " << nth;
        pal::clear_faults();
    }
    pal::fail_nth(pal::op::chmod, 1);
    EXPECT_EQ(DNS_SetCache(0, 0, v4_file), DNS_OK) << "the result of chmod is not examined";
    EXPECT_EQ(pal::calls(pal::op::chmod), 1u);
}

TEST_F(CacheParams, ReadingNeedsMaxtimeAmongTheFirstTwoLines) {
    constexpr uint32_t untouched = 0xABCDu;
    struct {
        const char *name;
        std::string content;
        uint32_t expect;
        uint32_t number; // after the call
        uint32_t time;
    } cases[] = {
        {"both lines", "maxnumber 20\nmaxtime 300\nhost 1 2 3\n", DNS_OK, 20, 300},
        {"maxtime first", "maxtime 100\nmaxnumber 9\n", DNS_OK, untouched, 100},
        {"only maxnumber", "maxnumber 20\n", DNS_ERR_FILE_FORMAT, 20, untouched},
        {"maxnumber second", "host 1 2 3\nmaxnumber 5\n", DNS_ERR_FILE_FORMAT, 5, untouched},
        {"maxtime third", "a\nb\nmaxtime 5\n", DNS_ERR_FILE_FORMAT, untouched, untouched},
        {"maxnumber twice", "maxnumber 1\nmaxnumber 2\nmaxtime 3\n", DNS_ERR_FILE_FORMAT, 2, untouched},
        {"keyword with its line feed", "maxnumber\nmaxtime 5\n", DNS_OK, untouched, 5},
        {"maxtime without value", "maxnumber 4\nmaxtime", DNS_ERR_FILE_FORMAT, 4, untouched},
        {"maxnumber without value", "maxnumber", DNS_ERR_FILE_FORMAT, untouched, untouched},
        {"empty file", "", DNS_ERR_FILE_FORMAT, untouched, untouched},
        {"blanks only", "    ", DNS_ERR_FILE_FORMAT, untouched, untouched},
        {"binary", std::string("\x01\xff\x00 maxtime 1\n", 14) + "maxtime 8\n", DNS_OK, untouched, 8},
        {"huge first line", std::string(300, 'm') + "\nmaxtime 1\n", DNS_ERR_FILE_FORMAT, untouched, untouched},
        {"large value", "maxnumber 4294967295\nmaxtime 4294967296\n", DNS_OK, 4294967295u, 0},
    };
    for (const auto &c : cases) {
        write_file(v4_file, c.content);
        uint32_t number = untouched;
        uint32_t time = untouched;
        EXPECT_EQ(DNS_GetCache(&number, &time), c.expect) << c.name;
        EXPECT_EQ(number, c.number) << c.name;
        EXPECT_EQ(time, c.time) << c.name;
    }
    // One pointer at a time, as the configuration interface asks.
    write_file(v4_file, "maxnumber 11\nmaxtime 12\n");
    uint32_t value = 0;
    EXPECT_EQ(DNS_GetCache(&value, nullptr), DNS_OK);
    EXPECT_EQ(value, 11u);
    EXPECT_EQ(DNS_GetCache(nullptr, &value), DNS_OK);
    EXPECT_EQ(value, 12u);
    pal::fail_nth_path(v4_file, 1);
    EXPECT_EQ(DNS_GetCache(&value, nullptr), DNS_ERR_OPEN_FILE);
}
