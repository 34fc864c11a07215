#include "Clip.h"

#include <algorithm>

#include "FrameFile.h"
#include "Vidora/H264Parser.h"
#include "Vidora/JpegParser.h"
#include "Vidora/KXFrame.h"
#include "Vidora/Mpeg4Parser.h"
#include "Vidora/Ostra/ByteReader.h"
#include "Vidora/StartCode.h"

using Kavio::Ostra::CByteReader;
using namespace Kavio::Vidora;

namespace {

const unsigned char START_CODE[] = {0, 0, 0, 1};
const size_t G711_BLOCK = 320;  // 40 ms at 8 kHz
const double G711_BLOCK_MS = 40.0;
const int G711_RATE = 8000;

// A NAL unit without its start code.
struct NalUnit {
    size_t offset;
    size_t size;
};

std::vector<NalUnit> split_nal_units(const std::vector<unsigned char>& bytes) {
    std::vector<NalUnit> units;
    size_t at = find_start_code3(bytes.data(), bytes.size());
    while (at != NO_START_CODE) {
        const size_t begin = at + 3;
        at = find_start_code3(bytes.data(), bytes.size(), begin);
        size_t end = at == NO_START_CODE ? bytes.size() : at;
        // Zeros in front of the next start code belong to it (ISO 14496-10 B.1), not to the unit.
        while (end > begin && bytes[end - 1] == 0) {
            --end;
        }
        if (end > begin) {
            units.push_back(NalUnit{begin, end - begin});
        }
    }
    return units;
}

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

}  // namespace

bool Clip::LoadVideo(const std::string& path, double fps, std::string& error) {
    if (!ReadFile(path, m_bytes)) {
        error = path + ": cannot be read";
        return false;
    }
    const struct {
        const char* ending;
        bool (Clip::*cut)(std::string&);
    } kinds[] = {{".h264", &Clip::cut_h264}, {".m4v", &Clip::cut_mpeg4}, {".mjpeg", &Clip::cut_mjpeg}};
    bool done = false;
    if (HasEnding(path, ".kav")) {
        done = cut_kav(false, error);
    } else {
        error = "no .h264, .m4v, .mjpeg or .kav file";
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
    if (!ReadFile(path, m_bytes)) {
        error = path + ": cannot be read";
        return false;
    }
    bool done = false;
    if (HasEnding(path, ".alaw")) {
        done = cut_g711(STREAM_AUDIO_PCMA_14);
    } else if (HasEnding(path, ".ulaw")) {
        done = cut_g711(STREAM_AUDIO_PCMU);
    } else if (HasEnding(path, ".mp2")) {
        done = cut_mpeg_audio(error);
    } else if (HasEnding(path, ".kav")) {
        if (!cut_kav(true, error) || m_units.empty()) {
            return false;  // a recording may be without audio
        }
        done = true;
    } else {
        error = "no .alaw, .ulaw or .mp2 file";
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

// Every NAL unit goes behind a four-byte start code: the packetiser doesn't see three-byte ones. Access units end where
// a slice begins a new picture, or a parameter set, SEI or delimiter follows a slice (ISO 14496-10 7.4.1.2.3).
bool Clip::cut_h264(std::string& error) {
    const std::vector<unsigned char> source = std::move(m_bytes);
    m_bytes.clear();
    size_t unit_begin = 0;
    bool has_slice = false;
    bool is_key = false;
    const auto end_unit = [&]() {
        if (has_slice) {
            add_unit(unit_begin, m_bytes.size() - unit_begin, is_key ? 'I' : 'P');
            unit_begin = m_bytes.size();
            has_slice = false;
            is_key = false;
        }
    };
    for (const NalUnit& nal : split_nal_units(source)) {
        const unsigned char* data = source.data() + nal.offset;
        const int type = h264_nal_type(data[0]);
        const bool is_slice = type >= H264_NAL_SLICE && type <= H264_NAL_IDR;
        H264Slice slice;
        if (is_slice && type != H264_NAL_SLICE && type != H264_NAL_IDR) {
            error = "has data partitions, which cannot be sent";
            return false;
        }
        if (is_slice && !h264_parse_slice_type(data + 1, nal.size - 1, slice)) {
            error = "has a damaged slice";
            return false;
        }
        if (is_slice && slice.first_mb != 0) {
            error =
                "has several slices in a picture; only the first would be sent whole: encode with one slice a picture";
            return false;
        }
        end_unit();
        if (type == H264_NAL_SPS && m_specific_info.empty()) {
            H264Sps sps;
            if (h264_parse_sps(data, nal.size, sps)) {
                m_video.width = static_cast<int32_t>(sps.width);
                m_video.height = static_cast<int32_t>(sps.height);
            }
        }
        if (m_units.empty() && (type == H264_NAL_SPS || type == H264_NAL_PPS)) {
            m_specific_info.append(reinterpret_cast<const char*>(START_CODE), sizeof(START_CODE));
            m_specific_info.append(reinterpret_cast<const char*>(data), nal.size);
        }
        m_bytes.insert(m_bytes.end(), START_CODE, START_CODE + sizeof(START_CODE));
        m_bytes.insert(m_bytes.end(), data, data + nal.size);
        if (is_slice) {
            if (slice.slice_type % 5 == 1) {
                error = "has B pictures, whose order of time stamps a raw stream does not tell: encode without them";
                return false;
            }
            has_slice = true;
            is_key = type == H264_NAL_IDR;
        }
    }
    end_unit();
    m_video.encode_type = STREAM_VIDEO_H264;
    if (m_specific_info.empty()) {
        error = "has no parameter sets in front of its first picture";
        return false;
    }
    return true;
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
            add_unit(unit_begin, at - unit_begin, data[vop + 4] >> 6 == 0 ? 'I' : data[vop + 4] >> 6 == 2 ? 'B' : 'P');
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
        add_unit(unit_begin, size - unit_begin, data[vop + 4] >> 6 == 0 ? 'I' : 'P');
    }
    Mpeg4Vol vol;
    if (!mpeg4_parse_vol(data, size, vol)) {
        error = "has no video object layer";
        return false;
    }
    if (std::any_of(m_units.begin(), m_units.end(), [](const ClipUnit& unit) { return unit.letter == 'B'; })) {
        error = "has B pictures, whose order of time stamps a raw stream does not tell: encode without them";
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
        m_video.width = image.width;
        m_video.height = image.height;
        add_unit(at, next - at, 'I');  // each picture is a key frame
        at = next;
    }
    m_video.encode_type = STREAM_VIDEO_JPEG;
    return true;
}

bool Clip::cut_kav(bool audio, std::string& error) {
    std::vector<FrameEntry> entries;
    ScanFrames(m_bytes.data(), m_bytes.size(), entries);
    bool begun = false;
    for (const FrameEntry& entry : entries) {
        const bool wanted =
            audio ? entry.letter == 'A' : entry.letter == 'I' || entry.letter == 'P' || entry.letter == 'B';
        if (!wanted || (!begun && !audio && entry.letter != 'I')) {
            continue;
        }
        if (!begun && !audio) {
            m_video.width = entry.width;
            m_video.height = entry.height;
            m_video.encode_type = entry.encode_code;
            m_video.frame_rate = entry.frame_rate == 0 ? 25 : entry.frame_rate;
            m_specific_info = FindSpecificInfo(m_bytes.data() + entry.body_offset, entry.body_size, entry.encode_code);
        }
        if (!begun && audio) {
            m_audio.encode_type = entry.encode_code;
            m_audio.sample_rate = entry.sample_rate;
        }
        begun = true;
        add_unit(entry.body_offset, entry.body_size, entry.letter);
        m_units.back().time_ms = static_cast<double>(entry.time_ms);
    }
    if (m_units.empty()) {
        error = audio ? "" : "holds no video";
        return audio;
    }
    // The last frame lasts as long as the mean of the others.
    const double span = m_units.back().time_ms - m_units.front().time_ms;
    const double mean = m_units.size() > 1 ? span / static_cast<double>(m_units.size() - 1) : 40.0;
    m_duration_ms = m_units.back().time_ms + mean;
    return true;
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
        const std::vector<unsigned char> bytes(body, body + size);
        for (const NalUnit& nal : split_nal_units(bytes)) {
            const int type = h264_nal_type(bytes[nal.offset]);
            if (type == H264_NAL_SPS || type == H264_NAL_PPS) {
                info.append(reinterpret_cast<const char*>(START_CODE), sizeof(START_CODE));
                info.append(reinterpret_cast<const char*>(bytes.data() + nal.offset), nal.size);
            }
        }
    }
    return info;
}
