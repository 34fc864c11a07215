#include "Vidora/SdpInfo.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "Ostra/Counted.h"
#include "Protocol/StaticPayload.h"
#include "RtspClient/SdpInfoAccess.h"

namespace Kavio {
namespace Vidora {

CSdpInfo::CSdpInfo() : CSdpInfo(nullptr) {}

CSdpInfo::CSdpInfo(CSdpParser* sdp) : m_data(new (std::nothrow) sdp_info_data(sdp)) {}

CSdpInfo::CSdpInfo(const CSdpInfo& other) : m_data(Ostra::ShareCounted(other.m_data)) {}

// Assigned objects share their contents: only the pointer is copied. Counting who holds it makes that safe to destroy.
CSdpInfo& CSdpInfo::operator=(const CSdpInfo& other) {
    CSdpInfo shared(other);
    std::swap(m_data, shared.m_data);
    return *this;
}

CSdpInfo::~CSdpInfo() {
    Ostra::ReleaseCounted(m_data);
}

// The place of the media of a kind that is delivered, or else of the first one, -1 if there is none.
int CSdpInfo::get_media_index(char kind) {
    if (m_data == nullptr || m_data->m_sdp == nullptr || (kind != 'A' && kind != 'V')) {
        return -1;
    }
    const int filled = kind == 'A' ? m_data->m_audio_index : m_data->m_video_index;
    if (filled >= 0) {
        return filled;
    }
    const int wanted = kind == 'A' ? SDP_MEDIA_AUDIO : SDP_MEDIA_VIDEO;
    for (int i = 0; i < m_data->m_sdp->get_media_count(); ++i) {
        if (m_data->m_sdp->get_media_type_at(i) == wanted) {
            return i;
        }
    }
    return -1;
}

int CSdpInfo::GetPayloadType(char kind) {
    const int index = get_media_index(kind);
    return index >= 0 ? m_data->m_sdp->get_payload_type(index) : -1;
}

char* CSdpInfo::GetPayloadNameEx(char kind) {
    const int index = get_media_index(kind);
    if (index < 0) {
        return nullptr;
    }
    char* name = m_data->m_sdp->get_payload_name(index);
    const static_payload_t* row = name == nullptr ? FindStaticPayload(GetPayloadType(kind)) : nullptr;
    if (name == nullptr && row == nullptr) {
        return nullptr;
    }
    std::snprintf(m_data->m_name, sizeof(m_data->m_name), "%s", name != nullptr ? name : row->name);
    std::free(name);
    return m_data->m_name;
}

int CSdpInfo::GetSampleRate(char kind) {
    const int index = get_media_index(kind);
    if (index < 0) {
        return -1;
    }
    const int rate = m_data->m_sdp->get_sample_rate(index);
    const static_payload_t* row = rate < 0 ? FindStaticPayload(GetPayloadType(kind)) : nullptr;
    return row != nullptr ? row->clock_rate : rate;
}

int CSdpInfo::GetFrameRate() {
    if (m_data == nullptr || m_data->m_sdp == nullptr) {
        return -1;
    }
    int payload_type = -1;
    return m_data->m_sdp->get_frame_rate(&payload_type);
}

int CSdpInfo::GetDuration(float& seconds) {
    if (m_data == nullptr || m_data->m_sdp == nullptr) {
        return -1;
    }
    seconds = static_cast<float>(static_cast<double>(m_data->m_sdp->get_duration()) / 1000000);
    return 0;
}

int CSdpInfo::GetAudioChannel() {
    const int index = get_media_index('A');
    if (index < 0) {
        logError("%s %d SDP don't contain Audio Info!\n", __FILE__, __LINE__);
        return -1;
    }
    return m_data->m_sdp->get_channel_count(index);
}

int CSdpInfo::GetPacketType() {
    return m_data != nullptr && m_data->m_sdp != nullptr ? static_cast<int>(m_data->m_packet_type) : -1;
}

const char* CSdpInfoAccess::MediaAttribute(CSdpInfo& info, char kind, const char* name) {
    const int index = info.get_media_index(kind);
    if (index < 0) {
        return nullptr;
    }
    const CSdpParser& sdp = *info.m_data->m_sdp;
    return sdp.get_media_attribute(sdp.get_track_id(index), name);
}

namespace {

// The first track of a kind is the one that is shown.
bool take_first(int& channel, const sdp_info_track& track) {
    const bool first = channel < 0;
    channel = first ? track.rtp_channel : channel;
    return first;
}

void take_track(sdp_info_data& data, const CSdpParser& sdp, const sdp_info_track& track) {
    switch (sdp.get_media_type(track.track_id)) {
        case SDP_MEDIA_AUDIO:
            if (take_first(data.m_audio_channel, track)) {
                data.m_audio_index = sdp.get_index(track.track_id);
            }
            break;
        case SDP_MEDIA_APPLICATION:
            take_first(data.m_app_channel, track);
            break;
        case SDP_MEDIA_VIDEO:
            if (take_first(data.m_video_channel, track)) {
                data.m_video_index = sdp.get_index(track.track_id);
            }
            break;
        default:
            break;
    }
}

}  // namespace

int CSdpInfoAccess::Fill(CSdpInfo& info, CSdpParser* sdp, const sdp_info_track* tracks, int count, packet_type_t type) {
    sdp_info_data* data = info.m_data;
    if (data == nullptr || sdp == nullptr || tracks == nullptr) {
        return -1;
    }
    for (int i = 0; i < count && i < SDP_INFO_MAX_TRACKS; ++i) {
        const sdp_info_track& track = tracks[i];
        if (track.back_channel) {
            continue;
        }
        take_track(*data, *sdp, track);
    }
    data->m_sdp = sdp;
    data->m_packet_type = type;
    return 0;
}

}  // namespace Vidora
}  // namespace Kavio
