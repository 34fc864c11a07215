#ifndef VIDORA_TESTS_FUZZ_FUZZSUPPORT_H
#define VIDORA_TESTS_FUZZ_FUZZSUPPORT_H

// What the fuzz targets share. Those of the converters read a few bytes of settings, then records: each a control byte,
// a length byte and that many bytes (fewer at the end of the input).

#include <cstdlib>

#include "Vidora/Flumen/MediaFrame.h"
#include "Vidora/KXFrame.h"
#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteReader.h"
#include "support/StreamBytes.h"

namespace Kavio::Vidora {

using Support::operator+;

namespace Fuzz {

using Support::Bytes;

// What each program's file defines: feeds one input to the code under attack.
void Target(const uint8_t* data, size_t size);

// What must hold of a target's output, in every build.
inline void Require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

// The next bytes, as far as there are so many, in a block of their exact size.
inline Bytes ReadBytes(Ostra::CByteReader& reader, size_t want) {
    const size_t length = std::min(want, reader.Remaining());
    const uint8_t* bytes = reader.ReadBytes(length);
    return Bytes(bytes, bytes + length);
}

struct Record {
    uint8_t control = 0;
    Bytes bytes;
};

inline bool ReadRecord(Ostra::CByteReader& reader, Record& record) {
    if (reader.Remaining() < 2) {
        return false;
    }
    record.control = reader.ReadU8();
    const size_t want = reader.ReadU8();
    record.bytes = ReadBytes(reader, want);
    return true;
}

// The record's bytes, so often over that they make a large frame if bit 7 of the control byte says so.
inline Bytes Repeated(const Record& record, size_t times) {
    Bytes all;
    for (size_t i = 0; i < ((record.control & 0x80) != 0 ? times : 1); ++i) {
        all.insert(all.end(), record.bytes.begin(), record.bytes.end());
    }
    return all;
}

inline Flumen::CMediaFrame MakeFrame(const Bytes& bytes) {
    Flumen::CMediaFrame frame(static_cast<unsigned int>(bytes.size()));
    frame.resize(0);
    frame.putBuffer(bytes.data(), static_cast<unsigned int>(bytes.size()));
    return frame;
}

// The private frame has a header that fits it.
inline bool HeaderFits(const Flumen::CMediaFrame& frame) {
    KXHeader header;
    return kx_read_header(frame.getBuffer(), frame.size(), header) && header.total_length == frame.size() &&
           header.checksum == kx_header_checksum(frame.getBuffer());
}

// The sender of a track: turns records into RTP packets. Bits of the control byte: 0-1 what the sequence number gains
// (so 1 is no gap), 2 new time stamp, 3 marker, 4 another payload type, 5 header bits from the first byte of the
// record (padding, extension, CSRC count), 6 interleave header, 7 the record is the packet as it stands.
class RtpSender {
public:
    RtpSender() {
        m_spec.sequence = 65530;
        m_spec.timestamp = 0xFFFF0000;
    }
    Bytes Make(const Record& record) {
        if ((record.control & 0x80) != 0) {
            return record.bytes;
        }
        m_spec.sequence = static_cast<uint16_t>(m_spec.sequence + (record.control & 3));
        m_spec.timestamp += (record.control & 4) != 0 ? 3600 : 0;
        m_spec.marker = (record.control & 8) != 0;
        m_spec.payload_type = (record.control & 0x10) != 0 ? 97 : 96;
        const bool flags = (record.control & 0x20) != 0 && !record.bytes.empty();
        Bytes packet = Support::MakeRtp(m_spec, Bytes(record.bytes.begin() + (flags ? 1 : 0), record.bytes.end()));
        packet[0] = static_cast<uint8_t>(0x80 | (flags ? record.bytes[0] & 0x3F : 0));
        if ((record.control & 0x40) != 0) {
            const size_t size = packet.size();
            packet.insert(packet.begin(), {'$', 0, static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size)});
        }
        return packet;
    }

private:
    Support::RtpFields m_spec;
};

}  // namespace Fuzz
}  // namespace Kavio::Vidora

#endif  // VIDORA_TESTS_FUZZ_FUZZSUPPORT_H
