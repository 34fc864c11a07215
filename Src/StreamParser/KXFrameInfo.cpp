// The tables of the private frame, and the functions that look into one for others.
#include <strings.h>

#include "StreamParser/KXLayout.h"
#include "Vidora/KXFrame.h"
#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteReader.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

namespace {

struct TypeRow {
    char letter;
    uint8_t type;
    bool reads_back;
};

// A JPEG picture's type isn't told to readers: they take its letter from elsewhere. Frames in the field rely on it.
constexpr TypeRow TYPES[] = {
    {FRAME_TYPE_I, KX_TYPE_I, true}, {FRAME_TYPE_JPEG, KX_TYPE_JPEG, false},  {FRAME_TYPE_P, KX_TYPE_P, true},
    {FRAME_TYPE_B, KX_TYPE_B, true}, {FRAME_TYPE_AUDIO, KX_TYPE_AUDIO, true}, {FRAME_TYPE_ASSIST, KX_TYPE_ASSIST, true},
};

struct NameRow {
    const char* name;
    uint8_t code;
};

constexpr NameRow AUDIO_NAMES[] = {
    {"G711", KX_AUDIO_G711},         {"G729", KX_AUDIO_G729},
    {"ADPCM", KX_AUDIO_ADPCM},       {"G.711U", KX_AUDIO_PCMU},
    {"G.711Mu", KX_AUDIO_PCMU},      {"PCMU", KX_AUDIO_PCMU},
    {"G721", KX_AUDIO_G721},         {"PCM8_VWIS", KX_AUDIO_PCM8_VWIS},
    {"MS_ADPCM", KX_AUDIO_MS_ADPCM}, {"G.711A", KX_AUDIO_PCMA},
    {"PCMA", KX_AUDIO_PCMA},         {"PCM16", KX_AUDIO_PCM16},
    {"PCM", KX_AUDIO_PCM16},         {"G723.1", KX_AUDIO_G723_1},
    {"AAC", KX_AUDIO_AAC},           {"G726-40", KX_AUDIO_G726_40},
    {"G726-32", KX_AUDIO_G726_32},   {"G726-24", KX_AUDIO_G726_24},
    {"G726-16", KX_AUDIO_G726_16},   {"MPA", KX_AUDIO_MPA},
};

struct VideoRow {
    uint8_t code;
    int enc_type;
};

constexpr VideoRow VIDEO_CODES[] = {
    {KX_VIDEO_MPEG4, ENC_TYPE_MPEG4}, {KX_VIDEO_H264, ENC_TYPE_H264}, {KX_VIDEO_JPEG, ENC_TYPE_JPEG}};

constexpr int AT_AUDIO_CODE = KX_HEADER_LEN + 2;  // where the audio block comes first

// The bytes that the walk steps over for the block at `offset` behind the header, whose first four bytes are there if
// it is a variable one; 0 for a type that it doesn't know, and for a variable block that claims to be empty, which
// would hold the walk up for ever.
int block_length(const unsigned char* buffer, int len, int offset) {
    CByteReader reader(buffer, static_cast<size_t>(len));
    reader.Seek(static_cast<size_t>(KX_HEADER_LEN + offset));
    switch (reader.ReadU8()) {
        case KX_EXT_SIZE_8:
        case KX_EXT_VIDEO:
            return 4;
        case KX_EXT_SIZE_16:
        case KX_EXT_CHECKSUM:
            return 8;
        case KX_EXT_VARIABLE:
            reader.Skip(1);
            return reader.ReadU16();
        default:
            return 0;
    }
}

// Walks the blocks to the audio block. All of them lie in the buffer: its length was held against ext_length.
int walk_to_audio(const unsigned char* buffer, int len) {
    const int ext_length = buffer[KX_AT_EXT_LENGTH];
    int offset = 0;
    while (offset < ext_length) {
        const uint8_t type = buffer[KX_HEADER_LEN + offset];
        if ((type == KX_EXT_VARIABLE || type == KX_EXT_AUDIO) && offset + KX_HEADER_LEN + 4 > len) {
            logError("%s:%d parser_video_info error len:%d\n", __FILE__, __LINE__, len);
            return -1;
        }
        if (type == KX_EXT_AUDIO) {
            return buffer[AT_AUDIO_CODE];
        }
        const int length = block_length(buffer, len, offset);
        if (length == 0) {
            logError("%s:%d parser_video_info error ext_type:0x%x\n", __FILE__, __LINE__, type);
            return -1;
        }
        offset += length;
    }
    return -1;
}

// A character of a buffer that may be shorter.
char char_at(const unsigned char* buffer, int len, int index) {
    return index < len ? static_cast<char>(buffer[index]) : ' ';
}

}  // namespace

const int KX_SAMPLE_RATES[KX_SAMPLE_RATE_COUNT] = {0, 4000, 8000, 11025, 16000, 20000, 22050, 32000, 44100, 48000};

uint8_t kx_type_of_letter(int letter) {
    for (const TypeRow& row : TYPES) {
        if (row.letter == letter) {
            return row.type;
        }
    }
    return 0;
}

int kx_letter_of_type(uint8_t frame_type) {
    for (const TypeRow& row : TYPES) {
        if (row.type == frame_type && row.reads_back) {
            return row.letter;
        }
    }
    return 0;
}

uint32_t kx_pack_date_time(uint64_t seconds) {
    int year = 0;
    int month = 0;
    int day = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
    CTime(seconds).getFields(&year, &month, &day, &hour, &minute, &second);
    const auto field = [](int value, int bits, int shift) {
        return (static_cast<uint32_t>(value) & ((1U << bits) - 1)) << shift;
    };
    return field(year - 2000, 6, 26) | field(month, 4, 22) | field(day, 5, 17) | field(hour, 5, 12) |
           field(minute, 6, 6) | field(second, 6, 0);
}

uint64_t kx_unpack_date_time(uint32_t date_time) {
    const auto field = [date_time](int bits, int shift) {
        return static_cast<int>((date_time >> shift) & ((1U << bits) - 1));
    };
    return CTime(field(6, 26) + 2000, field(4, 22), field(5, 17), field(5, 12), field(6, 6), field(6, 0)).makeTime();
}

uint8_t kx_audio_code(const char* name) {
    for (const NameRow& row : AUDIO_NAMES) {
        if (name != nullptr && strcasecmp(row.name, name) == 0) {
            return row.code;
        }
    }
    return KX_AUDIO_PCMU;
}

uint8_t kx_sample_rate_code(int hertz) {
    for (int code = 1; code < KX_SAMPLE_RATE_COUNT; ++code) {
        if (KX_SAMPLE_RATES[code] == hertz) {
            return static_cast<uint8_t>(code);
        }
    }
    return 0;
}

int kx_sample_rate(int code) {
    return code > 0 && code < KX_SAMPLE_RATE_COUNT ? KX_SAMPLE_RATES[code] : 0;
}

int kx_video_enc_type(int code) {
    for (const VideoRow& row : VIDEO_CODES) {
        if (row.code == code) {
            return row.enc_type;
        }
    }
    return ENC_TYPE_NONE;
}

uint8_t kx_video_code(int enc_type) {
    for (const VideoRow& row : VIDEO_CODES) {
        if (row.enc_type == enc_type) {
            return row.code;
        }
    }
    return 0;
}

int parser_video_info(const unsigned char* buffer, int len) {
    if (buffer == nullptr || len < KX_HEADER_LEN || len < buffer[KX_AT_EXT_LENGTH] + KX_HEADER_LEN) {
        return -1;
    }
    // The other way round than the message says; kept, because it is what outside users of the format have.
    if (kx_has_magic(buffer, static_cast<size_t>(len))) {
        logError("%s:%d parser_video_info not valid kxav tag \n", __FILE__, __LINE__);
        return -1;
    }
    if (buffer[KX_AT_FRAME_TYPE] != KX_TYPE_AUDIO) {
        logError("%s:%d parser_video_info not supported frame type:%d \n", __FILE__, __LINE__,
                 buffer[KX_AT_FRAME_TYPE]);
        return -1;
    }
    return walk_to_audio(buffer, len);
}

int get_assist_type(const unsigned char* buffer, int len) {
    if (buffer == nullptr) {
        logError("%s %d param is error!\n", __FILE__, __LINE__);
        return -1;
    }
    if (len < 0 || !kx_has_magic(buffer, static_cast<size_t>(len))) {
        logError("%s %d this is not KXAV frame! hdr: %c, %c, %c, %c\n", __FILE__, __LINE__, char_at(buffer, len, 0),
                 char_at(buffer, len, 1), char_at(buffer, len, 2), char_at(buffer, len, 3));
        return -1;
    }
    KXHeader header;
    if (!kx_read_header(buffer, static_cast<size_t>(len), header) || header.frame_type != KX_TYPE_ASSIST) {
        logError("%s %d this is not assist frame!\n", __FILE__, __LINE__);
        return -1;
    }
    return header.sub_type;
}

}  // namespace Vidora
}  // namespace Kavio
