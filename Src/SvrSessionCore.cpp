// Request dispatch: from received bytes to the state machine, and the way out for replies.

#include "SvrSessionCore.h"

#include <cstring>
#include <memory>

#include "InterleavedRoute.h"
#include "Ostra/PageMemory.h"
#include "Protocol/RtcpParser.h"
#include "Tramel/SockStream.h"
#include "Tramel/StreamSender.h"
#include "UdpRoute.h"
#include "Vidora/Ostra/ByteReader.h"

namespace Kavio {
namespace Vidora {

namespace {
const int INTERLEAVE_HEADER_SIZE = 4;
const int MIN_INTERLEAVED_FRAME = 5;
}  // namespace

void* CSvrSessionCore::operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return Ostra::NewPages(size);
}

void CSvrSessionCore::operator delete(void* memory, std::size_t size) noexcept {
    Ostra::DeletePages(memory, size);
}

CSvrSessionCore::CSvrSessionCore() {
    void* space = m_recv_space;
    std::size_t room = sizeof(m_recv_space);
    m_recv_buffer = static_cast<char*>(std::align(BUFFER_PAGE, RTSP_BUF_LEN + 1, space, room));
    m_recv_buffer[0] = '\0';
    init_rtsp_states(m_machine, this);
}

void CSvrSessionCore::SetConfig(const CRtspSvrConfig& config) {
    m_config = config;
    m_event_func = config.GetEventFunc();
}

int CSvrSessionCore::parse_request() {
    if (m_recv_len > RTSP_BUF_LEN) {
        logError("%s:%d, parse_request parameter invalid.\n", __FILE__, __LINE__);
        return -1;
    }
    const int received = m_recv_len;
    m_recv_buffer[received] = '\0';
    char* cursor = m_recv_buffer;
    bool messages = false;
    while (m_recv_len != 0) {
        const bool interleaved = *cursor == '$';
        const int taken = interleaved ? parse_interleaved(cursor) : take_message(cursor);
        if (taken < 0) {
            return -1;
        }
        if (taken == 0 && interleaved) {
            // The frame isn't whole. Its bytes stay where they are, and the next read goes behind m_recv_len bytes of
            // the buffer's start all the same: a frame that was cut by a read is completed only if it stands at the
            // start. Kept: clients send their few reports one in a write, and the order of these steps is fixed.
            return 0;
        }
        if (taken == 0) {
            break;
        }
        messages = messages || !interleaved;
        cursor += taken;
        m_recv_len -= taken;
    }
    if (m_recv_len == 0) {
        empty_buffer(received, messages);
    } else {
        memmove(m_recv_buffer, cursor, static_cast<size_t>(m_recv_len));
    }
    return m_recv_len;
}

// Zeroes the `used` bytes of the buffer. A session that streams is quiet for seconds: it gives that page back, and what
// its last message left in others.
void CSvrSessionCore::empty_buffer(int used, bool messages) {
    memset(m_recv_buffer, 0, static_cast<size_t>(used));
    if (!m_streaming) {
        return;
    }
    Ostra::ForgetPages(m_recv_buffer, RTSP_BUF_LEN);
    if (messages && m_machine.forget_events()) {
        m_rsp_parser.forget_texts();  // a reply that is awaited is made of them
    }
}

// One frame of RFC 2326 10.12: the bytes that it takes, or 0 if it isn't whole.
int CSvrSessionCore::parse_interleaved(char* cursor) {
    if (m_recv_len < MIN_INTERLEAVED_FRAME) {
        return 0;
    }
    CByteReader reader(cursor, static_cast<size_t>(m_recv_len));
    reader.Skip(1);
    const int channel = reader.ReadU8();
    const unsigned int length = reader.ReadU16();
    const unsigned char* data = reader.ReadBytes(length);
    if (!reader.Ok()) {
        return 0;
    }
    on_interleaved(data, length, channel);
    return static_cast<int>(length) + INTERLEAVE_HEADER_SIZE;
}

// One message: the bytes that it takes, 0 if it isn't whole, negative if the session has to end.
int CSvrSessionCore::take_message(char* cursor) {
    rtsp_msg_info info;
    const int size = m_rsp_parser.check_message(cursor, static_cast<unsigned int>(m_recv_len), &info);
    if (size == RTSP_INCOMPLETE) {
        return 0;
    }
    if (size < 0) {
        logError("%s:%d ret:%d recv_buf:%s\n", __FILE__, __LINE__, size, cursor);
        return -1;
    }
    CSockAddrStorage peer;
    if (m_gate.Guards()) {
        GetPeer(peer);
    }
    const int passed = m_gate.Check(info, cursor, size, peer);
    if (passed < 0) {
        logError("%s:%d recv_buf:%s, check_authority ret -1\n", __FILE__, __LINE__, cursor);
        return -1;
    }
    if (passed > 0 && !m_machine.put_rx_event(info, cursor, static_cast<uint32_t>(size), 0)) {
        logError("%s:%d, putevent failed, recv_buf=%s.\n", __FILE__, __LINE__, cursor);
        return -1;
    }
    return size;
}

bool CSvrSessionCore::PassRequest(const rtsp_msg_info& info, const char* text, unsigned int length) {
    return m_machine.put_rx_event(info, text, length, 0);
}

bool CSvrSessionCore::SendChallenge(const char* request, unsigned int length, const char* challenge) {
    m_rsp_parser.parse_request(request, length, nullptr);  // for its CSeq
    return m_machine.put_tx_event(EVENT_KIND_AUTH, m_rsp_parser.generate_auth_reply(challenge), 0, 0);
}

// Reports of the client are taken in and have no effect: not even a BYE (RFC 3550 6.6) ends anything.
void CSvrSessionCore::on_interleaved(const unsigned char* data, unsigned int length, int channel) {
    const int index = channel / 2;
    if (index >= m_tracks.Count() || !m_tracks.At(index).reports) {
        return;
    }
    CRtcpParser parser(m_tracks.At(index).ssrc);
    parser.ParseData(data, &length, true);
    int count = 0;
    const rtcp_pack* packets = parser.get_packets(&count);
    for (int i = 0; i < count; ++i) {
        if (packets[i].common.pt == CRtcpParser::RTCP_TYPE_BYE) {
            logTrace("%s:%d RTCP BYE on channel %d, this:%p\n", __FILE__, __LINE__, channel, static_cast<void*>(this));
        }
    }
}

// Every operation of the machine begins with this reading of its request. 0 or negative.
int CSvrSessionCore::parse_event(const StateEvent& event) {
    rtsp_msg_info info = event.info();
    return m_rsp_parser.parse_request(event.text(), event.length, &info);
}

int CSvrSessionCore::refuse_parse(const StateEvent& event) {
    logError("%s:%d, parse data failed., data=%s.\n", __FILE__, __LINE__, event.text());
    return -1;
}

int CSvrSessionCore::on_options(const StateEvent& event) {
    if (parse_event(event) < 0) {
        return -1;
    }
    send_text(m_rsp_parser.generate_options_reply());
    return 0;
}

// Failures of delivery come back as MSG_SOCK_EXCEPTION and not here: always 0.
int CSvrSessionCore::send_data(const char* text, int length) {
    SendText(text, length);
    return 0;
}

// Null sends nothing.
int CSvrSessionCore::send_text(const char* text) {
    return text == nullptr ? 0 : send_data(text, static_cast<int>(strlen(text)));
}

int CSvrSessionCore::send_error(int status) {
    return send_text(m_rsp_parser.generate_error_reply(status));
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

void CSvrSessionCore::give_address_event(event_type_t event) {
    if (m_event_func == nullptr) {
        return;
    }
    char text[64];
    m_peer_addr.GetIpStr(text, sizeof(text));
    m_event_func(event, text, static_cast<int>(strlen(text)));
}

}  // namespace Vidora
}  // namespace Kavio
