#include "StreamParser/RtpJpegRule.h"

#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteReader.h"
#include "Vidora/Ostra/ByteWriter.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

namespace {

constexpr uint8_t TYPE_MASK = 0x3F;
constexpr uint8_t TYPE_RESTART = 0x40;  // a restart header follows
constexpr uint8_t TYPE_420 = 1;
constexpr uint8_t Q_IN_BAND = 128;    // from here on the tables travel in the stream
constexpr uint8_t Q_PER_FRAME = 255;  // the tables belong to this frame only
constexpr uint16_t BLOCK = 8;         // sizes count in blocks of this many pixels

void write_quantiser(CByteWriter& writer, uint8_t index, const uint8_t* table) {
    writer.WriteU16(JPEG_MARKER | JPEG_DQT);
    writer.WriteU16(JPEG_TABLE_LEN + 3);
    writer.WriteU8(index);
    writer.WriteBytes(table, JPEG_TABLE_LEN);
}

// id, sampling factors, quantisation table
void write_component(CByteWriter& writer, uint8_t id, uint8_t sampling, uint8_t table) {
    writer.WriteU8(id);
    writer.WriteU8(sampling);
    writer.WriteU8(table);
}

void write_scan_header(CByteWriter& writer) {
    writer.WriteU16(JPEG_MARKER | JPEG_SOS);
    writer.WriteU16(12);
    writer.WriteU8(3);
    writer.WriteU16(0x0100);  // component 1: tables 0
    writer.WriteU16(0x0211);
    writer.WriteU16(0x0311);
    writer.WriteU24(0x003F00);  // the whole spectrum, no approximation
}

}  // namespace

// The main header of each packet (RFC 2435 3.1):
//     type-specific, fragment offset (3), type, Q, width / 8, height / 8
// then a restart header of four bytes if bit 6 of the type says so, and in the first packet the quantisation tables.
struct CRtpJpegRule::Header {
    uint32_t offset = 0;
    uint8_t type = 0;
    uint8_t q = 0;
    uint8_t width = 0;
    uint8_t height = 0;
    bool has_restart = false;
    uint16_t restart_interval = 0;
};

// The packet with the first byte of the scan; the fragment offset says which that is.
bool CRtpJpegRule::CanBegin(const RtpHeader& packet, bool) const {
    CByteReader payload(packet.payload, packet.payload_len);
    payload.Skip(1);
    return payload.ReadU24() == 0;
}

int CRtpJpegRule::Make() {
    while (RtpPacketNode* node = m_work.NextNode()) {
        CByteReader payload(node->raw, node->raw_len);
        Header header;
        if (!read_header(payload, header)) {
            return -1;
        }
        if (m_work.done == 1) {
            if (!read_tables(payload, header) || !write_image_header(header)) {
                return -1;
            }
            m_work.SetConfigPrefix();
            m_work.width = static_cast<uint16_t>(header.width * BLOCK);
            m_work.height = static_cast<uint16_t>(header.height * BLOCK);
        }
        node->body = payload.Rest();
        node->body_len = static_cast<uint32_t>(payload.Remaining());
    }
    m_work.frame_type = FRAME_TYPE_JPEG;  // each picture is a key frame
    return FRAME_COMPLETE;
}

bool CRtpJpegRule::read_header(CByteReader& payload, Header& header) {
    const uint8_t specific = payload.ReadU8();
    header.offset = payload.ReadU24();
    const uint8_t type = payload.ReadU8();
    header.type = type & TYPE_MASK;
    header.q = payload.ReadU8();
    header.width = payload.ReadU8();
    header.height = payload.ReadU8();
    header.has_restart = (type & TYPE_RESTART) != 0;
    if (header.has_restart) {
        header.restart_interval = payload.ReadU16();
        payload.Skip(2);
    }
    return payload.Ok() && specific == 0 && header.type <= TYPE_420;
}

// Settles m_tables for the frame. Below 128 they are made from Q. From 128 on they are in the packet that has
// the first byte of the scan; a sender may leave them out again while a Q below 255 stays (RFC 2435 3.1.8).
bool CRtpJpegRule::read_tables(CByteReader& payload, const Header& header) {
    uint8_t* const luma = m_tables;
    uint8_t* const chroma = m_tables + JPEG_TABLE_LEN;
    if (header.q < Q_IN_BAND) {
        jpeg_make_quantisers(header.q, luma, chroma);
        m_q = 0;
        return true;
    }
    uint16_t len = 0;
    if (header.offset == 0) {
        payload.Skip(1);
        const uint8_t precision = payload.ReadU8();
        len = payload.ReadU16();
        if (!payload.Ok() || precision != 0) {
            return false;
        }
    }
    if (len == 0) {
        return m_q == header.q && header.q != Q_PER_FRAME;
    }
    CByteReader tables = payload.SubReader(len);
    if (!payload.Ok() || (len != JPEG_TABLE_LEN && len != 2 * JPEG_TABLE_LEN)) {
        return false;
    }
    CByteReader only = tables;
    tables.Read(luma, JPEG_TABLE_LEN);
    (len == JPEG_TABLE_LEN ? only : tables).Read(chroma, JPEG_TABLE_LEN);  // one table serves for both
    m_q = header.q;
    return true;
}

// Makes the image's header in the configuration.
bool CRtpJpegRule::write_image_header(const Header& header) {
    CByteWriter writer(m_work.config.bytes, RtpCodecConfig::SIZE);
    writer.WriteU16(JPEG_MARKER | JPEG_SOI);
    write_quantiser(writer, 0, m_tables);
    write_quantiser(writer, 1, m_tables + JPEG_TABLE_LEN);
    writer.WriteU16(JPEG_MARKER | JPEG_SOF0);
    writer.WriteU16(17);
    writer.WriteU8(8);  // bits a sample
    writer.WriteU16(static_cast<uint16_t>(header.height * BLOCK));
    writer.WriteU16(static_cast<uint16_t>(header.width * BLOCK));
    writer.WriteU8(3);
    write_component(writer, 1, header.type == TYPE_420 ? 0x22 : 0x21, 0);
    write_component(writer, 2, 0x11, 1);
    write_component(writer, 3, 0x11, 1);
    writer.WriteBytes(JPEG_HUFFMAN_SEGMENTS, JPEG_HUFFMAN_LEN);
    if (header.has_restart) {
        writer.WriteU16(JPEG_MARKER | JPEG_DRI);
        writer.WriteU16(4);
        writer.WriteU16(header.restart_interval);
    }
    write_scan_header(writer);
    m_work.config.len = static_cast<uint32_t>(writer.Offset());
    return writer.Ok();
}

}  // namespace Vidora
}  // namespace Kavio
