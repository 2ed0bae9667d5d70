// vekdns srv: the records of a service in the library's order, each joined
// with its target's address.
#include "vekdns.h"

#include <cstdio>
#include <vector>

namespace vekdns::cli {
namespace {

int lookup_service(output &out, const std::string &service, const std::string &proto,
                   const std::string &domain) {
    std::vector<DNS_SRV_RR_STR_S> records(64);
    uint32_t count = static_cast<uint32_t>(records.size());
    const uint32_t ret =
        vek_dns_get_srv_resolve_syn(service.c_str(), proto.c_str(), domain.c_str(), records.data(), &count);
    const std::string what = "_" + service + "._" + proto + "." + domain;
    out.doc = {{"service", what}, {"records", nlohmann::json::array()}};
    if (ret != DNS_OK || count == 0) {
        return report_failure(out, out.doc, what, ret != DNS_OK ? ret : DNS_ERR_SRV_NOT_FOUND);
    }
    for (uint32_t i = 0; i < count && i < records.size(); i++) {
        const DNS_SRV_RR_STR_S &rr = records[i];
        out.doc["records"].push_back({{"priority", rr.usPriority},
                                      {"weight", rr.usWeight},
                                      {"port", rr.usPort},
                                      {"target", rr.szTarget},
                                      {"family", family_name(rr.ulType)},
                                      {"address", rr.acIpAddr}});
        if (!out.json) {
            std::printf("%s priority %u weight %u port %u target %s address %s\n", what.c_str(),
                        rr.usPriority, rr.usWeight, rr.usPort, rr.szTarget, rr.acIpAddr);
        }
    }
    return exit_found;
}

} // namespace

void add_srv(CLI::App &app, output &out, runner &run) {
    auto *cmd = app.add_subcommand("srv", "Look up a service: records in order, with addresses");
    auto args = std::make_shared<std::vector<std::string>>();
    cmd->add_option("SERVICE PROTO DOMAIN", *args, "e.g. sip udp example.test (leading '_' optional)")
        ->required()
        ->expected(3);
    cmd->callback([&out, &run, args] {
        run = [&out, args] {
            auto bare = [](const std::string &label) {
                return label.rfind('_', 0) == 0 ? label.substr(1) : label;
            };
            return lookup_service(out, bare((*args)[0]), bare((*args)[1]), (*args)[2]);
        };
    });
}

} // namespace vekdns::cli
