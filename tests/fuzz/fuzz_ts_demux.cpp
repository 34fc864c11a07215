// The transport stream demultiplexer and the frames that it rebuilds: packets of 188 bytes, each behind a byte whose
// bit 0 says that the packet ends its frame.
#include "FuzzSupport.h"
#include "StreamParser/Ts2Frame.h"

using namespace Kavio;
using namespace Kavio::Vidora;

namespace {

void check_packet(TsDemuxState& state, const unsigned char* packet) {
    const int ret = ts_demux(state, packet);
    Fuzz::Require(state.table.track_count >= 0 && state.table.track_count <= TS_MAX_TRACKS);
    Fuzz::Require(state.table.program_count >= 0 && state.table.program_count <= 1);
    Fuzz::Require(state.table.pmt_pid >= -1 && state.table.pmt_pid < 0x2000);
    Fuzz::Require(state.packet.payload_offset >= 4 && state.packet.payload_offset <= TS_PACK_LEN);
    Fuzz::Require(!state.is_media || (ret == TS_DEMUX_OK && state.track >= 0 && state.track < state.table.track_count));
    Fuzz::Require(state.pcr_ms <= (uint64_t{1} << 33) / 90);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Fuzz::Quiet();
    Ostra::CByteReader input(data, size);
    TsDemuxState state;
    Ts2Frame in;
    size_t fed = 0;
    while (input.Remaining() > TS_PACK_LEN) {
        const bool last = (input.ReadU8() & 1) != 0;
        const uint8_t* bytes = input.ReadBytes(TS_PACK_LEN);
        const Fuzz::Bytes packet(bytes, bytes + TS_PACK_LEN);  // of its exact size
        check_packet(state, packet.data());
        for (int round = 0; round < 2; ++round) {
            fed += TS_PACK_LEN;
            const int ret = in.PutPacket(packet.data(), TS_PACK_LEN, last);
            Fuzz::Require(ret != FRAME_COMPLETE || last);
            Fuzz::Require(in.GetFrameSize() <= fed);
            if (ret > FRAME_MORE) {
                Fuzz::Bytes frame(in.GetFrameSize());
                in.GetFrame(frame.data(), in.GetFrameSize());
            }
            if (ret != FRAME_MORE) {
                in.Clear();
                fed = 0;
            }
            if (ret != FRAME_COMPLETE_NEXT) {
                break;
            }
            Fuzz::Require(round == 0);
        }
    }
    return 0;
}
