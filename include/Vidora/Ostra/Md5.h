#ifndef VIDORA_OSTRA_MD5_H
#define VIDORA_OSTRA_MD5_H

#include <cstdint>

#include "Vidora/Export.h"

namespace Kavio {
namespace Ostra {
namespace Utils {

// CMd5: the message digest of RFC 1321. One thread at a time.
class VIDORA_API CMd5 {
public:
    CMd5() { init(); }
    // Starts over.
    void init();
    void update(const unsigned char* data, unsigned int length);
    // Ends the digest and writes it as 32 lower-case hexadecimal digits and a NUL; `out` has 33 bytes. Call init before
    // the next use.
    void hex(char* out);
    // The same as 16 bytes.
    void digest(unsigned char* out);

private:
    void transform(const unsigned char* block);

    uint32_t m_state[4];
    uint64_t m_length;  // bytes so far
    unsigned char m_block[64];
};

}  // namespace Utils
}  // namespace Ostra
}  // namespace Kavio

#endif  // VIDORA_OSTRA_MD5_H
