#include "StreamSource/TrackEncoders.h"

#include <cstring>

#include "StreamParser/RandomDraw.h"
#include "StreamParser/RtpHeader.h"
#include "StreamSource/AudioTable.h"
#include "Tramel/Interleave.h"

namespace Kavio {
namespace Vidora {

namespace {

const int VIDEO_CLOCK = 90000;  // RFC 3551 5
const int DYNAMIC_VIDEO_PAYLOAD = 96;
const int JPEG_PAYLOAD = 26;  // RFC 3551 table 5
const int DYNAMIC_AUDIO_PAYLOAD = 97;
const int ONVIF_METADATA_PAYLOAD = 107;
const uint32_t PICTURES_PER_SECOND = 25;  // a usual distance of two time stamps
const unsigned int PACKET_HEADER_SIZE = Tramel::INTERLEAVE_HEADER_SIZE + RTP_HEADER_LEN;
const int TS_PACKETS_PER_OUTPUT = 7;  // 7 x 188 bytes fit one Ethernet frame

int video_enc_type(int encode_type) {
    switch (encode_type) {
        case STREAM_VIDEO_MPEG4:
            return ENC_TYPE_MPEG4;
        case STREAM_VIDEO_H264:
            return ENC_TYPE_H264;
        case STREAM_VIDEO_JPEG:
            return ENC_TYPE_JPEG;
        default:
            return ENC_TYPE_NONE;
    }
}

// With the extension's flag, which a recording's tracks have from their first frame on, a converter would take nothing
// but the extension.
void begin_time_line(CStreamParser& converter, RtpEncParam param) {
    param.flags &= ~RTP_FLAG_EXTENSION;
    converter.SetParam(param);
}

}  // namespace

CTrackEncoders::CTrackEncoders(CSrcInfoTable& info) : m_info(info) {
    m_ts_param.packets_per_output = TS_PACKETS_PER_OUTPUT;
    for (int i = 0; i < MAX_TRACK; ++i) {
        Track& track = m_tracks[i];
        track.param.ssrc = random_draw32();
        track.param.sequence = random_draw();
        track.over_tcp.use_header = 1;
        track.over_tcp.channel = static_cast<uint8_t>(2 * i);  // RTP on the even ones (RFC 2326 10.12)
        track.over_tcp.merge_frame = 1;
        m_info.SetSsrc(i, track.param.ssrc);
    }
}

// Running numbers of the converters are read back first, so that they carry over into the new table.
void CTrackEncoders::Build(const CFormatWatch& formats) {
    for (Track& track : m_tracks) {
        if (track.rtp) {
            track.rtp->GetParam(track.param);
        }
    }
    add_tracks(formats);
    for (int i = 0; i < MAX_TRACK; ++i) {
        m_info.Begin(i, m_tracks[i].param.sequence);
    }
    m_info.SetCount(m_count);
    for (const Track& track : m_tracks) {
        if (track.rtp) {
            begin_time_line(*track.rtp, track.param);
        }
    }
    if (m_ts) {
        m_ts->SetParam(m_ts_param);
    }
}

void CTrackEncoders::add_tracks(const CFormatWatch& formats) {
    m_count = 0;
    m_ts_param.video_enc_type = ENC_TYPE_NONE;
    m_ts_param.audio_enc_type = ENC_TYPE_NONE;
    m_ts_param.video_only = m_conformance ? 1 : 0;
    m_ts_param.counted_tables = m_conformance ? 1 : 0;
    m_ts_param.over_rtp = m_conformance ? 1 : 0;
    if (formats.HasVideo()) {
        const int enc_type = video_enc_type(formats.GetVideo().encode_type);
        m_ts_param.video_enc_type = enc_type;
        add(enc_type, enc_type == ENC_TYPE_JPEG ? JPEG_PAYLOAD : DYNAMIC_VIDEO_PAYLOAD, VIDEO_CLOCK);
    }
    if (formats.HasAudio()) {
        const StreamAudioFormat& audio = formats.GetAudio();
        AudioMap map = {DYNAMIC_AUDIO_PAYLOAD, audio.sample_rate, "", 0};
        MapAudio(audio.encode_type, audio.sample_rate, m_conformance, map);
        if (m_conformance && audio.encode_type == STREAM_AUDIO_MPEG) {
            m_ts_param.audio_enc_type = ENC_TYPE_MP3;
            m_ts_param.video_only = 0;
        }
        RtpEncParam& param = add(audio.encode_type == STREAM_AUDIO_MPEG ? ENC_TYPE_MPEG_AUDIO : ENC_TYPE_AUDIO,
                                 map.payload_type, map.clock_rate);
        param.flags |= m_conformance ? RTP_FLAG_NO_MARKER : 0;
        param.bytes_per_tick = static_cast<uint32_t>(map.bytes_per_tick);
    }
    add(ENC_TYPE_ASSIST, 0, VIDEO_CLOCK);
    add(ENC_TYPE_ONVIF_METADATA, ONVIF_METADATA_PAYLOAD, VIDEO_CLOCK);
}

RtpEncParam& CTrackEncoders::add(int enc_type, int payload_type, int clock_rate) {
    RtpEncParam& param = m_tracks[m_count++].param;
    param.enc_type = enc_type;
    param.payload_type = static_cast<uint8_t>(payload_type);
    param.clock_rate = static_cast<uint32_t>(clock_rate);
    param.flags = (param.flags & RTP_FLAG_EXTENSION) | (m_conformance ? RTP_FLAG_NAL_UNITS : 0);
    param.bytes_per_tick = 0;
    return param;
}

void CTrackEncoders::Reset() {
    for (int i = 0; i < MAX_TRACK; ++i) {
        Track& track = m_tracks[i];
        if (track.rtp) {
            begin_anew(i, *track.rtp, track.param, track.has_sent);
        } else {
            track.param.timestamp = random_draw32();
            m_info.SetTimestamp(i, track.param.timestamp);
        }
    }
    if (m_ts && m_conformance) {
        begin_anew(0, *m_ts, m_ts_rtp, m_ts_has_sent);
    }
}

void CTrackEncoders::begin_anew(int index, CStreamParser& converter, RtpEncParam& param, bool& has_sent) {
    converter.GetParam(param);
    if (m_conformance && has_sent) {
        param.timestamp += param.clock_rate / PICTURES_PER_SECOND;
    }
    has_sent = false;
    m_info.SetPlace(index, param.timestamp, param.sequence);
    begin_time_line(converter, param);
}

bool CTrackEncoders::BeginRtp(int index) {
    Track& track = m_tracks[index];
    if (track.rtp) {
        return true;
    }
    track.rtp = CStreamParser::Create(STREAM_TYPE_FRAME_AUTO, STREAM_TYPE_RTP);
    if (!track.rtp) {
        return false;
    }
    track.rtp->SetParam(track.over_tcp);
    track.rtp->SetParam(track.param);
    return true;
}

bool CTrackEncoders::BeginTs(int track) {
    if (m_ts) {
        return true;
    }
    m_ts = CStreamParser::Create(STREAM_TYPE_FRAME_AUTO, STREAM_TYPE_TS);
    if (!m_ts) {
        return false;
    }
    m_ts->SetParam(m_tracks[m_conformance ? 0 : track].over_tcp);
    m_ts->SetParam(m_ts_param);
    if (m_conformance) {
        m_ts_rtp = m_tracks[0].param;
        m_ts->SetParam(m_ts_rtp);
    }
    return true;
}

void CTrackEncoders::SetExtension(int track, const CReplayExtension& extension) {
    RtpEncParam& param = m_tracks[track].param;
    param.flags |= RTP_FLAG_EXTENSION;
    static_assert(sizeof(param.extension) == CReplayExtension::SIZE, "one extension record");
    std::memcpy(param.extension, extension.GetBytes(), sizeof(param.extension));
    m_tracks[track].rtp->SetParam(param);
}

CTrackEncoders::Converted CTrackEncoders::ToRtp(int track, const Flumen::CMediaFrame& frame) {
    return convert(*m_tracks[track].rtp, frame);
}

CTrackEncoders::Converted CTrackEncoders::ToTs(const Flumen::CMediaFrame& frame) {
    return convert(*m_ts, frame);
}

CTrackEncoders::Converted CTrackEncoders::convert(CStreamParser& parser, const Flumen::CMediaFrame& frame) {
    Converted converted{parser.InputFrame(frame), {}};
    if (converted.result == PARSER_FRAME_READY) {
        converted.packets = parser.OutputFrame();
    }
    if (!converted.packets.valid()) {
        parser.Clean();
    }
    return converted;
}

void CTrackEncoders::CountRtp(int index, unsigned int bytes, uint64_t pts_ms) {
    Track& track = m_tracks[index];
    track.has_sent = true;
    track.rtp->GetParam(track.param);
    count(index, track.param, bytes, pts_ms);
}

void CTrackEncoders::CountTs(unsigned int bytes, uint64_t pts_ms) {
    if (m_conformance && bytes > 0) {
        m_ts_has_sent = true;
        m_ts->GetParam(m_ts_rtp);
        count(0, m_ts_rtp, bytes, pts_ms);
    }
}

void CTrackEncoders::count(int index, const RtpEncParam& param, unsigned int bytes, uint64_t pts_ms) {
    const unsigned int packets = (bytes + CSrcInfoTable::COUNTED_PACKET_SIZE - 1) / CSrcInfoTable::COUNTED_PACKET_SIZE;
    m_info.AddFrame(index, param.timestamp, param.sequence,
                    {bytes, packets, PACKET_HEADER_SIZE, pts_ms, m_conformance});
}

}  // namespace Vidora
}  // namespace Kavio
