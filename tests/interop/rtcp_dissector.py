#!/usr/bin/env python3
"""Lets tshark dissect the RTCP that the library writes, and compares it field by field.

Arguments: interop_protocol, tshark.
"""
import os
import struct
import subprocess
import sys
import tempfile
import time
import xml.etree.ElementTree

PORT = 5001
SR, RR, SDES, BYE = 200, 201, 202, 203
# What tshark works out of other fields.
DERIVED = {"rtcp.timestamp.ntp", "rtcp.ssrc.high_cycles", "rtcp.ssrc.high_seq"}


def head(pt, count, words, count_field="rtcp.sc"):
    return [("rtcp.version", "2"), ("rtcp.padding", "0"), (count_field, str(count)), ("rtcp.pt", str(pt)),
            ("rtcp.length", str(words))]


def sender_report(ssrc, now, timestamp, packets, octets, blocks):
    fields = head(SR, len(blocks), 6 + 6 * len(blocks), "rtcp.rc")
    # The seconds are those since 1970, as the library sends them.
    fields += [("rtcp.senderssrc", ssrc), ("rtcp.timestamp.ntp.msw", now), ("rtcp.timestamp.ntp.lsw", "0"),
               ("rtcp.timestamp.rtp", str(timestamp)), ("rtcp.sender.packetcount", str(packets)),
               ("rtcp.sender.octetcount", str(octets))]
    return fields + report_blocks(blocks)


def receiver_report(ssrc, blocks):
    return head(RR, len(blocks), 1 + 6 * len(blocks), "rtcp.rc") + [("rtcp.senderssrc", ssrc)] + report_blocks(blocks)


def report_blocks(blocks):
    fields = []
    for ssrc, fraction, lost, highest in blocks:
        fields += [("rtcp.ssrc.identifier", ssrc), ("rtcp.ssrc.fraction", str(fraction)),
                   ("rtcp.ssrc.cum_nr", str(lost)), ("rtcp.ssrc.ext_high", str(highest)), ("rtcp.ssrc.jitter", "0"),
                   ("rtcp.ssrc.lsr", "0"), ("rtcp.ssrc.dlsr", "0")]
    return fields


def description(ssrc, words, items):
    fields = head(SDES, 1, words) + [("rtcp.ssrc.identifier", ssrc)]
    for kind, text in items:
        fields += [("rtcp.sdes.type", str(kind)), ("rtcp.sdes.length", str(len(text))), ("rtcp.sdes.text", text)]
    return fields + [("rtcp.sdes.type", "0")]


def goodbye(words, ssrcs, reason):
    fields = head(BYE, len(ssrcs), words) + [("rtcp.ssrc.identifier", ssrc) for ssrc in ssrcs]
    return fields + [("rtcp.sdes.length", str(len(reason))), ("rtcp.sdes.text", reason)]


def expected(now):
    server, client = "0x11223344", "0x55667788"
    usual = [(1, "Private")]
    blocks = [("0xaabbccdd", 1, -1, 7), ("0xeeff0011", 255, 0x7fffff, 0xffffffff)]
    return [
        sender_report(server, now, 90000, 1000, 1400000, []) + description(server, 4, usual),
        receiver_report(client, [(client, 25, 300, 0x10002)]) + description(client, 4, usual),
        sender_report(server, now, 90000, 1000, 1400000, blocks)
        + description(server, 8, usual + [(1, "user@host"), (2, "Name")]) + goodbye(5, [server], "End of Stream"),
        receiver_report("0x00000001", [("0x00000001", 0, 0, 0)])
        + goodbye(4, ["0x00000001", "0x00000002", "0x00000003"], ""),
    ]


def write_capture(path, datagrams):
    """A capture file of raw IPv4 packets, each a UDP datagram to PORT."""
    with open(path, "wb") as handle:
        handle.write(struct.pack("<IHHQII", 0xa1b2c3d4, 2, 4, 0, 65535, 101))
        for datagram in datagrams:
            udp = struct.pack(">HHHH", PORT, PORT, len(datagram) + 8, 0) + datagram
            handle.write(struct.pack("<IIII", 0, 0, len(udp) + 20, len(udp) + 20))
            handle.write(struct.pack(">BBHIIII", 0x45, 0, len(udp) + 20, 0, 0x40110000, 0x7f000001, 0x7f000001) + udp)


def dissect(tshark, path):
    pdml = subprocess.run([tshark, "-r", path, "-d", f"udp.port=={PORT},rtcp", "-T", "pdml"], check=True,
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout
    packets = []
    for packet in xml.etree.ElementTree.fromstring(pdml):
        fields = [(field.get("name"), field.get("show")) for proto in packet if proto.get("name") == "rtcp"
                  for field in proto.iter("field") if field.get("name") and field.get("name") not in DERIVED]
        faults = [proto.get("name") for proto in packet if proto.get("name", "").startswith("_ws.")]
        packets.append((fields, faults))
    return packets


def main(program, tshark):
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "rtcp.pcap")
        before = int(time.time())
        written = subprocess.run([program, "rtcp"], check=True, stdout=subprocess.PIPE).stdout.decode().split()
        after = int(time.time())
        write_capture(path, [bytes.fromhex(line) for line in written])
        packets = dissect(tshark, path)
    failures = 0
    # The clock may tick while the packets are written, so the seconds are checked by themselves.
    wanted = expected("now")
    if len(packets) != len(wanted):
        print(f"{len(packets)} packets dissected, {len(wanted)} written")
        return 1
    for number, ((fields, faults), want) in enumerate(zip(packets, wanted), 1):
        seconds = [int(value) for name, value in fields if name == "rtcp.timestamp.ntp.msw"]
        fields = [(name, "now" if name == "rtcp.timestamp.ntp.msw" else value) for name, value in fields]
        want = want + [("rtcp.length_check", "1")]
        if fields != want or faults or not all(before <= second <= after for second in seconds):
            failures += 1
            print(f"packet {number}: faults {faults}, seconds {seconds}")
            for got, wish in zip(fields + [None] * len(want), want + [None] * max(0, len(fields) - len(want))):
                if got != wish:
                    print(f"  got {got}, want {wish}")
    print(f"{len(packets)} packets, {failures} with faults")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:3]))
