#include "StreamSource/KXDescription.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "Protocol/TextWriter.h"
#include "StreamSource/AudioTable.h"
#include "StreamSource/KXDataReceiver.h"
#include "Vidora/Ostra/Base64.h"
#include "Vidora/StartCode.h"

namespace Kavio {
namespace Vidora {

namespace {

const int H264_INFO_SIZE = 2048;
const int MPEG4_INFO_SIZE = 1024;
const unsigned int MPEG4_FMTP_SIZE = 2048;
const unsigned int FMTP_SIZE = 2 * (H264_INFO_SIZE / 3 * 4 + 8) + 128;  // two base64 texts and the words around
const unsigned int START_CODE_SIZE = START_CODE4_LEN;
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
    while (from + START_CODE_SIZE < size && std::memcmp(info + from, START_CODE4, START_CODE_SIZE) != 0) {
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

// What the log says of a codec's configuration.
struct InfoTexts {
    const char* missing;
    const char* cut;
};

const InfoTexts H264_INFO_TEXTS = {"%s:%d H264 get video specific info faile\n",
                                   "%s:%d sps pps info half-baked, info_len:%d buf_len:%d\n"};
const InfoTexts MPEG4_INFO_TEXTS = {"%s:%d MPEG4 get video specific info faile\n",
                                    "%s:%d vos info half-baked, info_len:%d buf_len:%d\n"};

// The bytes of the configuration that `info` has room for; 0 if there is none.
unsigned int read_info(CKXDataReceiver& receiver, char* info, int size, const InfoTexts& texts) {
    const int length = receiver.GetVideoSpecificInfo(info, size);
    if (length <= 0) {
        logError(texts.missing, __FILE__, __LINE__);
        return 0;
    }
    if (length > size) {
        logWarn(texts.cut, __FILE__, __LINE__, length, size);
    }
    return static_cast<unsigned int>(std::min(length, size));
}

// RFC 6184 8.1: both parameter sets out of the codec configuration.
int make_h264_fmtp(CKXDataReceiver& receiver, char* fmtp, unsigned int size) {
    char info[H264_INFO_SIZE];
    const unsigned int length = read_info(receiver, info, H264_INFO_SIZE, H264_INFO_TEXTS);
    if (length < START_CODE_SIZE || std::memcmp(info, START_CODE4, START_CODE_SIZE) != 0) {
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

// The digits of the configuration behind `words`: none, with no payload number and no "config=", as clients of this
// system read them; or those of RFC 6416 7.1.
int make_mpeg4_fmtp(CKXDataReceiver& receiver, const char* words, char* fmtp, unsigned int size) {
    char info[MPEG4_INFO_SIZE];
    const unsigned int length = read_info(receiver, info, MPEG4_INFO_SIZE, MPEG4_INFO_TEXTS);
    if (length == 0) {
        return -1;
    }
    CTextWriter text(fmtp, size);
    text.Add(words);
    const unsigned int room = size - static_cast<unsigned int>(text.Length());
    put_hex(fmtp + text.Length(), room < MPEG4_FMTP_SIZE ? room : MPEG4_FMTP_SIZE, info, length);
    return 0;
}

}  // namespace

int CKXDescription::Build(CKXDataReceiver& receiver, src_type_t src_type) {
    if (build_session(receiver, src_type) < 0 || (receiver.HasVideo() && build_video(receiver, src_type) < 0)) {
        return -1;
    }
    StreamAudioFormat audio;
    if (receiver.HasAudio() && (receiver.GetAudioFormat(audio) < 0 || build_audio(audio, src_type) < 0)) {
        return -1;
    }
    m_track_num = m_sdp.get_media_count();
    m_sdp.GetStream();
    return 0;
}

int CKXDescription::build_session(CKXDataReceiver& receiver, src_type_t src_type) {
    m_sdp.set_session_attribute("control", "*");
    char range[128] = "npt=now-";
    if (src_type == SRC_TYPE_FILE) {
        uint64_t length_us = 0;
        if (receiver.GetFileRange(length_us) < 0) {
            return -1;
        }
        CTextWriter(range, sizeof(range)).Add("npt=0-", text_fixed{static_cast<double>(length_us) / US_PER_SECOND, 6});
    }
    if (src_type != SRC_TYPE_TOKEN) {
        m_sdp.set_session_attribute("range", range);
    }
    m_sdp.set_session_attribute("packetization-supported", "KX");
    return 0;
}

// Adds a medium and keeps its track number at the medium's place. The track number, or -1.
int CKXDescription::add_track(CSdpParser& sdp, const char* type, const char* format) {
    const int index = sdp.get_media_count();
    const int track_id = sdp.add_media(type, 0, 1, PROTOCOL, format);
    if (track_id >= 0 && index < MAX_TRACK) {
        m_track_ids[index] = track_id;
    }
    return track_id;
}

int CKXDescription::build_video(CKXDataReceiver& receiver, src_type_t src_type) {
    StreamVideoFormat video;
    if (receiver.GetVideoFormat(video) < 0) {
        return -1;
    }
    const VideoRow* row = find_video_row(video.encode_type);
    if (row == nullptr) {
        logError("%s:%d encode_type:%d not support by rtsp \n", __FILE__, __LINE__, video.encode_type);
        return -1;
    }
    char fmtp[FMTP_SIZE] = "";
    const char* words = m_conformance ? "96 profile-level-id=1;config=" : "";
    if (row->encode_type == STREAM_VIDEO_MPEG4 && make_mpeg4_fmtp(receiver, words, fmtp, sizeof(fmtp)) < 0) {
        logError("%s:%d MPEG4 make fmtp info fail\n", __FILE__, __LINE__);
        return -1;
    }
    if (row->encode_type == STREAM_VIDEO_H264 && make_h264_fmtp(receiver, fmtp, sizeof(fmtp)) < 0) {
        logError("%s:%d H264 make fmtp info fail\n", __FILE__, __LINE__);
        return -1;
    }
    const int track_id = add_track(m_sdp, "video", row->format);
    if (track_id < 0) {
        return -1;
    }
    char frame_rate[64];
    CTextWriter(frame_rate, sizeof(frame_rate)).Add(text_fixed{static_cast<double>(video.frame_rate), 6});
    m_sdp.set_media_attribute(track_id, "framerate", frame_rate);
    m_sdp.set_media_attribute(track_id, "rtpmap", row->rtpmap);
    if (fmtp[0] != 0) {
        m_sdp.set_media_attribute(track_id, "fmtp", fmtp);
    }
    if (src_type == SRC_TYPE_TOKEN) {
        m_sdp.set_media_attribute(track_id, "x-onvif-track", "VIDEO001");
    }
    m_sdp.set_media_attribute(track_id, "recvonly", nullptr);
    return 0;
}

int CKXDescription::build_audio(const StreamAudioFormat& audio, src_type_t src_type) {
    AudioMap map;
    if (!MapAudio(audio.encode_type, audio.sample_rate, m_conformance, map)) {
        return -1;
    }
    char format[16];
    std::snprintf(format, sizeof(format), "%d", map.payload_type);
    const int track_id = add_track(m_sdp, "audio", format);
    if (track_id < 0) {
        return -1;
    }
    char rtpmap[64];
    std::snprintf(rtpmap, sizeof(rtpmap), "%s %s/%d", format, map.name, map.clock_rate);
    m_sdp.set_media_attribute(track_id, "rtpmap", rtpmap);
    m_sdp.set_media_attribute(track_id, "recvonly", nullptr);
    if (src_type == SRC_TYPE_TOKEN) {
        m_sdp.set_media_attribute(track_id, "x-onvif-track", "AUDIO001");
    }
    return 0;
}

int CKXDescription::AddAssist(CSdpParser& sdp) {
    const int track_id = add_track(sdp, "application", "100");
    if (track_id < 0) {
        return -1;
    }
    sdp.set_media_attribute(track_id, "rtpmap", "100 stream-assist-frame/90000");
    sdp.set_media_attribute(track_id, "recvonly", nullptr);
    m_track_num = sdp.get_media_count();
    return 0;
}

int CKXDescription::FindTrack(int track_id) const {
    for (int i = 0; i < m_track_num && i < MAX_TRACK; ++i) {
        if (m_track_ids[i] == track_id) {
            return i;
        }
    }
    return -1;
}

}  // namespace Vidora
}  // namespace Kavio
