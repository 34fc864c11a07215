#include "RtspClient/DecoderParams.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstring>

#include "Vidora/H264Parser.h"
#include "Vidora/KXFrame.h"
#include "Vidora/Names.h"
#include "Vidora/Ostra/Base64.h"
#include "Vidora/Ostra/ByteWriter.h"
#include "Vidora/StartCode.h"

namespace Kavio {
namespace Vidora {

namespace {

const int DEFAULT_FRAME_RATE = 25;
const size_t MAX_SET_LEN = 2048;      // of one parameter set, decoded
const size_t MAX_CONFIG_TEXT = 1023;  // of an MPEG-4 configuration
const char CONFIG_ENDS[] = ",; \r\n";
const size_t BASE64_UNIT = 4;  // characters that stand for three bytes

struct video_row {
    const char* name;
    int enc_type;
    uint8_t kx_code;
};

constexpr video_row VIDEO_ROWS[] = {
    {"H264", ENC_TYPE_H264, KX_VIDEO_H264},      {"MPEG4", ENC_TYPE_MPEG4, KX_VIDEO_MPEG4},
    {"MP4V-ES", ENC_TYPE_MPEG4, KX_VIDEO_MPEG4}, {"JPEG", ENC_TYPE_JPEG, KX_VIDEO_JPEG},
    {"MP2T", ENC_TYPE_MPEG2TS, KX_VIDEO_MPEG2},
};

const video_row* find_video_row(const char* name) {
    for (const video_row& row : VIDEO_ROWS) {
        if (::strcasecmp(row.name, name) == 0) {
            return &row;
        }
    }
    return nullptr;
}

// The text behind a key of the format parameters; null without it.
const char* value_of(const char* fmtp, const char* key) {
    const char* place = fmtp != nullptr ? ::strcasestr(fmtp, key) : nullptr;
    return place != nullptr ? place + std::strlen(key) : nullptr;
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    const int lower = std::tolower(static_cast<unsigned char>(c));
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

}  // namespace

int CDecoderParams::Read(CSdpInfo& info) {
    const sdp_info_data* data = CSdpInfoAccess::Data(info);
    const char* video = info.GetPayloadNameEx('V');
    if (data == nullptr || (video == nullptr && info.GetPayloadNameEx('A') == nullptr)) {
        logError("%s:%d no Media info\n", __FILE__, __LINE__);
        return -1;
    }
    if (video != nullptr) {
        read_video(info, *data, video);
    }
    if (const char* audio = info.GetPayloadNameEx('A')) {
        read_audio(info, *data, audio);
    }
    read_assist(*data);
    m_frame_rate = info.GetFrameRate();
    return 0;
}

void CDecoderParams::read_video(CSdpInfo& info, const sdp_info_data& data, const char* name) {
    Track& track = m_tracks[TRACK_VIDEO];
    const video_row* row = find_video_row(name);
    if (row == nullptr) {
        logWarn("%s:%d :Not Support Video ForMat:%s\n", __FILE__, __LINE__, name);
    } else {
        track.param.enc_type = row->enc_type;
        track.param.kx_encode_type = row->kx_code;
    }
    track.described = true;
    track.channel = data.m_video_channel;
    track.param.payload_type = static_cast<uint8_t>(info.GetPayloadType('V'));
    track.param.channel = static_cast<uint8_t>(data.m_video_channel);
    track.param.rate_or_channels = DEFAULT_FRAME_RATE;
    track.param.drop_damaged = 1;

    const char* fmtp = CSdpInfoAccess::MediaAttribute(info, 'V', "fmtp");
    if (track.param.enc_type == ENC_TYPE_H264) {
        read_h264_config(fmtp);
    } else if (track.param.enc_type == ENC_TYPE_MPEG4) {
        read_mpeg4_config(fmtp);
    }
    track.param.config1 = m_config1.length > 0 ? m_config1.data : nullptr;
    track.param.config1_len = m_config1.length;
    track.param.config2 = m_config2.length > 0 ? m_config2.data : nullptr;
    track.param.config2_len = m_config2.length;
}

void CDecoderParams::read_audio(CSdpInfo& info, const sdp_info_data& data, const char* name) {
    Track& track = m_tracks[TRACK_AUDIO];
    track.described = true;
    track.channel = data.m_audio_channel;
    track.param.enc_type = ::strcasecmp(name, "MPA") == 0 ? ENC_TYPE_MPEG_AUDIO : ENC_TYPE_AUDIO;
    track.param.kx_encode_type = kx_audio_code(name);
    track.param.payload_type = static_cast<uint8_t>(info.GetPayloadType('A'));
    track.param.channel = static_cast<uint8_t>(data.m_audio_channel);
    track.param.rate_or_channels = static_cast<uint8_t>(info.GetAudioChannel());
    const int sample_rate = info.GetSampleRate('A');
    track.param.sample_rate_code = kx_sample_rate_code(sample_rate);
    track.param.clock_rate = static_cast<uint32_t>(std::max(sample_rate, 0));
    track.param.drop_damaged = 1;
}

void CDecoderParams::read_assist(const sdp_info_data& data) {
    Track& track = m_tracks[TRACK_ASSIST];
    track.described = true;
    track.channel = data.m_app_channel;
    track.param.enc_type = ENC_TYPE_ASSIST;
    track.param.channel = static_cast<uint8_t>(data.m_app_channel);
    track.param.drop_damaged = 1;
}

// RFC 6184 8.1: parameter sets in base64, separated by commas.
void CDecoderParams::read_h264_config(const char* fmtp) {
    const char* text = value_of(fmtp, "sprop-parameter-sets=");
    while (text != nullptr) {
        const size_t length = std::strcspn(text, ",;");
        if (length / BASE64_UNIT * (BASE64_UNIT - 1) > MAX_SET_LEN) {
            return;
        }
        take_parameter_set(text, length);
        text = text[length] == ',' ? text + length + 1 : nullptr;
    }
}

void CDecoderParams::take_parameter_set(const char* text, size_t length) {
    char encoded[MAX_SET_LEN * 2] = "";
    char decoded[MAX_SET_LEN * 2];
    if (length >= sizeof(encoded)) {
        return;
    }
    std::memcpy(encoded, text, length);
    encoded[length] = '\0';
    const int size = Ostra::base64Decode(decoded, encoded);
    if (size < 1 || static_cast<size_t>(size) > CONFIG_SIZE - START_CODE4_LEN) {
        return;
    }
    const int type = h264_nal_type(static_cast<unsigned char>(decoded[0]));
    Config* config = type == H264_NAL_SPS ? &m_config1 : type == H264_NAL_PPS ? &m_config2 : nullptr;
    if (config != nullptr) {
        CByteWriter writer(config->data, CONFIG_SIZE);
        writer.WriteBytes(START_CODE4, START_CODE4_LEN);
        writer.WriteBytes(decoded, static_cast<size_t>(size));
        config->length = static_cast<int>(writer.Offset());
    }
}

// RFC 6416 7.1: the configuration in hexadecimal digits.
void CDecoderParams::read_mpeg4_config(const char* fmtp) {
    const char* text = value_of(fmtp, "config=");
    if (text == nullptr) {
        return;
    }
    const size_t length = std::min(std::strcspn(text, CONFIG_ENDS), MAX_CONFIG_TEXT);
    CByteWriter writer(m_config1.data, CONFIG_SIZE);
    for (size_t i = 0; i + 1 < length; i += 2) {
        const int high = hex_digit(text[i]);
        const int low = hex_digit(text[i + 1]);
        if (high < 0 || low < 0) {
            break;
        }
        writer.WriteU8(static_cast<uint8_t>(high << 4 | low));
    }
    m_config1.length = static_cast<int>(writer.Offset());
}

}  // namespace Vidora
}  // namespace Kavio
