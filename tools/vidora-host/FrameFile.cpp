#include "FrameFile.h"

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "Vidora/KXFrame.h"
#include "Vidora/Ostra/ByteReader.h"

using Kavio::Ostra::CByteReader;
using namespace Kavio::Vidora;

namespace {

const char MAGIC[] = "KXAV";

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

// A whole frame at `offset`: its size, or 0.
size_t read_frame(const unsigned char* data, size_t size, FrameEntry& entry, uint16_t& time_stamp) {
    KXHeader header;
    if (!kx_read_header(data + entry.offset, size - entry.offset, header)) {
        return 0;
    }
    const size_t least = static_cast<size_t>(KX_HEADER_LEN) + header.ext_length + KX_TRAILER_LEN;
    if (header.total_length < least || header.total_length > size - entry.offset) {
        return 0;
    }
    entry.size = header.total_length;
    entry.body_offset = entry.offset + KX_HEADER_LEN + header.ext_length;
    entry.body_size = header.total_length - least;
    entry.letter = letter_of(header.frame_type);
    entry.utc_sec = kx_unpack_date_time(header.date_time);
    time_stamp = header.time_stamp;
    CByteReader reader(data + entry.offset, entry.size);
    reader.Skip(KX_HEADER_LEN);
    read_blocks(reader.SubReader(header.ext_length), entry);
    return entry.size;
}

// Milliseconds between two frames. The stamps are the low 16 bits; how often they wrapped between the two follows from
// the wall times, which are whole seconds. Audio may stand a little behind its video: then the step is below 0.
int64_t step_ms(uint16_t stamp, uint16_t last_stamp, uint64_t utc, uint64_t last_utc) {
    const int64_t low = static_cast<uint16_t>(stamp - last_stamp);
    const int64_t wall = (static_cast<int64_t>(utc) - static_cast<int64_t>(last_utc)) * 1000;
    const double wraps = static_cast<double>(wall - low) / 65536.0;
    return low + static_cast<int64_t>(std::llround(wraps)) * 65536;
}

}  // namespace

bool ReadFile(const std::string& path, std::vector<unsigned char>& bytes, std::string& error) {
    std::error_code code;
    const bool is_folder = std::filesystem::is_directory(path, code);
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    if (is_folder || !file) {
        error = path + ": cannot be read: " + (is_folder ? "it is a folder" : std::strerror(errno));
        return false;
    }
    bytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    if (bytes.empty()) {
        error = path + ": is empty";
    }
    return !bytes.empty();
}

bool HasEnding(const std::string& path, const char* ending) {
    const size_t length = std::strlen(ending);
    return path.size() >= length && strcasecmp(path.c_str() + path.size() - length, ending) == 0;
}

void ScanFrames(const unsigned char* data, size_t size, std::vector<FrameEntry>& entries) {
    const unsigned char* const end = data + size;
    size_t offset = 0;
    uint16_t last_stamp = 0;
    uint64_t last_utc = 0;
    uint64_t time_ms = 0;
    while (offset < size) {
        FrameEntry entry;
        entry.offset = offset;
        uint16_t time_stamp = 0;
        const size_t length = read_frame(data, size, entry, time_stamp);
        if (length == 0) {
            const unsigned char* next = std::search(data + offset + 1, end, MAGIC, MAGIC + 4);
            offset = static_cast<size_t>(next - data);
            continue;
        }
        if (!entries.empty()) {
            time_ms = static_cast<uint64_t>(std::max<int64_t>(
                0, static_cast<int64_t>(time_ms) + step_ms(time_stamp, last_stamp, entry.utc_sec, last_utc)));
        }
        last_stamp = time_stamp;
        last_utc = entry.utc_sec;
        entry.time_ms = time_ms;
        entries.push_back(entry);
        offset += length;
    }
}
