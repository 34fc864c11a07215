#ifndef VIDORA_KXSEPARATOR_H
#define VIDORA_KXSEPARATOR_H

#include "BufferedSeparator.h"

namespace Kavio {
namespace Vidora {

// CKXSeparator: private frames, RTSP replies, which begin with "R" or "r", and requests of the server's own. A frame
// follows "$", its channel (track times 2) and its length in 4 bytes, high byte first; it comes out as two
// records, those 6 bytes and the frame.
//
// Most of a large frame is read from the socket straight into its place.
//
// MEMORY  The rest of an RTSP message and one frame of at most MAX_FRAME bytes.
class CKXSeparator final : public CBufferedSeparator {
public:
    static constexpr int MAX_FRAME = 16 * 1024 * 1024;

    char* GetBuffer(int* space) override;
    int Input(int len) override;

private:
    step_t parse_step(CByteReader& reader) override;
    step_t cut_reply(CByteReader& reader);
    step_t fill_frame(CByteReader& reader);
    step_t begin_frame(CByteReader& reader);
    step_t put_out();
    int missing() const { return m_cur.length - static_cast<int>(m_cur.packet.size()); }

    separator_record_t m_cur;  // the frame under way
    bool m_direct = false;     // GetBuffer gave room in the frame
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_KXSEPARATOR_H
