#ifndef VIDORA_BUFFEREDSEPARATOR_H
#define VIDORA_BUFFEREDSEPARATOR_H

#include <memory>

#include "StreamSeparator.h"
#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteReader.h"

namespace Kavio {
namespace Vidora {

// CBufferedSeparator: what the separators have in common: the receive buffer, the row of records, and the RTSP replies
// and requests of the server's own, a head up to its empty line and a body of Content-Length bytes.
//
// MEMORY  The buffer, RSP_BUF_LEN bytes, or the size of the largest unit that a derived class asks room for; and the
// row.
class CBufferedSeparator : public CStreamSeparator {
public:
    CBufferedSeparator();
    ~CBufferedSeparator() override;
    CBufferedSeparator(const CBufferedSeparator&) = delete;
    CBufferedSeparator& operator=(const CBufferedSeparator&) = delete;

    // False if memory was short; GetBuffer then returns null.
    bool IsValid() const { return m_recv_buf != nullptr; }

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
    void add_record(const Flumen::CMediaFrame& packet, int length, int channel, int kind);
    int row_room() const { return MAX_RECORDS - m_out_count; }
    // Lets the buffer hold `size` bytes once this Input has ended.
    void want_room(int size) { m_wanted = size > m_wanted ? size : m_wanted; }

private:
    step_t parse(CByteReader& reader);
    bool grow();

    std::unique_ptr<char[]> m_recv_buf;
    int m_capacity = RSP_BUF_LEN;
    int m_wanted = RSP_BUF_LEN;
    int m_recv_len = 0;
    bool m_has_more = false;
    int m_out_count = 0;
    separator_record_t m_records[MAX_RECORDS];
};

// A frame with room for `size` bytes, all counted as in use; invalid, with a log line, without memory.
Flumen::CMediaFrame MakeSeparatorFrame(int size);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_BUFFEREDSEPARATOR_H
