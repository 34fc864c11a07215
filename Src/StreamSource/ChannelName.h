#ifndef VIDORA_STREAMSOURCE_CHANNELNAME_H
#define VIDORA_STREAMSOURCE_CHANNELNAME_H

#include <memory>

namespace Kavio {
namespace Vidora {

// CChannelName: the name of a channel, as its messages carry it: a pointer that may be read when the channel has gone.
// Names of channels that have gone are kept until as many others have gone after them as KEPT says, and freed then.
//
// THREADING  A value: one object is used by one thread at a time.
// MEMORY     KEPT names of at most MAX_LENGTH bytes beside those of living channels.
class CChannelName {
public:
    static const int KEPT = 1024;
    static const int MAX_LENGTH = 255;

    CChannelName() = default;
    ~CChannelName();
    CChannelName(const CChannelName&) = delete;
    CChannelName& operator=(const CChannelName&) = delete;

    // Takes at most MAX_LENGTH characters. False, with the name as it was, if memory is short.
    bool Set(const char* name);
    const char* Get() const { return m_text == nullptr ? "" : m_text.get(); }

private:
    std::unique_ptr<char[]> m_text;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_CHANNELNAME_H
