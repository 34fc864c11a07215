#ifndef VIDORA_TESTS_FUZZ_SEPARATORFEED_H
#define VIDORA_TESTS_FUZZ_SEPARATORFEED_H

#include <algorithm>
#include <cstring>

#include "FuzzSupport.h"
#include "StreamSeparator.h"

namespace Kavio {
namespace Vidora {
namespace Fuzz {

// What a separator made of a stream: its records one behind the other, each with its kind, channel and length.
struct Separated {
    Bytes records;
    size_t media_bytes = 0;  // of all records
    bool failed = false;
};

inline void TakeRecord(const separator_record_t& record, Separated& out) {
    const bool is_text = record.kind == SEPARATOR_RTSP;
    Require(record.length > 0 && record.packet.valid());
    Require(record.packet.size() == static_cast<unsigned int>(record.length) + (is_text ? 1 : 0));
    const unsigned char* data = record.packet.getBuffer();
    Require(!is_text || (record.channel == -1 && data[record.length] == 0));
    Require(is_text || (record.channel >= 0 && record.channel <= 255));
    out.records.push_back(static_cast<uint8_t>(record.kind));
    out.records.push_back(static_cast<uint8_t>(record.channel));
    out.records.insert(out.records.end(), data, data + record.length);
    out.media_bytes += static_cast<size_t>(record.length);
}

// Takes all records of an Input. False if the stream ended in a failure.
inline bool TakeRecords(CStreamSeparator& separator, int count, Separated& out) {
    for (; count >= 0; count = separator.Input(0)) {
        int filled = 0;
        const separator_record_t* records = separator.GetRecords(&filled);
        Require(filled == count && filled <= CStreamSeparator::MAX_RECORDS);
        Require(!separator.HasMore() || filled > 0);
        std::for_each(records, records + filled, [&out](const separator_record_t& record) { TakeRecord(record, out); });
        if (!separator.HasMore()) {
            return true;
        }
    }
    return false;
}

// Feeds a stream in pieces of `piece` bytes.
inline Separated Separate(CStreamSeparator& separator, const uint8_t* data, size_t size, size_t piece) {
    Separated out;
    for (size_t done = 0; done < size && !out.failed;) {
        int space = 0;
        char* place = separator.GetBuffer(&space);
        Require((place != nullptr) == (space > 0));
        const size_t length = std::min({piece, size - done, static_cast<size_t>(space)});
        if (length > 0) {
            std::memcpy(place, data + done, length);
        }
        done += length;
        out.failed = place == nullptr || !TakeRecords(separator, separator.Input(static_cast<int>(length)), out);
    }
    return out;
}

// The same stream in any pieces gives the same, and never more bytes than went in. A stream beyond repair ends in a
// failure in all of them, with the records that were out before. `compares` checks a separator that was fed, and says
// whether its output is to be compared.
template <typename Make, typename Compares>
void RequireSameAtEveryPiece(Make make, const uint8_t* data, size_t size, Compares compares) {
    const auto separate = [&](size_t piece, bool& comparable) {
        const auto separator = make();
        const Separated out = Separate(*separator, data, size, piece);
        Require(out.media_bytes <= size);
        comparable = compares(*separator, out);
        return out;
    };
    bool comparable = false;
    const Separated whole = separate(size, comparable);
    for (const size_t piece : {size_t{1}, size_t{7}, size_t{64}}) {
        const Separated cut = separate(piece, comparable);
        Require(!comparable || cut.failed == whole.failed);
        Require(!comparable || whole.failed || cut.records == whole.records);
    }
}

}  // namespace Fuzz
}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_TESTS_FUZZ_SEPARATORFEED_H
