#include "RtpSeparator.h"

#include <cctype>
#include <utility>

#include "Ostra/MemoryTrail.h"
#include "Tramel/Interleave.h"

namespace Kavio {
namespace Vidora {

namespace {

const size_t MIN_UNIT = 4;      // the interleave header
const size_t RESYNC_UNIT = 16;  // up to the SSRC
const size_t SSRC_OFFSET = 12;  // from the "$"
const size_t CHANNEL_OFFSET = 1;

bool is_letter(uint8_t byte, char lower) {
    return std::tolower(byte) == lower;
}

}  // namespace

int CRTPSeparator::SetChannel(int video_channel, int audio_channel) {
    m_channels[0].number = video_channel;
    m_channels[1].number = audio_channel;
    return 0;
}

Flumen::CMediaFrame CRTPSeparator::TakeRest(int channel) {
    Channel* found = find_channel(channel);
    return found != nullptr ? found->merger.Take() : Flumen::CMediaFrame();
}

CRTPSeparator::Channel* CRTPSeparator::find_channel(int number) {
    for (Channel& channel : m_channels) {
        if (channel.number == number) {
            return &channel;
        }
    }
    return nullptr;
}

CBufferedSeparator::step_t CRTPSeparator::parse_step(CByteReader& reader) {
    if (reader.Remaining() < MIN_UNIT) {
        return STEP_SHORT;
    }
    if (reader.PeekU8() == Tramel::INTERLEAVE_MARK) {
        return cut_interleaved(reader);
    }
    if ((is_letter(reader.PeekU8(), 'r') && is_letter(reader.PeekU8(1), 't')) || may_be_request(reader)) {
        return cut_text(reader);
    }
    if (m_lost_log.Pass()) {
        logWarn("%s:%d rtp over rtsp stream error \n", __FILE__, __LINE__);
    }
    return resynchronise(reader);
}

CBufferedSeparator::step_t CRTPSeparator::cut_interleaved(CByteReader& reader) {
    CByteReader ahead = reader;
    interleaved_unit_t unit;
    const bool whole = ReadInterleavedUnit(ahead, unit);
    if (unit.length == 0) {
        logError("%s:%d rtp over rtsp stream error, len %d\n", __FILE__, __LINE__, 0);
        return STEP_FAILED;
    }
    const int size = static_cast<int>(unit.length + Tramel::INTERLEAVE_HEADER_SIZE);
    if (!whole) {
        want_room(size);
        return STEP_SHORT;
    }
    Channel* channel = find_channel(unit.channel);
    RtpHeader header;
    if (channel == nullptr || !rtp_parse_header(unit.data, unit.length, header)) {
        return cut_unit(reader, size, unit.channel, SEPARATOR_RTP);
    }
    Ostra::CMemoryTrail::Note(m_channels);
    channel->ssrc = channel->ssrc == 0 ? header.ssrc : channel->ssrc;
    return merge(reader, *channel, header, unit);
}

CBufferedSeparator::step_t CRTPSeparator::merge(CByteReader& reader, Channel& channel, const RtpHeader& header,
                                                const interleaved_unit_t& unit) {
    if (channel.merger.EndsBefore(header, unit.length)) {
        put_out(channel);  // the unit is read again and begins the next run
        return STEP_DONE;
    }
    if (channel.merger.Append(unit.channel, unit.data, unit.length, header) < 0) {
        return STEP_FAILED;
    }
    reader.Skip(static_cast<size_t>(unit.length) + Tramel::INTERLEAVE_HEADER_SIZE);
    if (header.marker) {
        put_out(channel);
    }
    return STEP_DONE;
}

void CRTPSeparator::put_out(Channel& channel) {
    Flumen::CMediaFrame run = channel.merger.Take();
    const int length = static_cast<int>(run.size());
    add_record(std::move(run), length, channel.number, SEPARATOR_RTP);
}

// Throws away up to the next unit of a known source; if there is none, up to the next "$" among the last bytes, which
// may begin one.
CBufferedSeparator::step_t CRTPSeparator::resynchronise(CByteReader& reader) {
    const size_t from = reader.Offset();
    reader.Skip(1);
    while (reader.Remaining() >= RESYNC_UNIT && !is_known_unit(reader)) {
        reader.Skip(1);
    }
    while (reader.Remaining() > 0 && reader.PeekU8() != Tramel::INTERLEAVE_MARK) {
        reader.Skip(1);
    }
    m_skipped += reader.Offset() - from;
    return STEP_DONE;
}

bool CRTPSeparator::is_known_unit(CByteReader reader) const {
    if (reader.PeekU8() != Tramel::INTERLEAVE_MARK) {
        return false;
    }
    const int number = reader.PeekU8(CHANNEL_OFFSET);
    reader.Skip(SSRC_OFFSET);
    const uint32_t ssrc = reader.ReadU32();
    for (const Channel& channel : m_channels) {
        if (channel.number == number && channel.ssrc == ssrc) {
            return true;
        }
    }
    return false;
}

}  // namespace Vidora
}  // namespace Kavio
