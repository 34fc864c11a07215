#ifndef VIDORA_TRAMEL_INTERLEAVE_H
#define VIDORA_TRAMEL_INTERLEAVE_H

namespace Kavio {
namespace Tramel {

// The header of interleaved packets, on a control connection and inside the process (RFC 2326 10.12):
//
//  |      '$'      |    channel    |            length             |
const unsigned int INTERLEAVE_HEADER_SIZE = 4;
const unsigned int INTERLEAVE_CHANNEL_AT = 1;
const unsigned int INTERLEAVE_LENGTH_AT = 2;
const unsigned char INTERLEAVE_MARK = '$';

// The header of private frames, which fit no 16-bit length:
//
//  |      '$'      |    channel    |                    length, 32 bits, high byte first           |
const unsigned int PRIVATE_HEADER_SIZE = 6;

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_INTERLEAVE_H
