// SRV questions: the query name _service._proto.domain, the query message,
// and its transport (send on a fresh connected UDP socket, receive one reply).
#include <cstdio>
#include <cstring>

#include "base/secure_log.h"
#include "base/wire_cursor.h"
#include "address/transport.h"
#include "base/secure.h"
#include "base/sys.h"
#include "service/service_internal.h"
#include "vek_os_adapter.h"

namespace {

constexpr uint32_t max_service_len = 14;
constexpr uint32_t max_proto_len = 63;
constexpr uint32_t name_extra = 5; // '_', "._", '.', NUL
constexpr uint32_t min_msg_buf = 272;
constexpr uint32_t header_size = 12;
constexpr uint32_t type_srv = 33;
constexpr uint32_t class_in = 1;

using vekdns::log_secure_failure;

} // namespace

extern "C" {

VEK_DNS_API uint32_t DNS_SrvBuildName(const char *pszService, const char *pszProto, const char *pszDomain,
                                      char *pszBuf, uint32_t ulBufSize) {
    if (pszService == nullptr || pszProto == nullptr || pszDomain == nullptr || pszBuf == nullptr) {
        return DNS_ERR_SRV_NAME;
    }
    const size_t service_len = PAL_StrLen(pszService);
    const size_t proto_len = PAL_StrLen(pszProto);
    const size_t domain_len = PAL_StrLen(pszDomain);
    if (service_len > max_service_len || proto_len > max_proto_len) {
        DNS_LOG(3, "ulServiceLen:%d, ulProtoLen:%d", static_cast<int>(service_len), static_cast<int>(proto_len));
        return DNS_ERR_SRV_NAME;
    }
    if (ulBufSize < service_len + proto_len + name_extra + domain_len) {
        DNS_LOG(3, "ulServiceLen:%d, ulProtoLen:%d, ulDnameLen:%d, ulBufSize=%d", static_cast<int>(service_len),
                static_cast<int>(proto_len), static_cast<int>(domain_len), static_cast<int>(ulBufSize));
        return DNS_ERR_NAME_FORMAT;
    }
    if (dnsCheckHostName(pszDomain) != 0) {
        DNS_LOG(3, "Invalid domain name format.");
        return DNS_ERR_NAME_FORMAT;
    }
    const int len = std::snprintf(pszBuf, ulBufSize, "_%s._%s.%s", pszService, pszProto, pszDomain);
    if (len < 0 || static_cast<uint32_t>(len) >= ulBufSize) {
        DNS_LOG(3, "lLen:%d, ulBufSize=%d", len, static_cast<int>(ulBufSize));
        return DNS_ERR_SRV_NAME;
    }
    return DNS_OK;
}

// Fields are masked to their widths: an out-of-range value cannot spill
// into its neighbours.
VEK_DNS_API uint32_t DNS_SrvBuildOptions(uint32_t ulQr, uint32_t ulOpcode, uint32_t ulAa, uint32_t ulTc,
                                         uint32_t ulRd, uint32_t ulRa, uint16_t usZ, uint16_t usRcode) {
    return ((ulQr & 1u) << 15) | ((ulOpcode & 0xFu) << 11) | ((ulAa & 1u) << 10) | ((ulTc & 1u) << 9) |
           ((ulRd & 1u) << 8) | ((ulRa & 1u) << 7) | ((usZ & 7u) << 4) | (usRcode & 0xFu);
}

VEK_DNS_API uint32_t DNS_SrvBuildMsg(char *pszName, uint8_t *pMsg, uint32_t ulBufSize, uint16_t usId,
                                     uint32_t *pulMsgLen) {
    if (pszName == nullptr || pMsg == nullptr || pulMsgLen == nullptr || ulBufSize < min_msg_buf) {
        return DNS_ERR_SRV_MSG_BUF;
    }
    std::memset(pMsg, 0, header_size);
    DNS_Spread2Bytes(pMsg, usId);
    DNS_Spread2Bytes(pMsg + 2, DNS_SrvBuildOptions(0, 0, 0, 0, 1, 0, 0, 0));
    DNS_Spread2Bytes(pMsg + 4, 1);
    size_t left = PAL_StrLen(pszName);
    if (left != 0 && pszName[left - 1] == '.') {
        pszName[--left] = '\0';
    }
    // The name's own limits (255 characters) keep the message inside the
    // 272 bytes checked above.
    if (left > 255) {
        return DNS_ERR_SRV_MSG_BUF;
    }
    uint8_t *out = vekdns::wire::encode_name(pMsg + header_size, pMsg + ulBufSize, pszName, left);
    out = DNS_Spread2Bytes(out, type_srv);
    out = DNS_Spread2Bytes(out, class_in);
    *pulMsgLen = static_cast<uint32_t>(out - pMsg);
    return DNS_OK;
}

VEK_DNS_API uint32_t DNS_SrvMsgSend(const uint8_t *pMsg, uint32_t ulLen, const DNS_IPADDR_S *pstServer,
                                    int32_t *plSocket) {
    if (pMsg == nullptr || pstServer == nullptr || plSocket == nullptr) {
        return DNS_ERR_PARA_INVALID;
    }
    *plSocket = -1;
    char text[vekdns::service::ip_text_size];
    vekdns::service::server_text(pstServer, text);
    char masked[vekdns::service::ip_text_size] = {};
    (void)vek_filter_ipaddr_str(text, masked, sizeof(masked) - 1);
    DNS_LOG(5, "DNS_Srv DnsSvr: %s", masked);
    if (DNS_SrvIPUnReachableJudge(text, static_cast<uint32_t>(PAL_StrLen(text))) == 0) {
        DNS_LOG(3, "this ip select timeout, not search");
        return DNS_ERR_SRV_NOT_FOUND;
    }
    const uint32_t ret = DNS_CreatSocketAndConnect(plSocket, pstServer);
    if (ret != DNS_OK) {
        return ret;
    }
    if (*plSocket == -1) {
        DNS_LOG(3, "CREATE_SOCKET_FAIL");
        return DNS_ERR_SOCKET;
    }
    const ssize_t sent = vekdns::sys::send(*plSocket, pMsg, ulLen, 0);
    if (sent < 0 || static_cast<size_t>(sent) != ulLen) {
        (void)PAL_CloseSocket(*plSocket);
        *plSocket = -1;
        return DNS_ERR_SEND;
    }
    return DNS_OK;
}

VEK_DNS_API uint32_t DNS_SrvMsgRecv(const int32_t *plSocket, uint8_t *pBuf, uint32_t ulBufSize,
                                    uint32_t *pulLen) {
    if (pBuf == nullptr || ulBufSize == 0 || plSocket == nullptr || pulLen == nullptr) {
        return DNS_ERR_PARA_INVALID;
    }
    const ssize_t got = vekdns::transport::receive(*plSocket, pBuf, ulBufSize);
    if (got < 0 || static_cast<size_t>(got) > ulBufSize) {
        return DNS_ERR_RECV;
    }
    *pulLen = static_cast<uint32_t>(got);
    return DNS_OK;
}

} // extern "C"
