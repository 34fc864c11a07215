#include "MediaRoute.h"

#include "Vidora/LiveChannel.h"

namespace Kavio {
namespace Vidora {

namespace {

// The very channel that the session holds a reference on, whatever stands in the registry by now.
template <typename Sink>
int enter(const LivePlace& place, Sink* sink) {
    return place.channel->Enter(sink, place.type);
}

template <typename Sink>
void leave(const LivePlace& place, Sink* sink) {
    place.channel->Leave(sink, place.type);
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
