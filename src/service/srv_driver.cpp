// The service query driver: every configured server and every name variant
// (the name, then the name with each search domain), one SRV question each,
// the records of all answers gathered in one list.
#include <atomic>
#include <cstring>

#include "base/secure_log.h"
#include "address/transport.h"
#include "base/memory.h"
#include "base/secure.h"
#include "base/sem_guard.h"
#include "service/service_internal.h"
#include "vek_os_adapter.h"

namespace {

constexpr size_t name_size = 256;
constexpr uint32_t msg_size = 512;
constexpr uint32_t msg_area = 516;
constexpr uint32_t recv_size = 2048;
constexpr uint32_t max_variants = 7; // the name and 6 search domains

using vekdns::log_secure_failure;

// What one call holds; released on every path out.
struct query_state {
    DNS_LOCAL_SERVER_S servers{};
    uint8_t *recv_buf = nullptr;
    int32_t sock = -1;
    query_state() { (void)PAL_InitSocket(); }
    ~query_state() {
        close_socket();
        if (recv_buf != nullptr) {
            VEK_FREE(recv_buf);
        }
        DNS_FreeLocalServer(&servers);
        (void)PAL_DInitSocket();
    }
    query_state(const query_state &) = delete;
    query_state &operator=(const query_state &) = delete;
    void close_socket() {
        if (sock >= 0) {
            (void)PAL_CloseSocket(sock);
        }
        sock = -1;
    }
};

// Variant k of the name into `variant`: k = 0 the name, else the base (with
// one dot appended once) followed by search domain k. False: no such domain
// (stop), with *skip set when the variant would not fit (skip it).
bool make_variant(uint32_t k, const DNS_LOCAL_SERVER_S &servers, char (&base)[name_size],
                  char (&variant)[name_size], bool *skip) {
    *skip = false;
    if (k == 0) {
        log_secure_failure(strncpy_s(variant, name_size, base, name_size - 1));
        return true;
    }
    const char *domain = k <= DNS_MAX_SEARCH_DOMAIN ? servers.apszSearchDomain[k - 1] : nullptr;
    if (domain == nullptr) {
        return false;
    }
    size_t len = std::strlen(base);
    if (len == 0 || base[len - 1] != '.') {
        if (len + 1 >= name_size) {
            *skip = true;
            return true;
        }
        base[len++] = '.';
        base[len] = '\0';
    }
    if (len + 1 + std::strlen(domain) >= name_size) {
        *skip = true;
        return true;
    }
    log_secure_failure(strncpy_s(variant, name_size, base, name_size - 1));
    log_secure_failure(strcat_s(variant, name_size, domain));
    return true;
}

// One try's wait and read: DNS_ERR_TIMEOUT when nothing answering the
// question came within the time-out; else what reading the reply gave. A
// truncated reply is asked again over TCP and that reply read instead; when
// TCP fails the truncated one is read as it stands. A full list receives
// nothing.
uint32_t read_try(query_state &st, const DNS_IPADDR_S &server, std::span<const uint8_t> query,
                  uint32_t timeout_sec, uint32_t *count, DNS_LIST_S *list, uint32_t *ttls) {
    namespace transport = vekdns::transport;
    const auto deadline = transport::clock::now() + std::chrono::seconds(timeout_sec);
    if (*count >= vekdns::service::max_records || DNS_ListGetSize(list) >= vekdns::service::max_records) {
        return transport::wait_readable(st.sock, deadline) ? DNS_OK : DNS_ERR_TIMEOUT;
    }
    transport::owned_reply tcp;
    std::span<const uint8_t> reply;
    bool tcp_timed_out = false;
    const transport::wait_result waited = transport::await_reply(
        st.sock, server, query, deadline, std::span<uint8_t>(st.recv_buf, recv_size), tcp, &reply,
        &tcp_timed_out);
    if (waited == transport::wait_result::timed_out) {
        return DNS_ERR_TIMEOUT;
    }
    if (waited == transport::wait_result::recv_failed) {
        DNS_LOG(3, "DNS_Srv receive fail lRet:%d", static_cast<int>(DNS_ERR_RECV));
        return DNS_ERR_RECV;
    }
    return vekdns::service::read_received(reply, count, list, ttls);
}

} // namespace

extern "C" {

VEK_DNS_API uint32_t DNS_SrvQuery(const char *pszName, uint32_t ulTimeOutSec, uint32_t *pulCount,
                                  DNS_LIST_S *pstList, uint32_t *pulTtl) {
    DNS_LOG(5, "Entern DNS_SrvQuery");
    if (pstList == nullptr || pszName == nullptr || pulCount == nullptr || pulTtl == nullptr) {
        DNS_LOG(3, "DNS_SrvQuery param is null");
        return DNS_ERR_LIST_OPERATE;
    }
    query_state st;
    char base[name_size] = {};
    log_secure_failure(strncpy_s(base, sizeof(base), pszName, sizeof(base) - 1));
    // Shared with the address queries; the atomic step only keeps concurrent
    // increments well defined.
    const uint16_t id = std::atomic_ref<uint16_t>(g_usQueryId).fetch_add(1, std::memory_order_relaxed);
    {
        vekdns::named_sem_section section;
        if (!section.is_open()) {
            return section.open_result();
        }
        const uint32_t ret = DNS_LocateDnsServer(&st.servers);
        if (ret != DNS_OK) {
            DNS_LOG(3, "DNS_SrvQuery DNS_LocateDnsServer lRet: %x ", ret);
            section.release();
            DNS_LOG(2, "locate dns server failed!\r\n");
            return ret;
        }
    }
    st.recv_buf = static_cast<uint8_t *>(VEK_MALLOC_ZERO(recv_size));
    if (st.recv_buf == nullptr) {
        return DNS_ERR_NO_MEMORY;
    }
    DNS_LOG(5, "DNS_SrvQuery stServer.ulDnsServers : %d ", static_cast<int>(st.servers.ulDnsServers));

    uint32_t count = DNS_ListGetSize(pstList);
    uint32_t result = DNS_OK;
    uint8_t msg[msg_area];
    char variant[name_size];
    for (uint32_t s = 0; s < st.servers.ulDnsServers; ++s) {
        DNS_IPADDR_S server{};
        const uint32_t usable = DNS_JudgeTheServerIsAvalible(s, &st.servers, &server);
        if (usable == 1) {
            DNS_LOG(3, "DNS_JudgeTheServerIsAvalible invalid ulTryServer : %d ", static_cast<int>(s));
            continue;
        }
        if (usable != DNS_OK) {
            return usable;
        }
        for (uint32_t k = 0; k < max_variants; ++k) {
            bool skip = false;
            if (!make_variant(k, st.servers, base, variant, &skip)) {
                break;
            }
            if (skip) {
                continue;
            }
            std::memset(msg, 0, sizeof(msg));
            uint32_t msg_len = 0;
            result = DNS_SrvBuildMsg(variant, msg, msg_size, id, &msg_len);
            if (result != DNS_OK) {
                DNS_LOG(2, "build dns server message failed!\r\n");
                return result;
            }
            result = DNS_SrvMsgSend(msg, msg_len, &server, &st.sock);
            if (result != DNS_OK) {
                DNS_LOG(2, "send dns server message failed!\r\n");
                continue;
            }
            const uint32_t read = read_try(st, server, std::span<const uint8_t>(msg, msg_len), ulTimeOutSec,
                                           &count, pstList, pulTtl);
            if (read == DNS_ERR_TIMEOUT) {
                Dns_SrvIPSet(&server, pszName);
                st.close_socket();
                result = DNS_ERR_TIMEOUT;
                break;
            }
            result = read;
            if (result != DNS_OK) {
                DNS_LOG(2, "read dns server message failed!\r\n");
                std::memset(st.recv_buf, 0, recv_size);
            }
            st.close_socket();
        }
    }
    *pulCount = DNS_ListGetSize(pstList);
    return *pulCount != 0 ? DNS_OK : result;
}

} // extern "C"
