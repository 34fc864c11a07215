#ifndef VIDORA_STREAMSOURCE_CHANNELSDP_H
#define VIDORA_STREAMSOURCE_CHANNELSDP_H

#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

class CMulticastOutput;
class CSdpParser;

// What a channel makes of its source's description. Each leaves the text ready in `sdp`.

// For viewers with a way of their own. `standard`: a transport stream is described as RFC 2250 has it.
void FinishUnicastSdp(CSdpParser& sdp, transf_type_t transf_type, bool standard);
// For viewers of the multicast destinations. Audio has the base port + 2 at whatever place.
void FinishMulticastSdp(CSdpParser& sdp, transf_type_t transf_type, bool standard, const CMulticastOutput& output);
// The same with an extension: here ports go by the medium's index.
void FinishExtendedSdp(CSdpParser& sdp, transf_type_t transf_type, const CMulticastOutput& output);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_CHANNELSDP_H
