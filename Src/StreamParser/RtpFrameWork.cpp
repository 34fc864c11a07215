#include "StreamParser/RtpFrameWork.h"

#include <cstring>

#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteReader.h"
#include "Vidora/StartCode.h"

namespace Kavio {
namespace Vidora {

namespace {

bool has_start_code(CByteReader reader) {
    return reader.ReadU32() == START_CODE3 && reader.Ok();
}

}  // namespace

bool RtpCodecConfig::Set(const unsigned char* data, size_t size) {
    if (size >= SIZE) {
        return false;
    }
    if (size != len || std::memcmp(bytes, data, size) != 0) {
        CByteWriter writer(bytes, SIZE);
        writer.WriteBytes(data, size);
        len = static_cast<uint32_t>(size);
        ++changes;
    }
    return true;
}

bool RtpCodecConfig::SetH264(const RtpIov& sps, const RtpIov& pps) {
    if (uint64_t{sps.len} + pps.len + 2 * START_CODE4_LEN >= SIZE) {
        return false;
    }
    unsigned char both[SIZE];
    CByteWriter writer(both, SIZE);
    for (const RtpIov& set : {sps, pps}) {
        if (!has_start_code(CByteReader(set.data, set.len))) {
            writer.WriteBytes(START_CODE4, START_CODE4_LEN);
        }
        writer.WriteBytes(set.data, set.len);
    }
    return Set(both, writer.Offset());
}

uint32_t RtpFrameWork::FrameSize() const {
    uint32_t size = prefix_len;
    for (const RtpPacketNode& node : nodes) {
        size += node.Size();
    }
    return size;
}

uint32_t RtpFrameWork::WriteFrame(unsigned char* buffer, uint32_t capacity) const {
    CByteWriter writer(buffer, capacity);
    writer.WriteBytes(config.bytes, prefix_len);
    for (const RtpPacketNode& node : nodes) {
        node.Write(writer);
    }
    return writer.Ok() ? static_cast<uint32_t>(writer.Offset()) : 0;
}

}  // namespace Vidora
}  // namespace Kavio
