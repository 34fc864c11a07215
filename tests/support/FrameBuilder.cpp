#include "support/FrameBuilder.h"

#include "Vidora/KXFrame.h"

namespace Kavio::Support {

Flumen::CMediaFrame BuildFrame(const FrameSpec& fields) {
    Vidora::CKXFrame writer;
    writer.SetFrameType(fields.type);
    writer.SetSequence(fields.sequence);
    writer.SetDateTime(static_cast<uint64_t>(fields.utc));
    writer.SetTimeStamp(static_cast<uint16_t>(fields.pts_ms));
    writer.SetEncodeType(static_cast<uint8_t>(fields.encode_code));
    writer.SetFrameRate(25);
    writer.SetImageSize(static_cast<uint16_t>(fields.width), 48);
    writer.SetAudioInfo(1, 2);  // 8000 Hz
    uint32_t offset = 0;
    const uint32_t total = writer.GetFrameSize(static_cast<uint32_t>(fields.payload.size()), offset);
    Flumen::CMediaFrame frame(total);
    std::copy(fields.payload.begin(), fields.payload.end(), frame.getBuffer() + offset);
    writer.WriteFrame(frame.getBuffer(), total);

    frame.setType(fields.type);
    frame.setSequence(static_cast<int>(fields.sequence));
    frame.setPts(fields.pts_ms, Flumen::PTS_TYPE_MS);
    frame.setUtc(fields.utc);
    frame.setNewFormat(fields.new_format);
    return frame;
}

Flumen::CMediaFrame BuildPicture(bool key, unsigned int size, uint32_t sequence) {
    return BuildFrame(
        {key ? 'I' : 'P', sequence, sequence * 40, H264Picture(key, size, static_cast<uint8_t>(sequence))});
}

Bytes BytesOf(const Flumen::CMediaFrame& frame) {
    return Bytes(frame.getBuffer(), frame.getBuffer() + frame.size());
}

std::string BodyOf(const Flumen::CMediaFrame& frame) {
    int size = 0;
    const int at = Vidora::get_frame_body(frame.getBuffer(), static_cast<int>(frame.size()), size);
    return ToText(Part(BytesOf(frame), static_cast<size_t>(at), static_cast<size_t>(size)));
}

Flumen::CMediaFrame FrameOf(const Bytes& bytes) {
    Flumen::CMediaFrame frame(static_cast<unsigned int>(bytes.size()));
    std::copy(bytes.begin(), bytes.end(), frame.getBuffer());
    return frame;
}

std::string H264ParameterSets() {
    // 64 x 48, baseline.
    static const unsigned char bytes[] = {0,    0,    0,    1, 0x67, 0x42, 0xC0, 0x0A, 0xDA, 0x44, 0x36, 0xC0,
                                          0x44, 0,    0,    3, 0,    4,    0,    0,    3,    0,    0xCA, 0x3C,
                                          0x48, 0x99, 0x20, 0, 0,    0,    1,    0x68, 0xCE, 0x0F, 0xC8};
    return std::string(reinterpret_cast<const char*>(bytes), sizeof(bytes));
}

std::string H264Picture(bool key, unsigned int size, uint8_t fill) {
    std::string picture = key ? H264ParameterSets() : std::string();
    picture.append("\0\0\0\1", 4);
    picture.push_back(static_cast<char>(key ? 0x65 : 0x41));
    picture.push_back(static_cast<char>(key ? 0x88 : 0x9A));  // first_mb_in_slice 0
    picture.append(size, static_cast<char>(fill == 0 ? 1 : fill));
    return picture;
}

}  // namespace Kavio::Support
