// The resolver loop: literals, then every configured server asked for the
// name and for the name completed with each search suffix.
#include <cstring>

#include <arpa/inet.h>
#include <sys/select.h>

#include "address/wire_internal.h"
#include "base/secure.h"
#include "base/sem_guard.h"
#include "base/sys.h"
#include "vek_dns_ops.h"
#include "vek_os_adapter.h"

namespace {

constexpr size_t name_buffer_size = 256;
constexpr size_t max_name_len = name_buffer_size - 1;
constexpr size_t max_label_len = 63;
constexpr size_t max_ipv4_literal_len = 16;
constexpr uint32_t max_names_per_server = 1 + DNS_MAX_SEARCH_DOMAIN;

void log_secure_failure(errno_t err) {
    if (err != 0) {
        DNS_LOG(3, "secure func return fail! err = %d", err);
    }
}

// PAL_InitSocket on entry, PAL_DInitSocket exactly once on the way out.
class socket_layer {
public:
    socket_layer() { (void)PAL_InitSocket(); }
    ~socket_layer() { (void)PAL_DInitSocket(); }
    socket_layer(const socket_layer &) = delete;
    socket_layer &operator=(const socket_layer &) = delete;
};

// The server record of one call; released on every path out.
class local_servers {
public:
    local_servers() { std::memset(&rec_, 0, sizeof(rec_)); }
    ~local_servers() { DNS_FreeLocalServer(&rec_); }
    local_servers(const local_servers &) = delete;
    local_servers &operator=(const local_servers &) = delete;
    DNS_LOCAL_SERVER_S *get() { return &rec_; }

private:
    DNS_LOCAL_SERVER_S rec_;
};

// The socket of the current question; -1 when none is open.
class question_socket {
public:
    question_socket() = default;
    ~question_socket() { close(); }
    question_socket(const question_socket &) = delete;
    question_socket &operator=(const question_socket &) = delete;
    int32_t *ptr() { return &fd_; }
    int32_t fd() const { return fd_; }
    bool is_open() const { return fd_ >= 0; }
    void close() {
        if (fd_ >= 0) {
            (void)PAL_CloseSocket(fd_);
        }
        fd_ = -1;
    }

private:
    int32_t fd_ = -1;
};

// Address literals are answered without traffic. The first entry's family
// is set in any case.
bool take_literal(const DNS_HOSTNAME_S *req, DNS_IPADDR_S *first) {
    if (req->ulType == DNS_SEARCH_TYPE_A) {
        first->ulType = DNS_IP_TYPE_IPV4;
        // 255.255.255.255 reads as a failure and goes to the servers.
        uint32_t addr = PAL_InetAddr(req->pszName);
        if (addr != 0xFFFFFFFFu && std::strlen(req->pszName) <= max_ipv4_literal_len) {
            first->unIpAddr.ulIpv4 = addr;
            return true;
        }
        return false;
    }
    first->ulType = DNS_IP_TYPE_IPV6;
    uint8_t addr[16];
    if (PAL_Inet_Pton(AF_INET6, req->pszName, addr) > 0) {
        std::memcpy(first->unIpAddr.aucIpv6, addr, sizeof(addr));
        return true;
    }
    return false;
}

// Builds name + "." + suffix (no second dot when the name ends with one)
// into buf. False when the whole name would be longer than 255 characters.
bool complete_name(char (&buf)[name_buffer_size], const char *name, size_t name_len,
                   const char *suffix) {
    const size_t suffix_len = std::strlen(suffix);
    if (name_len + suffix_len + 1 > max_name_len) {
        DNS_LOG(4, "whole hostname too long, try the next domain");
        return false;
    }
    size_t used = name_len;
    log_secure_failure(memcpy_s(buf, sizeof(buf), name, name_len));
    if (name_len == 0 || name[name_len - 1] != '.') {
        buf[used++] = '.';
    }
    log_secure_failure(memcpy_s(buf + used, sizeof(buf) - used, suffix, suffix_len));
    used += suffix_len;
    buf[used] = '\0';
    buf[sizeof(buf) - 1] = '\0';
    return true;
}

} // namespace

extern "C" {

VEK_DNS_API void DNS_TransferIpAddr(const DNS_IPADDR_S *pstSrc, DNS_IPADDR_S *pstDst) {
    if (pstSrc == nullptr || pstDst == nullptr) {
        return;
    }
    const uint32_t family = pstSrc->ulType;
    if (family == 0 || family == 3) {
        const uint32_t addr = pstSrc->unIpAddr.ulIpv4;
        pstDst->ulType = DNS_IP_TYPE_IPV4;
        pstDst->unIpAddr.ulIpv4 = addr;
    } else if (family == 1 || family == 4) {
        pstDst->ulType = DNS_IP_TYPE_IPV6;
        if (pstDst != pstSrc) { // the same record needs no copy
            log_secure_failure(memcpy_s(pstDst->unIpAddr.aucIpv6, sizeof(pstDst->unIpAddr.aucIpv6),
                                        pstSrc->unIpAddr.aucIpv6, sizeof(pstSrc->unIpAddr.aucIpv6)));
        }
    }
}

VEK_DNS_API uint32_t DNS_JudgeTheServerIsAvalible(uint32_t ulIndex,
                                                  const DNS_LOCAL_SERVER_S *pstLocalServer,
                                                  DNS_IPADDR_S *pstServer) {
    if (pstLocalServer == nullptr || pstServer == nullptr || pstLocalServer->pstDnsServer == nullptr) {
        return 1;
    }
    const DNS_IPADDR_S *entry = &pstLocalServer->pstDnsServer[ulIndex];
    if (entry->ulType == DNS_IP_TYPE_IPV4 && entry->unIpAddr.ulIpv4 == 0) {
        return 1;
    }
    pstServer->ulType = entry->ulType;
    DNS_TransferIpAddr(entry, pstServer);
    return 0;
}

VEK_DNS_API uint32_t dnsCheckHostName(const char *pszName) {
    if (pszName == nullptr) {
        return 1;
    }
    size_t left = PAL_StrLen(pszName);
    if (left > max_name_len) {
        return 1;
    }
    if (left == 0) {
        return 0;
    }
    const char *label = pszName;
    for (const char *dot = PAL_StrChr(label, '.'); dot != nullptr; dot = PAL_StrChr(label, '.')) {
        const size_t label_len = static_cast<size_t>(dot - label);
        if (label_len > max_label_len) {
            return 1;
        }
        left -= label_len + 1;
        if (left == 0) {
            return 0; // the name ends with "."
        }
        label = dot + 1;
    }
    return left > max_label_len ? 1 : 0;
}

VEK_DNS_API uint32_t DNS_Resolve(const DNS_HOSTNAME_S *pstHostName, DNS_IPADDR_S *pstIpAddr,
                                 uint32_t *pulCount, uint32_t ulTimeOutSec, uint32_t *pulTtl) {
    socket_layer sockets;
    DNS_LOG(5, "Entren DNS_Resolve");
    // Only A and AAAA reach the loop; any other type is refused like a bad
    // argument rather than asked as something it is not.
    if (pstHostName == nullptr || pstIpAddr == nullptr || pulTtl == nullptr || pulCount == nullptr ||
        *pulCount == 0 || pstHostName->pszName == nullptr || pstHostName->ulType > DNS_SEARCH_TYPE_AAAA) {
        DNS_LOG(3, "DNS_Resolve param invalid");
        return DNS_ERR_PARA_INVALID;
    }
    if (pstHostName->pszName[0] == '\0') {
        return DNS_ERR_PARA_INVALID;
    }
    DNS_LOG(5, "pstHostName->ulType: %d", pstHostName->ulType);

    if (take_literal(pstHostName, &pstIpAddr[0])) {
        *pulCount = 1;
        return DNS_OK;
    }

    local_servers servers;
    DNS_LOCAL_SERVER_S *rec = servers.get();
    {
        // The named semaphore guards the resolver file only; it is released
        // before the first question goes out.
        vekdns::named_sem_section section;
        if (!section.is_open()) {
            *pulCount = 0;
            return section.open_result();
        }
        const uint32_t ret = DNS_LocateDnsServer(rec);
        section.release();
        if (ret != DNS_OK) {
            DNS_LOG(3, "DNS_LocateDnsServer ulRet: %x", ret);
            *pulCount = 0;
            return ret;
        }
    }
    DNS_LOG(6, "stServer.ulDnsServers : %d", rec->ulDnsServers);

    const uint32_t capacity = *pulCount;
    const char *name = pstHostName->pszName;
    const size_t name_len = std::strlen(name);
    uint32_t found = 0;
    uint32_t result = DNS_ERR_NOT_FOUND;
    question_socket sock;
    char buf[name_buffer_size];
    DNS_IPADDR_S server;

    for (uint32_t s = 0; s < rec->ulDnsServers; ++s) {
        std::memset(&server, 0, sizeof(server));
        if (DNS_JudgeTheServerIsAvalible(s, rec, &server) != 0) {
            DNS_LOG(4, "DNS_JudgeTheServerIsAvalible failed ulTryServer : %d", s);
            continue;
        }
        for (uint32_t d = 0; d < max_names_per_server; ++d) {
            if (d == 0) {
                log_secure_failure(strncpy_s(buf, sizeof(buf), name, max_name_len));
            } else {
                const char *suffix = rec->apszSearchDomain[d - 1];
                if (suffix == nullptr) {
                    break; // the suffix list ends at its first gap
                }
                if (!complete_name(buf, name, name_len, suffix)) {
                    continue;
                }
            }
            result = DNS_Query(buf, static_cast<uint32_t>(std::strlen(buf)), &server,
                               pstHostName->ulType, sock.ptr());
            DNS_LOG(6, "DNS_Query  lRet: %x lFdSock:%d, LastErr = %d, LastSocketErr = %d", result,
                    sock.fd(), PAL_GetLastErr(), PAL_GetLastSocketErr());
            if (!sock.is_open() || result != DNS_OK) {
                break; // this server cannot be asked: go on with the next one
            }
            if (!vekdns::detail::wait_readable(sock.fd(), ulTimeOutSec)) {
                result = DNS_ERR_TIMEOUT;
                sock.close();
                continue;
            }
            const uint32_t rd = DNS_Read(sock.fd(), pstIpAddr, &found, capacity, pulTtl);
            DNS_LOG(6, "DNS_Read lFdSock:%d ulRet: %x pulCount:%u", sock.fd(), rd, found);
            result = rd == 1 ? DNS_ERR_PARSE_ANSWER : DNS_OK;
            sock.close();
        }
    }

    *pulCount = found;
    return found != 0 ? DNS_OK : result;
}

} // extern "C"
