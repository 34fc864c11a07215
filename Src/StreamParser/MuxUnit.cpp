#include "StreamParser/MuxUnit.h"

#include "StreamParser/PrintLevel.h"
#include "Vidora/Names.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

int mux_track_of_enc_type(int enc_type) {
    return enc_type >= ENC_TYPE_AUDIO ? 1 : 0;
}

void mux_print_unit(const char* name, int size) {
    if (IsPrinted(PRINT_OUTPUT)) {
        R3Printf("Output %s packet: len = %d\n", name, size);
    }
}

}  // namespace Vidora
}  // namespace Kavio
