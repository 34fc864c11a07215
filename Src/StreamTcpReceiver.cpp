#include "StreamTcpReceiver.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "KXSeparator.h"
#include "RtpSeparator.h"
#include "Tramel/Interleave.h"
#include "Tramel/Reactor.h"
#include "Tramel/SockStream.h"

namespace Kavio {
namespace Vidora {

namespace {

const int MAX_HANDLED = 10;            // a turn that handled more messages ends,
const int MAX_READS = 8;               // and one that read so often
const unsigned int MSG_TURN = 0x1f01;  // to itself: go on without an event

std::unique_ptr<CStreamSeparator> make_separator(int protocol) {
    std::unique_ptr<CStreamSeparator> separator;
    if (protocol == RECEIVER_PROTOCOL_KX) {
        separator.reset(new (std::nothrow) CKXSeparator);
    } else {
        separator.reset(new (std::nothrow) CRTPSeparator);
    }
    return separator;
}

}  // namespace

CStreamTcpReceiver* CStreamTcpReceiver::Create(const std::shared_ptr<CSockStream>& sock, long owner_id, int protocol) {
    std::unique_ptr<CStreamSeparator> separator = make_separator(protocol);
    if (sock == nullptr || separator == nullptr) {
        return nullptr;
    }
    return begun(new (std::nothrow) CStreamTcpReceiver(sock, std::move(separator)), owner_id);
}

CStreamTcpReceiver::CStreamTcpReceiver(const std::shared_ptr<CSockStream>& sock,
                                       std::unique_ptr<CStreamSeparator> separator)
    : m_sock(sock), m_separator(std::move(separator)) {}

CStreamTcpReceiver::~CStreamTcpReceiver() = default;

int CStreamTcpReceiver::Feed(const char* data, int length) {
    if (data == nullptr || length < 0 || length > MAX_FED - m_fed_length) {
        return -1;
    }
    if (length == 0) {
        return 0;
    }
    if (m_fed == nullptr) {
        m_fed.reset(new (std::nothrow) char[MAX_FED]);
    }
    if (m_fed == nullptr) {
        return -1;
    }
    std::memcpy(m_fed.get() + m_fed_length, data, static_cast<size_t>(length));
    m_fed_length += length;
    return 0;
}

int CStreamTcpReceiver::Start(uint64_t period_us, float speed) {
    if (RegisterSock(*m_sock, Tramel::SOCK_EVENT_READ, 0) < 0) {
        return -1;
    }
    Tramel::CReactor::Instance().Drain(*this, m_sock->GetHandle());
    StartReceive(static_cast<int64_t>(period_us), speed);
    ask_for_turn();
    return 0;
}

int CStreamTcpReceiver::Stop() {
    StopReceive();
    UnregisterSock(*m_sock, Tramel::SOCK_EVENT_READ);
    return 0;
}

void CStreamTcpReceiver::release_socks() {
    m_sock.reset();
}

// Bytes that are here already must not wait for the next ones from the network.
void CStreamTcpReceiver::ask_for_turn() {
    if (!m_turn_due.exchange(true)) {
        Notify(GetID(), MSG_TURN, 0);
    }
}

int CStreamTcpReceiver::handle_message(long sender_id, unsigned int msg, long) {
    if (msg == MSG_TURN && sender_id == GetID()) {
        m_turn_due.store(false);
        return handle_input(m_sock->GetHandle());
    }
    return 0;
}

// What stands in front of a fault is handled all the same.
int CStreamTcpReceiver::handle_stream_input() {
    const CTurn turn(*this, *m_sock);
    set_channels();
    m_emptied = false;
    m_reads = 0;
    int handled = 0;
    int count = m_separator->Input(0);
    if (count != 0) {
        mark_arrival();
    }
    while (take_records(handled) >= 0 && count >= 0) {
        if (is_turn_over(handled)) {
            if (!m_emptied || m_separator->HasMore()) {
                ask_for_turn();
            }
            return handled;
        }
        if (m_separator->HasMore()) {
            count = m_separator->Input(0);
            continue;
        }
        const int result = read(count);
        if (result == 0) {
            return handled;
        }
        count = result < 0 ? result : count;
    }
    for (int track = 0; track < tracks().count; ++track) {
        end_track(track);
    }
    logWarn("%s:%d ret -1\n", __FILE__, __LINE__);
    return -1;
}

bool CStreamTcpReceiver::is_turn_over(int handled) const {
    return handled > MAX_HANDLED || m_reads >= MAX_READS;
}

// The connection is the server's own.
bool CStreamTcpReceiver::is_end(int, const rtcp_digest_t&) {
    return true;
}

void CStreamTcpReceiver::put_rest(int track) {
    const Flumen::CMediaFrame rest = m_separator->TakeRest(tracks().tracks[track].rtp_channel);
    if (rest.valid()) {
        take_run(track, rest);
    }
}

void CStreamTcpReceiver::set_channels() {
    const auto channel = [this](int track) { return track < tracks().count ? tracks().tracks[track].rtp_channel : -1; };
    m_separator->SetChannel(channel(0), channel(1));
}

// 1: `count` records have come. 0: nothing more is there just now. -1: the end of the connection or of the stream. A
// read that leaves room has emptied the socket: asking again would be a system call for nothing, and what has come
// meanwhile, or lies behind urgent data, and the end of the connection is an event of its own.
int CStreamTcpReceiver::read(int& count) {
    if (m_emptied) {
        return 0;
    }
    int space = 0;
    char* place = m_separator->GetBuffer(&space);
    if (place == nullptr) {
        logError("%s:%d m_sep->GetBuffer buf_len 0, data error or parser state error \n", __FILE__, __LINE__);
        return -1;
    }
    const bool is_fed = m_fed_length > 0;
    const int length = is_fed ? read_fed(place, space) : m_sock->Recv(place, static_cast<unsigned int>(space));
    if (length <= 0) {
        return length;
    }
    m_emptied = !is_fed && length < space;
    ++m_reads;
    mark_arrival();
    count = m_separator->Input(length);
    if (count < 0) {
        logError("%s:%d state_code:%d m_sep->Separate failed\n", __FILE__, __LINE__, count);
    }
    return 1;
}

int CStreamTcpReceiver::read_fed(char* place, int space) {
    const int length = std::min(space, m_fed_length);
    std::memcpy(place, m_fed.get(), static_cast<size_t>(length));
    std::memmove(m_fed.get(), m_fed.get() + length, static_cast<size_t>(m_fed_length - length));
    m_fed_length -= length;
    if (m_fed_length == 0) {
        m_fed.reset();
    }
    return length;
}

// A record's memory goes at once, so that it is the next one's.
int CStreamTcpReceiver::take_records(int& handled) {
    int count = 0;
    separator_record_t* records = m_separator->GetRecords(&count);
    for (int i = 0; i < count && records[i].packet.valid(); ++i) {
        ++handled;
        const separator_record_t record = std::exchange(records[i], separator_record_t());
        if (take_record(record) < 0) {
            return -1;
        }
    }
    return 0;
}

int CStreamTcpReceiver::take_record(const separator_record_t& record) {
    const unsigned char* data = record.packet.getBuffer();
    switch (record.kind) {
        case SEPARATOR_RTSP:
            take_rtsp(reinterpret_cast<const char*>(data), record.length);
            return 0;
        case SEPARATOR_RTP:
            return take_rtp(record);
        default:
            if (data[0] == Tramel::INTERLEAVE_MARK) {
                m_kx_channel = record.channel;
                return 0;
            }
            return take_kx_frame(m_kx_channel, record.packet);
    }
}

int CStreamTcpReceiver::take_rtp(const separator_record_t& record) {
    const int rtcp_track = find_rtcp_track(record.channel);
    if (rtcp_track >= 0) {
        take_rtcp(rtcp_track, record.packet.getBuffer() + Tramel::INTERLEAVE_HEADER_SIZE,
                  record.length - static_cast<int>(Tramel::INTERLEAVE_HEADER_SIZE));
        return 0;
    }
    const int rtp_track = find_rtp_track(record.channel);
    return rtp_track >= 0 ? take_run(rtp_track, record.packet) : 0;
}

}  // namespace Vidora
}  // namespace Kavio
