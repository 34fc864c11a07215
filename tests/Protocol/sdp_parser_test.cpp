#include <gtest/gtest.h>

#include <cstdlib>

#include "Protocol/SdpParser.h"
#include "support/Capture.h"
#include "support/RtspText.h"
#include "support/SampleTable.h"

using namespace Kavio::Vidora;
using Kavio::Support::CLogCapture;
using Kavio::Support::Crlf;
using Kavio::Support::ReadTable;

namespace {

const char TABLES[] = VIDORA_TEST_DATA "/sdp.txt";

std::string read_sample(const std::string& name) {
    std::ifstream file(VIDORA_TEST_DATA "/../fuzz/corpus/sdp/" + name + ".sdp", std::ios::binary);
    EXPECT_TRUE(file) << name;
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

int parse(CSdpParser& sdp, const std::string& text) {
    return sdp.Parse(text.data(), static_cast<int>(text.size()));
}

std::string text_or(const char* text) {
    return text != nullptr ? text : "-";
}

std::string written(CSdpParser& sdp) {
    EXPECT_EQ(sdp.GetStream(), 0);
    return sdp.get_stream();
}

// What the library asks about a description, a line a track.
std::string summary(const CSdpParser& sdp) {
    std::ostringstream out;
    int payload_type = -1;
    const int rate = sdp.get_frame_rate(&payload_type);
    out << sdp.get_media_count() << " tracks, kind " << sdp.get_packet_kind() << ", encoding "
        << sdp.get_video_encoding() << ", " << sdp.get_duration() << " us, " << rate << " fps\n";
    for (int i = 0; i < sdp.get_media_count(); ++i) {
        char* name = sdp.get_payload_name(i);
        out << sdp.get_track_id(i) << ' ' << text_or(sdp.get_control(i)) << ' ' << sdp.get_media_type_at(i) << ' '
            << sdp.get_payload_type(i) << ' ' << text_or(name) << '/' << sdp.get_sample_rate(i) << '/'
            << sdp.get_channel_count(i) << ' ' << sdp.get_direction(i) << '\n';
        std::free(name);
    }
    return out.str();
}

}  // namespace

TEST(SdpParser, ReadsWholeDescriptionsAndWritesThemBack) {
    for (const auto& row : ReadTable(TABLES, "samples", 3)) {
        SCOPED_TRACE(row[0]);
        const CLogCapture log;
        CSdpParser sdp;
        const std::string text = read_sample(row[0]);
        ASSERT_EQ(parse(sdp, text), 0);
        EXPECT_EQ(summary(sdp), row[2]);
        const std::string stream = written(sdp);
        EXPECT_TRUE(row[1] != "same" || stream == text) << stream;
        CSdpParser copy(sdp);  // reads the text
        EXPECT_EQ(summary(copy), row[2]);
        EXPECT_EQ(written(copy), stream);
    }
}

TEST(SdpParser, WritesEveryLineInItsOrder) {
    CSdpParser sdp;
    for (const int result : {sdp.set_origin("jdoe", 18446744073709551615U, 2, "IN", "IP4", "10.47.16.5"),
                             sdp.set_name("Seminar"),
                             sdp.set_info("About"),
                             sdp.set_uri("http://a"),
                             sdp.set_uri("http://b"),
                             sdp.add_email("a@b"),
                             sdp.add_phone("+1"),
                             sdp.add_session_connection("224.2.1.1", 16, 3, nullptr, nullptr),
                             sdp.add_session_connection("224.2.1.2", 16, 1, nullptr, nullptr),
                             sdp.add_session_connection("224.2.1.3", 16, 0, nullptr, nullptr),
                             sdp.add_session_connection("ff15::1", 16, 3, "IN", "IP6"),
                             sdp.add_session_connection("ff15::2", 16, 1, "IN", "IP6"),
                             sdp.add_session_connection("x", 16, 3, "ATM", "NSAP"),
                             sdp.add_session_bandwidth("CT", 1000),
                             sdp.add_session_time(1, 2),
                             sdp.add_zone(3, "-1h"),
                             sdp.add_zone(4, "0"),
                             sdp.set_session_key("prompt", nullptr),
                             sdp.set_session_attribute("control", "*"),
                             sdp.set_range(0, 10500000),
                             sdp.set_session_attribute("control", "x"),
                             sdp.add_media("video", 5000, 2, "RTP/AVP", " 96  97 x") - 1,
                             sdp.set_media_key(1, "clear", "k"),
                             sdp.add_media_connection(1, "10.0.0.1", 0, 0, nullptr, nullptr),
                             sdp.set_media_attribute(1, "recvonly", nullptr),
                             sdp.add_media("audio", 0, 1, "RTP/AVP", "8") - 2}) {
        EXPECT_EQ(result, 0);
    }
    for (const int result : {sdp.set_origin("jdoe", 1, 2, "IN", nullptr, "x"), sdp.set_name("again"),
                             sdp.add_phone(nullptr), sdp.set_session_key("prompt", nullptr)}) {
        EXPECT_EQ(result, -1);
    }
    EXPECT_EQ(sdp.get_payload_type(0), 97);
    ASSERT_EQ(sdp.GetStream(), 0);
    EXPECT_STREQ(sdp.get_stream(),
                 "v=0\r\no=jdoe 18446744073709551615 2 IN IP4 10.47.16.5\r\ns=Seminar\r\ni=About\r\nu=http://b\r\n"
                 "e=a@b\r\np=+1\r\nc=IN IP4 224.2.1.1/16/3\r\nc=IN IP4 224.2.1.2/16\r\nc=IN IP4 224.2.1.3\r\n"
                 "c=IN IP6 ff15::1/3\r\nc=IN IP6 ff15::2\r\nc=ATM NSAP x\r\nb=CT:1000\r\nt=1 2\r\nz=3 -1h 4 0\r\n"
                 "k=prompt\r\na=control:x\r\na=range:npt=0.000000-10.500000\r\nm=video 5000/2 RTP/AVP 96 97 x\r\n"
                 "c=IN IP4 10.0.0.1\r\nk=clear:k\r\na=control:trackID=0\r\na=recvonly\r\nm=audio 0 RTP/AVP 8\r\n"
                 "a=control:trackID=1\r\n");
    EXPECT_EQ(sdp.get_duration(), 10500000);
}

TEST(SdpParser, FillsInTheLinesThatMustBeThere) {
    CSdpParser sdp;
    ASSERT_EQ(parse(sdp, "v=0"), 0);
    ASSERT_EQ(sdp.GetStream(), 0);
    const uint64_t id = sdp.get_session()->origin.session_id;
    EXPECT_NEAR(static_cast<double>(id), static_cast<double>(CTime::getCurrentTime().makeTime() + 2208988800U), 5);
    const std::string number = std::to_string(id);
    EXPECT_EQ(sdp.get_stream(), "v=0\r\no=- " + number + " " + number +
                                    " IN IP4 0.0.0.0\r\ns=RTSP Session/2.0\r\nc=IN IP4 0.0.0.0\r\nt=0 0\r\n");
}

TEST(SdpParser, LosesOnlyTheLineThatIsBad) {
    const std::string after = "o=- 1 1 IN IP4 x\r\ni=info\r\nm=audio 0 RTP/AVP 8\r\na=control:x\r\n";
    CSdpParser good;
    ASSERT_EQ(parse(good, "u=1\r\n" + after), 0);
    for (const auto& row : ReadTable(TABLES, "bad lines", 2)) {
        SCOPED_TRACE(row[0]);
        const CLogCapture log;
        CSdpParser bad;
        ASSERT_EQ(parse(bad, "u=1\r\n" + Crlf(row[0]) + after), 0);
        EXPECT_EQ(written(bad), written(good));
        EXPECT_EQ(log.Lines(), std::vector<std::string>(row[1].empty() ? 0 : 1, row[1]));
    }
}

TEST(SdpParser, SecondLinesFollowTheRuleOfTheirLetter) {
    const CLogCapture log;
    CSdpParser sdp;
    ASSERT_EQ(parse(sdp,
                    "o=first 1 1 IN IP4 x\r\no=second 1 1 IN IP4 x\r\ns=first\r\ns=second\r\nz=1 0\r\nz=2 0\r\n"
                    "c=IN IP4 224.1.1.1/300\r\nc=IN IP4 224.1.1.2/16/3\r\nk=a:b c\r\nk=d\r\n"
                    "m=video 0 RTP/AVP 96\r\ni=info\r\nc=IN IP4 1.1.1.1\r\nc=IN IP4 1.1.1.2\r\nk=prompt\r\n"),
              0);
    EXPECT_EQ(log.Lines().size(), 2U);  // z= and k= alone are wrong
    EXPECT_EQ(log.Count("sdp_parse_zone error\n"), 1);
    EXPECT_EQ(log.Count("sdp_parse_key error\n"), 1);
    const sdp_session_t& session = *sdp.get_session();
    EXPECT_STREQ(session.origin.username, "first");
    EXPECT_STREQ(session.name, "first");
    EXPECT_STREQ(session.info, "info");  // an i= behind m= is the session's
    EXPECT_EQ(session.zones.size(), 1);
    EXPECT_STREQ(session.key.value, "b");
    sdp_connection_t connection;
    ASSERT_EQ(sdp.get_connection(&connection), 0);
    EXPECT_STREQ(connection.address, "224.1.1.2");
    EXPECT_EQ(connection.ttl, 16);
    EXPECT_EQ(connection.address_count, 3);
    EXPECT_EQ(session.connections.size(), 1);
    EXPECT_EQ(session.media.first()->connections.size(), 2);
    EXPECT_STREQ(session.media.first()->key.method, "prompt");
}

TEST(SdpParser, NumbersTracksByTheirControl) {
    CSdpParser sdp;
    ASSERT_EQ(parse(sdp, "m=audio 0 RTP/AVP 8\r\nm=video 0 RTP/AVP 96\r\na=control:rtsp://h/v\r\n"), 0);
    EXPECT_EQ(sdp.get_track_id(0), -1);  // a parsed media without the attribute has none
    EXPECT_EQ(sdp.get_control(0), nullptr);
    EXPECT_EQ(sdp.get_track_id(1), 2);
    EXPECT_EQ(sdp.get_index(0), -1);
    EXPECT_EQ(sdp.get_track_by_control("rtsp://h/v"), 2);
    EXPECT_EQ(sdp.get_track_by_control("rtsp://h/"), -1);
    EXPECT_EQ(sdp.get_track_by_control(""), -1);

    EXPECT_EQ(sdp.add_media("application", 0, 1, "RTP/AVP", "100"), 3);
    EXPECT_STREQ(sdp.get_control_by_id(2), "rtsp://h/v");
    EXPECT_STREQ(sdp.get_control_by_id(3), "trackID=2");
    EXPECT_EQ(sdp.set_media_attribute(2, "control", std::string(200, 'c').c_str()), 0);
    EXPECT_EQ(sdp.get_control(1), std::string(127, 'c'));
    EXPECT_EQ(text_or(sdp.get_media_attribute(2, "control")), std::string(200, 'c'));
    EXPECT_EQ(sdp.set_media_attribute(2, "control", nullptr), 0);
    EXPECT_EQ(sdp.get_control(1), nullptr);
    EXPECT_EQ(sdp.set_media_port(3, 5004), -1);  // its result never tells
    EXPECT_EQ(sdp.get_media_port(3), 5004);
    EXPECT_EQ(sdp.remove_media(2), 0);
    EXPECT_EQ(sdp.get_index(3), 1);
    EXPECT_EQ(sdp.remove_media_attribute(3, "control"), 0);
    EXPECT_EQ(sdp.remove_media_attribute(3, "control"), -1);
    EXPECT_EQ(sdp.clear_media_connections(3), 0);
}

TEST(SdpParser, UnknownTracksAndNullArgumentsAreRefused) {
    CSdpParser sdp;
    sdp_connection_t connection;
    int payload_type = 7;
    EXPECT_EQ(sdp.Parse(nullptr, 5), 0);
    for (const int result :
         {sdp.get_connection(&connection), sdp.get_media_connection(1, &connection), sdp.get_sample_rate(0),
          sdp.get_media_port(1), sdp.set_media_attribute(1, "a", "b"), sdp.remove_media(1),
          sdp.add_session_connection(nullptr, 0, 0, nullptr, nullptr), sdp.add_media("video", 0, 0, "RTP/AVP", "96"),
          sdp.add_media("video", 0, 1, nullptr, "96"), sdp.get_frame_rate(&payload_type)}) {
        EXPECT_EQ(result, -1);
    }
    EXPECT_EQ(payload_type, 7);
}

TEST(SdpParser, ReadsValuesOfAttributes) {
    for (const auto& row : ReadTable(TABLES, "attributes", 2)) {
        CSdpParser sdp;
        ASSERT_EQ(parse(sdp, Crlf(row[0])), 0);
        EXPECT_EQ(summary(sdp), row[1]);
    }
    CSdpParser sdp;
    ASSERT_EQ(parse(sdp, "m=video 0 x 1\r\na=rtpmap:96 H264/90000\r\na=control:cut in the line's end\r"), 0);
    EXPECT_EQ(text_or(sdp.get_control(0)), "cut in the line's end");
}

TEST(SdpParser, KeepsLongTextsWithinItsStore) {
    const CLogCapture log;
    CSdpParser sdp;
    ASSERT_EQ(parse(sdp, read_sample("long_fields")), 0);
    EXPECT_EQ(std::string(sdp.get_session()->name).size(), 255U);
    EXPECT_EQ(std::string(sdp.get_session()->attributes.first()->name).size(), 511U);
    EXPECT_EQ(std::string(sdp.get_session()->attributes.first()->value).size(), 511U);
    EXPECT_EQ(std::string(sdp.get_control(0)).size(), 127U);

    const std::string text = read_sample("too_long");
    ASSERT_EQ(parse(sdp, text), 0);
    EXPECT_EQ(sdp.get_media_count(), 45);
    EXPECT_EQ(sdp.get_stream(), text.substr(0, 2047));
    EXPECT_EQ(CSdpParser(sdp).get_media_count(), 38);  // of the text that was kept
    const std::string stream = written(sdp);
    // The text, the four lines that were missing, and 4.
    EXPECT_EQ(log.Count("CSdpParser::GetStream() error, buffer too small. data size:" +
                        std::to_string(text.size() + 87 + 4) + " is bigger than buffer size:2038\n"),
              1);
    EXPECT_LE(stream.size(), 2047U);
    EXPECT_EQ(stream.substr(stream.size() - 2), "\r\n");  // no half line
}

TEST(SdpParser, TakesItsOwnTextsAsArguments) {
    CSdpParser sdp;
    ASSERT_EQ(sdp.add_media("video", 0, 1, "RTP/AVP", "96"), 1);
    const std::string control = "a control text that is long enough to be seen when its memory is used again";
    ASSERT_EQ(sdp.set_media_attribute(1, "control", control.c_str()), 0);
    EXPECT_EQ(sdp.set_media_attribute(1, "control", sdp.get_media_attribute(1, "control")), 0);
    EXPECT_EQ(sdp.set_media_attribute(1, "control", sdp.get_control(0) + 2), 0);
    EXPECT_EQ(sdp.get_control(0), control.substr(2));
    ASSERT_EQ(sdp.set_session_attribute("name", "name"), 0);
    const sdp_attribute_t* attribute = sdp.get_session()->attributes.first();
    EXPECT_EQ(sdp.set_session_attribute(attribute->value, attribute->name), 0);
    EXPECT_STREQ(attribute->value, "name");
    EXPECT_EQ(sdp.remove_session_attribute(attribute->name), 0);
    ASSERT_EQ(sdp.set_session_attribute("text", ("v=0\r\ns=" + control).c_str()), 0);
    EXPECT_EQ(sdp.Parse(sdp.get_session()->attributes.first()->value, 0), 0);
    EXPECT_EQ(sdp.get_session()->name.Get(), control);
}

TEST(SdpParser, CopiesTheTextAndNotTheTree) {
    CSdpParser sdp;
    ASSERT_EQ(parse(sdp, "v=0\r\ns=text\r\n"), 0);
    ASSERT_EQ(sdp.add_media("video", 0, 1, "RTP/AVP", "96"), 1);
    CSdpParser copy(sdp);
    EXPECT_EQ(copy.get_media_count(), 0);
    sdp.GetStream();
    copy = sdp;
    copy = *&copy;
    EXPECT_EQ(copy.get_media_count(), 1);
    EXPECT_EQ(copy.Clear(), 0);
    EXPECT_EQ(copy.get_media_count(), 0);
}
