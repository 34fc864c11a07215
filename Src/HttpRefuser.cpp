#include "HttpRefuser.h"

#include "Tramel/SockStream.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

int CHttpRefuser::add_connection(Tramel::CSockStream* sock, const char* /*buf*/, int /*len*/) {
    logWarn("%s:%d RTSP over HTTP is not served, connection closed, fd:%d \n", __FILE__, __LINE__, sock->GetHandle());
    delete sock;
    return -1;
}

}  // namespace Vidora
}  // namespace Kavio
