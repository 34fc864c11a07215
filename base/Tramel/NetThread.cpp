#include "Vidora/Tramel/NetThread.h"

#include "Tramel/Reactor.h"

namespace Kavio {
namespace Tramel {

int CNetThread::CreateThreadPool(unsigned int threads, bool) {
    return CReactor::Instance().Start(threads);
}

int CNetThread::DestroyThreadPool() {
    return CReactor::Instance().Stop();
}

}  // namespace Tramel
}  // namespace Kavio
