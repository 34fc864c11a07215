#ifndef VIDORA_TESTS_SUPPORT_STREAMPEER_H
#define VIDORA_TESTS_SUPPORT_STREAMPEER_H

#include <netinet/tcp.h>

#include <atomic>
#include <cstring>
#include <string>
#include <vector>

#include "Tramel/MediaStreamSender.h"
#include "Vidora/Tramel/MediaPacket.h"
#include "support/Interleave.h"
#include "support/Loopback.h"
#include "support/TestHandler.h"

namespace Kavio::Support {

// A connected pair of stream sockets on loopback TCP with small buffers, so that a peer that doesn't read is noticed
// soon. `near_fd` is for the code under test, `far_fd` is the peer's end, non-blocking.
struct TcpPair {
    int near_fd = -1;
    int far_fd = -1;

    explicit TcpPair(int buffer_bytes = 16384) {
        const CBoundSocket listener(SOCK_STREAM);
        ::setsockopt(listener.Fd(), SOL_SOCKET, SO_RCVBUF, &buffer_bytes, sizeof(buffer_bytes));
        ::listen(listener.Fd(), 1);
        near_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ::setsockopt(near_fd, SOL_SOCKET, SO_SNDBUF, &buffer_bytes, sizeof(buffer_bytes));
        const int no_delay = 1;
        ::setsockopt(near_fd, IPPROTO_TCP, TCP_NODELAY, &no_delay, sizeof(no_delay));
        const sockaddr_in address = LoopbackAddress(listener.Port());
        ::connect(near_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
        far_fd = ::accept4(listener.Fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    }
    TcpPair(const TcpPair&) = delete;
    ~TcpPair() { CloseFar(); }
    void CloseFar() {
        if (far_fd >= 0) {
            ::close(far_fd);
        }
        far_fd = -1;
    }
};

// A media packet whose number alive is counted.
class CountedPacket : public Tramel::CMediaPacket {
public:
    explicit CountedPacket(std::string bytes) : m_bytes(std::move(bytes)) { ++Alive(); }
    ~CountedPacket() override { --Alive(); }
    unsigned char* GetData() override { return reinterpret_cast<unsigned char*>(&m_bytes[0]); }
    int Size() const { return static_cast<int>(m_bytes.size()); }
    static std::atomic<int>& Alive() {
        static std::atomic<int> alive{0};
        return alive;
    }

private:
    std::string m_bytes;
};

// Units of the wire. An interleaved packet ("$", channel, 16-bit length) whose payload tells its number and kind, and a
// control text that ends in an empty line.
inline std::string MediaBytes(int channel, unsigned int number, bool key, size_t payload_size) {
    std::string payload(payload_size, static_cast<char>('a' + number % 23));
    payload[0] = key ? 'K' : 'P';
    std::memcpy(&payload[1], &number, sizeof(number));
    return Interleaved(channel, payload);
}

inline std::string TextBytes(unsigned int number, size_t padding = 0) {
    return "RTSP/1.0 200 OK\r\nCSeq: " + std::to_string(number) + "\r\nX: " + std::string(padding, 'x') + "\r\n\r\n";
}

// Reads the peer's end and cuts it into those units; anything else is a fault.
class WireReader {
public:
    // Takes what is there; false if that is nothing.
    bool Read(int fd) {
        char buffer[65536];
        bool any = false;
        for (ssize_t count; (count = ::recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT)) > 0; any = true) {
            m_rest.append(buffer, static_cast<size_t>(count));
        }
        for (const std::string& unit : TakeUnits(m_rest)) {
            take(unit);
        }
        m_broken = m_broken || (!m_rest.empty() && m_rest[0] != '$' && m_rest[0] != 'R');
        return any;
    }
    size_t Count() const { return m_units.size(); }
    bool Broken() const { return m_broken; }
    bool Partial() const { return !m_rest.empty(); }
    // Numbers of the media units of a channel, or of the texts for -1.
    std::vector<unsigned int> Numbers(int channel) const {
        std::vector<unsigned int> numbers;
        for (const auto& [unit_channel, number] : m_units) {
            if (unit_channel == channel) {
                numbers.push_back(number);
            }
        }
        return numbers;
    }

private:
    void take(const std::string& bytes) {
        const bool media = bytes[0] == '$';
        const int channel = media ? static_cast<unsigned char>(bytes[1]) : -1;
        unsigned int number = 0;
        if (media) {
            std::memcpy(&number, &bytes[5], sizeof(number));
            m_broken = m_broken || bytes != MediaBytes(channel, number, bytes[4] == 'K', bytes.size() - 4);
        } else {
            number = static_cast<unsigned int>(strtoul(HeaderOf(bytes, "CSeq").c_str(), nullptr, 10));
            m_broken = m_broken || bytes != TextBytes(number, bytes.size() - TextBytes(number).size());
        }
        m_units.emplace_back(channel, number);
    }

    std::string m_rest;
    std::vector<std::pair<int, unsigned int>> m_units;  // channel, -1 for a text, and number
    bool m_broken = false;
};

// A media sender and the socket for it, and what the peer has read.
struct SendingEnd {
    explicit SendingEnd(int buffer_bytes) : pair(buffer_bytes) { sock.Attach(pair.near_fd); }
    ~SendingEnd() { sender->Close(); }

    bool Read() { return reader.Read(pair.far_fd); }
    void Say(const std::string& text) { sender->SendOtherData(text.data(), static_cast<int>(text.size())); }
    // Waits until that many units have come.
    bool Gets(size_t units) {
        return WaitUntil([&] { return (Read(), reader.Count() >= units || reader.Broken()); });
    }

    TcpPair pair;
    Tramel::CSockStream sock;
    Tramel::CMediaStreamSender* sender = Tramel::CMediaStreamSender::Create();
    WireReader reader;
};

// A handler that counts the failures of sockets that it is told.
class MessageCounter : public Tramel::CNetHandler {
public:
    int handle_message(long, unsigned int msg, long) override {
        m_failures += msg == Tramel::MSG_SOCK_EXCEPTION ? 1 : 0;
        return 0;
    }
    int Failures() const { return m_failures; }

private:
    std::atomic<int> m_failures{0};
};

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_STREAMPEER_H
