// The decoders of RTP and of transport streams, to each destination. First byte: encode type of an RTP track, bit 7 to
// drop damaged frames; or bit 6 for a transport stream. Second byte: destination. Then records of RTP, or packets of
// 188 bytes, the last one shorter.
#include "FuzzSupport.h"
#include "StreamParser/StreamParser.h"
#include "StreamParser/TsDemux.h"

using namespace Kavio;
using namespace Kavio::Vidora;

namespace {

const int DESTINATIONS[] = {STREAM_TYPE_RAW_FRAME, STREAM_TYPE_PRIVATE_FRAME, STREAM_TYPE_RTP};
const unsigned char SPS[] = {0x67, 0x42, 0xC0, 0x1E, 0xDA, 0x07, 0x82, 0x39};

class CDecoder {
public:
    CDecoder(uint8_t settings, int dst_type)
        : m_parser(CStreamParser::Create((settings & 0x40) != 0 ? STREAM_TYPE_TS : STREAM_TYPE_RTP, dst_type)),
          m_dst_type(dst_type) {
        RtpDecParam param;
        param.enc_type = settings & 0x0F;
        param.payload_type = 96;
        param.drop_damaged = settings >> 7;
        param.config1 = param.config2 = SPS;
        param.config1_len = sizeof(SPS);
        param.config2_len = 4;
        m_parser->SetParam(param);
    }
    // No frame is much larger than all that came in, and no more packets are given back than that.
    int Put(const Fuzz::Bytes& input) {
        m_bytes_in += input.size();
        const int ret = m_parser->InputFrame(Fuzz::MakeFrame(input));
        Fuzz::Require(ret == PARSER_OK || ret == PARSER_FRAME_READY || ret == PARSER_FAILED);
        for (Flumen::CMediaFrame out = m_parser->OutputFrame(); out.valid(); out = m_parser->OutputFrame()) {
            m_bytes_back += m_dst_type == STREAM_TYPE_RTP ? out.size() : 0;
            Fuzz::Require(out.size() <= 4 * m_bytes_in + 4096 && m_bytes_back <= m_bytes_in);
            Fuzz::Require(m_dst_type != STREAM_TYPE_PRIVATE_FRAME || Fuzz::HeaderFits(out));
        }
        return ret;
    }

private:
    CStreamParserPtr m_parser;
    int m_dst_type;
    size_t m_bytes_in = 0;
    size_t m_bytes_back = 0;
};

void check_demux(TsDemuxState& state, const uint8_t* packet) {
    const int ret = ts_demux(state, packet);
    Fuzz::Require(state.table.track_count >= 0 && state.table.track_count <= TS_MAX_TRACKS);
    Fuzz::Require(state.packet.payload_offset >= 4 && state.packet.payload_offset <= TS_PACK_LEN);
    Fuzz::Require(!state.is_media || (ret == TS_DEMUX_OK && state.track >= 0 && state.track < state.table.track_count));
}

void decode_ts(CDecoder& decoder, Ostra::CByteReader& input) {
    TsDemuxState state;
    while (input.Remaining() > 0) {
        const Fuzz::Bytes packet = Fuzz::ReadBytes(input, TS_PACK_LEN);
        const int ret = decoder.Put(packet);
        Fuzz::Require(packet.size() == TS_PACK_LEN || ret == PARSER_FAILED);
        if (packet.size() == TS_PACK_LEN) {
            check_demux(state, packet.data());
        }
    }
}

// Packets behind interleave headers go in together, up to a marker.
void decode_rtp(CDecoder& decoder, Ostra::CByteReader& input) {
    Fuzz::RtpSender sender;
    Fuzz::Record record;
    Fuzz::Bytes run;
    while (Fuzz::ReadRecord(input, record)) {
        run = run + sender.Make(record);
        if ((record.control & 0x48) != 0x40) {
            decoder.Put(run);
            run.clear();
        }
    }
}

}  // namespace

void Fuzz::Target(const uint8_t* data, size_t size) {
    Ostra::CByteReader input(data, size);
    const uint8_t settings = input.ReadU8();
    CDecoder decoder(settings, DESTINATIONS[input.ReadU8() % 3]);
    if ((settings & 0x40) != 0) {
        decode_ts(decoder, input);
    } else {
        decode_rtp(decoder, input);
    }
}
