#ifndef VIDORA_RTSPCLIENTBUFFER_H
#define VIDORA_RTSPCLIENTBUFFER_H

#include <atomic>

#include "Vidora/Export.h"
#include "Vidora/RtpFrameBuffer.h"
#include "Vidora/Tramel/Level2Buffer.h"

namespace Kavio {
namespace Vidora {

using Tramel::CLevel2Buffer_IF;

// CRtspClientBuffer: a sink of a client session's media buffer that hands whole frames to a host.
//
//     CRtspClientBuffer sink(on_frame, on_error, user);
//     sink.GetFrameBuffer().Init(session->GetSdpInfo(), 0, 0);      // after message 0x1002
//     session->GetMediaBuffer()->AddLevel2Buffer(&sink);
//
// The end, in this order: CMediaBuffer::DelLevel2Buffer, which waits for a call that runs; the session's Close; delete
// the sink. A callback may do the first two, but then further frames of the same packet may follow unless it calls
// Stop as well.
//
// THREADING  Put, and with it both callbacks: the thread that puts, one call at a time. Stop: any thread. All else
//            before the sink is added to a buffer.
// OWNERSHIP  `user` is passed through. The bytes of a frame are valid for the callback only.
class VIDORA_API CRtspClientBuffer : public CLevel2Buffer_IF {
public:
    // One whole frame of `size` bytes.
    typedef void (*frame_callback_t)(const unsigned char* data, unsigned int size, void* user);
    // Media was damaged and dropped; `code` is 0.
    typedef void (*error_callback_t)(int code, void* user);

    // Both callbacks may be null.
    CRtspClientBuffer(frame_callback_t on_frame, error_callback_t on_error, void* user);
    ~CRtspClientBuffer() override;
    CRtspClientBuffer(const CRtspClientBuffer&) = delete;
    CRtspClientBuffer& operator=(const CRtspClientBuffer&) = delete;

    // To set it up, and for its statistics.
    CRtpFrameBuffer& GetFrameBuffer() { return m_frame_buffer; }

    // No callback begins any more, also in a Put that runs. Any thread, also inside a callback.
    void Stop() { m_stopped.store(true); }

    // 0; -1 for a null packet or a negative length.
    int Put(CMediaPacket* packet, int length, int flag, int channel) override;
    // The track's last frame, if it waited for what would follow it.
    void End(int channel) override;

private:
    void deliver_frames();
    void report_error();

    CRtpFrameBuffer m_frame_buffer;
    frame_callback_t const m_on_frame;
    error_callback_t const m_on_error;
    void* const m_user;
    std::atomic<bool> m_stopped{false};
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENTBUFFER_H
