// The RTP decoder behind its factory. First byte: encode type, bit 7 to drop damaged frames; second: destination.
#include "DecoderOutput.h"

using namespace Kavio;
using namespace Kavio::Vidora;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Fuzz::Quiet();
    Ostra::CByteReader input(data, size);
    const uint8_t settings = input.ReadU8();
    const int dst_type = Fuzz::Destination(input.ReadU8());
    const CStreamParserPtr parser = CStreamParser::Create(STREAM_TYPE_RTP, dst_type);
    RtpDecParam param;
    param.enc_type = settings & 0x0F;
    param.payload_type = 96;
    param.drop_damaged = settings >> 7;
    param.rate_or_channels = 25;
    parser->SetParam(param);

    Fuzz::RtpSender sender;
    Fuzz::Record record;
    int balance = 0;
    Fuzz::Bytes run;  // packets behind interleave headers go in together, up to a marker
    while (Fuzz::ReadRecord(input, record)) {
        const Fuzz::Bytes packet = sender.Make(record);
        run.insert(run.end(), packet.begin(), packet.end());
        if ((record.control & 0x48) != 0x40) {
            Fuzz::Decode(*parser, run, dst_type, balance);
            run.clear();
        }
    }
    return 0;
}
