// vekdns lookup: addresses of names through the blocking or the asynchronous
// call, with the TTL the memory cache keeps for them and whether they were
// already there.
#include "vekdns.h"

#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include "vek_dns_ops.h"
#include "vek_os_adapter.h"

namespace vekdns::cli {
namespace {

struct cached_address {
    DNS_IPADDR_S addr;
    uint32_t ttl_left;
};

bool same_address(const DNS_IPADDR_S &a, const DNS_IPADDR_S &b) {
    const size_t len = a.ulType == DNS_IP_TYPE_IPV6 ? 16 : 4;
    return a.ulType == b.ulType && std::memcmp(&a.unIpAddr, &b.unIpAddr, len) == 0;
}

// Live memory-cache entries of `name`, read the way the library reads them:
// under the named semaphore, then the cache's own lock.
std::vector<cached_address> memory_cache_entries(const char *name) {
    std::vector<cached_address> found;
    void *sem = nullptr;
    if (DNS_SemOpen(&sem) != DNS_OK) {
        return found;
    }
    (void)DNS_SemWait(&sem);
    const uint32_t now = PAL_GetSysTimeSec();
    for (DNS_CACHE_HEAD_S *head : {pstDNSCache, pstDNSAAAACache}) {
        if (head == nullptr) {
            continue;
        }
        (void)DNS_Lock(head->pstSem);
        const DNS_CACHE_ITEM_S *first = head->pstCacheFirst;
        for (const DNS_CACHE_ITEM_S *item = first->pstNext; item != nullptr && item != first;
             item = item->pstNext) {
            const uint32_t limit = item->ulTtl == 0xFFFFFFFFu ? head->ulMaxTime : item->ulTtl;
            const uint32_t age = now - item->ulTimeStamp;
            if (std::strcmp(item->pszName, name) == 0 && age <= limit) {
                cached_address entry{};
                entry.addr.ulType = head->enDNSType;
                std::memcpy(&entry.addr.unIpAddr, &item->unIpAddr, sizeof(item->unIpAddr));
                entry.ttl_left = limit - age;
                found.push_back(entry);
            }
        }
        (void)DNS_UnLock(head->pstSem);
    }
    (void)DNS_SemPost(&sem);
    (void)DNS_SemClose(&sem);
    return found;
}

const cached_address *find_entry(const std::vector<cached_address> &entries, const DNS_IPADDR_S &addr) {
    for (const auto &entry : entries) {
        if (same_address(entry.addr, addr)) {
            return &entry;
        }
    }
    return nullptr;
}

// The asynchronous call's answer, handed over from the callback.
struct async_answer {
    std::mutex mu;
    std::condition_variable done_cv;
    bool done = false;
    uint32_t ret = DNS_OK;
    std::vector<DNS_IPADDR_S> addrs;
};

uint32_t on_answer(uint32_t ret, char *, DNS_IPADDR_S *addrs, uint32_t count, void *user) {
    auto *answer = static_cast<async_answer *>(user);
    std::lock_guard<std::mutex> lock(answer->mu);
    answer->ret = ret;
    if (addrs != nullptr) {
        answer->addrs.assign(addrs, addrs + count);
    }
    answer->done = true;
    answer->done_cv.notify_one();
    return 0;
}

uint32_t resolve_async(const std::string &name, uint32_t type, std::vector<DNS_IPADDR_S> &addrs) {
    async_answer answer;
    const uint32_t ret = ORV_NETB_DnsGetIpByAsynResolve(name.c_str(), type, 3, on_answer, &answer);
    if (ret != DNS_OK) {
        return ret; // refused: the callback never comes
    }
    std::unique_lock<std::mutex> lock(answer.mu);
    answer.done_cv.wait(lock, [&] { return answer.done; });
    addrs = answer.addrs;
    return answer.ret;
}

uint32_t resolve_blocking(const std::string &name, uint32_t type, std::vector<DNS_IPADDR_S> &addrs) {
    DNS_IPADDR_S found[DNS_MAX_IP_NUM] = {};
    uint32_t count = DNS_MAX_IP_NUM;
    const uint32_t ret = ORV_NETB_DnsGetIpBySynResolve(name.c_str(), type, found, &count);
    addrs.assign(found, found + (ret == DNS_OK ? count : 0));
    return ret;
}

int lookup_one(output &out, const std::string &name, uint32_t type, bool async) {
    const std::vector<cached_address> before = memory_cache_entries(name.c_str());
    std::vector<DNS_IPADDR_S> addrs;
    const uint32_t ret = async ? resolve_async(name, type, addrs) : resolve_blocking(name, type, addrs);
    nlohmann::json result = {{"name", name}, {"addresses", nlohmann::json::array()}};
    int code = exit_found;
    if (ret != DNS_OK || addrs.empty()) {
        code = report_failure(out, result, name, ret != DNS_OK ? ret : DNS_ERR_NOT_FOUND);
    }
    const std::vector<cached_address> after = memory_cache_entries(name.c_str());
    for (const auto &addr : addrs) {
        const cached_address *entry = find_entry(after, addr);
        const bool cached = find_entry(before, addr) != nullptr;
        nlohmann::json row = {
            {"family", family_name(addr.ulType)}, {"address", address_text(addr)}, {"cached", cached}};
        std::string line = name + " has " + family_name(addr.ulType) + " address " + address_text(addr);
        if (entry != nullptr) {
            row["ttl"] = entry->ttl_left;
            line += ", ttl " + std::to_string(entry->ttl_left);
        }
        line += cached ? ", from the memory cache" : "";
        result["addresses"].push_back(row);
        if (!out.json) {
            std::printf("%s\n", line.c_str());
        }
    }
    out.doc["lookups"].push_back(result);
    return code;
}

} // namespace

void add_lookup(CLI::App &app, output &out, runner &run) {
    auto *cmd = app.add_subcommand("lookup", "Look up the addresses of names (IPv4 first)");
    struct options {
        std::vector<std::string> names;
        bool v4 = false;
        bool v6 = false;
        bool async = false;
    };
    auto opt = std::make_shared<options>();
    cmd->add_option("NAME", opt->names, "host names or address literals")->required();
    cmd->add_flag("-4", opt->v4, "IPv4 addresses only (-46: both, the default)");
    cmd->add_flag("-6", opt->v6, "IPv6 addresses only");
    cmd->add_flag("--async", opt->async, "use the asynchronous call (answer through a callback)");
    cmd->callback([&out, &run, opt] {
        run = [&out, opt] {
            const uint32_t type = opt->v4 == opt->v6 ? DNS_SEARCH_TYPE_BOTH
                                  : opt->v4          ? DNS_SEARCH_TYPE_A
                                                     : DNS_SEARCH_TYPE_AAAA;
            out.doc["lookups"] = nlohmann::json::array();
            int worst = exit_found;
            for (const auto &name : opt->names) {
                const int code = lookup_one(out, name, type, opt->async);
                worst = code == exit_failure || worst == exit_failure ? exit_failure : std::max(worst, code);
            }
            return worst;
        };
    });
}

} // namespace vekdns::cli
