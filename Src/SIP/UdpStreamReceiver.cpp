#include "SIP/UdpStreamReceiver.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "DgramBatch.h"
#include "StreamParser/RtpHeader.h"

namespace Kavio {
namespace Vidora {

namespace {

// A socket that gave nothing: is that for ever? A peer's ICMP answer, or a path that is missing for a while, says
// nothing about the socket.
bool has_failed(int fd, int error) {
    pollfd state = {fd, POLLRDHUP, 0};
    return error == EBADF || error == ENOTSOCK ||
           (::poll(&state, 1, 0) > 0 && (state.revents & (POLLRDHUP | POLLHUP | POLLNVAL)) != 0);
}

}  // namespace

CUdpStreamReceiver* CUdpStreamReceiver::Create() {
    CStreamParserPtr parser = CStreamParser::Create(STREAM_TYPE_RTP, STREAM_TYPE_PRIVATE_FRAME);
    CUdpStreamReceiver* receiver = parser != nullptr ? new (std::nothrow) CUdpStreamReceiver : nullptr;
    if (receiver != nullptr) {
        const CGuard guard(receiver->m_mutex);
        receiver->m_parser = parser;
    }
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
    end_run();
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

int CUdpStreamReceiver::Detach() {
    const CGuard guard(m_mutex);
    const int fd = m_sock != nullptr ? m_sock->GetHandle() : -1;
    end_run();
    m_sock.reset();
    return fd;
}

void CUdpStreamReceiver::Shut() {
    const CGuard guard(m_mutex);
    m_shut = true;
    end_run();
    m_sock.reset();
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

// One batch an event: what is left is told again, after the other handlers' turns.
int CUdpStreamReceiver::handle_input(int fd) {
    CDgramBatch* batch = CDgramBatch::OfThread();
    uint64_t run = 0;
    const int count = batch != nullptr ? read(fd, *batch, run) : 0;
    call_t call;
    if (count < 0 && fail(run, call)) {
        run_calls(run, call);
    }
    for (int i = 0; i < count; ++i) {
        if (take(batch->Datagram(i), batch->From(i), run, call)) {
            run_calls(run, call);
        }
    }
    return count < 0 ? -1 : 0;
}

// The number of datagrams, and the run that they are for; -1: the socket has failed.
int CUdpStreamReceiver::read(int fd, CDgramBatch& batch, uint64_t& run) {
    const CGuard guard(m_mutex);
    if (m_run == 0 || m_sock->GetHandle() != fd) {
        return 0;
    }
    run = m_run;
    const int count = batch.Recv(*m_sock);
    const int error = count < 0 ? errno : 0;
    if (count <= 0 && has_failed(fd, error)) {
        logError("%s:%d m_stream_sock.Recv  -1 \n", __FILE__, __LINE__);
        return -1;
    }
    if (count <= 0) {
        m_sock->DropAnswers();
    }
    return std::max(count, 0);
}

bool CUdpStreamReceiver::take(const DgramSlice& datagram, const CSockAddrStorage& from, uint64_t run, call_t& call) {
    const CGuard guard(m_mutex);
    if (m_run != run || datagram.length == 0) {
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
    return ret == PARSER_FRAME_READY && begin_call(call);
}

// The end of a run by its socket: one call with an empty frame.
bool CUdpStreamReceiver::fail(uint64_t run, call_t& call) {
    const CGuard guard(m_mutex);
    if (m_run != run) {
        return false;
    }
    call.frame = Flumen::CMediaFrame();
    mark_call(call);
    end_run();
    return true;
}

void CUdpStreamReceiver::run_calls(uint64_t run, call_t& call) {
    do {
        call.proc(call.frame);
    } while (go_on(run, call));
}

// A callback has returned: is there another frame?
bool CUdpStreamReceiver::go_on(uint64_t run, call_t& call) {
    const CGuard guard(m_mutex);
    m_calling = false;
    m_wait.Wake();
    call.frame = Flumen::CMediaFrame();
    return m_run == run && begin_call(call);
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
