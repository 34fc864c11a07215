#include <gtest/gtest.h>

#include "KXSeparator.h"
#include "RtpSeparator.h"
#include "support/Capture.h"
#include "support/EveryCut.h"
#include "support/Interleave.h"
#include "support/Separated.h"

using namespace Kavio::Vidora;
using namespace Kavio::Support;

namespace {

const int VIDEO = 0;
const int AUDIO = 2;

// What came out: a line a record, then "failed" if the stream ended in that.
typedef std::vector<std::string> Lines;

template <typename T>
Lines separate(const std::vector<Bytes>& pieces) {
    T separator;
    separator.SetChannel(VIDEO, AUDIO);
    Separated out = Separate(separator, pieces);
    EXPECT_TRUE(out.sound);
    if (out.failed) {
        out.records.push_back("failed");
    }
    return out.records;
}

Bytes rtp(int channel, uint16_t seq, uint32_t timestamp, bool marker, const Bytes& payload = {0x41, 1}) {
    return Interleaved(channel, MakeRtp({seq, timestamp, marker}, payload));
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
              (Lines{"1 -1 " + REPLY, RecordText(2, AUDIO, audio), RecordText(2, VIDEO, first), "1 -1 " + REPLY_BODY,
                     RecordText(2, 1, rtcp), RecordText(2, VIDEO, unmarked), RecordText(2, VIDEO, next),
                     RecordText(2, VIDEO, runt), "1 -1 rtsp/1.0 404 Not Found\r\n\r\n"}));
}

// A server may ask as well; what it says can hold what begins a unit.
TEST(RtpSeparator, CutsRequestsOfTheServerOut) {
    const Bytes media = rtp(VIDEO, 1, 100, true);
    for (const std::string method : {"OPTIONS", "GET_PARAMETER", "ANNOUNCE", "REDIRECT", "RECORD", "PAUSE"}) {
        const std::string request =
            method + " rtsp://x/a RTSP/1.0\r\nSession: $1$\r\nContent-Length: 5\r\n\r\n$\x01\xff\xff$";
        EXPECT_EQ(FeedAtEveryCut(media + FromText(request) + media, separate<CRTPSeparator>),
                  (Lines{RecordText(2, VIDEO, media), "1 -1 " + request, RecordText(2, VIDEO, media)}));
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
    EXPECT_EQ(separate<CRTPSeparator>({stream}), (Lines{RecordText(2, VIDEO, known), RecordText(2, VIDEO, next)}));
    EXPECT_EQ(log.Count("rtp over rtsp stream error"), 1);
}

TEST(RtpSeparator, TakesUnitsUpToTheLargestAndMoreThanOneRow) {
    const Bytes large = Interleaved(5, Ramp(65535));
    Bytes many;
    Lines lines = {RecordText(2, 5, large)};
    for (uint16_t i = 0; i < 3 * CStreamSeparator::MAX_RECORDS; ++i) {
        const Bytes unit = rtp(VIDEO, i, i, true);
        many = many + unit;
        lines.push_back(RecordText(2, VIDEO, unit));
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
        const size_t length = (each.size() - RecordText(2, VIDEO, {}).size()) / 2;
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
    const Lines lines = {RecordText(3, 0, Part(unit(0, {7}), 0, 6)),
                         RecordText(3, 0, {7}),
                         "1 -1 " + REPLY_BODY,
                         RecordText(3, 2, Part(unit(2, FromText("RTSP")), 0, 6)),
                         RecordText(3, 2, FromText("RTSP")),
                         "1 -1 rtsp\r\n\r\n"};
    EXPECT_EQ(FeedAtEveryCut(stream, separate<CKXSeparator>), lines);

    // A frame much larger than the receive buffer, among more small ones than a row holds.
    const Bytes large = Ramp(60000);
    Bytes many;
    Lines expected;
    for (int i = 0; i < 40; ++i) {
        const Bytes frame = i == 20 ? large : Bytes{static_cast<uint8_t>(i)};
        many = many + unit(0, frame);
        expected.push_back(RecordText(3, 0, Part(unit(0, frame), 0, 6)));
        expected.push_back(RecordText(3, 0, frame));
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
    EXPECT_EQ(separate<CKXSeparator>({FromHex("240001000000")}), Lines{RecordText(3, 0, FromHex("240001000000"))});
}
