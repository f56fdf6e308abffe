// The response path's edits on TCP answers, which may be longer than a dns_pkt holds: the
// in-place strip of the proxy's OPT record and the D2D restoration into a large area.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "edns/dpedns.h"
#include "endec/dpendec.h"

namespace {

using Bytes = std::vector<uint8_t>;

void put16(Bytes& m, int v) {
    m.push_back(static_cast<uint8_t>(v >> 8));
    m.push_back(static_cast<uint8_t>(v));
}

// An answer to "a.test" TXT with n TXT records of len bytes, then an OPT record and an A record
// (whose last byte is a root name); owner is the first answer's owner (a pointer).
Bytes answer(int n, int len, int owner = 0xC00C) {
    Bytes m;
    for (int v : {0x1234, 0x8180, 1, n, 0, 2})
        put16(m, v);
    m.insert(m.end(), {1, 'a', 4, 't', 'e', 's', 't', 0});
    put16(m, 16);
    put16(m, 1);
    for (int i = 0; i < n; ++i) {
        put16(m, i == 0 ? owner : 0xC00C);
        for (int v : {16, 1, 0, 60, len})
            put16(m, v);
        m.push_back(static_cast<uint8_t>(len - 1));
        m.insert(m.end(), static_cast<size_t>(len - 1), 'x');
    }
    m.insert(m.end(), {0, 0, 41, 0x04, 0xD0, 0, 0, 0, 0, 0, 0}); // root, OPT, 1232, no options
    m.insert(m.end(), {0xC0, 0x0C, 0, 1, 0, 1, 0, 0, 0, 60, 0, 4, 192, 0, 2, 0}); // an A record
    return m;
}

TEST(TcpAnswer, StripInPlaceDoesWhatTheStripWithABackupDoesAtAnyLength) {
    // An owner pointing at the last byte points past the end once the OPT record is gone.
    const Bytes small = answer(2, 20);
    const Bytes dangling = answer(1, 20, 0xC000 | static_cast<int>(answer(1, 20).size() - 1));
    for (const auto& [m, stripped] : {std::pair{small, true}, std::pair{dangling, false}}) {
        dns_pkt backup{};
        backup.len = static_cast<uint16_t>(m.size());
        std::memcpy(backup.buf, m.data(), m.size());
        ASSERT_EQ(dpendec_compose_dns_msg_inf(backup.buf, backup.len, &backup.inf), 1);
        dns_pkt old = backup;
        dns_pkt in = backup;
        EXPECT_EQ(dpedns_strip_option41(&backup, old.buf, &old.len, &old.inf), 0);
        EXPECT_EQ(dpedns_strip_option41_in(in.buf, &in.len, &in.inf), 0);
        ASSERT_EQ(in.len, stripped ? m.size() - 11 : m.size());
        ASSERT_EQ(in.len, old.len);
        EXPECT_EQ(std::memcmp(in.buf, old.buf, in.len), 0);
        EXPECT_EQ(std::memcmp(&in.inf, &old.inf, sizeof in.inf), 0);
    }
    // 4,000 bytes: too long for a dns_pkt, stripped in place all the same.
    Bytes big = answer(20, 200);
    msginf inf{};
    auto len = static_cast<uint16_t>(big.size());
    ASSERT_EQ(dpendec_compose_dns_msg_inf(big.data(), len, &inf), 1);
    EXPECT_EQ(dpedns_strip_option41(nullptr, big.data(), &len, &inf), -1);
    EXPECT_EQ(dpedns_strip_option41_in(big.data(), &len, &inf), 0);
    EXPECT_EQ(len, big.size() - 11);
    EXPECT_EQ(inf.arcount, 1);
}

TEST(TcpAnswer, RestoredNameKeepsEveryAnswerOfALongAnswer) {
    Bytes m = answer(20, 200);
    m.resize(m.size() + 1000);
    msginf inf{};
    auto len = static_cast<uint16_t>(m.size() - 1000);
    ASSERT_EQ(dpendec_compose_dns_msg_inf(m.data(), len, &inf), 1);
    std::vector<uint8_t> scratch(m.size());
    const std::string name(60, 'n');
    dpendec_restore_qname_in(m, &len, &inf, name.c_str(), scratch);
    ASSERT_EQ(dpendec_compose_dns_msg_inf(m.data(), len, &inf), 1);
    EXPECT_EQ(std::string(inf.name), name);
    EXPECT_EQ(inf.ancount, 20);
}

} // namespace
