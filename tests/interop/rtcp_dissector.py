#!/usr/bin/env python3
"""Lets tshark dissect the RTCP that the library writes, and compares it field by field.

Argument: the path of interop_protocol.
"""
import sys
import time

from peers import Folder, check, run

# All fields but the seconds, which come first, and the expert's complaints, which come last.
FIELDS = ("pt length rc sc senderssrc timestamp.ntp.lsw timestamp.rtp sender.packetcount sender.octetcount "
          "ssrc.identifier ssrc.fraction ssrc.cum_nr ssrc.ext_high ssrc.jitter sdes.type sdes.text length_check").split()
EXPECTED = [
    "200,202|6,4|0|1|0x11223344|0|90000|1000|1400000|0x11223344|||||1,0|Private|1|",
    "201,202|7,4|1|1|0x55667788|||||0x55667788,0x55667788|25|300|65538|0|1,0|Private|1|",
    "200,202,203|18,8,5|2|1,1|0x11223344|0|90000|1000|1400000|0xaabbccdd,0xeeff0011,0x11223344,0x11223344|1,255|"
    "-1,8388607|7,4294967295|0,0|1,1,2,0|Private,user@host,Name,End of Stream|1|",
    "201,203|7,4|1|3|0x00000001|||||0x00000001,0x00000001,0x00000002,0x00000003|0|0|0|0|||1|",
]

with Folder() as folder:
    before = int(time.time())
    written = run(sys.argv[1], "rtcp").decode().split()
    after = int(time.time())
    dump = "".join(f"0000 {bytes.fromhex(line).hex(' ')}\n" for line in written)
    run("text2pcap", "-q", "-u", "5001,5001", folder.write("rtcp.txt", dump.encode()), folder("rtcp.pcap"))
    words = [word for name in FIELDS for word in ("-e", "rtcp." + name)]
    found = run("tshark", "-r", folder("rtcp.pcap"), "-d", "udp.port==5001,rtcp", "-T", "fields", "-E", "separator=|",
                "-e", "rtcp.timestamp.ntp.msw", *words, "-e", "_ws.expert").decode().splitlines()
    check(len(found) == len(EXPECTED), "all packets are dissected")
    for line, expected in zip(found, EXPECTED):
        # The seconds are those since 1970, as the library sends them.
        seconds, fields = line.split("|", 1)
        check(fields == expected, f"the fields are {fields}")
        check(not seconds or before <= int(seconds) <= after, f"the clock shows {seconds}")
