#include "StreamParser/RtpCutJpeg.h"

#include <algorithm>

#include "StreamParser/JpegTables.h"
#include "StreamParser/RtpCut.h"
#include "Vidora/JpegParser.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

namespace {

constexpr uint8_t JPEG_TYPE_420 = 1;
constexpr uint8_t JPEG_TYPE_RESTART = 64;  // added when restart markers are in use
constexpr uint8_t JPEG_Q_IN_BAND = 128;    // the tables travel in the first packet
constexpr uint32_t MAX_OFFSET = 0xFFFFFF;  // the main header has 24 bits for it
constexpr uint16_t TABLES_LEN = 2 * JPEG_TABLE_LEN;

// What a packet's room for scan data is reduced by: in every packet what a main and a restart header take, in the first
// one the tables too. The first part is taken off whether there is a restart header or not; with it a packet is full.
constexpr uint32_t EVERY_PACKET_COST = 12;
constexpr uint32_t TABLES_COST = JPEG_QUANT_HEADER_LEN + TABLES_LEN;

// A side in units of 8 samples.
uint8_t eighths(uint16_t side) {
    return static_cast<uint8_t>(side >= 2048 ? 255 : side / 8);
}

//  main header     type-specific (8) | fragment offset (24) | type (8) | Q (8) | width / 8 (8) | height / 8 (8)
//  restart header  interval (16) | F L and count (16)
uint32_t write_headers(const JpegImage& image, uint32_t offset, unsigned char* fixed) {
    const bool restart = image.restart_interval != 0;
    CByteWriter writer(fixed, RtpPacketNode::FIXED_SIZE);
    writer.WriteU8(0);
    writer.WriteU24(offset);
    writer.WriteU8(restart ? JPEG_TYPE_420 | JPEG_TYPE_RESTART : JPEG_TYPE_420);
    writer.WriteU8(JPEG_Q_IN_BAND);
    writer.WriteU8(eighths(image.width));
    writer.WriteU8(eighths(image.height));
    if (restart) {
        writer.WriteU16(image.restart_interval);
        writer.WriteU16(0xFFFF);  // first and last bit set, count 0x3FFF: whole frames are reassembled (3.1.7)
    }
    return static_cast<uint32_t>(writer.Offset());
}

//  quantisation header  MBZ (8) | precision (8) | length (16) | tables
bool append_tables(const JpegImage& image, unsigned char* quant_header, RtpPacketNode& node) {
    CByteWriter writer(quant_header, JPEG_QUANT_HEADER_LEN);
    writer.WriteU8(0);
    writer.WriteU8(0);
    writer.WriteU16(TABLES_LEN);
    return node.AddIov(quant_header, JPEG_QUANT_HEADER_LEN) && node.AddIov(image.luma_table, JPEG_TABLE_LEN) &&
           node.AddIov(image.chroma_table, JPEG_TABLE_LEN);
}

int cut_scan(const JpegImage& image, unsigned char* quant_header, CRtpPacketList& list) {
    for (uint32_t offset = 0; offset < image.scan_len;) {
        RtpPacketNode* node = list.Append();
        if (node == nullptr || (offset == 0 && !append_tables(image, quant_header, *node))) {
            return -1;
        }
        const uint32_t room = RTP_MAX_PAYLOAD - EVERY_PACKET_COST - (offset == 0 ? TABLES_COST : 0);
        node->fixed_len = write_headers(image, offset, node->fixed);
        node->body = image.scan + offset;
        node->body_len = std::min(image.scan_len - offset, room);
        offset += node->body_len;
    }
    return static_cast<int>(list.Count());
}

}  // namespace

int rtp_cut_jpeg(const unsigned char* data, uint32_t len, unsigned char quant_header[JPEG_QUANT_HEADER_LEN],
                 CRtpPacketList& list) {
    list.Clear();
    if (data == nullptr || quant_header == nullptr) {
        logError("%s;%d, INVALID PARAMETER.\n", __FILE__, __LINE__);
        return -1;
    }
    JpegImage image;
    if (!jpeg_parse(data, len, image) || image.scan_len > MAX_OFFSET) {
        logError("%s;%d, parse jpeg failed.\n", __FILE__, __LINE__);
        return -1;
    }
    return cut_scan(image, quant_header, list);
}

}  // namespace Vidora
}  // namespace Kavio
