#include "Tramel/StreamSender.h"

#include <new>

#include "Tramel/Reactor.h"
#include "Tramel/SockStream.h"

namespace Kavio {
namespace Tramel {

using Ostra::CGuard;

CStreamSender* CStreamSender::Create() {
    return new (std::nothrow) CStreamSender();
}

int CStreamSender::Attach(CNetHandler* owner, CSock* sock) {
    CSockStream* stream = dynamic_cast<CSockStream*>(sock);
    if (owner == nullptr || stream == nullptr || !stream->IsValid()) {
        return -1;
    }
    std::shared_ptr<CStreamOutput> output = stream->GetOutput();
    if (output == nullptr) {
        return -1;
    }
    Detach();
    CGuard guard(m_mutex);
    m_owner = owner;
    if (output->Attach(this, false, m_exception_id) < 0) {
        return -1;
    }
    m_sock = sock;
    m_output = std::move(output);
    return 0;
}

void CStreamSender::WaitException(long handler_id) {
    CGuard guard(m_mutex);
    m_exception_id = handler_id;
    if (m_output != nullptr) {
        m_output->SetExceptionId(this, handler_id);
    }
}

int CStreamSender::Put(const char* buf, unsigned int len) {
    std::shared_ptr<CStreamOutput> queue = output();
    if (queue == nullptr || (buf == nullptr && len > 0)) {
        return -1;
    }
    return len == 0 ? 0 : queue->SendText(buf, len);
}

CSock* CStreamSender::Detach() {
    CGuard guard(m_mutex);
    if (m_output != nullptr) {
        m_output->Detach(this);
    }
    m_output.reset();
    CSock* sock = m_sock;
    m_sock = nullptr;
    return sock;
}

int CStreamSender::Clear() {
    std::shared_ptr<CStreamOutput> queue = output();
    if (queue != nullptr) {
        queue->ClearText();
    }
    return 0;
}

int CStreamSender::handle_output(int) {
    std::shared_ptr<CStreamOutput> queue = output();
    if (queue != nullptr) {
        queue->OnWritable();
    }
    return 0;
}

int CStreamSender::handle_close(CNetHandler*) {
    delete this;
    return 0;
}

void CStreamSender::Close() {
    Detach();
    CNetHandler::Close();
}

std::shared_ptr<CStreamOutput> CStreamSender::output() {
    CGuard guard(m_mutex);
    return m_output;
}

int CStreamSender::WatchWrite(int fd) {
    return CReactor::Instance().RequestOutput(*m_owner, fd);
}

void CStreamSender::PostFailure(long target) {
    Notify(target, MSG_SOCK_EXCEPTION, 0);
}

long CStreamSender::StartTimer(int64_t) {
    return 0;
}

void CStreamSender::StopTimer(long) {}

}  // namespace Tramel
}  // namespace Kavio
