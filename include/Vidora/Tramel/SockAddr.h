#ifndef VIDORA_TRAMEL_SOCKADDR_H
#define VIDORA_TRAMEL_SOCKADDR_H

#include <netinet/in.h>
#include <sys/socket.h>

#include "Vidora/Export.h"

namespace Kavio {
namespace Tramel {

// Kinds of address.
enum sock_addr_type_t { SOCK_ADDR_NONE = 0, SOCK_ADDR_IPV4 = 1, SOCK_ADDR_IPV6 = 2 };

// CSockAddr: an address of either family with its port. Values without a lock.
class VIDORA_API CSockAddr {
public:
    virtual ~CSockAddr() = default;
    // Copies the address into `addr`, which has room for GetAddrLen() bytes. 0, or -1 if invalid or null.
    virtual int GetAddr(struct sockaddr* addr) const = 0;
    // Bytes of the platform's address structure; 0 if invalid.
    virtual int GetAddrLen() const = 0;
    virtual bool IsValid() const = 0;
    // Takes a platform address of `length` bytes, for instance one that accept() returned. 0, or -1 for a short length
    // or a family that this class doesn't hold (the address is then invalid).
    virtual int SetSockAddr(const struct sockaddr* addr, unsigned int length) = 0;

    // The family: a sock_addr_type_t.
    int GetType() const { return m_type; }

protected:
    explicit CSockAddr(int type) : m_type(type) {}
    CSockAddr(const CSockAddr&) = default;
    CSockAddr& operator=(const CSockAddr&) = default;

    int m_type;
};

// CSockAddrFamily: an address of one family, which is constant.
class VIDORA_API CSockAddrFamily : public CSockAddr {
public:
    int GetAddr(struct sockaddr* addr) const override;
    int GetAddrLen() const override;
    bool IsValid() const override { return m_valid; }
    // An address of the other family is accepted where this one has a form for it: an IPv4-mapped one as IPv4, an IPv4
    // one as mapped.
    int SetSockAddr(const struct sockaddr* addr, unsigned int length) override;

    // Sets the address from text; null or empty means the wildcard. 0, or -1 (the address is then invalid).
    int SetAddr(const char* ip, unsigned short port);
    unsigned short GetPort() const;
    // Canonical text into `buf` of `size` bytes; returns `buf`, which is empty if invalid or too short.
    char* GetIpStr(char* buf, unsigned int size) const;

protected:
    explicit CSockAddrFamily(sock_addr_type_t type) : CSockAddr(type), m_addr() {}

private:
    union CNative {
        sockaddr_in6 ipv6;
        sockaddr_in ipv4;  // its port lies where that of ipv6 does
        struct sockaddr any;
    };

    CNative m_addr;
    bool m_valid = false;
};

// CSockAddrIPv4: an IPv4 address in dotted text. An IPv4-mapped IPv6 text (RFC 4291 2.5.5.2) is accepted and printed
// plain.
class VIDORA_API CSockAddrIPv4 : public CSockAddrFamily {
public:
    CSockAddrIPv4() : CSockAddrFamily(SOCK_ADDR_IPV4) {}
    CSockAddrIPv4(const char* ip, unsigned short port) : CSockAddrIPv4() { SetAddr(ip, port); }
};

// CSockAddrIPv6: an IPv6 address, its text in the canonical form of RFC 5952 without brackets. SetAddr takes it with or
// without brackets and a %scope.
class VIDORA_API CSockAddrIPv6 : public CSockAddrFamily {
public:
    CSockAddrIPv6() : CSockAddrFamily(SOCK_ADDR_IPV6) {}
    CSockAddrIPv6(const char* ip, unsigned short port) : CSockAddrIPv6() { SetAddr(ip, port); }
};

// CSockAddrStorage: holds an address of either family.
class VIDORA_API CSockAddrStorage : public CSockAddr {
public:
    CSockAddrStorage();
    CSockAddrStorage(const char* ip, unsigned short port);
    CSockAddrStorage(const CSockAddrStorage& other) = default;
    CSockAddrStorage& operator=(const CSockAddrStorage& other) = default;

    int GetAddr(struct sockaddr* addr) const override;
    int GetAddrLen() const override;
    bool IsValid() const override;
    int SetSockAddr(const struct sockaddr* addr, unsigned int length) override;

    // Family, address and port are equal.
    bool operator==(const CSockAddrStorage& other) const;
    bool operator!=(const CSockAddrStorage& other) const { return !(*this == other); }

    // Sets the address from an IPv4 or IPv6 text (brackets and a %scope allowed) or a host name, which is resolved
    // and may block. Null or empty is the IPv6 wildcard. 0, or -1 (the address is then invalid).
    int SetAddr(const char* ip, unsigned short port);
    // Sets the address and keeps the port. 0 or -1.
    int SetIp(const char* ip);
    void SetPort(unsigned short port);
    unsigned short GetPort() const;
    // Canonical text of the address without its scope, an IPv4-mapped one as plain IPv4. Returns `buf`, which is empty
    // if the address is invalid or `size` too small.
    char* GetIpStr(char* buf, unsigned int size) const;

    // 1 for IPv4, an IPv4-mapped IPv6 address included; 2 for IPv6; 0 if invalid.
    int GetRealType() const;
    // True for a multicast group of either family.
    bool IsMulticast() const;
    // The same address for a socket of the other family: an IPv4-mapped one as IPv4 for SOCK_ADDR_IPV4, an IPv4 one as
    // mapped for SOCK_ADDR_IPV6. A copy where there is nothing to change, or no such form.
    CSockAddrStorage ForFamily(int type) const;

    // The platform's structure, for calls that want it without a copy.
    const struct sockaddr* Native() const { return &m_addr.any; }

private:
    union CNative {
        struct sockaddr any;
        sockaddr_in ipv4;
        sockaddr_in6 ipv6;  // its port lies where that of ipv4 does
        sockaddr_storage storage;
    };

    CNative m_addr;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_SOCKADDR_H
