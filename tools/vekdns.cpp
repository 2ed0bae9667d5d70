// vekdns: look up names and services, show and change the resolver's
// configuration and caches, and mask addresses, through libvek_dns.
#include "vekdns.h"

#include <arpa/inet.h>

#include "vek_os_adapter.h"

#include <cstdio>
#include <iostream>

namespace vekdns::cli {
namespace {

struct result_row {
    uint32_t code;
    const char *name;
    bool miss; // the answer is not there, as opposed to a local failure
};

#define ROW(code, miss)                                                                                      \
    { code, #code, miss }
constexpr result_row result_table[] = {
    ROW(DNS_OK, false),
    {1u, "DNS_FAILED", false}, // the text calls: bad count or memory exhausted
    ROW(DNS_ERR_PARA_INVALID, false),
    ROW(DNS_ERR_OPEN_FILE, false),
    ROW(DNS_ERR_MEM_ALLOC, false),
    ROW(DNS_ERR_CREATE_THREAD, false),
    ROW(DNS_ERR_SRV_LIST_CREATE, false),
    ROW(DNS_ERR_LIST_EMPTY, true),
    ROW(DNS_ERR_LIST_INDEX, false),
    ROW(DNS_ERR_LIST_OPERATE, false),
    ROW(DNS_ERR_SEM, false),
    ROW(DNS_ERR_NO_SERVER, false),
    ROW(DNS_ERR_WRITE_FILE, false),
    ROW(DNS_ERR_FILE_FORMAT, false),
    ROW(DNS_ERR_COPY_FILE, false),
    ROW(DNS_ERR_SEEK_FILE, false),
    ROW(DNS_ERR_SRV_CACHE_FILE, false),
    ROW(DNS_ERR_SRV_NAME, false),
    ROW(DNS_ERR_SRV_MSG_BUF, false),
    ROW(DNS_ERR_SRV_NOT_OFFERED, true),
    ROW(DNS_ERR_SRV_NOT_FOUND, true),
    ROW(DNS_ERR_SRV_ANSWER_TYPE, true),
    ROW(DNS_ERR_SRV_ADD_ADDR, true),
    ROW(DNS_ERR_MSG_FORMAT, true),
    ROW(DNS_ERR_RECORD_INVALID, true),
    ROW(DNS_ERR_NAME_TOO_LONG, false),
    ROW(DNS_ERR_SEND, false),
    ROW(DNS_ERR_RECV, true),
    ROW(DNS_ERR_NO_MEMORY, false),
    ROW(DNS_ERR_TIMEOUT, true),
    ROW(DNS_ERR_NOT_FOUND, true),
    ROW(DNS_ERR_ADDR_TO_TEXT, false),
    ROW(DNS_ERR_TEXT_TO_ADDR, false),
    ROW(DNS_ERR_SOCKET, false),
    ROW(DNS_ERR_CONNECT, false),
    ROW(DNS_ERR_IP_TYPE, false),
    ROW(DNS_ERR_NAME_FORMAT, false),
    ROW(DNS_ERR_CACHE_MISS, true),
    ROW(DNS_ERR_PARSE_ANSWER, true),
    ROW(DNS_ERR_CACHE_EXPIRED, true),
};
#undef ROW

const result_row *find_row(uint32_t code) {
    for (const auto &row : result_table) {
        if (row.code == code) {
            return &row;
        }
    }
    return nullptr;
}

void log_to_stderr(const char *line) {
    std::fprintf(stderr, "%s\n", line);
}

void add_mask(CLI::App &app, output &out, runner &run) {
    auto *cmd = app.add_subcommand("mask", "Mask an IP address, a URL or a call identifier");
    auto text = std::make_shared<std::string>();
    auto in = std::make_shared<std::string>();
    cmd->add_option("TEXT", *text, "address, URL, or head@address;rest")->required();
    cmd->add_option("--in", *in, "mask every occurrence of this address inside TEXT instead")
        ->check(address_literal);
    cmd->callback([&out, &run, text, in] {
        run = [&out, text, in] {
            char buffer[512] = {};
            char *block = nullptr;
            uint32_t len = 0;
            uint32_t ret = 1;
            if (!in->empty()) {
                ret = vek_filter_setIP_str(in->c_str());
                ret = ret == 0 ? vek_replace_ipaddr_str(text->c_str(), &block, &len) : ret;
            } else if (text->find('@') != std::string::npos) {
                ret = VekFilterCallidStr(text->c_str(), &block, &len);
            } else if (DNS_IPADDR_S addr; parse_address(*text, addr)) {
                ret = vek_filter_ipaddr_str(text->c_str(), buffer, sizeof(buffer));
            } else {
                ret = VekFilterUrlStr(text->c_str(), buffer, sizeof(buffer));
            }
            std::string masked = block != nullptr ? block : buffer;
            if (block != nullptr) {
                PAL_MemTypeFreeD(block, 0, __LINE__, __FILE__);
            }
            if (ret != 0) {
                std::fprintf(stderr, "mask: cannot mask \"%s\"\n", text->c_str());
                return static_cast<int>(exit_failure);
            }
            out.doc = {{"input", *text}, {"masked", masked}};
            if (!out.json) {
                std::printf("%s\n", masked.c_str());
            }
            return static_cast<int>(exit_found);
        };
    });
}

void add_version(CLI::App &app, output &out, runner &run) {
    app.add_subcommand("version", "Show the library version")->callback([&out, &run] {
        run = [&out] {
            char text[64] = {};
            uint32_t ret = ORV_NETB_DNS_GetVersion(text, sizeof(text));
            if (ret != DNS_OK) {
                return report_failure(out, out.doc, "version", ret);
            }
            out.doc = {{"version", text}};
            if (!out.json) {
                std::printf("%s\n", text);
            }
            return static_cast<int>(exit_found);
        };
    });
}

} // namespace

const char *result_name(uint32_t code) {
    const result_row *row = find_row(code);
    return row != nullptr ? row->name : "unknown";
}

bool is_miss(uint32_t code) {
    const result_row *row = find_row(code);
    return row != nullptr && row->miss;
}

int report_failure(output &out, nlohmann::json &into, const std::string &what, uint32_t code) {
    const bool miss = is_miss(code);
    char value[16];
    std::snprintf(value, sizeof(value), "0x%08X", code);
    into["error"] = {{"name", result_name(code)}, {"code", code}, {"kind", miss ? "not found" : "failed"}};
    if (!out.json) {
        std::fflush(stdout); // keeps answers and failures in order on a shared pipe
        std::fprintf(stderr, "%s: %s: %s (%s)\n", what.c_str(), miss ? "not found" : "failed",
                     result_name(code), value);
    }
    return miss ? exit_not_found : exit_failure;
}

std::string address_text(const DNS_IPADDR_S &addr) {
    char text[INET6_ADDRSTRLEN] = {};
    const int family = addr.ulType == DNS_IP_TYPE_IPV6 ? AF_INET6 : AF_INET;
    return inet_ntop(family, &addr.unIpAddr, text, sizeof(text)) != nullptr ? text : "?";
}

const char *family_name(uint32_t type) {
    return type == DNS_IP_TYPE_IPV6 ? "IPv6" : "IPv4";
}

bool parse_address(const std::string &text, DNS_IPADDR_S &addr) {
    addr = DNS_IPADDR_S{};
    if (inet_pton(AF_INET, text.c_str(), &addr.unIpAddr) == 1) {
        addr.ulType = DNS_IP_TYPE_IPV4;
        return true;
    }
    addr.ulType = DNS_IP_TYPE_IPV6;
    return inet_pton(AF_INET6, text.c_str(), &addr.unIpAddr) == 1;
}

const CLI::Validator address_literal(
    [](std::string &text) {
        DNS_IPADDR_S addr;
        return parse_address(text, addr) ? std::string() : "not an IPv4 or IPv6 address: " + text;
    },
    "ADDR");

} // namespace vekdns::cli

int main(int argc, char **argv) {
    using namespace vekdns::cli;
    CLI::App app{"vekdns: DNS look-ups, resolver configuration and caches through libvek_dns.\n"
                 "Exit codes: 0 found, 1 not found, 2 usage error, 3 other failure.",
                 "vekdns"};
    app.require_subcommand(1);
    output out;
    runner run;
    unsigned level = 0;
    app.add_flag("--json", out.json, "print one JSON document on stdout");
    app.add_option("--log-level", level, "library log level 0-6 (log lines go to stderr)")
        ->check(CLI::Range(0, 6));
    add_lookup(app, out, run);
    add_srv(app, out, run);
    add_servers(app, out, run);
    add_cache(app, out, run);
    add_filecache(app, out, run);
    add_mask(app, out, run);
    add_version(app, out, run);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        const int help = app.exit(e);
        return help == 0 ? exit_found : exit_usage;
    }
    vek_dns_register_log_func(log_to_stderr);
    vek_dns_set_log_level(level);
    const int code = run ? run() : static_cast<int>(exit_usage);
    if (out.json) {
        std::cout << out.doc.dump(2) << "\n";
    }
    return code;
}
