#include "NatEntrance.h"

#include <unistd.h>

using Kavio::Vidora::NatConnectRecord;

namespace {

// The next viewer gets a new socket: the way of this one leads to its viewer only.
void close_returned(int, void* data, int) {
    close(*static_cast<int*>(data));
}

}  // namespace

bool NatEntrance::Open(const std::string& point, const std::string& name) {
    RendezvousOptions options;
    options.point = point;
    options.name = name;
    return m_device.Start(options, [this](const PunchedSocket& viewer) { hand_in(viewer); });
}

// A socket that the server refuses is closed already.
void NatEntrance::hand_in(const PunchedSocket& viewer) {
    NatConnectRecord record;
    record.on_return = &close_returned;
    m_server.AddNewConnect(viewer.fd, viewer.peer.c_str(), static_cast<int>(viewer.peer.size()),
                           reinterpret_cast<long>(&record));
}
