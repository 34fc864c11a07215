#ifndef VIDORA_STREAMPARSER_TSTABLE_H
#define VIDORA_STREAMPARSER_TSTABLE_H

#include <cstdint>

namespace Kavio {
namespace Vidora {

constexpr int TS_PACK_LEN = 188;
constexpr uint8_t TS_SYNC_BYTE = 0x47;
// In the two bytes behind it, in the third one, and in the first byte of an adaptation field (ISO 13818-1 2.4.3.2).
constexpr uint16_t TS_UNIT_START = 0x4000;
constexpr uint16_t TS_PID_MASK = 0x1FFF;
constexpr uint8_t TS_HAS_ADAPTATION = 0x20;
constexpr uint8_t TS_HAS_PAYLOAD = 0x10;
constexpr uint8_t TS_CONTINUITY_MASK = 0x0F;
constexpr uint8_t TS_HAS_PCR = 0x10;
// In the sections of tables.
constexpr uint16_t TS_SECTION_LEN_MASK = 0x0FFF;
// The most bytes that a multiplexer makes of a frame.
constexpr uint32_t STREAM_BUFFER_LEN = 0x80000;
constexpr int TS_MAX_TRACKS = 2;

// What a track holds, inside the multiplexers and the demultiplexer. Kinds from 5 on count as audio.
enum stream_kind_t {
    STREAM_KIND_NONE = 0,
    STREAM_KIND_MPEG4 = 1,
    STREAM_KIND_H264 = 2,
    STREAM_KIND_MPEG2 = 3,
    STREAM_KIND_MPEG_AUDIO = 4,
    STREAM_KIND_AUDIO = 5,
    STREAM_KIND_MP3 = 6
};

// stream_type of ISO 13818-1 table 2-34 for a kind: 0 for those that aren't written (MPEG-2 video, MPEG audio, other
// audio), which leaves a receiver to look into the stream itself.
uint8_t stream_type_of_kind(int kind);
// The kind of a received stream_type; STREAM_KIND_AUDIO for all that aren't known.
int stream_kind_of_type(uint8_t stream_type);

// Of an enc_type_t: its kind in a multiplexer.
int stream_kind_of_enc_type(int enc_type);

// The encode code of the private frame header for a kind of video; -1 for a kind without one.
int kx_code_of_kind(int kind);

inline bool is_video_kind(int kind) {
    return kind < STREAM_KIND_AUDIO;
}

struct TsTrack {
    int32_t kind = STREAM_KIND_NONE;
    int32_t pid = 0;
    int32_t continuity = 0;  // counter of the packets written
};

// The program of a transport stream: as the multiplexer writes it, or as the demultiplexer read it.
struct TsProgramTable {
    int32_t program_count = 0;
    int32_t track_count = 0;
    int32_t pcr_track = -1;  // the track whose PID carries the clock; -1 until the first frame
    int32_t pmt_pid = -1;    // -1 until a PAT was read
    int32_t pcr_pid = -1;    // as read: the PID of the clock, which need not be a track's
    TsTrack tracks[TS_MAX_TRACKS];
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_TSTABLE_H
