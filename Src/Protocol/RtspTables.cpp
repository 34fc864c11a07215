#include "Protocol/RtspTables.h"

#include <cstring>

#include "Tramel/TextSearch.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

const rtsp_method_row RTSP_METHODS[] = {
    {"OPTIONS", true},  {"DESCRIBE", true},      {"SETUP", true},         {"PLAY", true},   {"PAUSE", true},
    {"TEARDOWN", true}, {"SET_PARAMETER", true}, {"GET_PARAMETER", true}, {nullptr, false},
};

const rtsp_status_row RTSP_STATUSES[] = {
    {200, "OK"},  // first, as the most frequent
    {100, "Continue"},
    {201, "Created"},
    {250, "Low on Storage Space"},
    {300, "Multiple Choices"},
    {301, "Moved Permanently"},
    {302, "Moved Temporarily"},
    {303, "See Other"},
    {304, "Not Modified"},
    {305, "Use Proxy"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {402, "Payment Required"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {406, "Not Acceptable"},
    {407, "Proxy Authentication Required"},
    {408, "Request Time-out"},
    {410, "Gone"},
    {411, "Length Required"},
    {412, "Precondition Failed"},
    {413, "Request Entity Too Large"},
    {414, "Request-URI Too Large"},
    {415, "Unsupported Media Type"},
    {451, "Parameter Not Understood"},
    {452, "Conference Not Found"},
    {453, "Not Enough Bandwidth"},
    {454, "Session Not Found"},
    {455, "Method Not Valid in This State"},
    {456, "Header Field Not Valid for Resource"},
    {457, "Invalid Range"},
    {458, "Parameter Is Read-Only"},
    {459, "Aggregate operation not allowed"},
    {460, "Only aggregate operation allowed"},
    {461, "Unsupported transport"},
    {462, "Destination unreachable"},
    {500, "Internal Server Error"},
    {501, "Not Implemented"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
    {504, "Gateway Time-out"},
    {505, "RTSP Version not supported"},
    {551, "Option not supported"},
    {0, nullptr},
};

const char* RtspMethodName(int method) {
    return method >= 0 && method < RTSP_METHOD_UNKNOWN ? RTSP_METHODS[method].name : nullptr;
}

int RtspMethodOf(const char* name) {
    int method = 0;
    while (RTSP_METHODS[method].name != nullptr && std::strcmp(RTSP_METHODS[method].name, name) != 0) {
        ++method;
    }
    return method;
}

const char* RtspReason(int status) {
    for (const rtsp_status_row* row = RTSP_STATUSES; row->code != 0; ++row) {
        if (row->code == status) {
            return row->reason;
        }
    }
    return nullptr;
}

const char* RtspFindScheme(const char* text) {
    const size_t found = Tramel::FindTextCase(text, std::strlen(text), RTSP_SCHEME, RTSP_SCHEME_SIZE);
    return found != Tramel::TEXT_NOT_FOUND ? text + found : nullptr;
}

}  // namespace Vidora
}  // namespace Kavio
