#include "Vidora/RtspSvrConfig.h"

#include <cstring>
#include <new>

#include "Tramel/IpText.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

namespace {

const int DEFAULT_MIN_PORT = 20000;
const int DEFAULT_MAX_PORT = 40000;
const int DEFAULT_TIMEOUT_SEC = 60;
const int MAX_DSCP = 63;  // RFC 2474 3: six bits

}  // namespace

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
    int m_conformance = 0;
    void* m_user_data = nullptr;

    // Range tests of the typed setters, which look at the new value.
    static bool is_good(const RtpPortRange& range) {
        return range.min_local_port < range.max_local_port && range.min_local_port >= 1 &&
               range.max_local_port <= Tramel::MAX_PORT;
    }
    static bool is_dscp(int dscp) { return dscp >= 0 && dscp <= MAX_DSCP; }
    static bool is_timeout(int seconds) { return seconds >= 0; }
};

// How an item goes in and comes out.
struct CRtspSvrConfig::Item {
    rtsp_svr_config_t item;
    const char* wants;  // the text of the assertion for a length of another size
    size_t size;        // of the value; 0: any length will do
    int (*set)(Record& record, const void* value);
    void (*get)(const Record& record, void* value);

    bool check_length(int len) const {
        return size == 0 || static_cast<size_t>(len) == size || Ostra::AssertFailed(wants, __FILE__, __LINE__);
    }

    template <auto Member>
    static void copy_out(const Record& record, void* value) {
        std::memcpy(value, &(record.*Member), sizeof(record.*Member));
    }
    template <auto Member>
    static int copy_in(Record& record, const void* value) {
        std::memcpy(&(record.*Member), value, sizeof(record.*Member));
        return 0;
    }
    // The pointer itself is the value. A host hands its functions in as data pointers, which POSIX makes the same size.
    template <auto Member>
    static int take_pointer(Record& record, const void* value) {
        std::memcpy(&(record.*Member), &value, sizeof(value));
        return 0;
    }
    // The value that is stored is tested, not the new one: any value goes in, and after one that is out of range the
    // item can't be set again. Hosts know it so, and it stays.
    template <auto Member, bool (*IsGood)(int)>
    static int copy_over_good(Record& record, const void* value) {
        return IsGood(record.*Member) ? copy_in<Member>(record, value) : -1;
    }
    static int copy_conformance(Record& record, const void* value) {
        int on = 0;
        std::memcpy(&on, value, sizeof(on));
        return on == 0 || on == 1 ? copy_in<&Record::m_conformance>(record, value) : -1;
    }
    static int copy_port_range(Record& record, const void* value) {
        RtpPortRange range;
        std::memcpy(&range, value, sizeof(range));
        return Record::is_good(range) ? copy_in<&Record::m_rtp_port>(record, value) : -1;
    }

    // The row of an item; null for an unknown one.
    static const Item* Find(rtsp_svr_config_t item);
};

const CRtspSvrConfig::Item* CRtspSvrConfig::Item::Find(rtsp_svr_config_t item) {
    typedef Record R;
    static const Item ITEMS[] = {
        {RTSP_SVR_CONFIG_AUTH_TYPE, "len == sizeof(m_rtsp_auth_type)", sizeof(rtsp_auth_t),
         &copy_in<&R::m_rtsp_auth_type>, &copy_out<&R::m_rtsp_auth_type>},
        {RTSP_SVR_CONFIG_HTTP_AUTH_TYPE, "len == sizeof(m_rtsp_over_http_auth_type)", sizeof(rtsp_auth_t),
         &copy_in<&R::m_rtsp_over_http_auth_type>, &copy_out<&R::m_rtsp_over_http_auth_type>},
        {RTSP_SVR_CONFIG_DSCP, "len == sizeof(m_dscp)", sizeof(int), &copy_over_good<&R::m_dscp, &R::is_dscp>,
         &copy_out<&R::m_dscp>},
        {RTSP_SVR_CONFIG_TIMEOUT, "len == sizeof(m_timeout_sec)", sizeof(int),
         &copy_over_good<&R::m_timeout_sec, &R::is_timeout>, &copy_out<&R::m_timeout_sec>},
        {RTSP_SVR_CONFIG_RTP_PORT, "len == sizeof(m_rtp_port)", sizeof(RtpPortRange), &copy_port_range,
         &copy_out<&R::m_rtp_port>},
        {RTSP_SVR_CONFIG_URL_FUNC, "len == sizeof(m_url_func)", sizeof(rtsp_url_func_t), &take_pointer<&R::m_url_func>,
         &copy_out<&R::m_url_func>},
        {RTSP_SVR_CONFIG_SRC_FUNC, "len == sizeof(m_src_func)", sizeof(rtsp_src_func_t), &take_pointer<&R::m_src_func>,
         &copy_out<&R::m_src_func>},
        {RTSP_SVR_CONFIG_AUTH_FUNC, "len == sizeof(m_auth_func)", sizeof(rtsp_auth_func_t),
         &take_pointer<&R::m_auth_func>, &copy_out<&R::m_auth_func>},
        {RTSP_SVR_CONFIG_EVENT_FUNC, "len == sizeof(m_event_func)", sizeof(rtsp_event_func_t),
         &take_pointer<&R::m_event_func>, &copy_out<&R::m_event_func>},
        {RTSP_SVR_CONFIG_USER_DATA, "", 0, &take_pointer<&R::m_user_data>, &copy_out<&R::m_user_data>},
        {RTSP_SVR_CONFIG_ONVIF_USER_GLOBAL, "len == sizeof(struct OnvifUserGlobalConfig)",
         sizeof(OnvifUserGlobalConfig), &copy_in<&R::m_onvif_user_global>, &copy_out<&R::m_onvif_user_global>},
        {RTSP_SVR_CONFIG_CONFORMANCE, "len == sizeof(m_conformance)", sizeof(int), &copy_conformance,
         &copy_out<&R::m_conformance>},
    };
    for (const Item& row : ITEMS) {
        if (row.item == item) {
            return &row;
        }
    }
    return nullptr;
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
    const Item* row = Item::Find(item);
    if (row == nullptr) {
        logError("%s:%d %s config:%d unknown\n", __FILE__, __LINE__, "Vidora::CRtspSvrConfig::SetConfig", item);
        return -1;
    }
    return row->check_length(len) ? row->set(*m_record, value) : -1;
}

int CRtspSvrConfig::GetConfig(rtsp_svr_config_t item, void* value, int& len) const {
    if (value == nullptr || len < 1 || m_record == nullptr) {
        return -1;
    }
    const Item* row = Item::Find(item);
    if (row == nullptr) {
        logError("%s:%d %s config:%d unknown\n", __FILE__, __LINE__, "Vidora::CRtspSvrConfig::GetConfig", item);
        return -1;
    }
    if (!row->check_length(len)) {
        return -1;
    }
    row->get(*m_record, value);
    return 0;
}

template <typename Value>
int CRtspSvrConfig::store(Value Record::*member, const Value& value, bool is_good) {
    if (m_record == nullptr || !is_good) {
        return -1;
    }
    m_record->*member = value;
    return 0;
}

int CRtspSvrConfig::SetAuthType(rtsp_auth_t type) {
    return store(&Record::m_rtsp_auth_type, type);
}

int CRtspSvrConfig::SetHttpAuthType(rtsp_auth_t type) {
    return store(&Record::m_rtsp_over_http_auth_type, type);
}

int CRtspSvrConfig::SetDscp(int dscp) {
    return store(&Record::m_dscp, dscp, Record::is_dscp(dscp));
}

int CRtspSvrConfig::SetTimeout(int seconds) {
    return store(&Record::m_timeout_sec, seconds, Record::is_timeout(seconds));
}

int CRtspSvrConfig::SetRtpPort(const RtpPortRange& range) {
    return store(&Record::m_rtp_port, range, Record::is_good(range));
}

int CRtspSvrConfig::SetUrlFunc(rtsp_url_func_t function) {
    return store(&Record::m_url_func, function);
}

int CRtspSvrConfig::SetSrcFunc(rtsp_src_func_t function) {
    return store(&Record::m_src_func, function);
}

int CRtspSvrConfig::SetAuthFunc(rtsp_auth_func_t function) {
    return store(&Record::m_auth_func, function);
}

int CRtspSvrConfig::SetEventFunc(rtsp_event_func_t function) {
    return store(&Record::m_event_func, function);
}

int CRtspSvrConfig::SetUserData(void* data) {
    return store(&Record::m_user_data, data);
}

int CRtspSvrConfig::SetOnvifUserGlobal(bool enable) {
    return store(&Record::m_onvif_user_global, OnvifUserGlobalConfig{static_cast<uint8_t>(enable ? 1 : 0)});
}

int CRtspSvrConfig::SetConformance(bool on) {
    return store(&Record::m_conformance, on ? 1 : 0);
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

bool CRtspSvrConfig::GetConformance() const {
    return record().m_conformance != 0;
}

}  // namespace Vidora
}  // namespace Kavio
