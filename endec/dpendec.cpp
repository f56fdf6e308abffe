#include "endec/dpendec.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "ctrl/dp_trace.h"

namespace {

constexpr uint16_t kFlagQR = DPENDEC_FLAG_QR;
constexpr uint16_t kFlagAA = 0x0400;
constexpr uint16_t kFlagRD = 0x0100;
constexpr uint16_t kFlagRA = 0x0080;
constexpr uint16_t kRcodeMask = DPENDEC_RCODE_MASK;
constexpr uint16_t kClassIN = 1;
constexpr uint8_t kPointerToQname[2] = {0xC0, 0x0C};
constexpr uint16_t kMaxReplacedLen = 1024; // a rewritten query must stay this small
constexpr uint16_t kMaxPointers = 64;      // the only guard against pointer loops

// ---- bounded wire cursors ----------------------------------------------------------------------

// Reads big-endian fields from one message. A read or skip that would leave the message sets a
// sticky error and yields zeros, so a run of reads is checked once, at its end.
class wire_reader {
  public:
    explicit wire_reader(std::span<const uint8_t> msg, size_t pos = 0)
        : msg_(msg), pos_(pos), bad_(pos > msg.size()) {}

    bool ok() const { return !bad_; }
    bool at_end() const { return bad_ || pos_ >= msg_.size(); }
    size_t pos() const { return pos_; }
    size_t left() const { return bad_ ? 0 : msg_.size() - pos_; }
    const uint8_t* here() const { return msg_.data() + (bad_ ? msg_.size() : pos_); }

    uint8_t u8() { return take(1) ? msg_[pos_++] : 0; }
    uint16_t u16() {
        if (!take(2)) return 0;
        const uint16_t v = static_cast<uint16_t>(msg_[pos_] << 8 | msg_[pos_ + 1]);
        pos_ += 2;
        return v;
    }
    uint32_t u32() {
        const uint32_t hi = u16();
        return hi << 16 | u16();
    }
    std::span<const uint8_t> bytes(size_t n) {
        if (!take(n)) return {};
        const auto out = msg_.subspan(pos_, n);
        pos_ += n;
        return out;
    }
    void skip(size_t n) {
        if (take(n)) pos_ += n;
    }
    // Jumps to an absolute offset (a compression pointer's target); beyond the end is an error.
    void seek(size_t pos) {
        pos_ = pos;
        bad_ = bad_ || pos > msg_.size();
    }

  private:
    bool take(size_t n) {
        if (bad_ || n > msg_.size() - pos_) bad_ = true;
        return !bad_;
    }

    std::span<const uint8_t> msg_;
    size_t pos_;
    bool bad_;
};

// Writes big-endian fields into one buffer, with the same sticky error as wire_reader.
class wire_writer {
  public:
    explicit wire_writer(std::span<uint8_t> buf, size_t pos = 0)
        : buf_(buf), pos_(pos), bad_(pos > buf.size()) {}

    bool ok() const { return !bad_; }
    size_t pos() const { return pos_; }
    size_t left() const { return bad_ ? 0 : buf_.size() - pos_; }

    void u8(uint8_t v) { bytes({&v, 1}); }
    void u16(uint16_t v) {
        const uint8_t b[2] = {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
        bytes(b);
    }
    void u32(uint32_t v) {
        u16(static_cast<uint16_t>(v >> 16));
        u16(static_cast<uint16_t>(v));
    }
    void bytes(std::span<const uint8_t> src) {
        if (bad_ || src.size() > buf_.size() - pos_) {
            bad_ = true;
            return;
        }
        std::copy(src.begin(), src.end(), buf_.begin() + static_cast<ptrdiff_t>(pos_));
        pos_ += src.size();
    }

  private:
    std::span<uint8_t> buf_;
    size_t pos_;
    bool bad_;
};

// Offset of p inside msg; a pointer outside the message counts as its end, so that the next
// read fails instead of leaving the message.
size_t offset_in(std::span<const uint8_t> msg, const uint8_t* p) {
    const auto base = reinterpret_cast<uintptr_t>(msg.data());
    const auto at = reinterpret_cast<uintptr_t>(p);
    return at >= base && at - base <= msg.size() ? at - base : msg.size();
}

// Address of msg[off] for trace lines only: off may lie past the end, where no pointer may be
// formed by arithmetic.
const void* trace_addr(std::span<const uint8_t> msg, size_t off) {
    return reinterpret_cast<const void*>(reinterpret_cast<uintptr_t>(msg.data()) + off);
}

// The message of a packet; a length beyond the buffer is cut to the buffer.
std::span<const uint8_t> pkt_view(const dns_pkt* pkt) {
    return {pkt->buf, std::min<size_t>(pkt->len, DPENDEC_MSG_SIZE)};
}

void put_header(wire_writer& w, const dns_header& h) {
    w.u16(h.id);
    w.u16(h.flags);
    w.u16(h.qdcount);
    w.u16(h.ancount);
    w.u16(h.nscount);
    w.u16(h.arcount);
}

dns_header get_header(wire_reader& r) {
    dns_header h;
    h.id = r.u16();
    h.flags = r.u16();
    h.qdcount = r.u16();
    h.ancount = r.u16();
    h.nscount = r.u16();
    h.arcount = r.u16();
    return h;
}

// Copies a NUL-terminated text into a fixed field, cut to fit and always terminated.
void copy_text(std::span<char> dst, const char* src) {
    const size_t n = strnlen(src, dst.size() - 1);
    std::copy_n(src, n, dst.begin());
    dst[n] = '\0';
}

// ---- records ---------------------------------------------------------------------------------

// Length of the whole record at rr_off (the record-length step of dpendec_compose_dns_rr_inf).
// 0 with rr_len set; -1 name, -2 question's TYPE/CLASS, -4 TTL/RDLENGTH, -3 RDATA past the end.
int compute_rr_len(std::span<const uint8_t> msg, size_t rr_off, int is_question, uint16_t* rr_len) {
    const uint8_t* rr = msg.data() + rr_off;
    const uint8_t* tail = msg.data() + msg.size();
    uint16_t dname_len = 0;
    const int ret = compute_dname_len(rr, tail, &dname_len);
    if (ret < 0) {
        DPEDC_TRACE(DP_WARN, "is_question=%d ret=%d\n", is_question, ret);
        return -1;
    }
    wire_reader r(msg, rr_off + dname_len);
    r.skip(4); // TYPE, CLASS
    DPEDC_TRACE(DP_ENDEC, "pRr=%p rr=%p tail=%p is_question=%d dname_len=%u\n",
                trace_addr(msg, rr_off + dname_len + 4), static_cast<const void*>(rr),
                static_cast<const void*>(tail), is_question, static_cast<unsigned>(dname_len));
    if (is_question) {
        if (!r.ok()) return -2;
        *rr_len = static_cast<uint16_t>(dname_len + 4);
        return 0;
    }
    if (r.left() < 6) return -4;
    r.skip(4); // TTL
    const uint16_t rdlen = r.u16();
    DPEDC_TRACE(DP_ENDEC, "pRr=%p rr=%p tail=%p rdlen=%u\n",
                trace_addr(msg, rr_off + dname_len + 4), static_cast<const void*>(rr),
                static_cast<const void*>(tail), static_cast<unsigned>(rdlen));
    if (r.left() < rdlen) return -3;
    r.skip(rdlen);
    *rr_len = static_cast<uint16_t>(r.pos() - rr_off);
    return 0;
}

// Indexes count records from off on, keeping the first keep.size() entries in keep; off ends
// after the last record, or at the malformed one. The result of the failing record, or 1.
int walk_section(std::span<const uint8_t> msg, uint16_t& off, uint16_t count, int is_question,
                 std::span<rrinf> keep, uint16_t& kept, int& idx) {
    kept = 0;
    for (idx = 0; idx < count; ++idx) {
        rrinf entry;
        const int ret = dpendec_compose_dns_rr_inf(msg.data(), static_cast<uint16_t>(msg.size()),
                                                   msg.data() + off, is_question, &entry);
        if (ret < 0) return ret;
        if (kept < keep.size()) keep[kept++] = entry;
        off = static_cast<uint16_t>(off + entry.rr_len);
    }
    return 1;
}

// The IPv4 address an in-addr.arpa name spells: the (at most four) labels before the suffix,
// read as numbers and written in reverse order. Fewer than three dots before the suffix, a
// number above 255 or text that is not numbers leave hostaddr as it is (empty).
void reverse_name_to_v4(std::string_view name, std::span<char> hostaddr) {
    const size_t suffix = name.find(".in-addr.arpa");
    if (suffix == std::string_view::npos || suffix == 0) return;
    int dots = 0;
    size_t start = 0;
    for (size_t i = suffix; i-- > 0;) {
        if (name[i] == '.' && ++dots == 4) {
            start = i + 1;
            break;
        }
    }
    if (dots < 3) return;
    char text[DPENDEC_NAME_SIZE];
    const size_t n = std::min<size_t>(suffix - start, sizeof text - 1);
    name.copy(text, n, start);
    text[n] = '\0';
    unsigned a = 0, b = 0, c = 0, d = 0;
    if (std::sscanf(text, "%u.%u.%u.%u", &a, &b, &c, &d) != 4) return;
    if (a > 255 || b > 255 || c > 255 || d > 255) return;
    std::snprintf(hostaddr.data(), hostaddr.size(), "%u.%u.%u.%u", d, c, b, a);
}

// Dotted text of four address bytes, as inet_ntop writes it, without the formatting machinery
// that costs more than the rest of parsing an answer. out holds at least 16 bytes.
void ipv4_text(const uint8_t* a, std::span<char> out) {
    char* p = out.data();
    for (int i = 0; i < 4; ++i) {
        const unsigned v = a[i];
        if (v >= 100) *p++ = static_cast<char>('0' + v / 100);
        if (v >= 10) *p++ = static_cast<char>('0' + v / 10 % 10);
        *p++ = static_cast<char>('0' + v % 10);
        *p++ = i < 3 ? '.' : '\0';
    }
}

// Text of an address answer: rdata of exactly the family's size, else empty.
void address_text(const dns_rr& rr, uint16_t qtype, std::span<char> out) {
    out[0] = '\0';
    if (qtype == DPENDEC_TYPE_A && rr.rdlen == 4) {
        if (out.size() >= INET_ADDRSTRLEN) ipv4_text(rr.rdata, out);
    } else if (qtype == DPENDEC_TYPE_AAAA && rr.rdlen == 16) {
        if (inet_ntop(AF_INET6, rr.rdata, out.data(), static_cast<socklen_t>(out.size())) ==
            nullptr)
            out[0] = '\0';
    }
}

// Walks the indexed answers of the question's type: the PTR target replaces the name, the first
// address answer fills hostaddr, ttl follows each answer examined. 1, or -10 (traced under the
// caller's name).
int scan_answers(std::span<const uint8_t> msg, msginf* info, const char* caller) {
    for (int i = 0; i < info->an_num; ++i) {
        const rrinf& an = info->an[i];
        if (an.type != info->qtype) continue;
        dns_rr rr;
        const int ret =
            dpendec_parse_dns_rr(msg.data(), static_cast<uint16_t>(msg.size()), &an, 0, &rr);
        if (ret < 0) {
            DPEDC_TRACE_AS(caller, DP_DETAIL, "err to decode anrr idx=%d ret=%d\n", i, ret);
            return -10;
        }
        info->ttl = rr.ttl;
        if (info->qtype == DPENDEC_TYPE_PTR) {
            const size_t rdata = std::min<size_t>(an.offset + an.name_len + 10u, msg.size());
            if (dpendec_parse_domain_name(msg.data() + rdata, msg.data(),
                                          static_cast<uint16_t>(msg.size()), info->name,
                                          DPENDEC_NAME_SIZE) == 0)
                return 1;
            info->name[0] = '\0';
        } else if (info->qtype == DPENDEC_TYPE_A || info->qtype == DPENDEC_TYPE_AAAA) {
            // Only the first answer of the type counts: a malformed one is not skipped over.
            if (rr.rdlen != (info->qtype == DPENDEC_TYPE_A ? 4 : 16)) return 1;
            address_text(rr, info->qtype, info->hostaddr);
            if (info->hostaddr[0] != '\0') return 1;
        }
    }
    return 1;
}

void dump_entries(const rrinf* entries, int n) {
    for (int i = 0; i < n; ++i)
        dpendec_dump_rrinf(&entries[i]);
}

// ---- composing ---------------------------------------------------------------------------------

// Writes the header of a local answer over the query's and appends one answer record after the
// question: a pointer to the question name, class IN, TTL 0 (clients must not cache it).
int append_local_answer(dns_pkt* pkt, uint16_t type, std::span<const uint8_t> rdata) {
    const msginf& info = pkt->inf;
    if (info.offsetof1stanRR + 12u + rdata.size() > DPENDEC_MSG_SIZE) return -1;
    const auto flags =
        static_cast<uint16_t>((info.flags | kFlagQR | kFlagRA) & ~(kFlagAA | kRcodeMask));
    const dns_header h = {info.id, flags, info.qdcount, 1, 0, 0};
    compose_dns_header(&h, pkt->buf, DPENDEC_MSG_SIZE);
    wire_writer w(pkt->buf, info.offsetof1stanRR);
    w.bytes(kPointerToQname);
    w.u16(type);
    w.u16(kClassIN);
    w.u32(0);
    w.u16(static_cast<uint16_t>(rdata.size()));
    w.bytes(rdata);
    pkt->len = static_cast<uint16_t>(w.pos());
    return pkt->len;
}

} // namespace

// ---- header and names --------------------------------------------------------------------------

int compose_dns_header(const dns_header* header, uint8_t* buf, uint16_t len) {
    DPEDC_TRACE(DP_ENDEC, "header=%p buf=%p len=%u\n", static_cast<const void*>(header),
                static_cast<void*>(buf), static_cast<unsigned>(len));
    if (len < DPENDEC_HEADER_SIZE) return -1;
    wire_writer w({buf, len});
    put_header(w, *header);
    return 1;
}

int dpendec_read_dns_header(const uint8_t* buf, uint16_t len, dns_header* header) {
    if (len < DPENDEC_HEADER_SIZE) return -1;
    wire_reader r({buf, len});
    *header = get_header(r);
    return 1;
}

int compute_dname_len(const uint8_t* dname, const uint8_t* tail, uint16_t* dname_len) {
    const auto from = reinterpret_cast<uintptr_t>(dname);
    const auto to = reinterpret_cast<uintptr_t>(tail);
    wire_reader r({dname, to > from ? to - from : 0});
    uint16_t len = 0;
    *dname_len = 0;
    for (;;) {
        if (r.at_end()) return -3;
        const uint8_t* at = r.here();
        const uint8_t b = r.u8();
        DPEDC_TRACE(DP_ENDEC, "buf=%p dname=%p tail=%p len=%u dname_len=%d\n",
                    static_cast<const void*>(at), static_cast<const void*>(dname),
                    static_cast<const void*>(tail), static_cast<unsigned>(b), len);
        if (b == 0) {
            *dname_len = static_cast<uint16_t>(len + 1);
            return 0;
        }
        if (b <= 63) {
            // The label's bytes are not looked at: the next round catches a label cut short.
            len = static_cast<uint16_t>(len + 1 + b);
            r.skip(b);
            continue;
        }
        if (b < 192) return -2;
        if (r.at_end()) return -1;
        *dname_len = static_cast<uint16_t>(len + 2);
        return 1;
    }
}

int dpendec_parse_domain_name(const uint8_t* dname, const uint8_t* msg, uint16_t len, char* name,
                              uint16_t name_len) {
    DPEDC_TRACE(DP_ENDEC, "dname=%p buf=%p len=%u name=%p name_len=%u\n",
                static_cast<const void*>(dname), static_cast<const void*>(msg),
                static_cast<unsigned>(len), static_cast<void*>(name),
                static_cast<unsigned>(name_len));
    const std::span<const uint8_t> view(msg, len);
    const std::span<char> out(name, name_len);
    wire_reader r(view, offset_in(view, dname));
    size_t o = 0;
    int c0count = 0;
    for (;;) {
        if (r.at_end()) return -1;
        const uint8_t* at = r.here();
        const uint8_t b = r.u8();
        DPEDC_TRACE(DP_ENDEC, "ptr_dname=%p pName=%p label_len=%u c0count=%d\n",
                    static_cast<const void*>(at), static_cast<void*>(name + o),
                    static_cast<unsigned>(b), c0count);
        if (b == 0) {
            if (o >= out.size()) return -3; // only a zero-sized buffer gets here
            out[o] = '\0';
            if (o > 0) out[o - 1] = '\0'; // the "." after the last label
            return 0;
        }
        if (b <= 63) {
            if (b > r.left()) return -2;
            // Room for the label, its "." and at least one more byte.
            if (o + b + 1 >= out.size()) return -3;
            const auto label = r.bytes(b);
            std::copy(label.begin(), label.end(), out.begin() + static_cast<ptrdiff_t>(o));
            out[o + b] = '.';
            o += b + 1u;
            continue;
        }
        if (b < 192) return -6;
        // Forward and self pointers are allowed; the count alone stops loops.
        if (c0count >= kMaxPointers) return -4;
        ++c0count;
        if (r.at_end()) return -5;
        r.seek(static_cast<size_t>(b & 0x3F) << 8 | r.u8());
    }
}

int compose_dname(const char* name, uint8_t* out) {
    const std::span<uint8_t> wire(out, DPENDEC_NAME_SIZE);
    std::fill(wire.begin(), wire.end(), 0);
    std::string_view text(name, strnlen(name, DPENDEC_NAME_SIZE));
    if (text.size() + 2 > DPENDEC_NAME_SIZE) return 0;
    wire_writer w(wire);
    // Labels are not held to 63 bytes and ".." gives an empty label: the texts come from trusted
    // tables and from names already decoded. A trailing "." ends the name like the text's end.
    while (!text.empty()) {
        const size_t dot = text.find('.');
        const std::string_view label = text.substr(0, dot);
        w.u8(static_cast<uint8_t>(label.size()));
        w.bytes({reinterpret_cast<const uint8_t*>(label.data()), label.size()});
        text.remove_prefix(dot == std::string_view::npos ? text.size() : dot + 1);
    }
    w.u8(0);
    return static_cast<int>(w.pos());
}

// ---- records and message info ----------------------------------------------------------------

int dpendec_compose_dns_rr_inf(const uint8_t* msg, uint16_t len, const uint8_t* rr, int is_question,
                               rrinf* info) {
    const std::span<const uint8_t> view(msg, len);
    const size_t off = offset_in(view, rr);
    uint16_t name_len = 0;
    int ret = compute_dname_len(msg + off, msg + len, &name_len);
    if (ret < 0) {
        DPEDC_TRACE(DP_WARN, "fail to get name_len ret=%d\n", ret);
        return -1;
    }
    uint16_t rr_len = 0;
    ret = compute_rr_len(view, off, is_question, &rr_len);
    if (ret < 0) {
        DPEDC_TRACE(DP_WARN, "fail to get rr_len ret=%d\n", ret);
        return -2;
    }
    wire_reader r(view, off + name_len);
    *info = {static_cast<uint16_t>(off), rr_len, name_len, r.u16()};
    return 1;
}

int dpendec_parse_dns_rr(const uint8_t* msg, uint16_t len, const rrinf* info, int is_question,
                         dns_rr* rr) {
    *rr = {};
    const std::span<const uint8_t> view(msg, len);
    const int ret = dpendec_parse_domain_name(msg + std::min(info->offset, len), msg, len, rr->name,
                                              DPENDEC_NAME_SIZE - 1);
    if (ret < 0) {
        DPEDC_TRACE(DP_DETAIL, "dec name isQd=%d ret=%d\n", is_question, ret);
        return -1;
    }
    // The entry is trusted to come from this message, but its fields are read through the cursor
    // all the same: an entry from elsewhere fails here instead of reading past the message.
    wire_reader r(view, static_cast<size_t>(info->offset) + info->name_len);
    rr->type = r.u16();
    rr->rclass = r.u16();
    if (!is_question) {
        rr->ttl = static_cast<int32_t>(r.u32());
        rr->rdlen = r.u16();
        size_t keep = rr->rdlen;
        if (keep > DPENDEC_RDATA_SIZE) {
            DPEDC_TRACE(DP_DETAIL, "rdlen=%u is bigger the length of rdata=%u\n",
                        static_cast<unsigned>(rr->rdlen),
                        static_cast<unsigned>(DPENDEC_RDATA_SIZE));
            keep = DPENDEC_RDATA_SIZE;
        }
        const auto rdata = r.bytes(keep);
        std::copy(rdata.begin(), rdata.end(), rr->rdata);
    }
    if (!r.ok()) {
        DPEDC_TRACE(DP_DETAIL, "rr offset=%u name_len=%u beyond len=%u\n",
                    static_cast<unsigned>(info->offset), static_cast<unsigned>(info->name_len),
                    static_cast<unsigned>(len));
        return -2;
    }
    if (DP_TRACE_ON(DP_MOD_ENDEC, DP_ENDEC)) dpendec_dump_dns_rr(rr);
    return 0;
}

void dpendec_copy_pkt(dns_pkt* dst, const dns_pkt* src) {
    dst->len = std::min(src->len, DPENDEC_MSG_SIZE);
    std::memcpy(dst->buf, src->buf, dst->len);
    dst->inf = src->inf;
}

int dpendec_compose_dns_msg_inf(const uint8_t* msg, uint16_t len, msginf* info) {
    // 1-2. the header
    dns_header h;
    if (dpendec_read_dns_header(msg, len, &h) < 0) {
        DPEDC_TRACE(DP_DETAIL, " dec head ret=%d\n", -1);
        return -15;
    }
    info->id = h.id;
    info->flags = h.flags;
    info->qdcount = h.qdcount;
    info->ancount = h.ancount;
    info->nscount = h.nscount;
    info->arcount = h.arcount;
    if (DP_TRACE_ON(DP_MOD_ENDEC, DP_ENDEC)) dpendec_dump_header(&h);
    if (h.qdcount == 0) {
        DPEDC_TRACE(DP_DETAIL, " dec head ret=%d\n", -76);
        return -15;
    }

    // 3-7. every record of every section is validated; only the first ones are kept
    const std::span<const uint8_t> view(msg, len);
    uint16_t off = DPENDEC_HEADER_SIZE;
    int idx = 0;
    int ret = walk_section(view, off, h.qdcount, 1, {&info->qd, 1}, info->qd_num, idx);
    if (ret < 0) {
        DPEDC_TRACE(DP_DETAIL, "rrbuf=%p qdidx=%d ret=%d\n", static_cast<const void*>(msg + off),
                    idx, ret);
        return -1;
    }
    if (info->qd_num == 0) return -7;
    info->offsetof1stanRR = off;
    ret = walk_section(view, off, h.ancount, 0, info->an, info->an_num, idx);
    if (ret < 0) {
        DPEDC_TRACE(DP_DETAIL, "rrbuf=%p anidx=%d ret=%d\n", static_cast<const void*>(msg + off),
                    idx, ret);
        return -2;
    }
    ret = walk_section(view, off, h.nscount, 0, {&info->ns, 1}, info->ns_num, idx);
    if (ret < 0) {
        DPEDC_TRACE(DP_DETAIL, "rrbuf=%p nsidx=%d ret=%d\n", static_cast<const void*>(msg + off),
                    idx, ret);
        return -3;
    }
    ret = walk_section(view, off, h.arcount, 0, {&info->ar, 1}, info->ar_num, idx);
    if (ret < 0) {
        DPEDC_TRACE(DP_DETAIL, "rrbuf=%p aridx=%d ret=%d\n", static_cast<const void*>(msg + off),
                    idx, ret);
        return -2; // the answer section's code, deliberately
    }

    // 8. the question
    info->name[0] = '\0';
    info->hostaddr[0] = '\0';
    info->ttl = 0;
    info->qtype = info->qd.type;
    dns_rr qd;
    ret = dpendec_parse_dns_rr(msg, len, &info->qd, 1, &qd);
    if (ret < 0) {
        DPEDC_TRACE(DP_DETAIL, "err to decode qdrr ret=%d\n", ret);
        return -8;
    }
    copy_text(info->name, qd.name);

    // 9-10. the reverse name's address, then the answers
    if (info->qtype == DPENDEC_TYPE_PTR)
        reverse_name_to_v4({info->name, strnlen(info->name, sizeof info->name)}, info->hostaddr);
    if (scan_answers(view, info, __func__) < 0) return -10;

    // 11. the index, for debugging
    if (DP_TRACE_ON(DP_MOD_ENDEC, DP_DETAIL)) {
        dpendec_dump_header(&h);
        DPEDC_TRACE(DP_DETAIL, "question rr num=%d\n", info->qd_num);
        dump_entries(&info->qd, info->qd_num);
        DPEDC_TRACE(DP_DETAIL, "answer rr num=%d\n", info->an_num);
        dump_entries(info->an, info->an_num);
        DPEDC_TRACE(DP_DETAIL, "authority rr num=%d\n", info->ns_num);
        dump_entries(&info->ns, info->ns_num);
        DPEDC_TRACE(DP_DETAIL, "additional rr num=%d\n", info->ar_num);
        dump_entries(&info->ar, info->ar_num);
    }
    return 1;
}

int dpendec_compose_ipstrs(const dns_pkt* pkt, int32_t* ttl, std::span<char> out, uint32_t budget) {
    return dpendec_compose_ipstrs_in(pkt_view(pkt), &pkt->inf, ttl, out, budget);
}

int dpendec_compose_ipstrs_in(std::span<const uint8_t> msg, const msginf* inf, int32_t* ttl,
                              std::span<char> out, uint32_t budget) {
    const msginf& info = *inf;
    *ttl = INT32_MAX;
    std::fill(out.begin(), out.end(), '\0');
    size_t used = 0;
    for (int i = 0; i < std::min<int>(info.an_num, DPENDEC_MAX_AN); ++i) {
        const rrinf& an = info.an[i];
        if (an.type != info.qtype) continue;
        dns_rr rr;
        const int ret =
            dpendec_parse_dns_rr(msg.data(), static_cast<uint16_t>(msg.size()), &an, 0, &rr);
        if (ret < 0) {
            DPEDC_TRACE(DP_DETAIL, "err to decode anrr idx=%d ret=%d\n", i, ret);
            break;
        }
        if (rr.ttl < *ttl) *ttl = rr.ttl; // an answer without a usable address still counts
        char addr[DPENDEC_ADDR_SIZE];
        address_text(rr, info.qtype, addr);
        const size_t alen = strlen(addr);
        if (alen == 0) continue;
        if (budget <= alen) break;
        // The comma is not charged against the budget; the buffer's own size still bounds it.
        const size_t comma = used > 0 ? 1 : 0;
        if (out.size() - used < comma + alen + 1) break;
        if (comma != 0) out[used++] = ',';
        std::copy_n(addr, alen, out.begin() + static_cast<ptrdiff_t>(used));
        used += alen;
        budget -= static_cast<uint32_t>(alen);
    }
    DPEDC_TRACE(DP_DETAIL, "ttl=%d ipstrs=%s\n", *ttl, out.empty() ? "" : out.data());
    return 1;
}

void dpendec_dump_header(const dns_header* h) {
    std::fprintf(stderr,
                 "header.id=0x%04x flags=0x%04x qdcount=%d ancount=%d nscount=%d arcount=%d\n",
                 h->id, h->flags, h->qdcount, h->ancount, h->nscount, h->arcount);
}

void dpendec_dump_rrinf(const rrinf* info) {
    std::fprintf(stderr, "RR offset=%u type=%u name_len=%u rr_len=%u\n",
                 static_cast<unsigned>(info->offset), static_cast<unsigned>(info->type),
                 static_cast<unsigned>(info->name_len), static_cast<unsigned>(info->rr_len));
}

void dpendec_dump_dns_rr(const dns_rr* rr) {
    std::fprintf(
        stderr, "RR type=%u class=%u ttl=%d name=%s rdlen=%u:", static_cast<unsigned>(rr->type),
        static_cast<unsigned>(rr->rclass), rr->ttl, rr->name, static_cast<unsigned>(rr->rdlen));
    const size_t n = std::min<size_t>(rr->rdlen, DPENDEC_RDATA_SIZE);
    for (size_t i = 0; i < n; ++i)
        std::fprintf(stderr, " %02x", rr->rdata[i]);
    std::fputc('\n', stderr);
}

// ---- composing ---------------------------------------------------------------------------------

int dpendec_compose_error_response(int rcode, uint8_t* buf, uint16_t len) {
    DPEDC_TRACE(DP_DETAIL, "rcode=%d buf=%p len=%u\n", rcode, static_cast<void*>(buf),
                static_cast<unsigned>(len));
    if (len < DPENDEC_HEADER_SIZE) return -2;
    wire_reader r({buf, len}, 2);
    const uint16_t flags = r.u16();
    wire_writer w({buf, len}, 2);
    w.u16(static_cast<uint16_t>(((flags | kFlagQR | kFlagRA) & ~kRcodeMask) |
                                (static_cast<unsigned>(rcode) & kRcodeMask)));
    return 2;
}

namespace {

// inet_pton(AF_INET) without its cost on every local answer, and with its rules: four decimal
// parts of at most 255 without leading zeros, separated by dots and nothing else; dst is written
// only when the whole text is an address.
bool parse_ipv4(const char* text, uint8_t* dst) {
    uint8_t parts[4] = {};
    int at = 0;   // the part being read
    int seen = 0; // parts begun
    bool digit = false;
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p >= '0' && *p <= '9') {
            const unsigned v = parts[at] * 10u + static_cast<unsigned>(*p - '0');
            if ((digit && parts[at] == 0) || v > 255) return false;
            parts[at] = static_cast<uint8_t>(v);
            if (!digit && ++seen > 4) return false;
            digit = true;
        } else if (*p == '.' && digit && seen < 4) {
            ++at;
            digit = false;
        } else {
            return false;
        }
    }
    if (seen < 4) return false;
    std::memcpy(dst, parts, 4);
    return true;
}

} // namespace

int dpendec_compose_a_response(dns_pkt* pkt, const char* hostaddr) {
    const msginf& info = pkt->inf;
    DPEDC_TRACE(DP_DETAIL, "qtype=%u offsetof1stanRR=%u len=%d hostaddr=%s\n",
                static_cast<unsigned>(info.qtype), static_cast<unsigned>(info.offsetof1stanRR),
                pkt->len, hostaddr);
    if (info.offsetof1stanRR > DPENDEC_MSG_SIZE - 16) return -1;
    // The text is not checked: callers pass their own valid addresses.
    uint8_t addr[4] = {};
    parse_ipv4(hostaddr, addr);
    return append_local_answer(pkt, DPENDEC_TYPE_A, addr);
}

int dpendec_compose_aaaa_response(dns_pkt* pkt, const char* hostaddr) {
    const msginf& info = pkt->inf;
    DPEDC_TRACE(DP_DETAIL, "qtype=%u offsetof1stanRR=%u len=%d hostaddr=%s\n",
                static_cast<unsigned>(info.qtype), static_cast<unsigned>(info.offsetof1stanRR),
                pkt->len, hostaddr);
    if (info.offsetof1stanRR > DPENDEC_MSG_SIZE - 28) return -1;
    uint8_t addr[16] = {};
    if (inet_pton(AF_INET6, hostaddr, addr) != 1) return -3;
    return append_local_answer(pkt, DPENDEC_TYPE_AAAA, addr);
}

int dpendec_compose_ptr_response(dns_pkt* pkt, const char* name) {
    const msginf& info = pkt->inf;
    DPEDC_TRACE(DP_DETAIL, "qtype=%u offsetof1stanRR=%u len=%d name=%s\n",
                static_cast<unsigned>(info.qtype), static_cast<unsigned>(info.offsetof1stanRR),
                pkt->len, name);
    if (info.offsetof1stanRR + 14u + strnlen(name, DPENDEC_MSG_SIZE) > DPENDEC_MSG_SIZE) return -1;
    // A name too long to encode gives an empty RDATA.
    uint8_t wire[DPENDEC_NAME_SIZE];
    const int n = compose_dname(name, wire);
    return append_local_answer(pkt, DPENDEC_TYPE_PTR, {wire, static_cast<size_t>(n)});
}

int dpendec_compose_query_a(uint8_t* buf, uint16_t len, const char* name, uint16_t id) {
    DPEDC_TRACE(DP_FUNC, "name=%s\n", name);
    // A name too long to encode leaves the question without a name: a 16-byte message.
    uint8_t wire[DPENDEC_NAME_SIZE];
    const int n = compose_dname(name, wire);
    if (len < DPENDEC_HEADER_SIZE + n + 4) return -1;
    const dns_header h = {id, kFlagRD, 1, 0, 0, 0};
    compose_dns_header(&h, buf, len);
    wire_writer w({buf, len}, DPENDEC_HEADER_SIZE);
    w.bytes({wire, static_cast<size_t>(n)});
    w.u16(DPENDEC_TYPE_A);
    w.u16(kClassIN);
    return static_cast<int>(w.pos());
}

void dpendec_replace_qname(dns_pkt* pkt, const char* name) {
    uint8_t wire[DPENDEC_NAME_SIZE];
    const int n = compose_dname(name, wire);
    rrinf& qd = pkt->inf.qd;
    const auto new_len = static_cast<uint16_t>(pkt->len - qd.name_len + n);
    // Too long: the query then goes out under the client's name, deliberately without a word.
    if (new_len > kMaxReplacedLen) return;

    // Header, new name, then TYPE and CLASS from after the old name; later sections are dropped
    // (the caller re-appends its EDNS data) while the counts stay. The rest of the new length,
    // present when something followed the question, is cleared.
    const auto msg = pkt_view(pkt);
    wire_reader r(msg);
    const auto header = r.bytes(DPENDEC_HEADER_SIZE);
    r.skip(qd.name_len);
    const auto rest = r.bytes(qd.rr_len >= qd.name_len ? qd.rr_len - qd.name_len : SIZE_MAX);
    uint8_t scratch[kMaxReplacedLen] = {};
    wire_writer w(scratch);
    w.bytes(header);
    w.bytes({wire, static_cast<size_t>(n)});
    w.bytes(rest);
    if (!r.ok() || !w.ok() || w.pos() > new_len) return; // the index is not this message's
    std::copy_n(scratch, new_len, pkt->buf);
    qd.name_len = static_cast<uint16_t>(n);
    pkt->len = new_len;
}

void dpendec_restore_qname(dns_pkt* pkt, const char* name) {
    uint8_t scratch[DPENDEC_MSG_SIZE];
    dpendec_restore_qname_in(pkt->buf, &pkt->len, &pkt->inf, name, scratch);
}

void dpendec_restore_qname_in(std::span<uint8_t> area, uint16_t* len, const msginf* inf,
                              const char* name, std::span<uint8_t> scratch) {
    uint8_t wire[DPENDEC_NAME_SIZE];
    const int n = compose_dname(name, wire);
    const msginf& info = *inf;
    const std::span<const uint8_t> msg = area.first(std::min<size_t>(*len, area.size()));
    scratch = scratch.first(std::min(scratch.size(), area.size()));

    // Header, the client's name, the response's TYPE and CLASS.
    wire_reader r(msg);
    const auto header = r.bytes(DPENDEC_HEADER_SIZE);
    r.skip(info.qd.name_len);
    const auto rest =
        r.bytes(info.qd.rr_len >= info.qd.name_len ? info.qd.rr_len - info.qd.name_len : SIZE_MAX);
    wire_writer w(scratch);
    w.bytes(header);
    w.bytes({wire, static_cast<size_t>(n)});
    w.bytes(rest);
    if (!r.ok() || !w.ok()) return;

    // The answers of the question's type, whole. Only an owner name that is exactly a pointer
    // into the first 256 bytes (0xC0 xx) is turned to the restored name; pointers inside RDATA
    // keep their old targets. A longer client name may leave no room for the last answers.
    uint16_t copied = 0;
    for (int i = 0; i < std::min<int>(info.an_num, DPENDEC_MAX_AN); ++i) {
        const rrinf& an = info.an[i];
        if (an.type != info.qtype) continue;
        wire_reader a(msg, an.offset);
        const auto record = a.bytes(an.rr_len);
        if (!a.ok()) return;
        if (w.left() < record.size()) break;
        const size_t at = w.pos();
        w.bytes(record);
        if (record.size() >= 2 && record[0] == kPointerToQname[0])
            scratch[at + 1] = kPointerToQname[1];
        ++copied;
    }
    const size_t new_len = w.pos();
    wire_writer counts(scratch, 6);
    counts.u16(copied);
    counts.u16(0);
    counts.u16(0);
    std::copy_n(scratch.data(), new_len, area.data());
    *len = static_cast<uint16_t>(new_len);
}
