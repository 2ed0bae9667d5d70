// Reading received DNS messages: a bounded cursor over the datagram and a
// walker over its resource records. Every read checks what remains first, so
// no count or length in the message can make a reader leave the datagram.
#pragma once

#include <cstddef>
#include <cstring>
#include <cstdint>
#include <span>

#include "base/secure_log.h"

namespace vekdns::wire {

inline constexpr std::size_t header_size = 12;
inline constexpr uint16_t type_a = 1;
inline constexpr uint16_t type_aaaa = 28;
inline constexpr uint16_t type_srv = 33;
inline constexpr uint16_t class_in = 1;

// Header fields by name.
inline bool is_response(std::span<const uint8_t> m) { return (m[2] & 0x80) != 0; }
inline uint8_t rcode(std::span<const uint8_t> m) { return m[3] & 0x0F; }
inline uint16_t count_at(std::span<const uint8_t> m, std::size_t off) {
    return static_cast<uint16_t>((m[off] << 8) | m[off + 1]);
}
inline uint16_t qdcount(std::span<const uint8_t> m) { return count_at(m, 4); }
inline uint16_t ancount(std::span<const uint8_t> m) { return count_at(m, 6); }
inline uint16_t nscount(std::span<const uint8_t> m) { return count_at(m, 8); }
inline uint16_t arcount(std::span<const uint8_t> m) { return count_at(m, 10); }

class cursor {
public:
    explicit cursor(std::span<const uint8_t> msg, std::size_t pos = 0) : msg_(msg), pos_(pos) {}

    std::span<const uint8_t> message() const { return msg_; }
    std::size_t pos() const { return pos_; }
    std::size_t left() const { return pos_ < msg_.size() ? msg_.size() - pos_ : 0; }

    bool skip(std::size_t n) {
        if (left() < n) {
            return false;
        }
        pos_ += n;
        return true;
    }
    bool u8(uint8_t *v) {
        if (left() < 1) {
            return false;
        }
        *v = msg_[pos_++];
        return true;
    }
    bool u16(uint16_t *v) {
        if (left() < 2) {
            return false;
        }
        *v = count_at(msg_, pos_);
        pos_ += 2;
        return true;
    }
    bool u32(uint32_t *v) {
        uint16_t hi = 0;
        uint16_t lo = 0;
        if (left() < 4 || !u16(&hi) || !u16(&lo)) {
            return false;
        }
        *v = (static_cast<uint32_t>(hi) << 16) | lo;
        return true;
    }
    // Takes the next n bytes.
    bool sub(std::size_t n, std::span<const uint8_t> *out) {
        if (left() < n) {
            return false;
        }
        *out = msg_.subspan(pos_, n);
        pos_ += n;
        return true;
    }
    // Steps over a name in place: labels up to a zero byte, or up to a
    // compression pointer, which ends it (pointers are not followed).
    bool skip_name() {
        for (;;) {
            uint8_t len = 0;
            if (!u8(&len)) {
                return false;
            }
            if (len == 0) {
                return true;
            }
            if ((len & 0xC0) == 0xC0) {
                return skip(1);
            }
            if (!skip(len)) {
                return false;
            }
        }
    }

private:
    std::span<const uint8_t> msg_;
    std::size_t pos_;
};

// One resource record as the walker hands it to a decoder.
struct record {
    std::size_t owner; // offset of the owner name in the message
    uint16_t type;
    uint16_t cls;
    uint32_t ttl;
    std::size_t data_at; // offset of the data in the message
    std::span<const uint8_t> data;
};

enum class walk_end {
    done,       // every record was handed over
    stopped,    // the decoder asked to stop
    cut_header, // a name or the fixed fields run past the datagram
    cut_data,   // the data runs past the datagram
};

// Walks `count` records from the cursor, handing each to `decode`, which
// returns false to stop. The cursor ends behind the last record walked.
template <class Decoder> walk_end walk_records(cursor &c, uint32_t count, Decoder &&decode) {
    for (uint32_t i = 0; i < count; ++i) {
        record r{};
        r.owner = c.pos();
        uint16_t len = 0;
        if (!c.skip_name() || c.left() < 10 || !c.u16(&r.type) || !c.u16(&r.cls) || !c.u32(&r.ttl) ||
            !c.u16(&len)) {
            return walk_end::cut_header;
        }
        r.data_at = c.pos();
        if (!c.sub(len, &r.data)) {
            return walk_end::cut_data;
        }
        if (!decode(r)) {
            return walk_end::stopped;
        }
    }
    return walk_end::done;
}

// Steps over `count` questions (name, QTYPE, QCLASS).
inline bool skip_questions(cursor &c, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        if (!c.skip_name() || !c.skip(4)) {
            return false;
        }
    }
    return true;
}

// Writes the question name label by label: each dot-separated part as one
// length byte and its characters, then a zero byte. Returns the position
// behind the name. The buffer has room for length + 2 bytes.
inline uint8_t *encode_name(uint8_t *out, const uint8_t *out_end, const char *name, size_t len) {
    const char *part = name;
    size_t left = len;
    for (;;) {
        const auto *dot = static_cast<const char *>(std::memchr(part, '.', left));
        size_t label = dot != nullptr ? static_cast<size_t>(dot - part) : left;
        *out++ = static_cast<uint8_t>(label);
        vekdns::log_secure_failure(memcpy_s(out, static_cast<size_t>(out_end - out), part, label));
        out += label;
        if (dot == nullptr) {
            break;
        }
        left -= label + 1;
        part = dot + 1;
    }
    *out++ = 0;
    return out;
}

} // namespace vekdns::wire
