#include "Vidora/DataSource.h"

#include "StreamSource/SourceGate.h"

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
void CDataSource::CutFeeding(const CMediaBuffer*) {}
int CDataSource::StopFeeding(packet_type_t packet_type, CMediaBuffer*) {
    return StopStreaming(packet_type);
}

}  // namespace Vidora
}  // namespace Kavio
