// The packetiser with arbitrary frames: packets are well-formed and number through, merged output is the single packets
// in a row, and for the codecs without loss the payloads put together are the frame.
// Settings: flags (bit 0 extension, bit 1 interleave header); then records whose control byte is the encode type in its
// low four bits and bit 7 to repeat the bytes into a large frame.
#include "FuzzSupport.h"
#include "StreamParser/RtpHeader.h"
#include "StreamParser/StreamParser.h"

using namespace Kavio;
using namespace Kavio::Vidora;
using Fuzz::Bytes;

namespace {

struct Encoder {
    Encoder(uint8_t flags, bool merge) : parser(CStreamParser::Create(STREAM_TYPE_FRAME_AUTO, STREAM_TYPE_RTP)) {
        param.payload_type = 96;
        param.sequence = 65530;
        parser->SetParam(param);
        RtpOverTcpParam over_tcp;
        over_tcp.use_header = flags >> 1 & 1;
        over_tcp.merge_frame = merge ? 1 : 0;
        parser->SetParam(over_tcp);
        param.flags = flags & RTP_FLAG_EXTENSION;
        param.extension[3] = 3;  // three words
    }
    std::vector<Bytes> Convert(const Flumen::CMediaFrame& frame, int enc_type) {
        parser->GetParam(param);
        param.enc_type = enc_type;
        parser->SetParam(param);
        std::vector<Bytes> packets;
        if (parser->InputFrame(frame) == PARSER_FRAME_READY) {
            for (Flumen::CMediaFrame out = parser->OutputFrame(); out.valid(); out = parser->OutputFrame()) {
                packets.emplace_back(out.getBuffer(), out.getBuffer() + out.size());
            }
        }
        Fuzz::Require(!parser->OutputFrame().valid());
        return packets;
    }

    CStreamParserPtr parser;
    RtpEncParam param;
};

// The payloads in a row; `sequence` is that of the first packet.
Bytes check_packets(const std::vector<Bytes>& packets, uint8_t flags, uint16_t& sequence) {
    Bytes payloads;
    for (size_t i = 0; i < packets.size(); ++i) {
        const Bytes& packet = packets[i];
        const size_t skip = (flags & 2) != 0 ? 4 : 0;
        Fuzz::Require(packet.size() > skip + 12);
        Fuzz::Require(skip == 0 || (packet[0] == '$' && packet[2] * 256u + packet[3] == packet.size() - 4));
        RtpHeader header;
        Fuzz::Require(rtp_parse_header(packet.data() + skip, packet.size() - skip, header) &&
                      header.payload != nullptr);
        Fuzz::Require(header.sequence == sequence++ && header.marker == (i + 1 == packets.size()));
        Fuzz::Require(((packet[skip] & 0x10) != 0) == (i == 0 && (flags & 1) != 0) && header.payload_len <= 1440);
        payloads.insert(payloads.end(), header.payload, header.payload + header.payload_len);
    }
    return payloads;
}

Bytes join(const std::vector<Bytes>& packets) {
    Bytes all;
    for (const Bytes& packet : packets) {
        all.insert(all.end(), packet.begin(), packet.end());
    }
    return all;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Fuzz::Quiet();
    Ostra::CByteReader reader(data, size);
    const uint8_t flags = reader.ReadU8() & 3;
    Encoder single(flags, false);
    Encoder merged(flags, true);
    uint16_t sequence = 65530;
    Fuzz::Record record;
    for (uint64_t pts = 1; Fuzz::ReadRecord(reader, record); pts += 40) {
        const Bytes bytes = Fuzz::Repeated(record, 40);
        Flumen::CMediaFrame frame = Fuzz::MakeFrame(bytes);
        frame.setPts(pts, Flumen::PTS_TYPE_MS);
        const int enc_type = record.control & 15;
        const std::vector<Bytes> packets = single.Convert(frame, enc_type);
        Fuzz::Require(join(merged.Convert(frame, enc_type)) == join(packets));
        const Bytes payloads = check_packets(packets, flags, sequence);
        const bool bare = bytes.size() < 4 || bytes[0] != 'K';
        Fuzz::Require(!bare || (enc_type != ENC_TYPE_MPEG4 && enc_type != ENC_TYPE_AUDIO) || payloads == bytes);
    }
    return 0;
}
