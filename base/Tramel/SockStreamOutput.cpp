// The output queue of a CSockStream.

#include <new>

#include "Tramel/SockStream.h"
#include "Tramel/StreamOutput.h"

namespace Kavio {
namespace Tramel {

CSockStream::~CSockStream() {
    CSockStream::OnRelease();
}

// A sender that is still attached, or in the midst of a write on another thread, keeps the queue but not the socket. A
// new connection gets a new queue: what is left of the old one, and its failure, are no concern of it.
void CSockStream::OnRelease() {
    if (m_output != nullptr) {
        m_output->OnSockGone();
        m_output.reset();
    }
}

void CSockStream::OnRegistered() {
    if (m_output != nullptr) {
        m_output->OnRegistered();
    }
}

std::shared_ptr<CStreamOutput> CSockStream::GetOutput() {
    if (m_output == nullptr) {
        try {
            m_output = std::make_shared<CStreamOutput>(this);
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
    }
    return m_output;
}

}  // namespace Tramel
}  // namespace Kavio
