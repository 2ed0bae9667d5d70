// vekdns servers / cache limits / filecache: the configuration calls and the
// three cache files under /var.
#include "vekdns.h"

#include <cstdio>
#include <cstring>
#include <vector>

namespace vekdns::cli {
namespace {

constexpr uint32_t limit_bits = DNS_CONFIG_MASK_RECORD_NUM | DNS_CONFIG_MASK_TIME;
constexpr uint32_t ttl_max_time = 0xFFFFFFFFu; // the file's maxtime applies

void say(const output &out, const std::string &line) {
    if (!out.json) {
        std::printf("%s\n", line.c_str());
    }
}

int show_servers(output &out) {
    DNS_SERVER_S list[3] = {};
    uint32_t count = 0;
    const uint32_t ret = ORV_NETB_GetServer(list, 3, &count);
    if (ret != DNS_OK) {
        return report_failure(out, out.doc, "servers", ret);
    }
    out.doc["servers"] = nlohmann::json::array();
    for (uint32_t i = 0; i < count && i < 3; i++) {
        out.doc["servers"].push_back(address_text(list[i]));
        say(out, "nameserver " + std::to_string(i + 1) + ": " + address_text(list[i]));
    }
    return exit_found;
}

// Replaces the first two nameserver lines (a missing second one deletes
// that line) and keeps the cache limits, which the same call always writes.
int set_servers(output &out, const std::vector<std::string> &addrs) {
    DNS_SERVER_S servers[2] = {};
    for (size_t i = 0; i < addrs.size(); i++) {
        (void)parse_address(addrs[i], servers[i]); // checked by the parser
    }
    uint32_t number = 0;
    uint32_t seconds = 0;
    uint32_t ret = ORV_NETB_DnsGetConfig(limit_bits, nullptr, nullptr, &number, &seconds);
    const uint32_t keep = ret == DNS_OK ? limit_bits : 0; // no cache files yet: the defaults
    ret = ORV_NETB_DnsSetConfig(DNS_CONFIG_MASK_FIRST_SERVER | DNS_CONFIG_MASK_SECOND_SERVER | keep,
                                &servers[0], &servers[1], number, seconds);
    if (ret != DNS_OK) {
        return report_failure(out, out.doc, "servers set", ret);
    }
    return show_servers(out);
}

int cache_limits(output &out, bool set, uint32_t number, uint32_t seconds) {
    uint32_t ret = set ? ORV_NETB_DnsSetConfig(limit_bits, nullptr, nullptr, number, seconds) : DNS_OK;
    ret = ret == DNS_OK ? ORV_NETB_DnsGetConfig(limit_bits, nullptr, nullptr, &number, &seconds) : ret;
    if (ret != DNS_OK) {
        return report_failure(out, out.doc, "cache limits", ret);
    }
    out.doc = {{"maxnumber", number}, {"maxtime", seconds}};
    say(out, "maxnumber " + std::to_string(number) + "\nmaxtime " + std::to_string(seconds));
    return exit_found;
}

std::string ttl_text(uint32_t ttl) {
    return ttl == ttl_max_time ? "maxtime" : std::to_string(ttl);
}

int get_addresses(output &out, const std::string &name, uint32_t family) {
    DNS_IPADDR_S addrs[DNS_MAX_IP_NUM] = {};
    addrs[0].ulType = family;
    uint32_t count = DNS_MAX_IP_NUM;
    const uint32_t ret = DNS_GetIpFromFileCache(name.c_str(), addrs, &count);
    out.doc = {{"name", name}, {"addresses", nlohmann::json::array()}};
    if (ret != DNS_OK) {
        return report_failure(out, out.doc, name, ret);
    }
    for (uint32_t i = 0; i < count && i < DNS_MAX_IP_NUM; i++) {
        out.doc["addresses"].push_back(address_text(addrs[i]));
        say(out, name + " has " + family_name(addrs[i].ulType) + " address " + address_text(addrs[i]));
    }
    return exit_found;
}

int get_services(output &out, const std::string &name) {
    std::vector<DNS_SRV_RR_S> records(32);
    uint32_t count = static_cast<uint32_t>(records.size());
    const uint32_t ret = DNS_GetSrvFromFileCache(name.c_str(), records.data(), &count);
    out.doc = {{"name", name}, {"records", nlohmann::json::array()}};
    if (ret != DNS_OK) {
        return report_failure(out, out.doc, name, ret);
    }
    for (uint32_t i = 0; i < count && i < records.size(); i++) {
        const DNS_SRV_RR_S &rr = records[i];
        out.doc["records"].push_back({{"priority", rr.usPriority},
                                      {"weight", rr.usWeight},
                                      {"port", rr.usPort},
                                      {"target", rr.szTarget},
                                      {"address", address_text(rr.stAddr)}});
        char line[400];
        std::snprintf(line, sizeof(line), "%s priority %u weight %u port %u target %s address %s",
                      name.c_str(), rr.usPriority, rr.usWeight, rr.usPort, rr.szTarget,
                      address_text(rr.stAddr).c_str());
        say(out, line);
    }
    return exit_found;
}

struct filecache_set {
    std::string kind;
    std::string name;
    std::vector<std::string> args; // a/aaaa: ADDR; srv: TARGET PORT
    uint32_t ttl = ttl_max_time;
    uint16_t priority = 0;
    uint16_t weight = 0;
    std::string address;
};

int store(output &out, const filecache_set &req) {
    uint32_t ret = DNS_OK;
    if (req.kind == "srv") {
        DNS_SRV_RR_S rr{};
        std::snprintf(rr.szTarget, sizeof(rr.szTarget), "%s", req.args[0].c_str());
        rr.usPort = static_cast<uint16_t>(std::stoul(req.args[1]));
        rr.usPriority = req.priority;
        rr.usWeight = req.weight;
        if (!req.address.empty()) {
            (void)parse_address(req.address, rr.stAddr); // checked by the parser
        }
        ret = DNS_SetSrvToFileCache(req.name.c_str(), &rr, 1, &req.ttl);
    } else {
        DNS_IPADDR_S addr{};
        (void)parse_address(req.args[0], addr);
        ret = DNS_SetIpToFileCache(req.name.c_str(), req.ttl, addr);
    }
    if (ret != DNS_OK) {
        return report_failure(out, out.doc, req.name, ret);
    }
    out.doc = {{"stored", req.name}, {"file", req.kind}, {"ttl", ttl_text(req.ttl)}};
    say(out, "stored " + req.name + " in the " + req.kind + " cache file, ttl " + ttl_text(req.ttl));
    return exit_found;
}

// Shape check of `filecache set` that CLI11 cannot express alone.
void check_set(const filecache_set &req) {
    const size_t want = req.kind == "srv" ? 2 : 1;
    if (req.args.size() != want) {
        throw CLI::ValidationError("filecache set " + req.kind,
                                   req.kind == "srv" ? "takes NAME TARGET PORT" : "takes NAME ADDR");
    }
    DNS_IPADDR_S addr{};
    if (req.kind == "srv") {
        const unsigned long port = std::strtoul(req.args[1].c_str(), nullptr, 10);
        if (req.args[1].find_first_not_of("0123456789") != std::string::npos || port > 65535) {
            throw CLI::ValidationError("PORT", "not a port number: " + req.args[1]);
        }
    } else if (!parse_address(req.args[0], addr) ||
               addr.ulType != (req.kind == "aaaa" ? DNS_IP_TYPE_IPV6 : DNS_IP_TYPE_IPV4)) {
        throw CLI::ValidationError("ADDR", "not an " + std::string(req.kind == "aaaa" ? "IPv6" : "IPv4") +
                                               " address: " + req.args[0]);
    }
}

} // namespace

void add_servers(CLI::App &app, output &out, runner &run) {
    auto *cmd = app.add_subcommand("servers", "Show the name servers, or set them with 'servers set'");
    auto *set = cmd->add_subcommand("set", "Replace the first two nameserver lines of /etc/resolv.conf");
    auto addrs = std::make_shared<std::vector<std::string>>();
    set->add_option("ADDR", *addrs, "one or two server addresses")
        ->required()
        ->expected(1, 2)
        ->check(address_literal);
    cmd->callback([&out, &run, set, addrs] {
        run = set->parsed() ? runner([&out, addrs] { return set_servers(out, *addrs); })
                            : runner([&out] { return show_servers(out); });
    });
}

void add_cache(CLI::App &app, output &out, runner &run) {
    auto *cmd = app.add_subcommand("cache", "Cache limits (maxnumber, maxtime) of the cache files");
    cmd->require_subcommand(1);
    auto *limits = cmd->add_subcommand("limits", "Show the limits, or set them with 'set N SECONDS'");
    limits->add_subcommand("show", "Show the limits");
    auto *set = limits->add_subcommand("set", "Set the entry count and age limits (0: the default)");
    auto values = std::make_shared<std::pair<uint32_t, uint32_t>>();
    set->add_option("N", values->first, "entries per file")->required();
    set->add_option("SECONDS", values->second, "age limit for entries without their own TTL")->required();
    limits->callback([&out, &run, set, values] {
        run = [&out, set, values] { return cache_limits(out, set->parsed(), values->first, values->second); };
    });
}

void add_filecache(CLI::App &app, output &out, runner &run) {
    auto *cmd = app.add_subcommand("filecache", "Read or write the address (a, aaaa) and srv cache files");
    cmd->require_subcommand(1);
    const auto kinds = CLI::IsMember({"a", "aaaa", "srv"});
    auto *get = cmd->add_subcommand("get", "Live entries of NAME in one cache file");
    auto lookup = std::make_shared<std::pair<std::string, std::string>>();
    get->add_option("KIND", lookup->first, "a, aaaa or srv")->required()->check(kinds);
    get->add_option("NAME", lookup->second, "name of the entry")->required();
    get->callback([&out, &run, lookup] {
        run = [&out, lookup] {
            return lookup->first == "srv"
                       ? get_services(out, lookup->second)
                       : get_addresses(out, lookup->second,
                                       lookup->first == "aaaa" ? DNS_IP_TYPE_IPV6 : DNS_IP_TYPE_IPV4);
        };
    });
    auto *set = cmd->add_subcommand("set", "Store one entry: a|aaaa NAME ADDR, or srv NAME TARGET PORT");
    auto req = std::make_shared<filecache_set>();
    set->add_option("KIND", req->kind, "a, aaaa or srv")->required()->check(kinds);
    set->add_option("NAME", req->name, "name of the entry")->required();
    set->add_option("ARGS", req->args, "ADDR (a, aaaa) or TARGET PORT (srv)")->required();
    set->add_option("--ttl", req->ttl, "seconds (default: the file's maxtime)");
    set->add_option("--priority", req->priority, "srv: priority");
    set->add_option("--weight", req->weight, "srv: weight");
    set->add_option("--address", req->address, "srv: address of the target")->check(address_literal);
    set->callback([&out, &run, req] {
        check_set(*req);
        run = [&out, req] { return store(out, *req); };
    });
}

} // namespace vekdns::cli
