#!/usr/bin/python3
"""Writes the seed corpora of the classification file readers: fuzz/corpus/name_filter/,
fuzz/corpus/vci_table/ and fuzz/corpus/lease_file/, files as the gateway's configuration and
DHCP server write them. Run from anywhere."""
import os
import socket
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def write(folder, name, data):
    os.makedirs(os.path.join(HERE, folder), exist_ok=True)
    if isinstance(data, str):
        data = data.encode("latin-1")
    with open(os.path.join(HERE, folder, name), "wb") as f:
        f.write(data)


def name_filters():
    write("name_filter", "prefix.conf",
          "voip 0 VOIP\n"
          "sip.provider.example 2 VOIP\n"
          "iptv.example.net 1 OTHER\n"
          "acs.isp.example 2 TR069\n"
          "cwmp 0 TR069\n"
          "Update.Vendor.EXAMPLE 1 INTERNET\n"
          "mcast 0 OTHER\n")
    write("name_filter", "garbage.conf",
          "only-two 1\n"
          "\n"
          "tab\t2\tVOIP_INTERNET\tcomment\r\n"
          "bad mode OTHER\n"
          "bin\0ary 1 VOIP\n"
          "x 1 " + "TR069" * 60 + "\n"
          "long 2 OTHER " + "#" * 300 + "\n"
          "svc 7 INTERNET\n")


def vci(text):
    return text.encode("latin-1").hex().upper()


def vci_tables():
    write("vci_table", "condpool.conf",
          f"{vci('VOIPBOX')} 192.168.1.100 192.168.1.149 VOIP\n"
          f"{vci('STB')} 192.168.1.150 192.168.1.199 OTHER\n"
          f"{vci('MSFT 5.0')} 192.168.1.2 192.168.1.99 INTERNET\n"
          f"{vci('dslforum.org')} 192.168.2.10 192.168.2.20 INTERNET_TR069\n")
    write("vci_table", "garbage.conf",
          "ABC 192.168.1.1 192.168.1.2 VOIP\n"          # odd last digit
          "zz41 192.168.1.1 192.168.1.2 VOIP\n"
          "4142 192.168.1.300 192.168.1.2 VOIP\n"
          "4142 192.168.1.1\n"
          + "44" * 300 + " 10.0.0.1 10.0.0.9 OTHER\n"
          "41 10.0.0.1 10.0.0.2 " + "O" * 1100 + "\n"
          "4142\t10.0.0.1\t10.0.0.2\tVOIP\r\n")


def record(mac, addr, vendor, expires=86400, size=128, tail=b"\0"):
    body = bytes(mac) + bytes(10)
    body += socket.inet_aton(addr) + struct.pack(">I", expires) + bytes(36)
    body += vendor.encode("latin-1")[:68].ljust(68, b"\0")
    return body[:size].ljust(size, tail)


def header(size, tag=b"[LeaseFile_v2]"):
    return tag.ljust(16, b"\0") + struct.pack("=I", size)


def lease_files():
    recs = [
        ((2, 0, 0x5E, 0, 0, 1), "192.168.1.120", "VOIPBOX"),
        ((2, 0, 0x5E, 0, 0, 2), "192.168.1.160", "STB"),
        ((2, 0, 0x5E, 0, 0, 3), "10.0.0.20", "PC"),
        ((2, 0, 0x5E, 0, 0, 4), "192.168.1.250", "VOIPBOX"),  # past the range end, same /24
        ((2, 0, 0x5E, 0, 0, 5), "192.168.2.15", "GW"),
        ((0, 0, 0, 0, 0, 0), "192.168.1.121", "VOIPBOX"),     # empty record
    ]
    for size in (128, 112, 256):
        data = header(size)
        for mac, addr, vendor in recs:
            data += record(mac, addr, vendor, size=size, tail=b"\xAA")
        data += record((2, 0, 0x5E, 0, 0, 9), "192.168.1.130", "VOIPBOX", expires=0, size=size)
        write("lease_file", f"leases_{size}", data)
    full = header(128) + b"".join(record(m, a, v) for m, a, v in recs)
    write("lease_file", "truncated", full[:-40])
    write("lease_file", "size_111", header(111) + full[20:])
    write("lease_file", "bad_tag", header(128, b"[LeaseFile_v1]") + full[20:])


name_filters()
vci_tables()
lease_files()
