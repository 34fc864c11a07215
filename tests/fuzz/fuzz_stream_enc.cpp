// The packetiser and both multiplexers with arbitrary frames: merged output is the single packets in a row, these are
// well-formed, and their payloads put together are the frame. First byte: bit 0 RTP header extension, bit 1 interleave
// headers; then 16 bits of settings of the multiplexers; then records whose control byte is the encode type in its low
// four bits, and bit 7 to repeat the bytes into a large frame.
#include "FuzzSupport.h"
#include "StreamParser/RtpHeader.h"
#include "StreamParser/StreamParser.h"
#include "StreamParser/TsTable.h"

using namespace Kavio;
using namespace Kavio::Vidora;
using Fuzz::Bytes;

namespace {

const size_t PES_HEADER_LEN = 19;
const size_t PS_HEADERS_LEN = 56;

struct Encoder {
    Encoder(int dst_type, uint8_t flags, int setting, bool merge)
        : parser(CStreamParser::Create(STREAM_TYPE_FRAME_AUTO, dst_type)) {
        rtp.payload_type = 96;
        rtp.sequence = 65530;
        parser->SetParam(rtp);
        rtp.flags = flags & RTP_FLAG_EXTENSION;
        rtp.extension[3] = 3;  // three words
        TsEncParam ts;
        ts.video_enc_type = setting & 15;
        ts.audio_enc_type = setting >> 4 & 15;
        ts.packets_per_output = setting % 20;
        parser->SetParam(ts);
        PsEncParam ps;
        ps.video_enc_type = ts.video_enc_type;
        ps.audio_enc_type = ts.audio_enc_type;
        ps.max_pes_length = setting * 2;
        parser->SetParam(ps);
        RtpOverTcpParam over_tcp;
        over_tcp.use_header = dst_type == STREAM_TYPE_RTP ? flags >> 1 & 1 : 0;
        over_tcp.merge_frame = merge ? 1 : 0;
        parser->SetParam(over_tcp);
    }
    std::vector<Bytes> Convert(const Flumen::CMediaFrame& frame, int enc_type) {
        parser->GetParam(rtp);
        rtp.enc_type = enc_type;
        parser->SetParam(rtp);
        std::vector<Bytes> packets;
        if (parser->InputFrame(frame) == PARSER_FRAME_READY) {
            for (Flumen::CMediaFrame out = parser->OutputFrame(); out.valid(); out = parser->OutputFrame()) {
                packets.emplace_back(out.getBuffer(), out.getBuffer() + out.size());
            }
        }
        return packets;
    }

    CStreamParserPtr parser;
    RtpEncParam rtp;
};

Bytes join(const std::vector<Bytes>& packets) {
    Bytes all;
    for (const Bytes& packet : packets) {
        all.insert(all.end(), packet.begin(), packet.end());
    }
    return all;
}

// The payloads of RTP packets in a row; `sequence` is that of the first one.
Bytes rtp_payloads(const std::vector<Bytes>& packets, uint8_t flags, uint16_t& sequence) {
    Bytes payloads;
    for (const Bytes& packet : packets) {
        const bool is_first = &packet == &packets.front();
        const size_t skip = (flags & 2) != 0 ? 4 : 0;
        Fuzz::Require(packet.size() > skip + 12);
        Fuzz::Require(skip == 0 || (packet[0] == '$' && packet[2] * 256u + packet[3] == packet.size() - 4));
        RtpHeader header;
        Fuzz::Require(rtp_parse_header(packet.data() + skip, packet.size() - skip, header) &&
                      header.payload != nullptr && header.payload_len <= 1440);
        Fuzz::Require(header.sequence == sequence++ && header.marker == (&packet == &packets.back()));
        Fuzz::Require(((packet[skip] & 0x10) != 0) == (is_first && (flags & 1) != 0));
        payloads.insert(payloads.end(), header.payload, header.payload + header.payload_len);
    }
    return payloads;
}

// The frame in PES packets, whose lengths say what is there, or 0 if that can't be told.
Bytes pes_payloads(const Bytes& stream, size_t at) {
    Bytes frame;
    while (at < stream.size()) {
        const size_t left = stream.size() - at;
        Fuzz::Require(left > PES_HEADER_LEN && stream[at] == 0 && stream[at + 1] == 0 && stream[at + 2] == 1);
        const size_t told = static_cast<size_t>(stream[at + 4] << 8 | stream[at + 5]);
        const size_t length = told == 0 ? left : told + 6;
        Fuzz::Require(length > PES_HEADER_LEN && length <= left && (told > 0 || left > 0xFFFF));
        frame.insert(frame.end(), &stream[at + PES_HEADER_LEN], &stream[at] + length);
        at += length;
    }
    return frame;
}

Bytes ts_payloads(const Bytes& stream) {
    Fuzz::Require(stream.size() % TS_PACK_LEN == 0);
    Bytes pes;
    for (size_t at = 0; at < stream.size(); at += TS_PACK_LEN) {
        const unsigned char* packet = stream.data() + at;
        Fuzz::Require(packet[0] == 0x47 && (packet[3] & 0xF0) == 0x30 && packet[4] >= 1 && packet[4] <= 182);
        const int pid = (packet[1] & 0x1F) << 8 | packet[2];
        pes.insert(pes.end(), packet + (pid == 0x100 || pid == 0x101 ? 5 + packet[4] : TS_PACK_LEN),
                   packet + TS_PACK_LEN);
    }
    return pes_payloads(pes, 0);
}

}  // namespace

void Fuzz::Target(const uint8_t* data, size_t size) {
    Ostra::CByteReader reader(data, size);
    const uint8_t flags = reader.ReadU8() & 3;
    const int setting = reader.ReadU16();
    std::vector<Encoder> encoders;  // single and merged, to each destination
    for (const int dst_type : {STREAM_TYPE_RTP, STREAM_TYPE_TS, STREAM_TYPE_PS}) {
        encoders.emplace_back(dst_type, flags, setting, false);
        encoders.emplace_back(dst_type, flags, setting, true);
    }
    uint16_t sequence = 65530;
    Record record;
    for (uint64_t pts = (uint64_t{1} << 33) / 90 - 100; ReadRecord(reader, record); pts += 40) {
        const Bytes bytes = Repeated(record, static_cast<size_t>(1 + setting % 600));
        const int enc_type = record.control & 15;
        Flumen::CMediaFrame frame = MakeFrame(bytes);
        frame.setType(enc_type >= ENC_TYPE_AUDIO ? 'A' : 'P');
        frame.setPts(pts, Flumen::PTS_TYPE_MS);
        std::vector<Bytes> packets[3];
        for (size_t i = 0; i < 3; ++i) {
            packets[i] = encoders[2 * i].Convert(frame, enc_type);
            Require(join(encoders[2 * i + 1].Convert(frame, enc_type)) == join(packets[i]));
        }
        const Bytes payloads = rtp_payloads(packets[0], flags, sequence);
        const bool is_bare = bytes.size() < 4 || bytes[0] != 'K';
        if (is_bare && (enc_type == ENC_TYPE_MPEG4 || enc_type == ENC_TYPE_AUDIO)) {
            Require(payloads == bytes);
        }
        if (is_bare) {
            Require(ts_payloads(join(packets[1])) == bytes);
            Require(pes_payloads(join(packets[2]), bytes.empty() ? 0 : PS_HEADERS_LEN) == bytes);
        }
    }
}
