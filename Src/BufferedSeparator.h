#ifndef VIDORA_BUFFEREDSEPARATOR_H
#define VIDORA_BUFFEREDSEPARATOR_H

#include <memory>

#include "StreamSeparator.h"
#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteReader.h"

namespace Kavio {
namespace Vidora {

// CBufferedSeparator: what the separators have in common: the room to read into, the row of records, and the RTSP
// replies and requests of the server's own, a head up to its empty line and a body of Content-Length bytes.
//
// All separators of a thread read into the same room, which so stays in the processor's cache; what is left of a
// message at the end of an Input is kept by the separator itself. A large rest isn't carried there and back: the next
// bytes are read behind it.
//
// MEMORY  The rest of a message: none between messages, at most RSP_BUF_LEN bytes, or the size of the largest unit that
// a derived class asks room for; while HasMore what one read brought. The row. And 128 KiB a thread.
class CBufferedSeparator : public CStreamSeparator {
public:
    CBufferedSeparator() = default;
    ~CBufferedSeparator() override = default;
    CBufferedSeparator(const CBufferedSeparator&) = delete;
    CBufferedSeparator& operator=(const CBufferedSeparator&) = delete;

    char* GetBuffer(int* space) override;
    int Input(int len) override;
    separator_record_t* GetRecords(int* count) override;
    bool HasMore() const override { return m_has_more; }

protected:
    enum step_t {
        STEP_DONE,   // something was cut or thrown away; there may be more
        STEP_SHORT,  // more bytes have to come
        STEP_FULL,   // no room in the row
        STEP_FAILED  // beyond repair
    };

    // Cuts the message at the reader's place, and moves the reader behind it.
    virtual step_t parse_step(CByteReader& reader) = 0;

    // Whether what is there of the bytes at the reader's place is how a request of the server's own begins.
    static bool may_be_request(const CByteReader& reader);
    // The reply or request at the reader's place.
    step_t cut_text(CByteReader& reader);
    // A record of the next `length` bytes; STEP_FAILED, with a log line, without memory.
    step_t cut_unit(CByteReader& reader, int length, int channel, int kind);
    // The row must have room.
    void add_record(Flumen::CMediaFrame packet, int length, int channel, int kind);
    int row_room() const { return MAX_RECORDS - m_out_count; }
    // Lets the rest of a message be `size` bytes long.
    void want_room(int size) { m_wanted = size > m_wanted ? size : m_wanted; }

private:
    static constexpr int COPIED_REST = 4096;  // up to that size a rest is copied in front of the next bytes

    step_t parse(CByteReader& reader);
    bool keep(const unsigned char* rest, int length);
    bool make_room(int size);

    std::unique_ptr<char[]> m_rest;
    int m_rest_room = 0;
    int m_rest_len = 0;
    bool m_in_shared_room = false;  // GetBuffer gave room of the thread's, with the rest in front of it
    int m_wanted = RSP_BUF_LEN;
    bool m_has_more = false;
    int m_out_count = 0;
    separator_record_t m_records[MAX_RECORDS];  // the last field: most turns look at its beginning only
};

// A frame with room for `size` bytes, all counted as in use; invalid, with a log line, without memory.
Flumen::CMediaFrame MakeSeparatorFrame(int size);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_BUFFEREDSEPARATOR_H
