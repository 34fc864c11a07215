#include "FrameCursor.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "Vidora/KXFrame.h"
#include "Vidora/Ostra/ByteReader.h"

using Kavio::Ostra::CByteReader;
using namespace Kavio::Vidora;

namespace {

const char MAGIC[] = "KXAV";
const size_t MAGIC_SIZE = 4;
const size_t MAX_HEAD_SIZE = KX_HEADER_LEN + UINT8_MAX;  // the length of the blocks is one byte

// Pictures that travel as JPEG are key frames to the server; their own letter is that of side data.
int letter_of(uint8_t frame_type) {
    return frame_type == KX_TYPE_JPEG ? 'I' : kx_letter_of_type(frame_type);
}

void read_block(uint8_t type, CByteReader block, FrameEntry& entry) {
    switch (type) {
        case KX_EXT_VIDEO:
            block.Skip(1);
            entry.encode_code = block.ReadU8();
            entry.frame_rate = block.ReadU8();
            break;
        case KX_EXT_SIZE_8:
            block.Skip(1);
            entry.width = block.ReadU8() * 8;
            entry.height = block.ReadU8() * 8;
            break;
        case KX_EXT_SIZE_16:
            block.Skip(3);
            entry.width = block.ReadU16Le();
            entry.height = block.ReadU16Le();
            break;
        case KX_EXT_AUDIO:
            block.Skip(1);
            entry.encode_code = block.ReadU8();
            entry.sample_rate = kx_sample_rate(block.ReadU8());
            break;
        default:
            break;
    }
}

void read_blocks(CByteReader blocks, FrameEntry& entry) {
    while (blocks.Ok() && blocks.Remaining() > 0) {
        const uint8_t type = blocks.ReadU8();
        size_t length = type == KX_EXT_SIZE_16 || type == KX_EXT_CHECKSUM ? 8 : 4;
        if (type == KX_EXT_VARIABLE) {
            length = static_cast<size_t>(blocks.PeekU8(1)) << 8 | blocks.PeekU8(2);
        }
        if (length < 1) {
            return;
        }
        read_block(type, blocks.SubReader(length - 1), entry);
    }
}

// Milliseconds between two frames. The stamps are the low 16 bits; how often they wrapped between the two follows from
// the wall times, which are whole seconds. Audio may stand a little behind its video: then the step is below 0.
int64_t step_ms(uint16_t stamp, uint16_t last_stamp, uint32_t utc, uint32_t last_utc) {
    const int64_t low = static_cast<uint16_t>(stamp - last_stamp);
    const int64_t wall = (static_cast<int64_t>(utc) - static_cast<int64_t>(last_utc)) * 1000;
    const double wraps = static_cast<double>(wall - low) / 65536.0;
    return low + static_cast<int64_t>(std::llround(wraps)) * 65536;
}

}  // namespace

// The bytes at m_offset that the window holds, at least `wanted` of them unless the file ends before.
size_t FrameCursor::fill(size_t wanted) {
    const bool is_inside = m_offset >= m_window_offset && m_offset - m_window_offset <= m_window.size();
    if (!is_inside || m_window.size() - (m_offset - m_window_offset) < wanted) {
        m_window.resize(WINDOW_SIZE);
        m_window_offset = m_offset;
        m_window.resize(m_bytes.ReadAt(m_offset, m_window.data(), WINDOW_SIZE));
    }
    return m_window.size() - static_cast<size_t>(m_offset - m_window_offset);
}

// The header and blocks of a whole frame at m_offset.
bool FrameCursor::read_frame(FrameEntry& entry) {
    const size_t available = fill(MAX_HEAD_SIZE);
    const unsigned char* head = m_window.data() + (m_offset - m_window_offset);
    KXHeader header;
    if (!kx_read_header(head, available, header)) {
        return false;
    }
    const uint32_t least = KX_HEADER_LEN + header.ext_length + KX_TRAILER_LEN;
    if (header.total_length < least || header.total_length > MAX_FRAME_SIZE) {
        return false;
    }
    if (header.total_length > m_bytes.Size() - m_offset) {
        m_cut_offset = std::min(m_cut_offset, m_offset);
        return false;
    }
    entry.place.offset = m_offset;
    entry.place.time_stamp = header.time_stamp;
    entry.place.utc_sec = static_cast<uint32_t>(kx_unpack_date_time(header.date_time));
    entry.size = header.total_length;
    entry.body_offset = m_offset + KX_HEADER_LEN + header.ext_length;
    entry.body_size = header.total_length - least;
    entry.letter = letter_of(header.frame_type);
    CByteReader reader(head, available);
    reader.Skip(KX_HEADER_LEN);
    read_blocks(reader.SubReader(header.ext_length), entry);
    return true;
}

FrameCursor::step_t FrameCursor::skip_damage() {
    const size_t available = fill(WINDOW_SIZE);
    if (available <= MAGIC_SIZE) {
        return STEP_END;  // what is left may become a frame when the file grows
    }
    const unsigned char* from = m_window.data() + (m_offset - m_window_offset) + 1;
    const void* magic = memmem(from, available - 1, MAGIC, MAGIC_SIZE);
    const size_t skipped = magic != nullptr ? static_cast<size_t>(static_cast<const unsigned char*>(magic) - from)
                                            : available - MAGIC_SIZE;  // its first bytes may stand at the window's end
    m_offset += 1 + skipped;
    return STEP_DAMAGE;
}

void FrameCursor::set_time(FramePlace& place) {
    if (m_has_last) {
        place.time_ms = std::max<int64_t>(
            0, m_last.time_ms + step_ms(place.time_stamp, m_last.time_stamp, place.utc_sec, m_last.utc_sec));
    }
    m_last = place;
    m_has_last = true;
}

FrameCursor::step_t FrameCursor::Next(FrameEntry& entry) {
    if (m_offset >= m_bytes.Size()) {
        return STEP_END;
    }
    entry = FrameEntry();
    if (!read_frame(entry)) {
        return skip_damage();
    }
    set_time(entry.place);
    m_offset += entry.size;
    m_cut_offset = NO_OFFSET;
    return STEP_FRAME;
}

void FrameCursor::Seek(const FramePlace& place) {
    SkipTo(place.offset);
    m_last = place;
    m_has_last = true;
}

void FrameCursor::SkipTo(uint64_t offset) {
    m_offset = offset;
    m_cut_offset = NO_OFFSET;
}
