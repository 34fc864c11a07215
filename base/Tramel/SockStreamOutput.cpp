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
    // The queue of a former connection is of no use to this one.
    if (m_output != nullptr && !m_output->IsForCurrentDescriptor()) {
        m_output->OnSockGone();
        m_output.reset();
    }
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
