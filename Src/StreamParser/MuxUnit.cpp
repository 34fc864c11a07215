#include "StreamParser/MuxUnit.h"

#include "StreamParser/PrintLevel.h"
#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteReader.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

int mux_track_of_enc_type(int enc_type) {
    return enc_type >= ENC_TYPE_AUDIO ? 1 : 0;
}

int mux_copy_unit(const unsigned char* written, uint32_t total, uint32_t offset, int size, unsigned char* buffer,
                  unsigned int capacity, const char* name) {
    const uint32_t len = static_cast<uint32_t>(size);
    CByteReader reader(written, total);
    if (buffer == nullptr || len > capacity || !reader.Skip(offset) || !reader.Read(buffer, len)) {
        return 0;
    }
    if (IsPrinted(PRINT_OUTPUT)) {
        R3Printf("Output %s packet: len = %d\n", name, size);
    }
    return size;
}

}  // namespace Vidora
}  // namespace Kavio
