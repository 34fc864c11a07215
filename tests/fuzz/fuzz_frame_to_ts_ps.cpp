// Both multiplexers with arbitrary frames: what is written is taken apart here, without the library's demultiplexer.
// Settings: kinds of both tracks, unit or PES size; then records whose control byte is the encode type, bit 7 to repeat
// the bytes into a large frame.
#include "FuzzSupport.h"
#include "StreamParser/Frame2Ps.h"
#include "StreamParser/Frame2Ts.h"

using namespace Kavio;
using namespace Kavio::Vidora;
using Fuzz::Bytes;

namespace {

Bytes part_of(const Bytes& all, size_t from, size_t len) {
    Fuzz::Require(from <= all.size() && len <= all.size() - from);
    return Bytes(all.begin() + static_cast<long>(from), all.begin() + static_cast<long>(from + len));
}

// All units of a frame, which are as many and as large as was told; none if it was refused.
Bytes pack(IFrame2Packet& packer, const Bytes& frame, int enc_type, uint64_t pts) {
    Bytes all;
    if (packer.PutFrame(frame.data(), static_cast<unsigned int>(frame.size()), enc_type, pts, 0) != 0) {
        Fuzz::Require(frame.empty() || frame.size() > 500000);
        return all;
    }
    const int count = packer.GetPacketCount();
    const int total = packer.GetTotalSize();
    int units = 0;
    for (int size = packer.GetPacketSize(); size > 0; size = packer.GetPacketSize(), ++units) {
        Bytes unit(static_cast<size_t>(size));
        Fuzz::Require(packer.GetPacket(unit.data(), static_cast<unsigned>(size)) == size);
        all.insert(all.end(), unit.begin(), unit.end());
        packer.NextPacket();
    }
    Fuzz::Require(units == count && all.size() == static_cast<size_t>(total) && packer.GetTotalSize() == 0);
    return all;
}

// Takes a PES packet's header off; its length must say what is there, or 0 if that can't be told.
Bytes pes_payload(const Bytes& pes) {
    Fuzz::Require(pes.size() > 19 && pes[0] == 0 && pes[1] == 0 && pes[2] == 1 && pes[8] == 10);
    const size_t len = static_cast<size_t>(pes[4] << 8 | pes[5]);
    Fuzz::Require(len == pes.size() - 6 || (len == 0 && pes.size() - 6 > 0xFFFF));
    return part_of(pes, 19, pes.size() - 19);
}

Bytes ts_payload(const Bytes& stream, int track, int& continuity) {
    Fuzz::Require(stream.size() % TS_PACK_LEN == 0);
    Bytes pes;
    for (size_t at = 0; at < stream.size(); at += TS_PACK_LEN) {
        const unsigned char* packet = stream.data() + at;
        const int pid = (packet[1] & 0x1F) << 8 | packet[2];
        Fuzz::Require(packet[0] == 0x47 && (packet[3] & 0xF0) == 0x30 && packet[4] >= 1 && packet[4] <= 182);
        if (pid == 0 || pid == 0x1001) {
            continue;
        }
        Fuzz::Require(pid == 0x100 + track && (packet[3] & 15) == continuity);
        Fuzz::Require(((packet[1] & 0x40) != 0) == pes.empty());
        continuity = (continuity + 1) & 15;
        pes.insert(pes.end(), packet + 5 + packet[4], packet + TS_PACK_LEN);
    }
    return pes_payload(pes);
}

Bytes ps_payload(const Bytes& stream) {
    Fuzz::Require(stream.size() > 56 && stream[3] == 0xBA && stream[17] == 0xBB && stream[35] == 0xBC);
    Bytes all;
    for (size_t at = 56; at < stream.size();) {
        Fuzz::Require(stream.size() - at > 19);
        const size_t len = 6 + static_cast<size_t>(stream[at + 4] << 8 | stream[at + 5]);
        const Bytes part = pes_payload(part_of(stream, at, len));
        all.insert(all.end(), part.begin(), part.end());
        at += len;
    }
    return all;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Fuzz::Quiet();
    Ostra::CByteReader input(data, size);
    const int video_kind = input.ReadU8() % 7;
    const int audio_kind = input.ReadU8() % 7;
    const int setting = input.ReadU16();
    static CFrame2Ts ts;  // their buffers are half a megabyte each
    static CFrame2Ps ps;
    static int continuity[2] = {0, 0};
    ts.SetTsInfo(video_kind, audio_kind, setting % 20);
    ps.SetPsInfo(video_kind, audio_kind, setting * 2, setting * 1000);

    Fuzz::Record record;
    uint64_t pts = (uint64_t{1} << 33) / 90 - 100;
    for (; Fuzz::ReadRecord(input, record); pts += record.control) {
        const Bytes frame = Fuzz::Repeated(record, static_cast<size_t>(1 + setting % 3000));
        const int enc_type = record.control & 0x0F;
        const int track = enc_type >= 6 ? 1 : 0;
        const Bytes ts_stream = pack(ts, frame, enc_type, pts);
        Fuzz::Require(ts_stream.empty() || ts_payload(ts_stream, track, continuity[track]) == frame);
        const Bytes ps_stream = pack(ps, frame, enc_type, pts);
        Fuzz::Require(ps_stream.empty() || ps_payload(ps_stream) == frame);
    }
    return 0;
}
