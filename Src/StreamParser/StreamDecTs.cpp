#include "StreamParser/StreamDecTs.h"

#include <new>

#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

namespace {

constexpr uint8_t FALLBACK_RATE = 25;

uint8_t encode_code(int kind) {
    const int code = kx_code_of_kind(kind);
    if (code < 0) {
        logError("%s:%d unsported encode_type:%d\n", __FILE__, __LINE__, kind);
        return 0;
    }
    return static_cast<uint8_t>(code);
}

}  // namespace

CStreamDecTs::CStreamDecTs(int src_type, int dst_type)
    : CStreamDec(src_type, dst_type), m_ts2frame(new (std::nothrow) Ts2Frame) {}

CStreamDecTs::~CStreamDecTs() {
    Withdraw();
    Clean();
}

int CStreamDecTs::InputFrame(const Flumen::CMediaFrame& frame) {
    if (m_ts2frame == nullptr) {
        logError("%s:%d \n", __FILE__, __LINE__);
        return PARSER_NO_ENGINE;
    }
    if (m_status > FRAME_MORE) {
        logError("%s:%d \n", __FILE__, __LINE__);
        return PARSER_NOT_TAKEN;
    }
    m_status = m_ts2frame->PutPacket(frame.getBuffer(), static_cast<int>(frame.size()), false);
    if (m_status < FRAME_MORE) {
        Clean();
        return PARSER_FAILED;
    }
    if (m_status > FRAME_MORE) {
        if (!OSTRA_ASSERT(m_status == 2)) {  // no packet is ever said to be the last of its frame
            Clean();
            return PARSER_FAILED;
        }
        m_last = frame;
        return PARSER_FRAME_READY;
    }
    if (m_dst_type == STREAM_TYPE_RTP && !keep_packet(frame)) {
        Clean();
        return PARSER_FAILED;
    }
    return PARSER_OK;
}

bool CStreamDecTs::keep_packet(const Flumen::CMediaFrame& packet) {
    if (m_packets.size() >= MAX_PACKETS) {
        return false;
    }
    try {
        m_packets.push_back(packet);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

Flumen::CMediaFrame CStreamDecTs::OutputFrame() {
    if (m_ts2frame == nullptr || m_status <= FRAME_MORE) {
        // At debug level: whoever takes frames until there is none comes here after each.
        logDebug("frame not complete.\n");
        return Flumen::CMediaFrame();
    }
    return put_out(m_packets.data(), m_packets.size());
}

DecodedFrame CStreamDecTs::describe_frame() const {
    DecodedFrame decoded;
    decoded.size = m_ts2frame->GetFrameSize();
    decoded.type = m_ts2frame->GetFrameType();
    decoded.pts = m_ts2frame->GetPts();
    decoded.encode_code = encode_code(m_ts2frame->GetKind());
    decoded.image_type = static_cast<uint8_t>(m_ts2frame->GetInterlace());
    decoded.width = m_ts2frame->GetWidth();
    decoded.height = m_ts2frame->GetHeight();
    decoded.fallback_rate = FALLBACK_RATE;
    return decoded;
}

uint32_t CStreamDecTs::read_payload(unsigned char* buffer, uint32_t capacity) {
    return m_ts2frame->GetFrame(buffer, capacity);
}

Flumen::CMediaFrame CStreamDecTs::take_payload(uint32_t) {
    return m_ts2frame->TakeFrame();
}

void CStreamDecTs::go_on() {
    const Flumen::CMediaFrame kept = m_last;
    Clean();
    InputFrame(kept);
}

void CStreamDecTs::Clean() {
    if (m_ts2frame != nullptr) {
        m_ts2frame->Clear();
    }
    m_packets.clear();
    m_last = Flumen::CMediaFrame();
    m_output_index = 0;
    m_status = FRAME_MORE;
}

void CStreamDecTs::PrintInfo() {
    print_head(m_src_type, m_dst_type);
    print_measures();
}

}  // namespace Vidora
}  // namespace Kavio
