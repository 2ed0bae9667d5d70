// What the address and service readers share on the wire: a wait that any
// descriptor can use and that a signal does not cut short, a receive that a
// signal does not fail, the check that a reply answers the question asked,
// and the same question asked again over TCP when a UDP reply was truncated.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <sys/types.h>

#include "vek_dns_ops.h"

namespace vekdns::transport {

using clock = std::chrono::steady_clock;

// Largest message a two-byte length prefix can announce.
inline constexpr std::size_t max_stream_message = 65535;

// True when fd becomes readable before `deadline`. A wait interrupted by a
// signal goes on with the time that remains.
bool wait_readable(int fd, clock::time_point deadline);

// recv on a UDP socket, retried when a signal interrupts it.
ssize_t receive(int fd, void *buf, std::size_t len);

// True unless `reply` is positively the answer to another question: its ID
// differs from the query's, or its first question (when it has one) is not
// the one asked (name compared without regard to case, type, class). Bytes
// too short or too malformed to tell are left to the reader to reject.
bool reply_matches(std::span<const uint8_t> query, std::span<const uint8_t> reply);

// The TC bit of a reply with a whole header.
bool is_truncated(std::span<const uint8_t> reply);

// A reply held in a platform allocation sized to it; freed on destruction.
class owned_reply {
public:
    owned_reply() = default;
    ~owned_reply() { reset(); }
    owned_reply(const owned_reply &) = delete;
    owned_reply &operator=(const owned_reply &) = delete;
    std::span<const uint8_t> bytes() const { return {data_, size_}; }
    bool allocate(std::size_t size);
    uint8_t *data() { return data_; }
    void reset();

private:
    uint8_t *data_ = nullptr;
    std::size_t size_ = 0;
};

enum class stream_result { ok, failed, timed_out };

// Reads length-prefixed messages from the connected stream fd until one
// matches `query`, the stream ends or breaks, or `deadline` passes.
stream_result read_stream_reply(int fd, std::span<const uint8_t> query, clock::time_point deadline,
                                owned_reply &out);

// Asks `server` (port 53) the query over a fresh non-blocking stream socket
// within the time left until `deadline`; on ok, `out` holds the reply.
stream_result ask_over_tcp(const DNS_IPADDR_S &server, std::span<const uint8_t> query,
                           clock::time_point deadline, owned_reply &out);

enum class wait_result { reply, timed_out, recv_failed };

// The UDP part of one try: waits on fd until `deadline` for a datagram that
// matches `query` (others are dropped and the wait goes on). A truncated one
// is asked again over TCP; *use then points into `tcp` when that worked, or
// into `udp` (the truncated reply, read as before) when it did not, with
// *tcp_timed_out set when the TCP try ran out of time.
wait_result await_reply(int fd, const DNS_IPADDR_S &server, std::span<const uint8_t> query,
                        clock::time_point deadline, std::span<uint8_t> udp, owned_reply &tcp,
                        std::span<const uint8_t> *use, bool *tcp_timed_out);

} // namespace vekdns::transport
