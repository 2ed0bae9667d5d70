// Name-server discovery: the servers and search suffixes of /etc/resolv.conf,
// read afresh for every query.
#include <cstdio>
#include <cstring>

#include <arpa/inet.h>

#include "base/memory.h"
#include "base/secure.h"
#include "base/text_file.h"
#include "vek_dns_ops.h"
#include "vek_os_adapter.h"

namespace {

constexpr const char *resolv_conf_path = "/etc/resolv.conf";
constexpr int line_read_size = 128;    // at most 127 characters per read
constexpr size_t line_buffer_size = 256;
constexpr size_t search_text_size = sizeof(DNS_LOCAL_SERVER_S::szSearchDomain);
constexpr size_t server_text_size = 40; // 39 characters and the NUL

// Owns the stream of the resolver file; closes it on every path.
class resolv_file {
public:
    resolv_file() : file_(PAL_Fopen(resolv_conf_path, "r")) {}
    ~resolv_file() {
        if (file_ != nullptr) {
            (void)std::fclose(file_);
        }
    }
    resolv_file(const resolv_file &) = delete;
    resolv_file &operator=(const resolv_file &) = delete;

    bool is_open() const { return file_ != nullptr; }
    FILE *get() const { return file_; }

private:
    FILE *file_;
};

void cut_at_newline(char *text) {
    char *nl = std::strchr(text, '\n');
    if (nl != nullptr) {
        *nl = '\0';
    }
}

void clear_search(DNS_LOCAL_SERVER_S *rec) {
    std::memset(rec->szSearchDomain, 0, sizeof(rec->szSearchDomain));
    for (char *&p : rec->apszSearchDomain) {
        p = nullptr;
    }
}

// "domain <suffix>": one suffix replaces every earlier one. A missing suffix
// (or only the line's end) leaves the earlier ones in place.
void take_domain_line(DNS_LOCAL_SERVER_S *rec, char **ctx) {
    char *tok = strtok_s(nullptr, " ", ctx);
    if (tok == nullptr || std::strcmp(tok, "\n") == 0) {
        return;
    }
    clear_search(rec);
    errno_t err = strncpy_s(rec->szSearchDomain, search_text_size, tok, search_text_size - 1);
    if (err != 0) {
        DNS_LOG(3, "secure func return fail! err = %d", err);
    }
    rec->apszSearchDomain[0] = rec->szSearchDomain;
    cut_at_newline(rec->szSearchDomain);
}

// "search <s1> <s2> ...": up to six suffixes replace every earlier one.
void take_search_line(DNS_LOCAL_SERVER_S *rec, char **ctx) {
    clear_search(rec);
    size_t used = 0;
    for (size_t i = 0; i < DNS_MAX_SEARCH_DOMAIN; ++i) {
        char *tok = strtok_s(nullptr, " ", ctx);
        if (tok == nullptr || std::strcmp(tok, "\n") == 0) {
            return;
        }
        // A line piece holds at most 127 characters, so the suffixes always
        // fit; a full buffer would leave nothing to point at.
        if (used >= search_text_size) {
            return;
        }
        char *pos = rec->szSearchDomain + used;
        size_t left = search_text_size - used;
        errno_t err = strncpy_s(pos, left, tok, left - 1);
        if (err != 0) {
            DNS_LOG(3, "secure func return fail! err = %d", err);
        }
        rec->apszSearchDomain[i] = pos;
        cut_at_newline(pos);
        used += std::strlen(pos) + 1;
    }
}

// The first server decides: it must be IPv6, or IPv4 with a set address.
bool first_server_usable(const DNS_LOCAL_SERVER_S *rec) {
    if (rec->ulDnsServers == 0 || rec->pstDnsServer == nullptr) {
        return false;
    }
    const DNS_IPADDR_S &first = rec->pstDnsServer[0];
    return first.ulType == DNS_IP_TYPE_IPV6 ||
           (first.ulType == DNS_IP_TYPE_IPV4 && first.unIpAddr.ulIpv4 != 0);
}

} // namespace

namespace vekdns::detail {

// Appends one server to the record. When the array is full it grows to one
// more entry, or with `doubling` to twice its `capacity` (discovery: one
// allocation and copy per doubling keeps a long file linear).
uint32_t add_local_server(const char *text, DNS_LOCAL_SERVER_S *rec, uint32_t &capacity, bool doubling) {
    if (rec == nullptr) {
        return DNS_ERR_PARA_INVALID;
    }
    if (text == nullptr) {
        DNS_FreeLocalServer(rec);
        return DNS_ERR_PARA_INVALID;
    }
    const uint32_t count = rec->ulDnsServers;
    if (rec->pstDnsServer == nullptr || count >= capacity) {
        const uint32_t grown_count = doubling ? (count < 4 ? 4 : count * 2) : count + 1;
        const size_t grown_size = static_cast<size_t>(grown_count) * sizeof(DNS_IPADDR_S);
        auto *grown = static_cast<DNS_IPADDR_S *>(VEK_MALLOC(grown_size));
        if (grown == nullptr) {
            DNS_FreeLocalServer(rec);
            return DNS_ERR_NO_MEMORY;
        }
        if (count != 0 && rec->pstDnsServer != nullptr) {
            errno_t err = memcpy_s(grown, grown_size, rec->pstDnsServer, count * sizeof(DNS_IPADDR_S));
            if (err != 0) {
                DNS_LOG(3, "secure func return fail! err = %d", err);
            }
        }
        DNS_FreeLocalServer(rec);
        rec->pstDnsServer = grown;
        capacity = grown_count;
    }
    // The new entry starts as an empty IPv4 record: a text that is not parsed
    // (empty, or neither '.' nor ':') leaves it so, which makes the resolver
    // loop skip it and discovery fail when it is the first entry.
    DNS_IPADDR_S *entry = &rec->pstDnsServer[count];
    std::memset(entry, 0, sizeof(*entry));
    if (text[0] != '\0') {
        uint32_t ret = DNS_GetServerIpAndIpType(text, entry);
        if (ret != DNS_OK) {
            DNS_FreeLocalServer(rec);
            rec->ulDnsServers = 0;
            return ret;
        }
    } else {
        DNS_LOG(2, "%s", "no primary DNS server found!\r\n");
    }
    rec->ulDnsServers = count + 1;
    return DNS_OK;
}

} // namespace vekdns::detail

extern "C" {

VEK_DNS_API uint32_t DNS_GetServerIpAndIpType(const char *pszServer, DNS_IPADDR_S *pstIpAddr) {
    if (pszServer == nullptr || pstIpAddr == nullptr) {
        return DNS_ERR_PARA_INVALID;
    }
    char text[server_text_size] = {};
    // Longer text is cut to 39 characters before it is converted.
    errno_t err = strncpy_s(text, sizeof(text), pszServer, sizeof(text) - 1);
    if (err != 0) {
        DNS_LOG(3, "secure func return fail! err = %d", err);
    }
    char *end = std::strchr(text, '\r');
    if (end != nullptr) {
        *end = '\0';
    }
    cut_at_newline(text);

    if (std::strchr(text, '.') != nullptr) {
        pstIpAddr->ulType = DNS_IP_TYPE_IPV4;
        pstIpAddr->unIpAddr.ulIpv4 = PAL_InetAddr(text); // 0xFFFFFFFF kept as it comes
    }
    if (std::strchr(text, ':') != nullptr) {
        pstIpAddr->ulType = DNS_IP_TYPE_IPV6;
        if (PAL_Inet_Pton(AF_INET6, text, pstIpAddr->unIpAddr.aucIpv6) <= 0) {
            return DNS_ERR_TEXT_TO_ADDR;
        }
    }
    return DNS_OK;
}

VEK_DNS_API void DNS_FreeLocalServer(DNS_LOCAL_SERVER_S *pstLocalServer) {
    if (pstLocalServer == nullptr || pstLocalServer->pstDnsServer == nullptr) {
        return;
    }
    VEK_FREE(pstLocalServer->pstDnsServer);
    pstLocalServer->pstDnsServer = nullptr;
}

VEK_DNS_API uint32_t dnsAddLocalServer(const char *pszServer, DNS_LOCAL_SERVER_S *pstLocalServer) {
    uint32_t capacity = pstLocalServer != nullptr ? pstLocalServer->ulDnsServers : 0;
    return vekdns::detail::add_local_server(pszServer, pstLocalServer, capacity, false);
}

VEK_DNS_API uint32_t DNS_LocateDnsServer(DNS_LOCAL_SERVER_S *pstLocalServer) {
    if (pstLocalServer == nullptr) {
        return DNS_ERR_PARA_INVALID;
    }
    char line[line_buffer_size] = {};
    {
        resolv_file file;
        if (!file.is_open()) {
            DNS_LOG(2, "can not open /etc/resolv.conf!\r\n");
            return DNS_ERR_OPEN_FILE;
        }
        // Each read is a piece of at most 127 characters; a longer line comes
        // in several pieces, and each piece counts as a line of its own. Only
        // the space separates tokens: the line feed stays on the last one.
        // More than max_read_bytes is no resolver file (an endless device).
        uint64_t read = 0;
        uint32_t capacity = 0;
        while (PAL_Fgets(line, line_read_size, file.get()) != nullptr) {
            read += vekdns::detail::piece_bytes(line, file.get());
            if (read > vekdns::detail::max_read_bytes) {
                DNS_FreeLocalServer(pstLocalServer);
                return DNS_ERR_FILE_FORMAT;
            }
            char *ctx = nullptr;
            char *key = strtok_s(line, " ", &ctx);
            if (key == nullptr) {
                DNS_FreeLocalServer(pstLocalServer);
                return DNS_ERR_FILE_FORMAT;
            }
            if (std::strcmp(key, "nameserver") == 0) {
                char *server = strtok_s(nullptr, " ", &ctx);
                if (server == nullptr) {
                    DNS_FreeLocalServer(pstLocalServer);
                    return DNS_ERR_FILE_FORMAT;
                }
                uint32_t ret = vekdns::detail::add_local_server(server, pstLocalServer, capacity, true);
                if (ret != DNS_OK) {
                    return ret; // the array is already released
                }
            } else if (std::strcmp(key, "domain") == 0) {
                take_domain_line(pstLocalServer, &ctx);
            } else if (std::strcmp(key, "search") == 0) {
                take_search_line(pstLocalServer, &ctx);
            }
        }
    }
    if (!first_server_usable(pstLocalServer)) {
        DNS_FreeLocalServer(pstLocalServer);
        DNS_LOG(2, "locate dns server failed!\r\n");
        return DNS_ERR_NO_SERVER;
    }
    return DNS_OK;
}

} // extern "C"
