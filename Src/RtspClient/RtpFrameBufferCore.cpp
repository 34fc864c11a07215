#include "RtspClient/RtpFrameBufferCore.h"

#include <cmath>
#include <new>
#include <utility>

#include "MediaFrame.h"
#include "Ostra/MemoryTrail.h"
#include "Tramel/Interleave.h"
#include "Tramel/MediaTag.h"
#include "Vidora/KXFrame.h"

namespace Kavio {
namespace Vidora {

namespace {

const size_t RTP_SEQUENCE_OFFSET = 2;

// The first `length` bytes of a packet as a frame: shared if the packet carries one of just that size, otherwise
// copied.
Flumen::CMediaFrame frame_of(CMediaPacket* packet, unsigned int length) {
    const CMediaFrame* carrier = dynamic_cast<const CMediaFrame*>(packet);
    const Flumen::CMediaFrame carried = carrier != nullptr ? carrier->GetShared() : Flumen::CMediaFrame();
    if (carried.valid() && carried.size() == length) {
        return carried;
    }
    const unsigned char* data = packet->GetData();
    if (data == nullptr || (carrier != nullptr && length > carrier->size())) {
        return Flumen::CMediaFrame();
    }
    Flumen::CMediaFrame copy(length);
    copy.resize(0);
    copy.putBuffer(data, length);
    return copy;
}

uint8_t first_byte(const Flumen::CMediaFrame& frame) {
    return CByteReader(frame.getBuffer(), frame.size()).PeekU8();
}

}  // namespace

void CRtpFrameBufferCore::Release() {
    if (--m_ref_count == 0) {
        delete this;
    }
}

int CRtpFrameBufferCore::Init(CSdpInfo* sdp) {
    m_input = INPUT_PIECES;
    if (sdp == nullptr) {
        return 0;
    }
    const std::unique_ptr<CDecoderParams> params(new (std::nothrow) CDecoderParams);
    if (params == nullptr || params->Read(*sdp) < 0) {
        return -1;
    }
    m_packet_type = sdp->GetPacketType();
    if (m_packet_type == PACKET_TYPE_KX) {
        m_input = INPUT_PRIVATE;
        return 0;
    }
    m_input = INPUT_RTP;
    if (m_rate_repair.Rate() == 0 && params->FrameRate() > 0) {
        m_rate_repair.SetRate(params->FrameRate());
    }
    return make_decoders(*params);
}

int CRtpFrameBufferCore::make_decoders(const CDecoderParams& params) {
    const int destination = m_frame_mode == 0 ? STREAM_TYPE_PRIVATE_FRAME : STREAM_TYPE_RAW_FRAME;
    for (int i = 0; i < CDecoderParams::TRACK_COUNT; ++i) {
        const CDecoderParams::Track& described = params.Get(static_cast<CDecoderParams::track_t>(i));
        Track& track = m_tracks[i];
        track = Track();
        if (described.channel < 0) {
            continue;  // nothing will come for it
        }
        track.parser = CStreamParser::Create(STREAM_TYPE_RTP, destination);
        if (track.parser == nullptr) {
            logError("CRtpFrameBuffer::Init: CStreamParser::Create fail\n");
            return -1;
        }
        track.channel = described.channel;
        track.count = i == CDecoderParams::TRACK_AUDIO ? &m_audio_count : &m_video_count;
        if (described.described) {
            track.parser->SetParam(described.param);
        }
    }
    return 0;
}

// ---- in ----

int CRtpFrameBufferCore::Put(CMediaPacket* packet, int length) {
    Ostra::CMemoryTrail::Note(*this);
    m_damaged = packet == nullptr || length < static_cast<int>(Tramel::INTERLEAVE_HEADER_SIZE);
    if (m_damaged) {
        return -1;
    }
    const Flumen::CMediaFrame frame = frame_of(packet, static_cast<unsigned int>(length));
    m_damaged = !frame.valid();
    if (m_damaged) {
        return -1;
    }
    switch (m_input) {
        case INPUT_PIECES:
            return put_pieces(frame);
        case INPUT_PRIVATE:
            return put_private(frame);
        default:
            return put_rtp(frame);
    }
}

int CRtpFrameBufferCore::put_pieces(const Flumen::CMediaFrame& run) {
    const int result = m_pieces.Put(run);
    m_damaged = m_pieces.TakeDamage() || result < 0;
    return result;
}

int CRtpFrameBufferCore::put_private(const Flumen::CMediaFrame& frame) {
    if (frame.size() >= Tramel::PRIVATE_HEADER_SIZE && first_byte(frame) == Tramel::INTERLEAVE_MARK) {
        return 0;  // the header in front of the frame
    }
    KXHeader header;
    m_damaged =
        frame.size() < KX_HEADER_LEN + KX_TRAILER_LEN || !kx_read_header(frame.getBuffer(), frame.size(), header);
    if (m_damaged) {
        return -1;
    }
    m_pending = frame;
    const uint16_t number = static_cast<uint16_t>(header.sequence);
    if (header.frame_type == KX_TYPE_AUDIO) {
        m_audio_count.Count(number);
    } else if (header.frame_type == KX_TYPE_I || header.frame_type == KX_TYPE_P || header.frame_type == KX_TYPE_B) {
        m_video_count.Count(number);
    }
    return 1;
}

int CRtpFrameBufferCore::put_rtp(const Flumen::CMediaFrame& run) {
    m_damaged = first_byte(run) != Tramel::INTERLEAVE_MARK;
    if (m_damaged) {
        return -1;
    }
    const int channel = CByteReader(run.getBuffer(), run.size()).PeekU8(1);
    Track* track = find_track(channel);
    if (track == nullptr) {
        if (m_channel_log.Pass()) {
            logWarn("%s:%d CRtpFrameBuffer::Put invalid channel id:%d, audio_rtp_channel:%d video_rtp_channel:%d\n",
                    __FILE__, __LINE__, channel, m_tracks[CDecoderParams::TRACK_AUDIO].channel,
                    m_tracks[CDecoderParams::TRACK_VIDEO].channel);
        }
        return -1;
    }
    count_packets(*track->count, run);
    const int result = track->parser->InputFrame(run);
    m_damaged = result == PARSER_FAILED;
    track->ready = result == PARSER_FRAME_READY;
    return track->ready ? 1 : 0;
}

int CRtpFrameBufferCore::End(int channel) {
    const int slot = Tramel::MediaTag::Unpack(channel).track;
    bool ready = false;
    for (Track& track : m_tracks) {
        if (track.parser != nullptr && track.channel / 2 == slot) {
            track.ready = track.parser->EndInput() == PARSER_FRAME_READY;
            ready = ready || track.ready;
        }
    }
    const Track& video = m_tracks[CDecoderParams::TRACK_VIDEO];
    if (video.parser != nullptr && video.channel / 2 == slot) {
        m_rate_repair.End();
        ready = ready || m_rate_repair.HasFrames();
    }
    return ready ? 1 : 0;
}

CRtpFrameBufferCore::Track* CRtpFrameBufferCore::find_track(int channel) {
    for (Track& track : m_tracks) {
        if (track.channel == channel && track.parser != nullptr) {
            return &track;
        }
    }
    return nullptr;
}

void CRtpFrameBufferCore::count_packets(CSequenceCount& count, const Flumen::CMediaFrame& run) {
    CByteReader reader(run.getBuffer(), run.size());
    interleaved_unit_t unit;
    while (ReadInterleavedUnit(reader, unit)) {
        CByteReader packet(unit.data, unit.length);
        packet.Skip(RTP_SEQUENCE_OFFSET);
        const uint16_t sequence = packet.ReadU16();
        if (packet.Ok()) {
            count.Count(sequence);
        }
    }
}

// ---- out ----

Flumen::CMediaFrame CRtpFrameBufferCore::Get() {
    return m_input == INPUT_RTP ? get_rtp() : get_private();
}

Flumen::CMediaFrame CRtpFrameBufferCore::get_private() {
    Flumen::CMediaFrame frame =
        m_input == INPUT_PRIVATE ? std::exchange(m_pending, Flumen::CMediaFrame()) : m_pieces.Take();
    if (m_frame_mode == 0 && frame.valid()) {
        m_facts.Fill(frame);
    }
    return frame;
}

Flumen::CMediaFrame CRtpFrameBufferCore::get_rtp() {
    Flumen::CMediaFrame frame = get_video();
    if (frame.valid()) {
        return frame;
    }
    frame = output_of(CDecoderParams::TRACK_AUDIO);
    if (frame.valid()) {
        repair_time(frame);
        return frame;
    }
    return output_of(CDecoderParams::TRACK_ASSIST);
}

Flumen::CMediaFrame CRtpFrameBufferCore::get_video() {
    if (m_frame_policy == 0 && m_frame_mode == 0) {
        return get_rated_video();
    }
    Flumen::CMediaFrame frame = output_of(CDecoderParams::TRACK_VIDEO);
    repair_time(frame);
    return frame;
}

// A frame that was held back for the rate, or else the next one that isn't: so they keep their order, also with a host
// that calls Get once for each Put.
Flumen::CMediaFrame CRtpFrameBufferCore::get_rated_video() {
    Flumen::CMediaFrame frame = m_rate_repair.Release();
    while (!frame.valid()) {
        frame = output_of(CDecoderParams::TRACK_VIDEO);
        if (!frame.valid()) {
            return frame;
        }
        m_rate_repair.Modify(frame);
    }
    repair_time(frame);
    return frame;
}

// A decoder without a frame isn't asked: with many sessions that alone would fetch it from memory.
Flumen::CMediaFrame CRtpFrameBufferCore::output_of(CDecoderParams::track_t index) {
    Track& track = m_tracks[index];
    Flumen::CMediaFrame frame;
    if (track.ready) {
        frame = track.parser->OutputFrame();
        track.ready = frame.valid();
    }
    return frame;
}

// Bare frames have no header with a stamp, whatever their bytes look like.
void CRtpFrameBufferCore::repair_time(Flumen::CMediaFrame& frame) {
    if (m_frame_mode == 0 && frame.valid()) {
        m_time_repair.Modify(frame);
    }
}

void CRtpFrameBufferCore::Clear() {
    for (Track& track : m_tracks) {
        if (track.parser != nullptr) {
            track.parser->Clean();
        }
        track.ready = false;
    }
    m_pieces.Clear();
    m_pending = Flumen::CMediaFrame();
    m_facts.Reset();
    m_time_repair.Reset();
}

void CRtpFrameBufferCore::GetStatis(TFrameBufferStatis& video, TFrameBufferStatis& audio) const {
    if (m_input != INPUT_PIECES) {
        fill_statis(CDecoderParams::TRACK_VIDEO, m_video_count, video);
        fill_statis(CDecoderParams::TRACK_AUDIO, m_audio_count, audio);
    }
}

void CRtpFrameBufferCore::fill_statis(CDecoderParams::track_t track, const CSequenceCount& count,
                                      TFrameBufferStatis& statis) const {
    ParserStatis measured;
    if (m_tracks[track].parser != nullptr) {
        m_tracks[track].parser->GetStatis(measured);
    }
    statis.packet_type = m_packet_type;
    statis.received = count.Received();
    statis.lost = count.Lost();
    statis.bit_rate = static_cast<uint64_t>(std::llround(measured.bit_rate));
}

}  // namespace Vidora
}  // namespace Kavio
