#ifndef VIDORA_STREAMSEPARATOR_H
#define VIDORA_STREAMSEPARATOR_H

#include <cstdint>

#include "Vidora/Flumen/MediaFrame.h"

namespace Kavio {
namespace Vidora {

enum separator_kind_t {
    SEPARATOR_RTSP = 1,  // an RTSP reply, or a request of the server's own
    SEPARATOR_RTP = 2,   // RTP or RTCP: a unit, or a run of units of one channel, each with its 4 header bytes
    SEPARATOR_KX = 3     // a private header (6 bytes, "$" first) or frame
};

// One message that was cut from the stream.
struct separator_record_t {
    Flumen::CMediaFrame packet;  // the bytes; an RTSP reply has a zero byte behind its `length`
    int32_t channel = -1;        // -1 for an RTSP reply
    int32_t length = 0;          // bytes that count
    int32_t kind = 0;            // separator_kind_t
};

// CStreamSeparator: cuts the byte stream of an RTSP connection with interleaved media into whole messages, RTSP replies
// and media. The caller reads the socket straight into the separator's buffer:
//
//     char* place = separator.GetBuffer(&space);   // null: the stream is beyond repair
//     int count = separator.Input(read(place, space));
//
// THREADING  No lock: one thread at a time.
class CStreamSeparator {
public:
    static constexpr int MAX_RECORDS = 32;     // of one Input
    static constexpr int RSP_BUF_LEN = 32768;  // the longest RTSP reply

    virtual ~CStreamSeparator() = default;
    // The place to read into, and its free room; null and 0 when a message is too long. Not while HasMore. It may be
    // room of the calling thread's, which another separator uses next: read and call Input at once, on that thread.
    virtual char* GetBuffer(int* space) = 0;
    // `len` bytes, at most the room, were written there; 0 goes on with what is left of the bytes before, when the row
    // was full. The number of new records, which end at the next call, or -1: the stream is beyond repair, and the
    // records in front of the fault are in the row.
    virtual int Input(int len) = 0;
    // The row of records, and how many are filled.
    virtual separator_record_t* GetRecords(int* count) = 0;
    // The RTP channels whose packets are merged to frames; -1 for none. 0.
    virtual int SetChannel(int, int) { return 0; }
    // The row was full: Input(0) may find more.
    virtual bool HasMore() const = 0;
    // Nothing more comes for this RTP channel: the run that was to go on, which is invalid if there is none.
    virtual Flumen::CMediaFrame TakeRest(int /*channel*/) { return Flumen::CMediaFrame(); }
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSEPARATOR_H
