// The reader of JFIF images and the cutter behind it: what is read lies inside the image, and the packets put together
// are the scan, each with its offset (RFC 2435).
#include <algorithm>

#include "FuzzSupport.h"
#include "StreamParser/JpegTables.h"
#include "StreamParser/RtpCutJpeg.h"
#include "Vidora/JpegParser.h"

using namespace Kavio;
using namespace Kavio::Vidora;

namespace {

void check_packets(const CRtpPacketList& list, const JpegImage& image) {
    Fuzz::Bytes scan;
    const RtpPacketNode* node = list.Head();
    for (uint32_t i = 0; i < list.Count(); ++i, node = node->next) {
        const size_t offset = node->fixed[1] << 16 | node->fixed[2] << 8 | node->fixed[3];
        Fuzz::Require(offset == scan.size() && node->fixed_len == (image.restart_interval != 0 ? 12u : 8u));
        Fuzz::Require(node->iov_count == (i == 0 ? 3u : 0u) && node->Size() <= 1440 && node->body_len > 0);
        Fuzz::Bytes bytes(node->Size());
        Ostra::CByteWriter writer(bytes.data(), bytes.size());
        node->Write(writer);
        Fuzz::Require(writer.Ok() && writer.Offset() == bytes.size());
        scan.insert(scan.end(), bytes.end() - static_cast<long>(node->body_len), bytes.end());
    }
    Fuzz::Require(scan.size() == image.scan_len && std::equal(scan.begin(), scan.end(), image.scan));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Fuzz::Quiet();
    JpegImage image;
    CRtpPacketList list;
    unsigned char quant_header[JPEG_QUANT_HEADER_LEN];
    const int count = rtp_cut_jpeg(data, static_cast<uint32_t>(size), quant_header, list);
    if (!jpeg_parse(data, size, image)) {
        Fuzz::Require(count == -1);
        return 0;
    }
    const auto inside = [&](const unsigned char* part, size_t len) {
        return part >= data && len <= size && part <= data + (size - len);
    };
    Fuzz::Require(inside(image.luma_table, JPEG_TABLE_LEN) && inside(image.chroma_table, JPEG_TABLE_LEN));
    Fuzz::Require(inside(image.scan, image.scan_len));
    Fuzz::Require(count == static_cast<int>(list.Count()) && count > 0);
    check_packets(list, image);
    return 0;
}
