// The separators of a server's byte stream, fed whole and in pieces: the same records come out. First byte: 0xFF for
// private frames; otherwise interleaved RTP, the low half the video channel, the high half the audio channel.
#include <algorithm>
#include <cstring>
#include <memory>

#include "FuzzSupport.h"
#include "KXSeparator.h"
#include "RtpSeparator.h"

using namespace Kavio;
using namespace Kavio::Vidora;
using Fuzz::Require;

namespace {

// What a separator made of a stream: its records one behind the other, each with its kind and channel.
struct Separated {
    Fuzz::Bytes records;
    size_t media_bytes = 0;
    bool failed = false;
};

void take_record(const separator_record_t& record, Separated& out) {
    const bool is_text = record.kind == SEPARATOR_RTSP;
    Require(record.length > 0 && record.packet.valid());
    Require(record.packet.size() == static_cast<unsigned int>(record.length) + (is_text ? 1 : 0));
    const unsigned char* data = record.packet.getBuffer();
    Require(is_text ? record.channel == -1 && data[record.length] == 0 : record.channel >= 0 && record.channel <= 255);
    out.records.push_back(static_cast<uint8_t>(record.kind));
    out.records.push_back(static_cast<uint8_t>(record.channel));
    out.records.insert(out.records.end(), data, data + record.length);
    out.media_bytes += static_cast<size_t>(record.length);
}

// Takes all records of an Input. False if the stream ended in a failure.
bool take_records(CStreamSeparator& separator, int count, Separated& out) {
    for (; count >= 0; count = separator.Input(0)) {
        int filled = 0;
        const separator_record_t* records = separator.GetRecords(&filled);
        Require(filled == count && filled <= CStreamSeparator::MAX_RECORDS);
        Require(!separator.HasMore() || filled > 0);
        std::for_each(records, records + filled,
                      [&out](const separator_record_t& record) { take_record(record, out); });
        if (!separator.HasMore()) {
            return true;
        }
    }
    return false;
}

Separated separate(CStreamSeparator& separator, const uint8_t* data, size_t size, size_t piece) {
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
        out.failed = place == nullptr || !take_records(separator, separator.Input(static_cast<int>(length)), out);
    }
    return out;
}

}  // namespace

void Fuzz::Target(const uint8_t* data, size_t size) {
    if (size < 2) {
        return;
    }
    // Where a stream that lost its place goes on depends on the bytes that are there: the cuts may differ then.
    bool lost = false;
    Separated whole;
    for (const size_t piece : {size, size_t{1}, size_t{7}, size_t{64}}) {
        CRTPSeparator rtp;
        CKXSeparator frames;
        rtp.SetChannel(data[0] & 15, data[0] >> 4);
        const bool is_private = data[0] == 0xFF;
        const Separated out =
            is_private ? separate(frames, data + 1, size - 1, piece) : separate(rtp, data + 1, size - 1, piece);
        Require(out.media_bytes + rtp.SkippedBytes() <= size - 1);
        lost = lost || rtp.SkippedBytes() > 0;
        if (piece == size) {
            whole = out;
        }
        Require(lost || (out.failed == whole.failed && (out.failed || out.records == whole.records)));
    }
}
