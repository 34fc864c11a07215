// The transport stream decoder behind its factory. First byte: destination; then packets of 188 bytes, the last one
// shorter.
#include <algorithm>

#include "FuzzRecords.h"
#include "StreamParser/StreamParser.h"
#include "StreamParser/TsTable.h"
#include "Vidora/KXFrame.h"

using namespace Kavio;
using namespace Kavio::Vidora;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Fuzz::Quiet();
    Ostra::CByteReader input(data, size);
    static const int DESTINATIONS[] = {STREAM_TYPE_RAW_FRAME, STREAM_TYPE_PRIVATE_FRAME, STREAM_TYPE_RTP};
    const int dst_type = DESTINATIONS[input.ReadU8() % 3];
    const CStreamParserPtr parser = CStreamParser::Create(STREAM_TYPE_TS, dst_type);
    while (input.Remaining() > 0) {
        const unsigned int len = static_cast<unsigned int>(std::min<size_t>(input.Remaining(), TS_PACK_LEN));
        Flumen::CMediaFrame packet(len);
        packet.resize(0);
        packet.putBuffer(input.ReadBytes(len), len);
        const int ret = parser->InputFrame(packet);
        Fuzz::Require(ret == PARSER_OK || ret == PARSER_FRAME_READY || ret == PARSER_FAILED);
        Fuzz::Require(len == TS_PACK_LEN || ret == PARSER_FAILED);
        int taken = 0;
        for (Flumen::CMediaFrame frame = parser->OutputFrame(); frame.valid(); frame = parser->OutputFrame()) {
            Fuzz::Require(++taken < 100000);
            KXHeader header;
            Fuzz::Require(
                dst_type != STREAM_TYPE_PRIVATE_FRAME ||
                (kx_read_header(frame.getBuffer(), frame.size(), header) && header.total_length == frame.size()));
        }
    }
    return 0;
}
