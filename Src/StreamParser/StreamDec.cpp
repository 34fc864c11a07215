#include "StreamParser/StreamDec.h"

#include <new>

#include "StreamParser/StreamDecRtp.h"
#include "StreamParser/StreamDecTs.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

namespace {

bool is_destination(int dst_type) {
    return dst_type == STREAM_TYPE_RAW_FRAME || dst_type == STREAM_TYPE_PRIVATE_FRAME || dst_type == STREAM_TYPE_RTP;
}

template <typename T>
CStreamParserPtr make(int src_type, int dst_type) {
    try {
        const std::shared_ptr<T> parser = std::make_shared<T>(src_type, dst_type);
        parser->Publish();
        return parser;
    } catch (const std::bad_alloc&) {
        return CStreamParserPtr();
    }
}

}  // namespace

CStreamParserPtr CStreamDec::Create(int src_type, int dst_type) {
    if (src_type != STREAM_TYPE_RTP && src_type != STREAM_TYPE_TS) {
        logError("CStreamDec::Create src_type[%s] unsupported!\n", stream_type_name(src_type));
        return CStreamParserPtr();
    }
    if (!is_destination(dst_type)) {
        logError("CStreamDec::Create dst_type[%s] unsupported!\n", stream_type_name(dst_type));
        return CStreamParserPtr();
    }
    logInfo("CStreamDec::Create [%s] -> [%s]\n", stream_type_name(src_type), stream_type_name(dst_type));
    return src_type == STREAM_TYPE_RTP ? make<CStreamDecRtp>(src_type, dst_type)
                                       : make<CStreamDecTs>(src_type, dst_type);
}

int CStreamDec::GetStatis(ParserStatis& statis) {
    statis.bit_rate = m_statis.bit_rate;
    statis.fps = m_statis.fps;
    return PARSER_OK;
}

Flumen::CMediaFrame CStreamDec::put_out(const Flumen::CMediaFrame* packets, size_t count) {
    Flumen::CMediaFrame out;
    if (m_dst_type != STREAM_TYPE_RTP) {
        out = build_frame(describe_frame());
        go_on();
        return out;
    }
    if (m_output_index < count) {
        out = packets[m_output_index];
        hand_back(out, describe_frame(), m_output_index == 0);
        ++m_output_index;
    }
    if (m_output_index >= count) {
        go_on();
    }
    return out;
}

Flumen::CMediaFrame CStreamDec::build_frame(const DecodedFrame& decoded) {
    show_size(decoded);
    if (decoded.size == 0) {
        return Flumen::CMediaFrame();
    }
    Flumen::CMediaFrame frame =
        m_dst_type == STREAM_TYPE_PRIVATE_FRAME ? build_private(decoded) : take_payload(decoded.size);
    if (!frame.valid()) {
        logError("CStreamDecRtp::Output frame alloc failed!\n");  // one text for both decoders
        return frame;
    }
    set_facts(frame, decoded, m_sequence);
    count_frame(frame);
    return frame;
}

void CStreamDec::hand_back(Flumen::CMediaFrame& packet, const DecodedFrame& decoded, bool first) {
    set_facts(packet, decoded, first ? m_sequence : m_sequence - 1);
    if (first) {
        show_size(decoded);
        count_frame(packet);
    }
}

Flumen::CMediaFrame CStreamDec::build_private(const DecodedFrame& decoded) {
    fill_header(decoded);
    uint32_t offset = 0;
    const uint32_t frame_len = m_frame.GetFrameSize(decoded.size, offset);
    Flumen::CMediaFrame frame(frame_len);
    if (!frame.valid() || read_payload(frame.getBuffer() + offset, decoded.size) != decoded.size ||
        m_frame.WriteFrame(frame.getBuffer(), frame_len) != 0) {
        return Flumen::CMediaFrame();
    }
    return frame;
}

Flumen::CMediaFrame CStreamDec::take_payload(uint32_t size) {
    Flumen::CMediaFrame frame(size);
    if (!frame.valid() || read_payload(frame.getBuffer(), size) != size) {
        return Flumen::CMediaFrame();
    }
    return frame;
}

void CStreamDec::fill_header(const DecodedFrame& decoded) {
    constexpr int MAX_RATE = 255;
    // The rate as it was measured, cut to a whole number; a key frame in front of the first measure has what it was
    // configured with.
    int rate = decoded.fallback_rate;
    if (m_statis.fps > 0) {
        rate = m_statis.fps < static_cast<float>(MAX_RATE) ? static_cast<int>(m_statis.fps) : MAX_RATE;
    }
    m_frame.SetFrameType(decoded.type);
    m_frame.SetSubType(decoded.sub_type);
    m_frame.SetChannel(decoded.channel);
    m_frame.SetSequence(m_sequence);
    m_frame.SetDateTime(CTime::getCurrentTime().makeTime());
    m_frame.SetTimeStamp(static_cast<uint16_t>(decoded.pts));  // its low 16 bits
    m_frame.SetEncodeType(decoded.encode_code);
    m_frame.SetImageType(decoded.image_type);
    m_frame.SetImageSize(decoded.width, decoded.height);
    m_frame.SetFrameRate(static_cast<uint8_t>(rate));
    m_frame.SetAudioInfo(decoded.audio_channels, decoded.sample_rate_code);
}

void CStreamDec::set_facts(Flumen::CMediaFrame& frame, const DecodedFrame& decoded, uint32_t sequence) const {
    frame.setType(decoded.type);
    frame.setPts(decoded.pts, Flumen::PTS_TYPE_MS);
    frame.setUtc(static_cast<double>(CTime::getCurrentTime().makeTime()));
    frame.setSequence(static_cast<int>(sequence));
    frame.setChannel(decoded.channel);
}

void CStreamDec::count_frame(const Flumen::CMediaFrame& frame) {
    m_statis.Count(frame.getPts(Flumen::PTS_TYPE_MS), frame.size(), static_cast<int32_t>(m_sequence));
    ++m_sequence;
    m_shown_fps = m_statis.fps;
    m_shown_bit_rate = m_statis.bit_rate;
}

void CStreamDec::show_size(const DecodedFrame& decoded) {
    m_shown_width = decoded.width;
    m_shown_height = decoded.height;
}

void CStreamDec::print_measures() const {
    R3Printf(">>> SIZE[%dx%d] FPS[%.2f] BitRate: %.2f kbps\n", static_cast<int>(m_shown_width),
             static_cast<int>(m_shown_height), static_cast<double>(m_shown_fps),
             static_cast<double>(m_shown_bit_rate) / 1000);
}

}  // namespace Vidora
}  // namespace Kavio
