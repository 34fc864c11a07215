#include "Protocol/SdpModel.h"

#include <algorithm>
#include <cstring>

#include "Tramel/StrParser.h"

namespace Kavio {
namespace Vidora {

bool CSdpText::Set(const char* text) {
    return text != nullptr && Set(text, std::strlen(text));
}

bool CSdpText::Set(const char* text, size_t length) {
    char* copy = text != nullptr ? new (std::nothrow) char[length + 1] : nullptr;
    if (copy == nullptr) {
        return false;
    }
    std::memcpy(copy, text, length);
    copy[length] = '\0';
    Reset();
    m_text = copy;
    return true;
}

bool CSdpText::Equals(const char* text) const {
    return m_text != nullptr && text != nullptr && std::strcmp(m_text, text) == 0;
}

bool CSdpText::StartsWith(const char* prefix) const {
    return m_text != nullptr && std::strncmp(m_text, prefix, std::strlen(prefix)) == 0;
}

const sdp_attribute_t* SdpFindAttribute(const sdp_list<sdp_attribute_t>& list, const char* name) {
    for (const sdp_attribute_t& attribute : list) {
        if (attribute.name.Equals(name)) {
            return &attribute;
        }
    }
    return nullptr;
}

bool SdpSetAttribute(sdp_list<sdp_attribute_t>& list, const char* name, const char* value) {
    CSdpText text;
    if (value != nullptr && !text.Set(value)) {
        return false;
    }
    for (sdp_attribute_t& attribute : list) {
        if (attribute.name.Equals(name)) {
            attribute.value = std::move(text);
            return true;
        }
    }
    sdp_attribute_t added;
    added.value = std::move(text);
    return added.name.Set(name) && list.append(std::move(added)) != nullptr;
}

bool SdpAddText(sdp_list<CSdpText>& list, const char* text) {
    CSdpText added;
    return added.Set(text) && list.append(std::move(added)) != nullptr;
}

bool SdpAddFormat(sdp_media_t& media, const char* format) {
    if (!SdpAddText(media.formats, format)) {
        return false;
    }
    Tramel::CStrParser parser(format);
    const int number = parser.ConsumeInt32();
    media.payload_type = parser.GetStatus() == 0 ? number : media.payload_type;
    return true;
}

void SdpSetControl(sdp_media_t& media, const char* control) {
    const char* text = control != nullptr ? control : "";
    const size_t length = ::strnlen(text, sizeof(media.control) - 1);
    std::memcpy(media.control, text, length);
    media.control[length] = '\0';
}

}  // namespace Vidora
}  // namespace Kavio
