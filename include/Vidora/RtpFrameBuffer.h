#ifndef VIDORA_RTPFRAMEBUFFER_H
#define VIDORA_RTPFRAMEBUFFER_H

#include <cstdint>

#include "Vidora/Export.h"
#include "Vidora/Flumen/MediaFrame.h"

namespace Kavio {

namespace Tramel {
class CMediaPacket;
}

namespace Vidora {

using Tramel::CMediaPacket;

class CSdpInfo;
class CRtpFrameBufferCore;

// What CRtpFrameBuffer::GetStatis reports of one kind of track.
struct TFrameBufferStatis {
    int32_t packet_type = 0;  // packet_type_t of the session
    uint64_t received = 0;    // packets (private kind: frames) that followed the one before
    uint64_t lost = 0;        // at each gap, the distance from the last number to the next one
    uint64_t bit_rate = 0;    // bits a second of the frames put out, rounded
};

// CRtpFrameBuffer: makes whole frames of the packets that a client session receives. It lies between the session's
// CMediaBuffer and its user: RTP packets behind interleave headers (RFC 2326 10.12) or private frames go in, frames
// come out. It finds out the frame rate if nobody sets it, and repairs time stamps so that audio and video stay
// together.
//
//     CRtpFrameBuffer buffer;
//     buffer.Init(session->GetSdpInfo(), 0, 0);
//     ... in the Put of a sink of the session's media buffer:
//     if (buffer.Put(packet, length) == 1) {
//         for (Flumen::CMediaFrame frame = buffer.Get(); frame.valid(); frame = buffer.Get()) ...
//     }
//
// THREADING  No lock: one thread at a time, usually the one that puts.
// OWNERSHIP  A copy, and a buffer that is assigned to, shares the contents of the other, as with CSdpInfo; the last one
//            ends them. Nothing is borrowed between the calls: Init copies what it needs of the description.
// MEMORY     At most 8 MiB of packets for each track, or 16 MiB of a private frame in pieces, of the frames in work,
//            and 4 frames held back while the rate is measured.
class VIDORA_API CRtpFrameBuffer {
public:
    CRtpFrameBuffer();
    CRtpFrameBuffer(const CRtpFrameBuffer& other);
    CRtpFrameBuffer& operator=(const CRtpFrameBuffer& other);
    ~CRtpFrameBuffer();

    // Once, before the first Put; the mode is set before. `sdp` may be null: what comes is then RTP that carries
    // private frames in pieces. The two numbers are ignored. 0, or -1, with a log line, if the description has neither
    // audio nor video, or memory is short.
    int Init(CSdpInfo* sdp, int reserved1, int reserved2);
    // Takes the first `length` bytes of `packet`: one RTP packet behind its interleave header, or a run of them that
    // belong to one frame; for the private kind a frame, or its 6-byte header, which is dropped. The packet is lent for
    // the call. 1: a frame is ready, call Get until it returns an empty one. 0: taken. -1: refused; a block for a
    // channel that the description doesn't have, or one that isn't media; what was taken before stays.
    int Put(CMediaPacket* packet, int length);
    // A track has ended, see CLevel2Buffer_IF::End: its last frame comes out, unless the sender marks the ends of its
    // frames and this one has none. As Put: 1 or 0.
    int End(int channel);
    // The next frame, or an empty one. A private frame of mode 0 begins with the header of KXFrame.h; the facts of the
    // frame (type, sequence, time stamp, channel) are set in any case, except for a private session in mode 1.
    Flumen::CMediaFrame Get();
    // Forgets frames in work, at a seek or another break of the stream. Frames held back for the rate stay.
    void Clear();

    // 0: frames leave as private frames (see KXFrame.h), the default; other: bare, as the codec has them. Before Init.
    void SetFrameMode(int mode);
    // 1, the default: time stamps are repaired. 0: the frame rate is measured and written into key frames as well; the
    // first frames are held back for it.
    void SetFramePolicy(int policy);
    // Frames a second, if known; 0 to measure it.
    void SetFrameRate(int rate);
    // Fills both; nothing without a description.
    void GetStatis(TFrameBufferStatis& video, TFrameBufferStatis& audio);

private:
    friend class CRtspClientBuffer;

    // The last Put met damaged media.
    bool was_damaged() const;

    CRtpFrameBufferCore* m_core;  // shared and counted; null when memory was short
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTPFRAMEBUFFER_H
