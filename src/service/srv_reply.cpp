// Reading one SRV reply: the SRV answers in priority/weight order, the A and
// AAAA records of the additional section, and the two joined into service
// records (one per target address, at most 10 per query).
#include <cstring>
#include <strings.h>

#include "base/secure_log.h"
#include "base/memory.h"
#include "base/secure.h"
#include "base/wire_cursor.h"
#include "service/service_internal.h"

namespace {

using vekdns::service::max_records;
namespace wire = vekdns::wire;

constexpr size_t name_size = 256;
constexpr uint32_t max_encoded_name = 255;
constexpr uint8_t pointer_bits = 0xC0;
constexpr uint32_t ipv4_broadcast = 0xFFFFFFFFu;

// One decoded SRV answer.
struct DNS_SRV_ANSWER_S {
    char szOwner[name_size];
    uint16_t usPriority;
    uint16_t usWeight;
    uint16_t usPort;
    uint16_t usHasAddr;
    char szTarget[name_size];
    uint32_t ulTtl; // kept with the answer so that sorting keeps it
};

// One decoded additional address record.
struct DNS_SRV_ADDR_S {
    char szName[name_size];
    DNS_IPADDR_S stAddr;
};

using vekdns::log_secure_failure;

// Decodes the name at `pos` into `dst` (no trailing dot; the root is "").
// Compression pointers must point before the start of the stretch of labels
// they end, so every jump goes strictly backwards and a loop of pointers
// cannot form; a pointer elsewhere in the message fails the name. Pointers
// to offset 0 or past the message end the name, as a zero byte would.
uint32_t dnsSrvReadName(std::span<const uint8_t> msg, size_t pos, char (&dst)[name_size]) {
    size_t out = 0;
    uint32_t encoded = 0;
    size_t stretch = pos; // start of the current stretch of labels
    dst[0] = '\0';
    while (pos < msg.size()) {
        const uint8_t len = msg[pos];
        if (len == 0) {
            break;
        }
        if ((len & pointer_bits) == pointer_bits) {
            if (msg.size() - pos < 2) {
                return DNS_ERR_MSG_FORMAT;
            }
            const size_t target = static_cast<size_t>(((len & 0x3F) << 8) | msg[pos + 1]);
            if (target == 0 || target >= msg.size()) {
                break;
            }
            if (target >= stretch) {
                return DNS_ERR_MSG_FORMAT;
            }
            pos = stretch = target;
            continue;
        }
        if (static_cast<size_t>(len) + 1 >= msg.size() - pos) {
            return DNS_ERR_MSG_FORMAT;
        }
        encoded += len + 1u;
        if (encoded > max_encoded_name) {
            return DNS_ERR_NAME_TOO_LONG;
        }
        std::memcpy(dst + out, msg.data() + pos + 1, len);
        out += len;
        dst[out++] = '.';
        pos += len + 1u;
    }
    dst[out != 0 ? out - 1 : 0] = '\0';
    return DNS_OK;
}

// Length of a name without one trailing dot.
size_t bare_len(const char *name) {
    const size_t n = std::strlen(name);
    return n != 0 && name[n - 1] == '.' ? n - 1 : n;
}

bool same_host(const char *a, const char *b) {
    const size_t n = bare_len(a);
    return n == bare_len(b) && strncasecmp(a, b, n) == 0;
}

uint32_t dnsSrvAddTarget(const DNS_SRV_ANSWER_S *answer, const DNS_IPADDR_S *addr, DNS_LIST_S *out) {
    auto *rr = static_cast<DNS_SRV_RR_S *>(VEK_MALLOC_ZERO(sizeof(DNS_SRV_RR_S)));
    if (rr == nullptr) {
        return DNS_ERR_NO_MEMORY;
    }
    log_secure_failure(memcpy_s(rr->szTarget, sizeof(rr->szTarget) - 1, answer->szTarget,
                                std::strlen(answer->szTarget)));
    rr->usPriority = answer->usPriority;
    rr->usWeight = answer->usWeight;
    rr->usPort = answer->usPort;
    log_secure_failure(memcpy_s(&rr->stAddr, sizeof(rr->stAddr), addr, sizeof(*addr)));
    if (DNS_ListPush(out, rr) != DNS_OK) {
        VEK_FREE(rr);
        return DNS_ERR_LIST_OPERATE;
    }
    return DNS_OK;
}

// Before the first answer of higher priority, or of equal priority and a
// weight not above the new one's; else at the end.
uint32_t insert_sorted(DNS_LIST_S *answers, DNS_SRV_ANSWER_S *answer) {
    for (uint32_t i = 0; i < DNS_ListGetSize(answers); ++i) {
        void *elem = nullptr;
        (void)DNS_ListGetElem(answers, i, &elem);
        const auto *e = static_cast<const DNS_SRV_ANSWER_S *>(elem);
        if (answer->usPriority < e->usPriority ||
            (answer->usPriority == e->usPriority && answer->usWeight >= e->usWeight)) {
            return DNS_ListInsertAt(answers, i, answer) == DNS_OK ? DNS_OK : DNS_ERR_LIST_OPERATE;
        }
    }
    return DNS_ListPush(answers, answer) == DNS_OK ? DNS_OK : DNS_ERR_LIST_OPERATE;
}

uint32_t take_answer(std::span<const uint8_t> msg, const wire::record &r, DNS_LIST_S *answers) {
    if (r.type != wire::type_srv || r.cls != wire::class_in) {
        return DNS_ERR_SRV_ANSWER_TYPE;
    }
    if (r.data.size() < 6) {
        return DNS_ERR_MSG_FORMAT;
    }
    auto *answer = static_cast<DNS_SRV_ANSWER_S *>(VEK_MALLOC_ZERO(sizeof(DNS_SRV_ANSWER_S)));
    if (answer == nullptr) {
        return DNS_ERR_NO_MEMORY;
    }
    answer->ulTtl = r.ttl;
    answer->usPriority = DNS_Build2Bytes(r.data.data());
    answer->usWeight = DNS_Build2Bytes(r.data.data() + 2);
    answer->usPort = DNS_Build2Bytes(r.data.data() + 4);
    uint32_t ret = dnsSrvReadName(msg, r.owner, answer->szOwner);
    if (ret == DNS_OK) {
        ret = dnsSrvReadName(msg, r.data_at + 6, answer->szTarget);
    }
    if (ret == DNS_OK) {
        ret = insert_sorted(answers, answer);
    }
    if (ret != DNS_OK) {
        VEK_FREE(answer);
    }
    return ret;
}

// A/AAAA data of another length than 4/16 is no address: the record is
// skipped like any other that is not an address.
uint32_t take_address(std::span<const uint8_t> msg, const wire::record &r, DNS_LIST_S *addrs) {
    const bool is_a = r.type == wire::type_a && r.data.size() == 4;
    const bool is_aaaa = r.type == wire::type_aaaa && r.data.size() == 16;
    if ((!is_a && !is_aaaa) || r.cls != wire::class_in) {
        return DNS_ERR_RECORD_INVALID;
    }
    DNS_SRV_ADDR_S addr{};
    uint32_t ret = dnsSrvReadName(msg, r.owner, addr.szName);
    if (ret != DNS_OK) {
        return ret;
    }
    if (is_a) {
        addr.stAddr.ulType = DNS_IP_TYPE_IPV4;
        std::memcpy(&addr.stAddr.unIpAddr.ulIpv4, r.data.data(), 4);
        if (addr.stAddr.unIpAddr.ulIpv4 == ipv4_broadcast) {
            return DNS_ERR_SRV_ADD_ADDR;
        }
    } else {
        addr.stAddr.ulType = DNS_IP_TYPE_IPV6;
        std::memcpy(addr.stAddr.unIpAddr.aucIpv6, r.data.data(), 16);
    }
    auto *copy = static_cast<DNS_SRV_ADDR_S *>(VEK_MALLOC(sizeof(DNS_SRV_ADDR_S)));
    if (copy == nullptr) {
        return DNS_ERR_NO_MEMORY;
    }
    *copy = addr;
    if (DNS_ListPush(addrs, copy) != DNS_OK) {
        VEK_FREE(copy);
        return DNS_ERR_LIST_OPERATE;
    }
    return DNS_OK;
}

// One output record per (answer, matching address) in list and message
// order, or one without address for an answer that has none; at most 10.
uint32_t join(DNS_LIST_S *answers, DNS_LIST_S *addrs, DNS_LIST_S *out, uint32_t *ttls) {
    static const DNS_IPADDR_S no_addr{};
    for (uint32_t i = 0; i < DNS_ListGetSize(answers) && DNS_ListGetSize(out) < max_records; ++i) {
        void *elem = nullptr;
        (void)DNS_ListGetElem(answers, i, &elem);
        auto *answer = static_cast<DNS_SRV_ANSWER_S *>(elem);
        for (uint32_t j = 0; j < DNS_ListGetSize(addrs) && DNS_ListGetSize(out) < max_records; ++j) {
            (void)DNS_ListGetElem(addrs, j, &elem);
            const auto *addr = static_cast<const DNS_SRV_ADDR_S *>(elem);
            if (!same_host(answer->szTarget, addr->szName)) {
                continue;
            }
            const uint32_t at = DNS_ListGetSize(out);
            const uint32_t ret = dnsSrvAddTarget(answer, &addr->stAddr, out);
            if (ret != DNS_OK) {
                DNS_LOG(4, "Build target address list result is %d", static_cast<int>(ret));
                return ret;
            }
            ttls[at] = answer->ulTtl;
            answer->usHasAddr = 1;
        }
        if (answer->usHasAddr == 0 && DNS_ListGetSize(out) < max_records) {
            const uint32_t at = DNS_ListGetSize(out);
            const uint32_t ret = dnsSrvAddTarget(answer, &no_addr, out);
            if (ret != DNS_OK) {
                DNS_LOG(4, "Build target address list result is %d", static_cast<int>(ret));
                return ret;
            }
            ttls[at] = answer->ulTtl;
        }
    }
    return DNS_OK;
}

// The two parse lists of one reply, released on every path out.
struct parse_lists {
    DNS_LIST_S answers{};
    DNS_LIST_S addrs{};
    bool ok = false;
    parse_lists() {
        if (DNS_ListInit(&answers) != DNS_OK) {
            return;
        }
        if (DNS_ListInit(&addrs) != DNS_OK) {
            DNS_ListUninit(&answers);
            return;
        }
        ok = true;
    }
    ~parse_lists() {
        if (ok) {
            DNS_ListUninit(&answers);
            DNS_ListUninit(&addrs);
        }
    }
    parse_lists(const parse_lists &) = delete;
    parse_lists &operator=(const parse_lists &) = delete;
};

uint32_t read_answers(wire::cursor &c, uint32_t count, DNS_LIST_S *answers) {
    uint32_t ret = DNS_OK;
    const wire::walk_end end = wire::walk_records(c, count, [&](const wire::record &r) {
        ret = take_answer(c.message(), r, answers);
        return ret == DNS_OK;
    });
    if (end == wire::walk_end::cut_header) {
        ret = DNS_ERR_MSG_FORMAT;
    } else if (end == wire::walk_end::cut_data) {
        return DNS_ERR_MSG_FORMAT; // the next answer cannot be found
    }
    if (ret != DNS_OK) {
        DNS_LOG(3, "DNS_Srv Parse Answer fail lRet:%d", static_cast<int>(ret));
    }
    return ret;
}

// Failures here only skip the record; data running past the datagram fails
// the reply (the next record cannot be found), a cut header ends the walk.
uint32_t read_additional(wire::cursor &c, uint32_t count, DNS_LIST_S *addrs) {
    const wire::walk_end end = wire::walk_records(c, count, [&](const wire::record &r) {
        const uint32_t ret = take_address(c.message(), r, addrs);
        if (ret != DNS_OK) {
            DNS_LOG(4, "DNS_Srv Parse Add fail lRet:%d", static_cast<int>(ret));
        }
        return true;
    });
    if (end == wire::walk_end::cut_header) {
        DNS_LOG(4, "DNS_Srv Parse Add fail lRet:%d", static_cast<int>(DNS_ERR_MSG_FORMAT));
    }
    return end == wire::walk_end::cut_data ? DNS_ERR_MSG_FORMAT : DNS_OK;
}

uint32_t read_reply(std::span<const uint8_t> msg, uint32_t *count, DNS_LIST_S *out, uint32_t *ttls) {
    parse_lists lists;
    if (!lists.ok) {
        return DNS_ERR_SRV_LIST_CREATE;
    }
    if (msg.size() <= wire::header_size || wire::rcode(msg) != 0 || wire::ancount(msg) == 0) {
        return DNS_ERR_MSG_FORMAT;
    }
    wire::cursor c(msg, wire::header_size);
    if (!wire::skip_questions(c, wire::qdcount(msg))) {
        return DNS_ERR_MSG_FORMAT;
    }
    uint32_t ret = read_answers(c, wire::ancount(msg), &lists.answers);
    if (ret != DNS_OK) {
        return ret;
    }
    const wire::walk_end authority = wire::walk_records(c, wire::nscount(msg), [](const wire::record &) {
        return true;
    });
    if (authority != wire::walk_end::done) {
        return DNS_ERR_MSG_FORMAT;
    }
    ret = read_additional(c, wire::arcount(msg), &lists.addrs);
    if (ret != DNS_OK) {
        return ret;
    }
    void *first = nullptr;
    if (DNS_ListGetSize(&lists.answers) == 1 && DNS_ListGetElem(&lists.answers, 0, &first) == DNS_OK &&
        static_cast<const DNS_SRV_ANSWER_S *>(first)->szTarget[0] == '\0') {
        return DNS_ERR_SRV_NOT_OFFERED;
    }
    ret = join(&lists.answers, &lists.addrs, out, ttls);
    if (ret != DNS_OK) {
        return ret;
    }
    *count = DNS_ListGetSize(out);
    if (*count == 0) {
        DNS_LOG(4, "Build target address list result is %d", static_cast<int>(DNS_ERR_SRV_NOT_FOUND));
        return DNS_ERR_SRV_NOT_FOUND;
    }
    return DNS_OK;
}

} // namespace

extern "C" {

VEK_DNS_API uint32_t DNS_SrvRead(const int32_t *plSocket, uint8_t *pBuf, uint32_t ulBufSize,
                                 uint32_t *pulCount, DNS_LIST_S *pstList, uint32_t *pulTtl) {
    if (pBuf == nullptr || pulCount == nullptr || pstList == nullptr || pulTtl == nullptr) {
        return DNS_ERR_PARA_INVALID;
    }
    // The list, not the caller's count, bounds every write: 10 records and
    // the TTL array's 10 entries.
    if (*pulCount >= max_records || DNS_ListGetSize(pstList) >= max_records) {
        return DNS_OK;
    }
    uint32_t len = 0;
    const uint32_t ret = DNS_SrvMsgRecv(plSocket, pBuf, ulBufSize, &len);
    if (ret != DNS_OK) {
        DNS_LOG(3, "DNS_Srv receive fail lRet:%d", static_cast<int>(ret));
        return ret;
    }
    return read_reply(std::span<const uint8_t>(pBuf, len), pulCount, pstList, pulTtl);
}

} // extern "C"

namespace vekdns::service {

uint32_t read_received(std::span<const uint8_t> reply, uint32_t *count, DNS_LIST_S *list, uint32_t *ttls) {
    if (*count >= max_records || DNS_ListGetSize(list) >= max_records) {
        return DNS_OK;
    }
    return read_reply(reply, count, list, ttls);
}

} // namespace vekdns::service
