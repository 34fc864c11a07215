// The readers and writers of play ranges and rates (RFC 2326 3.5 to 3.7, 12.29, 12.34, 12.35).
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "Protocol/RtspParser.h"
#include "Protocol/RtspTables.h"
#include "Protocol/TextWriter.h"
#include "Tramel/StrParser.h"

namespace Kavio {
namespace Vidora {

namespace {

const unsigned int UTC_SIZE = 16;           // "20200102T030405Z"
const unsigned int UTC_MILLI_SIZE = 20;     // "20200102T030405.678Z"
const float RATE_CONTROL_NO_SPEED = 16.0F;  // as fast as the line carries it

// The length of the time, or -1. With a fraction it is that of three digits and a "Z", whatever is there.
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

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// RFC 2326 3.7: "20200102T030405Z", with a fraction of any length in front of the "Z". Moves `text` behind it.
bool take_standard_utc(std::string_view& text, UtcTime& t) {
    static const std::string_view FORM = "00000000T000000";
    const size_t fraction = std::min(FORM.size(), text.size());
    if (!std::equal(text.begin(), text.begin() + fraction, FORM.begin(), FORM.end(),
                    [](char c, char form) { return form == 'T' ? c == 'T' : is_digit(c); })) {
        return false;
    }
    char whole[UTC_SIZE + 1] = "0000000000000000";
    text.copy(whole, fraction);
    whole[UTC_SIZE - 1] = 'Z';
    parse_utc_time(whole, UTC_SIZE, &t);
    text.remove_prefix(fraction);
    if (!text.empty() && text[0] == '.') {
        text.remove_prefix(1);
        for (int weight = 100; !text.empty() && is_digit(text[0]); weight /= 10, text.remove_prefix(1)) {
            t.millisecond += weight * (text[0] - '0');
        }
    }
    const bool ends = !text.empty() && text[0] == 'Z';
    text.remove_prefix(ends ? 1 : 0);
    return ends;
}

// The fraction is written with two digits at least, though three are read: 7 ms go out as ".07". Peers know it so. By
// conformance they are thousandths.
void add_time(CTextWriter& out, const UtcTime& t, bool conformance) {
    char fraction[5];
    CTextWriter suffix(fraction, sizeof fraction);
    if (t.millisecond > 0) {
        suffix.Add(".", text_padded{t.millisecond, conformance ? 3 : 2});
    }
    out.Add(text_padded{t.year, 4}, text_padded{t.month, 2}, text_padded{t.day, 2}, "T", text_padded{t.hour, 2},
            text_padded{t.minute, 2}, text_padded{t.second, 2}, fraction, "Z");
}

void add_time(CTextWriter& out, const SmpteTime& t, bool /*conformance*/) {
    out.Add(text_padded{t.hour, 2}, ":", text_padded{t.minute, 2}, ":", text_padded{t.second, 2});
}

template <typename Time>
char* format_range(char* out, unsigned int size, const char* key, const Time* begin, const Time* end,
                   bool conformance) {
    if (out == nullptr) {
        return nullptr;
    }
    CTextWriter text(out, size);
    text.Add(key);
    if (begin != nullptr) {
        add_time(text, *begin, conformance);
    }
    text.Add("-");
    if (end != nullptr) {
        add_time(text, *end, conformance);
    }
    text.Add("\r\n");
    return out;
}

}  // namespace

int CRtspParser::parse_range_speed(CStrParser& text) {
    m_rate_header = RATE_HEADER_NONE;
    m_play_fault = 0;
    m_has_open_start = false;
    if (m_conformance) {
        read_standard_range(text);
        read_standard_rate(text);
    } else {
        read_range(text);
        read_first_rate(text);
    }
    m_range_cseq = parse_cseq(text);
    return RTSP_OK;
}

// The first of the three that is present counts, even if its number cannot be read.
void CRtspParser::read_first_rate(CStrParser& text) {
    m_speed = 1.0F;
    if (find_header(text, "Speed: ")) {
        read_rate(text, "Speed: ");
    } else if (find_header(text, "Scale: ")) {
        m_is_scale = 1;
        read_rate(text, "Scale: ");
    } else if (find_header(text, "Rate-Control: no")) {  // ONVIF replay
        m_speed = RATE_CONTROL_NO_SPEED;
    }
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

void CRtspParser::read_standard_range(CStrParser& text) {
    m_range_type = RANGE_TYPE_NPT;
    m_npt_begin = NPT_NOT_GIVEN;
    m_npt_end = NPT_NOT_GIVEN;
    const char KEY[] = "\nRange:";
    if (!find_header(text, KEY)) {
        return;
    }
    text.ConsumeLength(sizeof KEY - 1, nullptr, 0);
    if (text.LocateStringInLineCase("npt=") >= 0) {
        text.ConsumeLength(sizeof "npt=" - 1, nullptr, 0);
        read_npt(text);
    } else if (text.LocateStringInLineCase("clock=") >= 0) {
        text.ConsumeLength(sizeof "clock=" - 1, nullptr, 0);
        read_clock(text);
    } else {
        m_play_fault = RTSP_STATUS_INVALID_RANGE;
    }
}

// "20200102T030405Z-", or with an end behind it.
void CRtspParser::read_clock(CStrParser& text) {
    m_range_type = RANGE_TYPE_CLOCK;
    m_begin_utc = UtcTime();
    m_end_utc = UtcTime();
    std::string_view range(text.GetString(), text.GetCurLinelength());
    bool is_good = take_standard_utc(range, m_begin_utc) && !range.empty() && range[0] == '-';
    range.remove_prefix(is_good ? 1 : 0);
    if (is_good && !range.empty() && is_digit(range[0])) {
        is_good = take_standard_utc(range, m_end_utc);
    }
    if (!is_good || (!range.empty() && std::strchr(" \t;", range[0]) == nullptr)) {
        m_play_fault = RTSP_STATUS_INVALID_RANGE;
    }
}

// "10-20", "10-", "-20" and "now-", with 10 as seconds or as 0:00:10.
void CRtspParser::read_npt(CStrParser& text) {
    char word[sizeof "now"];
    const bool from_now = text.GetCurChar() == 'n' && text.ConsumeLength(sizeof word - 1, word, sizeof word) >= 0;
    m_npt_begin = from_now ? NPT_NOT_GIVEN : read_npt_time(text);
    m_has_open_start = !from_now && m_npt_begin == NPT_NOT_GIVEN;
    const bool ranges = text.GetCurChar() == '-' && text.Expect('-') == 0;
    m_npt_end = ranges ? read_npt_time(text) : NPT_NOT_GIVEN;
    const bool ends = std::strchr(" \t;\r\n", text.GetCurChar()) != nullptr;  // "-1-3" isn't a range up to 1
    if (!ranges || !ends || text.GetStatus() != 0) {
        m_play_fault = RTSP_STATUS_INVALID_RANGE;
    }
}

// NPT_NOT_GIVEN where there is no number.
double CRtspParser::read_npt_time(CStrParser& text) {
    const int SEXAGESIMAL = 60;
    if (!is_digit(text.GetCurChar())) {
        return NPT_NOT_GIVEN;
    }
    double seconds = text.ConsumeDouble();
    while (text.GetCurChar() == ':' && text.Expect(':') == 0) {
        seconds = seconds * SEXAGESIMAL + text.ConsumeDouble();
    }
    return seconds;
}

void CRtspParser::read_standard_rate(CStrParser& text) {
    m_speed = 1.0F;
    const char KEY[] = "\nRate-Control:";
    if (!read_rate_of(text, "\nSpeed:", RATE_HEADER_SPEED) && !read_rate_of(text, "\nScale:", RATE_HEADER_SCALE) &&
        find_header(text, KEY)) {
        text.ConsumeLength(sizeof KEY - 1, nullptr, 0);
        text.ConsumeWhitespaceInLine();
        m_speed = text.CompareCase("no") == 0 ? RATE_CONTROL_NO_SPEED : m_speed;
    }
}

// False if the header isn't there. A rate of 0, or none, is a fault of the request.
bool CRtspParser::read_rate_of(CStrParser& text, const char* key, rate_header_t header) {
    if (!find_header(text, key)) {
        return false;
    }
    text.ConsumeLength(static_cast<unsigned int>(std::strlen(key)), nullptr, 0);
    text.ConsumeWhitespaceInLine();
    const double rate = text.ConsumeDouble();
    m_rate_header = header;
    m_is_scale = m_is_scale != 0 || header == RATE_HEADER_SCALE ? 1 : 0;
    if (text.GetStatus() != 0 || !(std::abs(rate) > 0.0 && std::abs(rate) <= double{FLT_MAX})) {
        m_play_fault = RTSP_STATUS_BAD_REQUEST;
        return true;
    }
    m_speed = static_cast<float>(rate);
    return true;
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

char* CRtspParser::format_clock_range(char* out, unsigned int size, const UtcTime* begin, const UtcTime* end,
                                      bool conformance) {
    return format_range(out, size, "Range: clock=", begin, end, conformance);
}

char* CRtspParser::format_smpte_range(char* out, unsigned int size, const SmpteTime* begin, const SmpteTime* end) {
    return format_range(out, size, "Range: smpte=", begin, end, false);
}

}  // namespace Vidora
}  // namespace Kavio
