#include "StreamParser/RtpCut.h"

#include <algorithm>

#include "Vidora/H264Parser.h"
#include "Vidora/Ostra/ByteWriter.h"
#include "Vidora/StartCode.h"

namespace Kavio {
namespace Vidora {

namespace {

constexpr uint32_t FU_HEADER_LEN = 2;
constexpr uint32_t FU_BODY_LEN = RTP_MAX_PAYLOAD - FU_HEADER_LEN;

// The packet that was added, or null.
RtpPacketNode* append_body(const unsigned char* body, uint32_t len, CRtpPacketList& list) {
    RtpPacketNode* node = list.Append();
    if (node != nullptr) {
        node->body = body;
        node->body_len = len;
    }
    return node;
}

// FU-A (RFC 6184 5.8): the NAL unit's header byte is told by the two bytes in front of each fragment.
bool append_fragments(const unsigned char* nal, uint32_t len, CRtpPacketList& list) {
    const auto indicator = static_cast<unsigned char>((nal[0] & 0xE0) | H264_NAL_FU_A);
    const auto type = static_cast<unsigned char>(h264_nal_type(nal[0]));
    for (uint32_t offset = 1; offset < len; offset += FU_BODY_LEN) {
        const uint32_t body_len = std::min(len - offset, FU_BODY_LEN);
        RtpPacketNode* node = append_body(nal + offset, body_len, list);
        if (node == nullptr) {
            return false;
        }
        unsigned char header = type;
        if (offset == 1) {
            header |= H264_FU_START;
        }
        if (offset + body_len == len) {
            header |= H264_FU_END;
        }
        node->fixed[0] = indicator;
        node->fixed[1] = header;
        node->fixed_len = FU_HEADER_LEN;
    }
    return true;
}

bool append_nal(const unsigned char* nal, size_t len, CRtpPacketList& list) {
    if (len == 0) {
        return true;  // two start codes in a row
    }
    const auto size = static_cast<uint32_t>(len);
    return size <= RTP_MAX_PAYLOAD ? append_body(nal, size, list) != nullptr : append_fragments(nal, size, list);
}

bool is_slice(unsigned char header) {
    return h264_nal_type(header) == H264_NAL_SLICE || h264_nal_type(header) == H264_NAL_IDR;
}

// RFC 6184 5.2: types 0 and 24 to 31 stand for packets of other kinds, so that no unit with them can be sent as it is.
bool has_packet_type(unsigned char header) {
    return h264_nal_type(header) > 0 && h264_nal_type(header) < H264_NAL_STAP_A;
}

// The next start code with a NAL header byte behind it.
size_t next_nal(const unsigned char* data, size_t len, size_t from) {
    return len > START_CODE4_LEN ? find_start_code4(data, len - 1, from) : NO_START_CODE;
}

bool cut_nals(const unsigned char* data, size_t len, CRtpPacketList& list) {
    size_t at = next_nal(data, len, 0);
    if (at == NO_START_CODE) {
        return true;
    }
    if (is_slice(data[at + START_CODE4_LEN])) {
        // A frame that opens with its slice: all behind the first four bytes, wherever the start code was.
        return append_nal(data + START_CODE4_LEN, len - START_CODE4_LEN, list);
    }
    size_t start = at + START_CODE4_LEN;
    while ((at = next_nal(data, len, start)) != NO_START_CODE) {
        if (!append_nal(data + start, at - start, list)) {
            return false;
        }
        start = at + START_CODE4_LEN;
        if (is_slice(data[start])) {
            break;
        }
    }
    return append_nal(data + start, len - start, list);
}

}  // namespace

int rtp_cut_plain(const unsigned char* data, uint32_t len, CRtpPacketList& list) {
    list.Clear();
    for (uint32_t offset = 0; offset < len; offset += RTP_MAX_PAYLOAD) {
        if (append_body(data + offset, std::min(len - offset, RTP_MAX_PAYLOAD), list) == nullptr) {
            return -1;
        }
    }
    return static_cast<int>(list.Count());
}

int rtp_cut_h264(const unsigned char* data, uint32_t len, CRtpPacketList& list) {
    list.Clear();
    return cut_nals(data, len, list) ? static_cast<int>(list.Count()) : -1;
}

int rtp_cut_nal_units(const unsigned char* data, uint32_t len, CRtpPacketList& list) {
    list.Clear();
    size_t code = find_start_code3(data, len);
    while (code != NO_START_CODE) {
        const size_t start = code + START_CODE3_LEN;
        code = find_start_code3(data, len, start);
        size_t end = code == NO_START_CODE ? len : code;
        while (end > start && data[end - 1] == 0) {
            --end;  // a longer start code, or padding: no NAL unit ends with a zero
        }
        if (end > start && has_packet_type(data[start]) && !append_nal(data + start, end - start, list)) {
            return -1;
        }
    }
    return static_cast<int>(list.Count());
}

int rtp_cut_mpeg_audio(const unsigned char* data, uint32_t len, unsigned char headers[MPEG_AUDIO_HEADERS_LEN],
                       CRtpPacketList& list) {
    constexpr uint32_t PIECE = RTP_MAX_PAYLOAD - MPEG_AUDIO_HEADER_LEN;
    list.Clear();
    if (len > PIECE * MPEG_AUDIO_MAX_FRAGMENTS) {
        return -1;
    }
    Ostra::CByteWriter writer(headers, MPEG_AUDIO_HEADERS_LEN);
    for (uint32_t offset = 0; offset < len; offset += PIECE) {
        const unsigned char* header = headers + writer.Offset();
        writer.WriteU16(0);
        writer.WriteU16(static_cast<uint16_t>(offset));
        RtpPacketNode* node = append_body(data + offset, std::min(len - offset, PIECE), list);
        if (node == nullptr || !node->AddIov(header, MPEG_AUDIO_HEADER_LEN)) {
            return -1;
        }
    }
    return static_cast<int>(list.Count());
}

}  // namespace Vidora
}  // namespace Kavio
