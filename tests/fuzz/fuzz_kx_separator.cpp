// The separator of private frames and RTSP replies, fed whole and in pieces: the same records come out.
#include <memory>

#include "KXSeparator.h"
#include "SeparatorFeed.h"

using namespace Kavio;
using namespace Kavio::Vidora;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Fuzz::Quiet();
    Fuzz::RequireSameAtEveryPiece([] { return std::make_unique<CKXSeparator>(); }, data, size,
                                  [](const CKXSeparator&, const Fuzz::Separated&) { return true; });
    return 0;
}
