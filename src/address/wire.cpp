// Address questions on the wire: one connected UDP socket and one A or AAAA
// question per try, and the addresses taken out of the reply.
#include <atomic>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>

#include "base/secure_log.h"
#include "address/transport.h"
#include "address/wire_internal.h"
#include "base/memory.h"
#include "base/secure.h"
#include "base/sys.h"
#include "base/wire_cursor.h"
#include "vek_dns_ops.h"
#include "vek_os_adapter.h"

namespace {

constexpr uint16_t dns_port = 53;
constexpr size_t header_size = 12;
constexpr uint16_t flags_rd = 0x0100; // recursion desired, nothing else
constexpr uint16_t qtype_a = 1;
constexpr uint16_t qtype_aaaa = 28;
constexpr uint16_t qclass_in = 1;
// Header, name (length + 2 for its first length byte and the closing zero),
// QTYPE and QCLASS take length + 18; the rest is slack.
constexpr size_t message_slack = 22;

using vekdns::log_secure_failure;

void close_socket(int32_t *sock) {
    (void)PAL_CloseSocket(*sock);
    *sock = -1;
}

} // namespace

namespace vekdns::detail {

uint32_t take_reply(std::span<const uint8_t> reply, DNS_IPADDR_S *addrs, uint32_t *count,
                    uint32_t capacity, uint32_t *ttls) {
    if (addrs == nullptr || count == nullptr || ttls == nullptr || *count > capacity) {
        return 1;
    }
    uint32_t found = *count;
    if (found == capacity) {
        return found != 0 ? 0 : 1;
    }
    // A reply too short for a header is rejected like a bad header.
    if (reply.size() < wire::header_size || !wire::is_response(reply) || wire::rcode(reply) != 0 ||
        wire::ancount(reply) == 0) {
        DNS_LOG(2, "parse head failed!\r\n");
        return 1;
    }
    // Counts are never trusted: the cursor checks every step against the
    // bytes that remain, so a lying count ends the walk at the datagram's end.
    wire::cursor c(reply, wire::header_size);
    if (!wire::skip_questions(c, wire::qdcount(reply))) {
        return 1;
    }
    const wire::walk_end end = wire::walk_records(c, wire::ancount(reply), [&](const wire::record &r) {
        // The TTL slot of the next address is rewritten by every answer
        // until an address is taken.
        ttls[found] = r.ttl;
        DNS_IPADDR_S *entry = &addrs[found];
        if (r.type == wire::type_a && r.data.size() == 4) {
            std::memset(entry, 0, sizeof(*entry));
            entry->ulType = DNS_IP_TYPE_IPV4;
            std::memcpy(&entry->unIpAddr.ulIpv4, r.data.data(), 4);
            ++found;
        } else if (r.type == wire::type_aaaa && r.data.size() == sizeof(entry->unIpAddr.aucIpv6)) {
            // AAAA data of any other length is not an IPv6 address: it is
            // stepped over like any other record, and nothing is counted.
            entry->ulType = DNS_IP_TYPE_IPV6;
            std::memcpy(entry->unIpAddr.aucIpv6, r.data.data(), r.data.size());
            ++found;
        }
        return found < capacity;
    });
    if (end == wire::walk_end::cut_header || end == wire::walk_end::cut_data) {
        return 1;
    }
    *count = found;
    return found != 0 ? 0 : 1;
}

} // namespace vekdns::detail

extern "C" {

VEK_DNS_API uint16_t g_usQueryId = 1;

VEK_DNS_API uint8_t *DNS_Spread2Bytes(uint8_t *pucPos, uint32_t ulValue) {
    pucPos[0] = static_cast<uint8_t>(ulValue >> 8);
    pucPos[1] = static_cast<uint8_t>(ulValue);
    return pucPos + 2;
}

VEK_DNS_API uint16_t DNS_Build2Bytes(const uint8_t *pucPos) {
    return static_cast<uint16_t>((pucPos[0] << 8) | pucPos[1]);
}

VEK_DNS_API uint32_t DNS_Build4Bytes(const uint8_t *pucPos) {
    return (static_cast<uint32_t>(pucPos[0]) << 24) | (static_cast<uint32_t>(pucPos[1]) << 16) |
           (static_cast<uint32_t>(pucPos[2]) << 8) | static_cast<uint32_t>(pucPos[3]);
}

// Steps over a name (labels up to a zero byte, or up to a compression
// pointer, which ends it). Pointers are never followed: only the position
// behind the name is needed. Every length byte read lies below ulRemaining,
// and a pointer whose second byte is missing counts as running past the end.
VEK_DNS_API const uint8_t *DNS_ParseRecord(const uint8_t *pucPos, uint32_t ulRemaining) {
    if (pucPos == nullptr) {
        return nullptr;
    }
    size_t off = 0;
    while (off < ulRemaining) {
        const uint8_t b = pucPos[off];
        if (b == 0) {
            return pucPos + off + 1;
        }
        if ((b & 0xC0) == 0xC0) {
            return off + 2 <= ulRemaining ? pucPos + off + 2 : nullptr;
        }
        off += static_cast<size_t>(b) + 1;
    }
    return nullptr;
}

VEK_DNS_API uint32_t DNS_CreatSocketAndConnect(int32_t *plSock, const DNS_IPADDR_S *pstServer) {
    if (plSock == nullptr || pstServer == nullptr) {
        return DNS_ERR_PARA_INVALID;
    }
    sockaddr_in v4 = {};
    sockaddr_in6 v6 = {};
    const sockaddr *dest = nullptr;
    socklen_t dest_len = 0;
    int family = 0;
    if (pstServer->ulType == DNS_IP_TYPE_IPV4) {
        family = AF_INET;
        v4.sin_family = AF_INET;
        v4.sin_port = htons(dns_port);
        v4.sin_addr.s_addr = pstServer->unIpAddr.ulIpv4;
        dest = reinterpret_cast<const sockaddr *>(&v4);
        dest_len = sizeof(v4);
    } else if (pstServer->ulType == DNS_IP_TYPE_IPV6) {
        family = AF_INET6;
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(dns_port);
        log_secure_failure(memcpy_s(&v6.sin6_addr, sizeof(v6.sin6_addr), pstServer->unIpAddr.aucIpv6,
                                    sizeof(pstServer->unIpAddr.aucIpv6)));
        dest = reinterpret_cast<const sockaddr *>(&v6);
        dest_len = sizeof(v6);
    } else {
        return DNS_ERR_IP_TYPE;
    }
    *plSock = vekdns::sys::socket(family, SOCK_DGRAM, 0);
    if (*plSock < 0) {
        DNS_LOG(2, "open socket failed!\r\n");
        return DNS_ERR_SOCKET;
    }
    if (vekdns::sys::connect(*plSock, dest, dest_len) != 0) {
        DNS_LOG(2, "connect to server failed!\r\n");
        close_socket(plSock);
        return DNS_ERR_CONNECT;
    }
    return DNS_OK;
}

VEK_DNS_API uint32_t DNS_Query(char *pszName, uint32_t ulNameLen, const DNS_IPADDR_S *pstServer,
                               uint32_t ulType, int32_t *plSock) {
    return vekdns::detail::send_question(pszName, ulNameLen, pstServer, ulType, plSock, {}, nullptr);
}

} // extern "C"

namespace vekdns::detail {

uint32_t send_question(char *pszName, uint32_t ulNameLen, const DNS_IPADDR_S *pstServer,
                       uint32_t ulType, int32_t *plSock, std::span<uint8_t> keep, size_t *kept) {
    if (pszName == nullptr || pstServer == nullptr || plSock == nullptr) {
        return DNS_ERR_PARA_INVALID;
    }
    DNS_LOG(6, "Entren DNS_Query");
    DNS_LOG(6, "DNS_Query pszName: %s", pszName);
    DNS_LOG(6, "DNS_Query ulType: %d", ulType);
    DNS_LOG(6, "DNS_Query DnsSvr: %x", pstServer->unIpAddr.ulIpv4);
    uint32_t ret = DNS_CreatSocketAndConnect(plSock, pstServer);
    if (ret != DNS_OK) {
        DNS_LOG(3, "DNS_CreatSocketAndConnect failed lRet: %x", ret);
        return ret;
    }

    // The counter is shared with the service queries and takes no lock; the
    // atomic step only keeps concurrent increments well defined.
    const uint16_t id = std::atomic_ref<uint16_t>(g_usQueryId).fetch_add(1, std::memory_order_relaxed);
    uint8_t header[header_size] = {};
    DNS_Spread2Bytes(header, id);
    DNS_Spread2Bytes(header + 2, flags_rd);
    DNS_Spread2Bytes(header + 4, 1); // QDCOUNT; the other counts stay 0

    const size_t size = static_cast<size_t>(ulNameLen) + message_slack;
    auto *msg = static_cast<uint8_t *>(VEK_MALLOC(size));
    if (msg == nullptr) {
        DNS_LOG(2, "alloc memory failed!\r\n");
        close_socket(plSock);
        return DNS_ERR_NO_MEMORY;
    }
    const uint8_t *msg_end = msg + size;
    log_secure_failure(memcpy_s(msg, size, header, sizeof(header)));

    size_t len = ulNameLen;
    if (len != 0 && pszName[len - 1] == '.') {
        pszName[len - 1] = '\0';
        --len;
    }
    uint8_t *out = wire::encode_name(msg + header_size, msg_end, pszName, len);
    out = DNS_Spread2Bytes(out, ulType == DNS_SEARCH_TYPE_A ? qtype_a : qtype_aaaa);
    out = DNS_Spread2Bytes(out, qclass_in);

    const size_t msg_len = static_cast<size_t>(out - msg);
    if (kept != nullptr && msg_len <= keep.size()) {
        std::memcpy(keep.data(), msg, msg_len);
        *kept = msg_len;
    }
    const ssize_t sent = vekdns::sys::send(*plSock, msg, msg_len, 0);
    VEK_FREE(msg);
    if (sent < 0) {
        DNS_LOG(2, "send data failed!\r\n");
        close_socket(plSock);
        return DNS_ERR_SEND;
    }
    return DNS_OK;
}

} // namespace vekdns::detail

extern "C" {

VEK_DNS_API uint32_t DNS_Read(int32_t lSock, DNS_IPADDR_S *pstIpAddr, uint32_t *pulCount,
                              uint32_t ulCapacity, uint32_t *pulTtl) {
    if (pstIpAddr == nullptr || pulCount == nullptr || pulTtl == nullptr || *pulCount > ulCapacity) {
        return 1;
    }
    if (*pulCount == ulCapacity) {
        return *pulCount != 0 ? 0 : 1; // full: nothing is received
    }
    // Not cleared: the reader looks at the received bytes only.
    uint8_t buf[vekdns::detail::reply_buffer_size];
    const ssize_t got = vekdns::transport::receive(lSock, buf, vekdns::detail::reply_max_len);
    if (got <= 0) {
        DNS_LOG(2, "recv data failed!\r\n");
        return 1;
    }
    return vekdns::detail::take_reply(std::span<const uint8_t>(buf, static_cast<size_t>(got)),
                                      pstIpAddr, pulCount, ulCapacity, pulTtl);
}

} // extern "C"
