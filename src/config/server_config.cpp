// Name-server configuration: the application sets and reads the nameserver
// lines of /etc/resolv.conf and the cache parameters through these calls.
#include <arpa/inet.h>
#include <cstring>

#include "base/sem_guard.h"
#include "base/text_file.h"
#include "config/cache_params.h"
#include "config/discovery.h"

using namespace vekdns::detail;

namespace {

constexpr const char *resolv_conf_path = "/etc/resolv.conf";
constexpr size_t address_text_size = 64;
constexpr size_t print_text_size = 46;
constexpr uint32_t inet_addr_failure = 0xFFFFFFFFu;

bool is_empty_server(const DNS_SERVER_S *server) {
    static const uint8_t unspecified[sizeof(server->unIpAddr.aucIpv6)] = {};
    if (server->ulType == DNS_IP_TYPE_IPV4) {
        return server->unIpAddr.ulIpv4 == 0;
    }
    if (server->ulType == DNS_IP_TYPE_IPV6) {
        return PAL_MemCmp(server->unIpAddr.aucIpv6, unspecified, sizeof(unspecified)) == 0;
    }
    return false;
}

// The rewrite counts a line only when it starts with the keyword itself and
// a blank follows it: no leading blanks, no tab, not the keyword alone with
// its line feed.
bool rewrite_sees_server_line(const char *piece) {
    line_words words(piece);
    return piece[0] != ' ' && word_is(words.next(), "nameserver");
}

// Address text of a server: empty for the empty IPv4 server. False when the
// address cannot be turned into text.
bool server_address_text(const DNS_SERVER_S *server, char (&text)[address_text_size]) {
    if (server->ulType == DNS_IP_TYPE_IPV4) {
        if (server->unIpAddr.ulIpv4 == 0) {
            return true;
        }
        char dotted[INET_ADDRSTRLEN] = {};
        if (PAL_Inet_Ntop(AF_INET, &server->unIpAddr.ulIpv4, dotted, sizeof(dotted)) == nullptr) {
            return false;
        }
        copy_text(text, dotted);
        return true;
    }
    return PAL_Inet_Ntop(AF_INET6, server->unIpAddr.aucIpv6, text, sizeof(text)) != nullptr;
}

uint32_t set_one_server(uint32_t index, const DNS_SERVER_S *server, const char *what) {
    uint32_t ret = DNS_SetServer(index, server);
    if (ret != DNS_OK) {
        DNS_LOG(3, "DNS_SetServer %s ulRtn : %x", what, ret);
    }
    return ret;
}

uint32_t set_config_servers(uint32_t mask, const DNS_SERVER_S *first, const DNS_SERVER_S *second) {
    const bool want_first = (mask & DNS_CONFIG_MASK_FIRST_SERVER) != 0;
    const bool want_second = (mask & DNS_CONFIG_MASK_SECOND_SERVER) != 0;
    if (want_first && want_second) {
        if (first == nullptr || second == nullptr) {
            DNS_LOG(3, "ORV_NETB_DnsSetConfig sever invalid");
            return DNS_ERR_PARA_INVALID;
        }
        if (first->ulType > DNS_IP_TYPE_IPV6 || second->ulType > DNS_IP_TYPE_IPV6) {
            DNS_LOG(3, "ORV_NETB_DnsSetConfig ip type invalid");
            return DNS_ERR_PARA_INVALID;
        }
        DnsIPaddrPrint(first);
        // An empty first server deletes the first line; the former second
        // line, now the first, then takes the second server.
        uint32_t second_index = 2;
        if (is_empty_server(first)) {
            DNS_LOG(5, "Delete dns servr");
            second_index = 1;
        } else {
            DNS_LOG(5, "Add dns servr");
        }
        uint32_t ret = set_one_server(1, first, "pstFirstServer");
        if (ret != DNS_OK) {
            return ret;
        }
        return set_one_server(second_index, second, "pstSecondServer");
    }
    if (want_first) {
        if (first == nullptr) {
            DNS_LOG(3, "ORV_NETB_DnsSetConfig pstFirstServer invalid");
            return DNS_ERR_PARA_INVALID;
        }
        if (first->ulType > DNS_IP_TYPE_IPV6) {
            DNS_LOG(3, "ORV_NETB_DnsSetConfig pstFirstServer ip type invalid");
            return DNS_ERR_PARA_INVALID;
        }
        uint32_t ret = set_one_server(1, first, "pstFirstServer");
        if (ret != DNS_OK) {
            return ret;
        }
    }
    if (want_second) {
        if (second == nullptr) {
            DNS_LOG(3, "ORV_NETB_DnsSetConfig pstSecondServer invalid");
            return DNS_ERR_PARA_INVALID;
        }
        if (second->ulType > DNS_IP_TYPE_IPV6) {
            DNS_LOG(3, "ORV_NETB_DnsSetConfig pstSecondServer ip type invalid");
            return DNS_ERR_PARA_INVALID;
        }
        return set_one_server(2, second, "pstSecondServer");
    }
    return DNS_OK;
}

uint32_t set_config_cache(uint32_t mask, uint32_t record_num, uint32_t time) {
    const uint32_t number = (mask & DNS_CONFIG_MASK_RECORD_NUM) != 0 ? record_num : 0;
    const uint32_t seconds = (mask & DNS_CONFIG_MASK_TIME) != 0 ? time : 0;
    struct target {
        const char *path;
        const char *failure;
    };
    static constexpr target targets[] = {
        {vekdns::ipv4_cache_path, "DNS_SetCache ulRtn : %x"},
        {vekdns::srv_cache_path, "DNS_SetCache srv ulRtn : %x"},
        {vekdns::ipv6_cache_path, "DNS_SetCache AAAA ulRtn : %x"},
    };
    for (const target &t : targets) {
        uint32_t ret = DNS_SetCache(number, seconds, t.path);
        if (ret != DNS_OK) {
            DNS_LOG(3, t.failure, ret);
            return ret;
        }
    }
    return DNS_OK;
}

} // namespace

extern "C" {

VEK_DNS_API uint32_t DNS_SetServer(uint32_t ulIndex, const DNS_SERVER_S *pstServer) {
    char piece[line_buffer_size] = {};
    char line[line_buffer_size] = {};
    char address[address_text_size] = {};
    if (pstServer == nullptr || (ulIndex != 1 && ulIndex != 2) ||
        (pstServer->ulType == DNS_IP_TYPE_IPV4 && pstServer->unIpAddr.ulIpv4 == inet_addr_failure)) {
        DNS_LOG(2, "inputting parameter error!\r\n");
        return DNS_ERR_PARA_INVALID;
    }
    // Another family would write a server line without an address.
    if (pstServer->ulType > DNS_IP_TYPE_IPV6) {
        DNS_LOG(2, "inputting parameter error!\r\n");
        return DNS_ERR_PARA_INVALID;
    }
    if (!server_address_text(pstServer, address)) {
        return DNS_ERR_ADDR_TO_TEXT;
    }
    // The empty IPv4 server and the IPv6 "::" delete the position.
    const bool drop = (pstServer->ulType == DNS_IP_TYPE_IPV4 && pstServer->unIpAddr.ulIpv4 == 0) ||
                      PAL_StrCmp(address, "::") == 0;

    temp_rewrite temp(vekdns::resolv_temp_path, "write temp file failed!\r\n");
    if (!temp.open()) {
        DNS_LOG(2, "open or create temp file failed!\r\n");
        return DNS_ERR_OPEN_FILE;
    }
    text_file conf(resolv_conf_path, "r");
    if (!conf.is_open()) {
        return open_failed();
    }

    uint32_t counter = 0;
    bool last_ended_with_newline = true; // nothing written yet
    while (conf.next_piece(piece)) {
        const char *out = piece;
        if (counter < ulIndex && rewrite_sees_server_line(piece)) {
            ++counter;
            if (counter == ulIndex) {
                if (drop) {
                    out = nullptr;
                } else {
                    (void)format_line(line, "nameserver %s\n", address);
                    out = line;
                }
            }
        }
        if (out == nullptr) {
            continue;
        }
        if (!temp.out.put(out)) {
            DNS_LOG(2, "write temp file failed!\r\n");
            return DNS_ERR_WRITE_FILE;
        }
        size_t len = std::strlen(out);
        if (len != 0) {
            last_ended_with_newline = out[len - 1] == '\n';
        }
    }
    if (!conf.ended()) {
        return conf.stop_code(); // read stopped early: keep the file as it is
    }
    if (!drop && counter < ulIndex) {
        (void)format_line(line, last_ended_with_newline ? "nameserver %s\n" : "\nnameserver %s\n", address);
        if (!temp.out.put(line)) {
            DNS_LOG(2, "write temp file failed!\r\n");
            return DNS_ERR_WRITE_FILE;
        }
    }
    const uint32_t ret = temp.commit(conf, resolv_conf_path);
    forget_resolver_snapshot();
    return ret;
}

VEK_DNS_API uint32_t DNS_GetServer(uint32_t ulIndex, DNS_SERVER_S *pstServer) {
    if (pstServer == nullptr) {
        DNS_LOG(2, "inputting parameter error!\r\n");
        return DNS_ERR_PARA_INVALID;
    }
    text_file conf(resolv_conf_path, "r");
    if (!conf.is_open()) {
        return open_failed();
    }
    char piece[line_buffer_size] = {};
    uint32_t counter = 0;
    while (conf.next_piece(piece)) {
        // Reading skips leading blanks before the keyword.
        line_words words(piece);
        if (!word_is(words.next(), "nameserver")) {
            continue;
        }
        if (++counter != ulIndex) {
            continue;
        }
        const char *token = words.next();
        if (token == nullptr || std::strlen(token) >= address_text_size) {
            DNS_LOG(2, "name server's IP is incorrect!\r\n");
            return DNS_ERR_FILE_FORMAT;
        }
        char address[address_text_size] = {};
        copy_text(address, token);
        size_t len = std::strlen(address);
        if (len != 0 && address[len - 1] == '\n') {
            address[len - 1] = '\0';
        }
        conf.close();
        uint32_t ret = DNS_GetServerIpAndIpType(address, pstServer);
        if (ret != DNS_OK) {
            return ret;
        }
        if (pstServer->unIpAddr.ulIpv4 == inet_addr_failure) {
            DNS_LOG(2, "name server's IP is incorrect!\r\n");
            return DNS_ERR_IP_TYPE;
        }
        return DNS_OK;
    }
    if (!conf.ended()) {
        return conf.stop_code();
    }
    conf.close();
    std::memset(pstServer, 0, sizeof(*pstServer));
    DNS_LOG(2, "Server does not exist");
    return DNS_OK;
}

VEK_DNS_API void DnsIPaddrPrint(const DNS_SERVER_S *pstServer) {
    if (pstServer == nullptr) {
        DNS_LOG(3, "pstFirstServer is null");
        return;
    }
    char text[print_text_size] = {};
    if (pstServer->ulType == DNS_IP_TYPE_IPV4) {
        (void)PAL_Inet_Ntop(AF_INET, &pstServer->unIpAddr.ulIpv4, text, sizeof(text));
    } else if (pstServer->ulType == DNS_IP_TYPE_IPV6) {
        (void)PAL_Inet_Ntop(AF_INET6, pstServer->unIpAddr.aucIpv6, text, sizeof(text));
    }
    char masked[print_text_size] = {};
    if (vek_filter_ipaddr_str(text, masked, sizeof(masked)) != 0) {
        masked[0] = '\0';
    }
    DNS_LOG(5, "pstFirstServer->ulType : %x, IP : %s", pstServer->ulType, masked);
}

VEK_DNS_API uint32_t ORV_NETB_DnsSetConfig(uint32_t ulMask, const DNS_SERVER_S *pstFirstServer,
                                           const DNS_SERVER_S *pstSecondServer, uint32_t ulRecordNum,
                                           uint32_t ulTime) {
    DNS_LOG(5, "Entern ORV_NETB_DnsSetConfig");
    vekdns::named_sem_section lock;
    if (!lock.is_open()) {
        DNS_LOG(3, "ORV_NETB_DnsSetConfig DNS_SemOpen failed");
        return lock.open_result();
    }
    DNS_LOG(5, "ORV_NETB_DnsSetConfig ulMask: %x", ulMask);
    uint32_t ret = set_config_servers(ulMask, pstFirstServer, pstSecondServer);
    if (ret != DNS_OK) {
        return ret;
    }
    ret = set_config_cache(ulMask, ulRecordNum, ulTime);
    if (ret != DNS_OK) {
        return ret;
    }
    lock.release();
    DNS_LOG(5, "Out ORV_NETB_DnsSetConfig Success.");
    return DNS_OK;
}

VEK_DNS_API uint32_t ORV_NETB_DnsGetConfig(uint32_t ulMask, DNS_SERVER_S *pstFirstServer,
                                           DNS_SERVER_S *pstSecondServer, uint32_t *pulRecordNum,
                                           uint32_t *pulTime) {
    DNS_LOG(5, "Entern ORV_NETB_DnsGetConfig");
    vekdns::named_sem_section lock;
    if (!lock.is_open()) {
        return lock.open_result();
    }
    DNS_LOG(5, "ORV_NETB_DnsGetConfig ulMask: %x", ulMask);
    if ((ulMask & DNS_CONFIG_MASK_FIRST_SERVER) != 0) {
        if (pstFirstServer == nullptr) {
            DNS_LOG(3, "pstFirstServer is null");
            return DNS_ERR_PARA_INVALID;
        }
        uint32_t ret = DNS_GetServer(1, pstFirstServer);
        if (ret != DNS_OK) {
            DNS_LOG(3, "DNS_GetServer ulRtn: %x", ret);
            return ret;
        }
    }
    if ((ulMask & DNS_CONFIG_MASK_SECOND_SERVER) != 0) {
        if (pstSecondServer == nullptr) {
            DNS_LOG(3, "pstSecondServer is null");
            return DNS_ERR_PARA_INVALID;
        }
        uint32_t ret = DNS_GetServer(2, pstSecondServer);
        if (ret != DNS_OK) {
            DNS_LOG(3, "DNS_GetServer ulRtn: %x", ret);
            return ret;
        }
    }
    if ((ulMask & DNS_CONFIG_MASK_RECORD_NUM) != 0) {
        if (pulRecordNum == nullptr) {
            DNS_LOG(3, "pulRecordNum is null");
            return DNS_ERR_PARA_INVALID;
        }
        uint32_t ret = DNS_GetCache(pulRecordNum, nullptr);
        if (ret != DNS_OK) {
            DNS_LOG(3, "DNS_GetCache ulRtn: %x", ret);
            return ret;
        }
    }
    if ((ulMask & DNS_CONFIG_MASK_TIME) != 0) {
        if (pulTime == nullptr) {
            DNS_LOG(3, "pulTime is null");
            return DNS_ERR_PARA_INVALID;
        }
        uint32_t ret = DNS_GetCache(nullptr, pulTime);
        if (ret != DNS_OK) {
            DNS_LOG(3, "DNS_GetCache ulRtn: %x", ret);
            return ret;
        }
    }
    lock.release();
    DNS_LOG(5, "Out ORV_NETB_DnsGetConfig Success.");
    return DNS_OK;
}

VEK_DNS_API uint32_t ORV_NETB_SetServer(const DNS_SERVER_S *pstServerList, uint32_t ulSize) {
    DNS_LOG(5, "Entern ORV_NETB_SetServer");
    if (ulSize > 3) {
        DNS_LOG(3, "ORV_NETB_SetServer Size is too long: %d", static_cast<int>(ulSize));
        return DNS_ERR_PARA_INVALID;
    }
    // A missing list, or a record of another family (it would be written as a
    // server line without an address), is refused before anything is written.
    if (pstServerList == nullptr && ulSize != 0) {
        DNS_LOG(2, "inputting parameter error!\r\n");
        return DNS_ERR_PARA_INVALID;
    }
    for (uint32_t i = 0; i < ulSize; ++i) {
        if (pstServerList[i].ulType > DNS_IP_TYPE_IPV6) {
            DNS_LOG(2, "inputting parameter error!\r\n");
            return DNS_ERR_PARA_INVALID;
        }
    }
    vekdns::named_sem_section lock;
    if (!lock.is_open()) {
        return lock.open_result();
    }
    // Empty records neither delete a line nor use up a position.
    uint32_t position = 1;
    for (uint32_t i = 0; i < ulSize; ++i) {
        if (is_empty_server(&pstServerList[i])) {
            continue;
        }
        uint32_t ret = DNS_SetServer(position, &pstServerList[i]);
        if (ret != DNS_OK) {
            DNS_LOG(3, "ORV_NETB_SetServer DNS_SetServer ulIndex:%d ulRtn: %x", static_cast<int>(i), ret);
            return ret;
        }
        ++position;
    }
    lock.release();
    DNS_LOG(5, "Out ORV_NETB_SetServer Success");
    return DNS_OK;
}

VEK_DNS_API uint32_t ORV_NETB_GetServer(DNS_SERVER_S *pstServerList, uint32_t ulSize,
                                        uint32_t *pulServerCount) {
    DNS_LOG(5, "Entern ORV_NETB_GetServer");
    if (ulSize < 1 || ulSize > 3) {
        DNS_LOG(3, "ORV_NETB_GetServer Size invalid: %d", static_cast<int>(ulSize));
        return DNS_ERR_PARA_INVALID;
    }
    if (pulServerCount == nullptr) {
        DNS_LOG(3, "ORV_NETB_GetServer pulServerCount is null");
        return DNS_ERR_PARA_INVALID;
    }
    if (pstServerList == nullptr) {
        DNS_LOG(2, "inputting parameter error!\r\n");
        return DNS_ERR_PARA_INVALID;
    }
    vekdns::named_sem_section lock;
    if (!lock.is_open()) {
        return lock.open_result();
    }
    *pulServerCount = 0;
    for (uint32_t i = 0; i < ulSize; ++i) {
        std::memset(&pstServerList[i], 0, sizeof(pstServerList[i]));
        uint32_t ret = DNS_GetServer(i + 1, &pstServerList[i]);
        if (ret != DNS_OK) {
            DNS_LOG(3, "ORV_NETB_GetServer DNS_GetServer ulIndex:%d ulRtn: %x", static_cast<int>(i), ret);
            return ret;
        }
        if (pstServerList[i].ulType == DNS_IP_TYPE_IPV4 && pstServerList[i].unIpAddr.ulIpv4 == 0) {
            break;
        }
        ++*pulServerCount;
    }
    lock.release();
    DNS_LOG(5, "Out ORV_NETB_GetServer Success");
    return DNS_OK;
}

} // extern "C"
