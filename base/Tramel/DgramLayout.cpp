#include "Tramel/DgramLayout.h"

#include <algorithm>
#include <cerrno>

#include "Tramel/Interleave.h"
#include "Tramel/MediaCounters.h"
#include "Tramel/SinkEntry.h"
#include "Vidora/Ostra/ByteReader.h"

namespace Kavio {
namespace Tramel {

CDgramLayout::CRest CDgramLayout::Send(CSinkEntry& entry, CMediaTally& tally) {
    if (!m_is_laid_out) {
        lay_out();
    }
    CRest rest = {0, 0, 0};
    for (; rest.unit < m_batch.Count(); ++rest.unit) {
        const COutputUnit& unit = *m_batch.Unit(rest.unit);
        const unsigned int slot = 1U << unit.Slot();
        if (unit.Sequence() < entry.from_sequence || (entry.slots & slot) == 0) {
            continue;
        }
        if (!send_unit(rest, entry, tally)) {
            break;
        }
        entry.key_slots |= static_cast<uint8_t>(unit.IsKey() ? slot : 0);
    }
    return rest;
}

void CDgramLayout::lay_out() {
    m_is_laid_out = true;
    for (unsigned int i = 0; i < m_batch.Count(); ++i) {
        CRun& run = m_runs[i];
        run = {m_message_count, 0, 0, 0, 0, 0};
        const unsigned int first_part = m_part_count;
        if (!take_packets(*m_batch.Unit(i), run) || !make_messages(first_part, run)) {
            m_part_count = first_part;
            m_message_count = run.first_message;
            run.message_count = 0;
        }
    }
}

// False for what is no run, or one that is cut short.
bool CDgramLayout::take_packets(const COutputUnit& unit, CRun& run) {
    if (unit.PartCount() != 1) {
        return false;
    }
    const uint8_t* data = static_cast<const uint8_t*>(unit.Parts()[0].iov_base);
    Ostra::CByteReader reader(data, unit.Parts()[0].iov_len);
    while (reader.Remaining() > 0) {
        const bool is_packet = reader.ReadU8() == INTERLEAVE_MARK;
        reader.Skip(INTERLEAVE_LENGTH_AT - 1);
        const unsigned int size = reader.ReadU16();
        const uint8_t* packet = reader.ReadBytes(size);
        if (!is_packet || !reader.Ok() || m_part_count == MAX_PARTS) {
            return false;
        }
        m_parts[m_part_count++] = {const_cast<uint8_t*>(packet), size};
        ++run.packets;
        run.bytes += size;
    }
    run.channel = data[INTERLEAVE_CHANNEL_AT];  // the whole run's
    return run.packets > 0;
}

bool CDgramLayout::make_messages(unsigned int first_part, CRun& run) {
    for (unsigned int part = first_part; part < m_part_count; ++run.message_count) {
        if (m_message_count == MAX_MESSAGES) {
            return false;
        }
        struct msghdr& message = m_messages[m_message_count].msg_hdr;
        message = {};
        message.msg_iov = &m_parts[part];
        message.msg_iovlen = CountSegments(&m_parts[part], m_part_count - part, SIZE_MAX);
        if (message.msg_iovlen > 1) {
            SetSegmentSize(message, m_controls[m_message_count], m_parts[part].iov_len);
            run.max_cut = std::max(run.max_cut, m_parts[part].iov_len);
        }
        part += static_cast<unsigned int>(message.msg_iovlen);
        ++m_message_count;
    }
    return true;
}

// False if the unit is left for a Put.
bool CDgramLayout::send_unit(CRest& rest, const CSinkEntry& entry, CMediaTally& tally) {
    const CRun& run = m_runs[rest.unit];
    const int fd = socket_for(run, entry);
    if (fd < 0) {
        return false;
    }
    for (unsigned int done = 0; done < run.message_count;) {
        const int sent = SendMessages(fd, &m_messages[run.first_message + done], run.message_count - done);
        if (sent < 0) {
            return stop(run, done, errno, rest, tally);
        }
        done += static_cast<unsigned int>(sent);
    }
    tally.Sent(run.packets, run.bytes);
    rest.sent |= static_cast<uint64_t>(1) << rest.unit;
    return true;
}

// After `sent` messages of the run. Anything but a full socket is for the sink to judge.
bool CDgramLayout::stop(const CRun& run, unsigned int sent, int error, CRest& rest, CMediaTally& tally) const {
    const struct mmsghdr* messages = &m_messages[run.first_message];
    for (unsigned int i = 0; i < sent; ++i) {
        tally.Sent(messages[i].msg_hdr.msg_iovlen, messages[i].msg_len);
    }
    if (IsFullSocket(error)) {
        tally.Dropped();
        return true;
    }
    const uint8_t* next = static_cast<const uint8_t*>(messages[sent].msg_hdr.msg_iov->iov_base);
    const uint8_t* begin = static_cast<const uint8_t*>(m_batch.Unit(rest.unit)->Parts()[0].iov_base);
    rest.offset = static_cast<size_t>(next - begin) - INTERLEAVE_HEADER_SIZE;
    return false;
}

// -1 if no socket can send the run.
int CDgramLayout::socket_for(const CRun& run, const CSinkEntry& entry) {
    if (entry.fd >= 0) {
        return run.message_count > 0 && run.max_cut <= entry.max_segment ? entry.fd : -1;
    }
    for (unsigned int i = 0; i < entry.outlet_count; ++i) {
        const CDgramOutlet& outlet = entry.outlets[i];
        if (outlet.channel == run.channel) {
            return run.message_count > 0 && run.max_cut <= outlet.max_segment ? outlet.fd : -1;
        }
    }
    return -1;
}

}  // namespace Tramel
}  // namespace Kavio
