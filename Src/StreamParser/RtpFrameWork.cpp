#include "StreamParser/RtpFrameWork.h"

#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteReader.h"

namespace Kavio {
namespace Vidora {

namespace {

const unsigned char START_CODE[] = {0, 0, 0, 1};

bool has_start_code(CByteReader reader) {
    return reader.ReadU32() == 0x00000001 && reader.Ok();
}

}  // namespace

bool RtpCodecConfig::Set(const unsigned char* data, size_t size) {
    if (size >= SIZE) {
        return false;
    }
    CByteWriter writer(bytes, SIZE);
    writer.WriteBytes(data, size);
    len = static_cast<uint32_t>(writer.Offset());
    return true;
}

bool RtpCodecConfig::SetH264(const RtpIov& sps, const RtpIov& pps) {
    if (uint64_t{sps.len} + pps.len + 2 * sizeof(START_CODE) >= SIZE) {
        return false;
    }
    CByteWriter writer(bytes, SIZE);
    for (const RtpIov& set : {sps, pps}) {
        if (!has_start_code(CByteReader(set.data, set.len))) {
            writer.WriteBytes(START_CODE, sizeof(START_CODE));
        }
        writer.WriteBytes(set.data, set.len);
    }
    len = static_cast<uint32_t>(writer.Offset());
    return true;
}

void RtpFrameWork::SetConfigPrefix() {
    RtpPacketNode* head = nodes.Head();
    head->prefix = config.bytes;
    head->prefix_len = config.len;
}

uint32_t RtpFrameWork::FrameSize() const {
    uint32_t size = 0;
    const RtpPacketNode* each = nodes.Head();
    for (uint32_t i = 0; i < nodes.Count(); ++i, each = each->next) {
        size += each->Size();
    }
    return size;
}

void RtpFrameWork::WriteFrame(Ostra::CByteWriter& writer) const {
    const RtpPacketNode* each = nodes.Head();
    for (uint32_t i = 0; i < nodes.Count(); ++i, each = each->next) {
        each->Write(writer);
    }
}

}  // namespace Vidora
}  // namespace Kavio
