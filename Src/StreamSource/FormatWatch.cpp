#include "StreamSource/FormatWatch.h"

namespace Kavio {
namespace Vidora {

void CFormatWatch::Read(CStreamSource& source) {
    m_has_video = source.HasVideo();
    read_video(source);
    m_has_audio = source.HasAudio();
    read_audio(source);
}

void CFormatWatch::read_video(CStreamSource& source) {
    m_video = StreamVideoFormat();
    if (m_has_video) {
        source.GetVideoFormat(m_video);
    }
}

void CFormatWatch::read_audio(CStreamSource& source) {
    m_audio = StreamAudioFormat();
    if (m_has_audio) {
        source.GetAudioFormat(m_audio);
    }
}

bool CFormatWatch::Update(CStreamSource& source) {
    const bool has_audio = source.HasAudio();
    const bool has_video = source.HasVideo();
    bool differs = has_audio != m_has_audio || has_video != m_has_video;
    m_has_audio = has_audio;
    m_has_video = has_video;
    if (m_has_audio && audio_differs(source)) {
        read_audio(source);
        differs = true;
    }
    if (m_has_video && video_differs(source)) {
        read_video(source);
        differs = true;
    }
    return differs;
}

bool CFormatWatch::audio_differs(CStreamSource& source) const {
    StreamAudioFormat format;
    source.GetAudioFormat(format);
    return format.encode_type != m_audio.encode_type || format.sample_rate != m_audio.sample_rate;
}

// The frame rate is for the SDP only and is no change by itself.
bool CFormatWatch::video_differs(CStreamSource& source) const {
    StreamVideoFormat format;
    source.GetVideoFormat(format);
    return format.width != m_video.width || format.height != m_video.height ||
           format.encode_type != m_video.encode_type;
}

CFormatWatch::verdict_t CFormatWatch::Look(const Flumen::CMediaFrame& frame) {
    const int type = frame.getType();
    if (frame.getNewFormat() != 0) {
        logInfo("%s:%d check_format, getNewFormat():%d type:%c\n", __FILE__, __LINE__, frame.getNewFormat(), type);
        (type == FRAME_TYPE_AUDIO ? m_audio_changes : m_video_changes) = true;
    }
    if (m_audio_changes) {
        m_audio_changes = type != FRAME_TYPE_AUDIO;
        return m_audio_changes ? FRAME_HELD : FRAME_ENDS_CHANGE;
    }
    if (m_video_changes && type == FRAME_TYPE_I) {
        m_video_changes = false;
        return FRAME_ENDS_CHANGE;
    }
    return FRAME_PASSES;
}

}  // namespace Vidora
}  // namespace Kavio
