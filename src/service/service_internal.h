// Internals shared by the service-resolution files.
#pragma once

#include <cstdint>
#include <span>

#include "vek_dns_ops.h"

namespace vekdns::service {

// Most records one service query gathers.
inline constexpr uint32_t max_records = 10;
// Room for an address text of either family and its NUL.
inline constexpr uint32_t ip_text_size = 47;

// The server's address as text (dotted or colon form); empty for any other
// family.
void server_text(const DNS_IPADDR_S *server, char (&text)[ip_text_size]);

// The completion steps with the TTL array kept parallel to the records
// (ttls may be null): an appended copy takes the TTL of the record it
// copies, a removed record takes its TTL along.
void complete_targets(DNS_SRV_RR_S *rr, uint32_t *ttls, uint32_t *count, uint32_t capacity);

// DNS_SrvRead on a reply already received (from UDP, or from TCP after a
// truncated one): the same caps, checks and joining.
uint32_t read_received(std::span<const uint8_t> reply, uint32_t *count, DNS_LIST_S *list, uint32_t *ttls);

} // namespace vekdns::service
