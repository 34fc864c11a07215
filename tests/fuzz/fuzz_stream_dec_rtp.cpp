// The RTP decoder behind its factory. First byte: encode type, bit 7 to drop damaged frames; second: destination.
#include "FuzzRecords.h"
#include "StreamParser/StreamParser.h"
#include "Vidora/KXFrame.h"

using namespace Kavio;
using namespace Kavio::Vidora;

namespace {

Flumen::CMediaFrame make_frame(const std::vector<uint8_t>& bytes) {
    Flumen::CMediaFrame frame(static_cast<unsigned int>(bytes.size()));
    frame.resize(0);
    frame.putBuffer(bytes.data(), static_cast<unsigned int>(bytes.size()));
    return frame;
}

void check_frame(const Flumen::CMediaFrame& frame, int dst_type) {
    Fuzz::Require(frame.size() > 0);
    if (dst_type == STREAM_TYPE_PRIVATE_FRAME) {
        KXHeader header;
        Fuzz::Require(kx_read_header(frame.getBuffer(), frame.size(), header));
        Fuzz::Require(header.total_length == frame.size());
        Fuzz::Require(kx_header_checksum(frame.getBuffer()) == header.checksum);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Fuzz::Quiet();
    Ostra::CByteReader input(data, size);
    const uint8_t settings = input.ReadU8();
    static const int DESTINATIONS[] = {STREAM_TYPE_RAW_FRAME, STREAM_TYPE_PRIVATE_FRAME, STREAM_TYPE_RTP};
    const int dst_type = DESTINATIONS[input.ReadU8() % 3];
    const CStreamParserPtr parser = CStreamParser::Create(STREAM_TYPE_RTP, dst_type);
    RtpDecParam param;
    param.enc_type = settings & 0x0F;
    param.payload_type = 96;
    param.drop_damaged = settings >> 7;
    param.rate_or_channels = 25;
    parser->SetParam(param);

    Fuzz::RtpSender sender;
    Fuzz::Record record;
    std::vector<uint8_t> run;  // packets behind interleave headers go in together, up to a marker
    while (Fuzz::ReadRecord(input, record)) {
        const std::vector<uint8_t> packet = sender.Make(record);
        run.insert(run.end(), packet.begin(), packet.end());
        if ((record.control & 0x48) == 0x40) {
            continue;
        }
        const int ret = parser->InputFrame(make_frame(run));
        run.clear();
        Fuzz::Require(ret == PARSER_OK || ret == PARSER_FRAME_READY || ret == PARSER_FAILED);
        int taken = 0;
        for (Flumen::CMediaFrame frame = parser->OutputFrame(); frame.valid(); frame = parser->OutputFrame()) {
            check_frame(frame, dst_type);
            Fuzz::Require(++taken < 100000);
        }
    }
    return 0;
}
