#ifndef VIDORA_PROTOCOL_STATICPAYLOAD_H
#define VIDORA_PROTOCOL_STATICPAYLOAD_H

namespace Kavio {
namespace Vidora {

// A payload type that needs no rtpmap attribute (RFC 3551 6).
struct static_payload_t {
    int payload_type;
    int clock_rate;  // in Hz
    const char* name;
};

// The row of a payload type; null if it isn't static. Any thread.
const static_payload_t* FindStaticPayload(int payload_type);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_PROTOCOL_STATICPAYLOAD_H
