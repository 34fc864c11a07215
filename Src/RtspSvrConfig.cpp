#include "Vidora/RtspSvrConfig.h"

#include <cstring>
#include <new>

#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

namespace {

const int DEFAULT_MIN_PORT = 20000;
const int DEFAULT_MAX_PORT = 40000;
const int DEFAULT_TIMEOUT_SEC = 60;
const int MAX_DSCP = 63;  // RFC 2474 3: six bits
const int MAX_PORT = 65535;

// A host hands its functions in as data pointers, which POSIX makes the same size.
template <typename Function>
Function function_of(const void* value) {
    return reinterpret_cast<Function>(const_cast<void*>(value));
}

template <typename Field>
int load(Field& field, const void* value) {
    std::memcpy(&field, value, sizeof(field));
    return 0;
}

template <typename Field>
int store(void* value, const Field& field) {
    std::memcpy(value, &field, sizeof(field));
    return 0;
}

}  // namespace

// The length tests stand here, where the assertions' texts are the expressions themselves.
struct CRtspSvrConfig::Record {
    RtpPortRange m_rtp_port{DEFAULT_MIN_PORT, DEFAULT_MAX_PORT};
    rtsp_auth_t m_rtsp_auth_type = 0;
    rtsp_auth_t m_rtsp_over_http_auth_type = 0;
    int m_dscp = 0;
    int m_timeout_sec = DEFAULT_TIMEOUT_SEC;
    rtsp_url_func_t m_url_func = nullptr;
    rtsp_src_func_t m_src_func = nullptr;
    rtsp_auth_func_t m_auth_func = nullptr;
    rtsp_event_func_t m_event_func = nullptr;
    OnvifUserGlobalConfig m_onvif_user_global{0};
    void* m_user_data = nullptr;

    bool check_length(rtsp_svr_config_t item, size_t len) const;
    int set(rtsp_svr_config_t item, const void* value);
    int get(rtsp_svr_config_t item, void* value) const;
    int set_port(const void* value);
};

bool CRtspSvrConfig::Record::check_length(rtsp_svr_config_t item, size_t len) const {
    switch (item) {
        case RTSP_SVR_CONFIG_AUTH_TYPE:
            return OSTRA_ASSERT(len == sizeof(m_rtsp_auth_type));
        case RTSP_SVR_CONFIG_HTTP_AUTH_TYPE:
            return OSTRA_ASSERT(len == sizeof(m_rtsp_over_http_auth_type));
        case RTSP_SVR_CONFIG_DSCP:
            return OSTRA_ASSERT(len == sizeof(m_dscp));
        case RTSP_SVR_CONFIG_TIMEOUT:
            return OSTRA_ASSERT(len == sizeof(m_timeout_sec));
        case RTSP_SVR_CONFIG_RTP_PORT:
            return OSTRA_ASSERT(len == sizeof(m_rtp_port));
        case RTSP_SVR_CONFIG_URL_FUNC:
            return OSTRA_ASSERT(len == sizeof(m_url_func));
        case RTSP_SVR_CONFIG_SRC_FUNC:
            return OSTRA_ASSERT(len == sizeof(m_src_func));
        case RTSP_SVR_CONFIG_AUTH_FUNC:
            return OSTRA_ASSERT(len == sizeof(m_auth_func));
        case RTSP_SVR_CONFIG_EVENT_FUNC:
            return OSTRA_ASSERT(len == sizeof(m_event_func));
        case RTSP_SVR_CONFIG_ONVIF_USER_GLOBAL:
            return OSTRA_ASSERT(len == sizeof(struct OnvifUserGlobalConfig));
        case RTSP_SVR_CONFIG_USER_DATA:
            break;
    }
    return true;
}

int CRtspSvrConfig::Record::set(rtsp_svr_config_t item, const void* value) {
    switch (item) {
        case RTSP_SVR_CONFIG_AUTH_TYPE:
            return load(m_rtsp_auth_type, value);
        case RTSP_SVR_CONFIG_HTTP_AUTH_TYPE:
            return load(m_rtsp_over_http_auth_type, value);
        case RTSP_SVR_CONFIG_DSCP:
            // The value that stands is tested, not the new one: any value goes in, and after one that is out of range
            // the item can't be set again. Hosts know it so, and it stays. The same holds for the time-out.
            return m_dscp >= 0 && m_dscp <= MAX_DSCP ? load(m_dscp, value) : -1;
        case RTSP_SVR_CONFIG_TIMEOUT:
            return m_timeout_sec >= 0 ? load(m_timeout_sec, value) : -1;
        case RTSP_SVR_CONFIG_RTP_PORT:
            return set_port(value);
        case RTSP_SVR_CONFIG_URL_FUNC:
            m_url_func = function_of<rtsp_url_func_t>(value);
            return 0;
        case RTSP_SVR_CONFIG_SRC_FUNC:
            m_src_func = function_of<rtsp_src_func_t>(value);
            return 0;
        case RTSP_SVR_CONFIG_AUTH_FUNC:
            m_auth_func = function_of<rtsp_auth_func_t>(value);
            return 0;
        case RTSP_SVR_CONFIG_EVENT_FUNC:
            m_event_func = function_of<rtsp_event_func_t>(value);
            return 0;
        case RTSP_SVR_CONFIG_USER_DATA:
            m_user_data = const_cast<void*>(value);
            return 0;
        case RTSP_SVR_CONFIG_ONVIF_USER_GLOBAL:
            return load(m_onvif_user_global, value);
    }
    logError("%s:%d %s config:%d unknown\n", __FILE__, __LINE__, "Vidora::CRtspSvrConfig::SetConfig", item);
    return -1;
}

int CRtspSvrConfig::Record::set_port(const void* value) {
    RtpPortRange range;
    load(range, value);
    if (range.min_local_port >= range.max_local_port || range.min_local_port < 1 || range.max_local_port > MAX_PORT) {
        return -1;
    }
    m_rtp_port = range;
    return 0;
}

int CRtspSvrConfig::Record::get(rtsp_svr_config_t item, void* value) const {
    switch (item) {
        case RTSP_SVR_CONFIG_AUTH_TYPE:
            return store(value, m_rtsp_auth_type);
        case RTSP_SVR_CONFIG_HTTP_AUTH_TYPE:
            return store(value, m_rtsp_over_http_auth_type);
        case RTSP_SVR_CONFIG_DSCP:
            return store(value, m_dscp);
        case RTSP_SVR_CONFIG_TIMEOUT:
            return store(value, m_timeout_sec);
        case RTSP_SVR_CONFIG_RTP_PORT:
            return store(value, m_rtp_port);
        case RTSP_SVR_CONFIG_URL_FUNC:
            return store(value, m_url_func);
        case RTSP_SVR_CONFIG_SRC_FUNC:
            return store(value, m_src_func);
        case RTSP_SVR_CONFIG_AUTH_FUNC:
            return store(value, m_auth_func);
        case RTSP_SVR_CONFIG_EVENT_FUNC:
            return store(value, m_event_func);
        case RTSP_SVR_CONFIG_USER_DATA:
            return store(value, m_user_data);
        case RTSP_SVR_CONFIG_ONVIF_USER_GLOBAL:
            return store(value, m_onvif_user_global);
    }
    logError("%s:%d %s config:%d unknown\n", __FILE__, __LINE__, "Vidora::CRtspSvrConfig::GetConfig", item);
    return -1;
}

CRtspSvrConfig::CRtspSvrConfig() : m_record(new (std::nothrow) Record) {}

CRtspSvrConfig::~CRtspSvrConfig() {
    delete m_record;
}

CRtspSvrConfig::CRtspSvrConfig(const CRtspSvrConfig& other) : CRtspSvrConfig() {
    *this = other;
}

CRtspSvrConfig& CRtspSvrConfig::operator=(const CRtspSvrConfig& other) {
    if (this != &other && m_record != nullptr) {
        *m_record = other.record();
    }
    return *this;
}

const CRtspSvrConfig::Record& CRtspSvrConfig::defaults() {
    static const Record record;
    return record;
}

// What the readers look at: the defaults if there was no memory for a record of its own.
const CRtspSvrConfig::Record& CRtspSvrConfig::record() const {
    return m_record != nullptr ? *m_record : defaults();
}

int CRtspSvrConfig::SetConfig(rtsp_svr_config_t item, const void* value, int len) {
    if (value == nullptr || len < 1 || m_record == nullptr) {
        return -1;
    }
    return m_record->check_length(item, static_cast<size_t>(len)) ? m_record->set(item, value) : -1;
}

int CRtspSvrConfig::GetConfig(rtsp_svr_config_t item, void* value, int& len) const {
    if (value == nullptr || len < 1 || m_record == nullptr) {
        return -1;
    }
    return m_record->check_length(item, static_cast<size_t>(len)) ? m_record->get(item, value) : -1;
}

rtsp_auth_t CRtspSvrConfig::GetRtspAuthType() const {
    return record().m_rtsp_auth_type;
}

rtsp_auth_t CRtspSvrConfig::GetRtspOverHttpAuthType() const {
    return record().m_rtsp_over_http_auth_type;
}

int CRtspSvrConfig::GetDSCP() const {
    return record().m_dscp;
}

int CRtspSvrConfig::GetKeepAliveTimeout() const {
    return record().m_timeout_sec;
}

int CRtspSvrConfig::GetRtpPort(RtpPortRange& range) const {
    range = record().m_rtp_port;
    return 0;
}

rtsp_url_func_t CRtspSvrConfig::GetUrlFunc() const {
    return record().m_url_func;
}

rtsp_src_func_t CRtspSvrConfig::GetSrcFunc() const {
    return record().m_src_func;
}

rtsp_auth_func_t CRtspSvrConfig::GetAuthFunc() const {
    return record().m_auth_func;
}

rtsp_event_func_t CRtspSvrConfig::GetEventFunc() const {
    return record().m_event_func;
}

}  // namespace Vidora
}  // namespace Kavio
