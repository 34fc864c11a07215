#include "Vidora/KXFrame.h"

#include <cstring>

#include "StreamParser/KXLayout.h"
#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteReader.h"
#include "Vidora/Ostra/ByteWriter.h"

namespace Kavio {
namespace Vidora {

namespace {

// 32-bit words that the processor adds at once; they are little-endian in memory.
typedef uint32_t WordBlock __attribute__((vector_size(16)));
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the words are read in place");

constexpr size_t CHAINS = 4;  // of additions that don't wait for one another
constexpr size_t STEP = CHAINS * sizeof(WordBlock);

WordBlock load_words(const unsigned char* at) {
    WordBlock words;
    std::memcpy(&words, at, sizeof(words));
    return words;
}

// The sum of the words of `steps` steps. All stays in registers.
uint32_t sum_steps(const unsigned char* at, size_t steps) {
    WordBlock a = {};
    WordBlock b = {};
    WordBlock c = {};
    WordBlock d = {};
    for (; steps > 0; --steps, at += STEP) {
        a += load_words(at);
        b += load_words(at + sizeof(WordBlock));
        c += load_words(at + 2 * sizeof(WordBlock));
        d += load_words(at + 3 * sizeof(WordBlock));
    }
    const WordBlock all = (a + b) + (c + d);
    return all[0] + all[1] + all[2] + all[3];
}

constexpr char MAGIC[] = {'K', 'X', 'A', 'V'};
constexpr char TRAILER_MAGIC[] = {'k', 'x', 'a', 'v'};
constexpr size_t MAGIC_LEN = sizeof(MAGIC);

// From this width or height on, or if one of them isn't a multiple of 8, a size doesn't fit into the block 0x80.
constexpr unsigned WIDE_SIZE = 2048;

void put16(unsigned char* place, uint16_t value) {
    CByteWriter(place, 2).WriteU16Le(value);
}
void put32(unsigned char* place, uint32_t value) {
    CByteWriter(place, 4).WriteU32Le(value);
}
uint16_t get16(const unsigned char* place) {
    return CByteReader(place, 2).ReadU16Le();
}
uint32_t get32(const unsigned char* place) {
    return CByteReader(place, 4).ReadU32Le();
}

}  // namespace

CKXFrame::CKXFrame() : m_header(), m_ext81(), m_ext82(), m_ext83(), m_ext88(), m_trailer() {
    std::memcpy(m_header, MAGIC, MAGIC_LEN);
    std::memcpy(m_trailer, TRAILER_MAGIC, MAGIC_LEN);
    m_ext81[0] = KX_EXT_VIDEO;
    m_ext82[0] = KX_EXT_SIZE_16;
    m_ext83[0] = KX_EXT_AUDIO;
    m_ext88[0] = KX_EXT_CHECKSUM;
}

void CKXFrame::SetChannel(uint8_t channel) {
    m_header[KX_AT_CHANNEL] = channel;
}
uint8_t CKXFrame::GetChannel() const {
    return m_header[KX_AT_CHANNEL];
}
void CKXFrame::SetFrameType(int letter) {
    m_header[KX_AT_FRAME_TYPE] = kx_type_of_letter(letter);
}
void CKXFrame::GetFrameType(int& letter) const {
    letter = kx_letter_of_type(m_header[KX_AT_FRAME_TYPE]);
}
void CKXFrame::SetSequence(uint32_t sequence) {
    put32(m_header + KX_AT_SEQUENCE, sequence);
}
uint32_t CKXFrame::GetSequence() const {
    return get32(m_header + KX_AT_SEQUENCE);
}
void CKXFrame::SetTimeStamp(uint16_t time_stamp) {
    put16(m_header + KX_AT_TIME_STAMP, time_stamp);
}
uint16_t CKXFrame::GetTimeStamp() const {
    return get16(m_header + KX_AT_TIME_STAMP);
}
void CKXFrame::SetDateTime(uint64_t seconds) {
    put32(m_header + KX_AT_DATE_TIME, kx_pack_date_time(seconds));
}
void CKXFrame::GetDateTime(uint64_t& seconds) const {
    seconds = kx_unpack_date_time(get32(m_header + KX_AT_DATE_TIME));
}

void CKXFrame::SetImageSize(uint16_t width, uint16_t height) {
    put16(m_ext82 + 4, width);
    put16(m_ext82 + 6, height);
}

void CKXFrame::GetImageSize(uint16_t& width, uint16_t& height) const {
    width = get16(m_ext82 + 4);
    height = get16(m_ext82 + 6);
}

void CKXFrame::SetFrameRate(uint8_t rate) {
    m_ext81[3] = rate;
}
uint8_t CKXFrame::GetFrameRate() const {
    return m_ext81[3];
}

void CKXFrame::SetEncodeType(uint8_t code) {
    (m_header[KX_AT_FRAME_TYPE] == KX_TYPE_AUDIO ? m_ext83 : m_ext81)[2] = code;
}

uint8_t CKXFrame::GetEncodeType() const {
    return (m_header[KX_AT_FRAME_TYPE] == KX_TYPE_AUDIO ? m_ext83 : m_ext81)[2];
}

void CKXFrame::SetSubType(uint8_t sub_type) {
    m_header[KX_AT_SUB_TYPE] = sub_type;
}
void CKXFrame::SetImageType(uint8_t image_type) {
    m_ext82[1] = image_type;
}

void CKXFrame::SetAudioInfo(uint8_t channels, uint8_t sample_rate_code) {
    m_ext83[1] = channels;
    m_ext83[3] = sample_rate_code;
}

void CKXFrame::GetAudioInfo(uint8_t& channels, uint8_t& sample_rate_code) const {
    channels = m_ext83[1];
    sample_rate_code = m_ext83[3];
}

bool CKXFrame::has_size() const {
    return m_header[KX_AT_FRAME_TYPE] == KX_TYPE_I || m_header[KX_AT_FRAME_TYPE] == KX_TYPE_JPEG;
}

bool CKXFrame::needs_wide_size() const {
    uint16_t width = 0;
    uint16_t height = 0;
    GetImageSize(width, height);
    return width >= WIDE_SIZE || height >= WIDE_SIZE || width % 8 != 0 || height % 8 != 0;
}

uint32_t CKXFrame::ext_length() const {
    uint32_t length = 8;  // the checksum's block, which all frames have
    if (m_header[KX_AT_FRAME_TYPE] == KX_TYPE_AUDIO) {
        length += 4;
    } else if (has_size()) {
        length += needs_wide_size() ? 4 + 8 : 4 + 4;
    }
    return length;
}

uint32_t CKXFrame::GetFrameSize(uint32_t payload_len, uint32_t& payload_offset) {
    const uint32_t extension = ext_length();
    payload_offset = KX_HEADER_LEN + extension;
    if (payload_len > UINT32_MAX - payload_offset - KX_TRAILER_LEN) {
        return 0;
    }
    const uint32_t total = payload_offset + payload_len + KX_TRAILER_LEN;
    m_payload_len = payload_len;
    m_header[KX_AT_EXT_LENGTH] = static_cast<unsigned char>(extension);
    put32(m_header + KX_AT_TOTAL_LENGTH, total);
    return total;
}

int CKXFrame::WriteFrame(unsigned char* buffer, uint32_t frame_len) {
    const uint32_t total = get32(m_header + KX_AT_TOTAL_LENGTH);
    if (buffer == nullptr || total == 0 || frame_len != total || m_header[KX_AT_EXT_LENGTH] != ext_length()) {
        return -1;
    }
    m_header[KX_AT_CHECKSUM] = kx_header_checksum(m_header);
    CByteWriter writer(buffer, frame_len);
    writer.WriteBytes(m_header, sizeof(m_header));
    if (has_size()) {
        m_ext81[1] = m_ext82[1];  // one image_type for the blocks of a picture
        writer.WriteBytes(m_ext81, sizeof(m_ext81));
        if (needs_wide_size()) {
            writer.WriteBytes(m_ext82, sizeof(m_ext82));
        } else {
            uint16_t width = 0;
            uint16_t height = 0;
            GetImageSize(width, height);
            writer.WriteU8(KX_EXT_SIZE_8);
            writer.WriteU8(m_ext82[1]);
            writer.WriteU8(static_cast<uint8_t>(width >> 3));
            writer.WriteU8(static_cast<uint8_t>(height >> 3));
        }
    } else if (m_header[KX_AT_FRAME_TYPE] == KX_TYPE_AUDIO) {
        writer.WriteBytes(m_ext83, sizeof(m_ext83));
    }
    put32(m_ext88 + 1, kx_payload_checksum(buffer + writer.Offset() + sizeof(m_ext88), m_payload_len));
    std::memset(m_ext88 + 5, 0, 3);
    writer.WriteBytes(m_ext88, sizeof(m_ext88));
    writer.Reserve(m_payload_len);
    put32(m_trailer + MAGIC_LEN, total);
    writer.WriteBytes(m_trailer, sizeof(m_trailer));
    return writer.Ok() ? 0 : -1;
}

bool kx_has_magic(const unsigned char* buffer, size_t len) {
    return buffer != nullptr && len >= MAGIC_LEN && std::memcmp(buffer, MAGIC, MAGIC_LEN) == 0;
}

bool kx_read_header(const unsigned char* buffer, size_t len, KXHeader& header) {
    if (len < KX_HEADER_LEN || !kx_has_magic(buffer, len)) {
        return false;
    }
    CByteReader reader(buffer, KX_HEADER_LEN);
    reader.Skip(MAGIC_LEN);
    header.frame_type = reader.ReadU8();
    header.sub_type = reader.ReadU8();
    header.channel = reader.ReadU8();
    reader.Skip(1);
    header.sequence = reader.ReadU32Le();
    header.total_length = reader.ReadU32Le();
    header.date_time = reader.ReadU32Le();
    header.time_stamp = reader.ReadU16Le();
    header.ext_length = reader.ReadU8();
    header.checksum = reader.ReadU8();
    return reader.Ok();
}

bool kx_patch_time_stamp(unsigned char* buffer, size_t len, uint16_t time_stamp) {
    if (len < KX_HEADER_LEN || !kx_has_magic(buffer, len)) {
        return false;
    }
    put16(buffer + KX_AT_TIME_STAMP, time_stamp);
    buffer[KX_AT_CHECKSUM] = kx_header_checksum(buffer);
    return true;
}

uint8_t kx_header_checksum(const unsigned char* header) {
    unsigned sum = 0;
    for (int i = 0; i < KX_AT_CHECKSUM; ++i) {
        sum += header[i];
    }
    return static_cast<uint8_t>(sum);
}

uint32_t kx_payload_checksum(const unsigned char* payload, size_t len) {
    CByteReader reader(payload, len);
    const size_t steps = reader.Remaining() / STEP;
    uint32_t sum = sum_steps(reader.ReadBytes(steps * STEP), steps);
    while (reader.Remaining() >= 4) {
        sum += reader.ReadU32Le();
    }
    unsigned char tail[4] = {};
    reader.Read(tail, reader.Remaining());
    return sum + get32(tail);
}

int get_frame_body(const unsigned char* buffer, int len, int& remaining) {
    if (len < 0 || !kx_has_magic(buffer, static_cast<size_t>(len))) {
        remaining = len;
        return 0;
    }
    const int ext_length = len > KX_AT_EXT_LENGTH ? buffer[KX_AT_EXT_LENGTH] : 0;
    const int offset = KX_HEADER_LEN + ext_length;
    remaining = len - offset - KX_TRAILER_LEN;
    if (remaining < 0) {
        remaining = 0;
    }
    return offset > len ? 0 : offset;
}

}  // namespace Vidora
}  // namespace Kavio
