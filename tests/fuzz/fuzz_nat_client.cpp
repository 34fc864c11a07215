// What the socket of a NAT client's receiver gives it. First byte: bits 0-1 the number of tracks, bit 2 the payload
// type of the first one isn't known, bit 3 RTCP is dropped; then datagrams, each behind two bytes with its length, the
// last one shorter.
#include <memory>

#include "FuzzSupport.h"
#include "Nat/NatHello.h"
#include "Nat/P2PUdpReceiver.h"
#include "Protocol/RtspParser.h"
#include "RtpRun.h"
#include "Vidora/Tramel/Level2Buffer.h"

using namespace Kavio;
using namespace Kavio::Vidora;

namespace {

const int PAYLOAD_TYPE = 96;  // of the first track, and one more for each behind it

// Runs are whole RTP packets behind headers of a channel of the first two tracks.
class CRunSink : public Tramel::CLevel2Buffer_IF {
public:
    int Put(CMediaPacket* packet, int length, int, int) override {
        const size_t size = static_cast<size_t>(length);
        Ostra::CByteReader run(reinterpret_cast<const unsigned char*>(packet->GetData()), size);
        interleaved_unit_t unit;
        size_t used = 0;
        while (ReadInterleavedUnit(run, unit)) {
            Fuzz::Require(unit.length >= 12 && (unit.channel == 0 || unit.channel == 2));
            used += Tramel::INTERLEAVE_HEADER_SIZE + unit.length;
        }
        Fuzz::Require(used == size && size > 0);
        return 0;
    }
};

void on_text(const char* text, int length) {
    const std::string_view message(text, static_cast<size_t>(length));
    Fuzz::Require(message.size() <= RTSP_MAX_MESSAGE && message[0] == 'R' && text[length] == '\0');
    Fuzz::Require(!IsNatHello(message, NAT_SERVER_HELLO));
}

}  // namespace

void Fuzz::Target(const uint8_t* data, size_t size) {
    Ostra::CByteReader input(data, size);
    const uint8_t setting = input.ReadU8();
    receiver_tracks_t tracks;
    tracks.count = 1 + (setting & 3);
    for (int i = 0; i < tracks.count; ++i) {
        tracks.tracks[i].rtp_channel = static_cast<uint8_t>(2 * i);
        tracks.tracks[i].rtcp_channel = static_cast<uint8_t>(2 * i + 1);
        tracks.tracks[i].payload_type = static_cast<int16_t>(i == 0 && (setting & 4) != 0 ? -1 : PAYLOAD_TYPE + i);
        tracks.tracks[i].enc_type = i == 0 ? ENC_TYPE_H264 : ENC_TYPE_AUDIO;
    }
    CRunSink sink;
    CMediaBuffer buffer;
    buffer.AddLevel2Buffer(&sink);
    CP2PUdpReceiver* receiver =
        CP2PUdpReceiver::Create(std::make_shared<CSockDgram>(), CSockAddrStorage(), (setting & 8) == 0, 0);
    receiver->SetTracks(tracks);
    receiver->SetMediaBuffer(&buffer);
    receiver->SetProcs(CStreamReceiver::rtcp_proc_t(), CStreamReceiver::rtsp_proc_t(&on_text));
    while (input.Remaining() > 2) {
        const size_t length = input.ReadU16();
        Bytes datagram = ReadBytes(input, length);
        datagram.push_back(0xff);  // that is the room for a NUL, and perhaps another datagram's
        Require(receiver->Take({datagram.data(), static_cast<unsigned int>(datagram.size() - 1)}) == 0);
        Require(datagram.back() == 0xff);
    }
    receiver->handle_close(receiver);
}
