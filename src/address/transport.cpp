// Waiting, receiving, matching replies to questions, and the TCP retry of a
// truncated reply. Every socket call and the wait go through the platform
// layer (the UDP receive through the same switch as the UDP socket).
#include "address/transport.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "base/memory.h"
#include "base/sys.h"
#include "vek_os_adapter.h"

namespace vekdns::transport {
namespace {

constexpr std::size_t header_size = 12;
constexpr std::size_t question_tail = 4; // QTYPE, QCLASS
constexpr uint8_t flag_tc = 0x02;        // in the third header byte
constexpr uint16_t dns_port = 53;
constexpr std::size_t max_query_size = 512;

// Waits until fd is readable (or writable) before `deadline`; a signal only
// costs the time it took.
bool wait_for(int fd, bool write, clock::time_point deadline) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - clock::now());
        const long long ms = left.count() < 0 ? 0 : left.count();
        const int n = PAL_Poll(fd, write ? 1 : 0, ms > INT_MAX ? INT_MAX : static_cast<int>(ms));
        if (n > 0) {
            return true;
        }
        if (n == 0 ? clock::now() >= deadline : errno != EINTR) {
            return false;
        }
    }
}

stream_result wait_failed(clock::time_point deadline) {
    return clock::now() >= deadline ? stream_result::timed_out : stream_result::failed;
}

char fold(uint8_t c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c); }

// Reads exactly len bytes; a stream that ends first has failed.
stream_result read_exact(int fd, uint8_t *out, std::size_t len, clock::time_point deadline) {
    std::size_t got = 0;
    while (got < len) {
        const ssize_t n = PAL_Recv(fd, out + got, len - got);
        if (n > 0) {
            got += static_cast<std::size_t>(n);
        } else if (n == 0) {
            return stream_result::failed;
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (!wait_for(fd, false, deadline)) {
                return wait_failed(deadline);
            }
        } else if (errno != EINTR) {
            return stream_result::failed;
        }
    }
    return stream_result::ok;
}

stream_result send_all(int fd, const uint8_t *data, std::size_t len, clock::time_point deadline) {
    std::size_t sent = 0;
    while (sent < len) {
        const ssize_t n = PAL_Send(fd, data + sent, len - sent);
        if (n >= 0) {
            sent += static_cast<std::size_t>(n);
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (!wait_for(fd, true, deadline)) {
                return wait_failed(deadline);
            }
        } else if (errno != EINTR) {
            return stream_result::failed;
        }
    }
    return stream_result::ok;
}

stream_result connect_to(int fd, const DNS_IPADDR_S &server, clock::time_point deadline) {
    sockaddr_in v4 = {};
    sockaddr_in6 v6 = {};
    const void *dest = &v4;
    uint32_t dest_len = sizeof(v4);
    if (server.ulType == DNS_IP_TYPE_IPV6) {
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(dns_port);
        std::memcpy(&v6.sin6_addr, server.unIpAddr.aucIpv6, sizeof(v6.sin6_addr));
        dest = &v6;
        dest_len = sizeof(v6);
    } else {
        v4.sin_family = AF_INET;
        v4.sin_port = htons(dns_port);
        v4.sin_addr.s_addr = server.unIpAddr.ulIpv4;
    }
    if (PAL_Connect(fd, dest, dest_len) == 0) {
        return stream_result::ok;
    }
    if (errno != EINPROGRESS) {
        return stream_result::failed;
    }
    if (!wait_for(fd, true, deadline)) {
        return wait_failed(deadline);
    }
    return PAL_ConnectResult(fd) == 0 ? stream_result::ok : stream_result::failed;
}

class stream_socket {
public:
    explicit stream_socket(int family) : fd_(PAL_StreamSocket(family)) {}
    ~stream_socket() {
        if (fd_ >= 0) {
            (void)PAL_CloseSocket(fd_);
        }
    }
    stream_socket(const stream_socket &) = delete;
    stream_socket &operator=(const stream_socket &) = delete;
    int fd() const { return fd_; }

private:
    int fd_;
};

} // namespace

bool wait_readable(int fd, clock::time_point deadline) { return wait_for(fd, false, deadline); }

ssize_t receive(int fd, void *buf, std::size_t len) {
    for (;;) {
        const ssize_t n = sys::recv(fd, buf, len, 0);
        if (n >= 0 || errno != EINTR) {
            return n;
        }
    }
}

bool reply_matches(std::span<const uint8_t> query, std::span<const uint8_t> reply) {
    if (query.size() < header_size + question_tail || reply.size() < 2) {
        return true;
    }
    if (reply[0] != query[0] || reply[1] != query[1]) {
        return false;
    }
    if (reply.size() < header_size || (reply[4] == 0 && reply[5] == 0)) {
        return true; // no question to compare
    }
    // The query holds one uncompressed question; the reply's first question
    // is compared with it byte by byte, letters folded within the name. Label
    // lengths (at most 63) are never changed by the folding, so equal bytes
    // mean equal labels. Bytes the reply does not have cannot differ.
    const std::size_t question = query.size() - header_size;
    const std::size_t name_end = question - question_tail;
    const std::size_t have = std::min(question, reply.size() - header_size);
    for (std::size_t i = 0; i < have; ++i) {
        const uint8_t a = query[header_size + i];
        const uint8_t b = reply[header_size + i];
        if (i < name_end ? fold(a) != fold(b) : a != b) {
            return false;
        }
    }
    return true;
}

bool is_truncated(std::span<const uint8_t> reply) {
    return reply.size() >= header_size && (reply[2] & flag_tc) != 0;
}

bool owned_reply::allocate(std::size_t size) {
    reset();
    data_ = static_cast<uint8_t *>(VEK_MALLOC(size));
    size_ = data_ != nullptr ? size : 0;
    return data_ != nullptr;
}

void owned_reply::reset() {
    if (data_ != nullptr) {
        VEK_FREE(data_);
    }
    data_ = nullptr;
    size_ = 0;
}

stream_result read_stream_reply(int fd, std::span<const uint8_t> query, clock::time_point deadline,
                                owned_reply &out) {
    for (;;) {
        uint8_t prefix[2];
        stream_result r = read_exact(fd, prefix, sizeof(prefix), deadline);
        if (r != stream_result::ok) {
            return r;
        }
        const std::size_t len = static_cast<std::size_t>(prefix[0] << 8 | prefix[1]);
        if (len == 0 || !out.allocate(len)) {
            return stream_result::failed;
        }
        r = read_exact(fd, out.data(), len, deadline);
        if (r != stream_result::ok) {
            out.reset();
            return r;
        }
        if (reply_matches(query, out.bytes())) {
            return stream_result::ok;
        }
        out.reset(); // an answer to another question: the next message may be ours
    }
}

stream_result ask_over_tcp(const DNS_IPADDR_S &server, std::span<const uint8_t> query,
                           clock::time_point deadline, owned_reply &out) {
    if (query.empty() || query.size() > max_query_size) {
        return stream_result::failed;
    }
    stream_socket sock(server.ulType == DNS_IP_TYPE_IPV6 ? AF_INET6 : AF_INET);
    if (sock.fd() < 0) {
        return stream_result::failed;
    }
    stream_result r = connect_to(sock.fd(), server, deadline);
    if (r != stream_result::ok) {
        return r;
    }
    uint8_t framed[2 + max_query_size];
    framed[0] = static_cast<uint8_t>(query.size() >> 8);
    framed[1] = static_cast<uint8_t>(query.size());
    std::memcpy(framed + 2, query.data(), query.size());
    r = send_all(sock.fd(), framed, query.size() + 2, deadline);
    return r != stream_result::ok ? r : read_stream_reply(sock.fd(), query, deadline, out);
}

wait_result await_reply(int fd, const DNS_IPADDR_S &server, std::span<const uint8_t> query,
                        clock::time_point deadline, std::span<uint8_t> udp, owned_reply &tcp,
                        std::span<const uint8_t> *use, bool *tcp_timed_out) {
    *tcp_timed_out = false;
    for (;;) {
        if (!wait_readable(fd, deadline)) {
            return wait_result::timed_out;
        }
        const ssize_t got = receive(fd, udp.data(), udp.size());
        if (got <= 0) {
            return wait_result::recv_failed;
        }
        *use = std::span<const uint8_t>(udp.data(), static_cast<std::size_t>(got));
        if (!reply_matches(query, *use)) {
            continue; // a late answer to an earlier question on this port
        }
        if (!is_truncated(*use)) {
            return wait_result::reply;
        }
        DNS_LOG(4, "DNS reply truncated, retry over TCP lFdSock:%d", fd);
        const stream_result r = ask_over_tcp(server, query, deadline, tcp);
        if (r == stream_result::ok) {
            *use = tcp.bytes();
            return wait_result::reply;
        }
        // The truncated UDP reply is read exactly as it was before TCP was
        // tried, so a server without TCP gives the same results as ever.
        DNS_LOG(3, "DNS retry over TCP failed (%s), use the truncated reply",
                r == stream_result::timed_out ? "time-out" : "refused, broken or malformed");
        *tcp_timed_out = r == stream_result::timed_out;
        return wait_result::reply;
    }
}

} // namespace vekdns::transport
