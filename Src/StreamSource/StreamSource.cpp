#include "Vidora/StreamSource.h"

namespace Kavio {
namespace Vidora {

CStreamSource::CStreamSource() = default;
CStreamSource::~CStreamSource() = default;

bool CStreamSource::Pause() {
    return false;
}
bool CStreamSource::Resume() {
    return false;
}
bool CStreamSource::SetSpeed(float) {
    return false;
}
bool CStreamSource::SeekByTime(const CTime&) {
    return false;
}
bool CStreamSource::StepFrame(int, bool) {
    return false;
}
bool CStreamSource::GetTime(CTime&) {
    return false;
}
bool CStreamSource::GetSpeed(float&) {
    return false;
}
bool CStreamSource::GetFileRange(CTime&, CTime&) {
    return false;
}
bool CStreamSource::GetFileRange(uint64_t&) {
    return false;
}
void CStreamSource::SetIFrame() {}
bool CStreamSource::Limit(CTime, CTime) {
    return false;
}
void CStreamSource::RePlay() {}
bool CStreamSource::getPacketType(int&) {
    return false;
}

}  // namespace Vidora
}  // namespace Kavio
