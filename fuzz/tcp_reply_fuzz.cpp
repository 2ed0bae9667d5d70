// TCP reply framing: the input is what a server sends on the stream (length
// prefixes that lie, streams cut short, several messages). A message taken
// is the one asked about, no longer than the stream, and is read like any reply.
#include <cstdlib>
#include <sys/socket.h>
#include <unistd.h>

#include "address/transport.h"
#include "address/wire_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace vekdns::transport;
    static const uint8_t query[] = {
        0x12, 0x34, 1,   0,   0,   1,   0,   0,   0, 0, 0, 0, 1, 'a',
        7,    'e',  'x', 'a', 'm', 'p', 'l', 'e', 0, 0, 1, 0, 1}; // a.example A IN
    int fds[2];
    if (size > 65536 || socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds) != 0) {
        return 0;
    }
    const bool whole = size == 0 || write(fds[0], data, size) == static_cast<ssize_t>(size);
    close(fds[0]); // the stream ends after the input
    owned_reply reply;
    if (whole && read_stream_reply(fds[1], query, clock::now() + std::chrono::seconds(5), reply) ==
                     stream_result::ok) {
        if (reply.bytes().empty() || reply.bytes().size() + 2 > size ||
            !reply_matches(query, reply.bytes())) {
            std::abort();
        }
        DNS_IPADDR_S addrs[10];
        uint32_t ttls[10], count = 0;
        (void)vekdns::detail::take_reply(reply.bytes(), addrs, &count, 10, ttls);
    }
    close(fds[1]);
    return 0;
}
