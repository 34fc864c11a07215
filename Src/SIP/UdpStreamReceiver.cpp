#include "SIP/UdpStreamReceiver.h"

#include <cerrno>
#include <cstring>
#include <new>

#include "DgramTurn.h"
#include "StreamParser/RtpHeader.h"

namespace Kavio {
namespace Vidora {

CUdpStreamReceiver* CUdpStreamReceiver::Create() {
    CStreamParserPtr parser = CStreamParser::Create(STREAM_TYPE_RTP, STREAM_TYPE_PRIVATE_FRAME);
    CUdpStreamReceiver* receiver = parser != nullptr ? new (std::nothrow) CUdpStreamReceiver : nullptr;
    if (receiver == nullptr || receiver->GetID() == 0) {
        delete receiver;
        return nullptr;
    }
    const CGuard guard(receiver->m_mutex);
    receiver->m_parser = parser;
    return receiver;
}

bool CUdpStreamReceiver::SetTrack(const CSdpTrack& track) {
    const CGuard guard(m_mutex);
    m_payload_type = track.PayloadType();
    m_parser->Clean();
    return m_parser->SetParam(track.Decoder()) == PARSER_OK;
}

void CUdpStreamReceiver::SetRemote(const udp_stream_remote_t& remote) {
    const CGuard guard(m_mutex);
    m_remote = remote;
    m_known = CSockAddrStorage();
}

bool CUdpStreamReceiver::Attach(const std::shared_ptr<CSockDgram>& sock) {
    const CGuard guard(m_mutex);
    if (m_shut) {
        return false;
    }
    release_sock();
    m_sock = sock;
    return true;
}

bool CUdpStreamReceiver::Start(const frame_proc_t& proc) {
    if (!end_former(proc)) {
        logError("%s:%d Param error \n", __FILE__, __LINE__);
        return false;
    }
    WaitForCall();
    const CGuard guard(m_mutex);
    end_run();  // another thread may have begun one
    if (m_sock == nullptr || RegisterSock(*m_sock, Tramel::SOCK_EVENT_READ, 0) < 0) {
        logError("%s:%d no socket, or no thread pool \n", __FILE__, __LINE__);
        return false;
    }
    m_joins = m_sock->JoinReceived() == 0 || m_joins;  // an older system returns them one by one
    m_proc = proc;
    m_run = ++m_run_count;
    return true;
}

bool CUdpStreamReceiver::end_former(const frame_proc_t& proc) {
    const CGuard guard(m_mutex);
    if (proc.empty() || m_sock == nullptr) {
        return false;
    }
    end_run();
    return true;
}

void CUdpStreamReceiver::end_run() {
    if (m_run != 0) {
        RemoveSock(*m_sock);
        m_run = 0;
        m_proc = frame_proc_t();
        m_parser->Clean();
    }
}

// The host's socket goes back as it came.
void CUdpStreamReceiver::release_sock() {
    end_run();
    if (m_sock != nullptr && m_joins) {
        m_sock->EndJoining();
    }
    m_joins = false;
    m_sock.reset();
}

int CUdpStreamReceiver::Detach() {
    const CGuard guard(m_mutex);
    const int fd = m_sock != nullptr ? m_sock->GetHandle() : -1;
    release_sock();
    return fd;
}

void CUdpStreamReceiver::Shut() {
    const CGuard guard(m_mutex);
    m_shut = true;
    release_sock();
}

void CUdpStreamReceiver::WaitForCall() {
    const CGuard guard(m_mutex);
    const uint64_t call = m_call_count;
    while (m_calling && m_call_count == call && m_call_thread != std::this_thread::get_id()) {
        m_wait.Wait(m_mutex);
    }
}

void CUdpStreamReceiver::GetStatistics(RtpUdpStatistics& statistics) {
    const CGuard guard(m_mutex);
    statistics = m_statistics;
}

int CUdpStreamReceiver::handle_close(CNetHandler*) {
    delete this;
    return 0;
}

int CUdpStreamReceiver::handle_input(int fd) {
    uint64_t run = 0;
    const std::shared_ptr<CSockDgram> sock = find_run(fd, run);
    if (sock == nullptr) {
        return 0;
    }
    CDgramTurn turn(*sock);
    call_t call;
    bool has_ended = false;
    while (next_call(turn, run, call)) {
        has_ended = !call.frame.valid();
        call.proc(call.frame);
    }
    return has_ended ? -1 : 0;
}

// The socket of the run that reads `fd`; null if there is none.
std::shared_ptr<CSockDgram> CUdpStreamReceiver::find_run(int fd, uint64_t& run) {
    const CGuard guard(m_mutex);
    run = m_run;
    return m_run != 0 && m_sock->GetHandle() == fd ? m_sock : nullptr;
}

// The callback that is due next: for the frames that the decoder has, and for those that the datagrams complete which
// are left.
bool CUdpStreamReceiver::next_call(CDgramTurn& turn, uint64_t run, call_t& call) {
    const CGuard guard(m_mutex);
    end_call(call);
    if (m_run != run) {
        return false;
    }
    bool is_due = begin_call(call);
    DgramSlice datagram;
    while (!is_due && turn.Next(datagram)) {
        is_due = take(datagram, turn.From()) && begin_call(call);
    }
    return is_due || look_at_end(turn, call);
}

// The one before has returned, if there was one.
void CUdpStreamReceiver::end_call(call_t& call) {
    if (m_calling) {
        m_calling = false;
        m_wait.Wake();
        call.frame = Flumen::CMediaFrame();
    }
}

// Whether frames may be ready.
bool CUdpStreamReceiver::take(const DgramSlice& datagram, const CSockAddrStorage& from) {
    if (datagram.length == 0) {
        return false;
    }
    if (!is_wanted(from)) {
        ++m_statistics.foreign;
        return false;
    }
    if (datagram.length >= RTP_HEADER_LEN && m_last.IsAgain(datagram.data, RTP_HEADER_LEN)) {
        ++m_statistics.repeated;
        return false;
    }
    const int ret = has_right_form(datagram) ? process_data(datagram) : PARSER_FAILED;
    if (ret != PARSER_OK && ret != PARSER_FRAME_READY) {
        ++m_statistics.damaged;
        return false;
    }
    ++m_statistics.packets;
    m_statistics.bytes += datagram.length;
    return ret == PARSER_FRAME_READY;
}

// A socket that has failed ends the run, by one call with an empty frame. Whether it is due.
bool CUdpStreamReceiver::look_at_end(const CDgramTurn& turn, call_t& call) {
    const int error = turn.Failed() ? errno : 0;
    if (!turn.Failed() && !turn.IsEmpty()) {
        return false;
    }
    if (m_sock->GoesOn(error)) {
        return false;
    }
    logError("%s:%d m_stream_sock.Recv  -1 \n", __FILE__, __LINE__);
    mark_call(call);
    end_run();
    return true;
}

// The last sender that was found to be the right one is known by its address.
bool CUdpStreamReceiver::is_wanted(const CSockAddrStorage& from) {
    if (m_known == from) {
        return true;
    }
    if (m_remote.port >= 0 && from.GetPort() != m_remote.port) {
        return false;
    }
    char ip[udp_stream_remote_t::MAX_IP_LEN];
    if (m_remote.ip[0] != '\0' && std::strcmp(from.GetIpStr(ip, sizeof(ip)), m_remote.ip) != 0) {
        return false;
    }
    m_known = from;
    return true;
}

// The decoder would take more, such as what begins like an interleaved packet.
bool CUdpStreamReceiver::has_right_form(const DgramSlice& datagram) const {
    return datagram.length >= RTP_HEADER_LEN && rtp_peek_payload_type(datagram.data, datagram.length) == m_payload_type;
}

int CUdpStreamReceiver::process_data(const DgramSlice& datagram) {
    Flumen::CMediaFrame packet(datagram.length);
    if (!packet.valid()) {
        logError("%s:%d pkt invalid, len:%d \n", __FILE__, __LINE__, static_cast<int>(datagram.length));
        return PARSER_NO_DATA;
    }
    std::memcpy(packet.getBuffer(), datagram.data, datagram.length);
    const int ret = m_parser->InputFrame(packet);
    if (ret != PARSER_OK && ret != PARSER_FRAME_READY && m_log.Pass()) {
        logWarn("%s:%d StreamParser::Input failed, ret:%d\n", __FILE__, __LINE__, ret);
    }
    return ret;
}

bool CUdpStreamReceiver::begin_call(call_t& call) {
    call.frame = m_parser->OutputFrame();
    if (call.frame.valid()) {
        mark_call(call);
    }
    return call.frame.valid();
}

void CUdpStreamReceiver::mark_call(call_t& call) {
    call.proc = m_proc;
    m_calling = true;
    ++m_call_count;
    m_call_thread = std::this_thread::get_id();
}

}  // namespace Vidora
}  // namespace Kavio
