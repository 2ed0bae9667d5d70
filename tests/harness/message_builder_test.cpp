#include "support/message_builder.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace vekdns::test {
namespace {

uint16_t be16(const bytes &b, size_t at) { return static_cast<uint16_t>((b[at] << 8) | b[at + 1]); }

// Header: 12 bytes, question "a.example" (11 bytes) + type/class: the first
// answer starts at 27.
constexpr size_t first_answer = 12 + 11 + 4;

struct flag_case {
    const char *what;
    msg (*build)();
    uint16_t flags;
};

TEST(MessageBuilder, EachFlagSetsItsBit) {
    const flag_case cases[] = {
        {"QR", [] { return msg().response(); }, 0x8000},
        {"opcode 2", [] { return msg().opcode(2); }, 0x1000},
        {"AA", [] { return msg().aa(); }, 0x0400},
        {"TC", [] { return msg().tc(); }, 0x0200},
        {"RD", [] { return msg().rd(); }, 0x0100},
        {"RA", [] { return msg().ra(); }, 0x0080},
        {"Z 5", [] { return msg().z(5); }, 0x0050},
        {"RCODE 3", [] { return msg().rcode(3); }, 0x0003},
        {"RCODE 3 then 0", [] { return msg().rcode(3).rcode(0); }, 0x0000},
        {"QR on, off", [] { return msg().response().response(false); }, 0x0000},
        {"whole word", [] { return msg().flags(0x8180).rcode(2); }, 0x8182},
    };
    for (const auto &c : cases) {
        const bytes b = c.build().id(0xBEEF).bytes();
        ASSERT_EQ(b.size(), 12u) << c.what;
        EXPECT_EQ(be16(b, 0), 0xBEEF) << c.what;
        EXPECT_EQ(be16(b, 2), c.flags) << c.what;
    }
}

TEST(MessageBuilder, QueryHasTheLayoutTheResolverSends) {
    const bytes b = msg::query(7, "_sip._udp.example.com", qtype::srv).bytes();
    ASSERT_EQ(b.size(), 39u); // 21 characters + 18
    EXPECT_EQ(bytes(b.begin() + 2, b.begin() + 12), (bytes{1, 0, 0, 1, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(bytes(b.begin() + 12, b.begin() + 17), (bytes{4, '_', 's', 'i', 'p'}));
    EXPECT_EQ(bytes(b.end() - 5, b.end()), (bytes{0, 0, 33, 0, 1}));
    // A trailing dot changes nothing; the root is a single zero byte.
    EXPECT_EQ(msg::query(7, "_sip._udp.example.com.", qtype::srv).bytes(), b);
    EXPECT_EQ(msg::query(7, ".", qtype::a).bytes().size(), 12u + 1 + 4);
}

TEST(MessageBuilder, CompressionPointsAtTheLongestEarlierSuffix) {
    msg m = msg::query(1, "a.example", qtype::a);
    m.response()
        .answer_cname("a.example", "b.a.example", 60) // owner: the question
        .answer_a("b.a.example", "1.2.3.4", 60)       // owner: the CNAME target
        .additional_a("c.example", "5.6.7.8", 60)     // only "example" is known
        .compress();
    const bytes b = m.bytes();
    EXPECT_EQ(be16(b, first_answer), 0xC00C);
    // CNAME rdata at 27 + 2 + 10: label "b" then a pointer to the question.
    const size_t target = first_answer + 12;
    EXPECT_EQ(be16(b, target - 2), 4);
    EXPECT_EQ(b[target], 1);
    EXPECT_EQ(b[target + 1], 'b');
    EXPECT_EQ(be16(b, target + 2), 0xC00C);
    // The A record's owner points at the CNAME target.
    EXPECT_EQ(be16(b, target + 4), 0xC000 | target);
    // "c" then a pointer to "example" inside the question (offset 14).
    const size_t additional = target + 4 + 2 + 14;
    EXPECT_EQ(b[additional], 1);
    EXPECT_EQ(be16(b, additional + 2), 0xC000 | 14);

    EXPECT_EQ(parse_message(b).describe(),
              "rcode=0 Q a.example A | AN a.example 60 CNAME b.a.example"
              " | AN b.a.example 60 A 1.2.3.4 | AR c.example 60 A 5.6.7.8");
    // Without compression every name is written in full, and reads the same.
    const bytes plain = m.compress(false).bytes();
    EXPECT_EQ(plain.size(), b.size() + 9 + 9 + 11 + 7);
    EXPECT_EQ(parse_message(plain).describe(), parse_message(b).describe());
    // Suffixes match ignoring case.
    EXPECT_EQ(be16(msg::query(1, "a.example", qtype::a).answer_a("A.Example", "1.2.3.4", 1).compress().bytes(),
                   first_answer),
              0xC00C);
}

TEST(MessageBuilder, ExplicitPointersAndRawNames) {
    const bytes b = msg::query(1, "a.example", qtype::a)
                        .answer_a(dname::pointer(question_offset), "1.2.3.4", 1)
                        .answer_a(dname::pointer(question_offset, "www"), "1.2.3.4", 1)
                        .answer_a(dname::raw({0xC0, 0x3F}), "1.2.3.4", 1) // points at itself
                        .bytes();
    EXPECT_EQ(be16(b, first_answer), 0xC00C);
    const size_t second = first_answer + 2 + 14;
    EXPECT_EQ(bytes(b.begin() + second, b.begin() + second + 6), (bytes{3, 'w', 'w', 'w', 0xC0, 0x0C}));
    const size_t third = second + 6 + 14;
    ASSERT_EQ(third, 0x3Fu);
    EXPECT_EQ(be16(b, third), 0xC03F);
    const parsed_message p = parse_message(b);
    EXPECT_FALSE(p.ok); // the loop is caught
    ASSERT_EQ(p.answers.size(), 2u);
    EXPECT_EQ(p.answers[1].name, "www.a.example");
}

TEST(MessageBuilder, CountsAndLengthsCanLie) {
    const bytes b = msg::query(1, "a.example", qtype::a)
                        .response()
                        .qdcount(0)
                        .ancount(5)
                        .nscount(0x0102)
                        .arcount(0xFFFF)
                        .answer(a_record("a.example", "1.2.3.4", 1).with_rdlength(16))
                        .bytes();
    EXPECT_EQ(be16(b, 4), 0);
    EXPECT_EQ(be16(b, 6), 5);
    EXPECT_EQ(be16(b, 8), 0x0102);
    EXPECT_EQ(be16(b, 10), 0xFFFF);
    const size_t rdlength = first_answer + 11 + 8;
    EXPECT_EQ(be16(b, rdlength), 16);
    EXPECT_EQ(b.size(), rdlength + 2 + 4); // the data itself is still 4 bytes
}

TEST(MessageBuilder, RawRecordsTrailingBytesAndTruncation) {
    msg m = msg::query(1, "a.example", qtype::a);
    m.answer_raw("a.example", qtype::txt, qclass::ch, 0x01020304, {2, 'h', 'i'}).trailing({0xAA, 0xBB});
    const bytes full = m.bytes();
    const size_t fixed = first_answer + 11;
    EXPECT_EQ(be16(full, fixed), qtype::txt);
    EXPECT_EQ(be16(full, fixed + 2), qclass::ch);
    EXPECT_EQ(be16(full, fixed + 4), 0x0102);
    EXPECT_EQ(be16(full, fixed + 8), 3);
    EXPECT_EQ(be16(full, full.size() - 2), 0xAABB);

    for (size_t n : {size_t{0}, size_t{11}, size_t{12}, full.size() - 1}) {
        const bytes cut = msg(m).truncate(n).bytes();
        ASSERT_EQ(cut.size(), n);
        EXPECT_TRUE(std::equal(cut.begin(), cut.end(), full.begin())) << n;
    }
    EXPECT_EQ(msg(m).truncate(full.size() + 10).bytes(), full);
}

TEST(MessageBuilder, SrvAndAaaaRecordsDecode) {
    msg m = msg::query(9, "_sip._udp.example.com", qtype::srv);
    m.response()
        .answer_srv("_sip._udp.example.com", 10, 20, 5060, "sip1.example.com", 60)
        .answer_srv("_sip._udp.example.com", 0, 0, 0, ".", 60)
        .additional_aaaa("sip1.example.com", "2001:db8::1", 30)
        .compress();
    const parsed_message p = parse_message(m.bytes());
    EXPECT_TRUE(p.ok);
    EXPECT_EQ(p.id, 9);
    EXPECT_EQ(p.describe(), "rcode=0 Q _sip._udp.example.com SRV"
                            " | AN _sip._udp.example.com 60 SRV 10 20 5060 sip1.example.com"
                            " | AN _sip._udp.example.com 60 SRV 0 0 0 "
                            " | AR sip1.example.com 30 AAAA 2001:db8::1");
    ASSERT_EQ(p.additional.size(), 1u);
    EXPECT_EQ(p.additional[0].rdata.size(), 16u);
}

TEST(MessageBuilder, RejectsWhatItCannotWrite) {
    EXPECT_THROW(a_record("a", "1.2.3", 1), std::invalid_argument);
    EXPECT_THROW(aaaa_record("a", "1.2.3.4", 1), std::invalid_argument);
    EXPECT_THROW(dname("a..b"), std::invalid_argument);
    EXPECT_THROW(dname(std::string(64, 'x') + ".example"), std::invalid_argument);
    EXPECT_NO_THROW(dname(std::string(63, 'x') + ".example"));
}

TEST(ParseQuery, ReadsWhatTheBuilderWrote) {
    const bytes b = msg::query(0x1234, "Www.Example.COM.", qtype::aaaa).bytes();
    const parsed_query q = parse_query(b);
    ASSERT_TRUE(q.ok);
    EXPECT_EQ(q.id, 0x1234);
    EXPECT_EQ(q.flags, 0x0100);
    EXPECT_TRUE(q.rd());
    EXPECT_FALSE(q.qr());
    EXPECT_EQ(q.qdcount, 1);
    EXPECT_EQ(q.qname, "Www.Example.COM");
    EXPECT_EQ(q.qtype, qtype::aaaa);
    EXPECT_EQ(q.qclass, qclass::in);
    EXPECT_EQ(q.raw, b);

    const parsed_query root = parse_query(msg::query(1, "", qtype::a).bytes());
    ASSERT_TRUE(root.ok);
    EXPECT_EQ(root.qname, "");

    // The echo built from a parsed query carries its id, RD and question.
    const parsed_message echo = parse_message(msg::reply_to(q).bytes());
    EXPECT_EQ(echo.id, 0x1234);
    EXPECT_EQ(echo.flags, 0x8180);
    EXPECT_EQ(echo.describe(), "rcode=0 Q Www.Example.COM AAAA");
}

TEST(ParseQuery, RejectsEveryTruncation) {
    const bytes b = msg::query(1, "a.example", qtype::a).bytes();
    for (size_t n = 0; n < b.size(); ++n)
        EXPECT_FALSE(parse_query(bytes(b.begin(), b.begin() + static_cast<long>(n))).ok) << n;
    EXPECT_TRUE(parse_query(b).ok);
}

TEST(ParseQuery, RejectsMalformedNames) {
    const std::string l63(63, 'x');
    const struct {
        const char *what;
        msg m;
    } cases[] = {
        {"no question", msg::query(1, "a", qtype::a).qdcount(0)},
        {"label past the end", msg().qdcount(1).trailing({9, 'a', 'b'})},
        {"pointer to itself", msg::query(1, dname::raw({0xC0, 0x0C}), qtype::a)},
        {"pointer past the end", msg::query(1, dname::raw({0xC0, 0xFF}), qtype::a)},
        {"pointer cut", msg().qdcount(1).trailing({0xC0})},
        {"reserved label type", msg::query(1, dname::raw({0x41, 'a', 0}), qtype::a)},
        {"longer than 255", msg::query(1, l63 + "." + l63 + "." + l63 + "." + l63 + ".x", qtype::a)},
    };
    for (const auto &c : cases)
        EXPECT_FALSE(parse_query(c.m.bytes()).ok) << c.what;
    // The longest legal name (255 bytes encoded) and a pointer are fine.
    EXPECT_TRUE(parse_query(msg::query(1, l63 + "." + l63 + "." + l63 + "." + std::string(61, 'y'), qtype::a)
                                .bytes())
                    .ok);
    // 12: "www" + pointer (6 bytes), 18: type and class, 22: "com".
    const parsed_query p =
        parse_query(msg::query(1, dname::pointer(22, "www"), qtype::a).trailing({3, 'c', 'o', 'm', 0}).bytes());
    EXPECT_TRUE(p.ok);
    EXPECT_EQ(p.qname, "www.com");
}

} // namespace
} // namespace vekdns::test
