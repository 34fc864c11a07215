#ifndef VIDORA_TESTS_FUZZ_RTSPSTREAM_H
#define VIDORA_TESTS_FUZZ_RTSPSTREAM_H

#include "FuzzSupport.h"
#include "Protocol/RtspParser.h"

namespace Kavio {
namespace Vidora {
namespace Fuzz {

// Cuts a byte stream into messages as a session does. `read` gets the begin and length of each, and what the codec
// told.
template <typename Codec, typename Read>
void EachMessage(Codec& codec, const uint8_t* data, size_t size, const Read& read) {
    const char* cursor = reinterpret_cast<const char*>(data);
    unsigned int left = static_cast<unsigned int>(size);
    while (left > 0) {
        rtsp_msg_info info;
        const int taken = codec.check_message(cursor, left, &info);
        if (taken < 0) {
            Require(taken == RTSP_INCOMPLETE || taken == RTSP_BAD_MESSAGE);
            return;
        }
        const unsigned int length = static_cast<unsigned int>(taken);
        Require(length > 0 && length <= left);
        read(cursor, length, info);
        cursor += length;
        left -= length;
    }
}

}  // namespace Fuzz
}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_TESTS_FUZZ_RTSPSTREAM_H
