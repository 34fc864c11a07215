// What a multicast client's socket gives it. First byte: 0 a transport stream, otherwise the encode type of a track of
// RTP; then datagrams, each behind two bytes with its length, the last one shorter.
#include "FuzzSupport.h"
#include "MulticastTrack.h"

using namespace Kavio;
using namespace Kavio::Vidora;

void Fuzz::Target(const uint8_t* data, size_t size) {
    Ostra::CByteReader input(data, size);
    multicast_track_info_t info;
    info.encode = input.ReadU8() % (ENC_TYPE_AUDIO + 1);
    info.sample_rate = 8000;
    const CMulticastTrack::frame_proc_t on_frame([](const Flumen::CMediaFrame& frame) { Require(HeaderFits(frame)); });
    const std::shared_ptr<CMulticastTrack> track =
        info.encode == ENC_TYPE_NONE ? CMulticastTrack::CreateTs(on_frame) : CMulticastTrack::CreateRtp(on_frame, info);
    uint64_t count = 0;
    while (input.Remaining() > 2) {
        const size_t length = input.ReadU16();
        const Bytes datagram = ReadBytes(input, length);
        track->Take(datagram.data(), static_cast<unsigned int>(datagram.size()));
        Require(track->Dropped() <= ++count);
    }
}
