// The output queue of a CSockStream.

#include <new>

#include "Tramel/SockStream.h"
#include "Tramel/StreamOutput.h"

namespace Kavio {
namespace Tramel {

CSockStream::~CSockStream() {
    if (m_output != nullptr) {
        m_output->OnSockGone();
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
