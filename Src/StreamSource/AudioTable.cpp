#include "StreamSource/AudioTable.h"

namespace Kavio {
namespace Vidora {

namespace {

constexpr AudioPayload AUDIO_TABLE[] = {
    {7, 8000, 8, "PCMA"},  {8, 8000, 18, "G729"},    {9, 8000, 5, "DVI4"},       {9, 16000, 6, "DVI4"},
    {10, 8000, 0, "PCMU"}, {11, 8000, 2, "G721"},    {12, 8000, 0, "PCM8_VWIS"}, {13, 8000, 5, "MS_ADPCM"},
    {14, 8000, 8, "PCMA"}, {15, 8000, 97, "AMR-NB"}, {16, 8000, 0, "L16"},       {25, 8000, 97, "G723.1"},
    {26, 8000, 97, "AAC"}, {31, 16000, 14, "MPA"},
};

}  // namespace

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
