#ifndef VIDORA_RENDEZVOUS_UDPSOCKET_H
#define VIDORA_RENDEZVOUS_UDPSOCKET_H

#include <sys/socket.h>

#include <string>
#include <vector>

namespace rendezvous {

// An address of either family with its port.
struct Address {
    sockaddr_storage native = {};
    socklen_t length = 0;

    bool IsValid() const { return length != 0; }
    int Port() const;
    // "192.0.2.1:4000" or "[2001:db8::1]:4000"; empty if invalid.
    std::string Text() const;
    bool operator==(const Address& other) const { return Text() == other.Text(); }
    bool operator<(const Address& other) const { return Text() < other.Text(); }

    // Reads "host:port", with an IPv6 host in brackets. A name is looked up unless `numeric`. Invalid if it is none.
    static Address Parse(const std::string& text, bool numeric);
};

// A message: its words, the first of which, "VRP/1", is left out. Empty if the datagram is none.
typedef std::vector<std::string> words_t;
words_t ParseMessage(const std::string& datagram);
std::string MakeMessage(const words_t& words);
bool IsKey(const std::string& word);
bool IsName(const std::string& word);

// A non-blocking UDP socket.
class UdpSocket {
public:
    UdpSocket() = default;
    ~UdpSocket() { Close(); }
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    // Binds at `local`, or at any address of its family if `any`.
    bool Open(const Address& local, bool any);
    void Close();
    // Releases the descriptor to the caller.
    int Release();
    int Fd() const { return m_fd; }
    Address Local() const;
    void Send(const words_t& words, const Address& to) const;
    // False if nothing is there. Errors that a peer's system has reported are passed over.
    bool Receive(std::string& datagram, Address& from) const;

private:
    int m_fd = -1;
};

}  // namespace rendezvous

#endif  // VIDORA_RENDEZVOUS_UDPSOCKET_H
