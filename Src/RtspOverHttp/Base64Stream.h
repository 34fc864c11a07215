#ifndef VIDORA_BASE64STREAM_H
#define VIDORA_BASE64STREAM_H

#include <cstdint>
#include <string_view>

namespace Kavio {
namespace Vidora {

// CBase64Stream: decodes base64 (RFC 4648 section 4) that comes in pieces, cut anywhere. Line ends are passed over. A
// "=" ends a quantum, and another run may follow it; a client encodes each of its requests by itself.
//
// MEMORY     Carries less than one quantum between two pieces.
class CBase64Stream {
public:
    // Takes characters off the front of `text` until it is empty or `room` bytes have been written to `out`. The count
    // of bytes, or -1: a character outside the alphabet, or a "=" where none can be. Nothing may follow that.
    int Decode(std::string_view& text, char* out, int room);

private:
    bool take_pad();
    bool take_value(int value, char* out);

    uint32_t m_bits = 0;  // the lowest m_bit_count count
    int m_bit_count = 0;
    int m_chars = 0;           // of the quantum
    bool m_pad_waits = false;  // a second "=" may follow
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_BASE64STREAM_H
