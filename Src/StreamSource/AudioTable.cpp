#include "StreamSource/AudioTable.h"

#include "Vidora/Names.h"
#include "Vidora/StreamSource.h"

namespace Kavio {
namespace Vidora {

namespace {

constexpr AudioPayload AUDIO_TABLE[] = {
    {7, 8000, 8, "PCMA"},  {8, 8000, 18, "G729"},    {9, 8000, 5, "DVI4"},       {9, 16000, 6, "DVI4"},
    {10, 8000, 0, "PCMU"}, {11, 8000, 2, "G721"},    {12, 8000, 0, "PCM8_VWIS"}, {13, 8000, 5, "MS_ADPCM"},
    {14, 8000, 8, "PCMA"}, {15, 8000, 97, "AMR-NB"}, {16, 8000, 0, "L16"},       {25, 8000, 97, "G723.1"},
    {26, 8000, 97, "AAC"}, {31, 16000, 14, "MPA"},
};

// By RFC 3551 4.5 and 6. AMR, AAC and the ADPCM of files have payload formats that bare frames don't follow (RFC 4867,
// RFC 3640), and 8-bit linear samples of that kind have none at all.
struct StandardRow {
    int encode_type;
    int sample_rate;  // at which the number is static; 0: it is dynamic
    int payload_type;
    int clock_rate;  // 0: that of the samples
    const char* name;
    int bytes_per_tick;
};

constexpr int DYNAMIC_PAYLOAD = 97;

constexpr StandardRow STANDARD_TABLE[] = {
    {STREAM_AUDIO_PCMA, 8000, 8, 0, "PCMA", 1},
    {STREAM_AUDIO_PCMA_14, 8000, 8, 0, "PCMA", 1},
    {STREAM_AUDIO_PCMU, 8000, 0, 0, "PCMU", 1},
    {STREAM_AUDIO_G729, 8000, 18, 0, "G729", 0},
    {STREAM_AUDIO_DVI4, 8000, 5, 0, "DVI4", 0},
    {STREAM_AUDIO_DVI4, 16000, 6, 0, "DVI4", 0},
    {STREAM_AUDIO_DVI4, 11025, 16, 0, "DVI4", 0},
    {STREAM_AUDIO_DVI4, 22050, 17, 0, "DVI4", 0},
    {STREAM_AUDIO_G721, 0, DYNAMIC_PAYLOAD, 0, "G726-32", 0},  // the same coding under its later name
    {STREAM_AUDIO_G7231, 8000, 4, 0, "G723", 0},
    {STREAM_AUDIO_L16, 44100, 11, 0, "L16", 2},   // one channel
    {STREAM_AUDIO_MPEG, 0, 14, 90000, "MPA", 0},  // static at every rate: RFC 3551 4.5.13
};

// The row of the codec, that of its rate if there is one; null for none.
const StandardRow* find_standard(int encode_type, int sample_rate) {
    const StandardRow* found = nullptr;
    for (const StandardRow& row : STANDARD_TABLE) {
        if (row.encode_type == encode_type && (found == nullptr || row.sample_rate == sample_rate)) {
            found = &row;
        }
    }
    return found;
}

bool map_standard(int encode_type, int sample_rate, AudioMap& map) {
    const StandardRow* row = find_standard(encode_type, sample_rate);
    if (row == nullptr) {
        logError("%s:%d audio codec %d has no RTP payload that players know\n", __FILE__, __LINE__, encode_type);
        return false;
    }
    const bool is_static = row->sample_rate == 0 || row->sample_rate == sample_rate;
    map = {is_static ? row->payload_type : DYNAMIC_PAYLOAD, row->clock_rate != 0 ? row->clock_rate : sample_rate,
           row->name, row->bytes_per_tick};
    return true;
}

}  // namespace

bool MapAudio(int encode_type, int sample_rate, bool standard, AudioMap& map) {
    if (standard && sample_rate > 0) {
        return map_standard(encode_type, sample_rate, map);
    }
    const AudioPayload* row = FindAudioPayload(encode_type, sample_rate);
    if (row == nullptr || sample_rate <= 0) {
        logError("%s:%d get_audio_playload faile\n", __FILE__, __LINE__);
        return false;
    }
    map = {row->payload_type, sample_rate, row->name, 0};
    return true;
}

const AudioPayload* FindAudioPayload(int encode_type, int sample_rate) {
    const AudioPayload* first = nullptr;
    for (const AudioPayload& row : AUDIO_TABLE) {
        if (row.encode_type != encode_type) {
            continue;
        }
        if (row.sample_rate == sample_rate) {
            return &row;
        }
        if (first == nullptr) {
            first = &row;
        }
    }
    return first;
}

}  // namespace Vidora
}  // namespace Kavio
