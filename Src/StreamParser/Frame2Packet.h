#ifndef VIDORA_STREAMPARSER_FRAME2PACKET_H
#define VIDORA_STREAMPARSER_FRAME2PACKET_H

#include <cstdint>

namespace Kavio {
namespace Vidora {

// IFrame2Packet: cuts one frame at a time into packets.
//
// Use: PutFrame, then while GetPacketSize is above 0: GetPacket, NextPacket. A new PutFrame drops what wasn't fetched.
//
// THREADING  No lock: one thread at a time.
class IFrame2Packet {
public:
    virtual ~IFrame2Packet() = default;

    // Takes a frame of `len` bytes and of an enc_type_t; `pts` in milliseconds; `extra` is the assist type of an assist
    // frame and of no meaning otherwise. The bytes are borrowed: they must stay until the last packet is fetched. 0, or
    // -1 with no packets, and with a log line unless there are no bytes at all.
    virtual int PutFrame(const unsigned char* data, unsigned int len, int enc_type, uint64_t pts, uint8_t extra) = 0;
    // Number of packets of the frame.
    virtual int GetPacketCount() = 0;
    // Bytes of the current packet, 0 if there is none.
    virtual int GetPacketSize() = 0;
    // Writes the current packet into `buffer` of `capacity` bytes. Its size; 0 if there is none or it doesn't fit.
    virtual int GetPacket(unsigned char* buffer, unsigned int capacity) = 0;
    // Moves on to the next packet. 0, or -1 at the end.
    virtual int NextPacket() = 0;
    // Bytes of all packets still to come, the current one included.
    virtual int GetTotalSize() = 0;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_FRAME2PACKET_H
