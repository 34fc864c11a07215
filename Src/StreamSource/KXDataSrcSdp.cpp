// The SDP of CKXDataSrc (RFC 4566), built from the formats that the receiver read.
#include <cstdio>
#include <cstring>
#include <new>

#include "Protocol/SdpParser.h"
#include "Protocol/TextWriter.h"
#include "StreamSource/AudioTable.h"
#include "StreamSource/KXDataReceiver.h"
#include "StreamSource/KXDataSrc.h"
#include "Vidora/Ostra/Base64.h"

namespace Kavio {
namespace Vidora {

namespace {

const int H264_INFO_SIZE = 2048;
const int MPEG4_INFO_SIZE = 1024;
const unsigned int MPEG4_FMTP_SIZE = 2048;
const unsigned int FMTP_SIZE = 2 * (H264_INFO_SIZE / 3 * 4 + 8) + 128;  // two base64 texts and the words around
const unsigned int START_CODE_SIZE = 4;
const char START_CODE[] = {0, 0, 0, 1};
const char PROTOCOL[] = "RTP/AVP";
const double US_PER_SECOND = 1000000.0;

// One row per video codec: what its medium says.
struct VideoRow {
    int encode_type;
    const char* format;
    const char* rtpmap;
};

constexpr VideoRow VIDEO_TABLE[] = {
    {STREAM_VIDEO_MPEG4, "96", "96 MP4V-ES/90000"},
    {STREAM_VIDEO_H264, "96", "96 H264/90000"},
    {STREAM_VIDEO_JPEG, "26", "26 JPEG/90000"},
};

const VideoRow* find_video_row(int encode_type) {
    for (const VideoRow& row : VIDEO_TABLE) {
        if (row.encode_type == encode_type) {
            return &row;
        }
    }
    return nullptr;
}

// Offset of the next start code at or behind `from`; `size - 4` if there is none, as the scan ends there.
unsigned int next_start_code(const char* info, unsigned int from, unsigned int size) {
    while (from + START_CODE_SIZE < size && std::memcmp(info + from, START_CODE, START_CODE_SIZE) != 0) {
        ++from;
    }
    return from;
}

// Appends bytes as hexadecimal digits in capitals, as long as a whole pair fits before the final NUL.
unsigned int put_hex(char* text, unsigned int size, const char* bytes, unsigned int count) {
    unsigned int length = 0;
    text[0] = 0;
    for (unsigned int i = 0; i < count && length + 2 < size; ++i) {
        std::snprintf(text + length, size - length, "%02X", static_cast<unsigned char>(bytes[i]));
        length += 2;
    }
    return length;
}

}  // namespace

int CKXDataSrc::build_sdp() {
    CGuard recvr_guard(m_recvr_mutex);
    if (m_recvr == nullptr) {
        return -1;
    }
    CGuard guard(m_sdp_mutex);
    read_formats_locked();
    delete m_sdp;
    m_sdp = new (std::nothrow) CSdpParser;
    if (m_sdp == nullptr) {
        return -1;
    }
    if (build_session_locked() < 0 || (m_has_video && build_video_locked() < 0) ||
        (m_has_audio && build_audio_locked() < 0)) {
        return -1;
    }
    m_track_num = m_sdp->get_media_count();
    m_sdp->GetStream();
    return 0;
}

void CKXDataSrc::read_formats_locked() {
    m_has_video = m_recvr->HasVideo();
    m_has_audio = m_recvr->HasAudio();
    if (m_has_video) {
        m_recvr->GetVideoFormat(m_video_format);
    }
    if (m_has_audio) {
        m_recvr->GetAudioFormat(m_audio_format);
    }
}

int CKXDataSrc::build_session_locked() {
    m_sdp->set_session_attribute("control", "*");
    char range[128] = "npt=now-";
    if (m_src_type == SRC_TYPE_FILE) {
        uint64_t length_us = 0;
        if (m_recvr->GetFileRange(length_us) < 0) {
            return -1;
        }
        CTextWriter(range, sizeof(range)).Add("npt=0-", text_fixed{static_cast<double>(length_us) / US_PER_SECOND, 6});
    }
    if (m_src_type != SRC_TYPE_TOKEN) {
        m_sdp->set_session_attribute("range", range);
    }
    m_sdp->set_session_attribute("packetization-supported", "KX");
    return 0;
}

// Adds a medium and keeps its track number at the medium's place. The track number, or -1.
int CKXDataSrc::add_track_locked(CSdpParser& sdp, const char* type, const char* format) {
    const int index = sdp.get_media_count();
    const int track_id = sdp.add_media(type, 0, 1, PROTOCOL, format);
    if (track_id >= 0 && index < MAX_TRACK) {
        m_track_ids[index] = track_id;
    }
    return track_id;
}

int CKXDataSrc::build_video_locked() {
    const VideoRow* row = find_video_row(m_video_format.encode_type);
    if (row == nullptr) {
        logError("%s:%d encode_type:%d not support by rtsp \n", __FILE__, __LINE__, m_video_format.encode_type);
        return -1;
    }
    char fmtp[FMTP_SIZE] = "";
    if (row->encode_type == STREAM_VIDEO_MPEG4 && make_mpeg4_fmtp_locked(fmtp, sizeof(fmtp)) < 0) {
        logError("%s:%d MPEG4 make fmtp info fail\n", __FILE__, __LINE__);
        return -1;
    }
    if (row->encode_type == STREAM_VIDEO_H264 && make_h264_fmtp_locked(fmtp, sizeof(fmtp)) < 0) {
        logError("%s:%d H264 make fmtp info fail\n", __FILE__, __LINE__);
        return -1;
    }
    const int track_id = add_track_locked(*m_sdp, "video", row->format);
    if (track_id < 0) {
        return -1;
    }
    char frame_rate[64];
    CTextWriter(frame_rate, sizeof(frame_rate)).Add(text_fixed{static_cast<double>(m_video_format.frame_rate), 6});
    m_sdp->set_media_attribute(track_id, "framerate", frame_rate);
    m_sdp->set_media_attribute(track_id, "rtpmap", row->rtpmap);
    if (fmtp[0] != 0) {
        m_sdp->set_media_attribute(track_id, "fmtp", fmtp);
    }
    if (m_src_type == SRC_TYPE_TOKEN) {
        m_sdp->set_media_attribute(track_id, "x-onvif-track", "VIDEO001");
    }
    m_sdp->set_media_attribute(track_id, "recvonly", nullptr);
    return 0;
}

// RFC 6184 8.1: both parameter sets out of the codec configuration.
int CKXDataSrc::make_h264_fmtp_locked(char* fmtp, unsigned int size) {
    char info[H264_INFO_SIZE];
    int info_len = m_recvr->GetVideoSpecificInfo(info, H264_INFO_SIZE);
    if (info_len <= 0) {
        logError("%s:%d H264 get video specific info faile\n", __FILE__, __LINE__);
        return -1;
    }
    if (info_len > H264_INFO_SIZE) {
        logWarn("%s:%d sps pps info half-baked, info_len:%d buf_len:%d\n", __FILE__, __LINE__, info_len,
                H264_INFO_SIZE);
        info_len = H264_INFO_SIZE;
    }
    const unsigned int length = static_cast<unsigned int>(info_len);
    if (length < START_CODE_SIZE || std::memcmp(info, START_CODE, START_CODE_SIZE) != 0) {
        return -1;
    }
    const unsigned int sps_end = next_start_code(info, START_CODE_SIZE, length);
    const unsigned int sps_len = sps_end - START_CODE_SIZE;
    if (sps_len < 4) {
        return -1;
    }
    const char* sps = info + START_CODE_SIZE;
    const char* pps = sps + sps_len + START_CODE_SIZE;
    const unsigned int pps_len = length - sps_end - START_CODE_SIZE;
    char profile[7];
    put_hex(profile, sizeof(profile), sps + 1, 3);
    char sps_text[H264_INFO_SIZE / 3 * 4 + 8];
    char pps_text[H264_INFO_SIZE / 3 * 4 + 8];
    Ostra::base64Encode(sps_text, sps, static_cast<int>(sps_len));
    Ostra::base64Encode(pps_text, pps, static_cast<int>(pps_len));
    std::snprintf(fmtp, size, "96 packetization-mode=1;profile-level-id=%s;sprop-parameter-sets=%s,%s", profile,
                  sps_text, pps_text);
    return 0;
}

// The bare digits of the configuration, with no payload number and no "config=" in front: clients of this system read
// them so.
int CKXDataSrc::make_mpeg4_fmtp_locked(char* fmtp, unsigned int size) {
    char info[MPEG4_INFO_SIZE];
    int info_len = m_recvr->GetVideoSpecificInfo(info, MPEG4_INFO_SIZE);
    if (info_len <= 0) {
        logError("%s:%d MPEG4 get video specific info faile\n", __FILE__, __LINE__);
        return -1;
    }
    if (info_len > MPEG4_INFO_SIZE) {
        logWarn("%s:%d vos info half-baked, info_len:%d buf_len:%d\n", __FILE__, __LINE__, info_len, MPEG4_INFO_SIZE);
        info_len = MPEG4_INFO_SIZE;
    }
    put_hex(fmtp, size < MPEG4_FMTP_SIZE ? size : MPEG4_FMTP_SIZE, info, static_cast<unsigned int>(info_len));
    return 0;
}

int CKXDataSrc::build_audio_locked() {
    const AudioPayload* payload = FindAudioPayload(m_audio_format.encode_type, m_audio_format.sample_rate);
    if (payload == nullptr || m_audio_format.sample_rate <= 0) {
        logError("%s:%d get_audio_playload faile\n", __FILE__, __LINE__);
        return -1;
    }
    char format[16];
    std::snprintf(format, sizeof(format), "%d", payload->payload_type);
    const int track_id = add_track_locked(*m_sdp, "audio", format);
    if (track_id < 0) {
        return -1;
    }
    char rtpmap[64];
    std::snprintf(rtpmap, sizeof(rtpmap), "%s %s/%d", format, payload->name, m_audio_format.sample_rate);
    m_sdp->set_media_attribute(track_id, "rtpmap", rtpmap);
    m_sdp->set_media_attribute(track_id, "recvonly", nullptr);
    if (m_src_type == SRC_TYPE_TOKEN) {
        m_sdp->set_media_attribute(track_id, "x-onvif-track", "AUDIO001");
    }
    return 0;
}

// A channel looks before the source has told its format, which is no fault: hence no error line.
int CKXDataSrc::GetSdp(CSdpParser& sdp) {
    CGuard guard(m_sdp_mutex);
    if (m_sdp == nullptr) {
        logInfo("%s:%d CKXDataSrc::GetSdp fail\n", __FILE__, __LINE__);
        return -1;
    }
    sdp = *m_sdp;
    return 0;
}

// The assist medium is never in the source's own SDP: who wants it asks for it, and the source then knows its track.
int CKXDataSrc::GetSdp(CSdpParser& sdp, int ext_info) {
    CGuard guard(m_sdp_mutex);
    if (m_sdp == nullptr) {
        logError("%s:%d CKXDataSrc::GetSdp fail\n", __FILE__, __LINE__);
        return -1;
    }
    sdp = *m_sdp;
    if (ext_info != 1) {
        logError("%s %d do not support ext_info:%d\n", __FILE__, __LINE__, ext_info);
        return -1;
    }
    const int track_id = add_track_locked(sdp, "application", "100");
    if (track_id < 0) {
        return -1;
    }
    sdp.set_media_attribute(track_id, "rtpmap", "100 stream-assist-frame/90000");
    sdp.set_media_attribute(track_id, "recvonly", nullptr);
    m_track_num = sdp.get_media_count();
    return 0;
}

}  // namespace Vidora
}  // namespace Kavio
