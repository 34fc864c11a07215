// The transport stream decoder behind its factory. First byte: destination; then packets of 188 bytes, the last one
// shorter.
#include <algorithm>

#include "DecoderOutput.h"
#include "StreamParser/TsTable.h"

using namespace Kavio;
using namespace Kavio::Vidora;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Fuzz::Quiet();
    Ostra::CByteReader input(data, size);
    const int dst_type = Fuzz::Destination(input.ReadU8());
    const CStreamParserPtr parser = CStreamParser::Create(STREAM_TYPE_TS, dst_type);
    int balance = 0;
    while (input.Remaining() > 0) {
        const size_t len = std::min<size_t>(input.Remaining(), TS_PACK_LEN);
        const uint8_t* packet = input.ReadBytes(len);
        const int ret = Fuzz::Decode(*parser, Fuzz::Bytes(packet, packet + len), dst_type, balance);
        Fuzz::Require(len == TS_PACK_LEN || ret == PARSER_FAILED);
    }
    return 0;
}
