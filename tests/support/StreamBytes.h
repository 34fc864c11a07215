#ifndef VIDORA_TESTS_SUPPORT_STREAMBYTES_H
#define VIDORA_TESTS_SUPPORT_STREAMBYTES_H

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace Kavio::Vidora {}
namespace Kavio::Support {

using namespace Vidora;

typedef std::vector<uint8_t> Bytes;

inline std::string ToHex(const Bytes& bytes) {
    static const char DIGITS[] = "0123456789abcdef";
    std::string text;
    for (const uint8_t byte : bytes) {
        text += DIGITS[byte >> 4];
        text += DIGITS[byte & 15];
    }
    return text;
}

inline Bytes FromText(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

inline std::string ToText(const Bytes& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

inline Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// `len` bytes from a place on, as far as there are.
inline Bytes Part(const Bytes& bytes, size_t from, size_t len = SIZE_MAX) {
    const auto begin = bytes.begin() + static_cast<long>(std::min(from, bytes.size()));
    return Bytes(begin, begin + static_cast<long>(std::min<size_t>(len, static_cast<size_t>(bytes.end() - begin))));
}

// Bytes that run through all values but 0 and 1, so that no start code is among them.
inline Bytes Ramp(size_t len) {
    Bytes bytes(len);
    for (size_t i = 0; i < len; ++i) {
        bytes[i] = static_cast<uint8_t>(i % 254 + 2);
    }
    return bytes;
}

// Bytes of words of hexadecimal digits; a word that ends in "*" and a number has its last byte so many times, and "~"
// with a number stands for so many bytes of Ramp.
inline Bytes FromHex(const std::string& text) {
    Bytes bytes;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        if (word[0] == '~') {
            bytes = bytes + Ramp(std::stoul(word.substr(1)));
            continue;
        }
        const size_t star = std::min(word.find('*'), word.size());
        for (size_t i = 0; i < star; i += 2) {
            bytes.push_back(static_cast<uint8_t>(std::strtoul(word.substr(i, 2).c_str(), nullptr, 16)));
        }
        bytes.resize(bytes.size() + (star < word.size() ? std::stoul(word.substr(star + 1)) - 1 : 0), bytes.back());
    }
    return bytes;
}

// What the header of an RTP packet says.
struct RtpFields {
    uint16_t sequence = 1;
    uint32_t timestamp = 3600;
    bool marker = false;
    uint8_t payload_type = 96;
    uint32_t ssrc = 0x11223344;
};

inline Bytes MakeRtp(const RtpFields& fields, const Bytes& payload) {
    Bytes packet = {0x80, static_cast<uint8_t>((fields.marker ? 0x80 : 0) | fields.payload_type)};
    const auto put = [&packet](uint32_t value, int len) {
        for (int shift = 8 * (len - 1); shift >= 0; shift -= 8) {
            packet.push_back(static_cast<uint8_t>(value >> shift));
        }
    };
    put(fields.sequence, 2);
    put(fields.timestamp, 4);
    put(fields.ssrc, 4);
    return packet + payload;
}

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_STREAMBYTES_H
