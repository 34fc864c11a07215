#ifndef VIDORA_TESTS_FUZZ_FUZZRECORDS_H
#define VIDORA_TESTS_FUZZ_FUZZRECORDS_H

// How the fuzz targets of the converters read their input: a few bytes of settings, then records, each a control byte,
// a length byte and that many bytes (fewer at the end of the input).

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "Vidora/Ostra/Assert.h"
#include "Vidora/Ostra/ByteReader.h"
#include "Vidora/Ostra/Log.h"

namespace Kavio {
namespace Vidora {
namespace Fuzz {

struct Record {
    uint8_t control = 0;
    std::vector<uint8_t> bytes;
};

inline bool ReadRecord(Ostra::CByteReader& reader, Record& record) {
    if (reader.Remaining() < 2) {
        return false;
    }
    record.control = reader.ReadU8();
    const size_t want = reader.ReadU8();
    const size_t len = want < reader.Remaining() ? want : reader.Remaining();
    const uint8_t* bytes = reader.ReadBytes(len);
    record.bytes.assign(bytes, bytes + len);
    return true;
}

// The sender of a track: turns records into RTP packets. Bits of the control byte: 0-1 what the sequence number gains
// (so 1 is no gap), 2 new time stamp, 3 marker, 4 another payload type, 5 header bits from the first byte of the
// record (padding, extension, CSRC count), 6 interleave header, 7 the record is the packet as it stands.
class RtpSender {
public:
    std::vector<uint8_t> Make(const Record& record) {
        if ((record.control & 0x80) != 0) {
            return record.bytes;
        }
        m_sequence = static_cast<uint16_t>(m_sequence + (record.control & 3));
        m_timestamp += (record.control & 4) != 0 ? 3600 : 0;
        size_t skip = 0;
        uint8_t flags = 0x80;
        if ((record.control & 0x20) != 0 && !record.bytes.empty()) {
            flags = static_cast<uint8_t>(0x80 | (record.bytes[0] & 0x3F));
            skip = 1;
        }
        std::vector<uint8_t> packet;
        const uint32_t type = ((record.control & 8) != 0 ? 0x80u : 0) | ((record.control & 0x10) != 0 ? 97 : 96);
        put(packet, uint32_t{flags} << 24 | type << 16 | m_sequence);
        put(packet, m_timestamp);
        put(packet, 0x11223344);
        packet.insert(packet.end(), record.bytes.begin() + static_cast<long>(skip), record.bytes.end());
        if ((record.control & 0x40) != 0) {
            const uint8_t header[] = {'$', 0, static_cast<uint8_t>(packet.size() >> 8),
                                      static_cast<uint8_t>(packet.size())};
            packet.insert(packet.begin(), header, header + 4);
        }
        return packet;
    }

private:
    static void put(std::vector<uint8_t>& packet, uint32_t word) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            packet.push_back(static_cast<uint8_t>(word >> shift));
        }
    }
    uint16_t m_sequence = 65530;
    uint32_t m_timestamp = 0xFFFF0000;
};

// No log; assertions take the failure path, as in a release build.
inline void Quiet() {
    Ostra::SetLogLevel(Ostra::LOG_LEVEL_NONE);
    Ostra::SetAssertHandler([](const char*, const char*, int) {});
}

inline void Require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

}  // namespace Fuzz
}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_TESTS_FUZZ_FUZZRECORDS_H
