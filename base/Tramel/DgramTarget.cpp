#include "Tramel/DgramTarget.h"

#include <cstring>

namespace Kavio {
namespace Tramel {

namespace {

// Writes the one control message of a target: its size.
template <typename Info>
size_t write_control(unsigned char* control, int level, int type, const Info& info) {
    struct msghdr message = {};
    message.msg_control = control;
    message.msg_controllen = CDgramTarget::CONTROL_SIZE;
    struct cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = level;
    header->cmsg_type = type;
    header->cmsg_len = CMSG_LEN(sizeof(info));
    std::memcpy(CMSG_DATA(header), &info, sizeof(info));
    return CMSG_SPACE(sizeof(info));
}

}  // namespace

int CDgramTarget::Set(const CSockAddrStorage& remote, unsigned int interface_index, const CSockAddrStorage& source) {
    const int type = remote.GetType();
    if (!remote.IsValid()) {
        return -1;
    }
    remote.GetAddr(&m_addr.any);
    m_addr_length = static_cast<socklen_t>(remote.GetAddrLen());
    m_control_size = 0;
    std::memset(m_control, 0, sizeof(m_control));
    if (interface_index == 0) {
        return 0;
    }
    const CSockAddrStorage from = source.ForFamily(type);
    if (type == SOCK_ADDR_IPV4) {
        in_pktinfo info = {};
        info.ipi_ifindex = static_cast<int>(interface_index);
        if (from.GetType() == type) {
            sockaddr_in native = {};
            from.GetAddr(reinterpret_cast<struct sockaddr*>(&native));
            info.ipi_spec_dst = native.sin_addr;
        }
        m_control_size = write_control(m_control, IPPROTO_IP, IP_PKTINFO, info);
    } else {
        in6_pktinfo info = {};
        info.ipi6_ifindex = interface_index;
        if (from.GetType() == type) {
            sockaddr_in6 native = {};
            from.GetAddr(reinterpret_cast<struct sockaddr*>(&native));
            info.ipi6_addr = native.sin6_addr;
        }
        m_control_size = write_control(m_control, IPPROTO_IPV6, IPV6_PKTINFO, info);
    }
    return 0;
}

void CDgramTarget::Fill(struct msghdr& message) const {
    if (!IsSet()) {
        return;
    }
    message.msg_name = const_cast<struct sockaddr*>(&m_addr.any);
    message.msg_namelen = m_addr_length;
    message.msg_control = m_control_size == 0 ? nullptr : const_cast<unsigned char*>(m_control);
    message.msg_controllen = m_control_size;
}

}  // namespace Tramel
}  // namespace Kavio
