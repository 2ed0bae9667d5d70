// The one log line for a failed bounded memory or string function; the work
// goes on after it.
#pragma once

#include "base/secure.h"
#include "vek_dns_ops.h"

namespace vekdns {

inline void log_secure_failure(errno_t err) {
    if (err != 0) {
        DNS_LOG(3, "secure func return fail! err = %d", err);
    }
}

} // namespace vekdns
