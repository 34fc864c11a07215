#ifndef VIDORA_STREAMPARSER_FRAMERESULT_H
#define VIDORA_STREAMPARSER_FRAMERESULT_H

namespace Kavio {
namespace Vidora {

// What a packet did to the frame in work of a CRtp2Frame or a Ts2Frame.
enum frame_result_t {
    FRAME_FAILED = -1,        // the packet or the frame is malformed; clear before going on
    FRAME_MORE = 0,           // taken, no frame yet
    FRAME_COMPLETE = 1,       // the frame is complete with this packet
    FRAME_COMPLETE_NEXT = 2,  // the frame is complete without this packet, which has to be fed again after the clear
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_FRAMERESULT_H
