#include "Vidora/RtspSvr.h"

#include <cerrno>
#include <cstring>
#include <new>

#include "Nat/P2PSvrSession.h"
#include "SvrHandler.h"
#include "SvrSessionManager.h"
#include "Tramel/MediaCounters.h"
#include "Tramel/SockAcceptor.h"
#include "Tramel/SockStream.h"
#include "Vidora/RtspSvrConfig.h"

namespace Kavio {
namespace Vidora {

namespace {

const unsigned int MSG_STOP_LISTENING = 0x1f01;

}  // namespace

struct CRtspSvr::Internal {
    CSockAcceptor m_acceptor;
    CSvrSessionManager* m_manager = nullptr;
};

CRtspSvr::CRtspSvr() : m_internal(new (std::nothrow) Internal) {
    if (m_internal != nullptr) {
        m_internal->m_manager = new (std::nothrow) CSvrSessionManager(NatSessions());
    }
}

CRtspSvr::~CRtspSvr() {
    if (m_internal != nullptr && m_internal->m_manager != nullptr) {
        m_internal->m_manager->Close();
        m_internal->m_manager = nullptr;
    }
    delete m_internal;
}

CRtspSvr* CRtspSvr::Create(CSockAddrStorage& listen_addr) {
    if (!listen_addr.IsValid()) {
        logError("%s:%d listen_addr.IsValid() == false %s\n", __FILE__, __LINE__, strerror(errno));
        return nullptr;
    }
    CRtspSvr* svr = new (std::nothrow) CRtspSvr;
    if (svr == nullptr) {
        return nullptr;
    }
    if (svr->m_internal == nullptr || svr->m_internal->m_manager == nullptr ||
        svr->m_internal->m_manager->Roll() == nullptr) {
        svr->Close();
        return nullptr;
    }
    CSockAcceptor& acceptor = svr->m_internal->m_acceptor;
    if (acceptor.Open(listen_addr) < 0) {
        logError("%s:%d open listen socket error %s\n", __FILE__, __LINE__, strerror(errno));
        svr->Close();
        return nullptr;
    }
    if (svr->RegisterSock(acceptor, Tramel::SOCK_EVENT_READ, 0) < 0) {
        logError("%s:%d open listen socket error %s\n", __FILE__, __LINE__, "no thread pool");
        acceptor.Close();  // the object goes with the next pool, and the address mustn't be taken until then
        svr->Close();
        return nullptr;
    }
    logDebug("Start RTSP Server success! listen port: %d\n", listen_addr.GetPort());
    return svr;
}

void CRtspSvr::SetLiveSvr(CLiveSvr* live_svr) {
    m_internal->m_manager->SetLiveSvr(live_svr);
}

void CRtspSvr::SetConfig(const CRtspSvrConfig& config) {
    m_internal->m_manager->SetConfig(config);
}

int CRtspSvr::AddNewConnect(int fd, const char* buf, int len, long extra) {
    if (m_internal == nullptr || m_internal->m_manager == nullptr) {
        return -1;
    }
    return m_internal->m_manager->AddNewConnect(fd, buf, len, extra);
}

int CRtspSvr::handle_input(int /*fd*/) {
    CSockStream* stream = new (std::nothrow) CSockStream;
    if (stream == nullptr) {
        return 0;
    }
    if (m_internal->m_acceptor.Accept(*stream, nullptr) == 0) {
        m_internal->m_manager->add_connection(stream);
    } else {
        delete stream;
    }
    return 0;
}

// The listener is closed on the server's strand, so that no accept runs on it meanwhile.
void CRtspSvr::Stop() {
    m_internal->m_manager->Stop();
    Notify(GetID(), MSG_STOP_LISTENING, 0);
}

int CRtspSvr::handle_message(long /*sender_id*/, unsigned int msg, long /*param*/) {
    if (msg == MSG_STOP_LISTENING) {
        RemoveSock(m_internal->m_acceptor);
        m_internal->m_acceptor.Close();
    }
    return 0;
}

unsigned int CRtspSvr::EndSessions(unsigned int wait_ms) {
    return m_internal->m_manager->Roll()->EndAll(wait_ms);
}

unsigned int CRtspSvr::CountSessions() const {
    return m_internal->m_manager->Roll()->Count();
}

// The base takes the listener out of the reactor.
void CRtspSvr::Close() {
    if (m_internal != nullptr && m_internal->m_manager != nullptr && m_internal->m_manager->Roll() != nullptr) {
        m_internal->m_manager->Stop();
    }
    CNetHandler::Close();
}

int CRtspSvr::handle_close(CNetHandler* /*handler*/) {
    delete this;
    return -1;
}

unsigned int CRtspSvr::GetSessionCount() {
    return CSvrHandler::GetCount();
}

void CRtspSvr::GetStatistics(RtspSvrStatistics& statistics) {
    const Tramel::CMediaCounters& counters = Tramel::CMediaCounters::Instance();
    statistics.sessions = GetSessionCount();
    statistics.packets = counters.Packets();
    statistics.bytes = counters.Bytes();
    statistics.dropped = counters.Dropped();
}

}  // namespace Vidora
}  // namespace Kavio
