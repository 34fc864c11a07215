#include "Vidora/SdpInfo.h"

#include <gtest/gtest.h>

#include "Protocol/SdpParser.h"
#include "RtspClient/SdpInfoAccess.h"
#include "support/Capture.h"

using namespace Kavio::Vidora;
using Kavio::Support::CLogCapture;

TEST(SdpInfo, ReadsTheFirstTrackOfEachKind) {
    CSdpParser sdp;
    ASSERT_EQ(sdp.Parse("v=0\r\na=range:npt=0-10.5\r\nm=application 0 RTP/AVP 107\r\n"
                        "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=framerate:12.5\r\n"
                        "m=audio 0 RTP/AVP 8\r\nm=audio 0 RTP/AVP 97\r\na=rtpmap:97 OPUS/48000/2\r\n",
                        0),
              0);
    CSdpInfo info(&sdp);
    EXPECT_EQ(info.GetPayloadType('V'), 96);
    EXPECT_EQ(info.GetPayloadType('v'), -1);
    EXPECT_STREQ(info.GetPayloadNameEx('V'), "H264");
    EXPECT_EQ(info.GetSampleRate('V'), 90000);
    EXPECT_EQ(info.GetFrameRate(), 13);
    // No rtpmap: the static payload type tells.
    EXPECT_STREQ(info.GetPayloadNameEx('A'), "PCMA");
    EXPECT_EQ(info.GetSampleRate('A'), 8000);
    EXPECT_EQ(info.GetAudioChannel(), 1);
    float seconds = -1;
    EXPECT_EQ(info.GetDuration(seconds), 0);
    EXPECT_FLOAT_EQ(seconds, 10.5F);

    CSdpParser unknown;
    ASSERT_EQ(unknown.Parse("m=video 0 RTP/AVP 96\r\n", 0), 0);
    CSdpInfo without_name(&unknown);
    EXPECT_EQ(without_name.GetPayloadNameEx('V'), nullptr);
    EXPECT_EQ(without_name.GetSampleRate('V'), -1);
    const CLogCapture log;
    EXPECT_EQ(without_name.GetAudioChannel(), -1);
    EXPECT_EQ(log.Count(" SDP don't contain Audio Info!\n"), 1);
}

TEST(SdpInfo, HasNothingToTellWithoutADescription) {
    const CLogCapture log;
    CSdpInfo info;
    float seconds = 3;
    for (const char kind : {'A', 'V'}) {
        EXPECT_EQ(info.GetPayloadType(kind), -1);
        EXPECT_EQ(info.GetPayloadNameEx(kind), nullptr);
        EXPECT_EQ(info.GetSampleRate(kind), -1);
    }
    EXPECT_EQ(info.GetDuration(seconds) & info.GetFrameRate() & info.GetAudioChannel() & info.GetPacketType(), -1);
    EXPECT_EQ(seconds, 3);
}

TEST(SdpInfo, TakesTheTracksThatAreDelivered) {
    CSdpParser sdp;
    ASSERT_EQ(sdp.Parse("m=video 0 RTP/AVP 26\r\na=control:v\r\nm=audio 0 RTP/AVP 0\r\na=control:a\r\n"
                        "m=audio 0 RTP/AVP 0\r\na=control:b\r\nm=application 0 RTP/AVP 100\r\na=control:x\r\n",
                        0),
              0);
    const sdp_info_track tracks[] = {{1, 10, false}, {2, 12, false}, {3, 14, true}, {4, 16, false}};
    CSdpInfo info;
    {
        CSdpInfo shared;
        ASSERT_EQ(CSdpInfoAccess::Fill(shared, &sdp, tracks, 4, PACKET_TYPE_KX), 0);
        EXPECT_EQ(CSdpInfoAccess::Fill(shared, nullptr, tracks, 4, PACKET_TYPE_KX), -1);
        info = shared;  // only the pointer is copied
    }
    const sdp_info_data* data = CSdpInfoAccess::Data(info);
    EXPECT_EQ(data->m_video_channel, 10);
    EXPECT_EQ(data->m_audio_channel, 12);
    EXPECT_EQ(data->m_app_channel, 16);
    EXPECT_EQ(info.GetPacketType(), PACKET_TYPE_KX);
    EXPECT_STREQ(info.GetPayloadNameEx('V'), "JPEG");
}
