// The readers and writers of play ranges and rates (RFC 2326 3.5 to 3.7, 12.29, 12.34, 12.35).
#include <algorithm>
#include <cfloat>
#include <cstdio>
#include <cstring>

#include "Protocol/RtspParser.h"
#include "Protocol/TextWriter.h"
#include "Tramel/StrParser.h"

namespace Kavio {
namespace Vidora {

namespace {

const unsigned int UTC_SIZE = 16;           // "20200102T030405Z"
const unsigned int UTC_MILLI_SIZE = 20;     // "20200102T030405.678Z"
const float RATE_CONTROL_NO_SPEED = 16.0F;  // as fast as the line carries it

// The length of the time, or -1. With a fraction it is that of three digits and a "Z", whatever stands there.
int parse_utc_time(const char* text, unsigned int length, UtcTime* t) {
    if (length < UTC_SIZE) {
        return -1;
    }
    char copy[64];
    const unsigned int copied = std::min<unsigned int>(length, sizeof copy - 1);
    std::memcpy(copy, text, copied);
    copy[copied] = '\0';
    std::sscanf(copy, "%04d%02d%02dT%02d%02d%02d", &t->year, &t->month, &t->day, &t->hour, &t->minute, &t->second);
    if (copy[UTC_SIZE - 1] == 'Z') {
        return UTC_SIZE;
    }
    std::sscanf(copy + UTC_SIZE - 1, ".%03d", &t->millisecond);
    return UTC_MILLI_SIZE;
}

void add_time(CTextWriter& out, const UtcTime& t) {
    // The fraction is written with two digits at least, though three are read: 7 ms go out as ".07". Peers know it so.
    char fraction[5];
    CTextWriter suffix(fraction, sizeof fraction);
    if (t.millisecond > 0) {
        suffix.Add(".", text_padded{t.millisecond, 2});
    }
    out.Add(text_padded{t.year, 4}, text_padded{t.month, 2}, text_padded{t.day, 2}, "T", text_padded{t.hour, 2},
            text_padded{t.minute, 2}, text_padded{t.second, 2}, fraction, "Z");
}

void add_time(CTextWriter& out, const SmpteTime& t) {
    out.Add(text_padded{t.hour, 2}, ":", text_padded{t.minute, 2}, ":", text_padded{t.second, 2});
}

template <typename Time>
char* format_range(char* out, unsigned int size, const char* key, const Time* begin, const Time* end) {
    if (out == nullptr) {
        return nullptr;
    }
    CTextWriter text(out, size);
    text.Add(key);
    if (begin != nullptr) {
        add_time(text, *begin);
    }
    text.Add("-");
    if (end != nullptr) {
        add_time(text, *end);
    }
    text.Add("\r\n");
    return out;
}

}  // namespace

int CRtspParser::parse_range_speed(CStrParser& text) {
    read_range(text);

    // The first of the three that is present counts, even if its number cannot be read.
    m_speed = 1.0F;
    if (find_header(text, "Speed: ")) {
        read_rate(text, "Speed: ");
    } else if (find_header(text, "Scale: ")) {
        m_is_scale = 1;
        read_rate(text, "Scale: ");
    } else if (find_header(text, "Rate-Control: no")) {  // ONVIF replay
        m_speed = RATE_CONTROL_NO_SPEED;
    }

    m_range_cseq = parse_cseq(text);
    return RTSP_OK;
}

void CRtspParser::read_range(CStrParser& text) {
    text.ResetAll();
    if (text.LocateStringCase("Range: npt=") >= 0) {
        m_range_type = RANGE_TYPE_NPT;
        text.ConsumeUntilDigit();  // over a word such as "now", and on to any later digit
        m_npt_begin = text.ConsumeDouble();
        m_npt_end = NPT_NOT_GIVEN;
        if (text.GetStatus() == 0 && text.Expect('-') == 0) {
            const double end = text.ConsumeDouble();
            // "0-" has no end: that is "not given", and not the second 0 at which a file would stop at once.
            m_npt_end = text.GetStatus() == 0 ? end : NPT_NOT_GIVEN;
        }
        return;
    }
    if (text.LocateStringCase("Range: clock=") < 0) {
        m_range_type = RANGE_TYPE_NPT;
        m_npt_begin = NPT_NOT_GIVEN;
        m_npt_end = NPT_NOT_GIVEN;
        return;
    }
    m_range_type = RANGE_TYPE_CLOCK;
    m_begin_utc = UtcTime();
    m_end_utc = UtcTime();
    text.ConsumeUntilDigit();
    parse_clock_range(text.GetString(), text.GetCurLinelength(), &m_begin_utc, &m_end_utc);
}

void CRtspParser::read_rate(CStrParser& text, const char* key) {
    text.ConsumeLength(static_cast<unsigned int>(std::strlen(key)), nullptr, 0);
    const float sign = text.GetCurChar() == '-' ? -1.0F : 1.0F;
    text.ConsumeUntilDigit();
    const double rate = text.ConsumeDouble();
    if (text.GetStatus() == 0) {
        m_speed = static_cast<float>(std::min(rate, double{FLT_MAX})) * sign;
    }
}

int CRtspParser::parse_clock_range(const char* text, unsigned int length, UtcTime* begin, UtcTime* end) {
    if (text == nullptr || begin == nullptr) {
        return -1;
    }
    const int taken = parse_utc_time(text, length, begin);
    if (taken < 0 || end == nullptr) {
        return taken;
    }
    // Behind "-" the line's end stands for an open range.
    const unsigned int dash = static_cast<unsigned int>(taken);
    if (dash + 1 >= length || text[dash] != '-' || text[dash + 1] == '\r') {
        return taken;
    }
    return parse_utc_time(text + dash + 1, length - (dash + 1), end);
}

char* CRtspParser::format_clock_range(char* out, unsigned int size, const UtcTime* begin, const UtcTime* end) {
    return format_range(out, size, "Range: clock=", begin, end);
}

char* CRtspParser::format_smpte_range(char* out, unsigned int size, const SmpteTime* begin, const SmpteTime* end) {
    return format_range(out, size, "Range: smpte=", begin, end);
}

}  // namespace Vidora
}  // namespace Kavio
