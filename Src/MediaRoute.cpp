#include "MediaRoute.h"

#include "Vidora/LiveChannel.h"
#include "Vidora/LiveSvr.h"
#include "Vidora/Tramel/MediaBuffer.h"

namespace Kavio {
namespace Vidora {

namespace {

void take_off(CMediaBuffer& buffer, CMediaStreamSender* sink) {
    buffer.DelSender(sink);
}

void take_off(CMediaBuffer& buffer, CLevel2Buffer_IF* sink) {
    buffer.DelLevel2Buffer(sink);
}

// Only the channel that the session holds a reference on: one that was published anew under its name since DESCRIBE
// could go, with its buffer, while the sink stands there.
template <typename Sink>
int enter(const LivePlace& place, Sink* sink) {
    return place.registry->EnterLiveChannel(place.name, sink, place.type, place.channel);
}

// Leaves by the channel's name, and takes the sink off the channel itself as well: the registry may have dropped it, or
// have another one of that name by now.
template <typename Sink>
void leave(const LivePlace& place, Sink* sink) {
    CMediaBuffer* buffer = place.channel->GetMediaBuffer(place.type);
    if (place.registry->LeaveLiveChannel(place.name, sink, place.type) < 0) {
        place.channel->StopStreaming(place.type);
    }
    if (buffer != nullptr) {
        take_off(*buffer, sink);
    }
}

}  // namespace

int EnterLiveWith(const LivePlace& place, CMediaStreamSender* sink) {
    return enter(place, sink);
}

int EnterLiveWith(const LivePlace& place, CLevel2Buffer_IF* sink) {
    return enter(place, sink);
}

void LeaveLiveWith(const LivePlace& place, CMediaStreamSender* sink) {
    leave(place, sink);
}

void LeaveLiveWith(const LivePlace& place, CLevel2Buffer_IF* sink) {
    leave(place, sink);
}

}  // namespace Vidora
}  // namespace Kavio
