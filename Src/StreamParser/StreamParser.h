#ifndef VIDORA_STREAMPARSER_STREAMPARSER_H
#define VIDORA_STREAMPARSER_STREAMPARSER_H

#include <cstdint>
#include <memory>

#include "StreamParser/ObjectCount.h"
#include "StreamParser/ParserStatis.h"
#include "Vidora/Flumen/MediaFrame.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

// Forms of a media stream: the source and destination types of CStreamParser::Create.
enum stream_type_t {
    STREAM_TYPE_RTP = 1,            // RTP packets (RFC 3550), bare or behind a 4-byte interleave header
    STREAM_TYPE_TS = 2,             // MPEG-2 transport stream
    STREAM_TYPE_PS = 3,             // MPEG-2 program stream
    STREAM_TYPE_PRIVATE = 4,        // the private stream; no converter takes it
    STREAM_TYPE_RAW_FRAME = 5,      // a bare frame: payload only
    STREAM_TYPE_PRIVATE_FRAME = 6,  // a frame in the private format, see KXFrame.h
    STREAM_TYPE_FRAME_AUTO = 7      // a frame in either form; a leading magic decides
};

// Results of InputFrame; 1 also of all that a converter doesn't serve.
enum parser_result_t {
    PARSER_OK = 0,             // taken, no frame complete yet
    PARSER_UNSUPPORTED = 1,    // this converter doesn't have the operation
    PARSER_NO_ENGINE = 2,      // the converter has no inner engine
    PARSER_NO_DATA = 3,        // the frame has no data
    PARSER_FAILED = 4,         // the data could not be converted; the state was cleaned
    PARSER_NOT_TAKEN = 5,      // the TS decoder still holds an untaken frame
    PARSER_FRAME_READY = 1000  // taken; OutputFrame has something to return
};

// The names that logs and the console show; "Unknown" for a value without one.
const char* stream_type_name(int stream_type);
const char* enc_type_name(int enc_type);

// What an RTP decoder has to know of its track.
struct RtpDecParam {
    int32_t enc_type = ENC_TYPE_NONE;
    uint8_t payload_type = 0;      // the RTP payload type that is taken
    uint8_t channel = 0;           // channel number of the frames put out
    uint8_t kx_encode_type = 0;    // encode code for the private header
    uint8_t rate_or_channels = 0;  // video: frame rate where none can be measured; audio: channel count
    uint8_t sample_rate_code = 0;  // code of KXFrame.h; 0 or above 9 is replaced by 2
    uint32_t clock_rate = 0;       // RTP ticks a second; 0: those of the code
    // H.264: sequence and picture parameter set, without start codes. MPEG-4: config1 is the configuration block. Read
    // during SetParam only.
    const unsigned char* config1 = nullptr;
    int32_t config1_len = 0;
    const unsigned char* config2 = nullptr;
    int32_t config2_len = 0;
    uint8_t drop_damaged = 0;  // not 0: a frame with a lost packet isn't put out
};

// Bit 0 of RtpEncParam::flags: the first packet of each frame carries the header extension.
constexpr uint32_t RTP_FLAG_EXTENSION = 1;
// Bit 1: each NAL unit of H.264 is sent as one of its own (RFC 6184 5.2).
constexpr uint32_t RTP_FLAG_NAL_UNITS = 2;
// Bit 2: sound as RFC 3551 4.1 has it: no packet has the marker, which would begin a talkspurt.
constexpr uint32_t RTP_FLAG_NO_MARKER = 4;
constexpr int RTP_EXTENSION_LEN = 16;

struct RtpEncParam {
    int32_t enc_type = ENC_TYPE_NONE;
    uint8_t payload_type = 0;
    uint16_t sequence = 0;   // of the next packet
    uint32_t timestamp = 0;  // of the next frame
    uint32_t ssrc = 0;
    uint32_t clock_rate = 90000;  // ticks a second
    uint32_t flags = 0;
    uint32_t bytes_per_tick = 0;  // not 0: each packet has the time of its own first byte; 0: that of its frame
    uint8_t extension[RTP_EXTENSION_LEN] = {};  // profile, length in words, contents (RFC 3550 5.3.1), as sent
};

struct TsEncParam {
    int32_t video_enc_type = ENC_TYPE_NONE;
    int32_t audio_enc_type = ENC_TYPE_NONE;
    int32_t packets_per_output = 7;  // TS packets in one output
    uint8_t video_only = 0;          // not 0: the tables name no second track
    uint8_t counted_tables = 0;      // not 0: tables have numbers of packet and version; see CFrame2Ts
    uint8_t over_rtp = 0;            // not 0: RtpEncParam begins RTP headers (RFC 2250 2) in front of the outputs
};

struct PsEncParam {
    int32_t video_enc_type = ENC_TYPE_NONE;
    int32_t audio_enc_type = ENC_TYPE_NONE;
    int32_t max_pes_length = 8000;  // frame bytes in one PES packet
    int32_t bit_rate = 0;           // bits a second
};

// How an encoder puts its packets out.
struct RtpOverTcpParam {
    int32_t use_header = 0;   // not 0: each packet follows its 4-byte interleave header (RFC 2326 10.12)
    uint8_t dollar = '$';     // first byte of that header
    uint8_t channel = 0;      // its second byte
    uint8_t merge_frame = 0;  // not 0: all packets of a frame come out in one piece
};

class CStreamParser;
typedef std::shared_ptr<CStreamParser> CStreamParserPtr;

// CStreamParser: changes the form of a media stream.
//
// Decoders turn packets into frames, encoders frames into packets. Order of use: Create; SetParam with the blocks that
// apply; then for each input InputFrame, and while it returns PARSER_FRAME_READY, OutputFrame until that returns an
// empty frame. Clean at a seek or any other break of the stream. Bad data never throws: its result is a code and a log
// line, and the next input starts afresh.
//
// The base operations log that they aren't supported and return PARSER_UNSUPPORTED, an empty frame, or nothing.
//
// THREADING  No lock: one thread at a time. PrintInfo alone may run on any thread while the object is published; it
//            shows figures that may be a moment old.
class CStreamParser : public CObjectCount<CStreamParser> {
public:
    // A converter for the pair of stream_type_t:
    //     1 RTP        -> 1 RTP packets back, 5 bare frame, 6 private frame
    //     2 TS         -> 1 TS packets back, 5 bare frame, 6 private frame
    //     7 frame auto -> 1 RTP, 2 TS, 3 PS
    // Null, with a log line, for any other pair, or if memory is short.
    static CStreamParserPtr Create(int src_type, int dst_type);

    // Takes one packet, run of packets or frame; a parser_result_t. The converter may hold on to its bytes (a shared
    // handle) until the output has been taken.
    virtual int InputFrame(const Flumen::CMediaFrame& frame);
    // The next frame or packet, or an empty frame.
    virtual Flumen::CMediaFrame OutputFrame();
    // Forgets what has come in and isn't put out.
    virtual void Clean();
    // Parameters; 0, or PARSER_UNSUPPORTED.
    virtual int SetParam(const RtpDecParam& param);
    virtual int SetParam(const PsEncParam& param);
    virtual int SetParam(const TsEncParam& param);
    virtual int SetParam(const RtpEncParam& param);
    virtual int SetParam(const RtpOverTcpParam& param);
    // The running RTP state in place: ssrc, payload_type, the next sequence, the running timestamp, clock_rate; the
    // other fields of `param` stay as they are.
    virtual int GetParam(RtpEncParam& param);
    // Fills bit_rate and fps of `statis`, and nothing else.
    virtual int GetStatis(ParserStatis& statis);
    // Prints the converter's state to the console.
    virtual void PrintInfo();
    // No input follows for the frame in work: one that is whole without more comes out. PARSER_FRAME_READY, or
    // PARSER_OK if there is none; the base knows of none.
    virtual int EndInput() { return PARSER_OK; }

protected:
    // The lines that every PrintInfo begins with.
    static void print_head(int src_type, int dst_type);
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_STREAMPARSER_H
