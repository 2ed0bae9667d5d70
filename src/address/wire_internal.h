// Internals of the address wire layer shared with the resolver loop and the
// tests: the reply reader over the received bytes only, and the reply wait.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "vek_dns_ops.h"

namespace vekdns::detail {

// Largest reply taken in: the rest of a longer datagram is cut off.
inline constexpr std::size_t reply_buffer_size = 2048;
inline constexpr std::size_t reply_max_len = reply_buffer_size - 1;

// Takes the addresses of one received reply: `reply` is exactly the bytes
// received. Same contract as DNS_Read after its receive: appends at index
// *count (never beyond capacity), writes *count back only for an accepted
// reply, returns 0 when the count is non-zero afterwards, else 1. Never reads
// outside `reply`.
// DNS_Query that also copies the question sent into `keep` (its length into
// *kept) when it fits, so the reply can be matched against it.
uint32_t send_question(char *pszName, uint32_t ulNameLen, const DNS_IPADDR_S *pstServer,
                       uint32_t ulType, int32_t *plSock, std::span<uint8_t> keep, size_t *kept);

uint32_t take_reply(std::span<const uint8_t> reply, DNS_IPADDR_S *addrs, uint32_t *count,
                    uint32_t capacity, uint32_t *ttls);

} // namespace vekdns::detail
