#include "SvrSessionCore.h"

#include <algorithm>
#include <atomic>
#include <utility>

#include "InterleavedRoute.h"
#include "Ostra/PageMemory.h"
#include "Tramel/SockStream.h"
#include "Tramel/StreamSender.h"
#include "UdpRoute.h"

namespace Kavio {
namespace Vidora {

namespace {

const unsigned int SEND_BUFFER_SIZE = 204800;
const unsigned int MAX_PEER_TIMEOUT_SEC = 60;
const unsigned int MIN_PEER_TIMEOUT_SEC = 10;  // a few retransmissions on a bad line

std::atomic<unsigned int> session_count{0};

bool checks_onvif_urls(const CRtspSvrConfig& config) {
    OnvifUserGlobalConfig item = {};
    int length = sizeof(item);
    return config.GetConfig(RTSP_SVR_CONFIG_ONVIF_USER_GLOBAL, &item, length) == 0 && item.enable != 0;
}

}  // namespace

void* CSvrSessionCore::operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return Ostra::NewPages(size);
}

void CSvrSessionCore::operator delete(void* memory, std::size_t size) noexcept {
    Ostra::DeletePages(memory, size);
}

CSvrSessionCore::CSvrSessionCore() : m_conversation(*this) {
    m_requests.SetSpace(m_request_space);
    ++session_count;
}

unsigned int CSvrSessionCore::GetCount() {
    return session_count;
}

CSvrSessionCore::~CSvrSessionCore() {
    if (m_sock != nullptr) {
        RemoveSock(*m_sock);
    }
    if (m_stream_sender != nullptr) {
        m_stream_sender->Close();
    }
    delete m_sock;
    // A session without a source of its own has reported this already when it began to end.
    m_conversation.Farewell();
    logInfo("%s %s this:%p\n", __FILE__, "Vidora::CSvrSessionCore::~CSvrSessionCore", static_cast<void*>(this));
}

int CSvrSessionCore::SetRoll(const std::shared_ptr<CSessionRoll>& roll) {
    m_entry = CSessionEntry::Create(roll, GetID(), MSG_SESSION_END, MSG_SESSION_BROKEN);
    return m_entry != nullptr ? 0 : -1;
}

void CSvrSessionCore::open_sender() {
    m_stream_sender = CStreamSender::Create();
    if (m_stream_sender != nullptr) {
        m_stream_sender->WaitException(GetID());
        m_stream_sender->Attach(this, m_sock);
    }
}

void CSvrSessionCore::open_connection(rtsp_auth_t auth_type) {
    m_conversation.OpenGate(auth_type, checks_onvif_urls(m_conversation.Config()));
    m_sock->SetSockSendBuf(SEND_BUFFER_SIZE);
    watch_peer(*m_sock);
    open_sender();
}

// Notices a peer whose machine or link has gone: a player that is silent by right, in a pause or while it watches, has
// no other end then. One that lives and doesn't read is cut only if there is a keep-alive time.
void CSvrSessionCore::watch_peer(CSockStream& sock) const {
    const int keep_alive_sec = m_conversation.Config().GetKeepAliveTimeout();
    const unsigned int timeout = keep_alive_sec > 0 ? static_cast<unsigned int>(keep_alive_sec) : MAX_PEER_TIMEOUT_SEC;
    sock.WatchPeer(std::clamp(timeout, MIN_PEER_TIMEOUT_SEC, MAX_PEER_TIMEOUT_SEC), keep_alive_sec > 0);
}

int CSvrSessionCore::take_requests(int count) {
    if (m_requests.Take(count, m_conversation) < 0) {
        m_conversation.End(MSG_SRC_FAIL);
        return -1;
    }
    return 0;
}

void CSvrSessionCore::SendText(const char* text, int length) {
    if (m_stream_sender != nullptr) {
        m_stream_sender->Put(text, static_cast<unsigned int>(length));
    }
}

void CSvrSessionCore::StopSending() {
    if (m_stream_sender != nullptr) {
        m_stream_sender->Detach();
        m_stream_sender->Clear();
    }
}

void CSvrSessionCore::GetPeer(CSockAddrStorage& peer) {
    m_sock->GetRemoteAddr(&peer);
}

std::unique_ptr<IMediaRoute> CSvrSessionCore::MakeRoute(const RouteWish& wish) {
    if (wish.transport.transport != RTP_OVER_UDP) {
        return CInterleavedRoute::Create(m_sock, GetID(), wish);
    }
    CSockAddrStorage peer;
    GetPeer(peer);
    return CUdpRoute::Create(peer, wish);
}

int CSvrSessionCore::handle_output(int fd) {
    return m_stream_sender == nullptr ? 0 : m_stream_sender->handle_output(fd);
}

int CSvrSessionCore::handle_exception(int /*fd*/) {
    m_conversation.OnLinkError();
    return 0;
}

int CSvrSessionCore::handle_input_timeout(int /*fd*/) {
    m_conversation.OnControlSilence();
    return 0;
}

int64_t CSvrSessionCore::handle_timeout(long timer_id) {
    m_conversation.OnTimer(timer_id);
    return 0;
}

int CSvrSessionCore::handle_message(long /*sender_id*/, unsigned int msg, long param) {
    if (msg == MSG_SESSION_INIT) {
        begin(static_cast<int>(param));
    } else {
        m_conversation.OnMessage(msg, param);
    }
    return 0;
}

// A session whose server was stopped meanwhile goes unheard: its host counts on hearing nothing more.
void CSvrSessionCore::begin(int count) {
    if (m_entry == nullptr || m_entry->Enter()) {
        Init(count);
    } else {
        close_session();
    }
}

// While the session is whole: what it holds may call back until it is let go.
int CSvrSessionCore::handle_close(CNetHandler* /*handler*/) {
    std::unique_ptr<CSessionEntry> entry = std::move(m_entry);  // leaves when nothing of the session is left
    m_conversation.Release();
    delete this;
    entry.reset();
    --session_count;
    return 0;
}

}  // namespace Vidora
}  // namespace Kavio
