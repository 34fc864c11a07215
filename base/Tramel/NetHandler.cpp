#include "Vidora/Tramel/NetHandler.h"

#include "Tramel/HandlerCore.h"
#include "Tramel/Reactor.h"
#include "Vidora/Tramel/Sock.h"

namespace Kavio {
namespace Tramel {

// Without memory for a core the handler is inert: its identifier is 0, and nothing can be registered.
CNetHandler::CNetHandler() : m_core(CHandlerCore::Create(this)) {
    CReactor::Instance().m_handler_count.fetch_add(1);
}

CNetHandler::~CNetHandler() {
    if (m_core != nullptr) {
        m_core->Abandon();
    }
    CReactor::Instance().m_handler_count.fetch_sub(1);
}

int CNetHandler::handle_input(int) {
    return 0;
}
int CNetHandler::handle_output(int) {
    return 0;
}
int CNetHandler::handle_exception(int) {
    return 0;
}
int CNetHandler::handle_input_timeout(int) {
    return 0;
}
int CNetHandler::handle_output_timeout(int) {
    return 0;
}
int CNetHandler::handle_exception_timeout(int) {
    return 0;
}
int64_t CNetHandler::handle_timeout(long) {
    return 0;
}
int CNetHandler::handle_close(CNetHandler*) {
    return 0;
}
int CNetHandler::handle_message(long, unsigned int, long) {
    return 0;
}

void CNetHandler::Close() {
    // Held here, because handle_close may delete this object on another thread before the call returns.
    const std::shared_ptr<CHandlerCore> core = m_core;
    if (core != nullptr) {
        core->Close();
    }
}

long CNetHandler::GetID() const {
    return m_core == nullptr ? 0 : m_core->GetID();
}

int CNetHandler::RegisterSock(CSock& sock, unsigned int mask, int64_t timeout_us) {
    if (m_core == nullptr || m_core->RegisterSock(sock.GetHandle(), mask, timeout_us) < 0) {
        return -1;
    }
    sock.OnRegistered();
    return 0;
}

int CNetHandler::UnregisterSock(CSock& sock, unsigned int mask) {
    return m_core == nullptr ? -1 : m_core->UnregisterSock(sock.GetHandle(), mask);
}

int CNetHandler::RemoveSock(CSock& sock) {
    return m_core == nullptr ? -1 : m_core->RemoveSock(sock.GetHandle());
}

long CNetHandler::SetTimer(int64_t period_us) {
    return m_core == nullptr ? 0 : m_core->SetTimer(period_us);
}

void CNetHandler::DestroyTimer(long timer_id) {
    if (m_core != nullptr) {
        m_core->DestroyTimer(timer_id);
    }
}

void CNetHandler::Notify(long target_id, unsigned int msg, long param) {
    CReactor::Instance().Post(GetID(), target_id, msg, param);
}

}  // namespace Tramel
}  // namespace Kavio
