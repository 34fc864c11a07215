// The path of a frame through CKXDataReceiver: from the host's callback to up to three media buffers.
#include <new>

#include "FrameInfo.h"
#include "MediaFrame.h"
#include "StreamParser/FrameLetter.h"
#include "StreamParser/KXLayout.h"
#include "StreamSource/KXDataReceiver.h"
#include "StreamSource/SourceGate.h"
#include "Tramel/Interleave.h"
#include "Tramel/MediaTag.h"
#include "Vidora/Ostra/ByteReader.h"
#include "Vidora/Ostra/ByteWriter.h"
#include "Vidora/Tramel/MediaBuffer.h"

namespace Kavio {
namespace Vidora {

namespace {

const int RTP_INFO_LENGTH = 32;
const int KX_INFO_LENGTH = 4;

// Puts a packet into a buffer, which takes it over unless memory is short or it is empty: then it ends here.
bool put_packet(const CMediaBufferRef& buffer, CMediaPacket* packet, unsigned int size, int flag, int tag) {
    if (buffer.Put(packet, static_cast<int>(size), flag, tag) < 0) {
        packet->Release();
        return false;
    }
    return true;
}

bool put_media(const CMediaBufferRef& buffer, const Flumen::CMediaFrame& frame, int flag, int tag) {
    CMediaFrame* packet = new (std::nothrow) CMediaFrame(frame);
    return packet != nullptr && put_packet(buffer, packet, frame.size(), flag, tag);
}

// Says which frame the next packet is. Without it the packet goes all the same.
void put_info(const CMediaBufferRef& buffer, const Flumen::CMediaFrame& frame, int track, int length) {
    CFrameInfo* info = new (std::nothrow) CFrameInfo;
    if (info == nullptr) {
        return;
    }
    CByteReader reader(frame.getBuffer(), frame.size());
    reader.Skip(KX_AT_SEQUENCE);
    info->m_track = static_cast<uint32_t>(track);
    info->m_frame_index = reader.ReadU32Le();
    info->m_frame_type = frame.getType();
    info->m_time_ms = CTime::getCurrentMilliSecond();
    if (buffer.PutFrameInfo(info, length) < 0) {
        info->Release();
    }
}

}  // namespace

void CKXDataReceiver::frame_proc(const Flumen::CMediaFrame& frame) {
    const CSourceGate::CFrameScope scope;
    const CUse use(this);  // the host may close all that it has while it is inside
    if (use) {
        take_frame(frame);
    }
}

void CKXDataReceiver::take_frame(const Flumen::CMediaFrame& frame) {
    CGuard guard(m_mutex);
    if (!m_started) {
        return;
    }
    if (m_src_type == SRC_TYPE_TOKEN) {
        m_stream_source->getPacketType(m_packet_state);
    }
    if (m_src_type == SRC_TYPE_FILE) {
        if (is_at_end_locked()) {
            logWarn("%s:%d frame handle File_end\n", __FILE__, __LINE__);
            Notify(m_notify_id, MSG_SRC_END, 0);
            return;
        }
        if (is_outside_window_locked(frame)) {
            const Ostra::CLogLimit::CScope scope(m_frame_log);
            logWarn("%s:%d out of file range.\n", __FILE__, __LINE__);
            return;
        }
    }
    put_frame_locked(frame);
}

bool CKXDataReceiver::is_at_end_locked() {
    m_packet_state = PACKET_STATE_RUNS;
    m_stream_source->getPacketType(m_packet_state);
    logTrace("%s:%d m_packet_state %d\n", __FILE__, __LINE__, m_packet_state);
    return m_packet_state == PACKET_STATE_END;
}

bool CKXDataReceiver::is_outside_window_locked(const Flumen::CMediaFrame& frame) {
    const double utc = frame.getUtc();
    return m_window.Excludes(CTime(utc > 0.0 ? static_cast<uint64_t>(utc) : 0));
}

int CKXDataReceiver::put_frame_locked(const Flumen::CMediaFrame& frame) {
    const int type = frame.getType();
    const int track = find_track_locked(type);
    if (track < 0) {
        return 0;
    }
    const uint8_t kind = type == FRAME_TYPE_I ? Tramel::MediaTag::KEY_FRAME : Tramel::MediaTag::SKIPPABLE_FRAME;
    const int tag = Tramel::MediaTag{static_cast<uint8_t>(track), kind}.Pack();
    const bool wants_rtp = m_buffers.Size(PACKET_TYPE_RTP) > 0;
    const bool wants_ts = m_buffers.Size(PACKET_TYPE_TS) > 0 && has_place_in_ts(type);
    if (is_described_locked(frame) &&
        ((wants_rtp && put_rtp_locked(frame, track, tag) < 0) || (wants_ts && put_ts_locked(frame, track, kind) < 0))) {
        return -1;
    }
    // Private frames describe themselves, so that a change of format doesn't hold them up.
    for (size_t i = 0; i < m_buffers.Size(PACKET_TYPE_KX); ++i) {
        put_kx(CMediaBufferRef(m_buffers.At(PACKET_TYPE_KX, i)), frame, track, tag);
    }
    return 0;
}

// Sound reaches the transport stream by the standards' way only.
bool CKXDataReceiver::has_place_in_ts(int type) const {
    return IsVideoLetter(type) || (type == FRAME_TYPE_AUDIO && m_encoders.TsHasSound());
}

// The place in the track table; negative for a frame that goes nowhere. All but video and audio count as assist frames,
// the letter of JPEG among them: a host sends pictures as key frames.
int CKXDataReceiver::find_track_locked(int type) {
    if (type == FRAME_TYPE_AUDIO) {
        return !m_formats.HasAudio() ? -1 : m_formats.HasVideo() ? 1 : 0;
    }
    if (IsVideoLetter(type)) {
        return m_formats.HasVideo() ? 0 : -1;
    }
    return m_assist_count <= 0 ? -1 : m_formats.HasVideo() && m_formats.HasAudio() ? 2 : 1;
}

// False for a frame that must not go into RTP and TS, since its format isn't in the SDP yet.
bool CKXDataReceiver::is_described_locked(const Flumen::CMediaFrame& frame) {
    if (!m_info_ready) {
        return false;
    }
    switch (m_formats.Look(frame)) {
        case CFormatWatch::FRAME_PASSES:
            return true;
        case CFormatWatch::FRAME_HELD:
            return false;
        default:  // the audio frame that ends a change is held back as well
            return !update_formats_locked() && frame.getType() != FRAME_TYPE_AUDIO;
    }
}

int CKXDataReceiver::put_rtp_locked(const Flumen::CMediaFrame& frame, int track, int tag) {
    if (!m_encoders.BeginRtp(track)) {
        logError("%s:%d rtp stream parser create fail\n", __FILE__, __LINE__);
        return -1;
    }
    if (m_src_type == SRC_TYPE_TOKEN) {
        m_replay.Write(frame, m_packet_state, m_cseq);
        m_encoders.SetExtension(track, m_replay);
    }
    const unsigned int sent = send_rtp_locked(frame, track, tag);
    m_encoders.CountRtp(track, sent, frame.getPts(Flumen::PTS_TYPE_MS));
    return 0;
}

// The frame's packets, as one merged packet; invalid on failure. A damaged recording has as many bad frames as good
// ones: what the encoders say of them passes once a second as well.
Flumen::CMediaFrame CKXDataReceiver::to_rtp_locked(const Flumen::CMediaFrame& frame, int track) {
    const Ostra::CLogLimit::CScope scope(m_frame_log);
    const CTrackEncoders::Converted rtp = m_encoders.ToRtp(track, frame);
    if (rtp.result != PARSER_FRAME_READY) {
        logError("%s:%d MediaFrame Input fail, ret:%d, frame_type = %c .\n", __FILE__, __LINE__, rtp.result,
                 frame.getType());
        return Flumen::CMediaFrame();
    }
    if (!rtp.packets.valid()) {
        logError("%s:%d MediaFrame Input fail, type=%c.\n", __FILE__, __LINE__, frame.getType());
    }
    return rtp.packets;
}

// Puts the frame's packets into each buffer. The bytes put, 0 on failure.
unsigned int CKXDataReceiver::send_rtp_locked(const Flumen::CMediaFrame& frame, int track, int tag) {
    const Flumen::CMediaFrame packets = to_rtp_locked(frame, track);
    if (!packets.valid()) {
        return 0;
    }
    bool put = false;
    for (size_t i = 0; i < m_buffers.Size(PACKET_TYPE_RTP); ++i) {
        const CMediaBufferRef buffer = m_buffers.At(PACKET_TYPE_RTP, i);
        put_info(buffer, frame, track, RTP_INFO_LENGTH);
        put = put_media(buffer, packets, 1, tag) || put;
    }
    return put ? packets.size() : 0;
}

Flumen::CMediaFrame CKXDataReceiver::to_ts_locked(const Flumen::CMediaFrame& frame) {
    const Ostra::CLogLimit::CScope scope(m_frame_log);
    const CTrackEncoders::Converted ts = m_encoders.ToTs(frame);
    if (ts.result != PARSER_FRAME_READY) {
        logError("%s:%d MediaFrame Input fail, ret%d\n", __FILE__, __LINE__, ts.result);
        return Flumen::CMediaFrame();
    }
    if (!ts.packets.valid()) {
        logError("%s:%d MediaFrame Input fail\n", __FILE__, __LINE__);
    }
    return ts.packets;
}

// All goes out as the first track.
int CKXDataReceiver::put_ts_locked(const Flumen::CMediaFrame& frame, int track, uint8_t kind) {
    if (!m_encoders.BeginTs(track)) {
        logError("%s:%d ts stream parser create fail\n", __FILE__, __LINE__);
        return -1;
    }
    const Flumen::CMediaFrame packets = to_ts_locked(frame);
    if (!packets.valid()) {
        return 0;
    }
    const int tag = Tramel::MediaTag{static_cast<uint8_t>(IsVideoLetter(frame.getType()) ? track : 0), kind}.Pack();
    for (size_t i = 0; i < m_buffers.Size(PACKET_TYPE_TS); ++i) {
        put_media(CMediaBufferRef(m_buffers.At(PACKET_TYPE_TS, i)), packets, 1, tag);
    }
    m_encoders.CountTs(packets.size(), frame.getPts(Flumen::PTS_TYPE_MS));
    return 0;
}

// A six-byte header and the frame as it is, as two packets that travel together.
void CKXDataReceiver::put_kx(const CMediaBufferRef& buffer, const Flumen::CMediaFrame& frame, int track, int tag) {
    CMediaFrame* packet = new (std::nothrow) CMediaFrame(frame);
    const Flumen::CMediaFrame kx_hdr_pkt(Tramel::PRIVATE_HEADER_SIZE);
    if (packet == nullptr || !kx_hdr_pkt.valid()) {
        delete packet;
        logError("%s:%d kx_hdr_pkt invalid\n", __FILE__, __LINE__);
        return;
    }
    CByteWriter writer(kx_hdr_pkt.getBuffer(), Tramel::PRIVATE_HEADER_SIZE);
    writer.WriteU8(Tramel::INTERLEAVE_MARK);
    writer.WriteU8(static_cast<uint8_t>(track * 2));
    writer.WriteU32(frame.size());
    if (!put_media(buffer, kx_hdr_pkt, 0, tag)) {
        delete packet;
        return;
    }
    const int type = frame.getType();
    const bool is_media = IsVideoLetter(type) || type == FRAME_TYPE_AUDIO;
    if (is_media) {
        put_info(buffer, frame, track, KX_INFO_LENGTH);
    }
    put_packet(buffer, packet, frame.size(), is_media ? 1 : 0, tag);
}

}  // namespace Vidora
}  // namespace Kavio
