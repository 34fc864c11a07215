#include <gtest/gtest.h>

#include "Vidora/RtspSvrConfig.h"
#include "support/Capture.h"

namespace Kavio::Vidora {
namespace {

template <typename T>
int set(CRtspSvrConfig& config, rtsp_svr_config_t item, const T& value) {
    return config.SetConfig(item, &value, sizeof(value));
}

template <typename T>
T get(const CRtspSvrConfig& config, rtsp_svr_config_t item) {
    T value = {};
    int len = sizeof(value);
    EXPECT_EQ(0, config.GetConfig(item, &value, len));
    return value;
}

TEST(RtspSvrConfig, PortRangeIsTestedBeforeItIsStored) {
    CRtspSvrConfig config;
    for (const RtpPortRange& bad : std::vector<RtpPortRange>{{40000, 20000}, {20000, 20000}, {0, 100}, {100, 65536}}) {
        EXPECT_EQ(-1, set(config, RTSP_SVR_CONFIG_RTP_PORT, bad));
        EXPECT_EQ(-1, config.SetRtpPort(bad));
    }
    EXPECT_EQ(20000, get<RtpPortRange>(config, RTSP_SVR_CONFIG_RTP_PORT).min_local_port);
    EXPECT_EQ(0, set(config, RTSP_SVR_CONFIG_RTP_PORT, RtpPortRange{1, 65535}));
    EXPECT_EQ(1, get<RtpPortRange>(config, RTSP_SVR_CONFIG_RTP_PORT).min_local_port);
}

// The value that stands decides whether a new one goes in: a bad one goes in once and then stays. Typed setters test
// the new one.
TEST(RtspSvrConfig, DscpAndTimeoutTestTheOldValue) {
    CRtspSvrConfig config;
    EXPECT_EQ(0, set(config, RTSP_SVR_CONFIG_DSCP, 63));
    EXPECT_EQ(0, set(config, RTSP_SVR_CONFIG_DSCP, 100));
    EXPECT_EQ(-1, set(config, RTSP_SVR_CONFIG_DSCP, 10));
    EXPECT_EQ(100, config.GetDSCP());
    EXPECT_EQ(0, set(config, RTSP_SVR_CONFIG_TIMEOUT, 0));
    EXPECT_EQ(0, set(config, RTSP_SVR_CONFIG_TIMEOUT, -1));
    EXPECT_EQ(-1, set(config, RTSP_SVR_CONFIG_TIMEOUT, 30));
    EXPECT_EQ(0, config.SetDscp(63) | config.SetTimeout(0));
    EXPECT_EQ(-1, config.SetDscp(64) & config.SetDscp(-1) & config.SetTimeout(-1));
    EXPECT_EQ(63, config.GetDSCP());
    EXPECT_EQ(-1, set(config, RTSP_SVR_CONFIG_CONFORMANCE, 2));
    EXPECT_FALSE(config.GetConformance());
    EXPECT_EQ(0, config.SetConformance(true));
    EXPECT_EQ(1, get<int>(config, RTSP_SVR_CONFIG_CONFORMANCE));
    EXPECT_EQ(0, config.GetKeepAliveTimeout());
}

TEST(RtspSvrConfig, WrongLengthsAssertAndUnknownItemsAreLogged) {
    const Support::CLogCapture log;
    CRtspSvrConfig config;
    char value[16] = {};
    for (const rtsp_svr_config_t item :
         {RTSP_SVR_CONFIG_AUTH_TYPE, RTSP_SVR_CONFIG_HTTP_AUTH_TYPE, RTSP_SVR_CONFIG_DSCP, RTSP_SVR_CONFIG_TIMEOUT,
          RTSP_SVR_CONFIG_RTP_PORT, RTSP_SVR_CONFIG_URL_FUNC, RTSP_SVR_CONFIG_SRC_FUNC, RTSP_SVR_CONFIG_AUTH_FUNC,
          RTSP_SVR_CONFIG_EVENT_FUNC, RTSP_SVR_CONFIG_ONVIF_USER_GLOBAL, RTSP_SVR_CONFIG_CONFORMANCE}) {
        for (int len : {0, 3}) {
            const Support::CAssertCapture asserts;
            EXPECT_EQ(-1, config.SetConfig(item, value, len));
            EXPECT_EQ(-1, config.GetConfig(item, value, len));
            ASSERT_EQ(len == 0 ? 0u : 2u, asserts.Texts().size()) << item;
            EXPECT_TRUE(len == 0 || asserts.Texts()[0].find("len == sizeof(") == 0) << item;
        }
    }
    EXPECT_EQ(-1, config.SetConfig(RTSP_SVR_CONFIG_DSCP, nullptr, 4));
    int len = 4;
    EXPECT_EQ(-1, config.SetConfig(static_cast<rtsp_svr_config_t>(13), value, len));
    EXPECT_EQ(-1, config.GetConfig(static_cast<rtsp_svr_config_t>(99), value, len));
    EXPECT_EQ(1, log.Count("Vidora::CRtspSvrConfig::SetConfig config:13 unknown\n"));
    EXPECT_EQ(1, log.Count("Vidora::CRtspSvrConfig::GetConfig config:99 unknown\n"));
}

TEST(RtspSvrConfig, CopiesHaveRecordsOfTheirOwn) {
    CRtspSvrConfig config;
    EXPECT_EQ(0, config.SetAuthType(4) | config.SetHttpAuthType(5) | config.SetOnvifUserGlobal(true));
    CRtspSvrConfig copy;
    copy = config;
    config = *&config;
    set(config, RTSP_SVR_CONFIG_AUTH_TYPE, 3);
    EXPECT_EQ(4, copy.GetRtspAuthType());
    EXPECT_EQ(5, copy.GetRtspOverHttpAuthType());
    EXPECT_EQ(3, CRtspSvrConfig(config).GetRtspAuthType());
    EXPECT_EQ(1, get<OnvifUserGlobalConfig>(copy, RTSP_SVR_CONFIG_ONVIF_USER_GLOBAL).enable);
}

}  // namespace
}  // namespace Kavio::Vidora
