#ifndef VIDORA_STREAMPARSER_FRAMELETTER_H
#define VIDORA_STREAMPARSER_FRAMELETTER_H

#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

// Whether a frame of this letter, a frame_type_t, is video: JPEG pictures come as key frames, or else are side data.
inline bool IsVideoLetter(int letter) {
    return letter == FRAME_TYPE_I || letter == FRAME_TYPE_P || letter == FRAME_TYPE_B;
}

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_FRAMELETTER_H
