#include "StreamSource/SrcInfoTable.h"

namespace Kavio {
namespace Vidora {

void CSrcInfoTable::SetCount(int count) {
    CGuard guard(m_mutex);
    m_count = count;
}

void CSrcInfoTable::Begin(int index, uint16_t seq) {
    CGuard guard(m_mutex);
    m_info[index].seq = seq;
    m_info[index].octets = 0;
    m_info[index].packets = 0;
}

void CSrcInfoTable::SetSsrc(int index, unsigned int ssrc) {
    CGuard guard(m_mutex);
    m_ssrc[index] = ssrc;
}

void CSrcInfoTable::SetTimestamp(int index, uint32_t timestamp) {
    CGuard guard(m_mutex);
    m_info[index].timestamp = timestamp;
}

void CSrcInfoTable::SetPlace(int index, uint32_t timestamp, uint16_t seq) {
    CGuard guard(m_mutex);
    m_info[index].timestamp = timestamp;
    m_info[index].seq = seq;
}

void CSrcInfoTable::AddFrame(int index, uint32_t timestamp, uint16_t seq, unsigned int bytes, unsigned int packets) {
    CGuard guard(m_mutex);
    m_info[index].timestamp = timestamp;
    m_info[index].seq = seq;
    m_info[index].octets += bytes;
    m_info[index].packets += packets;
}

int CSrcInfoTable::Get(int index, SrcInfo& info) {
    CGuard guard(m_mutex);
    if (index < 0 || index >= m_count) {
        logError("%s:%d GetSrcInfo, channel_id out of, channel_id:%d m_channel_num:%d\n", __FILE__, __LINE__, index,
                 m_count);
        return -1;
    }
    info = m_info[index];
    return 0;
}

unsigned int CSrcInfoTable::GetSsrc(int index) {
    CGuard guard(m_mutex);
    return index < 0 || index >= MAX_TRACK ? 0 : m_ssrc[index];
}

}  // namespace Vidora
}  // namespace Kavio
