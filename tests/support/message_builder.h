// DNS messages for tests: a fluent builder for replies (and queries), a
// bounds-checked query parser and a small message parser.
//
//   msg m = msg::reply_to(q);               // id, QR, RD, RA, the question echoed
//   m.answer_cname("a.example", "b.example", 60)
//    .answer_a("b.example", "1.2.3.4", 300)
//    .additional_aaaa("b.example", "::1", 300)
//    .compress();                           // names point at earlier ones
//   std::vector<uint8_t> wire = m.bytes();
//
// The builder writes exactly what it is told: any header count can be
// overridden, any record can carry a wrong RDLENGTH, names can be raw bytes
// or bare pointers, and the result can be cut at any byte. Only the C++
// standard library and POSIX are used here (no library code), so benchmarks
// can use it too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

namespace vekdns::test {

using bytes = std::vector<uint8_t>;

namespace qtype {
constexpr uint16_t a = 1;
constexpr uint16_t ns = 2;
constexpr uint16_t cname = 5;
constexpr uint16_t soa = 6;
constexpr uint16_t ptr = 12;
constexpr uint16_t mx = 15;
constexpr uint16_t txt = 16;
constexpr uint16_t aaaa = 28;
constexpr uint16_t srv = 33;
constexpr uint16_t opt = 41;
constexpr uint16_t any = 255;
} // namespace qtype

namespace qclass {
constexpr uint16_t in = 1;
constexpr uint16_t ch = 3;
} // namespace qclass

namespace rcode {
constexpr uint8_t noerror = 0;
constexpr uint8_t formerr = 1;
constexpr uint8_t servfail = 2;
constexpr uint8_t nxdomain = 3;
constexpr uint8_t notimp = 4;
constexpr uint8_t refused = 5;
} // namespace rcode

// Offset of the first question's name in every message: the usual target of
// a compression pointer (0xC0 0x0C).
constexpr uint16_t question_offset = 12;

// A domain name as the builder writes it: dotted text ("a.example", "" or
// "." for the root; one trailing dot is ignored), optionally ending in a
// compression pointer instead of the zero byte, or raw encoded bytes.
class dname {
public:
    dname(const char *text);
    dname(const std::string &text);
    // `prefix` labels (may be empty) followed by a pointer to `offset`.
    static dname pointer(uint16_t offset, const std::string &prefix = "");
    // Exactly these bytes (malformed names: long labels, loops, cut names).
    static dname raw(bytes encoded);

    const std::vector<std::string> &labels() const { return labels_; }
    std::optional<uint16_t> target() const { return pointer_; }
    const std::optional<bytes> &raw_bytes() const { return raw_; }

private:
    dname() = default;
    std::vector<std::string> labels_;
    std::optional<uint16_t> pointer_;
    std::optional<bytes> raw_;
};

// One resource record. RDATA is a sequence of raw pieces and names, so names
// inside RDATA (CNAME, SRV targets) take part in compression.
struct rr {
    dname name;
    uint16_t type = 0;
    uint16_t cls = qclass::in;
    uint32_t ttl = 0;
    std::vector<std::variant<bytes, dname>> rdata;
    std::optional<uint16_t> rdlength; // written instead of the real length

    rr &with_rdlength(uint16_t len) { rdlength = len; return *this; }
    rr &with_class(uint16_t c) { cls = c; return *this; }
};

// Record factories; addresses are numeric text (throws std::invalid_argument
// when they do not parse).
rr a_record(const dname &name, const std::string &ipv4, uint32_t ttl);
rr aaaa_record(const dname &name, const std::string &ipv6, uint32_t ttl);
rr cname_record(const dname &name, const dname &target, uint32_t ttl);
rr srv_record(const dname &name, uint16_t priority, uint16_t weight, uint16_t port,
              const dname &target, uint32_t ttl);
rr raw_record(const dname &name, uint16_t type, uint16_t cls, uint32_t ttl, bytes rdata);

// A query as seen by a server. `ok` is false when the header or the first
// question is cut or malformed (names are bounds-checked, pointers followed
// with a jump limit, at most 255 bytes encoded).
struct parsed_query {
    bool ok = false;
    uint16_t id = 0;
    uint16_t flags = 0;
    uint16_t qdcount = 0;
    std::string qname; // dotted, no trailing dot; "" for the root
    uint16_t qtype = 0;
    uint16_t qclass = 0;
    bytes raw;              // the datagram as received
    uint16_t peer_port = 0; // the sender's port (set by scripted_server)

    bool qr() const { return (flags & 0x8000) != 0; }
    bool rd() const { return (flags & 0x0100) != 0; }
    uint8_t opcode() const { return static_cast<uint8_t>((flags >> 11) & 0xF); }
};

parsed_query parse_query(std::span<const uint8_t> datagram);

class msg {
public:
    // A response to `q`: its id, QR, its RD, RA, and its question echoed.
    static msg reply_to(const parsed_query &q);
    // A query as a stub resolver sends it: RD set, one question.
    static msg query(uint16_t id, const dname &name, uint16_t type, uint16_t cls = qclass::in);

    // Header. flags() replaces the whole flags word; the others set fields.
    msg &id(uint16_t v) { id_ = v; return *this; }
    msg &flags(uint16_t v) { flags_ = v; return *this; }
    msg &response(bool on = true) { return bit(15, on); }
    msg &aa(bool on = true) { return bit(10, on); }
    msg &tc(bool on = true) { return bit(9, on); }
    msg &rd(bool on = true) { return bit(8, on); }
    msg &ra(bool on = true) { return bit(7, on); }
    msg &opcode(uint8_t v) { return field(11, 0xF, v); }
    msg &z(uint8_t v) { return field(4, 0x7, v); }
    msg &rcode(uint8_t v) { return field(0, 0xF, v); }

    // Counts written instead of the real ones.
    msg &qdcount(uint16_t n) { qd_ = n; return *this; }
    msg &ancount(uint16_t n) { an_ = n; return *this; }
    msg &nscount(uint16_t n) { ns_ = n; return *this; }
    msg &arcount(uint16_t n) { ar_ = n; return *this; }

    msg &question(const dname &name, uint16_t type, uint16_t cls = qclass::in);

    msg &answer(rr r) { answers_.push_back(std::move(r)); return *this; }
    msg &authority(rr r) { authority_.push_back(std::move(r)); return *this; }
    msg &additional(rr r) { additional_.push_back(std::move(r)); return *this; }

    msg &answer_a(const dname &n, const std::string &ip, uint32_t ttl) { return answer(a_record(n, ip, ttl)); }
    msg &answer_aaaa(const dname &n, const std::string &ip, uint32_t ttl) { return answer(aaaa_record(n, ip, ttl)); }
    msg &answer_cname(const dname &n, const dname &target, uint32_t ttl) { return answer(cname_record(n, target, ttl)); }
    msg &answer_srv(const dname &n, uint16_t prio, uint16_t weight, uint16_t port, const dname &target, uint32_t ttl) {
        return answer(srv_record(n, prio, weight, port, target, ttl));
    }
    msg &answer_raw(const dname &n, uint16_t type, uint16_t cls, uint32_t ttl, test::bytes rdata) {
        return answer(raw_record(n, type, cls, ttl, std::move(rdata)));
    }
    msg &additional_a(const dname &n, const std::string &ip, uint32_t ttl) { return additional(a_record(n, ip, ttl)); }
    msg &additional_aaaa(const dname &n, const std::string &ip, uint32_t ttl) { return additional(aaaa_record(n, ip, ttl)); }
    msg &additional_raw(const dname &n, uint16_t type, uint16_t cls, uint32_t ttl, test::bytes rdata) {
        return additional(raw_record(n, type, cls, ttl, std::move(rdata)));
    }

    // Compress names (owners and names inside RDATA) against every name
    // written before them: the longest known suffix becomes a pointer.
    msg &compress(bool on = true) { compress_ = on; return *this; }
    // Bytes appended after the last record.
    msg &trailing(test::bytes extra);
    // Cut the result to at most `n` bytes.
    msg &truncate(size_t n) { cut_ = n; return *this; }

    test::bytes bytes() const;

private:
    msg &bit(int pos, bool on);
    msg &field(int shift, uint16_t mask, uint16_t v);

    struct question_entry {
        dname name;
        uint16_t type;
        uint16_t cls;
    };
    uint16_t id_ = 0;
    uint16_t flags_ = 0;
    std::optional<uint16_t> qd_, an_, ns_, ar_;
    std::vector<question_entry> questions_;
    std::vector<rr> answers_, authority_, additional_;
    test::bytes trailing_;
    bool compress_ = false;
    std::optional<size_t> cut_;
};

// A decoded message, for checking what a builder or a server produced.
struct parsed_rr {
    std::string name;
    uint16_t type = 0;
    uint16_t cls = 0;
    uint32_t ttl = 0;
    test::bytes rdata;
    // A: "1.2.3.4"; AAAA: "::1"; CNAME/NS/PTR: the target;
    // SRV: "prio weight port target"; other types: empty.
    std::string text;
};

struct parsed_message {
    bool ok = false;
    uint16_t id = 0;
    uint16_t flags = 0;
    uint16_t qdcount = 0, ancount = 0, nscount = 0, arcount = 0;
    std::vector<parsed_query> questions; // qname/qtype/qclass filled
    std::vector<parsed_rr> answers, authority, additional;

    uint8_t rcode() const { return static_cast<uint8_t>(flags & 0xF); }
    // One line, e.g. "rcode=0 Q a.example A | AN a.example 300 A 1.2.3.4".
    std::string describe() const;
};

parsed_message parse_message(std::span<const uint8_t> datagram);

// "A", "AAAA", "SRV", ... or the number.
std::string type_name(uint16_t type);

} // namespace vekdns::test
