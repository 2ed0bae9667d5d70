// The vekdns tool as a user runs it: a child process in this test's sandbox,
// asking the scripted server on 127.0.0.1.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/wait.h>

#include <cstdio>
#include <regex>

#include "support/dns_server.h"
#include "support/sandbox.h"

namespace vekdns::test {
namespace {

// "exit N" and what the tool printed (stderr too unless `quiet`), TTLs read
// a second late shown as read in time.
std::string vekdns(const std::string &args, bool quiet = false) {
    std::string out;
    FILE *p = popen((VEKDNS_BIN " " + args + (quiet ? " 2>/dev/null" : " 2>&1")).c_str(), "r");
    for (char buf[256]; p != nullptr && fgets(buf, sizeof(buf), p) != nullptr;) {
        out += buf;
    }
    const int status = p != nullptr ? pclose(p) : -1;
    out = std::regex_replace(out, std::regex("ttl 299"), "ttl 300");
    return quiet ? out : "exit " + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1) + "\n" + out;
}

struct vekdns_tool : testing::Test {
    scripted_server server{"127.0.0.1"};
    void SetUp() override {
        set_resolv_conf("nameserver 127.0.0.1\n");
        server.answer_a("a.test", {"192.0.2.1"});
        server.answer_aaaa("a.test", {"2001:db8::1"});
        server.answer_a("sip1.s.test", {"192.0.2.5"});
        server.answer_srv("_sip._udp.s.test", {{1, 5, 5060, "sip1.s.test"}});
    }
};

TEST_F(vekdns_tool, SubcommandsExitCodesAndUsageErrors) {
    const std::string v4 = "a.test has IPv4 address 192.0.2.1, ttl 300\n";
    const std::string v6 = "a.test has IPv6 address 2001:db8::1, ttl 300\n";
    const std::string hit = "a.test has IPv4 address 192.0.2.1, ttl 300, from the memory cache\n";
    const std::string nx = "nx.test: not found: DNS_ERR_PARSE_ANSWER (0x26040028)\n";
    const std::string help = "\nRun with --help for more information.\n";
    const struct {
        std::string args, expected;
    } rows[] = {
        // clang-format off
        {"lookup a.test", "exit 0\n" + v4 + v6},
        {"lookup -6 a.test", "exit 0\n" + v6},
        {"lookup --async -4 a.test a.test", "exit 0\n" + v4 + hit},
        {"lookup -4 a.test nx.test", "exit 1\n" + v4 + nx},
        {"cache limits set 5 60", "exit 0\nmaxnumber 5\nmaxtime 60\n"},
        {"filecache set a f.test 192.0.2.9 --ttl 100", "exit 0\nstored f.test in the a cache file, ttl 100\n"},
        {"filecache get a f.test", "exit 0\nf.test has IPv4 address 192.0.2.9\n"},
        {"filecache get a g.test", "exit 1\ng.test: not found: DNS_ERR_NOT_FOUND (0x26040020)\n"},
        {"mask 10.1.2.3", "exit 0\n10.**.**.3\n"},
        {"servers set 127.0.0.1 ::1", "exit 0\nnameserver 1: 127.0.0.1\nnameserver 2: ::1\n"},
        {"srv _sip udp s.test", "exit 0\n_sip._udp.s.test priority 1 weight 5 port 5060 target sip1.s.test address 192.0.2.5\n"},
        {"servers set 10.1", "exit 2\nADDR: not an IPv4 or IPv6 address: 10.1" + help},
        {"filecache set aaaa f.test 192.0.2.9", "exit 2\nADDR: not an IPv6 address: 192.0.2.9" + help},
        {"--log-level 9 version", "exit 2\n--log-level: Value 9 not in range 0 to 6" + help},
        {"", "exit 2\nA subcommand is required" + help},
        // clang-format on
    };
    for (const auto &row : rows) {
        EXPECT_EQ(vekdns(row.args), row.expected) << row.args;
    }
    EXPECT_EQ(vekdns("cache --help").substr(0, 65),
              "exit 0\nCache limits (maxnumber, maxtime) of the cache files\nUsage");
}

TEST_F(vekdns_tool, JsonParsesBack) {
    const auto found = nlohmann::json::parse(vekdns("--json lookup -4 a.test nx.test", true));
    const auto limits = nlohmann::json::parse(vekdns("--json cache limits set 7 70", true));
    const auto version = nlohmann::json::parse(vekdns("--json version", true));
    EXPECT_EQ(found["lookups"][0]["addresses"][0]["address"].get<std::string>() + " " +
                  found["lookups"][1]["error"]["name"].get<std::string>() + " " + limits.dump() + " " +
                  std::to_string(version["version"].get<std::string>().empty()),
              "192.0.2.1 DNS_ERR_PARSE_ANSWER {\"maxnumber\":7,\"maxtime\":70} 0");
}

} // namespace
} // namespace vekdns::test
