#include "rendezvous/UdpSocket.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <sstream>

namespace rendezvous {

namespace {

const char PROTOCOL[] = "VRP/1";
const size_t MAX_DATAGRAM = 512;
const size_t MAX_WORDS = 4;
const size_t MAX_NAME = 64;
const size_t KEY_DIGITS = 16;
const int MAX_PASSED_ERRORS = 16;

sockaddr* any_native(Address& address) {
    return reinterpret_cast<sockaddr*>(&address.native);
}
const sockaddr* any_native(const Address& address) {
    return reinterpret_cast<const sockaddr*>(&address.native);
}

// The host and the port of an address in figures.
bool to_figures(const Address& address, std::string& host, std::string& port) {
    char host_text[NI_MAXHOST];
    char port_text[NI_MAXSERV];
    if (!address.IsValid() || getnameinfo(any_native(address), address.length, host_text, sizeof(host_text), port_text,
                                          sizeof(port_text), NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
        return false;
    }
    host = host_text;
    port = port_text;
    return true;
}

}  // namespace

int Address::Port() const {
    std::string host;
    std::string port;
    return to_figures(*this, host, port) ? std::stoi(port) : 0;
}

std::string Address::Text() const {
    std::string host;
    std::string port;
    if (!to_figures(*this, host, port)) {
        return std::string();
    }
    return native.ss_family == AF_INET6 ? "[" + host + "]:" + port : host + ":" + port;
}

Address Address::Parse(const std::string& text, bool numeric) {
    Address address;
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) {
        return address;
    }
    std::string host = text.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    addrinfo hints = {};
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_flags = AI_NUMERICSERV | (numeric ? AI_NUMERICHOST : 0);
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), text.c_str() + colon + 1, &hints, &found) == 0) {
        address.length = found->ai_addrlen;
        std::copy_n(reinterpret_cast<const char*>(found->ai_addr), found->ai_addrlen,
                    reinterpret_cast<char*>(&address.native));
        freeaddrinfo(found);
    }
    return address;
}

words_t ParseMessage(const std::string& datagram) {
    std::istringstream stream(datagram);
    std::string word;
    words_t words;
    if (!(stream >> word) || word != PROTOCOL) {
        return words;
    }
    while (words.size() < MAX_WORDS && stream >> word) {
        words.push_back(word);
    }
    return words;
}

std::string MakeMessage(const words_t& words) {
    std::string text = PROTOCOL;
    for (const std::string& word : words) {
        text += " " + word;
    }
    return text + "\n";
}

bool IsKey(const std::string& word) {
    return word.size() == KEY_DIGITS &&
           std::all_of(word.begin(), word.end(), [](unsigned char digit) { return isxdigit(digit) != 0; });
}

bool IsName(const std::string& word) {
    return !word.empty() && word.size() <= MAX_NAME &&
           std::all_of(word.begin(), word.end(), [](unsigned char letter) { return isgraph(letter) != 0; });
}

bool UdpSocket::Open(const Address& local, bool any) {
    Close();
    Address at = local;
    if (any) {
        at.native = {};
        at.native.ss_family = local.native.ss_family;
    }
    m_fd = socket(at.native.ss_family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (m_fd < 0 || bind(m_fd, any_native(at), at.length) != 0) {
        Close();
    }
    return m_fd >= 0;
}

void UdpSocket::Close() {
    if (m_fd >= 0) {
        close(m_fd);
        m_fd = -1;
    }
}

int UdpSocket::Release() {
    const int fd = m_fd;
    m_fd = -1;
    return fd;
}

Address UdpSocket::Local() const {
    Address local;
    socklen_t length = sizeof(local.native);
    if (getsockname(m_fd, any_native(local), &length) == 0) {
        local.length = length;
    }
    return local;
}

// What is lost is sent again by whoever waits for an answer.
void UdpSocket::Send(const words_t& words, const Address& to) const {
    const std::string text = MakeMessage(words);
    if (to.IsValid()) {
        sendto(m_fd, text.data(), text.size(), MSG_NOSIGNAL, any_native(to), to.length);
    }
}

bool UdpSocket::Receive(std::string& datagram, Address& from) const {
    char text[MAX_DATAGRAM];
    ssize_t count = -1;
    int tries = 0;
    do {
        from.length = sizeof(from.native);
        count = recvfrom(m_fd, text, sizeof(text), 0, any_native(from), &from.length);
    } while (count < 0 && errno != EAGAIN && errno != EBADF && ++tries < MAX_PASSED_ERRORS);
    datagram.assign(text, count < 0 ? 0 : static_cast<size_t>(count));
    return count >= 0;
}

}  // namespace rendezvous
