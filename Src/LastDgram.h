#ifndef VIDORA_LASTDGRAM_H
#define VIDORA_LASTDGRAM_H

#include <cstddef>
#include <cstring>

namespace Kavio {
namespace Vidora {

// CLastDgram: finds a datagram that the network brings twice, as bridges and bonded links do at times. To a decoder it
// would be a gap, which costs the frame.
//
// THREADING  No lock: its receiver's.
class CLastDgram {
public:
    // Whether the bytes are those of the last call, and remembers them. More than an Ethernet frame holds, or none, are
    // never the same.
    bool IsAgain(const unsigned char* bytes, size_t count) {
        const bool same = count > 0 && count == m_count && std::memcmp(bytes, m_bytes, count) == 0;
        m_count = count <= sizeof(m_bytes) ? count : 0;
        if (m_count > 0) {  // no bytes may have no address
            std::memcpy(m_bytes, bytes, m_count);
        }
        return same;
    }

private:
    unsigned char m_bytes[1472];
    size_t m_count = 0;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_LASTDGRAM_H
