// The neighbour table's messages as the kernel writes them: the dump walker and the copy of the
// table kept from notifications, with malformed and cut-short messages.
#include <gtest/gtest.h>

#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "edns/dpedns.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

// ---- the neighbour dump ---------------------------------------------------------------------

// Netlink messages in host order, as the kernel writes them.
template <class T>
Bytes raw(const T& v) {
    Bytes b(sizeof v);
    std::memcpy(b.data(), &v, sizeof v);
    return b;
}
Bytes padded(Bytes b) {
    b.resize(NLMSG_ALIGN(b.size()));
    return b;
}
Bytes nlmsg(uint16_t type, uint32_t seq, const Bytes& payload) {
    nlmsghdr h{};
    h.nlmsg_len = NLMSG_LENGTH(payload.size());
    h.nlmsg_type = type;
    h.nlmsg_seq = seq;
    return padded(cat({raw(h), payload}));
}
Bytes attr(uint16_t type, const Bytes& value) {
    const rtattr a{static_cast<unsigned short>(RTA_LENGTH(value.size())), type};
    return padded(cat({raw(a), value}));
}
const Bytes kDst = {0x20, 0x01, 0x0d, 0xb8, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x10};
Bytes entry(uint8_t last, uint16_t state = NUD_STALE, uint8_t flags = 0, int family = AF_INET6,
            uint32_t seq = 7, Bytes lladdr = {}, Bytes dst = kDst, int ifindex = 1,
            uint16_t type = RTM_NEWNEIGH) {
    ndmsg ndm{};
    ndm.ndm_family = static_cast<uint8_t>(family);
    ndm.ndm_state = state;
    ndm.ndm_flags = flags;
    ndm.ndm_ifindex = ifindex;
    if (lladdr.empty()) lladdr = {0x02, 0x00, 0x5E, 0xAB, 0xCD, last};
    return nlmsg(type, seq, cat({raw(ndm), attr(NDA_DST, dst), attr(NDA_LLADDR, lladdr)}));
}

// Each result of walking one datagram: a MAC text, or the closing code.
std::vector<std::string> walk(const Bytes& d) {
    const std::unique_ptr<uint8_t[]> buf(new uint8_t[d.size()]); // exact size for ASan
    std::memcpy(buf.get(), d.data(), d.size());
    std::vector<std::string> seen;
    size_t pos = 0;
    char mac[DPEDNS_MAC_TEXT_SIZE];
    int r;
    while ((r = dpedns_neigh_next({buf.get(), d.size()}, &pos, 7, kDst.data(), mac)) ==
           DPEDNS_NEIGH_MATCH) {
        seen.emplace_back(mac);
    }
    seen.push_back(std::to_string(r));
    return seen;
}

TEST(NeighDump, TakesTheEntriesTheListingShowsWithAnEthernetAddress) {
    const Bytes done = nlmsg(NLMSG_DONE, 7, raw(0));
    Bytes other = kDst;
    other[15] = 0x11;
    const Bytes cut = entry(0x33);
    Bytes long_rta = entry(0x55);
    long_rta[NLMSG_SPACE(sizeof(ndmsg))] = 0xFF; // NDA_DST's length runs past the message
    const std::vector<std::pair<Bytes, std::vector<std::string>>> cases = {
        // two entries of the address: both taken, the caller keeps the last
        {cat({entry(0x01), entry(0x02, NUD_PERMANENT), done}),
         {"02:00:5e:ab:cd:01", "02:00:5e:ab:cd:02", "0"}},
        // not listed: NOARP alone and no state; listed: NOARP learned externally
        {cat({entry(1, NUD_NOARP), entry(2, NUD_NONE), entry(3, NUD_NOARP, NTF_EXT_LEARNED)}),
         {"02:00:5e:ab:cd:03", "2"}},
        // another family; another request's entry and end
        {cat({entry(1, NUD_STALE, 0, AF_INET), entry(2, NUD_STALE, 0, AF_INET6, 8),
              nlmsg(NLMSG_DONE, 8, raw(0))}),
         {"2"}},
        // an 8-byte link-layer address; another address; an attribute past the message's end
        {cat({entry(1, NUD_STALE, 0, AF_INET6, 7, Bytes(8, 0xAA)),
              entry(2, NUD_STALE, 0, AF_INET6, 7, {}, other), long_rta}),
         {"2"}},
        // a message cut short, a header cut short, an error answer
        {cat({entry(0x44), Bytes(cut.begin(), cut.end() - 4)}), {"02:00:5e:ab:cd:44", "-1"}},
        {cat({entry(0x44), Bytes(8, 0)}), {"02:00:5e:ab:cd:44", "-1"}},
        {cat({nlmsg(NLMSG_ERROR, 7, raw(nlmsgerr{-EBUSY, {}})), done}), {"-1"}},
    };
    for (const auto& [dgram, want] : cases)
        EXPECT_EQ(walk(dgram), want);
}

// ---- the copy of the neighbour table ---------------------------------------------------------

// The address 2001:db8:1::<n> (two bytes of n).
Bytes host(int n) {
    Bytes d = kDst;
    d[14] = static_cast<uint8_t>(n >> 8);
    d[15] = static_cast<uint8_t>(n);
    return d;
}
// A notification (sequence number 0) for host n on interface ifindex, MAC ending in mac.
Bytes note(int n, int ifindex, uint8_t mac, uint16_t state = NUD_REACHABLE, uint8_t flags = 0,
           uint16_t type = RTM_NEWNEIGH) {
    return entry(mac, state, flags, AF_INET6, 0, {}, host(n), ifindex, type);
}
std::string find(const dpedns_neigh_cache* c, int n) {
    char mac[DPEDNS_MAC_TEXT_SIZE] = "";
    const int r = dpedns_neigh_cache_find(c, host(n).data(), mac);
    return r == 0 ? std::string(mac) : std::to_string(r);
}
int feed(dpedns_neigh_cache* c, const Bytes& d, std::optional<uint32_t> seq = std::nullopt) {
    return dpedns_neigh_cache_apply(c, {d.data(), d.size()}, seq);
}

TEST(NeighCache, FollowsTheNotificationsAsTheListingWould) {
    const auto c = std::make_unique<dpedns_neigh_cache>();
    dpedns_neigh_cache_clear(c.get(), 42);
    // The dump: host 1 listed, host 2 hidden (NOARP alone), host 3 of another request.
    const Bytes dump =
        cat({entry(1, NUD_STALE, 0, AF_INET6, 7, {}, host(1)),
             entry(2, NUD_NOARP, 0, AF_INET6, 7, {}, host(2)),
             entry(3, NUD_STALE, 0, AF_INET6, 8, {}, host(3)), nlmsg(NLMSG_DONE, 7, raw(0))});
    EXPECT_EQ(feed(c.get(), dump, 7), DPEDNS_NEIGH_DONE);
    const std::string several = std::to_string(DPEDNS_NEIGH_UNSURE);
    // Each notification, then what hosts 1 and 2 give.
    const std::vector<std::tuple<Bytes, std::string, std::string>> steps = {
        {Bytes{}, "02:00:5e:ab:cd:01", "-1"},
        {note(1, 1, 0x11, NUD_PERMANENT), "02:00:5e:ab:cd:11", "-1"}, // replaced
        {note(2, 1, 0x22, NUD_NOARP, NTF_EXT_LEARNED), "02:00:5e:ab:cd:11", "02:00:5e:ab:cd:22"},
        {note(1, 2, 0x12), several, "02:00:5e:ab:cd:22"}, // a second interface
        {note(1, 1, 0, NUD_STALE, 0, RTM_DELNEIGH), "02:00:5e:ab:cd:12", "02:00:5e:ab:cd:22"},
        {note(1, 2, 0x12, NUD_NOARP), "-1", "02:00:5e:ab:cd:22"},           // hidden now
        {note(2, 1, 0x99, NUD_NONE, NTF_PROXY), "-1", "02:00:5e:ab:cd:22"}, // another table
        {entry(0x99, NUD_STALE, 0, AF_INET, 0, {}, host(2)), "-1", "02:00:5e:ab:cd:22"},
        {note(2, 1, 0, NUD_STALE, 0, RTM_DELNEIGH), "-1", "-1"},
    };
    for (const auto& [dgram, want1, want2] : steps) {
        EXPECT_EQ(feed(c.get(), dgram), DPEDNS_NEIGH_MORE);
        EXPECT_EQ(find(c.get(), 1), want1);
        EXPECT_EQ(find(c.get(), 2), want2);
    }
}

TEST(NeighCache, KeepsEveryEntryUpToItsBoundAndThenCannotAnswer) {
    const auto c = std::make_unique<dpedns_neigh_cache>();
    dpedns_neigh_cache_clear(c.get(), 7);
    const int max = static_cast<int>(DPEDNS_NEIGH_CACHE_MAX);
    Bytes all, evens;
    for (int n = 0; n < max; ++n) {
        const Bytes add = note(n, 1, static_cast<uint8_t>(n));
        const Bytes del = note(n, 1, 0, NUD_STALE, 0, RTM_DELNEIGH);
        all.insert(all.end(), add.begin(), add.end());
        if (n % 2 == 0) evens.insert(evens.end(), del.begin(), del.end());
    }
    feed(c.get(), all);
    feed(c.get(), evens); // the entries behind each removed one stay reachable
    for (int n = 0; n < max; ++n) {
        char want[DPEDNS_MAC_TEXT_SIZE];
        std::snprintf(want, sizeof want, "02:00:5e:ab:cd:%02x", n & 0xFF);
        ASSERT_EQ(find(c.get(), n), n % 2 ? want : "-1") << n;
    }
    feed(c.get(), all);
    EXPECT_EQ(find(c.get(), max - 1), "02:00:5e:ab:cd:ff");
    EXPECT_EQ(feed(c.get(), note(max, 1, 0)), DPEDNS_NEIGH_MORE);
    EXPECT_EQ(find(c.get(), 1), std::to_string(DPEDNS_NEIGH_UNSURE));
}

} // namespace
