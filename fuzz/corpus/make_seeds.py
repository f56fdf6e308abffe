#!/usr/bin/python3
"""Writes the seed corpora of the codec's fuzz targets: real DNS queries and responses made with
dnspython, as a resolver and a LAN client would send them. Run from anywhere; it rewrites
fuzz/corpus/endec_message/, fuzz/corpus/endec_name/ and fuzz/corpus/edns_query/."""
import os

import dns.edns
import dns.flags
import dns.message
import dns.name
import dns.rcode
import dns.rrset

HERE = os.path.dirname(os.path.abspath(__file__))


def query(name, rdtype, edns=False, payload=1232, options=()):
    q = dns.message.make_query(name, rdtype, use_edns=0 if edns else None, payload=payload,
                               options=list(options))
    q.id = 0x1F2E
    return q


def answer(q, *rrsets, rcode=dns.rcode.NOERROR, authority=(), additional=()):
    r = dns.message.make_response(q)
    r.flags |= dns.flags.RA
    r.set_rcode(rcode)
    r.answer.extend(dns.rrset.from_text(*rs) for rs in rrsets)
    r.authority.extend(dns.rrset.from_text(*rs) for rs in authority)
    r.additional.extend(dns.rrset.from_text(*rs) for rs in additional)
    return r


def messages():
    a = query("www.example.com.", "A")
    yield "query_a", a
    yield "query_a_opt", query("www.example.com.", "A", edns=True)
    mac = dns.edns.GenericOption(0xFE31, b"02:00:5E:10:00:01")
    yield "query_aaaa_opt_fe31", query("gw.lan.", "AAAA", edns=True, options=[mac])
    yield "query_ptr", query("10.1.168.192.in-addr.arpa.", "PTR")
    yield "query_mx", query("example.org.", "MX", edns=True, payload=4096)

    eight = ["cdn.example.com.", 300, "IN", "A"] + [f"192.0.2.{i}" for i in range(1, 9)]
    yield "response_8a", answer(query("cdn.example.com.", "A"), eight)
    yield "response_cname_a", answer(a, ("www.example.com.", 60, "IN", "CNAME", "edge.example.net."),
                                     ("edge.example.net.", 20, "IN", "A", "198.51.100.7", "198.51.100.8"))
    yield "response_aaaa", answer(query("gw.lan.", "AAAA", edns=True),
                                  ("gw.lan.", 0, "IN", "AAAA", "2001:db8:1::1"))
    yield "response_ptr", answer(query("10.1.168.192.in-addr.arpa.", "PTR"),
                                 ("10.1.168.192.in-addr.arpa.", 3600, "IN", "PTR", "printer.lan."))
    yield "response_ptr_v6", answer(
        query("1.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.1.0.0.0.8.b.d.0.1.0.0.2.ip6.arpa.", "PTR"),
        ("1.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.1.0.0.0.8.b.d.0.1.0.0.2.ip6.arpa.", 60, "IN", "PTR",
         "gw.lan."))
    yield "response_nxdomain_soa", answer(
        query("nope.example.com.", "A", edns=True), rcode=dns.rcode.NXDOMAIN,
        authority=[("example.com.", 900, "IN", "SOA",
                    "ns1.example.com. hostmaster.example.com. 2024010101 7200 3600 1209600 900")])
    yield "response_mx_glue", answer(
        query("example.org.", "MX"), ("example.org.", 3600, "IN", "MX", "10 mail.example.org."),
        authority=[("example.org.", 3600, "IN", "NS", "ns1.example.org.")],
        additional=[("mail.example.org.", 3600, "IN", "A", "203.0.113.25"),
                    ("ns1.example.org.", 3600, "IN", "AAAA", "2001:db8::53")])
    yield "response_txt", answer(query("example.com.", "TXT"),
                                 ("example.com.", 300, "IN", "TXT", '"v=spf1 -all"', '"hello world"'))
    yield "response_servfail", answer(query("broken.example.", "A", edns=True),
                                      rcode=dns.rcode.SERVFAIL)


def names():
    for text in ("www.example.com.", ".", "10.1.168.192.in-addr.arpa.", "a." * 60 + "b.",
                 "x" * 63 + "." + "y" * 63 + "."):
        yield dns.name.from_text(text).to_wire()
    # A name that ends in a pointer into a message, as it stands inside a response.
    wire = answer(query("cdn.example.com.", "A"), ("cdn.example.com.", 1, "IN", "A", "192.0.2.1"))
    yield wire.to_wire()[12:]


def edns_queries():
    """Queries on the EDNS path: with and without OPT, at the size and RDLENGTH limits, with the
    client-MAC option already in, with two OPT records, and answers carrying OPT for stripping."""
    cookie = dns.edns.GenericOption(10, bytes(range(8)))
    mac = dns.edns.GenericOption(0xFE31, b"02:00:5E:10:00:01")
    yield "plain", query("www.example.com.", "A").to_wire()
    yield "opt_1232", query("www.example.com.", "A", edns=True).to_wire()
    yield "opt_payload_0", query("www.example.com.", "AAAA", edns=True, payload=0).to_wire()
    yield "opt_4096_cookie", query("example.org.", "MX", edns=True, payload=4096, options=[cookie]).to_wire()
    yield "opt_fe31_second", query("gw.lan.", "A", edns=True, options=[cookie, mac]).to_wire()
    for n in (220, 221):  # RDLENGTH 224 and 225
        pad = dns.edns.GenericOption(12, bytes(n))
        yield f"opt_rdlen_{n + 4}", query("www.example.com.", "A", edns=True, options=[pad]).to_wire()
    # Exactly 992 and 993 bytes: an additional TXT record fills the query up.
    for size in (992, 993):
        q = query("www.example.com.", "A", edns=True)
        fill = size - len(q.to_wire()) - 11 - 4 * 4  # record around the text, 4 length bytes
        texts = [fill // 4 + (1 if i < fill % 4 else 0) for i in range(4)]
        rdata = " ".join('"' + "p" * n + '"' for n in texts)
        q.additional.append(dns.rrset.from_text("pad.example.", 0, "IN", "TXT", rdata))
        wire = q.to_wire()
        assert len(wire) == size, len(wire)
        yield f"opt_txt_{size}", wire
    # Two OPT records: the second one appended by hand, the count raised.
    one = query("www.example.com.", "A", edns=True).to_wire()
    two = bytearray(one + one[-11:])
    two[11] += 1
    yield "two_opt", bytes(two)
    # An OPT record whose owner is not the root, followed by an A record.
    odd = bytearray(query("www.example.com.", "A").to_wire())
    odd[11] = 2
    odd += b"\x01a\x00" + bytes([0, 41, 4, 0, 0, 0, 0, 0, 0, 0])
    odd += b"\xc0\x0c" + bytes([0, 1, 0, 1, 0, 0, 0, 60, 0, 4, 192, 0, 2, 1])
    yield "opt_owner_a", bytes(odd)
    r = answer(query("example.org.", "MX", edns=True), ("example.org.", 3600, "IN", "MX", "10 mail.example.org."),
               additional=[("mail.example.org.", 3600, "IN", "A", "203.0.113.25")])
    yield "answer_opt_glue", r.to_wire()


def main():
    for sub in ("endec_message", "endec_name", "edns_query"):
        os.makedirs(os.path.join(HERE, sub), exist_ok=True)
    for name, msg in messages():
        with open(os.path.join(HERE, "endec_message", name), "wb") as f:
            f.write(msg.to_wire())
    for name, wire in edns_queries():
        with open(os.path.join(HERE, "edns_query", name), "wb") as f:
            f.write(wire)
    for i, wire in enumerate(names()):
        with open(os.path.join(HERE, "endec_name", f"name_{i}"), "wb") as f:
            f.write(wire)


if __name__ == "__main__":
    main()
