#include "Vidora/RtspClientBuffer.h"

#include "RtspClient/RtpFrameBufferCore.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

CRtspClientBuffer::CRtspClientBuffer(frame_callback_t on_frame, error_callback_t on_error, void* user)
    : m_on_frame(on_frame), m_on_error(on_error), m_user(user) {
    logInfo("%s %s this: %p\n", __FILE__, __func__, static_cast<void*>(this));
}

CRtspClientBuffer::~CRtspClientBuffer() {
    logInfo("%s %s this: %p\n", __FILE__, __func__, static_cast<void*>(this));
}

int CRtspClientBuffer::Put(CMediaPacket* packet, int length, int, int) {
    if (packet == nullptr || length < 0) {
        logError("%s %d param is error! packet: %p len: %d\n", __FILE__, __LINE__, static_cast<void*>(packet), length);
        report_error();
        return -1;
    }
    const int result = m_frame_buffer.Put(packet, length);
    if (m_frame_buffer.was_damaged()) {
        if (result < 0) {
            m_frame_buffer.Clear();
        }
        report_error();
    }
    if (result == 1) {
        deliver_frames();
    }
    return 0;
}

void CRtspClientBuffer::End(int channel) {
    if (m_frame_buffer.End(channel) == 1) {
        deliver_frames();
    }
}

void CRtspClientBuffer::deliver_frames() {
    for (Flumen::CMediaFrame frame = m_frame_buffer.Get(); frame.valid(); frame = m_frame_buffer.Get()) {
        if (m_on_frame != nullptr && !m_stopped.load()) {
            m_on_frame(frame.getBuffer(), frame.size(), m_user);
        }
    }
}

void CRtspClientBuffer::report_error() {
    if (m_on_error != nullptr && !m_stopped.load()) {
        m_on_error(0, m_user);
    }
}

}  // namespace Vidora
}  // namespace Kavio
