#include "MulticastTrack.h"

#include <algorithm>
#include <new>

#include "DgramTurn.h"
#include "StreamParser/RtpHeader.h"
#include "StreamParser/TsRtpHeader.h"
#include "StreamParser/TsTable.h"
#include "Vidora/KXFrame.h"
#include "Vidora/Ostra/ByteReader.h"

namespace Kavio {
namespace Vidora {

namespace {

const uint8_t VIDEO_PAYLOAD_TYPE = 96;
const uint8_t AUDIO_PAYLOAD_TYPE = 8;

bool is_video_encoding(int encode) {
    return encode <= ENC_TYPE_JPEG;
}

}  // namespace

std::shared_ptr<CMulticastTrack> CMulticastTrack::create(const frame_proc_t& proc, int stream_type) {
    try {
        std::shared_ptr<CMulticastTrack> track(new CMulticastTrack(proc));
        track->m_parser = CStreamParser::Create(stream_type, STREAM_TYPE_PRIVATE_FRAME);
        return track->m_parser != nullptr ? track : nullptr;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

std::shared_ptr<CMulticastTrack> CMulticastTrack::CreateTs(const frame_proc_t& proc) {
    const std::shared_ptr<CMulticastTrack> track = create(proc, STREAM_TYPE_TS);
    if (track == nullptr) {
        return nullptr;
    }
    track->m_packet = Flumen::CMediaFrame(TS_PACK_LEN);
    if (!track->m_packet.valid()) {
        logError("%s:%d pkt invalid \n", __FILE__, __LINE__);
        return nullptr;
    }
    return track;
}

std::shared_ptr<CMulticastTrack> CMulticastTrack::CreateRtp(const frame_proc_t& proc,
                                                            const multicast_track_info_t& info) {
    const std::shared_ptr<CMulticastTrack> track = create(proc, STREAM_TYPE_RTP);
    if (track == nullptr) {
        return nullptr;
    }
    track->m_payload_type = is_video_encoding(info.encode) ? VIDEO_PAYLOAD_TYPE : AUDIO_PAYLOAD_TYPE;
    RtpDecParam param;
    param.enc_type = info.encode;
    param.payload_type = track->m_payload_type;
    param.kx_encode_type = is_video_encoding(info.encode) ? kx_video_code(info.encode) : uint8_t{KX_AUDIO_PCMU};
    param.sample_rate_code = kx_sample_rate_code(info.sample_rate);
    return track->m_parser->SetParam(param) == PARSER_OK ? track : nullptr;
}

int CMulticastTrack::Open(const CSockAddr& address) {
    const int result = m_sock.Open(&address);
    if (result == 0) {
        m_sock.JoinReceived();  // an older system returns them one by one
    }
    return result;
}

int CMulticastTrack::Receive() {
    CDgramTurn turn(m_sock);
    DgramSlice datagram;
    while (m_live && turn.Next(datagram)) {
        Take(datagram.data, datagram.length);
    }
    if (turn.Failed()) {
        logError("%s:%d m_stream_sock.Recv  -1 \n", __FILE__, __LINE__);
        return -1;
    }
    return 0;
}

void CMulticastTrack::Take(const unsigned char* data, unsigned int length) {
    const bool is_ts = m_packet.valid();  // an RTP header tells one packet from another (RFC 3550 5.1)
    const size_t telling = is_ts ? length : std::min<size_t>(length, RTP_HEADER_LEN);
    const bool used = !m_last.IsAgain(data, telling) && (is_ts ? take_ts(data, length) : take_rtp(data, length));
    m_dropped += used ? 0 : 1;
}

// A packet without its sync byte would only make the decoder forget the frame in the making. The decoder holds a packet
// until its frames are taken, so that one packet's memory serves for all.
bool CMulticastTrack::take_ts(const unsigned char* data, unsigned int length) {
    CByteReader reader(data, length);
    if (rtp_peek_payload_type(data, length) == CTsRtpHeader::PAYLOAD_TYPE) {
        reader.Skip(RTP_HEADER_LEN);  // RFC 2250: bare packets begin with 0x47, which no RTP packet does
    }
    bool used = reader.Remaining() > 0;
    while (reader.Remaining() >= TS_PACK_LEN && m_live) {
        const uint8_t* bytes = reader.ReadBytes(TS_PACK_LEN);
        m_packet.resize(0);
        m_packet.putBuffer(bytes, TS_PACK_LEN);
        used = bytes[0] == TS_SYNC_BYTE && decode(m_packet) && used;
    }
    return used && reader.Remaining() == 0;
}

// What isn't of the stream must not reach the decoder, which would forget the frame in the making.
bool CMulticastTrack::take_rtp(const unsigned char* data, unsigned int length) {
    if (rtp_peek_payload_type(data, length) != m_payload_type) {
        return false;
    }
    Flumen::CMediaFrame packet(length);
    if (!packet.valid()) {
        logError("%s:%d, pkt invalid, possible reason: insufficient memory.\n ", __FILE__, __LINE__);
        return false;
    }
    packet.resize(0);
    packet.putBuffer(data, length);
    return decode(packet);
}

bool CMulticastTrack::decode(const Flumen::CMediaFrame& packet) {
    const int result = m_parser->InputFrame(packet);
    if (result == PARSER_NOT_TAKEN) {
        m_parser->Clean();  // a frame that could not be made has hidden the one behind it
    }
    if (result != PARSER_FRAME_READY) {
        return result == PARSER_OK;
    }
    for (Flumen::CMediaFrame frame = m_parser->OutputFrame(); frame.valid() && m_live;
         frame = m_parser->OutputFrame()) {
        m_proc(frame);
    }
    return true;
}

void CMulticastTrack::End() {
    if (Detach()) {
        m_proc(Flumen::CMediaFrame());
    }
}

}  // namespace Vidora
}  // namespace Kavio
