#ifndef VIDORA_PROTOCOL_RTSPMSGINFO_H
#define VIDORA_PROTOCOL_RTSPMSGINFO_H

namespace Kavio {
namespace Vidora {

// What CRtspParser::check_message learns of one RTSP message.
struct rtsp_msg_info {
    int method = 8;  // rtsp_method_t; 8 is unknown
    int status = 0;  // of a reply; 0 for a request
    int cseq = 0;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_PROTOCOL_RTSPMSGINFO_H
