#ifndef VIDORA_STREAMPARSER_TS2FRAME_H
#define VIDORA_STREAMPARSER_TS2FRAME_H

#include <cstdint>

#include "Ostra/LogGate.h"
#include "StreamParser/FrameResult.h"
#include "StreamParser/TsDemux.h"
#include "Vidora/Flumen/MediaFrame.h"
#include "Vidora/Ostra/ByteReader.h"
#include "Vidora/StartCode.h"

namespace Kavio {
namespace Vidora {

// Ts2Frame: rebuilds the frames of the first track of a transport stream.
//
// A frame begins with a PES packet; packets in front of the first one, or behind a Clear, are left out. It ends with a
// packet that is put with `last` set (the marker bit, if the stream comes in RTP), or where a PES packet begins the
// next picture: parameter sets and further slices may come in PES packets of their own. A frame's time stamp is the
// last program clock reference, not the PES one.
//
// MEMORY     One buffer at most, in which the frame in work grows up to MAX_FRAME_LEN and which TakeFrame hands over.
//            It has the size that the PES packet tells, or else that of the largest frame so far, and FIRST_LEN at
//            least.
// THREADING  No lock: one thread at a time.
class Ts2Frame {
public:
    static constexpr uint32_t MAX_FRAME_LEN = 2 * 1024 * 1024;  // a frame that gets longer fails
    static constexpr uint32_t FIRST_LEN = 64 * 1024;

    Ts2Frame() = default;
    Ts2Frame(const Ts2Frame&) = delete;
    Ts2Frame& operator=(const Ts2Frame&) = delete;

    // Takes one packet of `len` bytes, which must be TS_PACK_LEN. `last`: it ends the frame. A frame_result_t; after
    // FRAME_COMPLETE or FRAME_COMPLETE_NEXT take the frame and Clear, after FRAME_FAILED Clear.
    int PutPacket(const unsigned char* packet, int len, bool last);

    // Bytes of the frame in work.
    uint32_t GetFrameSize() const { return m_frame_len; }
    // They stay until the next PutPacket or TakeFrame; null before the first one.
    const unsigned char* GetData() const { return m_data; }
    // Copies the frame into `buffer` of `capacity` bytes. Its size; 0 if it doesn't fit.
    uint32_t GetFrame(unsigned char* buffer, uint32_t capacity) const;
    // Hands the frame over, with no bytes left here: its memory, or a copy if a good part of that is empty. An empty
    // frame if there are no bytes or memory is short.
    Flumen::CMediaFrame TakeFrame();
    // Milliseconds.
    uint64_t GetPts() const { return m_frame_pts; }
    // The letter (frame_type_t) of the frame that was completed last.
    int GetFrameType() const { return m_frame_type; }
    // Of the last key frame whose size could be read; 0 before.
    uint16_t GetWidth() const { return m_width; }
    uint16_t GetHeight() const { return m_height; }
    // stream_kind_t of the frame that was completed last.
    int GetKind() const { return m_kind; }
    // 1 if the H.264 stream may hold field-coded pictures, 0 if not; 1 until that is known.
    int GetInterlace() const { return m_interlace; }
    const TsProgramTable& GetTable() const { return m_demux.table; }

    // Drops the frame in work. Tables, clock and picture size stay.
    void Clear();

private:
    void expect(uint32_t told);
    bool reserve(uint32_t len);
    bool resize(uint32_t capacity);
    void hold(Flumen::CMediaFrame&& buffer);
    inline bool append_plain(const unsigned char* packet);
    int put_media(const unsigned char* packet, bool last);
    bool begin_pes(bool opens);
    bool opens_picture(Ostra::CByteReader payload) const;
    bool opens_picture_by_code(Ostra::CByteReader& payload) const;
    bool is_rest() const;
    int append_payload(const unsigned char* payload, uint32_t len);
    uint32_t skip_pes_header(const unsigned char* payload, uint32_t len);
    inline void append(const Ostra::CByteReader& bytes);
    void find_picture(uint32_t from);
    int finish_frame(int result);
    int decode_frame();
    void decode_h264();
    void decode_mpeg4();
    void decode_mpeg2();
    void set_size(uint32_t width, uint32_t height);
    int track_kind() const { return m_demux.table.tracks[0].kind; }
    void begin_frame();

    TsDemuxState m_demux;

    // The frame in work.
    Flumen::CMediaFrame m_buffer;
    unsigned char* m_data = nullptr;  // its bytes, and how many of them there are
    uint32_t m_capacity = 0;
    uint32_t m_frame_len = 0;
    uint32_t m_largest = FIRST_LEN;  // what the largest frame so far took, and some more
    uint32_t m_pes_skip = 0;         // bytes of a PES header still to skip
    uint32_t m_plain_head = 0;       // that of the last packet if more like it can be appended as they are
    uint64_t m_frame_pts = 0;
    bool m_complete = false;           // it was told
    bool m_in_frame = false;           // its first packet has been seen
    bool m_joined = true;              // nothing is known of what came before it
    size_t m_picture = NO_START_CODE;  // where its first picture or slice begins

    // What is known of the last frame that was completed.
    int m_kind = STREAM_KIND_NONE;
    int m_frame_type = 0;
    uint16_t m_width = 0;
    uint16_t m_height = 0;
    int m_interlace = 1;

    // What a peer can cause with each packet.
    Ostra::CLogGate m_demux_log;
    Ostra::CLogGate m_dec_log;
    Ostra::CLogGate m_kind_log;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_TS2FRAME_H
