#!/usr/bin/env python3
"""Lets tshark dissect the RTCP that the library writes, and compares it field by field.

Argument: the path of interop_protocol.
"""
import struct
import sys
import time
import xml.etree.ElementTree

from peers import Folder, check, run

PORT = 5001
# What tshark works out of other fields.
DERIVED = {"rtcp.timestamp.ntp", "rtcp.ssrc.high_cycles", "rtcp.ssrc.high_seq"}


def fields(names, *values):
    return [("rtcp." + name, str(value)) for name, value in zip(names.split(), values, strict=True)]


def report(pt, words, ssrc, *blocks, sender=()):
    head = fields("version padding rc pt length senderssrc", 2, 0, len(blocks), pt, words, ssrc)
    return head + list(sender) + [
        field for block in blocks for field in
        fields("ssrc.identifier ssrc.fraction ssrc.cum_nr ssrc.ext_high ssrc.jitter ssrc.lsr ssrc.dlsr", *block, 0, 0, 0)]


def description(words, ssrc, *items):
    chunk = fields("version padding sc pt length ssrc.identifier", 2, 0, 1, 202, words, ssrc)
    for kind, text in items:
        chunk += fields("sdes.type sdes.length sdes.text", kind, len(text), text)
    return chunk + fields("sdes.type", 0)


def goodbye(words, reason, *ssrcs):
    return fields("version padding sc pt length" + " ssrc.identifier" * len(ssrcs) + " sdes.length sdes.text",
                  2, 0, len(ssrcs), 203, words, *ssrcs, len(reason), reason)


SERVER, CLIENT, MIXER = "0x11223344", "0x55667788", "0x00000001"
NAME = (1, "Private")
# The seconds are those since 1970, as the library sends them.
SENDER = fields("timestamp.ntp.msw timestamp.ntp.lsw timestamp.rtp sender.packetcount sender.octetcount",
                "now", 0, 90000, 1000, 1400000)
EXPECTED = [
    report(200, 6, SERVER, sender=SENDER) + description(4, SERVER, NAME),
    report(201, 7, CLIENT, (CLIENT, 25, 300, 0x10002)) + description(4, CLIENT, NAME),
    report(200, 18, SERVER, ("0xaabbccdd", 1, -1, 7), ("0xeeff0011", 255, 0x7fffff, 0xffffffff), sender=SENDER)
    + description(8, SERVER, NAME, (1, "user@host"), (2, "Name")) + goodbye(5, "End of Stream", SERVER),
    report(201, 7, MIXER, (MIXER, 0, 0, 0)) + goodbye(4, "", MIXER, "0x00000002", "0x00000003"),
]


def write_capture(path, datagrams):
    """A capture file of raw IPv4 packets, each a UDP datagram to PORT."""
    with open(path, "wb") as handle:
        handle.write(struct.pack("<IHHQII", 0xa1b2c3d4, 2, 4, 0, 65535, 101))
        for datagram in datagrams:
            udp = struct.pack(">HHHH", PORT, PORT, len(datagram) + 8, 0) + datagram
            handle.write(struct.pack("<IIII", 0, 0, len(udp) + 20, len(udp) + 20))
            handle.write(struct.pack(">BBHIIII", 0x45, 0, len(udp) + 20, 0, 0x40110000, 0x7f000001, 0x7f000001) + udp)


def dissect(path):
    """Of each packet its fields, and the faults that tshark finds."""
    packets = []
    for packet in xml.etree.ElementTree.fromstring(run("tshark", "-r", path, "-d", f"udp.port=={PORT},rtcp", "-T", "pdml")):
        found = [(field.get("name"), field.get("show")) for proto in packet if proto.get("name") == "rtcp"
                 for field in proto.iter("field") if field.get("name") and field.get("name") not in DERIVED]
        packets.append((found, [proto.get("name") for proto in packet if proto.get("name", "").startswith("_ws.")]))
    return packets


def main(program):
    with Folder() as folder:
        before = int(time.time())
        written = run(program, "rtcp").decode().split()
        after = int(time.time())
        write_capture(folder("rtcp.pcap"), [bytes.fromhex(line) for line in written])
        packets = dissect(folder("rtcp.pcap"))
    check(len(packets) == len(EXPECTED), "all packets are dissected")
    for number, ((found, faults), expected) in enumerate(zip(packets, EXPECTED), 1):
        # The clock may tick while the packets are written, so the seconds are checked by themselves.
        seconds = [int(value) for name, value in found if name == "rtcp.timestamp.ntp.msw"]
        found = [(name, "now" if name == "rtcp.timestamp.ntp.msw" else value) for name, value in found]
        expected = expected + fields("length_check", 1)
        check(not faults and all(before <= second <= after for second in seconds), f"packet {number}: {faults} {seconds}")
        check(found == expected, f"packet {number}: its fields, but for {set(found) ^ set(expected)}")


main(sys.argv[1])
