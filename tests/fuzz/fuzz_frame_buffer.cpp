// The frame buffer in its three inputs: RTP by a description, private frames, private frames in pieces. First byte:
// input (low 2 bits), frame mode, frame policy, codec (3 bits), runs or single packets. Records as in FuzzSupport.h.

#include "FuzzSupport.h"
#include "MediaFrame.h"
#include "RtspClient/SdpInfoAccess.h"
#include "Vidora/RtpFrameBuffer.h"

using namespace Kavio;
using namespace Kavio::Vidora;

namespace {

enum input_t { INPUT_RTP = 0, INPUT_PRIVATE = 1, INPUT_PIECES = 2 };

const int CHANNEL_COUNT = 4;  // 0 video, 1 audio, 2 assist, 3 unknown

// A session's view of a description with three tracks on the channels 0, 1 and 2.
struct View {
    View(int codec, packet_type_t type) {
        static const char* const NAMES[] = {"H264", "MP4V-ES", "JPEG", "MP2T", "other", "h264", "mpeg4", "H264"};
        const std::string text = std::string("m=video 0 RTP/AVP 96\r\na=rtpmap:96 ") + NAMES[codec & 7] +
                                 "/90000\r\na=fmtp:96 sprop-parameter-sets=Z0LAHtoCgL5A,aM48gA==;config=000001b0\r\n"
                                 "a=control:v\r\nm=audio 0 RTP/AVP 96\r\na=rtpmap:96 PCMA/8000\r\na=control:a\r\n"
                                 "m=application 0 RTP/AVP 0\r\na=control:x\r\n";
        sdp.Parse(text.c_str(), 0);
        const sdp_info_track tracks[] = {{1, 0, false}, {2, 1, false}, {3, 2, false}};
        Fuzz::Require(CSdpInfoAccess::Fill(info, &sdp, tracks, 3, type) == 0);
    }
    CSdpParser sdp;
    CSdpInfo info;
};

class CTarget {
public:
    explicit CTarget(uint8_t settings) : m_input(settings & 3), m_mode(settings >> 2 & 1) {
        m_buffer.SetFrameMode(m_mode);
        m_buffer.SetFramePolicy(settings >> 3 & 1);
        const View view(settings >> 4, m_input == INPUT_PRIVATE ? PACKET_TYPE_KX : PACKET_TYPE_RTP);
        CSdpInfo info = view.info;
        Fuzz::Require(m_buffer.Init(m_input < INPUT_PIECES ? &info : nullptr, 0, 0) == 0);
    }

    void Put(const Fuzz::Bytes& bytes) {
        CMediaFrame packet(Fuzz::MakeFrame(bytes));
        const int result = m_buffer.Put(&packet, static_cast<int>(bytes.size()));
        Fuzz::Require(result >= -1 && result <= 1);
        if (result == 1) {
            take();
        }
    }
    void Clear() { m_buffer.Clear(); }
    void End() {
        const int result = m_buffer.End(0);  // of the first two channels
        Fuzz::Require(result == 0 || result == 1);
        if (result == 1) {
            take();
        }
    }

private:
    void take() {
        int taken = 0;
        for (Flumen::CMediaFrame frame = m_buffer.Get(); frame.valid(); frame = m_buffer.Get()) {
            Fuzz::Require(++taken < 1000 && frame.size() > 0);
            Fuzz::Require(m_input != INPUT_RTP || m_mode != 0 || Fuzz::HeaderFits(frame));
        }
    }

    const int m_input;
    const int m_mode;
    CRtpFrameBuffer m_buffer;
};

}  // namespace

void Fuzz::Target(const uint8_t* data, size_t size) {
    Ostra::CByteReader input(data, size);
    CTarget target(input.ReadU8());
    const bool in_runs = (input.ReadU8() & 1) != 0;
    Fuzz::RtpSender senders[CHANNEL_COUNT];
    Fuzz::Record record;
    Fuzz::Bytes run;
    while (input.Remaining() > 0) {
        const uint8_t channel = input.ReadU8();
        if (!Fuzz::ReadRecord(input, record)) {
            break;
        }
        if (channel == 0xFF) {
            target.Clear();
        } else if (channel == 0xFE) {
            target.End();
        }
        record.control |= (channel & 0x10) == 0 ? 0x40 : 0;  // an interleave header, nearly always
        Fuzz::Bytes packet = senders[channel % CHANNEL_COUNT].Make(record);
        if ((record.control & 0xC0) == 0x40) {
            packet[1] = channel % CHANNEL_COUNT;
        }
        run = run + packet;
        if (!in_runs || (record.control & 0x48) != 0x40) {
            target.Put(run);
            run.clear();
        }
    }
}
