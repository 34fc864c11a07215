#include "Vidora/RtpFrameBuffer.h"

#include <new>
#include <utility>

#include "RtspClient/RtpFrameBufferCore.h"

namespace Kavio {
namespace Vidora {

CRtpFrameBuffer::CRtpFrameBuffer() : m_core(new (std::nothrow) CRtpFrameBufferCore) {}

CRtpFrameBuffer::CRtpFrameBuffer(const CRtpFrameBuffer& other) : m_core(other.m_core) {
    if (m_core != nullptr) {
        m_core->AddRef();
    }
}

CRtpFrameBuffer& CRtpFrameBuffer::operator=(const CRtpFrameBuffer& other) {
    CRtpFrameBuffer shared(other);
    std::swap(m_core, shared.m_core);
    return *this;
}

CRtpFrameBuffer::~CRtpFrameBuffer() {
    if (m_core != nullptr) {
        m_core->Release();
    }
}

int CRtpFrameBuffer::Init(CSdpInfo* sdp, int, int) {
    return m_core != nullptr ? m_core->Init(sdp) : -1;
}

int CRtpFrameBuffer::Put(CMediaPacket* packet, int length) {
    return m_core != nullptr ? m_core->Put(packet, length) : -1;
}

int CRtpFrameBuffer::End(int channel) {
    return m_core != nullptr ? m_core->End(channel) : 0;
}

Flumen::CMediaFrame CRtpFrameBuffer::Get() {
    return m_core != nullptr ? m_core->Get() : Flumen::CMediaFrame();
}

void CRtpFrameBuffer::Clear() {
    if (m_core != nullptr) {
        m_core->Clear();
    }
}

void CRtpFrameBuffer::SetFrameMode(int mode) {
    if (m_core != nullptr) {
        m_core->SetFrameMode(mode);
    }
}

void CRtpFrameBuffer::SetFramePolicy(int policy) {
    logInfo("%s %d SetFramePolicy[%d]\n", __FILE__, __LINE__, policy);
    if (m_core != nullptr) {
        m_core->SetFramePolicy(policy);
    }
}

void CRtpFrameBuffer::SetFrameRate(int rate) {
    logTrace("\n%s:%d  CRtpFrameBuffer::SetFrameRate rate=%d\n", __FILE__, __LINE__, rate);
    if (m_core != nullptr) {
        m_core->SetFrameRate(rate);
    }
}

void CRtpFrameBuffer::GetStatis(TFrameBufferStatis& video, TFrameBufferStatis& audio) {
    if (m_core != nullptr) {
        m_core->GetStatis(video, audio);
    }
}

bool CRtpFrameBuffer::was_damaged() const {
    return m_core != nullptr && m_core->WasDamaged();
}

}  // namespace Vidora
}  // namespace Kavio
