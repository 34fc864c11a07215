#include "StreamSource/LiveSvrRef.h"

#include <utility>

#include "Vidora/LiveSvr.h"

namespace Kavio {
namespace Vidora {

CLiveSvrRef::CLiveSvrRef(CLiveSvr* live_svr) : m_live_svr(live_svr) {
    if (m_live_svr != nullptr) {
        m_live_svr->keep();
    }
}

CLiveSvrRef& CLiveSvrRef::operator=(const CLiveSvrRef& other) {
    CLiveSvrRef copy(other);
    std::swap(m_live_svr, copy.m_live_svr);
    return *this;
}

CLiveSvrRef::~CLiveSvrRef() {
    if (m_live_svr != nullptr) {
        m_live_svr->release();
    }
}

}  // namespace Vidora
}  // namespace Kavio
