// The reader of JFIF images and the cutter behind it: what is read lies inside the image, and the packets put together
// are the scan, each with its offset (RFC 2435).
#include "FuzzSupport.h"
#include "StreamParser/JpegTables.h"
#include "StreamParser/RtpCutJpeg.h"
#include "Vidora/JpegParser.h"

using namespace Kavio;
using namespace Kavio::Vidora;

void Fuzz::Target(const uint8_t* data, size_t size) {
    JpegImage image;
    CRtpPacketList list;
    unsigned char quant_header[JPEG_QUANT_HEADER_LEN];
    const int count = rtp_cut_jpeg(data, static_cast<uint32_t>(size), quant_header, list);
    if (!jpeg_parse(data, size, image)) {
        Require(count == -1);
        return;
    }
    const auto inside = [&](const unsigned char* part, size_t len) {
        return part >= data && len <= size && part <= data + (size - len);
    };
    Require(inside(image.luma_table, JPEG_TABLE_LEN) && inside(image.chroma_table, JPEG_TABLE_LEN));
    Require(inside(image.scan, image.scan_len) && count == static_cast<int>(list.Count()) && count > 0);
    Bytes scan;
    for (const RtpPacketNode& node : list) {
        const size_t offset = node.fixed[1] << 16 | node.fixed[2] << 8 | node.fixed[3];
        Require(offset == scan.size() && node.Size() <= 1440 && node.body_len > 0);
        Bytes bytes(node.Size());
        Ostra::CByteWriter writer(bytes.data(), bytes.size());
        node.Write(writer);
        Require(writer.Ok() && writer.Offset() == bytes.size());
        scan.insert(scan.end(), bytes.end() - static_cast<long>(node.body_len), bytes.end());
    }
    Require(scan == Bytes(image.scan, image.scan + image.scan_len));
}
