// Shared by the fuzz targets: the sandbox for those that touch files, and checks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unistd.h>

#include "os_adapter/test_hooks.h"
#include "support/sandbox.h"
#include "vek_dns_ops.h"

namespace vekdns::fuzz {

inline void drop_line(const char *) {}

// Private /etc/resolv.conf, tmpfs /var; every log line is formatted, then dropped.
inline int enter_sandbox() {
    vekdns::test::enter_sandbox();
    ORV_NETB_DnsSetLogLevel(6);
    ORV_NETB_DnsRegisterLogFunc(drop_line);
    return 0;
}

inline void check(bool ok) {
    if (!ok) {
        __builtin_trap();
    }
}

inline std::string text(const uint8_t *data, size_t size) {
    return std::string(reinterpret_cast<const char *>(data), size);
}

// What every call must leave behind: no platform block, no temporary file.
inline void check_clean() {
    check(vekdns::pal_test::outstanding_blocks() == 0);
    check(access("/var/dnsresolv.tmp", F_OK) != 0 && access("/var/dnssrv.tmp", F_OK) != 0);
}

} // namespace vekdns::fuzz

#define VEK_FUZZ_IN_SANDBOX                                                                                  \
    extern "C" int LLVMFuzzerInitialize(int *, char ***) {                                                   \
        return vekdns::fuzz::enter_sandbox();                                                                \
    }
