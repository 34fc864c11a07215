#ifndef VIDORA_TESTS_SUPPORT_SEPARATED_H
#define VIDORA_TESTS_SUPPORT_SEPARATED_H

#include <cstring>
#include <string>
#include <vector>

#include "StreamSeparator.h"
#include "support/StreamBytes.h"

namespace Kavio::Support {

// What a separator made of a stream, and whether all that it promises of its records and counts held.
struct Separated {
    std::vector<std::string> records;  // kind, channel, and the text or the bytes in hexadecimal digits
    size_t bytes = 0;                  // of all of them
    bool failed = false;
    bool sound = true;
};

inline std::string RecordText(int kind, int channel, const Bytes& bytes) {
    return std::to_string(kind) + " " + std::to_string(channel) + " " +
           (kind == SEPARATOR_RTSP ? ToText(bytes) : ToHex(bytes));
}

inline void TakeRecord(const separator_record_t& record, Separated& out) {
    const bool is_text = record.kind == SEPARATOR_RTSP;
    const size_t length = static_cast<size_t>(record.length);
    out.sound = out.sound && record.length > 0 && record.packet.size() == length + (is_text ? 1 : 0);
    if (out.sound) {
        const unsigned char* data = record.packet.getBuffer();
        out.sound = is_text ? record.channel == -1 && data[length] == 0 : record.channel >= 0 && record.channel <= 255;
        out.records.push_back(RecordText(record.kind, record.channel, Bytes(data, data + length)));
        out.bytes += length;
    }
}

// Takes all records of an Input. False if the stream ended in a failure.
inline bool TakeRecords(CStreamSeparator& separator, int count, Separated& out) {
    for (; count >= 0; count = separator.Input(0)) {
        int filled = 0;
        const separator_record_t* records = separator.GetRecords(&filled);
        out.sound = out.sound && filled == count && filled <= CStreamSeparator::MAX_RECORDS;
        out.sound = out.sound && (!separator.HasMore() || filled > 0);
        std::for_each(records, records + filled, [&out](const separator_record_t& record) { TakeRecord(record, out); });
        if (!out.sound || !separator.HasMore()) {
            return true;
        }
    }
    return false;
}

// Feeds a stream in pieces, as far as it doesn't fail.
inline Separated Separate(CStreamSeparator& separator, const std::vector<Bytes>& pieces) {
    Separated out;
    for (const Bytes& piece : pieces) {
        size_t done = 0;
        do {
            int space = 0;
            char* place = separator.GetBuffer(&space);
            out.sound = out.sound && (place != nullptr) == (space > 0);
            const size_t length = std::min(piece.size() - done, static_cast<size_t>(space));
            if (length > 0) {
                std::memcpy(place, piece.data() + done, length);
            }
            done += length;
            out.failed = place == nullptr || !TakeRecords(separator, separator.Input(static_cast<int>(length)), out);
        } while (done < piece.size() && !out.failed);
        if (out.failed) {
            break;
        }
    }
    return out;
}

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_SEPARATED_H
