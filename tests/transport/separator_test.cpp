#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "KXSeparator.h"
#include "RtpSeparator.h"
#include "support/Capture.h"
#include "support/EveryCut.h"
#include "support/Interleave.h"

using namespace Kavio::Vidora;
using namespace Kavio::Support;

namespace {

const int VIDEO = 0;
const int AUDIO = 2;

// What came out: a line a record, then "failed" if the stream ended in that.
typedef std::vector<std::string> Lines;

std::string line_of(const separator_record_t& record) {
    EXPECT_TRUE(record.packet.valid());
    const unsigned char* data = record.packet.getBuffer();
    const bool is_text = record.kind == SEPARATOR_RTSP;
    EXPECT_EQ(record.packet.size(), static_cast<unsigned int>(record.length) + (is_text ? 1 : 0));
    EXPECT_TRUE(!is_text || data[record.length] == 0);
    const Bytes bytes(data, data + record.length);
    return std::to_string(record.kind) + " " + std::to_string(record.channel) + " " +
           (is_text ? ToText(bytes) : ToHex(bytes));
}

bool collect(CStreamSeparator& separator, int count, Lines& lines) {
    while (count >= 0) {
        int filled = 0;
        const separator_record_t* records = separator.GetRecords(&filled);
        EXPECT_EQ(filled, count);
        for (int i = 0; i < filled; ++i) {
            lines.push_back(line_of(records[i]));
        }
        if (!separator.HasMore()) {
            return true;
        }
        count = separator.Input(0);
    }
    return false;
}

template <typename T>
Lines separate(const std::vector<Bytes>& pieces) {
    T separator;
    separator.SetChannel(VIDEO, AUDIO);
    Lines lines;
    for (const Bytes& piece : pieces) {
        size_t done = 0;
        do {
            int space = 0;
            char* place = separator.GetBuffer(&space);
            const size_t length = std::min(piece.size() - done, static_cast<size_t>(space));
            if (length > 0) {
                std::memcpy(place, piece.data() + done, length);
            }
            done += length;
            if (place == nullptr || !collect(separator, separator.Input(static_cast<int>(length)), lines)) {
                lines.push_back("failed");
                return lines;
            }
        } while (done < piece.size());
    }
    return lines;
}

Bytes rtp(int channel, uint16_t seq, uint32_t timestamp, bool marker, const Bytes& payload = {0x41, 1}) {
    return Interleaved(channel, MakeRtp({seq, timestamp, marker}, payload));
}

std::string line(int kind, int channel, const Bytes& bytes) {
    return std::to_string(kind) + " " + std::to_string(channel) + " " + ToHex(bytes);
}

const std::string REPLY = "RTSP/1.0 200 OK\r\nCSeq: 2\r\n\r\n";
const std::string REPLY_BODY = "RTSP/1.0 200 OK\r\ncontent-LENGTH: 5\r\n\r\n$1234";

}  // namespace

TEST(RtpSeparator, MergesTheFramesOfTwoChannelsAmongReplies) {
    const Bytes first = rtp(VIDEO, 1, 100, false) + rtp(VIDEO, 2, 100, true);
    const Bytes unmarked = rtp(VIDEO, 3, 200, false);
    const Bytes next = rtp(VIDEO, 4, 300, true);
    const Bytes audio = rtp(AUDIO, 9, 7, true, {1});
    const Bytes rtcp = Interleaved(1, {0x80, 200, 0, 1, 0, 0, 0, 1});
    const Bytes runt = Interleaved(VIDEO, {0x80, 96, 0});
    const Bytes stream = FromText(REPLY) + Part(first, 0, 18) + audio + Part(first, 18) + FromText(REPLY_BODY) +
                         unmarked + rtcp + next + runt + FromText("rtsp/1.0 404 Not Found\r\n\r\n");
    EXPECT_EQ(FeedAtEveryCut(stream, separate<CRTPSeparator>),
              (Lines{"1 -1 " + REPLY, line(2, AUDIO, audio), line(2, VIDEO, first), "1 -1 " + REPLY_BODY,
                     line(2, 1, rtcp), line(2, VIDEO, unmarked), line(2, VIDEO, next), line(2, VIDEO, runt),
                     "1 -1 rtsp/1.0 404 Not Found\r\n\r\n"}));
}

// A server may ask as well; what it says can hold what begins a unit.
TEST(RtpSeparator, CutsRequestsOfTheServerOut) {
    const Bytes media = rtp(VIDEO, 1, 100, true);
    for (const std::string method : {"OPTIONS", "GET_PARAMETER", "ANNOUNCE", "REDIRECT", "RECORD", "PAUSE"}) {
        const std::string request =
            method + " rtsp://x/a RTSP/1.0\r\nSession: $1$\r\nContent-Length: 5\r\n\r\n$\x01\xff\xff$";
        EXPECT_EQ(FeedAtEveryCut(media + FromText(request) + media, separate<CRTPSeparator>),
                  (Lines{line(2, VIDEO, media), "1 -1 " + request, line(2, VIDEO, media)}));
        const Bytes frame = {'$', 0, 0, 0, 0, 1, 7};
        EXPECT_EQ(FeedAtEveryCut(frame + FromText(request) + frame, separate<CKXSeparator>).size(), 5u);
    }
}

TEST(RtpSeparator, FindsItsPlaceAtAKnownSource) {
    const CLogCapture log;
    const Bytes known = rtp(VIDEO, 1, 100, true);
    const Bytes stranger = rtp(AUDIO, 1, 1, true);
    const Bytes next = rtp(VIDEO, 2, 200, true);
    // The damage holds what looks like a unit, of a channel that brought nothing yet.
    const Bytes stream = known + FromText("xx") + stranger + next;
    EXPECT_EQ(separate<CRTPSeparator>({stream}), (Lines{line(2, VIDEO, known), line(2, VIDEO, next)}));
    EXPECT_EQ(log.Count("rtp over rtsp stream error"), 1);
}

TEST(RtpSeparator, TakesUnitsUpToTheLargestAndMoreThanOneRow) {
    const Bytes large = Interleaved(5, Ramp(65535));
    Bytes many;
    Lines lines = {line(2, 5, large)};
    for (uint16_t i = 0; i < 3 * CStreamSeparator::MAX_RECORDS; ++i) {
        const Bytes unit = rtp(VIDEO, i, i, true);
        many = many + unit;
        lines.push_back(line(2, VIDEO, unit));
    }
    EXPECT_EQ(separate<CRTPSeparator>({large + many}), lines);
}

TEST(RtpSeparator, LetsAnOverLongFrameOutInParts) {
    const uint16_t units = 70;
    Bytes stream;
    for (uint16_t i = 0; i < units; ++i) {
        const Bytes unit = rtp(VIDEO, i, 1, i == units - 1, Ramp(65000));
        stream.insert(stream.end(), unit.begin(), unit.end());
    }
    const Lines lines = separate<CRTPSeparator>({stream});
    EXPECT_EQ(lines.size(), 3u);
    size_t bytes = 0;
    for (const std::string& each : lines) {
        const size_t length = (each.size() - line(2, VIDEO, {}).size()) / 2;
        EXPECT_LE(length, CFrameMerger::MAX_RUN);
        bytes += length;
    }
    EXPECT_EQ(bytes, stream.size());
}

TEST(RtpSeparator, RefusesWhatCannotBeRead) {
    const CLogCapture log;
    const std::string endless = "RTSP/1.0 200 OK\r\nContent-Length: ";
    for (const Bytes& stream :
         {FromText("$") + Bytes{0, 0, 0}, FromText(endless + "40000\r\n\r\n"),
          FromText(endless + "99999999999999999999\r\n\r\n"), FromText("RTSP") + Bytes(40000, 'a')}) {
        EXPECT_EQ(separate<CRTPSeparator>({stream}), Lines{"failed"});
    }
}

TEST(KXSeparator, CutsFramesAndReplies) {
    const auto unit = [](int channel, const Bytes& frame) {
        return Bytes{'$', static_cast<uint8_t>(channel),           0,
                     0,   static_cast<uint8_t>(frame.size() >> 8), static_cast<uint8_t>(frame.size())} +
               frame;
    };
    const Bytes stream = unit(0, {7}) + FromText(REPLY_BODY) + unit(2, FromText("RTSP")) + FromText("rtsp\r\n\r\n");
    const Lines lines = {line(3, 0, Part(unit(0, {7}), 0, 6)),
                         line(3, 0, {7}),
                         "1 -1 " + REPLY_BODY,
                         line(3, 2, Part(unit(2, FromText("RTSP")), 0, 6)),
                         line(3, 2, FromText("RTSP")),
                         "1 -1 rtsp\r\n\r\n"};
    EXPECT_EQ(FeedAtEveryCut(stream, separate<CKXSeparator>), lines);

    // A frame much larger than the receive buffer, among more small ones than a row holds.
    const Bytes large = Ramp(60000);
    Bytes many;
    Lines expected;
    for (int i = 0; i < 40; ++i) {
        const Bytes frame = i == 20 ? large : Bytes{static_cast<uint8_t>(i)};
        many = many + unit(0, frame);
        expected.push_back(line(3, 0, Part(unit(0, frame), 0, 6)));
        expected.push_back(line(3, 0, frame));
    }
    EXPECT_EQ(separate<CKXSeparator>({many}), expected);
    EXPECT_EQ(separate<CKXSeparator>({Part(many, 0, 5000), Part(many, 5000, 100), Part(many, 5100)}), expected);
}

TEST(KXSeparator, RefusesWhatCannotBeRead) {
    for (const char* bytes : {"240000000000", "240001000001", "2400ffffffff", "410000000000"}) {
        const CLogCapture log;
        EXPECT_EQ(separate<CKXSeparator>({FromHex(bytes)}), Lines{"failed"});
        EXPECT_EQ(log.Lines().size(), std::string(bytes) == "240000000000" ? 0u : 1u) << bytes;
    }
    EXPECT_EQ(separate<CKXSeparator>({FromHex("240001000000")}), Lines{line(3, 0, FromHex("240001000000"))});
}
