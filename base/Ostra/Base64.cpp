#include "Vidora/Ostra/Base64.h"

#include <cstdint>
#include <cstring>

namespace Kavio {
namespace Ostra {

namespace {

const char ALPHABET[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The six bits of a character, or -1 outside the alphabet.
int value_of(char c) {
    if (c >= 'A' && c <= 'Z') {
        return c - 'A';
    }
    if (c >= 'a' && c <= 'z') {
        return c - 'a' + 26;
    }
    if (c >= '0' && c <= '9') {
        return c - '0' + 52;
    }
    return c == '+' ? 62 : c == '/' ? 63 : -1;
}

}  // namespace

int base64EncodeLen(int len) {
    return len < 0 ? 1 : (len + 2) / 3 * 4 + 1;
}

int base64Encode(char* out, const char* in, int len) {
    char* place = out;
    for (int i = 0; i < len; i += 3) {
        const int left = len - i;
        uint32_t group = static_cast<uint32_t>(static_cast<unsigned char>(in[i])) << 16;
        group |= left > 1 ? static_cast<uint32_t>(static_cast<unsigned char>(in[i + 1])) << 8 : 0;
        group |= left > 2 ? static_cast<unsigned char>(in[i + 2]) : 0;
        *place++ = ALPHABET[group >> 18];
        *place++ = ALPHABET[(group >> 12) & 63];
        *place++ = left > 1 ? ALPHABET[(group >> 6) & 63] : '=';
        *place++ = left > 2 ? ALPHABET[group & 63] : '=';
    }
    *place = '\0';
    return base64EncodeLen(len);
}

int base64DecodeLen(const char* in) {
    size_t count = 0;
    while (value_of(in[count]) >= 0) {
        ++count;
    }
    return static_cast<int>(count / 4 * 3 + count % 4 * 6 / 8 + 1);
}

int base64Decode(char* out, const char* in) {
    int count = 0;
    uint32_t bits = 0;
    int bit_count = 0;
    for (int value = value_of(*in); value >= 0; value = value_of(*++in)) {
        bits = bits << 6 | static_cast<uint32_t>(value);
        bit_count += 6;
        if (bit_count >= 8) {
            bit_count -= 8;
            out[count++] = static_cast<char>(bits >> bit_count & 0xFF);
        }
    }
    out[count] = '\0';
    return count;
}

}  // namespace Ostra
}  // namespace Kavio
