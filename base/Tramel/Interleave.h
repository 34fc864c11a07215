#ifndef VIDORA_TRAMEL_INTERLEAVE_H
#define VIDORA_TRAMEL_INTERLEAVE_H

namespace Kavio {
namespace Tramel {

// The header of interleaved packets, on a control connection and inside the process (RFC 2326 10.12):
//
//  |      '$'      |    channel    |            length             |
const unsigned int INTERLEAVE_HEADER_SIZE = 4;
const unsigned char INTERLEAVE_MARK = '$';

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_INTERLEAVE_H
