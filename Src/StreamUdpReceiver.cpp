#include "StreamUdpReceiver.h"

#include <cstring>
#include <new>
#include <utility>

#include "DgramTurn.h"
#include "StreamParser/RtpHeader.h"

namespace Kavio {
namespace Vidora {

namespace {

const int MAX_REPORTS = 16;  // of one turn
const size_t REPORT_ROOM = 4096;
const int MAX_REST_READS = 4;  // of one turn, in front of BYEs: what a large frame may have left
const unsigned int MAX_IP_LEN = 64;

bool is_same_host(const CSockAddrStorage& one, const CSockAddrStorage& other) {
    char one_ip[MAX_IP_LEN];
    char other_ip[MAX_IP_LEN];
    return std::strcmp(one.GetIpStr(one_ip, sizeof(one_ip)), other.GetIpStr(other_ip, sizeof(other_ip))) == 0;
}

}  // namespace

CStreamUdpReceiver* CStreamUdpReceiver::Create(const udp_receiver_socks_t& socks, long owner_id) {
    if (socks.count < 1 || socks.count > RECEIVER_MAX_TRACKS) {
        return nullptr;
    }
    std::unique_ptr<heard_track_t[]> heard(new (std::nothrow) heard_track_t[static_cast<size_t>(socks.count)]);
    CStreamUdpReceiver* receiver = begun(heard != nullptr ? new (std::nothrow) CStreamUdpReceiver : nullptr, owner_id);
    if (receiver == nullptr) {
        return nullptr;
    }
    for (int i = 0; i < socks.count; ++i) {
        heard[static_cast<size_t>(i)].track = socks.tracks[i];
    }
    receiver->m_heard = std::move(heard);
    receiver->m_count = socks.count;
    return receiver;
}

int CStreamUdpReceiver::Start(uint64_t period_us, float speed) {
    for (const sock_row_t& row : rows()) {
        if (row.sock == nullptr) {
            continue;
        }
        if (!row.rtcp) {
            row.sock->JoinReceived();  // an older system returns them one by one
        }
        if (RegisterSock(*row.sock, Tramel::SOCK_EVENT_READ, 0) < 0) {
            Stop();
            return -1;
        }
    }
    StartReceive(static_cast<int64_t>(period_us), speed);
    return 0;
}

int CStreamUdpReceiver::Stop() {
    StopReceive();
    for (const sock_row_t& row : rows()) {
        if (row.sock != nullptr) {
            UnregisterSock(*row.sock, Tramel::SOCK_EVENT_READ);
        }
    }
    return 0;
}

std::array<CStreamUdpReceiver::sock_row_t, 2 * RECEIVER_MAX_TRACKS> CStreamUdpReceiver::rows() const {
    std::array<sock_row_t, 2 * RECEIVER_MAX_TRACKS> rows = {};
    for (int i = 0; i < m_count; ++i) {
        const udp_receiver_track_t& track = m_heard[static_cast<size_t>(i)].track;
        rows[static_cast<size_t>(2 * i)] = {track.rtp_sock.get(), i, false};
        rows[static_cast<size_t>(2 * i + 1)] = {track.rtcp_sock.get(), i, true};
    }
    return rows;
}

void CStreamUdpReceiver::release_socks() {
    m_count = 0;
    m_heard.reset();
}

int CStreamUdpReceiver::handle_stream_input() {
    const CTurn turn(*this);
    m_rest_reads = MAX_REST_READS;
    const sock_row_t row = row_of(input_fd());
    if (row.sock == nullptr || row.track >= tracks().count) {
        return 0;
    }
    return row.rtcp ? read_reports(row) : read_media(row);
}

// Without a socket if it is no track's.
CStreamUdpReceiver::sock_row_t CStreamUdpReceiver::row_of(int fd) const {
    for (int i = 0; i < m_count; ++i) {
        const udp_receiver_track_t& track = m_heard[static_cast<size_t>(i)].track;
        for (CSockDgram* sock : {track.rtp_sock.get(), track.rtcp_sock.get()}) {
            if (sock != nullptr && sock->GetHandle() == fd) {
                return {sock, i, sock != track.rtp_sock.get()};
            }
        }
    }
    return {nullptr, 0, false};
}

// An error of the socket, such as a peer's ICMP answer, is no end of the stream.
int CStreamUdpReceiver::read_media(const sock_row_t& row) {
    Ostra::CMemoryTrail::Note(m_heard[static_cast<size_t>(row.track)], *row.sock);
    CDgramTurn turn(*row.sock);
    DgramSlice datagram;
    int handled = 0;
    for (mark_arrival(); turn.Next(datagram); ++handled) {
        if (is_wanted(row, datagram, turn.From()) &&
            take_datagram(row.track, datagram.data, static_cast<int>(datagram.length)) < 0) {
            return -1;
        }
    }
    return handled;
}

int CStreamUdpReceiver::read_reports(const sock_row_t& row) {
    unsigned char report[REPORT_ROOM];
    CSockAddrStorage from;
    int handled = 0;
    while (handled < MAX_REPORTS) {
        const int length = row.sock->Recv(reinterpret_cast<char*>(report), REPORT_ROOM, &from);
        if (length <= 0) {
            break;
        }
        mark_arrival();
        ++handled;
        if (is_wanted(row, {report, static_cast<unsigned int>(length)}, from)) {
            take_rtcp(row.track, report, length);
        }
    }
    return handled;
}

// What the server sent before its BYE lies in the other socket.
void CStreamUdpReceiver::read_rest(int track) {
    CSockDgram* sock = track < m_count ? m_heard[static_cast<size_t>(track)].track.rtp_sock.get() : nullptr;
    bool has_more = sock != nullptr;
    while (has_more && m_rest_reads > 0) {
        has_more = read_media({sock, track, false}) > 0;
        --m_rest_reads;
    }
}

// Strangers can send to the port as well. The last sender that was found to be the right one is known by its address.
bool CStreamUdpReceiver::is_wanted(const sock_row_t& row, const DgramSlice& datagram, const CSockAddrStorage& from) {
    heard_track_t& heard = m_heard[static_cast<size_t>(row.track)];
    if (!heard.track.source.IsValid()) {
        return has_right_form(row, datagram);
    }
    CSockAddrStorage& known = heard.known[row.rtcp ? 1 : 0];
    if (known == from) {
        return true;
    }
    const CSockAddrStorage& other = heard.track.other_source;
    if (!is_same_host(from, heard.track.source) && !(other.IsValid() && is_same_host(from, other))) {
        return false;
    }
    known = from;
    return true;
}

bool CStreamUdpReceiver::has_right_form(const sock_row_t& row, const DgramSlice& datagram) const {
    const int type = rtp_peek_payload_type(datagram.data, datagram.length);
    const int wanted = tracks().tracks[row.track].payload_type;
    return type >= 0 && (row.rtcp || wanted < 0 || type == wanted);
}

}  // namespace Vidora
}  // namespace Kavio
