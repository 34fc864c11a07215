#include "Vidora/DataSource.h"

#include <cstring>
#include <new>

#include "StreamSource/KXDataSrc.h"
#include "StreamSource/SourceGate.h"
#include "Vidora/RtspUrlParser.h"

namespace Kavio {
namespace Vidora {

CDataSource::CDataSource() : m_gate(CSourceGate::Create(this)) {}

CDataSource::~CDataSource() {
    if (m_gate != nullptr) {
        m_gate->End();
    }
}

void CDataSource::Close() {
    const std::shared_ptr<CSourceGate> gate = m_gate;
    if (gate == nullptr || gate->End()) {
        CNetHandler::Close();
    }
}

namespace {

// The class behind a source type; null if no class serves it, or memory is short.
CDataSource* make_source(src_type_t type, const char* content) {
    switch (type) {
        // Types 3 and 4 carry "proxy=" as well, but the host answers them through its factory.
        case SRC_TYPE_LIVE:
        case SRC_TYPE_FILE:
        case SRC_TYPE_PROXY_LIVE:
        case SRC_TYPE_PROXY_FILE:
        case SRC_TYPE_TOKEN:
            return new (std::nothrow) CKXDataSrc(content);
        // SRC_TYPE_PROXY pulls from another server, which this build has no client for yet: it fails as a source that
        // cannot be made.
        default:
            return nullptr;
    }
}

}  // namespace

CDataSource* CDataSource::Create(const char* content) {
    CRtspUrlParser parser;
    unsigned int length = content == nullptr ? 0 : static_cast<unsigned int>(std::strlen(content));
    if (!parser.ParseContent(content, length)) {
        logError("%s:%d content parse fail!\n", __FILE__, __LINE__);
        return nullptr;
    }
    const src_type_t type = parser.GetSrcType();
    CDataSource* source = make_source(type, content);
    if (source == nullptr) {
        logError("%s:%d nonsupport this source type[%d] \n", __FILE__, __LINE__, type);
        return nullptr;
    }
    source->m_src_type = type;
    return source;
}

void CDataSource::SetConfig(const CRtspSvrConfig&) {}
int CDataSource::GetSdp(CSdpParser&, int) {
    return -1;
}
int CDataSource::UpdataDataSrc(long) {
    return 0;
}
int CDataSource::EnableStreamTrack(int) {
    return -1;
}
int CDataSource::DisableStreamTrack(int) {
    return -1;
}
int CDataSource::StopFeeding(packet_type_t packet_type, CMediaBuffer*) {
    return StopStreaming(packet_type);
}

}  // namespace Vidora
}  // namespace Kavio
