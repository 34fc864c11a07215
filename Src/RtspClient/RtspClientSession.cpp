#include "Vidora/RtspClientSession.h"

#include <new>

#include "Vidora/SdpInfo.h"
#include "Vidora/Tramel/MediaBuffer.h"

namespace Kavio {
namespace Vidora {

struct CRtspClientSession::Internal {
    CMutex m_mutex;
    CMediaBuffer m_buffer;
};

CRtspClientSession::CRtspClientSession() : m_internal(new (std::nothrow) Internal) {}

CRtspClientSession::~CRtspClientSession() {
    delete m_internal;
}

CRtspClientSession* CRtspClientSession::Create() {
    CRtspClientSession* session = new (std::nothrow) CRtspClientSession;
    if (session != nullptr && session->m_internal == nullptr) {
        delete session;
        return nullptr;
    }
    return session;
}

int CRtspClientSession::Start(const char*, long, rtp_protocol_t) {
    return -1;
}
int CRtspClientSession::Start(const char*, long, int) {
    return -1;
}
int CRtspClientSession::SetOptions(int) {
    return 0;
}

void CRtspClientSession::Close() {
    CNetHandler::Close();
}

CMediaBuffer* CRtspClientSession::GetMediaBuffer() {
    return &m_internal->m_buffer;
}

int CRtspClientSession::Play(float, float, float, bool) {
    return -1;
}
int CRtspClientSession::Play(UtcTime*, UtcTime*, float, bool) {
    return -1;
}
int CRtspClientSession::Play(SmpteTime*, SmpteTime*, float, bool) {
    return -1;
}
void CRtspClientSession::Pause() {}

CSdpInfo* CRtspClientSession::GetSdpInfo() {
    return nullptr;
}

int CRtspClientSession::SetCmdExtKey(rtsp_method_t, const char*, const char*) {
    return -1;
}
int CRtspClientSession::SendExtMsg(rtsp_method_t, const char*, char*, int) {
    return -1;
}
int CRtspClientSession::SetAuthInfo(const char*, const char*) {
    return -1;
}
int CRtspClientSession::SetKeepAlive(rtsp_method_t) {
    return 0;
}
void CRtspClientSession::SetPacketType(packet_type_t) {}
int CRtspClientSession::SetStreamIdleTimeout(unsigned int) {
    return 0;
}
void CRtspClientSession::SetConformance(bool) {}
void CRtspClientSession::Put(unsigned char*, int) {}

int CRtspClientSession::GetWallTime(char, uint32_t, int64_t&) {
    return -1;
}
void CRtspClientSession::GetStatistics(RtspClientStatistics&) {}
rtsp_client_failure_t CRtspClientSession::GetFailure() {
    return RTSP_CLIENT_FAILURE_NONE;
}

int CRtspClientSession::handle_message(long, unsigned int, long) {
    return 0;
}
int64_t CRtspClientSession::handle_timeout(long) {
    return 0;
}
int CRtspClientSession::handle_close(CNetHandler*) {
    { CGuard guard(m_internal->m_mutex); }
    delete this;
    return -1;
}

}  // namespace Vidora
}  // namespace Kavio
