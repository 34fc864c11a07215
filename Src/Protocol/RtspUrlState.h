#ifndef VIDORA_PROTOCOL_RTSPURLSTATE_H
#define VIDORA_PROTOCOL_RTSPURLSTATE_H

#include <atomic>
#include <cstddef>
#include <map>
#include <string>

#include "Tramel/StrParser.h"
#include "Vidora/RtspUrlParser.h"

namespace Kavio {
namespace Vidora {

class CTextWriter;

const unsigned int URL_SIZE = 512;       // room of a URL or content, its final NUL included
const unsigned int URL_HOST_SIZE = 128;  // room of a host name or address
const unsigned int URL_FILE_SIZE = 128;  // room of a file name
const unsigned int URL_WORD_SIZE = 64;   // room of the value of "ServiceType=" and "proto="

// CRtspUrlParser::CState: what the objects that were assigned to one another share.
//
// Reading cuts texts where their buffers end; only the standard containers allocate, and the operations of
// CRtspUrlParser catch what they throw.
class CRtspUrlParser::CState {
public:
    // The part of the state that exists once for the server (index 0) and once for the upstream server (index 1).
    struct peer_t {
        char (&addr)[URL_HOST_SIZE];
        int& port;
        bool& has_addr;
        bool& has_auth;
        std::string& user;
        std::string& password;
    };

    // Touches no buffer but its first byte: each DESCRIBE makes two of these.
    CState() {}

    static bool is_index(int index) { return index == 0 || index == 1; }
    peer_t peer(int index);

    bool parse_url(const char* url, unsigned int length);
    bool parse_content(const char* content, unsigned int length);

    // Write into m_url, m_raw_content and m_proxy_url.
    char* generate_url(const char* content);
    char* generate_content(const char* content);
    char* generate_proxy_url();

    char m_url[URL_SIZE];
    char m_raw_content[URL_SIZE];
    char m_content[URL_SIZE];
    char m_proxy_url[URL_SIZE];
    identifier_t m_identifier;
    bool m_has_identifier = false;
    playback_info m_playback;
    bool m_has_playback = false;
    char m_file_name[URL_FILE_SIZE];
    bool m_has_file = false;
    bool m_has_auth[2] = {false, false};
    char m_addr[URL_HOST_SIZE];
    int m_port = 0;
    bool m_has_addr = false;
    char m_proxy_addr[URL_HOST_SIZE];
    int m_proxy_port = 0;
    bool m_has_proxy_addr = false;
    bool m_has_params = false;
    src_type_t m_src_type = SRC_TYPE_NONE;
    std::map<std::string, std::string> m_params;
    bool m_parsed = false;
    bool m_is_proxy = false;
    bool m_first_param = true;
    std::string m_user;
    std::string m_password;
    std::string m_proxy_user;
    std::string m_proxy_password;
    int m_local_stream_proto = 0;

    std::atomic<int> m_ref_count{1};

private:
    typedef int (CState::*form_reader_t)(CStrParser& parser);
    struct form_row;
    static const form_row FORMS[];
    struct src_row;
    static const src_row SOURCES[];

    static int find_credentials(CStrParser& parser, int after_scheme);
    static int parser_auth_info(CStrParser& parser, int end, std::string& user, std::string& password);
    static int parser_connect_info(CStrParser& parser, char* host, unsigned int size, int& port);

    void remove_expand_info();
    static void remove_one_info(CStrParser& parser, int position, const char* source, char* out, unsigned int size);
    void parser_service_type(CStrParser& parser, char (&out)[URL_SIZE]);
    void parser_src_type(CStrParser& parser);
    void parse_proxied_type(CStrParser& parser);
    int parser_identifier_info(CStrParser& parser);
    int read_live(CStrParser& parser);
    int read_token(CStrParser& parser);
    int read_playback(CStrParser& parser);
    int read_file(CStrParser& parser);
    bool parse_proxy(CStrParser& parser);

    void write_proxy(CTextWriter& writer) const;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_PROTOCOL_RTSPURLSTATE_H
