#ifndef VIDORA_STREAMPARSER_RTPJPEGRULE_H
#define VIDORA_STREAMPARSER_RTPJPEGRULE_H

#include <cstdint>

#include "StreamParser/JpegTables.h"
#include "StreamParser/RtpFrameRule.h"
#include "Vidora/Ostra/ByteReader.h"

namespace Kavio {
namespace Vidora {

// CRtpJpegRule: JPEG (RFC 2435). Scan data becomes a JFIF image, whose header is made anew.
class CRtpJpegRule final : public IRtpFrameRule {
public:
    using IRtpFrameRule::IRtpFrameRule;
    bool CanBegin(const RtpHeader& packet, bool joining) const override;
    int Make() override;

private:
    struct Header;

    static bool read_header(Ostra::CByteReader& payload, Header& header);
    bool read_tables(Ostra::CByteReader& payload, const Header& header);
    bool write_image_header(const Header& header);

    uint8_t m_q = 0;  // of the quantisation tables kept below, 0 for none
    uint8_t m_tables[2 * JPEG_TABLE_LEN] = {};
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_RTPJPEGRULE_H
