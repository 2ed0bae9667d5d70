#include "support/message_builder.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <stdexcept>

namespace vekdns::test {

namespace {

constexpr size_t header_size = 12;
constexpr int max_jumps = 32;
constexpr size_t max_encoded_name = 255;

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

// Writes a message; remembers where each name suffix was written so later
// names can point at it.
struct writer {
    bytes out;
    bool compress = false;
    std::map<std::string, uint16_t> suffixes; // lower-case dotted suffix -> offset

    void u8(uint8_t v) { out.push_back(v); }
    void u16(uint16_t v) {
        out.push_back(static_cast<uint8_t>(v >> 8));
        out.push_back(static_cast<uint8_t>(v));
    }
    void u32(uint32_t v) {
        u16(static_cast<uint16_t>(v >> 16));
        u16(static_cast<uint16_t>(v));
    }
    void append(std::span<const uint8_t> b) { out.insert(out.end(), b.begin(), b.end()); }
    void patch16(size_t at, uint16_t v) {
        out[at] = static_cast<uint8_t>(v >> 8);
        out[at + 1] = static_cast<uint8_t>(v);
    }

    void name(const dname &n) {
        if (n.raw_bytes()) {
            append(*n.raw_bytes());
            return;
        }
        const auto &labels = n.labels();
        // A name that ends in an explicit pointer has no known full text: it
        // is neither compressed nor offered as a target.
        const bool full = !n.target();
        for (size_t i = 0; i < labels.size(); ++i) {
            std::string key;
            for (size_t j = i; j < labels.size(); ++j)
                key += lower(labels[j]) + ".";
            if (full && compress) {
                auto it = suffixes.find(key);
                if (it != suffixes.end()) {
                    u16(static_cast<uint16_t>(0xC000 | it->second));
                    return;
                }
            }
            if (full && out.size() < 0x4000)
                suffixes.emplace(key, static_cast<uint16_t>(out.size()));
            u8(static_cast<uint8_t>(labels[i].size()));
            append({reinterpret_cast<const uint8_t *>(labels[i].data()), labels[i].size()});
        }
        if (n.target())
            u16(static_cast<uint16_t>(0xC000 | (*n.target() & 0x3FFF)));
        else
            u8(0);
    }

    void record(const rr &r) {
        name(r.name);
        u16(r.type);
        u16(r.cls);
        u32(r.ttl);
        const size_t len_at = out.size();
        u16(0);
        for (const auto &piece : r.rdata) {
            if (const auto *b = std::get_if<bytes>(&piece))
                append(*b);
            else
                name(std::get<dname>(piece));
        }
        const size_t real = out.size() - len_at - 2;
        patch16(len_at, r.rdlength ? *r.rdlength : static_cast<uint16_t>(real));
    }
};

uint16_t get16(std::span<const uint8_t> m, size_t at) {
    return static_cast<uint16_t>((m[at] << 8) | m[at + 1]);
}

uint32_t get32(std::span<const uint8_t> m, size_t at) {
    return (static_cast<uint32_t>(get16(m, at)) << 16) | get16(m, at + 2);
}

// Decodes the name at `pos` into dotted text. On success `pos` moves behind
// the name as stored there (behind the first pointer, if any). Every byte is
// bounds-checked; pointers are followed at most `max_jumps` times.
bool read_name(std::span<const uint8_t> m, size_t &pos, std::string &out) {
    out.clear();
    size_t p = pos;
    bool jumped = false;
    int jumps = 0;
    size_t encoded = 0;
    for (;;) {
        if (p >= m.size())
            return false;
        const uint8_t len = m[p];
        if ((len & 0xC0) == 0xC0) {
            if (p + 1 >= m.size() || ++jumps > max_jumps)
                return false;
            if (!jumped)
                pos = p + 2;
            jumped = true;
            p = static_cast<size_t>(((len & 0x3F) << 8) | m[p + 1]);
            continue;
        }
        if ((len & 0xC0) != 0)
            return false; // 01 and 10 prefixes are not used
        encoded += len + 1u;
        if (encoded > max_encoded_name)
            return false;
        if (len == 0) {
            if (!jumped)
                pos = p + 1;
            return true;
        }
        if (m.size() - (p + 1) < len)
            return false;
        if (!out.empty())
            out += '.';
        out.append(reinterpret_cast<const char *>(&m[p + 1]), len);
        p += 1u + len;
    }
}

bool read_question(std::span<const uint8_t> m, size_t &pos, parsed_query &q) {
    if (!read_name(m, pos, q.qname) || m.size() - pos < 4)
        return false;
    q.qtype = get16(m, pos);
    q.qclass = get16(m, pos + 2);
    pos += 4;
    return true;
}

std::string rdata_text(std::span<const uint8_t> m, size_t start, const parsed_rr &r) {
    char buf[INET6_ADDRSTRLEN] = {};
    std::string name;
    size_t at = start;
    switch (r.type) {
    case qtype::a:
        if (r.rdata.size() == 4 && inet_ntop(AF_INET, r.rdata.data(), buf, sizeof buf))
            return buf;
        break;
    case qtype::aaaa:
        if (r.rdata.size() == 16 && inet_ntop(AF_INET6, r.rdata.data(), buf, sizeof buf))
            return buf;
        break;
    case qtype::cname:
    case qtype::ns:
    case qtype::ptr:
        if (read_name(m, at, name))
            return name;
        break;
    case qtype::srv:
        at += 6;
        if (r.rdata.size() >= 6 && read_name(m, at, name))
            return std::to_string(get16(m, start)) + " " + std::to_string(get16(m, start + 2)) +
                   " " + std::to_string(get16(m, start + 4)) + " " + name;
        break;
    default:
        return "";
    }
    return "<bad rdata>";
}

bool read_record(std::span<const uint8_t> m, size_t &pos, parsed_rr &r) {
    if (!read_name(m, pos, r.name) || m.size() - pos < 10)
        return false;
    r.type = get16(m, pos);
    r.cls = get16(m, pos + 2);
    r.ttl = get32(m, pos + 4);
    const uint16_t len = get16(m, pos + 8);
    pos += 10;
    if (m.size() - pos < len)
        return false;
    r.rdata.assign(m.begin() + static_cast<std::ptrdiff_t>(pos),
                   m.begin() + static_cast<std::ptrdiff_t>(pos + len));
    r.text = rdata_text(m.first(pos + len), pos, r);
    pos += len;
    return true;
}

bytes address_bytes(int family, const std::string &text) {
    bytes b(family == AF_INET ? 4 : 16);
    if (inet_pton(family, text.c_str(), b.data()) != 1)
        throw std::invalid_argument("not a numeric address: " + text);
    return b;
}

bytes be16s(std::initializer_list<uint16_t> values) {
    bytes b;
    for (uint16_t v : values) {
        b.push_back(static_cast<uint8_t>(v >> 8));
        b.push_back(static_cast<uint8_t>(v));
    }
    return b;
}

} // namespace

// ---- names and records ------------------------------------------------------

dname::dname(const char *text) : dname(std::string(text)) {}

dname::dname(const std::string &text) {
    std::string t = text;
    if (!t.empty() && t.back() == '.')
        t.pop_back();
    size_t start = 0;
    while (!t.empty()) {
        const size_t dot = t.find('.', start);
        std::string label = t.substr(start, dot == std::string::npos ? std::string::npos : dot - start);
        if (label.empty() || label.size() > 63)
            throw std::invalid_argument("bad label in name: " + text + " (use dname::raw)");
        labels_.push_back(std::move(label));
        if (dot == std::string::npos)
            break;
        start = dot + 1;
    }
}

dname dname::pointer(uint16_t offset, const std::string &prefix) {
    dname n(prefix);
    n.pointer_ = offset;
    return n;
}

dname dname::raw(bytes encoded) {
    dname n;
    n.raw_ = std::move(encoded);
    return n;
}

rr a_record(const dname &name, const std::string &ipv4, uint32_t ttl) {
    return rr{name, qtype::a, qclass::in, ttl, {address_bytes(AF_INET, ipv4)}, {}};
}

rr aaaa_record(const dname &name, const std::string &ipv6, uint32_t ttl) {
    return rr{name, qtype::aaaa, qclass::in, ttl, {address_bytes(AF_INET6, ipv6)}, {}};
}

rr cname_record(const dname &name, const dname &target, uint32_t ttl) {
    return rr{name, qtype::cname, qclass::in, ttl, {target}, {}};
}

rr srv_record(const dname &name, uint16_t priority, uint16_t weight, uint16_t port,
              const dname &target, uint32_t ttl) {
    return rr{name, qtype::srv, qclass::in, ttl, {be16s({priority, weight, port}), target}, {}};
}

rr raw_record(const dname &name, uint16_t type, uint16_t cls, uint32_t ttl, bytes rdata) {
    return rr{name, type, cls, ttl, {std::move(rdata)}, {}};
}

// ---- builder ----------------------------------------------------------------

msg msg::reply_to(const parsed_query &q) {
    msg m;
    m.id(q.id).response().opcode(q.opcode()).rd(q.rd()).ra();
    if (q.ok)
        m.question(q.qname, q.qtype, q.qclass);
    return m;
}

msg msg::query(uint16_t id, const dname &name, uint16_t type, uint16_t cls) {
    msg m;
    m.id(id).rd().question(name, type, cls);
    return m;
}

msg &msg::bit(int pos, bool on) {
    const auto mask = static_cast<uint16_t>(1u << pos);
    flags_ = static_cast<uint16_t>(on ? (flags_ | mask) : (flags_ & ~mask));
    return *this;
}

msg &msg::field(int shift, uint16_t mask, uint16_t v) {
    flags_ = static_cast<uint16_t>((flags_ & ~(mask << shift)) | ((v & mask) << shift));
    return *this;
}

msg &msg::question(const dname &name, uint16_t type, uint16_t cls) {
    questions_.push_back({name, type, cls});
    return *this;
}

msg &msg::trailing(test::bytes extra) {
    trailing_.insert(trailing_.end(), extra.begin(), extra.end());
    return *this;
}

test::bytes msg::bytes() const {
    writer w;
    w.compress = compress_;
    auto count = [](std::optional<uint16_t> forced, size_t real) {
        return forced ? *forced : static_cast<uint16_t>(real);
    };
    w.u16(id_);
    w.u16(flags_);
    w.u16(count(qd_, questions_.size()));
    w.u16(count(an_, answers_.size()));
    w.u16(count(ns_, authority_.size()));
    w.u16(count(ar_, additional_.size()));
    for (const auto &q : questions_) {
        w.name(q.name);
        w.u16(q.type);
        w.u16(q.cls);
    }
    for (const auto *section : {&answers_, &authority_, &additional_})
        for (const auto &r : *section)
            w.record(r);
    w.append(trailing_);
    if (cut_ && *cut_ < w.out.size())
        w.out.resize(*cut_);
    return std::move(w.out);
}

// ---- parsers ----------------------------------------------------------------

parsed_query parse_query(std::span<const uint8_t> datagram) {
    parsed_query q;
    q.raw.assign(datagram.begin(), datagram.end());
    if (datagram.size() < header_size)
        return q;
    q.id = get16(datagram, 0);
    q.flags = get16(datagram, 2);
    q.qdcount = get16(datagram, 4);
    size_t pos = header_size;
    q.ok = q.qdcount >= 1 && read_question(datagram, pos, q);
    return q;
}

parsed_message parse_message(std::span<const uint8_t> datagram) {
    parsed_message m;
    if (datagram.size() < header_size)
        return m;
    m.id = get16(datagram, 0);
    m.flags = get16(datagram, 2);
    m.qdcount = get16(datagram, 4);
    m.ancount = get16(datagram, 6);
    m.nscount = get16(datagram, 8);
    m.arcount = get16(datagram, 10);
    size_t pos = header_size;
    // Each entry takes at least one byte, so a failing read ends a lying count.
    for (uint16_t i = 0; i < m.qdcount; ++i) {
        parsed_query q;
        if (!read_question(datagram, pos, q))
            return m;
        q.ok = true;
        m.questions.push_back(std::move(q));
    }
    const std::pair<uint16_t, std::vector<parsed_rr> *> sections[] = {
        {m.ancount, &m.answers}, {m.nscount, &m.authority}, {m.arcount, &m.additional}};
    for (const auto &[n, list] : sections) {
        for (uint16_t i = 0; i < n; ++i) {
            parsed_rr r;
            if (!read_record(datagram, pos, r))
                return m;
            list->push_back(std::move(r));
        }
    }
    m.ok = true;
    return m;
}

std::string type_name(uint16_t type) {
    switch (type) {
    case qtype::a: return "A";
    case qtype::ns: return "NS";
    case qtype::cname: return "CNAME";
    case qtype::soa: return "SOA";
    case qtype::ptr: return "PTR";
    case qtype::mx: return "MX";
    case qtype::txt: return "TXT";
    case qtype::aaaa: return "AAAA";
    case qtype::srv: return "SRV";
    case qtype::opt: return "OPT";
    case qtype::any: return "ANY";
    default: return "TYPE" + std::to_string(type);
    }
}

std::string parsed_message::describe() const {
    std::string s = ok ? "" : "(malformed) ";
    s += "rcode=" + std::to_string(rcode());
    if (flags & 0x0200)
        s += " TC";
    for (const auto &q : questions)
        s += " Q " + q.qname + " " + type_name(q.qtype);
    const std::pair<const char *, const std::vector<parsed_rr> *> sections[] = {
        {"AN", &answers}, {"NS", &authority}, {"AR", &additional}};
    for (const auto &[tag, list] : sections)
        for (const auto &r : *list) {
            s += std::string(" | ") + tag + " " + r.name + " " + std::to_string(r.ttl) + " " +
                 type_name(r.type);
            if (!r.text.empty())
                s += " " + r.text;
        }
    return s;
}

} // namespace vekdns::test
