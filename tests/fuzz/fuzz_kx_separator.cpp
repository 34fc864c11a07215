// The separator of private frames and RTSP replies, fed whole and in pieces: the same records come out.
#include <memory>

#include "KXSeparator.h"
#include "SeparatorFeed.h"

using namespace Kavio;
using namespace Kavio::Vidora;

namespace {

const uint32_t LARGE_FRAME = 256 * 1024;
const size_t LARGE_SHARE = 16;

// The size of the frame that the stream's last private header announces; 0 for a stream of other things.
uint32_t last_announced(const uint8_t* data, size_t size) {
    CByteReader reader(data, size);
    uint32_t length = 0;
    while (reader.Ok() && reader.Remaining() > 0 && reader.PeekU8() == '$') {
        reader.Skip(2);
        length = reader.ReadU32();
        reader.Skip(length);
    }
    return length;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Fuzz::Quiet();
    // Room for a large frame costs a sanitizer a millisecond, and it never comes whole here: some of them suffice.
    if (last_announced(data, size) > LARGE_FRAME && size % LARGE_SHARE != 0) {
        return 0;
    }
    Fuzz::RequireSameAtEveryPiece([] { return std::make_unique<CKXSeparator>(); }, data, size,
                                  [](const CKXSeparator&, const Fuzz::Separated&) { return true; });
    return 0;
}
