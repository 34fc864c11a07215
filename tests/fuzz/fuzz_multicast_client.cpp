// What a multicast client's socket gives it. First byte: 0 a transport stream, otherwise the encode type of a track of
// RTP; then datagrams, each behind two bytes with its length, the last one shorter.
#include <algorithm>

#include "FuzzSupport.h"
#include "MulticastTrack.h"
#include "Vidora/KXFrame.h"

using namespace Kavio;
using namespace Kavio::Vidora;

namespace {

// Frames have a header that fits them.
void on_frame(const Flumen::CMediaFrame& frame) {
    KXHeader header;
    Fuzz::Require(kx_read_header(frame.getBuffer(), frame.size(), header) && header.total_length == frame.size() &&
                  header.checksum == kx_header_checksum(frame.getBuffer()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Fuzz::Quiet();
    Ostra::CByteReader input(data, size);
    multicast_track_info_t info;
    info.encode = input.ReadU8() % (ENC_TYPE_AUDIO + 1);
    info.sample_rate = 8000;
    const std::shared_ptr<CMulticastTrack> track = info.encode == ENC_TYPE_NONE
                                                       ? CMulticastTrack::CreateTs(&on_frame)
                                                       : CMulticastTrack::CreateRtp(&on_frame, info);
    uint64_t count = 0;
    while (input.Remaining() > 2) {
        const size_t length = std::min<size_t>(input.ReadU16(), input.Remaining());
        const Fuzz::Bytes datagram(data + size - input.Remaining(), data + size - input.Remaining() + length);
        input.Skip(length);
        track->Take(datagram.data(), static_cast<unsigned int>(length));
        Fuzz::Require(track->Dropped() <= ++count);
    }
    return 0;
}
