#ifndef VIDORA_KXFRAME_H
#define VIDORA_KXFRAME_H

#include <cstddef>
#include <cstdint>

#include "Vidora/Export.h"

namespace Kavio {
namespace Vidora {

// The private frame, little-endian unless said:
//
//      0  magic "KXAV"            4  frame_type   5  sub_type   6  channel   7  0
//      8  sequence (4)           12  total_length (4)          16  date_time (4)
//     20  time_stamp (2)         22  ext_length               23  checksum of the bytes 0 to 22
//     24  extension blocks, ext_length bytes
//         payload
//         "kxav", total_length (4)
//
// Extension blocks begin with their type byte:
//     0x80  4 bytes  image_type, width / 8, height / 8
//     0x81  4 bytes  image_type, video encode code, frames a second
//     0x82  8 bytes  image_type, 0, 0, width (2), height (2)
//     0x83  4 bytes  audio channels, audio encode code, sample rate code
//     0x84           0, length of the block (2, high byte first), ...
//     0x88  8 bytes  payload_checksum (4), 0, 0, 0
constexpr int KX_HEADER_LEN = 24;
constexpr int KX_TRAILER_LEN = 8;
constexpr int KX_MAX_EXT_LEN = 20;  // of the frames that are written here

enum kx_frame_type_t {
    KX_TYPE_AUDIO = 0xF0,
    KX_TYPE_ASSIST = 0xF1,
    KX_TYPE_JPEG = 0xFB,
    KX_TYPE_P = 0xFC,
    KX_TYPE_I = 0xFD,
    KX_TYPE_B = 0xFE
};

enum kx_ext_t {
    KX_EXT_SIZE_8 = 0x80,
    KX_EXT_VIDEO = 0x81,
    KX_EXT_SIZE_16 = 0x82,
    KX_EXT_AUDIO = 0x83,
    KX_EXT_VARIABLE = 0x84,
    KX_EXT_CHECKSUM = 0x88
};

// Encode codes: video in the block 0x81, audio in the block 0x83.
enum kx_encode_t {
    KX_VIDEO_MPEG4 = 1,
    KX_VIDEO_H264 = 2,
    KX_VIDEO_JPEG = 5,
    KX_VIDEO_MPEG2 = 9,  // also a transport stream whose contents aren't known yet
    KX_AUDIO_G711 = 7,
    KX_AUDIO_G729 = 8,
    KX_AUDIO_ADPCM = 9,
    KX_AUDIO_PCMU = 10,
    KX_AUDIO_G721 = 11,
    KX_AUDIO_PCM8_VWIS = 12,
    KX_AUDIO_MS_ADPCM = 13,
    KX_AUDIO_PCMA = 14,
    KX_AUDIO_PCM16 = 16,
    KX_AUDIO_G723_1 = 25,
    KX_AUDIO_AAC = 26,
    KX_AUDIO_G726_40 = 27,
    KX_AUDIO_G726_32 = 28,
    KX_AUDIO_G726_24 = 29,
    KX_AUDIO_G726_16 = 30,
    KX_AUDIO_MPA = 31
};

// The fields of a header in its own units.
struct KXHeader {
    uint8_t frame_type = 0;
    uint8_t sub_type = 0;
    uint8_t channel = 0;
    uint32_t sequence = 0;
    uint32_t total_length = 0;
    uint32_t date_time = 0;
    uint16_t time_stamp = 0;
    uint8_t ext_length = 0;
    uint8_t checksum = 0;
};

// CKXFrame: writes private frames and keeps the fields of the one in work.
//
// Use: set the fields, GetFrameSize, put the payload into a buffer of that size at the offset given, WriteFrame. One
// thread at a time; allocates nothing.
class VIDORA_API CKXFrame {
public:
    CKXFrame();

    void SetChannel(uint8_t channel);
    uint8_t GetChannel() const;
    // A frame type letter; one without a type byte becomes the byte 0.
    void SetFrameType(int letter);
    // The letter of the type byte; 0 for a byte without one, 0xFB (JPEG) among them, which is one-way by design.
    void GetFrameType(int& letter) const;
    void SetSequence(uint32_t sequence);
    uint32_t GetSequence() const;
    void SetTimeStamp(uint16_t time_stamp);
    uint16_t GetTimeStamp() const;
    // Seconds since the epoch, UTC. Years from 2000 to 2063; others are taken modulo 64.
    void SetDateTime(uint64_t seconds);
    void GetDateTime(uint64_t& seconds) const;
    void SetImageSize(uint16_t width, uint16_t height);
    void GetImageSize(uint16_t& width, uint16_t& height) const;
    void SetFrameRate(uint8_t rate);
    uint8_t GetFrameRate() const;
    // The encode code of the audio block for an audio frame, otherwise of the video block: set the frame type first.
    void SetEncodeType(uint8_t code);
    uint8_t GetEncodeType() const;
    void SetSubType(uint8_t sub_type);
    // Of the size block and the video block of key frames; carried without a meaning of its own.
    void SetImageType(uint8_t image_type);
    void SetAudioInfo(uint8_t channels, uint8_t sample_rate_code);
    void GetAudioInfo(uint8_t& channels, uint8_t& sample_rate_code) const;

    // Settles the lengths for a payload of `payload_len` bytes. The length of the whole frame, and where its payload
    // begins; 0 if the length doesn't fit into the header.
    uint32_t GetFrameSize(uint32_t payload_len, uint32_t& payload_offset);
    // Writes header, blocks and trailer around the payload that is in `buffer` already. `frame_len` is what
    // GetFrameSize gave; 0, or -1 for null or another length, with nothing written.
    int WriteFrame(unsigned char* buffer, uint32_t frame_len);

private:
    bool has_size() const;
    bool needs_wide_size() const;
    uint32_t ext_length() const;

    unsigned char m_header[KX_HEADER_LEN];
    unsigned char m_ext81[4];
    unsigned char m_ext82[8];
    unsigned char m_ext83[4];
    unsigned char m_ext88[8];
    unsigned char m_trailer[KX_TRAILER_LEN];
    uint32_t m_payload_len = 0;
};

// Finds the payload of a frame. A buffer that begins with the magic: the payload's offset, and in `remaining` its
// length, not below 0; 0 for an offset above `len`. Any other buffer is bare: 0, and `remaining` is `len`.
VIDORA_API int get_frame_body(const unsigned char* buffer, int len, int& remaining);

// Walks the extension blocks of a frame to the audio block and returns byte 26 of the buffer; -1 with a log line on
// failure. It refuses a buffer that does begin with the magic, and takes frame type 0xF0 only: so it has always been,
// and outside users of the format rely on it.
VIDORA_API int parser_video_info(const unsigned char* buffer, int len);

// The assist type (byte 5) of an assist frame; -1 with a log line if `buffer` holds none.
VIDORA_API int get_assist_type(const unsigned char* buffer, int len);

// Does `buffer` begin with the magic?
VIDORA_API bool kx_has_magic(const unsigned char* buffer, size_t len);
// Reads a header. False, with `header` unchanged, if the bytes are too few or the magic is missing.
VIDORA_API bool kx_read_header(const unsigned char* buffer, size_t len, KXHeader& header);
// Sets the time stamp of a frame in place, and its header checksum anew. False if it has no whole header.
VIDORA_API bool kx_patch_time_stamp(unsigned char* buffer, size_t len, uint16_t time_stamp);
// 8-bit sum of the first 23 of the header's 24 bytes.
VIDORA_API uint8_t kx_header_checksum(const unsigned char* header);
// 32-bit sum of the payload as little-endian words, the last one filled up with zeros.
VIDORA_API uint32_t kx_payload_checksum(const unsigned char* payload, size_t len);

// Type byte of a letter, 0 if it has none; and back, where 0xFB has none.
VIDORA_API uint8_t kx_type_of_letter(int letter);
VIDORA_API int kx_letter_of_type(uint8_t frame_type);

// The date_time word: year - 2000 (6 bits), month (4), day (5), hour (5), minute (6), second (6); UTC.
VIDORA_API uint32_t kx_pack_date_time(uint64_t seconds);
VIDORA_API uint64_t kx_unpack_date_time(uint32_t date_time);

// Audio encode code of an RTP payload name, in any case; KX_AUDIO_PCMU for a name that isn't known, or null.
VIDORA_API uint8_t kx_audio_code(const char* name);

// Sample rates by code: index 0 holds 0, then codes 1 to 9.
constexpr int KX_SAMPLE_RATE_COUNT = 10;
VIDORA_API extern const int KX_SAMPLE_RATES[KX_SAMPLE_RATE_COUNT];
// The code of a rate in hertz, 0 if it has none; and back, 0 for a code that isn't in the table.
VIDORA_API uint8_t kx_sample_rate_code(int hertz);
VIDORA_API int kx_sample_rate(int code);

// enc_type_t of a video encode code, and back; 0 without one.
VIDORA_API int kx_video_enc_type(int code);
VIDORA_API uint8_t kx_video_code(int enc_type);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_KXFRAME_H
