#include "Clip.h"

#include <algorithm>

#include "FileBytes.h"
#include "FrameCursor.h"
#include "Unpacker.h"
#include "Vidora/JpegParser.h"
#include "Vidora/KXFrame.h"
#include "Vidora/Mpeg4Parser.h"
#include "Vidora/Ostra/ByteReader.h"
#include "Vidora/StartCode.h"

using Kavio::Ostra::CByteReader;
using namespace Kavio::Vidora;

namespace {

const size_t G711_BLOCK = 320;  // 40 ms at 8 kHz
const double G711_BLOCK_MS = 40.0;
const int G711_RATE = 8000;
const double LONE_FRAME_MS = 40.0;  // how long a recording of one frame lasts
const int MAX_JPEG_SIDE = 2040;     // RFC 2435 3.1.5: eight bits count eights
const char B_PICTURES[] =
    "has B pictures, whose times a raw stream does not carry: give them in an .mp4, .mkv, .ts or .kav file, or encode "
    "without them";

// An MPEG audio frame header (ISO 11172-3 2.4.1.3), layer II.
struct AudioHeader {
    size_t size = 0;
    int sample_rate = 0;
    double duration_ms = 0.0;
};

bool read_audio_header(const unsigned char* data, size_t size, AudioHeader& header) {
    static const int RATES[2][3] = {{22050, 24000, 16000}, {44100, 48000, 32000}};
    static const int KBITS[2][16] = {{0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0},
                                     {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384, 0}};
    CByteReader reader(data, size);
    const uint32_t word = reader.ReadU32();
    const bool is_layer2 = (word >> 21) == 0x7FF && (word >> 20 & 1) == 1 && (word >> 17 & 3) == 2;
    const int mpeg1 = static_cast<int>(word >> 19 & 1);
    const int kbits = KBITS[mpeg1][word >> 12 & 15];
    const unsigned rate_index = word >> 10 & 3;
    if (!reader.Ok() || !is_layer2 || kbits == 0 || rate_index == 3) {
        return false;
    }
    header.sample_rate = RATES[mpeg1][rate_index];
    header.size = static_cast<size_t>(144 * kbits * 1000 / header.sample_rate) + (word >> 9 & 1);
    header.duration_ms = 1152.0 * 1000.0 / header.sample_rate;
    return header.size <= size;
}

// By the coding type, the first two bits behind a VOP's start code (ISO 14496-2 6.3.5).
int vop_letter(unsigned char byte) {
    return "IPBP"[byte >> 6];
}

// Of a whole picture, by its first slice.
int h264_letter(const unsigned char* data, size_t size) {
    for (const NalUnit& nal : SplitNalUnits(data, size)) {
        H264Slice slice;
        if (IsSlice(nal) && h264_parse_slice_type(nal.data + 1, nal.size - 1, slice)) {
            return h264_nal_type(nal.data[0]) == H264_NAL_IDR ? 'I' : IsBSlice(slice) ? 'B' : 'P';
        }
    }
    return 'P';
}

// Why RFC 2435, as the packetiser fills it, can't carry an image; null if it can.
const char* why_not_sent(const JpegImage& image) {
    if (!image.is_420) {
        return "has pictures that are not baseline 4:2:0, which RTP needs: encode with that sampling (FFmpeg: -pix_fmt "
               "yuvj420p)";
    }
    if (!image.standard_huffman) {
        return "has pictures with Huffman tables of their own, which RTP does not carry: encode with the standard ones "
               "(FFmpeg: -huffman default)";
    }
    if (image.width % 8 != 0 || image.height % 8 != 0 || image.width > MAX_JPEG_SIDE || image.height > MAX_JPEG_SIDE) {
        return "has pictures of a size that RTP cannot tell: sides are multiples of 8 up to 2040";
    }
    return nullptr;
}

}  // namespace

bool Clip::LoadVideo(const std::string& path, double fps, slices_t slices, std::string& error) {
    m_slices = slices;
    const bool is_container = IsContainer(path);
    if (!is_container && !ReadFile(path, m_bytes, error)) {
        return false;
    }
    const struct {
        const char* ending;
        bool (Clip::*cut)(std::string&);
    } kinds[] = {{".h264", &Clip::cut_h264}, {".m4v", &Clip::cut_mpeg4}, {".mjpeg", &Clip::cut_mjpeg}};
    bool done = false;
    if (HasEnding(path, ".kav")) {
        done = cut_kav(false, error);
    } else if (is_container) {
        done = cut_container(path, error);
    } else {
        error = "is no .h264, .m4v, .mjpeg, .kav, .mp4, .mkv or .ts file";
        for (const auto& kind : kinds) {
            if (HasEnding(path, kind.ending)) {
                error.clear();
                done = (this->*kind.cut)(error);
                m_video.frame_rate = static_cast<int>(fps + 0.5);
                set_frame_times(fps);
            }
        }
    }
    if (done && m_units.empty()) {
        error = "holds no pictures";
        done = false;
    }
    if (done && m_units.front().letter != 'I') {
        error = "does not begin with a key frame";
        done = false;
    }
    if (!done) {
        error = path + ": " + error;
    }
    return done;
}

bool Clip::LoadAudio(const std::string& path, std::string& error) {
    if (!read_audio(path, error)) {
        return false;
    }
    bool done = cut_audio(path, error);
    if (HasEnding(path, ".kav") && (!done || m_units.empty())) {
        return false;  // a recording may be without audio
    }
    if (done && m_units.empty()) {
        error = "holds no audio";
        done = false;
    }
    if (!done) {
        error = path + ": " + error;
    }
    return done;
}

// The bytes of the file, or a container's audio as A-law, which may not be there.
bool Clip::read_audio(const std::string& path, std::string& error) {
    if (!IsContainer(path)) {
        return ReadFile(path, m_bytes, error);
    }
    if (!UnpackAudio(path, m_bytes, error)) {
        error = path + ": " + error;
        return false;
    }
    return !m_bytes.empty();
}

bool Clip::cut_audio(const std::string& path, std::string& error) {
    if (IsContainer(path) || HasEnding(path, ".alaw")) {
        return cut_g711(STREAM_AUDIO_PCMA_14);
    }
    if (HasEnding(path, ".ulaw")) {
        return cut_g711(STREAM_AUDIO_PCMU);
    }
    if (HasEnding(path, ".mp2")) {
        return cut_mpeg_audio(error);
    }
    if (HasEnding(path, ".kav")) {
        return cut_kav(true, error);
    }
    error = "is no .alaw, .ulaw, .mp2 or .kav file";
    return false;
}

void Clip::add_unit(size_t offset, size_t size, int letter) {
    ClipUnit unit;
    unit.offset = offset;
    unit.size = size;
    unit.letter = letter;
    m_units.push_back(unit);
}

void Clip::set_frame_times(double fps) {
    for (size_t i = 0; i < m_units.size(); ++i) {
        m_units[i].time_ms = static_cast<double>(i) * 1000.0 / fps;
    }
    m_duration_ms = static_cast<double>(m_units.size()) * 1000.0 / fps;
}

// The picture that Clip::cut_h264 is at.
struct Clip::Access {
    H264Sps sps;
    bool has_pps = false;
    size_t begin = 0;                   // in the clip's bytes
    size_t next_begin = NO_START_CODE;  // of the picture behind it, once its first NAL unit has come
    int letter = 0;                     // 0 until it has a slice
};

// Every NAL unit goes behind a four-byte start code.
bool Clip::cut_h264(std::string& error) {
    const std::vector<unsigned char> source = std::move(m_bytes);
    m_bytes.clear();
    Access access;
    for (const NalUnit& nal : SplitNalUnits(source.data(), source.size())) {
        if (const char* why = add_nal(nal, access)) {
            error = why;
            return false;
        }
    }
    end_picture(m_bytes.size(), access);
    m_video.encode_type = STREAM_VIDEO_H264;
    if (!m_units.empty()) {
        m_specific_info = FindSpecificInfo(m_bytes.data(), m_units.front().size, STREAM_VIDEO_H264);
    }
    return true;
}

// Returns why it can't be sent, or null, as add_slice does.
const char* Clip::add_nal(const NalUnit& nal, Access& access) {
    const int type = h264_nal_type(nal.data[0]);
    if (type == H264_NAL_SPS && h264_parse_sps(nal.data, nal.size, access.sps)) {
        take_size(access.sps);
    }
    access.has_pps = access.has_pps || type == H264_NAL_PPS;
    H264Slice slice;
    const char* why = WhyNotSent(nal, access.sps, slice, m_slices);
    if (why == nullptr && IsSlice(nal)) {
        why = add_slice(nal, slice, access);
    } else if (access.next_begin == NO_START_CODE && BeginsPicture(nal)) {
        access.next_begin = m_bytes.size();
    }
    AppendNalUnit(m_bytes, nal);
    return why;
}

// A picture begins with its first macroblock; what stands in front of it may be its own.
const char* Clip::add_slice(const NalUnit& nal, const H264Slice& slice, Access& access) {
    if (m_video.width == 0 || !access.has_pps) {
        return "has no parameter sets in front of its first picture";
    }
    if (IsBSlice(slice)) {
        return B_PICTURES;
    }
    if (slice.first_mb == 0) {
        end_picture(std::min(access.next_begin, m_bytes.size()), access);
        access.letter = h264_nal_type(nal.data[0]) == H264_NAL_IDR ? 'I' : 'P';
    }
    access.next_begin = NO_START_CODE;
    return access.letter == 0 ? "begins in the middle of a picture" : nullptr;
}

void Clip::end_picture(size_t end, Access& access) {
    if (access.letter != 0) {
        add_unit(access.begin, end - access.begin, access.letter);
        access.begin = end;
    }
}

// The first size is the stream's.
void Clip::take_size(const H264Sps& sps) {
    if (m_video.width == 0) {
        m_video.width = static_cast<int32_t>(sps.width);
        m_video.height = static_cast<int32_t>(sps.height);
    }
}

// A unit runs from behind one VOP to the end of the next, the headers in front of it included (ISO 14496-2 6.2).
bool Clip::cut_mpeg4(std::string& error) {
    const unsigned char* data = m_bytes.data();
    const size_t size = m_bytes.size();
    size_t unit_begin = 0;
    size_t vop = NO_START_CODE;
    for (size_t at = find_start_code3(data, size); at != NO_START_CODE && at + 4 < size;
         at = find_start_code3(data, size, at + 3)) {
        if (vop != NO_START_CODE) {
            add_unit(unit_begin, at - unit_begin, vop_letter(data[vop + 4]));
            unit_begin = at;
            vop = NO_START_CODE;
        }
        if (data[at + 3] == MPEG4_VOP) {
            if (m_units.empty()) {
                m_specific_info.assign(reinterpret_cast<const char*>(data), at);
            }
            vop = at;
        }
    }
    if (vop != NO_START_CODE) {
        add_unit(unit_begin, size - unit_begin, vop_letter(data[vop + 4]));
    }
    Mpeg4Vol vol;
    if (!mpeg4_parse_vol(data, size, vol)) {
        error = "has no video object layer";
        return false;
    }
    if (std::any_of(m_units.begin(), m_units.end(), [](const ClipUnit& unit) { return unit.letter == 'B'; })) {
        error = B_PICTURES;
        return false;
    }
    m_video.width = static_cast<int32_t>(vol.width);
    m_video.height = static_cast<int32_t>(vol.height);
    m_video.encode_type = STREAM_VIDEO_MPEG4;
    return true;
}

// A picture runs from one SOI to the next. FF D8 cannot stand inside: entropy-coded FF bytes are followed by 00
// (ISO 10918-1 F.1.2.3).
bool Clip::cut_mjpeg(std::string& error) {
    const unsigned char SOI[] = {0xFF, 0xD8, 0xFF};
    const auto find = [&](size_t from) {
        return static_cast<size_t>(
            std::search(m_bytes.begin() + static_cast<std::ptrdiff_t>(from), m_bytes.end(), SOI, SOI + 3) -
            m_bytes.begin());
    };
    for (size_t at = find(0); at < m_bytes.size();) {
        const size_t next = find(at + 2);
        JpegImage image;
        if (!jpeg_parse(m_bytes.data() + at, next - at, image)) {
            error = "has a picture that cannot be sent as RFC 2435 says";
            return false;
        }
        if (const char* why = why_not_sent(image)) {
            error = why;
            return false;
        }
        m_video.width = image.width;
        m_video.height = image.height;
        add_unit(at, next - at, 'I');  // each picture is a key frame
        at = next;
    }
    m_video.encode_type = STREAM_VIDEO_JPEG;
    return true;
}

bool Clip::cut_container(const std::string& path, std::string& error) {
    UnpackedVideo video;
    if (!UnpackVideo(path, video, error)) {
        return false;
    }
    size_t end = 0;
    for (const UnpackedVideo::Picture& picture : video.pictures) {
        const unsigned char* body = video.bytes.data() + end;
        end += picture.size;
        const int letter = h264_letter(body, picture.size);
        if (m_units.empty() && letter != 'I') {
            continue;
        }
        const size_t offset = m_bytes.size();
        if (const char* why = append_body(body, picture.size, STREAM_VIDEO_H264)) {
            error = why;
            return false;
        }
        add_unit(offset, m_bytes.size() - offset, letter);
        m_units.back().time_ms = picture.time_ms;
    }
    return m_units.empty() || take_container_format(error);
}

bool Clip::take_container_format(std::string& error) {
    m_specific_info = FindSpecificInfo(m_bytes.data(), m_units.front().size, STREAM_VIDEO_H264);
    const auto* info = reinterpret_cast<const unsigned char*>(m_specific_info.data());
    for (const NalUnit& nal : SplitNalUnits(info, m_specific_info.size())) {
        H264Sps sps;
        if (h264_nal_type(nal.data[0]) == H264_NAL_SPS && h264_parse_sps(nal.data, nal.size, sps)) {
            take_size(sps);
        }
    }
    if (m_video.width == 0) {
        error = "has no parameter sets in its first key frame";
        return false;
    }
    set_kav_duration();
    m_video.encode_type = STREAM_VIDEO_H264;
    m_video.frame_rate = static_cast<int>(static_cast<double>(m_units.size()) * 1000.0 / m_duration_ms + 0.5);
    return true;
}

bool Clip::cut_kav(bool audio, std::string& error) {
    const std::vector<unsigned char> source = std::move(m_bytes);
    m_bytes.clear();
    const MemoryBytes bytes(source.data(), source.size());
    FrameCursor cursor(bytes);
    FrameEntry entry;
    for (FrameCursor::step_t step = cursor.Next(entry); step != FrameCursor::STEP_END; step = cursor.Next(entry)) {
        if (step != FrameCursor::STEP_FRAME || !is_wanted(entry, audio)) {
            continue;
        }
        if (const char* why = append_kav(entry, source.data() + entry.body_offset)) {
            error = why;
            return false;
        }
    }
    if (m_units.empty()) {
        error = audio ? "" : "holds no video";
        return audio;
    }
    if (!audio) {
        m_specific_info = FindSpecificInfo(m_bytes.data(), m_units.front().size, m_video.encode_type);
        if (m_specific_info.empty() && m_video.encode_type == STREAM_VIDEO_H264) {
            error = "has no parameter sets in its first key frame";
            return false;
        }
    }
    set_kav_duration();
    return true;
}

// Video begins with a key frame.
bool Clip::is_wanted(const FrameEntry& entry, bool audio) const {
    if (audio || m_units.empty()) {
        return entry.letter == (audio ? 'A' : 'I');
    }
    return entry.letter == 'I' || entry.letter == 'P' || entry.letter == 'B';
}

// Returns why the frame can't be sent, or null.
const char* Clip::append_kav(const FrameEntry& entry, const unsigned char* body) {
    if (m_units.empty()) {
        take_kav_format(entry);
    }
    const size_t offset = m_bytes.size();
    const char* why = append_body(body, entry.body_size, entry.letter == 'A' ? 0 : m_video.encode_type);
    if (why == nullptr) {
        add_unit(offset, m_bytes.size() - offset, entry.letter);
        m_units.back().time_ms = static_cast<double>(entry.place.time_ms);
    }
    return why;
}

// The last frame lasts as long as the mean of the others. B pictures follow the picture that they precede.
void Clip::set_kav_duration() {
    const auto last = std::max_element(m_units.begin(), m_units.end(), [](const ClipUnit& left, const ClipUnit& right) {
        return left.time_ms < right.time_ms;
    });
    const double span = last->time_ms - m_units.front().time_ms;
    const double mean = m_units.size() > 1 ? span / static_cast<double>(m_units.size() - 1) : LONE_FRAME_MS;
    m_duration_ms = last->time_ms + mean;
}

void Clip::take_kav_format(const FrameEntry& first) {
    if (first.letter == 'A') {
        m_audio.encode_type = first.encode_code;
        m_audio.sample_rate = first.sample_rate;
        return;
    }
    m_video.width = first.width;
    m_video.height = first.height;
    m_video.encode_type = first.encode_code;
    m_video.frame_rate = first.frame_rate == 0 ? 25 : first.frame_rate;
}

// A recording comes from elsewhere, so its pictures are looked at as those of a raw stream are. Returns why one can't
// be sent, or null.
const char* Clip::append_body(const unsigned char* body, size_t size, int video_encode_type) {
    if (video_encode_type == STREAM_VIDEO_H264) {
        const char* why = WhyNotSent(body, size, m_slices);
        for (const NalUnit& nal : SplitNalUnits(body, size)) {
            AppendNalUnit(m_bytes, nal);
        }
        return why;
    }
    m_bytes.insert(m_bytes.end(), body, body + size);
    JpegImage image;
    return video_encode_type == STREAM_VIDEO_JPEG && jpeg_parse(body, size, image) ? why_not_sent(image) : nullptr;
}

bool Clip::cut_g711(int encode_type) {
    for (size_t at = 0; at + G711_BLOCK <= m_bytes.size(); at += G711_BLOCK) {
        add_unit(at, G711_BLOCK, 'A');
        m_units.back().time_ms = static_cast<double>(m_units.size() - 1) * G711_BLOCK_MS;
    }
    m_duration_ms = static_cast<double>(m_units.size()) * G711_BLOCK_MS;
    m_audio.encode_type = encode_type;
    m_audio.sample_rate = G711_RATE;
    return true;
}

bool Clip::cut_mpeg_audio(std::string& error) {
    for (size_t at = 0; at < m_bytes.size();) {
        AudioHeader header;
        if (!read_audio_header(m_bytes.data() + at, m_bytes.size() - at, header)) {
            if (m_units.empty()) {
                error = "is no MPEG audio layer II stream";
                return false;
            }
            break;  // a cut frame at the end
        }
        add_unit(at, header.size, 'A');
        m_units.back().time_ms = m_duration_ms;
        m_duration_ms += header.duration_ms;
        m_audio.sample_rate = header.sample_rate;
        at += header.size;
    }
    m_audio.encode_type = STREAM_AUDIO_MPEG;
    return true;
}

std::string FindSpecificInfo(const unsigned char* body, size_t size, int encode_type) {
    std::string info;
    if (encode_type == STREAM_VIDEO_MPEG4) {
        for (size_t at = find_start_code3(body, size); at != NO_START_CODE; at = find_start_code3(body, size, at + 3)) {
            if (at + 3 < size && body[at + 3] == MPEG4_VOP) {
                return std::string(reinterpret_cast<const char*>(body), at);
            }
        }
    }
    if (encode_type == STREAM_VIDEO_H264) {
        std::vector<unsigned char> sets;
        for (const NalUnit& nal : SplitNalUnits(body, size)) {
            const int type = h264_nal_type(nal.data[0]);
            if (type == H264_NAL_SPS || type == H264_NAL_PPS) {
                AppendNalUnit(sets, nal);
            }
        }
        info.assign(sets.begin(), sets.end());
    }
    return info;
}
