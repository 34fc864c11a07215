#ifndef VIDORA_TESTS_SUPPORT_SDPTREE_H
#define VIDORA_TESTS_SUPPORT_SDPTREE_H

#include <sstream>
#include <string>

#include "Protocol/SdpModel.h"

namespace Kavio {
namespace Support {

// All records of a description as text, to compare two trees. Of a connection only what the writer keeps: an IPv4 ttl
// and count when the count is above 1, and no count of another family, nor blanks in an address that had a ttl.
class CSdpTree {
public:
    static std::string Dump(const Vidora::sdp_session_t& session) {
        CSdpTree tree;
        tree.m_out << "version " << session.version << '\n';
        const Vidora::sdp_origin_t& o = session.origin;
        tree.m_out << "origin " << Text(o.username) << ' ' << o.session_id << ' ' << o.session_version << ' '
                   << Text(o.network_type) << ' ' << Text(o.address_type) << ' ' << Text(o.address) << '\n';
        tree.m_out << "name " << Text(session.name) << " info " << Text(session.info) << " uri " << Text(session.uri);
        tree.texts("\nemails", session.emails);
        tree.texts("phones", session.phones);
        for (const Vidora::sdp_time_t& time : session.times) {
            tree.m_out << "time " << time.start << ' ' << time.stop << '\n';
        }
        for (const Vidora::sdp_zone_t& zone : session.zones) {
            tree.m_out << "zone " << zone.time << ' ' << Text(zone.offset) << '\n';
        }
        tree.common(session);
        for (const Vidora::sdp_media_t& media : session.media) {
            tree.m_out << "media " << media.track_id << " [" << media.control << "] " << Text(media.type) << ' '
                       << media.port << '/' << media.port_count << ' ' << Text(media.protocol) << ' '
                       << media.payload_type << " info " << Text(media.info);
            tree.texts(" formats", media.formats);
            tree.common(media);
        }
        return tree.m_out.str();
    }

private:
    static std::string Text(const char* text) {
        return text != nullptr ? "'" + std::string(text) + "'" : std::string("null");
    }

    void texts(const char* title, const Vidora::sdp_list<Vidora::CSdpText>& list) {
        m_out << title;
        for (const Vidora::CSdpText& text : list) {
            m_out << ' ' << Text(text);
        }
        m_out << '\n';
    }

    // What the session and a media both have.
    template <typename Record>
    void common(const Record& record) {
        for (const Vidora::sdp_connection_t& c : record.connections) {
            std::string address = Text(c.address);
            m_out << "connection " << Text(c.network_type) << ' ' << Text(c.address_type);
            m_out << ' ' << address.substr(0, address.find_first_of(" \t\v\f\r'", 1));
            if (c.address_type.Equals("IP4") && c.address_count > 1) {
                m_out << ' ' << int{c.ttl} << ' ' << c.address_count;
            }
            m_out << '\n';
        }
        for (const Vidora::sdp_bandwidth_t& bandwidth : record.bandwidths) {
            m_out << "bandwidth " << Text(bandwidth.modifier) << ' ' << bandwidth.value << '\n';
        }
        m_out << "key " << Text(record.key.method) << ' ' << Text(record.key.value) << '\n';
        for (const Vidora::sdp_attribute_t& attribute : record.attributes) {
            m_out << "attribute " << Text(attribute.name) << ' ' << Text(attribute.value) << '\n';
        }
    }

    std::ostringstream m_out;
};

}  // namespace Support
}  // namespace Kavio

#endif  // VIDORA_TESTS_SUPPORT_SDPTREE_H
