#include "Tramel/StreamSender.h"

#include <new>

namespace Kavio {
namespace Tramel {

using Ostra::CGuard;

CStreamSender* CStreamSender::Create() {
    return whole(new (std::nothrow) CStreamSender());
}

int CStreamSender::Attach(CNetHandler* owner, CSock* sock) {
    if (owner == nullptr) {
        return -1;
    }
    CGuard guard(m_mutex);
    return attach_locked(sock, false, *owner);
}

int CStreamSender::Put(const char* buf, unsigned int len) {
    const std::shared_ptr<CStreamOutput> queue = output();
    if (queue == nullptr || (buf == nullptr && len > 0)) {
        return -1;
    }
    return len == 0 ? 0 : queue->SendText(buf, len);
}

int CStreamSender::Clear() {
    const std::shared_ptr<CStreamOutput> queue = output();
    if (queue != nullptr) {
        queue->ClearText();
    }
    return 0;
}

}  // namespace Tramel
}  // namespace Kavio
