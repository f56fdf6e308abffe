#!/usr/bin/python3
"""Writes the seed corpora of the codec's fuzz targets: real DNS queries and responses made with
dnspython, as a resolver and a LAN client would send them. Run from anywhere; it rewrites
fuzz/corpus/endec_message/ and fuzz/corpus/endec_name/."""
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


def main():
    for sub in ("endec_message", "endec_name"):
        os.makedirs(os.path.join(HERE, sub), exist_ok=True)
    for name, msg in messages():
        with open(os.path.join(HERE, "endec_message", name), "wb") as f:
            f.write(msg.to_wire())
    for i, wire in enumerate(names()):
        with open(os.path.join(HERE, "endec_name", f"name_{i}"), "wb") as f:
            f.write(wire)


if __name__ == "__main__":
    main()
